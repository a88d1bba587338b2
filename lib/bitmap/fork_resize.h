// The size that a fork is about to get, and putting it into effect.

#ifndef KVFS_BITMAP_FORK_RESIZE_H
#define KVFS_BITMAP_FORK_RESIZE_H

#include <cstdint>

#include "fork.h"
#include "fork/private.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "result.h"
#include "volume_header.h"

namespace kvfs::bitmap {

// Forks whose fork data is in the volume header.
inline bool is_in_volume_header(std::uint32_t cnid) {
  return cnid == kHFSExtentsFileID || cnid == kHFSCatalogFileID || cnid == kHFSAllocationFileID ||
         cnid == kHFSStartupFileID || cnid == kHFSAttributesFileID;
}

// The size that a fork is about to get, with what has to be allocated for it.
struct fork_resize {
  kvfs_fork* fork;
  kvfs_volume* volume;
  HFSPlusForkData saved;                        // the fork data as it was
  std::uint64_t total_blocks;                   // the new size
  std::uint64_t items_length;                   // for the new size
  kvfs_owned<kvfs_fork_cache_item*> items;      // the new item array
  kvfs_owned<HFSPlusExtentDescriptor> extents;  // the new extents
  std::uint32_t extents_count;
};

// Whether the bits of blocks can be changed: not on a volume without an allocation file (X-bitmap-1), and not for the
// allocation file itself, whose lock is held (X-fork-7). Asked right before that, and before anything is stored.
kvfs_result check_bits(const char* speaker, const fork_resize& resize);

inline std::uint64_t new_logical_size(const fork_resize& resize) {
  return resize.total_blocks * resize.fork->block_size;
}

inline void set_total_blocks(fork_resize* resize, std::uint64_t total_blocks) {
  resize->total_blocks = total_blocks;
  resize->items_length = kvfs_divide_rounding_up(new_logical_size(*resize), resize->fork->priv->item_size);
}

inline void store_fork_data(const fork_resize& resize, const HFSPlusForkData& fork_data) {
  kvfs_volume_update_fork_data(resize.volume, resize.fork->priv->cnid, &fork_data);
}

// Allocates the arrays of the new size, before anything that would have to be undone (X-fork-12).
kvfs_result allocate_resized_arrays(const char* speaker, fork_resize* resize);

// Takes the extents of the new fork data, and behind them those in the overflow file, which do not change
// (Q-fork-12).
void take_extents(fork_resize* resize, const HFSPlusForkData& fork_data);

// Puts the new size into effect: nothing can fail any more. Items behind the new end are not destroyed, since somebody
// may hold a mapping of them; they wait for the end of the fork (Q-fork-13).
void apply_resize(fork_resize* resize);

// Writes the modified blocks of a part of the fork that begins at its new end; `length` in bytes.
kvfs_result flush_trailing_part(const char* speaker, const fork_resize& resize, std::uint64_t length);

}  // namespace kvfs::bitmap

#endif  // KVFS_BITMAP_FORK_RESIZE_H
