// Every failing allocation, lock and transfer of every function, one at a time: nothing is left behind, no failure is
// taken for a success that it is not, and after a discard the session is as good as new.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "failure_report.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::HasSubstr;

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
  (void)description.add_folder(kRootFolderId, u"empty");
  description.spare_blocks = 200;
  return build_volume(description);
}

struct SessionOperation {
  const char* name;
  const char* functions;  // as the report has them
  std::function<std::uint64_t(kvfs_session*)> run;
  bool changes = false;
};

kvfs_item* item_to_fill() {
  static kvfs_item item;
  item.struct_size = sizeof(item);
  return &item;
}

std::uint32_t id_of(kvfs_session* session, const char* path) {
  const FaultInjector::Pause pause;
  EXPECT_EQ(kvfs_session_find(session, KVFS_ROOT_ID, path, item_to_fill()), KVFS_OK);
  return item_to_fill()->id;
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
      {"find", "kvfs_session_find",
       [](kvfs_session* s) { return kvfs_session_find(s, KVFS_ROOT_ID, "d/file", item_to_fill()); }},
      {"find_id", "kvfs_session_find_id",
       [](kvfs_session* s) { return kvfs_session_find_id(s, kFile, item_to_fill()); }},
      {"list", "kvfs_listing_open and kvfs_listing_next", list},
      {"read_data", "kvfs_stream_open and kvfs_stream_read",
       [](kvfs_session* s) { return read_file(s, kFile, KVFS_DATA_FORK); }},
      {"read_resource", "kvfs_stream_open and kvfs_stream_read, resource fork",
       [](kvfs_session* s) { return read_file(s, kFile, KVFS_RESOURCE_FORK); }},
      {"read_hard_link", "kvfs_stream_open and kvfs_stream_read, hard link",
       [](kvfs_session* s) { return read_file(s, kFile + 5, KVFS_DATA_FORK); }},
      {"read_link", "kvfs_session_read_link",
       [](kvfs_session* s) {
         char text[KVFS_TARGET_SIZE];
         return kvfs_session_read_link(s, kFile + 2, text, sizeof(text), nullptr);
       }},
      {"label", "kvfs_session_label",
       [](kvfs_session* s) {
         char text[KVFS_LABEL_SIZE];
         return kvfs_session_label(s, KVFS_LABEL_COMPOSED, text, sizeof(text), nullptr);
       }},
      {"facts", "kvfs_session_facts",
       [](kvfs_session* s) {
         kvfs_volume_facts facts;
         facts.struct_size = sizeof(facts);
         return kvfs_session_facts(s, &facts);
       }},
      {"block_in_use", "kvfs_session_block_in_use",
       [](kvfs_session* s) {
         int in_use = 0;
         return kvfs_session_block_in_use(s, 5, &in_use);
       }},
      {"count_free_blocks", "kvfs_session_count_free_blocks",
       [](kvfs_session* s) {
         std::uint32_t count = 0;
         return kvfs_session_count_free_blocks(s, &count);
       }},
      {"discard", "kvfs_session_discard", [](kvfs_session* s) { return kvfs_session_discard(s); }},
      {"set_label", "kvfs_session_set_label", [](kvfs_session* s) { return kvfs_session_set_label(s, "Another"); },
       true},
      {"rename", "kvfs_session_rename",
       [](kvfs_session* s) { return kvfs_session_rename(s, kFile, KVFS_ROOT_ID, "elsewhere"); }, true},
      {"delete", "kvfs_session_delete", [](kvfs_session* s) { return kvfs_session_delete(s, kFile); }, true},
      {"delete_folder", "kvfs_session_delete, folder",
       [](kvfs_session* s) { return kvfs_session_delete(s, id_of(s, "empty")); }, true},
      {"make_link", "kvfs_session_make_link",
       [](kvfs_session* s) { return kvfs_session_make_link(s, kFolder, "link", "target", nullptr); }, true},
      {"flush", "kvfs_session_flush", flush_after_changes, true},
  };
}

constexpr const char* kKinds[] = {"memory", "lock made",  "read lock", "write lock",  "unlock", "flock",
                                  "read",   "read short", "write",     "write short", "sync"};

// Lets each call of an operation fail, and reports how many did.
void fail_each_kind(const std::string& functions, const std::function<void(FailingRun&)>& run) {
  std::vector<FailureCount> counts;
  for (const char* const kind : kKinds) {
    SCOPED_TRACE(kind);
    counts.push_back({kind, fail_each(failing_calls(kind), run)});
  }
  report_failures(functions, counts);
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
  fail_each_kind(GetParam().functions, [&](FailingRun& run) {
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

INSTANTIATE_TEST_SUITE_P(Operations, SessionFaults, ::testing::ValuesIn(operations()),
                         [](const auto& suite) { return std::string(suite.param.name); });

// X-lock-1
TEST(SessionLockFaults, EachLockThatADeletionCannotRelease_LeavesNoRecordOpen) {
  const Volume image = faults_volume();
  const unsigned long failures = fail_each(each(Call::kRwlockUnlock), [&](FailingRun& run) {
    LogCapture log;
    {
      const TestSession session(image);
      (void)run.operate([&] { return kvfs_session_delete(session.get(), kFile); });
    }
    EXPECT_EQ(log.raw().find("leaked"), std::string::npos) << log.raw();
  });
  EXPECT_GT(failures, 10u);
}

TEST(SessionOpenFaults, EachFailure_LeavesNothingBehind) {
  const MemoryFile file(faults_volume());
  fail_each_kind("kvfs_session_open", [&](FailingRun& run) {
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

// The lock that an opening has taken goes with its failure: the descriptor stays with the caller.
TEST(SessionOpenFaults, EachFailureOnADescriptor_LeavesItUnlocked) {
  const MemoryFile file(faults_volume());
  const int other = open(file.path().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(other, 0);
  fail_each_kind("kvfs_session_open_descriptor", [&](FailingRun& run) {
    LogCapture silence;
    kvfs_session* session = nullptr;
    (void)run.operate(
        [&] { return kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT, &session); });
    const FaultInjector::Pause pause;
    EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(flock(other, LOCK_UN), 0);
  });
  close(other);
}

// The folder has more items than a listing takes at a time, and the fork extents in the overflow file. What is missing
// is looked for under both forms of its name, and what no search finds by walking.
TEST(SessionMemory, OfEachUse_IsAllGivenBack) {
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_folder(kRootFolderId, u"d");
  (void)description.add_file(kFolder, u"file");
  description.item(kFile).resource = {512 * 12, {}, 12, 1, 0};
  (void)description.add_files(kFolder, 40);
  description.nul_names_by_units = true;
  const std::uint32_t nul_names = description.add_folder(kRootFolderId, u"nul names");
  (void)description.add_file(nul_names, {u'\0', u'b'});
  const std::uint32_t unfound = description.add_file(nul_names, {u'a', u'\0'});
  const MemoryFile file(build_volume(description));
  const FaultInjector faults;
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), 0, &session), KVFS_OK);
  std::size_t kept[2] = {};  // what a first use leaves in the caches serves a second one
  for (std::size_t& use : kept) {
    EXPECT_EQ(list(session), KVFS_OK);
    EXPECT_EQ(read_file(session, kFile, KVFS_RESOURCE_FORK), KVFS_OK);
    EXPECT_EQ(kvfs_session_find(session, KVFS_ROOT_ID, "\u00E9", item_to_fill()), KVFS_NOT_FOUND);
    EXPECT_EQ(kvfs_session_find_id(session, unfound, item_to_fill()), KVFS_OK);
    use = faults.outstanding_allocations();
  }
  EXPECT_EQ(kept[0], kept[1]);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
}

TEST(SessionMemory, OfADeletionThatIsDiscarded_IsGivenBack) {
  const MemoryFile file(faults_volume());
  const FaultInjector faults;
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_delete(session, kFile), KVFS_OK);
  EXPECT_EQ(kvfs_session_discard(session), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
}

TEST(SessionMemory, OfADeletionThatIsNeitherFlushedNorDiscarded_IsGivenBack) {
  const MemoryFile file(faults_volume());
  const FaultInjector faults;
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_delete(session, kFile), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
}

TEST(SessionMemory, OfLinks_IsGivenBack) {
  const TestSession session(faults_volume());
  char target[KVFS_TARGET_SIZE];
  const FaultInjector faults;
  std::size_t kept[2] = {};
  for (std::size_t& use : kept) {
    EXPECT_EQ(kvfs_session_read_link(session.get(), kFile + 2, target, sizeof(target), nullptr), KVFS_OK);
    EXPECT_EQ(read_file(session.get(), kFile + 5, KVFS_DATA_FORK), KVFS_OK);
    use = faults.outstanding_allocations();
  }
  EXPECT_EQ(kept[0], kept[1]);
}

TEST(SessionMemory, OfAStreamThatIsOpenedAnew_IsGivenBack) {
  const TestSession session(faults_volume());
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), kFile, KVFS_DATA_FORK, &stream), KVFS_OK);
  std::uint64_t size = 0;
  const FaultInjector faults;
  std::size_t kept[2] = {};
  for (std::size_t& change : kept) {
    EXPECT_EQ(kvfs_session_set_label(session.get(), "Another"), KVFS_OK);
    EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
    change = faults.outstanding_allocations();
  }
  EXPECT_EQ(kept[0], kept[1]);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

TEST(SessionMemory, OfAForkWithoutItsLastExtents_IsGivenBack) {
  Volume image = faults_volume();
  const std::string total = image.find_by_cnid(kFile)->path() + ".resourceFork.totalBlocks";
  image.set_field(total, image.get_field(total) + 1);
  const TestSession session(image);
  LogCapture silence;
  kvfs_stream* stream = nullptr;
  EXPECT_EQ(kvfs_stream_open(session.get(), kFile, KVFS_RESOURCE_FORK, &stream), KVFS_INCONSISTENT);  // fills caches
  const FaultInjector faults;
  EXPECT_EQ(kvfs_stream_open(session.get(), kFile, KVFS_RESOURCE_FORK, &stream), KVFS_INCONSISTENT);
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
}

// A name with a NUL is looked for among all items of the folder.
TEST(SessionMemory, OfASearchThatMeetsADamagedRecord_IsGivenBack) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t damaged = description.add_file(folder, u"a");
  Volume image = build_volume(description);
  image.set_field(image.find_by_cnid(damaged)->path() + ".recordType", 9);
  const TestSession session(image);
  LogCapture silence;
  (void)session.find("d/%u0000b");  // what it leaves in the caches serves the second one
  const FaultInjector faults;
  EXPECT_EQ(session.find("d/%u0000b"), KVFS_INCONSISTENT);
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
}

// Where names are compared unit by unit, a listing goes on by walking from the first item.
TEST(SessionListingFaults, FailureWhileGoingOn_IsMadeUpForByTheNextCall) {
  constexpr std::size_t kItems = 40;
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  for (std::size_t i = 0; i < kItems; ++i) {
    (void)description.add_file(folder, {u'\0', static_cast<char16_t>(0x4E00 + i)});
  }
  LogCapture silence;
  const TestSession session(build_volume(description));
  const unsigned long failures = fail_each(each(Call::kRwlockRdlock), [&](FailingRun& run) {
    kvfs_listing* listing = nullptr;
    ASSERT_EQ(kvfs_listing_open(session.get(), folder, &listing), KVFS_OK);
    std::size_t count = 0;
    for (; count < 32; ++count) {
      ASSERT_EQ(kvfs_listing_next(listing, item_to_fill()), KVFS_OK);
    }
    const std::uint64_t result = run.operate([&] { return kvfs_listing_next(listing, item_to_fill()); });
    count += result == KVFS_OK ? 1 : 0;
    while (kvfs_listing_next(listing, item_to_fill()) == KVFS_OK) {
      ++count;
    }
    EXPECT_EQ(count, kItems);
    EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  });
  EXPECT_GT(failures, 32U);
}

TEST(SessionFindFaults, ThreadWithoutItsItem_IsNotFoundOrTheFailure) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  description.item(file).with_record = false;
  LogCapture silence;
  const TestSession session(build_volume(description));
  fail_each(each(Call::kRwlockRdlock), [&](FailingRun& run) {
    const std::uint64_t result = run.operate([&] { return kvfs_session_find_id(session.get(), file, item_to_fill()); });
    EXPECT_EQ(result, run.failed() ? KVFS_FAILED : KVFS_NOT_FOUND);
  });
}

TEST(SessionForkFaults, LongExtentWithoutMemory_IsNotOpened) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", std::uint64_t{5} << 30);
  const TestSession session(build_volume(description));
  std::string messages;
  fail_each(each_allocation(), [&](FailingRun& run) {
    kvfs_stream* stream = nullptr;
    const std::uint64_t result =
        run.operate([&] { return kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream); });
    EXPECT_EQ(result, run.failed() ? KVFS_NO_MEMORY : KVFS_OK);
    EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
    messages += without_line_numbers(run.log().raw());
  });
  EXPECT_THAT(messages, HasSubstr("ERROR kvfs_session_open_fork Error while allocating 24 bytes for extents.\n"));
}

TEST(SessionForkFaults, OverflowExtentsWithoutMemory_AreNotOpened) {
  const Volume image = faults_volume();
  std::string messages;
  fail_each(each_allocation(), [&](FailingRun& run) {
    const TestSession session(image);  // another time less memory is asked for
    kvfs_stream* stream = nullptr;
    const std::uint64_t result =
        run.operate([&] { return kvfs_stream_open(session.get(), kFile, KVFS_RESOURCE_FORK, &stream); });
    EXPECT_EQ(result, run.failed() ? KVFS_NO_MEMORY : KVFS_OK);
    EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
    messages += without_line_numbers(run.log().raw());
  });
  EXPECT_THAT(messages, HasSubstr("Error while allocating 96 bytes for extents.\n"));
}

TEST(SessionFactsFaults, LockThatIsRefused_GivesNoFacts) {
  const TestSession session(faults_volume());
  const unsigned long failures = fail_each(each(Call::kRwlockRdlock), [&](FailingRun& run) {
    kvfs_volume_facts facts = {};
    facts.struct_size = sizeof(facts);
    LogCapture silence;
    const std::uint64_t result = run.operate([&] { return kvfs_session_facts(session.get(), &facts); });
    EXPECT_EQ(result, run.failed() ? KVFS_FAILED : KVFS_OK);
    EXPECT_EQ(facts.block_size, run.failed() ? 0U : 512U);
  });
  EXPECT_GT(failures, 0U);
}

TEST(SessionLinkFaults, ReadThatFails_MakesNoLink) {
  const Volume image = faults_volume();
  const unsigned long failures = fail_each(each(Call::kPread64), [&](FailingRun& run) {
    LogCapture silence;
    const TestSession session(image);
    const std::uint64_t result =
        run.operate([&] { return kvfs_session_make_link(session.get(), kFolder, "link", "target", nullptr); });
    EXPECT_EQ(result, run.failed() ? KVFS_IO_ERROR : KVFS_OK);
    EXPECT_EQ(session.find("d/link"), run.failed() ? KVFS_NOT_FOUND : KVFS_OK);
  });
  EXPECT_GT(failures, 0U);
}

// Lets each read of a deletion fail, which is to leave the volume as it was. Returns how many there were.
unsigned long failing_reads_of_deletion(const Volume& image, std::uint32_t file) {
  return fail_each(each(Call::kPread64), [&](FailingRun& run) {
    LogCapture silence;
    const TestSession session(image);
    const std::uint64_t result = run.operate([&] { return kvfs_session_delete(session.get(), file); });
    EXPECT_EQ(result, run.failed() ? KVFS_IO_ERROR : KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
  });
}

TEST(SessionDeleteFaults, FolderThatIsSaidToBeDeleted_IsGone) {
  const Volume image = faults_volume();
  const unsigned long failures = fail_each(each(Call::kRwlockRdlock), [&](FailingRun& run) {
    LogCapture silence;
    const TestSession session(image);
    const std::uint32_t folder = session.id("empty");
    if (run.operate([&] { return kvfs_session_delete(session.get(), folder); }) == KVFS_OK) {
      EXPECT_EQ(session.find("empty"), KVFS_NOT_FOUND) << run.n();
    }
  });
  EXPECT_GT(failures, 4U);
}

// The end of the volume is looked at only when a file has its last blocks, which may hold the alternate header.
TEST(SessionDeleteFaults, EndOfTheVolumeThatCannotBeRead_LeavesTheVolumeAsItWas) {
  VolumeDescription description;
  description.trailing_bytes = 1536;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  const Volume elsewhere = build_volume(description);
  Volume at_the_end = elsewhere;
  const std::uint32_t last = static_cast<std::uint32_t>(elsewhere.get_field("totalBlocks")) - 1;
  at_the_end.set_field(elsewhere.find_by_cnid(file)->path() + ".dataFork.extents[0].startBlock", last);
  at_the_end.set_block_used(last, true);
  EXPECT_EQ(failing_reads_of_deletion(at_the_end, file), failing_reads_of_deletion(elsewhere, file) + 1);
}

TEST(SessionDeleteFaults, JournalThatCannotBeLookedFor_LeavesTheVolumeAsItWas) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  const std::uint32_t info = description.add_file(kRootFolderId, u".journal_info_block", 4096);
  (void)description.add_files(kRootFolderId, 5);
  const Volume without = build_volume(description);
  Volume journaled = without;
  journaled.set_field("attributes", 0x2100);
  const std::string start = without.find_by_cnid(info)->path() + ".dataFork.extents[0].startBlock";
  journaled.set_field("journalInfoBlock", without.get_field(start));
  EXPECT_EQ(failing_reads_of_deletion(journaled, file), failing_reads_of_deletion(without, file) + 1);
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
