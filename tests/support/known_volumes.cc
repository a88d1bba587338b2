#include "known_volumes.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace kvfs_test {
namespace {

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

// A field of a flat object; none when it is not there.
std::optional<std::string> field_of(const std::string& object, const std::string& name) {
  std::smatch match;
  if (!std::regex_search(object, match, std::regex("\"" + name + "\": \"((?:[^\"\\\\]|\\\\.)*)\""))) {
    return std::nullopt;
  }
  return unescaped(match[1]);
}

std::string required_field(const std::string& object, const std::string& name) {
  const std::optional<std::string> field = field_of(object, name);
  EXPECT_TRUE(field.has_value()) << "no field " << name << " in " << object;
  return field.value_or("");
}

// Which labels fit is said in the note, where not all of them do.
std::optional<std::size_t> longest_label(const std::string& note) {
  constexpr std::size_t kLongest = 255;
  if (note.find("takes no label at all") != std::string::npos) {
    return std::nullopt;
  }
  std::smatch match;
  const bool limited = std::regex_search(note, match, std::regex("labels of up to ([0-9]+) units fit"));
  return limited ? std::stoul(match[1]) : kLongest;
}

KnownVolume read_entry(const std::filesystem::path& folder, const std::string& entry) {
  KnownVolume volume = {folder / required_field(entry, "file"),
                        required_field(entry, "label_composed"),
                        required_field(entry, "label_raw"),
                        {},
                        longest_label(field_of(entry, "note").value_or(""))};
  std::istringstream units(required_field(entry, "label_units"));
  std::string unit;
  while (units >> unit) {
    volume.units.push_back(static_cast<char16_t>(std::stoul(unit, nullptr, 16)));
  }
  return volume;
}

// The entries of a manifest, which lists one flat object for each volume.
std::vector<KnownVolume> read_manifest(const std::filesystem::path& folder) {
  std::ostringstream text;
  text << std::ifstream(folder / "manifest.json").rdbuf();
  const std::string manifest = text.str();
  std::vector<KnownVolume> volumes;
  const std::regex object(R"(\{[^{}]*"file"[^{}]*\})");
  for (auto it = std::sregex_iterator(manifest.begin(), manifest.end(), object); it != std::sregex_iterator(); ++it) {
    volumes.push_back(read_entry(folder, it->str()));
  }
  return volumes;
}

}  // namespace

std::vector<std::filesystem::path> volume_folders() {
  std::vector<std::filesystem::path> folders;
  std::istringstream names(KVFS_VOLUME_FOLDERS);
  std::string name;
  while (std::getline(names, name, ':')) {
    folders.emplace_back(name);
  }
  return folders.empty() ? std::vector<std::filesystem::path>(1) : folders;
}

std::string folder_test_name(const ::testing::TestParamInfo<std::filesystem::path>& info) {
  std::string name = info.param.empty() ? "none" : info.param.filename().string();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

bool unpack(const std::filesystem::path& packed, const std::filesystem::path& destination) {
  return std::system(("xz -dc '" + packed.string() + "' > '" + destination.string() + "'").c_str()) == 0;
}

void KnownVolumes::SetUp() {
  if (folder().empty()) {
    GTEST_SKIP() << "The CMake variable KVFS_VOLUMES_DIR names no folder with volumes of other systems.";
  }
  if (!std::filesystem::exists(folder())) {
    GTEST_SKIP() << "The folder " << folder() << " with volumes of other systems is absent.";
  }
  volumes_ = read_manifest(folder());
  ASSERT_FALSE(volumes_.empty()) << "no manifest.json in " << folder();
}

}  // namespace kvfs_test
