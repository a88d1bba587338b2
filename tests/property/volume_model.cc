#include "property/volume_model.h"

#include <algorithm>
#include <bit>
#include <set>

#include "big_endian.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kChunkBytes = 4096;

std::string text(std::uint64_t value) {
  return std::to_string(value);
}

std::uint64_t up_to_byte(std::uint64_t blocks) {
  return (blocks + 7) & ~std::uint64_t{7};
}

ModelFork fork_at(const Bytes& bytes, std::size_t at) {
  ModelFork fork;
  fork.size = get_be(bytes, at, 8);
  fork.total = get_be32(bytes, at + 12);
  for (std::size_t i = 0; i < 8; ++i) {
    fork.extents[i] = {get_be32(bytes, at + 16 + 8 * i), get_be32(bytes, at + 20 + 8 * i)};
  }
  return fork;
}

std::string fork_line(const ModelFork& fork) {
  std::string line = text(fork.size) + " bytes in " + text(fork.total) + " blocks";
  for (const Extent& extent : fork.extents) {
    line += " " + text(extent.start_block) + "+" + text(extent.block_count);
  }
  return line;
}

std::string item_line(std::uint32_t cnid, const ModelItem& item) {
  std::string line = (item.folder    ? "folder "
                      : item.is_link ? "link "
                                     : "file ") +
                     text(cnid) + " in " + text(item.parent) + " " + to_utf8(item.name);
  if (!item.folder) {
    line += ": " + fork_line(item.data) + "; " + fork_line(item.resource);
  }
  return line;
}

// Whether the catalog says the same of both; it has eight extents of a fork.
bool is_listed_alike(const ModelFork& one, const ModelFork& other) {
  return one.size == other.size && one.total == other.total && one.extents == other.extents;
}

bool is_listed_alike(const ModelItem& one, const ModelItem& other) {
  return one.parent == other.parent && one.name == other.name && one.folder == other.folder &&
         one.is_link == other.is_link &&
         (one.folder || (is_listed_alike(one.data, other.data) && is_listed_alike(one.resource, other.resource)));
}

bool is_link_record(const Bytes& data) {
  return get_be32(data, 48) == 0x736C6E6B && get_be32(data, 52) == 0x72686170 && get_be16(data, 42) == 0xA1FF &&
         get_be16(data, 56) == 0x8000;
}

void set_bits(std::vector<std::uint8_t>& bits, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = start; block < end; ++block) {
    bits.at(static_cast<std::size_t>(block / 8)) |= static_cast<std::uint8_t>(0x80U >> block % 8);
  }
}

// The items that a catalog lists, without the blocks behind their eight extents.
std::map<std::uint32_t, ModelItem> items_of(const Volume& volume) {
  std::map<std::uint32_t, ModelItem> items;
  std::map<std::uint32_t, bool> threads;
  for (const auto& [key, data] : dump_records(volume, Tree::kCatalog)) {
    const std::uint16_t type = get_be16(data, 0);
    if (type > 2) {
      threads[get_be32(key, 2)] = true;
      continue;
    }
    ModelItem item;
    item.parent = get_be32(key, 2);
    item.name = name_of_key(key);
    item.folder = type == 1;
    if (!item.folder) {
      item.is_link = is_link_record(data);
      item.data = fork_at(data, 88);
      item.resource = fork_at(data, 168);
    }
    items[get_be32(data, 8)] = item;
  }
  for (auto& [cnid, item] : items) {
    item.has_thread = threads.count(cnid) != 0;
  }
  return items;
}

}  // namespace

// ---- Forks ---------------------------------------------------------------------------------------------------------

std::uint32_t ModelFork::blocks_in_extents() const {
  std::uint32_t blocks = 0;
  for (const Extent& extent : extents) {
    blocks += extent.block_count;
  }
  return blocks;
}

std::uint32_t ModelFork::block(std::uint32_t index) const {
  for (const Extent& extent : extents) {
    if (index < extent.block_count) {
      return extent.start_block + index;
    }
    index -= extent.block_count;
  }
  return 0;
}

void VolumeModel::add_run(ModelFork& fork, const ModelRun& run) {
  Extent& extent = fork.extents.at(run.index);
  if (extent.block_count != 0 && extent.start_block + extent.block_count == run.start) {
    extent.block_count += run.count;
  } else {
    extent = {run.start, run.count};
  }
  fork.total += run.count;
}

void VolumeModel::cut(ModelFork& fork, std::uint32_t blocks) {
  std::uint32_t left = blocks;
  for (Extent& extent : fork.extents) {
    extent.block_count = std::min(extent.block_count, left);
    extent.start_block = extent.block_count == 0 ? 0 : extent.start_block;
    left -= extent.block_count;
  }
  fork.total = blocks;
}

// ---- Volumes -------------------------------------------------------------------------------------------------------

VolumeModel::VolumeModel(const Volume& image)
    : items(items_of(image)),
      catalog(fork_at(image.read(kHeaderOffset, 512), 272)),
      startup(fork_at(image.read(kHeaderOffset, 512), 432)),
      file_count(static_cast<std::uint32_t>(image.get_field("fileCount"))),
      folder_count(static_cast<std::uint32_t>(image.get_field("folderCount"))),
      free_blocks(static_cast<std::uint32_t>(image.get_field("freeBlocks"))),
      next_allocation(static_cast<std::uint32_t>(image.get_field("nextAllocation"))),
      next_id(static_cast<std::uint32_t>(image.get_field("nextCatalogID"))),
      block_size(image.block_size()),
      total_blocks(static_cast<std::uint32_t>(image.get_field("totalBlocks"))),
      bitmap_(image.read_fork(SpecialFile::kAllocation, 0,
                              static_cast<std::size_t>(image.fork_logical_size(SpecialFile::kAllocation)))),
      device_size_(image.size()) {
  for (const SpecialFile file : {SpecialFile::kExtents, SpecialFile::kAllocation, SpecialFile::kAttributes}) {
    const std::vector<Extent> extents = image.fork(file).extents();
    other_files_.insert(other_files_.end(), extents.begin(), extents.end());
  }
  for (auto& [cnid, item] : items) {
    if (!item.folder && item.data.blocks_in_extents() < item.data.total) {
      const std::vector<Extent> all = image.data_fork(*image.find_entry(item.parent, item.name)).extents();
      item.data.overflow.assign(all.begin() + 8, all.end());
    }
  }
}

bool VolumeModel::is_empty(std::uint32_t folder) const {
  return std::none_of(items.begin(), items.end(), [folder](const auto& item) { return item.second.parent == folder; });
}

bool VolumeModel::has_name(std::uint32_t folder, const Name& name) const {
  return std::any_of(items.begin(), items.end(), [&](const auto& item) {
    return item.second.parent == folder && compare_names(item.second.name, name, false) == 0;
  });
}

Lines VolumeModel::catalog_differences(const Volume& volume) const {
  const std::map<std::uint32_t, ModelItem> found = items_of(volume);
  Lines lines;
  for (const auto& [cnid, item] : items) {
    const auto stored = found.find(cnid);
    if (stored == found.end()) {
      lines.push_back("lacks " + item_line(cnid, item));
    } else if (!is_listed_alike(stored->second, item)) {
      lines.push_back(item_line(cnid, stored->second) + " instead of " + item_line(cnid, item));
    }
  }
  for (const auto& [cnid, item] : found) {
    if (!items.contains(cnid)) {
      lines.push_back("has " + item_line(cnid, item));
    }
  }
  return lines;
}

// ---- Blocks --------------------------------------------------------------------------------------------------------

bool VolumeModel::is_used(std::uint64_t block) const {
  return (bitmap_.at(static_cast<std::size_t>(block / 8)) & 0x80U >> block % 8) != 0;
}

// All bits of a byte are tested: from a position inside a byte the test begins there and goes round in that byte. Where
// the search has been it finds nothing when it comes back.
ModelRun VolumeModel::find_run(std::uint32_t wanted, std::uint32_t hint) const {
  std::set<std::uint64_t> visited;
  std::uint64_t position = std::min<std::uint64_t>(hint != 0 ? hint : next_allocation, total_blocks - 1);
  while (visited.insert(position).second) {
    const std::uint64_t tested = up_to_byte(std::min<std::uint64_t>(total_blocks - position, wanted));
    std::uint64_t clear = 0;
    while (clear < tested && !is_used((position / 8 + clear / 8) * 8 + (position + clear) % 8)) {
      ++clear;
    }
    if (clear == tested) {
      return {static_cast<std::uint32_t>(position), wanted, 0};
    }
    const std::uint64_t next = up_to_byte(position + std::max<std::uint64_t>(clear, 1));
    position = next < total_blocks ? next : 0;
  }
  return {};
}

ModelRun VolumeModel::run_behind(const ModelFork& fork, std::uint64_t offset, std::uint32_t bytes) const {
  const std::uint64_t target = offset / block_size;
  std::uint64_t blocks = 0;
  std::uint32_t used = 0;
  std::uint32_t hint = 0;
  while (used < 8 && fork.extents[used].block_count != 0 && blocks <= target) {
    blocks += fork.extents[used].block_count;
    hint = fork.extents[used].start_block + fork.extents[used].block_count;
    ++used;
  }
  ModelRun run = find_run((bytes + block_size - 1) / block_size, hint);
  run.index = used != 0 && run.start == hint ? used - 1 : used;
  return run;
}

std::uint32_t VolumeModel::first_used(const ModelRun& run) const {
  std::uint32_t block = run.start;
  while (block < run.start + run.count && !is_used(block)) {
    ++block;
  }
  return block;
}

bool VolumeModel::is_owned(const ModelRun& run) const {
  const std::vector<std::uint8_t> owned = owned_blocks();
  for (std::uint32_t block = run.start; block < run.start + run.count; ++block) {
    if (block >= total_blocks || (owned[block / 8] & 0x80U >> block % 8) != 0) {
      return true;
    }
  }
  return false;
}

void VolumeModel::allocate(const ModelRun& run) {
  set_bits(bitmap_, run.start, run.start + run.count);
  free_blocks -= run.count;
  next_allocation = next_allocation == run.start ? run.start + run.count : next_allocation;
}

bool VolumeModel::free_block(std::uint32_t block) {
  const std::uint32_t byte = block / 8;
  const unsigned bit = 0x80U >> block % 8;
  if ((bitmap_.at(byte) & bit) == 0) {
    return false;
  }
  bitmap_.at(byte / kChunkBytes * kChunkBytes) = static_cast<std::uint8_t>(bitmap_[byte] & ~bit);
  return true;
}

// ---- What the checker finds ----------------------------------------------------------------------------------------

std::vector<std::uint8_t> VolumeModel::owned_blocks() const {
  std::vector<std::uint8_t> owned((total_blocks + 7) / 8);
  const auto own = [&owned](const auto& extents) {
    for (const Extent& extent : extents) {
      set_bits(owned, extent.start_block, std::uint64_t{extent.start_block} + extent.block_count);
    }
  };
  set_bits(owned, 0, (1536 + block_size - 1) / block_size);
  set_bits(owned, (device_size_ - 1024) / block_size, total_blocks);
  own(other_files_);
  own(catalog.extents);
  own(startup.extents);
  for (const auto& [cnid, item] : items) {
    own(item.data.extents);
    own(item.data.overflow);
    own(item.resource.extents);
  }
  return owned;
}

void VolumeModel::add_block_findings(Lines& lines) const {
  const std::vector<std::uint8_t> owned = owned_blocks();
  const auto is_owned_block = [&owned](std::uint32_t block) { return (owned[block / 8] & 0x80U >> block % 8) != 0; };
  for (std::uint32_t block = 0; block < total_blocks;) {
    const bool used = is_used(block);
    std::uint32_t end = block;
    while (end < total_blocks && is_used(end) == used && is_owned_block(end) != used) {
      ++end;
    }
    if (end != block) {
      lines.push_back("blocks " + text(block) + " to " + text(end - 1) +
                      (used ? ": marked used, belong to nothing" : ": used, marked free"));
    }
    block = std::max(end, block + 1);
  }
  std::uint32_t free = total_blocks;
  for (std::uint32_t byte = 0; byte < (total_blocks + 7) / 8; ++byte) {
    free -= static_cast<std::uint32_t>(std::popcount(bitmap_[byte]));
  }
  if (free != free_blocks) {
    lines.push_back("freeBlocks is " + text(free_blocks) + ", not " + text(free));
  }
}

Lines VolumeModel::findings() const {
  Lines lines;
  for (const auto& [cnid, item] : items) {
    if (!item.has_thread) {
      lines.push_back((item.folder ? "folder " : "file ") + text(cnid) + ": no thread record");
    }
    const std::uint32_t blocks = item.data.blocks_in_extents();
    if (item.data.overflow.empty() && blocks != item.data.total) {
      lines.push_back("file " + text(cnid) + ": totalBlocks is " + text(item.data.total) + ", its extents have " +
                      text(blocks));
    }
  }
  for (const std::uint32_t cnid : orphans) {
    lines.push_back("overflow records of file " + text(cnid) + ", fork type 0, belong to nothing");
  }
  add_block_findings(lines);
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace kvfs_test
