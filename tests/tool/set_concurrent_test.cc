// Setting the label while other processes use the device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <memory>
#include <string>
#include <vector>

#include "set_fixture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::AnyOf;

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

}  // namespace
}  // namespace kvfs_test
