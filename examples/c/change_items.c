/* Renames, moves and deletes items, and makes symbolic links.
 *
 *   change_items VOLUME rename PATH FOLDER NAME
 *   change_items VOLUME delete PATH
 *   change_items VOLUME link FOLDER NAME TARGET */

#include <string.h>

#include "example.h"

static uint64_t rename_item(kvfs_session* session, char** arguments) {
  kvfs_item item;
  kvfs_item folder;
  uint64_t result = find(session, arguments[0], &item);
  if (result == KVFS_OK) {
    result = find(session, arguments[1], &folder);
  }
  return result == KVFS_OK ? kvfs_session_rename(session, item.id, folder.id, arguments[2]) : result;
}

static uint64_t delete_item(kvfs_session* session, char** arguments) {
  kvfs_item item;
  const uint64_t result = find(session, arguments[0], &item);
  return result == KVFS_OK ? kvfs_session_delete(session, item.id) : result;
}

static uint64_t make_link(kvfs_session* session, char** arguments) {
  kvfs_item folder;
  const uint64_t result = find(session, arguments[0], &folder);
  return result == KVFS_OK ? kvfs_session_make_link(session, folder.id, arguments[1], arguments[2], NULL) : result;
}

static uint64_t change(kvfs_session* session, int count, char** words) {
  if (count == 4 && strcmp(words[0], "rename") == 0) {
    return rename_item(session, words + 1);
  }
  if (count == 2 && strcmp(words[0], "delete") == 0) {
    return delete_item(session, words + 1);
  }
  if (count == 4 && strcmp(words[0], "link") == 0) {
    return make_link(session, words + 1);
  }
  return KVFS_INVALID;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fputs("usage: change_items VOLUME rename|delete|link ...\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_session* session = NULL;
  uint64_t result = kvfs_session_open(argv[1], KVFS_OPEN_WRITE, &session);
  if (result == KVFS_OK) {
    result = change(session, argc - 2, argv + 2);
  }
  if (result == KVFS_OK) {
    result = kvfs_session_flush(session, 0);
  }
  (void)kvfs_session_close(&session);
  return result == KVFS_OK ? EXIT_SUCCESS : failed("change the volume", result);
}
