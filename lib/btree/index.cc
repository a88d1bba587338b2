// Index records: adding, finding and replacing them when a node's first key changes.

#include "btree/index.h"

#include <cstdint>

#include "btree.h"
#include "btree/insert_place.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

kvfs_result kvfs::btree::search_index_record(kvfs_btree* tree, const void* key, std::uint8_t height,
                                             index_search purpose, kvfs_btree_search_result* place) {
  kvfs_btree_search_result_init(place);
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToHeight, height, place);
  const bool goes_on = (place->found != 0) == (purpose == index_search::kDeletion);
  if (result == kvfs_ok && goes_on && place->locator != nullptr && place->locator->priv->index_height != height) {
    kvfs_btree_record_locator_release(&place->locator, false);
    place->locator = nullptr;  // others may hold it
    return kvfs_inconsistent;
  }
  return result;
}

// Deletes the index record that leads to a node by the key that was its first one.
static kvfs_result delete_former_index_record(kvfs_btree* tree, const void* former_key, std::uint8_t height) {
  kvfs_btree_search_result found;
  kvfs_result result = search_index_record(tree, former_key, height, index_search::kDeletion, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while searching for index node to modify.\n");
    return result;
  }
  if (found.found == 0) {
    result = kvfs_inconsistent;  // without a message: Q-btree-11
  } else {
    result = kvfs_btree_delete_record_internal(tree, found.locator, 0);
    if (result != kvfs_ok) {
      // An index record: Q-btree-25.
      KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while deleting file/folder record from B-tree.\n");
    }
  }
  kvfs_btree_record_locator_release(&found.locator, false);
  return result;
}

kvfs_result kvfs::btree::replace_index_record(const insertion& insert) {
  const std::uint32_t former_offset = kBTFirstRecordOffset + insert.record_size;
  const std::uint8_t height = height_above(insert.descriptor.height);
  const unsigned char* const former_key =
      key_at(KVFS_NAME_OF(kvfs_btree_insert_record_internal), insert.node.view, former_offset);
  if (former_key == nullptr) {
    return kvfs_inconsistent;
  }
  kvfs_result result = delete_former_index_record(insert.tree, former_key, height);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_add_index_record(insert.tree, insert.key, height, insert.node.view.number);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while adding index record.\n");
  }
  return result;
}

kvfs_result kvfs_btree_add_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, std::uint32_t child) {
  kvfs_btree_search_result place;
  kvfs_result result = search_index_record(tree, key, height, index_search::kInsertion, &place);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for location to insert index record.\n");
    return result;
  }
  if (place.locator == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_search_node returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  if (place.found != 0) {
    KVFS_ERROR("Index record that we wanted to add already exists.\n");
    kvfs_btree_record_locator_release(&place.locator, false);
    return kvfs_exists;
  }
  const kvfs_be32 data = kvfs_be32::of(child);
  kvfs_btree_record_locator* inserted = nullptr;
  result = kvfs_btree_insert_record_internal(tree, key, &data, sizeof(data), &place, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while inserting index record.\n");
  } else if (inserted == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_insert_record returned NULL locator but no error.\n");
    result = kvfs_internal;
  } else {
    kvfs_btree_record_locator_release(&inserted, false);
  }
  kvfs_btree_record_locator_release(&place.locator, false);
  return result;
}
