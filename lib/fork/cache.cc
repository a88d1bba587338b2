// The items of a fork's cache: one MiB of the fork each, made when it is first touched.

#include "fork/cache.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fork.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

void kvfs::fork::free_private(kvfs_fork_private* priv) {
  if (priv->dirty_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&priv->dirty_lock);  // a refusal is logged there; nothing else can be done about it
  }
  std::free(priv->items);
  if (priv->items_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&priv->items_lock);
  }
  std::free(priv->fork_extents);
  kvfs_zero_and_free(priv);
}

void kvfs_fork_destroy(kvfs_fork** fork) {
  kvfs_fork_private* const priv = (*fork)->priv;
  for (std::uint32_t i = 0; i < priv->items_end; ++i) {
    if (priv->items[i] != nullptr) {
      kvfs_fork_cache_item_destroy(&priv->items[i]);
    }
  }
  while (priv->dropped_items != nullptr) {
    kvfs_fork_cache_item* dropped = priv->dropped_items;
    priv->dropped_items = dropped->next_dropped;
    kvfs_fork_cache_item_destroy(&dropped);
  }
  free_private(priv);
  kvfs_zero_and_free(*fork);
  *fork = nullptr;
}

// Makes the lock and the buffers of an item; on failure what was made stays in the item for the caller to undo.
static kvfs_result fill_cache_item(kvfs_fork_cache_item* item, std::uint32_t item_size, std::size_t bitmap_bytes) {
  const kvfs_result result = kvfs_rwlock_create(&item->item_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while creating item_lock.\n");
    return result;
  }
  // calloc costs only the pages that are touched, and what was never read from the device cannot leak onto it.
  item->data = static_cast<unsigned char*>(std::calloc(1, item_size));
  if (item->data == nullptr) {
    // The size of a bitmap, not of the buffer: Q-fork-3.
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while allocating %zu bytes of memory for data buffer.\n",
                  bitmap_bytes);
    return kvfs_no_memory;
  }
  item->valid_bitmap = static_cast<unsigned char*>(std::calloc(1, bitmap_bytes));
  if (item->valid_bitmap == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while allocating %zu bytes of memory for valid data bitmap.\n",
                  bitmap_bytes);
    return kvfs_no_memory;
  }
  item->modification_bitmap = static_cast<unsigned char*>(std::calloc(1, bitmap_bytes));
  if (item->modification_bitmap == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create,
                  "Error while allocating %zu bytes of memory for data modification bitmap.\n", bitmap_bytes);
    return kvfs_no_memory;
  }
  item->data_size = item_size;
  item->valid_bitmap_size = bitmap_bytes;
  item->modification_bitmap_size = bitmap_bytes;
  return kvfs_ok;
}

// Frees an item, complete or not.
static void free_cache_item(kvfs_fork_cache_item* item) {
  std::free(item->modification_bitmap);
  std::free(item->valid_bitmap);
  std::free(item->data);
  if (item->item_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&item->item_lock);  // a refusal is logged there; nothing else can be done about it
  }
  kvfs_zero_and_free(item);
}

kvfs_result kvfs_fork_cache_item_create(const kvfs_fork* fork, kvfs_fork_cache_item** out_item) {
  const kvfs_fork_private* const priv = fork->priv;
  kvfs_fork_cache_item* const item = kvfs_allocate_zeroed<kvfs_fork_cache_item>().release();
  if (item == nullptr) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_fork_cache_item struct.\n",
               sizeof(kvfs_fork_cache_item));
    return kvfs_no_memory;
  }
  const kvfs_result result = fill_cache_item(item, priv->item_size, bitmap_size(priv->item_size, transfer_unit(fork)));
  if (result != kvfs_ok) {
    free_cache_item(item);
    return result;
  }
  *out_item = item;
  return kvfs_ok;
}

void kvfs_fork_cache_item_destroy(kvfs_fork_cache_item** item) {
  if ((*item)->references != 0) {
    KVFS_WARNING("Destroying cache item %p with %llu remaining references.\n", static_cast<void*>(*item),
                 to_ull((*item)->references));
  }
  free_cache_item(*item);
  *item = nullptr;
}

kvfs_result kvfs::fork::ensure_item(const char* speaker, kvfs_fork* fork, std::uint64_t index) {
  if (index >= fork->priv->items_length) {
    KVFS_ERROR_BY(speaker, "Cache item %llu lies behind the end of the fork.\n", to_ull(index));
    return kvfs_inconsistent;
  }
  kvfs_fork_cache_item** const slot = &fork->priv->items[index];
  if (*slot == nullptr && kvfs_fork_cache_item_create(fork, slot) != kvfs_ok) {
    KVFS_ERROR_BY(speaker, "Unable to create cache item %zu.\n", static_cast<std::size_t>(index));
    return kvfs_no_memory;
  }
  fork->priv->items_end = kvfs_max(fork->priv->items_end, static_cast<std::uint32_t>(index) + 1);
  return kvfs_ok;
}

kvfs_result kvfs::fork::check_transfer_unit(const char* speaker, const kvfs_fork* fork) {
  const std::uint32_t unit = transfer_unit(fork);
  if (unit == 0 || unit > fork->priv->item_size) {
    KVFS_ERROR_BY(speaker, "Transfer unit of %lu bytes is not usable.\n", to_ul(unit));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}
