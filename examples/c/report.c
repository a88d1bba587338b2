/* Prints the label of a volume, and in its own words what the library reports when that fails.
 *
 *   report VOLUME */

#include "example.h"

static void receive(void* context, const char* level, const char* routine, int line, const char* text) {
  (void)level; /* "ERROR", "WARNING" or "CRITICAL" */
  (void)line;
  fprintf(stderr, "%s: %s (%s)\n", (const char*)context, text, routine);
}

int main(int argc, char** argv) {
  static char name[] = "report";
  if (argc != 2) {
    fputs("usage: report VOLUME\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_set_log_handler(receive, name);
  kvfs_session* session = NULL;
  char label[KVFS_LABEL_SIZE];
  uint64_t result = kvfs_session_open(argv[1], 0, &session);
  if (result == KVFS_OK) {
    result = kvfs_session_label(session, KVFS_LABEL_COMPOSED, label, sizeof(label), NULL);
  }
  if (result == KVFS_OK) {
    printf("%s\n", label);
  }
  (void)kvfs_session_close(&session);
  return result == KVFS_OK ? EXIT_SUCCESS : failed("open the volume", result);
}
