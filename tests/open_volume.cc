#include "open_volume.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "catalog/private.h"
#include "fault_injection.h"
#include "log_capture.h"

namespace kvfs_test {

static std::string path_of(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

// ---- Devices -------------------------------------------------------------------------------------------------------

TestDevice::TestDevice(const SparseImage& image, std::uint32_t sector_size) : fd_(memfd_create("image", MFD_CLOEXEC)) {
  image.write_to(path_of(fd_));
  EXPECT_EQ(kvfs_device_create(fd_, 0, sector_size, 0, &device_), kvfs_ok);
}

void TestDevice::close() {
  if (device_ != nullptr) {
    kvfs_device_destroy(&device_);
    ::close(fd_);
  }
}

Volume TestDevice::contents() const {
  return Volume::load(path_of(fd_));
}

void TestDevice::overwrite(std::uint64_t offset, const Bytes& bytes) const {
  const FaultInjector::Pause pause;
  EXPECT_EQ(pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset)), static_cast<ssize_t>(bytes.size()));
}

Bytes TestDevice::read(std::uint64_t offset, std::size_t length) const {
  const FaultInjector::Pause pause;
  Bytes bytes(length);
  EXPECT_EQ(pread(fd_, bytes.data(), length, static_cast<off_t>(offset)), static_cast<ssize_t>(length));
  return bytes;
}

// ---- Volumes -------------------------------------------------------------------------------------------------------

OpenVolume::OpenVolume(const SparseImage& image, bool skip_allocation_file, std::uint32_t sector_size)
    : TestDevice(image, sector_size) {
  EXPECT_EQ(kvfs_volume_create(device(), skip_allocation_file ? 1 : 0, &volume_), kvfs_ok);
}

OpenVolume::~OpenVolume() {
  LogCapture silence;  // of what failed operations have left
  close();
}

void OpenVolume::close() {
  if (fork_ != nullptr) {
    kvfs_fork_destroy(&fork_);
  }
  if (volume_ != nullptr) {
    kvfs_volume_destroy(&volume_);
  }
  TestDevice::close();
}

kvfs_fork* OpenVolume::fork(SpecialFile file) {
  HFSPlusForkData* const slots[] = {&header()->extentsFile,    &header()->catalogFile, nullptr,
                                    &header()->allocationFile, &header()->startupFile, &header()->attributesFile};
  const auto cnid = static_cast<std::uint32_t>(file);
  if (fork_ == nullptr) {
    EXPECT_EQ(kvfs_fork_create(device(), volume_->extents, 0, header(), cnid, slots[cnid - kHFSExtentsFileID],
                               header()->blockSize.get(), &fork_),
              kvfs_ok);
  }
  return fork_;
}

Volume OpenVolume::flushed() const {
  EXPECT_EQ(kvfs_fork_flush(catalog_fork()), kvfs_ok);
  if (bitmap() != nullptr) {
    EXPECT_EQ(kvfs_bitmap_flush(bitmap()), kvfs_ok);
  }
  EXPECT_EQ(kvfs_volume_flush(volume_), kvfs_ok);
  return contents();
}

LockRanks OpenVolume::locks() const {
  LockRanks ranks = locks_of(*volume_);
  if (fork_ != nullptr) {
    add_locks_of(*fork_, &ranks);
  }
  return ranks;
}

std::size_t OpenVolume::open_locators() const {
  std::size_t count = 0;
  for (const kvfs_catalog_record_locator* locator = catalog()->priv->open_locators; locator != nullptr;
       locator = locator->priv->next) {
    ++count;
  }
  return count;
}

Name label_of(const kvfs_volume* volume) {
  Name name;
  for (std::uint32_t i = 0; i < *volume->label_length; ++i) {
    name.push_back(static_cast<char16_t>(volume->label[i].get()));
  }
  return name;
}

}  // namespace kvfs_test
