// Captures what the code under test writes to standard error, and takes it apart into log lines.
//
//   LogCapture log;
//   const kvfs_result result = kvfs_fork_unmap(...);
//   EXPECT_LOG(log, "ERROR kvfs_fork_unmap Cache item 3 does not exist and cannot be unmapped.\n");
//
// Standard error of the whole process goes to a temporary file while a capture lives; captures nest. finish() gives
// standard error back and keeps the text, and every accessor calls it.

#ifndef KVFS_TEST_LOG_CAPTURE_H
#define KVFS_TEST_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace kvfs_test {

using Lines = std::vector<std::string>;

// One message, or the run of messages that share a line because the first left it open.
struct LogLine {
  std::string level;     // empty for a line without the prefix
  std::string function;  // empty likewise
  int line = 0;          // the caller's line number
  std::string text;      // with the line feed, if one was written
};

// "LEVEL function text", or the text alone for a line without the prefix.
std::string to_string(const LogLine& line);

// Takes captured text apart. Every line that begins with "[LEVEL: function, line N] " is a message.
std::vector<LogLine> parse_log(std::string_view text);

// Whether a line reads as a pattern does, in which "{*}" stands for any characters, such as those of an address.
bool line_matches(std::string_view line, std::string_view pattern);

// The text with "[LEVEL: function, line N] " shortened to "LEVEL function ", so that it can be compared whole.
std::string without_line_numbers(std::string_view text);

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Ends the capture. What follows goes to standard error again.
  void finish();

  const std::string& raw();
  std::vector<LogLine> lines();
  // The lines as to_string() has them.
  std::vector<std::string> texts();
  bool empty() { return raw().empty(); }
  // Whether some line reads "LEVEL function text" with a text that contains the one given.
  bool has(std::string_view level, std::string_view function, std::string_view text_part);

  // Compares the captured lines with the whole list, each element "LEVEL function text" to the letter, line feed
  // included or a pattern of line_matches(), and explains each difference.
  ::testing::AssertionResult matches(const std::vector<std::string>& expected);

 private:
  int saved_ = -1;
  int file_ = -1;
  std::string text_;
};

// Expects the capture to hold exactly the lines given ("LEVEL function text"), in order; none means silence.
#define EXPECT_LOG(capture, ...) EXPECT_TRUE((capture).matches(std::vector<std::string>{__VA_ARGS__}))
#define ASSERT_LOG(capture, ...) ASSERT_TRUE((capture).matches(std::vector<std::string>{__VA_ARGS__}))

}  // namespace kvfs_test

#endif  // KVFS_TEST_LOG_CAPTURE_H
