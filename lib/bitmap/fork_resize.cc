// The size that a fork is about to get, and putting it into effect.
//
// A fork that becomes shorter forgets what is cached behind its end: X-fork-11.

#include "bitmap/fork_resize.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "fork.h"
#include "fork/access.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;
using namespace kvfs::fork;

kvfs_result kvfs::bitmap::check_bits(const char* speaker, const fork_resize& resize) {
  const kvfs_bitmap* const bitmap = resize.volume->bitmap;
  if (bitmap == nullptr) {
    KVFS_ERROR_BY(speaker, "The volume was opened without its allocation file.\n");
    return kvfs_invalid;
  }
  if (kvfs_bitmap_works_on(bitmap, resize.fork)) {
    KVFS_ERROR_BY(speaker, "The allocation file in use cannot be resized.\n");
    return kvfs_limit;
  }
  return kvfs_ok;
}

kvfs_result kvfs::bitmap::allocate_resized_arrays(const char* speaker, fork_resize* resize) {
  const std::size_t length = static_cast<std::size_t>(kvfs_max<std::uint64_t>(resize->items_length, 1));
  resize->items.reset(static_cast<kvfs_fork_cache_item**>(std::calloc(length, sizeof(kvfs_fork_cache_item*))));
  if (!resize->items) {
    KVFS_ERROR_BY(speaker, "Error while allocating new items array.\n");
    return kvfs_no_memory;
  }
  const std::size_t count = kvfs_max(resize->fork->priv->fork_extents_count, kHFSPlusExtentDensity);
  const std::size_t size = count * sizeof(HFSPlusExtentDescriptor);
  resize->extents.reset(static_cast<HFSPlusExtentDescriptor*>(std::malloc(size)));
  if (!resize->extents) {
    KVFS_ERROR_BY(speaker, "Error while allocating %zu bytes for the new extents.\n", size);
    return kvfs_no_memory;
  }
  return kvfs_ok;
}

void kvfs::bitmap::take_extents(fork_resize* resize, const HFSPlusForkData& fork_data) {
  const kvfs_fork_private* const priv = resize->fork->priv;
  std::uint32_t count = 0;
  while (count < kHFSPlusExtentDensity && fork_data.extents.extents[count].blockCount.get() != 0) {
    resize->extents[count] = fork_data.extents.extents[count];
    ++count;
  }
  while (count >= kHFSPlusExtentDensity && count < priv->fork_extents_count) {
    resize->extents[count] = priv->fork_extents[count];
    ++count;
  }
  resize->extents_count = count;
}

// Forgets the blocks of an item from block `first` of it on, those that wait to be written included.
static void forget_blocks(kvfs_fork* fork, std::uint64_t item_index, std::uint64_t first) {
  kvfs_fork_cache_item* const item = fork->priv->items[item_index];
  const std::uint64_t blocks_per_item = fork->priv->item_size / transfer_unit(fork);
  const bool was_clean = item->dirty_blocks == 0;
  for (std::uint64_t block = first; block < blocks_per_item; ++block) {
    unsigned char* const valid = &item->valid_bitmap[bitmap_byte(block)];
    *valid = static_cast<unsigned char>(*valid & ~bitmap_mask(item_index * blocks_per_item + block));
    unsigned char* const modified = &item->modification_bitmap[bitmap_byte(block)];
    if ((*modified & bitmap_mask(block)) != 0) {
      *modified = static_cast<unsigned char>(*modified & ~bitmap_mask(block));
      --item->dirty_blocks;
    }
  }
  if (!was_clean && dirty_items(fork) != 0) {
    count_out_if_clean(fork, item);
  }
}

// Forgets what the cache holds behind the new end of the fork: what comes there lies elsewhere on the device. What was
// modified there has been flushed. The cache's block that lies across the end is read again too, unless it was modified
// before the end; then it has zeros behind it.
static void forget_behind(kvfs_fork* fork, std::uint64_t end) {
  const kvfs_fork_private* const priv = fork->priv;
  const std::uint64_t index = end / priv->item_size;
  kvfs_fork_cache_item* const item = item_at(fork, index);
  if (item == nullptr) {
    return;
  }
  const std::uint32_t unit = transfer_unit(fork);
  const std::uint32_t offset = static_cast<std::uint32_t>(end % priv->item_size);
  std::uint32_t first = offset / unit;
  if (offset % unit != 0) {
    std::memset(item->data + offset, 0, kvfs_min(unit - offset % unit, item->data_size - offset));
    first += (item->modification_bitmap[bitmap_byte(first)] & bitmap_mask(first)) != 0 ? 1 : 0;
  }
  forget_blocks(fork, index, first);
  announce_change(fork);
}

void kvfs::bitmap::apply_resize(fork_resize* resize) {
  kvfs_fork_private* const priv = resize->fork->priv;
  const std::uint64_t old_end = priv->logical_size;
  for (std::uint32_t i = 0; i < priv->items_end; ++i) {
    kvfs_fork_cache_item* const item = priv->items[i];
    if (i < resize->items_length) {
      resize->items[i] = item;
    } else if (item != nullptr) {
      item->next_dropped = priv->dropped_items;
      priv->dropped_items = item;
    }
  }
  std::free(priv->items);
  std::free(priv->fork_extents);
  priv->items = resize->items.release();
  priv->fork_extents = resize->extents.release();
  priv->fork_extents_count = resize->extents_count;
  priv->fork_extents_blocks = 0;
  priv->cursor = {};
  priv->items_length = static_cast<std::uint32_t>(resize->items_length);
  priv->items_end = kvfs_min(priv->items_end, priv->items_length);
  priv->logical_size = new_logical_size(*resize);
  if (priv->logical_size < old_end) {
    forget_behind(resize->fork, priv->logical_size);
  }
}

kvfs_result kvfs::bitmap::flush_trailing_part(const char* speaker, const fork_resize& resize, std::uint64_t length) {
  const kvfs_result result = kvfs_fork_flush_internal(resize.fork, new_logical_size(resize), length);
  if (result != kvfs_ok) {
    KVFS_ERROR_BY(speaker, "Error while flushing trailing part of fork.\n");
  }
  return result;
}
