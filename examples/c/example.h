/* What the examples share: a session, and words for what has failed. */

#ifndef EXAMPLE_H
#define EXAMPLE_H

#include <kvfs/kvfs.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

/* Says what has failed. Details are on standard error already. */
static inline int failed(const char* what, uint64_t result) {
  fprintf(stderr, "cannot %s: %s\n", what, kvfs_result_text(result));
  return EXIT_FAILURE;
}

/* Looks a path up; its links are not followed. */
static inline uint64_t find(kvfs_session* session, const char* path, kvfs_item* item) {
  item->struct_size = sizeof(*item);
  return kvfs_session_find(session, KVFS_ROOT_ID, path, item);
}

#endif /* EXAMPLE_H */
