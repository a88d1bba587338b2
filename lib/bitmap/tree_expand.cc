// Growing a B-tree: its fork, the node bitmap and the counts of nodes.

#include <cstdint>

#include "base/failure.h"
#include "base/rwlock_guard.h"
#include "bitmap.h"
#include "btree.h"
#include "btree/claim.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "btree/work.h"
#include "fork.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::btree;

namespace {

// An expansion with what it has done so far, so that it can be undone.
struct tree_expansion {
  kvfs_btree* tree;
  kvfs_volume* volume;
  kvfs_allocation_location added;
  bool fork_grown;

  mapping header;
  BTHeaderRec saved_header;
  bool header_changed;

  mapping last_map;  // the descriptor of the last map node, or of the header node when there is none
  BTNodeDescriptor saved_last_map;
  std::uint32_t last_map_node;
  bool last_map_changed;

  mapping new_map;  // the descriptor of the new map node
};

}  // namespace

static kvfs_result write_descriptor(kvfs_btree* tree, std::uint32_t node, const BTNodeDescriptor& descriptor) {
  return kvfs_fork_write(tree->fork, fork_position(tree, node, 0), &descriptor, sizeof(descriptor), nullptr);
}

// Grows the fork and its logical size in the volume header, without which the new nodes could not be read
// (X-btree-16).
static kvfs_result grow_fork(tree_expansion* expansion) {
  kvfs_fork* const fork = expansion->tree->fork;
  const kvfs_result result = kvfs_fork_expand(fork, expansion->volume, &expansion->added);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while expanding fork.\n");
    return result;
  }
  expansion->fork_grown = true;
  HFSPlusForkData fork_data = expansion->volume->header->catalogFile;
  fork_data.logicalSize.set(*fork->logical_size);
  kvfs_volume_update_fork_data(expansion->volume, kHFSCatalogFileID, &fork_data);
  return kvfs_ok;
}

// Maps the descriptor of the last node in the chain that begins at the header node.
static kvfs_result map_last_map_node(tree_expansion* expansion) {
  kvfs_btree* const tree = expansion->tree;
  cycle_finder chain = {0, 0};
  for (std::uint32_t node = 0;;) {
    kvfs_result result = expansion->last_map.unmap();
    if (result == kvfs_ok) {
      result = map_descriptor(tree, node, &expansion->last_map);
    }
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping last map node's descriptor.\n");
      return result;
    }
    const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(expansion->last_map.bytes());
    if (node != 0 && descriptor->kind != kBTMapNode) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Invalid node data: Expected map node, got node kind %hhd.\n", descriptor->kind);
      return kvfs_inconsistent;
    }
    const std::uint32_t next = descriptor->fLink.get();
    expansion->last_map_node = node;
    expansion->saved_last_map = *descriptor;
    if (next == 0) {
      return kvfs_ok;
    }
    if (comes_back(&chain, next)) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Invalid node data: The map nodes form a ring at node %lu.\n", to_ul(next));
      return kvfs_inconsistent;
    }
    node = next;
  }
}

// Counts the new nodes in.
static kvfs_result count_new_nodes(tree_expansion* expansion) {
  kvfs_btree* const tree = expansion->tree;
  const kvfs_result mapped = map_header_record(tree, &expansion->header);
  if (mapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping B-tree header record.\n");
    return mapped;
  }
  expansion->saved_header = *kvfs_view_as<BTHeaderRec>(expansion->header.bytes());
  const std::uint64_t bytes = std::uint64_t{expansion->added.block_count} * tree->fork->block_size;
  const std::uint32_t nodes = tree->nodeSize == 0 ? 0 : static_cast<std::uint32_t>(bytes / tree->nodeSize);
  BTHeaderRec header = expansion->saved_header;
  header.totalNodes.set(header.totalNodes.get() + nodes);
  header.freeNodes.set(header.freeNodes.get() + nodes);
  const kvfs_result result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing back modified tree header record.\n");
    return result;
  }
  expansion->header_changed = true;
  return kvfs_ok;
}

// Whether the map record of the header node alone can describe all nodes. Map nodes that exist are not counted, so that
// every expansion of a tree that has outgrown it adds one more: Q-btree-23.
static bool header_map_suffices(const tree_expansion& expansion) {
  const std::uint32_t node_size = expansion.tree->nodeSize;
  const std::uint32_t bytes = node_size < kBTHeaderNodeOverhead ? 0 : node_size - kBTHeaderNodeOverhead;
  return bytes * 8 >= kvfs_view_as<BTHeaderRec>(expansion.header.bytes())->totalNodes.get();
}

// Claims and clears a node for a new map node.
static kvfs_result allocate_map_node(const tree_expansion& expansion, std::uint32_t* node) {
  kvfs_btree* const tree = expansion.tree;
  kvfs_result result = kvfs_btree_claim_node(tree, node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while allocating new map node.\n");
    return result;
  }
  // X-btree-16: a block has to be read before all of it is overwritten, or a later reading brings its old bytes back.
  mapping old_bytes;
  result = map_node(tree, *node, &old_bytes);
  if (result == kvfs_ok) {
    result = old_bytes.unmap();
  }
  if (result == kvfs_ok) {
    result = kvfs_fork_fill(tree->fork, fork_position(tree, *node, 0), tree->nodeSize, 0, nullptr);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing back modified tree header record.\n");  // Q-btree-25
  }
  return result;
}

static kvfs_result chain_map_node(tree_expansion* expansion, std::uint32_t node) {
  BTNodeDescriptor descriptor = expansion->saved_last_map;
  descriptor.fLink.set(node);
  const kvfs_result result = write_descriptor(expansion->tree, expansion->last_map_node, descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified last map node.\n");
    return result;
  }
  expansion->last_map_changed = true;
  return kvfs_ok;
}

// Gives the new map node its record, which fills the node up to the offset table, and its descriptor.
static kvfs_result fill_map_node(tree_expansion* expansion, std::uint32_t node) {
  kvfs_btree* const tree = expansion->tree;
  const std::uint32_t node_size = tree->nodeSize;
  const kvfs_be16 first = kvfs_be16::of(kBTFirstRecordOffset);
  const kvfs_be16 end = kvfs_be16::of(static_cast<std::uint16_t>(node_size - kMapNodeTableSize));
  kvfs_result result = kvfs_fork_write(tree->fork, fork_position(tree, node, offset_entry_position(node_size, 0)),
                                       &first, sizeof(first), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified last record pointer.\n");
    return result;
  }
  result = kvfs_fork_write(tree->fork, fork_position(tree, node, offset_entry_position(node_size, 1)), &end,
                           sizeof(end), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified free space pointer.\n");
    return result;
  }
  result = map_descriptor(tree, node, &expansion->new_map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping node descriptor of claimed node.\n");
    return result;
  }
  BTNodeDescriptor descriptor = *kvfs_view_as<BTNodeDescriptor>(expansion->new_map.bytes());
  descriptor.kind = kBTMapNode;
  descriptor.numRecords.set(kMapNodeRecords);
  result = write_descriptor(tree, node, descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out node descriptor of claimed node.\n");
  }
  return result;
}

static kvfs_result expand_tree(tree_expansion* expansion) {
  kvfs_result result = grow_fork(expansion);
  if (result == kvfs_ok) {
    result = map_last_map_node(expansion);
  }
  if (result == kvfs_ok) {
    result = count_new_nodes(expansion);
  }
  if (result != kvfs_ok || header_map_suffices(*expansion)) {
    return result;
  }
  std::uint32_t node = 0;
  result = allocate_map_node(*expansion, &node);
  if (result == kvfs_ok) {
    result = chain_map_node(expansion, node);
  }
  return result == kvfs_ok ? fill_map_node(expansion, node) : result;
}

// Writes the saved descriptor of the last map node back; it is tried again, but not for ever.
static void restore_last_map_node(const tree_expansion& expansion) {
  for (int tries = 0; tries < kCleanUpTries; ++tries) {
    if (write_descriptor(expansion.tree, expansion.last_map_node, expansion.saved_last_map) == kvfs_ok) {
      return;
    }
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while rolling back modifications to last map node.\n");
  }
}

// Undoes what was done, as far as that is possible; a claimed node stays claimed (Q-btree-24). Returns the value of the
// failure.
static kvfs_result roll_back_expansion(const tree_expansion& expansion, kvfs_result result) {
  result =
      KVFS_FAILURE_VALUE(result, kvfs_btree_expand, "Rollback requested with no error value. Setting dummy error.\n");
  if (expansion.last_map_changed) {
    restore_last_map_node(expansion);
  }
  if (expansion.header_changed && write_header_record(expansion.tree, expansion.saved_header) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while reverting B-tree header record modifications.\n");
    return result;
  }
  if (expansion.fork_grown &&
      kvfs_fork_shrink(expansion.tree->fork, expansion.volume, expansion.added.block_count) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while rolling back fork expansion.\n");
  }
  return result;
}

// Unmaps what an expansion has mapped.
static kvfs_result unmap_expansion(tree_expansion* expansion) {
  const kvfs_result new_unmapped = expansion->new_map.unmap();
  if (new_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping node descriptor of claimed node.\n");
  }
  const kvfs_result header_unmapped = expansion->header.unmap();
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping B-tree header record.\n");
  }
  const kvfs_result last_unmapped = expansion->last_map.unmap();
  if (last_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping last map node's descriptor.\n");
  }
  return kvfs_result_keep(kvfs_result_keep(new_unmapped, header_unmapped), last_unmapped);
}

kvfs_result kvfs_btree_expand(kvfs_btree* tree, kvfs_volume* volume) {
  if (tree->priv->tree_kind != kHFSCatalogFileID) {  // Q-btree-22
    return kvfs_ok;
  }
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring write lock for open locators list.\n", critical,
                         "Error while releasing write lock for open locators list. Will probably crash now...\n");
  return kvfs_with_write_lock(tree->priv->open_locators_lock, messages, [&] {
    grant_work(tree, kWorkOfAChange);
    tree_expansion expansion = {};
    expansion.tree = tree;
    expansion.volume = volume;
    kvfs_result result = expand_tree(&expansion);
    if (result != kvfs_ok) {
      result = roll_back_expansion(expansion, result);
    }
    return kvfs_result_keep(result, unmap_expansion(&expansion));
  });
}
