// Write, fill and flush, faults in turn, and threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "fault_injection.h"
#include "fork_fixture.h"
#include "log_capture.h"
#include "support.h"

namespace kvfs_test {
namespace {

const std::string kNoReadLock = "ERROR kvfs_rwlock_lock_read Unable to acquire read lock!\n";
const std::string kNoWriteLock = "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n";
const std::string kNoUnlock = "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n";

// One extent of 16 KiB at byte 8192 of the device.
const ForkShape kSmall = {.logical_size = 16384, .extents = {{2, 4}}};

// Two MiB and a bit in three extents, none of which begins where another ends.
const ForkShape kThreeExtents = {.logical_size = 2 * kMiB + 8192, .extents = {{3, 200}, {600, 60}, {1000, 254}}};

// With two blocks to each item and a third, blocks and bytes fall into different items: block 2, which begins in the
// middle of item 1, is cached in item 2.
constexpr std::uint32_t kOddUnit = 786432;
const ForkShape kOddUnitShape = {.transfer_unit = kOddUnit, .logical_size = 3 * kMiB, .extents = {{1, 768}}};

void write_at(const OpenFork& fork, std::uint64_t offset, const ByteVector& bytes) {
  ASSERT_EQ(kvfs_fork_write(fork.get(), offset, bytes.data(), bytes.size(), nullptr), kvfs_ok);
}

// Reads a range into the cache, so that a write to it needs no device and no memory.
void cache(const OpenFork& fork, std::uint64_t offset, std::size_t length) {
  ByteVector bytes(length);
  ASSERT_EQ(kvfs_fork_read(fork.get(), offset, bytes.data(), length, nullptr), kvfs_ok);
}

ByteVector cached_bytes(const OpenFork& fork, std::size_t item, std::size_t offset, std::size_t length) {
  const unsigned char* const data = fork.priv()->items[item]->data + offset;
  return {data, data + length};
}

// ---- Write ---------------------------------------------------------------------------------------------------------

TEST(ForkWrite, PartOfABlock_ReadsItFirstAndReturnsItsReferences) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  const ByteVector bytes = marker_bytes(10);
  std::size_t written = 0;
  ASSERT_EQ(kvfs_fork_write(fork.get(), 5, bytes.data(), bytes.size(), &written), kvfs_ok);
  EXPECT_EQ(written, 10u);
  EXPECT_EQ(transfers(faults), Lines{"read 8192 4096"});
  EXPECT_EQ(fork.locks(faults), (Lines{"write items", "unlock items", "write items", "unlock items", "write items",
                                       "write dirty", "unlock dirty", "unlock items"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={0} modified={0} dirty=1");
  EXPECT_EQ(fork.dirty_items(), 1u);
  ByteVector expected = fork.fork_bytes(0, 4096);
  std::copy(bytes.begin(), bytes.end(), expected.begin() + 5);
  EXPECT_EQ(cached_bytes(fork, 0, 0, 4096), expected);
  EXPECT_LOG(log);
}

TEST(ForkWrite, ReferencesOfOthers_AreLeftAsTheyWere) {
  OpenFork fork(kSmall);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 8192, nullptr), kvfs_ok);
  write_at(fork, 5, marker_bytes(10));
  EXPECT_EQ(fork.item(0), "refs=2 valid={0 1} modified={0} dirty=1");
}

TEST(ForkWrite, WholeBlock_ReadsNothingAndIsNotValid) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  write_at(fork, 4096, marker_bytes(4096));
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork.locks(faults), (Lines{"write items", "write dirty", "unlock dirty", "unlock items"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={1} dirty=1");
  EXPECT_EQ(cached_bytes(fork, 0, 4096, 4096), marker_bytes(4096));
}

// Q-fork-7
TEST(ForkWrite, WholeBlockThatWasNotReadBefore_IsReadOverByALaterMap) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 4096, nullptr), kvfs_ok);
  EXPECT_EQ(cached_bytes(fork, 0, 0, 4096), fork.fork_bytes(0, 4096));
}

// Q-fork-7
TEST(ForkWrite, WholeBlockThatWasMappedBefore_KeepsTheWrittenBytes) {
  OpenFork fork(kSmall);
  cache(fork, 0, 4096);
  write_at(fork, 0, marker_bytes(4096));
  ByteVector bytes(4096);
  ASSERT_EQ(kvfs_fork_read(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_ok);
  EXPECT_EQ(bytes, marker_bytes(4096));
}

TEST(ForkWrite, RangeFromWithinABlockToWithinAnother_ReadsBothEndsOnly) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  write_at(fork, 4000, marker_bytes(8300));
  EXPECT_EQ(transfers(faults), (Lines{"read 8192 4096", "read 20480 4096"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={0 3} modified={0 1 2 3} dirty=4");
}

TEST(ForkWrite, RangeFromABlocksBeginning_ReadsItsLastBlockOnly) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  write_at(fork, 4096, marker_bytes(4097));
  EXPECT_EQ(transfers(faults), Lines{"read 16384 4096"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={2} modified={1 2} dirty=2");
}

TEST(ForkWrite, RangeToABlocksEnd_ReadsItsFirstBlockOnly) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  write_at(fork, 4095, marker_bytes(4097));
  EXPECT_EQ(transfers(faults), Lines{"read 8192 4096"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={0} modified={0 1} dirty=2");
}

TEST(ForkWrite, SameBlockTwice_IsCountedOnce) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(10));
  write_at(fork, 100, marker_bytes(10));
  EXPECT_EQ(fork.item(0), "refs=0 valid={0} modified={0} dirty=1");
  EXPECT_EQ(fork.dirty_items(), 1u);
}

TEST(ForkWrite, SeveralBlocksOfAnItem_CountTheItemOnce) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  write_at(fork, 8192, marker_bytes(4096));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0 2} dirty=2");
  EXPECT_EQ(fork.dirty_items(), 1u);
}

TEST(ForkWrite, RangeOverItems_IsCopiedToEachAndReturnsTheReferencesOfBothEnds) {
  OpenFork fork(kThreeExtents);
  FaultInjector faults;
  const ByteVector bytes = marker_bytes(kMiB + 20);
  write_at(fork, kMiB - 10, bytes);
  EXPECT_EQ(faults.count(Call::kPread64), 2u);
  EXPECT_EQ(fork.item(0), "refs=0 valid={255} modified={255} dirty=1");
  EXPECT_EQ(fork.priv()->items[1]->dirty_blocks, 256u);
  EXPECT_EQ(fork.priv()->items[1]->references, 0u);
  EXPECT_EQ(fork.item(2), "refs=0 valid={0} modified={0} dirty=1");
  EXPECT_EQ(fork.dirty_items(), 3u);
  EXPECT_TRUE(fork.counts_hold());
  EXPECT_EQ(cached_bytes(fork, 0, kMiB - 10, 10), ByteVector(bytes.begin(), bytes.begin() + 10));
  EXPECT_TRUE(cached_bytes(fork, 1, 0, kMiB) == ByteVector(bytes.begin() + 10, bytes.end() - 10));
  EXPECT_EQ(cached_bytes(fork, 2, 0, 10), ByteVector(bytes.end() - 10, bytes.end()));
}

TEST(ForkWrite, NothingAtABlocksBeginning_ChangesNothing) {
  OpenFork fork(kSmall);
  std::size_t written = 99;
  ASSERT_EQ(kvfs_fork_write(fork.get(), 4096, "", 0, &written), kvfs_ok);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={} dirty=0");
  EXPECT_EQ(fork.dirty_items(), 0u);
}

TEST(ForkWrite, NothingFromNowhere_IsAllowed) {
  OpenFork fork(kSmall);
  for (const std::uint64_t offset : {std::uint64_t{4096}, std::uint64_t{4100}}) {
    std::size_t written = 99;
    ASSERT_EQ(kvfs_fork_write(fork.get(), offset, nullptr, 0, &written), kvfs_ok);
    EXPECT_EQ(written, 0u);
  }
}

TEST(ForkWrite, LastPartialBlock_IsReadUpToTheForksEnd) {
  OpenFork fork({.logical_size = 4096 + 1024, .extents = {{2, 2}}});
  FaultInjector faults;
  write_at(fork, 5000, marker_bytes(120));
  EXPECT_EQ(transfers(faults), Lines{"read 12288 1024"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={1} dirty=1");
}

TEST(ForkWrite, WholeForkWithAPartialLastBlock_ReadsThatBlockFirst) {
  OpenFork fork({.logical_size = 4096 + 1024, .extents = {{2, 2}}});
  FaultInjector faults;
  write_at(fork, 0, marker_bytes(5120));
  EXPECT_EQ(transfers(faults), Lines{"read 12288 1024"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={0 1} dirty=2");
}

struct BadWrite {
  std::uint64_t offset;
  std::size_t length;
};

TEST(ForkWrite, RangeOutsideTheFork_IsRefusedAndChangesNothing) {
  for (const BadWrite& range : {BadWrite{9999, 2}, BadWrite{10001, 0}, BadWrite{UINT64_MAX, 1},
                                BadWrite{9000, 0xFFFFFFFF}, BadWrite{10000, 1}}) {
    OpenFork fork({.logical_size = 10000, .extents = {{2, 3}}});
    LogCapture log;
    FaultInjector faults;
    const ByteVector bytes(2);
    std::size_t written = 99;
    EXPECT_EQ(kvfs_fork_write(fork.get(), range.offset, bytes.data(), range.length, &written), kvfs_invalid);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(fork.item(0), "none");
    EXPECT_EQ(fork.locks(faults), Lines{});
    EXPECT_LOG(log, "CRITICAL kvfs_fork_write Attempted to write outside allocated fork size! Offset: " +
                        std::to_string(range.offset) + ", Length: " + std::to_string(range.length) +
                        ", fork data size: 10000\n");
  }
}

TEST(ForkWrite, NothingAtTheBeginning_HasNoLastItem) {
  OpenFork fork(kSmall);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_write(fork.get(), 0, "", 0, nullptr), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_write Internal inconsistency: Last cache item number out of bounds!\n");
}

// X-fork-2
TEST(ForkWrite, UnitOfNoBytes_IsRefused) {
  OpenFork fork({.sector_size = 0, .transfer_unit = 0, .logical_size = 8192, .extents = {{1, 2}}});
  LogCapture log;
  const ByteVector bytes(10);
  EXPECT_EQ(kvfs_fork_write(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_inconsistent);
  EXPECT_EQ(fork.item(0), "none");
  EXPECT_LOG(log, "ERROR kvfs_fork_write Transfer unit of 0 bytes is not usable.\n");
}

// The block that the write does not cover whole cannot be read.
// X-fork-2
TEST(ForkWrite, PartOfABlockThatDoesNotFitAnItem_IsRefused) {
  for (const std::uint32_t unit : {1048577u, 0xFFFFFFFFu}) {
    OpenFork fork({.transfer_unit = unit, .logical_size = 8192, .extents = {{1, 2}}});
    LogCapture log;
    const ByteVector bytes(10);
    EXPECT_EQ(kvfs_fork_write(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_inconsistent);
    EXPECT_EQ(fork.item(0), "none");
    EXPECT_LOG(log,
               "ERROR kvfs_fork_read_into_cache Transfer unit of " + std::to_string(unit) + " bytes is not usable.\n",
               "ERROR kvfs_fork_write Error while reading last block in write range into cache.\n");
  }
}

// Each of its items has the one block.
// X-fork-2
TEST(ForkWrite, WholeBlockThatDoesNotFitAnItem_IsWrittenButNotFlushed) {
  OpenFork fork({.transfer_unit = 2 * kMiB, .logical_size = 4 * kMiB, .extents = {{1, 1024}}});
  write_at(fork, 2 * kMiB, ByteVector(2 * kMiB, 0x5A));
  EXPECT_EQ(fork.item(1), "none");
  EXPECT_EQ(fork.item(2), "refs=0 valid={} modified={0} dirty=1");
  EXPECT_EQ(fork.item(3), "refs=0 valid={} modified={0} dirty=1");
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_flush_internal Modification bitmap block size (2097152) is larger than a cache "
             "item.\n");
}

TEST(ForkWrite, FirstOrLastBlockThatCannotBeRead_IsReported) {
  const std::vector<std::string> texts = {"Error while reading first block in write range into cache.\n",
                                          "Error while reading last block in write range into cache.\n"};
  const unsigned long failures = fail_each(each(Call::kPread64), [&](FailingRun& run) {
    OpenFork fork(kSmall);
    const ByteVector bytes = marker_bytes(8192);
    std::size_t written = 99;
    const kvfs_result result =
        run.operate([&] { return kvfs_fork_write(fork.get(), 100, bytes.data(), bytes.size(), &written); });
    if (!run.failed()) {
      EXPECT_EQ(result, kvfs_ok);
      return;
    }
    EXPECT_EQ(result, kvfs_io_error);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(fork.dirty_items(), 0u);
    ASSERT_FALSE(run.log().lines().empty());
    EXPECT_EQ(to_string(run.log().lines().back()), "ERROR kvfs_fork_write " + texts.at(run.n() - 1));
  });
  EXPECT_EQ(failures, texts.size());
}

TEST(ForkWrite, SecondItemThatCannotBeMade_LeavesTheBytesInTheFirst) {
  OpenFork fork(kThreeExtents);
  write_at(fork, 0, marker_bytes(4096));
  LogCapture log;
  FaultInjector faults;
  faults.fail_allocation(1);
  const ByteVector bytes = marker_bytes(8192, 9);
  std::size_t written = 99;
  EXPECT_EQ(kvfs_fork_write(fork.get(), kMiB - 4096, bytes.data(), bytes.size(), &written), kvfs_no_memory);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0 255} dirty=2");
  EXPECT_EQ(fork.item(1), "none");
  EXPECT_EQ(cached_bytes(fork, 0, kMiB - 4096, 4096), ByteVector(bytes.begin(), bytes.begin() + 4096));
  EXPECT_TRUE(fork.counts_hold());
  EXPECT_LOG(log, "ERROR kvfs_fork_cache_item_create Error while allocating {*}\n",
             "ERROR kvfs_fork_write Unable to create cache item 1.\n");
}

TEST(ForkWrite, ItemWithoutTheReferenceOfItsFill_IsAnInternalError) {
  // The fill reads the block into item 2, the bytes go to item 1.
  OpenFork fork(kOddUnitShape);
  LogCapture log;
  FaultInjector faults;
  const ByteVector bytes = marker_bytes(10);
  std::size_t written = 99;
  EXPECT_EQ(kvfs_fork_write(fork.get(), 2 * kOddUnit + 5, bytes.data(), bytes.size(), &written), kvfs_internal);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_write Unexpected - Cache item that we just copied to has no references (should have "
             "at least one)!\n");
}

TEST(ForkWrite, LastItemWithoutTheReferenceOfItsFill_IsAnInternalError) {
  OpenFork fork(kOddUnitShape);
  LogCapture log;
  const ByteVector bytes = marker_bytes(10);
  EXPECT_EQ(kvfs_fork_write(fork.get(), 2 * kOddUnit, bytes.data(), bytes.size(), nullptr), kvfs_internal);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_write Unexpected - Cache item that we just copied to has no references (should have "
             "at least one)!\n");
}

// Q-fork-14
TEST(ForkWrite, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    unsigned long n;
    Lines log;
    const char* item;
  };
  const char* const kWritten = "refs=0 valid={} modified={0} dirty=1";
  const std::vector<Case> cases = {
      {Call::kRwlockWrlock, 1, {kNoWriteLock, "ERROR kvfs_fork_write Error while read-locking items lock.\n"}, "none"},
      {Call::kRwlockWrlock, 2, {kNoWriteLock, "ERROR kvfs_fork_write Error while write-locking dirty lock.\n"}, "none"},
      {Call::kRwlockUnlock,
       1,
       {kNoUnlock, "CRITICAL kvfs_fork_write Unexpected - Error while unlocking dirty lock!\n"},
       kWritten},
      {Call::kRwlockUnlock,
       2,
       {kNoUnlock, "CRITICAL kvfs_fork_write Unexpected - Error while unlocking items lock!\n"},
       kWritten},
  };
  for (const Case& c : cases) {
    OpenFork fork(kSmall);
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, c.n);
    const ByteVector bytes = marker_bytes(4096);
    std::size_t written = 99;
    EXPECT_EQ(kvfs_fork_write(fork.get(), 0, bytes.data(), bytes.size(), &written), kvfs_failed);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(fork.item(0), c.item);
    EXPECT_TRUE(fork.counts_hold());
    EXPECT_TRUE(log.matches(c.log));
  }
}

TEST(ForkWrite, UnlocksThatFailAfterAFailure_DoNotReplaceItsResult) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail_allocation(1).fail_from(Call::kRwlockUnlock, 1);
  const ByteVector bytes = marker_bytes(4096);
  EXPECT_EQ(kvfs_fork_write(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_no_memory);
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_write", "Unexpected - Error while unlocking dirty lock!\n"));
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_write", "Unexpected - Error while unlocking items lock!\n"));
}

// ---- Fill ----------------------------------------------------------------------------------------------------------

TEST(ForkFill, ThreeBytes_AreWrittenThroughOnePatternOfThree) {
  OpenFork fork(kSmall);
  cache(fork, 0, 1);
  LogCapture log;
  FaultInjector faults;
  std::uint64_t filled = 0;
  ASSERT_EQ(kvfs_fork_fill(fork.get(), 10, 3, 0xFF, &filled), kvfs_ok);
  EXPECT_EQ(filled, 3u);
  EXPECT_EQ(faults.allocation_sizes(), (std::vector<std::size_t>{3}));
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  ByteVector expected = fork.fork_bytes(0, 4096);
  std::fill_n(expected.begin() + 10, 3, 0xFF);
  EXPECT_EQ(cached_bytes(fork, 0, 0, 4096), expected);
  EXPECT_EQ(fork.item(0), "refs=0 valid={0} modified={0} dirty=1");
  EXPECT_LOG(log);
}

TEST(ForkFill, Nothing_ChangesNothing) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  std::uint64_t filled = 99;
  ASSERT_EQ(kvfs_fork_fill(fork.get(), 0, 0, 0xFF, &filled), kvfs_ok);
  EXPECT_EQ(filled, 0u);
  EXPECT_EQ(fork.item(0), "none");
  EXPECT_EQ(fork.locks(faults), Lines{});
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(ForkFill, WholeFork_IsMarkedModified) {
  OpenFork fork(kThreeExtents);
  std::uint64_t filled = 0;
  ASSERT_EQ(kvfs_fork_fill(fork.get(), 0, 2 * kMiB + 8192, 0, &filled), kvfs_ok);
  EXPECT_EQ(filled, 2 * kMiB + 8192);
  EXPECT_EQ(fork.dirty_items(), 3u);
  EXPECT_EQ(fork.item(2), "refs=0 valid={} modified={0 1} dirty=2");
}

TEST(ForkFill, RangeOutsideTheFork_IsRefused) {
  struct Range {
    std::uint64_t offset;
    std::uint64_t length;
  };
  for (const Range& range :
       {Range{10001, 0}, Range{0, 10001}, Range{9999, 2}, Range{UINT64_MAX, UINT64_MAX}, Range{1, UINT64_MAX}}) {
    OpenFork fork({.logical_size = 10000, .extents = {{2, 3}}});
    LogCapture log;
    FaultInjector faults;
    std::uint64_t filled = 99;
    EXPECT_EQ(kvfs_fork_fill(fork.get(), range.offset, range.length, 0, &filled), kvfs_invalid);
    EXPECT_EQ(filled, 0u);
    EXPECT_EQ(faults.count_allocations(), 0u);
    EXPECT_LOG(log, "CRITICAL kvfs_fork_fill Attempted to fill outside allocated fork size! Offset: " +
                        std::to_string(range.offset) + ", Length: " + std::to_string(range.length) +
                        ", fork data size: 10000\n");
  }
}

// The sizes that a fill tries for its pattern when only patterns of up to `limit` bytes can be had.
std::vector<std::size_t> pattern_sizes(std::uint64_t length, std::size_t limit, unsigned long* writes) {
  OpenFork fork(kSmall);
  cache(fork, 0, 16384);
  FaultInjector faults;
  faults.refuse_allocations_above(limit);
  std::uint64_t filled = 0;
  EXPECT_EQ(kvfs_fork_fill(fork.get(), 0, length, 0x5A, &filled), kvfs_ok);
  EXPECT_EQ(filled, length);
  EXPECT_EQ(cached_bytes(fork, 0, 0, static_cast<std::size_t>(length)),
            ByteVector(static_cast<std::size_t>(length), 0x5A));
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  const Lines locks = fork.locks(faults);
  *writes = static_cast<unsigned long>(std::count(locks.begin(), locks.end(), "write dirty"));
  return faults.allocation_sizes();
}

TEST(ForkFill, PatternUnderMemoryPressure_ShrinksByPowersOfTwo) {
  using Sizes = std::vector<std::size_t>;
  unsigned long writes = 0;
  EXPECT_EQ(pattern_sizes(1000, 1000, &writes), (Sizes{1000}));
  EXPECT_EQ(writes, 1u);
  EXPECT_EQ(pattern_sizes(1000, 999, &writes), (Sizes{1000, 512}));
  EXPECT_EQ(writes, 2u);
  EXPECT_EQ(pattern_sizes(1024, 100, &writes), (Sizes{1024, 512, 256, 128, 64}));
  EXPECT_EQ(writes, 16u);
  EXPECT_EQ(pattern_sizes(1000, 100, &writes), (Sizes{1000, 512, 256, 128, 64}));
  EXPECT_EQ(writes, 16u);  // the last one is shorter
}

TEST(ForkFill, NoMemoryAtAll_FillsEightBytesAtATime) {
  using Sizes = std::vector<std::size_t>;
  unsigned long writes = 0;
  EXPECT_EQ(pattern_sizes(20, 0, &writes), (Sizes{20, 16, 8}));
  EXPECT_EQ(writes, 3u);
  EXPECT_EQ(pattern_sizes(9, 0, &writes), (Sizes{9, 8}));
  EXPECT_EQ(writes, 2u);
  EXPECT_EQ(pattern_sizes(8, 0, &writes), (Sizes{8}));
  EXPECT_EQ(writes, 1u);
  EXPECT_EQ(pattern_sizes(3, 0, &writes), (Sizes{3}));
  EXPECT_EQ(writes, 1u);
}

TEST(ForkFill, PatternOfALargeFill_IsAtMost512MiB) {
  OpenFork fork({.logical_size = 600 * kMiB, .extents = {{2, 153600}}});
  LogCapture log;
  FaultInjector faults;
  faults.refuse_allocations_above(16).fail(Call::kRwlockWrlock, 1);
  EXPECT_EQ(kvfs_fork_fill(fork.get(), 0, 600 * kMiB, 0, nullptr), kvfs_failed);
  EXPECT_EQ(faults.allocation_sizes().at(0), 536870912u);
  EXPECT_EQ(faults.allocation_sizes().at(1), 268435456u);
}

TEST(ForkFill, WriteThatFails_ReportsTheBytesFilledBefore) {
  OpenFork fork(kSmall);
  cache(fork, 0, 16384);
  LogCapture log;
  FaultInjector faults;
  faults.refuse_allocations_above(4096).fail(Call::kRwlockWrlock, 3);  // two locks for each write
  std::uint64_t filled = 99;
  EXPECT_EQ(kvfs_fork_fill(fork.get(), 0, 10000, 0xAB, &filled), kvfs_failed);
  EXPECT_EQ(filled, 4096u);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(fork.item(0), "refs=3 valid={0 1 2 3} modified={0} dirty=1");
  EXPECT_LOG(log, kNoWriteLock, "ERROR kvfs_fork_write Error while read-locking items lock.\n",
             "ERROR kvfs_fork_fill Error while filling range [4096-8192] (4096 bytes) with byte 0xAB.\n");
}

// ---- Flush ---------------------------------------------------------------------------------------------------------

TEST(ForkFlush, NothingModified_DoesNoTransfer) {
  OpenFork fork(kSmall);
  cache(fork, 0, 16384);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork.locks(faults), (Lines{"read items", "unlock items"}));
  EXPECT_LOG(log);
}

TEST(ForkFlush, ModifiedBlock_IsWrittenAndClean) {
  OpenFork fork(kSmall);
  write_at(fork, 4100, fork.changed_bytes(4100, 10));
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 4096"});
  EXPECT_EQ(fork.locks(faults),
            (Lines{"read items", "write dirty", "write item 0", "unlock item 0", "unlock dirty", "unlock items"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={} dirty=0");
  EXPECT_EQ(fork.dirty_items(), 0u);
  EXPECT_EQ(fork.changed_ranges(), Lines{"12292 10"});
  EXPECT_EQ(fork.read_image(12292, 10), fork.changed_bytes(4100, 10));
  EXPECT_LOG(log);
}

TEST(ForkFlush, SecondTime_WritesNothing) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(8192));
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{});
}

// Q-fork-5
TEST(ForkFlush, BlocksThatTouch_AreWrittenOneByOneInAscendingOrder) {
  OpenFork fork(kSmall);
  write_at(fork, 8192, marker_bytes(8192));
  write_at(fork, 0, marker_bytes(4096));
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 8192 4096", "write 16384 4096", "write 20480 4096"}));
}

TEST(ForkFlush, ModifiedBlocksOfEachBitmapByte_AreFound) {
  OpenFork fork({.transfer_unit = 512, .logical_size = kMiB, .extents = {{2, 256}}});
  Lines expected;
  for (const std::uint64_t block : {0u, 7u, 8u, 15u, 16u, 1023u, 2047u}) {
    write_at(fork, block * 512, marker_bytes(512));
    expected.push_back("write " + std::to_string(8192 + block * 512) + " 512");
  }
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0 7 8 15 16 1023 2047} dirty=7");
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), expected);
}

TEST(ForkFlush, SeveralExtentsAndItems_AreWrittenInForkOrder) {
  OpenFork fork(kThreeExtents);
  const ByteVector bytes = marker_bytes(4096);
  for (const std::uint64_t offset :
       {2 * kMiB + 4096, kMiB, kMiB - 4096, std::uint64_t{819200}, std::uint64_t{815104}}) {
    write_at(fork, offset, bytes);
  }
  EXPECT_EQ(fork.dirty_items(), 3u);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 827392 4096", "write 2457600 4096", "write 2682880 4096",
                                      "write 2686976 4096", "write 5132288 4096"}));
  EXPECT_EQ(fork.dirty_items(), 0u);
  EXPECT_TRUE(fork.counts_hold());
}

TEST(ForkFlush, ItemsThatAreCleanOrMissing_AreNotLocked) {
  OpenFork fork({.logical_size = 4 * kMiB, .extents = {{1, 1024}}});
  cache(fork, 0, 1);
  write_at(fork, 3 * kMiB, marker_bytes(4096));
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write " + std::to_string(4096 + 3 * kMiB) + " 4096"});
  EXPECT_EQ(fork.locks(faults),
            (Lines{"read items", "write dirty", "write item 3", "unlock item 3", "unlock dirty", "unlock items"}));
}

TEST(ForkFlush, EverySectorSizeAndUnit_WritesWholeBlocksInTheirPlace) {
  for (const std::uint32_t sector_size : {512u, 1024u, 2048u, 4096u}) {
    for (const std::uint32_t unit : {512u, 4096u, 8192u, 131072u, 262144u, 1048576u}) {
      OpenFork fork({.sector_size = sector_size,
                     .block_size = 4096,
                     .transfer_unit = unit,
                     .logical_size = 2 * kMiB,
                     .extents = {{5, 512}}});
      const std::uint32_t block = std::max(sector_size, unit);
      write_at(fork, 2 * kMiB - block, marker_bytes(block));
      FaultInjector faults;
      ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
      const std::uint64_t place = 20480 + 2 * kMiB - block;
      EXPECT_EQ(transfers(faults), Lines{"write " + std::to_string(place) + " " + std::to_string(block)});
      EXPECT_TRUE(fork.read_image(place, block) == marker_bytes(block));
      EXPECT_TRUE(fork.counts_hold());
    }
  }
}

TEST(ForkFlush, WholeForkWritten_ReadsBackFromTheDevice) {
  OpenFork fork(kThreeExtents);
  const ByteVector bytes = marker_bytes(2 * kMiB + 8192, 3);
  write_at(fork, 0, bytes);
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  ByteVector stored;
  for (const auto& [offset, length] :
       {std::pair{12288u, 819200u}, std::pair{2457600u, 245760u}, std::pair{4096000u, 1040384u}}) {
    const ByteVector run = fork.read_image(offset, length);
    stored.insert(stored.end(), run.begin(), run.end());
  }
  EXPECT_TRUE(stored == bytes);
}

TEST(ForkFlush, BlockOverTwoExtents_IsWrittenInPiecesAndClean) {
  OpenFork fork({.transfer_unit = 8192, .logical_size = 16384, .extents = {{10, 1}, {20, 1}, {30, 2}}});
  const ByteVector bytes = marker_bytes(16384);
  write_at(fork, 0, bytes);
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 40960 4096", "write 81920 4096", "write 122880 8192"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={} dirty=0");
  EXPECT_EQ(fork.dirty_items(), 0u);
  EXPECT_EQ(fork.read_image(81920, 4096), ByteVector(bytes.begin() + 4096, bytes.begin() + 8192));
  EXPECT_LOG(log);
}

// X-fork-6
TEST(ForkFlush, BlockOverThreeExtents_IsWrittenInPiecesAndClean) {
  OpenFork fork(
      {.block_size = 2048, .transfer_unit = 8192, .logical_size = 8192, .extents = {{10, 1}, {20, 2}, {30, 1}}});
  write_at(fork, 0, marker_bytes(8192));
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 20480 2048", "write 40960 4096", "write 61440 2048"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={} dirty=0");
}

TEST(ForkFlush, BlockOverTwoExtentsWhoseSecondPieceFails_StaysModifiedAndIsWrittenAgain) {
  OpenFork fork({.transfer_unit = 8192, .logical_size = 8192, .extents = {{10, 1}, {20, 1}}});
  write_at(fork, 0, marker_bytes(8192));
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 2);
    EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
  }
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0} dirty=1");
  EXPECT_EQ(fork.dirty_items(), 1u);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 40960 4096", "write 81920 4096"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={} dirty=0");
}

// A fork of 5096 bytes: its last block has 1000 bytes, which end within the second sector.
class ForkWithPartialLastBlock : public ::testing::Test {
 protected:
  OpenFork fork_{{.logical_size = 4096 + 1000, .extents = {{2, 2}}}};
};

// Q-fork-8
TEST_F(ForkWithPartialLastBlock, Flush_WritesUpToTheLastSectorAndForgetsTheItem) {
  write_at(fork_, 4096 + 10, marker_bytes(20));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork_.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 1024"});
  EXPECT_EQ(fork_.item(0), "refs=0 valid={1} modified={1} dirty=1");
  EXPECT_EQ(fork_.dirty_items(), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "WARNING kvfs_fork_flush Dirty items is non-0 (1) after successful full flush.\n");
}

TEST_F(ForkWithPartialLastBlock, FlushOfTheBlocksBefore_CleansThem) {
  write_at(fork_, 0, marker_bytes(5096));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork_.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 8192 4096", "write 12288 1024"}));
  EXPECT_EQ(fork_.item(0), "refs=0 valid={1} modified={1} dirty=1");
}

TEST_F(ForkWithPartialLastBlock, SecondFlush_FindsNothingToDo) {
  write_at(fork_, 4096, marker_bytes(10));
  {
    LogCapture log;
    EXPECT_EQ(kvfs_fork_flush(fork_.get()), kvfs_ok);
  }
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork_.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_LOG(log);
}

// Q-fork-8
TEST_F(ForkWithPartialLastBlock, WriteToTheForgottenItem_DoesNotCountItAgain) {
  write_at(fork_, 4096, marker_bytes(10));
  LogCapture log;
  ASSERT_EQ(kvfs_fork_flush(fork_.get()), kvfs_ok);
  write_at(fork_, 0, marker_bytes(4096));
  EXPECT_EQ(fork_.item(0), "refs=0 valid={1} modified={0 1} dirty=2");
  EXPECT_EQ(fork_.dirty_items(), 0u);
}

// Two items with modified blocks, of which an earlier flush has forgotten one.
ForkShape two_items() {
  return {.logical_size = 2 * kMiB, .extents = {{2, 512}}};
}

// Q-fork-8
TEST(ForkFlush, OfAnItemThatWasForgotten_CountsBelowZeroAndWarns) {
  OpenFork fork(two_items());
  write_at(fork, 0, marker_bytes(4096));
  write_at(fork, kMiB, marker_bytes(4096));
  fork.priv()->dirty_items = 1;
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(faults.writes().size(), 2u);
  EXPECT_EQ(fork.dirty_items(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_fork_flush Dirty items is non-0 (" + std::to_string(SIZE_MAX) +
                      ") after successful full flush.\n");
}

// The count that such a flush of a range leaves would become 0, and the write would never reach the device.
// X-fork-13
TEST(ForkWrite, WithACountBelowZero_IsCountedAndFlushed) {
  OpenFork fork(two_items());
  write_at(fork, 0, marker_bytes(4096));
  write_at(fork, kMiB, marker_bytes(4096));
  fork.priv()->dirty_items = 1;
  ASSERT_EQ(kvfs_fork_flush_internal(fork.get(), 0, 2 * kMiB), kvfs_ok);
  EXPECT_EQ(fork.dirty_items(), SIZE_MAX);
  write_at(fork, 4096, marker_bytes(4096));
  EXPECT_EQ(fork.dirty_items(), 1u);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 4096"});
  EXPECT_LOG(log);
}

// X-fork-13
TEST(ForkFlushInternal, OfAnItemThatWasForgotten_LeavesTheOthersToTheNextFlush) {
  OpenFork fork(two_items());
  write_at(fork, kMiB, marker_bytes(4096));
  fork.priv()->dirty_items = 0;
  write_at(fork, 4096, marker_bytes(4096));
  ASSERT_EQ(kvfs_fork_flush_internal(fork.get(), kMiB, 4096), kvfs_ok);
  EXPECT_EQ(fork.dirty_items(), 1u);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 4096"});
  EXPECT_LOG(log);
}

// A slot behind the last item may lie behind the array.
TEST(ForkFlushInternal, OfAnItemThatWasForgotten_LooksForOthersBeforeTheEndOfTheItemsOnly) {
  OpenFork fork(two_items());
  write_at(fork, 0, marker_bytes(4096));
  write_at(fork, kMiB, marker_bytes(4096));
  fork.priv()->dirty_items = 1;
  fork.priv()->items_end = 1;
  EXPECT_EQ(kvfs_fork_flush_internal(fork.get(), 0, 4096), kvfs_ok);
  EXPECT_EQ(fork.dirty_items(), 0u);
  fork.priv()->items_end = 2;
}

// X-fork-13
TEST(ForkFlush, ThatFailsBehindAnItemThatWasForgotten_LeavesTheOthersToTheNextOne) {
  OpenFork fork(two_items());
  write_at(fork, 0, marker_bytes(4096));
  fork.priv()->dirty_items = 0;
  write_at(fork, kMiB, marker_bytes(4096));
  {
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 2);
    ASSERT_NE(kvfs_fork_flush(fork.get()), kvfs_ok);
  }
  EXPECT_EQ(fork.dirty_items(), 1u);
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 1056768 4096"});
}

// X-fork-6
TEST(ForkFlush, LastBlockCutAtASector_StaysModified) {
  OpenFork fork({.logical_size = 4096 + 512, .extents = {{2, 2}}});
  write_at(fork, 4096, fork.changed_bytes(4096, 512));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 512"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={1} dirty=1");
  EXPECT_EQ(fork.changed_ranges(), Lines{"12288 512"});
}

TEST(ForkFlush, LastSectorOfABlockCutByTheEnd_IsWrittenWholeAndClean) {
  // 8191 bytes round up to all sectors of the second block.
  OpenFork fork({.logical_size = 8191, .extents = {{2, 2}}});
  write_at(fork, 4096, marker_bytes(4095));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12288 4096"});
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={} dirty=0");
  EXPECT_LOG(log);
}

TEST(ForkFlush, BlocksOfTheExtentBehindTheForksEnd_AreNotTouched) {
  OpenFork fork({.logical_size = 4096, .extents = {{2, 1}, {10, 3}}});
  write_at(fork, 0, marker_bytes(4096));
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 8192 4096"});
}

TEST(ForkFlush, WriteThatFails_LeavesTheRestModifiedForTheNextFlush) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(12288));
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 2, Fault::error_number(ENOSPC));
    EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
    EXPECT_EQ(faults.count(Call::kPwrite64), 2u);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_LOG(log,
               "ERROR kvfs_device_write_disk_sectors Error while writing 4096 bytes to device offset 12288 from buffer "
               "{*}\n",
               "ERROR kvfs_fork_process_write_io Error while writing disk sectors for item 0 block 1 to sector 24.\n",
               "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n",
               "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n");
  }
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={1 2} dirty=2");
  EXPECT_EQ(fork.dirty_items(), 1u);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 12288 4096", "write 16384 4096"}));
}

TEST(ForkFlush, WriteThatFailsInALaterItem_NamesTheBlockWithinItsItem) {
  OpenFork fork(kThreeExtents);
  write_at(fork, kMiB + 8192, marker_bytes(4096));
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1, Fault::short_by(1));
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_process_write_io",
                      "Error while writing disk sectors for item 1 block 2 to sector 5264.\n"));
}

TEST(ForkFlush, DeviceOpenedForReadingOnly_FailsEveryWrite) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kPwrite64, 1, Fault::error_number(EBADF));
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
  EXPECT_EQ(fork.dirty_items(), 1u);
}

struct UnitFault {
  const char* name;
  std::uint32_t sector_size;  // set behind the fork's back, as is the unit
  std::uint32_t unit;
  kvfs_result result;
  const char* log;
};

class ForkFlushUnits : public ::testing::TestWithParam<UnitFault> {};

// X-fork-2
TEST_P(ForkFlushUnits, UnitsThatCannotBeCountedByShifts_AreRefusedWithoutAWrite) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  fork.device()->sector_size = GetParam().sector_size;
  fork.priv()->modificationBitmapBlockSize = GetParam().unit;
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), GetParam().result);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork.locks(faults), (Lines{"read items", "unlock items"}));
  EXPECT_EQ(fork.dirty_items(), 1u);
  EXPECT_LOG(log, std::string("CRITICAL kvfs_fork_flush_internal ") + GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(
    Checks, ForkFlushUnits,
    ::testing::Values(
        UnitFault{"SectorSizeZero", 0, 4096, kvfs_internal, "Sector size is not a power of two: 0\n"},
        UnitFault{"OddSectorSize", 1000, 4096, kvfs_internal, "Sector size is not a power of two: 1000\n"},
        UnitFault{"BothOdd", 1000, 1536, kvfs_internal, "Sector size is not a power of two: 1000\n"},
        UnitFault{"OddUnit", 512, 1536, kvfs_internal, "Modification bitmap block size is not a power of two: 1536\n"},
        UnitFault{"UnitZero", 512, 0, kvfs_internal, "Modification bitmap block size is not a power of two: 0\n"},
        UnitFault{"UnitBelowTheSector", 1024, 512, kvfs_internal,
                  "Modification bitmap block size (512) is not a multiple of sector size (1024).\n"},
        UnitFault{"UnitAboveTheItem", 512, 2097152, kvfs_inconsistent,
                  "Modification bitmap block size (2097152) is larger than a cache item.\n"}),
    [](const auto& suite) { return std::string(suite.param.name); });

// Q-fork-10
TEST(ForkFlush, UnitThatIsNoPowerOfTwo_CanBeWrittenButNotFlushed) {
  OpenFork fork({.transfer_unit = 1536, .logical_size = 16384, .extents = {{2, 4}}});
  write_at(fork, 100, marker_bytes(3000));
  EXPECT_EQ(fork.item(0), "refs=0 valid={0 2} modified={0 1 2} dirty=3");
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_internal);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_LOG(log, "CRITICAL kvfs_fork_flush_internal Modification bitmap block size is not a power of two: 1536\n");
}

TEST(ForkFlush, UnitThatIsNoPowerOfTwoAndNothingModified_Succeeds) {
  OpenFork fork({.transfer_unit = 1536, .logical_size = 16384, .extents = {{2, 4}}});
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
}

TEST(ForkFlush, WriteOverTheLastBlocksOfAnOddUnit_StaysWithinTheBitmap) {
  // 683 blocks of 1536 bytes begin in an item; the bit of the last one is in the last byte of the bitmap.
  OpenFork fork({.transfer_unit = 1536, .logical_size = 2 * kMiB, .extents = {{2, 512}}});
  write_at(fork, 0, marker_bytes(683 * 1536 - 1536));
  write_at(fork, kMiB - 1024, marker_bytes(1024 + 512));
  EXPECT_EQ(fork.priv()->items[0]->dirty_blocks, 683u);
  EXPECT_TRUE(fork.counts_hold());
}

TEST(ForkFlush, ExtentsTooShortForTheLogicalSize_AreReported) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  fork.priv()->fork_extents[0].blockCount.set(3);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n",
             "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n");
}

TEST(ForkFlush, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    unsigned long n;
    Lines log;
    const char* item;
    std::size_t dirty_items;
  };
  const char* const kModified = "refs=0 valid={} modified={0} dirty=1";
  const char* const kClean = "refs=0 valid={} modified={} dirty=0";
  const std::string piece = "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n";
  const std::string range = "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n";
  const std::vector<Case> cases = {
      {Call::kRwlockRdlock,
       1,
       {kNoReadLock, "ERROR kvfs_fork_flush Error while read-locking items lock.\n"},
       kModified,
       1},
      {Call::kRwlockWrlock,
       1,
       {kNoWriteLock, "ERROR kvfs_fork_flush_internal Error while write-locking dirty lock.\n"},
       kModified,
       1},
      {Call::kRwlockWrlock,
       2,
       {kNoWriteLock, "ERROR kvfs_fork_process_write_io Error while write-locking item's item lock.\n", piece, range},
       kModified,
       1},
      {Call::kRwlockUnlock,
       1,
       {kNoUnlock, "CRITICAL kvfs_fork_process_write_io Unexpected - Error while unlocking item's item lock.\n", piece,
        range},
       kClean,
       0},
      {Call::kRwlockUnlock,
       2,
       {kNoUnlock, "CRITICAL kvfs_fork_flush_internal Unexpected - Error while unlocking dirty lock!\n"},
       kClean,
       0},
      {Call::kRwlockUnlock,
       3,
       {kNoUnlock, "CRITICAL kvfs_fork_flush Unexpected - Error while unlocking items lock!\n"},
       kClean,
       0},
  };
  for (const Case& c : cases) {
    OpenFork fork(kSmall);
    write_at(fork, 0, marker_bytes(4096));
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, c.n);
    EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_failed);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(fork.item(0), c.item);
    EXPECT_EQ(fork.dirty_items(), c.dirty_items);
    EXPECT_TRUE(log.matches(c.log));
  }
}

TEST(ForkFlush, UnlocksThatFailAfterAFailure_DoNotReplaceItsResult) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1).fail_from(Call::kRwlockUnlock, 1);
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_io_error);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_TRUE(
      log.has("CRITICAL", "kvfs_fork_process_write_io", "Unexpected - Error while unlocking item's item lock."));
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_flush_internal", "Unexpected - Error while unlocking dirty lock!\n"));
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_flush", "Unexpected - Error while unlocking items lock!\n"));
}

// ---- Flush of a range ----------------------------------------------------------------------------------------------

TEST(ForkFlushInternal, Range_WritesItsBlocksOnly) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(16384));
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush_internal(fork.get(), 4096, 8192), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 12288 4096", "write 16384 4096"}));
  EXPECT_EQ(fork.locks(faults), (Lines{"write dirty", "write item 0", "unlock item 0", "unlock dirty"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0 3} dirty=2");
  EXPECT_EQ(fork.dirty_items(), 1u);
  EXPECT_LOG(log);
}

// X-fork-6
TEST(ForkFlushInternal, RangeThatBeginsWithinABlock_WritesTheRestOfIt) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(8192));
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush_internal(fork.get(), 1024, 7168), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"write 9216 3072", "write 12288 4096"}));
  EXPECT_EQ(fork.read_image(9216, 3072), cached_bytes(fork, 0, 1024, 3072));
  EXPECT_EQ(fork.item(0), "refs=0 valid={} modified={0} dirty=1");  // its beginning is not written yet
}

TEST(ForkFlushInternal, RangeBehindTheForksEnd_IsRefused) {
  OpenFork fork(kSmall);
  write_at(fork, 0, marker_bytes(4096));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush_internal(fork.get(), 16384, 4096), kvfs_invalid);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_do_device_io Invalid parameter 'io_offset': Offset (16384) is beyond the end of the "
             "file.\n",
             "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n");
}

TEST(ForkFlushInternal, RangeBehindTheForksEndWithNothingModified_Succeeds) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush_internal(fork.get(), 16384, UINT64_MAX), kvfs_ok);
  EXPECT_EQ(fork.locks(faults), Lines{});
  EXPECT_LOG(log);
}

// ---- Writing one piece ---------------------------------------------------------------------------------------------

class ForkProcessWrite : public ::testing::Test {
 protected:
  ForkProcessWrite() { write_at(fork_, 0, marker_bytes(16384)); }

  kvfs_result process(std::uint64_t device_offset, std::uint64_t fork_offset, std::uint64_t length) {
    return kvfs_fork_process_write_io(&context_, device_offset, fork_offset, length);
  }

  OpenFork fork_{ForkShape{.logical_size = kMiB + 8192, .extents = {{2, 258}}}};
  kvfs_fork_write_context context_ = {fork_.get(), 9, 3, 8, 0};
};

TEST_F(ForkProcessWrite, Piece_IsWrittenWhereItLiesOnTheDevice) {
  FaultInjector faults;
  EXPECT_EQ(process(65536, 4096, 4096), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 65536 4096"});
  EXPECT_EQ(fork_.item(0), "refs=0 valid={} modified={0 2 3} dirty=3");
}

TEST_F(ForkProcessWrite, PieceAtOrBehindTheForksEnd_IsDoneAtOnce) {
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(process(0, kMiB + 8192, 4096), kvfs_ok);
  EXPECT_EQ(process(0, 4 * kMiB, 4096), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork_.locks(faults), Lines{});
  EXPECT_LOG(log);
}

TEST_F(ForkProcessWrite, ForkOfNoBytes_DoesNotCutThePiece) {
  fork_.priv()->logical_size = 0;
  FaultInjector faults;
  EXPECT_EQ(process(65536, 8192, 4096), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 65536 4096"});
}

TEST_F(ForkProcessWrite, BitmapsOfAnotherSize_AreAnInternalError) {
  kvfs_fork_cache_item* const item = fork_.priv()->items[0];
  LogCapture log;
  FaultInjector faults;
  item->valid_bitmap_size = 31;
  EXPECT_EQ(process(8192, 0, 4096), kvfs_internal);
  item->valid_bitmap_size = 32;
  item->modification_bitmap_size = 33;
  EXPECT_EQ(process(8192, 0, 4096), kvfs_internal);
  item->modification_bitmap_size = 32;
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork_.locks(faults), Lines{});
  EXPECT_LOG(log, "CRITICAL kvfs_fork_process_write_io Unexpected valid bitmap size: 31 (expected 32).\n",
             "CRITICAL kvfs_fork_process_write_io Unexpected modification bitmap size: 33 (expected 32).\n");
}

TEST_F(ForkProcessWrite, ItemFarOutside_IsAnInternalError) {
  LogCapture log;
  fork_.priv()->items_length = 0;
  EXPECT_EQ(process(8192, kMiB, 4096), kvfs_internal);
  fork_.priv()->items_length = 2;
  EXPECT_LOG(log, "CRITICAL kvfs_fork_process_write_io Item index (1) out of bounds (maximum value: 0).\n");
}

// X-fork-3
TEST_F(ForkProcessWrite, ItemBehindTheLast_CountsAsMissing) {
  LogCapture log;
  fork_.priv()->items_length = 1;
  EXPECT_EQ(process(8192, kMiB, 4096), kvfs_ok);
  fork_.priv()->items_length = 2;
  EXPECT_LOG(log);
}

// ---- Allocation blocks that are no whole sectors --------------------------------------------------------------------

// Blocks of one sector and a half, from byte 3072 of the device on when they begin with block 2.
ForkShape blocks_of_odd_size(std::uint64_t logical_size, const std::vector<BlockRun>& extents) {
  return {
      .sector_size = 1024, .block_size = 1536, .transfer_unit = 2048, .logical_size = logical_size, .extents = extents};
}

// Writes all of the fork and flushes it; what the image file holds then is compared with what was written.
void expect_flushed(const ForkShape& shape, const Lines& writes, const Lines& logged = {}) {
  OpenFork fork(shape);
  const ByteVector bytes = fork.changed_bytes(0, static_cast<std::size_t>(shape.logical_size));
  cache(fork, 0, bytes.size());
  write_at(fork, 0, bytes);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), writes);
  EXPECT_TRUE(log.matches(logged));
  for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
    ASSERT_EQ(fork.read_image(fork.device_offset(offset), 1)[0], bytes[offset]) << offset;
  }
}

// X-fork-5
TEST(ForkFlush, ExtentsOfWholeSectors_AreWrittenWhateverTheBlockSize) {
  expect_flushed(blocks_of_odd_size(6144, {{2, 2}, {6, 2}}),
                 {"write 3072 2048", "write 5120 1024", "write 9216 1024", "write 10240 2048"});
}

// The bytes behind the logical end, up to the end of its sector, are still the fork's.
// X-fork-5
TEST(ForkFlush, LogicalEndInASectorOfItsBlock_IsWrittenWhateverTheBlockSize) {
  expect_flushed(blocks_of_odd_size(3072 - 10, {{2, 2}}), {"write 3072 2048", "write 5120 1024"},
                 {"WARNING kvfs_fork_flush Dirty items is non-0 (1) after successful full flush.\n"});
}

// Neither the first block, which could be written, nor the modified one at `offset` is.
void expect_refused(const ForkShape& shape, const std::string& piece, std::uint64_t offset = 0) {
  OpenFork fork(shape);
  write_at(fork, 0, marker_bytes(2048));
  write_at(fork, offset, marker_bytes(1));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(fork.dirty_items(), 1u);
  EXPECT_LOG(log, "ERROR kvfs_fork_flush_internal Piece of " + piece + " is not of whole sectors.\n",
             "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n",
             "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n");
}

// The modified block lies behind an item that was only read, and one that is not in the cache.
// X-fork-5
TEST(ForkFlush, BlockFarBehindABeginningWithinASector_IsRefusedWithoutAWrite) {
  OpenFork fork(blocks_of_odd_size(3 << 20, {{1, 2048}}));
  unsigned char byte = 0;
  ASSERT_EQ(kvfs_fork_read(fork.get(), 0, &byte, 1, nullptr), kvfs_ok);
  write_at(fork, 5 << 19, marker_bytes(1));
  LogCapture silence;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
}

// X-fork-5
TEST(ForkFlush, ExtentThatBeginsWithinASector_IsRefusedWithoutAWrite) {
  expect_refused(blocks_of_odd_size(3072, {{1, 2}}), "3072 bytes at 1536");
}

// X-fork-5
TEST(ForkFlush, ExtentThatEndsWithinASector_IsRefusedWithoutAWrite) {
  // The sector at byte 4096 holds the end of the first extent and the beginning of another file's block.
  expect_refused(blocks_of_odd_size(3072, {{2, 1}, {6, 1}}), "1536 bytes at 3072");
}

// X-fork-5
TEST(ForkFlush, LaterExtentThatBeginsWithinASector_IsRefusedBeforeTheFirstWrite) {
  expect_refused(blocks_of_odd_size(6144, {{2, 2}, {5, 2}}), "3072 bytes at 7680", 3072);
}

// X-fork-5
TEST(ForkFlush, LogicalEndInASectorThatEndsInAnotherBlock_IsRefusedWithoutAWrite) {
  expect_refused(blocks_of_odd_size(4600, {{2, 3}}), "4600 bytes at 3072", 4599);
}

// Blocks of half a sector: the second extent begins within one.
constexpr std::uint64_t kAlignedExtent = 8 * 256;
ForkShape half_sectors() {
  return {.block_size = 256, .transfer_unit = 512, .logical_size = 2 * kAlignedExtent, .extents = {{200, 8}, {217, 8}}};
}

// X-fork-5
TEST(ForkFlush, ExtentThatBeginsWithinASectorWithoutModifiedBlocks_DoesNotMatter) {
  OpenFork fork(half_sectors());
  write_at(fork, kAlignedExtent - 512, marker_bytes(512));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 52736 512"});
  EXPECT_LOG(log);
}

// X-fork-5
TEST(ForkFlush, ExtentThatBeginsWithinASectorWithItsLastBlockModified_IsRefusedWithoutAWrite) {
  OpenFork fork(half_sectors());
  write_at(fork, 0, marker_bytes(512));
  write_at(fork, 2 * kAlignedExtent - 512, marker_bytes(512));
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
}

// Of an extent that ends within a sector only the last block reaches into that.
// X-fork-5
TEST(ForkFlush, ExtentThatEndsWithinASectorWithAnotherBlockModified_IsWritten) {
  OpenFork fork(blocks_of_odd_size(4600, {{2, 3}}));
  write_at(fork, 0, marker_bytes(2048));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 3072 2048"});
  EXPECT_LOG(log);
}

// Only the block of the cache with that byte reaches into the sector, not the modified one before it.
// X-fork-5
TEST(ForkFlush, LogicalEndBehindTheFirstByteOfABlockOfTheCache_IsWrittenWithoutThatBlock) {
  OpenFork fork(blocks_of_odd_size(2 * 2048 + 1, {{2, 3}}));
  write_at(fork, 2048, marker_bytes(2048));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 5120 2048"});
  EXPECT_LOG(log);
}

// Items without modified blocks are passed over, and so is everything behind the piece.
// X-fork-5
TEST(ForkFlush, ExtentThatBeginsWithinASectorBetweenModifiedItems_DoesNotMatter) {
  OpenFork fork({.block_size = 256,
                 .transfer_unit = 512,
                 .logical_size = 3 * kMiB,
                 .extents = {{200, 4096}, {4301, 4096}, {8400, 4096}}});
  write_at(fork, kMiB - 512, marker_bytes(512));
  write_at(fork, 2 * kMiB, marker_bytes(512));
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(faults.writes().size(), 2u);
}

// There a sector of the piece lies across the border of two items.
TEST(ForkFlush, ExtentThatBeginsWithinASectorOfTheForkAndHasNoModifiedBlock_IsPassedOver) {
  OpenFork fork(
      {.block_size = 768, .transfer_unit = 512, .logical_size = 2735 * 768, .extents = {{16, 5}, {64, 2730}}});
  write_at(fork, 512, marker_bytes(512));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 12800 512"});
  EXPECT_LOG(log);
}

TEST(ForkFlushInternal, RangeThatBeginsWithinASectorOfTheFork_IsRefusedWithoutAWrite) {
  OpenFork fork(blocks_of_odd_size(3072, {{1, 2}}));
  write_at(fork, 0, marker_bytes(2048));
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush_internal(fork.get(), 1536, 1536), kvfs_inconsistent);
  EXPECT_EQ(transfers(faults), Lines{});
}

TEST(ForkFlushInternal, RangeOfWholeSectors_IsWrittenWhateverLiesBeforeIt) {
  OpenFork fork(blocks_of_odd_size(6144, {{1, 2}, {6, 2}}));
  const ByteVector bytes = marker_bytes(2048);
  cache(fork, 4096, bytes.size());
  write_at(fork, 4096, bytes);
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_flush_internal(fork.get(), 3072, 3072), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"write 10240 2048"});
}

// ---- Every fault ---------------------------------------------------------------------------------------------------

constexpr std::string_view kText = "a text that lies in two items";

// Uses every operation once; the result is that of the first one that fails, after which nothing more is done.
kvfs_result use_fork(kvfs_fork* fork) {
  void* pointer = nullptr;
  kvfs_result result = kvfs_fork_map(fork, 4096, &pointer, 4096, nullptr);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_fork_write(fork, kMiB - 10, kText.data(), kText.size(), nullptr);
  unsigned char bytes[5000];
  if (result == kvfs_ok) {
    result = kvfs_fork_read(fork, 2000, bytes, sizeof(bytes), nullptr);
  }
  if (result == kvfs_ok) {
    result = kvfs_fork_fill(fork, 100, 50, 0x5A, nullptr);
  }
  if (result == kvfs_ok) {
    result = kvfs_fork_flush(fork);
  }
  return result == kvfs_ok ? kvfs_fork_unmap(fork, 4096, &pointer, 4096) : result;
}

class ForkFaults : public ::testing::TestWithParam<Call> {};

TEST_P(ForkFaults, EachCallFailingInTurn_LeavesNoLockNoLeakAndAForkThatWorks) {
  const Call call = GetParam();
  const unsigned long failures = fail_each(each(call), [&](FailingRun& run) {
    OpenFork fork(kThreeExtents);
    const kvfs_result result = run.operate([&] { return use_fork(fork.get()); });
    if (!run.failed()) {
      EXPECT_EQ(result, kvfs_ok);
      return;
    }
    // Of malloc alone a use can do without: a fill takes a smaller pattern then.
    EXPECT_EQ(result == kvfs_ok, call == Call::kMalloc);
    EXPECT_EQ(run.log().empty(), result == kvfs_ok);
    EXPECT_TRUE(fork.counts_hold());
    EXPECT_EQ(use_fork(fork.get()), kvfs_ok);
    const ByteVector text(kText.begin(), kText.end());
    EXPECT_EQ(fork.read_image(fork.device_offset(kMiB - 10), text.size()), text);
    EXPECT_EQ(fork.read_image(fork.device_offset(100), 50), ByteVector(50, 0x5A));
    fork.close();
    EXPECT_EQ(run.faults().locks_held(), 0);
    EXPECT_EQ(run.faults().locks_alive(), -2);  // those of the fork, which was opened before
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
  });
  EXPECT_GT(failures, 0u);
}

INSTANTIATE_TEST_SUITE_P(Calls, ForkFaults,
                         ::testing::Values(Call::kMalloc, Call::kCalloc, Call::kRwlockattrInit,
                                           Call::kRwlockattrSetpshared, Call::kRwlockInit, Call::kRwlockRdlock,
                                           Call::kRwlockWrlock, Call::kRwlockUnlock, Call::kPread64, Call::kPwrite64),
                         [](const auto& suite) { return std::string(call_name(suite.param)); });

TEST(ForkFaults, AllOperationsAndTheEnd_FreeEverything) {
  ForkMedium medium(kThreeExtents);
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 4096, &fork),
            kvfs_ok);
  LogCapture log;
  EXPECT_EQ(use_fork(fork), kvfs_ok);
  kvfs_fork_destroy(&fork);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(faults.locks_held(), 0);
}

// ---- Threads -------------------------------------------------------------------------------------------------------

// Maps, writes and reads the blocks of one thread: every fourth from `first` on, in both items.
void use_own_blocks(kvfs_fork* fork, unsigned first, unsigned char value) {
  for (std::uint64_t block = first; block < 512; block += 4) {
    const std::uint64_t offset = block * 4096;
    void* pointer = nullptr;
    ASSERT_EQ(kvfs_fork_map(fork, offset, &pointer, 4096, nullptr), kvfs_ok);
    const ByteVector bytes = marker_bytes(4000, static_cast<unsigned char>(value + block));
    ASSERT_EQ(kvfs_fork_write(fork, offset + 50, bytes.data(), bytes.size(), nullptr), kvfs_ok);
    EXPECT_EQ(std::memcmp(static_cast<unsigned char*>(pointer) + 50, bytes.data(), bytes.size()), 0);
    ASSERT_EQ(kvfs_fork_fill(fork, offset + 4080, 16, value, nullptr), kvfs_ok);
    ByteVector back(bytes.size());
    ASSERT_EQ(kvfs_fork_read(fork, offset + 50, back.data(), back.size(), nullptr), kvfs_ok);
    EXPECT_EQ(back, bytes);
    ASSERT_EQ(kvfs_fork_unmap(fork, offset, &pointer, 4096), kvfs_ok);
  }
}

TEST(ForkThreads, MapWriteReadUnmapAndFlushAtOnce_LoseNothing) {
  OpenFork fork({.logical_size = 2 * kMiB, .extents = {{3, 100}, {200, 412}}});
  LogCapture log;
  std::atomic<bool> done = false;
  std::vector<std::thread> users;
  users.reserve(4);
  for (unsigned char user = 0; user < 4; ++user) {
    users.emplace_back(use_own_blocks, fork.get(), user, static_cast<unsigned char>(10 * user + 1));
  }
  std::vector<std::thread> flushers;
  flushers.reserve(2);
  for (int i = 0; i < 2; ++i) {
    flushers.emplace_back([&fork, &done] {
      while (!done) {
        EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
        std::this_thread::yield();
      }
    });
  }
  for (std::thread& user : users) {
    user.join();
  }
  done = true;
  for (std::thread& flusher : flushers) {
    flusher.join();
  }
  EXPECT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_TRUE(fork.counts_hold());
  EXPECT_EQ(fork.dirty_items(), 0u);
  for (std::uint64_t block = 0; block < 512; ++block) {
    const unsigned char value = static_cast<unsigned char>(10 * (block % 4) + 1);
    const ByteVector stored = fork.read_image(fork.device_offset(block * 4096), 4096);
    ASSERT_EQ(ByteVector(stored.begin() + 50, stored.begin() + 4050),
              marker_bytes(4000, static_cast<unsigned char>(value + block)));
    ASSERT_EQ(ByteVector(stored.begin() + 4080, stored.end()), ByteVector(16, value));
  }
  EXPECT_EQ(fork.priv()->items[0]->references, 0u);
  EXPECT_EQ(fork.priv()->items[1]->references, 0u);
}

}  // namespace
}  // namespace kvfs_test
