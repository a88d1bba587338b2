// Insertion of a catalog record.

#include <cstdint>

#include "btree.h"
#include "catalog.h"
#include "catalog/key.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

kvfs_result kvfs_catalog_insert_record(kvfs_catalog* catalog, const HFSPlusCatalogKey* key, const void* data,
                                       std::uint16_t data_length, const kvfs_catalog_search_result* hint,
                                       kvfs_catalog_record_locator** out_locator) {
  kvfs_btree_search_result place;
  kvfs_btree_search_result_init(&place);
  if (hint != nullptr && hint->locator != nullptr) {
    place = {hint->found, hint->after, hint->locator->btree_locator};
  }
  kvfs_btree_record_locator* inserted = nullptr;
  kvfs_result result = kvfs_btree_insert_record(btree_of(catalog), key, data, data_length,
                                                place.locator != nullptr ? &place : nullptr, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_insert_record.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_insert_record returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  result = kvfs_catalog_record_locator_open(catalog, inserted, 0, nullptr, 0, out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator.\n");
    kvfs_btree_record_locator_close(&inserted);
  }
  return result;
}
