// Nodes in memory of their own: read, changed and written back as a whole.

#ifndef KVFS_BTREE_NODE_BUFFER_H
#define KVFS_BTREE_NODE_BUFFER_H

#include <cstdint>
#include <cstring>

#include "btree.h"
#include "btree/node.h"
#include "btree/private.h"
#include "btree/work.h"
#include "fork.h"
#include "format.h"
#include "result.h"

namespace kvfs::btree {

// A copy of a node that a change works on; `view` leads into its bytes, which are owned, and which the tree keeps
// afterwards.
struct node_buffer {
  node_buffer() = default;
  node_buffer(const node_buffer&) = delete;
  node_buffer& operator=(const node_buffer&) = delete;
  ~node_buffer();

  kvfs_btree* tree = nullptr;  // null until there are bytes
  node_view view = {nullptr, 0, 0};
};

// Gives an empty buffer its bytes; false when memory is short.
bool allocate_node(kvfs_btree* tree, node_buffer* buffer);

inline kvfs_result read_node(kvfs_btree* tree, std::uint32_t node, node_buffer* buffer) {
  (void)spend_work(tree, tree->nodeSize / kNodeBytesOfOneUnit);  // the next search ends when that was too much
  buffer->view.number = node;
  return kvfs_fork_read(tree->fork, fork_position(tree, node, 0), buffer->view.bytes, tree->nodeSize, nullptr);
}

inline kvfs_result read_descriptor(kvfs_btree* tree, std::uint32_t node, BTNodeDescriptor* descriptor) {
  return kvfs_fork_read(tree->fork, fork_position(tree, node, 0), descriptor, sizeof(*descriptor), nullptr);
}

inline kvfs_result write_node(kvfs_btree* tree, const node_buffer& buffer) {
  return kvfs_fork_write(tree->fork, fork_position(tree, buffer.view.number, 0), buffer.view.bytes, tree->nodeSize,
                         nullptr);
}

inline void store_descriptor(const node_buffer& buffer, const BTNodeDescriptor& descriptor) {
  std::memcpy(buffer.view.bytes, &descriptor, sizeof(descriptor));
}

inline void store_offset(const node_buffer& buffer, std::uint32_t index, std::uint32_t offset) {
  kvfs_view_as<kvfs_be16>(buffer.view.bytes + offset_entry_position(buffer.view.size, index))
      ->set(static_cast<std::uint16_t>(offset));
}

// Where the offset table of a node with `count` records begins.
inline std::uint32_t offset_table_start(const node_view& node, std::uint32_t count) {
  return offset_entry_position(node.size, count);
}

inline kvfs_result read_header_record(kvfs_btree* tree, BTHeaderRec* header) {
  return kvfs_fork_read(tree->fork, kBTHeaderRecordOffset, header, sizeof(*header), nullptr);
}

inline kvfs_result write_header_record(kvfs_btree* tree, const BTHeaderRec& header) {
  return kvfs_fork_write(tree->fork, kBTHeaderRecordOffset, &header, sizeof(header), nullptr);
}

// The key at an offset of a node; null, with a message, when it leaves the node.
const unsigned char* key_at(const char* speaker, const node_view& node, std::uint32_t offset);

// Whether the index above a node can be maintained. To be asked before the first change: a change that ends half-way
// has to be discarded.
kvfs_result check_levels_above(const char* speaker, const BTNodeDescriptor& node, std::uint16_t depth);

// Where a record lies that leaves a node, and what lies behind it. Where one is to come, it has no bytes yet.
struct record_extent {
  std::uint16_t begin;
  std::uint16_t end;
  std::uint16_t free_space;
};

// Whether the bytes behind a record, up to the free space, can move (X-btree-23): then the records behind it move with
// them, and none that a search can read is cut, left behind or overwritten, as with a damaged offset table. The table
// itself lies in the node.
bool can_part(const node_view& node, std::uint32_t index, const record_extent& gap);

inline std::uint8_t height_above(std::uint8_t height) {
  return static_cast<std::uint8_t>(height + 1);
}

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_NODE_BUFFER_H
