// Iteration: the record behind a record.

#include <cstdint>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/node.h"
#include "btree/private.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// A place in the tree: a node that is mapped and a record in it.
struct record_place {
  kvfs_btree* tree;
  mapping map;
  node_view node;
  BTNodeDescriptor descriptor;
  std::uint32_t index;
};

}  // namespace

static void take_up_node(record_place* place, std::uint32_t node) {
  place->node = view_of(place->tree, node, place->map);
  place->descriptor = descriptor_of(place->node);
}

// Moves on to the first record of the next node. Only one step is taken: an empty node is not passed over
// (Q-btree-9).
static kvfs_result step_to_next_node(record_place* place) {
  const std::uint32_t next = place->descriptor.fLink.get();
  kvfs_result result = place->map.unmap();
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while unmapping original raw node data.\n");
    return result;
  }
  result = map_node(place->tree, next, &place->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while mapping raw node data of next node.\n");
    return result;
  }
  take_up_node(place, next);
  place->index = 0;
  return kvfs_ok;
}

static kvfs_result report_offset_out_of_range(std::uint32_t index, std::uint16_t offset) {
  KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                "Invalid node data: Offset for record %hu is out of range (%hu).\n", static_cast<unsigned short>(index),
                offset);
  return kvfs_inconsistent;
}

// Reads an offset of the table and checks that it lies between the descriptor and the table.
static kvfs_result read_checked_offset(const record_place& place, std::uint32_t index, std::uint16_t* offset) {
  *offset = offset_at(place.node, index);
  if (*offset < kBTFirstRecordOffset ||
      *offset > offset_entry_position(place.node.size, place.descriptor.numRecords.get())) {
    return report_offset_out_of_range(index, *offset);
  }
  return kvfs_ok;
}

// Opens a locator on the record of a place, after a check of the offset table.
static kvfs_result open_record_at(const record_place& place, kvfs_btree_record_locator** out_locator) {
  const std::uint16_t count = place.descriptor.numRecords.get();
  const unsigned short index = static_cast<unsigned short>(place.index);
  if (!has_offset_entry(place.node.size, count)) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                  "Invalid node data: Node cannot fit %hu records given the node size (%hu).\n", count,
                  place.tree->nodeSize);
    return kvfs_inconsistent;
  }
  std::uint16_t offset = 0;
  std::uint16_t end = 0;
  kvfs_result result = read_checked_offset(place, place.index, &offset);
  if (result == kvfs_ok) {
    result = read_checked_offset(place, place.index + 1, &end);
  }
  if (result != kvfs_ok) {
    return result;
  }
  if (end < offset) {
    KVFS_ERROR_AS(
        kvfs_btree_get_next_record_internal,
        "Invalid node data: Records offsets are not in order (offset for record %hu: %hu, offset for record %hu: %hu).\n",
        index, offset, static_cast<unsigned short>(place.index + 1), end);
    return kvfs_inconsistent;
  }
  if (place.index >= count) {  // an empty node: what lies behind the free space's entry is none, whatever it reads as
    return report_offset_out_of_range(place.index + 1, end);
  }
  result = kvfs_btree_record_locator_open(place.tree, place.node.number, index, place.node.bytes + offset, end - offset,
                                          fork_position(place.tree, place.node.number, offset), out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while creating target record locator.\n");
  }
  return result;
}

// Opens the record of a place whose node is mapped, or the first one of the next node. The node looked at last stays
// mapped for the caller.
static kvfs_result open_next_record(record_place* place, kvfs_btree_record_locator** out_locator) {
  const std::int8_t kind = place->descriptor.kind;
  const std::uint16_t count = place->descriptor.numRecords.get();
  if (kind != kBTLeafNode && kind != kBTIndexNode) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Invalid node kind: %hhd\n", kind);
    return kvfs_inconsistent;
  }
  if (place->index > count) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                  "Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
                  static_cast<unsigned short>(place->index), count);
    return kvfs_inconsistent;
  }
  if (place->index == count) {
    if (place->descriptor.fLink.get() == 0) {
      return kvfs_ok;
    }
    const kvfs_result stepped = step_to_next_node(place);
    if (stepped != kvfs_ok) {
      return stepped;
    }
  }
  return open_record_at(*place, out_locator);
}

kvfs_result kvfs_btree_get_next_record_internal(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                                kvfs_btree_record_locator** out_locator) {
  record_place place = {};
  place.tree = tree;
  kvfs_result result = map_node(tree, *locator->node, &place.map);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping raw node data.\n");
    return result;
  }
  take_up_node(&place, *locator->node);
  place.index = std::uint32_t{*locator->index} + 1;
  kvfs_btree_record_locator* next = nullptr;
  result = open_next_record(&place, &next);
  const kvfs_result unmapped = place.map.unmap();
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping raw node data.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_locator = next;
  } else if (next != nullptr) {
    kvfs_btree_record_locator_release(&next, false);
  }
  return result;
}

kvfs_result kvfs_btree_get_next_record(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                       kvfs_btree_record_locator** out_locator) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring open locators list lock in write mode.\n", error,
                         "Error while releasing open locators list read-mode lock.\n");  // for writing: Q-btree-25
  kvfs_btree_record_locator* next = nullptr;
  const kvfs_result result = kvfs_with_write_lock(tree->priv->open_locators_lock, messages, [&] {
    return kvfs_btree_get_next_record_internal(tree, locator, &next);
  });
  if (result == kvfs_ok) {
    *out_locator = next;
  } else if (next != nullptr) {
    kvfs_btree_record_locator_release(&next, false);  // X-lock-1: the caller will not see it
  }
  return result;
}
