// Where a record is inserted, and whether it fits there.
//
// The index of a tree that is too deep is not maintained: X-btree-10.

#ifndef KVFS_BTREE_INSERT_PLACE_H
#define KVFS_BTREE_INSERT_PLACE_H

#include <cstdint>

#include "btree.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "format.h"
#include "result.h"

namespace kvfs::btree {

// A record on its way into the tree.
struct insertion {
  kvfs_btree* tree;
  const void* key;
  std::uint16_t key_length;  // without the length field
  const void* data;
  std::uint16_t data_size;
  std::uint32_t record_size;  // in the node, with pads and the key's length field

  node_buffer node;             // where the record goes
  BTNodeDescriptor descriptor;  // of that node
  std::uint32_t count;          // its records, before the insertion
  std::uint32_t index;          // of the new record
};

// A node is taken to be damaged when its table leaves no room for this many more entries.
inline constexpr std::uint32_t kSpareOffsetEntries = 8;

inline std::uint32_t record_size_for(std::uint16_t key_length, std::uint16_t data_size) {
  return round_up_to_even(key_length) + round_up_to_even(data_size) + static_cast<std::uint32_t>(sizeof(kvfs_be16));
}

inline void take_up_insertion_node(insertion* insert) {
  insert->descriptor = descriptor_of(insert->node.view);
  insert->count = insert->descriptor.numRecords.get();
}

inline bool table_has_room(const insertion& insert) {
  return (insert.count + kSpareOffsetEntries) * kOffsetEntrySize <= insert.tree->nodeSize;
}

// Below 0 in a damaged node.
inline std::int32_t free_space(const insertion& insert) {
  const std::uint32_t table = kOffsetEntrySize * (insert.count + 1);
  return insert.tree->nodeSize - offset_at(insert.node.view, insert.count) - static_cast<std::int32_t>(table);
}

inline bool fits_in_place(const insertion& insert) {
  return free_space(insert) >= static_cast<std::int32_t>(insert.record_size + kOffsetEntrySize);
}

// Finds the node and the index of the new record, by the hint, which is not questioned (Q-btree-10), or by a search of
// its own.
kvfs_result position_insertion(insertion* insert, const kvfs_btree_search_result* hint);

kvfs_result report_bad_insert_offset(std::uint32_t node, std::uint32_t index);

// Checks the node around the place of the new record, and that the record fits an empty node
// (X-btree-7).
kvfs_result check_insertion(const insertion& insert);

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_INSERT_PLACE_H
