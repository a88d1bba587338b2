// Every failure of the library's operations, one at a time: the first call of a kind fails, then the second, until the
// operation has no more. No failure is silent, nothing is left behind, and nothing is written but by a flush.
//
// What each failure says in detail is in the tests of the units.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "allocation_fixture.h"
#include "failure_report.h"
#include "library_operations.h"
#include "log_capture.h"

namespace kvfs_test {
namespace {

// ---- Kinds of failure ----------------------------------------------------------------------------------------------

struct Kind {
  const char* name;
  std::set<kvfs_result> results;  // what an operation may give that it ends
};

// Opening a fork gives 2 for whatever fails, and so do the trees and volumes that are opened with it. A lock that
// cannot be destroyed is leaked on purpose; the units' tests look at that.
std::vector<Kind> kinds() {
  return {
      {"memory", {kvfs_no_memory}},
      {"lock made", {kvfs_no_memory}},
      {"attribute made", {kvfs_no_memory}},
      {"attribute set", {kvfs_failed, kvfs_no_memory}},
      {"read lock", {kvfs_failed, kvfs_no_memory}},
      {"write lock", {kvfs_failed, kvfs_no_memory}},
      {"unlock", {kvfs_failed, kvfs_no_memory}},
      {"flock", {kvfs_failed}},
      {"read", {kvfs_io_error, kvfs_no_memory}},
      {"read short", {kvfs_io_error, kvfs_no_memory}},
      {"read nothing", {kvfs_io_error, kvfs_no_memory}},
      {"write", {kvfs_io_error}},
      {"write short", {kvfs_io_error}},
      {"write nothing", {kvfs_io_error}},
  };
}

// ---- The campaign --------------------------------------------------------------------------------------------------

FaultScenario scenario_of(const Operation& operation) {
  FaultScenario scenario = {campaign_volume(operation.extents), operation.prepare, operation.run, {}};
  if (!operation.writes) {
    const Volume image = scenario.image;
    scenario.check = [image](OpenVolume& volume) {
      const FaultInjector::Pause pause;
      EXPECT_EQ(volume.contents(), image);
    };
  }
  return scenario;
}

void expect_success(const Operation& operation, const FaultScenario& scenario) {
  OpenVolume volume(scenario.image);
  if (scenario.prepare) {
    scenario.prepare(volume);
  }
  LogCapture log;
  EXPECT_EQ(operation.run(volume), kvfs_ok);
  EXPECT_LOG(log);
}

class FailureCampaign : public ::testing::TestWithParam<Operation> {};

TEST_P(FailureCampaign, EachFailure_IsReportedAndLeavesNothingBehind) {
  const FaultScenario scenario = scenario_of(GetParam());
  expect_success(GetParam(), scenario);
  std::vector<FailureCount> counts;
  std::set<std::string> got_over;
  bool any = false;
  for (const Kind& kind : kinds()) {
    SCOPED_TRACE(kind.name);
    const std::vector<FailedRun> outcomes = fail_each(failing_calls(kind.name), scenario);
    for (const FailedRun& outcome : outcomes) {
      EXPECT_EQ(outcome.log.empty(), kind.name == GetParam().silent_about) << "result " << outcome.result;
      EXPECT_TRUE(outcome.result == kvfs_ok || kind.results.contains(outcome.result)) << outcome.result;
      if (outcome.result == kvfs_ok) {
        got_over.insert(kind.name);
      }
    }
    counts.push_back({kind.name, outcomes.size()});
    any |= !outcomes.empty();
  }
  EXPECT_EQ(got_over, GetParam().succeeds_despite);
  EXPECT_TRUE(any) << "nothing can fail";
  report_failures(GetParam().name, counts);
}

INSTANTIATE_TEST_SUITE_P(Operations, FailureCampaign, ::testing::ValuesIn(library_operations()), [](const auto& suite) {
  std::string name = suite.param.name;
  std::erase_if(name, [](char c) { return c == ' ' || c == ','; });
  return name;
});

}  // namespace
}  // namespace kvfs_test
