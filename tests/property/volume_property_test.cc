// Random changes to whole volumes, against a model.
//
// KVFS_PROPERTY_ROUNDS makes a run longer (default 1: seconds), KVFS_PROPERTY_OPERATIONS is the number of changes of a
// volume, and KVFS_PROPERTY_SEED is the first volume's seed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "allocation_fixture.h"
#include "big_endian.h"
#include "property/random.h"
#include "property/volume_model.h"
#include "stored_names.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

struct NamingRandom : Random {
  using Random::Random;
  unsigned names = 0;  // given out so far
};

// A name of ASCII characters that no other name of the volume equals, however it is cased.
Name random_name(NamingRandom& random) {
  std::string name = std::to_string(++random.names);
  for (std::uint32_t i = below(random, 14); i > 0; --i) {
    name += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ -_."[below(random, 56)];
  }
  name += "x";
  return to_utf16(name);
}

std::uint32_t add_random_file(VolumeDescription& description, std::uint32_t parent, NamingRandom& random) {
  const std::uint32_t blocks = below(random, 3) == 0 ? 0 : 1 + below(random, 12);
  const std::uint32_t extents = below(random, 4) == 0 ? 1 + below(random, 4) : 1;
  return description.add_file(parent, random_name(random), std::uint64_t{blocks} * description.block_size, extents);
}

Volume random_volume(NamingRandom& random) {
  static constexpr std::uint32_t kBlockSizes[] = {512, 1024, 4096};
  VolumeDescription description;
  description.block_size = kBlockSizes[below(random, 3)];
  description.allocation_file_in_chunks = true;
  description.hfsx = below(random, 2) == 0;
  description.case_sensitive = description.hfsx && below(random, 2) == 0;
  description.folder_counts = below(random, 2) == 0;
  description.spare_blocks = 40 + below(random, 600);
  description.catalog.node_size = below(random, 3) == 0 ? 8192 : 4096;
  description.catalog.spare_nodes = 6 + below(random, 10);
  description.catalog.clump_size =
      (1 + below(random, 8)) * std::max(description.catalog.node_size, description.block_size);
  description.startup_blocks = below(random, 20);
  std::vector<std::uint32_t> folders = {kRootFolderId};
  for (unsigned i = 0; i < 12; ++i) {
    const std::uint32_t parent = folders[below(random, static_cast<std::uint32_t>(folders.size()))];
    folders.push_back(description.add_folder(parent, random_name(random)));
  }
  for (unsigned i = 0; i < 80; ++i) {
    (void)add_random_file(description, folders[below(random, 13)], random);
  }
  description.item(add_random_file(description, kRootFolderId, random)).resource.size = 3 * description.block_size;
  description.item(add_random_file(description, folders[1], random)).with_thread = false;
  const std::uint32_t pieces = description.add_overflow_records(1);
  description.item(pieces).data.gap_blocks = 2;
  Volume volume = build_volume(description);
  volume.set_field("startupFile.clumpSize", (1 + below(random, 24)) * description.block_size);
  return volume;
}

// ---- One volume under change ---------------------------------------------------------------------------------------

class ChangingVolume {
 public:
  // With `sound_files` a file in several extents is not made a link: it would keep those that are not the link's.
  explicit ChangingVolume(unsigned long seed, bool sound_files = false)
      : random_(static_cast<Random::result_type>(seed)),
        sound_files_(sound_files),
        image_(random_volume(random_)),
        model_(image_) {
    open();
    startup_bytes_.assign(model_.startup.total, 0);
  }

  // Makes a random change. Returns its name, empty when the model does not allow it now.
  std::string change();
  // Compares the volume with the model.
  void compare();

  // What the volume holds after the last comparison, and the model of it.
  [[nodiscard]] const Volume& image() const { return image_; }
  [[nodiscard]] const VolumeModel& model() const { return model_; }

 private:
  using Change = std::string (ChangingVolume::*)();

  void open();
  std::string reopen();
  std::string set_label();
  std::string rename();
  std::string erase();
  std::string make_link();
  std::string insert_file();
  std::string insert_folder();
  std::string expand_catalog();
  std::string expand_startup();
  std::string shrink_startup();

  // Expects exactly these messages of what ran since the capture began. An index record that is added behind the last
  // one of its node meets the locator of its own search there: the tree warns of that, which is left out.
  static void expect_log(LogCapture& log, const Lines& expected);

  [[nodiscard]] std::uint32_t any_folder() {
    return any([](const ModelItem& item) { return item.folder; });
  }
  template <typename Condition>
  std::uint32_t any(Condition condition);
  [[nodiscard]] bool is_below(std::uint32_t item, std::uint32_t folder) const;
  [[nodiscard]] bool has_room();
  [[nodiscard]] bool leaves_no_empty_node(const RecordPlace& place) const;
  [[nodiscard]] bool can_be_removed(std::uint32_t cnid) const;
  [[nodiscard]] kvfs_catalog_record_locator* find(std::uint32_t cnid);
  [[nodiscard]] bool insert_record(const Bytes& key, const Bytes& data);
  std::string insert(bool folder);
  [[nodiscard]] Lines free_data_fork(const ModelItem& item, std::uint32_t* freed);
  void write_startup(std::uint32_t first);
  [[nodiscard]] bool is_usable(const ModelRun& run) const;
  static kvfs_result failure_with(const ModelRun& run);
  [[nodiscard]] Lines messages_with(const ModelRun& run) const;

  NamingRandom random_;
  bool sound_files_;
  Volume image_;
  VolumeModel model_;
  std::unique_ptr<OpenVolume> volume_;
  std::vector<std::uint8_t> startup_bytes_;               // the first byte of each block of the startup file
  std::map<std::uint32_t, std::string> targets_;          // of the links that were made
  std::map<std::uint32_t, std::uint32_t> target_blocks_;  // of the same
};

void ChangingVolume::open() {
  volume_.reset();
  volume_ = std::make_unique<OpenVolume>(image_);
  (void)volume_->fork(SpecialFile::kStartup);
}

std::string ChangingVolume::reopen() {
  open();
  return "reopen";
}

void ChangingVolume::expect_log(LogCapture& log, const Lines& expected) {
  Lines lines;
  for (const LogLine& line : log.lines()) {
    if (line.level != "WARNING" || line.function != "kvfs_btree_record_locator_open") {
      lines.push_back(to_string(line));
    }
  }
  EXPECT_EQ(lines, expected);
}

// An item for which the condition holds; 0 when there is none.
template <typename Condition>
std::uint32_t ChangingVolume::any(Condition condition) {
  std::vector<std::uint32_t> found;
  for (const auto& [cnid, item] : model_.items) {
    if (condition(item)) {
      found.push_back(cnid);
    }
  }
  return found.empty() ? 0 : found[below(random_, static_cast<std::uint32_t>(found.size()))];
}

bool ChangingVolume::is_below(std::uint32_t item, std::uint32_t folder) const {
  while (item != folder && item != kRootFolderId) {
    item = model_.items.at(item).parent;
  }
  return item == folder;
}

// An insertion that finds no free node stops half-way, so that it is made only where enough of them are left.
bool ChangingVolume::has_room() {
  return image_.get_field("catalog.header.freeNodes") > 2 * image_.get_field("catalog.header.treeDepth");
}

// A node that becomes empty stays in the tree, where searches fail in it.
bool ChangingVolume::leaves_no_empty_node(const RecordPlace& place) const {
  const std::vector<RecordPlace> path = image_.index_path(Tree::kCatalog, place.node);
  return image_.record_count(Tree::kCatalog, place.node) > 2 &&
         std::all_of(path.begin(), path.end(),
                     [this](const RecordPlace& index) { return image_.record_count(Tree::kCatalog, index.node) > 1; });
}

bool ChangingVolume::can_be_removed(std::uint32_t cnid) const {
  const ModelItem& item = model_.items.at(cnid);
  const std::optional<RecordPlace> thread = image_.find_thread(cnid);
  return leaves_no_empty_node(*image_.find_entry(item.parent, item.name)) && (!thread || leaves_no_empty_node(*thread));
}

// A locator of an item, with that of its folder.
kvfs_catalog_record_locator* ChangingVolume::find(std::uint32_t cnid) {
  const ModelItem& item = model_.items.at(cnid);
  HFSPlusCatalogKey key = {};
  const Bytes bytes = catalog_key(item.parent, item.name);
  std::memcpy(&key, bytes.data(), bytes.size());
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  EXPECT_EQ(kvfs_catalog_search_node(volume_->catalog(), &key, &found), kvfs_ok);
  EXPECT_NE(found.found, 0u);
  kvfs_catalog_search_result folder;
  kvfs_catalog_search_result_init(&folder);
  EXPECT_EQ(kvfs_catalog_search_by_cnid(volume_->catalog(), item.parent, true, &folder), kvfs_ok);
  EXPECT_NE(folder.found, 0u);
  EXPECT_EQ(kvfs_catalog_record_locator_set_parent_locator(found.locator, folder.locator), kvfs_ok);
  kvfs_catalog_search_result_release(&folder);
  return found.locator;
}

// ---- Changes -------------------------------------------------------------------------------------------------------

std::string ChangingVolume::set_label() {
  if (!has_room() || !can_be_removed(kRootFolderId)) {
    return {};
  }
  const Name label = random_name(random_);
  const std::vector<kvfs_be16> units = stored_units(label);
  LogCapture log;
  EXPECT_EQ(kvfs_volume_set_label(volume_->get(), units.data(), units.size()), kvfs_ok);
  expect_log(log, {});
  model_.items.at(kRootFolderId).name = label;
  return "set the label " + to_utf8(label);
}

// The locator of the old folder stays where it is while the item's record is deleted. That is right as long as the
// folder's own record lies before the item's, as it does while every folder has a higher ID than the one it is in.
std::string ChangingVolume::rename() {
  const std::uint32_t cnid = any([](const ModelItem& item) { return item.parent != kRootParentId; });
  const std::uint32_t target = any_folder();
  ModelItem& item = model_.items.at(cnid);
  const bool impossible = item.folder && (is_below(target, cnid) || target > cnid);
  if (impossible || !has_room() || !can_be_removed(cnid)) {
    return {};
  }
  const Name name = random_name(random_);
  const std::vector<kvfs_be16> units = stored_units(name);
  kvfs_catalog_record_locator* locator = find(cnid);
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_rename_record(volume_->catalog(), &locator, kvfs_be32::of(target), units.data(), units.size()),
            kvfs_ok);
  EXPECT_EQ(locator, nullptr);
  expect_log(log, item.has_thread ? Lines{}
                                  : Lines{"WARNING kvfs_catalog_rename_record Missing thread record for original file "
                                          "in rename. Creating new thread record...\n"});
  item.parent = target;
  item.name = name;
  item.has_thread = true;
  return "rename " + std::to_string(cnid) + " to " + std::to_string(target) + "/" + to_utf8(name);
}

// Frees what a deletion frees: the blocks of the eight extents up to the first one that is free already.
Lines ChangingVolume::free_data_fork(const ModelItem& item, std::uint32_t* freed) {
  const std::uint32_t blocks = std::min(item.data.total, item.data.blocks_in_extents());
  for (*freed = 0; *freed < blocks; ++*freed) {
    const std::uint32_t block = item.data.block(*freed);
    if (!model_.free_block(block)) {
      return {"ERROR FreeExtentAllocationBlocks Error while freeing allocation block " + std::to_string(block) + ".\n",
              "ERROR kvfs_catalog_delete Error while freeing allocation blocks of deleted file on cleanup.\n"};
    }
  }
  return {};
}

std::string ChangingVolume::erase() {
  const std::uint32_t cnid = any([](const ModelItem& item) { return item.parent != kRootParentId && item.has_thread; });
  const ModelItem item = model_.items.at(cnid);
  const bool deletable = !item.folder || model_.is_empty(cnid);
  kvfs_catalog_record_locator* locator = find(cnid);
  int can_delete = 7;
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume_->catalog(), locator, &can_delete), kvfs_ok);
  EXPECT_EQ(can_delete, deletable ? 1 : 0) << cnid;
  const bool erased = deletable && has_room() && can_be_removed(cnid);
  bool stopped = false;
  if (erased) {
    std::uint32_t freed = 0;
    const Lines expected = item.folder ? Lines{} : free_data_fork(item, &freed);
    stopped = !expected.empty();
    LogCapture log;
    EXPECT_EQ(kvfs_catalog_delete(volume_->catalog(), volume_->get(), locator), kvfs_ok);
    expect_log(log, expected);
    model_.free_blocks += freed;
    (item.folder ? model_.folder_count : model_.file_count) -= 1;
    if (!item.data.overflow.empty()) {
      model_.orphans.push_back(cnid);
    }
    model_.items.erase(cnid);
    targets_.erase(cnid);
  }
  kvfs_catalog_record_locator_close(&locator);
  return erased ? (stopped ? "delete without freeing all blocks " : "delete ") + std::to_string(cnid) : std::string();
}

std::string ChangingVolume::make_link() {
  const std::uint32_t cnid = any([this](const ModelItem& item) {
    const bool in_pieces = !item.data.overflow.empty() || (sound_files_ && item.data.extents[1].block_count != 0);
    return !item.folder && !item.is_link && !in_pieces;
  });
  if (cnid == 0) {
    return {};
  }
  ModelItem& item = model_.items.at(cnid);
  const ModelRun run = model_.run_behind(item.data, 0, model_.block_size);
  if (run.count == 0 || model_.is_owned(run)) {
    return {};  // blocks that look free although they belong to something would be overwritten
  }
  const Name target = random_name(random_);
  const std::vector<kvfs_be16> units = stored_units(target);
  kvfs_catalog_record_locator* locator = find(cnid);
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_mksymlink(locator, units.data(), units.size(), volume_->get()), kvfs_ok);
  expect_log(log, {});
  kvfs_catalog_record_locator_close(&locator);
  model_.allocate(run);
  item.is_link = true;
  item.data.extents[0] = {run.start, 1};
  item.data.total = 1;
  item.data.size = target.size();
  targets_[cnid] = to_utf8(target);
  target_blocks_[cnid] = run.start;
  return "make " + std::to_string(cnid) + " a link";
}

bool ChangingVolume::insert_record(const Bytes& key, const Bytes& data) {
  HFSPlusCatalogKey stored = {};
  std::memcpy(&stored, key.data(), key.size());
  kvfs_catalog_record_locator* locator = nullptr;
  const kvfs_result result = kvfs_catalog_insert_record(volume_->catalog(), &stored, data.data(),
                                                        static_cast<std::uint16_t>(data.size()), nullptr, &locator);
  EXPECT_EQ(result, kvfs_ok);
  if (result == kvfs_ok) {
    kvfs_catalog_record_locator_close(&locator);
  }
  return result == kvfs_ok;
}

std::string ChangingVolume::insert(bool folder) {
  if (!has_room()) {
    return {};
  }
  const std::uint32_t cnid = model_.next_id;
  const std::uint32_t parent = any_folder();
  const Name name = random_name(random_);
  Bytes data(folder ? 88 : 248);
  put_be(data, 0, 2, folder ? 1 : 2);
  put_be(data, 8, 4, cnid);
  put_be(data, 42, 2, folder ? 040755 : 0100644);
  LogCapture log;
  if (insert_record(catalog_key(parent, name), data) &&
      insert_record(thread_key(cnid), thread_data(folder, parent, name))) {
    kvfs_catalog_search_result found;
    kvfs_catalog_search_result_init(&found);
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume_->catalog(), parent, true, &found), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_increment_valence(volume_->catalog(), data.data(), found.locator), kvfs_ok);
    kvfs_catalog_search_result_release(&found);
  }
  expect_log(log, {});
  (folder ? kvfs_volume_add_folder_count : kvfs_volume_add_file_count)(volume_->get(), 1);
  kvfs_volume_increment_next_catalog_id(volume_->get());
  (folder ? model_.folder_count : model_.file_count) += 1;
  model_.next_id += 1;
  ModelItem item;
  item.parent = parent;
  item.name = name;
  item.folder = folder;
  model_.items[cnid] = item;
  return "insert " + std::to_string(cnid);
}

std::string ChangingVolume::insert_file() {
  return insert(false);
}

std::string ChangingVolume::insert_folder() {
  return insert(true);
}

// Whether an expansion can take a run: there is one, it needs no ninth extent, and all of it is marked as free.
bool ChangingVolume::is_usable(const ModelRun& run) const {
  return run.count != 0 && run.index < 8 && model_.first_used(run) == run.start + run.count;
}

// What an expansion gives that finds no run, or one that it cannot use.
kvfs_result ChangingVolume::failure_with(const ModelRun& run) {
  return run.index >= 8 ? kvfs_unsupported_extents : run.count == 0 ? kvfs_internal : kvfs_failed;
}

Lines ChangingVolume::messages_with(const ModelRun& run) const {
  if (run.index >= 8) {
    return {
        "ERROR UpdateForkExtents Unable to update fork extents beyond the first 8 extents.Error while updating fork "
        "extents.\n"};
  }
  if (run.count == 0) {
    return no_run_messages();
  }
  return {"ERROR AllocateExtentAllocationBlocks Block " + std::to_string(model_.first_used(run)) +
              " is already allocated.\n",
          "ERROR kvfs_fork_expand Error while marking " + std::to_string(run.count) + " blocks starting at block " +
              std::to_string(run.start) + " as allocated in the allocation file.\n"};
}

std::string ChangingVolume::expand_catalog() {
  const auto clump = static_cast<std::uint32_t>(image_.get_field("catalogFile.clumpSize"));
  const ModelRun run = model_.run_behind(model_.catalog, model_.catalog.size, clump);
  const bool usable = is_usable(run);
  if (usable && model_.is_owned(run)) {
    return {};  // blocks that look free although they belong to something
  }
  LogCapture log;
  const kvfs_result result = kvfs_btree_expand(volume_->catalog_tree(), volume_->get());
  if (!usable) {
    EXPECT_EQ(result, failure_with(run));
    Lines expected = messages_with(run);
    expected.push_back("ERROR kvfs_btree_expand Error while expanding fork.\n");
    expect_log(log, expected);
    return "fail to expand the catalog";
  }
  EXPECT_EQ(result, kvfs_ok);
  expect_log(log, {});
  model_.allocate(run);
  VolumeModel::add_run(model_.catalog, run);
  model_.catalog.size += clump;
  return "expand the catalog";
}

// Gives the startup file's new blocks contents.
void ChangingVolume::write_startup(std::uint32_t first) {
  kvfs_fork* const fork = volume_->fork(SpecialFile::kStartup);
  for (std::uint32_t block = first; block < model_.startup.total; ++block) {
    const auto value = static_cast<std::uint8_t>(random_());
    EXPECT_EQ(kvfs_fork_fill(fork, std::uint64_t{block} * model_.block_size, model_.block_size, value, nullptr),
              kvfs_ok);
    startup_bytes_.push_back(value);
  }
}

std::string ChangingVolume::expand_startup() {
  kvfs_fork* const fork = volume_->fork(SpecialFile::kStartup);
  const std::uint32_t clump = volume_->header()->startupFile.clumpSize.get();
  const ModelRun run = model_.run_behind(model_.startup, model_.startup.size, clump);
  const bool usable = is_usable(run);
  if (usable && model_.is_owned(run)) {
    return {};  // blocks that look free although they belong to something
  }
  kvfs_allocation_location added = {};
  LogCapture log;
  const kvfs_result result = kvfs_fork_expand(fork, volume_->get(), &added);
  if (!usable) {
    EXPECT_EQ(result, failure_with(run));
    expect_log(log, messages_with(run));
    return "fail to expand the startup file";
  }
  EXPECT_EQ(result, kvfs_ok);
  EXPECT_EQ(added.start_block, run.start);
  EXPECT_EQ(added.block_count, run.count);
  EXPECT_EQ(added.extent_index, run.index);
  const std::uint32_t first = model_.startup.total;
  model_.allocate(run);
  VolumeModel::add_run(model_.startup, run);
  model_.startup.size += clump;
  HFSPlusForkData fork_data = volume_->header()->startupFile;
  fork_data.logicalSize.set(*fork->logical_size);
  kvfs_volume_update_fork_data(volume_->get(), kHFSStartupFileID, &fork_data);
  write_startup(first);
  expect_log(log, {});
  return "expand the startup file";
}

std::string ChangingVolume::shrink_startup() {
  if (model_.startup.total == 0) {
    return {};
  }
  const std::uint32_t blocks = 1 + below(random_, model_.startup.total);  // none cannot be flushed: X-fork-10
  const std::uint32_t left = model_.startup.total - blocks;
  Lines expected;
  for (std::uint32_t block = left; block < model_.startup.total && expected.empty(); ++block) {
    const std::uint32_t freed = model_.startup.block(block);
    if (!model_.free_block(freed)) {
      expected = {
          "ERROR FreeExtentAllocationBlocks Error while freeing allocation block " + std::to_string(freed) + ".\n",
          "ERROR kvfs_fork_shrink Error while freeing " + std::to_string(blocks) +
              " blocks in fork starting at block " + std::to_string(left) + ".\n"};
    }
  }
  LogCapture log;
  const kvfs_result result = kvfs_fork_shrink(volume_->fork(SpecialFile::kStartup), volume_->get(), blocks);
  EXPECT_EQ(result, expected.empty() ? kvfs_ok : kvfs_failed);
  expect_log(log, expected);
  if (expected.empty()) {
    VolumeModel::cut(model_.startup, left);
    model_.startup.size = std::uint64_t{left} * model_.block_size;
    startup_bytes_.resize(left);
  }
  return (expected.empty() ? "shrink the startup file by " : "fail to shrink the startup file by ") +
         std::to_string(blocks);
}

std::string ChangingVolume::change() {
  static constexpr Change kChanges[] = {
      &ChangingVolume::rename,         &ChangingVolume::rename,         &ChangingVolume::rename,
      &ChangingVolume::erase,          &ChangingVolume::erase,          &ChangingVolume::make_link,
      &ChangingVolume::insert_file,    &ChangingVolume::insert_file,    &ChangingVolume::insert_folder,
      &ChangingVolume::expand_catalog, &ChangingVolume::expand_startup, &ChangingVolume::shrink_startup,
      &ChangingVolume::set_label,      &ChangingVolume::reopen};
  return (this->*kChanges[below(random_, std::size(kChanges))])();
}

// ---- Comparing -----------------------------------------------------------------------------------------------------

void ChangingVolume::compare() {
  LogCapture log;
  EXPECT_EQ(kvfs_fork_flush(volume_->fork(SpecialFile::kStartup)), kvfs_ok);
  image_ = volume_->flushed();
  EXPECT_LOG(log);
  Lines findings = check_volume(image_);
  std::sort(findings.begin(), findings.end());
  EXPECT_EQ(findings, model_.findings());
  EXPECT_EQ(model_.catalog_differences(image_), Lines());
  EXPECT_EQ(image_.get_field("fileCount"), model_.file_count);
  EXPECT_EQ(image_.get_field("folderCount"), model_.folder_count);
  EXPECT_EQ(image_.get_field("freeBlocks"), model_.free_blocks);
  EXPECT_EQ(image_.get_field("nextAllocation"), model_.next_allocation);
  EXPECT_EQ(image_.get_field("nextCatalogID"), model_.next_id);
  EXPECT_EQ(image_.get_field("catalogFile.logicalSize"), model_.catalog.size);
  EXPECT_EQ(image_.get_field("startupFile.logicalSize"), model_.startup.size);
  EXPECT_EQ(image_.read_fork(SpecialFile::kAllocation, 0, model_.bitmap().size()), model_.bitmap());
  for (std::uint32_t block = 0; block < startup_bytes_.size(); ++block) {
    EXPECT_EQ(image_.get8(std::uint64_t{model_.startup.block(block)} * model_.block_size), startup_bytes_[block]);
  }
  for (const auto& [cnid, target] : targets_) {
    const Bytes bytes = image_.read(std::uint64_t{target_blocks_.at(cnid)} * model_.block_size, target.size());
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), target);
  }
}

TEST(VolumeProperty, RandomChanges_LeaveWhatTheModelHasAndNothingElse) {
  const unsigned long first = number_from("KVFS_PROPERTY_SEED", 1);
  const unsigned long runs = 12 * number_from("KVFS_PROPERTY_ROUNDS", 1);
  const unsigned long changes = number_from("KVFS_PROPERTY_OPERATIONS", 60);
  std::map<std::string, unsigned> counts;
  for (unsigned long seed = first; seed < first + runs; ++seed) {
    ChangingVolume volume(seed);
    std::string history;
    for (unsigned long i = 0; i < changes && !::testing::Test::HasFailure(); ++i) {
      const std::string change = volume.change();
      if (!change.empty()) {
        history += "\n  " + change;
        ++counts[change.substr(0, change.find_first_of("0123456789"))];
        volume.compare();
      }
    }
    ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed << ":" << history;
  }
  for (const char* const change : {"rename ", "delete ", "make ", "insert ", "expand the catalog", "reopen",
                                   "expand the startup file", "shrink the startup file by ", "set the label "}) {
    EXPECT_TRUE(changes < 60 || counts[change] >= 10) << change << counts[change];
  }
}

// ---- Independent readers -------------------------------------------------------------------------------------------

// The path of an image for them, which is removed in the end.
class ImageFile {
 public:
  ImageFile() : path_(::testing::TempDir() + "kvfs-property-" + std::to_string(getpid()) + ".img") {}
  ~ImageFile() { unlink(path_.c_str()); }
  ImageFile(const ImageFile&) = delete;
  ImageFile& operator=(const ImageFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// What a program writes to standard output, line by line.
Lines output_of(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  EXPECT_NE(pipe, nullptr);
  std::string text;
  char part[4096];
  for (std::size_t size = 0; (size = std::fread(part, 1, sizeof(part), pipe)) != 0;) {
    text.append(part, size);
  }
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << text;
  Lines lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

// The path of an item from the root folder.
std::string path_of(const VolumeModel& model, std::uint32_t cnid) {
  std::string path;
  for (; cnid != kRootFolderId; cnid = model.items.at(cnid).parent) {
    path.insert(0, path.empty() ? "" : "/").insert(0, to_utf8(model.items.at(cnid).name));
  }
  return path;
}

Lines sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Every item but the root folder, as the function given puts it.
template <typename Text>
Lines listed(const VolumeModel& model, Text text) {
  Lines lines;
  for (const auto& [cnid, item] : model.items) {
    if (cnid != kRootFolderId) {
      lines.push_back(text(cnid, item));
    }
  }
  return sorted(lines);
}

// Whether fls may leave out an item. Its versions from 4.12 on list nothing of a folder whose thread record begins less
// than the longest such record before the end of its node, although a record ends where its name does.
bool may_be_left_out(const Volume& image, const VolumeModel& model, std::uint32_t cnid) {
  constexpr int kLongestThread = 8 + 10 + 2 * 255;  // key, data before the name, name
  for (cnid = model.items.at(cnid).parent; cnid != kRootFolderId; cnid = model.items.at(cnid).parent) {
    const std::optional<RecordPlace> thread = image.find_thread(cnid);
    if (thread.has_value() && image.node_size(Tree::kCatalog) - thread->offset_in_node < kLongestThread) {
      return true;
    }
  }
  return false;
}

// "r/r 18:\tpath"; the special files have lower IDs.
void expect_listing_of_fls(const std::string& path, const Volume& image, const VolumeModel& model) {
  const auto line_of = [&model](std::uint32_t cnid, const ModelItem& item) {
    std::string kind = item.folder ? "d/d " : item.is_link ? "l/l " : "r/r ";
    // The second letter is that of the thread record.
    kind[2] = item.has_thread ? kind[2] : '-';
    return kind + std::to_string(cnid) + ":\t" + path_of(model, cnid);
  };
  Lines lines;
  for (const std::string& line : output_of("fls -r -p '" + path + "'")) {
    if (std::strtoul(line.c_str() + 4, nullptr, 10) >= kFirstUserId) {
      lines.push_back(line);
    }
  }
  for (const auto& [cnid, item] : model.items) {
    if (cnid != kRootFolderId && may_be_left_out(image, model, cnid) &&
        std::find(lines.begin(), lines.end(), line_of(cnid, item)) == lines.end()) {
      lines.push_back(line_of(cnid, item));
    }
  }
  EXPECT_EQ(sorted(lines), listed(model, line_of));
}

// "Path = label/path", "Folder = +", "Size = 5".
void expect_listing_of_7z(const std::string& image, const VolumeModel& model) {
  const std::string prefix = "Path = " + to_utf8(model.items.at(kRootFolderId).name) + "/";
  Lines lines;
  std::string path;
  std::string folder;
  for (const std::string& line : output_of("7z l -slt '" + image + "'")) {
    if (line.starts_with("Path = ")) {
      path = line.starts_with(prefix) ? line.substr(prefix.size()) : "";
    } else if (line.starts_with("Folder = ")) {
      folder = line;
    } else if (line.starts_with("Size = ") && !path.empty() && !path.ends_with(":rsrc")) {
      path.append(" ").append(folder).append(" ").append(line);
      lines.push_back(path);
    }
  }
  EXPECT_EQ(sorted(lines), listed(model, [&model](std::uint32_t cnid, const ModelItem& item) {
              return path_of(model, cnid) +
                     (item.folder ? " Folder = + Size = " : " Folder = - Size = " + std::to_string(item.data.size));
            }));
}

void expect_listing_of_fshfsinfo(const std::string& image, const VolumeModel& model) {
  Lines lines;
  for (const std::string& line : output_of("fshfsinfo -H '" + image + "'")) {
    if (line.size() > 1 && line[0] == '/') {
      lines.push_back(line);
    }
  }
  EXPECT_EQ(sorted(lines),
            listed(model, [&model](std::uint32_t cnid, const ModelItem&) { return "/" + path_of(model, cnid); }));
}

void expect_counts_of_fsstat(const std::string& image, const VolumeModel& model) {
  Lines lines;
  for (const std::string& line : output_of("fsstat '" + image + "'")) {
    if (line.starts_with("Volume Name: ") || line.starts_with("Number of ")) {
      lines.push_back(line);
    }
  }
  EXPECT_EQ(lines, (Lines{"Volume Name: " + to_utf8(model.items.at(kRootFolderId).name),
                          "Number of files: " + std::to_string(model.file_count),
                          "Number of folders: " + std::to_string(model.folder_count),
                          "Number of Free Blocks: " + std::to_string(model.free_blocks)}));
}

TEST(VolumeProperty, IndependentReaders_AgreeWithTheModel) {
  const unsigned long first = number_from("KVFS_PROPERTY_SEED", 1);
  const unsigned long runs = 3 * number_from("KVFS_PROPERTY_ROUNDS", 1);
  const unsigned long changes = number_from("KVFS_PROPERTY_OPERATIONS", 60);
  const ImageFile file;
  for (unsigned long seed = first; seed < first + runs; ++seed) {
    ChangingVolume volume(seed, true);
    for (unsigned long i = 0; i < changes; ++i) {
      (void)volume.change();
      volume.compare();
    }
    volume.image().write_to(file.path());
    expect_listing_of_fls(file.path(), volume.image(), volume.model());
    expect_listing_of_7z(file.path(), volume.model());
    expect_listing_of_fshfsinfo(file.path(), volume.model());
    expect_counts_of_fsstat(file.path(), volume.model());
    ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace kvfs_test
