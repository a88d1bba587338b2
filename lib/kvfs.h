// HFS Plus volumes for programs in C, and in whatever calls C: version 1 of the interface.
//
// A session is an open volume that is not mounted. Everything goes through it: the label, facts about the volume, files
// and folders, their data, changes and their way to the device.
//
//     kvfs_session* session = NULL;
//     uint64_t result = kvfs_session_open("disk.img", KVFS_OPEN_WRITE, &session);
//     if (result == KVFS_OK) {
//       result = kvfs_session_set_label(session, "Backup");
//     }
//     if (result == KVFS_OK) {
//       result = kvfs_session_flush(session, KVFS_FLUSH_DEVICE);
//     }
//     (void)kvfs_session_close(&session);
//
// Text is UTF-8 and ends with a zero byte. Numbers are in host order, sizes and offsets in bytes. An item, that is a
// file or folder, is named by its ID, the catalog node ID that it keeps for as long as it exists; a path leads to it.
//
// Handles are opened and closed in pairs. Closing takes the address of the handle, makes it null and does nothing when
// it is null already. Listings and streams may outlive their session: they answer KVFS_CLOSED until they are closed.
//
// Null pointers where something is needed, unknown flags and structures of a wrong size are refused with KVFS_INVALID
// before anything is done; a size is wrong below that of the structure here, and above 64 KiB. A function that fails
// leaves what its out-parameters lead to unchanged unless it says otherwise; what a change did before it failed is told
// below. Failures are logged: see kvfs_set_log_handler.
//
// Threads: any function may be called at any time on any thread; only opening and closing a handle are for one thread
// that nobody races for that handle. Functions of one session, its listings and streams included, take turns under one
// lock, so that each is whole and none sees another's change half made; different sessions do not wait for each other.
// Whoever needs two answers to belong together keeps changes out in between.
//
// Other programs are kept out by the lock on the device or image file alone, which is shared for reading and exclusive
// for changing. It is advisory: it does not keep out a mounted file system. Never open a mounted volume for changing.
//
// Compatibility: functions, constants and fields of structures keep name, meaning and place for good; later versions
// only add some, functions at any place and fields at the end of structures. See KVFS_INTERFACE_VERSION.

#ifndef KVFS_KVFS_H
#define KVFS_KVFS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KVFS_CHECKED __attribute__((warn_unused_result))
#pragma GCC visibility push(default)
#else
// Follows a function whose result must be looked at.
#define KVFS_CHECKED
#endif

// The version of the interface that this header describes. It grows with each addition.
#define KVFS_INTERFACE_VERSION 1

// Returns the version of the interface that the library offers, at least the one that a program was compiled with.
uint32_t kvfs_interface_version(void);

// ---- Results -------------------------------------------------------------------------------------------------------
//
// What every function returns that can fail. Values from 0 to 10 come from all layers of the library, the others from
// this interface. A program should expect values that are new to it and treat them as failures.

#define KVFS_OK UINT64_C(0)                   // it worked
#define KVFS_FAILED UINT64_C(1)               // no HFS Plus volume; a lock failed; no better value was set
#define KVFS_NO_MEMORY UINT64_C(2)            // an allocation failed
#define KVFS_INVALID UINT64_C(3)              // an argument or a text is not acceptable
#define KVFS_IO_ERROR UINT64_C(4)             // the device failed, moved too few bytes or could not be opened
#define KVFS_UNSUPPORTED_EXTENTS UINT64_C(5)  // a special file would need more than eight extents
#define KVFS_INCONSISTENT UINT64_C(6)         // the volume contradicts itself
#define KVFS_INTERNAL UINT64_C(7)             // a state that cannot occur, or a catalog that would have to grow
#define KVFS_OVERFLOW UINT64_C(8)             // a result does not fit the space given for it
#define KVFS_EXISTS UINT64_C(9)               // the name is taken
#define KVFS_LIMIT UINT64_C(10)               // beyond what this library can do
#define KVFS_NOT_FOUND UINT64_C(32)           // there is no such item
#define KVFS_NOT_A_FOLDER UINT64_C(33)        // the item is no folder
#define KVFS_NOT_A_FILE UINT64_C(34)          // the item has no forks, or is no symbolic link
#define KVFS_NOT_EMPTY UINT64_C(35)           // the folder holds items
#define KVFS_READ_ONLY UINT64_C(36)           // the session was not opened for changing
#define KVFS_BUSY UINT64_C(37)                // another program holds the lock on the device or image file
#define KVFS_NO_SPACE UINT64_C(38)            // no free block was found
#define KVFS_CLOSED UINT64_C(39)              // the session is closed, or could not be opened again after a discard
#define KVFS_SPOILED UINT64_C(40)             // an earlier change failed half-way: discard
#define KVFS_END UINT64_C(41)                 // a listing has no more items

// Returns a short English text for a result, such as "there is no such item"; never null, and never to be freed.
const char* kvfs_result_text(uint64_t result);

// ---- Log -----------------------------------------------------------------------------------------------------------

// Receives one message of the log.
//
//   context  as given with the handler
//   level    "ERROR" (an operation failed), "WARNING" (odd but tolerated) or "CRITICAL" (cannot happen)
//   routine  the library's routine that reports
//   line     in the source of that routine
//   text     the message without its line end; it and the other texts are good until the handler returns
//
// A handler runs on the thread whose call failed, while that call holds its session's lock: it must return, and must
// not call this library.
typedef void (*kvfs_log_handler)(void* context, const char* level, const char* routine, int line, const char* text);

// Sends the log to a handler, or with null to standard error again, which is where it goes at first. There is one log
// for the whole process. On standard error some messages share a line; a handler receives each of them by itself.
//
// A message that is longer than memory allows is cut. Not to be called while another thread is in the library.
void kvfs_set_log_handler(kvfs_log_handler handler, void* context);

// ---- Sessions ------------------------------------------------------------------------------------------------------

// An open volume.
typedef struct kvfs_session kvfs_session;

// How a session is opened: 0 or any of these together.
#define KVFS_OPEN_WRITE UINT32_C(1)          // for changing as well; the file lock is then exclusive
#define KVFS_OPEN_NO_WAIT UINT32_C(2)        // fails with KVFS_BUSY rather than wait for the file lock
#define KVFS_OPEN_NO_ALLOCATION UINT32_C(4)  // without the allocation file: nothing that asks or changes it works then

// Opens the volume on a block device or in a disk image.
//
//   flags        of KVFS_OPEN_...
//   out_session  receives the session, to be closed with kvfs_session_close
//
// Returns KVFS_OK; KVFS_IO_ERROR, with the system's errno, when the file cannot be opened; KVFS_BUSY; KVFS_FAILED when
// there is no HFS Plus volume; KVFS_INCONSISTENT when it is damaged; KVFS_NO_MEMORY also when the volume header gives
// the catalog, the allocation file or the extents overflow file extents or a size that cannot be, which the log tells
// apart; or the failure of what was read. A signal that is handled while this waits for the file lock ends it with
// KVFS_FAILED, unless the handler was set with SA_RESTART.
uint64_t kvfs_session_open(const char* path, uint32_t flags, kvfs_session** out_session) KVFS_CHECKED;

// The same on a file descriptor, which must stay open as long as the session and is never closed by it. The file lock
// belongs to the open file behind the descriptor: it goes when the session is closed. Sessions on one descriptor, or on
// copies of it that dup or fork have made, share one lock: it does not keep them from each other, is what the last of
// them asked for, and goes with the first that is closed. A program opens one session on a descriptor at a time.
//
// Returns as above, and KVFS_INVALID for a descriptor that is not open for reading; with KVFS_OPEN_WRITE also for one
// that is not open for writing, or is for appending: what it writes would not go where it belongs.
uint64_t kvfs_session_open_descriptor(int descriptor, uint32_t flags, kvfs_session** out_session) KVFS_CHECKED;

// Closes a session and gives its file lock back. Changes that were not flushed are lost.
//
// Returns KVFS_OK, or the failure of the session's lock, and the session then stays open.
uint64_t kvfs_session_close(kvfs_session** session);

// ---- Label ---------------------------------------------------------------------------------------------------------

// How a label is wanted.
#define KVFS_LABEL_COMPOSED UINT32_C(0)  // precomposed characters, as most programs show text
#define KVFS_LABEL_STORED UINT32_C(1)    // decomposed, as it is on the volume

// Bytes that every label fits in, the zero byte included.
#define KVFS_LABEL_SIZE 766

// Copies the volume's label.
//
//   form           KVFS_LABEL_COMPOSED or KVFS_LABEL_STORED
//   buffer, size   receive the label and a zero byte; bytes
//   out_length     receives the bytes of the label without the zero byte, on KVFS_OVERFLOW too; may be null
//
// Returns KVFS_OK; KVFS_OVERFLOW when the buffer is too small; KVFS_INVALID also for a stored label that is no proper
// UTF-16; KVFS_NO_MEMORY.
uint64_t kvfs_session_label(kvfs_session* session, uint32_t form, char* buffer, size_t size,
                            size_t* out_length) KVFS_CHECKED;

// Changes the volume's label.
//
//   label  1 to 255 UTF-16 units when it is decomposed; any composition
//
// Returns as a change does, and KVFS_INVALID for a text that cannot be a label.
uint64_t kvfs_session_set_label(kvfs_session* session, const char* label) KVFS_CHECKED;

// ---- Facts about the volume ----------------------------------------------------------------------------------------

// A date that is not known. Dates are seconds since the beginning of 1970, UTC; HFS Plus can say 1904 to 2040.
#define KVFS_NO_DATE INT64_MIN

// What is known about a volume. Set struct_size before asking.
typedef struct kvfs_volume_facts {
  uint32_t struct_size;           // in: sizeof(kvfs_volume_facts)
  uint32_t block_size;            // bytes in an allocation block
  uint64_t size;                  // bytes in all allocation blocks
  uint64_t free_size;             // bytes in the blocks that the volume header counts as free
  uint32_t block_count;           // allocation blocks
  uint32_t free_block_count;      // allocation blocks that the volume header counts as free
  uint32_t file_count;            // files, as the volume header counts them; hard links count each
  uint32_t folder_count;          // folders, likewise; the root folder does not count
  uint32_t next_id;               // for the next new item
  uint32_t attributes;            // of the volume header, as they are
  uint64_t identifier;            // set when the volume was first used; 0 when it was not
  int64_t creation_date;          // in the local time of where the volume was made
  int64_t modification_date;      // of anything on the volume
  int64_t backup_date;            // of the volume as a whole
  int64_t check_date;             // of its consistency
  uint32_t write_count;           // grows with each mount
  uint32_t last_mounted_by;       // four characters for who mounted the volume last, the first the most significant
  uint8_t is_hfsx;                // 1: HFSX; 0: HFS Plus
  uint8_t is_case_sensitive;      // 1: names that differ in case are different
  uint8_t is_journaled;           // 1: there is a journal; this library neither replays nor writes it
  uint8_t is_dirty;               // 1: not unmounted properly, so that counts may be off and a journal not empty
  uint8_t is_locked;              // 1: its owner wants it unchanged; that is for programs to respect
  uint8_t is_writable;            // 1: the session was opened for changing
  uint8_t has_allocation_file;    // 1: the session was opened with the allocation file
  uint8_t has_unflushed_changes;  // 1: changes were made since the last flush
} kvfs_volume_facts;

// Tells facts about the volume, from the volume header in memory.
//
// Returns KVFS_OK or the failure of reading the catalog's header.
uint64_t kvfs_session_facts(kvfs_session* session, kvfs_volume_facts* facts) KVFS_CHECKED;

// ---- Blocks --------------------------------------------------------------------------------------------------------

// Tells whether an allocation block is in use, as the allocation file has it.
//
//   out_in_use  receives 1 or 0
//
// Returns KVFS_OK; KVFS_INVALID for a block behind the last one and without the allocation file; KVFS_INCONSISTENT when
// that ends before the block; or the failure of reading it.
uint64_t kvfs_session_block_in_use(kvfs_session* session, uint32_t block, int* out_in_use) KVFS_CHECKED;

// Counts the blocks that are free in the allocation file, which on a sound volume is what the facts say.
//
// Returns as above.
uint64_t kvfs_session_count_free_blocks(kvfs_session* session, uint32_t* out_count) KVFS_CHECKED;

// ---- Names, paths and items ----------------------------------------------------------------------------------------
//
// In a path "/" separates names. Empty names are passed over: "/a/b", "a/b" and "a//b/" lead to the same item, "" and
// "/" to the folder that the path starts from. "." and ".." are names like any other.
//
// HFS Plus allows every name of 1 to 255 UTF-16 units. What UTF-8, a path or a C string cannot hold is spelled "%u" and
// four hexadecimal digits, 0 to 9 and A to F, for one unit: "/" is %u002F, NUL %u0000, a surrogate without its partner
// %uD800 to %uDFFF. A "%" in front of what would read as such a spelling is %u0025. Everything else stands for itself,
// a single "%" included; the spelling is undone exactly where it is read, so that any unit may be written that way.
//
// Names come as they are stored, decomposed. Names that are looked up or given may be composed or not: they are
// decomposed, but for what is spelled %uXXXX. Some programs store names that are not decomposed. Units that would be
// come spelled, such as %u00E9, so that each name leads to its own item and is kept when it is given again. Such a name
// is found by its text as it stands, too, unless the folder also has the decomposed one.
//
// Where case does not matter, U+200C to U+200F, U+202A to U+202E, U+206A to U+206F and U+FEFF do not matter either:
// names that differ in them alone are the same, and one of nothing else is no name: no item is found by it or gets it.

// The ID of the root folder.
#define KVFS_ROOT_ID UINT32_C(2)

// Kinds of item. Later versions may have more.
#define KVFS_FILE UINT32_C(1)           // also devices and the like: see the mode
#define KVFS_FOLDER UINT32_C(2)         // holds items
#define KVFS_SYMBOLIC_LINK UINT32_C(3)  // holds the path of another item
#define KVFS_HARD_LINK UINT32_C(4)      // stands for a file that lies in a private folder
#define KVFS_FOLDER_LINK UINT32_C(5)    // stands for a folder that lies in a private folder

// Bytes that every spelled name fits in, the zero byte included.
#define KVFS_NAME_SIZE 1536

// What is known about a file or folder. Set struct_size before asking. Facts of a link are those of the link itself.
typedef struct kvfs_item {
  uint32_t struct_size;         // in: sizeof(kvfs_item)
  uint32_t kind;                // KVFS_FILE to KVFS_FOLDER_LINK
  uint32_t id;                  // of the item
  uint32_t parent_id;           // of the folder that holds it; 1 for the root folder
  uint32_t target_id;           // hard and folder links: their reference, the ID of what they stand for; or 0
  uint32_t valence;             // folders: items in it, as its record counts them
  uint64_t data_size;           // bytes of the data fork
  uint64_t resource_size;       // bytes of the resource fork
  uint64_t data_allocated;      // bytes in the blocks of the data fork
  uint64_t resource_allocated;  // bytes in the blocks of the resource fork
  int64_t creation_date;        // of the item
  int64_t modification_date;    // of its content
  int64_t change_date;          // of what its record says
  int64_t access_date;          // of its content
  int64_t backup_date;          // of the item
  uint32_t owner_id;            // user
  uint32_t group_id;            // group
  uint32_t mode;                // kind and permissions as in st_mode; 0 where owner, group and mode are not kept
  uint32_t special;             // device: its number; file that hard links stand for: their number
  uint32_t finder_type;         // files: four characters, the first the most significant byte
  uint32_t finder_creator;      // files: likewise
  uint16_t finder_flags;        // such as 0x4000 invisible
  uint16_t record_flags;        // of the record, as they are
  uint8_t admin_flags;          // bits that only an administrator changes: 1 archived, 2 immutable, 4 append
  uint8_t owner_flags;          // bits that the owner changes: 2 immutable, 4 append, 32 compressed (see streams)
  uint16_t name_length;         // bytes of the name without the zero byte
  uint32_t reserved;            // 0
  char name[KVFS_NAME_SIZE];    // spelled as said above; the label for the root folder
} kvfs_item;

// Looks up a path.
//
//   folder_id  of the folder that the path starts from: KVFS_ROOT_ID
//   out_item   receives the item that the path leads to. Links on the way and at its end are not followed
//
// Returns KVFS_OK; KVFS_NOT_FOUND; KVFS_NOT_A_FOLDER when a name is left behind what is no folder; KVFS_INVALID for a
// text that is no path; or the failure of a search.
uint64_t kvfs_session_find(kvfs_session* session, uint32_t folder_id, const char* path,
                           kvfs_item* out_item) KVFS_CHECKED;

// Looks up an item by its ID.
//
// Returns KVFS_OK; KVFS_NOT_FOUND; or the failure of a search.
uint64_t kvfs_session_find_id(kvfs_session* session, uint32_t id, kvfs_item* out_item) KVFS_CHECKED;

// ---- Listings ------------------------------------------------------------------------------------------------------

// A walk over the items of a folder, in the order of the catalog.
typedef struct kvfs_listing kvfs_listing;

// Begins a listing. Directly under the root folder are also the private folders, with what links stand for. The name of
// that for hard links begins with %u0000; that for folder links is ".HFS+ Private Directory Data" and a carriage return.
//
// Returns KVFS_OK; KVFS_NOT_FOUND; KVFS_NOT_A_FOLDER; KVFS_NO_MEMORY; or the failure of a search.
uint64_t kvfs_listing_open(kvfs_session* session, uint32_t folder_id, kvfs_listing** out_listing) KVFS_CHECKED;

// Gives the next item. Items that come or go while a listing is open may be listed or not; all others are, once.
//
// Returns KVFS_OK; KVFS_END behind the last item; or the failure of reading on.
uint64_t kvfs_listing_next(kvfs_listing* listing, kvfs_item* out_item) KVFS_CHECKED;

// Ends a listing.
//
// Returns KVFS_OK, or the failure of the session's lock, and the listing then stays open.
uint64_t kvfs_listing_close(kvfs_listing** listing);

// ---- Streams -------------------------------------------------------------------------------------------------------

// One fork of a file, open for reading.
typedef struct kvfs_stream kvfs_stream;

// Forks of a file.
#define KVFS_DATA_FORK UINT32_C(0)      // its content
#define KVFS_RESOURCE_FORK UINT32_C(1)  // structured data that belongs to it

// Opens a fork. Of a hard link it is the fork of the file that the link stands for, of a symbolic link its own. A file
// that its system has compressed (32 in owner_flags) has an empty data fork: its content lies elsewhere, compressed.
//
// Returns KVFS_OK; KVFS_NOT_FOUND, also when a link leads nowhere; KVFS_NOT_A_FILE; KVFS_INCONSISTENT when the extents
// do not make up the fork; KVFS_LIMIT for one in too many pieces; KVFS_NO_MEMORY; or the failure of a search.
uint64_t kvfs_stream_open(kvfs_session* session, uint32_t id, uint32_t fork, kvfs_stream** out_stream) KVFS_CHECKED;

// Tells the size of the fork in bytes.
//
// Returns KVFS_OK; KVFS_NOT_FOUND when the file was deleted in the session; or as kvfs_stream_open does.
uint64_t kvfs_stream_size(kvfs_stream* stream, uint64_t* out_size) KVFS_CHECKED;

// Reads bytes of the fork, straight from the device: nothing of them is kept in memory.
//
//   offset     bytes; at or behind the end of the fork nothing is read
//   buffer     receives at most `size` bytes; of no defined content after a failure
//   out_read   receives how many were read, fewer than `size` only at the end of the fork
//
// Returns KVFS_OK, at the end too; KVFS_IO_ERROR; KVFS_INCONSISTENT; or as kvfs_stream_size does.
uint64_t kvfs_stream_read(kvfs_stream* stream, uint64_t offset, void* buffer, size_t size,
                          size_t* out_read) KVFS_CHECKED;

// Closes a fork.
//
// Returns KVFS_OK, or the failure of the session's lock, and the stream then stays open.
uint64_t kvfs_stream_close(kvfs_stream** stream);

// Bytes that every target of a symbolic link made by this library fits in, the zero byte included.
#define KVFS_TARGET_SIZE 256

// Copies the target of a symbolic link: the bytes of its data fork up to the first zero byte, whatever they are.
//
//   buffer, size  receive the target and a zero byte; bytes
//   out_length    receives the bytes of the target without the zero byte, on KVFS_OVERFLOW too; may be null
//
// Returns KVFS_OK; KVFS_NOT_FOUND; KVFS_NOT_A_FILE when the item is no symbolic link; KVFS_OVERFLOW when the buffer is
// too small; or as reading does.
uint64_t kvfs_session_read_link(kvfs_session* session, uint32_t id, char* buffer, size_t size,
                                size_t* out_length) KVFS_CHECKED;

// ---- Changes -------------------------------------------------------------------------------------------------------
//
// A change is made in memory; kvfs_session_flush brings it to the device. Only the target of a symbolic link is written
// at once, into a block that is still free then.
//
// A change that is refused (KVFS_INVALID, KVFS_EXISTS, KVFS_NOT_FOUND, KVFS_NOT_A_FOLDER, KVFS_NOT_A_FILE,
// KVFS_NOT_EMPTY, KVFS_NO_SPACE, KVFS_READ_ONLY) has changed nothing. One that fails otherwise may stand half done in
// memory: from then on changes and flushes are refused with KVFS_SPOILED, and what is read may not hold together, until
// kvfs_session_discard has forgotten everything since the last flush. The device is as it was after that flush.
//
// KVFS_LIMIT: the catalog cannot be changed like that. It does not grow, and does not give back nodes: a change that
// would leave one without records is refused, and so is one that the index above cannot follow; these have changed
// nothing. When KVFS_INTERNAL or KVFS_LIMIT leaves the session spoiled, the catalog had no room for the longer name or
// the new item.
//
// Dates of items and of the volume do not change. The alternate volume header and the journal are not written; let its
// own system mount a volume first whose journal may not be empty (is_journaled and is_dirty).

// Gives an item another name, or another folder, or both, and counts it in the folders as it should be.
//
//   folder_id  of the folder that will hold the item
//   name       one name, spelled as said above
//
// Returns KVFS_OK; KVFS_INVALID for the root folder (see kvfs_session_set_label), a private folder and its name, in any
// case where case does not matter, items and names with a NUL, what lies or would lie in a private folder, a folder
// that would lie in itself, or a text that is no name; KVFS_EXISTS; KVFS_NOT_FOUND; KVFS_NOT_A_FOLDER; or as said
// above.
uint64_t kvfs_session_rename(kvfs_session* session, uint32_t id, uint32_t folder_id, const char* name) KVFS_CHECKED;

// Deletes a file with both of its forks, a symbolic link or an empty folder. Its blocks become free with the flush.
// Attributes that the attributes file keeps for the item stay there, unreachable.
//
// Returns KVFS_OK; KVFS_NOT_EMPTY; KVFS_INVALID for the root folder, without the allocation file, for a private folder
// and what lies in one, which links stand for, and for any item with a NUL in its name; KVFS_LIMIT for a hard link or
// folder link, whose target would have to be counted; KVFS_INCONSISTENT, with nothing changed, for a file whose blocks
// lie outside the volume, are free already or belong to the volume itself, as the journal's do, and for a folder that
// counts items of which none is found; or as said above.
uint64_t kvfs_session_delete(kvfs_session* session, uint32_t id) KVFS_CHECKED;

// Makes a symbolic link.
//
//   folder_id  of the folder that will hold the link
//   name       of the link, spelled as said above
//   target     a path for whoever follows the link: 1 to 255 bytes without a backslash
//   out_id     receives the ID of the link; may be null
//
// Returns KVFS_OK; KVFS_EXISTS; KVFS_NO_SPACE; KVFS_INVALID also without the allocation file and for a private folder
// and its name; KVFS_INCONSISTENT, with nothing changed, when the block that is free next belongs to the volume itself,
// blocks are no whole sectors of 512 bytes, or the next ID cannot be given; or as said above.
uint64_t kvfs_session_make_link(kvfs_session* session, uint32_t folder_id, const char* name, const char* target,
                                uint32_t* out_id) KVFS_CHECKED;

// Asks for the writes to have reached the device, not only the system: before it returns, and between the steps.
#define KVFS_FLUSH_DEVICE UINT32_C(1)

// Writes what was changed to the device. Before that the changed catalog is looked at: its root folder must be found
// and its records must be as many as there should be.
//
// The steps, each left out where nothing has changed:
//
//   1. the allocation file: blocks of new links are in use
//   2. the volume header, when items were made: their IDs are not given out again
//   3. the catalog: names, folders and files are as they were changed
//   4. the extents overflow file: without the extents of files that were deleted
//   5. the allocation file: blocks of deleted files are free
//   6. the volume header: the counts
//
// After a loss of power between two steps nothing refers to what is not there: every block that a file names is in use
// and is no other's, and no ID is given twice. What can be left is a block in use that nothing names, extents of a file
// that is gone, and counts of the volume header that are off. A loss within step 3 leaves the catalog as its writes
// came, node by node. The order holds on the device with KVFS_FLUSH_DEVICE; without it the system may change it.
//
//   flags  0 or KVFS_FLUSH_DEVICE
//
// Returns KVFS_OK, also when nothing has changed; KVFS_SPOILED; KVFS_INCONSISTENT, with nothing written and the session
// spoiled, when the changed catalog does not hold together; KVFS_IO_ERROR; or another failure of writing, after which a
// flush goes on with what was not written. A session for reading has nothing to flush.
uint64_t kvfs_session_flush(kvfs_session* session, uint32_t flags) KVFS_CHECKED;

// Forgets the changes since the last flush by opening the volume again, from what is on the device.
//
// Returns KVFS_OK; KVFS_CLOSED once the session was closed; or the failure of opening: the session then answers
// KVFS_CLOSED to all but this and its closing.
uint64_t kvfs_session_discard(kvfs_session* session) KVFS_CHECKED;

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif  // KVFS_KVFS_H
