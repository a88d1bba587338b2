#include "log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <utility>

namespace kvfs_test {
namespace {

// Stands in an expected text for any run of characters, such as an address.
constexpr std::string_view kAnything = "{*}";

[[noreturn]] void fail(const char* step) {
  std::perror(step);
  std::abort();
}

int open_temporary_file() {
  const char* const folder = std::getenv("TMPDIR");
  std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/kvfs-log-XXXXXX";
  const int file = mkostemp(path.data(), O_CLOEXEC);
  if (file < 0) {
    fail("log capture: temporary file");
  }
  unlink(path.c_str());
  return file;
}

std::string read_whole(int file) {
  std::string text;
  std::array<char, 4096> part;
  lseek(file, 0, SEEK_SET);
  for (;;) {
    const ssize_t count = read(file, part.data(), part.size());
    if (count < 0) {
      fail("log capture: reading back");
    }
    if (count == 0) {
      return text;
    }
    text.append(part.data(), static_cast<std::size_t>(count));
  }
}

// Takes "[LEVEL: function, line N] " off the front. Nothing when the text does not begin with it.
std::optional<LogLine> take_prefix(std::string_view& text) {
  constexpr std::array<std::string_view, 3> kLevels = {"ERROR", "WARNING", "CRITICAL"};
  constexpr std::string_view kLineMark = ", line ";
  const std::size_t colon = text.find(": ");
  const std::size_t mark = text.find(kLineMark);
  const std::size_t close = text.find("] ");
  if (!text.starts_with('[') || colon == std::string_view::npos || mark == std::string_view::npos ||
      close == std::string_view::npos || mark < colon || close < mark) {
    return std::nullopt;
  }
  LogLine line;
  line.level = text.substr(1, colon - 1);
  line.function = text.substr(colon + 2, mark - colon - 2);
  const char* const first = text.data() + mark + kLineMark.size();
  const char* const last = text.data() + close;
  const auto [end, error] = std::from_chars(first, last, line.line);
  if (error != std::errc() || end != last || std::find(kLevels.begin(), kLevels.end(), line.level) == kLevels.end()) {
    return std::nullopt;
  }
  text.remove_prefix(close + 2);
  return line;
}

// The text in quotes, with line feeds and other control characters made visible.
std::string in_quotes(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '\n') {
      result += "\\n";
    } else if (static_cast<unsigned char>(c) < 0x20) {
      std::array<char, 5> escape;
      std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(c));
      result += escape.data();
    } else {
      result += c;
    }
  }
  return result + "\"";
}

}  // namespace

std::string to_string(const LogLine& line) {
  return line.level.empty() ? line.text : line.level + " " + line.function + " " + line.text;
}

std::vector<LogLine> parse_log(std::string_view text) {
  std::vector<LogLine> lines;
  while (!text.empty()) {
    LogLine line = take_prefix(text).value_or(LogLine());
    const std::size_t feed = text.find('\n');
    const std::size_t size = feed == std::string_view::npos ? text.size() : feed + 1;
    line.text = text.substr(0, size);
    text.remove_prefix(size);
    lines.push_back(std::move(line));
  }
  return lines;
}

bool line_matches(std::string_view line, std::string_view pattern) {
  const std::size_t at = pattern.find(kAnything);
  if (at == std::string_view::npos) {
    return line == pattern;
  }
  if (!line.starts_with(pattern.substr(0, at))) {
    return false;
  }
  const std::string_view rest = pattern.substr(at + kAnything.size());
  for (std::size_t i = at; i <= line.size(); i++) {
    if (line_matches(line.substr(i), rest)) {
      return true;
    }
  }
  return false;
}

std::string without_line_numbers(std::string_view text) {
  std::string result;
  for (const LogLine& line : parse_log(text)) {
    result += to_string(line);
  }
  return result;
}

LogCapture::LogCapture() : file_(open_temporary_file()) {
  std::fflush(stderr);
  saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (saved_ < 0 || dup2(file_, STDERR_FILENO) < 0) {
    fail("log capture: redirecting standard error");
  }
}

LogCapture::~LogCapture() {
  finish();
}

void LogCapture::finish() {
  if (file_ < 0) {
    return;
  }
  std::fflush(stderr);
  if (dup2(saved_, STDERR_FILENO) < 0) {
    fail("log capture: giving standard error back");
  }
  text_ = read_whole(file_);
  close(saved_);
  close(file_);
  file_ = -1;
}

const std::string& LogCapture::raw() {
  finish();
  return text_;
}

std::vector<LogLine> LogCapture::lines() {
  return parse_log(raw());
}

std::vector<std::string> LogCapture::texts() {
  std::vector<std::string> texts;
  for (const LogLine& line : lines()) {
    texts.push_back(to_string(line));
  }
  return texts;
}

bool LogCapture::has(std::string_view level, std::string_view function, std::string_view text_part) {
  const std::vector<LogLine> all = lines();
  return std::any_of(all.begin(), all.end(), [&](const LogLine& line) {
    return line.level == level && line.function == function && line.text.find(text_part) != std::string::npos;
  });
}

::testing::AssertionResult LogCapture::matches(const std::vector<std::string>& expected) {
  const std::vector<LogLine> actual = lines();
  std::string explanation;
  bool same = true;
  for (std::size_t i = 0; i < std::max(actual.size(), expected.size()); i++) {
    const std::string got = i < actual.size() ? to_string(actual[i]) : std::string();
    if (i < actual.size() && i < expected.size() && line_matches(got, expected[i])) {
      explanation += "       " + in_quotes(got) + "\n";
      continue;
    }
    same = false;
    if (i < expected.size()) {
      explanation += "  want " + in_quotes(expected[i]) + "\n";
    }
    if (i < actual.size()) {
      explanation += "  got  " + in_quotes(got) + "\n";
    }
  }
  if (same) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "the log differs:\n" << explanation;
}

}  // namespace kvfs_test
