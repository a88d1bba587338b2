// An opened HFS Plus volume: its header in memory, its special files and its label.
//
// Opening reads and checks the volume header, opens the extents overflow file, the catalog and, when asked to, the
// allocation file, finds the root folder and copies its name, which is the volume's label. The header stays in memory
// in on-disk byte order, inside the sectors that it was read with; the special files' fork data lie in it.
//
// Threads: opening and closing are for one thread. After that the label fields are the volume's only shared state.
// Locks: the volume lock, taken for writing while the label fields change; readers of the label take none.

#ifndef KVFS_VOLUME_H
#define KVFS_VOLUME_H

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "result.h"

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

// Opens the volume on a device.
//
//   device                borrowed; it must outlive the volume
//   skip_allocation_file  nonzero leaves the allocation file unopened: `bitmap` is then null
//   out_volume            receives the volume, owned by the caller; unchanged on failure
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_invalid for a device without a sector size; kvfs_failed when the device holds
// no HFS Plus volume; kvfs_inconsistent when the root folder is missing or its name is too long; kvfs_internal; or the
// failure of the device, a special file, the search for the root folder or the making of the volume lock.
kvfs_result kvfs_volume_create(kvfs_device* device, int skip_allocation_file, kvfs_volume** out_volume);

// Closes a volume without writing anything; the handle becomes null. The device stays open.
void kvfs_volume_destroy(kvfs_volume** volume);

// Writes the sectors of the volume header back as they are in memory. Returns kvfs_ok or the failure of the device.
kvfs_result kvfs_volume_flush(kvfs_volume* volume);

// Renames the root folder, which renames the volume, and then changes the label in memory. The catalog's changes are in
// its fork's cache: flush that fork to bring them to the device. The volume header does not change.
//
//   units, length  the new label, big-endian and decomposed; UTF-16 units, at most 255
//
// Locks: the volume lock for writing while the label in memory changes.
// Returns kvfs_ok; kvfs_invalid when the label is too long; kvfs_inconsistent when the root folder is missing;
// kvfs_internal; or the failure of the search, the rename or the lock. The label in memory changes once the rename has
// succeeded; when the lock is not granted it stays the old one, and when the lock is not released it is the new one.
kvfs_result kvfs_volume_set_label(kvfs_volume* volume, const kvfs_be16* units, std::size_t length);

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

#endif  // KVFS_VOLUME_H
