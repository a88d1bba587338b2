// Every failing allocation, lock and transfer of every function, one at a time: nothing is left behind, no failure is
// taken for a success that it is not, and after a discard the session is as good as new.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// Behind the folder 16: the file 17 with both forks, one of them in the overflow file, 18 "other" with overflow extents
// as well, and small ones.
constexpr std::uint32_t kFolder = kFirstUserId;
constexpr std::uint32_t kFile = kFolder + 1;

Volume faults_volume() {
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_folder(kRootFolderId, u"d");
  (void)description.add_file(kFolder, u"file");
  description.item(kFile).data = {512 * 20, pattern(512 * 20), 20, 1, 0};
  description.item(kFile).resource = {512 * 12, pattern(512 * 12), 12, 1, 0};
  const std::uint32_t other = description.add_file(kFolder, u"other");
  description.item(other).data = {512 * 30, {}, 30, 1, 0};
  (void)description.add_symlink(kFolder, u"soft", "target");
  (void)description.add_hard_link(kFolder, u"hard", description.add_inode(600));
  (void)description.add_files(kFolder, 15);
  description.spare_blocks = 200;
  return build_volume(description);
}

struct SessionOperation {
  const char* name;
  std::function<std::uint64_t(kvfs_session*)> run;
  bool changes = false;
};

kvfs_item* item_to_fill() {
  static kvfs_item item;
  item.struct_size = sizeof(item);
  return &item;
}

std::uint64_t list(kvfs_session* session) {
  kvfs_listing* listing = nullptr;
  std::uint64_t result = kvfs_listing_open(session, kFolder, &listing);
  while (result == KVFS_OK) {
    result = kvfs_listing_next(listing, item_to_fill());
  }
  const FaultInjector::Pause pause;
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  return result == KVFS_END ? KVFS_OK : result;
}

std::uint64_t read_file(kvfs_session* session, std::uint32_t id, std::uint32_t fork) {
  static char buffer[30000];
  kvfs_stream* stream = nullptr;
  std::uint64_t result = kvfs_stream_open(session, id, fork, &stream);
  std::size_t count = 0;
  if (result == KVFS_OK) {
    result = kvfs_stream_read(stream, 3, buffer, sizeof(buffer), &count);
  }
  const FaultInjector::Pause pause;
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
  return result;
}

std::uint64_t flush_after_changes(kvfs_session* session) {
  {
    const FaultInjector::Pause pause;
    EXPECT_EQ(kvfs_session_delete(session, kFile), KVFS_OK);
    EXPECT_EQ(kvfs_session_make_link(session, kFolder, "link", "target", nullptr), KVFS_OK);
  }
  return kvfs_session_flush(session, KVFS_FLUSH_DEVICE);
}

std::vector<SessionOperation> operations() {
  return {
      {"find", [](kvfs_session* s) { return kvfs_session_find(s, KVFS_ROOT_ID, "d/file", item_to_fill()); }},
      {"find_id", [](kvfs_session* s) { return kvfs_session_find_id(s, kFile, item_to_fill()); }},
      {"list", list},
      {"read_data", [](kvfs_session* s) { return read_file(s, kFile, KVFS_DATA_FORK); }},
      {"read_resource", [](kvfs_session* s) { return read_file(s, kFile, KVFS_RESOURCE_FORK); }},
      {"read_hard_link", [](kvfs_session* s) { return read_file(s, kFile + 5, KVFS_DATA_FORK); }},
      {"read_link",
       [](kvfs_session* s) {
         char text[KVFS_TARGET_SIZE];
         return kvfs_session_read_link(s, kFile + 2, text, sizeof(text), nullptr);
       }},
      {"label",
       [](kvfs_session* s) {
         char text[KVFS_LABEL_SIZE];
         return kvfs_session_label(s, KVFS_LABEL_COMPOSED, text, sizeof(text), nullptr);
       }},
      {"facts",
       [](kvfs_session* s) {
         kvfs_volume_facts facts;
         facts.struct_size = sizeof(facts);
         return kvfs_session_facts(s, &facts);
       }},
      {"block_in_use",
       [](kvfs_session* s) {
         int in_use = 0;
         return kvfs_session_block_in_use(s, 5, &in_use);
       }},
      {"count_free_blocks",
       [](kvfs_session* s) {
         std::uint32_t count = 0;
         return kvfs_session_count_free_blocks(s, &count);
       }},
      {"discard", [](kvfs_session* s) { return kvfs_session_discard(s); }},
      {"set_label", [](kvfs_session* s) { return kvfs_session_set_label(s, "Another"); }, true},
      {"rename", [](kvfs_session* s) { return kvfs_session_rename(s, kFile, KVFS_ROOT_ID, "elsewhere"); }, true},
      {"delete", [](kvfs_session* s) { return kvfs_session_delete(s, kFile); }, true},
      {"make_link", [](kvfs_session* s) { return kvfs_session_make_link(s, kFolder, "link", "target", nullptr); },
       true},
      {"flush", flush_after_changes, true},
  };
}

std::vector<FailingCalls> failing_calls() {
  return {
      each_allocation(),         each(Call::kRwlockInit),
      each(Call::kRwlockRdlock), each(Call::kRwlockWrlock),
      each(Call::kRwlockUnlock), each(Call::kFlock),
      each(Call::kPread64),      each(Call::kPread64, Fault::short_by(1)),
      each(Call::kPwrite64),     each(Call::kPwrite64, Fault::short_by(1)),
  };
}

class SessionFaults : public ::testing::TestWithParam<SessionOperation> {};

// What a change that succeeded has made of the volume is whole; one that failed can be discarded.
void expect_whole(const TestSession& session, std::uint64_t result, const std::string& name) {
  const FaultInjector::Pause pause;
  if (result == KVFS_OK) {
    const std::uint64_t flushed = session.flush();
    EXPECT_TRUE(flushed == KVFS_OK) << kvfs_result_text(flushed);
    EXPECT_EQ(joined(check_volume(session.contents())), "");
    return;
  }
  if (name != "flush") {
    EXPECT_EQ(joined(check_volume(session.contents())), "") << "nothing but a link's target is written before";
  }
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(session.find("d"), KVFS_OK);
}

TEST_P(SessionFaults, EachFailure_LeavesASessionThatCanGoOn) {
  const Volume image = faults_volume();
  {
    const TestSession session(image);
    EXPECT_EQ(GetParam().run(session.get()), KVFS_OK);
  }
  for (const FailingCalls& failing : failing_calls()) {
    fail_each(failing, [&](FailingRun& run) {
      if (::testing::Test::HasFailure()) {
        return;  // one is enough
      }
      LogCapture silence;
      const TestSession session(image);
      const std::uint64_t result = run.operate([&] { return GetParam().run(session.get()); });
      if (run.failed()) {
        EXPECT_TRUE(result <= KVFS_LIMIT || result == KVFS_SPOILED || result == KVFS_CLOSED) << result;
        expect_whole(session, result, GetParam().name);
      }
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, SessionFaults, ::testing::ValuesIn(operations()),
                         [](const auto& suite) { return std::string(suite.param.name); });

TEST(SessionOpenFaults, EachFailure_LeavesNothingBehind) {
  const MemoryFile file(faults_volume());
  for (const FailingCalls& failing : failing_calls()) {
    fail_each(failing, [&](FailingRun& run) {
      LogCapture silence;
      kvfs_session* session = nullptr;
      const std::uint64_t result = run.operate(
          [&] { return kvfs_session_open(file.path().c_str(), KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT, &session); });
      EXPECT_TRUE(run.failed() || result == KVFS_OK);
      EXPECT_EQ(result == KVFS_OK, session != nullptr);
      if (session != nullptr) {
        const FaultInjector::Pause pause;
        EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
      }
      EXPECT_EQ(run.faults().outstanding_allocations(), 0U) << "result " << result;
    });
  }
}

TEST(SessionCloseFaults, LockThatCannotBeTaken_LeavesTheHandleOpen) {
  TestSession session(faults_volume());
  kvfs_listing* listing = nullptr;
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_listing_open(session.get(), kFolder, &listing), KVFS_OK);
  ASSERT_EQ(kvfs_stream_open(session.get(), kFile, KVFS_DATA_FORK, &stream), KVFS_OK);
  LogCapture silence;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1).fail(Call::kRwlockWrlock, 2).fail(Call::kRwlockWrlock, 3);
    EXPECT_EQ(kvfs_listing_close(&listing), KVFS_FAILED);
    EXPECT_EQ(kvfs_stream_close(&stream), KVFS_FAILED);
    EXPECT_EQ(session.close(), KVFS_FAILED);
  }
  EXPECT_EQ(kvfs_listing_next(listing, item_to_fill()), KVFS_OK);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

}  // namespace
}  // namespace kvfs_test
