/* Prints the label of a volume and some of its numbers.
 *
 *   volume_info VOLUME */

#include <inttypes.h>

#include "example.h"

static uint64_t print_info(kvfs_session* session) {
  char label[KVFS_LABEL_SIZE];
  uint64_t result = kvfs_session_label(session, KVFS_LABEL_COMPOSED, label, sizeof(label), NULL);
  if (result != KVFS_OK) {
    return result;
  }
  kvfs_volume_facts facts;
  facts.struct_size = sizeof(facts);
  result = kvfs_session_facts(session, &facts);
  if (result == KVFS_OK) {
    printf("label         %s\n", label);
    printf("size          %" PRIu64 "\n", facts.size);
    printf("free          %" PRIu64 "\n", facts.free_size);
    printf("files         %" PRIu32 "\n", facts.file_count);
    printf("folders       %" PRIu32 "\n", facts.folder_count);
  }
  return result;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fputs("usage: volume_info VOLUME\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_session* session = NULL;
  uint64_t result = kvfs_session_open(argv[1], 0, &session);
  if (result == KVFS_OK) {
    result = print_info(session);
  }
  (void)kvfs_session_close(&session); /* nothing was changed */
  return result == KVFS_OK ? EXIT_SUCCESS : failed("tell about the volume", result);
}
