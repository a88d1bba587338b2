// The allocation file: one bit for each allocation block of the volume, set while the block is in use.
//
// Allocation block n is bit 7 - (n mod 8) of byte n / 8. Changes stay in the cache of the allocation file's fork until
// kvfs_bitmap_flush.
//
// Threads and locks: those of the fork; a routine that makes several changes is not atomic against another thread.

#ifndef KVFS_BITMAP_H
#define KVFS_BITMAP_H

#include <cstdint>

#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_bitmap_private;
struct kvfs_device;
struct kvfs_extents;
struct kvfs_fork;
struct kvfs_volume;

// An open allocation file.
struct kvfs_bitmap {
  kvfs_bitmap_private* priv;  // owned: the file's fork
};

// Opens the allocation file. Its transfer unit is the allocation block.
//
//   volume_header, device, extents  borrowed for the life of the bitmap
//   out_bitmap  receives the bitmap, owned by the caller; unchanged on failure
//
// Returns kvfs_ok, kvfs_no_memory or the failure of opening the fork.
kvfs_result kvfs_bitmap_create(HFSPlusVolumeHeader* volume_header, kvfs_device* device, kvfs_extents* extents,
                               kvfs_bitmap** out_bitmap);

// Closes the allocation file without flushing it; the handle becomes null.
void kvfs_bitmap_destroy(kvfs_bitmap** bitmap);

// Writes the changes to the device, as kvfs_fork_flush does.
kvfs_result kvfs_bitmap_flush(kvfs_bitmap* bitmap);

// Whether a fork is the one that a bitmap works on: such a fork cannot change its own size.
bool kvfs_bitmap_works_on(const kvfs_bitmap* bitmap, const kvfs_fork* fork);

// ---- Allocating and freeing ----------------------------------------------------------------------------------------

// Frees one block. The cleared byte is written to the first byte of the 4096-byte chunk that holds it, not to its own
// place (Q-bitmap-1). The volume header's count of free blocks does not change (Q-bitmap-4).
//
//   block  allocation block, host order
//
// Returns kvfs_ok; kvfs_failed, with nothing written, when the block is free already; kvfs_invalid when the allocation
// file does not hold the whole chunk, as may be with allocation blocks smaller than one; or the failure of the fork.
kvfs_result FreeAllocationBlock(std::uint32_t block, kvfs_bitmap* bitmap);

// Marks a run of blocks as used and takes them out of the volume header's count of free blocks in memory. When the
// run begins at the header's nextAllocation, that moves behind the run. On failure the blocks marked so far are freed
// again, as far as that is possible.
//
//   start_block, count  the run; it must lie within one MiB of the allocation file (Q-bitmap-9)
//
// Returns kvfs_ok; kvfs_limit, with nothing read or written, when the run ends behind the volume's last block
// (X-bitmap-5); kvfs_failed when a block is used already; kvfs_invalid when the volume was opened without its
// allocation file; or the failure of the fork.
kvfs_result AllocateExtentAllocationBlocks(std::uint32_t start_block, std::uint32_t count, kvfs_volume* volume);

// Frees blocks of a fork, found through the eight extents of its fork data; extents in the overflow file are not
// visited (Q-bitmap-5). The volume header's count of free blocks does not change.
//
//   fork_data           on-disk order
//   first_block, count  blocks of the fork
//   out_freed           may be null; receives the number of blocks freed, after a failure too
//
// Returns kvfs_ok or the failure of freeing a block.
kvfs_result FreeExtentAllocationBlocks(const HFSPlusForkData* fork_data, std::uint32_t first_block, std::uint32_t count,
                                       kvfs_bitmap* bitmap, std::uint32_t* out_freed);

// ---- Searching -----------------------------------------------------------------------------------------------------

// Where a fork can grow. Numbers in host order.
struct kvfs_allocation_location {
  std::uint32_t start_block;   // of the run
  std::uint32_t length;        // bytes asked for
  std::uint64_t length64;      // the same
  std::uint32_t extent_index;  // of the descriptor that the run extends or fills, eight to a record
  std::uint32_t block_count;   // of the run; 0 when no run was found
  std::uint32_t reserved[2];   // 0
};

// Searches for a run of free blocks. Nothing is marked. The run tested is rounded up to whole bytes of the bitmap, so
// that up to seven blocks behind it have to be free too; at the end of the volume a run is reported in full although
// fewer blocks are left there, which marking it then refuses (Q-bitmap-6, X-bitmap-5).
//
//   wanted        blocks
//   hint          block to start from; 0 starts from the volume header's nextAllocation, and one behind the last block
//                 from the last block
//   out_location  receives start block and block count, both 0 when there is no such run; the rest is 0. The start
//                 block of a search for 0 blocks is the one that it starts from. Unchanged on failure
//
// Returns kvfs_ok, found or not (Q-bitmap-8); kvfs_invalid when the volume was opened without its allocation file; or
// the failure of the fork, as on a volume without blocks and, from some blocks on, when none are wanted (Q-bitmap-10).
kvfs_result FindContiguousUnallocated(kvfs_volume* volume, std::uint32_t wanted, std::uint32_t hint,
                                      kvfs_allocation_location* out_location);

// Searches for blocks by which a fork can grow, next to its end if possible. Nothing is marked.
//
//   cnid, fork_type  of the fork, for its records in the extents overflow file; host order
//   fork_data        on-disk order
//   offset           of the byte in whose extent the walk over the extents stops; the fork's size to grow at its end
//   length           bytes
//   out_location     receives the location; its block count is 0 when there is no run. Unchanged on failure
//
// Returns kvfs_ok, found or not; kvfs_invalid without fork data or allocation file; kvfs_inconsistent when the extents
// contradict themselves; kvfs_internal when an overflow record is missing; or the failure of the search.
kvfs_result FindWriteLocation(std::uint32_t cnid, std::uint8_t fork_type, const HFSPlusForkData* fork_data,
                              kvfs_volume* volume, std::uint64_t offset, std::uint32_t length,
                              kvfs_allocation_location* out_location);

// Gives a fork data extents up to a size, which are searched for but not marked as used.
//
//   fork_data       on-disk order; changed
//   offset, length  bytes: the extents are to reach offset + length
//   out_location    receives the run added, or the extent that reaches there already; its block count is 0 when nothing
//                   was added, for want of a run too, which leaves the next extent empty. Unchanged on failure
//
// Returns kvfs_ok, added or not; kvfs_invalid without fork data or allocation file; kvfs_unsupported_extents when eight
// extents do not suffice; or the failure of the search.
kvfs_result UpdateForks(kvfs_volume* volume, HFSPlusForkData* fork_data, std::uint64_t offset, std::uint32_t length,
                        kvfs_allocation_location* out_location);

#pragma GCC visibility pop

#endif  // KVFS_BITMAP_H
