#include "volume_image.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "big_endian.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kDescriptorSize = 14;
constexpr std::size_t kTreeHeaderOffset = kDescriptorSize;
constexpr std::size_t kForkDataSize = 80;

struct FieldRow {
  std::string_view name;
  std::uint16_t offset;
  std::uint8_t width;
};

constexpr FieldRow kHeaderFields[] = {
    {"signature", 0, 2},         {"version", 2, 2},         {"attributes", 4, 4},      {"lastMountedVersion", 8, 4},
    {"journalInfoBlock", 12, 4}, {"createDate", 16, 4},     {"modifyDate", 20, 4},     {"backupDate", 24, 4},
    {"checkedDate", 28, 4},      {"fileCount", 32, 4},      {"folderCount", 36, 4},    {"blockSize", 40, 4},
    {"totalBlocks", 44, 4},      {"freeBlocks", 48, 4},     {"nextAllocation", 52, 4}, {"rsrcClumpSize", 56, 4},
    {"dataClumpSize", 60, 4},    {"nextCatalogID", 64, 4},  {"writeCount", 68, 4},     {"encodingsBitmap", 72, 8},
    {"finderInfo[0]", 80, 4},    {"finderInfo[1]", 84, 4},  {"finderInfo[2]", 88, 4},  {"finderInfo[3]", 92, 4},
    {"finderInfo[4]", 96, 4},    {"finderInfo[5]", 100, 4}, {"finderInfo[6]", 104, 4}, {"finderInfo[7]", 108, 4},
};

constexpr FieldRow kForkSlots[] = {
    {"allocationFile", 112, kForkDataSize}, {"extentsFile", 192, kForkDataSize}, {"catalogFile", 272, kForkDataSize},
    {"attributesFile", 352, kForkDataSize}, {"startupFile", 432, kForkDataSize},
};

constexpr FieldRow kForkFields[] = {{"logicalSize", 0, 8}, {"clumpSize", 8, 4}, {"totalBlocks", 12, 4}};

constexpr FieldRow kTreeFields[] = {
    {"treeDepth", 0, 2},       {"rootNode", 2, 4},    {"leafRecords", 6, 4},   {"firstLeafNode", 10, 4},
    {"lastLeafNode", 14, 4},   {"nodeSize", 18, 2},   {"maxKeyLength", 20, 2}, {"totalNodes", 22, 4},
    {"freeNodes", 26, 4},      {"reserved1", 30, 2},  {"clumpSize", 32, 4},    {"btreeType", 36, 1},
    {"keyCompareType", 37, 1}, {"attributes", 38, 4},
};

constexpr FieldRow kNodeFields[] = {{"fLink", 0, 4},  {"bLink", 4, 4},       {"kind", 8, 1},
                                    {"height", 9, 1}, {"numRecords", 10, 2}, {"reserved", 12, 2}};

constexpr FieldRow kCatalogKeyFields[] = {{"keyLength", 0, 2}, {"parentID", 2, 4}, {"nodeName.length", 6, 2}};

constexpr FieldRow kExtentsKeyFields[] = {
    {"keyLength", 0, 2}, {"forkType", 2, 1}, {"pad", 3, 1}, {"fileID", 4, 4}, {"startBlock", 8, 4}};

// What folder and file records have in common.
constexpr FieldRow kEntryFields[] = {
    {"recordType", 0, 2},        {"flags", 2, 2},         {"createDate", 12, 4}, {"contentModDate", 16, 4},
    {"attributeModDate", 20, 4}, {"accessDate", 24, 4},   {"backupDate", 28, 4}, {"ownerID", 32, 4},
    {"groupID", 36, 4},          {"adminFlags", 40, 1},   {"ownerFlags", 41, 1}, {"fileMode", 42, 2},
    {"special", 44, 4},          {"textEncoding", 80, 4},
};

constexpr FieldRow kFolderFields[] = {{"valence", 4, 4}, {"folderID", 8, 4}, {"folderCount", 84, 4}};

constexpr FieldRow kFileFields[] = {{"reserved1", 4, 4}, {"fileID", 8, 4},       {"fileType", 48, 4},
                                    {"creator", 52, 4},  {"finderFlags", 56, 2}, {"reserved2", 84, 4}};

constexpr FieldRow kThreadFields[] = {
    {"recordType", 0, 2}, {"reserved", 2, 2}, {"parentID", 4, 4}, {"nodeName.length", 8, 2}};

constexpr std::uint64_t kDataForkOffset = 88;
constexpr std::uint64_t kResourceForkOffset = 168;

template <std::size_t kCount>
const FieldRow* find_row(const FieldRow (&rows)[kCount], std::string_view name) {
  const auto* const row = std::find_if(rows, rows + kCount, [name](const FieldRow& r) { return r.name == name; });
  return row == rows + kCount ? nullptr : row;
}

// Takes `word` off the front of `text` if it stands there.
bool take(std::string_view& text, std::string_view word) {
  if (text.substr(0, word.size()) != word) {
    return false;
  }
  text.remove_prefix(word.size());
  return true;
}

// Takes "word[123]" off the front.
std::optional<std::uint32_t> take_indexed(std::string_view& text, std::string_view word) {
  std::string_view rest = text;
  if (!take(rest, word) || !take(rest, "[")) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  std::size_t digits = 0;
  while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9' && digits < 10) {
    number = number * 10 + static_cast<std::uint64_t>(rest[digits] - '0');
    ++digits;
  }
  rest.remove_prefix(digits);
  if (digits == 0 || number > 0xFFFFFFFFU || !take(rest, "]")) {
    return std::nullopt;
  }
  text = rest;
  return static_cast<std::uint32_t>(number);
}

struct Spot {
  std::uint64_t offset;
  std::size_t width;
};

// A descriptor of a list: "[3].startBlock".
std::optional<Spot> find_extent_field(std::string_view rest) {
  const auto index = take_indexed(rest, "extents");
  if (!index || *index > 7) {
    return std::nullopt;
  }
  if (rest == ".startBlock") {
    return Spot{8ULL * *index, 4};
  }
  return rest == ".blockCount" ? std::optional(Spot{8ULL * *index + 4, 4}) : std::nullopt;
}

std::optional<Spot> find_fork_field(std::string_view rest) {
  if (const FieldRow* const row = find_row(kForkFields, rest)) {
    return Spot{row->offset, row->width};
  }
  auto spot = find_extent_field(rest);
  if (spot) {
    spot->offset += 16;
  }
  return spot;
}

std::optional<Spot> find_header_field(std::string_view rest) {
  if (const FieldRow* const row = find_row(kHeaderFields, rest)) {
    return Spot{row->offset, row->width};
  }
  for (const FieldRow& slot : kForkSlots) {
    std::string_view inner = rest;
    if (take(inner, slot.name) && take(inner, ".")) {
      auto spot = find_fork_field(inner);
      if (spot) {
        spot->offset += slot.offset;
      }
      return spot;
    }
  }
  return std::nullopt;
}

std::optional<Spot> find_unit(std::string_view rest, std::uint64_t first_unit) {
  const auto index = take_indexed(rest, "nodeName.unicode");
  return index && rest.empty() ? std::optional(Spot{first_unit + 2ULL * *index, 2}) : std::nullopt;
}

template <std::size_t kCount>
std::optional<Spot> find_in(const FieldRow (&rows)[kCount], std::string_view rest) {
  const FieldRow* const row = find_row(rows, rest);
  return row == nullptr ? std::nullopt : std::optional(Spot{row->offset, row->width});
}

std::optional<Spot> find_key_field(Tree tree, std::string_view rest) {
  if (tree == Tree::kExtents) {
    return find_in(kExtentsKeyFields, rest);
  }
  const auto spot = find_in(kCatalogKeyFields, rest);
  return spot ? spot : find_unit(rest, 8);
}

std::optional<Spot> find_file_field(std::string_view rest) {
  auto spot = find_in(kFileFields, rest);
  const bool data = take(rest, "dataFork.");
  if (!spot && (data || take(rest, "resourceFork."))) {
    spot = find_fork_field(rest);
    if (spot) {
      spot->offset += data ? kDataForkOffset : kResourceForkOffset;
    }
  }
  return spot;
}

std::optional<Spot> find_catalog_data_field(std::uint16_t type, std::string_view rest) {
  if (type == 3 || type == 4) {
    const auto spot = find_in(kThreadFields, rest);
    return spot ? spot : find_unit(rest, 10);
  }
  auto spot = find_in(kEntryFields, rest);
  if (!spot && type == 1) {
    spot = find_in(kFolderFields, rest);
  }
  return !spot && type == 2 ? find_file_field(rest) : spot;
}

std::uint64_t fork_slot(SpecialFile file) {
  switch (file) {
    case SpecialFile::kAllocation:
      return kHeaderOffset + 112;
    case SpecialFile::kExtents:
      return kHeaderOffset + 192;
    case SpecialFile::kCatalog:
      return kHeaderOffset + 272;
    case SpecialFile::kAttributes:
      return kHeaderOffset + 352;
    case SpecialFile::kStartup:
      return kHeaderOffset + 432;
  }
  throw std::invalid_argument("no such special file");
}

constexpr std::pair<Tree, std::string_view> kTreeNames[] = {
    {Tree::kExtents, "extents"}, {Tree::kCatalog, "catalog"}, {Tree::kAttributes, "attributes"}};

std::string_view tree_name(Tree tree) {
  return std::find_if(std::begin(kTreeNames), std::end(kTreeNames), [tree](const auto& n) { return n.first == tree; })
      ->second;
}

// A tree opened for a walk: its fork is resolved once.
struct TreeView {
  TreeView(const Volume& volume, Tree which)
      : tree(which), fork(volume.fork(which)), node_size(get_be16(fork.read(kTreeHeaderOffset + 18, 2), 0)) {
    if (node_size < 32) {
      throw std::runtime_error("a tree with a node size of " + std::to_string(node_size));
    }
    header = fork.read(kTreeHeaderOffset, 106);
  }

  [[nodiscard]] Bytes node(std::uint32_t number) const {
    return fork.read(std::uint64_t{number} * node_size, node_size);
  }

  Tree tree;
  ForkView fork;
  std::uint16_t node_size;
  Bytes header;
};

std::uint16_t table_entry(const Bytes& node, std::uint32_t index) {
  const std::size_t back = 2 * (std::size_t{index} + 1);
  if (back > node.size()) {
    throw std::runtime_error("no entry " + std::to_string(index) + " in the offset table of a node");
  }
  return get_be16(node, node.size() - back);
}

// The bytes of a record, cut off where the node ends.
Bytes record_bytes(const Bytes& node, std::uint32_t index) {
  const std::size_t start = std::min<std::size_t>(table_entry(node, index), node.size());
  const std::size_t end = std::min<std::size_t>(table_entry(node, index + 1), node.size());
  return start < end
             ? Bytes(node.begin() + static_cast<std::ptrdiff_t>(start), node.begin() + static_cast<std::ptrdiff_t>(end))
             : Bytes();
}

// Length of the key with its length field.
std::size_t key_size(const Bytes& record) {
  return record.size() < 2 ? record.size() : std::min<std::size_t>(record.size(), get_be16(record, 0) + 2U);
}

Record split_record(const Bytes& record) {
  const std::size_t key = key_size(record);
  const std::size_t data = std::min(record.size(), key + key % 2);
  return {Bytes(record.begin(), record.begin() + static_cast<std::ptrdiff_t>(key)),
          Bytes(record.begin() + static_cast<std::ptrdiff_t>(data), record.end())};
}

std::vector<std::uint32_t> walk_leaves(const TreeView& view) {
  std::vector<std::uint32_t> leaves;
  std::set<std::uint32_t> seen;
  const std::uint32_t total = get_be32(view.header, 22);
  for (std::uint32_t node = get_be32(view.header, 10); node != 0 && node < total && seen.insert(node).second;) {
    leaves.push_back(node);
    node = get_be32(view.fork.read(std::uint64_t{node} * view.node_size, 4), 0);
  }
  return leaves;
}

RecordPlace make_place(const TreeView& view, const Bytes& node_bytes, std::uint32_t node, std::uint16_t index) {
  const Bytes record = record_bytes(node_bytes, index);
  const std::size_t key = key_size(record);
  RecordPlace place;
  place.tree = view.tree;
  place.node = node;
  place.index = index;
  place.offset_in_node = table_entry(node_bytes, index);
  place.fork_offset = std::uint64_t{node} * view.node_size + place.offset_in_node;
  place.data_fork_offset = place.fork_offset + key + key % 2;
  place.device_offset = view.fork.device_offset(place.fork_offset);
  return place;
}

// Calls visit(node bytes, node, index) for all leaf records in order until it returns true.
template <typename Visit>
void for_each_leaf_record(const TreeView& view, Visit visit) {
  for (const std::uint32_t node : walk_leaves(view)) {
    const Bytes bytes = view.node(node);
    const std::uint16_t count = get_be16(bytes, 10);
    for (std::uint16_t index = 0; index < count && 2U * (index + 2U) <= bytes.size(); ++index) {
      if (visit(bytes, node, index)) {
        return;
      }
    }
  }
}

std::vector<Extent> read_extents(const Bytes& bytes, std::size_t at) {
  std::vector<Extent> extents;
  for (std::size_t i = 0; i < 8; ++i) {
    const Extent extent{get_be32(bytes, at + 8 * i), get_be32(bytes, at + 8 * i + 4)};
    if (extent.block_count == 0) {
      break;
    }
    extents.push_back(extent);
  }
  return extents;
}

std::uint64_t count_blocks(const std::vector<Extent>& extents) {
  std::uint64_t blocks = 0;
  for (const Extent& extent : extents) {
    blocks += extent.block_count;
  }
  return blocks;
}

// Depth-first search for `target`; `path` holds the index records on the way.
bool find_path(const TreeView& view, std::uint32_t node, std::uint32_t target, std::set<std::uint32_t>& seen,
               std::vector<RecordPlace>& path) {
  if (node == target) {
    return true;
  }
  if (!seen.insert(node).second || node >= get_be32(view.header, 22)) {
    return false;
  }
  const Bytes bytes = view.node(node);
  const std::uint16_t count = bytes[8] == 0 ? get_be16(bytes, 10) : std::uint16_t{0};
  for (std::uint16_t index = 0; index < count; ++index) {
    const Bytes child = split_record(record_bytes(bytes, index)).second;
    path.push_back(make_place(view, bytes, node, index));
    if (child.size() >= 4 && find_path(view, get_be32(child, 0), target, seen, path)) {
      return true;
    }
    path.pop_back();
  }
  return false;
}

}  // namespace

std::string RecordPlace::path() const {
  return std::string(tree_name(tree)) + ".node[" + std::to_string(node) + "].record[" + std::to_string(index) + "]";
}

// ---- ForkView

struct ForkView::Piece {
  std::uint64_t device_offset = 0;
  std::uint64_t length = 0;  // 0: behind the last extent
};

ForkView::ForkView(const SparseImage& image, std::uint32_t block_size, std::vector<Extent> extents)
    : image_(&image), block_size_(block_size), extents_(std::move(extents)) {
  for (const Extent& extent : extents_) {
    starts_.push_back(size_);
    size_ += std::uint64_t{extent.block_count} * block_size_;
  }
}

ForkView::Piece ForkView::piece_at(std::uint64_t fork_offset, std::uint64_t length) const {
  if (fork_offset >= size_) {
    return {};
  }
  const auto next = std::upper_bound(starts_.begin(), starts_.end(), fork_offset);
  const auto index = static_cast<std::size_t>(next - starts_.begin()) - 1;
  const std::uint64_t inside = fork_offset - starts_[index];
  const std::uint64_t extent_bytes = std::uint64_t{extents_[index].block_count} * block_size_;
  return {std::uint64_t{extents_[index].start_block} * block_size_ + inside, std::min(length, extent_bytes - inside)};
}

std::uint64_t ForkView::device_offset(std::uint64_t fork_offset) const {
  const Piece piece = piece_at(fork_offset, 1);
  if (piece.length == 0) {
    throw std::out_of_range("fork byte " + std::to_string(fork_offset) + " lies behind the fork's extents");
  }
  return piece.device_offset;
}

Bytes ForkView::read(std::uint64_t fork_offset, std::size_t length) const {
  Bytes bytes(length);
  std::size_t done = 0;
  while (done < length) {
    const Piece piece = piece_at(fork_offset + done, length - done);
    if (piece.length == 0) {
      break;
    }
    if (piece.device_offset < image_->size()) {
      const std::uint64_t there = std::min(piece.length, image_->size() - piece.device_offset);
      image_->read(piece.device_offset, bytes.data() + done, static_cast<std::size_t>(there));
    }
    done += static_cast<std::size_t>(piece.length);
  }
  return bytes;
}

void ForkView::write(SparseImage& image, std::uint64_t fork_offset, const Bytes& bytes) const {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const Piece piece = piece_at(fork_offset + done, bytes.size() - done);
    if (piece.length == 0) {
      throw std::out_of_range("fork byte " + std::to_string(fork_offset + done) + " lies behind the fork's extents");
    }
    image.write(piece.device_offset, bytes.data() + done, static_cast<std::size_t>(piece.length));
    done += static_cast<std::size_t>(piece.length);
  }
}

// ---- Fields

// A field lies on the device, or in the fork of a tree (whose extents may cut it in two).
struct Volume::Field {
  std::optional<Tree> tree;
  std::uint64_t offset = 0;
  std::size_t width = 0;
};

Volume::Field Volume::find_field(const std::string& name) const {
  std::string_view rest = name;
  for (const auto& [tree, word] : kTreeNames) {
    std::string_view inner = rest;
    if (take(inner, word) && take(inner, ".")) {
      return find_tree_field(tree, inner, name);
    }
  }
  const std::uint64_t start = take(rest, "alternate.") ? size() - 1024 : kHeaderOffset;
  const auto spot = find_header_field(rest);
  if (!spot) {
    throw std::invalid_argument("no field " + name);
  }
  return {std::nullopt, start + spot->offset, spot->width};
}

Volume::Field Volume::find_tree_field(Tree tree, std::string_view rest, const std::string& name) const {
  if (take(rest, "header.")) {
    if (const auto spot = find_in(kTreeFields, rest)) {
      return {tree, kTreeHeaderOffset + spot->offset, spot->width};
    }
  }
  if (rest.substr(0, 4) == "node") {
    return find_node_field(tree, rest, name);
  }
  throw std::invalid_argument("no field " + name);
}

Volume::Field Volume::find_node_field(Tree tree, std::string_view rest, const std::string& name) const {
  const auto node = take_indexed(rest, "node");
  if (!node || !take(rest, ".")) {
    throw std::invalid_argument("no field " + name);
  }
  const std::uint64_t start = std::uint64_t{*node} * node_size(tree);
  if (const auto spot = find_in(kNodeFields, rest)) {
    return {tree, start + spot->offset, spot->width};
  }
  if (const auto entry = take_indexed(rest, "offset"); entry && rest.empty()) {
    return {tree, start + node_size(tree) - 2 * (std::uint64_t{*entry} + 1), 2};
  }
  const auto record = take_indexed(rest, "record");
  if (!record || !take(rest, ".")) {
    throw std::invalid_argument("no field " + name);
  }
  return find_record_field(record_at(tree, *node, static_cast<std::uint16_t>(*record)), rest, name);
}

Volume::Field Volume::find_record_field(const RecordPlace& place, std::string_view rest,
                                        const std::string& name) const {
  std::optional<Spot> spot;
  const bool in_key = take(rest, "key.");
  if (in_key) {
    spot = find_key_field(place.tree, rest);
  } else if (const auto byte = take_indexed(rest, "byte"); byte && rest.empty()) {
    spot = Spot{*byte, 1};
  } else if (read_node(place.tree, place.node)[8] == 0) {
    spot = rest == "child" ? std::optional(Spot{0, 4}) : std::nullopt;
  } else if (place.tree == Tree::kExtents) {
    spot = find_extent_field(rest);
  } else {
    const std::uint16_t type = get_be16(fork(place.tree).read(place.data_fork_offset, 2), 0);
    spot = find_catalog_data_field(type, rest);
  }
  if (!spot) {
    throw std::invalid_argument("no field " + name);
  }
  return {place.tree, (in_key ? place.fork_offset : place.data_fork_offset) + spot->offset, spot->width};
}

std::uint64_t Volume::get_field(const std::string& name) const {
  const Field field = find_field(name);
  return get_be(field.tree ? fork(*field.tree).read(field.offset, field.width) : read(field.offset, field.width), 0,
                field.width);
}

void Volume::set_field(const std::string& name, std::uint64_t value) {
  const Field field = find_field(name);
  Bytes bytes(field.width);
  put_be(bytes, 0, field.width, value);
  if (field.tree) {
    fork(*field.tree).write(*this, field.offset, bytes);
  } else {
    write(field.offset, bytes);
  }
}

void Volume::add_to_field(const std::string& name, std::int64_t amount) {
  set_field(name, get_field(name) + static_cast<std::uint64_t>(amount));
}

std::uint64_t Volume::device_offset_of_field(const std::string& name) const {
  const Field field = find_field(name);
  return field.tree ? device_offset(*field.tree, field.offset) : field.offset;
}

std::size_t Volume::width_of_field(const std::string& name) const {
  return find_field(name).width;
}

std::vector<std::string> Volume::header_field_names() {
  std::vector<std::string> names;
  for (const FieldRow& row : kHeaderFields) {
    names.emplace_back(row.name);
  }
  return names;
}

std::vector<std::string> Volume::fork_field_names(std::string_view slot) {
  const std::string prefix = std::string(slot) + ".";
  std::vector<std::string> names;
  for (const FieldRow& row : kForkFields) {
    names.push_back(prefix + std::string(row.name));
  }
  for (int i = 0; i < 8; ++i) {
    names.push_back(prefix + "extents[" + std::to_string(i) + "].startBlock");
    names.push_back(prefix + "extents[" + std::to_string(i) + "].blockCount");
  }
  return names;
}

std::vector<std::string> Volume::tree_field_names(Tree tree) {
  std::vector<std::string> names;
  for (const FieldRow& row : kTreeFields) {
    names.push_back(std::string(tree_name(tree)) + ".header." + std::string(row.name));
  }
  return names;
}

// ---- Forks

std::vector<Extent> Volume::all_extents(std::uint64_t fork_data, std::uint32_t cnid, std::uint8_t type) const {
  const Bytes bytes = read(fork_data, kForkDataSize);
  std::vector<Extent> extents = read_extents(bytes, 16);
  if (cnid != static_cast<std::uint32_t>(Tree::kExtents) && count_blocks(extents) < get_be32(bytes, 12)) {
    add_overflow_extents(cnid, type, extents);
  }
  return extents;
}

void Volume::add_overflow_extents(std::uint32_t cnid, std::uint8_t type, std::vector<Extent>& extents) const {
  const TreeView view(*this, Tree::kExtents);
  for_each_leaf_record(view, [&](const Bytes& node, std::uint32_t, std::uint16_t index) {
    const auto [key, data] = split_record(record_bytes(node, index));
    if (data.size() >= 64 && key == extents_key(type, cnid, static_cast<std::uint32_t>(count_blocks(extents)))) {
      const std::vector<Extent> more = read_extents(data, 0);
      extents.insert(extents.end(), more.begin(), more.end());
    }
    return false;  // the records of one fork stand in the order of their start blocks: one walk meets them all
  });
}

ForkView Volume::fork(SpecialFile file) const {
  return {*this, block_size(), all_extents(fork_slot(file), static_cast<std::uint32_t>(file), 0)};
}

ForkView Volume::data_fork(const RecordPlace& file_record) const {
  const std::string path = file_record.path();
  std::vector<Extent> extents;
  std::uint64_t blocks = 0;
  for (int i = 0; i < 8; ++i) {
    const std::string extent = path + ".dataFork.extents[" + std::to_string(i) + "].";
    const auto start = static_cast<std::uint32_t>(get_field(extent + "startBlock"));
    const auto count = static_cast<std::uint32_t>(get_field(extent + "blockCount"));
    if (count == 0) {
      break;
    }
    extents.push_back({start, count});
    blocks += count;
  }
  if (blocks < get_field(path + ".dataFork.totalBlocks")) {
    add_overflow_extents(static_cast<std::uint32_t>(get_field(path + ".fileID")), 0, extents);
  }
  return {*this, block_size(), extents};
}

std::uint64_t Volume::fork_logical_size(SpecialFile file) const {
  return get64(fork_slot(file));
}

std::uint64_t Volume::device_offset(Tree tree, std::uint64_t fork_offset) const {
  return fork(tree).device_offset(fork_offset);
}

std::uint64_t Volume::node_device_offset(Tree tree, std::uint32_t node) const {
  return device_offset(tree, std::uint64_t{node} * node_size(tree));
}

std::uint16_t Volume::node_size(Tree tree) const {
  return get_be16(fork(tree).read(kTreeHeaderOffset + 18, 2), 0);
}

Bytes Volume::read_node(Tree tree, std::uint32_t node) const {
  return TreeView(*this, tree).node(node);
}

void Volume::write_node(Tree tree, std::uint32_t node, const Bytes& bytes) {
  write_fork(file_of(tree), std::uint64_t{node} * node_size(tree), bytes);
}

Bytes Volume::read_fork(SpecialFile file, std::uint64_t offset, std::size_t length) const {
  return fork(file).read(offset, length);
}

void Volume::write_fork(SpecialFile file, std::uint64_t offset, const Bytes& bytes) {
  fork(file).write(*this, offset, bytes);
}

// ---- Records

bool Volume::binary_compare() const {
  return get_field("catalog.header.keyCompareType") == 0xBC;
}

std::vector<std::uint32_t> Volume::leaf_nodes(Tree tree) const {
  return walk_leaves(TreeView(*this, tree));
}

std::uint16_t Volume::record_count(Tree tree, std::uint32_t node) const {
  return get_be16(read_node(tree, node), 10);
}

int Volume::free_bytes(Tree tree, std::uint32_t node) const {
  const Bytes bytes = read_node(tree, node);
  const std::uint16_t count = get_be16(bytes, 10);
  return static_cast<int>(bytes.size()) - 2 * (count + 1) - table_entry(bytes, count);
}

RecordPlace Volume::record_at(Tree tree, std::uint32_t node, std::uint16_t index) const {
  const TreeView view(*this, tree);
  return make_place(view, view.node(node), node, index);
}

Bytes Volume::record_key(const RecordPlace& place) const {
  return split_record(record_bytes(read_node(place.tree, place.node), place.index)).first;
}

Bytes Volume::record_data(const RecordPlace& place) const {
  return split_record(record_bytes(read_node(place.tree, place.node), place.index)).second;
}

std::vector<RecordPlace> Volume::index_path(Tree tree, std::uint32_t node) const {
  const TreeView view(*this, tree);
  std::set<std::uint32_t> seen;
  std::vector<RecordPlace> path;
  if (!find_path(view, get_be32(view.header, 2), node, seen, path)) {
    throw std::runtime_error("node " + std::to_string(node) + " is not reached from the root");
  }
  return path;
}

std::optional<RecordPlace> Volume::find_record(Tree tree, const Bytes& key) const {
  const TreeView view(*this, tree);
  std::optional<RecordPlace> place;
  for_each_leaf_record(view, [&](const Bytes& bytes, std::uint32_t node, std::uint16_t index) {
    if (split_record(record_bytes(bytes, index)).first == key) {
      place = make_place(view, bytes, node, index);
    }
    return place.has_value();
  });
  return place;
}

std::optional<RecordPlace> Volume::find_entry(std::uint32_t parent, const Name& name) const {
  return find_record(Tree::kCatalog, catalog_key(parent, name));
}

std::optional<RecordPlace> Volume::find_thread(std::uint32_t cnid) const {
  return find_record(Tree::kCatalog, thread_key(cnid));
}

std::optional<RecordPlace> Volume::find_by_cnid(std::uint32_t cnid) const {
  const auto thread = find_thread(cnid);
  if (!thread) {
    return std::nullopt;
  }
  const Bytes data = record_data(*thread);
  if (data.size() < 10 || data.size() < 10 + 2U * get_be16(data, 8)) {
    return std::nullopt;
  }
  Bytes key(8 + std::size_t{2} * get_be16(data, 8));
  put_be(key, 0, 2, key.size() - 2);
  std::copy(data.begin() + 4, data.begin() + static_cast<std::ptrdiff_t>(key.size()) + 2, key.begin() + 2);
  return find_record(Tree::kCatalog, key);
}

// ---- Bitmaps

std::uint64_t Volume::node_bit_offset(Tree tree, std::uint32_t node) const {
  const TreeView view(*this, tree);
  std::uint64_t byte = node / 8;
  std::uint64_t start = 248;
  std::uint64_t length = view.node_size - std::uint64_t{256};
  std::uint32_t map_node = 0;
  for (std::uint32_t steps = 0; byte >= length; ++steps) {
    byte -= length;
    map_node = get_be32(view.node(map_node), 0);
    const Bytes bytes = view.node(map_node);
    if (map_node == 0 || bytes[8] != 2 || steps > get_be32(view.header, 22)) {
      throw std::runtime_error("no map node describes node " + std::to_string(node));
    }
    start = std::uint64_t{map_node} * view.node_size + table_entry(bytes, 0);
    length = table_entry(bytes, 1) - std::uint64_t{table_entry(bytes, 0)};
  }
  return start + byte;
}

bool Volume::node_used(Tree tree, std::uint32_t node) const {
  return (fork(tree).read(node_bit_offset(tree, node), 1)[0] & 0x80U >> node % 8) != 0;
}

void Volume::set_node_used(Tree tree, std::uint32_t node, bool used) {
  const std::uint64_t offset = node_bit_offset(tree, node);
  const unsigned bit = 0x80U >> node % 8;
  const unsigned old = fork(tree).read(offset, 1)[0];
  fork(tree).write(*this, offset, {static_cast<std::uint8_t>(used ? old | bit : old & ~bit)});
}

bool Volume::block_used(std::uint32_t block) const {
  return (read_fork(SpecialFile::kAllocation, block / 8, 1)[0] & 0x80U >> block % 8) != 0;
}

void Volume::set_block_used(std::uint32_t block, bool used) {
  const unsigned bit = 0x80U >> block % 8;
  const unsigned old = read_fork(SpecialFile::kAllocation, block / 8, 1)[0];
  write_fork(SpecialFile::kAllocation, block / 8, {static_cast<std::uint8_t>(used ? old | bit : old & ~bit)});
}

// ---- Keys and records as bytes

Bytes catalog_key(std::uint32_t parent, std::u16string_view name) {
  Bytes key(8 + 2 * name.size());
  put_be(key, 0, 2, key.size() - 2);
  put_be(key, 2, 4, parent);
  put_be(key, 6, 2, name.size());
  put_units(key, 8, name);
  return key;
}

Bytes thread_key(std::uint32_t cnid) {
  return catalog_key(cnid, {});
}

Bytes extents_key(std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block) {
  Bytes key(12);
  put_be(key, 0, 2, 10);
  put_be(key, 2, 1, fork_type);
  put_be(key, 4, 4, file_id);
  put_be(key, 8, 4, start_block);
  return key;
}

Bytes thread_data(bool folder, std::uint32_t parent, std::u16string_view name) {
  Bytes data(10 + 2 * name.size());
  put_be(data, 0, 2, folder ? 3 : 4);
  put_be(data, 4, 4, parent);
  put_be(data, 8, 2, name.size());
  put_units(data, 10, name);
  return data;
}

namespace {

int order(std::uint64_t a, std::uint64_t b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

int compare_extents_keys(const Bytes& a, const Bytes& b) {
  if (const int by_file = order(get_be32(a, 4), get_be32(b, 4))) {
    return by_file;
  }
  const int by_type = order(a[2], b[2]);
  return by_type != 0 ? by_type : order(get_be32(a, 8), get_be32(b, 8));
}

}  // namespace

Name name_of_key(const Bytes& key) {
  Name name;
  for (std::size_t at = 8; at + 1 < key.size() && name.size() < get_be16(key, 6); at += 2) {
    name += static_cast<char16_t>(get_be16(key, at));
  }
  return name;
}

int compare_keys(Tree tree, const Bytes& a, const Bytes& b, bool binary) {
  if (tree == Tree::kExtents) {
    return compare_extents_keys(a, b);
  }
  return compare_entries(get_be32(a, 2), name_of_key(a), get_be32(b, 2), name_of_key(b), binary);
}

int compare_entries(std::uint32_t parent_a, std::u16string_view name_a, std::uint32_t parent_b,
                    std::u16string_view name_b, bool binary) {
  if (parent_a != parent_b) {
    return parent_a < parent_b ? -1 : 1;
  }
  // Private folders of the root (their names begin with a NUL unit) stand before all other names of the root in the
  // binary order, behind them in the folding one.
  const bool private_a = parent_a == kRootFolderId && !name_a.empty() && name_a[0] == 0;
  const bool private_b = parent_a == kRootFolderId && !name_b.empty() && name_b[0] == 0;
  if (private_a != private_b) {
    return private_a == binary ? -1 : 1;
  }
  return compare_names(name_a, name_b, binary);
}

std::vector<Record> dump_records(const Volume& volume, Tree tree) {
  const TreeView view(volume, tree);
  std::vector<Record> records;
  for_each_leaf_record(view, [&](const Bytes& node, std::uint32_t, std::uint16_t index) {
    records.push_back(split_record(record_bytes(node, index)));
    return false;
  });
  return records;
}

Volume cut_out_partition(const SparseImage& disk) {
  constexpr std::uint64_t kBlock = 512;
  constexpr std::uint16_t kEntrySignature = 0x504D;
  constexpr std::size_t kTypeSize = 32;
  for (std::uint64_t entry = kBlock; disk.get16(entry) == kEntrySignature; entry += kBlock) {
    const std::uint64_t start = disk.get32(entry + 8) * kBlock;
    const std::uint64_t size = disk.get32(entry + 12) * kBlock;
    const Bytes field = disk.read(entry + 48, kTypeSize);
    const std::string type(field.begin(), std::find(field.begin(), field.end(), 0));
    if (type.ends_with("_HFS")) {
      SparseImage partition(size);
      partition.write(0, disk.read(start, static_cast<std::size_t>(size)));
      return Volume(std::move(partition));
    }
  }
  throw std::runtime_error("the disk has no HFS Plus partition");
}

Name read_label(const Volume& volume) {
  const TreeView view(volume, Tree::kCatalog);
  std::optional<Name> label;
  for_each_leaf_record(view, [&](const Bytes& node, std::uint32_t, std::uint16_t index) {
    const auto [key, data] = split_record(record_bytes(node, index));
    if (key.size() >= 8 && get_be32(key, 2) == kRootParentId && data.size() >= 12 && get_be16(data, 0) == 1) {
      label = name_of_key(key);
    }
    return label.has_value();
  });
  if (!label) {
    throw std::runtime_error("the volume has no root folder record");
  }
  return *label;
}

}  // namespace kvfs_test
