// Shrinking a fork.

#include <cstdint>

#include "base/rwlock_guard.h"
#include "bitmap.h"
#include "bitmap/fork_resize.h"
#include "fork.h"
#include "fork/extent.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;
using namespace kvfs::fork;

// Cuts the extents of a fork data at a number of blocks.
static void cut_extents(HFSPlusForkData* fork_data, std::uint64_t total_blocks) {
  std::uint64_t position = 0;
  for (HFSPlusExtentDescriptor& extent : fork_data->extents.extents) {
    const std::uint64_t end = position + extent.blockCount.get();
    if (position >= total_blocks && end > total_blocks) {
      extent = {};
    } else if (end > total_blocks) {
      extent.blockCount.set(static_cast<std::uint32_t>(total_blocks - position));
    }
    position = end;
  }
}

// Frees the blocks behind the new end. The extents that hold them are those of the fork data as it was
// (X-fork-9).
static kvfs_result free_cut_blocks(const fork_resize& resize, std::uint32_t blocks) {
  const std::uint32_t first = static_cast<std::uint32_t>(resize.total_blocks);
  std::uint32_t freed = 0;
  const kvfs_result result = FreeExtentAllocationBlocks(&resize.saved, first, blocks, resize.volume->bitmap, &freed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_shrink, "Error while freeing %lu blocks in fork starting at block %lu.\n", to_ul(blocks),
                  to_ul(first));
    return result;
  }
  if (freed != blocks) {
    KVFS_ERROR_AS(kvfs_fork_shrink, "Unable to free all allocated blocks. Freed %lu / %lu blocks.\n", to_ul(freed),
                  to_ul(blocks));
    return kvfs_internal;
  }
  return kvfs_ok;
}

static kvfs_result release_cut_blocks(fork_resize* resize, std::uint32_t blocks) {
  kvfs_result result = blocks != 0 ? check_bits(KVFS_NAME_OF(kvfs_fork_shrink), *resize) : kvfs_ok;
  if (result != kvfs_ok) {
    return result;
  }
  HFSPlusForkData changed = resize->saved;
  cut_extents(&changed, resize->total_blocks);
  changed.logicalSize.set(new_logical_size(*resize));
  changed.totalBlocks.set(static_cast<std::uint32_t>(resize->total_blocks));
  store_fork_data(*resize, changed);
  take_extents(resize, changed);
  result = free_cut_blocks(*resize, blocks);
  if (result != kvfs_ok) {
    store_fork_data(*resize, resize->saved);
  }
  return result;
}

// Shrinks the fork; the caller holds items_lock for writing.
static kvfs_result shrink_locked(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t blocks) {
  fork_resize resize = {};
  resize.fork = fork;
  resize.volume = volume;
  resize.saved = *fork->priv->fork_data;
  const std::uint32_t old_total = resize.saved.totalBlocks.get();
  set_total_blocks(&resize, blocks > old_total ? kMaximum32 + 1 : old_total - blocks);
  if (resize.total_blocks > old_total || resize.items_length > fork->priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_shrink, "Internal error: New items array is larger than old items array.\n");
    return kvfs_internal;
  }
  kvfs_result result =
      flush_trailing_part(KVFS_NAME_OF(kvfs_fork_shrink), resize, std::uint64_t{blocks} * fork->block_size);
  if (result == kvfs_ok) {
    result = allocate_resized_arrays(KVFS_NAME_OF(kvfs_fork_shrink), &resize);
  }
  if (result == kvfs_ok) {
    result = release_cut_blocks(&resize, blocks);
  }
  if (result == kvfs_ok) {
    apply_resize(&resize);
  }
  return result;
}

kvfs_result kvfs_fork_shrink(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t blocks) {
  if (!is_in_volume_header(fork->priv->cnid)) {
    KVFS_ERROR(
        "Invalid CNID for kvfs_fork_shrink (%lu). We currently only support forks with their fork data in the volume header.\n",
        to_ul(fork->priv->cnid));
    return kvfs_internal;
  }
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES("Error while locking items lock.\n", critical,
                                                                    "Unexpected - Error while unlocking items lock!\n");
  return kvfs_with_write_lock(fork->priv->items_lock, messages, [&] { return shrink_locked(fork, volume, blocks); });
}
