// Makes correct HFS Plus and HFSX volumes from a short description; damage is done afterwards, on the result.
//
//   VolumeDescription description;
//   description.label = u"Backup";
//   description.add_files(kRootFolderId, 1000);
//   description.catalog.extent_count = 12;
//   Volume volume = build_volume(description);
//   volume.set_field("catalogFile.logicalSize", 0);
//   volume.write_to(path);

#ifndef KVFS_VOLUME_BUILDER_H
#define KVFS_VOLUME_BUILDER_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "volume_image.h"

namespace kvfs_test {

// How full one leaf is made. Leaves are counted from 0 in key order.
struct LeafFill {
  std::uint16_t max_records = 0;            // 0: as many as fit
  std::optional<std::uint16_t> free_bytes;  // exactly so many bytes stay free: the name of the leaf's last file or
                                            // folder is lengthened, or one record less is taken. build_volume throws
                                            // when no choice gives the figure (an odd one never can).
};

struct TreeShape {
  std::uint32_t node_size = 4096;
  std::uint16_t max_leaf_records = 0;         // 0: as many as fit
  std::uint16_t max_index_records = 0;        // 0: as many as fit; else 2 or more
  std::uint16_t leaf_free_bytes = 0;          // at least so many bytes stay free in every leaf
  std::map<std::size_t, LeafFill> leaf_fill;  // by number of the leaf; wins over the two limits for all leaves
  std::uint16_t height = 0;  // 0: what the records give. Else the fan-out is limited until the tree has this height
                             // (with too few records for that, index nodes of one record are put on top).
  std::uint32_t total_nodes = 0;  // 0: nodes in use + spare_nodes, rounded up to fill the fork's last block
  std::uint32_t spare_nodes = 8;
  std::set<std::uint32_t> free_nodes;  // these node numbers stay unused: holes below the used ones
  bool map_nodes_first = false;        // map nodes take the lowest numbers, otherwise those after the index nodes
  std::uint32_t clump_size = 0;        // 0: four blocks or nodes, whichever is more
  std::uint32_t extent_count = 1;      // extents of the fork; those beyond eight go to the extents overflow tree (the
                                       // overflow tree's own: at most 8). The fork grows when it has fewer blocks.
  std::uint32_t gap_blocks = 1;        // free blocks between two of its extents
  std::uint32_t blocks_after = 0;      // free blocks kept right behind its last extent
  std::uint32_t first_block = 0;       // 0: next free; else where its first extent lies
};

// One fork of a file.
struct ForkDescription {
  std::uint64_t size = 0;          // bytes; at least those of the content
  Bytes content;                   // the rest reads as zero
  std::uint32_t extent_count = 1;  // at most the fork's blocks
  std::uint32_t gap_blocks = 1;    // free blocks between two extents
  std::uint32_t first_block = 0;   // 0: next free; else where its first extent lies
};

// A file or folder.
struct Item {
  std::uint32_t parent = kRootFolderId;
  Name name;               // as stored: decomposed units
  std::uint32_t cnid = 0;  // 0: the next free ID
  bool folder = false;
  bool with_record = true;
  bool with_thread = true;
  std::uint16_t flags = 0;               // or'ed to what the builder sets (thread exists, has folder count)
  std::optional<bool> has_folder_count;  // folders: default is the description's folder_counts
  std::uint32_t file_type = 0;
  std::uint32_t creator = 0;
  std::uint16_t finder_flags = 0;
  std::uint16_t mode = 0;     // 0: 0100644 for a file, 040755 for a folder
  std::uint32_t special = 0;  // hard link reference, link count
  ForkDescription data;
  ForkDescription resource;
  std::optional<Bytes> record;  // replaces the whole record
};

class VolumeDescription {
 public:
  Name label = u"Untitled";
  std::uint32_t block_size = 4096;
  bool hfsx = false;
  bool case_sensitive = false;  // key compare type 0xBC (HFSX in practice, but either is made), else 0xCF
  std::optional<std::uint8_t> key_compare_type;  // any other value
  bool nul_names_by_units = false;               // names that begin with a NUL stand where their units put them, behind
                                                 // the thread of the folder; else as the library compares them
  bool folder_counts = false;                    // folders keep a folder count (flag 0x1000)
  Item root;                                     // its parent, ID and name are set by the builder
  std::uint64_t size = 0;                        // bytes of the device; 0: what is needed + spare_blocks
  std::uint32_t spare_blocks = 64;               // free blocks at the end when size is 0
  std::uint32_t trailing_bytes = 0;              // bytes behind the last block (less than a block), when size is 0
  std::vector<Extent> free_blocks;               // these blocks stay free
  std::uint32_t next_allocation = 0;             // 0: behind the last used block
  std::uint32_t next_catalog_id = 0;             // 0: above every ID in use
  std::uint32_t attributes = 0x100;              // of the volume header: unmounted cleanly
  TreeShape catalog;
  TreeShape extents;
  bool attributes_file = true;  // an attributes tree without records
  TreeShape attributes_tree;
  std::uint32_t startup_blocks = 0;  // size of the startup file
  std::uint32_t allocation_extent_count = 1;
  bool allocation_file_in_chunks = false;  // of 4,096 bytes, which freeing blocks maps; else in blocks
  std::vector<Item> items;
  std::vector<Record> extra_catalog_records;  // put in order among the others; keys with their length field
  std::vector<Record> extra_extents_records;

  VolumeDescription() { extents.spare_nodes = attributes_tree.spare_nodes = 4; }

  // The label in UTF-8, stored decomposed or unit by unit as given.
  void set_label(std::string_view utf8) { label = decomposed(utf8); }
  void set_label_verbatim(std::string_view utf8) { label = to_utf16(utf8); }

  // Each adds one item and returns its ID. The reference from item(id) is good until the next one is added.
  std::uint32_t add_folder(std::uint32_t parent, Name name);
  std::uint32_t add_file(std::uint32_t parent, Name name, std::uint64_t data_bytes = 0, std::uint32_t extent_count = 1);
  std::uint32_t add_file_with(std::uint32_t parent, Name name, Bytes content);
  std::uint32_t add_symlink(std::uint32_t parent, Name name, std::string_view target);
  // A hard link to the file `target`; that file belongs into the private folder (see add_inode).
  std::uint32_t add_hard_link(std::uint32_t parent, Name name, std::uint32_t target);
  // A directory hard link as the valence rules know it: a file record that counts as a folder.
  std::uint32_t add_directory_hard_link(std::uint32_t parent, Name name, std::uint32_t target);
  // The folder for hard-linked files (four NUL units, then "HFS+ Private Data"), made once.
  std::uint32_t private_folder();
  // A file in the private folder that hard links may name.
  std::uint32_t add_inode(std::uint64_t data_bytes = 0);
  std::uint32_t add(Item item);
  Item& item(std::uint32_t cnid);

  // `count` files or folders named prefix000000, prefix000001 ... with name_length units in all (0: as they come;
  // longer ones are filled with 'x'). Returns the first ID; the others follow it.
  std::uint32_t add_files(std::uint32_t parent, std::uint32_t count, std::string_view prefix = "f",
                          std::size_t name_length = 0);
  std::uint32_t add_folders(std::uint32_t parent, std::uint32_t count, std::string_view prefix = "d",
                            std::size_t name_length = 0);
  // One file whose data fork has so many extents of one block each (of the block size set by then) that its overflow
  // records number `records`.
  std::uint32_t add_overflow_records(std::uint32_t records);

 private:
  std::uint32_t take_cnid(std::uint32_t wanted);
  std::uint32_t add_series(const Item& pattern, std::uint32_t count, std::string_view prefix, std::size_t name_length);

  std::uint32_t next_cnid_ = kFirstUserId;
  std::uint32_t private_folder_ = 0;
  std::map<std::uint32_t, std::size_t> index_of_cnid_;
};

// Throws std::invalid_argument, with the reason, for a description that cannot be built.
Volume build_volume(const VolumeDescription& description);

}  // namespace kvfs_test

#endif  // KVFS_VOLUME_BUILDER_H
