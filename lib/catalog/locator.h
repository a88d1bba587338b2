// Locators of catalog records, and results of a search.

#ifndef KVFS_CATALOG_LOCATOR_H
#define KVFS_CATALOG_LOCATOR_H

#include "catalog.h"

namespace kvfs::catalog {

// Releases a result and puts another one, which it takes over, in its place.
inline void replace_result(kvfs_catalog_search_result* result, kvfs_catalog_search_result* other) {
  kvfs_catalog_search_result_release(result);
  *result = *other;
  kvfs_catalog_search_result_init(other);
}

}  // namespace kvfs::catalog

#endif  // KVFS_CATALOG_LOCATOR_H
