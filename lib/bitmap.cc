#include "bitmap.h"

#include "arithmetic.h"
#include "bitmap_private.h"
#include "extents.h"
#include "fork.h"
#include "owned.h"
#include "support.h"
#include "volume.h"

// ---- Life ----------------------------------------------------------------------------------------------------------

kvfs_result kvfs_bitmap_create(HFSPlusVolumeHeader* volume_header, kvfs_device* device, kvfs_extents* extents,
                               kvfs_bitmap** out_bitmap) {
  kvfs_owned<kvfs_bitmap> bitmap = kvfs_allocate_zeroed<kvfs_bitmap>();
  if (!bitmap) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_bitmap.\n", sizeof(kvfs_bitmap));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_bitmap_private> priv = kvfs_allocate_zeroed<kvfs_bitmap_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_bitmap_private.\n", sizeof(kvfs_bitmap_private));
    return kvfs_no_memory;
  }
  const kvfs_result result =
      kvfs_fork_create(device, extents, 0, volume_header, kHFSAllocationFileID, &volume_header->allocationFile,
                       volume_header->blockSize.get(), &priv->fork);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_fork for allocation file.\n");
    return result;
  }
  bitmap->priv = priv.release();
  *out_bitmap = bitmap.release();
  return kvfs_ok;
}

void kvfs_bitmap_destroy(kvfs_bitmap** bitmap) {
  kvfs_fork_destroy(&(*bitmap)->priv->fork);
  kvfs_zero_and_free((*bitmap)->priv);
  kvfs_zero_and_free(*bitmap);
  *bitmap = nullptr;
}

kvfs_result kvfs_bitmap_flush(kvfs_bitmap* bitmap) {
  return kvfs_fork_flush(bitmap->priv->fork);
}

bool kvfs_bitmap_works_on(const kvfs_bitmap* bitmap, const kvfs_fork* fork) {
  return bitmap->priv->fork == fork;
}

// ---- Bits ----------------------------------------------------------------------------------------------------------

static constexpr unsigned char block_bit(std::uint64_t block) {
  return static_cast<unsigned char>(0x80U >> (block % 8));
}

// Single bits are changed with this part of the allocation file mapped, all of it (Q-bitmap-2).
static constexpr std::uint64_t kChunkSize = 4096;

// A mapped range of the allocation file.
struct bitmap_mapping {
  std::uint64_t offset;  // bytes
  std::size_t length;
  void* bytes;
};

static kvfs_result map_bytes(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length, bitmap_mapping* map) {
  *map = {offset, static_cast<std::size_t>(length), nullptr};
  return kvfs_fork_map(fork, map->offset, &map->bytes, map->length, nullptr);
}

static kvfs_result unmap_bytes(kvfs_fork* fork, bitmap_mapping* map) {
  return map->bytes == nullptr ? kvfs_ok : kvfs_fork_unmap(fork, map->offset, &map->bytes, map->length);
}

// The mapped byte that holds the bit of a block.
static unsigned char byte_of(const bitmap_mapping& map, std::uint64_t block) {
  return static_cast<const unsigned char*>(map.bytes)[block / 8 - map.offset];
}

static kvfs_result write_byte(kvfs_fork* fork, std::uint64_t offset, unsigned char byte) {
  return kvfs_fork_write(fork, offset, &byte, sizeof(byte), nullptr);
}

// ---- Freeing -------------------------------------------------------------------------------------------------------

static kvfs_result clear_mapped_bit(kvfs_fork* fork, const bitmap_mapping& chunk, std::uint32_t block) {
  const unsigned char byte = byte_of(chunk, block);
  if ((byte & block_bit(block)) == 0) {
    return kvfs_failed;  // without a message: Q-bitmap-3
  }
  // To the first byte of the chunk, not to the byte's own place: Q-bitmap-1.
  const kvfs_result result = write_byte(fork, chunk.offset, static_cast<unsigned char>(byte & ~block_bit(block)));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FreeAllocationBlock, "Error while writing back modified byte to allocation file.\n");
  }
  return result;
}

kvfs_result FreeAllocationBlock(std::uint32_t block, kvfs_bitmap* bitmap) {
  kvfs_fork* const fork = bitmap->priv->fork;
  const std::uint64_t chunk_offset = block / 8 / kChunkSize * kChunkSize;
  bitmap_mapping chunk = {};
  kvfs_result result = map_bytes(fork, chunk_offset, kChunkSize, &chunk);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping byte containing bit to clear in allocation file.\n");
    return result;
  }
  result = clear_mapped_bit(fork, chunk, block);
  const kvfs_result unmapped = unmap_bytes(fork, &chunk);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping chunk containing bit to clear.\n");
  }
  return kvfs_result_keep(result, unmapped);
}

// Frees the blocks of one extent that lie in the range to free, where `position` is the extent's first block of the
// fork and `freed` counts what was freed so far.
static kvfs_result free_extent_part(const HFSPlusExtentDescriptor& extent, std::uint64_t position, std::uint32_t first,
                                    std::uint32_t count, kvfs_bitmap* bitmap, std::uint32_t* freed) {
  const std::uint64_t end = kvfs_min<std::uint64_t>(std::uint64_t{first} + count - position, extent.blockCount.get());
  for (std::uint64_t i = std::uint64_t{first} + *freed - position; i < end; ++i) {
    const std::uint32_t block = static_cast<std::uint32_t>(extent.startBlock.get() + i);
    const kvfs_result result = FreeAllocationBlock(block, bitmap);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(FreeExtentAllocationBlocks, "Error while freeing allocation block %lu.\n", to_ul(block));
      return result;
    }
    ++*freed;
  }
  return kvfs_ok;
}

kvfs_result FreeExtentAllocationBlocks(const HFSPlusForkData* fork_data, std::uint32_t first_block, std::uint32_t count,
                                       kvfs_bitmap* bitmap, std::uint32_t* out_freed) {
  kvfs_result result = kvfs_ok;
  std::uint64_t position = 0;
  std::uint32_t freed = 0;
  for (const HFSPlusExtentDescriptor& extent : fork_data->extents.extents) {
    const std::uint64_t end = position + extent.blockCount.get();
    if (end == position || std::uint64_t{first_block} + count <= position || result != kvfs_ok) {
      break;
    }
    if (end > first_block) {
      result = free_extent_part(extent, position, first_block, count, bitmap, &freed);
    }
    position = end;
  }
  if (out_freed != nullptr) {
    *out_freed = freed;
  }
  return result;
}

// ---- Allocating ----------------------------------------------------------------------------------------------------

// Clears the bits of start .. end - 1 again, the last one first, and goes on whatever fails.
static void roll_back_blocks(kvfs_fork* fork, const bitmap_mapping& map, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = end; block > start; --block) {
    const std::uint64_t undone = block - 1;
    const unsigned char byte = byte_of(map, undone);
    if (write_byte(fork, undone / 8, static_cast<unsigned char>(byte & ~block_bit(undone))) != kvfs_ok) {
      KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Error while rolling back modification to bitmap bit %lu.%s\n",
                    to_ul(static_cast<std::uint32_t>(undone)),
                    undone > start ? " Ignoring and continuing to attempt rollback of remaining blocks..." : "");
    }
  }
}

// The allocation file's fork, or null with a message when the volume was opened without that file
// (X-bitmap-1).
static kvfs_fork* fork_of_bits(const char* speaker, const kvfs_volume* volume) {
  if (volume->bitmap == nullptr) {
    KVFS_ERROR_BY(speaker, "The volume was opened without its allocation file.\n");
    return nullptr;
  }
  return volume->bitmap->priv->fork;
}

// Sets the bits of a mapped run. The mapping leads into the cache that is written to, so that later blocks of a byte
// see the bits of earlier ones.
static kvfs_result set_mapped_bits(kvfs_fork* fork, const bitmap_mapping& map, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = start; block < end; ++block) {
    const unsigned char byte = byte_of(map, block);
    kvfs_result result = kvfs_failed;
    std::uint64_t set_end = block;
    if ((byte & block_bit(block)) != 0) {
      KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Block %d is already allocated.\n", static_cast<int>(block));
    } else {
      result = write_byte(fork, block / 8, static_cast<unsigned char>(byte | block_bit(block)));
      if (result != kvfs_ok) {
        KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Error while writing out modified bitmap byte.\n");
        // A write that fails only when it gives its locks back has set the bit: X-bitmap-4.
        set_end += (byte_of(map, block) & block_bit(block)) != 0 ? 1 : 0;
      }
    }
    if (result != kvfs_ok) {
      roll_back_blocks(fork, map, start, set_end);
      return result;
    }
  }
  return kvfs_ok;
}

kvfs_result AllocateExtentAllocationBlocks(std::uint32_t start_block, std::uint32_t count, kvfs_volume* volume) {
  kvfs_fork* const fork = fork_of_bits(__func__, volume);
  if (fork == nullptr) {
    return kvfs_invalid;
  }
  const std::uint64_t end = std::uint64_t{start_block} + count;
  const std::uint64_t first_byte = start_block / 8;
  bitmap_mapping map = {};
  kvfs_result result = map_bytes(fork, first_byte, (end + 7) / 8 - first_byte, &map);
  if (result != kvfs_ok) {
    KVFS_ERROR(
        "Error while mapping from allocation file the region of data containing the bitmap bits for the blocks that we are allocating.\n");
    return result;
  }
  result = set_mapped_bits(fork, map, start_block, end);
  if (result == kvfs_ok) {
    kvfs_volume_subtract_free_blocks(volume, count);
    if (volume->header->nextAllocation.get() == start_block) {
      kvfs_volume_set_next_allocation(volume, start_block + count);
    }
  }
  const kvfs_result unmapped = unmap_bytes(fork, &map);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping chunk containing bits to set.\n");
  }
  return kvfs_result_keep(result, unmapped);
}

// ---- Searching for free blocks -------------------------------------------------------------------------------------
//
// The search ends wherever in a byte it began: X-bitmap-2.

static constexpr std::uint64_t round_up_to_byte(std::uint64_t blocks) {
  return (blocks + 7) / 8 * 8;
}

// A search that goes round the volume, twice at most.
struct free_run_search {
  kvfs_fork* fork;
  std::uint64_t total;   // blocks of the volume
  std::uint64_t wanted;  // blocks
  std::uint64_t hint;    // where the search began
  std::uint64_t position;
  bool wrapped;  // whether the second round has begun
  bitmap_mapping map;
};

// Maps the bits at the position of a search; `count` receives how many of them are to be clear.
static kvfs_result map_position(free_run_search* search, std::uint64_t* count) {
  kvfs_result result = unmap_bytes(search->fork, &search->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FindContiguousUnallocated, "Error while unmapping previous region of bitmap data.\n");
    return result;
  }
  *count = round_up_to_byte(kvfs_min(search->total - search->position, search->wanted));
  const std::uint64_t first_byte = search->position / 8;
  result = map_bytes(search->fork, first_byte, (search->position + *count + 7) / 8 - first_byte, &search->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FindContiguousUnallocated, "Error while mapping region of bitmap data.\n");
  }
  return result;
}

// Counts the clear bits from the position on, `count` at most. Bytes are counted from the start of the mapping, which
// is exact once the position is a multiple of 8, as every one but the first is: Q-bitmap-7.
static std::uint64_t count_clear_bits(const free_run_search& search, std::uint64_t count) {
  const unsigned char* const bytes = static_cast<const unsigned char*>(search.map.bytes);
  std::uint64_t clear = 0;
  while (clear < count && (bytes[clear / 8] & block_bit(search.position + clear)) == 0) {
    ++clear;
  }
  return clear;
}

// Moves behind a used block, and from the end of the volume to its beginning: where that is inside a byte, the bits
// behind it stand for no blocks. The search is over when it is back at the hint. Positions are multiples of 8 and never
// equal a hint that is none, and free blocks before a hint may lead over it; a third round, which would find what the
// second one has found, is never begun.
static bool advance(free_run_search* search, std::uint64_t clear) {
  search->position = round_up_to_byte(search->position + kvfs_max<std::uint64_t>(clear, 1));
  if (search->position >= search->total) {
    if (search->wrapped) {
      return false;
    }
    search->position = 0;
    search->wrapped = true;
  }
  return search->position != search->hint;
}

static kvfs_result search_free_run(free_run_search* search, kvfs_allocation_location* location) {
  do {
    std::uint64_t count = 0;
    const kvfs_result result = map_position(search, &count);
    if (result != kvfs_ok) {
      return result;
    }
    const std::uint64_t clear = count_clear_bits(*search, count);
    if (clear == count) {
      location->start_block = static_cast<std::uint32_t>(search->position);
      location->block_count = static_cast<std::uint32_t>(search->wanted);
      return kvfs_ok;
    }
    if (!advance(search, clear)) {
      return kvfs_ok;
    }
  } while (true);
}

kvfs_result FindContiguousUnallocated(kvfs_volume* volume, std::uint32_t wanted, std::uint32_t hint,
                                      kvfs_allocation_location* out_location) {
  const std::uint32_t total = volume->header->totalBlocks.get();
  std::uint32_t start = hint != 0 ? hint : volume->header->nextAllocation.get();
  start = kvfs_min(start, kvfs_max<std::uint32_t>(total, 1) - 1);
  kvfs_allocation_location location = {};
  if (total == 0 || wanted == 0) {
    location.start_block = start;  // no blocks are free anywhere, there too
    *out_location = location;
    return kvfs_ok;
  }
  kvfs_fork* const fork = fork_of_bits(KVFS_NAME_OF(FindContiguousUnallocated), volume);
  if (fork == nullptr) {
    return kvfs_invalid;
  }
  free_run_search search = {fork, total, wanted, start, start, false, {}};
  kvfs_result result = search_free_run(&search, &location);
  const kvfs_result unmapped = unmap_bytes(search.fork, &search.map);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping region of bitmap data.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_location = location;
  }
  return result;
}

// ---- Growing forks -------------------------------------------------------------------------------------------------

// Blocks that hold a number of bytes; none when the volume has no block size (X-bitmap-3).
static std::uint64_t blocks_for(const kvfs_volume* volume, std::uint64_t bytes) {
  const std::uint32_t block_size = volume->header->blockSize.get();
  return block_size == 0 ? 0 : kvfs_divide_rounding_up(bytes, block_size);
}

static std::uint32_t extent_end(const HFSPlusExtentDescriptor& extent) {
  return extent.startBlock.get() + extent.blockCount.get();
}

// A walk over the extents of a fork, up to the one that holds a block.
struct extent_walk {
  std::uint32_t total;        // blocks of the fork
  std::uint64_t target;       // block of the fork
  std::uint64_t accumulated;  // blocks in the extents before the current one
  std::uint32_t index;        // of the extent after the last one looked at, over all records
  std::uint32_t hint;         // where the last extent looked at ends
  bool found;
};

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

// Adds a run to a fork data behind its first `used` extents.
static void add_run(HFSPlusForkData* fork_data, std::uint32_t used, kvfs_allocation_location* run) {
  HFSPlusExtentDescriptor* const extents = fork_data->extents.extents;
  const bool extends_last = used != 0 && run->start_block == extent_end(extents[used - 1]);
  run->extent_index = extends_last ? used - 1 : used;
  HFSPlusExtentDescriptor* const extent = &extents[run->extent_index];
  if (extends_last) {
    extent->blockCount.set(extent->blockCount.get() + run->block_count);
  } else {
    extent->startBlock.set(run->start_block);
    extent->blockCount.set(run->block_count);
  }
  fork_data->totalBlocks.set(fork_data->totalBlocks.get() + run->block_count);
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
  if (location.block_count != 0) {  // X-bitmap-5
    add_run(fork_data, used, &location);
  }
  *out_location = location;
  return kvfs_ok;
}
