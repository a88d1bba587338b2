// Forks over a small image file, for the tests of the fork unit.
//
//   OpenFork fork({.logical_size = 10000, .extents = {{10, 2}, {40, 1}}});
//   FaultInjector faults;
//   EXPECT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 512, nullptr), kvfs_ok);
//   EXPECT_EQ(transfers(faults), (Lines{"read 40960 4096"}));
//   EXPECT_EQ(fork.item(0), "refs=1 valid={0} modified={} dirty=0");

#ifndef KVFS_FORK_FIXTURE_H
#define KVFS_FORK_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device.h"
#include "extents.h"
#include "fault_injection.h"
#include "fork.h"
#include "fork/private.h"
#include "format.h"

namespace kvfs_test {

using Lines = std::vector<std::string>;
using ByteVector = std::vector<unsigned char>;

inline constexpr std::uint64_t kMiB = 1048576;

struct BlockRun {
  std::uint32_t start = 0;
  std::uint32_t count = 0;
};

// Extents as they lie on disk.
HFSPlusExtentRecord extent_record(const std::vector<BlockRun>& extents);

// An extents overflow file that answers from a table: this program has it in place of the B-tree.
class OverflowFile : public kvfs_extents {
 public:
  OverflowFile() : kvfs_extents{nullptr, nullptr} {}

  // The record that the tree has for the data fork of a file from a start block on.
  void add(std::uint32_t cnid, std::uint32_t start_block, const std::vector<BlockRun>& extents);
  // Makes every lookup fail.
  void fail_with(kvfs_result result) { result_ = result; }
  // "type 0 cnid 4 block 8" for each lookup.
  [[nodiscard]] const Lines& lookups() const { return lookups_; }

  kvfs_result look_up(std::uint8_t fork_type, std::uint32_t cnid, std::uint32_t start_block, int* out_found,
                      HFSPlusExtentRecord* out_record);

 private:
  std::map<std::pair<std::uint32_t, std::uint32_t>, HFSPlusExtentRecord> records_;
  kvfs_result result_ = kvfs_ok;
  Lines lookups_;
};

struct ForkShape {
  std::uint32_t sector_size = 512;
  std::uint32_t block_size = 4096;
  std::uint32_t transfer_unit = 4096;
  std::uint64_t logical_size = 0;
  std::vector<BlockRun> extents = {};                        // at most eight
  std::optional<std::uint32_t> total_blocks = std::nullopt;  // the sum of the extents when not given
  std::uint64_t image_size = 0;                              // as large as the extents need when 0
};

// The image file, the device and the fork data that a fork is opened with. Every byte of the image is
// image_byte(its offset).
class ForkMedium {
 public:
  explicit ForkMedium(const ForkShape& shape);
  ~ForkMedium();
  ForkMedium(const ForkMedium&) = delete;
  ForkMedium& operator=(const ForkMedium&) = delete;

  [[nodiscard]] kvfs_device* device() const { return device_; }
  [[nodiscard]] const HFSPlusVolumeHeader* header() const { return &header_; }
  [[nodiscard]] HFSPlusForkData* fork_data() { return &header_.catalogFile; }
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] const ForkShape& shape() const { return shape_; }

  static unsigned char image_byte(std::uint64_t device_offset);
  static ByteVector image_bytes(std::uint64_t device_offset, std::size_t length);
  // What the image file holds now.
  [[nodiscard]] ByteVector read_image(std::uint64_t device_offset, std::size_t length) const;
  // Runs of bytes that are no longer image_byte(), as "offset length".
  [[nodiscard]] Lines changed_ranges() const;

  // Where a byte of the fork lies on the device, and what the untouched fork holds, found without the code under test.
  [[nodiscard]] std::uint64_t device_offset(std::uint64_t fork_offset) const;
  [[nodiscard]] ByteVector fork_bytes(std::uint64_t offset, std::size_t length) const;
  // As many bytes that all differ from those.
  [[nodiscard]] ByteVector changed_bytes(std::uint64_t offset, std::size_t length) const;

 private:
  ForkShape shape_;
  std::uint64_t image_size_ = 0;
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
  HFSPlusVolumeHeader header_ = {};
};

// A fork opened over a medium, with nothing in its cache yet.
class OpenFork : public ForkMedium {
 public:
  explicit OpenFork(const ForkShape& shape);
  ~OpenFork();

  [[nodiscard]] kvfs_fork* get() const { return fork_; }
  [[nodiscard]] kvfs_fork_private* priv() const { return fork_->priv; }
  // Destroys the fork; references that a test left behind are forgotten first, so that nothing is logged.
  void close();

  // "none", or "refs=N valid={b ...} modified={b ...} dirty=N".
  [[nodiscard]] std::string item(std::size_t index) const;
  [[nodiscard]] std::size_t dirty_items() const { return fork_->priv->dirty_items; }
  // Whether each item's dirty_blocks counts its bits and dirty_items counts the items with dirty blocks.
  [[nodiscard]] bool counts_hold() const;

  // The recorded lock calls as "read items", "write dirty", "write item 0", "unlock item 0"; failed ones end in " failed".
  [[nodiscard]] Lines locks(const FaultInjector& faults) const;

 private:
  kvfs_fork* fork_ = nullptr;
};

// The recorded transfers as "read OFFSET SIZE" and "write OFFSET SIZE".
Lines transfers(const FaultInjector& faults);

// A row of bytes to write and to find again.
ByteVector marker_bytes(std::size_t length, unsigned char seed = 1);

}  // namespace kvfs_test

#endif  // KVFS_FORK_FIXTURE_H
