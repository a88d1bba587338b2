// The split point: where a node is divided so that a record fits.

#include "btree/split_point.h"

#include <cstdint>

#include "btree.h"
#include "btree/insert_place.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// Finds the record at which a full node is split: the one for which the two halves, with the new record counted in,
// differ least in size. Sizes grow with the index, so that a binary search does; of equals the first one found stays
// (Q-btree-12).
struct split_search {
  std::int32_t total;         // bytes in use after the insertion, descriptor included
  std::int32_t best;          // smallest difference so far
  std::int32_t best_index;    // min_occupied_size_record: where it was found
  std::int32_t split_size;    // what the node would hold that is split at the index looked at
  std::int32_t claimed_size;  // what the claimed node would hold
};

}  // namespace

// Where the upper half begins, in the node as it would be after the insertion. Behind all records: X-btree-22.
static std::int32_t split_boundary(const insertion& insert, std::uint32_t middle) {
  const bool is_above = insert.index >= middle && middle < insert.count;
  return is_above ? offset_at(insert.node.view, middle + 1)
                  : offset_at(insert.node.view, middle) + static_cast<std::int32_t>(insert.record_size);
}

// Weighs a split before record `middle`. A damaged offset may leave less than nothing for the claimed node: such a
// split is never the best one, and the search goes on.
static kvfs_result weigh_split(const insertion& insert, std::uint32_t middle, split_search* search) {
  const std::int32_t node_size = insert.tree->nodeSize;
  const std::int32_t boundary = split_boundary(insert, middle);
  const std::uint32_t moved = insert.count - middle;
  search->split_size = boundary + static_cast<std::int32_t>(kOffsetEntrySize * (middle + 1));
  search->claimed_size =
      search->total - boundary + static_cast<std::int32_t>(kOffsetEntrySize * (moved + 2) + kBTFirstRecordOffset);
  if (search->split_size > node_size && search->claimed_size > node_size) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "Internal error: Occupied size for both split (%lu) and claimed (%lu) nodes exceed the node size (%hu)!\n",
        static_cast<unsigned long>(search->split_size), static_cast<unsigned long>(search->claimed_size),
        insert.tree->nodeSize);
    return kvfs_internal;
  }
  const std::int32_t difference = search->split_size > search->claimed_size ? search->split_size - search->claimed_size
                                                                            : search->claimed_size - search->split_size;
  if (difference < search->best) {
    search->best = difference;
    search->best_index = static_cast<std::int32_t>(middle);
  }
  return kvfs_ok;
}

// The record offsets that a split relies on must be in order.
static kvfs_result check_split_offsets(const insertion& insert) {
  const node_view& node = insert.node.view;
  const std::uint16_t first = offset_at(node, 0);
  const std::uint16_t offset = offset_at(node, insert.index);
  const std::uint16_t end = offset_at(node, insert.count);
  const std::uint32_t table = offset_table_start(node, insert.count);
  if (first > offset || offset > end || end > table) {
    KVFS_ERROR_AS(
        kvfs_btree_insert_record_internal,
        "Invalid node data: Record offsets are not in order (record 0: %hu, record %hu: %hu, free space: %hu, record offset array: %hu).\n",
        first, static_cast<unsigned short>(insert.index), offset, end, static_cast<unsigned short>(table));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

kvfs_result kvfs::btree::choose_split_point(const insertion& insert, std::uint16_t* split_index) {
  const kvfs_result checked = check_split_offsets(insert);
  if (checked != kvfs_ok) {
    return checked;
  }
  const std::uint32_t total = offset_at(insert.node.view, insert.count) + insert.record_size;
  split_search search = {static_cast<std::int32_t>(total),
                         static_cast<std::int32_t>(insert.count + total - kBTFirstRecordOffset), -1, 0, 0};
  std::uint32_t low = 0;
  std::uint32_t high = insert.count;
  while (low != high) {
    const std::uint32_t middle = low + (high + 1 - low) / 2;
    const kvfs_result result = weigh_split(insert, middle, &search);
    if (result != kvfs_ok) {
      return result;
    }
    if (search.split_size >= search.claimed_size) {
      if (search.split_size == search.claimed_size || low == middle) {
        break;
      }
      high = middle - 1;
    } else {
      if (high == middle) {
        break;
      }
      low = middle + 1;
    }
  }
  if (search.best_index < 0 || search.best_index > UINT16_MAX) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal,
                     "Internal error: Invalid value for 'min_occupied_size_record' (%ld).\n",
                     static_cast<long>(search.best_index));
    return kvfs_internal;
  }
  *split_index = static_cast<std::uint16_t>(search.best_index);
  return kvfs_ok;
}
