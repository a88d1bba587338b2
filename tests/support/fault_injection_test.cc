#include "fault_injection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mntent.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

// The optimiser may drop an allocation that nobody looks at.
void* opaque(void* pointer) {
  asm volatile("" : "+r"(pointer) : : "memory");
  return pointer;
}

void* allocate(std::size_t size) {
  return opaque(std::malloc(size));
}

void give_back(void* block) {
  std::free(opaque(block));
}

class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& content) {
    fd_ = mkostemp(path_.data(), O_CLOEXEC);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(write(fd_, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  ~TemporaryFile() {
    close(fd_);
    unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int fd() const { return fd_; }
  const char* path() const { return path_.c_str(); }

  std::string content() const {
    std::array<char, 256> buffer;
    const ssize_t count = pread(fd_, buffer.data(), buffer.size(), 0);
    return {buffer.data(), static_cast<std::size_t>(count > 0 ? count : 0)};
  }

 private:
  std::string path_ = ::testing::TempDir() + "kvfs-fault-XXXXXX";
  int fd_ = -1;
};

// A lock of the thread library that the test may use while faults are armed.
struct Lock {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;

  Lock() = default;
  ~Lock() { pthread_rwlock_destroy(&lock); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

TEST(CallName, EveryCall_ComesBackFromItsName) {
  for (std::size_t i = 0; i < kCallCount; i++) {
    const Call call = static_cast<Call>(i);
    EXPECT_EQ(call_from_name(call_name(call)), call);
  }
  EXPECT_EQ(call_from_name("pread64"), Call::kPread64);
  EXPECT_EQ(call_from_name("getmntent"), Call::kGetmntent);
  EXPECT_EQ(call_from_name("read"), std::nullopt);
}

TEST(Malloc, FailedAtSecondCall_OnlyThatCallFails) {
  FaultInjector faults;
  faults.fail(Call::kMalloc, 2);
  void* const first = allocate(16);
  errno = 0;
  void* const second = allocate(16);
  const int error = errno;
  void* const third = allocate(16);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(faults.count(Call::kMalloc), 3u);
  EXPECT_EQ(faults.delivered(), 1u);
  give_back(first);
  give_back(third);
}

TEST(Malloc, FailedFromSecondCall_EveryLaterCallFails) {
  FaultInjector faults;
  faults.fail_from(Call::kMalloc, 2, Fault::error_number(ENOSPC));
  void* const first = allocate(16);
  EXPECT_NE(first, nullptr);
  for (int i = 0; i < 3; i++) {
    errno = 0;
    EXPECT_EQ(allocate(16), nullptr);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_EQ(faults.delivered(), 3u);
  give_back(first);
}

TEST(Allocations, FailedByTotalCount_CountsMallocCallocAndReallocTogether) {
  FaultInjector faults;
  faults.fail_allocation(3);
  void* const first = allocate(8);
  void* const second = opaque(std::calloc(2, 8));
  void* const third = opaque(std::realloc(opaque(first), 64));
  EXPECT_EQ(third, nullptr);
  EXPECT_EQ(faults.count_allocations(), 3u);
  EXPECT_THAT(faults.allocation_sizes(), ElementsAre(8u, 16u, 64u));
  EXPECT_EQ(faults.outstanding_allocations(), 2u) << "a failed realloc leaves its block alive";
  give_back(first);
  give_back(second);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(Allocations, FailedFromCount_EveryKindFails) {
  FaultInjector faults;
  faults.fail_allocations_from(1);
  EXPECT_EQ(allocate(1), nullptr);
  EXPECT_EQ(opaque(std::calloc(1, 1)), nullptr);
  EXPECT_EQ(opaque(std::realloc(nullptr, 1)), nullptr);
  EXPECT_EQ(faults.delivered(), 3u);
}

TEST(Allocations, AboveTheLimit_AreRefused) {
  FaultInjector faults;
  faults.refuse_allocations_above(100);
  void* const fits = allocate(100);
  errno = 0;
  void* const large = allocate(101);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_NE(fits, nullptr);
  EXPECT_EQ(large, nullptr);
  EXPECT_EQ(opaque(std::calloc(51, 2)), nullptr);
  EXPECT_EQ(faults.delivered(), 2u);
  give_back(fits);
}

TEST(Allocations, NotFreed_AreOutstanding) {
  FaultInjector faults;
  void* const small = allocate(10);
  void* const large = opaque(std::calloc(3, 100));
  EXPECT_EQ(faults.outstanding_allocations(), 2u);
  EXPECT_EQ(faults.outstanding_bytes(), 310u);
  give_back(large);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  EXPECT_EQ(faults.outstanding_bytes(), 10u);
  EXPECT_EQ(faults.peak_bytes(), 310u);
  give_back(small);
  EXPECT_EQ(faults.outstanding_bytes(), 0u);
  EXPECT_EQ(faults.count(Call::kFree), 2u);
}

TEST(Allocations, Reallocated_CountOnceWithTheNewSize) {
  FaultInjector faults;
  void* const block = allocate(10);
  void* const grown = opaque(std::realloc(opaque(block), 1000));
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  EXPECT_EQ(faults.outstanding_bytes(), 1000u);
  give_back(grown);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(Allocations, MadeBeforeArming_AreNotOnTheBooks) {
  void* const before = allocate(10);
  FaultInjector faults;
  give_back(before);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.outstanding_bytes(), 0u);
}

TEST(Scope, AfterItsEnd_CallsSucceedAgain) {
  {
    FaultInjector faults;
    faults.fail_allocations_from(1);
    EXPECT_EQ(allocate(1), nullptr);
  }
  void* const block = allocate(1);
  EXPECT_NE(block, nullptr);
  give_back(block);
}

TEST(Scope, NextInjector_StartsFromZero) {
  {
    FaultInjector first;
    first.fail_from(Call::kMalloc, 1);
    EXPECT_EQ(allocate(1), nullptr);
  }
  FaultInjector second;
  void* const block = allocate(1);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(second.count(Call::kMalloc), 1u);
  EXPECT_EQ(second.delivered(), 0u);
  give_back(block);
}

TEST(Scope, OtherThread_CountsOnlyWhenAskedFor) {
  {
    FaultInjector faults;
    faults.fail_from(Call::kMalloc, 1);
    std::thread([] { give_back(allocate(1)); }).join();
    EXPECT_EQ(faults.count(Call::kMalloc), 0u);
  }
  FaultInjector faults(FaultInjector::Threads::kAll);
  std::thread([] { give_back(allocate(1)); }).join();
  EXPECT_EQ(faults.count(Call::kMalloc), 1u);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(Pause, CallsInside_AreNeitherCountedNorFailed) {
  FaultInjector faults;
  faults.fail_from(Call::kMalloc, 2);
  void* const counted = allocate(1);
  void* hidden = nullptr;
  {
    const FaultInjector::Pause pause;
    hidden = allocate(2);
    give_back(counted);
  }
  EXPECT_NE(hidden, nullptr);
  EXPECT_EQ(faults.count(Call::kMalloc), 1u);
  EXPECT_EQ(faults.count(Call::kFree), 0u);
  EXPECT_EQ(faults.outstanding_allocations(), 0u) << "memory freed in a pause is off the books";
  give_back(hidden);
}

TEST(SecondInjector_DeathTest, WhileOneIsArmed_EndsTheProgram) {
  const FaultInjector faults;
  EXPECT_DEATH({ const FaultInjector second; }, "armed injector already");
}

TEST(Rwlock, Failed_IsNotAcquired) {
  Lock lock;
  FaultInjector faults;
  faults.fail(Call::kRwlockWrlock, 1, Fault::error_number(EDEADLK));
  EXPECT_EQ(pthread_rwlock_wrlock(&lock.lock), EDEADLK);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(pthread_rwlock_tryrdlock(&lock.lock), 0) << "nobody holds the lock";
  EXPECT_EQ(pthread_rwlock_unlock(&lock.lock), 0);
}

TEST(Rwlock, AcquiredAndReleased_BalanceIsZero) {
  Lock lock;
  FaultInjector faults;
  EXPECT_EQ(pthread_rwlock_rdlock(&lock.lock), 0);
  EXPECT_EQ(pthread_rwlock_rdlock(&lock.lock), 0);
  EXPECT_EQ(faults.locks_held(), 2);
  EXPECT_EQ(pthread_rwlock_unlock(&lock.lock), 0);
  EXPECT_EQ(faults.locks_held(), 1);
  EXPECT_EQ(pthread_rwlock_unlock(&lock.lock), 0);
  EXPECT_EQ(faults.locks_held(), 0);
}

TEST(Rwlock, UnlockFailed_ReportsTheErrorAndReleases) {
  Lock lock;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1, Fault::error_number(EPERM));
  EXPECT_EQ(pthread_rwlock_wrlock(&lock.lock), 0);
  EXPECT_EQ(pthread_rwlock_unlock(&lock.lock), EPERM);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(pthread_rwlock_trywrlock(&lock.lock), 0) << "the lock is free, so that the code under test can go on";
  EXPECT_EQ(pthread_rwlock_unlock(&lock.lock), 0);
}

TEST(Rwlock, InitAndDestroy_AreBalanced) {
  pthread_rwlock_t lock;
  FaultInjector faults;
  faults.fail(Call::kRwlockInit, 1, Fault::error_number(ENOMEM)).fail(Call::kRwlockDestroy, 1);
  EXPECT_EQ(pthread_rwlock_init(&lock, nullptr), ENOMEM);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(pthread_rwlock_init(&lock, nullptr), 0);
  EXPECT_EQ(faults.locks_alive(), 1);
  EXPECT_EQ(pthread_rwlock_destroy(&lock), EBUSY);
  EXPECT_EQ(faults.locks_alive(), 1);
  EXPECT_EQ(pthread_rwlock_destroy(&lock), 0);
  EXPECT_EQ(faults.locks_alive(), 0);
}

TEST(Rwlock, Calls_AreRecordedInOrder) {
  Lock first;
  Lock second;
  FaultInjector faults;
  faults.fail(Call::kRwlockRdlock, 1);
  EXPECT_EQ(pthread_rwlock_wrlock(&first.lock), 0);
  EXPECT_EQ(pthread_rwlock_rdlock(&second.lock), EAGAIN);
  EXPECT_EQ(pthread_rwlock_unlock(&first.lock), 0);
  const std::vector<LockCall> calls = faults.lock_calls();
  ASSERT_THAT(calls, SizeIs(3));
  EXPECT_EQ(calls[0].call, Call::kRwlockWrlock);
  EXPECT_EQ(calls[0].lock, &first.lock);
  EXPECT_EQ(calls[1].call, Call::kRwlockRdlock);
  EXPECT_EQ(calls[1].lock, &second.lock);
  EXPECT_EQ(calls[1].result, EAGAIN);
  EXPECT_EQ(calls[2].call, Call::kRwlockUnlock);
}

TEST(Rwlockattr, EachCallFailed_ReturnsTheNumber) {
  pthread_rwlockattr_t attribute;
  FaultInjector faults;
  faults.fail(Call::kRwlockattrInit, 1, Fault::error_number(ENOMEM))
      .fail(Call::kRwlockattrSetpshared, 1, Fault::error_number(EINVAL))
      .fail(Call::kRwlockattrDestroy, 1, Fault::error_number(EINVAL));
  EXPECT_EQ(pthread_rwlockattr_init(&attribute), ENOMEM);
  EXPECT_EQ(pthread_rwlockattr_init(&attribute), 0);
  EXPECT_EQ(pthread_rwlockattr_setpshared(&attribute, PTHREAD_PROCESS_PRIVATE), EINVAL);
  EXPECT_EQ(pthread_rwlockattr_destroy(&attribute), EINVAL);
  EXPECT_THAT(faults.lock_calls(), SizeIs(0)) << "attributes are not locks";
}

TEST(Pread, Unharmed_IsRecorded) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  std::array<char, 4> buffer{};
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 3), 4);
  EXPECT_EQ(std::string(buffer.data(), 4), "3456");
  const std::vector<Transfer> reads = faults.reads();
  ASSERT_THAT(reads, SizeIs(1));
  EXPECT_EQ(reads[0].fd, file.fd());
  EXPECT_EQ(reads[0].offset, 3u);
  EXPECT_EQ(reads[0].size, 4u);
  EXPECT_EQ(reads[0].end(), 7u);
  EXPECT_EQ(reads[0].result, 4);
  EXPECT_THAT(faults.writes(), SizeIs(0));
}

TEST(Pread, Failed_ReturnsMinusOneWithErrno) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::error_number(ENXIO));
  std::array<char, 4> buffer = {'a', 'b', 'c', 'd'};
  errno = 0;
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 0), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(std::string(buffer.data(), 4), "abcd");
}

TEST(Pread, Shortened_TransfersThatMuchLess) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::short_by(3)).fail(Call::kPread64, 2, Fault::short_by(100));
  std::array<char, 4> buffer = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 5), 1);
  EXPECT_EQ(std::string(buffer.data(), 4), "5bcd");
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 5), 0);
}

TEST(Pread, ReturningOddValues_ReturnsThem) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::returning(-5, EINTR)).fail(Call::kPread64, 2, Fault::nothing_transferred());
  std::array<char, 4> buffer{};
  errno = 0;
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 0), -5);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(pread64(file.fd(), buffer.data(), buffer.size(), 0), 0);
  EXPECT_EQ(faults.reads()[0].result, -5);
}

TEST(Pwrite, Unharmed_IsRecordedWithItsBytes) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  EXPECT_EQ(pwrite64(file.fd(), "xyz", 3, 2), 3);
  const std::vector<Transfer> writes = faults.writes();
  ASSERT_THAT(writes, SizeIs(1));
  EXPECT_EQ(writes[0].offset, 2u);
  EXPECT_THAT(writes[0].bytes, ElementsAre('x', 'y', 'z'));
  EXPECT_EQ(file.content(), "01xyz56789");
}

TEST(Pwrite, ShortenedFailedOrPretended_WritesThatMuch) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1, Fault::short_by(1))
      .fail(Call::kPwrite64, 2)
      .fail(Call::kPwrite64, 3, Fault::pretend());
  EXPECT_EQ(pwrite64(file.fd(), "abc", 3, 0), 2);
  errno = 0;
  EXPECT_EQ(pwrite64(file.fd(), "def", 3, 4), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(pwrite64(file.fd(), "ghi", 3, 7), 3);
  EXPECT_EQ(file.content(), "ab23456789");
  EXPECT_THAT(faults.writes()[0].bytes, ElementsAre('a', 'b', 'c')) << "what was to be written, not what was";
}

TEST(Pwrite_DeathTest, CutOff_EndsTheProcessWithNothingWritten) {
  const TemporaryFile file("0123456789");
  EXPECT_EXIT(
      {
        FaultInjector faults;
        faults.fail(Call::kPwrite64, 2, Fault::exit(17));
        const bool first_done = pwrite64(file.fd(), "A", 1, 0) == 1;
        (void)pwrite64(file.fd(), "B", 1, first_done ? 1 : 2);
      },
      ::testing::ExitedWithCode(17), "");
  EXPECT_EQ(file.content(), "A123456789");
}

TEST(Flock, Failed_ReturnsMinusOneAndIsRecorded) {
  const TemporaryFile file("");
  FaultInjector faults;
  faults.fail(Call::kFlock, 2, Fault::error_number(ENOLCK));
  EXPECT_EQ(flock(file.fd(), LOCK_SH), 0);
  errno = 0;
  EXPECT_EQ(flock(file.fd(), LOCK_UN), -1);
  EXPECT_EQ(errno, ENOLCK);
  const std::vector<FileCall> calls = faults.file_calls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[0].call, Call::kFlock);
  EXPECT_EQ(calls[0].fd, file.fd());
  EXPECT_EQ(calls[0].flags, LOCK_SH);
  EXPECT_EQ(calls[1].flags, LOCK_UN);
}

TEST(Open, FailedOnce_NextOneOpensWithItsFlags) {
  const TemporaryFile file("text");
  FaultInjector faults;
  faults.fail(Call::kOpen64, 1, Fault::error_number(EACCES));
  errno = 0;
  EXPECT_EQ(open64(file.path(), O_RDONLY), -1);
  EXPECT_EQ(errno, EACCES);
  const int fd = open64(file.path(), O_RDWR);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::vector<FileCall> calls = faults.file_calls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[1].path, file.path());
  EXPECT_EQ(calls[1].flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ(calls[1].fd, fd);
}

TEST(Open, CreatingAFile_PassesTheMode) {
  const TemporaryFile file("");
  const std::string path = std::string(file.path()) + ".new";
  const FaultInjector faults;
  const int fd = open64(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(access(path.c_str(), R_OK | W_OK), 0);
  unlink(path.c_str());
}

TEST(MountTable, OpeningFailed_ReturnsNull) {
  FaultInjector faults;
  faults.fail(Call::kFopen64, 1, Fault::error_number(EMFILE));
  errno = 0;
  EXPECT_EQ(fopen64("/proc/mounts", "r"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(faults.file_calls().at(0).path, "/proc/mounts");
}

TEST(MountTable, EntryFailed_EndsTheTable) {
  const TemporaryFile file("/dev/a /a x rw 0 0\n/dev/b /b x rw 0 0\n");
  FaultInjector faults;
  faults.fail(Call::kGetmntent, 2);
  FILE* const table = fopen64(file.path(), "r");
  ASSERT_NE(table, nullptr);
  const struct mntent* const entry = getmntent(table);
  ASSERT_NE(entry, nullptr);
  EXPECT_STREQ(entry->mnt_fsname, "/dev/a");
  EXPECT_EQ(getmntent(table), nullptr);
  std::fclose(table);
}

TEST(MountTable, LeftEncoded_GivesDevicesAsTheyAreWritten) {
  const TemporaryFile file("/dev/a\\040\\134b /a x rw 0 0\n/dev/b /b x rw 0 0\n");
  FILE* const table = fopen64(file.path(), "r");
  ASSERT_NE(table, nullptr);
  leave_mounts_encoded(true);
  EXPECT_STREQ(getmntent(table)->mnt_fsname, "/dev/a\\040\\134b");
  EXPECT_STREQ(getmntent(table)->mnt_fsname, "/dev/b");
  std::rewind(table);
  leave_mounts_encoded(false);
  EXPECT_STREQ(getmntent(table)->mnt_fsname, "/dev/a \\b");
  std::fclose(table);
}

TEST(Records, Cleared_CountsStay) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  std::array<char, 1> buffer{};
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 1, 0), 1);
  faults.clear_records();
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 1, 9), 1);
  ASSERT_THAT(faults.reads(), SizeIs(1));
  EXPECT_EQ(faults.reads()[0].offset, 9u);
  EXPECT_EQ(faults.count(Call::kPread64), 2u);
}

TEST(FaultsFromText, EveryForm_IsUnderstood) {
  const TemporaryFile file("0123456789");
  FaultInjector faults;
  ASSERT_TRUE(add_faults_from_text(
      faults, "pread64:1:errno=6,pread64:2:short=1,pread64:3:return=-7,pread64:4:pretend,malloc:2+,allocation:1"));
  std::array<char, 4> buffer{};
  errno = 0;
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 4, 0), -1);
  EXPECT_EQ(errno, 6);
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 4, 0), 3);
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 4, 0), -7);
  EXPECT_EQ(pread64(file.fd(), buffer.data(), 4, 6), 4);
  EXPECT_EQ(std::string(buffer.data(), 3), "012") << "a pretended read delivers nothing";
  EXPECT_EQ(allocate(1), nullptr);
  EXPECT_EQ(allocate(1), nullptr);
  EXPECT_EQ(allocate(1), nullptr);
}

TEST(FaultsFromText, Malformed_IsRefused) {
  FaultInjector faults;
  for (const char* const text :
       {"pread", "pread64", "pread64:", "pread64:0", "pread64:x", "read:1", "pread64:1:errno",
        "pread64:1:errno=", "pread64:1:short=-1", "pread64:1:what=1", "pread64:1:errno=5x", "+", "malloc:+"}) {
    EXPECT_FALSE(add_faults_from_text(faults, text)) << text;
  }
}

TEST(Trace, ArmedCalls_AreWrittenAsLines) {
  const TemporaryFile file("0123456789");
  const TemporaryFile trace("");
  const FaultInjector faults;
  trace_calls_to(trace.fd());
  std::array<char, 4> buffer{};
  (void)pread64(file.fd(), buffer.data(), 4, 8);
  (void)flock(file.fd(), LOCK_EX);
  trace_calls_to(-1);
  (void)flock(file.fd(), LOCK_UN);
  const std::string fd = std::to_string(file.fd());
  EXPECT_EQ(trace.content(), "pread64 " + fd + " offset=8 size=4 = 2\nflock " + fd + " LOCK_EX = 0\n");
}

}  // namespace
}  // namespace kvfs_test
