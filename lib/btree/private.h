// Inside the B-tree engine: for the engine and its tests.

#ifndef KVFS_BTREE_PRIVATE_H
#define KVFS_BTREE_PRIVATE_H

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "format.h"
#include "result.h"

struct kvfs_rwlock;

// How a search has gone down through a node above the leaves, from which the next one may go on: the lookups of a
// fork's extents come in the order of their keys, and the node may have thousands of records before the one they need.
struct kvfs_btree_trail {
  const unsigned char* node;  // its bytes, which have not changed since; null without a trail
  std::uint32_t index;        // of the record that led down; the keys of those before it order before `key`
  HFSPlusExtentKey key;       // the search key
};

struct kvfs_btree_private {
  std::uint32_t tree_kind;  // catalog node ID of the tree's file
  kvfs_btree_compare_keys compare;
  kvfs_btree_record_locator* open_locators;  // head of the list: the locator opened last, or null
  kvfs_rwlock* open_locators_lock;           // guards all of this and serialises the operations on the tree
  std::uint32_t reserve;                     // work beyond their grants that operations may still do in this tree
  std::uint32_t work_left;                   // for the operation under way, with the reserve
  void* spare_nodes;                         // memory of copies of nodes that changes have done with; see btree/spare.h
  void* spare_locators;                      // and of locators of usual size that were released
  kvfs_btree_trail trail;                    // of the search before, in the extents overflow file alone
};

struct kvfs_btree_record_locator_private {
  void* allocation;                     // the block that holds tag, size, both parts and the record copy
  kvfs_btree_record_locator* previous;  // neighbours in the list of open locators
  kvfs_btree_record_locator* next;
  std::uint64_t reference_count;
  std::uint32_t deleted;  // nonzero once the record was deleted
  std::uint32_t node;
  std::uint16_t index;
  std::uint64_t fork_data_offset;  // of the record's data in the tree's fork, bytes
  kvfs_btree* tree;
  std::uint32_t record_key_offset;   // of the key in the record: 0
  std::uint32_t record_data_offset;  // of the data in the record: the key length rounded up to even
  std::uint32_t record_size;         // bytes
  unsigned char* record;             // the copy

  std::uint32_t is_vacant;    // nonzero for the place behind the last record of its node, empty when it was opened
  std::uint8_t index_height;  // of the index node in which a search found the place; 0 for any other node
};

// Opens the fork of a tree and checks its header node; parameters as kvfs_btree_create has them.
//
//   out_fork, out_node_size, out_max_key_length  receive the fork, owned by the caller, and two fields of the header
//                                                record in bytes; unchanged on failure
kvfs_result kvfs_btree_process(HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind, kvfs_device* device,
                               kvfs_extents* extents, int partial, kvfs_fork** out_fork, std::uint16_t* out_node_size,
                               std::uint16_t* out_max_key_length);

// ---- Locators; the caller holds the tree's lock for writing --------------------------------------------------------

// Opens a locator on a record, or adds a reference to the one that is open on it.
//
//   node, index   where the record is
//   record        its bytes, copied; record_size of them, an even number
//   position      of the record in the tree's fork, bytes
//   out_locator   receives the locator; unchanged on failure
//
// Returns kvfs_ok; kvfs_invalid when the bytes are no record; kvfs_no_memory; kvfs_internal when the open locator
// belongs to another tree or the record has grown beyond its copy. (The copy of a vacant place, which nobody reads,
// stays as it is instead.)
kvfs_result kvfs_btree_record_locator_open(kvfs_btree* tree, std::uint32_t node, std::uint16_t index,
                                           const unsigned char* record, std::size_t record_size, std::uint64_t position,
                                           kvfs_btree_record_locator** out_locator);

// Gives back one reference and ends the locator with the last one, or at once when `force` is set: it leaves the list,
// its bytes become zero, and its memory is freed or, where it has the usual size, kept by the tree for another locator.
// The caller's pointer becomes null when it does.
void kvfs_btree_record_locator_release(kvfs_btree_record_locator** locator, bool force);

// Moves the open locators of a node whose record index lies in first .. first + count - 1 to another node, adding to
// (or, with `subtract`, taking from) their index and their data offset in the fork. Deleted ones stay.
void kvfs_btree_shift_locators(kvfs_btree* tree, std::uint32_t node, std::int32_t first, std::int32_t count,
                               std::uint32_t target_node, bool subtract, std::uint16_t index_delta,
                               std::uint32_t byte_delta);

// ---- Search and iteration; the caller holds the tree's lock for writing --------------------------------------------

// How far down a search goes.
inline constexpr std::uint8_t kSearchToLeaf = 0xFF;
inline constexpr std::uint8_t kSearchToHeight = 0;

// Searches from a node, or from the root when `start_node` is 0, to a leaf or, in any mode but kSearchToLeaf, to the
// index node of the target height.
//
// Returns as kvfs_btree_search_node does, and kvfs_invalid when the start node is behind the last node.
kvfs_result kvfs_btree_search_node_internal(kvfs_btree* tree, const void* key, std::uint32_t start_node,
                                            std::uint8_t mode, std::uint8_t target_height,
                                            kvfs_btree_search_result* out_result);

kvfs_result kvfs_btree_get_next_record_internal(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                                kvfs_btree_record_locator** out_locator);

// ---- Changes; the caller holds the tree's lock for writing ---------------------------------------------------------

// Deepest tree whose index is maintained. Replacing the first key of a node takes two steps in the level above, four in
// the next one, and so on: each level more doubles the time.
inline constexpr std::uint16_t kMaximumMaintainedDepth = 16;

// What a search may cost, whatever the nodes say. A height is one byte, and so there are as many levels at most; their
// keys take less than the nodes. Keys of a wrong length are told one by one, which would fill the log.
inline constexpr std::uint32_t kMaximumHeight = 255;
inline constexpr std::uint32_t kMaximumOddKeys = 1000;

// What the operations on a tree may cost together. The limits above are those of one search, of which a change makes up
// to 2^16, and the opening of a fork one for each eight of its extents. Work is counted in units of about a nanosecond:
// the bytes of each key that is compared and some for the comparison, some for each node, and for each message of a
// comparison. An operation is granted what it needs in a sound tree: a search as much as four levels of nodes of
// 32 KiB take that are full of keys, a change as much as sixteen levels. What damaged trees need beyond is taken from a
// reserve, which is not refilled.
inline constexpr std::uint32_t kWorkOfASearch = std::uint32_t{160} << 10;
inline constexpr std::uint32_t kWorkOfAChange = std::uint32_t{128} << 20;
inline constexpr std::uint32_t kWorkReserve = std::uint32_t{64} << 20;
inline constexpr std::uint32_t kWorkOfANode = 128;
inline constexpr std::uint32_t kWorkOfAMapNode = 512;
inline constexpr std::uint32_t kWorkOfAKey = 8;
inline constexpr std::uint32_t kWorkOfAMessage = std::uint32_t{4} << 10;
inline constexpr std::uint32_t kNodeBytesOfOneUnit = 16;  // a node that is copied takes a unit for so many bytes

kvfs_result kvfs_btree_insert_record_internal(kvfs_btree* tree, const void* key, const void* data,
                                              std::uint16_t data_size, const kvfs_btree_search_result* hint,
                                              kvfs_btree_record_locator** out_locator);

kvfs_result kvfs_btree_delete_record_internal(kvfs_btree* tree, kvfs_btree_record_locator* locator, std::uint32_t flag);

// Assembles a record: the key with its length, the data, and a pad byte behind each that is odd.
//
//   key_length   bytes of the key behind its length field
//   destination  receives record_size bytes
//
// Returns kvfs_ok, or kvfs_internal when the parts do not fill record_size bytes exactly.
kvfs_result kvfs_btree_node_make_record(const void* key, std::uint16_t key_length, const void* data,
                                        std::uint16_t data_size, unsigned char* destination, std::uint16_t record_size);

// Moves the records of a node from `split_index` on to a node that it claims, links that node behind the first one and
// adds its index record.
//
//   out_new_node  receives the number of the claimed node; unchanged on failure
//
// Returns kvfs_ok; kvfs_internal for the root and for a node whose records would not fit; kvfs_inconsistent for damaged
// nodes and when the claimed node is in use; or the failure of claiming, of the fork, of an allocation or of adding the
// index record.
kvfs_result kvfs_btree_split_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t split_index,
                                  std::uint32_t* out_new_node);

// Adds the index record that leads to `child` in the level of `height`.
//
// Returns kvfs_ok, kvfs_exists, or the failure of the search or the insertion.
kvfs_result kvfs_btree_add_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, std::uint32_t child);

// Marks the first free node of the tree as used. Its contents stay as they are.
//
//   out_node  receives its number; unchanged on failure
//
// Returns kvfs_ok; kvfs_limit when no node is free; kvfs_inconsistent when the node bitmap is damaged; kvfs_internal;
// or the failure of the fork.
kvfs_result kvfs_btree_claim_node(kvfs_btree* tree, std::uint32_t* out_node);

#endif  // KVFS_BTREE_PRIVATE_H
