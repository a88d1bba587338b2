// Files, their locks and the time on POSIX systems.

#include "unix/system.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "support.h"

kvfs_result kvfs_system_open(const char* path, bool writable, int* out_fd) {
  const int fd = open64(path, (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    KVFS_ERROR("Error while opening '%s': %s (%d)\n", path, std::strerror(error), error);
    errno = error;  // for the caller's caller, whom the result does not tell
    return kvfs_io_error;
  }
  *out_fd = fd;
  return kvfs_ok;
}

void kvfs_system_close(int fd) {
  (void)close(fd);  // what was written has been reported on by the writes
}

kvfs_result kvfs_system_check_mode(int fd, bool writable) {
  const int mode = fcntl(fd, F_GETFL);
  if (mode == -1) {
    const int error = errno;
    KVFS_ERROR("Error while looking at file descriptor %d: %s (%d)\n", fd, std::strerror(error), error);
    return kvfs_invalid;
  }
  const int access = mode & O_ACCMODE;
  const bool fits = writable ? access == O_RDWR && (mode & O_APPEND) == 0 : access != O_WRONLY;
  if (!fits) {
    KVFS_ERROR("File descriptor %d is not open for %s.\n", fd,
               writable ? "reading and writing at any place" : "reading");
    return kvfs_invalid;
  }
  return kvfs_ok;
}

kvfs_result kvfs_system_try_lock(int fd, bool exclusive, bool* out_taken) {
  *out_taken = flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0;
  const int error = errno;
  if (*out_taken || error == EWOULDBLOCK) {
    return kvfs_ok;
  }
  KVFS_ERROR("Error while locking file: %s (%d)\n", std::strerror(error), error);
  return kvfs_failed;
}

void kvfs_system_unlock(int fd) {
  (void)flock(fd, LOCK_UN);  // it cannot fail on a file that was locked
}

kvfs_result kvfs_system_sync(int fd) {
  if (fsync(fd) != 0) {
    const int error = errno;
    KVFS_ERROR("Error while waiting for the device: %s (%d)\n", std::strerror(error), error);
    return kvfs_io_error;
  }
  return kvfs_ok;
}

std::int64_t kvfs_system_time() {
  return std::time(nullptr);
}
