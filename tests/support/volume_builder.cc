#include "volume_builder.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "big_endian.h"
#include "block_allocator.h"
#include "tree_builder.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kDate = 3786912000;  // 2024-01-01, in seconds since 1904-01-01
constexpr std::uint16_t kFlagThreadExists = 0x0002;
constexpr std::uint16_t kFlagHasLinkChain = 0x0020;
constexpr std::uint16_t kFlagHasFolderCount = 0x1000;
constexpr std::uint8_t kDataFork = 0x00;
constexpr std::uint8_t kResourceFork = 0xFF;
constexpr std::size_t kFolderSize = 88;
constexpr std::size_t kFileSize = 248;
constexpr std::size_t kMaxNameLength = 255;

constexpr std::uint32_t four_char(const char (&text)[5]) {
  std::uint32_t code = 0;
  for (int i = 0; i < 4; ++i) {
    code = code << 8 | static_cast<std::uint8_t>(text[i]);
  }
  return code;
}

// A fork that has its place on the volume.
struct PlacedFork {
  std::uint64_t logical_size = 0;
  std::uint32_t clump_size = 0;
  std::vector<Extent> extents;

  [[nodiscard]] std::uint32_t blocks() const {
    std::uint32_t count = 0;
    for (const Extent& extent : extents) {
      count += extent.block_count;
    }
    return count;
  }
};

void put_extents(std::uint8_t* bytes, const std::vector<Extent>& extents, std::size_t first) {
  for (std::size_t i = first; i < std::min(extents.size(), first + 8); ++i) {
    put_be(bytes + 8 * (i - first), 4, extents[i].start_block);
    put_be(bytes + 8 * (i - first) + 4, 4, extents[i].block_count);
  }
}

void put_fork_data(std::uint8_t* bytes, const PlacedFork& fork) {
  put_be(bytes, 8, fork.logical_size);
  put_be(bytes + 8, 4, fork.clump_size);
  put_be(bytes + 12, 4, fork.blocks());
  put_extents(bytes + 16, fork.extents, 0);
}

// What the overflow tree says about a fork: its extents behind the eighth, eight to a record.
void add_overflow_records(std::uint32_t cnid, std::uint8_t type, const PlacedFork& fork, std::vector<Record>& records) {
  std::uint32_t start = 0;
  for (std::size_t i = 0; i < fork.extents.size(); ++i) {
    if (i >= 8 && i % 8 == 0) {
      Bytes data(64);
      put_extents(data.data(), fork.extents, i);
      records.emplace_back(extents_key(type, cnid, start), data);
    }
    start += fork.extents[i].block_count;
  }
}

struct Children {
  std::uint32_t all = 0;
  std::uint32_t folders = 0;
};

bool counts_as_folder(const Item& item) {
  return item.folder || (item.file_type == four_char("fdrp") && item.creator == four_char("MACS") &&
                         (item.flags & kFlagHasLinkChain) != 0);
}

// The first 88 bytes, which folder and file records have in common but for a few fields.
void put_common(Bytes& record, const Item& item) {
  put_be(record, 0, 2, item.folder ? 1 : 2);
  put_be(record, 8, 4, item.cnid);
  for (std::size_t at = 12; at < 28; at += 4) {
    put_be(record, at, 4, kDate);
  }
  const std::uint16_t usual_mode = item.folder ? 040755 : 0100644;
  put_be(record, 42, 2, item.mode != 0 ? item.mode : usual_mode);
  put_be(record, 44, 4, item.special);
  put_be(record, 56, 2, item.finder_flags);
}

Bytes folder_record(const Item& item, Children children, bool folder_count) {
  Bytes record(kFolderSize);
  put_common(record, item);
  put_be(record, 2, 2, item.flags | (folder_count ? kFlagHasFolderCount : 0U));
  put_be(record, 4, 4, children.all);
  put_be(record, 84, 4, folder_count ? children.folders : 0);
  return record;
}

Bytes file_record(const Item& item, const PlacedFork& data, const PlacedFork& resource) {
  Bytes record(kFileSize);
  put_common(record, item);
  put_be(record, 2, 2, item.flags | (item.with_thread ? kFlagThreadExists : 0U));
  put_be(record, 48, 4, item.file_type);
  put_be(record, 52, 4, item.creator);
  put_fork_data(record.data() + 88, data);
  put_fork_data(record.data() + 168, resource);
  return record;
}

// A catalog record on its way to its place.
struct Entry {
  std::uint32_t parent = 0;
  Name name;
  Record record;
  std::size_t item = kNone;
  bool thread = false;

  static constexpr std::size_t kNone = ~std::size_t{0};
};

class Builder {
 public:
  explicit Builder(const VolumeDescription& description);
  Volume build();

 private:
  void check_description() const;
  [[nodiscard]] std::uint32_t tail_blocks(std::uint64_t total_blocks, std::uint64_t size) const;
  void take_reserved_blocks();
  void place_items();
  PlacedFork place_file_fork(const ForkDescription& fork, std::uint32_t cnid, std::uint8_t type);
  PlacedFork place_tree(const TreePlan& plan, const TreeShape& shape);
  void count_children();
  void add_entries();
  void add_extra_entries();
  void sort_entries();
  bool stretch_name(std::vector<Record>& records, std::size_t index, std::size_t bytes);
  void plan_catalog();
  void plan_other_trees();
  void place_allocation_file();
  void set_size();

  void write_items(Volume& volume) const;
  [[nodiscard]] std::uint64_t bitmap_blocks_for(std::uint64_t total_blocks) const;
  void write_bitmap(Volume& volume) const;
  void write_header(Volume& volume) const;
  [[nodiscard]] Bytes header() const;
  [[nodiscard]] std::uint32_t next_catalog_id() const;
  [[nodiscard]] std::uint8_t key_compare_type() const;
  [[nodiscard]] bool has_folder_count(const Item& item) const;
  [[nodiscard]] std::uint32_t next_allocation() const;

  const VolumeDescription& description_;
  const std::uint32_t block_size_;
  std::vector<Item> items_;  // the root first
  std::vector<PlacedFork> data_;
  std::vector<PlacedFork> resources_;
  std::map<std::uint32_t, Children> children_;
  std::vector<Entry> entries_;
  std::vector<std::size_t> thread_of_item_;  // index of its thread among the sorted entries
  std::vector<Record> overflow_;
  BlockAllocator blocks_;
  TreePlan catalog_plan_;
  TreePlan extents_plan_;
  TreePlan attributes_plan_;
  PlacedFork catalog_;
  PlacedFork extents_;
  PlacedFork attributes_;
  PlacedFork startup_;
  PlacedFork allocation_;
  std::uint64_t size_ = 0;
  std::uint64_t total_blocks_ = 0;
};

Builder::Builder(const VolumeDescription& description)
    : description_(description),
      block_size_(description.block_size),
      blocks_(description.block_size == 0 ? 0 : description.size / description.block_size) {
  Item root = description.root;
  root.parent = kRootParentId;
  root.cnid = kRootFolderId;
  root.folder = true;
  root.name = description.label;
  items_.push_back(root);
  items_.insert(items_.end(), description.items.begin(), description.items.end());
}

void Builder::check_description() const {
  if (block_size_ < 512 || block_size_ > 65536 || (block_size_ & (block_size_ - 1)) != 0) {
    throw std::invalid_argument("a block size must be a power of two from 512 to 65536");
  }
  if (description_.size == 0 && description_.trailing_bytes >= block_size_) {
    throw std::invalid_argument("trailing bytes make up a block");
  }
  if (description_.extents.extent_count > 8 || description_.allocation_extent_count > 8) {
    throw std::invalid_argument("extents overflow file and allocation file have at most eight extents here");
  }
  for (const Item& item : items_) {
    if (item.name.size() > kMaxNameLength) {
      throw std::invalid_argument("a name has more than 255 units");
    }
  }
}

// The blocks that hold the last 1024 bytes of the device, as far as they are blocks of the volume.
std::uint32_t Builder::tail_blocks(std::uint64_t total_blocks, std::uint64_t size) const {
  const std::uint64_t first = (size - 1024) / block_size_;
  return static_cast<std::uint32_t>(total_blocks > first ? total_blocks - first : 0);
}

void Builder::take_reserved_blocks() {
  blocks_.use({0, (1536 + block_size_ - 1) / block_size_});
  if (description_.size != 0) {
    size_ = description_.size;
    total_blocks_ = size_ / block_size_;
    const std::uint32_t tail = tail_blocks(total_blocks_, size_);
    blocks_.use({static_cast<std::uint32_t>(total_blocks_ - tail), tail});
  }
  for (const Extent& extent : description_.free_blocks) {
    blocks_.keep_free(extent);
  }
}

PlacedFork Builder::place_file_fork(const ForkDescription& fork, std::uint32_t cnid, std::uint8_t type) {
  PlacedFork placed;
  placed.logical_size = std::max<std::uint64_t>(fork.size, fork.content.size());
  const std::uint64_t blocks = (placed.logical_size + block_size_ - 1) / block_size_;
  placed.extents = blocks_.allocate({blocks, fork.extent_count, fork.gap_blocks, fork.first_block, 0});
  add_overflow_records(cnid, type, placed, overflow_);
  return placed;
}

void Builder::place_items() {
  for (const Item& item : items_) {
    data_.push_back(place_file_fork(item.data, item.cnid, kDataFork));
    resources_.push_back(place_file_fork(item.resource, item.cnid, kResourceFork));
  }
}

PlacedFork Builder::place_tree(const TreePlan& plan, const TreeShape& shape) {
  PlacedFork placed;
  placed.logical_size = plan.logical_size();
  placed.clump_size = plan.clump_size;
  placed.extents =
      blocks_.allocate({plan.blocks, shape.extent_count, shape.gap_blocks, shape.first_block, shape.blocks_after});
  return placed;
}

void Builder::count_children() {
  for (const Item& item : items_) {
    if (item.with_record) {
      ++children_[item.parent].all;
      children_[item.parent].folders += counts_as_folder(item) ? 1 : 0;
    }
  }
}

bool Builder::has_folder_count(const Item& item) const {
  return item.has_folder_count.value_or(description_.folder_counts);
}

void Builder::add_entries() {
  for (std::size_t i = 0; i < items_.size(); ++i) {
    const Item& item = items_[i];
    if (item.with_record) {
      Bytes data = item.folder ? folder_record(item, children_[item.cnid], has_folder_count(item))
                               : file_record(item, data_[i], resources_[i]);
      entries_.push_back(
          {item.parent, item.name, {catalog_key(item.parent, item.name), item.record.value_or(data)}, i, false});
    }
    if (item.with_thread) {
      entries_.push_back(
          {item.cnid, {}, {thread_key(item.cnid), thread_data(item.folder, item.parent, item.name)}, i, true});
    }
  }
}

void Builder::add_extra_entries() {
  for (const Record& record : description_.extra_catalog_records) {
    entries_.push_back({get_be32(record.first, 2), name_of_key(record.first), record, Entry::kNone, false});
  }
}

void Builder::sort_entries() {
  const bool binary = key_compare_type() == 0xBC;
  const bool by_units = description_.nul_names_by_units;
  const auto compare = [binary, by_units](const Entry& a, const Entry& b) {
    if (by_units && a.parent == b.parent && (a.name.starts_with(u'\0') || b.name.starts_with(u'\0'))) {
      return a.name.compare(b.name);
    }
    return compare_entries(a.parent, a.name, b.parent, b.name, binary);
  };
  std::stable_sort(entries_.begin(), entries_.end(),
                   [&compare](const Entry& a, const Entry& b) { return compare(a, b) < 0; });
  thread_of_item_.assign(items_.size(), Entry::kNone);
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const Entry& entry = entries_[i];
    if (entry.thread) {
      thread_of_item_[entry.item] = i;
    }
    const bool items_both = i > 0 && entry.item != Entry::kNone && entries_[i - 1].item != Entry::kNone;
    if (items_both && compare(entries_[i - 1], entry) == 0) {
      throw std::invalid_argument("two items have the same place: " + to_utf8(entry.name));
    }
  }
}

// Lengthens a name so that its record fills a leaf. Its thread must come later in the tree, so that no leaf that is
// packed already changes, and the order must stay.
bool Builder::stretch_name(std::vector<Record>& records, std::size_t index, std::size_t bytes) {
  Entry& entry = entries_[index];
  if (entry.item == Entry::kNone || entry.thread || entry.item == 0) {
    return false;
  }
  const std::size_t thread = thread_of_item_[entry.item];
  const Name name = entry.name + Name(bytes / 2, u'-');
  const bool before_next =
      index + 1 == entries_.size() || compare_entries(entry.parent, name, entries_[index + 1].parent,
                                                      entries_[index + 1].name, key_compare_type() == 0xBC) < 0;
  if (name.size() > kMaxNameLength || thread < index || !before_next) {
    return false;
  }
  entry.name = name;
  records[index].first = catalog_key(entry.parent, name);
  if (thread != Entry::kNone) {
    records[thread].second = thread_data(items_[entry.item].folder, entry.parent, name);
  }
  return true;
}

std::uint8_t Builder::key_compare_type() const {
  return description_.key_compare_type.value_or(description_.case_sensitive ? 0xBC : 0xCF);
}

void Builder::plan_catalog() {
  count_children();
  add_entries();
  add_extra_entries();
  sort_entries();
  std::vector<Record> records;
  records.reserve(entries_.size());
  for (Entry& entry : entries_) {
    records.push_back(std::move(entry.record));
  }
  catalog_plan_ =
      plan_tree(records, description_.catalog, {516, 6, key_compare_type()}, block_size_,
                [this, &records](std::size_t index, std::size_t bytes) { return stretch_name(records, index, bytes); });
  catalog_ = place_tree(catalog_plan_, description_.catalog);
  add_overflow_records(static_cast<std::uint32_t>(Tree::kCatalog), kDataFork, catalog_, overflow_);
}

void Builder::plan_other_trees() {
  std::vector<Record> none;
  if (description_.attributes_file) {
    attributes_plan_ = plan_tree(none, description_.attributes_tree, {266, 6, 0xBC}, block_size_, {});
    attributes_ = place_tree(attributes_plan_, description_.attributes_tree);
    add_overflow_records(static_cast<std::uint32_t>(Tree::kAttributes), kDataFork, attributes_, overflow_);
  }
  startup_.logical_size = std::uint64_t{description_.startup_blocks} * block_size_;
  startup_.extents = blocks_.allocate({description_.startup_blocks, 1, 0, 0, 0});
  overflow_.insert(overflow_.end(), description_.extra_extents_records.begin(),
                   description_.extra_extents_records.end());
  std::stable_sort(overflow_.begin(), overflow_.end(), [](const Record& a, const Record& b) {
    return compare_keys(Tree::kExtents, a.first, b.first, false) < 0;
  });
  extents_plan_ = plan_tree(overflow_, description_.extents, {10, 2, 0}, block_size_, {});
  extents_ = place_tree(extents_plan_, description_.extents);
}

// Blocks of an allocation file for so many blocks.
std::uint64_t Builder::bitmap_blocks_for(std::uint64_t total_blocks) const {
  constexpr std::uint64_t kChunk = 4096;
  std::uint64_t bytes = (total_blocks + 7) / 8;
  if (description_.allocation_file_in_chunks) {
    bytes = (bytes + kChunk - 1) / kChunk * kChunk;
  }
  return (bytes + block_size_ - 1) / block_size_;
}

// Size of a volume that was left open: what is placed, the allocation file that describes it, the spare blocks and the
// last 1024 bytes.
void Builder::set_size() {
  const std::uint64_t placed = blocks_.end() + description_.allocation_extent_count + description_.spare_blocks;
  std::uint64_t bitmap_blocks = 0;
  std::uint64_t wanted = 1;
  while (bitmap_blocks < wanted) {
    bitmap_blocks = wanted;
    total_blocks_ = placed + bitmap_blocks;
    total_blocks_ += (1024 + block_size_ - 1) / block_size_;
    wanted = bitmap_blocks_for(total_blocks_);
  }
  if (total_blocks_ > 0xFFFFFFFFU) {
    throw std::invalid_argument("the volume has too many blocks");
  }
  size_ = total_blocks_ * block_size_ + description_.trailing_bytes;
}

void Builder::place_allocation_file() {
  if (description_.size == 0) {
    set_size();
  }
  const std::uint64_t blocks = bitmap_blocks_for(total_blocks_);
  allocation_.logical_size = blocks * block_size_;
  allocation_.clump_size = static_cast<std::uint32_t>(blocks * block_size_);
  allocation_.extents = blocks_.allocate({blocks, description_.allocation_extent_count, 1, 0, 0});
  if (description_.size == 0) {
    const std::uint32_t tail = tail_blocks(total_blocks_, size_);
    blocks_.use({static_cast<std::uint32_t>(total_blocks_ - tail), tail});
  }
}

Volume Builder::build() {
  check_description();
  take_reserved_blocks();
  place_items();
  plan_catalog();
  plan_other_trees();
  place_allocation_file();

  Volume volume{SparseImage(size_)};
  write_items(volume);
  write_tree(volume, {volume, block_size_, catalog_.extents}, catalog_plan_);
  write_tree(volume, {volume, block_size_, extents_.extents}, extents_plan_);
  if (description_.attributes_file) {
    write_tree(volume, {volume, block_size_, attributes_.extents}, attributes_plan_);
  }
  write_bitmap(volume);
  write_header(volume);
  return volume;
}

void Builder::write_items(Volume& volume) const {
  for (std::size_t i = 0; i < items_.size(); ++i) {
    ForkView(volume, block_size_, data_[i].extents).write(volume, 0, items_[i].data.content);
    ForkView(volume, block_size_, resources_[i].extents).write(volume, 0, items_[i].resource.content);
  }
}

void Builder::write_bitmap(Volume& volume) const {
  const ForkView fork(volume, block_size_, allocation_.extents);
  for (const Extent& extent : blocks_.used()) {
    if (extent.block_count == 0) {
      continue;
    }
    const std::uint64_t first = extent.start_block;
    const std::uint64_t end = first + extent.block_count;
    Bytes bytes = fork.read(first / 8, static_cast<std::size_t>((end + 7) / 8 - first / 8));
    for (std::uint64_t block = first; block < end; ++block) {
      bytes[static_cast<std::size_t>(block / 8 - first / 8)] |= static_cast<std::uint8_t>(0x80U >> block % 8);
    }
    fork.write(volume, first / 8, bytes);
  }
}

std::uint32_t Builder::next_catalog_id() const {
  std::uint32_t highest = kFirstUserId - 1;
  for (const Item& item : items_) {
    highest = std::max(highest, item.cnid);
  }
  return description_.next_catalog_id != 0 ? description_.next_catalog_id : highest + 1;
}

// Behind the last used block, that of the alternate header aside.
std::uint32_t Builder::next_allocation() const {
  if (description_.next_allocation != 0) {
    return description_.next_allocation;
  }
  std::uint64_t next = 0;
  for (const Extent& extent : blocks_.used()) {
    const std::uint64_t end = std::uint64_t{extent.start_block} + extent.block_count;
    next = end < total_blocks_ ? std::max(next, end) : next;
  }
  return static_cast<std::uint32_t>(next);
}

Bytes Builder::header() const {
  std::uint64_t used = 0;
  for (const Extent& extent : blocks_.used()) {
    used += extent.block_count;
  }
  const auto is_entry = [](const Item& item, bool folder) { return item.with_record && item.folder == folder; };
  const auto files = std::count_if(items_.begin() + 1, items_.end(), [&](const Item& i) { return is_entry(i, false); });
  const auto folders =
      std::count_if(items_.begin() + 1, items_.end(), [&](const Item& i) { return is_entry(i, true); });
  Bytes bytes(512);
  const auto put = [&bytes](std::size_t at, std::size_t width, std::uint64_t value) {
    put_be(bytes, at, width, value);
  };
  put(0, 2, description_.hfsx ? 0x4858 : 0x482B);
  put(2, 2, description_.hfsx ? 5 : 4);
  put(4, 4, description_.attributes);
  put(8, 4, four_char("10.0"));
  put(16, 4, kDate);
  put(20, 4, kDate);
  put(28, 4, kDate);
  put(32, 4, static_cast<std::uint64_t>(files));
  put(36, 4, static_cast<std::uint64_t>(folders));
  put(40, 4, block_size_);
  put(44, 4, total_blocks_);
  put(48, 4, total_blocks_ - used);
  put(52, 4, next_allocation());
  put(56, 4, 4ULL * block_size_);
  put(60, 4, 4ULL * block_size_);
  put(64, 4, next_catalog_id());
  put(68, 4, 1);
  put(72, 8, 1);
  put(104, 8, 0x6B76667374657374);  // the volume's unique ID
  put_fork_data(bytes.data() + 112, allocation_);
  put_fork_data(bytes.data() + 192, extents_);
  put_fork_data(bytes.data() + 272, catalog_);
  put_fork_data(bytes.data() + 352, attributes_);
  put_fork_data(bytes.data() + 432, startup_);
  return bytes;
}

void Builder::write_header(Volume& volume) const {
  const Bytes bytes = header();
  volume.write(kHeaderOffset, bytes);
  volume.write(size_ - 1024, bytes);
}

Name series_name(std::string_view prefix, std::uint32_t number, std::size_t length) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%06u", number);
  Name name = to_utf16(prefix) + to_utf16(digits);
  if (name.size() < length) {
    name.append(length - name.size(), u'x');
  }
  return name;
}

}  // namespace

// ---- VolumeDescription

std::uint32_t VolumeDescription::take_cnid(std::uint32_t wanted) {
  while (wanted == 0) {
    if (index_of_cnid_.count(next_cnid_) == 0) {
      wanted = next_cnid_;
    }
    ++next_cnid_;
  }
  return wanted;
}

std::uint32_t VolumeDescription::add(Item item) {
  item.cnid = take_cnid(item.cnid);
  index_of_cnid_[item.cnid] = items.size();
  items.push_back(std::move(item));
  return items.back().cnid;
}

Item& VolumeDescription::item(std::uint32_t cnid) {
  return cnid == kRootFolderId ? root : items.at(index_of_cnid_.at(cnid));
}

std::uint32_t VolumeDescription::add_folder(std::uint32_t parent, Name name) {
  Item item;
  item.parent = parent;
  item.name = std::move(name);
  item.folder = true;
  return add(std::move(item));
}

std::uint32_t VolumeDescription::add_file(std::uint32_t parent, Name name, std::uint64_t data_bytes,
                                          std::uint32_t extent_count) {
  Item item;
  item.parent = parent;
  item.name = std::move(name);
  item.data.size = data_bytes;
  item.data.extent_count = extent_count;
  return add(std::move(item));
}

std::uint32_t VolumeDescription::add_file_with(std::uint32_t parent, Name name, Bytes content) {
  const std::uint32_t cnid = add_file(parent, std::move(name), content.size());
  item(cnid).data.content = std::move(content);
  return cnid;
}

std::uint32_t VolumeDescription::add_symlink(std::uint32_t parent, Name name, std::string_view target) {
  const std::uint32_t cnid = add_file_with(parent, std::move(name), Bytes(target.begin(), target.end()));
  Item& link = item(cnid);
  link.file_type = four_char("slnk");
  link.creator = four_char("rhap");
  link.mode = 0120777;
  return cnid;
}

std::uint32_t VolumeDescription::add_hard_link(std::uint32_t parent, Name name, std::uint32_t target) {
  const std::uint32_t cnid = add_file(parent, std::move(name));
  Item& link = item(cnid);
  link.file_type = four_char("hlnk");
  link.creator = four_char("hfs+");
  link.special = target;
  if (index_of_cnid_.count(target) != 0) {
    ++item(target).special;  // there it counts the links
  }
  return cnid;
}

std::uint32_t VolumeDescription::add_directory_hard_link(std::uint32_t parent, Name name, std::uint32_t target) {
  const std::uint32_t cnid = add_file(parent, std::move(name));
  Item& link = item(cnid);
  link.file_type = four_char("fdrp");
  link.creator = four_char("MACS");
  link.flags = kFlagHasLinkChain;
  link.special = target;
  return cnid;
}

std::uint32_t VolumeDescription::private_folder() {
  if (private_folder_ == 0) {
    private_folder_ = add_folder(kRootFolderId, Name(4, u'\0') + u"HFS+ Private Data");
  }
  return private_folder_;
}

std::uint32_t VolumeDescription::add_inode(std::uint64_t data_bytes) {
  const std::uint32_t cnid = add_file(private_folder(), {}, data_bytes);
  item(cnid).name = to_utf16("iNode" + std::to_string(cnid));
  return cnid;
}

std::uint32_t VolumeDescription::add_series(const Item& pattern, std::uint32_t count, std::string_view prefix,
                                            std::size_t name_length) {
  std::uint32_t first = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    Item item = pattern;
    item.name = series_name(prefix, i, name_length);
    const std::uint32_t cnid = add(std::move(item));
    first = i == 0 ? cnid : first;
  }
  return first;
}

std::uint32_t VolumeDescription::add_files(std::uint32_t parent, std::uint32_t count, std::string_view prefix,
                                           std::size_t name_length) {
  Item pattern;
  pattern.parent = parent;
  return add_series(pattern, count, prefix, name_length);
}

std::uint32_t VolumeDescription::add_folders(std::uint32_t parent, std::uint32_t count, std::string_view prefix,
                                             std::size_t name_length) {
  Item pattern;
  pattern.parent = parent;
  pattern.folder = true;
  return add_series(pattern, count, prefix, name_length);
}

std::uint32_t VolumeDescription::add_overflow_records(std::uint32_t records) {
  const std::uint32_t pieces = 8 + 8 * records;
  const std::uint32_t cnid = add_file(kRootFolderId, u"overflow", std::uint64_t{pieces} * block_size, pieces);
  item(cnid).name += to_utf16(std::to_string(cnid));
  return cnid;
}

Volume build_volume(const VolumeDescription& description) {
  return Builder(description).build();
}

}  // namespace kvfs_test
