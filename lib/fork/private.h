// Inside a fork: for the fork unit and its tests.

#ifndef KVFS_FORK_PRIVATE_H
#define KVFS_FORK_PRIVATE_H

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "format.h"
#include "result.h"

struct kvfs_rwlock;

// Bytes in a cache item, whatever the volume's block size.
inline constexpr std::uint32_t kForkItemSize = 1048576;

// One MiB of a fork. Block b of the item is bit b mod 8, counted from the least significant one, of byte b / 8 in both
// bitmaps.
struct kvfs_fork_cache_item {
  kvfs_rwlock* item_lock;
  unsigned char* data;          // owned; data_size bytes that never move
  std::uint32_t data_size;      // kForkItemSize
  unsigned char* valid_bitmap;  // owned; set: the block was read from the device
  std::size_t valid_bitmap_size;
  unsigned char* modification_bitmap;  // owned; set: the block was written and not flushed yet
  std::size_t modification_bitmap_size;
  std::uint64_t references;
  std::uint32_t dirty_blocks;          // bits set in modification_bitmap
  kvfs_fork_cache_item* next_dropped;  // links the items that shrinking has taken off the fork
};

// Where the last transfer ended, so that the next one need not walk over all extents again.
struct kvfs_fork_extent_cursor {
  std::uint32_t index;     // of an extent
  std::uint64_t position;  // where it begins in the fork, bytes
};

struct kvfs_fork_private {
  kvfs_device* device;                    // borrowed
  std::uint32_t cnid;                     // host order
  HFSPlusForkData* fork_data;             // borrowed, in the volume header
  std::uint64_t logical_size;             // bytes
  HFSPlusExtentDescriptor* fork_extents;  // owned; all extents in the fork's order, in on-disk byte order
  std::uint32_t fork_extents_count;
  kvfs_rwlock* items_lock;       // guards `items` and the creation of items
  kvfs_fork_cache_item** items;  // owned; null where no item was created yet
  std::uint32_t items_length;
  std::uint32_t item_size;                    // kForkItemSize
  std::uint32_t modificationBitmapBlockSize;  // the transfer unit, bytes
  kvfs_rwlock* dirty_lock;                    // guards modification bitmaps and dirty counts
  std::size_t dirty_items;                    // items with dirty blocks

  std::uint32_t items_end;              // no slot from here on has an item: a huge array is never walked whole
  kvfs_fork_cache_item* dropped_items;  // owned; items behind the end since the fork was shrunk, still mapped perhaps
  kvfs_fork_extent_cursor cursor;       // used by transfers alone, of which the locks allow one at a time
  std::uint64_t fork_extents_blocks;    // like the cursor; the sum of the extents, 0 until the first transfer forms it
  std::uint8_t has_changed;             // nonzero from a change of valid bytes on, until the fork's tree has seen it
};

// ---- Opening -------------------------------------------------------------------------------------------------------

// Makes the private part of a fork; parameters as kvfs_fork_create has them, with the transfer unit in bytes.
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_invalid when the fork is too large for an item array or no extents overflow
// file is given and `partial` is 0; or the failure of finding the extents or of creating a lock.
kvfs_result kvfs_fork_private_create(kvfs_device* device, kvfs_extents* extents, int partial, std::uint32_t cnid,
                                     HFSPlusForkData* fork_data, std::uint32_t transfer_unit,
                                     kvfs_fork_private** out_private);

// Collects all extents of a fork, those in the extents overflow file included.
//
//   out_array  receives the extents in on-disk byte order, owned by the caller and freed with free()
//   out_count  receives their number; both are unchanged on failure
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_inconsistent when the extents end early or one of them is malformed;
// kvfs_internal when an extents overflow file is needed and there is none; or the failure of its lookup.
kvfs_result kvfs_fork_resolve_extents(kvfs_extents* extents, int partial, std::uint32_t cnid,
                                      const HFSPlusForkData* fork_data, HFSPlusExtentDescriptor** out_array,
                                      std::uint32_t* out_count);

// Appends extents to an owned array, whose room is that for the next power of two: many of them that come in small
// numbers are copied a few times, not once for each of them.
//
//   array, count  in: an array that was made by this routine, with the number of its extents, or null and 0; out: the
//                 array, which may have moved, and its new number; both are unchanged on failure
//   extents       in on-disk byte order; `added` of them
//
// Returns false when memory is short.
bool kvfs_fork_append_extents(HFSPlusExtentDescriptor** array, std::uint32_t* count,
                              const HFSPlusExtentDescriptor* extents, std::uint32_t added);

// ---- Cache items ---------------------------------------------------------------------------------------------------

// Makes an item in which no block is valid or modified. Returns kvfs_ok, kvfs_no_memory or the failure of the lock.
kvfs_result kvfs_fork_cache_item_create(const kvfs_fork* fork, kvfs_fork_cache_item** out_item);

// Frees an item, with a warning when it still has references; the handle becomes null.
void kvfs_fork_cache_item_destroy(kvfs_fork_cache_item** item);

// Makes every block that overlaps a range valid and adds a reference for each of them. A failure leaves blocks read and
// references added so far as they are.
//
// Locks: items_lock for writing.
// Returns kvfs_ok; kvfs_no_memory; kvfs_internal; kvfs_inconsistent; or the failure of the transfer or the lock.
kvfs_result kvfs_fork_read_into_cache(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length);

// ---- Transfers -----------------------------------------------------------------------------------------------------

// Handles one piece of a range that lies in a single extent: offsets on the device and in the fork, and length, in
// bytes. A failure ends the walk over the pieces.
using kvfs_fork_io_process = kvfs_result (*)(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                                             std::uint64_t length);

// Calls `process` for each piece of a range of the fork, in the fork's order.
//
// Returns kvfs_ok; kvfs_invalid when the fork is empty or the range leaves it; kvfs_inconsistent when extents and sizes
// contradict each other; or the failure of `process`.
kvfs_result kvfs_fork_do_device_io(kvfs_fork* fork, std::uint64_t io_offset, std::uint64_t io_length,
                                   kvfs_fork_io_process process, void* context);

struct kvfs_fork_read_context {
  kvfs_device* device;
  unsigned char* destination;  // takes all pieces, one behind the other
  std::uint32_t delivered;     // bytes stored there so far
};

// Reads a piece; the context is a kvfs_fork_read_context.
kvfs_result kvfs_fork_process_read_io(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                                      std::uint64_t length);

struct kvfs_fork_write_context {
  kvfs_fork* fork;
  std::uint32_t sector_shift;  // log2 of the device's sector size
  std::uint32_t block_shift;   // log2 of the sectors in a block
  std::uint64_t sectors_per_block;
  std::uint64_t range_offset;  // where the flushed range begins in the fork, bytes
};

// Writes the modified blocks of a piece, which begins on a sector border; the context is a kvfs_fork_write_context.
//
// A block may straddle two extents when the transfer unit is larger than an allocation block. Each piece then writes
// its own sectors of the block, and the block is clean once its last sectors were written.
kvfs_result kvfs_fork_process_write_io(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                                       std::uint64_t length);

// Writes the modified blocks of one range; the caller holds items_lock. Nothing is written when a modified block shares
// a sector with somebody else's (X-fork-5).
//
// Locks: dirty_lock for writing, each item's lock for writing.
// Returns as kvfs_fork_flush does.
kvfs_result kvfs_fork_flush_internal(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length);

#endif  // KVFS_FORK_PRIVATE_H
