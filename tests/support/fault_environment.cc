// Arms fault injection for a whole program, as environment variables ask:
//
//   KVFS_FAULT=pread64:3:errno=5,malloc:2+   which calls fail, and how
//   KVFS_FAULT_LIMIT=1048576                 refuses allocations of more bytes
//   KVFS_MOUNTS=file                         stands for /proc/mounts
//   KVFS_MOUNTS_ENCODED=any                  getmntent leaves devices as they are written there
//   KVFS_TRACE=file                          records the file calls, a line for each, and the balance at exit:
//                                            "exit allocations=N bytes=N peak=N locks=N delivered=N"
//
// Linked into a program besides its own sources; the program itself knows nothing of it.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "fault_injection.h"

namespace {

constexpr int kBadEnvironment = 99;

[[noreturn]] void refuse(const char* variable) {
  std::fprintf(stderr, "%s is not understood\n", variable);
  _exit(kBadEnvironment);
}

class Environment {
 public:
  Environment() {
    const kvfs_test::FaultInjector::Pause pause;
    const char* const text = std::getenv("KVFS_FAULT");
    if (text != nullptr && !kvfs_test::add_faults_from_text(faults_, text)) {
      refuse("KVFS_FAULT");
    }
    const char* const limit = std::getenv("KVFS_FAULT_LIMIT");
    if (limit != nullptr) {
      char* end = nullptr;
      faults_.refuse_allocations_above(static_cast<std::size_t>(std::strtoull(limit, &end, 10)));
      if (*limit == '\0' || *end != '\0') {
        refuse("KVFS_FAULT_LIMIT");
      }
    }
    const char* const mounts = std::getenv("KVFS_MOUNTS");
    if (mounts != nullptr) {
      kvfs_test::redirect_fopen64("/proc/mounts", mounts);
    }
    kvfs_test::leave_mounts_encoded(std::getenv("KVFS_MOUNTS_ENCODED") != nullptr);
    const char* const path = std::getenv("KVFS_TRACE");
    if (path != nullptr) {
      trace_ = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
      if (trace_ < 0) {
        refuse("KVFS_TRACE");
      }
      kvfs_test::trace_calls_to(trace_);
    }
  }

  ~Environment() {
    const kvfs_test::FaultInjector::Pause pause;
    if (trace_ >= 0) {
      dprintf(trace_, "exit allocations=%zu bytes=%zu peak=%zu locks=%ld delivered=%lu\n",
              faults_.outstanding_allocations(), faults_.outstanding_bytes(), faults_.peak_bytes(),
              faults_.locks_held() + faults_.locks_alive(), faults_.delivered());
      kvfs_test::trace_calls_to(-1);
      close(trace_);
    }
  }

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  kvfs_test::FaultInjector faults_;
  int trace_ = -1;
};

const Environment g_environment;

}  // namespace
