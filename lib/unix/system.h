// What sessions need of the system besides what the library needs of its platform: files by their path, a lock that is
// not waited for, writes that have arrived, and the time.

#ifndef KVFS_UNIX_SYSTEM_H
#define KVFS_UNIX_SYSTEM_H

#include <cstdint>

#include "result.h"

// Opens a file, with a message and the system's errno on failure. Returns kvfs_ok or kvfs_io_error.
kvfs_result kvfs_system_open(const char* path, bool writable, int* out_fd);
void kvfs_system_close(int fd);

// Whether a file that somebody else has opened can be read, and written at any place if so wanted: what is written to a
// file that is open for appending goes to its end. Returns kvfs_ok or, with a message, kvfs_invalid.
kvfs_result kvfs_system_check_mode(int fd, bool writable);

// Takes the lock on a whole file if nobody else holds it; `out_taken` tells. Returns kvfs_ok or kvfs_failed.
kvfs_result kvfs_system_try_lock(int fd, bool exclusive, bool* out_taken);

// Gives the lock on a file back.
void kvfs_system_unlock(int fd);

// Waits until what was written has reached the device. Returns kvfs_ok or kvfs_io_error.
kvfs_result kvfs_system_sync(int fd);

// Seconds since the beginning of 1970, UTC.
std::int64_t kvfs_system_time();

#endif  // KVFS_UNIX_SYSTEM_H
