// The counters of the volume header in memory.

#include "volume_header.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "catalog_fixture.h"

namespace kvfs_test {
namespace {

struct CounterCase {
  const char* name;
  const char* field;
  void (*change)(kvfs_volume* volume, std::uint32_t amount);
  std::uint32_t before;
  std::uint32_t amount;
  std::uint32_t after;
};

void increment(kvfs_volume* volume, std::uint32_t /*amount*/) {
  kvfs_volume_increment_next_catalog_id(volume);
}

constexpr CounterCase kCounterCases[] = {
    {"AddFiles", "fileCount", kvfs_volume_add_file_count, 0x01020304, 0x10, 0x01020314},
    {"AddFilesBeyondTheEnd", "fileCount", kvfs_volume_add_file_count, 0xFFFFFFFF, 2, 1},
    {"SubtractFiles", "fileCount", kvfs_volume_subtract_file_count, 0x01020304, 0x305, 0x0101FFFF},
    {"SubtractFilesBelowZero", "fileCount", kvfs_volume_subtract_file_count, 1, 3, 0xFFFFFFFE},
    {"AddFolders", "folderCount", kvfs_volume_add_folder_count, 255, 1, 256},
    {"AddFoldersBeyondTheEnd", "folderCount", kvfs_volume_add_folder_count, 0xFFFFFFF0, 0x20, 0x10},
    {"SubtractFolders", "folderCount", kvfs_volume_subtract_folder_count, 256, 1, 255},
    {"SubtractFoldersBelowZero", "folderCount", kvfs_volume_subtract_folder_count, 0, 1, 0xFFFFFFFF},
    {"AddFreeBlocks", "freeBlocks", kvfs_volume_add_free_blocks, 1000, 0, 1000},
    {"AddFreeBlocksBeyondTheEnd", "freeBlocks", kvfs_volume_add_free_blocks, 0x80000000, 0x80000000, 0},
    {"SubtractFreeBlocks", "freeBlocks", kvfs_volume_subtract_free_blocks, 1000, 1000, 0},
    {"SubtractFreeBlocksBelowZero", "freeBlocks", kvfs_volume_subtract_free_blocks, 10, 11, 0xFFFFFFFF},
    {"SetNextAllocation", "nextAllocation", kvfs_volume_set_next_allocation, 77, 0x01020304, 0x01020304},
    {"IncrementNextCatalogId", "nextCatalogID", increment, 0x00FFFFFF, 0, 0x01000000},
    {"IncrementNextCatalogIdBeyondTheEnd", "nextCatalogID", increment, 0xFFFFFFFF, 0, 0},
};

class VolumeCounter : public ::testing::TestWithParam<CounterCase> {};

INSTANTIATE_TEST_SUITE_P(Header, VolumeCounter, ::testing::ValuesIn(kCounterCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(VolumeCounter, Change_TouchesItsFieldInMemoryAlone) {
  const CounterCase& counter = GetParam();
  Volume image = small_volume();
  image.set_field(counter.field, counter.before);
  const OpenVolume volume(image, kWithoutAllocationFile);
  LogCapture log;
  {
    FaultInjector faults;
    counter.change(volume.get(), counter.amount);
    EXPECT_TRUE(faults.transfers().empty());
    EXPECT_TRUE(faults.lock_calls().empty());
  }
  EXPECT_LOG(log);
  EXPECT_TRUE(image == volume.contents()) << "nothing is written before a flush";
  ASSERT_EQ(kvfs_volume_flush(volume.get()), kvfs_ok);
  image.set_field(counter.field, counter.after);
  EXPECT_TRUE(image == volume.contents());
}

}  // namespace
}  // namespace kvfs_test
