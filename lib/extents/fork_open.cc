// Opening a fork, which takes all its extents.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "device.h"
#include "extents.h"
#include "fork.h"
#include "fork/cache.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

// The numbers of the item array of a fork; each has to fit 32 bits.
static kvfs_result item_array_length(std::uint64_t logical_size, std::uint32_t* length, std::size_t* size) {
  const std::uint64_t items_length = kvfs_divide_rounding_up(logical_size, kForkItemSize);
  const std::uint64_t items_size = items_length * sizeof(kvfs_fork_cache_item*);
  if (items_size > kMaximum32) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Items array too large for address space.\n");
    return kvfs_invalid;
  }
  *length = static_cast<std::uint32_t>(items_length);
  if (*length != items_length) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Overflow in 'items_length': %llu\n", to_ull(items_length));
    return kvfs_invalid;
  }
  *size = static_cast<std::size_t>(items_size);
  if (*size != items_size) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Overflow in 'items_size': %llu\n", to_ull(items_size));
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// Makes the locks and the item array of a private part that has its extents. On failure what was made stays in `priv`
// for the caller to undo.
static kvfs_result create_items(kvfs_fork_private* priv, std::size_t items_size) {
  kvfs_result result = kvfs_rwlock_create(&priv->items_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while creating items_lock.\n");
    return result;
  }
  // calloc leaves the pages of a large array untouched until a slot is used.
  priv->items = static_cast<kvfs_fork_cache_item**>(std::calloc(1, kvfs_max<std::size_t>(items_size, 1)));
  if (priv->items == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while allocating fork cache item array (%llu bytes).\n",
                  to_ull(items_size));
    return kvfs_no_memory;
  }
  result = kvfs_rwlock_create(&priv->dirty_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while creating dirty_lock.\n");
  }
  return result;
}

kvfs_result kvfs_fork_private_create(kvfs_device* device, kvfs_extents* extents, int partial, std::uint32_t cnid,
                                     HFSPlusForkData* fork_data, std::uint32_t transfer_unit,
                                     kvfs_fork_private** out_private) {
  const std::uint64_t logical_size = fork_data->logicalSize.get();
  std::uint32_t items_length = 0;
  std::size_t items_size = 0;
  kvfs_result result = item_array_length(logical_size, &items_length, &items_size);
  if (result != kvfs_ok) {
    return result;
  }
  if (extents == nullptr && partial == 0) {
    KVFS_ERROR("NULL extents overflow file.\n");
    return kvfs_invalid;
  }
  kvfs_fork_private* const priv = kvfs_allocate_zeroed<kvfs_fork_private>().release();
  if (priv == nullptr) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_fork_private.\n", to_ull(sizeof(kvfs_fork_private)));
    return kvfs_no_memory;
  }
  result = kvfs_fork_resolve_extents(extents, partial, cnid, fork_data, &priv->fork_extents, &priv->fork_extents_count);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while resolving fork extents.\n");
  } else {
    result = create_items(priv, items_size);
  }
  if (result != kvfs_ok) {
    free_private(priv);
    return result;
  }
  priv->device = device;
  priv->cnid = cnid;
  priv->fork_data = fork_data;
  priv->logical_size = logical_size;
  priv->items_length = items_length;
  priv->item_size = kForkItemSize;
  priv->modificationBitmapBlockSize = transfer_unit;
  *out_private = priv;
  return kvfs_ok;
}

kvfs_result kvfs_fork_create(kvfs_device* device, kvfs_extents* extents, int partial,
                             const HFSPlusVolumeHeader* volume_header, std::uint32_t cnid, HFSPlusForkData* fork_data,
                             std::uint32_t min_block_size, kvfs_fork** out_fork) {
  const std::uint32_t block_size = volume_header->blockSize.get();
  const std::uint32_t transfer_unit = kvfs_max(device->sector_size, min_block_size);
  kvfs_owned<kvfs_fork> fork = kvfs_allocate_zeroed<kvfs_fork>();
  if (!fork) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_fork.\n", to_ull(sizeof(kvfs_fork)));
    return kvfs_no_memory;
  }
  kvfs_fork_private* priv = nullptr;
  if (kvfs_fork_private_create(device, extents, partial, cnid, fork_data, transfer_unit, &priv) != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_fork_private.\n");
    return kvfs_no_memory;  // whatever failed: Q-fork-2
  }
  *fork = {&priv->logical_size, block_size, priv};
  *out_fork = fork.release();
  return kvfs_ok;
}
