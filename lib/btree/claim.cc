// The node bitmap: claiming a free node.

#include "btree/claim.h"

#include <cstdint>

#include "btree.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "btree/work.h"
#include "fork.h"
#include "format.h"
#include "ground/bits.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// A walk over the node bitmap, which begins in the map record of the header node and goes on in map nodes.
struct bitmap_walk {
  kvfs_btree* tree;
  std::uint32_t total_nodes;
  mapping header_map;    // of the header node
  mapping map;           // of the current map node, once the walk has left the header node
  node_view node;        // that holds the current segment
  std::uint32_t start;   // of the segment in its node
  std::uint32_t length;  // of the segment, bytes
  std::uint32_t next;    // node with the next segment; 0 when there is none
  std::uint32_t behind;  // bytes of the bitmap in the segments before
};

}  // namespace

// The first segment: the map record of the header node.
static kvfs_result begin_bitmap_walk(bitmap_walk* walk) {
  kvfs_btree* const tree = walk->tree;
  const kvfs_result result = map_node(tree, 0, &walk->header_map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while mapping complete header node of B-tree.\n");
    return result;
  }
  walk->node = view_of(tree, 0, walk->header_map);
  walk->start = offset_at(walk->node, kBTHeaderNodeRecords - 1);
  if (tree->nodeSize < kBTHeaderNodeOverhead || walk->start < kBTHeaderMapOffset) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: No map record at offset %lu.\n", to_ul(walk->start));
    return kvfs_inconsistent;
  }
  walk->total_nodes = kvfs_view_as<BTHeaderRec>(walk->node.bytes + kBTHeaderRecordOffset)->totalNodes.get();
  walk->next = descriptor_of(walk->node).fLink.get();
  if (walk->next > walk->total_nodes) {  // not >=: Q-btree-18
    KVFS_ERROR_AS(kvfs_btree_claim_node,
                  "Invalid node data: Value of 'fLink' (%lu) in node 0 exceeds the total number of nodes (%lu).\n",
                  to_ul(walk->next), to_ul(walk->total_nodes));
    return kvfs_inconsistent;
  }
  walk->length = tree->nodeSize - kBTHeaderNodeOverhead;
  return kvfs_ok;
}

static kvfs_result check_map_descriptor(const bitmap_walk& walk, const BTNodeDescriptor& descriptor) {
  if (descriptor.kind != kBTMapNode) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Expected map node, got node kind %hhd.\n",
                  descriptor.kind);
    return kvfs_inconsistent;
  }
  if (descriptor.numRecords.get() != kMapNodeRecords) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Unexpected number of records in map node (%hu).\n",
                  descriptor.numRecords.get());
    return kvfs_inconsistent;
  }
  if (descriptor.fLink.get() > walk.total_nodes) {  // not >=: Q-btree-18
    KVFS_ERROR_AS(kvfs_btree_claim_node,
                  "Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number of nodes (%lu).\n",
                  to_ul(descriptor.fLink.get()), to_ul(walk.node.number), to_ul(walk.total_nodes));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Takes the record of a map node as the current segment.
static kvfs_result take_up_map_record(bitmap_walk* walk) {
  const std::uint32_t limit = walk->node.size - kMapNodeTableSize;
  const std::uint16_t first = offset_at(walk->node, 0);
  const std::uint16_t end = offset_at(walk->node, 1);
  walk->behind += walk->length;
  if (first < kBTFirstRecordOffset || first > limit) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: First record offset is out of range (%hu).",
                  first);  // Q-log-2
    return kvfs_inconsistent;
  }
  if (end < kBTFirstRecordOffset || end > limit) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Free space offset is out of range (%hu).",
                  end);  // Q-log-2
    return kvfs_inconsistent;
  }
  if (first > end) {
    KVFS_ERROR_AS(
        kvfs_btree_claim_node,
        "Invalid node data: Records offsets out of order in map node %lu (first offset: %hu, free space: %hu)\n",
        to_ul(walk->node.number), first, end);
    return kvfs_inconsistent;
  }
  walk->start = first;
  walk->length = std::uint32_t{end} - first;
  return kvfs_ok;
}

// Moves on to the next map node; `node` is the tree node whose bit is looked for.
static kvfs_result next_segment(bitmap_walk* walk, std::uint32_t node) {
  kvfs_result result = walk->map.unmap();
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while unmapping previously mapped map node data.\n",
                  to_ull(result));
    return result;
  }
  if (walk->next == 0) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Missing map node after node %lu (%lu bytes of node bitmap data missing).\n",
                  to_ul(walk->node.number), to_ul((walk->total_nodes - node) / 8));
    return kvfs_inconsistent;
  }
  result = map_node(walk->tree, walk->next, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while mapping next map node into memory.\n", to_ull(result));
    return result;
  }
  walk->node = view_of(walk->tree, walk->next, walk->map);
  const BTNodeDescriptor descriptor = descriptor_of(walk->node);
  result = check_map_descriptor(*walk, descriptor);
  if (result != kvfs_ok) {
    return result;
  }
  walk->next = descriptor.fLink.get();
  result = take_up_map_record(walk);
  if (result == kvfs_ok && !spend_work(walk->tree, kWorkOfAMapNode + walk->length)) {  // X-btree-13: it may be a ring
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Too many map nodes up to node %lu.\n",
                  to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  return result;
}

// The byte of the bitmap at an index of the current segment; null, with a message, when it lies outside of the node
// (X-btree-13).
static unsigned char* bitmap_byte_at(const bitmap_walk& walk, std::uint32_t index) {
  const std::uint64_t position = std::uint64_t{walk.start} + index;
  if (position >= walk.node.size) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Byte %lu of the bitmap lies outside of node %lu.\n",
                  to_ul(index), to_ul(walk.node.number));
    return nullptr;
  }
  return walk.node.bytes + position;
}

// Finds the first node whose bit is clear. A byte index that equals the segment's length still counts to the segment,
// and the node that makes the walk move on is looked for in the new segment by its index in the old one. Both decide
// which node is claimed: Q-btree-16.
static kvfs_result find_free_node(bitmap_walk* walk, std::uint32_t* free_node) {
  std::uint32_t node = 1;
  while (node < walk->total_nodes) {
    const std::uint32_t index = node / 8 - walk->behind;
    const bool moves = index > walk->length;
    if (moves) {
      const kvfs_result result = next_segment(walk, node);
      if (result != kvfs_ok) {
        return result;
      }
    }
    const unsigned char* const byte = bitmap_byte_at(*walk, index);
    if (byte == nullptr) {
      return kvfs_inconsistent;
    }
    if ((*byte & kvfs_disk_bit(node)) == 0) {
      *free_node = node;
      return kvfs_ok;
    }
    const bool whole_byte_used = *byte == 0xFF && node % 8 == 0 && !moves && walk->total_nodes - node > 8;
    node += whole_byte_used ? 8 : 1;
  }
  KVFS_ERROR_AS(kvfs_btree_claim_node, "Need to expand B-tree, but this is not yet implemented.\n");
  return kvfs_limit;
}

// Takes the node out of the count of free nodes, which is not questioned (Q-btree-17), and sets its bit.
static kvfs_result mark_node_used(const bitmap_walk& walk, std::uint32_t node) {
  kvfs_btree* const tree = walk.tree;
  BTHeaderRec header = *kvfs_view_as<BTHeaderRec>(walk.header_map.bytes() + kBTHeaderRecordOffset);
  header.freeNodes.set(header.freeNodes.get() - 1);
  kvfs_result result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while writing out modified tree header record after claiming node.\n");
    return result;
  }
  const std::uint32_t index = node / 8 - walk.behind;
  // The byte that was looked at, or one before it: it lies in the node.
  const std::uint64_t position = std::uint64_t{walk.start} + index;
  const unsigned char byte = walk.node.bytes[position];
  if ((byte & kvfs_disk_bit(node)) != 0) {
    KVFS_CRITICAL_AS(kvfs_btree_claim_node, "Internal error: Node is already allocated!\n");
    return kvfs_internal;
  }
  const unsigned char used = static_cast<unsigned char>(byte | kvfs_disk_bit(node));
  result = kvfs_fork_write(tree->fork, fork_position(tree, walk.node.number, position), &used, sizeof(used), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while writing out modified bitmap byte after claiming node.\n");
  }
  return result;
}

static void unmap_map_node(bitmap_walk* walk) {
  for (int tries = 0; tries < kCleanUpTries; ++tries) {
    const kvfs_result result = walk->map.unmap();
    if (result == kvfs_ok) {
      return;
    }
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while unmapping previously mapped map node data.\n",
                  to_ull(result));
  }
}

kvfs_result kvfs_btree_claim_node(kvfs_btree* tree, std::uint32_t* out_node) {
  bitmap_walk walk = {};
  walk.tree = tree;
  std::uint32_t node = 0;
  kvfs_result result = begin_bitmap_walk(&walk);
  if (result == kvfs_ok) {
    result = find_free_node(&walk, &node);
  }
  if (result == kvfs_ok) {
    result = mark_node_used(walk, node);
  }
  unmap_map_node(&walk);
  const kvfs_result unmapped = walk.header_map.unmap();
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping complete header node of B-tree.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_node = node;
  }
  return result;
}
