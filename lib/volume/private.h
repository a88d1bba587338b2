// Inside a volume: for the volume unit and its tests.

#ifndef KVFS_VOLUME_PRIVATE_H
#define KVFS_VOLUME_PRIVATE_H

#include <cstdint>

#include "format.h"
#include "volume.h"

struct kvfs_rwlock;

struct kvfs_volume_private {
  kvfs_rwlock* lock;             // guards the label fields
  unsigned char* sector_buffer;  // owned; the sectors that hold the volume header
  std::uint32_t sector_buffer_size;
  HFSPlusVolumeHeader* header;  // in sector_buffer
  std::uint32_t label_length;
  kvfs_be16 label[kHFSPlusMaxNameLength];
};

// Does the work of kvfs_volume_create and hands out what a volume consists of, owned by the caller. The bitmap is null
// when its loading is skipped, the attributes always. On failure nothing is handed out and nothing stays open.
kvfs_result kvfs_volume_setup(kvfs_device* device, int skip_allocation_file, kvfs_bitmap** out_bitmap,
                              kvfs_extents** out_extents, kvfs_catalog** out_catalog, kvfs_btree** out_attributes,
                              kvfs_volume_private** out_private);

#endif  // KVFS_VOLUME_PRIVATE_H
