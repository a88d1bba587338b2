// An open volume, and what the header that it keeps in memory counts and describes.
//
// What grows and shrinks forks and deletes files changes counters and fork data of the header in memory, and needs
// nothing else of the volume: these routines lie below all of that, the rest of a volume above (volume.h).

#ifndef KVFS_VOLUME_HEADER_H
#define KVFS_VOLUME_HEADER_H

#include <cstdint>

#include "format.h"

#pragma GCC visibility push(default)

struct kvfs_bitmap;
struct kvfs_btree;
struct kvfs_catalog;
struct kvfs_device;
struct kvfs_extents;
struct kvfs_volume_private;

// An open volume. Its objects are for callers to use, not to destroy.
struct kvfs_volume {
  kvfs_device* device;          // not owned
  HFSPlusVolumeHeader* header;  // on-disk byte order, in the private part's sector buffer
  std::uint32_t* label_length;  // UTF-16 units, 0 to 255
  kvfs_be16* label;             // as stored in the catalog: big-endian, decomposed
  kvfs_bitmap* bitmap;          // null when the allocation file was not opened
  kvfs_extents* extents;        // the extents overflow file
  kvfs_catalog* catalog;        // files and folders
  kvfs_btree* attributes;       // null: the attributes file is never opened
  kvfs_volume_private* priv;    // owned: what header and label point into, and the volume lock
};

// Copies a special file's fork data, on-disk order, into the header in memory.
//
//   cnid  catalog node ID of the extents overflow, catalog, allocation, startup or attributes file; any other is
//         reported, and the header stays as it is
//
// Locks: none.
void kvfs_volume_update_fork_data(kvfs_volume* volume, std::uint32_t cnid, const HFSPlusForkData* fork_data);

// ---- Counters of the volume header ---------------------------------------------------------------------------------
//
// Each changes one field of the header in memory, modulo 2^32 and without a check; kvfs_volume_flush brings it to the
// device. They take no lock. Amounts and values are in host order.

void kvfs_volume_add_file_count(kvfs_volume* volume, std::uint32_t amount);         // fileCount grows by `amount`
void kvfs_volume_subtract_file_count(kvfs_volume* volume, std::uint32_t amount);    // fileCount shrinks
void kvfs_volume_add_folder_count(kvfs_volume* volume, std::uint32_t amount);       // folderCount grows
void kvfs_volume_subtract_folder_count(kvfs_volume* volume, std::uint32_t amount);  // folderCount shrinks
void kvfs_volume_add_free_blocks(kvfs_volume* volume, std::uint32_t amount);        // freeBlocks grows
void kvfs_volume_subtract_free_blocks(kvfs_volume* volume, std::uint32_t amount);   // freeBlocks shrinks
void kvfs_volume_set_next_allocation(kvfs_volume* volume, std::uint32_t block);     // nextAllocation becomes `block`
void kvfs_volume_increment_next_catalog_id(kvfs_volume* volume);                    // nextCatalogID grows by 1

#pragma GCC visibility pop

#endif  // KVFS_VOLUME_HEADER_H
