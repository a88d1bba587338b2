// Devices over images in memory, and volumes opened on them.
//
//   OpenVolume volume(build_volume(description));
//   EXPECT_EQ(FreeAllocationBlock(100, volume.bitmap()), kvfs_ok);
//   EXPECT_FALSE(volume.flushed().block_used(0));

#ifndef KVFS_OPEN_VOLUME_H
#define KVFS_OPEN_VOLUME_H

#include <cstddef>
#include <cstdint>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "device.h"
#include "fork.h"
#include "format.h"
#include "lock_order.h"
#include "volume.h"
#include "volume_image.h"

namespace kvfs_test {

// A device over a copy of an image, in memory.
class TestDevice {
 public:
  explicit TestDevice(const SparseImage& image, std::uint32_t sector_size = 512);
  ~TestDevice() { close(); }
  TestDevice(const TestDevice&) = delete;
  TestDevice& operator=(const TestDevice&) = delete;

  [[nodiscard]] kvfs_device* get() const { return device_; }
  // What the device holds now.
  [[nodiscard]] Volume contents() const;
  // Changes the bytes behind the back of whoever uses the device.
  void overwrite(std::uint64_t offset, const Bytes& bytes) const;
  [[nodiscard]] Bytes read(std::uint64_t offset, std::size_t length) const;

  // Destroys the device, if that was not done before.
  void close();

 private:
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
};

// An open volume, by default with its allocation file.
class OpenVolume : public TestDevice {
 public:
  explicit OpenVolume(const SparseImage& image, bool skip_allocation_file = false, std::uint32_t sector_size = 512);
  ~OpenVolume();

  [[nodiscard]] kvfs_volume* get() const { return volume_; }
  [[nodiscard]] kvfs_device* device() const { return TestDevice::get(); }
  [[nodiscard]] HFSPlusVolumeHeader* header() const { return volume_->header; }
  [[nodiscard]] kvfs_bitmap* bitmap() const { return volume_->bitmap; }
  [[nodiscard]] kvfs_catalog* catalog() const { return volume_->catalog; }
  [[nodiscard]] kvfs_btree* catalog_tree() const { return *volume_->catalog->btree; }
  [[nodiscard]] kvfs_fork* catalog_fork() const { return catalog_tree()->fork; }

  // A fork of a special file of its own, opened at the first call and destroyed with the volume. Its transfer unit is
  // the volume's block size.
  kvfs_fork* fork(SpecialFile file);

  // What the device holds when the catalog, the allocation file, if it is open, and the header were flushed.
  [[nodiscard]] Volume flushed() const;

  // The locks of the volume and of its fork, for a comparison with what was taken.
  [[nodiscard]] LockRanks locks() const;

  // Catalog locators that are open now.
  [[nodiscard]] std::size_t open_locators() const;

  // Destroys the volume, its fork and the device without flushing. What is logged goes to standard error; the
  // destructor does the same in silence.
  void close();

 private:
  kvfs_volume* volume_ = nullptr;
  kvfs_fork* fork_ = nullptr;
};

// The label in memory, in host order; it is decomposed as it is stored.
Name label_of(const kvfs_volume* volume);

}  // namespace kvfs_test

#endif  // KVFS_OPEN_VOLUME_H
