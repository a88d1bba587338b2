// Volumes to be damaged: small ones of many shapes, built once, each on a device in memory. An input chooses one and
// then changes bytes where the library looks, so that most inputs get past the volume header.

#ifndef KVFS_FUZZ_VOLUME_H
#define KVFS_FUZZ_VOLUME_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "open_volume.h"

namespace kvfs_fuzz {

// A device in memory that holds a volume of one shape and can be brought back to it.
class FuzzDevice {
 public:
  explicit FuzzDevice(const kvfs_test::Volume& volume);
  FuzzDevice(const FuzzDevice&) = delete;
  FuzzDevice& operator=(const FuzzDevice&) = delete;

  // The device of the shape that the input names, undamaged.
  static FuzzDevice& choose(Input* input);

  // Damages the device as the input says, with 0 to 7 changes; their number is returned.
  unsigned damage(Input* input);

  [[nodiscard]] const kvfs_test::TestDevice& device() const { return device_; }
  [[nodiscard]] int fd() const { return device_.fd(); }
  [[nodiscard]] std::vector<std::uint8_t> bytes() const;

 private:
  kvfs_test::TestDevice device_;
  std::vector<std::uint8_t> original_;
  std::vector<std::pair<std::uint64_t, std::size_t>> places_;  // offset and length of what the library looks at
};

// Volumes that are damaged may refuse to be opened.
inline constexpr kvfs_test::Opening kMaybe = {.may_fail = true};
inline constexpr kvfs_test::Opening kMaybeWithoutAllocationFile = {.skip_allocation_file = 1, .may_fail = true};

// Ends the run with a report when something that must hold does not.
void require(bool holds, const char* what);

}  // namespace kvfs_fuzz

#endif  // KVFS_FUZZ_VOLUME_H
