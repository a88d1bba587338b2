// Volumes that other systems made, in folders that the CMake variable KVFS_VOLUMES_DIR names: images packed with xz,
// and a manifest.json that lists them. A test on them runs once for each folder and is skipped where there is none:
//
//   class RealVolumes : public KnownVolumes {};
//   KVFS_INSTANTIATE_KNOWN_VOLUMES(RealVolumes);
//   TEST_P(RealVolumes, Printed_...) {
//     for (const KnownVolume& volume : volumes()) {
//       const ScratchFile image;
//       ASSERT_TRUE(unpack(volume.file, image.path()));

#ifndef KVFS_KNOWN_VOLUMES_H
#define KVFS_KNOWN_VOLUMES_H

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "unicode_names.h"

namespace kvfs_test {

// What a manifest says of a volume.
struct KnownVolume {
  std::filesystem::path file;  // packed
  std::string composed;        // the label, in UTF-8
  std::string raw;
  Name units;
  std::optional<std::size_t> longest_label;  // units of the longest one that fits; none when no label does
};

// The folders that were named when the tests were built. Where there are none, an empty path, so that the tests can say
// so.
std::vector<std::filesystem::path> volume_folders();

// The name of a test on a folder.
std::string folder_test_name(const ::testing::TestParamInfo<std::filesystem::path>& info);

// Unpacks a file in xz format to another one.
bool unpack(const std::filesystem::path& packed, const std::filesystem::path& destination);

class KnownVolumes : public ::testing::TestWithParam<std::filesystem::path> {
 protected:
  // Skips where the folder is absent, and reads the manifest where it is not.
  void SetUp() override;

  [[nodiscard]] const std::filesystem::path& folder() const { return GetParam(); }
  [[nodiscard]] const std::vector<KnownVolume>& volumes() const { return volumes_; }

 private:
  std::vector<KnownVolume> volumes_;
};

#define KVFS_INSTANTIATE_KNOWN_VOLUMES(suite) \
  INSTANTIATE_TEST_SUITE_P(Folder, suite, ::testing::ValuesIn(volume_folders()), folder_test_name)

}  // namespace kvfs_test

#endif  // KVFS_KNOWN_VOLUMES_H
