// The allocation file: one bit for each allocation block of the volume, set while the block is in use.
//
// Threads and locks: those of the fork; a routine that makes several changes is not atomic against another thread.

#ifndef KVFS_BITMAP_H
#define KVFS_BITMAP_H

#include <cstdint>

#include "format.h"
#include "result.h"

struct kvfs_bitmap_private;
struct kvfs_device;
struct kvfs_extents;

struct kvfs_bitmap {
  kvfs_bitmap_private* priv;
};

// Opens the allocation file. Its transfer unit is the allocation block.
//
//   volume_header, device, extents  borrowed for the life of the bitmap
//   out_bitmap  receives the bitmap, owned by the caller; unchanged on failure
//
// Returns kvfs_ok, kvfs_no_memory or the failure of opening the fork.
kvfs_result kvfs_bitmap_create(HFSPlusVolumeHeader* volume_header, kvfs_device* device, kvfs_extents* extents,
                               kvfs_bitmap** out_bitmap);

// Closes the allocation file without flushing it; the handle becomes null.
void kvfs_bitmap_destroy(kvfs_bitmap** bitmap);

// Writes the changes to the device, as kvfs_fork_flush does.
kvfs_result kvfs_bitmap_flush(kvfs_bitmap* bitmap);

#endif  // KVFS_BITMAP_H
