// The allocation file: opening, flushing and closing it.

#include "bitmap.h"

#include "bitmap/private.h"
#include "extents.h"
#include "fork.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

kvfs_result kvfs_bitmap_create(HFSPlusVolumeHeader* volume_header, kvfs_device* device, kvfs_extents* extents,
                               kvfs_bitmap** out_bitmap) {
  kvfs_owned<kvfs_bitmap> bitmap = kvfs_allocate_zeroed<kvfs_bitmap>();
  if (!bitmap) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_bitmap.\n", sizeof(kvfs_bitmap));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_bitmap_private> priv = kvfs_allocate_zeroed<kvfs_bitmap_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_bitmap_private.\n", sizeof(kvfs_bitmap_private));
    return kvfs_no_memory;
  }
  const kvfs_result result =
      kvfs_fork_create(device, extents, 0, volume_header, kHFSAllocationFileID, &volume_header->allocationFile,
                       volume_header->blockSize.get(), &priv->fork);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_fork for allocation file.\n");
    return result;
  }
  bitmap->priv = priv.release();
  *out_bitmap = bitmap.release();
  return kvfs_ok;
}

void kvfs_bitmap_destroy(kvfs_bitmap** bitmap) {
  kvfs_fork_destroy(&(*bitmap)->priv->fork);
  kvfs_zero_and_free((*bitmap)->priv);
  kvfs_zero_and_free(*bitmap);
  *bitmap = nullptr;
}

kvfs_result kvfs_bitmap_flush(kvfs_bitmap* bitmap) {
  return kvfs_fork_flush(bitmap->priv->fork);
}

bool kvfs_bitmap_works_on(const kvfs_bitmap* bitmap, const kvfs_fork* fork) {
  return bitmap->priv->fork == fork;
}
