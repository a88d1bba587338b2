/* Changes the label of a volume.
 *
 *   set_label VOLUME LABEL */

#include "example.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("usage: set_label VOLUME LABEL\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_session* session = NULL;
  uint64_t result = kvfs_session_open(argv[1], KVFS_OPEN_WRITE, &session);
  if (result == KVFS_OK) {
    result = kvfs_session_set_label(session, argv[2]);
  }
  if (result == KVFS_OK) {
    result = kvfs_session_flush(session, KVFS_FLUSH_DEVICE);
  }
  (void)kvfs_session_close(&session); /* what was not flushed is given up */
  return result == KVFS_OK ? EXIT_SUCCESS : failed("change the label", result);
}
