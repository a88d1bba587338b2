// Long random sequences of insertions and deletions, against a map in memory and the checker of volumes after each.
//
// The short form takes a few seconds. The environment makes it longer or another one:
//   KVFS_PROPERTY_ROUNDS      trees of each kind (default 1)
//   KVFS_PROPERTY_OPERATIONS  operations on each tree (default 120)
//   KVFS_PROPERTY_SEED        seed of the first tree (default 1); each failure says the one of its tree

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree.h"
#include "btree/private.h"
#include "catalog.h"
#include "device.h"
#include "fork/private.h"
#include "log_capture.h"
#include "tree_checker.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

unsigned long from_environment(const char* name, unsigned long otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtoul(text, nullptr, 10) : otherwise;
}

// ---- The place and the split, worked out anew ----------------------------------------------------------------------

// A leaf as the device has it.
struct Leaf {
  std::uint32_t number = 0;
  std::uint32_t forward = 0;
  std::vector<std::size_t> offsets;  // of the records, and of the free space

  [[nodiscard]] std::size_t count() const { return offsets.size() - 1; }
  [[nodiscard]] std::int64_t room(std::size_t node_size) const {
    return static_cast<std::int64_t>(node_size) - static_cast<std::int64_t>(offsets.back() + 2 * offsets.size());
  }
};

Leaf parse_leaf(std::uint32_t number, const Bytes& bytes) {
  Leaf leaf;
  leaf.number = number;
  leaf.forward = get_be32(bytes, 0);
  for (std::size_t i = 0; i <= get_be16(bytes, 10); ++i) {
    leaf.offsets.push_back(get_be16(bytes, bytes.size() - 2 * (i + 1)));
  }
  return leaf;
}

// The record at which a full leaf is split that is to take a record of `size` bytes at `index`.
std::size_t split_point(const Leaf& leaf, std::size_t index, std::size_t size) {
  const auto n = static_cast<std::int64_t>(leaf.count());
  const auto s = static_cast<std::int64_t>(size);
  const auto offset = [&](std::int64_t i) {
    return static_cast<std::int64_t>(leaf.offsets.at(static_cast<std::size_t>(i)));
  };
  const std::int64_t total = offset(n) + s;
  std::int64_t best = n + total - 14;
  std::int64_t found = -1;
  for (std::int64_t low = 0, high = n; low != high;) {
    const std::int64_t middle = low + (high + 1 - low) / 2;
    std::int64_t boundary = total;
    if (static_cast<std::int64_t>(index) < middle) {
      boundary = offset(middle) + s;
    } else if (middle < n) {
      boundary = offset(middle + 1);
    }
    const std::int64_t left = boundary + 2 * (middle + 1);
    const std::int64_t right = total - boundary + 2 * (n - middle + 2) + 14;
    if (std::abs(left - right) < best) {
      best = std::abs(left - right);
      found = middle;
    }
    if (left == right || (left > right && low == middle) || (left < right && high == middle)) {
      break;
    }
    (left > right ? high : low) = left > right ? middle - 1 : middle + 1;
  }
  return static_cast<std::size_t>(found);
}

// ---- The tree under test -------------------------------------------------------------------------------------------

struct Setup {
  std::uint32_t node_size;
  bool binary;
};

struct KeyOrder {
  bool binary;
  bool operator()(const Bytes& a, const Bytes& b) const { return compare_keys(Tree::kCatalog, a, b, binary) < 0; }
};

using Model = std::map<Bytes, Bytes, KeyOrder>;

// A locator that is kept open, and where it should be.
struct Held {
  kvfs_btree_record_locator* locator;
  std::uint32_t node;
  std::size_t index;
  std::uint64_t data_offset;  // in the fork
  Bytes record;
};

class RandomTree {
 public:
  RandomTree(const Setup& setup, std::uint32_t seed) : setup_(setup), random_(seed), model_(KeyOrder{setup.binary}) {
    volume_ = build_volume(describe());
    for (const auto& [key, data] : dump_records(volume_, Tree::kCatalog)) {
      model_[key] = data;
    }
    const std::string path = ::testing::TempDir() + "kvfs-property-" + std::to_string(getpid());
    volume_.write_to(path);
    fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    unlink(path.c_str());
    EXPECT_EQ(kvfs_device_create(fd_, 0, 512, 0, &device_), kvfs_ok);
    volume_.read(kHeaderOffset, &header_, sizeof(header_));
    open();
    look_around();
  }

  ~RandomTree() {
    close();
    kvfs_device_destroy(&device_);
    ::close(fd_);
  }

  RandomTree(const RandomTree&) = delete;
  RandomTree& operator=(const RandomTree&) = delete;

  // One operation and everything that has to hold behind it.
  void step() {
    const std::uint32_t choice = number(100);
    if (choice < 50) {
      insert_new();
    } else if (choice < 54) {
      insert_existing();
    } else if (choice < 82) {
      delete_any();
    } else if (choice < 92) {
      hold_or_let_go();
    } else if (choice < 97) {
      write_data();
    } else {
      iterate();
    }
    check_held();
  }

  [[nodiscard]] std::size_t splits() const { return splits_; }
  [[nodiscard]] std::size_t deletions() const { return deletions_; }

 private:
  // ---- Random things

  std::uint32_t number(std::size_t below) {
    return std::uniform_int_distribution<std::uint32_t>(0, static_cast<std::uint32_t>(below - 1))(random_);
  }

  // Names of all lengths that leave an index node room for several; few letters, so that keys meet.
  Bytes random_key() {
    const std::size_t longest = std::min<std::size_t>(255, (setup_.node_size / 5 - 8) / 2);
    Name name(number(4) == 0 ? number(longest + 1) : number(std::min<std::size_t>(longest, 12) + 1), u'a');
    for (char16_t& unit : name) {
      unit = u"abcABCxyzXYZ\u0430\u0410\u0300\u200C019"[number(19)];
    }
    const std::uint32_t parent = number(40);
    return catalog_key(parent == kRootFolderId ? 0 : parent, name);  // there is a thread record under that ID
  }

  // Data of any even length: a padded record would not compare with what was put in, and the checker wants some.
  Bytes random_data() {
    const std::size_t most = number(3) == 0 ? setup_.node_size / 3 : setup_.node_size / 16;
    Bytes data(2 + 2 * number(most / 2));
    for (std::uint8_t& byte : data) {
      byte = static_cast<std::uint8_t>(number(256));
    }
    return data;
  }

  VolumeDescription describe() {
    VolumeDescription description;
    description.hfsx = setup_.binary;
    description.case_sensitive = setup_.binary;
    description.catalog.node_size = setup_.node_size;
    description.catalog.spare_nodes = number(16);
    description.catalog.max_index_records = static_cast<std::uint16_t>(number(2) * (3 + number(4)));
    description.catalog.max_leaf_records = static_cast<std::uint16_t>(number(3) == 0 ? 1 + number(4) : 0);
    description.catalog.free_nodes = {3, 5};
    Model records(KeyOrder{setup_.binary});
    const std::size_t count = 20 + number(60);
    while (records.size() < count) {
      records.emplace(random_key(), random_data());
    }
    description.extra_catalog_records.assign(records.begin(), records.end());
    return description;
  }

  // ---- Opening, flushing, looking at the device

  void open() {
    EXPECT_EQ(kvfs_btree_create(device_, nullptr, 1, &header_, kHFSCatalogFileID, kvfs_catalog_compare_keys, &tree_),
              kvfs_ok);
  }

  void close() {
    let_go_of_all();
    kvfs_btree_destroy(&tree_);
  }

  // Throws away what was not flushed.
  void reopen() {
    close();
    open();
  }

  void read_catalog_from_device() {
    const ForkView fork = volume_.fork(Tree::kCatalog);
    Bytes bytes(static_cast<std::size_t>(volume_.fork_logical_size(SpecialFile::kCatalog)));
    ASSERT_EQ(pread(fd_, bytes.data(), bytes.size(), static_cast<off_t>(fork.device_offset(0))),
              static_cast<ssize_t>(bytes.size()));
    fork.write(volume_, 0, bytes);
  }

  // Takes up what the device has, which has to be a sound tree with the records of the model.
  void look_around() {
    Findings findings;
    records_ = check_tree(volume_, Tree::kCatalog, {}, findings);
    ASSERT_EQ(joined(findings.messages()), "");
    ASSERT_EQ(records_.size(), model_.size());
    auto expected = model_.begin();
    for (const FoundRecord& record : records_) {
      ASSERT_EQ(record.key, expected->first);
      ASSERT_EQ(record.data, expected->second);
      ++expected;
    }
  }

  void flush_and_look_around() {
    ASSERT_EQ(kvfs_fork_flush(tree_->fork), kvfs_ok);
    read_catalog_from_device();
    look_around();
  }

  [[nodiscard]] std::uint64_t references() const {
    std::uint64_t count = 0;
    for (std::uint32_t i = 0; i < tree_->fork->priv->items_length; ++i) {
      const kvfs_fork_cache_item* const item = tree_->fork->priv->items[i];
      count += item != nullptr ? item->references : 0;
    }
    return count;
  }

  [[nodiscard]] Leaf leaf(std::uint32_t node) const {
    return parse_leaf(node, volume_.read_node(Tree::kCatalog, node));
  }

  // ---- Places

  // Where a new key goes: behind the last record that orders before it, or before the first record of all.
  struct Place {
    std::uint32_t node;
    std::size_t index;
  };

  [[nodiscard]] Place place_of(const Bytes& key) const {
    const KeyOrder before{setup_.binary};
    const auto behind = std::partition_point(records_.begin(), records_.end(),
                                             [&](const FoundRecord& record) { return before(record.key, key); });
    if (behind == records_.begin()) {
      return {behind->node, 0};
    }
    const FoundRecord& previous = *(behind - 1);
    return {previous.node, previous.index + std::size_t{1}};
  }

  [[nodiscard]] std::optional<FoundRecord> record_with(const Bytes& key) const {
    const KeyOrder before{setup_.binary};
    const auto found = std::partition_point(records_.begin(), records_.end(),
                                            [&](const FoundRecord& record) { return before(record.key, key); });
    if (found == records_.end() || before(key, found->key)) {
      return std::nullopt;
    }
    return *found;
  }

  [[nodiscard]] std::uint64_t data_offset(std::uint32_t node, std::size_t offset, const Bytes& key) const {
    return std::uint64_t{node} * setup_.node_size + offset + key.size();
  }

  // Whether an index node on the way to a leaf has a single record: replacing that one cannot succeed, since the place
  // for the new one would be in a node without records.
  [[nodiscard]] bool has_lonely_index_record(std::uint32_t node) const {
    const std::vector<RecordPlace> path = volume_.index_path(Tree::kCatalog, node);
    return std::any_of(path.begin(), path.end(),
                       [&](const RecordPlace& place) { return volume_.record_count(Tree::kCatalog, place.node) == 1; });
  }

  // ---- Locators

  // A search that lands on a record puts the locator right that is open on it.
  void note_search(std::uint32_t node, std::size_t index) {
    for (Held& held : held_) {
      if (held.node == node && held.index == index) {
        held.data_offset =
            data_offset(node, leaf(node).offsets.at(index),
                        volume_.record_key(volume_.record_at(Tree::kCatalog, node, static_cast<std::uint16_t>(index))));
      }
    }
  }

  void shift_held(std::uint32_t node, std::size_t first, std::size_t end, const auto& shift) {
    for (Held& held : held_) {
      if (held.node == node && held.index >= first && held.index < end) {
        shift(held);
      }
    }
  }

  void check_held() {
    for (const Held& held : held_) {
      ASSERT_EQ(*held.locator->node, held.node);
      ASSERT_EQ(*held.locator->index, held.index);
      ASSERT_EQ(held.locator->priv->fork_data_offset, held.data_offset);
      ASSERT_EQ(held.locator->priv->deleted, 0u);
      ASSERT_EQ(Bytes(held.locator->key, held.locator->key + held.record.size()), held.record);
      const RecordPlace place = volume_.record_at(Tree::kCatalog, held.node, static_cast<std::uint16_t>(held.index));
      ASSERT_EQ(volume_.record_key(place), Bytes(held.locator->key, held.locator->key + held.locator->key_length));
    }
    ASSERT_EQ(references(), 0u);
  }

  void let_go(std::size_t i) {
    kvfs_btree_record_locator_close(&held_[i].locator);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(i));
  }

  void let_go_of_all() {
    while (!held_.empty()) {
      let_go(held_.size() - 1);
    }
  }

  // Opens the locator of a record, which the caller closes.
  kvfs_btree_record_locator* locate(const FoundRecord& record) {
    kvfs_btree_search_result found = {};
    note_search(record.node, record.index);
    EXPECT_EQ(kvfs_btree_search_node(tree_, record.key.data(), &found), kvfs_ok);
    EXPECT_EQ(found.found, 1u);
    EXPECT_EQ(*found.locator->node, record.node);
    EXPECT_EQ(*found.locator->index, record.index);
    return found.locator;
  }

  const FoundRecord& any_record() { return records_.at(number(records_.size())); }

  // ---- Operations

  static bool only_warns_of_sharing(LogCapture& log) {
    const std::vector<LogLine> lines = log.lines();
    return std::all_of(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.level == "WARNING" && line.function == "kvfs_btree_record_locator_open" &&
             line.text.starts_with("Mismatching ");
    });
  }

  void insert_new() {
    const Bytes key = random_key();
    if (record_with(key)) {
      return;
    }
    const Bytes data = random_data();
    const Place place = place_of(key);
    const Leaf before = leaf(place.node);
    SCOPED_TRACE("inserting " + std::to_string(key.size()) + " + " + std::to_string(data.size()) + " bytes at node " +
                 std::to_string(place.node) + " index " + std::to_string(place.index));
    note_search(place.node, std::min(place.index, before.count() - 1));
    LogCapture log;
    kvfs_btree_record_locator* locator = nullptr;
    const kvfs_result result = kvfs_btree_insert_record(tree_, key.data(), data.data(),
                                                        static_cast<std::uint16_t>(data.size()), nullptr, &locator);
    log.finish();
    if (result != kvfs_ok) {
      check_refused_insertion(result, before, place, key.size() + data.size(), log);
      reopen();
      return;
    }
    EXPECT_TRUE(only_warns_of_sharing(log)) << log.raw();
    model_[key] = data;
    flush_and_look_around();
    if (::testing::Test::HasFatalFailure()) {
      return;
    }
    follow_insertion(before, place, key.size() + data.size());
    check_new_locator(locator, key, data);
  }

  void check_new_locator(kvfs_btree_record_locator* locator, const Bytes& key, const Bytes& data) {
    const std::optional<FoundRecord> record = record_with(key);
    ASSERT_TRUE(record);
    const std::uint64_t offset = data_offset(record->node, leaf(record->node).offsets.at(record->index), key);
    Bytes bytes = key;
    bytes.insert(bytes.end(), data.begin(), data.end());
    held_.push_back({locator, record->node, record->index, offset, bytes});
    check_held();
    if (number(2) == 0) {
      let_go(held_.size() - 1);
    }
  }

  // An insertion may be refused for want of room only, and says so.
  void check_refused_insertion(kvfs_result result, const Leaf& before, const Place& place, std::size_t size,
                               LogCapture& log) {
    const bool full = before.room(setup_.node_size) < static_cast<std::int64_t>(size) + 2;
    const char* const engine = "kvfs_btree_insert_record_internal";
    if (result == kvfs_inconsistent) {
      EXPECT_TRUE(place.index == 0 && has_lonely_index_record(before.number)) << log.raw();
    } else if (result == kvfs_limit) {
      // The index record that is to replace that of a first record may need a split too.
      EXPECT_TRUE((full || place.index == 0) && log.has("ERROR", "kvfs_btree_claim_node", "Need to expand B-tree"))
          << log.raw();
    } else {
      ASSERT_EQ(result, kvfs_internal) << log.raw();
      const bool in_index = log.has("ERROR", "kvfs_btree_add_index_record", "Error while inserting index record.\n");
      const bool root_full = log.has("ERROR", "kvfs_btree_split_node", "Unable to split root node.\n");
      EXPECT_TRUE(root_full || log.has("ERROR", engine, ", even after a split.\n")) << log.raw();
      EXPECT_TRUE(root_full || in_index || !fits_a_half(before, place, size)) << log.raw();
    }
  }

  // Whether the half of a split leaf that a record belongs to has room for it.
  [[nodiscard]] bool fits_a_half(const Leaf& before, const Place& place, std::size_t size) const {
    const std::size_t split = split_point(before, place.index, size);
    const bool goes_up = place.index > split;
    const std::size_t count = goes_up ? before.count() - split : split;
    const std::size_t bytes = goes_up ? before.offsets.back() - before.offsets[split] : before.offsets[split] - 14;
    return 14 + bytes + size + 2 * (count + 2) <= setup_.node_size;
  }

  // What an insertion has done to its leaf and to the locators that were open on it.
  void follow_insertion(const Leaf& before, const Place& place, std::size_t size) {
    Leaf half = leaf(before.number);
    std::size_t index = place.index;
    std::size_t count = before.count();
    if (before.room(setup_.node_size) < static_cast<std::int64_t>(size) + 2) {
      ++splits_;
      const std::size_t split = split_point(before, place.index, size);
      const Leaf upper = leaf(half.forward);
      const bool goes_up = place.index > split;
      ASSERT_EQ(half.count(), split + (goes_up ? 0 : 1));
      ASSERT_EQ(upper.count(), before.count() - split + (goes_up ? 1 : 0));
      ASSERT_EQ(upper.forward, before.forward);
      const std::size_t moved = before.offsets.back() - before.offsets[split];
      shift_held(before.number, split, before.count(), [&](Held& held) {
        held.node = upper.number;
        held.index -= split;
        held.data_offset -= moved;
      });
      half = goes_up ? upper : half;
      index -= goes_up ? split : 0;
      count = goes_up ? before.count() - split : split;
    }
    ASSERT_EQ(half.count(), count + 1);
    shift_held(half.number, index, count, [&](Held& held) {
      ++held.index;
      held.data_offset += size;
    });
  }

  void insert_existing() {
    const FoundRecord record = any_record();
    note_search(record.node, record.index);
    LogCapture log;
    kvfs_btree_record_locator* locator = nullptr;
    EXPECT_EQ(kvfs_btree_insert_record(tree_, record.key.data(), record.data.data(), 2, nullptr, &locator),
              kvfs_exists);
    EXPECT_TRUE(
        log.has("ERROR", "kvfs_btree_insert_record_internal", "ERROR:Unable to insert because already exists?!\n"));
    EXPECT_EQ(tree_->fork->priv->dirty_items, 0u);
  }

  // Often the first record of a leaf, often one of the leaf with the fewest.
  const FoundRecord& record_to_delete() {
    const FoundRecord* record = &any_record();
    const std::uint32_t choice = number(4);
    if (choice == 0) {
      record -= record->index;
    } else if (choice == 1) {
      std::size_t fewest = ~std::size_t{0};
      for (std::size_t i = 0; i < records_.size();) {
        const std::size_t count = leaf(records_[i].node).count();
        record = count < fewest ? &records_[i + number(count)] : record;
        fewest = std::min(fewest, count);
        i += count;
      }
    }
    return *record;
  }

  void delete_any() {
    const FoundRecord record = record_to_delete();
    SCOPED_TRACE("deleting record " + std::to_string(record.index) + " of node " + std::to_string(record.node));
    const Leaf before = leaf(record.node);
    LogCapture log;
    kvfs_btree_record_locator* locator = locate(record);
    const kvfs_result result = kvfs_btree_delete_record(tree_, locator, 0);
    log.finish();
    if (result == kvfs_inconsistent && record.index == 0) {
      EXPECT_TRUE(has_lonely_index_record(record.node)) << log.raw();
    } else if (result == kvfs_limit || result == kvfs_internal) {
      // The new index record may need a split that the tree has no room for.
      EXPECT_TRUE(record.index == 0 && (log.has("ERROR", "kvfs_btree_split_node", "Unable to split root node.\n") ||
                                        log.has("ERROR", "kvfs_btree_claim_node", "Need to expand B-tree") ||
                                        log.has("ERROR", "kvfs_btree_insert_record_internal", "after a split.\n")))
          << log.raw();
    } else {
      ASSERT_EQ(result, kvfs_ok) << log.raw();
      EXPECT_TRUE(only_warns_of_sharing(log)) << log.raw();
      ++deletions_;
      check_deleted_locators(locator, record);
    }
    kvfs_btree_record_locator_close(&locator);
    if (result != kvfs_ok) {
      reopen();
    } else if (before.count() == 1) {
      check_emptied_leaf(record);
      reopen();  // a tree with an empty leaf is of no further use
    } else {
      model_.erase(record.key);
      let_go_behind(record);
      flush_and_look_around();
    }
  }

  // The locators of other records stay as they are, whether or not their records have moved.
  void check_deleted_locators(const kvfs_btree_record_locator* locator, const FoundRecord& record) {
    EXPECT_EQ(locator->priv->deleted, 1u);
    EXPECT_EQ(Bytes(locator->key, locator->key + locator->key_length), record.key);
    for (const Held& held : held_) {
      ASSERT_EQ(*held.locator->node, held.node);
      ASSERT_EQ(*held.locator->index, held.index);
      ASSERT_EQ(held.locator->priv->fork_data_offset, held.data_offset);
      ASSERT_EQ(held.locator->priv->deleted, held.locator == locator ? 1u : 0u);
    }
  }

  // Closes the locators of the deleted record and of those behind it, which lead to other records now.
  void let_go_behind(const FoundRecord& record) {
    for (std::size_t i = held_.size(); i > 0; --i) {
      if (held_[i - 1].node == record.node && held_[i - 1].index >= record.index) {
        let_go(i - 1);
      }
    }
  }

  // A leaf without records stays where it was and is indexed under the deleted key; all else is sound.
  void check_emptied_leaf(const FoundRecord& record) {
    Volume changed = volume_;
    for (std::uint32_t node = 0; node < volume_.get_field("catalog.header.totalNodes"); ++node) {
      Bytes bytes(setup_.node_size);
      ASSERT_EQ(
          kvfs_fork_read(tree_->fork, std::uint64_t{node} * setup_.node_size, bytes.data(), bytes.size(), nullptr),
          kvfs_ok);
      changed.write_node(Tree::kCatalog, node, bytes);
    }
    CheckOptions options;
    options.empty_leaves = {record.node};
    EXPECT_EQ(joined(check_btree(changed, Tree::kCatalog, options)), "");
    const std::vector<RecordPlace> path = changed.index_path(Tree::kCatalog, record.node);
    if (!path.empty()) {
      EXPECT_EQ(changed.record_key(path.back()), record.key);
    }
    EXPECT_EQ(changed.record_count(Tree::kCatalog, record.node), 0u);
  }

  void hold_or_let_go() {
    if (held_.size() > 12 || (!held_.empty() && number(3) == 0)) {
      let_go(number(held_.size()));
      return;
    }
    const FoundRecord record = any_record();
    LogCapture log;
    kvfs_btree_record_locator* const locator = locate(record);
    EXPECT_TRUE(only_warns_of_sharing(log)) << log.raw();
    Bytes bytes = record.key;
    bytes.insert(bytes.end(), record.data.begin(), record.data.end());
    held_.push_back({locator, record.node, record.index,
                     data_offset(record.node, leaf(record.node).offsets.at(record.index), record.key), bytes});
  }

  // Rewrites the data of a record in place, through a locator that a search has just put right.
  void write_data() {
    const FoundRecord record = any_record();
    LogCapture log;
    kvfs_btree_record_locator* locator = locate(record);
    Bytes data(record.data.size());
    for (std::uint8_t& byte : data) {
      byte = static_cast<std::uint8_t>(number(256));
    }
    EXPECT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_ok);
    model_[record.key] = data;
    kvfs_btree_record_locator_close(&locator);
    for (Held& held : held_) {
      if (held.node == record.node && held.index == record.index) {
        std::copy(data.begin(), data.end(), held.record.end() - static_cast<std::ptrdiff_t>(data.size()));
      }
    }
    flush_and_look_around();
  }

  void iterate() {
    LogCapture log;
    for (const FoundRecord& record : records_) {
      note_search(record.node, record.index);
    }
    kvfs_btree_record_locator* locator = locate(records_.front());
    for (std::size_t i = 0; i < records_.size(); ++i) {
      ASSERT_NE(locator, nullptr);
      EXPECT_EQ(Bytes(locator->key, locator->key + locator->key_length), records_[i].key);
      kvfs_btree_record_locator* next = nullptr;
      EXPECT_EQ(kvfs_btree_get_next_record(tree_, locator, &next), kvfs_ok);
      kvfs_btree_record_locator_close(&locator);
      locator = next;
    }
    EXPECT_EQ(locator, nullptr);
    EXPECT_TRUE(only_warns_of_sharing(log)) << log.raw();
  }

  Setup setup_;
  std::mt19937 random_;
  Model model_;
  Volume volume_;                     // as the device has it
  std::vector<FoundRecord> records_;  // of the volume
  std::vector<Held> held_;
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
  HFSPlusVolumeHeader header_ = {};
  kvfs_btree* tree_ = nullptr;
  std::size_t splits_ = 0;
  std::size_t deletions_ = 0;
};

class BtreeProperty : public ::testing::TestWithParam<Setup> {};

TEST_P(BtreeProperty, RandomChanges_KeepTheTreeSoundAndItsRecords) {
  const unsigned long rounds = from_environment("KVFS_PROPERTY_ROUNDS", 1);
  const unsigned long operations = from_environment("KVFS_PROPERTY_OPERATIONS", 120);
  const unsigned long first_seed = from_environment("KVFS_PROPERTY_SEED", 1);
  std::size_t splits = 0;
  std::size_t deletions = 0;
  for (unsigned long round = 0; round < rounds; ++round) {
    const auto seed = static_cast<std::uint32_t>(first_seed + round);
    SCOPED_TRACE("KVFS_PROPERTY_SEED=" + std::to_string(seed));
    RandomTree tree(GetParam(), seed);
    for (unsigned long operation = 0; operation < operations && !HasFailure(); ++operation) {
      SCOPED_TRACE("operation " + std::to_string(operation));
      tree.step();
    }
    if (HasFailure()) {
      return;
    }
    splits += tree.splits();
    deletions += tree.deletions();
  }
  if (operations >= 120) {
    EXPECT_GT(splits, 0u);
    EXPECT_GT(deletions, 0u);
  }
}

std::vector<Setup> setups() {
  std::vector<Setup> all;
  for (std::uint32_t node_size = 512; node_size <= 32768; node_size *= 2) {
    all.push_back({node_size, false});
    all.push_back({node_size, true});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Trees, BtreeProperty, ::testing::ValuesIn(setups()), [](const auto& test) {
  return (test.param.binary ? "Binary" : "Folding") + std::to_string(test.param.node_size);
});

}  // namespace
}  // namespace kvfs_test
