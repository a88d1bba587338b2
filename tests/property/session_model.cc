#include "property/session_model.h"

#include <bit>

#include "kvfs.h"
#include "property/volume_model.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kHardLinkType = 0x686C6E6B;
constexpr std::uint32_t kSymbolicLinkType = 0x736C6E6B;

std::uint32_t kind_of(const Item& item) {
  if (item.folder) {
    return KVFS_FOLDER;
  }
  return item.file_type == kHardLinkType       ? KVFS_HARD_LINK
         : item.file_type == kSymbolicLinkType ? KVFS_SYMBOLIC_LINK
                                               : KVFS_FILE;
}

Content content_of(const ForkDescription& fork) {
  return fork.content.empty() ? nullptr : std::make_shared<const Bytes>(fork.content);
}

std::uint32_t blocks_of(const ForkDescription& fork, std::uint32_t block_size) {
  return static_cast<std::uint32_t>((fork.content.size() + block_size - 1) / block_size);
}

std::string line_of(std::uint32_t id, std::uint32_t parent, const Name& name) {
  return std::to_string(id) + " in " + std::to_string(parent) + " " + to_utf8(name);
}

}  // namespace

SessionModel::SessionModel(const VolumeDescription& description, const Volume& volume)
    : case_sensitive_(description.case_sensitive) {
  SessionItem root;
  root.parent = kRootParentId;
  root.name = description.label;
  root.kind = KVFS_FOLDER;
  insert(kRootFolderId, root);
  for (const Item& described : description.items) {
    SessionItem item;
    item.parent = described.parent;
    item.name = described.name;
    item.kind = kind_of(described);
    item.is_private = described.name.starts_with(u'\0') || items_.at(described.parent).is_private;
    item.target = item.kind == KVFS_HARD_LINK ? described.special : 0;
    item.data = content_of(described.data);
    item.resource = content_of(described.resource);
    item.blocks =
        blocks_of(described.data, description.block_size) + blocks_of(described.resource, description.block_size);
    insert(described.cnid, item);
  }
  take_counts(volume);
}

void SessionModel::insert(std::uint32_t id, const SessionItem& item) {
  items_[id] = item;
  folder(item.parent)[item.name] = id;
}

bool SessionModel::is_folder(std::uint32_t id) const {
  const auto found = items_.find(id);
  return found != items_.end() && found->second.kind == KVFS_FOLDER;
}

std::uint32_t SessionModel::find(std::uint32_t folder, const Name& name) const {
  const auto items = folders_.find(folder);
  const bool is_there = items != folders_.end() && items->second.contains(name);
  return is_there ? items->second.at(name) : 0;
}

std::vector<std::uint32_t> SessionModel::children(std::uint32_t folder) const {
  std::vector<std::uint32_t> ids;
  const auto items = folders_.find(folder);
  if (items != folders_.end()) {
    for (const auto& [name, id] : items->second) {
      ids.push_back(id);
    }
  }
  return ids;
}

bool SessionModel::is_inside(std::uint32_t item, std::uint32_t folder) const {
  while (item != folder && item != kRootFolderId) {
    item = items_.at(item).parent;
  }
  return item == folder;
}

void SessionModel::move(std::uint32_t id, std::uint32_t to, const Name& name) {
  SessionItem& item = items_.at(id);
  folder(item.parent).erase(item.name);
  item.parent = to;
  item.name = name;
  folder(to)[name] = id;
}

void SessionModel::remove(std::uint32_t id) {
  const SessionItem& item = items_.at(id);
  (item.kind == KVFS_FOLDER ? folder_count : file_count) -= 1;
  freed_ += item.blocks;
  folder(item.parent).erase(item.name);
  items_.erase(id);
}

void SessionModel::add(const SessionItem& item) {
  insert(next_id++, item);
  (item.kind == KVFS_FOLDER ? folder_count : file_count) += 1;
  free_blocks -= item.blocks;
  clear_bits -= item.blocks;
}

void SessionModel::flush() {
  free_blocks += freed_;
  clear_bits += freed_;
  freed_ = 0;
}

void SessionModel::take_counts(const Volume& volume) {
  const auto field = [&volume](const char* name) { return static_cast<std::uint32_t>(volume.get_field(name)); };
  file_count = field("fileCount");
  folder_count = field("folderCount");
  free_blocks = field("freeBlocks");
  next_id = field("nextCatalogID");
  const std::uint32_t blocks = field("totalBlocks");
  const Bytes bits = volume.read_fork(SpecialFile::kAllocation, 0, (blocks + 7) / 8);
  clear_bits = blocks;
  for (const std::uint8_t byte : bits) {
    clear_bits -= static_cast<std::uint32_t>(std::popcount(byte));
  }
  freed_ = 0;
}

Lines SessionModel::differences(const Volume& volume) const {
  const std::map<std::uint32_t, ModelItem> found = VolumeModel(volume).items;
  Lines lines;
  for (const auto& [id, item] : items_) {
    const auto stored = found.find(id);
    const bool same = stored != found.end() && stored->second.parent == item.parent &&
                      stored->second.name == item.name && stored->second.folder == (item.kind == KVFS_FOLDER) &&
                      stored->second.data.size == (item.data == nullptr ? 0 : item.data->size()) &&
                      stored->second.resource.size == (item.resource == nullptr ? 0 : item.resource->size());
    if (!same) {
      lines.push_back("lacks " + line_of(id, item.parent, item.name));
    }
  }
  for (const auto& [id, item] : found) {
    if (!items_.contains(id)) {
      lines.push_back("has " + line_of(id, item.parent, item.name));
    }
  }
  return lines;
}

}  // namespace kvfs_test
