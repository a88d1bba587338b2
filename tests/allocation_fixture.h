// Volumes opened with their allocation file over images in memory, and a loop that lets each call of an operation fail.
//
//   OpenVolume volume(build_volume(description));
//   EXPECT_EQ(FreeAllocationBlock(100, volume.bitmap()), kvfs_ok);
//   EXPECT_FALSE(volume.flushed().block_used(0));

#ifndef KVFS_ALLOCATION_FIXTURE_H
#define KVFS_ALLOCATION_FIXTURE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "device.h"
#include "fault_injection.h"
#include "fork.h"
#include "format.h"
#include "lock_order.h"
#include "volume.h"
#include "volume_builder.h"
#include "volume_image.h"

namespace kvfs_test {

using Lines = std::vector<std::string>;

class OpenVolume {
 public:
  explicit OpenVolume(const SparseImage& image, std::uint32_t sector_size = 512);
  ~OpenVolume();
  OpenVolume(const OpenVolume&) = delete;
  OpenVolume& operator=(const OpenVolume&) = delete;

  [[nodiscard]] kvfs_volume* get() const { return volume_; }
  [[nodiscard]] kvfs_device* device() const { return device_; }
  [[nodiscard]] HFSPlusVolumeHeader* header() const { return volume_->header; }
  [[nodiscard]] kvfs_bitmap* bitmap() const { return volume_->bitmap; }
  [[nodiscard]] kvfs_catalog* catalog() const { return volume_->catalog; }
  [[nodiscard]] kvfs_btree* catalog_tree() const { return *volume_->catalog->btree; }
  [[nodiscard]] kvfs_fork* catalog_fork() const { return catalog_tree()->fork; }

  // A fork of a special file of its own, opened at the first call and destroyed with the volume. Its transfer unit is
  // the volume's block size.
  kvfs_fork* fork(SpecialFile file);

  // The locks of the volume and of its fork, for a comparison with what was taken.
  [[nodiscard]] LockRanks locks() const;

  // What the device holds.
  [[nodiscard]] Volume contents() const;
  // The same after the catalog, the allocation file and the header were flushed.
  Volume flushed();
  // The header's field as it stands in memory, with the numbers of one of its forks:
  // "size=8192 total=2 extents={10+2}".
  [[nodiscard]] static std::string describe(const HFSPlusForkData& fork_data);

  // Destroys the volume, its forks and the device without flushing. What is logged goes to standard error; the
  // destructor does the same in silence.
  void close();

 private:
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
  kvfs_volume* volume_ = nullptr;
  kvfs_fork* fork_ = nullptr;
};

// A fork data with extents, on-disk order; `total_blocks` is their sum when not given.
HFSPlusForkData fork_data_of(std::uint64_t logical_size, const std::vector<Extent>& extents,
                             std::optional<std::uint32_t> total_blocks = std::nullopt);

// "start=10 count=4 index=1 bytes=16384 16384"; the words that must be 0 are named when they are not.
std::string describe(const kvfs_allocation_location& location);

// ---- Failing calls -------------------------------------------------------------------------------------------------

// What to do with a fresh volume for each call that fails.
struct FaultScenario {
  Volume image;
  std::function<void(OpenVolume&)> prepare;           // before; nothing fails
  std::function<kvfs_result(OpenVolume&)> operation;  // one of its calls fails
  std::function<void(OpenVolume&)> check;             // after a failure, before the volume is closed; nothing fails
};

// The n-th call that fails, from 1 on. Several faults may be set.
using SetFault = std::function<void(FaultInjector&, unsigned long n)>;
SetFault each(Call call);
SetFault each_allocation();

// What an operation gave when a call of it failed.
struct FailedOperation {
  kvfs_result result;
  Lines log;  // "LEVEL function text", addresses as "{*}"
};

// Runs the operation with its first call failing, with its second one, and so on until it has no more. After each run
// no lock may be held nor have been taken out of its order, and, once the volume is closed, no memory be left.
std::vector<FailedOperation> fail_each(const SetFault& set_fault, const FaultScenario& scenario);

// Each operation as its result, a colon and its log in one line, consecutive equal ones once. With functions given only
// their messages are kept.
Lines summary(const std::vector<FailedOperation>& operations, const std::vector<std::string>& functions = {});

}  // namespace kvfs_test

#endif  // KVFS_ALLOCATION_FIXTURE_H
