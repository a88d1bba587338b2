// A volume as bytes: its fields by name, its trees and bitmaps, without the library.

#ifndef KVFS_VOLUME_IMAGE_H
#define KVFS_VOLUME_IMAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sparse_image.h"
#include "unicode_names.h"

namespace kvfs_test {

inline constexpr std::uint64_t kHeaderOffset = 1024;
inline constexpr std::uint32_t kRootParentId = 1;
inline constexpr std::uint32_t kRootFolderId = 2;
inline constexpr std::uint32_t kFirstUserId = 16;

// The special files that are B-trees.
enum class Tree : std::uint32_t { kExtents = 3, kCatalog = 4, kAttributes = 8 };

// All special files, by catalog node ID.
enum class SpecialFile : std::uint32_t { kExtents = 3, kCatalog = 4, kAllocation = 6, kStartup = 7, kAttributes = 8 };

constexpr SpecialFile file_of(Tree tree) {
  return static_cast<SpecialFile>(tree);
}

struct Extent {
  std::uint32_t start_block = 0;
  std::uint32_t block_count = 0;

  friend bool operator==(const Extent&, const Extent&) = default;
};

// Where a record stands in a tree. The bytes are those of the node's record, key first.
struct RecordPlace {
  Tree tree = Tree::kCatalog;
  std::uint32_t node = 0;
  std::uint16_t index = 0;
  std::uint16_t offset_in_node = 0;
  std::uint64_t fork_offset = 0;       // of the key
  std::uint64_t data_fork_offset = 0;  // of the data behind the key
  std::uint64_t device_offset = 0;     // of the key's first byte

  // "catalog.node[5].record[2]": the prefix of the names of its fields.
  [[nodiscard]] std::string path() const;
};

// The bytes of a fork seen through its extents. Built once, it follows later changes of the image's bytes but not of
// its extents. Keeps a pointer to the image.
class ForkView {
 public:
  ForkView(const SparseImage& image, std::uint32_t block_size, std::vector<Extent> extents);

  [[nodiscard]] const std::vector<Extent>& extents() const { return extents_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }  // bytes in all extents

  // The device byte of a fork byte. Throws std::out_of_range where the extents end.
  [[nodiscard]] std::uint64_t device_offset(std::uint64_t fork_offset) const;

  // Bytes beyond the extents or beyond the device read as zero.
  [[nodiscard]] Bytes read(std::uint64_t fork_offset, std::size_t length) const;
  void write(SparseImage& image, std::uint64_t fork_offset, const Bytes& bytes) const;

 private:
  struct Piece;
  [[nodiscard]] Piece piece_at(std::uint64_t fork_offset, std::uint64_t length) const;

  const SparseImage* image_;
  std::uint32_t block_size_;
  std::vector<Extent> extents_;
  std::vector<std::uint64_t> starts_;  // fork byte at which each extent begins
  std::uint64_t size_ = 0;
};

// An HFS Plus volume in memory: its bytes, and its fields by name. Everything is parsed from the bytes at each call, so
// it can follow any damage. A look-up that the damage makes impossible throws std::runtime_error.
//
// Names of fields, for get_field and set_field:
//   header     signature, blockSize, freeBlocks, finderInfo[3] ... as in the volume header
//              alternate.signature ... the same in the alternate header
//   fork data  catalogFile.logicalSize, catalogFile.totalBlocks, extentsFile.extents[0].startBlock ...
//   tree       catalog.header.rootNode, extents.header.totalNodes ... (attributes.header... likewise)
//   node       catalog.node[3].fLink, .bLink, .kind, .height, .numRecords, .reserved, .offset[2] (entry of the offset
//              table; the entry after the last record is the free-space offset)
//   record     catalog.node[3].record[2].key.keyLength, .key.parentID, .key.nodeName.length,
//              .key.nodeName.unicode[4]; extents tree: .key.forkType, .key.pad, .key.fileID, .key.startBlock
//   data       catalog.node[3].record[2].recordType; by that type of folder (.flags .valence .folderID .createDate
//              .fileMode .folderCount ...), file (.fileID .special .fileType .creator .dataFork.logicalSize
//              .resourceFork.extents[1].blockCount ...) and thread (.parentID .nodeName.length .nodeName.unicode[0]);
//              extents tree: .extents[3].startBlock; index node: .child; byte[n] for any byte of the data
class Volume : public SparseImage {
 public:
  Volume() = default;
  explicit Volume(SparseImage image) : SparseImage(std::move(image)) {}

  static Volume load(const std::string& path) { return Volume(SparseImage::load(path)); }

  // An unknown name throws std::invalid_argument.
  [[nodiscard]] std::uint64_t get_field(const std::string& name) const;
  void set_field(const std::string& name, std::uint64_t value);
  // Adds to a field, wrapping in its width.
  void add_to_field(const std::string& name, std::int64_t amount);
  [[nodiscard]] std::uint64_t device_offset_of_field(const std::string& name) const;
  [[nodiscard]] std::size_t width_of_field(const std::string& name) const;

  // Every name of the volume header, of a fork data slot ("catalogFile") or of a tree's header record.
  static std::vector<std::string> header_field_names();
  static std::vector<std::string> fork_field_names(std::string_view slot);
  static std::vector<std::string> tree_field_names(Tree tree);

  [[nodiscard]] std::uint32_t block_size() const { return get32(kHeaderOffset + 40); }
  [[nodiscard]] bool binary_compare() const;

  // Forks: special files with their overflow extents; a file's fork by the place of its catalog record.
  [[nodiscard]] ForkView fork(SpecialFile file) const;
  [[nodiscard]] ForkView fork(Tree tree) const { return fork(file_of(tree)); }
  [[nodiscard]] ForkView data_fork(const RecordPlace& file_record) const;
  [[nodiscard]] std::uint64_t fork_logical_size(SpecialFile file) const;
  [[nodiscard]] std::uint64_t device_offset(Tree tree, std::uint64_t fork_offset) const;
  [[nodiscard]] std::uint64_t node_device_offset(Tree tree, std::uint32_t node) const;

  // Whole nodes and bytes at a fork position.
  [[nodiscard]] std::uint16_t node_size(Tree tree) const;
  [[nodiscard]] Bytes read_node(Tree tree, std::uint32_t node) const;
  void write_node(Tree tree, std::uint32_t node, const Bytes& bytes);
  [[nodiscard]] Bytes read_fork(SpecialFile file, std::uint64_t offset, std::size_t length) const;
  void write_fork(SpecialFile file, std::uint64_t offset, const Bytes& bytes);

  // Leaf nodes from firstLeafNode along fLink.
  [[nodiscard]] std::vector<std::uint32_t> leaf_nodes(Tree tree) const;
  [[nodiscard]] std::uint16_t record_count(Tree tree, std::uint32_t node) const;
  // Bytes between the free-space offset and the offset table.
  [[nodiscard]] int free_bytes(Tree tree, std::uint32_t node) const;
  [[nodiscard]] RecordPlace record_at(Tree tree, std::uint32_t node, std::uint16_t index) const;
  [[nodiscard]] Bytes record_key(const RecordPlace& place) const;   // with its length field
  [[nodiscard]] Bytes record_data(const RecordPlace& place) const;  // up to the next record, padding included
  // The index records on the way from the root down to a node; none for the root itself.
  [[nodiscard]] std::vector<RecordPlace> index_path(Tree tree, std::uint32_t node) const;

  // Exact keys (no folding), found by walking the leaves, whatever the index says.
  [[nodiscard]] std::optional<RecordPlace> find_record(Tree tree, const Bytes& key) const;
  [[nodiscard]] std::optional<RecordPlace> find_entry(std::uint32_t parent, const Name& name) const;
  [[nodiscard]] std::optional<RecordPlace> find_thread(std::uint32_t cnid) const;
  // The file or folder record that the thread of an ID names.
  [[nodiscard]] std::optional<RecordPlace> find_by_cnid(std::uint32_t cnid) const;

  // Node and block bitmaps.
  [[nodiscard]] bool node_used(Tree tree, std::uint32_t node) const;
  void set_node_used(Tree tree, std::uint32_t node, bool used);
  [[nodiscard]] bool block_used(std::uint32_t block) const;
  void set_block_used(std::uint32_t block, bool used);

 private:
  struct Field;
  [[nodiscard]] Field find_field(const std::string& name) const;
  [[nodiscard]] Field find_tree_field(Tree tree, std::string_view rest, const std::string& name) const;
  [[nodiscard]] Field find_node_field(Tree tree, std::string_view rest, const std::string& name) const;
  [[nodiscard]] Field find_record_field(const RecordPlace& place, std::string_view rest, const std::string& name) const;
  [[nodiscard]] std::vector<Extent> all_extents(std::uint64_t fork_data, std::uint32_t cnid, std::uint8_t type) const;
  void add_overflow_extents(std::uint32_t cnid, std::uint8_t type, std::vector<Extent>& extents) const;
  [[nodiscard]] std::uint64_t node_bit_offset(Tree tree, std::uint32_t node) const;
};

// Keys as the trees store them, length field included.
Bytes catalog_key(std::uint32_t parent, std::u16string_view name);
Bytes thread_key(std::uint32_t cnid);
Bytes extents_key(std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block);

// Thread record data.
Bytes thread_data(bool folder, std::uint32_t parent, std::u16string_view name);

// Negative, 0 or positive: the order of two keys of a tree.
int compare_keys(Tree tree, const Bytes& a, const Bytes& b, bool binary);

// The same for catalog keys in parts.
int compare_entries(std::uint32_t parent_a, std::u16string_view name_a, std::uint32_t parent_b,
                    std::u16string_view name_b, bool binary);

// The name in a catalog key, cut off where the key ends.
Name name_of_key(const Bytes& key);

// All leaf records in order, as key (length field included) and data (with its padding, if any).
using Record = std::pair<Bytes, Bytes>;
std::vector<Record> dump_records(const Volume& volume, Tree tree);

// The HFS Plus volume on a disk with a partition map, as programs that make such disks for CDs write it: blocks of 512
// bytes from the second on, an entry for each partition. Throws std::runtime_error when there is none.
Volume cut_out_partition(const SparseImage& disk);

// The root folder's name as its catalog record has it. Throws std::runtime_error when there is none.
Name read_label(const Volume& volume);

}  // namespace kvfs_test

#endif  // KVFS_VOLUME_IMAGE_H
