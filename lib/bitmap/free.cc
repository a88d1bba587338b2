// Freeing blocks.

#include <cstdint>

#include "bitmap.h"
#include "bitmap/bits.h"
#include "bitmap/private.h"
#include "fork.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "ground/bits.h"
#include "result.h"
#include "support.h"

using namespace kvfs::bitmap;

static kvfs_result clear_mapped_bit(kvfs_fork* fork, const mapping& chunk, std::uint32_t block) {
  const unsigned char byte = byte_of(chunk, block);
  if ((byte & kvfs_disk_bit(block)) == 0) {
    return kvfs_failed;  // without a message: Q-bitmap-3
  }
  // To the first byte of the chunk, not to the byte's own place: Q-bitmap-1.
  const kvfs_result result = write_byte(fork, chunk.offset(), static_cast<unsigned char>(byte & ~kvfs_disk_bit(block)));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FreeAllocationBlock, "Error while writing back modified byte to allocation file.\n");
  }
  return result;
}

kvfs_result FreeAllocationBlock(std::uint32_t block, kvfs_bitmap* bitmap) {
  kvfs_fork* const fork = bitmap->priv->fork;
  const std::uint64_t chunk_offset = block / 8 / kChunkSize * kChunkSize;
  mapping chunk = {};
  kvfs_result result = chunk.map(fork, chunk_offset, kChunkSize);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping byte containing bit to clear in allocation file.\n");
    return result;
  }
  result = clear_mapped_bit(fork, chunk, block);
  const kvfs_result unmapped = chunk.unmap();
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
