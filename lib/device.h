// Sector-addressed access to a block device or disk image.

#ifndef KVFS_DEVICE_H
#define KVFS_DEVICE_H

#include <cstdint>

#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_device_private;

// An opened device. It holds an advisory lock on the whole file for its lifetime, shared for reading and exclusive for
// changing, so that two processes cannot change one volume at once.
//
// Threads: reads and writes carry their own offset and keep no state, so that concurrent calls do not disturb one
// another. Locks: none besides the file lock.
struct kvfs_device {
  std::uint32_t read_only;    // 1 when created for reading only: the file lock is then shared
  std::uint32_t sector_size;  // bytes; every position and size below counts sectors of this size
  std::uint64_t reserved;     // as given at creation; no operation reads it
  kvfs_device_private* priv;  // owned: keeps the borrowed file descriptor
};

// Wraps an open file descriptor and locks its file, waiting until the lock is granted.
//
//   fd           borrowed; it must stay open while the device lives and is never closed here
//   read_only    nonzero takes a shared lock, zero an exclusive one
//   sector_size  bytes for each sector
//   reserved     kept in the device, not interpreted
//   out_device   receives the device, owned by the caller; unchanged on failure
//
// Returns kvfs_ok, kvfs_no_memory, or kvfs_failed when the file cannot be locked.
kvfs_result kvfs_device_create(int fd, int read_only, std::uint32_t sector_size, std::uint64_t reserved,
                               kvfs_device** out_device);

// Unlocks the file and frees the device; the handle becomes null. The descriptor stays open.
void kvfs_device_destroy(kvfs_device** device);

// Reads whole sectors with a single transfer. A transfer that delivers fewer bytes is a failure, not retried.
//
//   first_sector, sector_count  the range, in sectors
//   buffer  in: the caller's buffer of sector_count x sector_size bytes, or null to have one allocated;
//           out: on success an allocated buffer, which the caller frees with free(); unchanged on failure
//
// Returns kvfs_ok; kvfs_invalid when the offset or the size is beyond what the system's interfaces can express;
// kvfs_no_memory; kvfs_io_error when the transfer fails or is short.
kvfs_result kvfs_device_read_disk_sectors(kvfs_device* device, std::uint64_t first_sector, std::uint32_t sector_count,
                                          void** buffer);

// Writes whole sectors with a single transfer. `read_only` is not consulted (Q-device-5): the system refuses a write
// through a descriptor that was opened for reading.
//
//   buffer  sector_count x sector_size bytes
//
// Returns kvfs_ok, kvfs_invalid or kvfs_io_error, as reading does.
kvfs_result kvfs_device_write_disk_sectors(kvfs_device* device, std::uint64_t first_sector, std::uint32_t sector_count,
                                           const void* buffer);

#pragma GCC visibility pop

#endif  // KVFS_DEVICE_H
