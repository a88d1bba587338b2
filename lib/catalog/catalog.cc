// Opening and closing the catalog.

#include "catalog.h"

#include <cstdint>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "catalog/private.h"
#include "extents.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

kvfs_result kvfs_catalog_create(kvfs_device* device, kvfs_extents* extents, HFSPlusVolumeHeader* volume_header,
                                kvfs_catalog** out_catalog) {
  kvfs_owned<kvfs_catalog> catalog = kvfs_allocate_zeroed<kvfs_catalog>();
  if (!catalog) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog.\n", to_ull(sizeof(kvfs_catalog)));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_catalog_private> priv = kvfs_allocate_zeroed<kvfs_catalog_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog_private.\n", to_ull(sizeof(kvfs_catalog_private)));
    return kvfs_no_memory;
  }
  kvfs_result result = kvfs_rwlock_create(&priv->open_locators_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating open locators list lock.\n");
    return result;
  }
  result =
      kvfs_btree_create(device, extents, 0, volume_header, kHFSCatalogFileID, kvfs_catalog_compare_keys, &priv->btree);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while reading Catalog B-Tree into memory.\n");
    if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
      KVFS_ERROR("Error while destroying catalog open locators list lock on cleanup.\n");
    }
    return result;
  }
  catalog->priv = priv.release();
  catalog->btree = &catalog->priv->btree;
  *out_catalog = catalog.release();
  return kvfs_ok;
}

// Takes a locator that is about to be freed from those that have it for their parent: none may follow a dead
// link (X-catalog-5).
static void forget_parent(kvfs_catalog_private* priv, const kvfs_catalog_record_locator* parent) {
  for (kvfs_catalog_record_locator* child = priv->open_locators; child != nullptr; child = child->priv->next) {
    if (child->priv->parent == parent) {
      child->priv->parent = nullptr;
    }
  }
}

// Closes the locators that are still open, from the head of the list. A head that somebody else references too stays,
// and ends the clean-up (Q-catalog-5).
static void close_leaked_locators(kvfs_catalog_private* priv) {
  std::uint64_t closed = 0;
  while (priv->open_locators != nullptr) {
    kvfs_catalog_record_locator* const head = priv->open_locators;
    kvfs_catalog_record_locator* leaked = head;
    if (head->priv->reference_count <= 1) {
      forget_parent(priv, head);
    }
    (void)kvfs_catalog_record_locator_close_internal(&leaked);  // it has no failures
    ++closed;
    if (priv->open_locators == head) {
      KVFS_CRITICAL_AS(kvfs_catalog_destroy,
                       "Internal error: Closing head of catalog open locators list did not change the head!\n");
      break;
    }
  }
  if (closed != 0) {
    KVFS_WARNING_AS(kvfs_catalog_destroy, "Cleaned up %llu leaked catalog record locators on destroy.\n",
                    to_ull(closed));
  }
}

void kvfs_catalog_destroy(kvfs_catalog** catalog) {
  kvfs_catalog_private* const priv = (*catalog)->priv;
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES(
      "Error while acquiring open locators list lock! Leaking open locators on kvfs_catalog destruction...\n", warning,
      "Error while unlocking catalog open locators list lock. Ignoring...\n");
  (void)kvfs_with_write_lock(priv->open_locators_lock, messages, [&] {
    close_leaked_locators(priv);
    return kvfs_ok;
  });
  if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
    KVFS_ERROR("Error while destroying catalog open locators list lock. Leaking...\n");
  }
  kvfs_btree_destroy(&priv->btree);
  kvfs_zero_and_free(priv);
  kvfs_zero_and_free(*catalog);
  *catalog = nullptr;
}
