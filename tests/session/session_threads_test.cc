// Threads that list, read, look up, change and flush one session at once, and sessions beside each other.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

constexpr int kRounds = 40;
constexpr std::uint32_t kFiles = 60;

struct ThreadsVolume {
  Volume image;
  std::uint32_t file;
  std::uint32_t folder;
  std::uint32_t first;
};

ThreadsVolume threads_volume() {
  VolumeDescription description;
  description.catalog.spare_nodes = 60;
  description.spare_blocks = 1000;  // a link takes a block with seven free ones behind it
  ThreadsVolume made = {};
  made.file = description.add_file(kRootFolderId, u"file");
  description.item(made.file).data = {30000, pattern(30000), 3, 1, 0};
  made.folder = description.add_folder(kRootFolderId, u"d");
  made.first = description.add_files(made.folder, kFiles);
  made.image = build_volume(description);
  return made;
}

void list_items(const TestSession& session) {
  for (int i = 0; i < kRounds; ++i) {
    const std::vector<std::string> names = session.names("d");
    EXPECT_GE(names.size(), kFiles / 2);
    EXPECT_LE(names.size(), kFiles + kRounds);
  }
}

void read_items(const TestSession& session, std::uint32_t file) {
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_EQ(session.read(file, KVFS_DATA_FORK, 7000), pattern(30000));
    EXPECT_EQ(session.find("d"), KVFS_OK);
    EXPECT_FALSE(session.label().empty());
  }
}

void rename_items(const TestSession& session, const ThreadsVolume& made) {
  for (int i = 0; i < kRounds; ++i) {
    // The new name stands where the old one did, so that no node loses all of its records.
    const int file = i % 10;
    const std::uint32_t id = made.first + static_cast<std::uint32_t>(file);
    const std::string name = "f00000" + std::to_string(file) + std::to_string(i);
    EXPECT_EQ(kvfs_session_rename(session.get(), id, made.folder, name.c_str()), KVFS_OK);
    EXPECT_EQ(kvfs_session_set_label(session.get(), ("Label " + std::to_string(i)).c_str()), KVFS_OK);
  }
}

void make_and_delete_items(const TestSession& session, const ThreadsVolume& made) {
  for (int i = 0; i < kRounds; ++i) {
    std::uint32_t id = 0;
    const std::string name = "link" + std::to_string(i);
    EXPECT_EQ(kvfs_session_make_link(session.get(), made.folder, name.c_str(), "t", &id), KVFS_OK);
    EXPECT_EQ(session.flush(), KVFS_OK);
    if (i % 2 == 0) {
      EXPECT_EQ(kvfs_session_delete(session.get(), id), KVFS_OK);
    }
  }
}

TEST(SessionThreads, EverythingAtOnceOnOneSession_IsWhole) {
  LogCapture silence;  // of what changing a catalog of several levels says
  const ThreadsVolume made = threads_volume();
  const TestSession session(made.image);
  std::vector<std::thread> threads;
  threads.emplace_back([&] { list_items(session); });
  threads.emplace_back([&] { read_items(session, made.file); });
  threads.emplace_back([&] { rename_items(session, made); });
  threads.emplace_back([&] { make_and_delete_items(session, made); });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST(SessionThreads, SessionsBesideEachOther_DoNotDisturbEachOther) {
  LogCapture silence;
  const ThreadsVolume made = threads_volume();
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&made] {
      const TestSession session(made.image);
      rename_items(session, made);
      EXPECT_EQ(session.find("nothing/at all"), KVFS_NOT_FOUND);
      EXPECT_EQ(session.find("\xFF"), KVFS_INVALID);  // the log is everybody's
      EXPECT_EQ(session.flushed_findings(), "");
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(SessionThreads, HandlesThatAreClosedWhileTheirSessionIs_AreFreedOnce) {
  const ThreadsVolume made = threads_volume();
  for (int i = 0; i < kRounds; ++i) {
    kvfs_listing* listing = nullptr;
    kvfs_stream* stream = nullptr;
    TestSession session(made.image);
    ASSERT_EQ(kvfs_listing_open(session.get(), made.folder, &listing), KVFS_OK);
    ASSERT_EQ(kvfs_stream_open(session.get(), made.file, KVFS_DATA_FORK, &stream), KVFS_OK);
    std::thread first([&] { EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK); });
    std::thread second([&] { EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK); });
    EXPECT_EQ(session.close(), KVFS_OK);
    first.join();
    second.join();
  }
}

}  // namespace
}  // namespace kvfs_test
