// Volumes to be damaged: small ones of many shapes, built once, each on a device in memory. An input chooses one and
// then changes bytes where the library looks, so that most inputs get past the volume header.

#ifndef KVFS_FUZZ_VOLUME_H
#define KVFS_FUZZ_VOLUME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "device.h"
#include "fuzz_input.h"
#include "volume.h"
#include "volume_image.h"

namespace kvfs_fuzz {

// A device in memory that holds a volume of one shape and can be brought back to it.
class FuzzDevice {
 public:
  explicit FuzzDevice(const kvfs_test::Volume& volume);
  ~FuzzDevice();
  FuzzDevice(const FuzzDevice&) = delete;
  FuzzDevice& operator=(const FuzzDevice&) = delete;

  // The device of the shape that the input names, undamaged.
  static FuzzDevice& choose(Input* input);

  // Damages the device as the input says, with 0 to 7 changes; their number is returned.
  unsigned damage(Input* input);

  [[nodiscard]] kvfs_device* device() const { return device_; }
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::vector<std::uint8_t> bytes() const;

 private:
  void restore();

  int fd_;
  kvfs_device* device_ = nullptr;
  std::vector<std::uint8_t> original_;
  std::vector<std::pair<std::uint64_t, std::size_t>> places_;  // offset and length of what the library looks at
};

// An open volume; null when opening failed. Destroyed at the end.
class OpenedVolume {
 public:
  OpenedVolume(kvfs_device* device, bool with_allocation_file) {
    result_ = kvfs_volume_create(device, with_allocation_file ? 0 : 1, &volume_);
  }
  ~OpenedVolume() {
    if (volume_ != nullptr) {
      kvfs_volume_destroy(&volume_);
    }
  }
  OpenedVolume(const OpenedVolume&) = delete;
  OpenedVolume& operator=(const OpenedVolume&) = delete;

  [[nodiscard]] kvfs_result result() const { return result_; }
  [[nodiscard]] kvfs_volume* get() const { return volume_; }
  [[nodiscard]] std::u16string label() const;

 private:
  kvfs_volume* volume_ = nullptr;
  kvfs_result result_;
};

// Ends the run with a report when something that must hold does not.
void require(bool holds, const char* what);

}  // namespace kvfs_fuzz

#endif  // KVFS_FUZZ_VOLUME_H
