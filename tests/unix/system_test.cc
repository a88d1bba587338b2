// What sessions need of the system: files, locks that are not waited for, writes that arrive, and the time.

#include "unix/system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"

namespace kvfs_test {
namespace {

std::string error_text(int error) {
  return std::string(std::strerror(error)) + " (" + std::to_string(error) + ")\n";
}

// An empty file, and what is opened of it; both are gone when the test ends.
class System : public ::testing::Test {
 protected:
  System() : path_(::testing::TempDir() + "kvfs-system-XXXXXX") {
    const int made = mkostemp(path_.data(), 0);
    EXPECT_GE(made, 0);
    ::close(made);
  }
  ~System() override {
    for (const int fd : fds_) {
      ::close(fd);
    }
    unlink(path_.c_str());
  }

  int open_with(int flags) { return keep(::open(path_.c_str(), flags)); }
  int open_for(bool writable) {
    int fd = -1;
    EXPECT_EQ(kvfs_system_open(path_.c_str(), writable, &fd), kvfs_ok);
    return keep(fd);
  }

  std::string path_;

 private:
  int keep(int fd) {
    EXPECT_GE(fd, 0);
    fds_.push_back(fd);
    return fd;
  }

  std::vector<int> fds_;
};

TEST_F(System, File_IsOpenedAsItIsWantedAndNotHandedToOtherPrograms) {
  for (const bool writable : {false, true}) {
    const int fd = open_for(writable);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, writable ? O_RDWR : O_RDONLY);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  }
}

// As it comes to be where a program has closed its standard input.
TEST_F(System, DescriptorZero_IsOneLikeOthers) {
  LogCapture log;
  const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  ::close(STDIN_FILENO);
  int fd = -1;
  EXPECT_EQ(kvfs_system_open(path_.c_str(), false, &fd), kvfs_ok);
  EXPECT_EQ(fd, STDIN_FILENO);
  EXPECT_LOG(log);
  ::close(STDIN_FILENO);
  if (saved >= 0) {
    EXPECT_EQ(dup2(saved, STDIN_FILENO), STDIN_FILENO);
    ::close(saved);
  }
}

TEST_F(System, FileThatIsNotThere_IsAnInputErrorWithTheSystemsErrno) {
  const std::string missing = path_ + "-missing";
  LogCapture log;
  int fd = -1;
  errno = 0;
  EXPECT_EQ(kvfs_system_open(missing.c_str(), false, &fd), kvfs_io_error);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fd, -1);
  EXPECT_LOG(log, "ERROR kvfs_system_open Error while opening '" + missing + "': " + error_text(ENOENT));
}

TEST_F(System, Mode_HasToAllowWhatIsWantedAtAnyPlace) {
  const struct {
    int flags;
    bool can_read;
    bool can_write;
  } modes[] = {
      {O_RDONLY, true, false}, {O_RDWR, true, true}, {O_WRONLY, false, false}, {O_RDWR | O_APPEND, true, false}};
  for (const auto& mode : modes) {
    const int fd = open_with(mode.flags);
    LogCapture log;
    EXPECT_EQ(kvfs_system_check_mode(fd, false), mode.can_read ? kvfs_ok : kvfs_invalid) << mode.flags;
    EXPECT_EQ(kvfs_system_check_mode(fd, true), mode.can_write ? kvfs_ok : kvfs_invalid) << mode.flags;
    EXPECT_EQ(log.lines().empty(), mode.can_read && mode.can_write);
  }
}

TEST_F(System, DescriptorThatIsNotOpen_IsRefused) {
  LogCapture log;
  EXPECT_EQ(kvfs_system_check_mode(-1, false), kvfs_invalid);
  EXPECT_LOG(log, "ERROR kvfs_system_check_mode Error while looking at file descriptor -1: " + error_text(EBADF));
}

TEST_F(System, LockThatOthersHold_IsNotWaitedFor) {
  const int first = open_for(true);
  const int second = open_for(true);
  LogCapture log;
  bool taken = false;
  EXPECT_EQ(kvfs_system_try_lock(first, false, &taken), kvfs_ok);
  EXPECT_TRUE(taken);
  EXPECT_EQ(kvfs_system_try_lock(second, true, &taken), kvfs_ok);
  EXPECT_FALSE(taken) << "alone, beside a reader";
  EXPECT_EQ(kvfs_system_try_lock(second, false, &taken), kvfs_ok);
  EXPECT_TRUE(taken) << "two readers";
  kvfs_system_unlock(first);
  EXPECT_EQ(kvfs_system_try_lock(second, true, &taken), kvfs_ok);
  EXPECT_TRUE(taken) << "alone at last";
  EXPECT_LOG(log);
}

TEST_F(System, LockThatCannotBeAskedFor_IsAFailure) {
  const int fd = open_for(true);
  LogCapture log;
  bool taken = true;
  {
    FaultInjector faults;
    faults.fail(Call::kFlock, 1, Fault::error_number(ENOLCK));
    EXPECT_EQ(kvfs_system_try_lock(fd, true, &taken), kvfs_failed);
  }
  EXPECT_FALSE(taken);
  EXPECT_LOG(log, "ERROR kvfs_system_try_lock Error while locking file: " + error_text(ENOLCK));
}

TEST_F(System, WritesThatDoNotArrive_AreAnInputError) {
  const int fd = open_for(true);
  EXPECT_EQ(kvfs_system_sync(fd), kvfs_ok);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kFsync, 1, Fault::error_number(EIO));
    EXPECT_EQ(kvfs_system_sync(fd), kvfs_io_error);
  }
  EXPECT_LOG(log, "ERROR kvfs_system_sync Error while waiting for the device: " + error_text(EIO));
}

TEST_F(System, Time_IsTheSystems) {
  const std::time_t before = std::time(nullptr);
  const std::int64_t now = kvfs_system_time();
  EXPECT_LE(before, now);
  EXPECT_LE(now, std::time(nullptr));
}

}  // namespace
}  // namespace kvfs_test
