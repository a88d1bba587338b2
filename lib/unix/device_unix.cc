// Block devices and disk images on POSIX systems.

#include "device.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "ground/owned.h"
#include "support.h"

struct kvfs_device_private {
  int fd;  // borrowed
};

namespace {

// A request in bytes. It is refused when the system's interfaces, 32-bit sizes and signed 64-bit offsets, cannot
// express it.
struct transfer {
  std::uint64_t offset;
  std::uint64_t size;
};

}  // namespace

static constexpr std::uint64_t kMaximumTransferSize = 0xFFFFFFFF;

static transfer transfer_of(const kvfs_device* device, std::uint64_t first_sector, std::uint32_t sector_count) {
  // The offset keeps its low 64 bits; what lies beyond a signed offset is refused by the callers
  // (Q-device-4).
  return {first_sector * device->sector_size, std::uint64_t{sector_count} * device->sector_size};
}

static bool is_beyond_signed_offset(std::uint64_t offset) {
  return offset > static_cast<std::uint64_t>(INT64_MAX);
}

static kvfs_result check_size(const char* speaker, std::uint64_t size) {
  if (size > kMaximumTransferSize) {
    KVFS_ERROR_BY(speaker, "Invalid parameter: Resulting buffer would be larger than addressable space (%llu).\n",
                  to_ull(size));
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// ---- Life ----------------------------------------------------------------------------------------------------------

kvfs_result kvfs_device_create(int fd, int read_only, std::uint32_t sector_size, std::uint64_t reserved,
                               kvfs_device** out_device) {
  kvfs_owned<kvfs_device> device = kvfs_allocate_zeroed<kvfs_device>();
  if (!device) {
    return kvfs_no_memory;  // without a message: Q-device-2
  }
  kvfs_owned<kvfs_device_private> priv = kvfs_allocate_zeroed<kvfs_device_private>();
  if (!priv) {
    return kvfs_no_memory;
  }
  if (flock(fd, read_only != 0 ? LOCK_SH : LOCK_EX) != 0) {  // it waits: Q-device-1
    const int error = errno;
    KVFS_ERROR("Error while locking device for %s access: %s (%d).\n", read_only != 0 ? "shared" : "exclusive",
               std::strerror(error), error);
    return kvfs_failed;
  }
  priv->fd = fd;
  *device = {read_only != 0 ? 1U : 0U, sector_size, reserved, priv.release()};
  *out_device = device.release();
  return kvfs_ok;
}

void kvfs_device_destroy(kvfs_device** device) {
  if (flock((*device)->priv->fd, LOCK_UN) != 0) {
    const int error = errno;
    KVFS_WARNING("Error while unlocking device on destroy: %s (%d) Ignoring...\n", std::strerror(error), error);
  }
  kvfs_zero_and_free((*device)->priv);
  kvfs_zero_and_free(*device);
  *device = nullptr;
}

// ---- Transfers -----------------------------------------------------------------------------------------------------

// Reads into `buffer`, which is the caller's own or was allocated for this read.
static kvfs_result read_at(const kvfs_device* device, transfer range, void* buffer, bool self_allocated) {
  const ssize_t count =
      pread64(device->priv->fd, buffer, static_cast<std::size_t>(range.size), static_cast<off64_t>(range.offset));
  const int error = errno;
  if (count < 0) {
    if (count != -1) {
      KVFS_WARNING_AS(kvfs_device_read_disk_sectors, "Unexpected return value from '%s': %zd\n", "pread", count);
    }
    KVFS_ERROR_AS(kvfs_device_read_disk_sectors,
                  "Error while reading %llu bytes from device offset %llu into %s buffer %p: %s (%d)\n",
                  to_ull(range.size), to_ull(range.offset), self_allocated ? "self-allocated" : "caller-provided",
                  buffer, std::strerror(error), error);
    return kvfs_io_error;
  }
  if (static_cast<std::uint64_t>(count) != range.size) {  // Q-device-3
    KVFS_ERROR_AS(kvfs_device_read_disk_sectors, "Partial read into buffer: %zd/%llu bytes read\n", count,
                  to_ull(range.size));
    return kvfs_io_error;
  }
  return kvfs_ok;
}

kvfs_result kvfs_device_read_disk_sectors(kvfs_device* device, std::uint64_t first_sector, std::uint32_t sector_count,
                                          void** buffer) {
  const transfer range = transfer_of(device, first_sector, sector_count);
  if (is_beyond_signed_offset(range.offset)) {
    KVFS_ERROR(
        "Invalid parameter: Read offset is beyond the number of sectors addressable by system APIs (sector %llu => offset %llu).\n",
        to_ull(first_sector), to_ull(range.offset));
    return kvfs_invalid;
  }
  const kvfs_result sized = check_size(__func__, range.size);
  if (sized != kvfs_ok) {
    return sized;
  }
  if (*buffer != nullptr) {
    return read_at(device, range, *buffer, false);
  }
  kvfs_owned<unsigned char> allocated = kvfs_allocate_bytes(static_cast<std::size_t>(range.size));
  if (!allocated) {
    KVFS_ERROR("Error while allocating read buffer of %llu bytes.\n", to_ull(range.size));
    return kvfs_no_memory;
  }
  const kvfs_result result = read_at(device, range, allocated.get(), true);
  if (result == kvfs_ok) {
    *buffer = allocated.release();
  }
  return result;
}

kvfs_result kvfs_device_write_disk_sectors(kvfs_device* device, std::uint64_t first_sector, std::uint32_t sector_count,
                                           const void* buffer) {
  const transfer range = transfer_of(device, first_sector, sector_count);
  if (is_beyond_signed_offset(range.offset)) {
    KVFS_ERROR(
        "Invalid parameter: Write offset is beyond the number of sectors addressable by system APIs (sector %llu => offset %llu).\n",
        to_ull(first_sector), to_ull(range.offset));
    return kvfs_invalid;
  }
  const kvfs_result sized = check_size(__func__, range.size);
  if (sized != kvfs_ok) {
    return sized;
  }
  const ssize_t count =
      pwrite64(device->priv->fd, buffer, static_cast<std::size_t>(range.size), static_cast<off64_t>(range.offset));
  const int error = errno;
  if (count < 0) {
    if (count != -1) {
      KVFS_WARNING("Unexpected return value from '%s': %zd\n", "pwrite", count);
    }
    KVFS_ERROR("Error while writing %llu bytes to device offset %llu from buffer %p: %s (%d)\n", to_ull(range.size),
               to_ull(range.offset), buffer, std::strerror(error), error);
    return kvfs_io_error;
  }
  if (static_cast<std::uint64_t>(count) != range.size) {  // Q-device-3
    KVFS_ERROR("Partial write of buffer contents: %zd/%llu bytes written\n", count, to_ull(range.size));
    return kvfs_io_error;
  }
  return kvfs_ok;
}
