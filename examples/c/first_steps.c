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
  file.struct_size = sizeof(file);
  const int done = argc == 4 && kvfs_session_open(argv[1], KVFS_OPEN_WRITE, &session) == KVFS_OK &&
                   kvfs_session_label(session, KVFS_LABEL_COMPOSED, label, sizeof(label), NULL) == KVFS_OK &&
                   kvfs_session_find(session, KVFS_ROOT_ID, argv[3], &file) == KVFS_OK &&
                   kvfs_stream_open(session, file.id, KVFS_DATA_FORK, &stream) == KVFS_OK &&
                   kvfs_stream_read(stream, 0, data, sizeof(data), &count) == KVFS_OK &&
                   printf("%s\n%.*s\n", label, (int)count, data) > 0 &&
                   kvfs_session_set_label(session, argv[2]) == KVFS_OK && kvfs_session_flush(session, 0) == KVFS_OK;
  (void)kvfs_stream_close(&stream);
  (void)kvfs_session_close(&session);
  return done ? 0 : 1;
}
