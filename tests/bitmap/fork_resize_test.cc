// Growing and shrinking the forks whose fork data is in the volume header.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "allocation_fixture.h"
#include "bitmap/private.h"
#include "fork.h"
#include "fork/private.h"
#include "log_capture.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kBlockSize = 4096;
constexpr std::uint32_t kBlocks = 2048;
constexpr std::uint32_t kFirstFree = 200;  // everything but the startup file lies before it
constexpr std::uint64_t kMiB = 1048576;
constexpr SpecialFile kStartup = SpecialFile::kStartup;

// A startup file in extents from kFirstFree on.
struct StartupShape {
  std::vector<Extent> extents;
  std::uint32_t clump_blocks = 4;
  std::vector<Extent> used = {};     // blocks that are used besides
  std::uint64_t logical_blocks = 0;  // 0: all
};

void mark_used(Volume& volume, const std::vector<Extent>& extents) {
  for (const Extent& extent : extents) {
    for (std::uint32_t i = 0; i < extent.block_count; ++i) {
      volume.set_block_used(extent.start_block + i, true);
    }
    volume.add_to_field("freeBlocks", -static_cast<std::int64_t>(extent.block_count));
  }
}

// Sets the fork data of the startup file and nothing else.
void set_startup_file(Volume& volume, const StartupShape& shape, std::uint64_t total_blocks) {
  for (std::size_t i = 0; i < shape.extents.size(); ++i) {
    const std::string extent = "startupFile.extents[" + std::to_string(i) + "].";
    volume.set_field(extent + "startBlock", shape.extents[i].start_block);
    volume.set_field(extent + "blockCount", shape.extents[i].block_count);
  }
  volume.set_field("startupFile.totalBlocks", total_blocks);
  volume.set_field("startupFile.clumpSize", shape.clump_blocks * kBlockSize);
  volume.set_field("startupFile.logicalSize",
                   (shape.logical_blocks != 0 ? shape.logical_blocks : total_blocks) * kBlockSize);
}

Volume empty_volume() {
  VolumeDescription description;
  description.block_size = kBlockSize;
  description.size = std::uint64_t{kBlockSize} * kBlocks;
  return build_volume(description);
}

Volume startup_volume(const StartupShape& shape) {
  Volume volume = empty_volume();
  std::uint64_t total = 0;
  for (const Extent& extent : shape.extents) {
    total += extent.block_count;
  }
  set_startup_file(volume, shape, total);
  mark_used(volume, shape.extents);
  mark_used(volume, shape.used);
  return volume;
}

// What is known about the startup file: the size of the open fork, and the fork data in the header.
std::string startup_file(OpenVolume& volume) {
  return std::to_string(*volume.fork(kStartup)->logical_size) + " " + describe(volume.header()->startupFile);
}

// The runs of used blocks behind the other files.
std::string used_behind(const Volume& volume) {
  std::string runs;
  for (std::uint32_t block = kFirstFree; block + 1 < kBlocks;) {
    std::uint32_t end = block;
    while (end + 1 < kBlocks && volume.block_used(end)) {
      ++end;
    }
    if (end != block) {
      runs += (runs.empty() ? "" : " ") + std::to_string(block) + "+" + std::to_string(end - block);
    }
    block = end + 1;
  }
  return runs;
}

const CheckOptions kWithLeakedBlocks = {{}, true, false};

const std::string kExpandSearch =
    "ERROR kvfs_fork_expand Error while searching for write location for expanded fork.\n";

constexpr kvfs_allocation_location kUntouched = {7, 7, 7, 7, 7, {7, 7}};
const std::string kUntouchedText = "start=7 count=7 index=7 bytes=7 7 reserved=7 7";

// Sets the fork's size in the header, as the caller of an expansion has to.
void set_logical_size(OpenVolume& volume, const kvfs_fork* fork) {
  HFSPlusForkData fork_data = volume.header()->startupFile;
  fork_data.logicalSize.set(*fork->logical_size);
  kvfs_volume_update_fork_data(volume.get(), kHFSStartupFileID, &fork_data);
}
void set_logical_size(OpenVolume& volume) {
  set_logical_size(volume, volume.fork(kStartup));
}

// ---- Recording a run -----------------------------------------------------------------------------------------------

TEST(UpdateForkExtents, RunBehindItsDescriptor_ExtendsIt) {
  HFSPlusForkData fork_data = fork_data_of(4096, {{40, 8}, {100, 2}});
  const kvfs_allocation_location run = {102, 0, 0, 1, 5, {}};
  LogCapture log;
  EXPECT_EQ(UpdateForkExtents(&fork_data, &run), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(describe(fork_data), "size=4096 total=15 extents={40+8 100+7}");
}

TEST(UpdateForkExtents, RunElsewhere_FillsItsDescriptor) {
  HFSPlusForkData fork_data = fork_data_of(4096, {{40, 8}, {100, 2}});
  const kvfs_allocation_location run = {300, 0, 0, 2, 5, {}};
  EXPECT_EQ(UpdateForkExtents(&fork_data, &run), kvfs_ok);
  EXPECT_EQ(describe(fork_data), "size=4096 total=15 extents={40+8 100+2 300+5}");
}

TEST(UpdateForkExtents, RunElsewhereForADescriptorInUse_ReplacesIt) {
  HFSPlusForkData fork_data = fork_data_of(4096, {{40, 8}, {100, 2}});
  const kvfs_allocation_location run = {300, 0, 0, 1, 5, {}};
  EXPECT_EQ(UpdateForkExtents(&fork_data, &run), kvfs_ok);
  EXPECT_EQ(describe(fork_data), "size=4096 total=15 extents={40+8 300+5}");
}

// Q-log-2
TEST(UpdateForkExtents, EighthDescriptor_IsTheLastOne) {
  HFSPlusForkData fork_data = fork_data_of(4096, {{40, 8}});
  const HFSPlusForkData before = fork_data;
  kvfs_allocation_location run = {300, 0, 0, 7, 5, {}};
  EXPECT_EQ(UpdateForkExtents(&fork_data, &run), kvfs_ok);
  EXPECT_EQ(describe(fork_data), "size=4096 total=13 extents={40+8 300+5}");
  fork_data = before;
  run.extent_index = 8;
  LogCapture log;
  EXPECT_EQ(UpdateForkExtents(&fork_data, &run), kvfs_unsupported_extents);
  EXPECT_EQ(UpdateForkExtents(nullptr, &run), kvfs_invalid);  // the first message leaves its line open
  EXPECT_LOG(log,
             "ERROR UpdateForkExtents Unable to update fork extents beyond the first 8 extents.HFSPlus:ERROR: "
             "UpdateForkExtents: Invalid Parameters\n");
  EXPECT_EQ(std::memcmp(&fork_data, &before, sizeof(before)), 0);
}

TEST(UpdateForkExtents, WithoutForkData_IsRefused) {
  const kvfs_allocation_location run = {};
  LogCapture log;
  EXPECT_EQ(UpdateForkExtents(nullptr, &run), kvfs_invalid);
  EXPECT_LOG(log, "ERROR UpdateForkExtents HFSPlus:ERROR: UpdateForkExtents: Invalid Parameters\n");
}

// ---- Growing -------------------------------------------------------------------------------------------------------

TEST(ExpandFork, FreeBlocksBehindItsLastExtent_ExtendIt) {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(describe(added), "start=208 count=4 index=0 bytes=16384 16384");
  // The size in the header is the caller's to set.
  EXPECT_EQ(startup_file(volume), "49152 size=32768 total=12 extents={200+12}");
  const Volume after = volume.flushed();
  EXPECT_EQ(used_behind(after), "200+12");
  EXPECT_EQ(after.get_field("freeBlocks"), image.get_field("freeBlocks") - 4);
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(ExpandFork, UsedBlocksBehindItsLastExtent_FillTheNextOne) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}, .used = {{208, 1}}}));
  kvfs_allocation_location added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(describe(added), "start=216 count=4 index=1 bytes=16384 16384");
  EXPECT_EQ(startup_file(volume), "49152 size=32768 total=12 extents={200+8 216+4}");
  EXPECT_EQ(joined(check_volume(volume.flushed(), kWithLeakedBlocks)), "");
}

TEST(ExpandFork, EmptyFork_GetsItsFirstExtentAtNextAllocation) {
  Volume image = startup_volume({.extents = {}});
  image.set_field("nextAllocation", 640);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(startup_file(volume), "16384 size=0 total=4 extents={640+4}");
  EXPECT_EQ(volume.header()->nextAllocation.get(), 644u);
}

TEST(ExpandFork, TimeAndAgain_UsesTheEightExtentsAndNoMore) {
  std::vector<Extent> used;
  for (std::uint32_t block = 208; block < 1000; block += 16) {
    used.push_back({block, 8});
  }
  OpenVolume volume(startup_volume({.extents = {{200, 8}}, .clump_blocks = 8, .used = used}));
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = kUntouched;
  for (unsigned i = 1; i < 8; ++i) {
    ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
    EXPECT_EQ(added.extent_index, i);
    set_logical_size(volume);
  }
  const std::string full = startup_file(volume);
  EXPECT_EQ(full, "262144 size=262144 total=64 extents={200+8 216+8 232+8 248+8 264+8 280+8 296+8 312+8}");
  EXPECT_EQ(joined(check_volume(volume.flushed(), kWithLeakedBlocks)), "");
  LogCapture log;
  added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_unsupported_extents);
  EXPECT_LOG(log,
             "ERROR UpdateForkExtents Unable to update fork extents beyond the first 8 extents.Error while updating "
             "fork extents.\n");
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(startup_file(volume), full);
  EXPECT_EQ(joined(check_volume(volume.flushed(), kWithLeakedBlocks)), "");
}

const std::vector<Extent> kEightExtents = {{200, 8}, {216, 8}, {232, 8}, {248, 8},
                                           {264, 8}, {280, 8}, {296, 8}, {312, 8}};

TEST(ExpandFork, EightExtentsWithFreeBlocksBehind_ExtendTheLastOne) {
  OpenVolume volume(startup_volume({.extents = kEightExtents}));
  kvfs_allocation_location added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(describe(added), "start=320 count=4 index=7 bytes=16384 16384");
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

TEST(ExpandFork, EverySpecialFileOfTheHeader_CanGrow) {
  for (const SpecialFile file : {SpecialFile::kExtents, SpecialFile::kCatalog, SpecialFile::kAllocation,
                                 SpecialFile::kStartup, SpecialFile::kAttributes}) {
    OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
    kvfs_fork* const fork = volume.fork(file);
    const std::uint64_t size = *fork->logical_size;
    kvfs_allocation_location added = {};
    EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok) << static_cast<std::uint32_t>(file);
    EXPECT_EQ(*fork->logical_size, size + added.block_count * kBlockSize);
    EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), added.block_count), kvfs_ok) << static_cast<std::uint32_t>(file);
    EXPECT_EQ(*fork->logical_size, size);
  }
}

// Opens the startup file's data as the fork of another file.
class ForkOfAnotherFile {
 public:
  ForkOfAnotherFile(OpenVolume& volume, std::uint32_t cnid, std::uint32_t transfer_unit = kBlockSize) {
    EXPECT_EQ(kvfs_fork_create(volume.device(), volume.get()->extents, 0, volume.header(), cnid,
                               &volume.header()->startupFile, transfer_unit, &fork_),
              kvfs_ok);
  }
  ~ForkOfAnotherFile() { kvfs_fork_destroy(&fork_); }
  ForkOfAnotherFile(const ForkOfAnotherFile&) = delete;
  ForkOfAnotherFile& operator=(const ForkOfAnotherFile&) = delete;
  [[nodiscard]] kvfs_fork* get() const { return fork_; }

 private:
  kvfs_fork* fork_ = nullptr;
};

TEST(ExpandFork, OfAnotherFile_IsRefused) {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  for (const std::uint32_t cnid : {2U, 5U, 9U, 16U}) {
    OpenVolume volume(image);
    const ForkOfAnotherFile fork(volume, cnid);
    kvfs_allocation_location added = kUntouched;
    LogCapture log;
    EXPECT_EQ(kvfs_fork_expand(fork.get(), volume.get(), &added), kvfs_internal);
    EXPECT_LOG(log, "ERROR kvfs_fork_expand Invalid CNID for kvfs_fork_expand (" + std::to_string(cnid) +
                        "). We currently only support forks with their fork data in the volume header.\n");
    EXPECT_EQ(describe(added), kUntouchedText);
    EXPECT_EQ(volume.flushed(), image);
  }
}

// X-fork-7
TEST(ExpandFork, OfTheAllocationFileInUse_IsRefused) {
  const Volume image = empty_volume();
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.bitmap()->priv->fork, volume.get(), &added), kvfs_limit);
  EXPECT_LOG(log, "ERROR kvfs_fork_expand The allocation file in use cannot be resized.\n");
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(volume.flushed(), image);
}

// What fails without a look at the bits fails as it does for any other fork.
// X-fork-7
TEST(ExpandFork, OfTheAllocationFileInUseWithoutAFreeRun_IsAnInternalError) {
  Volume image = empty_volume();
  for (std::uint32_t block = 0; block < kBlocks; ++block) {
    image.set_block_used(block, true);
  }
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.bitmap()->priv->fork, volume.get(), &added), kvfs_internal);
  EXPECT_TRUE(log.matches(no_run_messages()));
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(volume.flushed(), image);
}

// Takes the allocation file from a volume, as one that was opened for reading its catalog alone has none.
class WithoutAllocationFile {
 public:
  explicit WithoutAllocationFile(OpenVolume& volume) : volume_(volume.get()), bitmap_(volume_->bitmap) {
    volume_->bitmap = nullptr;
  }
  ~WithoutAllocationFile() { volume_->bitmap = bitmap_; }
  WithoutAllocationFile(const WithoutAllocationFile&) = delete;
  WithoutAllocationFile& operator=(const WithoutAllocationFile&) = delete;

 private:
  kvfs_volume* volume_;
  kvfs_bitmap* bitmap_;
};

// X-bitmap-1
TEST(ExpandFork, WithoutTheAllocationFile_IsRefused) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  const WithoutAllocationFile without(volume);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_invalid);
  EXPECT_LOG(log, "ERROR FindContiguousUnallocated The volume was opened without its allocation file.\n",
             "ERROR FindWriteLocation Error while searching the bitmap for a free region of 4.\n", kExpandSearch);
  EXPECT_EQ(describe(added), kUntouchedText);
}

// A fork in ten extents, the last two of them in the overflow file.
Volume volume_with_overflow_extents() {
  VolumeDescription description;
  description.size = std::uint64_t{kBlockSize} * kBlocks;
  description.catalog.extent_count = 10;
  return build_volume(description);
}

// The search begins where the logical size ends. A run for that place would be entered over the second extent, whose
// blocks would be lost.
// X-fork-8
TEST(ExpandFork, WhoseSizeEndsBeforeItsLastExtent_IsRefused) {
  for (const std::vector<Extent>& used : {std::vector<Extent>{}, std::vector<Extent>{{208, 8}}}) {
    const Volume image = startup_volume({.extents = {{200, 8}, {304, 8}}, .used = used, .logical_blocks = 5});
    OpenVolume volume(image);
    kvfs_allocation_location added = kUntouched;
    LogCapture log;
    EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_inconsistent);
    EXPECT_LOG(log, "ERROR kvfs_fork_expand The logical size of the fork ends before its last extent.\n");
    EXPECT_EQ(describe(added), kUntouchedText);
    EXPECT_EQ(volume.flushed(), image);
  }
}

// The size reaches the ninth of ten extents: the place behind that one is beyond the eight that can change.
// X-fork-8
TEST(ExpandFork, WhoseSizeEndsBeforeItsLastOverflowExtent_IsRefusedForItsExtents) {
  Volume image = volume_with_overflow_extents();
  const std::uint64_t blocks = image.get_field("catalogFile.totalBlocks");
  const std::uint64_t last = image.fork(SpecialFile::kCatalog).extents().back().block_count;
  image.set_field("catalogFile.logicalSize", (blocks - last) * kBlockSize - 1);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.catalog_fork(), volume.get(), &added), kvfs_unsupported_extents);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(volume.flushed(), image);
}

// X-fork-8
TEST(ExpandFork, WhoseSizeEndsBeforeItsLastExtentAndCannotGrow_ReachesThatLimitFirst) {
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{200, 8}, {304, 0xFFFFFFF4}}, .logical_blocks = 5}, 0xFFFFFFFC);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_limit);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_expand Cannot expand fork beyond 2^32 blocks (attempted to expand fork to 4294967296 "
             "blocks).\n");
}

// A clump of no bytes behind an extent that the volume does not hold: the search begins elsewhere, and so the run of no
// blocks is for the next extent.
// X-fork-8
TEST(ExpandFork, ByNothingWhoseSizeEndsBeforeItsLastExtent_IsRefused) {
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{5000, 8}, {304, 8}}, .clump_blocks = 0, .logical_blocks = 5}, 16);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_expand The logical size of the fork ends before its last extent.\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandFork, WhoseSizeEndsInItsLastExtent_GoesOnBehindThatExtent) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}, {304, 8}}, .logical_blocks = 13}));
  kvfs_allocation_location added = kUntouched;
  ASSERT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(describe(added), "start=312 count=4 index=1 bytes=16384 16384");
}

// Nothing has no place among the bits, and what was entered for it is taken back.
// X-fork-8
TEST(ExpandFork, WithoutAFreeRun_IsAnInternalErrorAndChangesNothing) {
  for (const std::uint64_t logical_blocks : {0U, 5U}) {  // all, and so few that the run is for an extent in use
    Volume image = startup_volume({.extents = {{200, 8}, {304, 8}}, .logical_blocks = logical_blocks});
    for (std::uint32_t block = 0; block < kBlocks; ++block) {
      image.set_block_used(block, true);
    }
    OpenVolume volume(image);
    kvfs_allocation_location added = kUntouched;
    LogCapture log;
    EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_internal);
    EXPECT_TRUE(log.matches(no_run_messages()));
    EXPECT_EQ(describe(added), kUntouchedText);
    EXPECT_EQ(volume.flushed(), image);
  }
}

// A run that begins at block 0, which a damaged allocation file calls free, is one nevertheless.
TEST(ExpandFork, BlocksFromTheFirstOnAlone_AreARun) {
  Volume image = startup_volume({});
  for (std::uint32_t block = 0; block < kBlocks; ++block) {
    image.set_block_used(block, block >= 8);
  }
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(added.start_block, 0u);
  EXPECT_EQ(added.block_count, 4u);
}

// Q-fork-12
TEST(ExpandFork, WithEightExtentsAndNoFreeRun_IsRefusedForItsExtents) {
  Volume image = startup_volume({.extents = kEightExtents});
  for (std::uint32_t block = 0; block < kBlocks; ++block) {
    image.set_block_used(block, true);
  }
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_unsupported_extents);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandFork, InconsistentExtents_AreReportedByTheSearch) {
  Volume image = startup_volume({.extents = {{200, 8}}});
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  volume.header()->startupFile.totalBlocks.set(20);
  LogCapture log;
  kvfs_allocation_location added = kUntouched;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_inconsistent);
  EXPECT_LOG(log,
             "ERROR FindWriteLocation List of extents ends before all blocks have been accounted for. Missing 12 "
             "blocks.\n",
             "ERROR kvfs_fork_expand Error while searching for write location for expanded fork.\n");
}

// The blocks of its last extent are marked free: the search takes the rest of their byte and does not look at the end
// of the run, where a block is in use.
StartupShape run_with_used_block() {
  return {.extents = {{200, 3}}, .clump_blocks = 8, .used = {{210, 1}}};
}

Volume volume_with_unmarked_extent() {
  Volume image = startup_volume(run_with_used_block());
  for (std::uint32_t block = 200; block < 203; ++block) {
    image.set_block_used(block, false);
  }
  return image;
}

TEST(ExpandFork, RunThatCannotBeMarked_GivesTheForkDataBack) {
  const Volume image = volume_with_unmarked_extent();
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_failed);
  EXPECT_LOG(log, "ERROR AllocateExtentAllocationBlocks Block 210 is already allocated.\n",
             "ERROR kvfs_fork_expand Error while marking 8 blocks starting at block 203 as allocated in the allocation "
             "file.\n");
  EXPECT_EQ(describe(added), kUntouchedText);
  EXPECT_EQ(startup_file(volume), "12288 size=12288 total=3 extents={200+3}");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandFork, ToMoreThan32BitsOfBlocks_ReachesALimit) {
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{200, 0xFFFFFFFC}}, .logical_blocks = 1}, 0xFFFFFFFC);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_limit);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_expand Cannot expand fork beyond 2^32 blocks (attempted to expand fork to 4294967296 "
             "blocks).\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandFork, ToOneBlockBelow32Bits_IsAllowed) {
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{200, 0xFFFFFFFB}}, .logical_blocks = 1}, 0xFFFFFFFB);
  OpenVolume volume(image);
  FaultInjector faults;
  faults.refuse_allocations_above(16777216);  // the items of 2^44 bytes need eight times as much
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_no_memory);
  EXPECT_LOG(log, "ERROR kvfs_fork_expand Error while allocating new items array.\n");
}

TEST(ExpandFork, WithMoreItemsThanItsNewSize_IsAnInternalError) {
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{200, 8}}, .logical_blocks = 768}, 8);
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_expand Internal error: New items array is smaller than old items array.\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandFork, ToMoreItemsThanAnArrayHolds_IsAnInternalError) {
  constexpr std::uint32_t kHugeBlock = 16777216;
  Volume image = empty_volume();
  set_startup_file(image, {.extents = {{200, 0x10000000}}, .logical_blocks = 1}, 0x10000000);
  image.set_field("startupFile.clumpSize", kHugeBlock);
  // The allocation file has to offer that many blocks of the volume in one run.
  image.write_fork(SpecialFile::kAllocation, 0, Bytes(kBlocks / 8));
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  fork->block_size = kHugeBlock;
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_internal);
  const std::uint64_t size = (0x10000001ULL * kHugeBlock / kMiB) * sizeof(void*);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_expand size_t overflow in new_items_size (" + std::to_string(size) + ").\n");
}

// ---- What a grown fork holds ---------------------------------------------------------------------------------------

// A startup file one block short of a MiB whose every byte is its block's number, and the same behind it.
Volume numbered_volume() {
  Volume image = startup_volume({.extents = {{256, 255}}, .clump_blocks = 8, .used = {{511, 1}}});
  for (std::uint32_t block = 256; block < 1024; ++block) {
    image.fill(std::uint64_t{block} * kBlockSize, kBlockSize, static_cast<std::uint8_t>(block));
  }
  return image;
}

std::uint8_t byte_at(kvfs_fork* fork, std::uint64_t offset) {
  std::uint8_t byte = 0xEE;
  EXPECT_EQ(kvfs_fork_read(fork, offset, &byte, 1, nullptr), kvfs_ok);
  return byte;
}

// X-fork-10
TEST(ExpandFork, IntoAnotherCacheItem_KeepsMappingsAndModifiedBlocks) {
  OpenVolume volume(numbered_volume());
  kvfs_fork* const fork = volume.fork(kStartup);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork, 0, &pointer, kBlockSize, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_write(fork, 5, "abc", 3, nullptr), kvfs_ok);
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  EXPECT_EQ(fork->priv->items_length, 2u);
  EXPECT_EQ(fork->priv->items[1], nullptr);
  EXPECT_EQ(std::memcmp(static_cast<char*>(pointer) + 5, "abc", 3), 0);
  EXPECT_EQ(kvfs_fork_unmap(fork, 0, &pointer, kBlockSize), kvfs_ok);
  set_logical_size(volume);
  ASSERT_EQ(kvfs_fork_flush(fork), kvfs_ok);
  EXPECT_EQ(volume.contents().read(256 * kBlockSize + 5, 3), (Bytes{'a', 'b', 'c'}));
}

TEST(ExpandFork, OnceItsSizeIsInTheHeader_ReadsAndWritesTheNewBlocks) {
  OpenVolume volume(numbered_volume());
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  ASSERT_EQ(describe(added), "start=512 count=8 index=1 bytes=32768 32768");
  set_logical_size(volume);
  EXPECT_EQ(byte_at(fork, 254 * kBlockSize), 510 % 256);
  for (std::uint32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(byte_at(fork, (255 + i) * kBlockSize), (512 + i) % 256);
  }
  ASSERT_EQ(kvfs_fork_fill(fork, 255 * kBlockSize, 8 * kBlockSize, 0x5A, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_flush(fork), kvfs_ok);
  const Volume after = volume.contents();
  EXPECT_EQ(after.read(512 * kBlockSize, 8 * kBlockSize), Bytes(8 * kBlockSize, 0x5A));
  EXPECT_EQ(after.get8(511 * kBlockSize), 511 % 256);
  EXPECT_EQ(after.get8(520 * kBlockSize), 520 % 256);
}

// Q-fork-11
TEST(ExpandFork, WhileTheHeaderHasItsOldSize_CannotReadTheNewBlocks) {
  OpenVolume volume(numbered_volume());
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  std::uint8_t byte = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_read(fork, 255 * kBlockSize, &byte, 1, nullptr), kvfs_invalid);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_do_device_io",
                      "Invalid parameter 'io_offset': Offset (1044480) is beyond the end of the file.\n"));
}

// The clump is rounded up to whole blocks for the search and down for the fork's own size.
TEST(ExpandFork, ClumpOfNoWholeBlocks_AddsMoreBlocksThanBytes) {
  Volume image = startup_volume({.extents = {{200, 8}}});
  image.set_field("startupFile.clumpSize", 2 * kBlockSize + 1);
  OpenVolume volume(image);
  kvfs_allocation_location added = {};
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_EQ(describe(added), "start=208 count=3 index=0 bytes=8193 8193");
  EXPECT_EQ(startup_file(volume), "40960 size=32768 total=11 extents={200+11}");
}

// Q-bitmap-10
TEST(ExpandFork, ByAClumpOfNoBytes_AddsNothing) {
  const Volume image = startup_volume({.extents = {{200, 8}}, .clump_blocks = 0});
  OpenVolume volume(image);
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(describe(added), "start=208 count=0 index=0 bytes=0 0");
  EXPECT_EQ(volume.flushed(), image);
}

// X-fork-14
TEST(ExpandFork, WithoutABlockSize_IsInconsistent) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  fork->block_size = 0;
  kvfs_allocation_location added = kUntouched;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_fork_expand Cannot expand fork by blocks of 0 bytes.\n");
  EXPECT_EQ(describe(added), kUntouchedText);
}

// ---- Growing with failing calls ------------------------------------------------------------------------------------

const std::string kExpandLock = "ERROR kvfs_fork_expand Error while locking items lock.\n";
const std::string kExpandUnlock = "CRITICAL kvfs_fork_expand Unexpected - Error while unlocking items lock!\n";
const std::string kExpandMark =
    "ERROR kvfs_fork_expand Error while marking 4 blocks starting at block 208 as allocated in the allocation file.\n";

// With everything as it was after each failure.
FaultScenario expand_scenario() {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  FaultScenario scenario = {image, {}, {}, {}};
  scenario.prepare = [](OpenVolume& volume) { (void)volume.fork(kStartup); };
  scenario.operation = [](OpenVolume& volume) {
    kvfs_allocation_location added = kUntouched;
    const kvfs_result result = kvfs_fork_expand(volume.fork(kStartup), volume.get(), &added);
    EXPECT_EQ(describe(added), result == kvfs_ok ? "start=208 count=4 index=0 bytes=16384 16384" : kUntouchedText);
    return result;
  };
  scenario.check = [image](OpenVolume& volume) {
    EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
    EXPECT_EQ(volume.flushed(), image);
  };
  return scenario;
}

// X-fork-12
TEST(ExpandFork, WithoutMemory_LeavesEverythingAsItWas) {
  EXPECT_EQ(summary(fail_each(each_allocation(), expand_scenario()), {"kvfs_fork_expand"}),
            (Lines{"2: " + kExpandSearch, "2: ERROR kvfs_fork_expand Error while allocating new items array.\n",
                   "2: ERROR kvfs_fork_expand Error while allocating 64 bytes for the new extents.\n"}));
}

TEST(ExpandFork, WhenTheDeviceFails_LeavesEverythingAsItWas) {
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), expand_scenario()), {"kvfs_fork_expand"}),
            Lines{"4: " + kExpandSearch});
}

// Of the locks of the marking only the last one, for giving its mapping back, comes too late: the blocks are marked
// then although the fork data is that of before.
TEST(ExpandFork, WhenALockIsNotGranted_GivesTheForkDataBack) {
  FaultScenario scenario = expand_scenario();
  const std::function<void(OpenVolume&)> is_undone = scenario.check;
  std::string last_used;
  scenario.check = [is_undone, &last_used](OpenVolume& volume) {
    EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
    last_used = used_behind(volume.flushed());
    if (last_used == "200+8") {
      is_undone(volume);
    }
  };
  const Lines own = {"kvfs_fork_expand"};
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockWrlock), scenario), own),
            (Lines{"1: " + kExpandSearch, "1: " + kExpandLock, "1: " + kExpandMark}));
  EXPECT_EQ(last_used, "200+12");
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockRdlock), scenario), own),
            (Lines{"1: " + kExpandSearch, "1: " + kExpandMark}));
  EXPECT_EQ(last_used, "200+12");
}

TEST(ExpandFork, WhenItsLockIsNotReleased_HasGrownAllTheSame) {
  FaultScenario scenario = expand_scenario();
  std::string last;
  scenario.check = [&last](OpenVolume& volume) { last = startup_file(volume); };
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), scenario), {"kvfs_fork_expand"}),
            (Lines{"1: " + kExpandSearch, "1: " + kExpandMark, "1: " + kExpandUnlock}));
  EXPECT_EQ(last, "49152 size=32768 total=12 extents={200+12}");
}

TEST(ExpandFork, FailureWithAnUnlockFailure_KeepsTheFirstResult) {
  OpenVolume volume(volume_with_unmarked_extent());
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = kUntouched;
  {
    FaultInjector faults;
    LogCapture log;
    faults.refuse_allocations_above(60);  // the extents, which are not the first allocation
    EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_no_memory);
  }
  ASSERT_EQ(FindContiguousUnallocated(volume.get(), 1, 300, &added), kvfs_ok);
  FaultInjector faults;
  faults.refuse_allocations_above(60);
  // Fill and map, unmap of item and items, then items_lock.
  faults.fail(Call::kRwlockUnlock, 5);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_no_memory);
  EXPECT_LOG(log, "ERROR kvfs_fork_expand Error while allocating 64 bytes for the new extents.\n",
             "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n", kExpandUnlock);
}

TEST(ExpandFork, AfterAFailure_SucceedsAtTheNextTry) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = {};
  {
    LogCapture silence;
    FaultInjector faults;
    faults.fail_allocations_from(1);
    ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_no_memory);
  }
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

// ---- Shrinking -----------------------------------------------------------------------------------------------------

const std::string kShrinkFlush = "ERROR kvfs_fork_shrink Error while flushing trailing part of fork.\n";

// Shrinks a startup file and tells what it has become.
std::string shrunk(const std::vector<Extent>& extents, std::uint32_t blocks) {
  OpenVolume volume(startup_volume({.extents = extents}));
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.fork(kStartup), volume.get(), blocks), kvfs_ok);
  EXPECT_LOG(log);
  return startup_file(volume);
}

// X-fork-9
TEST(ShrinkFork, ByTheBlocksOfItsLastExtent_ClearsThatDescriptor) {
  EXPECT_EQ(shrunk({{200, 8}, {300, 4}}, 4), "32768 size=32768 total=8 extents={200+8}");
}

TEST(ShrinkFork, ByAPartOfItsLastExtent_CutsIt) {
  EXPECT_EQ(shrunk({{200, 8}, {300, 4}}, 1), "45056 size=45056 total=11 extents={200+8 300+3}");
}

TEST(ShrinkFork, ByMoreThanItsLastExtent_CutsTheOneBefore) {
  EXPECT_EQ(shrunk({{200, 8}, {300, 4}, {400, 4}}, 10), "24576 size=24576 total=6 extents={200+6}");
}

TEST(ShrinkFork, ByAllItsBlocks_LeavesNothing) {
  EXPECT_EQ(shrunk({{200, 8}, {300, 4}}, 12), "0 size=0 total=0 extents={}");
}

TEST(ShrinkFork, ByNothing_ChangesNothing) {
  EXPECT_EQ(shrunk({{200, 8}, {300, 4}}, 0), "49152 size=49152 total=12 extents={200+8 300+4}");
}

// Each freed block's byte goes to the first byte of the allocation file: the blocks stay marked as used, blocks 0 to 7
// look like the last ones freed, and none is counted as free.
TEST(ShrinkFork, FreesBlocksAsFreeingABlockDoes) {
  const Volume image = startup_volume({.extents = {{200, 8}, {300, 4}}});
  OpenVolume volume(image);
  ASSERT_EQ(kvfs_fork_shrink(volume.fork(kStartup), volume.get(), 4), kvfs_ok);
  const Volume after = volume.flushed();
  EXPECT_EQ(used_behind(after), "200+8 300+4");
  // Blocks 300 to 303 are the second half of their byte, 303 the last of it.
  EXPECT_EQ(after.read_fork(SpecialFile::kAllocation, 0, 1)[0], 0x0E);
  EXPECT_EQ(after.get_field("freeBlocks"), image.get_field("freeBlocks"));
}

// X-fork-9
TEST(ShrinkFork, ByMoreBlocksThanItHas_IsAnInternalError) {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.fork(kStartup), volume.get(), 9), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_shrink Internal error: New items array is larger than old items array.\n");
  EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ShrinkFork, ToMoreItemsThanItHas_IsAnInternalError) {
  const Volume image = startup_volume({.extents = {{200, 768}}, .logical_blocks = 8});
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.fork(kStartup), volume.get(), 1), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_shrink Internal error: New items array is larger than old items array.\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ShrinkFork, OfAnotherFile_IsRefused) {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  OpenVolume volume(image);
  const ForkOfAnotherFile fork(volume, 2);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_internal);
  EXPECT_LOG(log,
             "ERROR kvfs_fork_shrink Invalid CNID for kvfs_fork_shrink (2). We currently only support forks with their "
             "fork data in the volume header.\n");
  EXPECT_EQ(volume.flushed(), image);
}

// X-fork-7
TEST(ShrinkFork, OfTheAllocationFileInUse_IsRefused) {
  const Volume image = empty_volume();
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.bitmap()->priv->fork, volume.get(), 1), kvfs_limit);
  EXPECT_EQ(kvfs_fork_shrink(volume.bitmap()->priv->fork, volume.get(), 0), kvfs_ok);
  EXPECT_LOG(log, "ERROR kvfs_fork_shrink The allocation file in use cannot be resized.\n");
  EXPECT_EQ(volume.flushed(), image);
}

// X-fork-7
TEST(ShrinkFork, OfTheAllocationFileInUseByMoreBlocksThanItHas_IsAnInternalError) {
  OpenVolume volume(empty_volume());
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.bitmap()->priv->fork, volume.get(), 1000), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_fork_shrink Internal error: New items array is larger than old items array.\n");
}

// X-bitmap-1
TEST(ShrinkFork, WithoutTheAllocationFile_IsRefused) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  const WithoutAllocationFile without(volume);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_invalid);
  EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 0), kvfs_ok);
  EXPECT_LOG(log, "ERROR kvfs_fork_shrink The volume was opened without its allocation file.\n");
}

// X-fork-10
TEST(ShrinkFork, WithModifiedBlocks_WritesThoseThatAreCutOff) {
  const Volume image = startup_volume({.extents = {{200, 8}}});
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_write(fork, 1 * kBlockSize, "keep", 4, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_write(fork, 6 * kBlockSize, "gone", 4, nullptr), kvfs_ok);
  FaultInjector faults;
  LogCapture log;
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 3), kvfs_ok);
  EXPECT_LOG(log);
  ASSERT_EQ(faults.writes().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, 206u * kBlockSize);
  ASSERT_EQ(kvfs_fork_flush(fork), kvfs_ok);
  ASSERT_EQ(faults.writes().size(), 2u);
  EXPECT_EQ(faults.writes()[1].offset, 201u * kBlockSize);
  EXPECT_LOG(log);
}

// What a shrink with a modified block says whose part to write is refused for a reason.
Lines flush_refused(const std::string& reason) {
  return {"ERROR kvfs_fork_do_device_io Invalid parameter " + reason + " the end of the file.\n",
          "ERROR kvfs_fork_flush_internal Error while writing fork to disk.\n", kShrinkFlush};
}

// The part that is cut off begins where the fork ends, and none is not asked for.
// X-fork-10
TEST(ShrinkFork, ByNothingWithModifiedBlocks_CannotFlush) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_write(fork, 0, "keep", 4, nullptr), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 0), kvfs_invalid);
  EXPECT_TRUE(log.matches(flush_refused("'io_offset': Offset (32768) is beyond")));
  EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
}

// The part that is cut off ends with the last block, behind the logical size.
// X-fork-10
TEST(ShrinkFork, WhoseSizeEndsWithinItsLastBlock_CannotFlushModifiedBlocks) {
  Volume image = startup_volume({.extents = {{200, 8}}});
  image.set_field("startupFile.logicalSize", 8 * kBlockSize - 1);
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_write(fork, 0, "keep", 4, nullptr), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_invalid);
  EXPECT_TRUE(log.matches(flush_refused("'io_length': Length (4096) extends beyond")));
  ASSERT_EQ(kvfs_fork_flush(fork), kvfs_ok);
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_ok);
  EXPECT_EQ(startup_file(volume), "28672 size=28672 total=7 extents={200+7}");
}

// Q-fork-13
TEST(ShrinkFork, WithItemsBehindItsNewEnd_KeepsTheirMappingsUntilItIsDestroyed) {
  OpenVolume volume(startup_volume({.extents = {{256, 768}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  void* pointer = nullptr;
  ASSERT_EQ(kvfs_fork_map(fork, 2 * kMiB, &pointer, kBlockSize, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_write(fork, 2 * kMiB + 5, "abc", 3, nullptr), kvfs_ok);
  ASSERT_EQ(byte_at(fork, 0), 0);
  {
    LogCapture log;
    ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 512), kvfs_ok);
    EXPECT_LOG(log);
  }
  EXPECT_EQ(fork->priv->items_length, 1u);
  EXPECT_EQ(fork->priv->items_end, 1u);
  EXPECT_NE(fork->priv->items[0], nullptr);
  EXPECT_EQ(std::memcmp(static_cast<char*>(pointer) + 5, "abc", 3), 0);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_unmap(fork, 2 * kMiB, &pointer, kBlockSize), kvfs_invalid);
  volume.close();
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_unmap Attempted to unmap region outside allocated fork size! Offset: 2097152, Length: "
             "4096, fork data size: 1048576\n",
             "WARNING kvfs_fork_cache_item_destroy Destroying cache item {*} with 1 remaining references.\n");
}

TEST(ShrinkFork, BehindItsNewEnd_RefusesAccess) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_ok);
  EXPECT_EQ(byte_at(fork, 7 * kBlockSize - 1), 0);
  std::uint8_t byte = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_fork_read(fork, 7 * kBlockSize, &byte, 1, nullptr), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_read Attempted to read outside allocated fork size! Offset: 28672, Length: 1, fork "
             "data size: 28672\n");
}

TEST(ShrinkFork, AtABlockThatIsFreeAlready_GivesTheForkDataBack) {
  Volume image = startup_volume({.extents = {{200, 8}}});
  image.set_block_used(206, false);
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(volume.fork(kStartup), volume.get(), 3), kvfs_failed);
  EXPECT_LOG(log, "ERROR FreeExtentAllocationBlocks Error while freeing allocation block 206.\n",
             "ERROR kvfs_fork_shrink Error while freeing 3 blocks in fork starting at block 5.\n");
  EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
}

// Q-fork-12
TEST(ShrinkFork, ByBlocksOfOverflowExtents_CannotFreeThem) {
  const Volume image = volume_with_overflow_extents();
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.catalog_fork();
  const std::string before = describe(volume.header()->catalogFile);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_internal);
  EXPECT_LOG(log, "ERROR kvfs_fork_shrink Unable to free all allocated blocks. Freed 0 / 1 blocks.\n");
  EXPECT_EQ(describe(volume.header()->catalogFile), before);
  EXPECT_EQ(volume.flushed(), image);
}

// X-fork-12
TEST(ShrinkFork, ByNothingWithOverflowExtents_KeepsThemAll) {
  OpenVolume volume(volume_with_overflow_extents());
  kvfs_fork* const fork = volume.catalog_fork();
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 0), kvfs_ok);
  LogCapture log;
  std::uint8_t byte = 0;
  EXPECT_EQ(kvfs_fork_read(fork, *fork->logical_size - 1, &byte, 1, nullptr), kvfs_ok);
  EXPECT_LOG(log);
}

// ---- Shrinking with failing calls ----------------------------------------------------------------------------------

const std::string kShrinkLock = "ERROR kvfs_fork_shrink Error while locking items lock.\n";
const std::string kShrinkUnlock = "CRITICAL kvfs_fork_shrink Unexpected - Error while unlocking items lock!\n";
const std::string kShrinkFree = "ERROR kvfs_fork_shrink Error while freeing 2 blocks in fork starting at block 6.\n";

// A shrink with a modified block in the part that goes. After each failure the fork is what it was.
FaultScenario shrink_scenario() {
  FaultScenario scenario = {startup_volume({.extents = {{200, 8}}}), {}, {}, {}};
  scenario.prepare = [](OpenVolume& volume) {
    EXPECT_EQ(kvfs_fork_write(volume.fork(kStartup), 7 * kBlockSize, "gone", 4, nullptr), kvfs_ok);
  };
  scenario.operation = [](OpenVolume& volume) { return kvfs_fork_shrink(volume.fork(kStartup), volume.get(), 2); };
  scenario.check = [](OpenVolume& volume) {
    EXPECT_EQ(startup_file(volume), "32768 size=32768 total=8 extents={200+8}");
    EXPECT_EQ(byte_at(volume.fork(kStartup), 7 * kBlockSize), 'g');
  };
  return scenario;
}

TEST(ShrinkFork, WithoutMemory_LeavesTheForkAsItWas) {
  EXPECT_EQ(
      summary(fail_each(each_allocation(), shrink_scenario()), {"kvfs_fork_shrink"}),
      (Lines{"2: ERROR kvfs_fork_shrink Error while allocating new items array.\n",
             "2: ERROR kvfs_fork_shrink Error while allocating 64 bytes for the new extents.\n", "2: " + kShrinkFree}));
}

TEST(ShrinkFork, WhenTheDeviceFails_LeavesTheForkAsItWas) {
  EXPECT_EQ(summary(fail_each(each(Call::kPwrite64), shrink_scenario()), {"kvfs_fork_shrink"}),
            Lines{"4: " + kShrinkFlush});
  EXPECT_EQ(summary(fail_each(each(Call::kPread64), shrink_scenario()), {"kvfs_fork_shrink"}),
            Lines{"4: " + kShrinkFree});
}

TEST(ShrinkFork, WhenALockIsNotGranted_LeavesTheForkAsItWas) {
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockWrlock), shrink_scenario()), {"kvfs_fork_shrink"}),
            (Lines{"1: " + kShrinkLock, "1: " + kShrinkFlush, "1: " + kShrinkFree}));
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockRdlock), shrink_scenario()), {"kvfs_fork_shrink"}),
            Lines{"1: " + kShrinkFree});
}

TEST(ShrinkFork, WhenItsLockIsNotReleased_HasShrunkAllTheSame) {
  FaultScenario scenario = shrink_scenario();
  std::string last;
  scenario.check = [&last](OpenVolume& volume) { last = startup_file(volume); };
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), scenario), {"kvfs_fork_shrink"}),
            (Lines{"1: " + kShrinkFlush, "1: " + kShrinkFree, "1: " + kShrinkUnlock}));
  EXPECT_EQ(last, "24576 size=24576 total=6 extents={200+6}");
}

// ---- Growing and shrinking in turns --------------------------------------------------------------------------------

// X-fork-11
TEST(ResizeFork, ExpandedAndShrunkAgain_HasItsOldSizeAndContents) {
  OpenVolume volume(numbered_volume());
  kvfs_fork* const fork = volume.fork(kStartup);
  const std::string before = startup_file(volume);
  kvfs_allocation_location added = {};
  for (unsigned round = 0; round < 3; ++round) {
    ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
    set_logical_size(volume);
    ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), added.block_count), kvfs_ok);
    EXPECT_EQ(startup_file(volume), before);
    EXPECT_EQ(fork->priv->items_length, 1u);
    EXPECT_EQ(byte_at(fork, 254 * kBlockSize), 510 % 256);
  }
}

// The bits of what was cut off stay set, so that the next expansion goes elsewhere.
// X-fork-11
TEST(ResizeFork, ExpandedAfterAShrink_GetsOtherBlocks) {
  OpenVolume volume(startup_volume({.extents = {{200, 16}}, .clump_blocks = 8}));
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 8), kvfs_ok);
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  EXPECT_EQ(startup_file(volume), "65536 size=32768 total=16 extents={200+8 216+8}");
}

// A startup file that grows by a block and has its first extent at block 200. Each byte is its block's number.
Volume volume_to_grow(std::uint32_t blocks) {
  Volume image = startup_volume({.extents = {{200, blocks}}, .clump_blocks = 1});
  for (std::uint32_t block = 200; block < 220; ++block) {
    image.fill(std::uint64_t{block} * kBlockSize, kBlockSize, static_cast<std::uint8_t>(block));
  }
  return image;
}

// Grows the fork by a block, for which block 208 is the first one that is free.
void expand_by_block_208(kvfs_fork* fork, OpenVolume& volume) {
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  EXPECT_EQ(added.start_block, 208u);
  EXPECT_EQ(added.block_count, 1u);
  set_logical_size(volume, fork);
}

// X-fork-11, X-fork-12
TEST(ResizeFork, ExpandedAfterAShrink_ReadsWhatItsNewBlockHolds) {
  OpenVolume volume(volume_to_grow(8));
  kvfs_fork* const fork = volume.fork(kStartup);
  EXPECT_EQ(byte_at(fork, 6 * kBlockSize), 206);
  EXPECT_EQ(byte_at(fork, 7 * kBlockSize), 207);
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_ok);
  expand_by_block_208(fork, volume);
  FaultInjector faults;
  EXPECT_EQ(byte_at(fork, 6 * kBlockSize), 206);
  EXPECT_EQ(faults.reads().size(), 0u);
  EXPECT_EQ(byte_at(fork, 7 * kBlockSize), 208);
}

// Whoever remembers something of the bytes that were cut off has to look again.
TEST(ShrinkFork, WithItsLastBlocksInTheCache_SaysThatTheyChange) {
  OpenVolume volume(volume_to_grow(8));
  kvfs_fork* const fork = volume.fork(kStartup);
  EXPECT_EQ(byte_at(fork, 7 * kBlockSize), 207);
  fork->priv->has_changed = 0;
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_ok);
  EXPECT_NE(fork->priv->has_changed, 0);
}

// X-fork-11
TEST(ResizeFork, ExpandedAfterAShrinkOfAModifiedBlock_HasNothingOfItLeft) {
  OpenVolume volume(volume_to_grow(8));
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_write(fork, 7 * kBlockSize, "gone", 4, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_shrink(fork, volume.get(), 1), kvfs_ok);
  expand_by_block_208(fork, volume);
  EXPECT_EQ(byte_at(fork, 7 * kBlockSize), 208);
  ASSERT_EQ(kvfs_fork_flush(fork), kvfs_ok);
  EXPECT_EQ(volume.contents().get8(207 * kBlockSize), 'g');
  EXPECT_EQ(volume.contents().get8(208 * kBlockSize), 208);
}

// The last block of the cache lies half behind the end and stays modified after its flush. Cut off whole, it must not
// be written to the blocks that come there next.
// X-fork-11
TEST(ResizeFork, ExpandedAfterAShrinkOfAModifiedBlockAcrossItsEnd_HasNothingOfItLeft) {
  OpenVolume volume(volume_to_grow(7));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  ASSERT_EQ(kvfs_fork_write(fork.get(), 6 * kBlockSize, "gone", 4, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  EXPECT_EQ(fork.get()->priv->dirty_items, 0u);
  EXPECT_EQ(fork.get()->priv->items[0]->dirty_blocks, 0u);
  expand_by_block_208(fork.get(), volume);
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(faults.writes().size(), 0u);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 208);
  EXPECT_LOG(log);
}

// Bits of the bitmaps that belong to no block, or bytes behind them, are not touched.
// X-fork-11
TEST(ResizeFork, ShrunkInsideAnItemOfFewBlocks_ForgetsNoMoreThanItsBlocks) {
  constexpr std::uint32_t kBlocksPerItem = 4;
  OpenVolume volume(volume_to_grow(8));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, kForkItemSize / kBlocksPerItem);
  EXPECT_EQ(byte_at(fork.get(), 0), 200);
  kvfs_fork_cache_item* const item = fork.get()->priv->items[0];
  item->valid_bitmap[0] = 0xFF;
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  EXPECT_EQ(item->valid_bitmap[0], 0xF0);
}

// A flush forgets the count of items with such a block, so that there is none to take this one off.
// X-fork-11
TEST(ResizeFork, ShrunkByAFlushedBlockAcrossItsEnd_CountsNoItemTwice) {
  OpenVolume volume(volume_to_grow(7));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  ASSERT_EQ(kvfs_fork_write(fork.get(), 6 * kBlockSize, "gone", 4, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_EQ(fork.get()->priv->items[0]->dirty_blocks, 1u);
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  EXPECT_EQ(fork.get()->priv->items[0]->dirty_blocks, 0u);
  EXPECT_EQ(fork.get()->priv->dirty_items, 0u);
}

// X-fork-11
TEST(ResizeFork, ShrunkInsideABlockOfTheCache_ReadsThatBlockAgain) {
  OpenVolume volume(volume_to_grow(8));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 207);
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  expand_by_block_208(fork.get(), volume);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 206);
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 208);
}

// A block that was read once is not read again, and so has zeros where the fork ended then.
// X-fork-11
TEST(ResizeFork, ShrunkAndReadInsideABlockOfTheCache_HasZerosBehindItsEnd) {
  OpenVolume volume(volume_to_grow(8));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 207);
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 206);
  expand_by_block_208(fork.get(), volume);
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 0);
}

// What was written before the new end is not on the device yet, so that the block cannot be read again; behind the end
// it has zeros then.
// X-fork-11
TEST(ResizeFork, ShrunkInsideAModifiedBlockOfTheCache_KeepsWhatIsBeforeItsEnd) {
  OpenVolume volume(volume_to_grow(8));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  ASSERT_EQ(kvfs_fork_write(fork.get(), 6 * kBlockSize, "keep", 4, nullptr), kvfs_ok);
  ASSERT_EQ(kvfs_fork_shrink(fork.get(), volume.get(), 1), kvfs_ok);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 'k');
  expand_by_block_208(fork.get(), volume);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 'k');
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 0);
  LogCapture log;
  ASSERT_EQ(kvfs_fork_flush(fork.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.contents().read(206 * kBlockSize, 4), (Bytes{'k', 'e', 'e', 'p'}));
  EXPECT_EQ(volume.contents().get8(207 * kBlockSize), 207);
}

// X-fork-11
TEST(ResizeFork, ExpandedInsideABlockOfTheCache_KeepsThatBlockAsItIs) {
  OpenVolume volume(volume_to_grow(7));
  const ForkOfAnotherFile fork(volume, kHFSStartupFileID, 2 * kBlockSize);
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 206);
  expand_by_block_208(fork.get(), volume);
  FaultInjector faults;
  EXPECT_EQ(byte_at(fork.get(), 6 * kBlockSize), 206);
  EXPECT_EQ(byte_at(fork.get(), 7 * kBlockSize), 0);
  EXPECT_EQ(faults.reads().size(), 0u);
}

// The fork data gives the fork more bytes than its blocks hold: it grows by a block and is shorter than before.
// X-fork-10
TEST(ExpandFork, WithModifiedBlocksBehindItsNewEnd_CannotFlushThem) {
  Volume image = volume_to_grow(7);
  image.set_field("startupFile.logicalSize", 9 * kBlockSize);
  OpenVolume volume(image);
  kvfs_fork* const fork = volume.fork(kStartup);
  ASSERT_EQ(kvfs_fork_write(fork, 8 * kBlockSize, Bytes(kBlockSize).data(), kBlockSize, nullptr), kvfs_ok);
  ASSERT_EQ(fork->priv->items[0]->dirty_blocks, 1u);
  kvfs_allocation_location added = {};
  LogCapture log;
  EXPECT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_inconsistent);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_expand", "Error while flushing trailing part of fork.\n"));
}

// The flush of the part that goes is measured against the size in the header.
TEST(ResizeFork, ShrunkWithTheOldSizeStillInTheHeader_CannotFlushModifiedBlocks) {
  OpenVolume volume(startup_volume({.extents = {{200, 8}}}));
  kvfs_fork* const fork = volume.fork(kStartup);
  kvfs_allocation_location added = {};
  ASSERT_EQ(kvfs_fork_expand(fork, volume.get(), &added), kvfs_ok);
  ASSERT_EQ(kvfs_fork_write(fork, 0, "abc", 3, nullptr), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(kvfs_fork_shrink(fork, volume.get(), added.block_count), kvfs_invalid);
  EXPECT_TRUE(log.matches(flush_refused("'io_offset': Offset (32768) is beyond")));
  EXPECT_EQ(startup_file(volume), "49152 size=32768 total=12 extents={200+12}");
}

}  // namespace
}  // namespace kvfs_test
