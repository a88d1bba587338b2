// Inside a session: for the rooms of the session unit and their tests.
//
// Public functions check their arguments, take the session's turn and leave the work to a routine that runs in that
// turn. Routines that run in it give a kvfs_result, of which those below are further values.

#ifndef KVFS_SESSION_PRIVATE_H
#define KVFS_SESSION_PRIVATE_H

#include <cstddef>
#include <cstdint>

#include "base/rwlock_guard.h"
#include "catalog.h"
#include "format.h"
#include "kvfs.h"
#include "result.h"
#include "support.h"

struct kvfs_device;
struct kvfs_volume;

// ---- Results that only a session gives -----------------------------------------------------------------------------

inline constexpr kvfs_result kvfs_not_found = static_cast<kvfs_result>(KVFS_NOT_FOUND);
inline constexpr kvfs_result kvfs_not_a_folder = static_cast<kvfs_result>(KVFS_NOT_A_FOLDER);
inline constexpr kvfs_result kvfs_not_a_file = static_cast<kvfs_result>(KVFS_NOT_A_FILE);
inline constexpr kvfs_result kvfs_not_empty = static_cast<kvfs_result>(KVFS_NOT_EMPTY);
inline constexpr kvfs_result kvfs_read_only = static_cast<kvfs_result>(KVFS_READ_ONLY);
inline constexpr kvfs_result kvfs_busy = static_cast<kvfs_result>(KVFS_BUSY);
inline constexpr kvfs_result kvfs_no_space = static_cast<kvfs_result>(KVFS_NO_SPACE);
inline constexpr kvfs_result kvfs_closed = static_cast<kvfs_result>(KVFS_CLOSED);
inline constexpr kvfs_result kvfs_spoiled = static_cast<kvfs_result>(KVFS_SPOILED);
inline constexpr kvfs_result kvfs_end = static_cast<kvfs_result>(KVFS_END);

// A lower layer that finds unacceptable what it was asked for has been asked for what the volume says: arguments of
// callers were checked before.
constexpr kvfs_result kvfs_session_blame_volume(kvfs_result result) {
  return result == kvfs_invalid ? kvfs_inconsistent : result;
}

// ---- The session ---------------------------------------------------------------------------------------------------

// Sectors of all devices that sessions make. Any volume is made of whole ones.
inline constexpr std::uint32_t kSessionSectorSize = 512;

// Bit of the volume header's attributes: there is a journal.
inline constexpr std::uint32_t kSessionJournaledBit = 0x2000;

// A run of allocation blocks.
struct kvfs_block_run {
  std::uint32_t first;
  std::uint32_t count;
};

// What was changed since the last flush. A flush makes one after the other false.
struct kvfs_session_changes {
  bool catalog;
  bool extents;          // the extents overflow file
  bool allocation;       // the allocation file: blocks came into use, or freed ones were cleared and not written
  bool ids;              // IDs were given to new items
  bool header;           // the counts of the volume header
  std::int64_t records;  // by which the catalog has become longer since `records_before` were counted
  std::uint32_t records_before;
};

struct kvfs_session {
  kvfs_rwlock* lock;  // its turn; guards all that follows
  int fd;
  bool owns_fd;
  std::uint32_t flags;              // KVFS_OPEN_...
  kvfs_device* device;              // owned; null once the session is closed
  kvfs_volume* volume;              // owned; null once the session is closed, and when it could not be opened again
  std::uint32_t handles;            // listings and streams that are open
  std::uint64_t epoch;              // grows with each change and each discard: what was found before may have moved
  std::uint32_t private_folder_id;  // of the folder with what hard links stand for; 0 until it is needed
  bool spoiled;                     // a change has failed half-way
  kvfs_session_changes changes;
  kvfs_block_run* freed;  // owned; blocks of deleted files, which the next flush frees
  std::uint32_t freed_count;
};

// Does work in the session's turn: `work` gives a kvfs_result. When giving the turn back fails, what was done stays
// done, but is a failure.
template <typename Work>
kvfs_result kvfs_session_take_turn(kvfs_session* session, Work work) {
  return kvfs_with_write_lock(session->lock, [&] { return session->volume == nullptr ? kvfs_closed : work(); });
}

// Counts a new listing or stream, and one that is closed. The last one of a closed session frees the session.
void kvfs_session_hold(kvfs_session* session);
kvfs_result kvfs_session_let_go(kvfs_session* session);

// ---- Texts and names -----------------------------------------------------------------------------------------------

// A name that was given in UTF-8, as the catalog stores it: decomposed, and unit by unit as it was given.
struct kvfs_session_name {
  kvfs_be16 units[kHFSPlusMaxNameLength];
  std::size_t length;
  kvfs_be16 plain[kHFSPlusMaxNameLength];
  std::size_t plain_length;
};

// Reads a spelled name of `size` bytes. Returns kvfs_ok, or kvfs_invalid for a text that is no name.
kvfs_result kvfs_session_read_name(const char* text, std::size_t size, kvfs_session_name* name);

// Reads a text in which nothing is spelled, such as a label, in the same way.
kvfs_result kvfs_session_read_text(const char* text, std::size_t size, kvfs_session_name* name);

// Spells a stored name; `text` has room for KVFS_NAME_SIZE bytes. Returns the bytes without the zero byte.
std::size_t kvfs_session_spell(const kvfs_be16* units, std::size_t length, char* text);

// Whether a name has a NUL unit in it. The catalog's order does not tell such names from each other.
bool kvfs_session_has_nul(const kvfs_be16* units, std::size_t length);

// Gives a text to a caller: see kvfs_session_label. Returns kvfs_ok or kvfs_overflow.
kvfs_result kvfs_session_copy_text(const char* text, std::size_t length, char* buffer, std::size_t size,
                                   std::size_t* out_length);

// Bytes of the largest structure that any version of the interface may come to have.
inline constexpr std::uint32_t kSessionLargestStruct = 65536;

// Whether a structure of `struct_size` bytes can be filled: it has at least the fields that this library knows, and no
// more bytes than a structure could have. What says more was never set.
constexpr bool kvfs_session_can_fill(std::uint32_t struct_size, std::size_t known_size) {
  return struct_size >= known_size && struct_size <= kSessionLargestStruct;
}

// Gives a structure to a caller whose own has `struct_size` bytes, of which the first four say so and stay. The caller
// has checked that it can be filled.
void kvfs_session_copy_struct(const void* from, std::size_t size, void* to, std::uint32_t struct_size);

// A date of the volume in seconds since 1970.
std::int64_t kvfs_session_date(kvfs_be32 date);

// ---- Items; in the session's turn ----------------------------------------------------------------------------------

// The result of a search, released at the end of the scope.
class kvfs_session_found {
 public:
  kvfs_session_found() { kvfs_catalog_search_result_init(&result_); }
  kvfs_session_found(const kvfs_session_found&) = delete;
  kvfs_session_found& operator=(const kvfs_session_found&) = delete;
  ~kvfs_session_found() { release(); }

  void release() { kvfs_catalog_search_result_release(&result_); }
  kvfs_catalog_search_result* out() { return &result_; }
  kvfs_catalog_record_locator* locator() const { return result_.locator; }
  // Hands the locator to the caller, who closes it.
  kvfs_catalog_record_locator* take();
  // Whether the search has found its key.
  bool found() const { return result_.found != 0; }

  const kvfs_btree_record_locator* record() const { return result_.locator->btree_locator; }
  const HFSPlusCatalogKey* key() const { return kvfs_view_as<HFSPlusCatalogKey>(record()->key); }
  // Null when the record is none of that type.
  const HFSPlusCatalogFile* file() const;
  const HFSPlusCatalogFolder* folder() const;

 private:
  kvfs_catalog_search_result result_;
};

// Checks that a record is a whole file or folder record under a key that holds its name. Returns kvfs_ok or
// kvfs_inconsistent.
kvfs_result kvfs_session_check_item(const kvfs_btree_record_locator* record);

// The ID of a record that was checked.
std::uint32_t kvfs_session_id_of(const void* record_data);

// Looks for the thread of an ID or, with `follow`, for its item, as kvfs_catalog_search_by_cnid does.
kvfs_result kvfs_session_search_id(kvfs_session* session, std::uint32_t id, bool follow,
                                   kvfs_catalog_search_result* out_found);

// Finds an item by its ID; its record is checked. Returns kvfs_ok, kvfs_not_found or a failure.
kvfs_result kvfs_session_find_item(kvfs_session* session, std::uint32_t id, kvfs_session_found* item);

// The same for a folder. Returns kvfs_not_a_folder for what is none.
kvfs_result kvfs_session_find_folder(kvfs_session* session, std::uint32_t id, kvfs_session_found* folder);

// Finds an item by its folder and its stored name; its record is checked. Returns as above.
kvfs_result kvfs_session_find_key(kvfs_session* session, std::uint32_t folder_id, const kvfs_be16* units,
                                  std::size_t length, kvfs_session_found* item);

// Finds an item by its folder and a name that was given; its record is checked. A name as it was given serves as well
// as the decomposed one. Returns as above.
kvfs_result kvfs_session_find_name(kvfs_session* session, std::uint32_t folder_id, const kvfs_session_name& name,
                                   kvfs_session_found* item);

// Tells facts about a record that was checked.
void kvfs_session_describe(const HFSPlusCatalogKey* key, const void* record_data, std::uint32_t block_size,
                           kvfs_item* item);

// Kinds of file records.
std::uint32_t kvfs_session_kind_of(const HFSPlusCatalogFile* file);

// ---- A walk over a folder; in the session's turn -------------------------------------------------------------------

// Where a walk has been. Nodes of a damaged catalog may form a ring, in which the walk comes back to the same places.
// Comparing with one of them, exchanged at each power of two, finds that with constant memory and within a few rounds,
// whatever size the catalog claims to have (X-session-2).
struct kvfs_session_trail {
  std::uint64_t steps;
  std::uint32_t node;
  std::uint16_t index;
};

// Notes the place of a record that was come to. Returns whether the way has led back there.
bool kvfs_session_leads_back(kvfs_session_trail* trail, std::uint32_t node, std::uint16_t index);

// A place in a folder. It holds no more of the catalog than one locator.
struct kvfs_session_walk {
  kvfs_session* session;
  std::uint32_t folder_id;
  kvfs_catalog_record_locator* record;  // the item, or null at the end; owned
  kvfs_session_trail trail;
};

// Begins at the first item, or behind a key. The caller ends the walk, also after a failure.
//
//   is_there  whether a record with that key was seen, and nothing has changed since. When a search does not find it,
//             the order of the catalog is not what it should be, and the walk passes all items up to it
kvfs_result kvfs_session_begin_walk(kvfs_session* session, std::uint32_t folder_id, const HFSPlusCatalogKey* behind,
                                    bool is_there, kvfs_session_walk* walk);
kvfs_result kvfs_session_step(kvfs_session_walk* walk);

void kvfs_session_end_walk(kvfs_session_walk* walk);

// ---- Forks of files; in the session's turn -------------------------------------------------------------------------

// A fork that is read around its cache. The fork's data refers to the fork data here: it does not move.
struct kvfs_session_fork {
  kvfs_fork* fork;  // owned; null while it is not open
  HFSPlusForkData data;
};

// Opens a fork of a file: finds its extents. Returns kvfs_ok; kvfs_inconsistent; kvfs_limit; kvfs_no_memory; or the
// failure of a search.
kvfs_result kvfs_session_open_fork(kvfs_session* session, const HFSPlusCatalogFile* file, std::uint8_t fork_type,
                                   kvfs_session_fork* fork);
void kvfs_session_close_fork(kvfs_session_fork* fork);

// Reads at most `size` bytes; see kvfs_stream_read.
kvfs_result kvfs_session_read_fork(kvfs_session_fork* fork, std::uint64_t offset, void* buffer, std::size_t size,
                                   std::size_t* out_read);

// ---- Blocks; in the session's turn ---------------------------------------------------------------------------------

// Whether all blocks of a run are in use. Returns kvfs_ok or a failure.
kvfs_result kvfs_session_run_in_use(kvfs_session* session, kvfs_block_run run, bool* in_use);

// Clears the bits of the first blocks of a run in the cache of the allocation file, as many as it looks at together,
// and counts those that were set. The run begins behind them then; on failure it is as it was, and so are the bits.
// kvfs_session_run_in_use has looked at the run before.
kvfs_result kvfs_session_clear_piece(kvfs_session* session, kvfs_block_run* run, std::uint32_t* cleared);

// Extents of a fork, in on-disk byte order.
struct kvfs_session_extents {
  HFSPlusExtentDescriptor* array;
  std::uint32_t count;
};

// Blocks that a file has or is to have, none of them behind the volume's last one.
struct kvfs_session_claim {
  const char* speaker;  // in messages
  std::uint32_t id;     // of the file
  kvfs_session_extents extents;
};

// Checks that the blocks of a file are not those of a special file, of a volume header or of the journal. Sorts the
// file's extents by their first blocks.
//
// Returns kvfs_ok; kvfs_inconsistent; or the failure of finding the extents of a special file, of reading where the
// journal lies or of reading the end of the volume.
kvfs_result kvfs_session_check_unreserved(kvfs_session* session, const kvfs_session_claim& claim);

// ---- Changes; in the session's turn --------------------------------------------------------------------------------

// Whether the session may change anything: kvfs_ok, kvfs_read_only or kvfs_spoiled. Counts the catalog's records when
// nothing was changed yet.
kvfs_result kvfs_session_begin_change(kvfs_session* session);

// Notes the outcome of a change that has begun to change something, and the records that it has added. Returns it, or
// kvfs_inconsistent for a value that would say that nothing has changed.
kvfs_result kvfs_session_end_change(kvfs_session* session, kvfs_result result, int added_records);

// Whether the changed catalog holds together as far as can be told at once: it has its root folder and the records that
// it should have.
kvfs_result kvfs_session_check_catalog(kvfs_session* session);

// An item that is to be moved or deleted, linked with its folder.
//
// Returns kvfs_ok; kvfs_invalid for the root folder, private folders and what lies in one; kvfs_limit when a node would
// be left without records or the index cannot follow; kvfs_not_found; or a failure.
kvfs_result kvfs_session_find_removable(kvfs_session* session, std::uint32_t id, kvfs_session_found* item);

// Has the open locator of an item's folder follow its record, which moves when the item's record is taken out before
// it in the same node. To be called right before that.
kvfs_result kvfs_session_expect_removal(kvfs_session* session, const kvfs_session_found& item);

// A place where an item is to come.
struct kvfs_session_place {
  std::uint32_t folder_id;
  kvfs_session_name name;
};

// Checks that a file or folder record has no bytes behind those that are known: it is written back whole, and without
// them. Returns kvfs_ok or kvfs_inconsistent.
kvfs_result kvfs_session_check_exact_size(const kvfs_session_found& item);

// Finds the place for an item: a folder that is not private, and a name that is free there or the item's own.
//
//   id  of the item; 0 for a new one
//
// Returns kvfs_ok; kvfs_invalid for a text that is no name; kvfs_exists; kvfs_not_found; kvfs_not_a_folder; or a
// failure.
kvfs_result kvfs_session_find_place(kvfs_session* session, std::uint32_t id, std::uint32_t folder_id, const char* name,
                                    kvfs_session_place* place);

// Whether a place is free for an item: its own is, so that the case of its name can be changed. Returns kvfs_ok,
// kvfs_exists or a failure.
kvfs_result kvfs_session_check_free(kvfs_session* session, std::uint32_t id, const kvfs_session_place& place);

// How many items a folder counts. After a change the count must have become what it should: changing it cannot fail,
// whatever fails in it (Q-catalog-10).
struct kvfs_session_valence {
  std::uint32_t folder_id;
  std::uint32_t value;
};
kvfs_result kvfs_session_get_valence(kvfs_session* session, std::uint32_t folder_id, kvfs_session_valence* valence);
kvfs_result kvfs_session_check_valence(kvfs_session* session, const kvfs_session_valence& before, int change);

// Counts the records in a node of a tree.
kvfs_result kvfs_session_records_in_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t* count);

// Whether the index can follow when a record leaves, and another one becomes the first of its leaf. The index records
// that lead there are deleted and inserted anew, level by level. That fails half-way in a node below the root that has
// no others (X-btree-2), and for a key that no search finds, the name of a private folder (Q-catalog-1).
//
//   other  another record that leaves with it, or null
//
// Returns kvfs_ok; kvfs_limit; kvfs_inconsistent when the tree is too deep to be maintained, or the leaf says that it
// has another height than leaves have; or the failure of a search.
kvfs_result kvfs_session_check_index(kvfs_btree* tree, const kvfs_btree_record_locator* record,
                                     const kvfs_btree_record_locator* other);

#endif  // KVFS_SESSION_PRIVATE_H
