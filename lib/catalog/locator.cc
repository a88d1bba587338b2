// Locators of catalog records, and results of a search.

#include "catalog/locator.h"

#include <cstdint>
#include <cstring>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "catalog.h"
#include "catalog/private.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

namespace {

// The block of a locator. The tag marks locators in a memory dump and is never tested.
struct catalog_locator_block {
  char tag[8];
  kvfs_catalog_record_locator locator;
  kvfs_catalog_record_locator_private priv;
};

// What the smallest machines pay for a locator (X-catalog-10), where pointers have 32 bits and 64-bit numbers are
// aligned to 8 bytes.
static_assert(sizeof(void*) != 4 || alignof(catalog_locator_block) != 8 || sizeof(catalog_locator_block) == 64);

}  // namespace

static const char kLocatorTag[] = "kvfscrla";

// Links a locator to a parent, or to none; the caller holds the catalog's lock for writing.
static void set_parent(kvfs_catalog_record_locator* locator, kvfs_catalog_record_locator* parent) {
  kvfs_catalog_record_locator* old_parent = locator->priv->parent;
  locator->priv->parent = parent;
  if (parent != nullptr) {
    ++parent->priv->reference_count;
  }
  if (old_parent != nullptr) {
    (void)kvfs_catalog_record_locator_close_internal(&old_parent);  // it has no failures
  }
}

static void link_locator(kvfs_catalog_record_locator* locator) {
  kvfs_catalog_private* const catalog = locator->priv->catalog->priv;
  locator->priv->next = catalog->open_locators;
  if (catalog->open_locators != nullptr) {
    catalog->open_locators->priv->previous = locator;
  }
  catalog->open_locators = locator;
}

static void unlink_locator(kvfs_catalog_record_locator* locator) {
  kvfs_catalog_record_locator_private* const priv = locator->priv;
  if (priv->next != nullptr) {
    priv->next->priv->previous = priv->previous;
  }
  if (priv->previous == nullptr) {
    priv->catalog->priv->open_locators = priv->next;
  } else {
    priv->previous->priv->next = priv->next;
  }
}

kvfs_result kvfs_catalog_record_locator_open(kvfs_catalog* catalog, kvfs_btree_record_locator* btree_locator,
                                             std::uint32_t record_type, kvfs_catalog_record_locator* parent,
                                             std::uint32_t reserved, kvfs_catalog_record_locator** out_locator) {
  kvfs_owned<catalog_locator_block> block = kvfs_allocate_zeroed<catalog_locator_block>();
  if (!block) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog_record_locator allocation.\n",
               to_ull(sizeof(catalog_locator_block)));
    return kvfs_no_memory;
  }
  kvfs_write_guard guard(catalog->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring catalog open locators list lock.\n");
    return guard.result();
  }
  std::memcpy(block->tag, kLocatorTag, sizeof(block->tag));
  block->priv.allocation = block.get();
  block->priv.catalog = catalog;
  block->priv.reference_count = 1;
  block->locator = {btree_locator, record_type, &block->priv.parent, reserved, &block->priv};
  set_parent(&block->locator, parent);
  link_locator(&block->locator);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while unlocking catalog open locators list lock.\n");
    // Q-catalog-3: the locator is freed although it was opened. The list must not keep what is freed (X-catalog-9).
    unlink_locator(&block->locator);
    return unlocked;
  }
  *out_locator = &block.release()->locator;
  return kvfs_ok;
}

kvfs_result kvfs_catalog_record_locator_set_parent_locator(kvfs_catalog_record_locator* locator,
                                                           kvfs_catalog_record_locator* parent) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring write lock for catalog open locators list.\n", error,
                         "Error while releasing lock for open locators list.\n");
  return kvfs_with_write_lock(locator->priv->catalog->priv->open_locators_lock, messages, [&] {
    set_parent(locator, parent);
    return kvfs_ok;
  });
}

kvfs_result kvfs_catalog_record_locator_close_internal(kvfs_catalog_record_locator** locator) {
  kvfs_catalog_record_locator* const closed = *locator;
  kvfs_catalog_record_locator_private* const priv = closed->priv;
  *locator = nullptr;
  if (priv->reference_count == 0) {  // Q-catalog-4
    KVFS_WARNING("Closing locator %p with 0 refcount!\n", static_cast<void*>(closed));
  } else {
    --priv->reference_count;
    if (priv->reference_count != 0) {
      return kvfs_ok;
    }
  }
  unlink_locator(closed);
  if (priv->parent != nullptr) {
    (void)kvfs_catalog_record_locator_close_internal(&priv->parent);  // it has no failures
  }
  kvfs_btree_record_locator_close(&closed->btree_locator);
  kvfs_zero_and_free(static_cast<catalog_locator_block*>(priv->allocation));
  return kvfs_ok;
}

void kvfs_catalog_record_locator_close(kvfs_catalog_record_locator** locator) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while locking catalog open locators list.\n", warning,
                         "Error while unlocking catalog open locators list lock. Ignoring...\n");
  (void)kvfs_with_write_lock((*locator)->priv->catalog->priv->open_locators_lock, messages,
                             [&] { return kvfs_catalog_record_locator_close_internal(locator); });
  *locator = nullptr;
}

void kvfs_catalog_search_result_init(kvfs_catalog_search_result* result) {
  *result = {0, 0, nullptr};
}

void kvfs_catalog_search_result_release(kvfs_catalog_search_result* result) {
  if (result->locator != nullptr) {
    kvfs_catalog_record_locator_close(&result->locator);
  }
  *result = {0, 0, nullptr};
}
