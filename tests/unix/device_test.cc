// The block device: its file lock, its transfers and how they fail.

#include "device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fail_each.h"

namespace kvfs_test {
namespace {

using Bytes = std::vector<unsigned char>;

std::string error_text(int error) {
  return std::string(std::strerror(error)) + " (" + std::to_string(error) + ")";
}

Bytes counting_bytes(std::size_t length) {
  Bytes bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(i * 7 + (i >> 8));
  }
  return bytes;
}

// An image file that is gone when the test ends.
class ImageFile {
 public:
  explicit ImageFile(std::size_t size, int flags = O_RDWR) {
    std::string path = ::testing::TempDir() + "kvfs-device-XXXXXX";
    const int writer = mkostemp(path.data(), 0);
    EXPECT_GE(writer, 0);
    const Bytes bytes = counting_bytes(size);
    EXPECT_EQ(write(writer, bytes.data(), size), static_cast<ssize_t>(size));
    fd_ = open(path.c_str(), flags);
    other_ = open(path.c_str(), O_RDWR);
    close(writer);
    unlink(path.c_str());
  }
  ~ImageFile() {
    close(fd_);
    close(other_);
  }
  ImageFile(const ImageFile&) = delete;
  ImageFile& operator=(const ImageFile&) = delete;

  [[nodiscard]] int fd() const { return fd_; }
  // A descriptor of its own for the same file, as another process would have.
  [[nodiscard]] int other() const { return other_; }
  [[nodiscard]] Bytes read_all() const {
    Bytes bytes(static_cast<std::size_t>(lseek(other_, 0, SEEK_END)));
    EXPECT_EQ(pread(other_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return bytes;
  }

 private:
  int fd_ = -1;
  int other_ = -1;
};

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
using OwnedMemory = std::unique_ptr<void, FreeMemory>;

// A device over an image of 16384 bytes.
class Device : public ::testing::Test {
 protected:
  static constexpr std::size_t kSize = 16384;

  Device() { open(512); }
  ~Device() override { kvfs_device_destroy(&device_); }

  void open(std::uint32_t sector_size) {
    if (device_ != nullptr) {
      kvfs_device_destroy(&device_);
    }
    EXPECT_EQ(kvfs_device_create(file_.fd(), 0, sector_size, 0, &device_), kvfs_ok);
  }

  ImageFile file_{kSize};
  kvfs_device* device_ = nullptr;
};

// ---- Creation and destruction --------------------------------------------------------------------------------------

TEST(DeviceCreate, ReadOnly_LocksTheFileSharedAndFillsTheFields) {
  const ImageFile file(512);
  LogCapture log;
  FaultInjector faults;
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 5, 2048, 0x0123456789ABCDEF, &device), kvfs_ok);
  EXPECT_EQ(device->read_only, 1u);
  EXPECT_EQ(device->sector_size, 2048u);
  EXPECT_EQ(device->reserved, 0x0123456789ABCDEFu);
  ASSERT_EQ(faults.file_calls().size(), 1u);
  EXPECT_EQ(faults.file_calls()[0].fd, file.fd());
  EXPECT_EQ(faults.file_calls()[0].flags, LOCK_SH);
  kvfs_device_destroy(&device);
  EXPECT_LOG(log);
}

TEST(DeviceCreate, ForWriting_LocksTheFileExclusively) {
  const ImageFile file(512);
  FaultInjector faults;
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 0, 512, 0, &device), kvfs_ok);
  EXPECT_EQ(device->read_only, 0u);
  ASSERT_EQ(faults.file_calls().size(), 1u);
  EXPECT_EQ(faults.file_calls()[0].flags, LOCK_EX);
  kvfs_device_destroy(&device);
}

TEST(DeviceCreate, WhileItLives_OthersMeetItsLock) {
  const ImageFile file(512);
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 1, 512, 0, &device), kvfs_ok);
  EXPECT_EQ(flock(file.other(), LOCK_SH | LOCK_NB), 0);
  EXPECT_EQ(flock(file.other(), LOCK_UN), 0);
  EXPECT_EQ(flock(file.other(), LOCK_EX | LOCK_NB), -1);
  kvfs_device_destroy(&device);
  ASSERT_EQ(kvfs_device_create(file.fd(), 0, 512, 0, &device), kvfs_ok);
  EXPECT_EQ(flock(file.other(), LOCK_SH | LOCK_NB), -1);
  kvfs_device_destroy(&device);
  EXPECT_EQ(flock(file.other(), LOCK_EX | LOCK_NB), 0);
}

// Q-device-2
TEST(DeviceCreate, NoMemory_FailsSilentlyBeforeTheFileIsLocked) {
  const ImageFile file(512);
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    kvfs_device* device = nullptr;
    const kvfs_result result = run.operate([&] { return kvfs_device_create(file.fd(), 1, 512, 0, &device); });
    if (!run.failed()) {
      kvfs_device_destroy(&device);
      return;
    }
    EXPECT_EQ(result, kvfs_no_memory);
    EXPECT_EQ(device, nullptr);
    EXPECT_EQ(run.faults().count(Call::kFlock), 0u);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_LOG(run.log());
  });
  EXPECT_EQ(failures, 2u);  // the public and the private part
}

TEST(DeviceCreate, SharedLockRefused_IsReported) {
  const ImageFile file(512);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kFlock, 1, Fault::error_number(ENOLCK));
  kvfs_device* device = nullptr;
  EXPECT_EQ(kvfs_device_create(file.fd(), 1, 512, 0, &device), kvfs_failed);
  EXPECT_EQ(device, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.count(Call::kFlock), 1u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_create Error while locking device for shared access: " + error_text(ENOLCK) + ".\n");
}

TEST(DeviceCreate, ExclusiveLockRefused_IsReported) {
  const ImageFile file(512);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kFlock, 1, Fault::error_number(EINTR));
  kvfs_device* device = nullptr;
  EXPECT_EQ(kvfs_device_create(file.fd(), 0, 512, 0, &device), kvfs_failed);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_create Error while locking device for exclusive access: " + error_text(EINTR) + ".\n");
}

TEST(DeviceCreate, DescriptorThatIsNotOpen_IsReported) {
  LogCapture log;
  kvfs_device* device = nullptr;
  EXPECT_EQ(kvfs_device_create(-1, 1, 512, 0, &device), kvfs_failed);
  EXPECT_LOG(log,
             "ERROR kvfs_device_create Error while locking device for shared access: " + error_text(EBADF) + ".\n");
}

TEST(DeviceDestroy, Device_IsUnlockedAndFreedAndItsDescriptorStaysOpen) {
  const ImageFile file(512);
  FaultInjector faults;
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 1, 512, 0, &device), kvfs_ok);
  faults.clear_records();
  kvfs_device_destroy(&device);
  EXPECT_EQ(device, nullptr);
  ASSERT_EQ(faults.file_calls().size(), 1u);
  EXPECT_EQ(faults.file_calls()[0].flags, LOCK_UN);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_GE(fcntl(file.fd(), F_GETFD), 0);
}

TEST(DeviceDestroy, UnlockRefused_IsAWarningOnly) {
  const ImageFile file(512);
  LogCapture log;
  FaultInjector faults;
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 0, 512, 0, &device), kvfs_ok);
  faults.fail(Call::kFlock, 2, Fault::error_number(ENOLCK));
  kvfs_device_destroy(&device);
  EXPECT_EQ(device, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_device_destroy Error while unlocking device on destroy: " + error_text(ENOLCK) +
                      " Ignoring...\n");
}

// ---- Reading -------------------------------------------------------------------------------------------------------

TEST_F(Device, ReadIntoNoBuffer_AllocatesOne) {
  FaultInjector faults;
  void* buffer = nullptr;
  ASSERT_EQ(kvfs_device_read_disk_sectors(device_, 3, 2, &buffer), kvfs_ok);
  EXPECT_EQ(faults.allocation_sizes(), (std::vector<std::size_t>{1024}));
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  ASSERT_NE(buffer, nullptr);
  const Bytes image = counting_bytes(kSize);
  EXPECT_EQ(std::memcmp(buffer, image.data() + 1536, 1024), 0);
  std::free(buffer);
}

TEST_F(Device, ReadIntoACallersBuffer_FillsItAndAllocatesNothing) {
  FaultInjector faults;
  Bytes bytes(512 + 1, 0xEE);
  void* buffer = bytes.data();
  ASSERT_EQ(kvfs_device_read_disk_sectors(device_, 31, 1, &buffer), kvfs_ok);
  EXPECT_EQ(buffer, bytes.data());
  EXPECT_EQ(faults.count_allocations(), 0u);
  const Bytes image = counting_bytes(kSize);
  EXPECT_EQ(std::memcmp(bytes.data(), image.data() + kSize - 512, 512), 0);
  EXPECT_EQ(bytes[512], 0xEE);
}

TEST_F(Device, EverySectorSize_IsOneTransferOfSectorTimesSize) {
  for (const std::uint32_t sector_size : {1u, 100u, 512u, 1024u, 2048u, 4096u}) {
    open(sector_size);
    FaultInjector faults;
    void* buffer = nullptr;
    ASSERT_EQ(kvfs_device_read_disk_sectors(device_, 2, 2, &buffer), kvfs_ok);
    const OwnedMemory owner(buffer);
    ASSERT_EQ(faults.reads().size(), 1u);
    EXPECT_EQ(faults.reads()[0].fd, file_.fd());
    EXPECT_EQ(faults.reads()[0].offset, 2u * sector_size);
    EXPECT_EQ(faults.reads()[0].size, 2u * sector_size);
    const Bytes image = counting_bytes(kSize);
    EXPECT_EQ(std::memcmp(buffer, image.data() + 2u * sector_size, 2u * sector_size), 0);
  }
}

TEST_F(Device, SectorSizeZero_ReadsNothingAndSucceeds) {
  open(0);
  LogCapture log;
  FaultInjector faults;
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 9, 9, &buffer), kvfs_ok);
  const OwnedMemory owner(buffer);
  EXPECT_LOG(log);
}

TEST_F(Device, Transfers_DoNotMoveTheFilePosition) {
  ASSERT_EQ(lseek(file_.fd(), 77, SEEK_SET), 77);
  void* buffer = nullptr;
  ASSERT_EQ(kvfs_device_read_disk_sectors(device_, 1, 1, &buffer), kvfs_ok);
  const OwnedMemory owner(buffer);
  ASSERT_EQ(kvfs_device_write_disk_sectors(device_, 1, 1, buffer), kvfs_ok);
  EXPECT_EQ(lseek(file_.fd(), 0, SEEK_CUR), 77);
}

// Q-device-4
TEST_F(Device, ReadBeyondSignedOffsets_IsRefusedBeforeAnyTransfer) {
  LogCapture log;
  FaultInjector faults;
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, std::uint64_t{1} << 54, 1, &buffer), kvfs_invalid);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(faults.count(Call::kPread64), 0u);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Invalid parameter: Read offset is beyond the number of sectors "
             "addressable by system APIs (sector 18014398509481984 => offset 9223372036854775808).\n");
}

TEST_F(Device, LastSignedOffset_IsAttempted) {
  open(1);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1).fail(Call::kPwrite64, 1);
  unsigned char byte = 0;
  void* buffer = &byte;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, INT64_MAX, 1, &buffer), kvfs_io_error);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, INT64_MAX, 1, buffer), kvfs_io_error);
  EXPECT_EQ(faults.transfers().size(), 2u);
}

TEST_F(Device, ReadAtTheLastSectorBelowSignedOffsets_IsAttempted) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::error_number(EINVAL));
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, (std::uint64_t{1} << 54) - 1, 1, &buffer), kvfs_io_error);
  ASSERT_EQ(faults.reads().size(), 1u);
  EXPECT_EQ(faults.reads()[0].offset, 0x7FFFFFFFFFFFFE00u);
}

// Q-device-4
TEST_F(Device, OffsetThatWraps_KeepsItsLow64Bits) {
  FaultInjector faults;
  void* buffer = nullptr;
  ASSERT_EQ(kvfs_device_read_disk_sectors(device_, (std::uint64_t{1} << 55) + 1, 1, &buffer), kvfs_ok);
  const OwnedMemory owner(buffer);
  ASSERT_EQ(faults.reads().size(), 1u);
  EXPECT_EQ(faults.reads()[0].offset, 512u);
}

TEST_F(Device, ReadOfFourGigabytes_IsRefusedBeforeAnyTransfer) {
  LogCapture log;
  FaultInjector faults;
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 8388608, &buffer), kvfs_invalid);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(faults.count(Call::kPread64), 0u);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Invalid parameter: Resulting buffer would be larger than addressable "
             "space (4294967296).\n");
}

TEST_F(Device, ReadOfOneSectorLessThanFourGigabytes_PassesTheCheck) {
  LogCapture log;
  FaultInjector faults;
  faults.refuse_allocations_above(1 << 20);
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 8388607, &buffer), kvfs_no_memory);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(faults.count(Call::kPread64), 0u);
  EXPECT_LOG(log, "ERROR kvfs_device_read_disk_sectors Error while allocating read buffer of 4294966784 bytes.\n");
}

TEST_F(Device, ReadOfOneByteLessThanFourGigabytes_IsAttempted) {
  open(1);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1);
  unsigned char byte = 0;
  void* buffer = &byte;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 0xFFFFFFFF, &buffer), kvfs_io_error);
  EXPECT_EQ(faults.reads().size(), 1u);
}

TEST_F(Device, OffsetAndSizeBothTooLarge_ReportsTheOffset) {
  LogCapture log;
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, std::uint64_t{1} << 54, 8388608, &buffer), kvfs_invalid);
  EXPECT_TRUE(log.has("ERROR", "kvfs_device_read_disk_sectors", "Read offset is beyond"));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(Device, ReadThatFails_ReportsTheSelfAllocatedBufferAndFreesIt) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::error_number(EIO));
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 2, 3, &buffer), kvfs_io_error);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.count(Call::kPread64), 1u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Error while reading 1536 bytes from device offset 1024 into "
             "self-allocated buffer {*}: " +
                 error_text(EIO) + "\n");
}

TEST_F(Device, ReadThatFails_ReportsTheCallersBufferAndLeavesIt) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::error_number(ENXIO));
  Bytes bytes(512, 0xEE);
  void* buffer = bytes.data();
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 1, &buffer), kvfs_io_error);
  EXPECT_EQ(buffer, bytes.data());
  char address[32];
  std::snprintf(address, sizeof(address), "%p", buffer);
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 0 into "
             "caller-provided buffer " +
                 std::string(address) + ": " + error_text(ENXIO) + "\n");
}

TEST_F(Device, ReadThatReturnsAnOddNegativeValue_WarnsFirst) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::returning(-7, EAGAIN));
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 1, &buffer), kvfs_io_error);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_device_read_disk_sectors Unexpected return value from 'pread': -7\n",
             "ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 0 into "
             "self-allocated buffer {*}: " +
                 error_text(EAGAIN) + "\n");
}

// Q-device-3
TEST_F(Device, ReadPastTheEnd_IsReportedAsPartialAndNotRetried) {
  LogCapture log;
  FaultInjector faults;
  void* buffer = nullptr;
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 31, 3, &buffer), kvfs_io_error);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.count(Call::kPread64), 1u);
  EXPECT_LOG(log, "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 512/1536 bytes read\n");
}

TEST_F(Device, ReadThatDeliversNothing_IsReportedAsPartial) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::nothing_transferred());
  Bytes bytes(512);
  void* buffer = bytes.data();
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 1, &buffer), kvfs_io_error);
  EXPECT_EQ(buffer, bytes.data());
  EXPECT_LOG(log, "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 0/512 bytes read\n");
}

TEST_F(Device, ReadOfZeroSectors_Succeeds) {
  LogCapture log;
  Bytes bytes(1, 0xEE);
  void* buffer = bytes.data();
  EXPECT_EQ(kvfs_device_read_disk_sectors(device_, 0, 0, &buffer), kvfs_ok);
  EXPECT_EQ(bytes[0], 0xEE);
  EXPECT_LOG(log);
}

// ---- Writing -------------------------------------------------------------------------------------------------------

TEST_F(Device, Write_ChangesExactlyItsSectors) {
  FaultInjector faults;
  const Bytes content(1024, 0x5A);
  ASSERT_EQ(kvfs_device_write_disk_sectors(device_, 4, 2, content.data()), kvfs_ok);
  EXPECT_EQ(faults.count_allocations(), 0u);
  ASSERT_EQ(faults.transfers().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, 2048u);
  EXPECT_EQ(faults.writes()[0].bytes, content);
  Bytes expected = counting_bytes(kSize);
  std::memset(expected.data() + 2048, 0x5A, 1024);
  EXPECT_EQ(file_.read_all(), expected);
}

TEST_F(Device, WriteWithSectorsOf4096Bytes_IsPlacedBySectorSize) {
  open(4096);
  FaultInjector faults;
  const Bytes content(4096, 0x5A);
  ASSERT_EQ(kvfs_device_write_disk_sectors(device_, 3, 1, content.data()), kvfs_ok);
  ASSERT_EQ(faults.writes().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, 12288u);
  EXPECT_EQ(faults.writes()[0].size, 4096u);
}

TEST_F(Device, WriteBeyondSignedOffsets_IsRefusedBeforeAnyTransfer) {
  LogCapture log;
  FaultInjector faults;
  const Bytes content(512);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, (std::uint64_t{1} << 55) - 1, 1, content.data()), kvfs_invalid);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_write_disk_sectors Invalid parameter: Write offset is beyond the number of sectors "
             "addressable by system APIs (sector 36028797018963967 => offset 18446744073709551104).\n");
}

TEST_F(Device, WriteOfFourGigabytes_IsRefusedBeforeAnyTransfer) {
  LogCapture log;
  FaultInjector faults;
  const Bytes content(512);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, 0, 8388608, content.data()), kvfs_invalid);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_write_disk_sectors Invalid parameter: Resulting buffer would be larger than "
             "addressable space (4294967296).\n");
}

TEST_F(Device, WriteThatFails_IsReported) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1, Fault::error_number(ENOSPC));
  const Bytes content(1024);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, 2, 2, content.data()), kvfs_io_error);
  char address[32];
  std::snprintf(address, sizeof(address), "%p", static_cast<const void*>(content.data()));
  EXPECT_EQ(faults.count(Call::kPwrite64), 1u);
  EXPECT_LOG(log,
             "ERROR kvfs_device_write_disk_sectors Error while writing 1024 bytes to device offset 1024 from buffer " +
                 std::string(address) + ": " + error_text(ENOSPC) + "\n");
  EXPECT_EQ(file_.read_all(), counting_bytes(kSize));
}

TEST_F(Device, WriteThatReturnsAnOddNegativeValue_WarnsFirst) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1, Fault::returning(-2, EPERM));
  const Bytes content(512);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, 0, 1, content.data()), kvfs_io_error);
  EXPECT_LOG(log, "WARNING kvfs_device_write_disk_sectors Unexpected return value from 'pwrite': -2\n",
             "ERROR kvfs_device_write_disk_sectors Error while writing 512 bytes to device offset 0 from buffer {*}: " +
                 error_text(EPERM) + "\n");
}

// Q-device-3
TEST_F(Device, ShortWrite_IsReportedAsPartialAndNotRetried) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1, Fault::short_by(100));
  const Bytes content(512);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device_, 0, 1, content.data()), kvfs_io_error);
  EXPECT_EQ(faults.count(Call::kPwrite64), 1u);
  EXPECT_LOG(log, "ERROR kvfs_device_write_disk_sectors Partial write of buffer contents: 412/512 bytes written\n");
}

// Q-device-5
TEST(DeviceWrite, DescriptorOpenedForReading_IsRefusedByTheSystem) {
  const ImageFile file(4096, O_RDONLY);
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 1, 512, 0, &device), kvfs_ok);
  LogCapture log;
  const Bytes content(512);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device, 0, 1, content.data()), kvfs_io_error);
  EXPECT_LOG(log,
             "ERROR kvfs_device_write_disk_sectors Error while writing 512 bytes to device offset 0 from buffer {*}: " +
                 error_text(EBADF) + "\n");
  EXPECT_EQ(file.read_all(), counting_bytes(4096));
  kvfs_device_destroy(&device);
}

// Q-device-5
TEST(DeviceWrite, ReadOnlyDeviceOverAWritableDescriptor_IsNotConsulted) {
  const ImageFile file(4096);
  kvfs_device* device = nullptr;
  ASSERT_EQ(kvfs_device_create(file.fd(), 1, 512, 0, &device), kvfs_ok);
  const Bytes content(512, 0x5A);
  EXPECT_EQ(kvfs_device_write_disk_sectors(device, 1, 1, content.data()), kvfs_ok);
  EXPECT_EQ(file.read_all()[512], 0x5A);
  kvfs_device_destroy(&device);
}

TEST_F(Device, ConcurrentTransfers_DoNotDisturbOneAnother) {
  const auto work = [this](unsigned char value) {
    for (int round = 0; round < 200; ++round) {
      Bytes content(512, static_cast<unsigned char>(value + round));
      EXPECT_EQ(kvfs_device_write_disk_sectors(device_, value, 1, content.data()), kvfs_ok);
      void* buffer = nullptr;
      ASSERT_EQ(kvfs_device_read_disk_sectors(device_, value, 1, &buffer), kvfs_ok);
      const OwnedMemory owner(buffer);
      EXPECT_EQ(std::memcmp(buffer, content.data(), content.size()), 0);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned char value = 1; value <= 4; ++value) {
    threads.emplace_back(work, value);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace kvfs_test
