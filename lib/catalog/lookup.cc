// Lookup by key, by thread and by catalog node ID.

#include "catalog/lookup.h"

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "catalog.h"
#include "catalog/key.h"
#include "catalog/locator.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

kvfs_result kvfs_catalog_search_node(kvfs_catalog* catalog, const HFSPlusCatalogKey* key,
                                     kvfs_catalog_search_result* out_result) {
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  kvfs_result result = kvfs_btree_search_node(btree_of(catalog), key, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_search_node.\n");
    return result;
  }
  kvfs_catalog_record_locator* locator = nullptr;
  result = kvfs_catalog_record_locator_open(catalog, found.locator, 0, nullptr, 0, &locator);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator\n");
    kvfs_btree_search_result_release(&found);
    return result;
  }
  *out_result = {found.found, found.after, locator};
  return kvfs_ok;
}

kvfs_result kvfs_catalog_get_next_record(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         kvfs_catalog_record_locator** out_next) {
  kvfs_btree_record_locator* next = nullptr;
  kvfs_result result = kvfs_btree_get_next_record(btree_of(catalog), locator->btree_locator, &next);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_get_next_record.\n");
    return result;
  }
  if (next == nullptr) {
    *out_next = nullptr;
    return kvfs_ok;
  }
  result = kvfs_catalog_record_locator_open(catalog, next, 0, nullptr, 0, out_next);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator.\n");
    kvfs_btree_record_locator_close(&next);
  }
  return result;
}

kvfs_result kvfs::catalog::make_target_key(const char* speaker, const kvfs_catalog_record_locator* thread,
                                           HFSPlusCatalogKey* key) {
  const kvfs_btree_record_locator* const record = thread->btree_locator;
  const HFSPlusCatalogThread* const fields = kvfs_view_as<HFSPlusCatalogThread>(record->data);
  std::uint32_t name_length = 0;
  bool whole = record->data_size >= kHFSPlusCatalogThreadNameOffset;
  if (whole) {
    name_length = fields->nodeName.length.get();
    whole = name_length <= kHFSPlusMaxNameLength &&
            record->data_size - kHFSPlusCatalogThreadNameOffset >= name_length * sizeof(kvfs_be16);
  }
  if (!whole) {
    KVFS_ERROR_BY(speaker, "Thread record of %zu bytes cannot hold its name.\n", std::size_t{record->data_size});
    return kvfs_inconsistent;
  }
  make_key(key, fields->parentID, fields->nodeName.unicode, name_length);
  return kvfs_ok;
}

kvfs_result kvfs_catalog_follow_thread(kvfs_catalog* catalog, const kvfs_catalog_record_locator* thread,
                                       kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  kvfs_result result = make_target_key(__func__, thread, &key);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_catalog_search_node(catalog, &key, out_result);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for target of thread.\n");
  }
  return result;
}

// Replaces the result of finding a thread record by that of following it, in the name of kvfs_catalog_search_by_cnid.
// Another record stays the result.
static kvfs_result replace_by_thread_target(kvfs_catalog* catalog, kvfs_catalog_search_result* result) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_cnid), result->locator, &type);
  if (read != kvfs_ok || !is_thread(type)) {
    return read;
  }
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const kvfs_result followed = kvfs_catalog_follow_thread(catalog, result->locator, &target);
  if (followed != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_cnid, "Error while following thread when searching for node by CNID.\n");
    return followed;
  }
  if (target.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_catalog_search_by_cnid,
                     "Unexpected: kvfs_catalog_follow_thread returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  replace_result(result, &target);
  return kvfs_ok;
}

kvfs_result kvfs_catalog_search_by_cnid(kvfs_catalog* catalog, std::uint32_t cnid, bool follow,
                                        kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, kvfs_be32::of(cnid));
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  kvfs_result result = kvfs_catalog_search_node(catalog, &key, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching thread record when searching by CNID.\n");
    return result;
  }
  if (found.locator == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_catalog_search_node returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  if (found.found != 0 && follow) {
    result = replace_by_thread_target(catalog, &found);
  }
  if (result != kvfs_ok) {
    kvfs_catalog_search_result_release(&found);
    return result;
  }
  *out_result = found;
  return kvfs_ok;
}
