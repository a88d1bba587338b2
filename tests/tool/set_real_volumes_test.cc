// Setting the label of volumes that other systems made: the new label is what they and every independent reader find,
// and setting the old one again brings every record back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "set_fixture.h"
#include "unicode_fixture.h"
#include "volume_image.h"

namespace kvfs_test {
namespace {

using ::testing::Each;
using ::testing::EndsWith;

constexpr Tree kCatalog = Tree::kCatalog;

const std::string kGermanLabel = "Größe";  // six units
const std::string kKoreanLabel = "국어";   // five
const std::string kLongLabel(255, 'L');

// Sets labels, with independent readers after each, and then the old one.
void expect_set_and_set_back(const ScratchFile& image, const std::vector<std::string>& labels) {
  const Volume before = image.volume();
  const Name old_label = read_label(before);
  const std::string listing = listing_by_others(image.path());
  EXPECT_THAT(labels_by_others(image.path()), Each(EndsWith(": " + to_utf8(old_label))));
  for (const std::string& label : labels) {
    SCOPED_TRACE("label " + label);
    (void)expect_set(image, label);
    EXPECT_EQ(listing_by_others(image.path()), listing);
    EXPECT_THAT(labels_by_others(image.path()), Each(EndsWith(": " + to_utf8(decomposed(label)))));
  }
  (void)expect_set(image, "");  // some readers have no word for that
  const Volume after = expect_set(image, to_utf8(old_label), old_label);
  EXPECT_EQ(dump_records(after, kCatalog), dump_records(before, kCatalog));
  EXPECT_EQ(listing_by_others(image.path()), listing);
}

// ---- Volumes at hand -----------------------------------------------------------------------------------------------

#ifdef KVFS_VOLUMES_DIR

TEST(SetRealVolumes, VolumesOfOtherSystems_AreSetAndSetBack) {
  const std::filesystem::path folder = KVFS_VOLUMES_DIR;
  ASSERT_TRUE(std::filesystem::exists(folder / "manifest.json")) << folder;
  int volumes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".xz") {
      SCOPED_TRACE(entry.path().filename());
      const ScratchFile image;
      const ToolRun unpacked =
          run_program("xz", {"--decompress", "--stdout", entry.path()}, {.out_path = image.path()});
      ASSERT_EQ(unpacked.status, 0) << unpacked;
      expect_set_and_set_back(image, {"x", "A label of ordinary length", kGermanLabel, kKoreanLabel, kLongLabel});
      ++volumes;
    }
  }
  EXPECT_GT(volumes, 0);
}

#endif

// ---- Volumes written by xorriso ------------------------------------------------------------------------------------

// Writes a volume with so many files and cuts it out of the disk.
Volume written_by_xorriso(const std::string& label, int files) {
  const ScratchFile disk;
  const std::filesystem::path source = disk.path() + "-source";
  std::filesystem::create_directory(source);
  const std::vector<std::string> words = {"plain", "Größe", "한국", "Ελλ"};
  for (int i = 0; i < files; ++i) {
    const std::string name = words.at(static_cast<std::size_t>(i) % words.size()) + std::to_string(i);
    std::ofstream(source / name) << i;
  }
  const ToolRun written =
      run_program("xorriso", {"-as", "mkisofs", "-quiet", "-hfsplus", "-V", label, "-o", disk.path(), source.string()},
                  {.environment = {{"LC_ALL", "C.UTF-8"}}});
  std::filesystem::remove_all(source);
  EXPECT_EQ(written.status, 0) << written;
  return cut_out_partition(SparseImage::load(disk.path()));
}

// xorriso fills the leaves and leaves no node free, so that there is room for as many units as the old label has. A
// longer one finds its place or leaves the volume as it was.
TEST(SetRealVolumes, VolumesOfXorriso_AreSetAndSetBack) {
  for (const int files : {0, 10, 2500}) {
    SCOPED_TRACE(files);
    const ScratchFile image(written_by_xorriso("BACKUP", files));
    ASSERT_EQ(read_label(image.volume()), u"BACKUP");
    expect_set_and_set_back(image, {"x", "backup", kGermanLabel, kKoreanLabel});
    const Volume before = image.volume();
    if (run_tool({image.path(), kLongLabel}).status == 0) {
      EXPECT_EQ(faults_of_change(before, image.volume(), Name(255, u'L')), "");
    } else {
      EXPECT_TRUE(image.volume() == before);
    }
  }
}

}  // namespace
}  // namespace kvfs_test
