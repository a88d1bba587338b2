#include "log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace kvfs_test {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;

TEST(LogCapture, NothingWritten_IsSilent) {
  LogCapture log;
  EXPECT_TRUE(log.empty());
  EXPECT_LOG(log);
}

TEST(LogCapture, LogLine_IsTakenApart) {
  LogCapture log;
  std::fputs("[ERROR: kvfs_fork_map, line 217] Item 3 is missing: no, line 5] really.\n", stderr);
  const std::vector<LogLine> lines = log.lines();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_EQ(lines[0].level, "ERROR");
  EXPECT_EQ(lines[0].function, "kvfs_fork_map");
  EXPECT_EQ(lines[0].line, 217);
  EXPECT_EQ(lines[0].text, "Item 3 is missing: no, line 5] really.\n");
}

TEST(LogCapture, SeveralLines_KeepTheirOrder) {
  LogCapture log;
  std::fputs("[WARNING: first, line 1] One.\nplain text\n[CRITICAL: second, line 22] Two: [x]\n", stderr);
  EXPECT_LOG(log, "WARNING first One.\n", "plain text\n", "CRITICAL second Two: [x]\n");
}

TEST(LogCapture, LineLeftOpen_RunsIntoTheNextMessage) {
  LogCapture log;
  std::fputs("[ERROR: setup, line 9] Invalid length: 300", stderr);
  std::fputs("Error while setting up.\n", stderr);
  EXPECT_LOG(log, "ERROR setup Invalid length: 300Error while setting up.\n");
}

TEST(LogCapture, MissingLineFeedAtTheEnd_IsSeen) {
  LogCapture log;
  std::fputs("[ERROR: setup, line 9] Invalid length: 300", stderr);
  EXPECT_FALSE(log.matches({"ERROR setup Invalid length: 300\n"}));
  EXPECT_TRUE(log.matches({"ERROR setup Invalid length: 300"}));
}

TEST(LogCapture, WrittenThroughTheDescriptor_IsCaptured) {
  LogCapture log;
  ASSERT_EQ(write(STDERR_FILENO, "direct\n", 7), 7);
  EXPECT_EQ(log.raw(), "direct\n");
}

TEST(LogCapture, MoreThanAPipeHolds_IsCapturedWhole) {
  LogCapture log;
  const std::string line(1023, 'x');
  for (int i = 0; i < 256; i++) {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  EXPECT_EQ(log.raw().size(), 256u * 1024u);
}

TEST(LogCapture, AfterFinish_StandardErrorIsTheOldOne) {
  LogCapture outer;
  LogCapture inner;
  std::fputs("inner\n", stderr);
  inner.finish();
  std::fputs("outer\n", stderr);
  EXPECT_EQ(inner.raw(), "inner\n");
  EXPECT_EQ(outer.raw(), "outer\n");
}

TEST(LogCapture, EndOfScope_GivesStandardErrorBack) {
  LogCapture outer;
  {
    LogCapture inner;
    std::fputs("inner\n", stderr);
  }
  std::fputs("outer\n", stderr);
  EXPECT_EQ(outer.raw(), "outer\n");
}

TEST(LogCapture, Has_LooksForLevelFunctionAndPartOfTheText) {
  LogCapture log;
  std::fputs("[ERROR: kvfs_fork_map, line 217] Item 3 is missing.\n", stderr);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_map", "Item 3"));
  EXPECT_FALSE(log.has("WARNING", "kvfs_fork_map", "Item 3"));
  EXPECT_FALSE(log.has("ERROR", "kvfs_fork_read", "Item 3"));
  EXPECT_FALSE(log.has("ERROR", "kvfs_fork_map", "Item 4"));
}

TEST(LogMatches, AnyDifference_IsExplained) {
  LogCapture log;
  std::fputs("[ERROR: one, line 1] A\n[ERROR: two, line 2] B\n", stderr);
  EXPECT_FALSE(log.matches({}));
  EXPECT_FALSE(log.matches({"ERROR one A\n"}));
  EXPECT_FALSE(log.matches({"ERROR one A\n", "ERROR two B\n", "ERROR three C\n"}));
  EXPECT_FALSE(log.matches({"ERROR two B\n", "ERROR one A\n"}));
  const ::testing::AssertionResult result = log.matches({"ERROR one A\n", "ERROR two C\n"});
  EXPECT_FALSE(result);
  EXPECT_THAT(result.message(), HasSubstr("       \"ERROR one A\\n\"\n"
                                          "  want \"ERROR two C\\n\"\n"
                                          "  got  \"ERROR two B\\n\"\n"));
}

TEST(LogMatches, Placeholder_StandsForAnyText) {
  LogCapture log;
  std::fputs("[ERROR: read, line 1] buffer 0x7ffd12: failed (5)\n", stderr);
  EXPECT_LOG(log, "ERROR read buffer {*}: failed (5)\n");
  EXPECT_LOG(log, "ERROR read {*}buffer {*}\n");
  EXPECT_FALSE(log.matches({"ERROR read buffer {*}: failed (6)\n"}));
  EXPECT_FALSE(log.matches({"ERROR write buffer {*}\n"}));
}

TEST(ParseLog, AlmostAPrefix_IsPlainText) {
  for (const char* const text : {"[NOTICE: f, line 1] x\n", "[ERROR: f, line x] x\n", "[ERROR f, line 1] x\n",
                                 "[ERROR: f, line 1]x\n", "ERROR: f, line 1] x\n", "[ERROR: f line 1] x\n", "["}) {
    const std::vector<LogLine> lines = parse_log(text);
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].level, "");
    EXPECT_EQ(lines[0].text, text);
  }
}

TEST(WithoutLineNumbers, MixedText_KeepsAllElse) {
  EXPECT_EQ(without_line_numbers("[ERROR: a, line 12] One.\nusage\n[WARNING: b, line 3] Two"),
            "ERROR a One.\nusage\nWARNING b Two");
}

}  // namespace
}  // namespace kvfs_test
