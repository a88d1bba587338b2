// What sessions list and read, beside what independent readers do: on volumes of the builder, of xorriso and of other
// systems.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "known_volumes.h"
#include "log_capture.h"
#include "session_fixture.h"
#include "tool_runner.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// ---- What a session finds ------------------------------------------------------------------------------------------

// All items below a folder by ID, private folders included.
void walk(const TestSession& session, std::uint32_t folder, std::map<std::uint32_t, kvfs_item>& items) {
  kvfs_listing* listing = nullptr;
  ASSERT_EQ(kvfs_listing_open(session.get(), folder, &listing), KVFS_OK) << folder;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::vector<std::uint32_t> folders;
  while (kvfs_listing_next(listing, &item) == KVFS_OK) {
    items[item.id] = item;
    EXPECT_EQ(item.parent_id, folder);
    if (item.kind == KVFS_FOLDER) {
      folders.push_back(item.id);
    }
  }
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  for (const std::uint32_t inner : folders) {
    walk(session, inner, items);
  }
}

// ---- Beside fls and icat -------------------------------------------------------------------------------------------

// The IDs in the lines of fls, such as "r/r 17: docs/data". Below 16 are its names for the special files.
std::vector<std::uint32_t> ids_of_fls(const std::string& text) {
  constexpr std::uint32_t kFirstID = 16;
  std::vector<std::uint32_t> ids;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.find(' ');
    const std::size_t colon = line.find(':');
    if (blank == std::string::npos || colon == std::string::npos || line.find('*') < colon) {
      continue;
    }
    const std::uint32_t id = static_cast<std::uint32_t>(std::stoul(line.substr(blank + 1, colon - blank - 1)));
    if (id >= kFirstID) {
      ids.push_back(id);
    }
  }
  return ids;
}

std::string as_text(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

// Everything that fls lists is listed, and each file's bytes are those that icat gives.
void expect_same_as_fls(const std::string& path, const TestSession& session) {
  const ToolRun listed = run_program("fls", {"-r", "-p", "-f", "hfs", path});
  if (listed.err.find("Error finding thread node") != std::string::npos) {
    return;  // to fls the reference of a hard link is an ID, which it is not on every system
  }
  ASSERT_EQ(listed.status, 0) << listed;
  std::map<std::uint32_t, kvfs_item> items;
  walk(session, KVFS_ROOT_ID, items);
  std::size_t files = 0;
  std::size_t piece = 1000;
  for (const std::uint32_t id : ids_of_fls(listed.out)) {
    kvfs_item item = {};
    item.struct_size = sizeof(item);
    // What hard links stand for has an ID of its own there.
    ASSERT_EQ(kvfs_session_find_id(session.get(), id, &item), KVFS_OK) << id;
    EXPECT_TRUE(items.contains(id)) << id << " " << item.name;
    if (item.kind != KVFS_FILE || files > 60) {
      continue;
    }
    ++files;
    piece = piece * 7 % 99991;
    const ToolRun content = run_program("icat", {"-f", "hfs", path, std::to_string(id)});
    EXPECT_TRUE(as_text(session.read(id, KVFS_DATA_FORK, piece)) == content.out) << id << " " << item.name;
  }
}

// ---- Beside 7z -----------------------------------------------------------------------------------------------------

std::string content_of(const std::filesystem::path& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

// Every regular file that 7z extracts is found by its path below the root folder, which 7z has below the label, and has
// the same bytes.
void expect_same_as_7z(const std::string& path, const TestSession& session) {
  const ScratchFile scratch;
  const std::filesystem::path folder = scratch.path() + "-7z";
  (void)run_program("7z", {"x", "-y", "-thfs", "-o" + folder.string(), path}, {.environment = {{"LC_ALL", "C.UTF-8"}}});
  ASSERT_TRUE(std::filesystem::exists(folder));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string below = entry.path().lexically_relative(folder).string();
    const std::size_t slash = below.find('/');
    // What it shows as files of their own, private folders, resource forks and attributes, is not looked at.
    if (!entry.is_regular_file() || entry.is_symlink() || slash == std::string::npos ||
        below.find("HFS+ Private") != std::string::npos || below.find(':') != std::string::npos) {
      continue;
    }
    const std::string name = below.substr(slash + 1);
    kvfs_item item = {};
    item.struct_size = sizeof(item);
    ASSERT_EQ(kvfs_session_find(session.get(), KVFS_ROOT_ID, name.c_str(), &item), KVFS_OK) << name;
    if (item.kind == KVFS_FILE) {
      EXPECT_TRUE(as_text(session.read(item.id)) == content_of(entry.path())) << name;
    }
  }
  std::filesystem::remove_all(folder);
}

void expect_same_as_others(const SparseImage& image) {
  LogCapture silence;
  const ScratchFile file(image);
  const TestSession session(image, 0);
  ASSERT_EQ(session.opened(), KVFS_OK);
  expect_same_as_fls(file.path(), session);
  expect_same_as_7z(file.path(), session);
}

// ---- The volumes ---------------------------------------------------------------------------------------------------

TEST(SessionReaders, VolumeOfTheBuilder_ReadsAsByOthers) {
  VolumeDescription description;
  const std::uint32_t docs = description.add_folder(kRootFolderId, u"docs");
  const std::uint32_t deep = description.add_folder(docs, u"deep");
  for (std::uint32_t i = 1; i < 12; ++i) {
    const std::uint32_t file = description.add_file(i % 2 == 0 ? docs : deep, Name(i, u'n'));
    const Bytes bytes = pattern(std::size_t{i} * i * 1777);
    description.item(file).data = {bytes.size(), bytes, std::min<std::uint32_t>(i, 1 + i * i * 1777 / 4096), 1, 0};
  }
  expect_same_as_others(build_volume(description));
}

TEST(SessionReaders, ChangedVolume_ReadsAsByOthers) {
  VolumeDescription description;
  const std::uint32_t docs = description.add_folder(kRootFolderId, u"docs");
  const std::uint32_t first = description.add_files(docs, 30);
  for (std::uint32_t i = 0; i < 10; ++i) {
    const Bytes bytes = pattern(5000 + std::size_t{i});
    description.item(first + i).data = {bytes.size(), bytes, 2, 1, 0};
  }
  const TestSession session(build_volume(description));
  LogCapture silence;
  EXPECT_EQ(kvfs_session_rename(session.get(), first, KVFS_ROOT_ID, "caf\u00E9"), KVFS_OK);
  EXPECT_EQ(kvfs_session_delete(session.get(), first + 1), KVFS_OK);
  EXPECT_EQ(kvfs_session_make_link(session.get(), docs, "link", "f000003", nullptr), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Changed"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
  expect_same_as_others(session.contents());
}

TEST(SessionReaders, VolumeOfXorriso_ReadsAsByOthers) {
  ASSERT_TRUE(has_program("xorriso")) << "scripts/setup installs it";
  const ScratchFile disk;
  const std::filesystem::path source = disk.path() + "-source";
  std::filesystem::create_directories(source / "folder" / "Größe");
  for (int i = 0; i < 300; ++i) {
    const char* const folder = i % 3 == 0 ? "folder/Größe" : (i % 3 == 1 ? "folder" : "");
    std::ofstream(source / folder / ("한국 é " + std::to_string(i)))
        << std::string(static_cast<std::size_t>(i) * 97, 'x');
  }
  const ToolRun written =
      run_program("xorriso", {"-as", "mkisofs", "-quiet", "-hfsplus", "-V", "X", "-o", disk.path(), source.string()},
                  {.environment = {{"LC_ALL", "C.UTF-8"}}});
  std::filesystem::remove_all(source);
  ASSERT_EQ(written.status, 0) << written;
  expect_same_as_others(cut_out_partition(SparseImage::load(disk.path())));
}

class SessionReadersOfOthers : public KnownVolumes {};
KVFS_INSTANTIATE_KNOWN_VOLUMES(SessionReadersOfOthers);

TEST_P(SessionReadersOfOthers, EachVolume_ReadsAsByOthers) {
  for (const KnownVolume& volume : volumes()) {
    SCOPED_TRACE(volume.file);
    const ScratchFile image;
    ASSERT_TRUE(unpack(volume.file, image.path()));
    expect_same_as_others(image.volume());
    const TestSession session(image.volume(), 0);
    EXPECT_EQ(session.label(), volume.composed);
    EXPECT_EQ(session.label(KVFS_LABEL_STORED), volume.raw);
  }
}

}  // namespace
}  // namespace kvfs_test
