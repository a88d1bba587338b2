// Searching for free blocks.
//
// The search ends wherever in a byte it began: X-bitmap-2.

#include <cstdint>

#include "bitmap.h"
#include "bitmap/bits.h"
#include "fork.h"
#include "ground/arithmetic.h"
#include "ground/bits.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;

static constexpr std::uint64_t round_up_to_byte(std::uint64_t blocks) {
  return (blocks + 7) / 8 * 8;
}

namespace {

// A search that goes round the volume, twice at most.
struct free_run_search {
  kvfs_fork* fork;
  std::uint64_t total;   // blocks of the volume
  std::uint64_t wanted;  // blocks
  std::uint64_t hint;    // where the search began
  std::uint64_t position;
  bool wrapped;  // whether the second round has begun
  mapping map;
};

}  // namespace

// Maps the bits at the position of a search; `count` receives how many of them are to be clear.
static kvfs_result map_position(free_run_search* search, std::uint64_t* count) {
  kvfs_result result = search->map.unmap();
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FindContiguousUnallocated, "Error while unmapping previous region of bitmap data.\n");
    return result;
  }
  const std::uint32_t left = static_cast<std::uint32_t>(search->total - search->position);
  *count = round_up_to_byte(kvfs_min<std::uint64_t>(left, search->wanted));
  const std::uint64_t first_byte = search->position / 8;
  result = search->map.map(search->fork, first_byte,
                           static_cast<std::size_t>((search->position + *count + 7) / 8 - first_byte));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(FindContiguousUnallocated, "Error while mapping region of bitmap data.\n");
  }
  return result;
}

// Counts the clear bits from the position on, `count` at most. Bytes are counted from the start of the mapping, which
// is exact once the position is a multiple of 8, as every one but the first is: Q-bitmap-7.
static std::uint64_t count_clear_bits(const free_run_search& search, std::uint64_t count) {
  const unsigned char* const bytes = search.map.bytes();
  std::uint64_t clear = 0;
  while (clear < count && (bytes[clear / 8] & kvfs_disk_bit(search.position + clear)) == 0) {
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
  start = start < total ? start : total - 1;  // wraps on a volume without blocks: Q-bitmap-10
  kvfs_fork* const fork = fork_of_bits(KVFS_NAME_OF(FindContiguousUnallocated), volume);
  if (fork == nullptr) {
    return kvfs_invalid;
  }
  free_run_search search = {fork, total, wanted, start, start, false, {}};
  kvfs_allocation_location location = {};
  kvfs_result result = search_free_run(&search, &location);
  const kvfs_result unmapped = search.map.unmap();
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping region of bitmap data.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_location = location;
  }
  return result;
}
