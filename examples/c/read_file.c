/* Writes the content of a file to standard output.
 *
 *   read_file VOLUME PATH */

#include "example.h"

#define PIECE (1 << 20)

static uint64_t copy(kvfs_stream* stream, void* buffer) {
  uint64_t offset = 0;
  size_t count = 0;
  do {
    const uint64_t result = kvfs_stream_read(stream, offset, buffer, PIECE, &count);
    if (result != KVFS_OK) {
      return result;
    }
    if (fwrite(buffer, 1, count, stdout) != count) {
      return KVFS_IO_ERROR;
    }
    offset += count;
  } while (count != 0);
  return fflush(stdout) == 0 ? KVFS_OK : KVFS_IO_ERROR;
}

static uint64_t read_file(kvfs_session* session, const char* path) {
  kvfs_item item;
  kvfs_stream* stream = NULL;
  uint64_t result = find(session, path, &item);
  if (result == KVFS_OK) {
    result = kvfs_stream_open(session, item.id, KVFS_DATA_FORK, &stream);
  }
  void* const buffer = malloc(PIECE);
  if (result == KVFS_OK) {
    result = buffer != NULL ? copy(stream, buffer) : KVFS_NO_MEMORY;
  }
  free(buffer);
  (void)kvfs_stream_close(&stream);
  return result;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("usage: read_file VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  kvfs_session* session = NULL;
  uint64_t result = kvfs_session_open(argv[1], KVFS_OPEN_NO_ALLOCATION, &session);
  if (result == KVFS_OK) {
    result = read_file(session, argv[2]);
  }
  (void)kvfs_session_close(&session);
  return result == KVFS_OK ? EXIT_SUCCESS : failed("read the file", result);
}
