// Where a fork grows, and entering the run in its fork data.

#include <cstdint>

#include "bitmap.h"
#include "extents.h"
#include "fork.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

kvfs_result UpdateForkExtents(HFSPlusForkData* fork_data, const kvfs_allocation_location* location) {
  if (fork_data == nullptr) {
    KVFS_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return kvfs_invalid;
  }
  if (location->extent_index >= kHFSPlusExtentDensity) {
    KVFS_ERROR("Unable to update fork extents beyond the first 8 extents.");  // Q-log-2
    return kvfs_unsupported_extents;
  }
  HFSPlusExtentDescriptor* const extent = &fork_data->extents.extents[location->extent_index];
  const std::uint32_t count = extent->blockCount.get();
  if (extent->startBlock.get() + count == location->start_block) {
    extent->blockCount.set(count + location->block_count);
  } else {
    extent->startBlock.set(location->start_block);
    extent->blockCount.set(location->block_count);
  }
  fork_data->totalBlocks.set(fork_data->totalBlocks.get() + location->block_count);
  return kvfs_ok;
}

// Blocks that hold a number of bytes; none when the volume has no block size (X-bitmap-3).
static std::uint64_t blocks_for(const kvfs_volume* volume, std::uint64_t bytes) {
  const std::uint32_t block_size = volume->header->blockSize.get();
  return block_size == 0 ? 0 : kvfs_divide_rounding_up(bytes, block_size);
}

static std::uint32_t extent_end(const HFSPlusExtentDescriptor& extent) {
  return extent.startBlock.get() + extent.blockCount.get();
}

namespace {

// A walk over the extents of a fork, up to the one that holds a block.
struct extent_walk {
  std::uint32_t total;        // blocks of the fork
  std::uint64_t target;       // block of the fork
  std::uint64_t accumulated;  // blocks in the extents before the current one
  std::uint32_t index;        // of the extent after the last one looked at, over all records
  std::uint32_t hint;         // where the last extent looked at ends
  bool found;
};

}  // namespace

// Walks one record; `whole` tells whether all of its eight descriptors are in use.
static kvfs_result walk_record(const HFSPlusExtentRecord& record, extent_walk* walk, bool* whole) {
  *whole = true;
  for (const HFSPlusExtentDescriptor& extent : record.extents) {
    const std::uint32_t count = extent.blockCount.get();
    if (count == 0) {
      *whole = false;
      if (extent.startBlock.get() != 0) {
        KVFS_ERROR_AS(FindWriteLocation, "Encountered zero block count in extent.\n");
        return kvfs_inconsistent;
      }
      return kvfs_ok;
    }
    ++walk->index;
    walk->hint = extent_end(extent);
    if (walk->accumulated + count > walk->target) {
      walk->found = true;
      return kvfs_ok;
    }
    walk->accumulated += count;
  }
  return kvfs_ok;
}

// Decides after a record whether the walk goes on with another one.
static kvfs_result check_record_end(const extent_walk& walk, bool whole) {
  if (walk.accumulated > walk.total) {
    KVFS_ERROR_AS(FindWriteLocation,
                  "Inconsistent extent record: Found more blocks than the number of allocated blocks (%llu > %lu).\n",
                  to_ull(walk.accumulated), to_ul(walk.total));
    return kvfs_inconsistent;
  }
  if (walk.accumulated != walk.total && !whole) {
    KVFS_ERROR_AS(FindWriteLocation,
                  "List of extents ends before all blocks have been accounted for. Missing %lu blocks.\n",
                  to_ul(static_cast<std::uint32_t>(walk.total - walk.accumulated)));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result fetch_next_record(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t cnid,
                                     const extent_walk& walk, HFSPlusExtentRecord* record) {
  int found = 0;
  const kvfs_result result = kvfs_extents_get_next_extent_record(
      extents, fork_type, cnid, static_cast<std::uint32_t>(walk.accumulated), &found, record);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FindWriteLocation, "Error while looking up next extent record.\n");
    return result;
  }
  if (found == 0) {
    KVFS_ERROR_AS(FindWriteLocation, "Could not find next extent record.\n");
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Walks to the extent that holds the target block, or to the last one when the fork ends before.
static kvfs_result walk_to_target(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t cnid,
                                  const HFSPlusForkData* fork_data, extent_walk* walk) {
  HFSPlusExtentRecord record = fork_data->extents;
  for (;;) {
    bool whole = false;
    kvfs_result result = walk_record(record, walk, &whole);
    if (result != kvfs_ok || walk->found) {
      return result;
    }
    result = check_record_end(*walk, whole);
    if (result != kvfs_ok || walk->accumulated == walk->total) {
      return result;
    }
    result = fetch_next_record(extents, fork_type, cnid, *walk, &record);
    if (result != kvfs_ok) {
      return result;
    }
  }
}

kvfs_result FindWriteLocation(std::uint32_t cnid, std::uint8_t fork_type, const HFSPlusForkData* fork_data,
                              kvfs_volume* volume, std::uint64_t offset, std::uint32_t length,
                              kvfs_allocation_location* out_location) {
  if (fork_data == nullptr) {
    KVFS_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return kvfs_invalid;
  }
  const std::uint32_t block_size = volume->header->blockSize.get();
  const std::uint32_t wanted = static_cast<std::uint32_t>(blocks_for(volume, length));
  const std::uint64_t target = block_size == 0 ? 0 : offset / block_size;
  extent_walk walk = {fork_data->totalBlocks.get(), target, 0, 0, 0, false};
  kvfs_result result = walk_to_target(volume->extents, fork_type, cnid, fork_data, &walk);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_allocation_location location = {};
  result = FindContiguousUnallocated(volume, wanted, walk.hint, &location);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching the bitmap for a free region of %lu.\n", to_ul(wanted));
    return result;
  }
  // `index` counts the extents up to the one where the walk stopped. A run right behind that one extends it.
  const bool extends_last = walk.index != 0 && location.start_block == walk.hint;
  location.extent_index = extends_last ? walk.index - 1 : walk.index;
  if (location.block_count != 0) {
    location.length = length;
    location.length64 = length;
  }
  *out_location = location;
  return kvfs_ok;
}

kvfs_result UpdateForks(kvfs_volume* volume, HFSPlusForkData* fork_data, std::uint64_t offset, std::uint32_t length,
                        kvfs_allocation_location* out_location) {
  if (fork_data == nullptr) {
    KVFS_ERROR("HFSPlus:ERROR: [%s] Invalid Parameters\n", __func__);
    return kvfs_invalid;
  }
  const HFSPlusExtentDescriptor* const extents = fork_data->extents.extents;
  const std::uint64_t block_size = volume->header->blockSize.get();
  kvfs_allocation_location location = {};
  std::uint64_t covered = 0;  // bytes
  std::uint32_t used = 0;
  while (used < kHFSPlusExtentDensity && extents[used].blockCount.get() != 0) {
    covered += extents[used].blockCount.get() * block_size;
    if (covered >= offset + length) {
      location.start_block = extents[used].startBlock.get();
      location.extent_index = used;
      *out_location = location;
      return kvfs_ok;
    }
    ++used;
  }
  if (used == kHFSPlusExtentDensity) {
    KVFS_ERROR("HFSPlus: [%s] Not handling overflow extents yet.\n", __func__);
    return kvfs_unsupported_extents;
  }
  const std::uint32_t hint = used == 0 ? 0 : extent_end(extents[used - 1]);
  const kvfs_result result =
      FindContiguousUnallocated(volume, static_cast<std::uint32_t>(blocks_for(volume, length)), hint, &location);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while looking up unallocated region.\n");
    return result;
  }
  const bool extends_last = used != 0 && location.start_block == hint;
  location.extent_index = extends_last ? used - 1 : used;
  *out_location = location;
  return UpdateForkExtents(fork_data, &location);  // it cannot fail: the index is that of one of the eight
}
