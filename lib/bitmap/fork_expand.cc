// Growing a fork.

#include <cstdint>

#include "base/rwlock_guard.h"
#include "bitmap.h"
#include "bitmap/fork_resize.h"
#include "fork.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;
using namespace kvfs::fork;

static kvfs_result check_expanded_size(const fork_resize& resize) {
  const std::uint64_t items_size = resize.items_length * sizeof(kvfs_fork_cache_item*);
  if (resize.items_length < resize.fork->priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_expand, "Internal error: New items array is smaller than old items array.\n");
    return kvfs_internal;
  }
  if (resize.total_blocks > kMaximum32) {
    KVFS_ERROR_AS(kvfs_fork_expand,
                  "Cannot expand fork beyond 2^32 blocks (attempted to expand fork to %llu blocks).\n",
                  to_ull(resize.total_blocks));
    return kvfs_limit;
  }
  if (items_size > kMaximum32) {
    KVFS_CRITICAL_AS(kvfs_fork_expand, "size_t overflow in new_items_size (%llu).\n", to_ull(items_size));
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Whether there is a run to mark. What a search gives that has found none, no blocks at block 0, cannot be marked, and
// what was entered for it is taken back.
static bool is_run(const kvfs_allocation_location& run) {
  return run.start_block != 0 || run.block_count != 0;
}

// Whether entering a run would lose extents in use. Where the logical size ends before the blocks do, the run is for a
// place before the last extent: it would be written over an extent, or shift those behind it (X-fork-8).
static bool loses_extents(const kvfs_fork* fork, const kvfs_allocation_location& run) {
  const std::uint32_t count = fork->priv->fork_extents_count;
  if (run.extent_index >= count || run.extent_index >= kHFSPlusExtentDensity) {
    return false;  // a new extent, or one that cannot be entered
  }
  const HFSPlusExtentDescriptor& extent = fork->priv->fork_extents[run.extent_index];
  const bool extends = extent.startBlock.get() + extent.blockCount.get() == run.start_block;
  return extends ? run.block_count != 0 && run.extent_index != count - 1 : is_run(run);
}

// Enters the run into the fork data, without their logical size (Q-fork-11), and marks its blocks as used.
static kvfs_result claim_run(fork_resize* resize, const kvfs_allocation_location& run) {
  if (loses_extents(resize->fork, run)) {
    KVFS_ERROR_AS(kvfs_fork_expand, "The logical size of the fork ends before its last extent.\n");
    return kvfs_inconsistent;
  }
  HFSPlusForkData changed = resize->saved;
  kvfs_result result = UpdateForkExtents(&changed, &run);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand, "Error while updating fork extents.\n");
    return result;
  }
  result = is_run(run) ? check_bits(KVFS_NAME_OF(kvfs_fork_expand), *resize) : kvfs_ok;
  if (result != kvfs_ok) {
    return result;
  }
  store_fork_data(*resize, changed);
  take_extents(resize, changed);
  result = AllocateExtentAllocationBlocks(run.start_block, run.block_count, resize->volume);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand,
                  "Error while marking %lu blocks starting at block %lu as allocated in the allocation file.\n",
                  to_ul(run.block_count), to_ul(run.start_block));
    store_fork_data(*resize, resize->saved);
  }
  return result;
}

// Grows the fork by a run that was found; the caller holds items_lock for writing.
static kvfs_result expand_by_run(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t clump_blocks,
                                 const kvfs_allocation_location& run) {
  fork_resize resize = {};
  resize.fork = fork;
  resize.volume = volume;
  resize.saved = *fork->priv->fork_data;
  set_total_blocks(&resize, std::uint64_t{resize.saved.totalBlocks.get()} + clump_blocks);
  kvfs_result result = check_expanded_size(resize);
  const std::uint64_t end = new_logical_size(resize);
  const std::uint64_t old_end = fork->priv->logical_size;
  if (result == kvfs_ok && end < old_end) {  // X-fork-10: otherwise there is nothing behind the new end
    result = flush_trailing_part(KVFS_NAME_OF(kvfs_fork_expand), resize, old_end - end);
  }
  if (result == kvfs_ok) {
    result = allocate_resized_arrays(KVFS_NAME_OF(kvfs_fork_expand), &resize);
  }
  if (result == kvfs_ok) {
    result = claim_run(&resize, run);
  }
  if (result == kvfs_ok) {
    apply_resize(&resize);
  }
  return result;
}

// Finds the blocks for a fork to grow by.
static kvfs_result find_run(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t clump, kvfs_allocation_location* run) {
  const kvfs_fork_private* const priv = fork->priv;
  const kvfs_result result =
      FindWriteLocation(priv->cnid, kHFSDataForkType, priv->fork_data, volume, priv->logical_size, clump, run);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand, "Error while searching for write location for expanded fork.\n");
  }
  return result;
}

kvfs_result kvfs_fork_expand(kvfs_fork* fork, kvfs_volume* volume, kvfs_allocation_location* out_location) {
  const std::uint32_t clump = fork->priv->fork_data->clumpSize.get();
  if (!is_in_volume_header(fork->priv->cnid)) {
    KVFS_ERROR(
        "Invalid CNID for kvfs_fork_expand (%lu). We currently only support forks with their fork data in the volume header.\n",
        to_ul(fork->priv->cnid));
    return kvfs_internal;
  }
  if (fork->block_size == 0) {  // X-fork-14
    KVFS_ERROR("Cannot expand fork by blocks of 0 bytes.\n");
    return kvfs_inconsistent;
  }
  kvfs_allocation_location run = {};
  kvfs_result result = find_run(fork, volume, clump, &run);
  if (result != kvfs_ok) {
    return result;
  }
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES("Error while locking items lock.\n", critical,
                                                                    "Unexpected - Error while unlocking items lock!\n");
  result = kvfs_with_write_lock(fork->priv->items_lock, messages,
                                [&] { return expand_by_run(fork, volume, clump / fork->block_size, run); });
  if (result == kvfs_ok) {
    *out_location = run;
  }
  return result;
}
