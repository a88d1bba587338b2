// The command line, the mount table and the opening of the device, with the built tool.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tool_runner.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr char kUsage[] =
    "kvfslabel 3014.8.10\n"
    "usage: kvfslabel [--output-mode=<raw|composed>] <device> [<new label>]\n";
constexpr char kRefusing[] = "Refusing to open mounted file system.\n";

// A volume that is named "Café", decomposed.
Volume cafe_volume() {
  VolumeDescription description;
  description.set_label("Café");
  return build_volume(description);
}

constexpr char kComposed[] = "Caf\xC3\xA9\n";
constexpr char kDecomposed[] = "Cafe\xCC\x81\n";

// ---- Operands and options ------------------------------------------------------------------------------------------

TEST(ToolArguments, WrongNumber_PrintsUsage) {
  const ScratchFile image(cafe_volume());
  const std::string& path = image.path();
  EXPECT_EQ(run_tool({}), failed(kUsage));
  EXPECT_EQ(run_tool({path, "label", "one more"}), failed(kUsage));
  EXPECT_EQ(run_tool({path, "a", "b", "c"}), failed(kUsage));
  EXPECT_EQ(run_tool({"--output-mode=raw", path, "label", "one more"}), failed(kUsage));
  EXPECT_EQ(run_tool({"--output-mode=raw"}), failed(kUsage));
  EXPECT_EQ(run_tool({"--output-mode=composed"}), failed(kUsage));
}

TEST(ToolArguments, UnknownOutputMode_PrintsUsage) {
  const ScratchFile image(cafe_volume());
  for (const char* const mode : {"", "RAW", "Composed", "raw ", "rawx", "ra", "compose", "=raw", "0"}) {
    EXPECT_EQ(run_tool({"--output-mode=" + std::string(mode), image.path()}), failed(kUsage)) << mode;
  }
}

TEST(ToolArguments, Usage_TouchesNothing) {
  const ScratchFile image(cafe_volume());
  const TracedRun traced = run_traced({image.path(), "a", "b"});
  EXPECT_EQ(traced.run, failed(kUsage));
  EXPECT_THAT(traced.calls, IsEmpty());
}

// Q-tool-2
TEST(ToolArguments, Usage_NamesTheToolWhateverItWasCalledBy) {
  const ScratchFile place;
  const std::string link = place.path() + "-other-name";
  ASSERT_EQ(symlink(KVFSLABEL_PATH, link.c_str()), 0);
  EXPECT_EQ(run_program(link, {}), failed(kUsage));
  unlink(link.c_str());
}

TEST(ToolArguments, OutputMode_ChoosesTheForm) {
  const ScratchFile image(cafe_volume());
  EXPECT_EQ(run_tool({image.path()}), printed(kComposed));
  EXPECT_EQ(run_tool({"--output-mode=composed", image.path()}), printed(kComposed));
  EXPECT_EQ(run_tool({"--output-mode=raw", image.path()}), printed(kDecomposed));
}

// Q-tool-1
TEST(ToolArguments, OptionWithoutItsEqualsSign_IsTheDevice) {
  const TracedRun traced = run_traced({"--output-mode"});
  EXPECT_EQ(traced.run, failed("Error while opening HFS+ volume in read mode.\n"));
  EXPECT_THAT(traced.calls, Contains("open64 --output-mode flags=0 = -1"));
}

TEST(ToolArguments, OtherOptions_AreTheDevice) {
  for (const char* const text : {"--help", "-h", "--version", "--Output-mode=raw", "-", "--"}) {
    const TracedRun traced = run_traced({text});
    EXPECT_EQ(traced.run, failed("Error while opening HFS+ volume in read mode.\n")) << text;
    EXPECT_THAT(traced.calls, Contains("open64 " + std::string(text) + " flags=0 = -1"));
  }
}

TEST(ToolArguments, SecondOption_IsTheDevice) {
  const TracedRun traced = run_traced({"--output-mode=raw", "--output-mode=raw"});
  EXPECT_EQ(traced.run, failed("Error while opening HFS+ volume in read mode.\n"));
  EXPECT_THAT(traced.calls, Contains("open64 --output-mode=raw flags=0 = -1"));
}

TEST(ToolArguments, EmptyDevice_IsOpenedLikeAnyOther) {
  EXPECT_EQ(run_tool({""}), failed("Error while opening HFS+ volume in read mode.\n"));
}

// Q-tool-1
TEST(ToolArguments, OptionBehindTheDevice_IsANewLabel) {
  const ScratchFile image(cafe_volume());
  const TracedRun traced = run_traced({image.path(), "--output-mode=raw"}, "flock:1:errno=5");
  EXPECT_EQ(traced.run.status, 1);
  EXPECT_EQ(traced.run.out, "");
  EXPECT_THAT(traced.calls_of("open64"), ElementsAre(StartsWith("open64 " + image.path() + " flags=2 = ")));
}

TEST(ToolArguments, EmptyNewLabel_StillSets) {
  const ScratchFile image(cafe_volume());
  const TracedRun traced = run_traced({"--output-mode=raw", image.path(), ""}, "flock:1:errno=5");
  EXPECT_EQ(traced.run.out, "");
  EXPECT_THAT(traced.calls_of("open64"), ElementsAre(StartsWith("open64 " + image.path() + " flags=2 = ")));
}

// ---- The mount table -----------------------------------------------------------------------------------------------

// Runs the tool while the mount table has the given text.
TracedRun run_traced_with_mounts(const std::vector<std::string>& arguments, const std::string& mounts) {
  const ScratchFile table(mounts);
  return run_traced(arguments, "", {.environment = {{"KVFS_MOUNTS", table.path()}}});
}

// Prints the label of an image.
ToolRun run_with_mounts(const std::string& path, const std::string& mounts) {
  return run_traced_with_mounts({path}, mounts).run;
}

TEST(ToolMountTable, MountedDevice_IsRefusedWithoutBeingOpened) {
  const ScratchFile image(cafe_volume());
  const std::string mounts = image.path() + " /mnt hfsplus rw 0 0\n";
  const std::vector<std::vector<std::string>> all_arguments = {
      {image.path()}, {"--output-mode=raw", image.path()}, {image.path(), "label"}};
  for (const std::vector<std::string>& arguments : all_arguments) {
    const TracedRun traced = run_traced_with_mounts(arguments, mounts);
    EXPECT_EQ(traced.run, failed(kRefusing));
    EXPECT_THAT(traced.calls_of("open64"), IsEmpty());
  }
}

TEST(ToolMountTable, DeviceUnderExactlyItsPath_IsRefused) {
  const ScratchFile image(cafe_volume());
  const std::string entry = " /mnt hfsplus rw 0 0\n";
  EXPECT_EQ(run_with_mounts(image.path(), image.path() + entry), failed(kRefusing));
  EXPECT_EQ(
      run_with_mounts(image.path(), "proc /proc proc rw 0 0\n" + image.path() + entry + "sys /sys sysfs rw 0 0\n"),
      failed(kRefusing));
}

TEST(ToolMountTable, OtherEntries_DoNotMatter) {
  const ScratchFile image(cafe_volume());
  const std::string& path = image.path();
  EXPECT_EQ(run_with_mounts(path, ""), printed(kComposed));
  EXPECT_EQ(run_with_mounts(path, "proc /proc proc rw 0 0\n"), printed(kComposed));
  EXPECT_EQ(run_with_mounts(path, "/dev/sda1 " + path + " hfsplus rw 0 0\n"), printed(kComposed))
      << "mount points are not compared";
  EXPECT_EQ(run_with_mounts(path, path + "x /mnt hfsplus rw 0 0\n"), printed(kComposed)) << "a longer path";
  EXPECT_EQ(run_with_mounts(path, path.substr(0, path.size() - 1) + " /mnt hfsplus rw 0 0\n"), printed(kComposed))
      << "a shorter path";
}

// Q-tool-3
TEST(ToolMountTable, SameDeviceUnderAnotherPath_IsNotDetected) {
  const ScratchFile image(cafe_volume());
  const std::string link = image.path() + "-link";
  ASSERT_EQ(symlink(image.path().c_str(), link.c_str()), 0);
  EXPECT_EQ(run_with_mounts(link, image.path() + " /mnt hfsplus rw 0 0\n"), printed(kComposed));
  unlink(link.c_str());
  const std::size_t slash = image.path().rfind('/');
  const std::string detour = image.path().substr(0, slash) + "/." + image.path().substr(slash);
  EXPECT_EQ(run_with_mounts(detour, image.path() + " /mnt hfsplus rw 0 0\n"), printed(kComposed));
}

// What the tool says of a path while the mount table names a device so, with a C library that decodes its fields and
// with one that does not.
std::pair<std::string, std::string> refusals(const std::string& path, const std::string& device) {
  const ScratchFile table("proc /proc proc rw 0 0\n" + device + " /mnt hfsplus rw 0 0\nsys /sys sysfs rw 0 0\n");
  const std::string& file = table.path();
  const ToolRun decoded = run_traced({path}, "", {.environment = {{"KVFS_MOUNTS", file}}}).run;
  const ToolRun encoded =
      run_traced({path}, "", {.environment = {{"KVFS_MOUNTS", file}, {"KVFS_MOUNTS_ENCODED", "1"}}}).run;
  EXPECT_EQ(decoded.status + encoded.status, 2);
  return {decoded.err, encoded.err};
}

const std::pair<std::string, std::string> kRefusedByBoth = {kRefusing, kRefusing};
const std::string kMissing = "Error while opening HFS+ volume in read mode.\n";
const std::pair<std::string, std::string> kRefusedByNone = {kMissing, kMissing};

// X-tool-1
TEST(ToolMountTable, EscapedPath_IsRefusedWhateverTheLibraryDecodes) {
  EXPECT_EQ(refusals("/no such\tdisk\\", "/no\\040such\\011disk\\134"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no\nsuch\\\\", "/no\\012such\\134\\134"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no#such", "/no\\043such"), kRefusedByBoth) << "newer kernels escape it, libraries know nothing";
}

// A device is decoded once: what is left then may look like an escape sequence and is none.
// X-tool-1
TEST(ToolMountTable, NameThatLooksEscaped_IsDecodedOnce) {
  EXPECT_EQ(refusals("/no\\040such", "/no\\134040such"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no such", "/no\\134040such"), kRefusedByNone);
  EXPECT_EQ(refusals("/no\\134040such", "/no\\134134040such"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no\\040such", "/no\\134134040such"), kRefusedByNone);
}

// The one device must not hide the other.
// X-tool-1
TEST(ToolMountTable, DevicesThatDifferByAnEscape_AreBothRefused) {
  EXPECT_EQ(refusals("/no such", "/no\\134040such / x rw 0 0\n/no\\040such"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no\\040such", "/no\\040such / x rw 0 0\n/no\\134040such"), kRefusedByBoth);
}

// X-tool-1
TEST(ToolMountTable, WhatIsNoEscape_IsComparedAsItIs) {
  EXPECT_EQ(refusals("/no such disk", "/no\\40such disk"), kRefusedByNone);
  EXPECT_EQ(refusals("/no such", "/no\\048such"), kRefusedByNone);
  EXPECT_EQ(refusals("/no such", "/no\\084such"), kRefusedByNone);
  EXPECT_EQ(refusals("/no such", "/no\\/40such"), kRefusedByNone);
  EXPECT_EQ(refusals("/nosuch", "/nosuch\\"), kRefusedByNone);
  EXPECT_EQ(refusals("/nosuch\\", "/nosuch\\134"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no", "/no\\000x"), kRefusedByNone);
  EXPECT_EQ(refusals("/no", "/no\\000"), kRefusedByNone);
  EXPECT_EQ(refusals("/no\\04such", "/no\\04such"), kRefusedByBoth);
  EXPECT_EQ(refusals("/no#\\081such", "/no\\043\\081such"), kRefusedByBoth);
}

// A path ends before what stands behind it in memory, here a label without units.
// X-tool-1
TEST(ToolMountTable, EscapedNulBehindAPath_IsComparedAsItIs) {
  const ScratchFile table("/no\\000 /mnt hfsplus rw 0 0\n");
  const ToolRun run = run_traced({"/no", ""}, "", {.environment = {{"KVFS_MOUNTS", table.path()}}}).run;
  EXPECT_EQ(run.err, "Error while opening HFS+ volume in read/write mode.\n");
}

// X-tool-1
TEST(ToolMountTable, PathsWithTheSameControlCharacter_AreComparedToTheirEnds) {
  EXPECT_EQ(refusals("/no\001such", "escaped\\134 / x rw 0 0\n/no\001other"), kRefusedByNone);
}

// The first field may be longer than any buffer, and the last line may lack its end.
TEST(ToolMountTable, LinesOfAnyLength_AreRead) {
  const std::string options(100000, 'o');
  EXPECT_EQ(refusals("/no such", "overlay / overlay " + options + "\n/no\\040such"), kRefusedByBoth);
  EXPECT_EQ(run_with_mounts("/no such", "/no\\040such /mnt hfsplus rw 0 0"), failed(kRefusing));
}

TEST(ToolMountTable, TableThatCannotBeOpened_IsAFailureWithItsReason) {
  const ScratchFile image(cafe_volume());
  for (const auto& [number, text] : {std::pair{2, "No such file or directory"}, {13, "Permission denied"}}) {
    const TracedRun traced = run_traced({image.path()}, "fopen64:1:errno=" + std::to_string(number));
    EXPECT_EQ(traced.run, failed("Error while opening /proc/mounts for reading: " + std::string(text) + " (" +
                                 std::to_string(number) + ")\n"));
    EXPECT_THAT(traced.calls, ElementsAre("fopen64 /proc/mounts"));
  }
}

// ---- Opening the device --------------------------------------------------------------------------------------------

TEST(ToolDevice, Printing_OpensReadOnlyAndLocksShared) {
  const ScratchFile image(cafe_volume());
  const TracedRun traced = run_traced({image.path()});
  EXPECT_EQ(traced.run, printed(kComposed));
  ASSERT_GE(traced.calls.size(), 4u);
  EXPECT_EQ(traced.calls[0], "fopen64 /proc/mounts");
  EXPECT_THAT(traced.calls_of("open64"), ElementsAre(StartsWith("open64 " + image.path() + " flags=0 = ")));
  EXPECT_THAT(traced.calls_of("flock"),
              ElementsAre(MatchesRegex("flock [0-9]+ LOCK_SH = 0"), MatchesRegex("flock [0-9]+ LOCK_UN = 0")));
  EXPECT_THAT(traced.calls.back(), MatchesRegex("flock [0-9]+ LOCK_UN = 0")) << "the device is closed last";
  EXPECT_THAT(traced.calls_of("pwrite64"), IsEmpty());
}

TEST(ToolDevice, Setting_OpensForWritingAndLocksExclusively) {
  const ScratchFile image{SparseImage(8192)};
  const TracedRun traced = run_traced({image.path(), "label"});
  EXPECT_EQ(traced.run, failed("ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x0\n"
                               "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
                               "Error while opening volume in read/write mode.\n"));
  EXPECT_THAT(traced.calls_of("open64"), ElementsAre(StartsWith("open64 " + image.path() + " flags=2 = ")));
  EXPECT_THAT(traced.calls_of("flock"),
              ElementsAre(MatchesRegex("flock [0-9]+ LOCK_EX = 0"), MatchesRegex("flock [0-9]+ LOCK_UN = 0")));
}

// A device that is opened while a standard descriptor is closed must not take its number: messages would go into it.
// X-tool-2
TEST(ToolDevice, ClosedStandardDescriptors_NeverLeadIntoTheVolume) {
  const SparseImage zeros(8192);
  for (const std::vector<int>& closed : {std::vector<int>{2}, {1, 2}, {0, 1, 2}}) {
    const ScratchFile image(zeros);
    EXPECT_EQ(run_tool({image.path(), "label"}, {.closed = closed}).status, 1);
    EXPECT_TRUE(zeros == image.volume());
  }
}

// Q-tool-4
TEST(ToolDevice, FileThatCannotBeOpened_IsReportedAsAVolume) {
  const ScratchFile file;
  const std::string below_a_file = file.path() + "/volume";
  const std::string missing = file.path() + "-missing";
  const std::string circle = file.path() + "-circle";
  ASSERT_EQ(symlink(circle.c_str(), circle.c_str()), 0);
  for (const std::string& path : {below_a_file, missing, circle}) {
    EXPECT_EQ(run_tool({path}), failed("Error while opening HFS+ volume in read mode.\n")) << path;
    EXPECT_EQ(run_tool({path, "label"}), failed("Error while opening HFS+ volume in read/write mode.\n")) << path;
  }
  unlink(circle.c_str());
  EXPECT_EQ(run_tool({::testing::TempDir(), "label"}), failed("Error while opening HFS+ volume in read/write mode.\n"))
      << "a folder cannot be opened for writing";
  EXPECT_NE(access(missing.c_str(), F_OK), 0) << "nothing is created";
}

TEST(ToolDevice, NoPermission_IsReportedAsAVolume) {
  const ScratchFile image(cafe_volume());
  EXPECT_EQ(run_traced({image.path()}, "open64:1:errno=13").run,
            failed("Error while opening HFS+ volume in read mode.\n"));
  EXPECT_EQ(run_traced({image.path(), "label"}, "open64:1:errno=13").run,
            failed("Error while opening HFS+ volume in read/write mode.\n"));
}

// Q-tool-4
TEST(ToolDevice, RefusedLock_IsReportedAsADevice) {
  const ScratchFile image(cafe_volume());
  const TracedRun printing = run_traced({image.path()}, "flock:1:errno=11");
  EXPECT_EQ(
      printing.run,
      failed(
          "ERROR kvfs_device_create Error while locking device for shared access: Resource temporarily unavailable (11).\n"
          "Error while opening device in read mode.\n"));
  EXPECT_THAT(printing.calls_of("pread64"), IsEmpty());
  const TracedRun setting = run_traced({image.path(), "label"}, "flock:1:errno=37");
  EXPECT_EQ(
      setting.run,
      failed("ERROR kvfs_device_create Error while locking device for exclusive access: No locks available (37).\n"
             "Error while opening device in read/write mode.\n"));
}

TEST(ToolDevice, RefusedUnlock_IsAWarningAlone) {
  const ScratchFile image(cafe_volume());
  EXPECT_EQ(
      run_traced({image.path()}, "flock:2:errno=5").run,
      (ToolRun{
          0, kComposed,
          "WARNING kvfs_device_destroy Error while unlocking device on destroy: Input/output error (5) Ignoring...\n"}));
}

// Q-device-2
TEST(ToolDevice, NoMemoryForTheDevice_IsSilentButForTheTool) {
  const ScratchFile image(cafe_volume());
  for (const char* const n : {"1", "2"}) {
    EXPECT_EQ(run_traced({image.path()}, "allocation:" + std::string(n)).run,
              failed("Error while opening device in read mode.\n"));
  }
}

}  // namespace
}  // namespace kvfs_test
