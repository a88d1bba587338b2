// Filling the cache: which blocks a range needs, and reading those that are not valid yet.

#include <cstddef>
#include <cstdint>

#include "base/rwlock_guard.h"
#include "fork.h"
#include "fork/cache.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

// Reads block `block` of the fork to its place in its item.
static kvfs_result read_block(kvfs_fork* fork, kvfs_fork_cache_item* item, std::uint64_t block) {
  const std::uint64_t unit = transfer_unit(fork);
  const std::uint64_t offset_in_item = unit * (block % (fork->priv->item_size / unit));
  const std::uint64_t length = kvfs_min(unit, fork->priv->logical_size - block * unit);
  if (length > item->data_size || offset_in_item > item->data_size - length) {
    KVFS_CRITICAL_AS(kvfs_fork_read_into_cache,
                     "Unexpected: Read offset is outside the bounds of the cache item (%llu, maximum expected: %zu)!\n",
                     to_ull(offset_in_item), std::size_t{item->data_size});
    return kvfs_internal;
  }
  unsigned char* const read_ptr_orig = item->data + offset_in_item;
  unsigned char* read_ptr = read_ptr_orig;
  kvfs_fork_read_context context = {fork->priv->device, read_ptr, 0};
  const kvfs_result result = kvfs_fork_do_device_io(fork, block * unit, length, kvfs_fork_process_read_io, &context);
  if (fork->priv->item_size % transfer_unit(fork) != 0) {
    announce_change(fork);  // the blocks lie over each other, and a reading that fails may have changed some bytes
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_read_into_cache, "Error %d while reading block %llu from device offset %llu.\n",
                  static_cast<int>(result), to_ull(block), to_ull(block * unit));
    return result;
  }
  if (read_ptr_orig != read_ptr) {
    KVFS_ERROR_AS(kvfs_fork_read_into_cache, "read_ptr_orig (%p) != read_ptr (%p)\n", static_cast<void*>(read_ptr_orig),
                  static_cast<void*>(read_ptr));
    return kvfs_failed;
  }
  return kvfs_ok;
}

// References block `block` of the fork and reads it unless it is valid. No failure takes the reference back (Q-fork-4).
static kvfs_result make_block_valid(kvfs_fork* fork, std::uint64_t block) {
  kvfs_fork_private* const priv = fork->priv;
  const std::uint64_t blocks_per_item = priv->item_size / transfer_unit(fork);
  const std::uint64_t index = block / blocks_per_item;
  if (index > priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_read_into_cache, "Item index out of bounds: %llu (expected maximum: %zu)\n",
                     to_ull(index), std::size_t{priv->items_length});
    return kvfs_internal;
  }
  kvfs_result result = ensure_item(KVFS_NAME_OF(kvfs_fork_read_into_cache), fork, index);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_fork_cache_item* const item = priv->items[index];
  ++item->references;
  unsigned char* const valid = &item->valid_bitmap[bitmap_byte(block % blocks_per_item)];
  if ((*valid & bitmap_mask(block)) != 0) {
    return kvfs_ok;
  }
  result = read_block(fork, item, block);
  if (result == kvfs_ok) {
    *valid = static_cast<unsigned char>(*valid | bitmap_mask(block));
  }
  return result;
}

static kvfs_result make_range_valid(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  kvfs_result result = check_transfer_unit(KVFS_NAME_OF(kvfs_fork_read_into_cache), fork);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint64_t unit = transfer_unit(fork);
  const std::uint64_t end = kvfs_divide_rounding_up(offset + length, unit);
  for (std::uint64_t block = offset / unit; block < end && result == kvfs_ok; ++block) {
    result = make_block_valid(fork, block);
  }
  return result;
}

kvfs_result kvfs_fork_read_into_cache(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Unable to lock items lock.\n", critical, "Unexpected - Unable to unlock items lock!\n");
  return kvfs_with_write_lock(fork->priv->items_lock, messages, [&] { return make_range_valid(fork, offset, length); });
}
