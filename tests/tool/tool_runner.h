// Runs the built programs and looks at what they leave behind.
//
//   const ScratchFile image(build_volume(description));
//   const ToolRun run = run_tool({image.path()});
//   EXPECT_EQ(run, printed("Untitled\n"));

#ifndef KVFS_TOOL_RUNNER_H
#define KVFS_TOOL_RUNNER_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "fail_each.h"
#include "sparse_image.h"
#include "volume_image.h"

namespace kvfs_test {

// How a program ended and what it wrote. Line numbers are taken out of log lines: "LEVEL function text".
struct ToolRun {
  int status = -1;  // exit status; 1000 + signal when it was killed
  std::string out;
  std::string err;

  friend bool operator==(const ToolRun&, const ToolRun&) = default;
};

std::ostream& operator<<(std::ostream& stream, const ToolRun& run);

// A run that prints, and one that fails with these messages and prints nothing.
ToolRun printed(const std::string& out);
ToolRun failed(const std::string& err);

// A file in the folder for temporary files, gone when the object is.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content = "");
  explicit ScratchFile(const SparseImage& image);
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string content() const;
  [[nodiscard]] Volume volume() const { return Volume::load(path_); }

 private:
  std::string path_;
};

// How a program is run.
struct RunOptions {
  std::map<std::string, std::string> environment = {};  // besides what the test has
  std::string out_path = {};                            // where standard output goes instead of into ToolRun::out
  std::vector<int> closed = {};                         // descriptors that are closed before the program begins
  std::uint64_t memory = 0;  // bytes of address space, 0: any; an emulator gets as much as it likes
  unsigned seconds = 0;      // of processor time, 0: any
};

// A program on its way. finish() waits for its end; the destructor kills one that still runs.
class RunningTool {
 public:
  RunningTool(const std::string& program, const std::vector<std::string>& arguments, const RunOptions& options = {});
  ~RunningTool();
  RunningTool(const RunningTool&) = delete;
  RunningTool& operator=(const RunningTool&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool has_ended();
  ToolRun finish();

 private:
  ScratchFile out_;
  ScratchFile err_;
  pid_t pid_ = -1;
  int wait_status_ = 0;
  bool ended_ = false;
};

ToolRun run_program(const std::string& program, const std::vector<std::string>& arguments,
                    const RunOptions& options = {});

// The tool as it is shipped. The environment variable KVFSLABEL_COMMAND names another build of it to be run in its
// place, an emulator before its path included; a blank within a word has a backslash before it.
ToolRun run_tool(const std::vector<std::string>& arguments, const RunOptions& options = {});
// What starts it, for a shell that splits the text into words.
std::string tool_command();

// The same tool with faults injected ("" for none), as KVFS_FAULT has them, and a record of its calls.
struct TracedRun {
  ToolRun run;
  std::vector<std::string> calls;       // "open64 PATH flags=0 = 3", ... without the last line
  std::map<std::string, long> balance;  // of the last line: allocations, bytes, peak, locks, delivered

  // Calls that begin with this text.
  [[nodiscard]] std::vector<std::string> calls_of(const std::string& name) const;
  // Whether a call was there to fail.
  [[nodiscard]] bool met_fault() const;
};

TracedRun run_traced(const std::vector<std::string>& arguments, const std::string& faults = "",
                     RunOptions options = {});

// Lets each call of the tool fail in turn: `run` gets one fault after the other, runs the tool with it and hands on
// what came of that, until one is not met. Returns how many were.
unsigned long fail_each(const FailingCalls& failing, const std::function<TracedRun(const std::string& fault)>& run);

// The lock of another user of a file: one that this process takes.
class HeldLock {
 public:
  HeldLock(const std::string& path, int operation);
  ~HeldLock() { release(); }
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;

  void release();

 private:
  int fd_;
};

// Returns once the process waits for a lock on a file, as the kernel's table of locks shows, or false when it ends
// instead.
bool comes_to_wait(RunningTool& tool);

// Whether a program is there to be run.
bool has_program(const std::string& name);

// ---- What a machine may lack ----------------------------------------------------------------------------------------

// Whether this machine gives the right to mount something on /mnt, in a mount namespace of its own. Containers in their
// default settings do not, nor does a changed root.
bool may_mount();
// Whether the environment variable CI is "true": what a machine lacks is a failure there, lest a case be lost unseen.
bool in_ci();

// Ends a case as skipped where the condition does not hold, or as failed where nothing may be skipped.
#define KVFS_NEEDS(condition, what)         \
  if (!(condition) && in_ci()) {            \
    FAIL() << "needs " what;                \
  }                                         \
  if (!(condition)) {                       \
    GTEST_SKIP() << "skipped: needs " what; \
  }                                         \
  static_assert(true, "for the semicolon")

}  // namespace kvfs_test

#endif  // KVFS_TOOL_RUNNER_H
