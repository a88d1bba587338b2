// Opening and closing a fork, and finding its extents.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "fork/cache.h"
#include "fork_fixture.h"
#include "log_capture.h"
#include "support.h"

namespace kvfs_test {
namespace {

// ---- Extents -------------------------------------------------------------------------------------------------------

// What finding the extents of a fork gave.
struct Resolved {
  kvfs_result result;
  std::vector<std::uint32_t> numbers;  // start and count of each extent
};

HFSPlusForkData fork_data(std::uint32_t total_blocks, const std::vector<BlockRun>& extents) {
  HFSPlusForkData data = {};
  data.totalBlocks.set(total_blocks);
  data.extents = extent_record(extents);
  return data;
}

Resolved resolve(const HFSPlusForkData& data, kvfs_extents* extents, int partial) {
  HFSPlusExtentDescriptor* array = nullptr;
  std::uint32_t count = 0xEEEE;
  Resolved resolved = {kvfs_fork_resolve_extents(extents, partial, kHFSCatalogFileID, &data, &array, &count), {}};
  if (resolved.result != kvfs_ok) {
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(count, 0xEEEEu);
    return resolved;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    resolved.numbers.push_back(array[i].startBlock.get());
    resolved.numbers.push_back(array[i].blockCount.get());
  }
  std::free(array);
  return resolved;
}

const std::vector<BlockRun> kEightRuns = {{10, 1}, {20, 2}, {30, 3}, {40, 4}, {50, 5}, {60, 6}, {70, 7}, {80, 8}};
constexpr std::uint32_t kEightRunsBlocks = 36;
const std::vector<std::uint32_t> kEightRunsNumbers = {10, 1, 20, 2, 30, 3, 40, 4, 50, 5, 60, 6, 70, 7, 80, 8};

TEST(ForkResolveExtents, NoBlocks_GivesAnEmptyArray) {
  LogCapture log;
  const Resolved resolved = resolve(fork_data(0, {}), nullptr, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_TRUE(resolved.numbers.empty());
  EXPECT_LOG(log);
}

TEST(ForkResolveExtents, FewerThanEight_StopAtTheFirstEmptyDescriptor) {
  const Resolved resolved = resolve(fork_data(5, {{100, 2}, {200, 3}, {0, 0}, {300, 9}}), nullptr, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers, (std::vector<std::uint32_t>{100, 2, 200, 3}));
}

TEST(ForkResolveExtents, StartBlockZero_IsAnExtentLikeAnyOther) {
  const Resolved resolved = resolve(fork_data(3, {{0, 3}}), nullptr, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers, (std::vector<std::uint32_t>{0, 3}));
}

TEST(ForkResolveExtents, Success_KeepsTheDescriptorsAsTheyLieOnDisk) {
  const HFSPlusForkData data = fork_data(0x00010203, {{0x01020304, 0x00010203}});
  HFSPlusExtentDescriptor* array = nullptr;
  std::uint32_t count = 0;
  ASSERT_EQ(kvfs_fork_resolve_extents(nullptr, 1, 4, &data, &array, &count), kvfs_ok);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(std::memcmp(array, "\x01\x02\x03\x04\x00\x01\x02\x03", 8), 0);
  std::free(array);
}

TEST(ForkResolveExtents, EightFullExtents_DoNotAskTheOverflowFile) {
  OverflowFile overflow;
  const Resolved resolved = resolve(fork_data(kEightRunsBlocks, kEightRuns), &overflow, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers, kEightRunsNumbers);
  EXPECT_TRUE(overflow.lookups().empty());
}

TEST(ForkResolveExtents, EmptyDescriptorWithAStartBlock_IsInconsistent) {
  LogCapture log;
  EXPECT_EQ(resolve(fork_data(2, {{10, 2}, {5, 0}}), nullptr, 1).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n");
}

TEST(ForkResolveExtents, EmptyDescriptorBeforeTheTotal_IsInconsistent) {
  LogCapture log;
  EXPECT_EQ(resolve(fork_data(5, {{10, 2}, {20, 2}}), nullptr, 1).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n");
}

TEST(ForkResolveExtents, EmptyDescriptorBehindTheTotal_IsInconsistent) {
  LogCapture log;
  EXPECT_EQ(resolve(fork_data(3, {{10, 2}, {20, 2}}), nullptr, 1).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n");
}

TEST(ForkResolveExtents, EightExtentsShortOfTheTotal_AreAllWhenPartial) {
  LogCapture log;
  const Resolved resolved = resolve(fork_data(kEightRunsBlocks + 1, kEightRuns), nullptr, 1);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers, kEightRunsNumbers);
  EXPECT_LOG(log);
}

TEST(ForkResolveExtents, EightExtentsBeyondTheTotal_AreAllWhenPartial) {
  const Resolved resolved = resolve(fork_data(kEightRunsBlocks - 1, kEightRuns), nullptr, 1);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers, kEightRunsNumbers);
}

TEST(ForkResolveExtents, EightExtentsShortOfTheTotalAndNoOverflowFile_IsAnInternalError) {
  LogCapture log;
  EXPECT_EQ(resolve(fork_data(kEightRunsBlocks + 1, kEightRuns), nullptr, 0).result, kvfs_internal);
  EXPECT_LOG(
      log, "CRITICAL kvfs_fork_resolve_extents No kvfs_extents reference and we are not reading extents partially.\n");
}

TEST(ForkResolveExtents, OverflowRecords_FollowInOrderUntilTheTotalIsReached) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{90, 9}, {91, 1}, {92, 1}, {93, 1}, {94, 1}, {95, 1}, {96, 1}, {97, 1}});
  overflow.add(kHFSCatalogFileID, 52, {{100, 10}});
  const Resolved resolved = resolve(fork_data(62, kEightRuns), &overflow, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  std::vector<std::uint32_t> expected = kEightRunsNumbers;
  expected.insert(expected.end(), {90, 9, 91, 1, 92, 1, 93, 1, 94, 1, 95, 1, 96, 1, 97, 1, 100, 10});
  EXPECT_EQ(resolved.numbers, expected);
  EXPECT_EQ(overflow.lookups(), (Lines{"type 0 cnid 4 block 36", "type 0 cnid 4 block 52"}));
}

TEST(ForkResolveExtents, OverflowFileAndPartial_StillAsksTheOverflowFile) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{90, 1}});
  EXPECT_EQ(resolve(fork_data(37, kEightRuns), &overflow, 1).numbers.size(), 18u);
}

TEST(ForkResolveExtents, MissingOverflowRecord_IsInconsistent) {
  LogCapture log;
  OverflowFile overflow;
  overflow.add(kHFSExtentsFileID, 36, {{90, 1}});  // another file's
  EXPECT_EQ(resolve(fork_data(37, kEightRuns), &overflow, 0).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents No overflow extent found for CNID 4 starting with block 36.\n");
}

TEST(ForkResolveExtents, LookupThatFails_PassesItsResultUp) {
  LogCapture log;
  OverflowFile overflow;
  overflow.fail_with(kvfs_io_error);
  EXPECT_EQ(resolve(fork_data(37, kEightRuns), &overflow, 0).result, kvfs_io_error);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_resolve_extents Error while searching for overflow extents record for CNID 4 starting "
             "with block 36.\n");
}

TEST(ForkResolveExtents, OverflowRecordThatEndsEarly_IsInconsistent) {
  LogCapture log;
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{90, 1}});
  EXPECT_EQ(resolve(fork_data(38, kEightRuns), &overflow, 0).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n");
}

TEST(ForkResolveExtents, EmptyOverflowRecord_IsInconsistent) {
  LogCapture log;
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {});
  EXPECT_EQ(resolve(fork_data(38, kEightRuns), &overflow, 0).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n");
}

TEST(ForkResolveExtents, OverflowRecordWithAMalformedDescriptor_IsInconsistent) {
  LogCapture log;
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{90, 1}, {1, 0}});
  EXPECT_EQ(resolve(fork_data(37, kEightRuns), &overflow, 0).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n");
}

constexpr std::uint32_t kHalf = 0x80000000;

// Eight extents of 2^32 + `more` blocks.
std::vector<BlockRun> runs_that_wrap(std::uint32_t more) {
  return {{1, kHalf}, {1, kHalf - 6}, {1, more}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 2}};
}

TEST(ForkResolveExtents, BlocksThatWrapAround_AreLookedForWhereTheirSumLeads) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, runs_that_wrap(5));
  overflow.add(kHFSCatalogFileID, 41, {{90, 2}});
  LogCapture log;
  const Resolved resolved = resolve(fork_data(43, kEightRuns), &overflow, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers.size(), 2u * 17);
  EXPECT_EQ(overflow.lookups(), (Lines{"type 0 cnid 4 block 36", "type 0 cnid 4 block 41"}));
  EXPECT_LOG(log);
}

TEST(ForkResolveExtents, SumThatWrapsAroundToNoRecord_IsInconsistent) {
  OverflowFile overflow;
  LogCapture log;
  EXPECT_EQ(resolve(fork_data(36, runs_that_wrap(5)), &overflow, 0).result, kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents No overflow extent found for CNID 4 starting with block 5.\n");
}

// Resolves extents that lead back to a record and expects an end with a message.
void expect_circle(OverflowFile* overflow, const std::vector<BlockRun>& runs, std::size_t most_lookups) {
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(resolve(fork_data(50, runs), overflow, 0).result, kvfs_inconsistent);
  EXPECT_LE(overflow->lookups().size(), most_lookups);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Overflow extents of CNID 4 form a ring.\n");
}

// X-fork-1
TEST(ForkResolveExtents, RecordThatLeadsBackToItself_EndsTheSearch) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{1, kHalf}, {1, kHalf - 6}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}});
  expect_circle(&overflow, kEightRuns, 1);
}

// X-fork-1
TEST(ForkResolveExtents, TwoRecordsThatLeadToEachOther_EndTheSearch) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, runs_that_wrap(0xFFFFFFFF));
  overflow.add(kHFSCatalogFileID, 35, runs_that_wrap(1));
  expect_circle(&overflow, kEightRuns, 3);
}

// The record of block 0 is not yet known when the sum leads there: the fork's first extents are in its fork data.
TEST(ForkResolveExtents, SumThatWrapsAroundToZero_IsLookedFor) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 0, {{90, 2}});
  const std::vector<BlockRun> runs = {{1, kHalf}, {1, kHalf - 6}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}};
  EXPECT_EQ(resolve(fork_data(2, runs), &overflow, 0).result, kvfs_ok);
  EXPECT_EQ(overflow.lookups(), Lines{"type 0 cnid 4 block 0"});
}

// X-fork-1
TEST(ForkResolveExtents, CircleOfManyRecords_EndsTheSearch) {
  OverflowFile overflow;
  constexpr std::uint32_t kRecords = 100;
  const std::vector<BlockRun> eight_ones(8, BlockRun{7, 1});
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    overflow.add(kHFSCatalogFileID, 100 + 8 * i, eight_ones);
  }
  overflow.add(kHFSCatalogFileID, 36, runs_that_wrap(64));
  overflow.add(kHFSCatalogFileID, 100 + 8 * kRecords, runs_that_wrap(0xFFFFFFFF - 8 * kRecords + 1));
  expect_circle(&overflow, kEightRuns, 3 * kRecords);
}

TEST(ForkResolveExtents, ManyOverflowRecords_AreAllFound) {
  OverflowFile overflow;
  const std::vector<BlockRun> eight_ones(8, BlockRun{7, 1});
  constexpr std::uint32_t kRecords = 2000;
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    overflow.add(kHFSCatalogFileID, kEightRunsBlocks + 8 * i, eight_ones);
  }
  const Resolved resolved = resolve(fork_data(kEightRunsBlocks + 8 * kRecords, kEightRuns), &overflow, 0);
  EXPECT_EQ(resolved.result, kvfs_ok);
  EXPECT_EQ(resolved.numbers.size(), 2u * (8 + 8 * kRecords));
  EXPECT_EQ(overflow.lookups().size(), kRecords);
}

TEST(ForkResolveExtents, ManyOverflowRecords_MoveTheArrayOnceForEachDoubling) {
  OverflowFile overflow;
  const std::vector<BlockRun> eight_ones(8, BlockRun{7, 1});
  constexpr std::uint32_t kRecords = 127;
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    overflow.add(kHFSCatalogFileID, kEightRunsBlocks + 8 * i, eight_ones);
  }
  const HFSPlusForkData data = fork_data(kEightRunsBlocks + 8 * kRecords, kEightRuns);
  FaultInjector faults;
  EXPECT_EQ(resolve(data, &overflow, 0).result, kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRealloc), 8u);  // for 8, 16, 32 and so on up to 1,024 extents
}

// Q-log-2
TEST(ForkResolveExtents, EachAllocationFailing_PrintsTheSizeOfTheWholeArrayWithoutLineEnd) {
  OverflowFile overflow;
  overflow.add(kHFSCatalogFileID, 36, {{90, 1}, {91, 1}});
  const std::vector<std::string> sizes = {"64", "80"};
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    const Resolved resolved = run.operate([&] {
      Resolved outcome = resolve(fork_data(38, kEightRuns), &overflow, 0);
      kvfs_log("test", 1, "test", "ERROR", "continues the line\n");
      return outcome;
    });
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(resolved.result, run.failed() ? kvfs_no_memory : kvfs_ok);
    if (run.failed()) {
      EXPECT_LOG(run.log(), "ERROR kvfs_fork_resolve_extents Error while allocating " + sizes.at(run.n() - 1) +
                                " bytes of memory for expanded fork_extents array.continues the line\n");
    }
  });
  EXPECT_EQ(failures, sizes.size());
}

// With addresses of 32 bits the size of the array cannot even be told; with 64 it is more than there is.
TEST(ForkAppendExtents, MoreThanThereIsMemoryFor_ChangesNothing) {
  constexpr std::uint32_t kMany = std::uint32_t{1} << 28;
  const HFSPlusExtentDescriptor added = {};
  HFSPlusExtentDescriptor only = {};
  HFSPlusExtentDescriptor* array = &only;
  std::uint32_t count = kMany;
  FaultInjector faults;
  faults.refuse_allocations_above(kMiB);
  EXPECT_FALSE(kvfs_fork_append_extents(&array, &count, &added, 1));
  EXPECT_EQ(faults.count(Call::kRealloc), sizeof(std::size_t) == sizeof(std::uint32_t) ? 0u : 1u);
  EXPECT_EQ(array, &only);
  EXPECT_EQ(count, kMany);
}

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST(ForkCreate, Success_FillsTheForkAndReadsNothing) {
  ForkMedium medium({.block_size = 8192, .transfer_unit = 2048, .logical_size = 20000, .extents = {{3, 2}, {9, 1}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), kHFSAttributesFileID, medium.fork_data(),
                             2048, &fork),
            kvfs_ok);
  EXPECT_EQ(fork->logical_size, &fork->priv->logical_size);
  EXPECT_EQ(*fork->logical_size, 20000u);
  EXPECT_EQ(fork->block_size, 8192u);
  const kvfs_fork_private* const priv = fork->priv;
  EXPECT_EQ(priv->device, medium.device());
  EXPECT_EQ(priv->cnid, kHFSAttributesFileID);
  EXPECT_EQ(priv->fork_data, medium.fork_data());
  EXPECT_EQ(priv->fork_extents_count, 2u);
  EXPECT_EQ(priv->fork_extents[1].startBlock.get(), 9u);
  EXPECT_NE(priv->items_lock, nullptr);
  EXPECT_NE(priv->dirty_lock, nullptr);
  ASSERT_EQ(priv->items_length, 1u);
  EXPECT_EQ(priv->items[0], nullptr);
  EXPECT_EQ(priv->item_size, 1048576u);
  EXPECT_EQ(priv->modificationBitmapBlockSize, 2048u);
  EXPECT_EQ(priv->dirty_items, 0u);
  EXPECT_EQ(transfers(faults), Lines{});
  kvfs_fork_destroy(&fork);
  EXPECT_LOG(log);
}

TEST(ForkCreate, TransferUnit_IsTheLargerOfSectorSizeAndWhatTheOpenerAsksFor) {
  struct Case {
    std::uint32_t sector_size;
    std::uint32_t asked;
    std::uint32_t unit;
  };
  for (const Case& c : {Case{512, 4096, 4096}, Case{4096, 512, 4096}, Case{2048, 2048, 2048}, Case{512, 0, 512},
                        Case{512, 1536, 1536}, Case{0, 0, 0}, Case{512, 0xFFFFFFFF, 0xFFFFFFFF}}) {
    const OpenFork fork({.sector_size = c.sector_size, .transfer_unit = c.asked, .extents = {}});
    EXPECT_EQ(fork.priv()->modificationBitmapBlockSize, c.unit);
  }
}

TEST(ForkCreate, LogicalSize_GivesOneItemForEachMiBBegun) {
  struct Case {
    std::uint64_t logical_size;
    std::uint32_t items;
  };
  for (const Case& c : {Case{0, 0}, Case{1, 1}, Case{kMiB - 1, 1}, Case{kMiB, 1}, Case{kMiB + 1, 2}, Case{3 * kMiB, 3},
                        Case{1000 * kMiB + 5, 1001}}) {
    const OpenFork fork({.logical_size = c.logical_size, .extents = {}});
    EXPECT_EQ(fork.priv()->items_length, c.items) << c.logical_size;
    EXPECT_EQ(*fork.get()->logical_size, c.logical_size);
  }
}

TEST(ForkCreate, LogicalSizeAbove32Bits_KeepsBothHalvesInPlace) {
  const OpenFork fork({.logical_size = 0x0000000123456789, .extents = {}});
  EXPECT_EQ(*fork.get()->logical_size, 0x0000000123456789u);
}

// The largest fork whose item array has a size of 32 bits.
constexpr std::uint64_t kLargestForkItems = 0xFFFFFFFF / sizeof(kvfs_fork_cache_item*);

TEST(ForkPrivateCreate, ItemArrayAbove32Bits_IsRefusedBeforeAnythingElse) {
  for (const std::uint64_t logical_size :
       {kLargestForkItems * kMiB + 1, std::uint64_t{1} << 52, std::uint64_t{1} << 63, UINT64_MAX - 1, UINT64_MAX}) {
    ForkMedium medium({.logical_size = logical_size, .extents = {{5, 0}}});
    LogCapture log;
    FaultInjector faults;
    kvfs_fork_private* priv = nullptr;
    EXPECT_EQ(kvfs_fork_private_create(medium.device(), nullptr, 0, 4, medium.fork_data(), 512, &priv), kvfs_invalid);
    EXPECT_EQ(priv, nullptr);
    EXPECT_EQ(faults.count_allocations(), 0u);
    EXPECT_LOG(log, "ERROR kvfs_fork_private_create Items array too large for address space.\n");
  }
}

TEST(ForkPrivateCreate, LargestItemArray_PassesTheCheck) {
  ForkMedium medium({.logical_size = kLargestForkItems * kMiB, .extents = {}});
  LogCapture log;
  FaultInjector faults;
  faults.refuse_allocations_above(1 << 20);
  kvfs_fork_private* priv = nullptr;
  EXPECT_EQ(kvfs_fork_private_create(medium.device(), nullptr, 1, 4, medium.fork_data(), 512, &priv), kvfs_no_memory);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  constexpr std::size_t kArray = kLargestForkItems * sizeof(kvfs_fork_cache_item*);
  EXPECT_EQ(faults.allocation_sizes().back(), kArray);
  EXPECT_LOG(log, "ERROR kvfs_fork_private_create Error while allocating fork cache item array (" +
                      std::to_string(kArray) + " bytes).\n");
}

TEST(ForkPrivateCreate, NeitherOverflowFileNorPartial_IsRefused) {
  ForkMedium medium({.logical_size = 100, .extents = {{5, 1}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork_private* priv = nullptr;
  EXPECT_EQ(kvfs_fork_private_create(medium.device(), nullptr, 0, 4, medium.fork_data(), 512, &priv), kvfs_invalid);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_fork_private_create NULL extents overflow file.\n");
}

TEST(ForkCreate, EightExtentsShortOfTheTotal_OpensWhenPartial) {
  const OpenFork fork({.logical_size = 100, .extents = kEightRuns, .total_blocks = kEightRunsBlocks + 5});
  EXPECT_EQ(fork.priv()->fork_extents_count, 8u);
}

TEST(ForkCreate, OverflowExtents_AreFoundUnderTheForksCnid) {
  ForkMedium medium({.logical_size = 100, .extents = kEightRuns, .total_blocks = kEightRunsBlocks + 5});
  OverflowFile overflow;
  overflow.add(kHFSAllocationFileID, kEightRunsBlocks, {{200, 5}});
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), &overflow, 0, medium.header(), kHFSAllocationFileID, medium.fork_data(),
                             512, &fork),
            kvfs_ok);
  EXPECT_EQ(fork->priv->fork_extents_count, 9u);
  kvfs_fork_destroy(&fork);
}

TEST(ForkPrivateCreate, ExtentsThatCannotBeResolved_PassTheResultUp) {
  ForkMedium medium({.logical_size = 100, .extents = {{5, 0}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork_private* priv = nullptr;
  EXPECT_EQ(kvfs_fork_private_create(medium.device(), nullptr, 1, 4, medium.fork_data(), 512, &priv),
            kvfs_inconsistent);
  EXPECT_EQ(priv, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n",
             "ERROR kvfs_fork_private_create Error while resolving fork extents.\n");
}

// Q-fork-2
TEST(ForkCreate, AnyFailureInside_ComesOutAsNoMemory) {
  ForkMedium medium({.logical_size = 100, .extents = {{5, 1}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  EXPECT_EQ(kvfs_fork_create(medium.device(), nullptr, 0, medium.header(), 4, medium.fork_data(), 512, &fork),
            kvfs_no_memory);
  EXPECT_EQ(fork, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_fork_private_create NULL extents overflow file.\n",
             "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n");
}

TEST(ForkCreate, EachAllocationFailing_IsReportedAndUndone) {
  ForkMedium medium({.logical_size = 3 * kMiB, .extents = {{5, 1}}});
  const std::string lock_memory =
      "ERROR kvfs_rwlock_create Error while allocating memory for kvfs_rwlock: " + std::string(std::strerror(ENOMEM)) +
      " (" + std::to_string(ENOMEM) + ")\n";
  const std::string create = "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n";
  const std::vector<Lines> logs = {
      {"ERROR kvfs_fork_create Error while allocating " + std::to_string(sizeof(kvfs_fork)) +
       " bytes for kvfs_fork.\n"},
      {"ERROR kvfs_fork_private_create Error while allocating " + std::to_string(sizeof(kvfs_fork_private)) +
           " bytes for kvfs_fork_private.\n",
       create},
      {"ERROR kvfs_fork_resolve_extents Error while allocating 8 bytes of memory for expanded fork_extents array."
       "Error while resolving fork extents.\n",
       create},
      {lock_memory, "ERROR kvfs_fork_private_create Error while creating items_lock.\n", create},
      {"ERROR kvfs_fork_private_create Error while allocating fork cache item array (" +
           std::to_string(3 * sizeof(kvfs_fork_cache_item*)) + " bytes).\n",
       create},
      {lock_memory, "ERROR kvfs_fork_private_create Error while creating dirty_lock.\n", create},
  };
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    kvfs_fork* fork = nullptr;
    const kvfs_result result = run.operate([&] {
      return kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 512, &fork);
    });
    if (!run.failed()) {
      ASSERT_EQ(result, kvfs_ok);
      kvfs_fork_destroy(&fork);
      return;
    }
    EXPECT_EQ(result, kvfs_no_memory);
    EXPECT_EQ(fork, nullptr);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(run.faults().locks_alive(), 0);
    EXPECT_TRUE(run.log().matches(logs.at(run.n() - 1)));
  });
  EXPECT_EQ(failures, logs.size());
}

TEST(ForkPrivateCreate, EachLockThatCannotBeMade_PassesItsResultUp) {
  ForkMedium medium({.logical_size = 3 * kMiB, .extents = {{5, 1}}});
  const std::vector<std::string> texts = {"ERROR kvfs_fork_private_create Error while creating items_lock.\n",
                                          "ERROR kvfs_fork_private_create Error while creating dirty_lock.\n"};
  const FailingCalls failing = each(Call::kRwlockattrSetpshared, Fault::error_number(EINVAL));
  const unsigned long failures = fail_each(failing, [&](FailingRun& run) {
    kvfs_fork_private* priv = nullptr;
    const kvfs_result result = run.operate(
        [&] { return kvfs_fork_private_create(medium.device(), nullptr, 1, 4, medium.fork_data(), 512, &priv); });
    if (!run.failed()) {
      ASSERT_EQ(result, kvfs_ok);
      kvfs::fork::free_private(priv);
      return;
    }
    EXPECT_EQ(result, kvfs_failed);
    EXPECT_EQ(priv, nullptr);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(run.faults().locks_alive(), 0);
    EXPECT_LOG(run.log(), "ERROR kvfs_rwlock_create Error while setting pshared property: {*}\n",
               texts.at(run.n() - 1));
  });
  EXPECT_EQ(failures, texts.size());
}

// ---- Destroying ----------------------------------------------------------------------------------------------------

TEST(ForkDestroy, ForkWithItems_FreesEverythingAndClearsTheHandle) {
  ForkMedium medium({.logical_size = 2 * kMiB, .extents = {{1, 512}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 4096, &fork),
            kvfs_ok);
  unsigned char byte = 0;
  ASSERT_EQ(kvfs_fork_read(fork, 0, &byte, 1, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_read(fork, 2 * kMiB - 1, &byte, 1, nullptr), kvfs_ok);
  kvfs_fork_destroy(&fork);
  EXPECT_EQ(fork, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log);
}

// Q-fork-9
TEST(ForkDestroy, ModifiedBlocks_AreLostWithoutAWrite) {
  ForkMedium medium({.logical_size = 8192, .extents = {{1, 2}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 4096, &fork),
            kvfs_ok);
  ASSERT_EQ(kvfs_fork_write(fork, 10, "text", 4, nullptr), kvfs_ok);
  kvfs_fork_destroy(&fork);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_EQ(medium.changed_ranges(), Lines{});
  EXPECT_LOG(log);
}

TEST(ForkDestroy, MappingThatWasNotGivenBack_IsAWarning) {
  ForkMedium medium({.logical_size = 8192, .extents = {{1, 2}}});
  LogCapture log;
  FaultInjector faults;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 4096, &fork),
            kvfs_ok);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork, 0, &pointer, 8192, nullptr), kvfs_ok);
  kvfs_fork_destroy(&fork);
  EXPECT_EQ(fork, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_fork_cache_item_destroy Destroying cache item {*} with 2 remaining references.\n");
}

TEST(ForkDestroy, LocksThatCannotBeDestroyed_AreReportedAndTheRestIsFreed) {
  ForkMedium medium({.logical_size = 8192, .extents = {{1, 2}}});
  LogCapture log;
  kvfs_fork* fork = nullptr;
  ASSERT_EQ(kvfs_fork_create(medium.device(), nullptr, 1, medium.header(), 4, medium.fork_data(), 4096, &fork),
            kvfs_ok);
  // The locks outlive the fork; remembering them lets the test free them.
  kvfs_rwlock* items_lock = fork->priv->items_lock;
  kvfs_rwlock* dirty_lock = fork->priv->dirty_lock;
  {
    FaultInjector faults;
    faults.fail_from(Call::kRwlockDestroy, 1, Fault::error_number(EBUSY));
    kvfs_fork_destroy(&fork);
    EXPECT_EQ(fork, nullptr);
    EXPECT_EQ(faults.count(Call::kRwlockDestroy), 2u);
  }
  EXPECT_LOG(log,
             "ERROR kvfs_rwlock_destroy Error while destroying pthread_rwlock_t associated with kvfs_rwlock {*}.\n",
             "ERROR kvfs_rwlock_destroy Error while destroying pthread_rwlock_t associated with kvfs_rwlock {*}.\n");
  EXPECT_EQ(kvfs_rwlock_destroy(&items_lock), kvfs_ok);
  EXPECT_EQ(kvfs_rwlock_destroy(&dirty_lock), kvfs_ok);
}

}  // namespace
}  // namespace kvfs_test
