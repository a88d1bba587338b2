// An opened HFS Plus volume: its header in memory, its special files and its label.
//
// Opening reads and checks the volume header, opens the extents overflow file, the catalog and, when asked to, the
// allocation file, finds the root folder and copies its name, which is the volume's label. The header stays in memory
// in on-disk byte order, inside the sectors that it was read with; the special files' fork data lie in it. The
// structure kvfs_volume itself stands in volume_header.h, for those who change the header in memory and need no more of
// a volume.
//
// Threads: opening and closing are for one thread. After that the label fields are the volume's only shared state.
// Locks: the volume lock, taken for writing while the label fields change; readers of the label take none.

#ifndef KVFS_VOLUME_H
#define KVFS_VOLUME_H

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "result.h"
#include "volume_header.h"

#pragma GCC visibility push(default)

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

#pragma GCC visibility pop

#endif  // KVFS_VOLUME_H
