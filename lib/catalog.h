// The catalog: the B-tree with a record for every file and folder of the volume and a thread record for each of them.
//
// A record is held through a catalog record locator: a B-tree locator with a link to the locator of the folder that
// holds the item, where it is known. Locators are counted; each child counts as one holder of its parent.
//
// Invariants: the list of open locators holds every locator that was not closed; a locator's parent is open as long as
// the locator is. Keys and records stay in on-disk byte order; a routine converts the fields that it reads.
//
// Threads: lookups may run concurrently; a change to the catalog must run alone. Locks: one for each catalog, over the
// list, the counts and the parent links; it is taken for writing only, and before the B-tree's lock.

#ifndef KVFS_CATALOG_H
#define KVFS_CATALOG_H

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

struct kvfs_catalog_private;
struct kvfs_catalog_record_locator_private;
struct kvfs_volume;

// An open catalog.
struct kvfs_catalog {
  kvfs_btree* const* btree;    // the catalog's B-tree, which lies first in the private part
  kvfs_catalog_private* priv;  // owned: the B-tree, the list of open locators and its lock
};

// A handle on one catalog record. Key and data are those of the B-tree locator.
struct kvfs_catalog_record_locator {
  kvfs_btree_record_locator* btree_locator;    // owned
  std::uint32_t record_type;                   // host order; 0 unless a search by path has filled it in
  kvfs_catalog_record_locator* const* parent;  // where the private part keeps the parent's locator, or null
  std::uint32_t reserved;                      // as given by who opened the locator
  kvfs_catalog_record_locator_private* priv;   // in the same allocation: references, place in the list, the parent
};

// What a search found.
struct kvfs_catalog_search_result {
  std::uint32_t found;  // nonzero when a record with exactly the key exists
  std::uint32_t after;  // the B-tree search's flag, for use as an insertion hint
  // The record found, or the place where the key belongs; null when there is none.
  kvfs_catalog_record_locator* locator;
};

// ---- The catalog ---------------------------------------------------------------------------------------------------

// Opens the catalog of a volume.
//
//   device, extents, volume_header  borrowed for the life of the catalog
//   out_catalog  receives the catalog, owned by the caller; unchanged on failure
//
// Returns kvfs_ok, kvfs_no_memory or the failure of the lock or of opening the B-tree.
kvfs_result kvfs_catalog_create(kvfs_device* device, kvfs_extents* extents, HFSPlusVolumeHeader* volume_header,
                                kvfs_catalog** out_catalog);

// Closes the catalog: closes locators that are still open, with a warning, and frees the B-tree without flushing it.
// The handle becomes null. A locator with several references at the head of the list stops that clean-up at once.
void kvfs_catalog_destroy(kvfs_catalog** catalog);

// Orders two catalog keys, on-disk order, by parent and name: -1, 0 or 1. Where either key is too short or the compare
// type is unknown, that is reported and the answer is -1. Parents decide first, then the names unit by unit; only where
// a unit is needed that its key does not hold, the answer is kvfs_key_malformed. Directly under the root folder a name
// that begins with a NUL unit, as those of the private folders, orders before all others by binary comparison and after
// all others by case folding. When both keys have such a name the first decides, so that they are never equal
// (Q-catalog-1).
//
//   compare_type  kHFSCaseFolding or kHFSBinaryCompare
int kvfs_catalog_compare_keys(const void* key_a, const void* key_b, std::uint8_t compare_type);

// Converts a stored name to UTF-8 with "/" for every "\" (Q-catalog-9).
//
//   units, count  the text, big-endian, of any length; a zero unit ends it early
//   buffer, size  receive the text and a NUL; bytes, that of the NUL among them (X-catalog-8)
//
// Returns the bytes of text, without the NUL; 0 on failure, and the buffer then holds anything.
std::size_t kvfs_catalog_widechar_to_utf8(const kvfs_be16* units, std::size_t count, char* buffer, std::size_t size);

// ---- Locators ------------------------------------------------------------------------------------------------------

// Opens a locator over a B-tree locator.
//
//   btree_locator  owned by the new locator on success, still by the caller on failure
//   record_type    host order; 0 when it is not known
//   parent         the locator of the folder that holds the item, or null; it gains a reference
//   reserved       kept as it is; 0
//   out_locator    receives the locator with one reference; unchanged on failure
//
// Locks: the catalog's lock for writing. Returns kvfs_ok, kvfs_no_memory or the failure of the lock.
kvfs_result kvfs_catalog_record_locator_open(kvfs_catalog* catalog, kvfs_btree_record_locator* btree_locator,
                                             std::uint32_t record_type, kvfs_catalog_record_locator* parent,
                                             std::uint32_t reserved, kvfs_catalog_record_locator** out_locator);

// Links a locator to another parent, or to none; the old one loses a reference.
//
// Locks: the catalog's lock for writing. Returns kvfs_ok or the failure of the lock.
kvfs_result kvfs_catalog_record_locator_set_parent_locator(kvfs_catalog_record_locator* locator,
                                                           kvfs_catalog_record_locator* parent);

// Gives back one reference; the last one frees the locator and gives back its reference on the parent. The caller's
// pointer becomes null in any case.
//
// Locks: the catalog's lock for writing. When that fails nothing is released.
void kvfs_catalog_record_locator_close(kvfs_catalog_record_locator** locator);

// The same for a caller who holds the catalog's lock for writing. Always returns kvfs_ok.
kvfs_result kvfs_catalog_record_locator_close_internal(kvfs_catalog_record_locator** locator);

// ---- Lookup --------------------------------------------------------------------------------------------------------
//
// Each search stores its result on success only; the caller releases it with kvfs_catalog_search_result_release. A
// search that does not find its key is a success with `found` 0 and a locator on the place where the key belongs.
// Besides what is said below all of them return the failures of the B-tree and of opening a locator unchanged.

// Makes a search result empty. To be called before its first use.
void kvfs_catalog_search_result_init(kvfs_catalog_search_result* result);

// Closes the locator of a search result, if it has one, and makes the result empty.
void kvfs_catalog_search_result_release(kvfs_catalog_search_result* result);

// Searches for a key, given in on-disk order.
kvfs_result kvfs_catalog_search_node(kvfs_catalog* catalog, const HFSPlusCatalogKey* key,
                                     kvfs_catalog_search_result* out_result);

// Opens a locator, without a parent, on the record behind another one, which stays open.
//
//   out_next  receives the locator, or null at the end of the catalog
kvfs_result kvfs_catalog_get_next_record(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         kvfs_catalog_record_locator** out_next);

// Searches for the item that a thread record leads to. Returns kvfs_inconsistent when the record is no whole thread.
kvfs_result kvfs_catalog_follow_thread(kvfs_catalog* catalog, const kvfs_catalog_record_locator* thread,
                                       kvfs_catalog_search_result* out_result);

// Searches for the thread record of an item and, with `follow`, for the item itself. When there is no thread record,
// or what was found is not one, that search's result is the outcome: callers test `found` (Q-catalog-6).
//
//   cnid  catalog node ID, host order
//
// Returns kvfs_inconsistent when the record found has no room for its type or is no whole thread; kvfs_internal when a
// lower layer gives no locator.
kvfs_result kvfs_catalog_search_by_cnid(kvfs_catalog* catalog, std::uint32_t cnid, bool follow,
                                        kvfs_catalog_search_result* out_result);

// Gives the next component of a path. It stores at most `capacity` units, big-endian and decomposed, and their number;
// a length of 0 says that no components are left. A failure ends the lookup.
using kvfs_catalog_component_source = kvfs_result (*)(void* context, kvfs_be16* buffer, std::size_t capacity,
                                                      std::size_t* out_length);

// Walks down a path, component by component (see Q-catalog-7).
//
//   source, context  give the components
//   start            locator of the folder to start from, or null for the root folder
//   out_result       receives the last component's record, or the place in its folder of the first component that is
//                    missing; its locator has the locator of the folder as its parent and the record type filled in
//
// Returns kvfs_invalid when `start` is no folder; kvfs_inconsistent when a record has an unknown type or a wrong size
// or a thread leads nowhere; kvfs_internal when a component is asked for in what is no folder; or the failure of
// `source`.
kvfs_result kvfs_catalog_search_by_path(kvfs_catalog* catalog, kvfs_catalog_component_source source, void* context,
                                        kvfs_catalog_record_locator* start, kvfs_catalog_search_result* out_result);

// A path in UTF-8 as components: names between slashes, however many; "." and ".." mean nothing special. `rest` is what
// is still to be looked up, and may be read after a search to see how far it came.
struct kvfs_catalog_utf8_path {
  const char* rest;  // NUL-terminated; borrowed
};

// A component source over a kvfs_catalog_utf8_path, which is its context. Each name is decomposed.
//
// Returns kvfs_ok; kvfs_invalid for malformed UTF-8 or a name of more than 255 units before it is decomposed;
// kvfs_overflow for one that does not fit the buffer after; kvfs_internal for a four-byte form that is out of range.
kvfs_result kvfs_catalog_utf8_path_component(void* context, kvfs_be16* buffer, std::size_t capacity,
                                             std::size_t* out_length);

// ---- Changes -------------------------------------------------------------------------------------------------------
//
// A change is made in the cache of the catalog's fork; flushing that fork brings it to the device. Nothing is undone
// when a step fails: discard the volume without flushing it then. A deletion moves the records behind it in their node
// without their open locators (see kvfs_btree_delete_record): hold no others than those that are handed in. A folder
// whose record stands behind its item's in the same node is counted where it was, over another record (Q-btree-21).

// Inserts a record.
//
//   key, data    on-disk order; data_length bytes
//   hint         the result of an earlier search for the key, where the record then goes without a search and without a
//                test whether the key exists; it stays the caller's. Null has the routine search itself
//   out_locator  receives a locator on the new record; unchanged on failure
//
// Returns kvfs_ok, kvfs_internal or the failure of the B-tree.
kvfs_result kvfs_catalog_insert_record(kvfs_catalog* catalog, const HFSPlusCatalogKey* key, const void* data,
                                       std::uint16_t data_length, const kvfs_catalog_search_result* hint,
                                       kvfs_catalog_record_locator** out_locator);

// Moves a file or folder to a new folder and name, with its thread record and the valences of both folders. Nothing is
// undone on failure (Q-catalog-13).
//
//   locator         of the record, with its parent's locator unless it is the root folder. It is closed, and the
//                   caller's pointer null, on success and on every failure after the record was deleted
//   new_parent      catalog node ID of the folder that will hold the item, on-disk order; the root folder stays under 1
//   name, name_length  new name, big-endian and decomposed; units. It may lie in the record itself. A name of more than
//                   255 units is refused only after the record was deleted: callers check the length before
//                   (Q-catalog-12)
//
// Returns kvfs_ok; kvfs_invalid without a locator, for another kind of record, for an item without its parent's
// locator, for moving the root folder, or for a name that is too long; kvfs_inconsistent when the new folder is
// missing, or a record, or the key of an item without its parent's locator, is too short; kvfs_internal; or the failure
// of the B-tree.
kvfs_result kvfs_catalog_rename_record(kvfs_catalog* catalog, kvfs_catalog_record_locator** locator,
                                       kvfs_be32 new_parent, const kvfs_be16* name, std::size_t name_length);

// Counts a child in or out of a folder's valence and, when the folder keeps one and the child counts as a folder, its
// folder count. A hard link to a directory counts as a folder. Counts wrap without a check.
//
//   child_record_data  the child's whole file or folder record, on-disk order
//   parent             locator of the folder
//   increment          1 adds the child, 0 takes it away
//
// Returns kvfs_ok in every case, also when nothing was changed: failures are in the log only (Q-catalog-10).
kvfs_result kvfs_catalog_update_valence(kvfs_catalog* catalog, const void* child_record_data,
                                        kvfs_catalog_record_locator* parent, int increment);

// Counts a child in, as above.
kvfs_result kvfs_catalog_increment_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent);

// Counts a child out, as above.
kvfs_result kvfs_catalog_decrement_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent);

// ---- Deletion ------------------------------------------------------------------------------------------------------

// Tells whether a folder holds no items: whether the record behind its thread record belongs to another folder. Whether
// the thread record is there is not asked (Q-catalog-15).
//
//   out_empty  receives 1 or 0; unchanged on failure
//
// Returns kvfs_ok; kvfs_invalid for a null argument; kvfs_inconsistent when the record, or the key of the one behind
// the thread, is too short; kvfs_internal; or the failure of a search.
kvfs_result kvfs_catalog_is_directory_empty(kvfs_catalog* catalog, const kvfs_catalog_record_locator* folder,
                                            int* out_empty);

// Tells whether a record may be deleted: a folder only while it is empty, anything else at any time.
//
//   out_can_delete  receives 1 or 0; unchanged on failure
//
// Returns kvfs_ok; kvfs_invalid for a null argument; kvfs_inconsistent when the record has no room for its type; or the
// failure of looking into the folder.
kvfs_result kvfs_catalog_can_delete_file(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         int* out_can_delete);

// Deletes a file or folder: its record and its thread record, its place in the parent's valence, the blocks of a file's
// data fork, and its place in the counts of the volume header. The locator stays open; the caller closes it.
//
// What callers have to know, and some rely on:
// - whether a folder is empty is not asked: see kvfs_catalog_can_delete_file (Q-catalog-16);
// - the resource fork's blocks and the extents in the overflow file stay allocated (Q-catalog-17);
// - when the thread record is missing, the record in the place where it would stand is deleted in its stead;
// - without the parent's locator the parent's valence stays as it is;
// - each block is freed as FreeAllocationBlock does it, and a failure to free is logged and ignored.
//
//   volume  opened with its allocation file, unless the file has no blocks to free
//
// Returns kvfs_ok; kvfs_invalid for a null argument or another kind of record; kvfs_inconsistent when the record is
// too short; or the failure of the B-tree or of the search for the thread. What was done before a failure stays done.
kvfs_result kvfs_catalog_delete(kvfs_catalog* catalog, kvfs_volume* volume, kvfs_catalog_record_locator* locator);

// ---- File records --------------------------------------------------------------------------------------------------

// Kinds of file, told by file type and creator.
inline constexpr int kvfs_plain_file = 0;     // holds its content itself
inline constexpr int kvfs_hard_link = 1;      // stands for another file, named by a link reference
inline constexpr int kvfs_symbolic_link = 2;  // holds the path of another item

// Tells what kind of file a whole file record, on-disk order, describes.
int kvfs_catalog_file_link_kind(const HFSPlusCatalogFile* record);

// Reads the size of a file, following a hard link: of the data fork or, when that is empty, of the resource fork. A
// link whose file is missing has the size of the record in its place (Q-catalog-24).
//
//   record  whole file record, on-disk order. That of a link's target may be cut behind the size that counts
//
// Returns bytes; 0 on failure too, which is in the log.
std::uint64_t kvfs_catalog_record_get_file_size(const HFSPlusCatalogFile* record, kvfs_catalog* catalog);

// Sets the size of a file's data fork in a record. The size goes into bytes 88 to 95 whatever the record is: the buffer
// must hold 96 bytes even for a folder record, whose kind is reported but not refused (Q-catalog-21).
//
//   record  record data, on-disk order; null is reported and nothing done
//   size    bytes
void kvfs_catalog_record_set_file_size(void* record, std::uint64_t size);

// Finds the file that a hard link stands for, by its link reference.
//
//   record  whole file record of the link, on-disk order
//
// Returns kvfs_ok (`found` in the result tells whether the file exists); kvfs_inconsistent when the reference has no
// thread record; kvfs_internal; or the failure of a search.
kvfs_result kvfs_catalog_follow_hard_link(kvfs_catalog* catalog, const HFSPlusCatalogFile* record,
                                          kvfs_catalog_search_result* out_result);

// Turns a file into a symbolic link whose target lies in one allocation block. What the file held before is not freed,
// and nothing is undone when a step fails: the block is written before it is marked as used.
//
//   locator                     of the file's record
//   target_name, target_length  the target, big-endian; units; "\" becomes "/". 255 bytes at most in UTF-8
//   volume                      opened with its allocation file
//
// Returns kvfs_ok; kvfs_invalid without a locator or an allocation file or for a target that cannot be stored, such as
// one that begins with a NUL, which ends a target; kvfs_inconsistent when the record is too short; kvfs_failed when no
// block is free; kvfs_no_memory; or the failure of the device, the allocation file or the B-tree.
kvfs_result kvfs_catalog_mksymlink(kvfs_catalog_record_locator* locator, const kvfs_be16* target_name,
                                   std::size_t target_length, kvfs_volume* volume);

#pragma GCC visibility pop

#endif  // KVFS_CATALOG_H
