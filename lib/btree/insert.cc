// Insertion of a record.
//
// From the top: kvfs_btree_insert_record takes the lock; kvfs_btree_insert_record_internal finds the place
// (insert_place.cc). Where the record does not fit, split_for_insertion has a split point chosen (split_point.cc) and
// the node split there (split.cc), which adds an index record for the new one (index.cc): an insertion one level
// higher. Then insert_in_place puts the record into its node, and maintain_after_insertion counts it and, where it is
// the first one of its node, has the node's index record replaced (index.cc): a deletion and an insertion one level
// higher.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/index.h"
#include "btree/insert_place.h"
#include "btree/node.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "btree/split_point.h"
#include "btree/work.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

// Takes up the half of a split node that the new record belongs to.
static kvfs_result take_up_half(insertion* insert, std::uint16_t split_index, std::uint32_t new_node) {
  std::uint32_t node = insert->node.view.number;
  // At the split index itself the record is appended to the node that was split: Q-btree-12.
  if (insert->index > split_index) {
    node = new_node;
    insert->index -= split_index;
  }
  const kvfs_result result = read_node(insert->tree, node, &insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading complete node data of claimed node.\n");
    return result;
  }
  take_up_insertion_node(insert);
  if (!table_has_room(*insert)) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "Invalid node data in newly claimed node: Value of 'numRecords' (%hu) is too large for %hu byte node.\n",
        insert->descriptor.numRecords.get(), insert->tree->nodeSize);
    return kvfs_inconsistent;
  }
  if (insert->index > insert->count || offset_at(insert->node.view, insert->index) < kBTFirstRecordOffset) {
    return report_bad_insert_offset(node, insert->index);
  }
  if (!fits_in_place(*insert)) {  // X-btree-8
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Record of %lu bytes does not fit node %lu, even after a split.\n",
                  to_ul(insert->record_size), to_ul(node));
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Splits the node of a record that does not fit, and takes up the half that the record belongs to.
static kvfs_result split_for_insertion(insertion* insert) {
  std::uint16_t split_index = 0;
  kvfs_result result = choose_split_point(*insert, &split_index);
  if (result != kvfs_ok) {
    return result;
  }
  std::uint32_t new_node = 0;
  result = kvfs_btree_split_node(insert->tree, insert->node.view.number, split_index, &new_node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while splitting node.\n");
    return result;
  }
  if (new_node == 0) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal, "Unexpected: kvfs_btree_split_node returned 0.\n");
    return kvfs_internal;
  }
  return take_up_half(insert, split_index, new_node);
}

// Makes room in the node buffer and puts the record there.
static kvfs_result place_record(insertion* insert) {
  const node_view& node = insert->node.view;
  const std::uint32_t size = insert->record_size;
  const std::uint16_t offset = offset_at(node, insert->index);
  const std::uint16_t end = offset_at(node, insert->count);
  if (offset > end) {
    return report_bad_insert_offset(node.number, insert->index);
  }
  std::memmove(node.bytes + offset + size, node.bytes + offset, static_cast<std::size_t>(end - offset));
  const kvfs_result result =
      kvfs_btree_node_make_record(insert->key, insert->key_length, insert->data, insert->data_size, node.bytes + offset,
                                  static_cast<std::uint16_t>(size));
  if (result != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal,
                     "Unexpected: Error while assembling B-tree node record from source key and data.");
    return result;
  }
  for (std::uint32_t record = insert->count + 1; record > insert->index; --record) {
    store_offset(insert->node, record, offset_at(node, record - 1) + size);
  }
  insert->descriptor.numRecords.set(static_cast<std::uint16_t>(insert->count + 1));
  store_descriptor(insert->node, insert->descriptor);
  return kvfs_ok;
}

// Counts a record that was added to a leaf.
static kvfs_result count_inserted_leaf_record(kvfs_btree* tree) {
  BTHeaderRec header = {};
  kvfs_result result = read_header_record(tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading B-tree header record.\n");
    return result;
  }
  header.leafRecords.set(header.leafRecords.get() + 1);
  result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while writing out incremented leaf record count in header record.\n");
  }
  return result;
}

// Brings counts and index in line with a record that was written.
static kvfs_result maintain_after_insertion(const insertion& insert) {
  kvfs_result result = kvfs_ok;
  if (insert.descriptor.kind == kBTLeafNode) {
    result = count_inserted_leaf_record(insert.tree);
    if (result != kvfs_ok) {
      return result;
    }
  }
  BTHeaderRec header = {};
  result = read_header_record(insert.tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading header record.\n");
    return result;
  }
  if (insert.index != 0 || insert.descriptor.height >= header.treeDepth.get()) {
    return kvfs_ok;
  }
  return replace_index_record(insert);
}

// Inserts the record into a node that has room for it.
static kvfs_result insert_in_place(insertion* insert, kvfs_btree_record_locator** out_locator) {
  kvfs_btree* const tree = insert->tree;
  const std::uint32_t node = insert->node.view.number;
  const std::uint16_t offset = offset_at(insert->node.view, insert->index);
  const bool moves_records = offset != offset_at(insert->node.view, insert->count);
  kvfs_result result = place_record(insert);
  if (result != kvfs_ok) {
    return result;
  }
  result = write_node(tree, insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while writing out modified node after inserting record.\n");
    return result;
  }
  if (moves_records) {  // and with them the place behind the last one, which a locator may stand for
    kvfs_btree_shift_locators(tree, node, static_cast<std::int32_t>(insert->index),
                              static_cast<std::int32_t>(insert->count - insert->index + 1), node, false, 1,
                              insert->record_size);
  }
  result = maintain_after_insertion(*insert);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_record_locator_open(tree, node, static_cast<std::uint16_t>(insert->index),
                                          insert->node.view.bytes + offset, insert->record_size,
                                          fork_position(tree, node, offset), out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while creating kvfs_btree_record_locator.\n");
  }
  return result;
}

// Refuses an insertion that changes the index of a tree too deep for that: a split does, and a new first record.
static kvfs_result check_insertion_depth(const insertion& insert) {
  if (insert.index != 0 && fits_in_place(insert)) {
    return kvfs_ok;
  }
  BTHeaderRec header = {};
  const kvfs_result result = read_header_record(insert.tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading header record.\n");
    return result;
  }
  return check_levels_above(KVFS_NAME_OF(kvfs_btree_insert_record_internal), insert.descriptor, header.treeDepth.get());
}

kvfs_result kvfs_btree_insert_record_internal(kvfs_btree* tree, const void* key, const void* data,
                                              std::uint16_t data_size, const kvfs_btree_search_result* hint,
                                              kvfs_btree_record_locator** out_locator) {
  const std::uint16_t key_length = key == nullptr ? std::uint16_t{0} : kvfs_view_as<kvfs_be16>(key)->get();
  insertion insert = {};
  insert.tree = tree;
  insert.key = key;
  insert.key_length = key_length;
  insert.data = data;
  insert.data_size = data_size;
  insert.record_size = record_size_for(key_length, data_size);
  kvfs_result result =
      position_insertion(&insert, key == nullptr ? nullptr : hint);  // X-btree-19: the search refuses to have no key
  if (result == kvfs_ok) {
    result = check_insertion(insert);
  }
  if (result == kvfs_ok) {
    result = check_insertion_depth(insert);
  }
  if (result == kvfs_ok && !fits_in_place(insert)) {
    result = split_for_insertion(&insert);
  }
  return result == kvfs_ok ? insert_in_place(&insert, out_locator) : result;
}

kvfs_result kvfs_btree_insert_record(kvfs_btree* tree, const void* key, const void* data, std::uint16_t data_size,
                                     const kvfs_btree_search_result* hint, kvfs_btree_record_locator** out_locator) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring write lock for open locators list.\n", critical,
                         "Error while releasing write lock for open locators list. Will probably crash now...\n");
  kvfs_btree_record_locator* locator = nullptr;
  const kvfs_result result = kvfs_with_write_lock(tree->priv->open_locators_lock, messages, [&] {
    grant_work(tree, kWorkOfAChange);
    return kvfs_btree_insert_record_internal(tree, key, data, data_size, hint, &locator);
  });
  if (result == kvfs_ok) {
    *out_locator = locator;
  } else if (locator != nullptr) {
    kvfs_btree_record_locator_release(&locator, false);  // X-lock-1: the caller will not see it
  }
  return result;
}
