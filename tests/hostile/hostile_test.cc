// Volumes made to hurt whoever opens them: each has its story. The tool is run on them, to print and to set, with
// 64 MiB of memory and ten seconds of processor time, and has to come to its end with a clear message.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "hostile_stories.h"
#include "tool_runner.h"

namespace kvfs_test {
namespace {

// ---- Running within limits -----------------------------------------------------------------------------------------

// A sanitizer reserves more address space than any limit leaves it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLimitMemory = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kLimitMemory = false;
#else
constexpr bool kLimitMemory = true;
#endif
#else
constexpr bool kLimitMemory = true;
#endif

// 64 MiB, and 16 for the program, its libraries and its stack.
constexpr std::uint64_t kMemory = std::uint64_t{80} << 20;
constexpr unsigned kSeconds = 10;

ToolRun run_limited(const std::vector<std::string>& arguments) {
  return run_tool(arguments, {.memory = kLimitMemory ? kMemory : 0, .seconds = kSeconds});
}

// ---- What becomes of them ------------------------------------------------------------------------------------------

class Hostile : public ::testing::TestWithParam<Story> {};

void expect_outcome(const ToolRun& run, const std::string& message, const std::string& printed) {
  if (message.empty()) {
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, printed);
    EXPECT_EQ(run.err, "");
  } else {
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.substr(0, message.size()), message) << run;
  }
}

// The time is told, and judged by whoever reads it.
template <typename Run>
ToolRun timed(const char* what, const Run& run) {
  const auto begin = std::chrono::steady_clock::now();
  ToolRun result = run();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
  ::testing::Test::RecordProperty(std::string(what) + "_ms", std::to_string(taken.count()));
  return result;
}

// X-btree-4, X-btree-17, X-fork-1
TEST_P(Hostile, Volume_EndsWithinItsLimitsAndIsLeftAlone) {
  const Volume before = GetParam().volume();
  const ScratchFile image(before);
  expect_outcome(timed("print", [&] { return run_limited({image.path()}); }), GetParam().printing, "Untitled\n");
  EXPECT_TRUE(image.volume() == before);
  expect_outcome(timed("set", [&] { return run_limited({image.path(), GetParam().label}); }), GetParam().setting, "");
  EXPECT_EQ(image.volume() == before, !GetParam().setting.empty());
}

INSTANTIATE_TEST_SUITE_P(Stories, Hostile, ::testing::ValuesIn(stories()),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace kvfs_test
