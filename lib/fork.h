// A fork: the data of a special file, found through its extents and cached in memory.
//
// The data is cached in items of 1 MiB, one slot for each MiB of the fork. An item is created by the first access that
// touches it and lives as long as the fork; its bytes never move, so that pointers into it stay good. Within an item
// validity and modification are tracked, and bytes transferred, in blocks of one transfer unit.
//
// Invariants:
// - a block is read from the device at most once, before the first access to it, while the fork does not shrink; a
//   write does not make it valid, so that a block must be mapped or read before all of it is overwritten;
// - a fork that shrinks forgets the blocks behind its end, those across it included, which are read again. One across
//   the end that was modified keeps its bytes before it and has zeros behind it;
// - a fork that grows keeps what it has read: a block across its old end has zeros behind that;
// - an item's dirty_blocks counts the set bits of its modification bitmap, and the fork's dirty_items counts the items
//   with dirty blocks;
// - references count the mappings that were not given back. Each block of a range that is mapped or read adds one, each
//   unmap and read takes one away for each item: callers map one block at a time. The count keeps nothing alive.
// What of this must stay as it is: Q-fork-4, Q-fork-7 and Q-fork-9 of docs/quirks.md.
//
// Its source is in lib/fork/. Only opening, which may have to ask the extents overflow file, is in lib/extents/, and
// growing and shrinking, which change the allocation file, in lib/bitmap/.
//
// Threads: any number may map, unmap, read, write, fill and flush one fork; opening, destroying, growing and shrinking
// it is for one thread while no other uses it. Who holds a mapping owns the access to its bytes.
// Locks, in the order in which they are taken: items_lock, dirty_lock, an item's item_lock.

#ifndef KVFS_FORK_H
#define KVFS_FORK_H

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_allocation_location;
struct kvfs_device;
struct kvfs_extents;
struct kvfs_fork_private;
struct kvfs_volume;

// An open fork.
struct kvfs_fork {
  const std::uint64_t* logical_size;  // bytes; follows the fork when it grows or shrinks
  std::uint32_t block_size;           // bytes in an allocation block of the volume
  kvfs_fork_private* priv;            // owned: device, extents, cache items and locks
};

// ---- Life ----------------------------------------------------------------------------------------------------------

// Opens a fork: finds all of its extents and prepares an empty cache. None of its data is read.
//
//   device          borrowed for the life of the fork
//   extents         the extents overflow file, asked only when the fork has more than eight extents; may be null
//   partial         nonzero lets a fork without `extents` be opened with the extents of its fork data alone
//   volume_header   on-disk order; read only during the call
//   cnid            catalog node ID of the file, host order
//   fork_data       on-disk order, in the volume header; borrowed for the life of the fork
//   min_block_size  bytes: the transfer unit is the larger of this and the device's sector size
//   out_fork        receives the fork, owned by the caller; unchanged on failure
//
// Returns kvfs_ok, or kvfs_no_memory whatever went wrong inside; the log has the true reason.
kvfs_result kvfs_fork_create(kvfs_device* device, kvfs_extents* extents, int partial,
                             const HFSPlusVolumeHeader* volume_header, std::uint32_t cnid, HFSPlusForkData* fork_data,
                             std::uint32_t min_block_size, kvfs_fork** out_fork);

// Frees the fork and its cache; the handle becomes null. What was written and not flushed is lost (Q-fork-9).
void kvfs_fork_destroy(kvfs_fork** fork);

// ---- Access --------------------------------------------------------------------------------------------------------

// Makes a range of the fork readable in memory without copying it. The range must not cross the border of a cache item.
//
//   offset, length     bytes; inside the logical size
//   out_pointer        receives the address of the first byte, good until the fork is destroyed; it belongs to the
//                      fork and is given back with kvfs_fork_unmap; unchanged on failure
//   out_mapped_length  may be null; receives `length` on success and 0 on failure
//
// Locks: items_lock for writing while missing blocks are read, then for reading.
// Returns kvfs_ok; kvfs_invalid when the range leaves the fork or crosses items; kvfs_internal; or the failure of
// reading the missing blocks or of a lock.
kvfs_result kvfs_fork_map(kvfs_fork* fork, std::uint64_t offset, void** out_pointer, std::size_t length,
                          std::size_t* out_mapped_length);

// Gives back a mapping.
//
//   offset, length  those of the mapping, bytes
//   pointer         in: the address that the mapping gave; out: null once the mapping is given back
//
// Locks: items_lock for reading, the item's lock for writing.
// Returns kvfs_ok; kvfs_invalid when the range or the pointer is not one of a mapping or nothing is mapped;
// kvfs_internal; or the failure of a lock.
kvfs_result kvfs_fork_unmap(kvfs_fork* fork, std::uint64_t offset, void** pointer, std::size_t length);

// Copies a range of the fork, which may span cache items.
//
//   offset, length  bytes; inside the logical size
//   buffer          receives `length` bytes; of no defined content on failure
//   out_bytes_read  may be null; receives `length` on success and 0 on failure
//
// Locks: items_lock for writing while missing blocks are read, then for reading with each item's lock for writing.
// Returns as kvfs_fork_map does.
kvfs_result kvfs_fork_read(kvfs_fork* fork, std::uint64_t offset, void* buffer, std::size_t length,
                           std::size_t* out_bytes_read);

// Copies bytes into the cache and marks their blocks modified; kvfs_fork_flush brings them to the device. Blocks that
// are only partly overwritten are read first. A block that is overwritten whole is not taken for read: unless it was
// mapped or read before, the next map or read fetches it from the device, over the change.
//
//   offset, length     bytes; inside the logical size; the range may span cache items
//   out_bytes_written  may be null; receives `length` on success and 0 on failure
//
// Locks: items_lock and dirty_lock, both for writing.
// Returns kvfs_ok; kvfs_invalid when the range leaves the fork; kvfs_inconsistent when the transfer unit is 0 or a
// block to be read does not fit a cache item; kvfs_no_memory; kvfs_internal; or the failure of reading a block or of a
// lock. After a failure bytes copied so far stay in the cache, marked modified.
kvfs_result kvfs_fork_write(kvfs_fork* fork, std::uint64_t offset, const void* buffer, std::size_t length,
                            std::size_t* out_bytes_written);

// Writes one byte value over a range.
//
//   offset, length    bytes; inside the logical size
//   out_bytes_filled  may be null; receives the bytes that were written, 0 when the range leaves the fork
//
// Returns kvfs_ok; kvfs_invalid when the range leaves the fork; or the failure of kvfs_fork_write. A lack of memory for
// the pattern is met with a smaller pattern and is no failure.
kvfs_result kvfs_fork_fill(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length, std::uint8_t value,
                           std::uint64_t* out_bytes_filled);

// Writes every modified block to the device, in ascending order within each extent, extents in the fork's order, one
// transfer for each block (two where it lies in two extents). It stops at the first failure; the blocks written before
// are clean, and the next flush tries the rest again.
//
// Locks: items_lock for reading, dirty_lock for writing, each item's lock for writing while its blocks are written.
// Returns kvfs_ok; kvfs_internal when the sector size or the transfer unit is not a power of two; kvfs_inconsistent
// when extents and sizes contradict each other or blocks are not made of whole sectors; kvfs_invalid when the fork data
// gives the fork fewer bytes than it was opened or grown to; kvfs_io_error; or the failure of a lock.
kvfs_result kvfs_fork_flush(kvfs_fork* fork);

// ---- Growing and shrinking -----------------------------------------------------------------------------------------
//
// Both work on the forks whose fork data is in the volume header: extents overflow, catalog, allocation, startup and
// attributes file; and on their eight extents there. The bits of the allocation file and the counts and the fork data
// of the volume header change in memory. The volume must have been opened with its allocation file.
//
// Locks: items_lock for writing while the fork changes.

// Grows a fork by its clump size. In the volume header the fork's block count and extents grow, its logical size does
// not: the caller sets it (see kvfs_volume_update_fork_data) before the new part is read or written, and before
// modified blocks are flushed.
//
//   out_location  receives the blocks that were added
//
// Returns kvfs_ok; kvfs_internal for another file, without a free run of that size, or when the array of cache items
// cannot be that large; kvfs_invalid without an allocation file; kvfs_unsupported_extents when a ninth extent would be
// needed; kvfs_inconsistent when the logical size ends before the last extent, or blocks have no bytes; kvfs_limit for
// the allocation file in use, when the run that was found ends behind the volume's last block, or when a fork would
// have more than 2^32 - 1 blocks; kvfs_no_memory; or the failure of the allocation file or the lock. On
// failure the fork and its fork data are as they were, unless only the release of the lock has failed.
kvfs_result kvfs_fork_expand(kvfs_fork* fork, kvfs_volume* volume, kvfs_allocation_location* out_location);

// Takes blocks off the end of a fork, after writing their modified bytes to the device. Mappings of the part that goes
// stay readable until the fork is destroyed.
//
//   blocks  allocation blocks to take off
//
// Returns kvfs_ok; kvfs_invalid without an allocation file, or when blocks are modified and none are to go or the fork
// data's logical size ends before them; kvfs_limit for the allocation file in use; kvfs_internal for another file, for
// more blocks than the fork has, or when not all of them could be freed; kvfs_no_memory; or the failure of the flush,
// the allocation file or the lock. On failure the fork data is as it was, unless only the release of the lock has
// failed; blocks that were freed stay free.
kvfs_result kvfs_fork_shrink(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t blocks);

// Records an allocated run in the eight extents of a fork data, on-disk order: in the descriptor that `location` names,
// which it either continues or fills.
//
// Returns kvfs_ok; kvfs_invalid without fork data; kvfs_unsupported_extents beyond the eighth extent.
kvfs_result UpdateForkExtents(HFSPlusForkData* fork_data, const kvfs_allocation_location* location);

#pragma GCC visibility pop

#endif  // KVFS_FORK_H
