// How changes come to the device: the order of the writes, what a loss of power leaves between them, failures, discard.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// A file of many extents to delete, another one that keeps the overflow file from running empty, and some more.
VolumeDescription described() {
  VolumeDescription description;
  description.block_size = 512;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t gone = description.add_file(folder, u"gone");
  description.item(gone).data = {512 * 30, pattern(512 * 30), 30, 1, 0};
  const std::uint32_t kept = description.add_file(folder, u"kept");
  description.item(kept).data = {512 * 12, pattern(512 * 12), 12, 1, 0};
  (void)description.add_files(folder, 10);
  description.spare_blocks = 200;
  return description;
}

// One change of each kind.
void change(const TestSession& session) {
  EXPECT_EQ(session.remove("d/gone"), KVFS_OK);
  EXPECT_EQ(kvfs_session_make_link(session.get(), session.id("d"), "link", "target", nullptr), KVFS_OK);
  EXPECT_EQ(session.rename("d/f000003", "/", "moved"), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Other"), KVFS_OK);
}

// The special file, or the header, that each write of a flush goes to; the same one in a row is told once.
std::vector<std::string> written_parts(const Volume& image, const std::vector<Transfer>& writes) {
  std::vector<std::string> parts;
  for (const Transfer& write : writes) {
    std::string part = write.offset == kHeaderOffset ? "header" : "other";
    for (const auto& [file, name] :
         {std::pair{SpecialFile::kExtents, "extents"}, std::pair{SpecialFile::kCatalog, "catalog"},
          std::pair{SpecialFile::kAllocation, "allocation"}}) {
      const std::vector<Extent> extents = image.fork(file).extents();
      for (const Extent& extent : extents) {
        const std::uint64_t begin = std::uint64_t{extent.start_block} * image.block_size();
        const std::uint64_t end = begin + std::uint64_t{extent.block_count} * image.block_size();
        part = write.offset >= begin && write.offset < end ? name : part;
      }
    }
    if (parts.empty() || parts.back() != part) {
      parts.push_back(part);
    }
  }
  return parts;
}

TEST(SessionFlush, Writes_ComeInTheOrderThatTheHeaderStates) {
  const Volume image = build_volume(described());
  const TestSession session(image);
  change(session);
  FaultInjector faults;
  EXPECT_EQ(kvfs_session_flush(session.get(), KVFS_FLUSH_DEVICE), KVFS_OK);
  const std::vector<std::string> expected = {"allocation", "header", "catalog", "extents", "allocation", "header"};
  EXPECT_EQ(written_parts(image, faults.writes()), expected);
  faults.clear_records();
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(faults.writes().empty()) << "nothing has changed since";
}

TEST(SessionFlush, RenameAndLabel_WriteTheCatalogAlone) {
  const Volume image = build_volume(described());
  const TestSession session(image);
  EXPECT_EQ(session.rename("d/kept", "/", "moved"), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Other"), KVFS_OK);
  FaultInjector faults;
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_EQ(written_parts(image, faults.writes()), std::vector<std::string>{"catalog"});
}

// What the checker says of blocks in use that nothing names, one at a time.
std::string leaked(const std::vector<Extent>& extents) {
  std::string findings;
  for (const Extent& extent : extents) {
    const std::string block = std::to_string(extent.start_block);
    findings += "blocks " + block + " to " + block + ": marked used, belong to nothing\n";
  }
  return findings;
}

// The device after each of the steps, as the writes are cut there.
TEST(SessionFlush, CutBetweenTwoSteps_LeavesNothingThatRefersToWhatIsNotThere) {
  const Volume image = build_volume(described());
  const TestSession session(image);
  change(session);
  std::vector<Transfer> writes;
  {
    FaultInjector faults;
    EXPECT_EQ(session.flush(), KVFS_OK);
    writes = faults.writes();
  }
  const Volume flushed = session.contents();
  const std::string gone = leaked(image.data_fork(*image.find_entry(kFirstUserId, u"gone")).extents());
  const std::string link = leaked(flushed.data_fork(*flushed.find_entry(kFirstUserId, u"link")).extents());
  const std::string free_blocks = std::to_string(image.get_field("freeBlocks"));
  const std::string without_link = std::to_string(image.get_field("freeBlocks") - 1);
  const std::string with_gone = std::to_string(image.get_field("freeBlocks") - 1 + 30);
  const std::vector<std::string> expected = {
      link + "freeBlocks is " + free_blocks + ", not " + without_link + "\n",  // the block of the link is in use
      link,                                                                    // and counted
      "overflow records of file 17, fork type 0, belong to nothing\n" + gone,  // the catalog is as it was changed
      gone,                                                                    // without the overflow extents
      "freeBlocks is " + without_link + ", not " + with_gone + "\n",           // the blocks are free
      "",
  };
  std::vector<std::string> findings;
  Volume cut = image;  // the target of the link was written before the flush
  for (std::size_t i = 0; i < writes.size(); ++i) {
    cut.write(writes[i].offset, writes[i].bytes);
    const bool ends_step =
        i + 1 == writes.size() || written_parts(image, {writes[i]}) != written_parts(image, {writes[i + 1]});
    if (ends_step) {
      findings.push_back(joined(check_volume(cut)));
      const TestSession again(cut);
      EXPECT_EQ(again.opened(), KVFS_OK);
      EXPECT_EQ(again.read(again.id("d/kept")), pattern(512 * 12));
    }
  }
  EXPECT_EQ(findings, expected);
}

TEST(SessionFlush, FailedWrite_IsMadeUpForByTheNextFlush) {
  const Volume image = build_volume(described());
  const unsigned long failures = fail_each(each(Call::kPwrite64), [&](FailingRun& run) {
    const TestSession session(image);
    change(session);
    LogCapture silence;
    const std::uint64_t result = run.operate([&] { return session.flush(); });
    if (!run.failed()) {
      EXPECT_EQ(result, KVFS_OK);
      return;
    }
    EXPECT_EQ(result, KVFS_IO_ERROR);
    EXPECT_EQ(session.facts().has_unflushed_changes, 1);
    EXPECT_EQ(session.flushed_findings(), "");
    EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  });
  EXPECT_GT(failures, 5U);
}

// Blocks of a large file are freed piece by piece: each counts once, whenever its bits are cleared.
TEST(SessionFlush, FailureWhileBlocksAreFreed_LeavesNoneUncounted) {
  VolumeDescription description;
  description.block_size = 512;
  const std::uint32_t large = description.add_file(kRootFolderId, u"large", 100000 * std::uint64_t{512});
  (void)description.add_files(kRootFolderId, 5);
  const Volume image = build_volume(description);
  for (const Call call : {Call::kRwlockRdlock, Call::kRwlockWrlock}) {
    (void)fail_each(each(call), [&](FailingRun& run) {
      LogCapture silence;
      const TestSession session(image);
      EXPECT_EQ(kvfs_session_delete(session.get(), large), KVFS_OK);
      const std::uint64_t result = run.operate([&] { return session.flush(); });
      EXPECT_TRUE(run.failed() || result == KVFS_OK);
      EXPECT_EQ(session.flushed_findings(), "");
    });
  }
}

// The allocation file has several blocks, and changes in one of them.
TEST(SessionFlush, BlocksThatWereCounted_AreNotWritten) {
  VolumeDescription description = described();
  description.spare_blocks = 20000;
  const Volume image = build_volume(description);
  std::size_t writes[2] = {};
  for (const bool counted : {false, true}) {
    const TestSession session(image);
    std::uint32_t free_blocks = 0;
    if (counted) {
      EXPECT_EQ(kvfs_session_count_free_blocks(session.get(), &free_blocks), KVFS_OK);
      EXPECT_GT(free_blocks, 20000U - 512);
    }
    change(session);
    const FaultInjector faults;
    EXPECT_EQ(session.flush(), KVFS_OK);
    writes[counted ? 1 : 0] = faults.writes().size();
  }
  EXPECT_EQ(writes[0], writes[1]);
}

// The bits of a file may lie in several blocks of the allocation file's cache, which warns at closing of what was not
// given back.
// Q-fork-4
TEST(SessionFlush, BlocksFreedAcrossBlocksOfTheCache_AreClosedInSilence) {
  constexpr std::uint32_t kBitsOfSmallBlock = 512 * 8;
  constexpr std::uint32_t kBitsOfBlock = 4096 * 8;
  const struct {
    std::uint32_t block_size;
    Extent blocks;
  } cases[] = {
      {512, {kBitsOfSmallBlock - 3, 3 * kBitsOfSmallBlock}},
      {512, {kBitsOfSmallBlock, kBitsOfSmallBlock}},
      {4096, {kBitsOfBlock - 3, 100}},
      {4096, {kBitsOfBlock - 11, 12}},
  };
  for (const auto& [block_size, blocks] : cases) {
    VolumeDescription description;
    description.block_size = block_size;
    const std::uint32_t file = description.add_file(kRootFolderId, u"f");
    description.item(file).data = {std::uint64_t{block_size} * blocks.block_count, {}, 1, 1, blocks.start_block};
    (void)description.add_files(kRootFolderId, 5);
    TestSession session(build_volume(description));
    const std::uint32_t before = session.facts().free_block_count;
    LogCapture log;
    EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_OK);
    EXPECT_EQ(session.flushed_findings(), "");
    EXPECT_EQ(session.facts().free_block_count, before + blocks.block_count);
    EXPECT_EQ(session.close(), KVFS_OK);
    EXPECT_LOG(log);
  }
}

TEST(SessionFlush, DeviceThatFailsToSynchronize_IsAnIOErrorAndAskedAgain) {
  const Volume image = build_volume(described());
  const unsigned long failures = fail_each(each(Call::kFsync), [&](FailingRun& run) {
    const TestSession session(image);
    change(session);
    const std::uint64_t result = run.operate([&] { return kvfs_session_flush(session.get(), KVFS_FLUSH_DEVICE); });
    if (!run.failed()) {
      EXPECT_EQ(result, KVFS_OK);
      return;
    }
    EXPECT_EQ(result, KVFS_IO_ERROR);
    EXPECT_LOG(run.log(), "ERROR kvfs_system_sync Error while waiting for the device: Input/output error (5)\n");
    const unsigned long calls = run.faults().count(Call::kFsync);
    EXPECT_EQ(kvfs_session_flush(session.get(), KVFS_FLUSH_DEVICE), KVFS_OK);
    EXPECT_GT(run.faults().count(Call::kFsync), calls);
    EXPECT_EQ(session.facts().has_unflushed_changes, 0);
    EXPECT_EQ(joined(check_volume(session.contents())), "");
  });
  EXPECT_EQ(failures, 7U);  // one for each step, and one before the flush returns
}

TEST(SessionFlush, CatalogThatLostItsRoot_IsNotWritten) {
  VolumeDescription description = described();
  const Volume image = build_volume(description);
  const TestSession session(image);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Other"), KVFS_OK);
  LogCapture silence;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockWrlock, 2);  // the session's own lock is the first
  EXPECT_EQ(session.flush(), KVFS_FAILED);
  EXPECT_TRUE(faults.writes().empty());
}

TEST(SessionDiscard, Changes_AreForgottenUpToTheLastFlush) {
  const TestSession session(build_volume(described()));
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Kept"), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_OK);
  change(session);
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(session.label(), "Kept");
  EXPECT_EQ(session.find("d/gone"), KVFS_OK);
  EXPECT_EQ(session.find("d/link"), KVFS_NOT_FOUND);
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST(SessionClose, Changes_AreLost) {
  const Volume image = build_volume(described());
  TestSession session(image);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Lost"), KVFS_OK);
  EXPECT_EQ(session.close(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

}  // namespace
}  // namespace kvfs_test
