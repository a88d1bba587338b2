// Records of the extents overflow file: their keys, search and insertion.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "extents.h"
#include "format.h"
#include "result.h"
#include "support.h"

static HFSPlusExtentKey make_key(std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block) {
  return {kvfs_be16::of(kHFSPlusExtentKeyLength), fork_type, 0, kvfs_be32::of(file_id), kvfs_be32::of(start_block)};
}

// -1, 0 or 1 as the first number is smaller, equal or greater.
static int order_of(std::uint32_t a, std::uint32_t b) {
  return a == b ? 0 : (a < b ? -1 : 1);
}

int kvfs_extents_compare_keys(const void* key_a, const void* key_b, std::uint8_t /*compare_type*/) {
  const std::uint16_t length_a = kvfs_view_as<kvfs_be16>(key_a)->get();
  const std::uint16_t length_b = kvfs_view_as<kvfs_be16>(key_b)->get();
  // Both messages print the size of the whole key, although its length field is tested: Q-extents-1.
  if (length_a != kHFSPlusExtentKeyLength) {
    KVFS_ERROR("Invalid key length for extents overflow file in a. Expected: %zu Actual: %hu\n",
               sizeof(HFSPlusExtentKey), length_a);
    return -1;
  }
  if (length_b != kHFSPlusExtentKeyLength) {
    KVFS_ERROR("Invalid key length for extents overflow file in b. Expected: %zu Actual: %hu\n",
               sizeof(HFSPlusExtentKey), length_b);
    return -1;
  }
  const HFSPlusExtentKey* const a = kvfs_view_as<HFSPlusExtentKey>(key_a);
  const HFSPlusExtentKey* const b = kvfs_view_as<HFSPlusExtentKey>(key_b);
  const int by_file = order_of(a->fileID.get(), b->fileID.get());
  if (by_file != 0) {
    return by_file;
  }
  const int by_fork = order_of(a->forkType, b->forkType);
  return by_fork != 0 ? by_fork : order_of(a->startBlock.get(), b->startBlock.get());
}

// Copies the record that a search has found, in the name of kvfs_extents_get_next_extent_record.
static kvfs_result copy_record(const kvfs_btree_search_result& found, int* out_found, HFSPlusExtentRecord* out_record) {
  if (found.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_extents_get_next_extent_record,
                     "Unexpected: Got NULL result with no error from kvfs_btree_search_node.\n");
    return kvfs_internal;
  }
  if (found.found == 0) {  // no exact key: Q-extents-3
    *out_found = 0;
    return kvfs_ok;
  }
  if (found.locator->data_size < sizeof(HFSPlusExtentRecord)) {  // X-extents-2
    KVFS_ERROR_AS(kvfs_extents_get_next_extent_record,
                  "Unexpected data size for extent record. Expected minimum: %zu Actual: %zu\n",
                  sizeof(HFSPlusExtentRecord), std::size_t{found.locator->data_size});
    return kvfs_inconsistent;
  }
  std::memcpy(out_record, found.locator->data, sizeof(HFSPlusExtentRecord));
  *out_found = 1;
  return kvfs_ok;
}

kvfs_result kvfs_extents_get_next_extent_record(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                                std::uint32_t start_block, int* out_found,
                                                HFSPlusExtentRecord* out_record) {
  const HFSPlusExtentKey key = make_key(fork_type, file_id, start_block);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  kvfs_result result = kvfs_btree_search_node(extents->btree, &key, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while looking up overflow extent.\n");
    return result;
  }
  result = copy_record(found, out_found, out_record);
  kvfs_btree_search_result_release(&found);
  return result;
}

// The message of both routines below: insertion speaks of searching too (Q-extents-2).
static void report_key_failure(const char* speaker, std::uint8_t fork_type, std::uint32_t file_id,
                               std::uint32_t start_block) {
  KVFS_ERROR_BY(
      speaker,
      "Error while searching extents overflow B-tree for key with fork type 0x%hhX, cnid %lu, start block %lu.\n",
      fork_type, to_ul(file_id), to_ul(start_block));
}

kvfs_result kvfs_extents_search(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                std::uint32_t start_block, kvfs_btree_search_result* out_result) {
  const HFSPlusExtentKey key = make_key(fork_type, file_id, start_block);
  const kvfs_result result = kvfs_btree_search_node(extents->btree, &key, out_result);
  if (result != kvfs_ok) {
    report_key_failure(__func__, fork_type, file_id, start_block);
  }
  return result;
}

kvfs_result kvfs_extents_insert(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                std::uint32_t start_block, const HFSPlusExtentRecord* record) {
  const HFSPlusExtentKey key = make_key(fork_type, file_id, start_block);
  kvfs_btree_record_locator* inserted = nullptr;
  const kvfs_result result =
      kvfs_btree_insert_record(extents->btree, &key, record, sizeof(*record), nullptr, &inserted);
  if (result != kvfs_ok) {
    report_key_failure(__func__, fork_type, file_id, start_block);
    return result;
  }
  kvfs_btree_record_locator_close(&inserted);
  return kvfs_ok;
}
