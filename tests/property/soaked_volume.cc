#include "property/soaked_volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "item_fixture.h"
#include "property/flush_cut.h"
#include "stored_names.h"

namespace kvfs_test {
namespace {

// A stored name as sessions spell it.
std::string spelled(const Name& name) {
  std::string text = to_utf8(name);
  for (std::size_t at = 0; (at = text.find('/', at)) != std::string::npos;) {
    text.replace(at, 1, "%u002F");
  }
  return text;
}

// The same with the other case for some ASCII letters.
Name with_other_case(Random& random, Name name) {
  for (char16_t& unit : name) {
    const bool is_letter = (unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z');
    unit = is_letter && one_in(random, 2) ? static_cast<char16_t>(unit ^ 0x20) : unit;
  }
  return name;
}

}  // namespace

SoakedVolume::SoakedVolume(unsigned long seed, Figures& figures)
    : random_(static_cast<Random::result_type>(seed)),
      figures_(figures),
      description_(random_description(random_)),
      image_(build_volume(description_)),
      model_(description_, image_),
      saved_(model_),
      most_units_(longest_name(description_.catalog.node_size)) {
  image_.set_field("startupFile.clumpSize", (1 + below(random_, 24)) * description_.block_size);
  kvfs_set_log_handler(receive, this);
  open();
}

SoakedVolume::~SoakedVolume() {
  close_handles();
  session_.reset();
  kvfs_set_log_handler(nullptr, nullptr);
}

void SoakedVolume::receive(void* context, const char* level, const char* routine, int /*line*/, const char* text) {
  static_cast<SoakedVolume*>(context)->log_.push_back(std::string(level) + " " + routine + " " + text);
}

void SoakedVolume::note(const std::string& operation) {
  constexpr std::size_t kKept = 60;
  history_.push_back(operation);
  if (history_.size() > kKept) {
    history_.pop_front();
  }
}

std::string SoakedVolume::history() const {
  std::string text;
  for (const std::string& operation : history_) {
    text += "\n  " + operation;
  }
  return text;
}

void SoakedVolume::open() {
  session_ = std::make_unique<TestSession>(image_);
  if (session_->get() == nullptr) {
    throw std::runtime_error("the volume cannot be opened");
  }
}

// Gives up what was not flushed. Handles outlive the session, and say so.
void SoakedVolume::close() {
  image_ = session_->contents();
  EXPECT_EQ(session_->close(), KVFS_OK);
  for (const OpenStream& stream : streams_) {
    std::uint64_t size = 0;
    EXPECT_EQ(kvfs_stream_size(stream.stream, &size), KVFS_CLOSED);
  }
  close_handles();
  session_.reset();
  model_ = saved_;
}

void SoakedVolume::close_handles() {
  for (OpenStream& stream : streams_) {
    EXPECT_EQ(kvfs_stream_close(&stream.stream), KVFS_OK);
  }
  for (OpenListing& listing : listings_) {
    EXPECT_EQ(kvfs_listing_close(&listing.listing), KVFS_OK);
  }
  streams_.clear();
  listings_.clear();
}

// ---- Items and names -----------------------------------------------------------------------------------------------

std::uint32_t SoakedVolume::any_item() {
  if (one_in(random_, 40)) {
    return 1 + below(random_, model_.next_id + 4);
  }
  auto place = model_.items().lower_bound(kRootFolderId + below(random_, model_.next_id));
  return place == model_.items().end() ? model_.items().rbegin()->first : place->first;
}

std::uint32_t SoakedVolume::any_folder() {
  const std::uint32_t id = any_item();
  return !model_.has(id) || model_.is_folder(id) || one_in(random_, 40) ? id : model_.item(id).parent;
}

Name SoakedVolume::any_name(std::uint32_t folder) {
  const std::vector<std::uint32_t> taken = model_.children(folder);
  if (!taken.empty() && one_in(random_, 12)) {
    const SessionItem& other = model_.item(taken[below(random_, static_cast<std::uint32_t>(taken.size()))]);
    return other.is_private ? u"private" : with_other_case(random_, other.name);
  }
  Name name = decomposed(random_text(random_, one_in(random_, 20) ? most_units_ : std::min(most_units_, 30U)));
  if (one_in(random_, 10)) {
    name.insert(0, u"/");
  }
  return name;
}

std::string SoakedVolume::path_of(std::uint32_t id) {
  std::string path;
  for (; id != kRootFolderId; id = model_.item(id).parent) {
    const Name& name = model_.item(id).name;
    path.insert(0, "/" + spelled(description_.case_sensitive ? name : with_other_case(random_, name)));
  }
  return path;
}

Content SoakedVolume::content_of(std::uint32_t id, std::uint32_t fork) const {
  const SessionItem& item = model_.item(model_.item(id).target != 0 ? model_.item(id).target : id);
  return fork == KVFS_DATA_FORK ? item.data : item.resource;
}

// ---- Changes -------------------------------------------------------------------------------------------------------

// Notes in the listings that an item has come, gone or got another name.
void SoakedVolume::changed(std::uint32_t id) {
  for (OpenListing& listing : listings_) {
    listing.expected.erase(id);
    listing.changed.insert(id);
  }
}

void SoakedVolume::expect_discarded() {
  EXPECT_EQ(kvfs_session_discard(session_->get()), KVFS_OK);
  model_ = saved_;
  close_handles();
}

// Whether a change was made. It must be, or be refused as the model says; or a node of the catalog would run empty or
// its index could not follow; or the catalog is full, which is noticed half-way.
bool SoakedVolume::is_done(std::uint64_t result, const std::set<std::uint64_t>& refusals) {
  const bool is_silent =
      std::none_of(log_.begin(), log_.end(), [](const std::string& line) { return !line.starts_with("WARNING "); });
  if (result == KVFS_OK) {
    EXPECT_TRUE(refusals.empty()) << "not refused, but expected to give " << *refusals.begin();
    EXPECT_TRUE(is_silent) << joined(log_);
    return true;
  }
  const bool is_spoiled = kvfs_session_delete(session_->get(), KVFS_ROOT_ID) == KVFS_SPOILED;
  if (is_spoiled) {
    EXPECT_TRUE(result == KVFS_INTERNAL || result == KVFS_LIMIT) << kvfs_result_text(result) << "\n" << joined(log_);
    EXPECT_FALSE(is_silent) << "a change has failed without a message";
    ++figures_.without_room;
    needs_room_ = true;
    expect_discarded();
  } else if (refusals.contains(result)) {
    ++figures_.refused;
  } else {
    EXPECT_EQ(result, KVFS_LIMIT) << joined(log_);
    ++figures_.limited;
  }
  return false;
}

void SoakedVolume::set_label() {
  const std::string label = one_in(random_, 30) ? std::string() : random_text(random_, most_units_);
  note("set the label " + label);
  const std::uint64_t result = kvfs_session_set_label(session_->get(), label.c_str());
  if (is_done(result, label.empty() ? std::set<std::uint64_t>{KVFS_INVALID} : std::set<std::uint64_t>{})) {
    model_.move(kRootFolderId, kRootParentId, decomposed(label));
  }
}

// What keeps an item out of a place. Of several reasons any may be given.
std::set<std::uint64_t> SoakedVolume::refusals_of_place(std::uint32_t id, std::uint32_t folder, const Name& name) {
  if (!model_.has(folder)) {
    return {KVFS_NOT_FOUND};
  }
  std::set<std::uint64_t> refusals;
  if (!model_.is_folder(folder)) {
    refusals.insert(KVFS_NOT_A_FOLDER);
  }
  if (model_.item(folder).is_private || (model_.has(id) && model_.is_inside(folder, id))) {
    refusals.insert(KVFS_INVALID);
  }
  const std::uint32_t other = model_.find(folder, name);
  if (other != 0 && other != id) {
    refusals.insert(KVFS_EXISTS);
  }
  return refusals;
}

void SoakedVolume::rename() {
  const std::uint32_t id = any_item();
  const bool stays = model_.has(id) && one_in(random_, 2);
  const std::uint32_t folder = stays ? model_.item(id).parent : any_folder();
  const Name name = any_name(folder);
  note("rename " + std::to_string(id) + " to " + std::to_string(folder) + "/" + to_utf8(name));
  std::set<std::uint64_t> refusals = refusals_of_place(id, folder, name);
  if (!model_.has(id)) {
    refusals.insert(KVFS_NOT_FOUND);
  } else if (id == kRootFolderId || model_.item(id).is_private) {
    refusals.insert(KVFS_INVALID);
  }
  if (is_done(kvfs_session_rename(session_->get(), id, folder, spelled(name).c_str()), refusals)) {
    model_.move(id, folder, name);
    changed(id);
  }
}

void SoakedVolume::remove() {
  const std::uint32_t id = any_item();
  note("delete " + std::to_string(id));
  std::set<std::uint64_t> refusals;
  if (!model_.has(id)) {
    refusals.insert(KVFS_NOT_FOUND);
  } else if (id == kRootFolderId || model_.item(id).is_private) {
    refusals.insert(KVFS_INVALID);
  } else if (!model_.children(id).empty()) {
    refusals.insert(KVFS_NOT_EMPTY);
  } else if (model_.item(id).kind == KVFS_HARD_LINK) {
    refusals.insert(KVFS_LIMIT);
  }
  if (is_done(kvfs_session_delete(session_->get(), id), refusals)) {
    model_.remove(id);
    changed(id);
  }
}

void SoakedVolume::make_link() {
  const std::uint32_t folder = any_folder();
  SessionItem link;
  link.parent = folder;
  link.name = any_name(folder);
  link.kind = KVFS_SYMBOLIC_LINK;
  link.blocks = 1;
  const std::string target = random_text(random_, 60);
  link.data = std::make_shared<const Bytes>(target.begin(), target.end());
  note("make the link " + std::to_string(folder) + "/" + to_utf8(link.name));
  std::uint32_t id = 0;
  const std::uint64_t result =
      kvfs_session_make_link(session_->get(), folder, spelled(link.name).c_str(), target.c_str(), &id);
  if (result == KVFS_NO_SPACE) {
    expect_no_free_byte();
    ++figures_.without_space;
  } else if (is_done(result, refusals_of_place(0, folder, link.name))) {
    EXPECT_EQ(id, model_.next_id);
    model_.add(link);
    changed(id);
  }
}

// A search for one block looks for eight free ones in a byte of the allocation file. To look there takes long.
void SoakedVolume::expect_no_free_byte() {
  constexpr std::uint32_t kLooks = 20;
  if (!one_in(random_, kLooks)) {
    return;
  }
  const std::uint32_t blocks = session_->facts().block_count;
  for (std::uint32_t first = 0; first + 8 <= blocks; first += 8) {
    int in_use = 0;
    for (std::uint32_t block = first; block < first + 8 && in_use == 0; ++block) {
      EXPECT_EQ(kvfs_session_block_in_use(session_->get(), block, &in_use), KVFS_OK);
    }
    EXPECT_EQ(in_use, 1) << "there is space from block " << first << " on";
  }
}

void SoakedVolume::flush() {
  note("flush");
  EXPECT_EQ(kvfs_session_flush(session_->get(), one_in(random_, 2) ? KVFS_FLUSH_DEVICE : 0), KVFS_OK) << joined(log_);
  model_.flush();
  saved_ = model_;
}

void SoakedVolume::discard() {
  note("discard");
  expect_discarded();
}

void SoakedVolume::reopen() {
  note("close and open");
  close();
  open();
}

// ---- Questions -----------------------------------------------------------------------------------------------------

void SoakedVolume::expect_item(const kvfs_item& item, std::uint32_t id) {
  const SessionItem& expected = model_.item(id);
  EXPECT_EQ(item.id, id);
  EXPECT_EQ(item.parent_id, expected.parent);
  EXPECT_EQ(item.kind, expected.kind);
  EXPECT_EQ(item.data_size, expected.data == nullptr ? 0 : expected.data->size());
  EXPECT_EQ(item.resource_size, expected.resource == nullptr ? 0 : expected.resource->size());
  if (!expected.is_private) {
    EXPECT_EQ(item.name, spelled(expected.name));
  }
  if (expected.kind == KVFS_FOLDER) {
    EXPECT_EQ(item.valence, model_.children(id).size());
  }
}

void SoakedVolume::find() {
  const std::uint32_t id = any_item();
  note("find " + std::to_string(id));
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  const std::uint64_t result = kvfs_session_find_id(session_->get(), id, &item);
  EXPECT_EQ(result, model_.has(id) ? KVFS_OK : KVFS_NOT_FOUND);
  if (result != KVFS_OK || model_.item(id).is_private) {
    return;
  }
  expect_item(item, id);
  const std::string path = path_of(id);
  EXPECT_EQ(kvfs_session_find(session_->get(), KVFS_ROOT_ID, path.c_str(), &item), KVFS_OK) << path;
  expect_item(item, id);
  const std::uint64_t behind = kvfs_session_find(session_->get(), KVFS_ROOT_ID, (path + "/no such").c_str(), &item);
  EXPECT_EQ(behind, model_.is_folder(id) ? KVFS_NOT_FOUND : KVFS_NOT_A_FOLDER);
}

// Takes some items of a listing, and closes it behind the last one.
void SoakedVolume::step(OpenListing& listing) {
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::uint64_t result = KVFS_OK;
  for (std::uint32_t i = 1 + below(random_, 20); i > 0 && result == KVFS_OK; --i) {
    result = kvfs_listing_next(listing.listing, &item);
    if (result == KVFS_OK && listing.expected.erase(item.id) != 0) {
      expect_item(item, item.id);
    } else if (result == KVFS_OK) {
      EXPECT_TRUE(listing.changed.contains(item.id)) << item.id << " is not in the folder, or was listed before";
    }
  }
  if (result != KVFS_OK) {
    EXPECT_TRUE(result == KVFS_END || !model_.has(listing.folder)) << kvfs_result_text(result);
    EXPECT_TRUE(listing.expected.empty() || !model_.has(listing.folder)) << "not all is listed";
    EXPECT_EQ(kvfs_listing_close(&listing.listing), KVFS_OK);
  }
}

void SoakedVolume::list() {
  constexpr std::size_t kMostListings = 3;
  if (listings_.size() < kMostListings) {
    OpenListing listing;
    listing.folder = any_folder();
    note("list " + std::to_string(listing.folder));
    const std::uint64_t result = kvfs_listing_open(session_->get(), listing.folder, &listing.listing);
    EXPECT_EQ(result, !model_.has(listing.folder)         ? KVFS_NOT_FOUND
                      : !model_.is_folder(listing.folder) ? KVFS_NOT_A_FOLDER
                                                          : KVFS_OK);
    if (result == KVFS_OK) {
      const std::vector<std::uint32_t> items = model_.children(listing.folder);
      listing.expected.insert(items.begin(), items.end());
      listings_.push_back(listing);
    }
  }
  if (!listings_.empty()) {
    const std::size_t number = below(random_, static_cast<std::uint32_t>(listings_.size()));
    note("list on in " + std::to_string(listings_[number].folder));
    step(listings_[number]);
  }
  std::erase_if(listings_, [](const OpenListing& listing) { return listing.listing == nullptr; });
}

void SoakedVolume::expect_content(std::uint32_t id, std::uint32_t fork) {
  const Content content = content_of(id, fork);
  const Bytes bytes = session_->read(id, fork);
  EXPECT_TRUE(bytes == (content == nullptr ? Bytes() : *content)) << "fork " << fork << " of " << id;
  if (model_.item(id).kind == KVFS_SYMBOLIC_LINK && fork == KVFS_DATA_FORK) {
    char target[KVFS_TARGET_SIZE];
    std::size_t length = 0;
    EXPECT_EQ(kvfs_session_read_link(session_->get(), id, target, sizeof(target), &length), KVFS_OK);
    EXPECT_EQ(std::string(target, length), std::string(content->begin(), content->end()));
  }
}

// Reads a piece anywhere in a stream, which is gone when its file is.
void SoakedVolume::read_some(const OpenStream& stream) {
  Bytes piece(below(random_, 3000));
  const std::uint64_t offset = below(random_, 8000);
  std::size_t count = 0;
  const std::uint64_t result = kvfs_stream_read(stream.stream, offset, piece.data(), piece.size(), &count);
  EXPECT_EQ(result, model_.has(stream.id) ? KVFS_OK : KVFS_NOT_FOUND);
  if (result != KVFS_OK) {
    return;
  }
  const Content content = content_of(stream.id, stream.fork);
  const Bytes none;
  const Bytes& all = content == nullptr ? none : *content;
  const std::size_t begin = std::min<std::size_t>(all.size(), static_cast<std::size_t>(offset));
  const std::size_t end = std::min(all.size(), begin + piece.size());
  piece.resize(count);
  EXPECT_TRUE(std::equal(piece.begin(), piece.end(), all.begin() + static_cast<std::ptrdiff_t>(begin),
                         all.begin() + static_cast<std::ptrdiff_t>(end)))
      << count << " bytes at " << offset << " of " << stream.id;
}

void SoakedVolume::read() {
  constexpr std::size_t kMostStreams = 4;
  const OpenStream wanted = {nullptr, any_item(), below(random_, 2)};
  note("read " + std::to_string(wanted.id));
  if (!model_.has(wanted.id) || model_.is_folder(wanted.id)) {
    kvfs_stream* stream = nullptr;
    EXPECT_EQ(kvfs_stream_open(session_->get(), wanted.id, wanted.fork, &stream),
              model_.has(wanted.id) ? KVFS_NOT_A_FILE : KVFS_NOT_FOUND);
    return;
  }
  expect_content(wanted.id, wanted.fork);
  if (streams_.size() < kMostStreams && model_.item(wanted.id).kind != KVFS_HARD_LINK) {
    streams_.push_back(wanted);
    EXPECT_EQ(kvfs_stream_open(session_->get(), wanted.id, wanted.fork, &streams_.back().stream), KVFS_OK);
  }
  if (!streams_.empty()) {
    OpenStream& stream = streams_[below(random_, static_cast<std::uint32_t>(streams_.size()))];
    read_some(stream);
    if (one_in(random_, 4)) {
      EXPECT_EQ(kvfs_stream_close(&stream.stream), KVFS_OK);
    }
  }
  std::erase_if(streams_, [](const OpenStream& stream) { return stream.stream == nullptr; });
}

void SoakedVolume::ask() {
  note("ask");
  EXPECT_EQ(session_->label(KVFS_LABEL_STORED), to_utf8(model_.item(kRootFolderId).name));
  const kvfs_volume_facts facts = session_->facts();
  EXPECT_EQ(facts.file_count, model_.file_count);
  EXPECT_EQ(facts.folder_count, model_.folder_count);
  EXPECT_EQ(facts.free_block_count, model_.free_blocks);
  EXPECT_EQ(facts.next_id, model_.next_id);
  EXPECT_EQ(facts.is_case_sensitive, description_.case_sensitive ? 1 : 0);
  std::uint32_t clear_bits = 0;
  EXPECT_EQ(kvfs_session_count_free_blocks(session_->get(), &clear_bits), KVFS_OK);
  EXPECT_EQ(clear_bits, model_.clear_bits);
}

// ---- Work below sessions -------------------------------------------------------------------------------------------

bool SoakedVolume::expand_catalog(OpenVolume& volume) {
  return kvfs_btree_expand(volume.catalog_tree(), volume.get()) == kvfs_ok;
}

bool SoakedVolume::expand_startup(OpenVolume& volume) {
  kvfs_fork* const fork = volume.fork(SpecialFile::kStartup);
  kvfs_allocation_location added = {};
  if (kvfs_fork_expand(fork, volume.get(), &added) != kvfs_ok) {
    return false;
  }
  HFSPlusForkData data = volume.header()->startupFile;
  data.logicalSize.set(*fork->logical_size);
  kvfs_volume_update_fork_data(volume.get(), kHFSStartupFileID, &data);
  return kvfs_fork_flush(fork) == kvfs_ok;
}

bool SoakedVolume::shrink_startup(OpenVolume& volume) {
  const std::uint32_t blocks = volume.header()->startupFile.totalBlocks.get();
  return blocks != 0 &&
         kvfs_fork_shrink(volume.fork(SpecialFile::kStartup), volume.get(), 1 + below(random_, blocks)) == kvfs_ok;
}

// Freeing a block writes its byte to the start of a chunk of the allocation file, and does not count it. What belongs
// there is put there as the volume's own system would when it checks the volume.
void SoakedVolume::put_allocation_right(const Volume& before) {
  constexpr std::uint64_t kChunk = 4096;
  const std::uint64_t size = image_.fork_logical_size(SpecialFile::kAllocation);
  for (std::uint64_t chunk = 0; chunk < size; chunk += kChunk) {
    image_.write_fork(SpecialFile::kAllocation, chunk, before.read_fork(SpecialFile::kAllocation, chunk, 1));
  }
  const auto blocks_of = [](const Volume& volume) {
    std::set<std::uint32_t> blocks;
    const std::vector<Extent> extents = volume.fork(SpecialFile::kStartup).extents();
    for (const Extent& extent : extents) {
      for (std::uint32_t i = 0; i < extent.block_count; ++i) {
        blocks.insert(extent.start_block + i);
      }
    }
    return blocks;
  };
  const std::set<std::uint32_t> left = blocks_of(image_);
  for (const std::uint32_t block : blocks_of(before)) {
    if (!left.contains(block)) {
      image_.set_block_used(block, false);
      image_.add_to_field("freeBlocks", 1);
    }
  }
}

// Makes an empty file or folder, where there are nodes enough for it.
bool SoakedVolume::insert_item(OpenVolume& volume) {
  const std::uint32_t folder = any_folder();
  SessionItem item;
  item.parent = folder;
  item.name = any_name(folder);
  item.kind = one_in(random_, 3) ? KVFS_FOLDER : KVFS_FILE;
  const bool has_nodes =
      image_.get_field("catalog.header.freeNodes") > 2 * image_.get_field("catalog.header.treeDepth");
  if (!has_nodes || !refusals_of_place(0, folder, item.name).empty()) {
    return false;
  }
  const bool is_folder = item.kind == KVFS_FOLDER;
  const std::uint32_t id = model_.next_id;
  Bytes record(is_folder ? sizeof(HFSPlusCatalogFolder) : sizeof(HFSPlusCatalogFile));
  put_be(record, 0, 2, is_folder ? 1 : 2);
  put_be(record, 2, 2, is_folder && description_.folder_counts ? 0x10 : is_folder ? 0 : 2);
  put_be(record, 8, 4, id);
  put_be(record, 42, 2, is_folder ? 040755 : 0100644);
  const Bytes thread = thread_data(is_folder, folder, item.name);
  for (const auto& [key, data] :
       {std::pair{stored_key(folder, item.name), record}, std::pair{stored_key(id, {}), thread}}) {
    kvfs_catalog_record_locator* locator = nullptr;
    const kvfs_result result = kvfs_catalog_insert_record(volume.catalog(), &key, data.data(),
                                                          static_cast<std::uint16_t>(data.size()), nullptr, &locator);
    if (result != kvfs_ok) {
      EXPECT_EQ(result, kvfs_internal) << joined(log_);  // the root node is full
      return false;
    }
    kvfs_catalog_record_locator_close(&locator);
  }
  const ItemLocator parent(volume, model_.item(folder).parent, model_.item(folder).name, ItemLocator::Parent::kNone);
  EXPECT_EQ(kvfs_catalog_increment_valence(volume.catalog(), record.data(), parent.get()), kvfs_ok);
  (is_folder ? kvfs_volume_add_folder_count : kvfs_volume_add_file_count)(volume.get(), 1);
  kvfs_volume_increment_next_catalog_id(volume.get());
  model_.add(item);
  return true;
}

// Sessions do not offer these. What fails is given up with its volume.
void SoakedVolume::grow_or_shrink() {
  struct Choice {
    const char* name;
    bool (SoakedVolume::*work)(OpenVolume&);
  };
  static constexpr Choice kExpandCatalog = {"expand the catalog", &SoakedVolume::expand_catalog};
  static constexpr Choice kInsert = {"insert an item", &SoakedVolume::insert_item};
  static constexpr Choice kShrink = {"shrink the startup file", &SoakedVolume::shrink_startup};
  static constexpr Choice kChoices[] = {
      kInsert, kInsert, kInsert, {"expand the startup file", &SoakedVolume::expand_startup}, kShrink, kExpandCatalog};
  flush();
  close();
  const Choice& choice = needs_room_ ? kExpandCatalog : kChoices[below(random_, std::size(kChoices))];
  const Volume before = image_;
  bool is_done = false;
  {
    OpenVolume volume(image_);
    is_done = (this->*choice.work)(volume);
    image_ = is_done ? volume.flushed() : image_;
  }
  if (is_done && choice.work == kShrink.work) {
    put_allocation_right(before);
  }
  note(std::string(choice.name) + (is_done ? "" : ", given up"));
  is_used_up_ = needs_room_ && !is_done;
  needs_room_ = false;
  model_.take_counts(image_);
  saved_ = model_;
  open();
}

void SoakedVolume::operate() {
  struct Choice {
    const char* name;
    Operation operation;
    std::uint32_t weight;
  };
  static constexpr Choice kChoices[] = {
      {"rename", &SoakedVolume::rename, 50},  {"delete", &SoakedVolume::remove, 16},
      {"link", &SoakedVolume::make_link, 24}, {"label", &SoakedVolume::set_label, 12},
      {"find", &SoakedVolume::find, 24},      {"list", &SoakedVolume::list, 20},
      {"read", &SoakedVolume::read, 24},      {"ask", &SoakedVolume::ask, 8},
      {"flush", &SoakedVolume::flush, 14},    {"discard", &SoakedVolume::discard, 4},
      {"reopen", &SoakedVolume::reopen, 1},   {"grow or shrink", &SoakedVolume::grow_or_shrink, 3}};
  constexpr std::uint32_t kWeights = 200;
  log_.clear();
  ++figures_.operations;
  if (needs_room_) {
    return grow_or_shrink();
  }
  std::uint32_t number = below(random_, kWeights);
  for (const Choice& choice : kChoices) {
    if (number < choice.weight) {
      ++figures_.done[choice.name];
      return (this->*choice.operation)();
    }
    number -= choice.weight;
  }
}

// ---- Comparing -----------------------------------------------------------------------------------------------------

Lines SoakedVolume::findings(const Volume& volume) const {
  Lines findings = check_volume(volume);
  std::erase_if(findings, [this](const std::string& line) {
    return std::any_of(tolerated_.begin(), tolerated_.end(),
                       [&line](const std::string& beginning) { return line.starts_with(beginning); });
  });
  return findings;
}

// The session has no changes that were not flushed.
void SoakedVolume::compare() {
  const Volume volume = session_->contents();
  EXPECT_EQ(findings(volume), Lines());
  EXPECT_EQ(model_.differences(volume), Lines());
  ask();
  for (const auto& [id, item] : model_.items()) {
    if (item.kind != KVFS_FOLDER) {
      expect_content(id, KVFS_DATA_FORK);
      expect_content(id, KVFS_RESOURCE_FORK);
    }
  }
}

// ---- Losses of power -----------------------------------------------------------------------------------------------

// A volume whose catalog is torn may be refused and may have lost items. Nothing crashes, and what fails says so.
void SoakedVolume::use_torn(const Volume& image) {
  TestSession session(image);
  if (session.get() == nullptr) {
    return;
  }
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  constexpr std::uint32_t kMostIDs = 300;
  for (std::uint32_t id = kRootFolderId; id < kMostIDs; ++id) {
    kvfs_listing* listing = nullptr;
    kvfs_stream* stream = nullptr;
    Bytes piece(1000);
    std::size_t count = 0;
    if (kvfs_listing_open(session.get(), id, &listing) == KVFS_OK) {
      while (kvfs_listing_next(listing, &item) == KVFS_OK) {
      }
    } else if (kvfs_stream_open(session.get(), id, KVFS_DATA_FORK, &stream) == KVFS_OK) {
      (void)!kvfs_stream_read(stream, 0, piece.data(), piece.size(), &count);
    }
    EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
    EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
  }
  (void)!kvfs_session_set_label(session.get(), "torn");
  (void)!kvfs_session_flush(session.get(), 0);
}

// Nothing refers to what is not there: what is left is not more than a flush says. From now on the volume has it.
void SoakedVolume::tolerate_what_a_cut_leaves() {
  for (const std::string& line : findings(image_)) {
    const bool is_leak = line.ends_with(": marked used, belong to nothing");
    const bool is_orphan = line.starts_with("overflow records of file ");
    const std::string word = line.substr(0, line.find(' '));
    EXPECT_TRUE(is_leak || is_orphan || word == "freeBlocks" || word == "fileCount" || word == "folderCount") << line;
    tolerated_.insert(is_leak ? "blocks " : is_orphan ? "overflow records" : word);
  }
}

void SoakedVolume::cut_power() {
  log_.clear();
  ++figures_.cuts;
  if (one_in(random_, 3)) {
    note("lose what was not flushed");
    reopen();
    return compare();
  }
  const Volume before = session_->contents();
  const SessionModel old = saved_;
  std::vector<Transfer> writes;
  {
    FaultInjector faults;
    flush();
    writes = faults.writes();
  }
  const FlushCut cut(before, writes, random_);
  note("cut after " + cut.text());
  const std::optional<bool> is_flushed = cut.is_new();
  if (!is_flushed.has_value()) {
    use_torn(cut.device());
  } else {
    close();
    image_ = cut.device();
    model_ = *is_flushed ? model_ : old;
    model_.take_counts(image_);
    saved_ = model_;
    tolerate_what_a_cut_leaves();
    open();
  }
  compare();
}

}  // namespace kvfs_test
