#include "tool_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "log_capture.h"

namespace kvfs_test {

std::ostream& operator<<(std::ostream& stream, const ToolRun& run) {
  return stream << "status " << run.status << "\n--- standard output\n"
                << run.out << "\n--- standard error\n"
                << run.err << "---";
}

ToolRun printed(const std::string& out) {
  return {0, out, ""};
}

ToolRun failed(const std::string& err) {
  return {1, "", err};
}

// ---- Files ---------------------------------------------------------------------------------------------------------

ScratchFile::ScratchFile(const std::string& content) : path_(::testing::TempDir() + "kvfs-tool-XXXXXX") {
  const int fd = mkostemp(path_.data(), O_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), path_);
  }
  close(fd);
  std::ofstream(path_, std::ios::binary) << content;
}

ScratchFile::ScratchFile(const SparseImage& image) : ScratchFile(std::string()) {
  image.write_to(path_);
}

ScratchFile::~ScratchFile() {
  unlink(path_.c_str());
}

std::string ScratchFile::content() const {
  std::ostringstream text;
  text << std::ifstream(path_, std::ios::binary).rdbuf();
  return text.str();
}

// ---- Programs ------------------------------------------------------------------------------------------------------

static std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// The environment of this process with some variables more.
static std::vector<std::string> environment_with(const std::map<std::string, std::string>& more) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (more.count(text.substr(0, text.find('='))) == 0) {
      all.push_back(text);
    }
  }
  for (const auto& [name, value] : more) {
    all.push_back(std::string(name).append("=").append(value));
  }
  return all;
}

// Runs in the child: only calls that are safe between vfork and exec.
[[noreturn]] static void become(char* const* arguments, char* const* environment, const char* out, const char* err,
                                const std::vector<int>& closed) {
  const int in = open("/dev/null", O_RDONLY);
  const int out_fd = open(out, O_WRONLY | O_TRUNC);
  const int err_fd = open(err, O_WRONLY | O_TRUNC);
  if (in < 0 || out_fd < 0 || err_fd < 0 || dup2(in, 0) < 0 || dup2(out_fd, 1) < 0 || dup2(err_fd, 2) < 0) {
    _exit(126);
  }
  for (const int fd : {in, out_fd, err_fd}) {
    if (fd > 2) {
      close(fd);
    }
  }
  for (const int fd : closed) {
    close(fd);
  }
  execvpe(arguments[0], arguments, environment);
  _exit(127);
}

// The words between blanks. A backslash keeps what is behind it in the word.
static std::vector<std::string> words_of(const std::string& text) {
  std::vector<std::string> words(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ') {
      words.emplace_back();
    } else {
      i += text[i] == '\\' && i + 1 < text.size() ? 1 : 0;
      words.back() += text[i];
    }
  }
  std::erase(words, "");
  return words;
}

// The words that start a program. What has a path was built for the target, which may need an emulator here; the rest
// are programs of this machine.
static std::vector<std::string> command_of(const std::string& program) {
  const char* const other_tool = std::getenv("KVFSLABEL_COMMAND");
  if (other_tool != nullptr && program == KVFSLABEL_PATH) {
    return words_of(other_tool);
  }
  std::vector<std::string> words;
  if (program.find('/') != std::string::npos) {
    words = words_of(KVFS_EMULATOR);
  }
  words.push_back(program);
  return words;
}

// Limits what this process, about to become another program, may use.
static void limit(__rlimit_resource resource, std::uint64_t value) {
  const rlimit limits = {static_cast<rlim_t>(value), static_cast<rlim_t>(value)};
  if (value != 0 && setrlimit(resource, &limits) != 0) {
    _exit(126);
  }
}

RunningTool::RunningTool(const std::string& program, const std::vector<std::string>& arguments,
                         const RunOptions& options) {
  std::vector<std::string> words = command_of(program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environment_with(options.environment);
  const std::vector<char*> argv = pointers_to(words);
  const std::vector<char*> envp = pointers_to(variables);
  const std::string out = options.out_path.empty() ? out_.path() : options.out_path;
  // It borrows this process's memory until it is another program: a copy of what a sanitizer maps takes tens of
  // milliseconds.
  const pid_t pid = vfork();
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "vfork");
  }
  if (pid == 0) {
    limit(RLIMIT_AS, words.size() == arguments.size() + 1 ? options.memory : 0);
    limit(RLIMIT_CPU, options.seconds);
    become(argv.data(), envp.data(), out.c_str(), err_.path().c_str(), options.closed);
  }
  pid_ = pid;
}

RunningTool::~RunningTool() {
  if (!ended_) {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, &wait_status_, 0);
  }
}

bool RunningTool::has_ended() {
  ended_ = ended_ || waitpid(pid_, &wait_status_, WNOHANG) == pid_;
  return ended_;
}

ToolRun RunningTool::finish() {
  if (!ended_) {
    EXPECT_EQ(waitpid(pid_, &wait_status_, 0), pid_);
    ended_ = true;
  }
  ToolRun run;
  run.status = WIFEXITED(wait_status_) ? WEXITSTATUS(wait_status_) : 1000 + WTERMSIG(wait_status_);
  run.out = out_.content();
  run.err = without_line_numbers(err_.content());
  return run;
}

HeldLock::HeldLock(const std::string& path, int operation) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  EXPECT_EQ(flock(fd_, operation), 0);
}

void HeldLock::release() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
}

bool comes_to_wait(RunningTool& tool) {
  while (!tool.has_ended()) {
    std::ifstream locks("/proc/locks");
    std::string line;
    while (std::getline(locks, line)) {
      const bool waits = line.find("->") != std::string::npos;
      if (waits && line.find(" " + std::to_string(tool.pid()) + " ") != std::string::npos) {
        return true;
      }
    }
    usleep(1000);
  }
  return false;
}

ToolRun run_program(const std::string& program, const std::vector<std::string>& arguments, const RunOptions& options) {
  RunningTool running(program, arguments, options);
  return running.finish();
}

std::string tool_command() {
  std::string command;
  for (const std::string& word : command_of(KVFSLABEL_PATH)) {
    command += (command.empty() ? "'" : " '") + word + "'";
  }
  return command;
}

ToolRun run_tool(const std::vector<std::string>& arguments, const RunOptions& options) {
  return run_program(KVFSLABEL_PATH, arguments, options);
}

// ---- Traces --------------------------------------------------------------------------------------------------------

static std::map<std::string, long> balance_of(const std::string& line) {
  std::map<std::string, long> balance;
  std::istringstream words(line);
  std::string word;
  while (words >> word) {
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      balance[word.substr(0, equals)] = std::stol(word.substr(equals + 1));
    }
  }
  return balance;
}

std::vector<std::string> TracedRun::calls_of(const std::string& name) const {
  std::vector<std::string> found;
  for (const std::string& call : calls) {
    if (call.starts_with(name)) {
      found.push_back(call);
    }
  }
  return found;
}

bool TracedRun::met_fault() const {
  const auto delivered = balance.find("delivered");
  EXPECT_TRUE(delivered != balance.end()) << "nothing was traced: " << run;
  return delivered != balance.end() && delivered->second != 0;
}

unsigned long fail_each(const FailingCalls& failing, const std::function<TracedRun(const std::string& fault)>& run) {
  return count_failures([&](unsigned long n) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, failing.text(n));
    return run(failing.text(n)).met_fault();
  });
}

TracedRun run_traced(const std::vector<std::string>& arguments, const std::string& faults, RunOptions options) {
  const ScratchFile trace;
  options.environment["KVFS_TRACE"] = trace.path();
  if (!faults.empty()) {
    options.environment["KVFS_FAULT"] = faults;
  }
  TracedRun traced;
  traced.run = run_program(KVFSLABEL_FAULTY_PATH, arguments, options);
  std::istringstream lines(trace.content());
  std::string line;
  while (std::getline(lines, line)) {
    if (line.starts_with("exit ")) {
      traced.balance = balance_of(line);
    } else {
      traced.calls.push_back(line);
    }
  }
  return traced;
}

bool has_program(const std::string& name) {
  const char* const variable = std::getenv("PATH");
  std::istringstream folders(std::string(variable == nullptr ? "" : variable) + ":/usr/sbin:/sbin");
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    if (access(std::string(folder).append("/").append(name).c_str(), X_OK) == 0) {
      return true;
    }
  }
  return false;
}

bool may_mount() {
  return run_program("unshare", {"--map-root-user", "--mount", "mount", "-t", "tmpfs", "tmpfs", "/mnt"}).status == 0;
}

bool in_ci() {
  const char* const variable = std::getenv("CI");
  return variable != nullptr && std::string(variable) == "true";
}

}  // namespace kvfs_test
