// Marking blocks as used.

#include <cstdint>

#include "bitmap.h"
#include "bitmap/bits.h"
#include "fork.h"
#include "ground/bits.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;

// Clears the bits of start .. end - 1 again, the last one first, and goes on whatever fails.
static void roll_back_blocks(kvfs_fork* fork, const mapping& map, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = end; block > start; --block) {
    const std::uint64_t undone = block - 1;
    const unsigned char byte = byte_of(map, undone);
    if (write_byte(fork, undone / 8, static_cast<unsigned char>(byte & ~kvfs_disk_bit(undone))) != kvfs_ok) {
      KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Error while rolling back modification to bitmap bit %lu.%s\n",
                    to_ul(static_cast<std::uint32_t>(undone)),
                    undone > start ? " Ignoring and continuing to attempt rollback of remaining blocks..." : "");
    }
  }
}

// Sets the bits of a mapped run. The mapping leads into the cache that is written to, so that later blocks of a byte
// see the bits of earlier ones.
static kvfs_result set_mapped_bits(kvfs_fork* fork, const mapping& map, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = start; block < end; ++block) {
    const unsigned char byte = byte_of(map, block);
    kvfs_result result = kvfs_failed;
    std::uint64_t set_end = block;
    if ((byte & kvfs_disk_bit(block)) != 0) {
      KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Block %d is already allocated.\n", static_cast<int>(block));
    } else {
      result = write_byte(fork, block / 8, static_cast<unsigned char>(byte | kvfs_disk_bit(block)));
      if (result != kvfs_ok) {
        KVFS_ERROR_AS(AllocateExtentAllocationBlocks, "Error while writing out modified bitmap byte.\n");
        // A write that fails only when it gives its locks back has set the bit: X-bitmap-4.
        set_end += (byte_of(map, block) & kvfs_disk_bit(block)) != 0 ? 1 : 0;
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
  const std::uint32_t total = volume->header->totalBlocks.get();
  if (count != 0 && end > total) {  // X-bitmap-5
    KVFS_ERROR("Cannot allocate %lu blocks starting at block %lu of %lu blocks.\n", to_ul(count), to_ul(start_block),
               to_ul(total));
    return kvfs_limit;
  }
  const std::uint64_t first_byte = start_block / 8;
  mapping map = {};
  kvfs_result result = map.map(fork, first_byte, static_cast<std::size_t>((end + 7) / 8 - first_byte));
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
  const kvfs_result unmapped = map.unmap();
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping chunk containing bits to set.\n");
  }
  return kvfs_result_keep(result, unmapped);
}
