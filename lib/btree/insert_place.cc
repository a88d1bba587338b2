// Where a record is inserted, and whether it fits there.

#include "btree/insert_place.h"

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

// Descriptor, two entries of the offset table: what a node with a single record holds besides it.
static constexpr std::uint32_t kSingleRecordOverhead = sizeof(BTNodeDescriptor) + std::size_t{2} * kOffsetEntrySize;

// Searches for the place of a new key.
static kvfs_result find_insert_location(kvfs_btree* tree, const void* key, kvfs_btree_search_result* place) {
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToLeaf, 0, place);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while searching for insert location.\n");
    return result;
  }
  if (place->locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "ERROR:Unable to insert because kvfs_btree_search_node returned NULL when looking up insert location!\n");
    return kvfs_internal;
  }
  if (place->found != 0) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "ERROR:Unable to insert because already exists?!\n");
    kvfs_btree_record_locator_release(&place->locator, false);
    return kvfs_exists;
  }
  return kvfs_ok;
}

// Reads the node of a search result and turns the result into the index of the new record.
static kvfs_result take_up_place(insertion* insert, const kvfs_btree_search_result& place) {
  kvfs_btree* const tree = insert->tree;
  if (!allocate_node(tree, &insert->node)) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  const kvfs_result result = read_node(tree, *place.locator->node, &insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while reading complete node data of node where record should be inserted.\n");
    return result;
  }
  take_up_insertion_node(insert);
  insert->index = *place.locator->index;
  if (insert->index != insert->count && place.after != 0) {
    ++insert->index;
  }
  return kvfs_ok;
}

kvfs_result kvfs::btree::position_insertion(insertion* insert, const kvfs_btree_search_result* hint) {
  if (hint != nullptr && hint->locator != nullptr) {
    return take_up_place(insert, *hint);
  }
  kvfs_btree_search_result place;
  kvfs_btree_search_result_init(&place);
  kvfs_result result = find_insert_location(insert->tree, insert->key, &place);
  if (result != kvfs_ok) {
    return result;
  }
  result = take_up_place(insert, place);
  kvfs_btree_record_locator_release(&place.locator, false);
  if (result == kvfs_ok && insert->descriptor.kind != kBTLeafNode) {  // X-btree-21
    return report_bad_insert_offset(insert->node.view.number, insert->index);
  }
  return result;
}

kvfs_result kvfs::btree::report_bad_insert_offset(std::uint32_t node, std::uint32_t index) {
  KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                "Invalid node data: Record %lu has no place among those of node %lu.\n", to_ul(index), to_ul(node));
  return kvfs_inconsistent;
}

kvfs_result kvfs::btree::check_insertion(const insertion& insert) {
  const std::uint16_t node_size = insert.tree->nodeSize;
  if (!table_has_room(insert)) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Invalid node data: Value of 'numRecords' (%hu) is too large for %hu byte node.\n",
                  insert.descriptor.numRecords.get(), node_size);
    return kvfs_inconsistent;
  }
  if (insert.index > insert.count) {
    return report_bad_insert_offset(insert.node.view.number, insert.index);
  }
  const std::uint16_t end = offset_at(insert.node.view, insert.count);
  const std::uint16_t offset = offset_at(insert.node.view, insert.index);
  if (insert.index < insert.count) {
    const std::uint16_t next = offset_at(insert.node.view, insert.index + 1);
    if (offset > next || end < next) {
      return kvfs_inconsistent;  // without a message: Q-btree-11
    }
  }
  if (end > node_size) {
    return kvfs_inconsistent;  // likewise
  }
  if (offset < kBTFirstRecordOffset || !can_part(insert.node.view, insert.index, {offset, offset, end})) {
    return report_bad_insert_offset(insert.node.view.number, insert.index);
  }
  if (insert.record_size + kSingleRecordOverhead > node_size) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Record cannot fit in a node given the B-tree's node size of %hu bytes (need %zu bytes).\n",
                  node_size, std::size_t{insert.record_size} + kSingleRecordOverhead);
    return kvfs_limit;
  }
  return kvfs_ok;
}
