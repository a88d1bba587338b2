// Lookup by key, by thread and by catalog node ID.

#ifndef KVFS_CATALOG_LOOKUP_H
#define KVFS_CATALOG_LOOKUP_H

#include "catalog.h"
#include "format.h"
#include "result.h"

namespace kvfs::catalog {

// Builds the key of the item that a thread record leads to, in the name of `speaker`. The record must hold its name
// (X-catalog-2).
kvfs_result make_target_key(const char* speaker, const kvfs_catalog_record_locator* thread, HFSPlusCatalogKey* key);

}  // namespace kvfs::catalog

#endif  // KVFS_CATALOG_LOOKUP_H
