// Cache items, the way from a range of the fork to sectors, map, unmap and read.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fault_injection.h"
#include "fork/extent.h"
#include "fork_fixture.h"
#include "log_capture.h"
#include "support.h"

namespace kvfs_test {
namespace {

const std::string kNoReadLock = "ERROR kvfs_rwlock_lock_read Unable to acquire read lock!\n";
const std::string kNoWriteLock = "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n";
const std::string kNoUnlock = "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n";

std::string address_of(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

// Two MiB and a bit in three extents, none of which begins where another ends.
const ForkShape kThreeExtents = {.logical_size = 2 * kMiB + 8192, .extents = {{3, 200}, {600, 60}, {1000, 254}}};

// One extent of 16 KiB.
const ForkShape kSmall = {.logical_size = 16384, .extents = {{2, 4}}};

// With two blocks to each item and a third, blocks and bytes fall into different items: block 2, which begins in the
// middle of item 1, is cached in item 2.
constexpr std::uint32_t kOddUnit = 786432;
const ForkShape kOddUnitShape = {.transfer_unit = kOddUnit, .logical_size = 3 * kMiB, .extents = {{1, 768}}};

// ---- Cache items ---------------------------------------------------------------------------------------------------

TEST(ForkCacheItem, New_HasNothingValidModifiedOrReferenced) {
  OpenFork fork(kSmall);
  kvfs_fork_cache_item* item = nullptr;
  ASSERT_EQ(kvfs_fork_cache_item_create(fork.get(), &item), kvfs_ok);
  EXPECT_EQ(item->data_size, 1048576u);
  EXPECT_EQ(item->valid_bitmap_size, 32u);
  EXPECT_EQ(item->modification_bitmap_size, 32u);
  const ByteVector zero(32);
  EXPECT_EQ(std::memcmp(item->valid_bitmap, zero.data(), 32), 0);
  EXPECT_EQ(std::memcmp(item->modification_bitmap, zero.data(), 32), 0);
  EXPECT_EQ(item->references, 0u);
  EXPECT_EQ(item->dirty_blocks, 0u);
  kvfs_fork_cache_item_destroy(&item);
  EXPECT_EQ(item, nullptr);
}

TEST(ForkCacheItem, BitmapSize_RoundsBlocksAndBytesUp) {
  struct Case {
    std::uint32_t unit;
    std::size_t size;
  };
  for (const Case& c : {Case{512, 256}, Case{1024, 128}, Case{4096, 32}, Case{131072, 1}, Case{262144, 1},
                        Case{1048576, 1}, Case{1536, 86}, Case{1000, 132}, Case{2097152, 1}}) {
    OpenFork fork({.transfer_unit = c.unit});
    kvfs_fork_cache_item* item = nullptr;
    ASSERT_EQ(kvfs_fork_cache_item_create(fork.get(), &item), kvfs_ok);
    EXPECT_EQ(item->valid_bitmap_size, c.size) << c.unit;
    EXPECT_EQ(item->modification_bitmap_size, c.size) << c.unit;
    kvfs_fork_cache_item_destroy(&item);
  }
}

// Whoever remembers something of cached bytes has to look again when they change. Reading changes them where the blocks
// of an item lie over each other.
TEST(ForkChanges, AreAnnouncedByWritesAndByReadsOfBlocksThatDoNotFillAnItem) {
  for (const std::uint32_t unit : {512u, 4096u, 1536u}) {
    OpenFork fork({.transfer_unit = unit, .logical_size = 8192, .extents = {{10, 2}}});
    unsigned char byte = 0;
    EXPECT_EQ(kvfs_fork_read(fork.get(), 4096, &byte, 1, nullptr), kvfs_ok);
    EXPECT_EQ(fork.priv()->has_changed, unit == 1536 ? 1 : 0);
    fork.priv()->has_changed = 0;
    EXPECT_EQ(kvfs_fork_read(fork.get(), 4096, &byte, 1, nullptr), kvfs_ok);
    EXPECT_EQ(fork.priv()->has_changed, 0);
    EXPECT_EQ(kvfs_fork_write(fork.get(), 4096, &byte, 1, nullptr), kvfs_ok);
    EXPECT_EQ(fork.priv()->has_changed, 1);
  }
}

// A write does not wait for who asks: a change announced while somebody asks is seen by that question or by the next.
TEST(ForkChanges, AnnouncedWhileSomebodyAsks_AreSeenOnce) {
  constexpr int kRounds = 20000;
  OpenFork fork(kSmall);
  std::atomic<int> round{0};
  std::atomic<int> announced{0};
  std::thread writer([&] {
    for (int i = 1; i <= kRounds; ++i) {
      while (round.load() < i) {
        std::this_thread::yield();
      }
      kvfs::fork::announce_change(fork.get());
      announced.store(i);
    }
  });
  int lost = 0;
  for (int i = 1; i <= kRounds; ++i) {
    int seen = 0;
    round.store(i);
    while (announced.load() < i) {
      seen += kvfs::fork::see_changes(fork.get()) ? 1 : 0;
    }
    seen += kvfs::fork::see_changes(fork.get()) ? 1 : 0;
    lost += seen == 1 ? 0 : 1;
  }
  writer.join();
  EXPECT_EQ(lost, 0);
}

// Q-fork-3
TEST(ForkCacheItem, EachAllocationFailing_IsReportedAndUndone) {
  OpenFork fork(kSmall);
  const std::string error = std::string(std::strerror(ENOMEM)) + " (" + std::to_string(ENOMEM) + ")\n";
  const std::vector<Lines> logs = {
      {"ERROR kvfs_fork_cache_item_create Error while allocating " + std::to_string(sizeof(kvfs_fork_cache_item)) +
       " bytes of memory for kvfs_fork_cache_item struct.\n"},
      {"ERROR kvfs_rwlock_create Error while allocating memory for kvfs_rwlock: " + error,
       "ERROR kvfs_fork_cache_item_create Error while creating item_lock.\n"},
      {"ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for data buffer.\n"},
      {"ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for valid data bitmap.\n"},
      {"ERROR kvfs_fork_cache_item_create Error while allocating 32 bytes of memory for data modification bitmap.\n"},
  };
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    kvfs_fork_cache_item* item = nullptr;
    const kvfs_result result = run.operate([&] { return kvfs_fork_cache_item_create(fork.get(), &item); });
    if (run.failed()) {
      EXPECT_EQ(result, kvfs_no_memory);
      EXPECT_EQ(item, nullptr);
      EXPECT_EQ(run.faults().locks_alive(), 0);
      EXPECT_TRUE(run.log().matches(logs.at(run.n() - 1)));
    } else {
      EXPECT_EQ(result, kvfs_ok);
      EXPECT_EQ(run.faults().allocation_sizes().at(2), kMiB);
      kvfs_fork_cache_item_destroy(&item);
    }
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
  });
  EXPECT_EQ(failures, logs.size());
}

TEST(ForkCacheItem, LockThatCannotBeMade_PassesItsResultUp) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockattrSetpshared, 1, Fault::error_number(EINVAL));
  kvfs_fork_cache_item* item = nullptr;
  EXPECT_EQ(kvfs_fork_cache_item_create(fork.get(), &item), kvfs_failed);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "ERROR kvfs_rwlock_create Error while setting pshared property: {*}\n",
             "ERROR kvfs_fork_cache_item_create Error while creating item_lock.\n");
}

TEST(ForkCacheItem, DestroyedWithReferences_WarnsAndIsFreed) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  kvfs_fork_cache_item* item = nullptr;
  ASSERT_EQ(kvfs_fork_cache_item_create(fork.get(), &item), kvfs_ok);
  item->references = 3;
  const std::string address = address_of(item);
  kvfs_fork_cache_item_destroy(&item);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(
      log, "WARNING kvfs_fork_cache_item_destroy Destroying cache item " + address + " with 3 remaining references.\n");
}

// ---- Pieces of extents ---------------------------------------------------------------------------------------------

// Takes the pieces of a range instead of a transfer.
struct PieceLog {
  Lines pieces;  // "device OFFSET fork OFFSET length LENGTH"
  std::size_t fail_at = SIZE_MAX;
};

kvfs_result log_piece(void* context, std::uint64_t device_offset, std::uint64_t fork_offset, std::uint64_t length) {
  PieceLog* const log = static_cast<PieceLog*>(context);
  log->pieces.push_back("device " + std::to_string(device_offset) + " fork " + std::to_string(fork_offset) +
                        " length " + std::to_string(length));
  return log->pieces.size() > log->fail_at ? kvfs_limit : kvfs_ok;
}

Lines pieces_of(const OpenFork& fork, std::uint64_t offset, std::uint64_t length) {
  PieceLog log;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), offset, length, log_piece, &log), kvfs_ok);
  return log.pieces;
}

TEST(ForkDeviceIo, RangeInOneExtent_IsOnePiece) {
  const OpenFork fork(kThreeExtents);
  EXPECT_EQ(pieces_of(fork, 0, 4096), Lines{"device 12288 fork 0 length 4096"});
  EXPECT_EQ(pieces_of(fork, 100, 1), Lines{"device 12388 fork 100 length 1"});
  EXPECT_EQ(pieces_of(fork, 819200, 245760), Lines{"device 2457600 fork 819200 length 245760"});
  EXPECT_EQ(pieces_of(fork, 2 * kMiB + 8191, 1), Lines{"device 5136383 fork 2105343 length 1"});
}

TEST(ForkDeviceIo, RangeOverTwoExtents_IsTwoPiecesInForkOrder) {
  const OpenFork fork(kThreeExtents);
  EXPECT_EQ(pieces_of(fork, 815104, 8192),
            (Lines{"device 827392 fork 815104 length 4096", "device 2457600 fork 819200 length 4096"}));
}

TEST(ForkDeviceIo, WholeFork_IsOnePieceForEachExtent) {
  const OpenFork fork(kThreeExtents);
  EXPECT_EQ(pieces_of(fork, 0, 2 * kMiB + 8192),
            (Lines{"device 12288 fork 0 length 819200", "device 2457600 fork 819200 length 245760",
                   "device 4096000 fork 1064960 length 1040384"}));
}

TEST(ForkDeviceIo, DeviceOffsets_Have64Bits) {
  const OpenFork fork({.block_size = 0x80000000, .logical_size = 4096, .extents = {{0xFFFFFFFF, 1}}});
  EXPECT_EQ(pieces_of(fork, 0, 4096), Lines{"device 9223372034707292160 fork 0 length 4096"});
}

struct RangeFault {
  const char* name;
  ForkShape shape;
  std::uint64_t offset;
  std::uint64_t length;
  kvfs_result result;
  const char* log;
};

class ForkDeviceIoFault : public ::testing::TestWithParam<RangeFault> {};

TEST_P(ForkDeviceIoFault, RangeOrForkThatContradicts_IsRefusedBeforeAnyPiece) {
  const RangeFault& fault = GetParam();
  const OpenFork fork(fault.shape);
  LogCapture log;
  PieceLog pieces;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), fault.offset, fault.length, log_piece, &pieces), fault.result);
  EXPECT_EQ(pieces.pieces, Lines{});
  EXPECT_LOG(log, fault.log);
}

INSTANTIATE_TEST_SUITE_P(
    Checks, ForkDeviceIoFault,
    ::testing::Values(
        RangeFault{"NoBlocks",
                   {.logical_size = 100},
                   0,
                   1,
                   kvfs_invalid,
                   "ERROR kvfs_fork_do_device_io HFSPlus:kvfs_fork_do_device_io: -- Nothing to process in fork!\n"},
        RangeFault{"NoBlocksAndNoBytes",
                   {.logical_size = 0},
                   0,
                   0,
                   kvfs_invalid,
                   "ERROR kvfs_fork_do_device_io HFSPlus:kvfs_fork_do_device_io: -- Nothing to process in fork!\n"},
        RangeFault{"OffsetAtTheEnd",
                   {.logical_size = 5000, .extents = {{1, 2}}},
                   5000,
                   0,
                   kvfs_invalid,
                   "ERROR kvfs_fork_do_device_io Invalid parameter 'io_offset': Offset (5000) is beyond the end of the "
                   "file.\n"},
        RangeFault{
            "LargestOffset",
            {.logical_size = 5000, .extents = {{1, 2}}},
            UINT64_MAX,
            2,
            kvfs_invalid,
            "ERROR kvfs_fork_do_device_io Invalid parameter 'io_offset': Offset (18446744073709551615) is beyond "
            "the end of the file.\n"},
        RangeFault{"LengthBeyondTheEnd",
                   {.logical_size = 5000, .extents = {{1, 2}}},
                   4999,
                   2,
                   kvfs_invalid,
                   "ERROR kvfs_fork_do_device_io Invalid parameter 'io_length': Length (2) extends beyond the end of "
                   "the file.\n"},
        RangeFault{"LargestLength",
                   {.logical_size = 5000, .extents = {{1, 2}}},
                   1,
                   UINT64_MAX,
                   kvfs_invalid,
                   "ERROR kvfs_fork_do_device_io Invalid parameter 'io_length': Length (18446744073709551615) extends "
                   "beyond the end of the file.\n"},
        RangeFault{"MoreBlocksThanTotal",
                   {.logical_size = 4096,
                    .extents = {{1, 1}, {3, 1}, {5, 1}, {7, 1}, {9, 1}, {11, 1}, {13, 1}, {15, 1}},
                    .total_blocks = 7},
                   0,
                   1,
                   kvfs_inconsistent,
                   "ERROR kvfs_fork_do_device_io Inconsistent fork data (more blocks than specified found in extent "
                   "record).\n"},
        RangeFault{"FewerBytesThanLogicalSize",
                   {.logical_size = 8193, .extents = {{1, 2}}},
                   0,
                   1,
                   kvfs_inconsistent,
                   "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n"},
        RangeFault{"PartialForkWithoutItsOverflowExtents",
                   {.logical_size = 36865,
                    .extents = {{1, 1}, {3, 1}, {5, 1}, {7, 1}, {9, 1}, {11, 1}, {13, 1}, {15, 1}},
                    .total_blocks = 9},
                   0,
                   1,
                   kvfs_inconsistent,
                   "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n"},
        RangeFault{"BlockSizeZero",
                   {.block_size = 0, .logical_size = 1, .extents = {{1, 2}}},
                   0,
                   1,
                   kvfs_inconsistent,
                   "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n"}),
    [](const auto& suite) { return std::string(suite.param.name); });

TEST(ForkDeviceIo, SumsOfBlocks_DoNotWrapAt32Bits) {
  // 0x100000 blocks of 4096 bytes are 4 GiB: as a product of 32 bits they would hold nothing.
  OpenFork fork({.logical_size = 16384, .extents = {{1, 0x100000}, {2, 4}}});
  EXPECT_EQ(pieces_of(fork, 0, 4096), Lines{"device 8192 fork 0 length 4096"});
  fork.fork_data()->totalBlocks.set(3);
  LogCapture log;
  PieceLog pieces;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), 0, 1, log_piece, &pieces), kvfs_inconsistent);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_do_device_io", "more blocks than specified"));
}

// Q-fork-1
TEST(ForkDeviceIo, ExtentWhoseLengthWraps_EndsBeforeTheRangeDoes) {
  const OpenFork fork({.logical_size = kMiB, .extents = {{5, 0x100001}}});
  EXPECT_EQ(pieces_of(fork, 0, 4096), Lines{"device 20480 fork 0 length 4096"});
  LogCapture log;
  PieceLog pieces;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), 1000, 8192, log_piece, &pieces), kvfs_inconsistent);
  EXPECT_EQ(pieces.pieces, Lines{"device 21480 fork 1000 length 3096"});
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_do_device_io Unexpected: Reached the end of the allocation before all bytes have been "
             "processed.\n");
}

TEST(ForkDeviceIo, EmptyDescriptorWithinTheRange_EndsTheWalk) {
  // The first extent wraps to one block, so that the sum of the blocks suffices without the second.
  OpenFork fork({.logical_size = kMiB, .extents = {{5, 0x100001}, {9, 255}}});
  fork.priv()->fork_extents[1] = {};
  LogCapture log;
  PieceLog pieces;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), 4096, 1, log_piece, &pieces), kvfs_inconsistent);
  EXPECT_EQ(pieces.pieces, Lines{});
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_do_device_io Unexpected: Reached the end of the allocation before all bytes have been "
             "processed.\n");
}

TEST(ForkDeviceIo, DescriptorWithAStartAlone_IsPassedOver) {
  OpenFork fork({.logical_size = 12288, .extents = {{5, 2}, {9, 1}, {20, 1}}});
  fork.priv()->fork_extents[1] = fork.priv()->fork_extents[2];
  fork.priv()->fork_extents[0].blockCount.set(2);
  fork.priv()->fork_extents[2] = {};
  fork.priv()->fork_extents[2].startBlock.set(7);
  EXPECT_EQ(pieces_of(fork, 4096, 8192),
            (Lines{"device 24576 fork 4096 length 4096", "device 81920 fork 8192 length 4096"}));
}

TEST(ForkDeviceIo, RangesInAnyOrder_FindTheirExtents) {
  const OpenFork fork({.logical_size = 16384, .extents = {{5, 1}, {9, 2}, {20, 1}}});
  EXPECT_EQ(pieces_of(fork, 12288, 4096), Lines{"device 81920 fork 12288 length 4096"});
  EXPECT_EQ(pieces_of(fork, 4096, 1), Lines{"device 36864 fork 4096 length 1"});
  EXPECT_EQ(pieces_of(fork, 8192, 8192),
            (Lines{"device 40960 fork 8192 length 4096", "device 81920 fork 12288 length 4096"}));
  EXPECT_EQ(pieces_of(fork, 4095, 2), (Lines{"device 24575 fork 4095 length 1", "device 36864 fork 4096 length 1"}));
  EXPECT_EQ(pieces_of(fork, 12287, 1), Lines{"device 45055 fork 12287 length 1"});
}

TEST(ForkDeviceIo, PieceThatFails_EndsTheWalkWithItsResult) {
  const OpenFork fork(kThreeExtents);
  LogCapture log;
  PieceLog pieces;
  pieces.fail_at = 1;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), 0, 2 * kMiB, log_piece, &pieces), kvfs_limit);
  EXPECT_EQ(pieces.pieces.size(), 2u);
  EXPECT_LOG(log, "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n");
}

TEST(ForkDeviceIo, SizesOfTheForkData_AreThoseOfTheMoment) {
  // The fork data follows a fork that grows or shrinks.
  OpenFork fork(kSmall);
  fork.fork_data()->logicalSize.set(4096);
  LogCapture log;
  PieceLog pieces;
  EXPECT_EQ(kvfs_fork_do_device_io(fork.get(), 4096, 1, log_piece, &pieces), kvfs_invalid);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_do_device_io", "Offset (4096) is beyond the end of the file."));
}

// ---- Reading one piece ---------------------------------------------------------------------------------------------

struct PieceRead {
  const char* name;
  std::uint32_t sector_size;
  std::uint64_t device_offset;
  std::uint64_t length;
  Lines transfers;
  std::vector<std::pair<std::uint64_t, std::size_t>> delivered;  // the image's bytes, one run behind the other
};

class ForkProcessRead : public ::testing::TestWithParam<PieceRead> {};

// X-fork-4
TEST_P(ForkProcessRead, Piece_IsReadInWholeSectors) {
  const PieceRead& piece = GetParam();
  const ForkMedium medium({.sector_size = piece.sector_size, .image_size = 65536});
  ByteVector bytes(static_cast<std::size_t>(piece.length) + 1, 0xEE);
  kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_process_read_io(&context, piece.device_offset, 0, piece.length), kvfs_ok);
  EXPECT_EQ(transfers(faults), piece.transfers);
  EXPECT_EQ(context.delivered, piece.length);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log);
  ByteVector expected;
  for (const auto& [offset, length] : piece.delivered) {
    const ByteVector run = ForkMedium::image_bytes(offset, length);
    expected.insert(expected.end(), run.begin(), run.end());
  }
  expected.push_back(0xEE);
  EXPECT_EQ(bytes, expected);
}

// The whole sectors are read also where there are none. What leads out is taken from the end of its sector, not from
// its beginning.
INSTANTIATE_TEST_SUITE_P(
    Shapes, ForkProcessRead,
    ::testing::Values(
        PieceRead{"WholeSectorsOf512", 512, 1024, 1536, {"read 1024 1536"}, {{1024, 1536}}},
        PieceRead{"WholeSectorsOf1024", 1024, 2048, 2048, {"read 2048 2048"}, {{2048, 2048}}},
        PieceRead{"WholeSectorsOf2048", 2048, 2048, 2048, {"read 2048 2048"}, {{2048, 2048}}},
        PieceRead{"WholeSectorsOf4096", 4096, 8192, 8192, {"read 8192 8192"}, {{8192, 8192}}},
        PieceRead{"SectorsOf1000", 1000, 3000, 2000, {"read 3000 2000"}, {{3000, 2000}}},
        PieceRead{
            "LeadInAndWholeSectors", 512, 1100, 948, {"read 1024 512", "read 1536 512"}, {{1100, 436}, {1536, 512}}},
        PieceRead{"LeadInAlone", 512, 1100, 436, {"read 1024 512", "read 1536 0"}, {{1100, 436}}},
        PieceRead{"LeadOutAlone", 512, 1024, 100, {"read 1024 0", "read 1024 512"}, {{1436, 100}}},
        PieceRead{
            "WholeSectorsAndLeadOut", 512, 1024, 1025, {"read 1024 1024", "read 2048 512"}, {{1024, 1024}, {2559, 1}}},
        PieceRead{"LeadInAndLeadOut", 512, 1535, 513, {"read 1024 512", "read 1536 512"}, {{1535, 1}, {1536, 512}}},
        PieceRead{"LeadInWholeSectorsAndLeadOut",
                  512,
                  1500,
                  600,
                  {"read 1024 512", "read 1536 512", "read 2048 512"},
                  {{1500, 36}, {1536, 512}, {2508, 52}}},
        PieceRead{"LeadInOfALargeSector", 4096, 4608, 3584, {"read 4096 4096", "read 8192 0"}, {{4608, 3584}}}),
    [](const auto& suite) { return std::string(suite.param.name); });

TEST(ForkProcessRead, SeveralPieces_LieOneBehindTheOther) {
  const ForkMedium medium({.image_size = 65536});
  ByteVector bytes(2048);
  kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
  ASSERT_EQ(kvfs_fork_process_read_io(&context, 4096, 0, 1024), kvfs_ok);
  ASSERT_EQ(kvfs_fork_process_read_io(&context, 512, 1024, 1024), kvfs_ok);
  EXPECT_EQ(context.delivered, 2048u);
  ByteVector expected = ForkMedium::image_bytes(4096, 1024);
  const ByteVector second = ForkMedium::image_bytes(512, 1024);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(bytes, expected);
}

TEST(ForkProcessRead, WholeSectors_GoStraightToTheirPlaceAndPartialOnesThroughABuffer) {
  const ForkMedium medium({.image_size = 65536});
  ByteVector bytes(600);
  kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_process_read_io(&context, 1500, 0, 600), kvfs_ok);
  EXPECT_EQ(faults.allocation_sizes(), (std::vector<std::size_t>{512, 512}));
}

TEST(ForkProcessRead, EachReadThatFails_IsReportedWithItsSectors) {
  const ForkMedium medium({.image_size = 65536});
  const std::vector<Lines> logs = {
      {"ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 1024 into self-allocated "
       "buffer {*}\n",
       "ERROR kvfs_fork_process_read_io Error while reading lead-in sector 2.\n"},
      {"ERROR kvfs_device_read_disk_sectors Error while reading 1024 bytes from device offset 1536 into "
       "caller-provided buffer {*}\n",
       "ERROR kvfs_fork_process_read_io Error while reading 2 fork sectors starting at sector 3.\n"},
      {"ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 2560 into self-allocated "
       "buffer {*}\n",
       "ERROR kvfs_fork_process_read_io Error while reading lead-out sector 5.\n"},
  };
  const unsigned long failures = fail_each(each(Call::kPread64), [&](FailingRun& run) {
    ByteVector bytes(1100);
    kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
    const kvfs_result result = run.operate([&] { return kvfs_fork_process_read_io(&context, 1500, 0, 1100); });
    EXPECT_EQ(result, run.failed() ? kvfs_io_error : kvfs_ok);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    if (run.failed()) {
      EXPECT_EQ(run.faults().count(Call::kPread64), run.n());
      EXPECT_TRUE(run.log().matches(logs.at(run.n() - 1)));
    }
  });
  EXPECT_EQ(failures, logs.size());
}

TEST(ForkProcessRead, ReadOfNoSectorsThatFails_IsReported) {
  const ForkMedium medium({.image_size = 65536});
  ByteVector bytes(436);
  kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 2, Fault::error_number(EIO));
  EXPECT_EQ(kvfs_fork_process_read_io(&context, 1100, 0, 436), kvfs_io_error);
  EXPECT_TRUE(
      log.has("ERROR", "kvfs_fork_process_read_io", "Error while reading 0 fork sectors starting at sector 3.\n"));
}

TEST(ForkProcessRead, EachBufferThatCannotBeHad_IsNoMemory) {
  const ForkMedium medium({.image_size = 65536});
  const std::vector<std::string> texts = {"Error while reading lead-in sector 2.\n",
                                          "Error while reading lead-out sector 5.\n"};
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    ByteVector bytes(1100);
    kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
    const kvfs_result result = run.operate([&] { return kvfs_fork_process_read_io(&context, 1500, 0, 1100); });
    EXPECT_EQ(result, run.failed() ? kvfs_no_memory : kvfs_ok);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    if (run.failed()) {
      EXPECT_LOG(run.log(), "ERROR kvfs_device_read_disk_sectors Error while allocating read buffer of 512 bytes.\n",
                 "ERROR kvfs_fork_process_read_io " + texts.at(run.n() - 1));
    }
  });
  EXPECT_EQ(failures, texts.size());
}

// The number of whole sectors behind the first one is below 0, which no device reads. Of the first sector no more bytes
// are copied than the piece has.
// X-fork-4
TEST(ForkProcessRead, PieceWithinASector_ReadsThatSectorAndFails) {
  const ForkMedium medium({.image_size = 65536});
  for (const std::size_t length : {std::size_t{10}, std::size_t{1536 - 1100 - 1}}) {
    ByteVector bytes(length + 1, 0xEE);
    kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(kvfs_fork_process_read_io(&context, 1100, 0, length), kvfs_invalid);
    EXPECT_EQ(transfers(faults), Lines{"read 1024 512"});
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(bytes[length], 0xEE);
    EXPECT_EQ(context.delivered, 0u);
    EXPECT_LOG(log,
               "ERROR kvfs_device_read_disk_sectors Invalid parameter: Resulting buffer would be larger than "
               "addressable space (2199023255040).\n",
               "ERROR kvfs_fork_process_read_io Error while reading 18446744073709551615 fork sectors starting at "
               "sector 3.\n");
  }
}

TEST(ForkProcessRead, PieceOfMoreSectorsThanCanBeCounted_IsRefusedByTheDevice) {
  const ForkMedium medium({.image_size = 65536});
  kvfs_fork_read_context context = {medium.device(), nullptr, 0};
  LogCapture log;
  EXPECT_EQ(kvfs_fork_process_read_io(&context, 0, 0, (std::uint64_t{1} << 32) * 512 + 512), kvfs_invalid);
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Invalid parameter: Resulting buffer would be larger than addressable "
             "space (2199023255040).\n",
             "ERROR kvfs_fork_process_read_io Error while reading 4294967297 fork sectors starting at sector 0.\n");
}

// X-device-1, X-fork-4
TEST(ForkProcessRead, SectorSizeZero_IsRefused) {
  const ForkMedium medium({.sector_size = 0, .image_size = 65536});
  ByteVector bytes(512);
  kvfs_fork_read_context context = {medium.device(), bytes.data(), 0};
  LogCapture log;
  EXPECT_EQ(kvfs_fork_process_read_io(&context, 0, 0, 512), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_process_read_io Device has a sector size of 0.\n");
}

// ---- Filling the cache ---------------------------------------------------------------------------------------------

// Q-fork-5
TEST(ForkReadIntoCache, Blocks_AreReadOneByOneInAscendingOrder) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 12288), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 12288 4096", "read 16384 4096", "read 20480 4096"}));
  EXPECT_EQ(fork.item(0), "refs=3 valid={1 2 3} modified={} dirty=0");
  EXPECT_EQ(fork.locks(faults), (Lines{"write items", "unlock items"}));
}

TEST(ForkReadIntoCache, RangeWithinBlocks_ReadsThemWhole) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4095, 2), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 8192 4096", "read 12288 4096"}));
  EXPECT_EQ(fork.item(0), "refs=2 valid={0 1} modified={} dirty=0");
}

TEST(ForkReadIntoCache, ValidBlocks_AreReferencedButNotReadAgain) {
  OpenFork fork(kSmall);
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 4096), kvfs_ok);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 12288), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 8192 4096", "read 16384 4096"}));
  EXPECT_EQ(fork.item(0), "refs=4 valid={0 1 2} modified={} dirty=0");
}

TEST(ForkReadIntoCache, RangeOverItems_CreatesEachOfThem) {
  OpenFork fork(kThreeExtents);
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), kMiB - 1, 2), kvfs_ok);
  EXPECT_EQ(fork.item(0), "refs=1 valid={255} modified={} dirty=0");
  EXPECT_EQ(fork.item(1), "refs=1 valid={0} modified={} dirty=0");
  EXPECT_EQ(fork.item(2), "none");
}

TEST(ForkReadIntoCache, EveryUnit_IsTheSizeOfItsTransfers) {
  for (const std::uint32_t unit : {512u, 1024u, 2048u, 8192u, 32768u, 65536u, 131072u}) {
    OpenFork fork({.transfer_unit = unit, .logical_size = 2 * kMiB, .extents = {{16, 512}}});
    FaultInjector faults;
    ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), kMiB + 5, 1), kvfs_ok);
    EXPECT_EQ(transfers(faults), Lines{"read " + std::to_string(65536 + kMiB) + " " + std::to_string(unit)});
    EXPECT_EQ(fork.item(1), "refs=1 valid={0} modified={} dirty=0");
    EXPECT_EQ(std::memcmp(fork.priv()->items[1]->data, fork.fork_bytes(kMiB, unit).data(), unit), 0);
  }
}

TEST(ForkReadIntoCache, UnitOfAWholeItem_CountsItsValidBitInTheFork) {
  OpenFork fork({.transfer_unit = 1048576, .logical_size = 2 * kMiB, .extents = {{16, 512}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 2 * kMiB - 1, 1), kvfs_ok);
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), kMiB, 1), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"read 1114112 1048576"});
  EXPECT_EQ(fork.item(1), "refs=2 valid={1} modified={} dirty=0");
}

TEST(ForkReadIntoCache, EverySectorSize_ReadsTheSameBytes) {
  for (const std::uint32_t sector_size : {512u, 1024u, 2048u, 4096u}) {
    OpenFork fork({.sector_size = sector_size, .transfer_unit = 512, .logical_size = 8192, .extents = {{7, 2}}});
    FaultInjector faults;
    ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 1), kvfs_ok);
    EXPECT_EQ(transfers(faults), Lines{"read 32768 " + std::to_string(sector_size)});
    EXPECT_EQ(std::memcmp(fork.priv()->items[0]->data + 4096, fork.fork_bytes(4096, sector_size).data(), sector_size),
              0);
  }
}

TEST(ForkReadIntoCache, BlockOverTwoExtents_IsTwoTransfers) {
  OpenFork fork({.transfer_unit = 8192, .logical_size = 16384, .extents = {{10, 1}, {20, 1}, {30, 2}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 16384), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 40960 4096", "read 81920 4096", "read 122880 8192"}));
  EXPECT_EQ(fork.item(0), "refs=2 valid={0 1} modified={} dirty=0");
  EXPECT_EQ(std::memcmp(fork.priv()->items[0]->data, fork.fork_bytes(0, 16384).data(), 16384), 0);
}

TEST(ForkReadIntoCache, BlockOverThreeExtents_IsThreeTransfers) {
  OpenFork fork(
      {.block_size = 2048, .transfer_unit = 8192, .logical_size = 8192, .extents = {{10, 1}, {20, 2}, {30, 1}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 5000, 1), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 20480 2048", "read 40960 4096", "read 61440 2048"}));
  EXPECT_EQ(std::memcmp(fork.priv()->items[0]->data, fork.fork_bytes(0, 8192).data(), 8192), 0);
}

TEST(ForkReadIntoCache, BlockSizeThatIsNoMultipleOfTheSector_ReadsLeadIns) {
  OpenFork fork({.sector_size = 1024,
                 .block_size = 1536,
                 .transfer_unit = 2048,
                 .logical_size = 3072,
                 .extents = {{1, 1}, {5, 1}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 3072), kvfs_ok);
  EXPECT_EQ(transfers(faults),
            (Lines{"read 1024 1024", "read 2048 1024", "read 7168 1024", "read 8192 0", "read 8192 1024"}));
  EXPECT_EQ(std::memcmp(fork.priv()->items[0]->data, fork.fork_bytes(0, 3072).data(), 3072), 0);
}

TEST(ForkReadIntoCache, LastBlock_EndsWithTheFork) {
  OpenFork fork({.logical_size = 4096 + 1024, .extents = {{2, 2}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 1024), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"read 12288 1024"});
  const unsigned char* const data = fork.priv()->items[0]->data;
  EXPECT_EQ(std::memcmp(data + 4096, fork.fork_bytes(4096, 1024).data(), 1024), 0);
  EXPECT_EQ(ByteVector(data + 5120, data + 8192), ByteVector(3072));
}

// Q-fork-6
TEST(ForkReadIntoCache, LastSectorCutByTheForksEnd_DeliversTheEndOfThatSector) {
  OpenFork fork({.logical_size = 4096 + 1000, .extents = {{2, 2}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 1000), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 12288 512", "read 12800 512"}));
  const unsigned char* const data = fork.priv()->items[0]->data + 4096;
  EXPECT_EQ(ByteVector(data, data + 512), ForkMedium::image_bytes(12288, 512));
  EXPECT_EQ(ByteVector(data + 512, data + 1000), ForkMedium::image_bytes(12800 + 512 - 488, 488));
}

// Q-fork-4
TEST(ForkReadIntoCache, ReadThatFails_KeepsTheBlocksBeforeItAndAllReferences) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 2, Fault::error_number(EIO));
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 16384), kvfs_io_error);
  EXPECT_EQ(fork.item(0), "refs=2 valid={0} modified={} dirty=0");
  EXPECT_EQ(fork.locks(faults), (Lines{"write items", "unlock items"}));
  EXPECT_LOG(log,
             "ERROR kvfs_device_read_disk_sectors Error while reading 4096 bytes from device offset 12288 into "
             "caller-provided buffer {*}\n",
             "ERROR kvfs_fork_process_read_io Error while reading 8 fork sectors starting at sector 24.\n",
             "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n",
             "ERROR kvfs_fork_read_into_cache Error 4 while reading block 1 from device offset 4096.\n");
}

TEST(ForkReadIntoCache, ReadThatFailed_IsTriedAgainNextTime) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::short_by(1));
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_io_error);
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_ok);
  EXPECT_EQ(transfers(faults), (Lines{"read 8192 4096", "read 8192 4096"}));
  EXPECT_EQ(fork.item(0), "refs=2 valid={0} modified={} dirty=0");
}

TEST(ForkReadIntoCache, ItemThatCannotBeMade_IsNoMemoryWhateverTheReason) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockattrSetpshared, 1, Fault::error_number(EINVAL));
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_no_memory);
  EXPECT_EQ(fork.item(0), "none");
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_rwlock_create Error while setting pshared property: {*}\n",
             "ERROR kvfs_fork_cache_item_create Error while creating item_lock.\n",
             "ERROR kvfs_fork_read_into_cache Unable to create cache item 0.\n");
}

TEST(ForkReadIntoCache, ItemFarOutside_IsAnInternalError) {
  OpenFork fork({.logical_size = kMiB, .extents = {{1, 256}}});
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 2 * kMiB, 1), kvfs_internal);
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_read_into_cache Item index out of bounds: 2 (expected maximum: 1)\n");
}

// X-fork-3
TEST(ForkReadIntoCache, ItemBehindTheLast_IsRefusedBeforeItsSlotIsTouched) {
  OpenFork fork({.logical_size = kMiB, .extents = {{1, 256}}});
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), kMiB, 1), kvfs_inconsistent);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_fork_read_into_cache Cache item 1 lies behind the end of the fork.\n");
}

TEST(ForkReadIntoCache, BlockThatWouldLeaveItsItem_IsAnInternalError) {
  for (const std::uint32_t size : {8191u, 4095u}) {  // less than up to the end of the block, and than a block has
    OpenFork fork(kSmall);
    ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_ok);
    fork.priv()->items[0]->data_size = size;
    LogCapture log;
    EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 4096, 1), kvfs_internal);
    EXPECT_EQ(fork.item(0), "refs=2 valid={0} modified={} dirty=0");
    EXPECT_LOG(
        log,
        "CRITICAL kvfs_fork_read_into_cache Unexpected: Read offset is outside the bounds of the cache item (4096, "
        "maximum expected: " +
            std::to_string(size) + ")!\n");
  }
}

TEST(ForkReadIntoCache, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    Lines log;
    const char* item;
  };
  const std::vector<Case> cases = {
      {Call::kRwlockWrlock, {kNoWriteLock, "ERROR kvfs_fork_read_into_cache Unable to lock items lock.\n"}, "none"},
      {Call::kRwlockUnlock,
       {kNoUnlock, "CRITICAL kvfs_fork_read_into_cache Unexpected - Unable to unlock items lock!\n"},
       "refs=1 valid={0} modified={} dirty=0"},
  };
  for (const Case& c : cases) {
    OpenFork fork(kSmall);
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, 1);
    EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_failed);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(fork.item(0), c.item);
    EXPECT_TRUE(log.matches(c.log));
  }
}

TEST(ForkReadIntoCache, UnlockThatFailsAfterAFailure_DoesNotReplaceItsResult) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1).fail(Call::kRwlockUnlock, 1);
  EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_io_error);
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_read_into_cache", "Unexpected - Unable to unlock items lock!\n"));
}

// X-fork-2
TEST(ForkReadIntoCache, UnitThatDoesNotFitAnItem_IsRefused) {
  for (const std::uint32_t unit : {0u, 1048577u, 2097152u, 0xFFFFFFFFu}) {
    OpenFork fork(
        {.sector_size = unit == 0 ? 0u : 512u, .transfer_unit = unit, .logical_size = 8192, .extents = {{1, 2}}});
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(kvfs_fork_read_into_cache(fork.get(), 0, 1), kvfs_inconsistent);
    EXPECT_EQ(fork.item(0), "none");
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_LOG(log,
               "ERROR kvfs_fork_read_into_cache Transfer unit of " + std::to_string(unit) + " bytes is not usable.\n");
  }
}

// Q-fork-10
TEST(ForkReadIntoCache, UnitThatIsNoPowerOfTwo_PlacesBlocksByTheirNumber) {
  // 682 blocks of 1536 bytes fit an item, so that block 683 is the second of item 1. Its bit is counted in the fork.
  OpenFork fork({.transfer_unit = 1536, .logical_size = 2 * kMiB, .extents = {{1, 512}}});
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_read_into_cache(fork.get(), 683 * 1536, 1), kvfs_ok);
  EXPECT_EQ(transfers(faults), Lines{"read " + std::to_string(4096 + 683 * 1536) + " 1536"});
  EXPECT_EQ(fork.item(0), "none");
  EXPECT_EQ(fork.item(1), "refs=1 valid={3} modified={} dirty=0");
  EXPECT_EQ(std::memcmp(fork.priv()->items[1]->data + 1536, fork.fork_bytes(683 * 1536, 1536).data(), 1536), 0);
}

// ---- Map -----------------------------------------------------------------------------------------------------------

TEST(ForkMap, FirstTime_ReadsTheBlockAndPointsIntoTheCache) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  void* pointer = nullptr;
  std::size_t mapped = 0;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 4100, &pointer, 50, &mapped), kvfs_ok);
  EXPECT_EQ(mapped, 50u);
  EXPECT_EQ(pointer, fork.priv()->items[0]->data + 4100);
  EXPECT_EQ(std::memcmp(pointer, fork.fork_bytes(4100, 50).data(), 50), 0);
  EXPECT_EQ(transfers(faults), Lines{"read 12288 4096"});
  EXPECT_EQ(fork.locks(faults), (Lines{"write items", "unlock items", "read items", "unlock items"}));
  EXPECT_EQ(fork.item(0), "refs=1 valid={1} modified={} dirty=0");
  EXPECT_LOG(log);
}

TEST(ForkMap, SameBlockTwice_ReadsItOnce) {
  OpenFork fork(kSmall);
  FaultInjector faults;
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 4096, &first, 4096, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_map(fork.get(), 4096, &second, 4096, nullptr), kvfs_ok);
  EXPECT_EQ(first, second);
  EXPECT_EQ(faults.count(Call::kPread64), 1u);
  EXPECT_EQ(fork.item(0), "refs=2 valid={1} modified={} dirty=0");
}

// Q-fork-4
TEST(ForkMap, SeveralBlocks_AddAReferenceForEach) {
  OpenFork fork(kSmall);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 12288, nullptr), kvfs_ok);
  EXPECT_EQ(fork.item(0), "refs=3 valid={0 1 2} modified={} dirty=0");
  EXPECT_EQ(std::memcmp(pointer, fork.fork_bytes(0, 12288).data(), 12288), 0);
}

TEST(ForkMap, LaterItem_PointsFromItsOwnBeginning) {
  OpenFork fork(kThreeExtents);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), kMiB + 4096, &pointer, 4096, nullptr), kvfs_ok);
  EXPECT_EQ(pointer, fork.priv()->items[1]->data + 4096);
  EXPECT_EQ(std::memcmp(pointer, fork.fork_bytes(kMiB + 4096, 4096).data(), 4096), 0);
  EXPECT_EQ(fork.item(0), "none");
}

TEST(ForkMap, LastByteOfTheFork_Works) {
  OpenFork fork({.logical_size = 10000, .extents = {{2, 3}}});
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 9999, &pointer, 1, nullptr), kvfs_ok);
}

TEST(ForkMap, WholeItem_Works) {
  OpenFork fork({.transfer_unit = 65536, .logical_size = kMiB, .extents = {{2, 256}}});
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, kMiB, nullptr), kvfs_ok);
  EXPECT_EQ(fork.priv()->items[0]->references, 16u);
}

struct BadRange {
  const char* name;
  std::uint64_t logical_size;
  std::uint64_t offset;
  std::size_t length;
  kvfs_result result;
  const char* text;  // behind the function; "{verb}" stands for read or "unmap region"
};

class ForkBadRange : public ::testing::TestWithParam<BadRange> {
 protected:
  static std::string line(const char* function, const std::string& verb) {
    static const std::string kPlace = "{verb}";
    std::string text = GetParam().text;
    const std::size_t position = text.find(kPlace);
    if (position != std::string::npos) {
      text.replace(position, kPlace.size(), verb);
    }
    return std::string("CRITICAL ") + function + " " + text;
  }
};

TEST_P(ForkBadRange, Map_RefusesItWithoutATransfer) {
  OpenFork fork({.logical_size = GetParam().logical_size, .extents = {{2, 600}}});
  LogCapture log;
  FaultInjector faults;
  void* pointer = &log;
  std::size_t mapped = 99;
  EXPECT_EQ(kvfs_fork_map(fork.get(), GetParam().offset, &pointer, GetParam().length, &mapped), GetParam().result);
  EXPECT_EQ(pointer, &log);
  EXPECT_EQ(mapped, 0u);
  EXPECT_EQ(fork.locks(faults), Lines{});
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_LOG(log, line("kvfs_fork_map", "read"));
}

TEST_P(ForkBadRange, Unmap_RefusesItAndKeepsThePointer) {
  OpenFork fork({.logical_size = GetParam().logical_size, .extents = {{2, 600}}});
  LogCapture log;
  FaultInjector faults;
  void* pointer = &log;
  EXPECT_EQ(kvfs_fork_unmap(fork.get(), GetParam().offset, &pointer, GetParam().length), GetParam().result);
  EXPECT_EQ(pointer, &log);
  EXPECT_EQ(fork.locks(faults), Lines{});
  EXPECT_LOG(log, line("kvfs_fork_unmap", "unmap region"));
}

TEST_P(ForkBadRange, Read_RefusesItWithoutATransfer) {
  OpenFork fork({.logical_size = GetParam().logical_size, .extents = {{2, 600}}});
  LogCapture log;
  FaultInjector faults;
  unsigned char byte = 0xEE;
  std::size_t bytes_read = 99;
  EXPECT_EQ(kvfs_fork_read(fork.get(), GetParam().offset, &byte, GetParam().length, &bytes_read), GetParam().result);
  EXPECT_EQ(bytes_read, 0u);
  EXPECT_EQ(byte, 0xEE);
  EXPECT_EQ(fork.locks(faults), Lines{});
  EXPECT_LOG(log, line("kvfs_fork_read", "read"));
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, ForkBadRange,
    ::testing::Values(
        BadRange{"OneBytePastTheEnd", 10000, 9999, 2, kvfs_invalid,
                 "Attempted to {verb} outside allocated fork size! Offset: 9999, Length: 2, fork data size: 10000\n"},
        BadRange{"OffsetPastTheEnd", 10000, 10001, 0, kvfs_invalid,
                 "Attempted to {verb} outside allocated fork size! Offset: 10001, Length: 0, fork data size: 10000\n"},
        BadRange{"LargestOffset", 10000, UINT64_MAX, 1, kvfs_invalid,
                 "Attempted to {verb} outside allocated fork size! Offset: 18446744073709551615, Length: 1, fork data "
                 "size: 10000\n"},
        BadRange{"LengthThatWraps", 10000, 9000, 0xFFFFFFFF, kvfs_invalid,
                 "Attempted to {verb} outside allocated fork size! Offset: 9000, Length: 4294967295, fork data size: "
                 "10000\n"},
        BadRange{"NothingAtTheBeginning", 10000, 0, 0, kvfs_internal,
                 "Internal inconsistency: Last cache item number out of bounds!\n"}),
    [](const auto& suite) { return std::string(suite.param.name); });

TEST(ForkMap, RangeOverItems_CannotBeMappedOrUnmapped) {
  OpenFork fork({.logical_size = 2 * kMiB, .extents = {{2, 512}}});
  for (const auto& [offset, length] : {std::pair{1044480u, 8192u}, std::pair{1048575u, 2u}}) {
    const std::string range = " region crossing cache item borders (offset: " + std::to_string(offset) +
                              ", length: " + std::to_string(length) + ", first_cache_item: 0, last_cache_item: 1).\n";
    LogCapture log;
    FaultInjector faults;
    void* pointer = &log;
    std::size_t mapped = 99;
    EXPECT_EQ(kvfs_fork_map(fork.get(), offset, &pointer, length, &mapped), kvfs_invalid);
    EXPECT_EQ(mapped, 0u);
    EXPECT_EQ(kvfs_fork_unmap(fork.get(), offset, &pointer, length), kvfs_invalid);
    EXPECT_EQ(pointer, &log);
    EXPECT_EQ(transfers(faults), Lines{});
    EXPECT_LOG(log, "ERROR kvfs_fork_map Cannot map" + range, "ERROR kvfs_fork_unmap Cannot unmap" + range);
  }
}

// The item numbers are out of bounds only when the item array is too short for the fork.
TEST(ForkMap, ItemNumbersOutOfBounds_AreNamedInTheMessage) {
  struct Case {
    std::uint64_t offset;
    std::size_t length;
    const char* text;
  };
  for (const Case& c :
       {Case{2 * kMiB, 1, "First and last cache item numbers"}, Case{2 * kMiB - 1, 2, "Last cache item number"},
        Case{2 * kMiB, 0, "First cache item number"}}) {
    OpenFork fork({.logical_size = 3 * kMiB, .extents = {{2, 768}}});
    fork.priv()->items_length = 1;
    const std::string text = std::string(" Internal inconsistency: ") + c.text + " out of bounds!\n";
    LogCapture log;
    void* pointer = nullptr;
    unsigned char bytes[2];
    EXPECT_EQ(kvfs_fork_map(fork.get(), c.offset, &pointer, c.length, nullptr), kvfs_internal);
    EXPECT_EQ(kvfs_fork_unmap(fork.get(), c.offset, &pointer, c.length), kvfs_internal);
    EXPECT_EQ(kvfs_fork_read(fork.get(), c.offset, bytes, c.length, nullptr), kvfs_internal);
    EXPECT_EQ(kvfs_fork_write(fork.get(), c.offset, bytes, c.length, nullptr), kvfs_internal);
    EXPECT_LOG(log, "CRITICAL kvfs_fork_map" + text, "CRITICAL kvfs_fork_unmap" + text,
               "CRITICAL kvfs_fork_read" + text, "CRITICAL kvfs_fork_write" + text);
  }
}

TEST(ForkMap, ForkWithoutBlocks_CannotBeMapped) {
  OpenFork fork({.logical_size = 100});
  LogCapture log;
  void* pointer = nullptr;
  EXPECT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 1, nullptr), kvfs_invalid);
  EXPECT_LOG(log, "ERROR kvfs_fork_do_device_io HFSPlus:kvfs_fork_do_device_io: -- Nothing to process in fork!\n",
             "ERROR kvfs_fork_read_into_cache Error 3 while reading block 0 from device offset 0.\n",
             "ERROR kvfs_fork_map Error while reading missing disk blocks into cache.\n");
}

TEST(ForkMap, ExtentsTooShortForTheLogicalSize_FailEveryTransfer) {
  OpenFork fork({.logical_size = 8193, .extents = {{2, 2}}});
  for (const std::uint64_t offset : {0u, 4096u, 8192u}) {
    LogCapture log;
    void* pointer = nullptr;
    EXPECT_EQ(kvfs_fork_map(fork.get(), offset, &pointer, 1, nullptr), kvfs_inconsistent);
    EXPECT_LOG(log, "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n",
               "ERROR kvfs_fork_read_into_cache Error 6 while reading block " + std::to_string(offset / 4096) +
                   " from device offset " + std::to_string(offset) + ".\n",
               "ERROR kvfs_fork_map Error while reading missing disk blocks into cache.\n");
  }
}

TEST(ForkMap, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    unsigned long n;
    Lines log;
    const char* item;
  };
  const std::string context = "ERROR kvfs_fork_map Error while reading missing disk blocks into cache.\n";
  const std::vector<Case> cases = {
      {Call::kRwlockWrlock,
       1,
       {kNoWriteLock, "ERROR kvfs_fork_read_into_cache Unable to lock items lock.\n", context},
       "none"},
      {Call::kRwlockUnlock,
       1,
       {kNoUnlock, "CRITICAL kvfs_fork_read_into_cache Unexpected - Unable to unlock items lock!\n", context},
       "refs=1 valid={0} modified={} dirty=0"},
      {Call::kRwlockRdlock,
       1,
       {kNoReadLock, "ERROR kvfs_fork_map Error while read-locking items lock.\n"},
       "refs=1 valid={0} modified={} dirty=0"},
      {Call::kRwlockUnlock,
       2,
       {kNoUnlock, "CRITICAL kvfs_fork_map Unexpected - Error while unlocking items lock!\n"},
       "refs=1 valid={0} modified={} dirty=0"},
  };
  for (const Case& c : cases) {
    OpenFork fork(kSmall);
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, c.n);
    void* pointer = &log;
    std::size_t mapped = 99;
    EXPECT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 1, &mapped), kvfs_failed);
    EXPECT_EQ(pointer, &log);
    EXPECT_EQ(mapped, 0u);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(fork.item(0), c.item);
    EXPECT_TRUE(log.matches(c.log));
  }
}

TEST(ForkMap, ItemThatTheFillLeftOut_IsAnInternalError) {
  OpenFork fork(kOddUnitShape);
  LogCapture log;
  FaultInjector faults;
  void* pointer = &log;
  EXPECT_EQ(kvfs_fork_map(fork.get(), 2 * kOddUnit, &pointer, 1, nullptr), kvfs_internal);
  EXPECT_EQ(pointer, &log);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(fork.item(1), "none");
  EXPECT_EQ(fork.item(2), "refs=1 valid={2} modified={} dirty=0");
  EXPECT_LOG(log, "CRITICAL kvfs_fork_map Unexpected - Requested cache item 1 does not exist.\n");
}

// ---- Unmap ---------------------------------------------------------------------------------------------------------

class ForkUnmap : public ::testing::Test {
 protected:
  ForkUnmap() { EXPECT_EQ(kvfs_fork_map(fork_.get(), 4096, &pointer_, 4096, nullptr), kvfs_ok); }

  OpenFork fork_{kThreeExtents};
  void* pointer_ = nullptr;
};

TEST_F(ForkUnmap, Mapping_LosesItsReferenceAndThePointer) {
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 4096, &pointer_, 4096), kvfs_ok);
  EXPECT_EQ(pointer_, nullptr);
  EXPECT_EQ(fork_.item(0), "refs=0 valid={1} modified={} dirty=0");
  EXPECT_EQ(fork_.locks(faults), (Lines{"read items", "write item 0", "unlock item 0", "unlock items"}));
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_LOG(log);
}

TEST_F(ForkUnmap, WrongPointer_IsRefusedAndKeepsReference) {
  LogCapture log;
  FaultInjector faults;
  void* const expected = pointer_;
  void* wrong = static_cast<unsigned char*>(pointer_) + 1;
  void* const given = wrong;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 4096, &wrong, 4096), kvfs_invalid);
  EXPECT_EQ(wrong, given);
  EXPECT_EQ(fork_.item(0), "refs=1 valid={1} modified={} dirty=0");
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_fork_unmap Unexpected pointer when unmapping cache item. Expected " +
                      address_of(expected) + ", got " + address_of(given) + ".\n");
}

TEST_F(ForkUnmap, WrongOffset_IsRefusedAndKeepsReference) {
  LogCapture log;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 0, &pointer_, 4096), kvfs_invalid);
  EXPECT_NE(pointer_, nullptr);
  EXPECT_EQ(fork_.item(0), "refs=1 valid={1} modified={} dirty=0");
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_unmap", "Unexpected pointer when unmapping cache item."));
}

TEST_F(ForkUnmap, MoreOftenThanMapped_IsRefused) {
  void* again = pointer_;
  ASSERT_EQ(kvfs_fork_unmap(fork_.get(), 4096, &pointer_, 4096), kvfs_ok);
  LogCapture log;
  FaultInjector faults;
  void* const given = again;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 4096, &again, 4096), kvfs_invalid);
  EXPECT_EQ(again, given);
  EXPECT_EQ(fork_.item(0), "refs=0 valid={1} modified={} dirty=0");
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "ERROR kvfs_fork_unmap Cache item 0 has no active references and cannot be unmapped.\n");
}

TEST_F(ForkUnmap, WrongPointerWithoutReferences_ReportsThePointer) {
  void* again = pointer_;
  ASSERT_EQ(kvfs_fork_unmap(fork_.get(), 4096, &pointer_, 4096), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 4097, &again, 1), kvfs_invalid);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_unmap", "Unexpected pointer"));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(ForkUnmap, ItemThatWasNeverMade_IsRefused) {
  LogCapture log;
  FaultInjector faults;
  void* const given = pointer_;
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), kMiB, &pointer_, 4096), kvfs_invalid);
  EXPECT_EQ(pointer_, given);
  EXPECT_EQ(fork_.locks(faults), (Lines{"read items", "unlock items"}));
  EXPECT_LOG(log, "ERROR kvfs_fork_unmap Cache item 1 does not exist and cannot be unmapped.\n");
}

// Q-fork-4
TEST_F(ForkUnmap, MappingOfSeveralBlocks_LosesOneReferenceOnly) {
  void* wide = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork_.get(), 8192, &wide, 8192, nullptr), kvfs_ok);
  EXPECT_EQ(fork_.item(0), "refs=3 valid={1 2 3} modified={} dirty=0");
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 8192, &wide, 8192), kvfs_ok);
  EXPECT_EQ(fork_.item(0), "refs=2 valid={1 2 3} modified={} dirty=0");
}

TEST_F(ForkUnmap, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    unsigned long n;
    Lines log;
    bool given_back;
  };
  const std::string item = address_of(fork_.priv()->items[0]);
  const std::vector<Case> cases = {
      {Call::kRwlockRdlock, 1, {kNoReadLock, "ERROR kvfs_fork_unmap Error while read-locking items lock.\n"}, false},
      {Call::kRwlockWrlock,
       1,
       {kNoWriteLock, "ERROR kvfs_fork_unmap Error while write-locking item " + item + ".\n"},
       false},
      {Call::kRwlockUnlock,
       1,
       {kNoUnlock, "CRITICAL kvfs_fork_unmap Unexpected - Error while unlocking item " + item + "!\n"},
       true},
      {Call::kRwlockUnlock,
       2,
       {kNoUnlock, "CRITICAL kvfs_fork_unmap Unexpected - Error while unlocking items lock!\n"},
       true},
  };
  for (const Case& c : cases) {
    void* pointer = nullptr;
    ASSERT_EQ(kvfs_fork_map(fork_.get(), 0, &pointer, 1, nullptr), kvfs_ok);
    const std::uint64_t references = fork_.priv()->items[0]->references;
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, c.n);
    EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 0, &pointer, 1), kvfs_failed);
    EXPECT_EQ(pointer == nullptr, c.given_back);
    EXPECT_EQ(fork_.priv()->items[0]->references, references - (c.given_back ? 1 : 0));
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_TRUE(log.matches(c.log));
  }
}

TEST_F(ForkUnmap, UnlocksThatFailAfterAFailure_DoNotReplaceItsResult) {
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockUnlock, 1);
  EXPECT_EQ(kvfs_fork_unmap(fork_.get(), 4097, &pointer_, 1), kvfs_invalid);
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_unmap", "Unexpected - Error while unlocking item "));
  EXPECT_TRUE(log.has("CRITICAL", "kvfs_fork_unmap", "Unexpected - Error while unlocking items lock!"));
}

// ---- Read ----------------------------------------------------------------------------------------------------------

TEST(ForkRead, RangeInABlock_IsCopiedAndLeavesNoReference) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  ByteVector bytes(100);
  std::size_t bytes_read = 0;
  ASSERT_EQ(kvfs_fork_read(fork.get(), 5000, bytes.data(), bytes.size(), &bytes_read), kvfs_ok);
  EXPECT_EQ(bytes_read, 100u);
  EXPECT_EQ(transfers(faults), Lines{"read 12288 4096"});
  EXPECT_EQ(fork.locks(faults),
            (Lines{"write items", "unlock items", "read items", "write item 0", "unlock item 0", "unlock items"}));
  EXPECT_EQ(fork.item(0), "refs=0 valid={1} modified={} dirty=0");
  EXPECT_LOG(log);
  EXPECT_EQ(bytes, fork.fork_bytes(5000, 100));
}

TEST(ForkRead, RangeOverItems_CopiesFromEachAndRemovesOneReferenceFromEach) {
  OpenFork fork({.logical_size = 3 * kMiB, .extents = {{3, 100}, {900, 668}}});
  FaultInjector faults;
  ByteVector bytes(2 * kMiB);
  std::size_t bytes_read = 0;
  ASSERT_EQ(kvfs_fork_read(fork.get(), 0, bytes.data(), bytes.size(), &bytes_read), kvfs_ok);
  EXPECT_EQ(bytes_read, 2 * kMiB);
  EXPECT_EQ(faults.count(Call::kPread64), 512u);
  EXPECT_EQ(fork.priv()->items[0]->references, 255u);
  EXPECT_EQ(fork.priv()->items[1]->references, 255u);
  EXPECT_EQ(fork.item(2), "none");
  EXPECT_TRUE(bytes == fork.fork_bytes(0, bytes.size()));
}

TEST(ForkRead, UnevenRangeOverThreeItems_IsCopiedWhole) {
  OpenFork fork(kThreeExtents);
  ByteVector bytes(kMiB + 10);
  ASSERT_EQ(kvfs_fork_read(fork.get(), kMiB - 5, bytes.data(), bytes.size(), nullptr), kvfs_ok);
  EXPECT_TRUE(bytes == fork.fork_bytes(kMiB - 5, bytes.size()));
}

TEST(ForkRead, CachedBytes_AreReadWithoutTheDevice) {
  OpenFork fork(kSmall);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 4096, nullptr), kvfs_ok);
  std::memset(pointer, 0x5A, 10);
  FaultInjector faults;
  ByteVector bytes(10);
  ASSERT_EQ(kvfs_fork_read(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_ok);
  EXPECT_EQ(bytes, ByteVector(10, 0x5A));
  EXPECT_EQ(transfers(faults), Lines{});
  EXPECT_EQ(fork.item(0), "refs=1 valid={0} modified={} dirty=0");
}

TEST(ForkRead, WholeForkWithAPartialLastBlock_EndsWithTheFork) {
  OpenFork fork({.logical_size = 4096 + 512, .extents = {{2, 2}}});
  ByteVector bytes(4096 + 512);
  ASSERT_EQ(kvfs_fork_read(fork.get(), 0, bytes.data(), bytes.size(), nullptr), kvfs_ok);
  EXPECT_EQ(bytes, fork.fork_bytes(0, bytes.size()));
}

TEST(ForkRead, NothingToNowhere_IsAllowedWithinAMappedBlock) {
  OpenFork fork(kSmall);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 0, &pointer, 4096, nullptr), kvfs_ok);
  std::size_t bytes_read = 99;
  ASSERT_EQ(kvfs_fork_read(fork.get(), 10, nullptr, 0, &bytes_read), kvfs_ok);
  EXPECT_EQ(bytes_read, 0u);
}

TEST(ForkRead, DeviceThatFails_ReportsNothingRead) {
  OpenFork fork(kSmall);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::short_by(512));
  ByteVector bytes(10);
  std::size_t bytes_read = 99;
  EXPECT_EQ(kvfs_fork_read(fork.get(), 0, bytes.data(), bytes.size(), &bytes_read), kvfs_io_error);
  EXPECT_EQ(bytes_read, 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(fork.item(0), "refs=1 valid={} modified={} dirty=0");
  EXPECT_LOG(log, "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 3584/4096 bytes read\n",
             "ERROR kvfs_fork_process_read_io Error while reading 8 fork sectors starting at sector 16.\n",
             "ERROR kvfs_fork_do_device_io Error while processing I/O request.\n",
             "ERROR kvfs_fork_read_into_cache Error 4 while reading block 0 from device offset 0.\n",
             "ERROR kvfs_fork_read Error while reading missing disk blocks into cache.\n");
}

TEST(ForkRead, ItemThatTheFillLeftOut_IsAnInternalError) {
  OpenFork fork(kOddUnitShape);
  LogCapture log;
  FaultInjector faults;
  unsigned char byte = 0;
  std::size_t bytes_read = 99;
  EXPECT_EQ(kvfs_fork_read(fork.get(), 2 * kOddUnit, &byte, 1, &bytes_read), kvfs_internal);
  EXPECT_EQ(bytes_read, 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_read Unexpected - Requested cache item 1 does not exist.\n");
}

// Makes items 0 and 1 without a reference by overwriting a whole block.
void make_unreferenced_items(const OpenFork& fork) {
  const ByteVector block(kOddUnit);
  ASSERT_EQ(kvfs_fork_write(fork.get(), kOddUnit, block.data(), block.size(), nullptr), kvfs_ok);
}

TEST(ForkRead, ItemWithoutAReference_IsAnInternalError) {
  OpenFork fork(kOddUnitShape);
  make_unreferenced_items(fork);
  LogCapture log;
  FaultInjector faults;
  unsigned char byte = 0;
  EXPECT_EQ(kvfs_fork_read(fork.get(), 2 * kOddUnit, &byte, 1, nullptr), kvfs_internal);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(fork.priv()->items[1]->references, 0u);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_read Unexpected - Cache item that we just copied from has no references (should have "
             "at least one)!\n");
}

// Q-fork-14
TEST(ForkRead, UnlocksThatFailAfterAMissingReference_AreReportedAndReplaceNothing) {
  OpenFork fork(kOddUnitShape);
  make_unreferenced_items(fork);
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockUnlock, 2);
  unsigned char byte = 0;
  EXPECT_EQ(kvfs_fork_read(fork.get(), 2 * kOddUnit, &byte, 1, nullptr), kvfs_internal);
  EXPECT_EQ(faults.locks_held(), 0);
  const std::string missing =
      "CRITICAL kvfs_fork_read Unexpected - Cache item that we just copied from has no references (should have at least "
      "one)!\n";
  EXPECT_LOG(log, missing, kNoUnlock, "CRITICAL kvfs_fork_read Unexpected - Error while unlocking items lock.\n",
             kNoUnlock, "CRITICAL kvfs_fork_read Unexpected - Error while unlocking items lock!\n");
}

TEST(ForkRead, ItemThatIsTooShort_LeavesBytesToBeRead) {
  OpenFork fork(kSmall);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork.get(), 4096, &pointer, 4096, nullptr), kvfs_ok);
  fork.priv()->items[0]->data_size = 4100;
  LogCapture log;
  FaultInjector faults;
  ByteVector bytes(10, 0xEE);
  EXPECT_EQ(kvfs_fork_read(fork.get(), 4096, bytes.data(), bytes.size(), nullptr), kvfs_internal);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_read Unexpected - 6 bytes still remaining to be read!\n");
}

TEST(ForkRead, LockFaults_AreReportedAndHoldNothing) {
  struct Case {
    Call call;
    unsigned long n;
    Lines log;
    std::uint64_t references;  // of the item
  };
  const std::string context = "ERROR kvfs_fork_read Error while reading missing disk blocks into cache.\n";
  const std::vector<Case> cases = {
      {Call::kRwlockWrlock,
       1,
       {kNoWriteLock, "ERROR kvfs_fork_read_into_cache Unable to lock items lock.\n", context},
       0},
      {Call::kRwlockUnlock,
       1,
       {kNoUnlock, "CRITICAL kvfs_fork_read_into_cache Unexpected - Unable to unlock items lock!\n", context},
       1},
      {Call::kRwlockRdlock, 1, {kNoReadLock, "ERROR kvfs_fork_read Error while read-locking items lock.\n"}, 1},
      {Call::kRwlockWrlock,
       2,
       {kNoWriteLock, "ERROR kvfs_fork_read Error while write-locking cur_item's item lock.\n"},
       1},
      {Call::kRwlockUnlock,
       2,
       {kNoUnlock, "CRITICAL kvfs_fork_read Unexpected - Error while unlocking cur_item's item lock.\n"},
       0},
      {Call::kRwlockUnlock,
       3,
       {kNoUnlock, "CRITICAL kvfs_fork_read Unexpected - Error while unlocking items lock!\n"},
       0},
  };
  for (const Case& c : cases) {
    OpenFork fork(kSmall);
    LogCapture log;
    FaultInjector faults;
    faults.fail(c.call, c.n);
    unsigned char byte = 0;
    std::size_t bytes_read = 99;
    EXPECT_EQ(kvfs_fork_read(fork.get(), 0, &byte, 1, &bytes_read), kvfs_failed);
    EXPECT_EQ(bytes_read, 0u);
    EXPECT_EQ(faults.locks_held(), 0);
    const kvfs_fork_cache_item* const item = fork.priv()->items[0];
    EXPECT_EQ(item == nullptr ? 0 : item->references, c.references);
    EXPECT_TRUE(log.matches(c.log));
  }
}

}  // namespace
}  // namespace kvfs_test
