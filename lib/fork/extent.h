// Arithmetic of blocks, items and extents.

#ifndef KVFS_FORK_EXTENT_H
#define KVFS_FORK_EXTENT_H

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "fork/private.h"
#include "format.h"
#include "ground/arithmetic.h"

namespace kvfs::fork {

inline constexpr std::uint64_t kMaximum32 = 0xFFFFFFFF;

// Bytes of an item's bitmap, one bit for each block.
constexpr std::size_t bitmap_size(std::uint32_t item_size, std::uint32_t unit) {
  return static_cast<std::size_t>((kvfs_divide_rounding_up(item_size, unit) + 7) / 8);
}

constexpr std::uint32_t bitmap_byte(std::uint64_t block) {
  return static_cast<std::uint32_t>(block / 8);
}

constexpr unsigned char bitmap_mask(std::uint64_t block) {
  return static_cast<unsigned char>(1U << (block % 8));
}

// Bytes of the fork in an extent. The product has 32 bits (Q-fork-1): of an extent of 4 GiB and more only the
// remainder is seen, and the fork goes on behind that with the next extent.
inline std::uint32_t extent_length(const kvfs_fork* fork, const HFSPlusExtentDescriptor& extent) {
  return fork->block_size * extent.blockCount.get();
}

// The unit in which blocks are valid or modified, and of all transfers, bytes.
inline std::uint32_t transfer_unit(const kvfs_fork* fork) {
  return fork->priv->modificationBitmapBlockSize;
}

inline bool is_empty(const HFSPlusExtentDescriptor& extent) {
  return extent.startBlock.get() == 0 && extent.blockCount.get() == 0;
}

inline bool is_inside(const kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  const std::uint64_t logical_size = fork->priv->logical_size;
  return offset <= logical_size && length <= logical_size - offset;
}

// The number of items with modified blocks. It changes under dirty_lock, but a flush looks at it before it takes that
// lock, while another flush may be at work.
inline std::size_t dirty_items(const kvfs_fork* fork) {
  return __atomic_load_n(&fork->priv->dirty_items, __ATOMIC_RELAXED);
}

inline void set_dirty_items(kvfs_fork* fork, std::size_t count) {
  __atomic_store_n(&fork->priv->dirty_items, count, __ATOMIC_RELAXED);
}

// Says that bytes which the cache held as valid have changed: for the tree of the fork, which remembers where keys are.
// Bytes change under items_lock, which the tree does not hold when it asks: said before the change, it could be
// seen, and the places of the old bytes be remembered anew.
inline void announce_change(kvfs_fork* fork) {
  __atomic_store_n(&fork->priv->has_changed, 1, __ATOMIC_RELAXED);
}

// Whether that was said since this was asked last. What is said meanwhile is left for the next time.
inline bool see_changes(kvfs_fork* fork) {
  return __atomic_exchange_n(&fork->priv->has_changed, 0, __ATOMIC_RELAXED) != 0;
}

// Takes an item that had modified blocks off the count when it has none any more. The count falls below 0 when the item
// is one that a flush has forgotten (Q-fork-8).
inline void count_out_if_clean(kvfs_fork* fork, const kvfs_fork_cache_item* item) {
  if (item->dirty_blocks == 0) {
    set_dirty_items(fork, dirty_items(fork) - 1);
  }
}

}  // namespace kvfs::fork

#endif  // KVFS_FORK_EXTENT_H
