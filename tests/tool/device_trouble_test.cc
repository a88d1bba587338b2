// Devices that shrink, disappear, refuse to be written or have no room, with the built tool: the label is not
// delivered, the exit status says so, and a message says why.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "set_fixture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr char kVolumeNotRead[] = "Error while opening volume in read mode.\n";
constexpr char kVolumeNotOpened[] = "Error while opening volume in read/write mode.\n";
constexpr char kNotFlushed[] = "Error while flushing changes to catalog file.\n";

// A volume whose first leaf has no room for a longer label.
VolumeDescription full_leaf() {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 60);
  description.catalog.leaf_fill[0].free_bytes = 0;
  return description;
}

const std::string kLabel(100, 'L');

// ---- Images that change while the tool waits for its lock ----------------------------------------------------------

// Runs the tool, and changes the image while it waits.
template <typename Change>
ToolRun run_while(const ScratchFile& image, const std::vector<std::string>& arguments, Change change) {
  HeldLock lock(image.path(), LOCK_EX);
  RunningTool tool(KVFSLABEL_PATH, arguments);
  EXPECT_TRUE(comes_to_wait(tool));
  change();
  lock.release();
  return tool.finish();
}

TEST(DeviceTrouble, ImageCutOffWhileTheToolWaits_IsAnErrorAndStaysAsItIs) {
  const Volume volume = build_volume(full_leaf());
  const std::uint64_t catalog = volume.node_device_offset(Tree::kCatalog, 0);
  // Nothing, half of the volume header, the header alone, half of the catalog's header node, no leaf.
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{1280}, std::uint64_t{1536}, catalog + 2048,
                                   catalog + volume.node_size(Tree::kCatalog)}) {
    SCOPED_TRACE(size);
    const ScratchFile image(volume);
    const auto cut_off = [&] { std::filesystem::resize_file(image.path(), size); };
    const ToolRun print = run_while(image, {image.path()}, cut_off);
    EXPECT_EQ(print.status, 1);
    EXPECT_EQ(print.out, "");
    EXPECT_THAT(print.err, EndsWith(kVolumeNotRead));
    const ScratchFile other(volume);
    const auto cut_off_other = [&] { std::filesystem::resize_file(other.path(), size); };
    const ToolRun set = run_while(other, {other.path(), kLabel}, cut_off_other);
    EXPECT_EQ(set.status, 1);
    EXPECT_THAT(set.err, EndsWith(kVolumeNotOpened));
    EXPECT_EQ(other.content(), image.content());
    EXPECT_EQ(other.content().size(), size);
  }
}

TEST(DeviceTrouble, ImageRemovedWhileTheToolWaits_IsSetAndItsReplacementLeftAlone) {
  const Volume volume = build_volume(full_leaf());
  const ScratchFile image(volume);
  const std::string link = image.path() + ".opened";
  std::filesystem::create_hard_link(image.path(), link);
  const auto replace = [&] {
    std::filesystem::remove(image.path());
    volume.write_to(image.path());
  };
  EXPECT_EQ(run_while(image, {image.path(), kLabel}, replace), printed(""));
  EXPECT_TRUE(image.volume() == volume);
  EXPECT_EQ(faults_of_change(volume, Volume::load(link), Name(kLabel.begin(), kLabel.end())), "");
  std::filesystem::remove(link);
}

// ---- Devices that cannot be written --------------------------------------------------------------------------------

// Runs a script in a mount namespace of its own. `kvfslabel` in it is the tool.
ToolRun run_among_mounts(const std::string& script, const std::vector<std::string>& parameters) {
  std::vector<std::string> arguments = {
      "--map-root-user", "--mount", "sh", "-ec", "kvfslabel() { " + tool_command() + " \"$@\"; }\n" + script, "sh"};
  arguments.insert(arguments.end(), parameters.begin(), parameters.end());
  return run_program("unshare", arguments);
}

TEST(DeviceTrouble, ReadOnlyDevice_IsPrintedAndRefusedToBeSet) {
  KVFS_NEEDS(may_mount(), "the right to mount in a namespace of its own");
  const Volume volume = build_volume(full_leaf());
  const ScratchFile image(volume);
  const std::string read_only = "mount --bind \"$1\" \"$1\"; mount -o remount,ro,bind \"$1\"; ";
  EXPECT_EQ(run_among_mounts(read_only + "kvfslabel \"$1\"", {image.path()}), printed("Untitled\n"));
  EXPECT_EQ(run_among_mounts(read_only + "kvfslabel \"$1\" \"$2\"", {image.path(), kLabel}),
            failed("Error while opening HFS+ volume in read/write mode.\n"));
  EXPECT_TRUE(image.volume() == volume);
}

// A file in memory that can be opened for writing, and whose writes are refused.
class SealedFile {
 public:
  explicit SealedFile(const ScratchFile& content) : fd_(memfd_create("volume", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
    const std::string bytes = content.content();
    EXPECT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(fcntl(fd_, F_ADD_SEALS, F_SEAL_WRITE), 0);
  }
  ~SealedFile() { close(fd_); }
  SealedFile(const SealedFile&) = delete;
  SealedFile& operator=(const SealedFile&) = delete;

  [[nodiscard]] std::string path() const { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

TEST(DeviceTrouble, DeviceThatRefusesWrites_FailsWithTheReasonAndStaysAsItIs) {
  const Volume volume = build_volume(full_leaf());
  const ScratchFile image(volume);
  const SealedFile device(image);
  const ToolRun run = run_tool({device.path(), kLabel});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("Operation not permitted"));
  EXPECT_THAT(run.err, EndsWith(kNotFlushed));
  EXPECT_TRUE(Volume::load(device.path()) == volume);
}

// The image has a hole where the split claims a node, and the file system that holds it is full: what the node before
// it got is written, the new one is not. Each node is old or new.
TEST(DeviceTrouble, ImageOnAFullFileSystem_FailsWithTheReasonAndLeavesWholeNodes) {
  KVFS_NEEDS(may_mount(), "the right to mount in a namespace of its own");
  const Volume volume = build_volume(full_leaf());
  const ScratchFile image(volume);
  const ScratchFile complete(volume);
  const ScratchFile after(volume);
  EXPECT_EQ(run_tool({complete.path(), kLabel}), printed(""));
  const std::string script =
      "mount -t tmpfs -o size=4m tmpfs /mnt\n"
      "cp --sparse=always \"$1\" /mnt/image\n"
      "cat /dev/zero >/mnt/rest 2>/dev/null || true\n"
      "status=0; kvfslabel /mnt/image \"$3\" || status=$?\n"
      "cat /mnt/image >\"$2\"; exit $status";
  const ToolRun run = run_among_mounts(script, {image.path(), after.path(), kLabel});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("No space left on device"));
  EXPECT_THAT(run.err, EndsWith(kNotFlushed));
  EXPECT_EQ(faults_of_partial_change(volume, complete.volume(), after.volume(), volume.node_size(Tree::kCatalog)), "");
}

}  // namespace
}  // namespace kvfs_test
