// Deletion of a record.

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
#include "btree/work.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// A record on its way out of the tree.
struct deletion {
  kvfs_btree* tree;
  kvfs_btree_record_locator* locator;
  mapping header;
  node_buffer node;
  BTNodeDescriptor descriptor;
  std::uint32_t index;
};

}  // namespace

static std::uint16_t depth_of(const deletion& removal) {
  return kvfs_view_as<BTHeaderRec>(removal.header.bytes())->treeDepth.get();
}

static kvfs_result report_missing_record(const deletion& removal) {
  KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Invalid position: Node %lu has no record %lu.\n",
                to_ul(removal.node.view.number), to_ul(removal.index));
  return kvfs_inconsistent;
}

// Reads where the record lies. The node must have it (X-btree-15).
static kvfs_result read_deleted_extent(const deletion& removal, record_extent* extent) {
  const node_view& node = removal.node.view;
  const std::uint32_t count = removal.descriptor.numRecords.get();
  if (!read_offset(node, count, &extent->free_space) || !read_offset(node, removal.index + 1, &extent->end)) {
    return report_missing_record(removal);
  }
  extent->begin = offset_at(node, removal.index);
  if (extent->begin > extent->end) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "$$$: This record offset is greater than the next. Impossible\n");
    return kvfs_inconsistent;
  }
  if (extent->free_space > node.size || extent->free_space < extent->end) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "$$$: Free space of %d is greater than node size. Impossible\n",
                  static_cast<int>(extent->free_space));
    return kvfs_inconsistent;
  }
  if (static_cast<std::uint32_t>(extent->end - extent->begin) > node.size - extent->begin) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "$$$: This record size is greater than the node size. Impossible\n");
    return kvfs_inconsistent;
  }
  if (removal.index >= count) {
    return report_missing_record(removal);
  }
  const bool moves = extent->begin != extent->end && removal.index + 1 != count;
  const std::uint32_t new_free_space = extent->begin + static_cast<std::uint32_t>(extent->free_space - extent->end);
  if (moves && (extent->begin < kBTFirstRecordOffset || new_free_space > offset_table_start(node, count) ||
                !can_part(node, removal.index, *extent))) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Invalid node data: Records of node %lu overlap.\n",
                  to_ul(node.number));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Closes the gap in the node buffer. The bytes that become free, and the last entry of the table, stay as they are
// (Q-btree-19).
static void remove_record(deletion* removal, const record_extent& extent) {
  const node_view& node = removal->node.view;
  const std::uint32_t count = removal->descriptor.numRecords.get();
  const std::uint32_t size = static_cast<std::uint32_t>(extent.end - extent.begin);
  std::memmove(node.bytes + extent.begin, node.bytes + extent.end,
               static_cast<std::size_t>(extent.free_space - extent.end));
  for (std::uint32_t record = removal->index + 1; record < count; ++record) {
    store_offset(removal->node, record, offset_at(node, record + 1) - size);
  }
  removal->descriptor.numRecords.set(static_cast<std::uint16_t>(count - 1));
  store_descriptor(removal->node, removal->descriptor);
}

static kvfs_result count_deleted_leaf_record(const deletion& removal) {
  BTHeaderRec header = *kvfs_view_as<BTHeaderRec>(removal.header.bytes());
  header.leafRecords.set(header.leafRecords.get() - 1);
  const kvfs_result result = write_header_record(removal.tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "Error while writing out decremented 'leafRecords' in B-tree header record.\n");
  }
  return result;
}

// Deletes the index record that leads to the node by its former first key.
static kvfs_result delete_index_record(const deletion& removal, std::uint8_t height) {
  kvfs_btree_search_result found;
  kvfs_result result = search_index_record(removal.tree, removal.locator->key, height, index_search::kDeletion, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "Error while searching for index record of deleted record's node.\n");
    return result;
  }
  if (found.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_btree_delete_record_internal,
                     "Unexpected: kvfs_btree_search_node returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  if (found.found == 0) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Index record of deleted record's node not found.\n");
    result = kvfs_inconsistent;
  } else {
    result = kvfs_btree_delete_record_internal(removal.tree, found.locator, 0);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while deleting index record from B-tree.\n");
    }
  }
  kvfs_btree_record_locator_release(&found.locator, false);
  return result;
}

// Q-btree-20. Replaces the index record of a node that lost its first record. An empty node still has the bytes of the
// deleted record, so that it is indexed under the deleted key again.
static kvfs_result replace_index_record_of_deleted(const deletion& removal) {
  const std::uint8_t height = height_above(removal.descriptor.height);
  kvfs_result result = delete_index_record(removal, height);
  if (result != kvfs_ok) {
    return result;
  }
  const unsigned char* const key =
      key_at(KVFS_NAME_OF(kvfs_btree_delete_record_internal), removal.node.view, kBTFirstRecordOffset);
  if (key == nullptr) {
    return kvfs_inconsistent;
  }
  result = kvfs_btree_add_index_record(removal.tree, key, height, removal.node.view.number);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while inserting index record.\n");
  }
  return result;
}

// Whether the node loses the record by whose key it is indexed.
static bool replaces_index_record(const deletion& removal) {
  return removal.index == 0 && removal.descriptor.height < depth_of(removal);
}

// Brings counts and index in line with a record that is gone.
static kvfs_result maintain_after_deletion(const deletion& removal) {
  if (removal.descriptor.kind == kBTLeafNode) {
    const kvfs_result result = count_deleted_leaf_record(removal);
    if (result != kvfs_ok) {
      return result;
    }
  }
  return replaces_index_record(removal) ? replace_index_record_of_deleted(removal) : kvfs_ok;
}

// Deletes with the header record mapped.
static kvfs_result delete_from_node(deletion* removal) {
  kvfs_btree* const tree = removal->tree;
  if (!allocate_node(tree, &removal->node)) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while allocating temporary copy of node data.\n");
    return kvfs_no_memory;
  }
  kvfs_result result = read_node(tree, *removal->locator->node, &removal->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while mapping raw node data.\n");
    return result;
  }
  removal->descriptor = descriptor_of(removal->node.view);
  record_extent extent = {};
  result = read_deleted_extent(*removal, &extent);
  if (result == kvfs_ok && removal->index == 0) {
    result =
        check_levels_above(KVFS_NAME_OF(kvfs_btree_delete_record_internal), removal->descriptor, depth_of(*removal));
  }
  if (result != kvfs_ok) {
    return result;
  }
  remove_record(removal, extent);
  result = write_node(tree, removal->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while writing out modified node %lu.\n",
                  to_ul(removal->node.view.number));
    return result;
  }
  removal->locator->priv->deleted = 1;
  // The other open locators of the node keep their indexes although records have moved: Q-btree-21.
  return maintain_after_deletion(*removal);
}

kvfs_result kvfs_btree_delete_record_internal(kvfs_btree* tree, kvfs_btree_record_locator* locator,
                                              std::uint32_t /*flag*/) {
  if (locator->priv->deleted != 0) {  // X-btree-15
    KVFS_CRITICAL("Attempted to delete a deleted record.\n");
    return kvfs_internal;
  }
  deletion removal = {};
  removal.tree = tree;
  removal.locator = locator;
  removal.index = *locator->index;
  kvfs_result result = map_header_record(tree, &removal.header);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping B-tree header record.\n");
    return result;
  }
  result = delete_from_node(&removal);
  const kvfs_result unmapped = removal.header.unmap();
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping B-tree header record.\n");
  }
  return kvfs_result_keep(result, unmapped);
}

kvfs_result kvfs_btree_delete_record(kvfs_btree* tree, kvfs_btree_record_locator* locator, std::uint32_t flag) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring write lock for open locators list.\n", critical,
                         "Error while releasing write lock for open locators list. Will probably crash now...\n");
  return kvfs_with_write_lock(tree->priv->open_locators_lock, messages, [&] {
    grant_work(tree, kWorkOfAChange);
    return kvfs_btree_delete_record_internal(tree, locator, flag);
  });
}
