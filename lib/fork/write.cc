// Writing to the cache: bytes and patterns.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/rwlock_guard.h"
#include "fork.h"
#include "fork/access.h"
#include "fork/cache.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

namespace {

// What a write touches, and which of its blocks were read in first and so hold a reference to give back.
struct write_range {
  item_range items;
  std::uint64_t offset;
  std::size_t length;
  bool first_block_read;
  bool last_block_read;
};

}  // namespace

// Reads the blocks that a write overwrites only in part.
static kvfs_result read_partial_blocks(kvfs_fork* fork, write_range* range) {
  const std::uint64_t unit = transfer_unit(fork);
  const std::uint64_t end = range->offset + range->length;
  const std::uint64_t aligned_start = range->offset / unit * unit;
  const std::uint64_t aligned_end = kvfs_divide_rounding_up(end, unit) * unit;
  if (range->offset != aligned_start) {
    const kvfs_result result = kvfs_fork_read_into_cache(fork, range->offset, aligned_start + unit - range->offset);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_write, "Error while reading first block in write range into cache.\n");
      return result;
    }
    range->first_block_read = true;
  }
  if (end != aligned_end) {
    const kvfs_result result = kvfs_fork_read_into_cache(fork, end, aligned_end - end);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_write, "Error while reading last block in write range into cache.\n");
      return result;
    }
    range->last_block_read = true;
  }
  return kvfs_ok;
}

// Copies bytes into an item and marks the blocks that they touch as modified, but not as valid (Q-fork-7).
static void copy_to_item(kvfs_fork* fork, kvfs_fork_cache_item* item, std::size_t offset_in_item,
                         const unsigned char* bytes, std::size_t length) {
  const std::uint32_t unit = transfer_unit(fork);
  const bool was_clean = item->dirty_blocks == 0;
  if (length != 0) {  // a caller with nothing to write may have no bytes
    std::memcpy(item->data + offset_in_item, bytes, length);
  }
  announce_change(fork);
  const std::uint64_t end = kvfs_divide_rounding_up(offset_in_item + length, unit);
  for (std::uint64_t block = offset_in_item / unit; block < end; ++block) {
    unsigned char* const modified = &item->modification_bitmap[bitmap_byte(block)];
    if ((*modified & bitmap_mask(block)) == 0) {
      *modified = static_cast<unsigned char>(*modified | bitmap_mask(block));
      ++item->dirty_blocks;
    }
  }
  if (was_clean && item->dirty_blocks != 0) {
    set_dirty_items(fork, kvfs_max<std::size_t>(dirty_items(fork) + 1, 1));  // from below 0 as well: X-fork-13
  }
}

// Gives back the reference that reading in a partly overwritten block has added.
static kvfs_result return_reference(kvfs_fork_cache_item* item) {
  if (item->references == 0) {
    KVFS_CRITICAL_AS(kvfs_fork_write,
                     "Unexpected - Cache item that we just copied to has no references (should have at least one)!\n");
    return kvfs_internal;
  }
  --item->references;
  return kvfs_ok;
}

// Copies the bytes of a write into the items of its range; the caller holds items_lock and dirty_lock for writing.
static kvfs_result write_to_items(kvfs_fork* fork, const write_range& range, const unsigned char* bytes) {
  std::size_t offset_in_item = static_cast<std::size_t>(range.offset % fork->priv->item_size);
  std::size_t remaining = range.length;
  for (std::uint64_t index = range.items.first; index <= range.items.last; ++index) {
    kvfs_result result = ensure_item(KVFS_NAME_OF(kvfs_fork_write), fork, index);
    if (result != kvfs_ok) {
      return result;
    }
    kvfs_fork_cache_item* const item = fork->priv->items[index];
    const std::size_t part = kvfs_min<std::size_t>(remaining, item->data_size - offset_in_item);
    copy_to_item(fork, item, offset_in_item, bytes + (range.length - remaining), part);
    if (index == range.items.first && range.first_block_read) {
      result = return_reference(item);
    }
    if (result == kvfs_ok && index == range.items.last && range.last_block_read) {
      result = return_reference(item);
    }
    if (result != kvfs_ok) {
      return result;
    }
    remaining -= part;
    offset_in_item = 0;
  }
  return kvfs_ok;
}

// Writes to the items with dirty_lock held; the caller holds items_lock for writing.
static kvfs_result write_dirty_locked(kvfs_fork* fork, const write_range& range, const unsigned char* bytes) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES_AS(kvfs_fork_write, "Error while write-locking dirty lock.\n", critical,
                            "Unexpected - Error while unlocking dirty lock!\n");
  return kvfs_with_write_lock(fork->priv->dirty_lock, messages, [&] { return write_to_items(fork, range, bytes); });
}

kvfs_result kvfs_fork_write(kvfs_fork* fork, std::uint64_t offset, const void* buffer, std::size_t length,
                            std::size_t* out_bytes_written) {
  if (out_bytes_written != nullptr) {
    *out_bytes_written = 0;
  }
  write_range range = {items_of(fork, offset, length), offset, length, false, false};
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to write outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  kvfs_result result = check_item_numbers(__func__, fork, range.items);
  if (result != kvfs_ok) {
    return result;
  }
  if (transfer_unit(fork) == 0) {
    return check_transfer_unit(__func__, fork);  // too large a unit is refused where a block is read or flushed
  }
  result = read_partial_blocks(fork, &range);
  if (result != kvfs_ok) {
    return result;
  }
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while read-locking items lock.\n", critical,  // taken for writing: Q-fork-14
                         "Unexpected - Error while unlocking items lock!\n");
  result = kvfs_with_write_lock(fork->priv->items_lock, messages, [&] {
    return write_dirty_locked(fork, range, static_cast<const unsigned char*>(buffer));
  });
  if (result == kvfs_ok && out_bytes_written != nullptr) {
    *out_bytes_written = length;
  }
  return result;
}

static constexpr std::size_t kLargestPattern = 0x20000000;

static constexpr std::size_t kSmallestPattern = 8;

// The next smaller power of two to try when memory for a pattern is short.
static std::size_t shrink_pattern(std::size_t size) {
  return std::bit_ceil(size) / 2;
}

// Writes a pattern over a range again and again, in the name of kvfs_fork_fill.
static kvfs_result write_pattern(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length,
                                 const unsigned char* pattern, std::size_t pattern_size, std::uint64_t* done) {
  while (*done < length) {
    const std::size_t part = static_cast<std::size_t>(kvfs_min<std::uint64_t>(length - *done, pattern_size));
    const std::uint64_t start = offset + *done;
    const kvfs_result result = kvfs_fork_write(fork, start, pattern, part, nullptr);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_fill, "Error while filling range [%llu-%llu] (%zu bytes) with byte 0x%X.\n",
                    to_ull(start), to_ull(start + part), part, static_cast<unsigned>(pattern[0]));
      return result;
    }
    *done += part;
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_fill(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length, std::uint8_t value,
                           std::uint64_t* out_bytes_filled) {
  std::size_t size = static_cast<std::size_t>(kvfs_min<std::uint64_t>(length, kLargestPattern));
  if (out_bytes_filled != nullptr) {
    *out_bytes_filled = 0;
  }
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to fill outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  unsigned char small_pattern[kSmallestPattern];
  kvfs_owned<unsigned char> large_pattern = kvfs_allocate_bytes(size);
  while (!large_pattern && size > kSmallestPattern) {
    size = shrink_pattern(size);
    large_pattern.reset(static_cast<unsigned char*>(std::malloc(size)));
  }
  unsigned char* const pattern = large_pattern ? large_pattern.get() : small_pattern;
  std::memset(pattern, value, kvfs_max<std::size_t>(size, 1));
  std::uint64_t done = 0;
  const kvfs_result result = write_pattern(fork, offset, length, pattern, size, &done);
  if (out_bytes_filled != nullptr) {
    *out_bytes_filled = done;
  }
  return result;
}
