// The log. The reader-writer lock has a test program of its own.

#include "support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "log_capture.h"

namespace kvfs_test {

// Routines that messages speak for.
void kvfs_first();
void kvfs_second();
void kvfs_third();

namespace {

void log_as_itself() {
  KVFS_ERROR("One %d.\n", 1);
  KVFS_WARNING("Two %s.\n", "x");
  KVFS_CRITICAL("Three.\n");
}

void log_as_another() {
  KVFS_ERROR_AS(kvfs_first, "One %d.\n", 1);
  KVFS_WARNING_AS(kvfs_second, "Two %s.\n", "x");
  KVFS_CRITICAL_AS(kvfs_third, "Three.\n");
}

// Leaves the log at the beginning of a line, whatever a test did.
class Log : public ::testing::Test {
 protected:
  ~Log() override {
    LogCapture ignored;
    kvfs_log("support_test", 1, "end", "ERROR", "\n");
  }
};

// Logged before main runs, so that nothing was logged before it.
const std::string g_first_message = [] {
  LogCapture log;
  kvfs_log("support_test", 217, "kvfs_volume_setup", "ERROR", "Invalid length: %d\n", 300);
  return log.raw();
}();

TEST_F(Log, FirstMessageOfARun_CarriesThePrefix) {
  EXPECT_EQ(g_first_message, "[ERROR: kvfs_volume_setup, line 217] Invalid length: 300\n");
}

TEST_F(Log, Message_IsPrefixedWithLevelFunctionAndLine) {
  LogCapture log;
  kvfs_log("volume", 42, "kvfs_volume_setup", "ERROR", "Invalid signature word for HFS+ volume: 0x%hu\n",
           static_cast<unsigned short>(0x4244));
  EXPECT_EQ(log.raw(), "[ERROR: kvfs_volume_setup, line 42] Invalid signature word for HFS+ volume: 0x16964\n");
}

TEST_F(Log, SourceFileName_IsNotPrinted) {
  LogCapture log;
  kvfs_log("a_rare_file_name", 1, "f", "WARNING", "text\n");
  EXPECT_EQ(log.raw().find("a_rare_file_name"), std::string::npos);
}

TEST_F(Log, LevelText_IsPrintedAsGiven) {
  LogCapture log;
  kvfs_log("file", -3, "f", "NOTICE", "text\n");
  EXPECT_EQ(log.raw(), "[NOTICE: f, line -3] text\n");
}

// Q-log-1
TEST_F(Log, FormatWithoutLineFeed_LetsTheNextMessageContinueTheLine) {
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", "Invalid volume label length: %hu", static_cast<unsigned short>(300));
  kvfs_log("volume", 2, "second", "ERROR", "Error while setting up volume.\n");
  kvfs_log("volume", 3, "third", "ERROR", "Next.\n");
  EXPECT_EQ(log.raw(),
            "[ERROR: first, line 1] Invalid volume label length: 300Error while setting up volume.\n"
            "[ERROR: third, line 3] Next.\n");
}

TEST_F(Log, SeveralMessagesWithoutLineFeed_ShareOneLine) {
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", "a");
  kvfs_log("volume", 2, "second", "CRITICAL", "b");
  kvfs_log("volume", 3, "third", "WARNING", "c\n");
  EXPECT_EQ(log.raw(), "[ERROR: first, line 1] abc\n");
}

TEST_F(Log, EmptyFormatBehindALineFeed_OpensALine) {
  const std::string line_feed = "\n";
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", line_feed.c_str() + 1, 0);
  kvfs_log("volume", 2, "second", "ERROR", "text\n");
  EXPECT_EQ(log.raw(), "[ERROR: first, line 1] text\n");
}

// Q-log-1
TEST_F(Log, LineFeedFromAnArgument_LeavesTheLineOpenAllTheSame) {
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", "text%s", "\n");
  kvfs_log("volume", 2, "second", "ERROR", "more\n");
  EXPECT_EQ(log.raw(), "[ERROR: first, line 1] text\nmore\n");
}

TEST_F(Log, LineFeedWithinTheFormat_DoesNotEndTheMessage) {
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", "one\ntwo");
  kvfs_log("volume", 2, "second", "ERROR", "three\n");
  EXPECT_EQ(log.raw(), "[ERROR: first, line 1] one\ntwothree\n");
}

TEST_F(Log, ArgumentThatEndsTheOutputBehindALineFeed_StillClosesTheLine) {
  LogCapture log;
  kvfs_log("volume", 1, "first", "ERROR", "%s\n", "");
  kvfs_log("volume", 2, "second", "ERROR", "more\n");
  EXPECT_EQ(log.raw(), "[ERROR: first, line 1] \n[ERROR: second, line 2] more\n");
}

TEST_F(Log, Macros_SpeakForTheEnclosingRoutine) {
  LogCapture log;
  log_as_itself();
  EXPECT_LOG(log, "ERROR log_as_itself One 1.\n", "WARNING log_as_itself Two x.\n", "CRITICAL log_as_itself Three.\n");
  ASSERT_EQ(log.lines().size(), 3u);
  EXPECT_EQ(log.lines()[1].line, log.lines()[0].line + 1);
}

TEST_F(Log, MacrosForHelpers_SpeakForTheRoutineNamed) {
  LogCapture log;
  log_as_another();
  EXPECT_LOG(log, "ERROR kvfs_first One 1.\n", "WARNING kvfs_second Two x.\n", "CRITICAL kvfs_third Three.\n");
}

TEST_F(Log, StandardOutput_StaysUntouched) {
  LogCapture log;
  ::testing::internal::CaptureStdout();
  kvfs_log("volume", 1, "first", "ERROR", "text\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(LogConversions, LargestValues_PassThrough) {
  EXPECT_EQ(to_ull(UINT64_MAX), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(to_ul(UINT32_MAX), 0xFFFFFFFFul);
}

}  // namespace
}  // namespace kvfs_test
