/* Prints a volume's label and the beginning of a file, and changes the label.
 *
 *   first_steps VOLUME LABEL PATH */

#include <kvfs/kvfs.h>
#include <stdio.h>

int main(int argc, char** argv) {
  char label[KVFS_LABEL_SIZE], data[4096];
  size_t count = 0;
  kvfs_item file;
  kvfs_session* session = NULL;
  kvfs_stream* stream = NULL;
  uint64_t result = KVFS_INVALID;
  file.struct_size = sizeof(file);
  if (argc == 4 && (result = kvfs_session_open(argv[1], KVFS_OPEN_WRITE, &session)) == KVFS_OK &&
      (result = kvfs_session_label(session, KVFS_LABEL_COMPOSED, label, sizeof(label), NULL)) == KVFS_OK &&
      (result = kvfs_session_find(session, KVFS_ROOT_ID, argv[3], &file)) == KVFS_OK &&
      (result = kvfs_stream_open(session, file.id, KVFS_DATA_FORK, &stream)) == KVFS_OK &&
      (result = kvfs_stream_read(stream, 0, data, sizeof(data), &count)) == KVFS_OK &&
      (result = kvfs_session_set_label(session, argv[2])) == KVFS_OK &&
      (result = kvfs_session_flush(session, KVFS_FLUSH_DEVICE)) == KVFS_OK) {
    printf("%s\n%.*s\n", label, (int)count, data);
  } else {
    fprintf(stderr, "%s\n", kvfs_result_text(result));
  }
  (void)kvfs_stream_close(&stream);
  (void)kvfs_session_close(&session);
  return result == KVFS_OK ? 0 : 1;
}
