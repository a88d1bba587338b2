// The reader-writer lock, and the result values.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/rwlock_guard.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "support.h"

namespace kvfs_test {
namespace {

std::string with_error(const std::string& text, int error) {
  return "ERROR kvfs_rwlock_create " + text + ": " + std::strerror(error) + " (" + std::to_string(error) + ")\n";
}

// ---- Creation ------------------------------------------------------------------------------------------------------

TEST(RwlockCreate, Success_GivesALockAndKeepsNoAttribute) {
  LogCapture log;
  FaultInjector faults;
  kvfs_rwlock* lock = nullptr;
  ASSERT_EQ(kvfs_rwlock_create(&lock), kvfs_ok);
  EXPECT_NE(lock, nullptr);
  EXPECT_EQ(faults.count(Call::kRwlockattrInit), 1u);
  EXPECT_EQ(faults.count(Call::kRwlockattrSetpshared), 1u);
  EXPECT_EQ(faults.count(Call::kRwlockattrDestroy), 1u);
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
  EXPECT_LOG(log);
}

struct CreationFault {
  const char* name;
  Call call;
  int error;
  kvfs_result result;
  const char* text;
  unsigned long attributes_destroyed;
};

class RwlockCreateFault : public ::testing::TestWithParam<CreationFault> {};

TEST_P(RwlockCreateFault, EachStep_IsReportedAndUndone) {
  const CreationFault& fault = GetParam();
  LogCapture log;
  FaultInjector faults;
  faults.fail(fault.call, 1, Fault::error_number(fault.error));
  kvfs_rwlock* lock = nullptr;
  const kvfs_result result = kvfs_rwlock_create(&lock);
  EXPECT_EQ(faults.delivered(), 1u);
  EXPECT_EQ(result, fault.result);
  EXPECT_EQ(lock, nullptr);
  EXPECT_EQ(faults.count(Call::kRwlockattrDestroy), fault.attributes_destroyed);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log, with_error(fault.text, fault.error));
}

INSTANTIATE_TEST_SUITE_P(Steps, RwlockCreateFault,
                         ::testing::Values(CreationFault{"Memory", Call::kCalloc, ENOMEM, kvfs_no_memory,
                                                         "Error while allocating memory for kvfs_rwlock", 0},
                                           CreationFault{"Attribute", Call::kRwlockattrInit, ENOMEM, kvfs_no_memory,
                                                         "Error while initializing pthread_rwlockattr", 0},
                                           CreationFault{"PshareProperty", Call::kRwlockattrSetpshared, EINVAL,
                                                         kvfs_failed, "Error while setting pshared property", 1},
                                           CreationFault{"Lock", Call::kRwlockInit, EAGAIN, kvfs_no_memory,
                                                         "Error while initializing pthread_rwlock", 1}),
                         [](const auto& suite) { return std::string(suite.param.name); });

TEST(RwlockCreate, AttributeThatCannotBeDestroyed_IsNoFailure) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockattrDestroy, 1, Fault::error_number(EINVAL));
  kvfs_rwlock* lock = nullptr;
  ASSERT_EQ(kvfs_rwlock_create(&lock), kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
  EXPECT_LOG(log);
}

// ---- A lock --------------------------------------------------------------------------------------------------------

class Rwlock : public ::testing::Test {
 protected:
  Rwlock() { EXPECT_EQ(kvfs_rwlock_create(&lock_), kvfs_ok); }
  ~Rwlock() override {
    if (lock_ != nullptr) {
      EXPECT_EQ(kvfs_rwlock_destroy(&lock_), kvfs_ok);
    }
  }

  kvfs_rwlock* lock_ = nullptr;
};

TEST_F(Rwlock, Destroy_FreesTheLockAndClearsTheHandle) {
  FaultInjector faults;
  kvfs_rwlock* lock = nullptr;
  ASSERT_EQ(kvfs_rwlock_create(&lock), kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
  EXPECT_EQ(lock, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
}

TEST_F(Rwlock, DestroyOfAHeldLock_FailsAndTheLockSurvives) {
  LogCapture log;
  kvfs_rwlock* const before = lock_;
  ASSERT_EQ(kvfs_rwlock_lock_write(lock_), kvfs_ok);
  {
    FaultInjector faults;  // not every thread library notices that the lock is held
    faults.fail(Call::kRwlockDestroy, 1, Fault::error_number(EBUSY));
    EXPECT_EQ(kvfs_rwlock_destroy(&lock_), kvfs_failed);
    EXPECT_EQ(faults.count(Call::kFree), 0u);
  }
  EXPECT_EQ(lock_, before);
  EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_lock_read(lock_), kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
  EXPECT_LOG(log,
             "ERROR kvfs_rwlock_destroy Error while destroying pthread_rwlock_t associated with kvfs_rwlock {*}.\n");
}

TEST_F(Rwlock, DestroyThatFails_PrintsTheAddressOfTheLock) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockDestroy, 1, Fault::error_number(EBUSY));
  EXPECT_EQ(kvfs_rwlock_destroy(&lock_), kvfs_failed);
  char address[32];
  std::snprintf(address, sizeof(address), "%p", static_cast<void*>(lock_));
  EXPECT_TRUE(log.has("ERROR", "kvfs_rwlock_destroy", std::string("kvfs_rwlock ") + address + ".\n"));
}

TEST_F(Rwlock, ReadLockThatFails_IsReported) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockRdlock, 1, Fault::error_number(EAGAIN));
  EXPECT_EQ(kvfs_rwlock_lock_read(lock_), kvfs_failed);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_rwlock_lock_read Unable to acquire read lock!\n");
}

TEST_F(Rwlock, WriteLockThatFails_IsReported) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockWrlock, 1, Fault::error_number(EDEADLK));
  EXPECT_EQ(kvfs_rwlock_lock_write(lock_), kvfs_failed);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n");
}

TEST_F(Rwlock, UnlockOfALockThatIsNotHeld_IsReported) {
  LogCapture log;
  ASSERT_EQ(kvfs_rwlock_lock_read(lock_), kvfs_ok);
  {
    FaultInjector faults;  // not every thread library notices; the fault stands for one that does
    faults.fail(Call::kRwlockUnlock, 1, Fault::error_number(EPERM));
    EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_failed);
  }
  EXPECT_LOG(log, "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n");
}

TEST_F(Rwlock, Readers_ShareTheLock) {
  ASSERT_EQ(kvfs_rwlock_lock_read(lock_), kvfs_ok);
  kvfs_result granted = kvfs_internal;
  // Ends only if the second reader does not wait for the first.
  std::thread second([this, &granted] {
    granted = kvfs_rwlock_lock_read(lock_);
    EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
  });
  second.join();
  EXPECT_EQ(granted, kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
}

TEST_F(Rwlock, Writers_ExcludeWritersAndReaders) {
  constexpr int kRounds = 2000;
  int first = 0;  // always equal when a reader looks
  int second = 0;
  bool equal = true;
  const auto write = [&] {
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_EQ(kvfs_rwlock_lock_write(lock_), kvfs_ok);
      ++first;
      ++second;
      EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
    }
  };
  const auto read = [&] {
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_EQ(kvfs_rwlock_lock_read(lock_), kvfs_ok);
      equal = equal && first == second;
      EXPECT_EQ(kvfs_rwlock_unlock(lock_), kvfs_ok);
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(write);
  threads.emplace_back(write);
  threads.emplace_back(read);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(first, 2 * kRounds);
  EXPECT_TRUE(equal);
}

// ---- Guards --------------------------------------------------------------------------------------------------------

TEST_F(Rwlock, ReadGuard_HoldsTheLockForReadingUntilRelease) {
  FaultInjector faults;
  kvfs_read_guard guard(lock_);
  EXPECT_EQ(guard.result(), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRwlockRdlock), 1u);
  EXPECT_EQ(faults.locks_held(), 1);
  EXPECT_EQ(guard.release(), kvfs_ok);
  EXPECT_EQ(faults.locks_held(), 0);
}

TEST_F(Rwlock, WriteGuard_HoldsTheLockForWritingUntilRelease) {
  FaultInjector faults;
  kvfs_write_guard guard(lock_);
  EXPECT_EQ(guard.result(), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRwlockWrlock), 1u);
  EXPECT_EQ(guard.release(), kvfs_ok);
  EXPECT_EQ(faults.locks_held(), 0);
}

TEST_F(Rwlock, GuardReleasedTwice_UnlocksOnce) {
  FaultInjector faults;
  kvfs_write_guard guard(lock_);
  EXPECT_EQ(guard.release(), kvfs_ok);
  EXPECT_EQ(guard.release(), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRwlockUnlock), 1u);
}

TEST_F(Rwlock, GuardThatWasNotReleased_UnlocksAtTheEndOfItsScope) {
  FaultInjector faults;
  { const kvfs_read_guard guard(lock_); }
  EXPECT_EQ(faults.count(Call::kRwlockUnlock), 1u);
  EXPECT_EQ(faults.locks_held(), 0);
}

TEST_F(Rwlock, GuardWhoseLockWasNotGranted_HoldsNothing) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockRdlock, 1).fail(Call::kRwlockWrlock, 1);
  {
    kvfs_read_guard reader(lock_);
    EXPECT_EQ(reader.result(), kvfs_failed);
    EXPECT_EQ(reader.release(), kvfs_ok);
    const kvfs_write_guard writer(lock_);
    EXPECT_EQ(writer.result(), kvfs_failed);
  }
  EXPECT_EQ(faults.count(Call::kRwlockUnlock), 0u);
}

TEST_F(Rwlock, GuardWhoseUnlockFails_ReportsItAndDoesNotTryAgain) {
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1);
  {
    kvfs_write_guard guard(lock_);
    EXPECT_EQ(guard.release(), kvfs_failed);
  }
  EXPECT_EQ(faults.count(Call::kRwlockUnlock), 1u);
  EXPECT_LOG(log, "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n");
}

TEST(ResultKeep, Failure_IsNotReplacedByALaterOne) {
  EXPECT_EQ(kvfs_result_keep(kvfs_ok, kvfs_ok), kvfs_ok);
  EXPECT_EQ(kvfs_result_keep(kvfs_ok, kvfs_failed), kvfs_failed);
  EXPECT_EQ(kvfs_result_keep(kvfs_io_error, kvfs_ok), kvfs_io_error);
  EXPECT_EQ(kvfs_result_keep(kvfs_io_error, kvfs_failed), kvfs_io_error);
}

TEST(ResultValues, Numbers_AreTheLibrarysOwn) {
  EXPECT_EQ(sizeof(kvfs_result), 8u);
  EXPECT_EQ(kvfs_ok, 0u);
  EXPECT_EQ(kvfs_failed, 1u);
  EXPECT_EQ(kvfs_no_memory, 2u);
  EXPECT_EQ(kvfs_invalid, 3u);
  EXPECT_EQ(kvfs_io_error, 4u);
  EXPECT_EQ(kvfs_unsupported_extents, 5u);
  EXPECT_EQ(kvfs_inconsistent, 6u);
  EXPECT_EQ(kvfs_internal, 7u);
  EXPECT_EQ(kvfs_overflow, 8u);
  EXPECT_EQ(kvfs_exists, 9u);
  EXPECT_EQ(kvfs_limit, 10u);
}

}  // namespace
}  // namespace kvfs_test
