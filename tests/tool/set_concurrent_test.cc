// Setting the label while other processes use the device, or end in the middle of it.
//
// KVFS_KILLED_ROUNDS has the rounds of two hundred tools that are killed (default 1).

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "environment.h"
#include "set_fixture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;

Volume some_volume() {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 60);
  description.catalog.leaf_fill[0].free_bytes = 0;
  return build_volume(description);
}

// Q-device-1
TEST(ToolSetConcurrent, FileLockedByAnotherProcess_IsWaitedFor) {
  for (const int operation : {LOCK_EX, LOCK_SH}) {
    const Volume before = some_volume();
    const ScratchFile image(before);
    HeldLock lock(image.path(), operation);
    RunningTool tool(KVFSLABEL_PATH, {image.path(), "new"});
    EXPECT_TRUE(comes_to_wait(tool));
    EXPECT_TRUE(image.volume() == before);
    lock.release();
    EXPECT_EQ(tool.finish(), printed(""));
    EXPECT_EQ(faults_of_change(before, image.volume(), u"new"), "");
  }
}

TEST(ToolSetConcurrent, VolumeChangedWhileWaiting_IsReadAfterTheWait) {
  const Volume before = some_volume();
  const ScratchFile image(before);
  HeldLock lock(image.path(), LOCK_EX);
  RunningTool tool(KVFSLABEL_PATH, {image.path(), "new"});
  EXPECT_TRUE(comes_to_wait(tool));
  VolumeDescription description;
  description.label = u"Another volume";
  const Volume other = build_volume(description);
  other.write_to(image.path());
  lock.release();
  EXPECT_EQ(tool.finish(), printed(""));
  EXPECT_EQ(faults_of_change(other, image.volume(), u"new"), "");
}

TEST(ToolSetConcurrent, PrintingUnderASharedLock_DoesNotWait) {
  const ScratchFile image(some_volume());
  const HeldLock lock(image.path(), LOCK_SH);
  EXPECT_EQ(run_tool({image.path()}), printed("Untitled\n"));
}

TEST(ToolSetConcurrent, PrintingUnderAnExclusiveLock_Waits) {
  const ScratchFile image(some_volume());
  HeldLock lock(image.path(), LOCK_EX);
  RunningTool tool(KVFSLABEL_PATH, {image.path()});
  EXPECT_TRUE(comes_to_wait(tool));
  lock.release();
  EXPECT_EQ(tool.finish(), printed("Untitled\n"));
}

TEST(ToolSetConcurrent, TwoSetsAtOnce_LeaveOneOfTheLabelsAndASoundVolume) {
  const Volume before = some_volume();
  const std::string labels[] = {"one", std::string(100, 'L')};
  for (int round = 0; round < 20; ++round) {
    const ScratchFile image(before);
    HeldLock lock(image.path(), LOCK_EX);
    RunningTool one(KVFSLABEL_PATH, {image.path(), labels[round % 2]});
    RunningTool other(KVFSLABEL_PATH, {image.path(), labels[1 - round % 2]});
    EXPECT_TRUE(comes_to_wait(one));
    EXPECT_TRUE(comes_to_wait(other));
    lock.release();
    EXPECT_EQ(one.finish(), printed(""));
    EXPECT_EQ(other.finish(), printed(""));
    const Volume after = image.volume();
    const Name label = read_label(after);
    EXPECT_THAT(label, AnyOf(Name(u"one"), Name(100, u'L')));
    EXPECT_EQ(faults_of_change(before, after, label), "");
  }
}

TEST(ToolSetConcurrent, ManySetsAndPrintsAtOnce_ShowWholeLabelsOnly) {
  const ScratchFile image(some_volume());
  std::vector<std::unique_ptr<RunningTool>> sets;
  std::vector<std::unique_ptr<RunningTool>> prints;
  for (int i = 0; i < 10; ++i) {
    sets.push_back(std::make_unique<RunningTool>(KVFSLABEL_PATH, std::vector<std::string>{image.path(), "label"}));
    prints.push_back(std::make_unique<RunningTool>(KVFSLABEL_PATH, std::vector<std::string>{image.path()}));
  }
  for (const auto& tool : sets) {
    EXPECT_EQ(tool->finish(), printed(""));
  }
  for (const auto& tool : prints) {
    EXPECT_THAT(tool->finish(), AnyOf(printed("Untitled\n"), printed("label\n")));
  }
  EXPECT_EQ(read_label(image.volume()), u"label");
  EXPECT_EQ(joined(check_volume(image.volume())), "");
}

// ---- Processes that are killed --------------------------------------------------------------------------------------

// What a set says of a volume on which another one ended before the index node above the leaf was written, or before a
// higher one was: that is for a checker to mend, and nothing is changed.
ToolRun refused_for_index(bool higher) {
  ToolRun run = printed("");
  run.status = 1;
  run.err = "ERROR kvfs_btree_delete_record_internal Index record of deleted record's node not found.\n";
  run.err += higher ? "ERROR kvfs_btree_delete_record_internal Error while deleting index record from B-tree.\n" : "";
  run.err +=
      "ERROR kvfs_catalog_rename_record Error while deleting record from B-tree.\n"
      "ERROR kvfs_volume_set_label Error while renaming record.\n"
      "Error while changing volume label.\n";
  return run;
}

// Starts as many tools at once as there are labels and kills about half of them at some moment. Whether a set was
// refused because of one that was killed.
bool set_and_kill(const ScratchFile& image, const std::vector<Name>& labels, std::mt19937& chance) {
  std::vector<std::unique_ptr<RunningTool>> tools;
  for (const Name& label : labels) {
    tools.push_back(
        std::make_unique<RunningTool>(KVFSLABEL_PATH, std::vector<std::string>{image.path(), to_utf8(label)}));
    if (chance() % 2 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(chance() % 2000));
      tools[chance() % tools.size()].reset();
    }
  }
  bool refused = false;
  for (const auto& tool : tools) {
    if (tool != nullptr) {
      const ToolRun run = tool->finish();
      EXPECT_THAT(run, AnyOf(printed(""), refused_for_index(false), refused_for_index(true)));
      refused = refused || run.status != 0;
    }
  }
  return refused;
}

Lines outdated_index_keys(const Lines& findings) {
  Lines outdated;
  std::copy_if(findings.begin(), findings.end(), std::back_inserter(outdated), [](const std::string& finding) {
    return finding.starts_with("catalog: node ") && finding.ends_with(": first key differs from its index key");
  });
  return outdated;
}

// Labels of one length, which docs/design.md calls safe wherever a set ends.
std::vector<Name> labels_of_one_length(std::size_t count) {
  std::vector<Name> labels;
  for (std::size_t i = 0; i < count; ++i) {
    labels.push_back(to_utf16("Label" + std::to_string(1000 + i)));
  }
  return labels;
}

TEST(ToolSetCutOff, BetweenLeafAndIndex_IsRefusedFromThenOn) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 60);
  description.catalog.height = 3;
  for (const bool higher : {false, true}) {
    const ScratchFile image(build_volume(description));
    EXPECT_EQ(run_traced({image.path(), "Labelled"}, higher ? "pwrite64:4:exit=77" : "pwrite64:3:exit=77").run.status,
              77);
    const Volume after = image.volume();
    EXPECT_EQ(run_tool({image.path(), "Relabels"}), refused_for_index(higher));
    EXPECT_TRUE(image.volume() == after);
    EXPECT_EQ(run_tool({image.path()}), printed("Labelled\n"));
  }
}

class ToolSetKilled : public ::testing::TestWithParam<std::uint16_t> {};

TEST_P(ToolSetKilled, TwoHundredAtOnce_LeaveOneOfTheLabelsAndNoLock) {
  const std::vector<Name> labels = labels_of_one_length(200);
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, GetParam() == 1 ? 5 : 60);
  description.catalog.height = GetParam();
  description.label = labels[0];
  const Volume before = build_volume(description);
  std::random_device device;
  for (unsigned long round = number_from("KVFS_KILLED_ROUNDS", 1); round != 0; --round) {
    const unsigned seed = device();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 chance(seed);
    const ScratchFile image(before);
    const bool refused = set_and_kill(image, labels, chance);
    const Volume after = image.volume();
    EXPECT_THAT(labels, Contains(read_label(after)));
    const Lines findings = check_volume(after);
    EXPECT_EQ(findings, outdated_index_keys(findings));
    EXPECT_TRUE(!refused || !findings.empty());
    EXPECT_TRUE(findings.empty() || GetParam() > 1);
    const HeldLock lock(image.path(), LOCK_EX | LOCK_NB);
  }
}

INSTANTIATE_TEST_SUITE_P(Heights, ToolSetKilled, ::testing::Values(1, 2, 3));

}  // namespace
}  // namespace kvfs_test
