// The extents overflow file: the B-tree that holds the extents of forks with more than eight.

#ifndef KVFS_EXTENTS_H
#define KVFS_EXTENTS_H

#include <cstdint>

#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_btree;
struct kvfs_btree_search_result;
struct kvfs_device;
struct kvfs_extents_private;

// An open extents overflow file.
//
// Threads: lookups may run concurrently; opening and destroying may not. Locks: those of its B-tree.
struct kvfs_extents {
  kvfs_btree* btree;           // owned
  kvfs_extents_private* priv;  // owned; not used
};

// Opens the extents overflow file and checks that its header is one of an extents overflow tree. Its own fork is opened
// from the eight extents in the volume header alone: this file has no overflow extents.
//
//   device         borrowed for the life of the object
//   volume_header  as read from disk; borrowed for the life of the object
//   out_extents    receives the object, owned by the caller; unchanged on failure
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_inconsistent when the header is another kind of tree's; or the failure of
// opening the B-tree or of reading its header.
kvfs_result kvfs_extents_create(kvfs_device* device, HFSPlusVolumeHeader* volume_header, kvfs_extents** out_extents);

// Closes the B-tree and frees the object; the handle becomes null. Always returns kvfs_ok.
kvfs_result kvfs_extents_destroy(kvfs_extents** extents);

// Tells whether a B-tree's header record is that of an extents overflow file: type 0, index keys of a fixed size, and
// the length of an extent key as the longest key.
//
//   out_valid  receives 1 or 0; 0 on failure
//
// Returns kvfs_ok whatever the verdict; kvfs_invalid when `out_valid` is null; or the failure of reading the header.
kvfs_result kvfs_extents_validate(kvfs_btree* btree, int* out_valid);

// Orders two extent keys, on-disk order, by file, then fork type, then start block: -1, 0 or 1. Where either has
// another length than an extent key, that is reported and the answer is -1.
//
//   key_a, key_b  HFSPlusExtentKey, at least the two bytes of their length
//   compare_type  ignored
int kvfs_extents_compare_keys(const void* key_a, const void* key_b, std::uint8_t compare_type);

// Copies the extent record of a fork that begins exactly at `start_block`.
//
//   fork_type    kHFSDataForkType or kHFSResourceForkType
//   file_id      catalog node ID, host order
//   start_block  allocation block of the fork, host order: the first one that the caller's extents do not cover
//   out_found    receives 1 or 0; unchanged on failure
//   out_record   receives the record, on-disk order, when found; otherwise unchanged
//
// Returns kvfs_ok, found or not; kvfs_inconsistent when the record is too short; kvfs_internal; or the failure of the
// search.
kvfs_result kvfs_extents_get_next_extent_record(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                                std::uint32_t start_block, int* out_found,
                                                HFSPlusExtentRecord* out_record);

// Searches the tree for an extent key, given as above.
//
//   out_result  initialised by the caller, who releases it with kvfs_btree_search_result_release
//
// Returns kvfs_ok, found or not, or the failure of the search.
kvfs_result kvfs_extents_search(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                std::uint32_t start_block, kvfs_btree_search_result* out_result);

// Inserts an extent record under a key, given as above. The record is in on-disk order.
//
// Returns kvfs_ok, kvfs_exists or the failure of the insertion.
kvfs_result kvfs_extents_insert(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                std::uint32_t start_block, const HFSPlusExtentRecord* record);

#pragma GCC visibility pop

#endif  // KVFS_EXTENTS_H
