// What printing a label costs: wall time, reads from the device and peak memory of the tool, on a small volume, on one
// with 200,000 catalog records and on one of 1 TiB. Reads and memory should not depend on a volume's size but for the
// height of its catalog's tree.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

#include "fault_injection.h"
#include "open_volume.h"
#include "volume_builder.h"

namespace {

using kvfs_test::VolumeDescription;

// A volume in a file that is gone when the program ends.
class VolumeFile {
 public:
  VolumeFile(std::uint32_t files, std::uint64_t size) : path_("/tmp/kvfs-bench-XXXXXX") {
    VolumeDescription description;
    (void)description.add_files(kvfs_test::kRootFolderId, files);
    description.size = size;
    const int fd = mkstemp(path_.data());
    if (fd < 0) {
      throw std::system_error(errno, std::generic_category(), path_);
    }
    close(fd);
    kvfs_test::build_volume(description).write_to(path_);
  }
  ~VolumeFile() { unlink(path_.c_str()); }
  VolumeFile(const VolumeFile&) = delete;
  VolumeFile& operator=(const VolumeFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Runs the tool to its end with its output thrown away; false when it fails.
bool run_tool(const std::string& path) {
  std::string program = KVFSLABEL_PATH;
  std::string device = path;
  char* const arguments[] = {program.data(), device.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return spawned == 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

// The most memory, in KiB, that a process has had in use since it began to run its program.
double resident_peak(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string word;
  double peak = -1;
  while (status >> word) {
    if (word == "VmHWM:") {
      status >> peak;
    }
  }
  return peak;
}

// The peak memory of the tool in KiB. It is looked at when the tool is about to end; what getrusage says of a process
// includes what its parent had in use.
double peak_memory(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = open("/dev/null", O_WRONLY);
    dup2(out, STDOUT_FILENO);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execl(KVFSLABEL_PATH, KVFSLABEL_PATH, path.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  double peak = -1;
  if (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {  // its program has just been loaded
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT);
    ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    if (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
      peak = resident_peak(pid);
      ptrace(PTRACE_CONT, pid, nullptr, nullptr);
      waitpid(pid, &status, 0);
    }
  }
  return peak;
}

// Reads from the device, and the most memory allocated at once, while a volume is opened the way the tool does it.
struct OpeningCost {
  double reads;
  double peak_bytes;
};

OpeningCost opening_cost(const std::string& path) {
  kvfs_test::FaultInjector calls;
  {
    const kvfs_test::TestDevice device(path);
    const kvfs_test::OpenVolume volume(device, kvfs_test::kWithoutAllocationFile);
  }
  return {static_cast<double>(calls.count(kvfs_test::Call::kPread64)), static_cast<double>(calls.peak_bytes())};
}

void print_label(benchmark::State& state, std::uint32_t files, std::uint64_t size) {
  const VolumeFile volume(files, size);
  for (auto iteration : state) {
    (void)iteration;
    if (!run_tool(volume.path())) {
      state.SkipWithError("the tool failed");
      break;
    }
  }
  const OpeningCost cost = opening_cost(volume.path());
  state.counters["device_reads"] = cost.reads;
  state.counters["allocated_KiB"] = cost.peak_bytes / 1024;
  state.counters["resident_KiB"] = peak_memory(volume.path());
}

constexpr std::uint64_t kTebibyte = std::uint64_t{1} << 40;

// Each file has two catalog records, its own and its thread.
BENCHMARK_CAPTURE(print_label, small, 10, 0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(print_label, records_200000, 100000, 0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(print_label, tebibyte, 10, kTebibyte)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
