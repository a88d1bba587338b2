// The allocation file: opening it, freeing and allocating blocks, searching for free runs and for places to grow.

#include "bitmap.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "allocation_fixture.h"
#include "big_endian.h"
#include "log_capture.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kBlocks = 1024;

// A volume of so many blocks in whose allocation file exactly the blocks given are marked as used, whatever they hold.
Volume volume_with_used(const std::vector<Extent>& used, std::uint32_t block_size = 4096,
                        std::uint32_t blocks = kBlocks) {
  VolumeDescription description;
  description.block_size = block_size;
  description.size = std::uint64_t{block_size} * blocks;
  Volume volume = build_volume(description);
  volume.write_fork(SpecialFile::kAllocation, 0, Bytes(blocks / 8));
  for (const Extent& extent : used) {
    for (std::uint32_t i = 0; i < extent.block_count; ++i) {
      volume.set_block_used(extent.start_block + i, true);
    }
  }
  return volume;
}

Volume with_next_allocation(Volume volume, std::uint32_t block) {
  volume.set_field("nextAllocation", block);
  return volume;
}

// The used blocks as runs: "0+2 10+1".
std::string used_runs(const Volume& volume) {
  const auto total = static_cast<std::uint32_t>(volume.get_field("totalBlocks"));
  std::string runs;
  for (std::uint32_t block = 0; block < total;) {
    std::uint32_t end = block;
    while (end < total && volume.block_used(end)) {
      ++end;
    }
    if (end != block) {
      runs += (runs.empty() ? "" : " ") + std::to_string(block) + "+" + std::to_string(end - block);
    }
    block = end + 1;
  }
  return runs;
}

std::uint8_t bitmap_byte(const Volume& volume, std::uint64_t index) {
  return volume.read_fork(SpecialFile::kAllocation, index, 1)[0];
}

// What a location holds before a call that must not touch it.
constexpr kvfs_allocation_location kUntouched = {7, 7, 7, 7, 7, {7, 7}};
const std::string kUntouchedText = "start=7 count=7 index=7 bytes=7 7 reserved=7 7";

// The messages of the lower layers that a call brings about.
const std::string kNoWriteLock = "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n";
const std::string kNoReadLock = "ERROR kvfs_rwlock_lock_read Unable to acquire read lock!\n";
const std::string kNoUnlock = "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n";
const std::string kMapMissing = "ERROR kvfs_fork_map Error while reading missing disk blocks into cache.\n";
const std::string kFillLock = kNoWriteLock + " ERROR kvfs_fork_read_into_cache Unable to lock items lock.\n";
const std::string kFillUnlock =
    kNoUnlock + " CRITICAL kvfs_fork_read_into_cache Unexpected - Unable to unlock items lock!\n";
const std::string kMapLock = kNoReadLock + " ERROR kvfs_fork_map Error while read-locking items lock.\n";
const std::string kMapUnlock = kNoUnlock + " CRITICAL kvfs_fork_map Unexpected - Error while unlocking items lock!\n";
const std::string kWriteFill = "ERROR kvfs_fork_write Error while reading last block in write range into cache.\n";
const std::string kWriteFillFirst =
    "ERROR kvfs_fork_write Error while reading first block in write range into cache.\n";
const std::string kWriteItemsLock = kNoWriteLock + " ERROR kvfs_fork_write Error while read-locking items lock.\n";
const std::string kWriteDirtyLock = kNoWriteLock + " ERROR kvfs_fork_write Error while write-locking dirty lock.\n";
const std::string kWriteDirtyUnlock =
    kNoUnlock + " CRITICAL kvfs_fork_write Unexpected - Error while unlocking dirty lock!\n";
const std::string kWriteItemsUnlock =
    kNoUnlock + " CRITICAL kvfs_fork_write Unexpected - Error while unlocking items lock!\n";
const std::string kUnmapLock = kNoReadLock + " ERROR kvfs_fork_unmap Error while read-locking items lock.\n";
const std::string kUnmapItemLock = kNoWriteLock + " ERROR kvfs_fork_unmap Error while write-locking item {*}.\n";
const std::string kUnmapItemUnlock =
    kNoUnlock + " CRITICAL kvfs_fork_unmap Unexpected - Error while unlocking item {*}!\n";
const std::string kUnmapUnlock =
    kNoUnlock + " CRITICAL kvfs_fork_unmap Unexpected - Error while unlocking items lock!\n";

// Those of a lack of memory for the first cache item of a fork.
const std::string kNoItem = "ERROR kvfs_fork_read_into_cache Unable to create cache item 0.\n " + kMapMissing;
const std::string kNoItemLock =
    "ERROR kvfs_rwlock_create Error while allocating memory for kvfs_rwlock: Cannot allocate memory (12)\n"
    " ERROR kvfs_fork_cache_item_create Error while creating item_lock.\n";
const Lines kNoMemoryForItem = {
    "ERROR kvfs_fork_cache_item_create Error while allocating {*} bytes of memory for kvfs_fork_cache_item struct.\n",
    kNoItemLock, "ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for data buffer.\n",
    "ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for valid data bitmap.\n",
    "ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for data modification bitmap.\n"};

// The same message behind each of several texts.
Lines with_result(const std::string& result, const Lines& reasons, const std::string& message) {
  Lines lines;
  for (const std::string& reason : reasons) {
    std::string line = result;
    line.append(": ").append(reason).append(" ").append(message);
    lines.push_back(line);
  }
  return lines;
}

// What a lack of memory gives, when `message` is that of the routine under test: with the size of the item masked.
Lines no_memory_for_item(const std::string& message) {
  return with_result("2", kNoMemoryForItem, kNoItem + " " + message);
}

// The size of a cache item differs between systems.
Lines without_item_size(Lines lines) {
  const std::string before = "allocating ";
  const std::string after = " bytes of memory for kvfs_fork_cache_item struct.";
  for (std::string& line : lines) {
    const std::size_t end = line.find(after);
    if (end != std::string::npos) {
      const std::size_t begin = line.rfind(before, end) + before.size();
      line.replace(begin, end - begin, "{*}");
    }
  }
  return lines;
}

Lines joined_lists(const std::vector<Lines>& lists) {
  Lines all;
  for (const Lines& list : lists) {
    all.insert(all.end(), list.begin(), list.end());
  }
  return all;
}

// ---- Life ----------------------------------------------------------------------------------------------------------

TEST(Bitmap, Open_TransfersWholeAllocationBlocks) {
  const Volume image = volume_with_used({{8, 8}}, 8192);
  OpenVolume volume(image);
  FaultInjector faults;
  ASSERT_EQ(FreeAllocationBlock(8, volume.bitmap()), kvfs_ok);
  ASSERT_EQ(kvfs_bitmap_flush(volume.bitmap()), kvfs_ok);
  const std::uint64_t place = image.get_field("allocationFile.extents[0].startBlock") * 8192;
  ASSERT_EQ(faults.reads().size(), 1u);
  EXPECT_EQ(faults.reads()[0].offset, place);
  EXPECT_EQ(faults.reads()[0].size, 8192u);
  ASSERT_EQ(faults.writes().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, place);
  EXPECT_EQ(faults.writes()[0].size, 8192u);
}

TEST(Bitmap, Open_ReadsNothingOfTheAllocationFile) {
  OpenVolume volume(volume_with_used({}));
  FaultInjector faults;
  kvfs_bitmap* bitmap = nullptr;
  ASSERT_EQ(kvfs_bitmap_create(volume.header(), volume.device(), volume.get()->extents, &bitmap), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kPread64), 0u);
  kvfs_bitmap_destroy(&bitmap);
  EXPECT_EQ(bitmap, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
}

// Q-fork-2
TEST(Bitmap, Open_WithDamagedExtents_FailsWithTwoAndLeavesTheOutputAlone) {
  OpenVolume volume(volume_with_used({}));
  volume.header()->allocationFile.extents.extents[0] = {kvfs_be32::of(5), kvfs_be32::of(0)};
  LogCapture log;
  FaultInjector faults;
  kvfs_bitmap* bitmap = volume.bitmap();
  EXPECT_EQ(kvfs_bitmap_create(volume.header(), volume.device(), volume.get()->extents, &bitmap), kvfs_no_memory);
  EXPECT_EQ(bitmap, volume.bitmap());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n",
             "ERROR kvfs_fork_private_create Error while resolving fork extents.\n",
             "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n",
             "ERROR kvfs_bitmap_create Error while creating kvfs_fork for allocation file.\n");
}

TEST(Bitmap, Open_WithoutMemory_SaysWhatItIsFor) {
  FaultScenario scenario = {volume_with_used({}), {}, {}, {}};
  kvfs_bitmap* bitmap = nullptr;
  scenario.operation = [&bitmap](OpenVolume& volume) {
    bitmap = nullptr;
    const kvfs_result result = kvfs_bitmap_create(volume.header(), volume.device(), volume.get()->extents, &bitmap);
    if (result == kvfs_ok) {
      kvfs_bitmap_destroy(&bitmap);
    }
    return result;
  };
  scenario.check = [&bitmap](OpenVolume&) { EXPECT_EQ(bitmap, nullptr); };
  const std::string pointer = std::to_string(sizeof(void*));
  EXPECT_EQ(
      summary(fail_each(each_allocation(), scenario), {"kvfs_bitmap_create"}),
      (Lines{"2: ERROR kvfs_bitmap_create Error while allocating " + pointer + " bytes of memory for kvfs_bitmap.\n",
             "2: ERROR kvfs_bitmap_create Error while allocating " + pointer +
                 " bytes of memory for kvfs_bitmap_private.\n",
             "2: ERROR kvfs_bitmap_create Error while creating kvfs_fork for allocation file.\n"}));
}

TEST(Bitmap, Destroy_DoesNotFlush) {
  const Volume image = volume_with_used({});
  OpenVolume volume(image);
  ASSERT_EQ(AllocateExtentAllocationBlocks(0, 8, volume.get()), kvfs_ok);
  LogCapture log;
  kvfs_bitmap_destroy(&volume.get()->bitmap);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.bitmap(), nullptr);
  EXPECT_EQ(volume.contents(), image);
}

TEST(Bitmap, Flush_WhenTheDeviceFails_ReturnsItsValue) {
  OpenVolume volume(volume_with_used({}));
  ASSERT_EQ(AllocateExtentAllocationBlocks(0, 8, volume.get()), kvfs_ok);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPwrite64, 1);
  EXPECT_EQ(kvfs_bitmap_flush(volume.bitmap()), kvfs_io_error);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_flush_internal", "Error while writing fork to disk.\n"));
}

// ---- Freeing one block ---------------------------------------------------------------------------------------------

// Q-bitmap-4
TEST(FreeBlock, InTheFirstByte_IsClearedAndNotCountedAsFree) {
  const Volume image = volume_with_used({{0, 16}});
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(FreeAllocationBlock(5, volume.bitmap()), kvfs_ok);
  EXPECT_LOG(log);
  const Volume after = volume.flushed();
  EXPECT_EQ(used_runs(after), "0+5 6+10");
  EXPECT_EQ(after.get_field("freeBlocks"), image.get_field("freeBlocks"));
  EXPECT_EQ(after.get_field("nextAllocation"), image.get_field("nextAllocation"));
}

// The changed byte goes to the first byte of the chunk: the block itself stays used, and blocks 0 to 7 take over what
// was meant for blocks 96 to 103.
// Q-bitmap-1
TEST(FreeBlock, InAnotherByte_IsWrittenOverTheChunksFirstByte) {
  OpenVolume volume(volume_with_used({{0, 3}, {96, 8}}));
  EXPECT_EQ(FreeAllocationBlock(99, volume.bitmap()), kvfs_ok);
  const Volume after = volume.flushed();
  EXPECT_EQ(bitmap_byte(after, 12), 0xFF);
  EXPECT_EQ(bitmap_byte(after, 0), 0xEF);
  EXPECT_EQ(used_runs(after), "0+3 4+4 96+8");
}

TEST(FreeBlock, TwoOfOneByte_LeaveTheLastOnesByteOnly) {
  OpenVolume volume(volume_with_used({{96, 8}}));
  EXPECT_EQ(FreeAllocationBlock(96, volume.bitmap()), kvfs_ok);
  EXPECT_EQ(FreeAllocationBlock(97, volume.bitmap()), kvfs_ok);
  EXPECT_EQ(bitmap_byte(volume.flushed(), 0), 0xBF);
}

TEST(FreeBlock, InTheSecondChunk_IsWrittenOverThatChunksFirstByte) {
  constexpr std::uint32_t kFirstOfChunk = 4096 * 8;
  OpenVolume volume(volume_with_used({{0, 3}, {kFirstOfChunk, 4}, {kFirstOfChunk + 80, 8}}, 4096, 40960));
  EXPECT_EQ(FreeAllocationBlock(kFirstOfChunk + 87, volume.bitmap()), kvfs_ok);
  const Volume after = volume.flushed();
  EXPECT_EQ(bitmap_byte(after, 0), 0xE0);
  EXPECT_EQ(bitmap_byte(after, 4096), 0xFE);
  EXPECT_EQ(bitmap_byte(after, 4096 + 10), 0xFF);
}

// Q-bitmap-3
TEST(FreeBlock, ThatIsFree_ReturnsOneInSilenceAndWritesNothing) {
  OpenVolume volume(volume_with_used({{96, 3}}));
  LogCapture log;
  EXPECT_EQ(FreeAllocationBlock(99, volume.bitmap()), kvfs_failed);
  EXPECT_LOG(log);
  FaultInjector faults;
  EXPECT_EQ(kvfs_bitmap_flush(volume.bitmap()), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
}

TEST(FreeBlock, GivesItsMappingBack) {
  OpenVolume volume(volume_with_used({{0, 16}}));
  ASSERT_EQ(FreeAllocationBlock(5, volume.bitmap()), kvfs_ok);
  ASSERT_EQ(FreeAllocationBlock(99, volume.bitmap()), kvfs_failed);
  LogCapture log;
  volume.close();
  EXPECT_LOG(log);
}

// A chunk of eight transfer units adds eight references, and giving it back takes one.
TEST(FreeBlock, WithBlocksSmallerThanAChunk_LeavesReferencesBehind) {
  OpenVolume volume(volume_with_used({{0, 16}}, 512, 40960));
  ASSERT_EQ(FreeAllocationBlock(5, volume.bitmap()), kvfs_ok);
  LogCapture log;
  volume.close();
  EXPECT_LOG(log, "WARNING kvfs_fork_cache_item_destroy Destroying cache item {*} with 7 remaining references.\n");
}

// Allocation files of blocks smaller than a chunk may end within one: what is freed there would be written over the
// chunk's first byte anyway.
// Q-bitmap-2
TEST(FreeBlock, InAChunkThatTheAllocationFileDoesNotFill_CannotBeMapped) {
  OpenVolume volume(volume_with_used({{0, 16}}, 512, 4096));
  LogCapture log;
  EXPECT_EQ(FreeAllocationBlock(5, volume.bitmap()), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 0, Length: 4096, fork data "
             "size: 512\n",
             "ERROR FreeAllocationBlock Error while mapping byte containing bit to clear in allocation file.\n");
  EXPECT_EQ(used_runs(volume.flushed()), "0+16");
}

TEST(FreeBlock, BehindTheAllocationFile_CannotBeMapped) {
  OpenVolume volume(volume_with_used({{0, 16}}));
  LogCapture log;
  EXPECT_EQ(FreeAllocationBlock(4096 * 8, volume.bitmap()), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 4096, Length: 4096, fork "
             "data size: 4096\n",
             "ERROR FreeAllocationBlock Error while mapping byte containing bit to clear in allocation file.\n");
}

const std::string kFreeMap =
    "ERROR FreeAllocationBlock Error while mapping byte containing bit to clear in allocation file.\n";
const std::string kFreeWrite = "ERROR FreeAllocationBlock Error while writing back modified byte to allocation file.\n";
const std::string kFreeUnmap = "ERROR FreeAllocationBlock Error while unmapping chunk containing bit to clear.\n";

FaultScenario free_block_scenario() {
  return {
      volume_with_used({{0, 16}}), {}, [](OpenVolume& volume) { return FreeAllocationBlock(5, volume.bitmap()); }, {}};
}

TEST(FreeBlock, WithoutMemory_FailsInItsMapping) {
  EXPECT_EQ(without_item_size(summary(fail_each(each_allocation(), free_block_scenario()))),
            no_memory_for_item(kFreeMap));
}

TEST(FreeBlock, WhenTheDeviceFails_FailsInItsMapping) {
  FaultScenario scenario = free_block_scenario();
  scenario.check = [](OpenVolume& volume) { EXPECT_EQ(used_runs(volume.flushed()), "0+16"); };
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), scenario), {"kvfs_fork_map", "FreeAllocationBlock"}),
            Lines{"4: " + kMapMissing + " " + kFreeMap});
}

TEST(FreeBlock, WhenALockIsNotGranted_SaysWhichStepFailed) {
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockWrlock), free_block_scenario())),
            (Lines{"1: " + kFillLock + " " + kMapMissing + " " + kFreeMap,
                   "1: " + kFillLock + " " + kWriteFill + " " + kFreeWrite, "1: " + kWriteItemsLock + " " + kFreeWrite,
                   "1: " + kWriteDirtyLock + " " + kFreeWrite, "1: " + kUnmapItemLock + " " + kFreeUnmap}));
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockRdlock), free_block_scenario())),
            (Lines{"1: " + kMapLock + " " + kFreeMap, "1: " + kUnmapLock + " " + kFreeUnmap}));
}

TEST(FreeBlock, WhenALockIsNotReleased_SaysWhichStepFailed) {
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), free_block_scenario())),
            (Lines{"1: " + kFillUnlock + " " + kMapMissing + " " + kFreeMap, "1: " + kMapUnlock + " " + kFreeMap,
                   "1: " + kFillUnlock + " " + kWriteFill + " " + kFreeWrite,
                   "1: " + kWriteDirtyUnlock + " " + kFreeWrite, "1: " + kWriteItemsUnlock + " " + kFreeWrite,
                   "1: " + kUnmapItemUnlock + " " + kFreeUnmap, "1: " + kUnmapUnlock + " " + kFreeUnmap}));
}

TEST(FreeBlock, ThatIsFree_KeepsItsResultWhenUnmappingFailsToo) {
  OpenVolume volume(volume_with_used({}));
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockRdlock, 2);
  EXPECT_EQ(FreeAllocationBlock(5, volume.bitmap()), kvfs_failed);
  EXPECT_TRUE(log.has("ERROR", "FreeAllocationBlock", "Error while unmapping chunk containing bit to clear.\n"));
}

// ---- Allocating a run ----------------------------------------------------------------------------------------------

TEST(AllocateRun, Blocks8To15_SetExactlyByteOne) {
  const Volume image = with_next_allocation(volume_with_used({}), 8);
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(8, 8, volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  const Volume after = volume.flushed();
  EXPECT_EQ(bitmap_byte(after, 1), 0xFF);
  EXPECT_EQ(used_runs(after), "8+8");
  EXPECT_EQ(after.get_field("freeBlocks"), image.get_field("freeBlocks") - 8);
  EXPECT_EQ(after.get_field("nextAllocation"), 16u);
}

TEST(AllocateRun, NotAtNextAllocation_LeavesThatWhereItIs) {
  OpenVolume volume(with_next_allocation(volume_with_used({}), 9));
  EXPECT_EQ(AllocateExtentAllocationBlocks(8, 8, volume.get()), kvfs_ok);
  EXPECT_EQ(volume.header()->nextAllocation.get(), 9u);
}

TEST(AllocateRun, AcrossBytes_SetsItsOwnBitsOnly) {
  OpenVolume volume(volume_with_used({{8, 5}, {35, 5}}));
  EXPECT_EQ(AllocateExtentAllocationBlocks(13, 22, volume.get()), kvfs_ok);
  EXPECT_EQ(used_runs(volume.flushed()), "8+32");
}

TEST(AllocateRun, OfOneBlock_SetsOneBit) {
  OpenVolume volume(volume_with_used({}));
  EXPECT_EQ(AllocateExtentAllocationBlocks(1023, 1, volume.get()), kvfs_ok);
  EXPECT_EQ(used_runs(volume.flushed()), "1023+1");
}

// Q-volume-2
TEST(AllocateRun, OfMoreBlocksThanAreFree_WrapsTheirCount) {
  Volume image = volume_with_used({});
  image.set_field("freeBlocks", 3);
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(8, 8, volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.header()->freeBlocks.get(), 0xFFFFFFFBu);
}

TEST(AllocateRun, WithItsThirdBlockInUse_FailsAndClearsTheFirstTwo) {
  const Volume image = with_next_allocation(volume_with_used({{12, 1}}), 10);
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(10, 8, volume.get()), kvfs_failed);
  EXPECT_LOG(log, "ERROR AllocateExtentAllocationBlocks Block 12 is already allocated.\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(AllocateRun, WithItsFirstBlockInUse_WritesNothing) {
  OpenVolume volume(volume_with_used({{12, 1}}));
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(12, 8, volume.get()), kvfs_failed);
  EXPECT_LOG(log, "ERROR AllocateExtentAllocationBlocks Block 12 is already allocated.\n");
  FaultInjector faults;
  EXPECT_EQ(kvfs_bitmap_flush(volume.bitmap()), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
}

// Bits behind the volume's last block may be clear, and stand for no blocks.
// X-bitmap-5
TEST(AllocateRun, BehindTheLastBlock_IsRefusedAndMarksNothing) {
  const Volume image = with_next_allocation(volume_with_used({}), 1016);
  const struct {
    std::uint32_t start;
    std::uint32_t count;
    const char* text;
  } runs[] = {
      {1016, 9, "Cannot allocate 9 blocks starting at block 1016 of 1024 blocks."},
      {1024, 1, "Cannot allocate 1 blocks starting at block 1024 of 1024 blocks."},
      {8, 0xFFFFFFFF, "Cannot allocate 4294967295 blocks starting at block 8 of 1024 blocks."},
  };
  for (const auto& [start, count, text] : runs) {
    OpenVolume volume(image);
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(AllocateExtentAllocationBlocks(start, count, volume.get()), kvfs_limit);
    EXPECT_EQ(faults.count(Call::kPread64), 0u);
    EXPECT_LOG(log, "ERROR AllocateExtentAllocationBlocks " + std::string(text) + "\n");
    EXPECT_EQ(volume.flushed(), image);
  }
}

TEST(AllocateRun, OfNoBlocksBehindTheLastBlock_MarksNothing) {
  const Volume image = volume_with_used({});
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(1025, 0, volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.flushed(), image);
}

TEST(AllocateRun, UpToTheLastBlock_IsMarked) {
  OpenVolume volume(with_next_allocation(volume_with_used({}), 1016));
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(1016, 8, volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.header()->nextAllocation.get(), 1024u);
  EXPECT_EQ(used_runs(volume.flushed()), "1016+8");
}

TEST(AllocateRun, BehindTheAllocationFile_CannotBeMapped) {
  Volume image = volume_with_used({});
  image.set_field("totalBlocks", 4096 * 8 + 4);
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(4096 * 8 - 4, 8, volume.get()), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 4095, Length: 2, fork data "
             "size: 4096\n",
             "ERROR AllocateExtentAllocationBlocks Error while mapping from allocation file the region of data "
             "containing the bitmap bits for the blocks that we are allocating.\n");
  EXPECT_EQ(volume.flushed(), image);
}

// Its bits lie in two cache items, which one mapping cannot hold.
// Q-bitmap-9
TEST(AllocateRun, AcrossOneMiBOfTheAllocationFile_CannotBeMapped) {
  constexpr std::uint32_t kBlocksInOneMiB = 1048576 * 8;
  OpenVolume volume(volume_with_used({}, 512, kBlocksInOneMiB + 4096));
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(kBlocksInOneMiB - 4, 8, volume.get()), kvfs_invalid);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_map Cannot map region crossing cache item borders (offset: 1048575, length: 2, "
             "first_cache_item: 0, last_cache_item: 1).\n",
             "ERROR AllocateExtentAllocationBlocks Error while mapping from allocation file the region of data "
             "containing the bitmap bits for the blocks that we are allocating.\n");
}

const std::string kAllocateMap =
    "ERROR AllocateExtentAllocationBlocks Error while mapping from allocation file the region of data containing the "
    "bitmap bits for the blocks that we are allocating.\n";
const std::string kAllocateWrite =
    "ERROR AllocateExtentAllocationBlocks Error while writing out modified bitmap byte.\n";
const std::string kAllocateUnmap =
    "ERROR AllocateExtentAllocationBlocks Error while unmapping chunk containing bits to set.\n";

FaultScenario allocate_scenario() {
  FaultScenario scenario = {with_next_allocation(volume_with_used({}), 9), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return AllocateExtentAllocationBlocks(9, 2, volume.get()); };
  return scenario;
}

// One that checks that a failure left everything as it was.
FaultScenario undone_allocate_scenario() {
  FaultScenario scenario = allocate_scenario();
  const Volume image = scenario.image;
  scenario.check = [image](OpenVolume& volume) { EXPECT_EQ(volume.flushed(), image); };
  return scenario;
}

TEST(AllocateRun, WithoutMemory_FailsInItsMapping) {
  EXPECT_EQ(without_item_size(summary(fail_each(each_allocation(), undone_allocate_scenario()))),
            no_memory_for_item(kAllocateMap));
}

TEST(AllocateRun, WhenTheDeviceFails_FailsInItsMapping) {
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), undone_allocate_scenario()), {"AllocateExtentAllocationBlocks"}),
            Lines{"4: " + kAllocateMap});
}

// A byte inside of a transfer unit is written in four steps that lock; both blocks fail alike. Only a failed unmapping
// comes too late for a rollback.
TEST(AllocateRun, WhenALockIsNotGranted_RollsBackAndSaysWhichStepFailed) {
  FaultScenario scenario = undone_allocate_scenario();
  const std::function<void(OpenVolume&)> is_undone = scenario.check;
  unsigned run = 0;
  scenario.check = [&run, is_undone](OpenVolume& volume) {
    if (++run < 10) {
      is_undone(volume);
    } else {
      EXPECT_EQ(used_runs(volume.flushed()), "9+2");
    }
  };
  const Lines write = with_result(
      "1", {kFillLock + " " + kWriteFillFirst, kFillLock + " " + kWriteFill, kWriteItemsLock, kWriteDirtyLock},
      kAllocateWrite);
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockWrlock), scenario)),
            joined_lists({{"1: " + kFillLock + " " + kMapMissing + " " + kAllocateMap},
                          write,
                          write,
                          {"1: " + kUnmapItemLock + " " + kAllocateUnmap}}));
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockRdlock), allocate_scenario())),
            (Lines{"1: " + kMapLock + " " + kAllocateMap, "1: " + kUnmapLock + " " + kAllocateUnmap}));
}

// A byte whose write fails only when its locks are released has its bit set, and that bit is cleared again as well.
// X-bitmap-4
TEST(AllocateRun, WhenALockIsNotReleased_SaysWhichStepFailed) {
  FaultScenario scenario = allocate_scenario();
  Lines used;
  scenario.check = [&used](OpenVolume& volume) { used.push_back(used_runs(volume.flushed())); };
  const Lines write = with_result(
      "1", {kFillUnlock + " " + kWriteFillFirst, kFillUnlock + " " + kWriteFill, kWriteDirtyUnlock, kWriteItemsUnlock},
      kAllocateWrite);
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), scenario)),
            joined_lists({with_result("1", {kFillUnlock + " " + kMapMissing, kMapUnlock}, kAllocateMap), write, write,
                          with_result("1", {kUnmapItemUnlock, kUnmapUnlock}, kAllocateUnmap)}));
  EXPECT_EQ(used, (Lines{"", "", "", "", "", "", "", "", "", "", "9+2", "9+2"}));
}

TEST(AllocateRun, WhenRollingBackFailsToo_GoesOnWithTheBlocksThatRemain) {
  OpenVolume volume(volume_with_used({{8, 1}}));

  LogCapture log;
  FaultInjector faults;
  // The map takes one lock for writing and each byte four: the third block's write and all that come later fail.
  faults.fail_from(Call::kRwlockWrlock, 1 + 4 * 2 + 1);
  EXPECT_EQ(AllocateExtentAllocationBlocks(9, 4, volume.get()), kvfs_failed);
  Lines own;
  for (const LogLine& line : log.lines()) {
    if (line.function == "AllocateExtentAllocationBlocks") {
      own.push_back(to_string(line));
    }
  }
  EXPECT_EQ(own, (Lines{kAllocateWrite,
                        "ERROR AllocateExtentAllocationBlocks Error while rolling back modification to bitmap bit 10. "
                        "Ignoring and continuing to attempt rollback of remaining blocks...\n",
                        "ERROR AllocateExtentAllocationBlocks Error while rolling back modification to bitmap bit 9.\n",
                        kAllocateUnmap}));
}

TEST(AllocateRun, OnSuccessWithAFailedUnmapping_HasCountedTheBlocks) {
  const Volume image = allocate_scenario().image;
  OpenVolume volume(image);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockRdlock, 2);
  EXPECT_EQ(AllocateExtentAllocationBlocks(9, 2, volume.get()), kvfs_failed);
  EXPECT_EQ(volume.header()->freeBlocks.get(), image.get_field("freeBlocks") - 2);
  EXPECT_EQ(volume.header()->nextAllocation.get(), 11u);
}

// ---- Freeing the blocks of a fork ----------------------------------------------------------------------------------

// Which blocks FreeExtentAllocationBlocks frees shows in the block at which it fails: every block but that one is used.
struct FreedFork {
  kvfs_result result;
  std::uint32_t freed;
  Lines log;
};

FreedFork free_fork(const HFSPlusForkData& fork_data, std::uint32_t first, std::uint32_t count,
                    const std::vector<Extent>& used = {{0, kBlocks}}) {
  OpenVolume volume(volume_with_used(used));
  FreedFork outcome = {kvfs_ok, 99, {}};
  LogCapture log;
  outcome.result = FreeExtentAllocationBlocks(&fork_data, first, count, volume.bitmap(), &outcome.freed);
  outcome.log = log.texts();
  return outcome;
}

TEST(FreeFork, WholeFork_FreesEveryBlockOnce) {
  // Within the first byte of the allocation file what is freed stays freed.
  OpenVolume volume(volume_with_used({{0, 8}}));
  const HFSPlusForkData fork_data = fork_data_of(0, {{1, 2}, {5, 3}});
  std::uint32_t freed = 0;
  LogCapture log;
  EXPECT_EQ(FreeExtentAllocationBlocks(&fork_data, 0, 5, volume.bitmap(), &freed), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(freed, 5u);
  const Volume after = volume.flushed();
  EXPECT_EQ(used_runs(after), "0+1 3+2");
}

TEST(FreeFork, FromWithinAnExtentToWithinAnother_FreesThePartBetween) {
  OpenVolume volume(volume_with_used({{0, 8}}));
  const HFSPlusForkData fork_data = fork_data_of(0, {{0, 3}, {4, 1}, {5, 3}});
  std::uint32_t freed = 0;
  EXPECT_EQ(FreeExtentAllocationBlocks(&fork_data, 2, 3, volume.bitmap(), &freed), kvfs_ok);
  EXPECT_EQ(freed, 3u);
  EXPECT_EQ(used_runs(volume.flushed()), "0+2 3+1 6+2");
}

TEST(FreeFork, WithinOneExtent_FreesItsMiddle) {
  OpenVolume volume(volume_with_used({{0, 8}}));
  const HFSPlusForkData fork_data = fork_data_of(0, {{0, 8}});
  EXPECT_EQ(FreeExtentAllocationBlocks(&fork_data, 3, 2, volume.bitmap(), nullptr), kvfs_ok);
  EXPECT_EQ(used_runs(volume.flushed()), "0+3 5+3");
}

// Q-bitmap-4
TEST(FreeFork, DoesNotCountTheBlocksAsFree) {
  const Volume image = volume_with_used({{0, 8}});
  OpenVolume volume(image);
  const HFSPlusForkData fork_data = fork_data_of(0, {{0, 8}});
  EXPECT_EQ(FreeExtentAllocationBlocks(&fork_data, 0, 8, volume.bitmap(), nullptr), kvfs_ok);
  EXPECT_EQ(volume.header()->freeBlocks.get(), image.get_field("freeBlocks"));
}

// Q-bitmap-5
TEST(FreeFork, MoreBlocksThanTheEightExtentsHold_StopsAtTheirEnd) {
  const HFSPlusForkData fork_data =
      fork_data_of(0, {{0, 2}, {10, 2}, {20, 2}, {30, 2}, {40, 2}, {50, 2}, {60, 2}, {70, 2}}, 20);
  const FreedFork outcome = free_fork(fork_data, 0, 20);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.freed, 16u);
}

TEST(FreeFork, BehindAnEmptyExtent_FindsNothing) {
  const HFSPlusForkData fork_data = fork_data_of(0, {{0, 2}, {0, 0}, {20, 2}});
  const FreedFork outcome = free_fork(fork_data, 0, 4);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.freed, 2u);
}

TEST(FreeFork, NoBlocks_FreesNothing) {
  const FreedFork outcome = free_fork(fork_data_of(0, {{0, 8}}), 0, 0);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.freed, 0u);
}

TEST(FreeFork, AtABlockThatIsFree_StopsAndReportsWhatWasFreed) {
  const FreedFork outcome = free_fork(fork_data_of(0, {{1, 2}, {100, 4}}), 0, 6, {{0, 8}, {100, 2}, {103, 5}});
  EXPECT_EQ(outcome.result, kvfs_failed);
  EXPECT_EQ(outcome.freed, 4u);
  EXPECT_EQ(outcome.log, Lines{"ERROR FreeExtentAllocationBlocks Error while freeing allocation block 102.\n"});
}

TEST(FreeFork, AtABlockThatCannotBeMapped_ReturnsThatFailure) {
  const FreedFork outcome = free_fork(fork_data_of(0, {{1, 1}, {4096 * 8, 4}}), 0, 5);
  EXPECT_EQ(outcome.result, kvfs_invalid);
  EXPECT_EQ(outcome.freed, 1u);
  ASSERT_EQ(outcome.log.size(), 3u);
  EXPECT_EQ(outcome.log[2], "ERROR FreeExtentAllocationBlocks Error while freeing allocation block 32768.\n");
}

// ---- Searching for a free run --------------------------------------------------------------------------------------

std::string find_run(const Volume& image, std::uint32_t wanted, std::uint32_t hint) {
  OpenVolume volume(image);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), wanted, hint, &location), kvfs_ok);
  EXPECT_LOG(log);
  {
    LogCapture closing;
    volume.close();
    EXPECT_LOG(closing);  // of references to mappings
  }
  return describe(location);
}

const std::string kNothing = "start=0 count=0 index=0 bytes=0 0";

TEST(FindRun, AtTheHint_IsReportedThere) {
  EXPECT_EQ(find_run(volume_with_used({{0, 8}}), 4, 16), "start=16 count=4 index=0 bytes=0 0");
}

TEST(FindRun, HintZero_StartsAtNextAllocation) {
  EXPECT_EQ(find_run(with_next_allocation(volume_with_used({}), 800), 4, 0), "start=800 count=4 index=0 bytes=0 0");
}

TEST(FindRun, HintAtOrBehindTheLastBlock_StartsAtTheLastBlock) {
  const Volume image = volume_with_used({});
  EXPECT_EQ(find_run(image, 4, kBlocks), "start=1023 count=4 index=0 bytes=0 0");
  EXPECT_EQ(find_run(image, 4, 0xFFFFFFFF), "start=1023 count=4 index=0 bytes=0 0");
  EXPECT_EQ(find_run(with_next_allocation(image, kBlocks + 5), 4, 0), "start=1023 count=4 index=0 bytes=0 0");
}

TEST(FindRun, BehindUsedBlocks_BeginsAtAWholeByte) {
  EXPECT_EQ(find_run(volume_with_used({{16, 3}}), 4, 16), "start=24 count=4 index=0 bytes=0 0");
}

// Q-bitmap-6
TEST(FindRun, GapOfTheWantedLength_IsTooShortWhenTheRestOfItsByteIsUsed) {
  // Four blocks are free from 16 on; tested are eight.
  EXPECT_EQ(find_run(volume_with_used({{20, 4}}), 4, 16), "start=24 count=4 index=0 bytes=0 0");
}

TEST(FindRun, LongerThanAGap_GoesOnBehindTheNextUsedBlock) {
  // 16 to 47 are free, then 53 onwards: the byte of 48 holds the used block.
  EXPECT_EQ(find_run(volume_with_used({{0, 16}, {52, 1}}), 40, 16), "start=56 count=40 index=0 bytes=0 0");
}

// X-bitmap-2
TEST(FindRun, BehindTheEnd_GoesOnAtBlockZero) {
  EXPECT_EQ(find_run(volume_with_used({{0, 8}, {16, 1008}}), 4, 512), "start=8 count=4 index=0 bytes=0 0");
}

// Q-bitmap-10
TEST(FindRun, OfNoBlocks_IsWhereTheSearchStarts) {
  const Volume image = with_next_allocation(volume_with_used({{0, kBlocks}}), 800);
  EXPECT_EQ(find_run(image, 0, 16), "start=16 count=0 index=0 bytes=0 0");
  EXPECT_EQ(find_run(image, 0, 0), "start=800 count=0 index=0 bytes=0 0");
  EXPECT_EQ(find_run(image, 0, kBlocks), "start=1023 count=0 index=0 bytes=0 0");
}

// No bits are mapped where the search starts, and at the beginning of the allocation file nothing cannot be mapped.
// Q-bitmap-10
TEST(FindRun, OfNoBlocksFromBlockZero_IsAnInternalError) {
  OpenVolume volume(with_next_allocation(volume_with_used({}), 0));
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 0, 0, &location), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_map Internal inconsistency: Last cache item number out of bounds!\n",
             "ERROR FindContiguousUnallocated Error while mapping region of bitmap data.\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

// Where a block of the allocation file begins, nothing has no block that would be read and referenced.
// Q-bitmap-10
TEST(FindRun, OfNoBlocksAtABlockOfTheAllocationFile_CannotBeMappedOrGivenBack) {
  OpenVolume volume(volume_with_used({}, 512, 8192));
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 0, 4096, &location), kvfs_internal);
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 0, 16, &location), kvfs_ok);
  location = kUntouched;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 0, 4096, &location), kvfs_invalid);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_map Unexpected - Requested cache item 0 does not exist.\n",
             "ERROR FindContiguousUnallocated Error while mapping region of bitmap data.\n",
             "ERROR kvfs_fork_unmap Cache item 0 has no active references and cannot be unmapped.\n",
             "ERROR FindContiguousUnallocated Error while unmapping region of bitmap data.\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

// The block before the first one is the last of 32 bits.
// Q-bitmap-10
TEST(FindRun, OnAVolumeWithoutBlocks_CannotMapItsLastOne) {
  OpenVolume volume(volume_with_used({}));
  volume.header()->totalBlocks.set(0);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 100, 16, &location), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 536870911, Length: 2, fork "
             "data size: 4096\n",
             "ERROR FindContiguousUnallocated Error while mapping region of bitmap data.\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

// Q-bitmap-8
TEST(FindRun, FullBitmap_GivesNoRunAndNoError) {
  EXPECT_EQ(find_run(volume_with_used({{0, kBlocks}}), 1, 0), kNothing);
  EXPECT_EQ(find_run(volume_with_used({{0, kBlocks}}), 1, 512), kNothing);
  EXPECT_EQ(find_run(volume_with_used({{0, kBlocks}}), 1, 515), kNothing);
  EXPECT_EQ(find_run(volume_with_used({{0, kBlocks}}), 1, kBlocks), kNothing);
}

// Q-bitmap-8, X-bitmap-2
TEST(FindRun, OnlyTooShortGaps_GivesNoRunAndNoError) {
  std::vector<Extent> used;
  for (std::uint32_t block = 0; block < kBlocks; block += 16) {
    used.push_back({block, 1});
  }
  used.push_back({kBlocks - 1, 1});  // the end of the volume would be long enough for any run
  EXPECT_EQ(find_run(volume_with_used(used), 16, 64), kNothing);
}

TEST(FindRun, BeforeTheHintOnly_IsFoundInTheSameRound) {
  EXPECT_EQ(find_run(volume_with_used({{0, 504}, {512, 512}}), 8, 515), "start=504 count=8 index=0 bytes=0 0");
}

// From a hint inside a byte only the second round tests every run from a whole byte: the first one steps from 4 over
// the bits of block 9, seen in the place of 17, to 24.
// X-bitmap-2
TEST(FindRun, HintInsideAByte_IsFollowedByARoundFromBlockZero) {
  EXPECT_EQ(find_run(volume_with_used({{9, 1}, {32, 992}}), 16, 4), "start=16 count=16 index=0 bytes=0 0");
}

// The position never equals such a hint: the search ends where it would begin its third round.
// X-bitmap-2
TEST(FindRun, HintInsideAByteAndNoRunInASecondRound_GivesNoRun) {
  EXPECT_EQ(find_run(volume_with_used({{9, 1}, {24, 1000}}), 16, 4), kNothing);
}

// The free blocks before the hint lead over it, so that the position does not equal it either.
// X-bitmap-2
TEST(FindRun, HintThatTheSecondRoundPassesOver_GivesNoRun) {
  EXPECT_EQ(find_run(volume_with_used({{9, 1}, {24, 1000}}), 16, 8), kNothing);
}

// The bits behind the last block are clear, but no blocks are there.
// X-bitmap-2
TEST(FindRun, VolumeThatEndsInsideAByte_IsNotSearchedBehindItsEnd) {
  OpenVolume volume(volume_with_used({{0, 60}}));
  volume.header()->totalBlocks.set(60);
  kvfs_allocation_location location = kUntouched;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 4, 16, &location), kvfs_ok);
  EXPECT_EQ(describe(location), kNothing);
}

// At the end of the volume fewer blocks are tested than are reported; marking them is what fails (X-bitmap-5).
// Q-bitmap-6
TEST(FindRun, AtTheEndOfTheVolume_IsReportedInFull) {
  EXPECT_EQ(find_run(volume_with_used({{0, 1016}}), 100, 1016), "start=1016 count=100 index=0 bytes=0 0");
}

TEST(FindRun, AtTheEndOfTheVolume_DoesNotLookAtTheBitsBehindIt) {
  const Volume image = volume_with_used({{0, 1016}, {kBlocks, 64}});
  EXPECT_EQ(find_run(image, 100, 1016), "start=1016 count=100 index=0 bytes=0 0");
}

// From a hint inside a byte the bits of the byte's earlier blocks are tested in the place of later ones: used blocks
// before the hint in its byte make the search go on although the blocks behind the hint are free...
// Q-bitmap-7
TEST(FindRun, HintInsideAByteWithUsedBlocksBefore_IsPassedOver) {
  EXPECT_EQ(find_run(volume_with_used({{16, 3}}), 8, 19), "start=24 count=8 index=0 bytes=0 0");
}

// ... and used blocks at the run's end are not seen.
// Q-bitmap-7
TEST(FindRun, HintInsideAFreeByte_IsTakenWithoutALookAtTheRunsEnd) {
  const Volume image = volume_with_used({{24, 8}});
  EXPECT_EQ(find_run(image, 8, 19), "start=19 count=8 index=0 bytes=0 0");
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(AllocateExtentAllocationBlocks(19, 8, volume.get()), kvfs_failed);
  EXPECT_LOG(log, "ERROR AllocateExtentAllocationBlocks Block 24 is already allocated.\n");
}

TEST(FindRun, OverManyPositions_GivesEveryMappingBack) {
  std::vector<Extent> used;
  for (std::uint32_t block = 0; block < 512; block += 8) {
    used.push_back({block, 1});
  }
  EXPECT_EQ(find_run(volume_with_used(used), 8, 8), "start=512 count=8 index=0 bytes=0 0");
}

// The last block of a volume whose blocks fill the allocation file: the whole bytes that are tested end behind it.
TEST(FindRun, FromTheLastBlockOfAFullAllocationFile_CannotBeMapped) {
  OpenVolume volume(volume_with_used({}, 512, 4096));
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 1, 4096, &location), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 511, Length: 2, fork data "
             "size: 512\n",
             "ERROR FindContiguousUnallocated Error while mapping region of bitmap data.\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

// X-bitmap-1
TEST(FindRun, OnAVolumeOpenedWithoutItsAllocationFile_IsRefused) {
  OpenVolume volume(volume_with_used({}));
  kvfs_bitmap* const bitmap = std::exchange(volume.get()->bitmap, nullptr);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 4, 16, &location), kvfs_invalid);
  EXPECT_EQ(AllocateExtentAllocationBlocks(16, 4, volume.get()), kvfs_invalid);
  EXPECT_LOG(log, "ERROR FindContiguousUnallocated The volume was opened without its allocation file.\n",
             "ERROR AllocateExtentAllocationBlocks The volume was opened without its allocation file.\n");
  EXPECT_EQ(describe(location), describe(kUntouched));
  volume.get()->bitmap = bitmap;
}

TEST(FindRun, MarksNothing) {
  const Volume image = volume_with_used({{0, 8}});
  OpenVolume volume(image);
  kvfs_allocation_location location = {};
  ASSERT_EQ(FindContiguousUnallocated(volume.get(), 8, 8, &location), kvfs_ok);
  EXPECT_EQ(volume.flushed(), image);
}

const std::string kFindUnmapPrevious =
    "ERROR FindContiguousUnallocated Error while unmapping previous region of bitmap data.\n";
const std::string kFindMap = "ERROR FindContiguousUnallocated Error while mapping region of bitmap data.\n";
const std::string kFindUnmap = "ERROR FindContiguousUnallocated Error while unmapping region of bitmap data.\n";

// A search that looks at two positions.
FaultScenario find_scenario() {
  FaultScenario scenario = {volume_with_used({{8, 1}}), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) {
    kvfs_allocation_location location = kUntouched;
    const kvfs_result result = FindContiguousUnallocated(volume.get(), 8, 8, &location);
    EXPECT_EQ(describe(location), result == kvfs_ok ? "start=16 count=8 index=0 bytes=0 0" : kUntouchedText);
    return result;
  };
  return scenario;
}

TEST(FindRun, WithoutMemory_FailsInItsFirstMapping) {
  EXPECT_EQ(without_item_size(summary(fail_each(each_allocation(), find_scenario()))), no_memory_for_item(kFindMap));
}

TEST(FindRun, WhenTheDeviceFails_FailsInItsFirstMapping) {
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), find_scenario()), {"FindContiguousUnallocated"}),
            Lines{"4: " + kFindMap});
}

TEST(FindRun, WhenALockIsNotGranted_SaysWhichStepFailed) {
  // What could not be unmapped is tried once more at the end.
  const Lines own = {"FindContiguousUnallocated"};
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockWrlock), find_scenario()), own),
            (Lines{"1: " + kFindMap, "1: " + kFindUnmapPrevious, "1: " + kFindMap, "1: " + kFindUnmap}));
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockRdlock), find_scenario()), own),
            (Lines{"1: " + kFindMap, "1: " + kFindUnmapPrevious, "1: " + kFindMap, "1: " + kFindUnmap}));
}

TEST(FindRun, WhenALockIsNotReleased_SaysWhichStepFailed) {
  // Fill and map, unmap of item and items, twice.
  const Lines own = {"FindContiguousUnallocated"};
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), find_scenario()), own),
            (Lines{"1: " + kFindMap, "1: " + kFindUnmapPrevious, "1: " + kFindMap, "1: " + kFindUnmap}));
}

TEST(FindRun, WhenThePreviousRegionStaysMapped_FailsTwice) {
  OpenVolume volume(find_scenario().image);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockRdlock, 2);
  EXPECT_EQ(FindContiguousUnallocated(volume.get(), 8, 8, &location), kvfs_failed);
  EXPECT_LOG(log, kNoReadLock, "ERROR kvfs_fork_unmap Error while read-locking items lock.\n", kFindUnmapPrevious,
             kNoReadLock, "ERROR kvfs_fork_unmap Error while read-locking items lock.\n", kFindUnmap);
  EXPECT_EQ(describe(location), kUntouchedText);
}

// ---- Where a fork can grow -----------------------------------------------------------------------------------------

struct WriteLocation {
  kvfs_result result;
  std::string location;
  Lines log;
};

WriteLocation find_write_location(const Volume& image, const HFSPlusForkData& fork_data, std::uint64_t offset,
                                  std::uint32_t length, std::uint32_t cnid = 100) {
  OpenVolume volume(image);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  WriteLocation outcome = {};
  outcome.result = FindWriteLocation(cnid, kHFSDataForkType, &fork_data, volume.get(), offset, length, &location);
  outcome.location = describe(location);
  outcome.log = log.texts();
  return outcome;
}

// Expects a location and silence.
void expect_location(const WriteLocation& outcome, const std::string& location) {
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, location);
  EXPECT_EQ(outcome.log, Lines{});
}

// Expects a failure that left the location alone.
void expect_failure(const WriteLocation& outcome, kvfs_result result, const Lines& log) {
  EXPECT_EQ(outcome.result, result);
  EXPECT_EQ(outcome.location, kUntouchedText);
  EXPECT_EQ(outcome.log, log);
}

TEST(FindWriteLocation, AtTheEndOfAForkWithFreeBlocksBehind_ExtendsItsLastExtent) {
  const HFSPlusForkData fork_data = fork_data_of(6 * 4096, {{40, 2}, {100, 4}});
  expect_location(find_write_location(volume_with_used({{40, 2}, {100, 4}}), fork_data, 6 * 4096, 4 * 4096),
                  "start=104 count=4 index=1 bytes=16384 16384");
}

TEST(FindWriteLocation, AtTheEndOfAForkWithUsedBlocksBehind_FillsTheNextExtent) {
  const HFSPlusForkData fork_data = fork_data_of(6 * 4096, {{40, 2}, {100, 4}});
  expect_location(find_write_location(volume_with_used({{100, 4}, {104, 8}}), fork_data, 6 * 4096, 4 * 4096),
                  "start=112 count=4 index=2 bytes=16384 16384");
}

// An extent that ends inside a byte of the bitmap has its own blocks in that byte: the search passes the byte over.
TEST(FindWriteLocation, BehindAnExtentThatEndsInsideAByte_FillsTheNextExtent) {
  const HFSPlusForkData fork_data = fork_data_of(2 * 4096, {{40, 2}});
  expect_location(find_write_location(volume_with_used({{40, 2}}), fork_data, 2 * 4096, 4096),
                  "start=48 count=1 index=1 bytes=4096 4096");
}

TEST(FindWriteLocation, LengthWithinABlock_IsRoundedUp) {
  const HFSPlusForkData fork_data = fork_data_of(8 * 4096, {{40, 8}});
  expect_location(find_write_location(volume_with_used({{40, 8}}), fork_data, 8 * 4096, 4097),
                  "start=48 count=2 index=0 bytes=4097 4097");
}

TEST(FindWriteLocation, OffsetInsideTheFork_StopsAtTheExtentThatHoldsIt) {
  const HFSPlusForkData fork_data = fork_data_of(24 * 4096, {{40, 8}, {104, 8}, {200, 8}});
  expect_location(find_write_location(volume_with_used({{40, 8}}), fork_data, 8 * 4096 - 1, 4096),
                  "start=48 count=1 index=0 bytes=4096 4096");
  expect_location(find_write_location(volume_with_used({{104, 8}}), fork_data, 8 * 4096, 4096),
                  "start=112 count=1 index=1 bytes=4096 4096");
}

TEST(FindWriteLocation, ForkWithoutBlocks_SearchesFromNextAllocation) {
  expect_location(find_write_location(with_next_allocation(volume_with_used({}), 640), fork_data_of(0, {}), 0, 4096),
                  "start=640 count=1 index=0 bytes=4096 4096");
}

TEST(FindWriteLocation, NoFreeRun_GivesACountOfZeroAndNoLength) {
  const HFSPlusForkData fork_data = fork_data_of(8 * 4096, {{40, 8}});
  expect_location(find_write_location(volume_with_used({{0, kBlocks}}), fork_data, 8 * 4096, 4096),
                  "start=0 count=0 index=1 bytes=0 0");
}

TEST(FindWriteLocation, WithoutForkData_IsRefused) {
  OpenVolume volume(volume_with_used({}));
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(FindWriteLocation(4, kHFSDataForkType, nullptr, volume.get(), 0, 4096, &location), kvfs_invalid);
  EXPECT_LOG(log, "ERROR FindWriteLocation HFSPlus:ERROR: FindWriteLocation: Invalid Parameters\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

TEST(FindWriteLocation, EmptyExtentWithAStart_IsInconsistent) {
  expect_failure(find_write_location(volume_with_used({}), fork_data_of(0, {{40, 8}, {7, 0}}, 16), 16 * 4096, 4096),
                 kvfs_inconsistent, {"ERROR FindWriteLocation Encountered zero block count in extent.\n"});
}

TEST(FindWriteLocation, MoreBlocksThanTheForkHas_IsInconsistent) {
  expect_failure(find_write_location(volume_with_used({}), fork_data_of(0, {{40, 8}}, 5), 8 * 4096, 4096),
                 kvfs_inconsistent,
                 {"ERROR FindWriteLocation Inconsistent extent record: Found more blocks than the number of allocated "
                  "blocks (8 > 5).\n"});
}

TEST(FindWriteLocation, FewerBlocksThanTheForkHas_IsInconsistent) {
  expect_failure(find_write_location(volume_with_used({}), fork_data_of(0, {{40, 8}}, 11), 8 * 4096, 4096),
                 kvfs_inconsistent,
                 {"ERROR FindWriteLocation List of extents ends before all blocks have been accounted for. Missing 3 "
                  "blocks.\n"});
}

// A file in 20 pieces of 8 blocks each, whose last ones are in two overflow records.
struct OverflowVolume {
  Volume image;
  std::uint32_t cnid;
  HFSPlusForkData fork_data;
  std::vector<Extent> extents;
};

OverflowVolume overflow_volume() {
  VolumeDescription description;
  description.size = std::uint64_t{4096} * kBlocks;
  const std::uint32_t cnid = description.add_file(kRootFolderId, u"pieces", 160 * 4096, 20);
  description.item(cnid).data.first_block = 96;
  description.item(cnid).data.gap_blocks = 8;
  OverflowVolume volume = {build_volume(description), cnid, {}, {}};
  const RecordPlace place = *volume.image.find_entry(kRootFolderId, u"pieces");
  const Bytes data = volume.image.record_data(place);
  volume.fork_data = *kvfs_view_as<HFSPlusForkData>(data.data() + 88);
  volume.extents = volume.image.data_fork(place).extents();
  return volume;
}

TEST(FindWriteLocation, InAnOverflowRecord_CountsEightExtentsToARecord) {
  const OverflowVolume volume = overflow_volume();
  ASSERT_EQ(volume.extents.size(), 20u);
  // Block 80 of the fork is in its extent 10, with eight free blocks behind it.
  expect_location(
      find_write_location(volume.image, volume.fork_data, 80 * 4096, 8 * 4096, volume.cnid),
      "start=" + std::to_string(volume.extents[10].start_block + 8) + " count=8 index=10 bytes=32768 32768");
}

TEST(FindWriteLocation, BehindTheLastOverflowRecord_GoesOnWithItsLastExtent) {
  OverflowVolume volume = overflow_volume();
  const std::uint32_t end = volume.extents[19].start_block + 8;
  expect_location(find_write_location(volume.image, volume.fork_data, 160 * 4096, 4096, volume.cnid),
                  "start=" + std::to_string(end) + " count=1 index=19 bytes=4096 4096");
  volume.image.set_block_used(end, true);
  expect_location(find_write_location(volume.image, volume.fork_data, 160 * 4096, 4096, volume.cnid),
                  "start=" + std::to_string(end + 8) + " count=1 index=20 bytes=4096 4096");
}

TEST(FindWriteLocation, MissingOverflowRecord_IsAnInternalError) {
  const OverflowVolume volume = overflow_volume();
  expect_failure(find_write_location(volume.image, volume.fork_data, 80 * 4096, 4096, volume.cnid + 1), kvfs_internal,
                 {"ERROR FindWriteLocation Could not find next extent record.\n"});
}

TEST(FindWriteLocation, FailedLookupOfAnOverflowRecord_IsPassedOn) {
  OverflowVolume volume = overflow_volume();
  volume.image.set_field(
      "extents.node[" + std::to_string(volume.image.get_field("extents.header.rootNode")) + "].offset[0]", 16);
  const WriteLocation outcome = find_write_location(volume.image, volume.fork_data, 80 * 4096, 4096, volume.cnid);
  EXPECT_EQ(outcome.result, kvfs_inconsistent);
  EXPECT_EQ(outcome.location, kUntouchedText);
  ASSERT_FALSE(outcome.log.empty());
  EXPECT_EQ(outcome.log.back(), "ERROR FindWriteLocation Error while looking up next extent record.\n");
}

// X-bitmap-3
TEST(FindWriteLocation, OnAVolumeWithoutABlockSize_WantsNoBlocks) {
  OpenVolume volume(volume_with_used({}));
  volume.header()->blockSize.set(0);
  const HFSPlusForkData fork_data = fork_data_of(8 * 4096, {{40, 8}});
  kvfs_allocation_location location = kUntouched;
  EXPECT_EQ(FindWriteLocation(4, kHFSDataForkType, &fork_data, volume.get(), 4096, 4096, &location), kvfs_ok);
  EXPECT_EQ(describe(location), "start=48 count=0 index=0 bytes=0 0");
}

TEST(FindWriteLocation, FailedSearch_SaysForHowManyBlocks) {
  FaultScenario scenario = {volume_with_used({{40, 8}}), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) {
    const HFSPlusForkData fork_data = fork_data_of(8 * 4096, {{40, 8}});
    kvfs_allocation_location location = kUntouched;
    const kvfs_result result =
        FindWriteLocation(4, kHFSDataForkType, &fork_data, volume.get(), 8 * 4096, 3 * 4096, &location);
    EXPECT_EQ(describe(location), result == kvfs_ok ? "start=48 count=3 index=0 bytes=12288 12288" : kUntouchedText);
    return result;
  };
  const std::string search = "ERROR FindWriteLocation Error while searching the bitmap for a free region of 3.\n";
  const std::string mapping = kFindMap + " " + search;
  const std::string unmapping = kFindUnmap + " " + search;
  const Lines own = {"FindWriteLocation", "FindContiguousUnallocated"};
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), scenario), own), Lines{"4: " + mapping});
  EXPECT_EQ(summary(fail_each(each_allocation(), scenario), own), Lines{"2: " + mapping});
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    EXPECT_EQ(summary(fail_each(each(call), scenario), own), (Lines{"1: " + mapping, "1: " + unmapping}));
  }
}

// ---- Giving a fork data extents ------------------------------------------------------------------------------------

struct UpdatedForks {
  kvfs_result result;
  std::string location;
  std::string fork_data;
  Lines log;
};

UpdatedForks update_forks(const Volume& image, HFSPlusForkData fork_data, std::uint64_t offset, std::uint32_t length) {
  OpenVolume volume(image);
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  UpdatedForks outcome = {};
  outcome.result = UpdateForks(volume.get(), &fork_data, offset, length, &location);
  outcome.location = describe(location);
  outcome.fork_data = describe(fork_data);
  outcome.log = log.texts();
  EXPECT_EQ(volume.flushed(), image);  // neither bits nor counts change
  return outcome;
}

TEST(UpdateForks, CoveredRange_NamesTheExtentAndChangesNothing) {
  const HFSPlusForkData fork_data = fork_data_of(0, {{40, 2}, {100, 4}});
  UpdatedForks outcome = update_forks(volume_with_used({}), fork_data, 4096, 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=40 count=0 index=0 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=6 extents={40+2 100+4}");
  outcome = update_forks(volume_with_used({}), fork_data, 4096, 4097);
  EXPECT_EQ(outcome.location, "start=100 count=0 index=1 bytes=0 0");
  EXPECT_EQ(outcome.log, Lines{});
}

TEST(UpdateForks, FreeBlocksBehindTheLastExtent_ExtendIt) {
  const UpdatedForks outcome =
      update_forks(volume_with_used({{40, 8}}), fork_data_of(0, {{32, 2}, {40, 8}}), 10 * 4096, 3 * 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=48 count=3 index=1 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=13 extents={32+2 40+11}");
  EXPECT_EQ(outcome.log, Lines{});
}

TEST(UpdateForks, UsedBlocksBehindTheLastExtent_FillTheNextOne) {
  const UpdatedForks outcome =
      update_forks(volume_with_used({{40, 9}}), fork_data_of(0, {{32, 2}, {40, 8}}), 10 * 4096, 3 * 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=56 count=3 index=2 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=13 extents={32+2 40+8 56+3}");
}

TEST(UpdateForks, LengthWithinABlock_IsRoundedUp) {
  const UpdatedForks outcome = update_forks(volume_with_used({{40, 8}}), fork_data_of(0, {{40, 8}}), 8 * 4096, 1);
  EXPECT_EQ(outcome.fork_data, "size=0 total=9 extents={40+9}");
}

TEST(UpdateForks, EmptyFork_SearchesFromNextAllocation) {
  const UpdatedForks outcome =
      update_forks(with_next_allocation(volume_with_used({}), 640), fork_data_of(0, {}), 0, 8192);
  EXPECT_EQ(outcome.location, "start=640 count=2 index=0 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=2 extents={640+2}");
}

// No blocks at block 0 are entered, which leaves the next descriptor empty.
TEST(UpdateForks, NoFreeRun_AddsNothing) {
  const UpdatedForks outcome =
      update_forks(volume_with_used({{0, kBlocks}}), fork_data_of(0, {{40, 8}}), 8 * 4096, 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=0 count=0 index=1 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=8 extents={40+8}");
}

TEST(UpdateForks, NoFreeRun_ClearsADescriptorWithAStartAlone) {
  const UpdatedForks outcome =
      update_forks(volume_with_used({{0, kBlocks}}), fork_data_of(0, {{40, 8}, {7, 0}}), 8 * 4096, 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.fork_data, "size=0 total=8 extents={40+8}");
}

// The last extent ends behind the volume, so that the search starts elsewhere.
TEST(UpdateForks, NoBytesBehindTheFork_GiveTheNextDescriptorAStartAlone) {
  const UpdatedForks outcome = update_forks(volume_with_used({}), fork_data_of(0, {{40, 8}, {5000, 3}}), 12 * 4096, 0);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=1023 count=0 index=2 bytes=0 0");
  EXPECT_EQ(outcome.fork_data, "size=0 total=11 extents={40+8 5000+3 1023+0}");
}

const std::vector<Extent> kEightExtents = {{40, 8}, {56, 8}, {72, 8}, {88, 8}, {104, 8}, {120, 8}, {136, 8}, {152, 8}};

TEST(UpdateForks, EightExtentsThatCoverTheRange_Succeed) {
  const UpdatedForks outcome = update_forks(volume_with_used({}), fork_data_of(0, kEightExtents), 63 * 4096, 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=152 count=0 index=7 bytes=0 0");
}

TEST(UpdateForks, EightExtentsThatDoNotCoverTheRange_AreNotExtended) {
  const UpdatedForks outcome = update_forks(volume_with_used({}), fork_data_of(0, kEightExtents), 63 * 4096, 4097);
  EXPECT_EQ(outcome.result, kvfs_unsupported_extents);
  EXPECT_EQ(outcome.location, kUntouchedText);
  EXPECT_EQ(outcome.log, Lines{"ERROR UpdateForks HFSPlus: [UpdateForks] Not handling overflow extents yet.\n"});
}

// The sum of the extents is taken in 64 bits.
TEST(UpdateForks, ForkLargerThanFourGiB_IsCovered) {
  const UpdatedForks outcome = update_forks(volume_with_used({}), fork_data_of(0, {{0, 0x200000}}), 0x1FFFFF000, 4096);
  EXPECT_EQ(outcome.result, kvfs_ok);
  EXPECT_EQ(outcome.location, "start=0 count=0 index=0 bytes=0 0");
}

TEST(UpdateForks, WithoutForkData_IsRefused) {
  OpenVolume volume(volume_with_used({}));
  kvfs_allocation_location location = kUntouched;
  LogCapture log;
  EXPECT_EQ(UpdateForks(volume.get(), nullptr, 0, 4096, &location), kvfs_invalid);
  EXPECT_LOG(log, "ERROR UpdateForks HFSPlus:ERROR: [UpdateForks] Invalid Parameters\n");
  EXPECT_EQ(describe(location), kUntouchedText);
}

TEST(UpdateForks, FailedSearch_LeavesTheForkDataAlone) {
  FaultScenario scenario = {volume_with_used({{40, 8}}), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) {
    HFSPlusForkData fork_data = fork_data_of(8 * 4096, {{40, 8}});
    kvfs_allocation_location location = kUntouched;
    const kvfs_result result = UpdateForks(volume.get(), &fork_data, 8 * 4096, 4096, &location);
    if (result != kvfs_ok) {
      EXPECT_EQ(describe(location), kUntouchedText);
      EXPECT_EQ(describe(fork_data), "size=32768 total=8 extents={40+8}");
    }
    return result;
  };
  const std::string search = "ERROR UpdateForks Error while looking up unallocated region.\n";
  const Lines own = {"UpdateForks"};
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), scenario), own), Lines{"4: " + search});
  EXPECT_EQ(summary(fail_each(each_allocation(), scenario), own), Lines{"2: " + search});
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    EXPECT_EQ(summary(fail_each(each(call), scenario), own), Lines{"1: " + search});
  }
}

}  // namespace
}  // namespace kvfs_test
