/* Lists the items of a folder: kind, ID, bytes and name.
 *
 *   list_folder VOLUME PATH */

#include <inttypes.h>

#include "example.h"

static const char* kind_of(const kvfs_item* item) {
  static const char* const kinds[] = {"", "file", "folder", "symlink", "hard link", "folder link"};
  return item->kind < sizeof(kinds) / sizeof(kinds[0]) ? kinds[item->kind] : "other"; /* of a later library */
}

static uint64_t list(kvfs_session* session, uint32_t folder_id) {
  kvfs_listing* listing = NULL;
  uint64_t result = kvfs_listing_open(session, folder_id, &listing);
  if (result != KVFS_OK) {
    return result;
  }
  kvfs_item item;
  item.struct_size = sizeof(item);
  while ((result = kvfs_listing_next(listing, &item)) == KVFS_OK) {
    printf("%-11s %6" PRIu32 " %8" PRIu64 "  %s\n", kind_of(&item), item.id, item.data_size, item.name);
  }
  (void)kvfs_listing_close(&listing);
  return result == KVFS_END ? KVFS_OK : result;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("usage: list_folder VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_session* session = NULL;
  kvfs_item folder;
  uint64_t result = kvfs_session_open(argv[1], 0, &session);
  if (result == KVFS_OK) {
    result = find(session, argv[2], &folder);
  }
  if (result == KVFS_OK) {
    result = list(session, folder.id);
  }
  (void)kvfs_session_close(&session);
  return result == KVFS_OK ? EXIT_SUCCESS : failed("list the folder", result);
}
