// Results in words.

#include "kvfs.h"

static const char* const kCommonTexts[] = {
    "it worked",                                                                             // KVFS_OK
    "there is no HFS Plus volume, or a lock failed",                                         // KVFS_FAILED
    "not enough memory",                                                                     // KVFS_NO_MEMORY
    "an argument is not acceptable",                                                         // KVFS_INVALID
    "the device failed or could not be opened",                                              // KVFS_IO_ERROR
    "a special file of the volume would need more than eight extents",                       // KVFS_UNSUPPORTED_EXTENTS
    "the volume is damaged",                                                                 // KVFS_INCONSISTENT
    "the catalog has no room for this, or the library is in a state that should not occur",  // KVFS_INTERNAL
    "the result does not fit the space given for it",                                        // KVFS_OVERFLOW
    "the name is taken",                                                                     // KVFS_EXISTS
    "this is beyond what the library can do",                                                // KVFS_LIMIT
};

static const char* const kSessionTexts[] = {
    "there is no such item",                                      // KVFS_NOT_FOUND
    "the item is no folder",                                      // KVFS_NOT_A_FOLDER
    "the item is no such file",                                   // KVFS_NOT_A_FILE
    "the folder is not empty",                                    // KVFS_NOT_EMPTY
    "the volume was opened for reading only",                     // KVFS_READ_ONLY
    "another program uses the volume",                            // KVFS_BUSY
    "the volume has no free block that could be used",            // KVFS_NO_SPACE
    "the volume is closed",                                       // KVFS_CLOSED
    "an earlier change failed half-way and has to be discarded",  // KVFS_SPOILED
    "there are no more items",                                    // KVFS_END
};

const char* kvfs_result_text(uint64_t result) {
  constexpr uint64_t kCommon = sizeof(kCommonTexts) / sizeof(kCommonTexts[0]);
  constexpr uint64_t kSession = sizeof(kSessionTexts) / sizeof(kSessionTexts[0]);
  static_assert(kCommon == KVFS_LIMIT + 1 && kSession == KVFS_END - KVFS_NOT_FOUND + 1);
  if (result < kCommon) {
    return kCommonTexts[result];
  }
  const bool is_of_session = result >= KVFS_NOT_FOUND && result - KVFS_NOT_FOUND < kSession;
  return is_of_session ? kSessionTexts[result - KVFS_NOT_FOUND] : "an unknown result";
}
