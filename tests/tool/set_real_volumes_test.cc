// Setting the label of volumes that other systems made: the new label is what they and every independent reader find,
// and setting the old one again brings every record back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "known_volumes.h"
#include "set_fixture.h"
#include "unicode_names.h"
#include "volume_image.h"

namespace kvfs_test {
namespace {

using ::testing::Each;
using ::testing::EndsWith;
using ::testing::HasSubstr;

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

// The root of the catalog is full: the label is refused and the image stays as it was.
void expect_no_room(const ScratchFile& image, const std::string& label) {
  SCOPED_TRACE("label " + label);
  const Volume before = image.volume();
  const ToolRun run = run_tool({image.path(), label});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("ERROR kvfs_btree_split_node Unable to split root node.\n"));
  EXPECT_THAT(run.err, EndsWith("Error while changing volume label.\n"));
  EXPECT_TRUE(image.volume() == before) << "the image has changed";
}

class SetRealVolumes : public KnownVolumes {};
KVFS_INSTANTIATE_KNOWN_VOLUMES(SetRealVolumes);

TEST_P(SetRealVolumes, VolumesOfOtherSystems_AreSetAndSetBack) {
  for (const KnownVolume& volume : volumes()) {
    if (volume.longest_label.has_value()) {
      SCOPED_TRACE(volume.file);
      const ScratchFile image;
      ASSERT_TRUE(unpack(volume.file, image.path()));
      expect_set_and_set_back(image, {"x", "A label of ordinary length", kGermanLabel, kKoreanLabel,
                                      kLongLabel.substr(0, *volume.longest_label)});
    }
  }
}

TEST_P(SetRealVolumes, LabelsWithoutRoom_AreRefusedAndLeaveTheVolumeAsItWas) {
  for (const KnownVolume& volume : volumes()) {
    SCOPED_TRACE(volume.file);
    const ScratchFile image;
    ASSERT_TRUE(unpack(volume.file, image.path()));
    if (!volume.longest_label.has_value()) {
      expect_no_room(image, "");
      expect_no_room(image, "x");
      expect_no_room(image, volume.raw);
      expect_no_room(image, kLongLabel);
    } else if (*volume.longest_label < kLongLabel.size()) {
      expect_no_room(image, kLongLabel.substr(0, *volume.longest_label + 1));
      expect_no_room(image, kLongLabel);
    }
  }
}

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
TEST(SetXorrisoVolumes, VolumesOfXorriso_AreSetAndSetBack) {
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
