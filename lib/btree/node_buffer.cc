// Nodes in memory of their own: read, changed and written back as a whole.

#include "btree/node_buffer.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "btree/node.h"
#include "btree/private.h"
#include "btree/spare.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

// Kept memory has room for an address (spare.h), whatever size the tree says that its nodes have.
static std::size_t memory_size(const kvfs_btree* tree) {
  return kvfs_max<std::size_t>(tree->nodeSize, sizeof(void*));
}

bool kvfs::btree::allocate_node(kvfs_btree* tree, node_buffer* buffer) {
  void* const bytes = take_block(&tree->priv->spare_nodes, memory_size(tree));
  if (bytes == nullptr) {
    return false;
  }
  buffer->tree = tree;
  buffer->view = {static_cast<unsigned char*>(bytes), tree->nodeSize, 0};
  return true;
}

node_buffer::~node_buffer() {
  if (tree != nullptr) {
    keep_block(&tree->priv->spare_nodes, view.bytes, memory_size(tree));
  }
}

const unsigned char* kvfs::btree::key_at(const char* speaker, const node_view& node, std::uint32_t offset) {
  std::uint32_t end = 0;
  if (!read_key_end(node, offset, &end)) {
    KVFS_ERROR_BY(speaker, "Invalid node data: Key at offset %lu of node %lu lies outside of the node.\n",
                  to_ul(offset), to_ul(node.number));
    return nullptr;
  }
  return node.bytes + offset;
}

kvfs_result kvfs::btree::check_levels_above(const char* speaker, const BTNodeDescriptor& node, std::uint16_t depth) {
  const std::uint8_t height = node.height;
  if (height >= depth) {
    return kvfs_ok;  // it is the root
  }
  if (height == UINT8_MAX) {
    KVFS_ERROR_BY(speaker, "B-tree depth too large.\n");  // the height above has to fit a byte
    return kvfs_inconsistent;
  }
  // The key of a leaf of another height has index records above that lead to other nodes.
  if (depth > kMaximumMaintainedDepth || (node.kind == kBTLeafNode && height != kBTLeafHeight)) {
    KVFS_ERROR_BY(speaker, "B-tree of depth %hu cannot be maintained at height %hu.\n", depth, std::uint16_t{height});
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

bool kvfs::btree::can_part(const node_view& node, std::uint32_t index, const record_extent& gap) {
  const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(node.bytes);
  const bool is_index = descriptor->kind == kBTIndexNode;
  const kvfs_be16* entry = kvfs_view_as<kvfs_be16>(node.bytes + offset_entry_position(node.size, 0));
  std::uint32_t next = entry->get();
  std::uint32_t least = 0;
  std::uint32_t most = gap.begin;
  for (std::uint32_t record = 0, count = descriptor->numRecords.get(); record < count; ++record) {
    const std::uint32_t begin = next;
    next = (--entry)->get();
    if (record == index) {
      least = gap.end;
      most = gap.free_space;
      if (gap.begin != gap.end) {
        continue;
      }
    }
    std::uint32_t end = next;
    if (is_index) {
      (void)read_key_end(node, begin, &end);  // a search reads the child behind it, wherever the next record begins
      end += sizeof(kvfs_be32);
    }
    if (begin < least || (end > most && end <= node.size)) {  // one that leaves the node cannot be read
      return false;
    }
  }
  return true;
}

kvfs_result kvfs_btree_node_make_record(const void* key, std::uint16_t key_length, const void* data,
                                        std::uint16_t data_size, unsigned char* destination,
                                        std::uint16_t record_size) {
  const std::size_t key_size = key_length + sizeof(kvfs_be16);
  if (key_size > record_size) {
    KVFS_CRITICAL("Not enough space for the record key.\n");
    return kvfs_internal;
  }
  std::memcpy(destination, key, key_size);
  std::size_t cur_offset = key_size;
  if (key_length % 2 != 0) {
    if (cur_offset + 1 > record_size) {
      KVFS_CRITICAL("Not enough space for record key padding.\n");
      return kvfs_internal;
    }
    destination[cur_offset++] = 0;
  }
  if (cur_offset + data_size > record_size) {
    KVFS_CRITICAL("Not enough space for the record data.\n");
    return kvfs_internal;
  }
  if (data_size != 0) {
    std::memcpy(destination + cur_offset, data, data_size);
  }
  cur_offset += data_size;
  if (data_size % 2 != 0) {
    if (cur_offset + 1 > record_size) {
      KVFS_CRITICAL("Not enough space for record data padding.\n");
      return kvfs_internal;
    }
    destination[cur_offset++] = 0;
  }
  if (cur_offset != record_size) {
    KVFS_CRITICAL("Unexpected: Calculation mismatch between cur_offset (%zu) and record_size (%hu).\n", cur_offset,
                  record_size);
    return kvfs_internal;
  }
  return kvfs_ok;
}
