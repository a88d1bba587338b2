// The label of a volume.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/rwlock_guard.h"
#include "catalog.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "volume.h"
#include "volume/private.h"
#include "volume_header.h"

// Renames the root folder; the locator of `root` is consumed unless the rename failed early.
static kvfs_result rename_root_folder(kvfs_volume* volume, const kvfs_be16* units, std::size_t length,
                                      kvfs_catalog_search_result* root) {
  kvfs_result result = kvfs_catalog_search_by_cnid(volume->catalog, kHFSRootFolderID, true, root);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_set_label, "Error while looking up catalog record of root directory.\n");
    return result;
  }
  if (root->locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_volume_set_label,
                     "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  if (root->found == 0) {
    KVFS_ERROR_AS(kvfs_volume_set_label, "Could not find catalog record of root directory.\n");
    return kvfs_inconsistent;
  }
  result = kvfs_catalog_rename_record(volume->catalog, &root->locator, kvfs_be32::of(kHFSRootParentID), units, length);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_set_label, "Error while renaming record.\n");
  }
  return result;
}

// Notes the label that the root folder has got; the caller holds the volume's lock.
static void take_label(kvfs_volume* volume, const kvfs_be16* units, std::size_t length) {
  if (length != 0) {
    std::memmove(volume->priv->label, units, length * sizeof(kvfs_be16));  // it may be a part of that label
  }
  volume->priv->label_length = static_cast<std::uint32_t>(length);
}

kvfs_result kvfs_volume_set_label(kvfs_volume* volume, const kvfs_be16* units, std::size_t length) {
  if (length > kHFSPlusMaxNameLength) {
    KVFS_ERROR("Label length (%zu) too large.\n", length);
    return kvfs_invalid;
  }
  kvfs_catalog_search_result root;
  kvfs_catalog_search_result_init(&root);
  kvfs_result result = rename_root_folder(volume, units, length, &root);
  if (result != kvfs_ok) {
    kvfs_catalog_search_result_release(&root);
    return result;
  }
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES("Error while acquiring exclusive volume lock.\n",
                                                                    critical, "Error while unlocking volume lock.\n");
  result = kvfs_with_write_lock(volume->priv->lock, messages, [&] {
    take_label(volume, units, length);
    if (root.locator != nullptr) {
      KVFS_WARNING_AS(kvfs_volume_set_label, "'loc' non-NULL (%p) on successful return.\n",
                      static_cast<void*>(root.locator));
    }
    kvfs_catalog_search_result_release(&root);
    return kvfs_result{kvfs_ok};
  });
  kvfs_catalog_search_result_release(&root);  // where the lock was refused
  return result;
}
