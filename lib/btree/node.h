// The view of a node's bytes, which stays inside the node, and what of a tree's fork is mapped.

#ifndef KVFS_BTREE_NODE_H
#define KVFS_BTREE_NODE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "fork.h"
#include "fork/mapping.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"

namespace kvfs::btree {

using fork::mapping;

// The bytes of one node. Offsets and lengths in a node come from disk: whatever follows one of them goes through the
// routines below, which stay inside the node (X-btree-1).
struct node_view {
  unsigned char* bytes;
  std::uint32_t size;    // the tree's nodeSize
  std::uint32_t number;  // of the node in its tree
};

inline constexpr std::uint32_t kOffsetEntrySize = sizeof(kvfs_be16);

// Where the entry of a record lies: the offset table grows from the end of the node towards its start.
constexpr std::uint32_t offset_entry_position(std::uint32_t node_size, std::uint32_t index) {
  return node_size - kOffsetEntrySize * (index + 1);
}

// Bytes of the longest offset table that a node can hold; its entries are those of the records and of the free space.
constexpr std::uint32_t offset_table_room(std::uint32_t node_size) {
  return node_size < sizeof(BTNodeDescriptor) ? 0 : node_size - static_cast<std::uint32_t>(sizeof(BTNodeDescriptor));
}

constexpr bool has_offset_entry(std::uint32_t node_size, std::uint32_t index) {
  return std::uint64_t{kOffsetEntrySize} * (std::uint64_t{index} + 1) <= offset_table_room(node_size);
}

constexpr std::uint32_t round_up_to_even(std::uint32_t value) {
  return value + value % 2;
}

inline BTNodeDescriptor descriptor_of(const node_view& node) {
  BTNodeDescriptor descriptor = {};
  std::memcpy(&descriptor, node.bytes, kvfs_min<std::size_t>(sizeof(descriptor), node.size));
  return descriptor;
}

// Reads an entry of the offset table; false when it would begin before the node. One that lies in the descriptor is
// read like any other.
inline bool read_offset(const node_view& node, std::uint32_t index, std::uint16_t* offset) {
  if (std::uint64_t{kOffsetEntrySize} * (std::uint64_t{index} + 1) > node.size) {
    return false;
  }
  *offset = kvfs_view_as<kvfs_be16>(node.bytes + offset_entry_position(node.size, index))->get();
  return true;
}

// An entry of an offset table that is known to hold it; 0, where no record begins, when it would begin before the node.
inline std::uint16_t offset_at(const node_view& node, std::uint32_t index) {
  std::uint16_t offset = 0;
  (void)read_offset(node, index, &offset);
  return offset;
}

// Reads where the data behind a key begins, not rounded up to even; false when the key leaves the node. `end` is 0 when
// its length field does. A search does so for each record: inlined also where code is to be small.
[[gnu::always_inline]] inline bool read_key_end(const node_view& node, std::uint32_t offset, std::uint32_t* end) {
  *end = 0;
  if (offset + sizeof(kvfs_be16) > node.size) {
    return false;
  }
  *end = offset + static_cast<std::uint32_t>(sizeof(kvfs_be16)) + kvfs_view_as<kvfs_be16>(node.bytes + offset)->get();
  return *end <= node.size;
}

// Recognises that a walk from node to node goes in circles (X-btree-13). Where a node leads depends on it alone, so
// that coming back to a node once means coming back for ever. Comparing with one checkpoint, moved at each power of
// two, finds that with constant memory (R. P. Brent, "An improved Monte Carlo factorization algorithm", 1980).
struct cycle_finder {
  std::uint32_t checkpoint;  // a node that was visited; the first one to begin with
  std::uint32_t steps;
};

inline bool comes_back(cycle_finder* finder, std::uint32_t next) {
  if (next == finder->checkpoint) {
    return true;
  }
  ++finder->steps;
  if ((finder->steps & (finder->steps - 1)) == 0) {
    finder->checkpoint = next;
  }
  return false;
}

// The fork position of an offset in a node.
inline std::uint64_t fork_position(const kvfs_btree* tree, std::uint32_t node, std::uint64_t offset) {
  return std::uint64_t{node} * tree->nodeSize + offset;
}

inline kvfs_result map_node(kvfs_btree* tree, std::uint32_t node, mapping* map) {
  return map->map(tree->fork, fork_position(tree, node, 0), tree->nodeSize);
}

inline kvfs_result map_header_record(kvfs_btree* tree, mapping* map) {
  return map->map(tree->fork, kBTHeaderRecordOffset, sizeof(BTHeaderRec));
}

inline node_view view_of(const kvfs_btree* tree, std::uint32_t node, const mapping& map) {
  return {map.bytes(), tree->nodeSize, node};
}

inline kvfs_result map_descriptor(kvfs_btree* tree, std::uint32_t node, mapping* map) {
  return map->map(tree->fork, fork_position(tree, node, 0), sizeof(BTNodeDescriptor));
}

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_NODE_H
