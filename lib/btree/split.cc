// Split: moving the upper records of a node to a node that is claimed.
//
// A split refuses a neighbour of another kind (X-btree-11) and a claimed node that is in use (X-btree-12).

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "btree/index.h"
#include "btree/key_sizes.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "fork.h"
#include "format.h"
#include "ground/bits.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// A node that is being split, and what the split changes besides it.
struct node_split {
  kvfs_btree* tree;
  std::uint16_t index;  // first record that moves
  node_buffer split;
  node_buffer claimed;
  BTNodeDescriptor split_descriptor;
  BTNodeDescriptor claimed_descriptor;
  std::uint32_t neighbour;                // the node behind both; 0 when there is none
  BTNodeDescriptor neighbour_descriptor;  // changed when there is a neighbour
  kvfs_owned<BTHeaderRec> header;
  bool header_changed;
};

}  // namespace

// Reads the header record and the node to be split, and refuses the root (Q-btree-13).
static kvfs_result read_split_node(node_split* split, std::uint32_t node) {
  kvfs_btree* const tree = split->tree;
  split->header = kvfs_allocate_zeroed<BTHeaderRec>();
  if (!split->header) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while allocating memory for a BTHeaderRec buffer.\n");
    return kvfs_no_memory;
  }
  kvfs_result result = read_header_record(tree, split->header.get());
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while reading header record of B-tree.\n");
    return result;
  }
  if (!allocate_node(tree, &split->split)) {
    KVFS_ERROR_AS(kvfs_btree_split_node,
                  "Error while allocating node-sized (%zu bytes) buffer to hold the split node data.\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  result = read_node(tree, node, &split->split);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while mapping node descriptor of split node.\n");
    return result;
  }
  split->split_descriptor = descriptor_of(split->split.view);
  if (split->split_descriptor.height >= split->header->treeDepth.get()) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Unable to split root node.\n");
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Says that the links and the node bitmap contradict one another about a node.
static kvfs_result report_wrong_link_or_mark(std::uint32_t node) {
  KVFS_ERROR_AS(kvfs_btree_split_node, "Invalid node data: Node %lu is linked or marked wrongly.\n", to_ul(node));
  return kvfs_inconsistent;
}

namespace {

// The bit of a node in the node bitmap, read as it is meant.
struct node_mark {
  bool used;
  bool begins_map_node;  // it is in the first byte of a map node, where a claim does not look: Q-btree-16
};

}  // namespace

// Reads the bit of a node; what cannot be read calls it free. `buffer` takes the nodes that hold the bitmap.
static node_mark read_node_mark(kvfs_btree* tree, std::uint32_t node, node_buffer* buffer) {
  std::uint32_t byte = node / 8;
  cycle_finder segments = {0, 0};
  for (std::uint32_t holder = 0; read_node(tree, holder, buffer) == kvfs_ok;) {
    const node_view& view = buffer->view;
    std::uint32_t begin = offset_at(view, holder == 0 ? kBTHeaderNodeRecords - 1 : 0);
    std::uint32_t end = holder == 0 ? begin + view.size - kBTHeaderNodeOverhead : offset_at(view, 1);
    if (end < begin || end > view.size) {
      return {};
    }
    if (byte < end - begin) {
      return {(view.bytes[begin + byte] & kvfs_disk_bit(node)) != 0, holder != 0 && byte == 0};
    }
    byte -= end - begin;
    holder = descriptor_of(view).fLink.get();
    if (comes_back(&segments, holder)) {  // 0, where the walk began, ends the chain as well
      return {};
    }
  }
  return {};
}

// Whether the bytes at an offset of a node can be a key of the tree: those of a free node may be anything, and the
// comparison says so.
static bool may_be_key(const kvfs_btree* tree, const node_view& node, std::uint32_t offset) {
  const std::uint32_t tree_kind = tree->priv->tree_kind;
  const unsigned char* const key = node.bytes + offset;
  std::uint32_t end = 0;
  if (!read_key_end(node, offset, &end)) {
    return false;
  }
  const std::uint32_t size = end - offset;
  return !is_odd_key(key_sizes_of(tree_kind), size) &&
         (tree_kind != kHFSCatalogFileID ||
          size >= kHFSPlusCatalogKeyNameOffset +
                      sizeof(kvfs_be16) * kvfs_view_as<HFSPlusCatalogKey>(key)->nodeName.length.get());
}

// Asks the index whether it leads to the node that was read, under the key that is or was its first one; sets `in_use`
// if it does.
static kvfs_result ask_index(kvfs_btree* tree, const node_view& node, bool* in_use) {
  const BTNodeDescriptor descriptor = descriptor_of(node);
  const bool has_keys = descriptor.kind == kBTLeafNode || descriptor.kind == kBTIndexNode;
  const unsigned char* const key = node.bytes + kBTFirstRecordOffset;
  if (!has_keys || descriptor.height == 0 || descriptor.height == UINT8_MAX ||
      !may_be_key(tree, node, kBTFirstRecordOffset)) {
    return kvfs_ok;
  }
  kvfs_btree_search_result place;
  const kvfs_result result =
      search_index_record(tree, key, height_above(descriptor.height), index_search::kDeletion, &place);
  if (result != kvfs_ok || place.locator == nullptr) {
    const bool is_damaged = result == kvfs_inconsistent || result == kvfs_invalid || result == kvfs_internal;
    return is_damaged ? kvfs_ok : result;
  }
  const kvfs_btree_record_locator* const record = place.locator;
  *in_use |= place.found != 0 && record->data_size >= sizeof(kvfs_be32) &&
             kvfs_view_as<kvfs_be32>(record->data)->get() == node.number;
  kvfs_btree_record_locator_release(&place.locator, false);
  return kvfs_ok;
}

// Tells whether a claimed node, which was read, is in use. The node bitmap may call a node free that is not: the byte
// behind a full map record is read as a part of it, and a damaged bitmap says anything. A node is in use whose own bit,
// where the claim has not set it, says so, to which the index leads, or which a neighbour names that is marked as used;
// besides, the root, the first leaf, the node that is split and the one behind that are. A node that was freed has been
// taken out of index and chain, whatever it and other free nodes still hold. While an index record is being replaced or
// added, the index does not lead to its node, nor to those below: then only the neighbours tell. The claimed node's
// buffer is used up.
static kvfs_result ask_use(node_split* split, bool* in_use) {
  const BTHeaderRec& header = *split->header;
  kvfs_btree* const tree = split->tree;
  node_buffer* const buffer = &split->claimed;
  const std::uint32_t node = buffer->view.number;
  const BTNodeDescriptor links = descriptor_of(buffer->view);
  *in_use = node == header.rootNode.get() || node == header.firstLeafNode.get() || node == split->split.view.number ||
            node == split->split_descriptor.fLink.get();
  const kvfs_result result = ask_index(tree, buffer->view, in_use);
  if (node / 8 >= buffer->view.size - kBTHeaderNodeOverhead) {  // behind the header node's map record
    const node_mark own = read_node_mark(tree, node, buffer);
    *in_use |= own.used && own.begins_map_node;
  }
  const kvfs_be32 neighbours[] = {links.bLink, links.fLink};
  for (std::size_t side = 0; side < sizeof(neighbours) / sizeof(*neighbours); ++side) {
    const std::uint32_t neighbour = neighbours[side].get();
    BTNodeDescriptor other = {};
    if (neighbour < header.totalNodes.get() && neighbour != node && read_node_mark(tree, neighbour, buffer).used &&
        read_descriptor(tree, neighbour, &other) == kvfs_ok) {
      *in_use |= node == (side == 0 ? other.fLink : other.bLink).get();
    }
  }
  return result;
}

static kvfs_result read_claimed_node(node_split* split, std::uint32_t node) {
  const kvfs_result result = read_node(split->tree, node, &split->claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while mapping raw node data of claimed node.\n");
  }
  return result;
}

// Reads what a claimed node holds, since the bytes that a split does not write stay as they are, and refuses one that
// is in use.
static kvfs_result take_up_claimed_node(node_split* split, std::uint32_t node) {
  kvfs_btree* const tree = split->tree;
  if (!allocate_node(tree, &split->claimed)) {
    KVFS_ERROR_AS(kvfs_btree_split_node,
                  "Error while allocating node-sized (%zu bytes) buffer to hold the claimed node data.\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  kvfs_result result = read_claimed_node(split, node);
  bool in_use = false;
  if (result == kvfs_ok) {
    result = ask_use(split, &in_use);
  }
  if (result == kvfs_ok && in_use) {
    return report_wrong_link_or_mark(node);
  }
  return result == kvfs_ok ? read_claimed_node(split, node) : result;
}

// Puts the claimed node between the split node and its neighbour.
static kvfs_result link_claimed_node(node_split* split) {
  BTNodeDescriptor* const lower = &split->split_descriptor;
  BTNodeDescriptor* const upper = &split->claimed_descriptor;
  const std::uint16_t count = lower->numRecords.get();
  split->neighbour = lower->fLink.get();
  *upper = *lower;
  upper->bLink.set(split->split.view.number);
  upper->numRecords.set(static_cast<std::uint16_t>(count - split->index));
  upper->reserved.set(0);
  lower->fLink.set(split->claimed.view.number);
  lower->numRecords.set(split->index);
  if (split->neighbour != 0) {
    const kvfs_result result = read_descriptor(split->tree, split->neighbour, &split->neighbour_descriptor);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node,
                    "Error while reading node descriptor of claimed node's forward linked node.\n");
      return result;
    }
    if (split->neighbour_descriptor.kind != lower->kind || split->neighbour_descriptor.height != lower->height ||
        split->neighbour == split->split.view.number) {
      return report_wrong_link_or_mark(split->neighbour);
    }
    split->neighbour_descriptor.bLink.set(split->claimed.view.number);
  } else if (lower->kind == kBTLeafNode) {
    split->header->lastLeafNode.set(split->claimed.view.number);
    split->header_changed = true;
  }
  return kvfs_ok;
}

// Moves the upper records and stores both descriptors. The split node's offset table needs no change: the entry of the
// first record that moved is that of its free space now, and the entries behind it stay (Q-btree-14).
static void move_upper_records(node_split* split, std::uint16_t count, std::uint16_t begin, std::size_t moved) {
  unsigned char* const lower = split->split.view.bytes;
  std::memcpy(split->claimed.view.bytes + kBTFirstRecordOffset, lower + begin, moved);
  std::memset(lower + begin, 0, moved);
  for (std::uint32_t record = 0; record <= static_cast<std::uint32_t>(count - split->index); ++record) {
    const std::uint32_t offset = offset_at(split->split.view, split->index + record);
    store_offset(split->claimed, record, offset - begin + kBTFirstRecordOffset);
  }
  store_descriptor(split->split, split->split_descriptor);
  store_descriptor(split->claimed, split->claimed_descriptor);
}

static kvfs_result report_misplaced_record(const node_split& split) {
  KVFS_ERROR_AS(kvfs_btree_split_node, "Invalid node data: Record %lu has no place among those of node %lu.\n",
                to_ul(split.index), to_ul(split.split.view.number));
  return kvfs_inconsistent;
}

// Divides the records of a node that holds `count` of them; `moved` receives the bytes that moved.
static kvfs_result divide_records(node_split* split, std::uint16_t count, std::size_t* moved) {
  const node_view& lower = split->split.view;
  const std::uint16_t begin = offset_at(lower, split->index);
  const std::uint16_t end = offset_at(lower, count);
  if (split->index > count || begin < kBTFirstRecordOffset || begin > end || end > lower.size) {
    return report_misplaced_record(*split);
  }
  *moved = static_cast<std::size_t>(end - begin);
  const std::size_t needed = *moved + kOffsetEntrySize * (std::size_t{count} + 1) + sizeof(BTNodeDescriptor);
  if (needed > split->tree->nodeSize) {
    KVFS_CRITICAL_AS(kvfs_btree_split_node,
                     "Unexpected: Oversized split node data (expected maximum: %hu actual: %zu).\n",
                     split->tree->nodeSize, needed);
    return kvfs_internal;
  }
  // What moves is zeroed here, and the table would be with it.
  if (end > offset_table_start(lower, count) || !can_part(lower, split->index, {begin, begin, end}) ||
      (begin != end && !may_be_key(split->tree, lower, begin))) {
    return report_misplaced_record(*split);
  }
  move_upper_records(split, count, begin, *moved);
  return kvfs_ok;
}

// Writes what a split has changed, the claimed node first, and moves the open locators along.
static kvfs_result write_split(node_split* split, std::uint16_t count, std::size_t moved) {
  kvfs_btree* const tree = split->tree;
  kvfs_result result = write_node(tree, split->claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified claimed node.\n ");  // Q-btree-25
    return result;
  }
  // Data offsets change by the bytes moved, not by the distance of the nodes: Q-btree-15. The next opening of the
  // record puts its locator's offset right.
  kvfs_btree_shift_locators(tree, split->split.view.number, split->index, count - split->index,
                            split->claimed.view.number, true, split->index, static_cast<std::uint32_t>(moved));
  result = write_node(tree, split->split);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified split node.\n ");  // Q-btree-25
    return result;
  }
  if (split->neighbour != 0) {
    result = kvfs_fork_write(tree->fork, fork_position(tree, split->neighbour, 0), &split->neighbour_descriptor,
                             sizeof(BTNodeDescriptor), nullptr);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified node descriptor.\n");
      return result;
    }
  }
  if (split->header_changed) {
    result = write_header_record(tree, *split->header);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing out modified B-tree header record.\n");
    }
  }
  return result;
}

// Splits the node that `split` has read, with the claimed node's number.
static kvfs_result split_to_claimed_node(node_split* split, std::uint32_t claimed) {
  const std::uint16_t count = split->split_descriptor.numRecords.get();
  kvfs_result result = take_up_claimed_node(split, claimed);
  if (result == kvfs_ok) {
    result = link_claimed_node(split);
  }
  std::size_t moved = 0;
  if (result == kvfs_ok) {
    result = divide_records(split, count, &moved);
  }
  if (result == kvfs_ok) {
    result = write_split(split, count, moved);
  }
  if (result != kvfs_ok) {
    return result;
  }
  const unsigned char* const key =
      key_at(KVFS_NAME_OF(kvfs_btree_split_node), split->claimed.view, kBTFirstRecordOffset);
  if (key == nullptr) {
    return kvfs_inconsistent;
  }
  result = kvfs_btree_add_index_record(split->tree, key, height_above(split->split_descriptor.height), claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while inserting new index record for claimed node.\n");
  }
  return result;
}

kvfs_result kvfs_btree_split_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t split_index,
                                  std::uint32_t* out_new_node) {
  std::uint32_t claimed = 0;
  kvfs_result result = kvfs_btree_claim_node(tree, &claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while claiming node.\n");
    return result;
  }
  node_split split = {};
  split.tree = tree;
  split.index = split_index;
  result = read_split_node(&split, node);
  if (result == kvfs_ok) {
    result = split_to_claimed_node(&split, claimed);
  }
  if (result == kvfs_ok) {
    *out_new_node = claimed;
  }
  return result;
}
