// Every failure that a run of the tool can meet, one at a time: the first call of a kind fails, then the second, until
// the run has no more. A run that fails says so, prints nothing and leaves the image alone unless it began to write;
// one that succeeds has done all of its work. Nothing is left behind.
//
// What each failure says in detail is in print_test and set_faults_test.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "failure_report.h"
#include "tool_runner.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// ---- Kinds of failure ----------------------------------------------------------------------------------------------

struct Kind {
  const char* name;
  bool can_succeed = false;       // some of these failures are got over,
  bool can_be_silent = false;     // and some of those are of no interest to a user
  bool leaves_something = false;  // what cannot be destroyed is left over
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {.name = "memory"},
      {.name = "lock made"},
      {.name = "attribute made"},
      {.name = "attribute set"},
      {.name = "attribute destroyed", .can_succeed = true, .can_be_silent = true},
      {.name = "read lock"},
      {.name = "write lock", .can_succeed = true},  // a locator stays until its tree goes
      {.name = "unlock", .can_succeed = true},
      {.name = "lock destroyed", .can_succeed = true, .leaves_something = true},
      {.name = "fopen"},
      {.name = "open"},
      {.name = "flock", .can_succeed = true, .can_be_silent = true},  // the second unlocks before closing
      {.name = "read"},
      {.name = "read short"},
      {.name = "read nothing"},
      {.name = "write"},
      {.name = "device full"},
      {.name = "write short"},
      {.name = "write nothing"},
  };
  return all;
}

// ---- Operations ----------------------------------------------------------------------------------------------------

struct Operation {
  const char* name;
  std::vector<std::string> options;
  std::string label;        // to be set; "" prints the label
  bool first_leaf_is_full;  // so that a set splits it
  std::uint32_t extents;    // of the catalog; those beyond eight are in the overflow file
};

std::vector<Operation> operations() {
  return {
      {"print", {}, "", false, 1},
      {"print, raw", {"--output-mode=raw"}, "", false, 1},
      {"print, twelve extents", {}, "", false, 12},
      {"set", {}, "Backup", false, 1},
      {"set, split, twelve extents", {}, std::string(100, 'L'), true, 12},
  };
}

Volume volume_for(const Operation& operation) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 60);
  description.catalog.extent_count = operation.extents;
  if (operation.first_leaf_is_full) {
    description.catalog.leaf_fill[0].free_bytes = 0;
  }
  return build_volume(description);
}

class ToolCampaign : public ::testing::TestWithParam<Operation> {
 protected:
  ToolCampaign() : before_(volume_for(GetParam())), image_(before_), arguments_(GetParam().options) {
    arguments_.push_back(image_.path());
    if (!GetParam().label.empty()) {
      arguments_.push_back(GetParam().label);
    }
    options_.environment["ASAN_OPTIONS"] = "detect_leaks=0";  // what is left over is counted here, in every run
    complete_run_ = run_tool(arguments_);
    EXPECT_EQ(complete_run_.status, 0);
    EXPECT_EQ(complete_run_.err, "");
    complete_ = image_.volume();
  }

  void expect_sound(const TracedRun& traced, const Kind& kind) {
    const ToolRun& run = traced.run;
    const Volume after = image_.volume();
    EXPECT_TRUE(!run.err.empty() || (kind.can_be_silent && run.status == 0));
    if (run.status == 0) {
      // What a split reads of the node before the one that it claims is of no consequence when it cannot be read.
      EXPECT_TRUE(kind.can_succeed || run.err.find("ERROR kvfs_fork_read ") != std::string::npos);
      EXPECT_EQ(run.out, complete_run_.out);
      EXPECT_TRUE(after == complete_);
    } else {
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.out, "");
      EXPECT_TRUE(after == before_ || !traced.calls_of("pwrite64 ").empty());
    }
    if (!kind.leaves_something) {
      EXPECT_EQ(traced.balance.at("allocations"), 0);
    }
    EXPECT_EQ(traced.balance.at("locks"), kind.leaves_something ? 1 : 0);
  }

  // Lets each call of a kind fail and tells how many there are.
  unsigned long fail_calls(const Kind& kind) {
    return fail_each(failing_calls(kind.name), [&](const std::string& fault) {
      before_.write_to(image_.path());
      TracedRun traced = run_traced(arguments_, fault, options_);
      if (traced.met_fault()) {
        expect_sound(traced, kind);
      } else {
        EXPECT_EQ(traced.run, complete_run_);
      }
      return traced;
    });
  }

  const Volume before_;
  Volume complete_;
  ToolRun complete_run_;
  ScratchFile image_;
  std::vector<std::string> arguments_;
  RunOptions options_;
};

TEST_P(ToolCampaign, EachFailure_IsSaidAndLeavesNothingBehind) {
  std::vector<FailureCount> counts;
  for (const Kind& kind : kinds()) {
    SCOPED_TRACE(kind.name);
    counts.push_back({kind.name, fail_calls(kind)});
    const bool is_never_called =
        failing_calls(kind.name).call == Call::kPwrite64 && GetParam().label.empty();  // by printing
    EXPECT_EQ(counts.back().failures == 0, is_never_called);
  }
  report_failures(GetParam().name, counts);
}

INSTANTIATE_TEST_SUITE_P(Operations, ToolCampaign, ::testing::ValuesIn(operations()), [](const auto& suite) {
  std::string name = suite.param.name;
  std::erase_if(name, [](char c) { return c == ' ' || c == ','; });
  return name;
});

}  // namespace
}  // namespace kvfs_test
