// The B-tree engine, which serves the catalog and the extents overflow file alike.
//
// The engine knows nodes, records and their order, not what keys and data mean: the user of a tree brings a callback
// that compares two keys. Records are handed out through locators, each with a copy of its record; two handles on one
// record are one shared locator with two references.
//
// Invariants: the header record on disk is the only authority for the root, the depth and the counts, and is read when
// it is needed; only nodeSize and maxKeyLength are kept. The list of open locators holds every locator that was not
// closed.
//
// Its source is in lib/btree/. Only opening, which opens the fork, is in lib/extents/, and growing, which lets the fork
// grow, in lib/bitmap/.
//
// Threads: every operation may be called concurrently; a locator's own bytes belong to those who hold it.
// Locks: one for each tree, over its list of locators. Searching, iterating and changing hold it for writing, which
// makes them take turns; rewriting a record's data holds it for reading. It is taken before any lock of the fork.

#ifndef KVFS_BTREE_H
#define KVFS_BTREE_H

#include <climits>
#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_btree_private;
struct kvfs_btree_record_locator_private;

// Compares a key inside a node with a search key: negative, 0 or positive as the node's key orders before, equal to or
// after the search key. Both begin with their length in two bytes, and that many bytes follow; in an empty tree the
// records of the header node are handed in for keys, and the bytes may then lie behind that node. Of a catalog key that
// claims to leave its node a copy is handed in that ends with the node, or with the longest name; `compare_type` is the
// keyCompareType of the tree's header record. A split asks the index about nodes by their keys: then the search key,
// too, may be any bytes that a damaged or free node holds. kvfs_key_malformed, a negative value too, says that the
// node's key contradicts itself; the engine then ends its search with kvfs_inconsistent.
using kvfs_btree_compare_keys = int (*)(const void* node_key, const void* search_key, std::uint8_t compare_type);

// What a comparison gives for a key that contradicts itself.
inline constexpr int kvfs_key_malformed = INT_MIN;

// An open B-tree.
struct kvfs_btree {
  kvfs_fork* fork;             // owned; every node is read and written through it
  std::uint16_t nodeSize;      // bytes, from the header record
  std::uint16_t maxKeyLength;  // bytes, from the header record
  kvfs_btree_private* priv;    // owned: the kind of tree, the comparison, the list of open locators and its lock
};

// A handle on one record: where it is, and a copy of its bytes in on-disk order. The pointers lead into the locator and
// live as long as it does.
struct kvfs_btree_record_locator {
  const std::uint32_t* node;                // node number
  const std::uint16_t* index;               // number of the record in its node, from 0
  const unsigned char* key;                 // begins with its length
  std::uint32_t key_length;                 // bytes, the length field included
  const unsigned char* data;                // what the record says about its key, without padding
  std::uint32_t data_size;                  // bytes
  kvfs_btree_record_locator_private* priv;  // in the same allocation: references, place in the list, the copy
};

// What a search found.
struct kvfs_btree_search_result {
  std::uint32_t found;                 // 1 when a record with an equal key was located
  std::uint32_t after;                 // 1 when the located record is the last of its leaf and orders before the key
  kvfs_btree_record_locator* locator;  // the record found, or the place where the key belongs; null when there is none
};

// ---- Trees ---------------------------------------------------------------------------------------------------------

// Opens the B-tree of a special file and checks its header node.
//
//   device, extents, partial  handed to kvfs_fork_create unchanged
//   volume_header             on-disk order; it holds the fork data of the file and is borrowed for the life of the
//                             tree
//   tree_kind                 catalog node ID of the file: extents overflow, catalog or attributes file
//   compare                   orders the tree's keys; two keys that it has ordered may not be handed in again
//   out_tree                  receives the tree, owned by the caller; unchanged on failure
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_invalid for another kind; kvfs_inconsistent when node 0 is not the header node
// of an HFS Plus B-tree; or the failure of the device, the fork or the lock.
kvfs_result kvfs_btree_create(kvfs_device* device, kvfs_extents* extents, int partial,
                              HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind,
                              kvfs_btree_compare_keys compare, kvfs_btree** out_tree);

// Closes a tree: releases locators that are still open, with a warning, and frees the fork without flushing it. The
// handle becomes null.
void kvfs_btree_destroy(kvfs_btree** tree);

// Name of a kind of tree for messages: "catalog", "extents overflow", "attributes" or "unknown".
const char* kvfs_btree_type_name(std::uint32_t tree_kind);

// Checks one node of an attributes tree, reporting what is odd to the log.
//
//   node       the bytes of the node, on-disk order
//   node_size  bytes
void ReadAttrNode(const unsigned char* node, std::size_t node_size);

// ---- Locators ------------------------------------------------------------------------------------------------------

// Overwrites a record's data in place, in the fork's cache and in the locator's copy.
//
//   data       on-disk order
//   data_size  bytes; must be the locator's data_size, since records do not change their size in place
//
// Locks: the tree's lock for reading.
// Returns kvfs_ok; kvfs_internal when the record was deleted; kvfs_invalid for another size; or the failure of the
// write or the lock.
kvfs_result kvfs_btree_record_locator_write_data(kvfs_btree_record_locator* locator, const void* data,
                                                 std::size_t data_size);

// Gives back one reference; the last one frees the locator. The caller's pointer becomes null in any case.
//
// Locks: the tree's lock for writing. When that fails the reference is leaked rather than the list touched.
void kvfs_btree_record_locator_close(kvfs_btree_record_locator** locator);

// ---- Search and iteration ------------------------------------------------------------------------------------------

// Makes a search result empty. To be called before its first use.
void kvfs_btree_search_result_init(kvfs_btree_search_result* result);

// Closes the locator of a search result, if it has one, and makes the result empty.
void kvfs_btree_search_result_release(kvfs_btree_search_result* result);

// Searches a tree from its root to a leaf. When the key is not there the locator is on the first record that orders
// after the key, or on the last record of the leaf with `after` set.
//
//   key         begins with its length; on-disk order
//   out_result  receives the result, whose locator the caller releases; unchanged on failure
//
// Locks: the tree's lock for writing.
// Returns kvfs_ok, found or not; kvfs_invalid without a key, or when a locator refuses the bytes of the record, as of
// one of odd size or in an empty tree; kvfs_internal when the record has outgrown the locator that is open on it;
// kvfs_inconsistent when the tree contradicts itself, has more than 1,000 keys of a wrong length on the way, or calls
// for more work than sound trees do; or the failure of the fork, an allocation or the lock.
kvfs_result kvfs_btree_search_node(kvfs_btree* tree, const void* key, kvfs_btree_search_result* out_result);

// Opens a locator on the record behind another one, which stays open.
//
//   out_locator  receives the locator, or null at the end of the tree; unchanged on failure
//
// Locks: the tree's lock for writing.
// Returns kvfs_ok, also at the end; kvfs_invalid when a locator refuses the bytes of the record, as of one of odd size;
// kvfs_internal when the record has outgrown the locator that is open on it; kvfs_inconsistent when a node contradicts
// itself; or the failure of the fork, an allocation or the lock.
kvfs_result kvfs_btree_get_next_record(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                       kvfs_btree_record_locator** out_locator);

// ---- Changes -------------------------------------------------------------------------------------------------------
//
// A change is made in the fork's cache; kvfs_fork_flush brings it to the device. A change that fails half-way leaves in
// the cache what it had done so far: discard the tree without flushing it.

// Inserts a record, splitting nodes and updating index records as needed. A tree never grows in height: a record that
// would need a split of the root is refused.
//
//   key          begins with its length; on-disk order
//   data         on-disk order; data_size bytes
//   hint         the result of an earlier search for the key: the record goes there without a search and without a test
//                whether the key exists. It stays the caller's. Null has the routine search itself
//   out_locator  receives a locator on the new record, owned by the caller; unchanged on failure
//
// Open locators on records behind the new one follow their records.
//
// Locks: the tree's lock for writing.
// Returns kvfs_ok; kvfs_invalid without a key; kvfs_exists; kvfs_limit when the record is too large for a node or no
// node is free; kvfs_internal when the root is full; kvfs_inconsistent when the tree contradicts itself or, before
// anything changes, when index nodes would change in a tree of more than 16 levels; kvfs_no_memory; or the failure of
// the fork or the lock.
kvfs_result kvfs_btree_insert_record(kvfs_btree* tree, const void* key, const void* data, std::uint16_t data_size,
                                     const kvfs_btree_search_result* hint, kvfs_btree_record_locator** out_locator);

// Deletes the record that a locator is open on. The locator stays open and readable; it is marked deleted and has to be
// closed by its owner. A node that becomes empty stays in the tree.
//
// Open locators on records behind the deleted one do NOT follow their records: they keep their index and their place,
// where another record lies now. Callers rely on that (Q-btree-21); close such locators before deleting, or search
// anew.
//
//   flag  not used; 0
//
// Locks: the tree's lock for writing.
// Returns kvfs_ok; kvfs_internal when the record was deleted before; kvfs_inconsistent when the tree contradicts itself
// or, before anything changes, as for kvfs_btree_insert_record; kvfs_no_memory; or the failure of the fork, of the
// index maintenance or of the lock.
kvfs_result kvfs_btree_delete_record(kvfs_btree* tree, kvfs_btree_record_locator* locator, std::uint32_t flag);

// Grows the catalog's B-tree by the clump size of its fork; any other tree is left as it is. When the bitmap in the
// header node is too short for all nodes, a map node is added to the chain, each time anew. On failure what was done is
// undone, except that a node claimed for the chain stays marked as used.
//
//   volume  opened with its allocation file; its header changes in memory
//
// Locks: the tree's lock for writing.
// Returns kvfs_ok; kvfs_inconsistent when the chain of map nodes is damaged; kvfs_limit when no node can be claimed for
// the chain, or as kvfs_fork_expand has it, near the volume's end for one; or the failure of growing the fork, of
// claiming a node, of the fork or of the lock.
kvfs_result kvfs_btree_expand(kvfs_btree* tree, kvfs_volume* volume);

#pragma GCC visibility pop

#endif  // KVFS_BTREE_H
