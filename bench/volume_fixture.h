// Volumes for the benchmarks: built in memory, opened from a file that has no name.

#ifndef KVFS_VOLUME_FIXTURE_H
#define KVFS_VOLUME_FIXTURE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "device.h"
#include "volume.h"
#include "volume_builder.h"

namespace kvfs_bench {

// The image of a volume, which several openings share.
class VolumeImage {
 public:
  explicit VolumeImage(const kvfs_test::VolumeDescription& description) : fd_(memfd_create("volume", MFD_CLOEXEC)) {
    if (fd_ < 0) {
      throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    kvfs_test::build_volume(description).write_to("/proc/self/fd/" + std::to_string(fd_));
  }
  ~VolumeImage() { close(fd_); }
  VolumeImage(const VolumeImage&) = delete;
  VolumeImage& operator=(const VolumeImage&) = delete;

  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_;
};

// A volume that is open with its allocation file. What is changed through it is never flushed.
class OpenVolume {
 public:
  explicit OpenVolume(const VolumeImage& image) {
    check(kvfs_device_create(image.fd(), 0, 512, 0, &device_), "device");
    check(kvfs_volume_create(device_, 0, &volume_), "volume");
  }
  ~OpenVolume() {
    kvfs_volume_destroy(&volume_);
    kvfs_device_destroy(&device_);
  }
  OpenVolume(const OpenVolume&) = delete;
  OpenVolume& operator=(const OpenVolume&) = delete;

  [[nodiscard]] kvfs_volume* get() const { return volume_; }
  [[nodiscard]] kvfs_catalog* catalog() const { return volume_->catalog; }
  [[nodiscard]] kvfs_btree* catalog_tree() const { return *volume_->catalog->btree; }

 private:
  static void check(kvfs_result result, const char* what) {
    if (result != kvfs_ok) {
      throw std::system_error(static_cast<int>(result), std::generic_category(), what);
    }
  }

  kvfs_device* device_ = nullptr;
  kvfs_volume* volume_ = nullptr;
};

}  // namespace kvfs_bench

#endif  // KVFS_VOLUME_FIXTURE_H
