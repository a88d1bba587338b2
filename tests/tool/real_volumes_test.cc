// Volumes that other systems made: the label that is printed is the one that they were given, and the one that
// independent readers find.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "big_endian.h"
#include "known_volumes.h"
#include "tool_runner.h"
#include "unicode_names.h"

namespace kvfs_test {
namespace {

using ::testing::Contains;

std::string print(const std::string& path) {
  const ToolRun run = run_tool({path});
  EXPECT_EQ(run.status, 0) << run;
  EXPECT_EQ(run.err, "");
  return run.out;
}

std::string print_raw(const std::string& path) {
  const ToolRun run = run_tool({"--output-mode=raw", path});
  EXPECT_EQ(run.status, 0) << run;
  EXPECT_EQ(run.err, "");
  return run.out;
}

// Prints a label in both forms and expects the file to stay as it is.
void expect_label(const std::string& path, const std::string& composed, const std::string& raw) {
  const SparseImage before = SparseImage::load(path);
  EXPECT_EQ(print(path), composed + "\n");
  EXPECT_EQ(print_raw(path), raw + "\n");
  EXPECT_TRUE(before == SparseImage::load(path));
}

// ---- Independent readers -------------------------------------------------------------------------------------------

// The text behind a marker up to the end of its line, in what a program prints.
std::optional<std::string> text_behind(const std::string& program, const std::vector<std::string>& arguments,
                                       const std::string& marker) {
  const ToolRun run = run_program(program, arguments, {.environment = {{"LC_ALL", "C.UTF-8"}}});
  std::istringstream lines(run.out);
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t at = line.find(marker);
    if (at != std::string::npos) {
      return line.substr(at + marker.size());
    }
  }
  return std::nullopt;
}

// What each reader finds; stored names are shown as they are stored.
std::map<std::string, std::string> labels_by_others(const std::string& path, bool with_fshfsinfo) {
  std::map<std::string, std::string> labels;
  const auto note = [&](const std::string& program, const std::vector<std::string>& arguments,
                        const std::string& marker) {
    ASSERT_TRUE(has_program(program)) << program << " is missing; scripts/setup installs it";
    labels[program] = text_behind(program, arguments, marker).value_or("(nothing)");
  };
  note("blkid", {"-p", "-s", "LABEL", "-o", "value", path}, "");
  note("fsstat", {path}, "Volume Name: ");
  if (with_fshfsinfo) {
    note("fshfsinfo", {path}, "Name\t\t\t\t: ");
  }
  return labels;
}

void expect_same_label_by_others(const std::string& path, const std::string& raw, bool with_fshfsinfo) {
  for (const auto& [program, label] : labels_by_others(path, with_fshfsinfo)) {
    EXPECT_EQ(label, raw) << program;
  }
}

// 7z shows the root folder as the first entry of its list, composed or as it is stored.
void expect_same_label_by_7z(const std::string& path, const std::string& composed, const std::string& raw) {
  ASSERT_TRUE(has_program("7z")) << "scripts/setup installs it";
  const std::string root = text_behind("7z", {"l", "-slt", "-ba", path}, "Path = ").value_or("(nothing)");
  EXPECT_TRUE(root == composed || root == raw) << root;
}

// ---- Volumes at hand -----------------------------------------------------------------------------------------------

class RealVolumes : public KnownVolumes {};
KVFS_INSTANTIATE_KNOWN_VOLUMES(RealVolumes);

TEST_P(RealVolumes, VolumesOfOtherSystems_PrintTheLabelsOfTheirManifest) {
  for (const KnownVolume& volume : volumes()) {
    SCOPED_TRACE(volume.file);
    const ScratchFile image;
    ASSERT_TRUE(unpack(volume.file, image.path()));
    EXPECT_EQ(to_utf8(volume.units), volume.raw) << "the manifest agrees with itself";
    expect_label(image.path(), volume.composed, volume.raw);
    EXPECT_EQ(read_label(image.volume()), volume.units);
    // fshfsinfo cannot do without an attributes file.
    const bool with_fshfsinfo = image.volume().get_field("attributesFile.totalBlocks") != 0;
    expect_same_label_by_others(image.path(), volume.raw, with_fshfsinfo);
    expect_same_label_by_7z(image.path(), volume.composed, volume.raw);
  }
}

TEST_P(RealVolumes, EveryPackedVolume_IsInTheManifest) {
  std::vector<std::filesystem::path> known;
  for (const KnownVolume& volume : volumes()) {
    known.push_back(volume.file);
  }
  for (const auto& entry : std::filesystem::directory_iterator(folder())) {
    if (entry.path().extension() == ".xz") {
      EXPECT_THAT(known, Contains(entry.path()));
    }
  }
}

// ---- Volumes written by xorriso ------------------------------------------------------------------------------------

// A folder with files, removed with all that is in it.
class SourceTree {
 public:
  SourceTree() : path_(ScratchFile().path() + "-tree") { std::filesystem::create_directory(path_); }
  ~SourceTree() { std::filesystem::remove_all(path_); }
  SourceTree(const SourceTree&) = delete;
  SourceTree& operator=(const SourceTree&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  // Adds empty files, in folders of 500, with names of many scripts.
  void add_files(int count) const {
    const std::vector<std::string> words = {"plain", "Größe", "Ελλάδα", "Ёлка", "한국어", "日本", "tiếng-Việt", "é"};
    std::string folder;
    for (int i = 0; i < count; ++i) {
      const std::string& word = words[static_cast<std::size_t>(i) % words.size()];
      if (i % 500 == 0) {
        folder = path_ + "/" + word + "-folder-" + std::to_string(i);
        std::filesystem::create_directory(folder);
      }
      std::ofstream(std::filesystem::path(folder) / (word + std::to_string(i)));
    }
  }

 private:
  std::string path_;
};

class XorrisoVolumes : public ::testing::TestWithParam<std::pair<const char*, int>> {};

INSTANTIATE_TEST_SUITE_P(Labels, XorrisoVolumes,
                         ::testing::Values(std::pair{"BACKUP", 10}, std::pair{"Größe und Maß", 3000},
                                           std::pair{"한국어 볼륨", 10}, std::pair{"Ελλάδα Ёлка", 10},
                                           std::pair{"a", 0}));

TEST_P(XorrisoVolumes, PrintedLabel_IsTheGivenOneAndThatOfOtherReaders) {
  ASSERT_TRUE(has_program("xorriso")) << "scripts/setup installs it";
  const std::string label = GetParam().first;
  const SourceTree source;
  source.add_files(GetParam().second);
  const ScratchFile disk;
  const ToolRun written =
      run_program("xorriso", {"-as", "mkisofs", "-quiet", "-hfsplus", "-V", label, "-o", disk.path(), source.path()},
                  {.environment = {{"LC_ALL", "C.UTF-8"}}});
  ASSERT_EQ(written.status, 0) << written;
  const ScratchFile image(cut_out_partition(SparseImage::load(disk.path())));
  const std::string raw = to_utf8(decomposed(label));
  expect_label(image.path(), label, raw);
  // fshfsinfo wants an attributes file, which these volumes lack.
  expect_same_label_by_others(image.path(), raw, false);
  expect_same_label_by_7z(image.path(), label, raw);
}

}  // namespace
}  // namespace kvfs_test
