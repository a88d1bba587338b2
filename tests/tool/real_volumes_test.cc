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
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "big_endian.h"
#include "tool_runner.h"
#include "unicode_fixture.h"

namespace kvfs_test {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;

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

#ifdef KVFS_VOLUMES_DIR

struct KnownVolume {
  std::string file;
  std::string composed;
  std::string raw;
  Name units;
};

std::string unescaped(const std::string& json) {
  std::string text;
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (json[i] == '\\' && i + 5 < json.size() && json[i + 1] == 'u') {
      text += to_utf8(Name(1, static_cast<char16_t>(std::stoul(json.substr(i + 2, 4), nullptr, 16))));
      i += 5;
    } else if (json[i] == '\\' && i + 1 < json.size()) {
      text += json[++i];
    } else {
      text += json[i];
    }
  }
  return text;
}

std::string string_field(const std::string& object, const std::string& name) {
  std::smatch match;
  if (!std::regex_search(object, match, std::regex("\"" + name + "\": \"((?:[^\"\\\\]|\\\\.)*)\""))) {
    ADD_FAILURE() << "no field " << name << " in " << object;
    return "";
  }
  return unescaped(match[1]);
}

// The entries of the manifest, which lists one flat object for each volume.
std::vector<KnownVolume> read_manifest(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  const std::string manifest = text.str();
  std::vector<KnownVolume> volumes;
  const std::regex object(R"(\{[^{}]*"file"[^{}]*\})");
  for (auto it = std::sregex_iterator(manifest.begin(), manifest.end(), object); it != std::sregex_iterator(); ++it) {
    const std::string entry = it->str();
    KnownVolume volume = {
        string_field(entry, "file"), string_field(entry, "label_composed"), string_field(entry, "label_raw"), {}};
    std::istringstream units(string_field(entry, "label_units"));
    std::string unit;
    while (units >> unit) {
      volume.units.push_back(static_cast<char16_t>(std::stoul(unit, nullptr, 16)));
    }
    volumes.push_back(volume);
  }
  return volumes;
}

// An unpacked copy of a file in xz format.
class UnpackedFile : public ScratchFile {
 public:
  explicit UnpackedFile(const std::string& packed) {
    EXPECT_EQ(run_program("xz", {"--decompress", "--stdout", packed}, {.out_path = path()}).status, 0) << packed;
  }
};

TEST(RealVolumes, VolumesOfOtherSystems_PrintTheLabelsOfTheirManifest) {
  const std::filesystem::path folder = KVFS_VOLUMES_DIR;
  ASSERT_TRUE(std::filesystem::exists(folder / "manifest.json")) << folder;
  const std::vector<KnownVolume> volumes = read_manifest(folder / "manifest.json");
  ASSERT_THAT(volumes, Not(IsEmpty()));
  for (const KnownVolume& volume : volumes) {
    SCOPED_TRACE(volume.file);
    const UnpackedFile image(folder / volume.file);
    EXPECT_EQ(to_utf8(volume.units), volume.raw) << "the manifest agrees with itself";
    expect_label(image.path(), volume.composed, volume.raw);
    EXPECT_EQ(read_label(image.volume()), volume.units);
    expect_same_label_by_others(image.path(), volume.raw, true);
    expect_same_label_by_7z(image.path(), volume.composed, volume.raw);
  }
}

TEST(RealVolumes, EveryPackedVolume_IsInTheManifest) {
  const std::filesystem::path folder = KVFS_VOLUMES_DIR;
  ASSERT_TRUE(std::filesystem::exists(folder / "manifest.json")) << folder;
  std::vector<std::string> known;
  for (const KnownVolume& volume : read_manifest(folder / "manifest.json")) {
    known.push_back(volume.file);
  }
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".xz") {
      EXPECT_THAT(known, Contains(entry.path().filename().string()));
    }
  }
}

#endif

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
