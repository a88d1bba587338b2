// Opens a volume and says what it is.
//
//   volume_info VOLUME

#include <cstdio>
#include <cstdlib>

#include "volume_session.h"

static void print_number(const char* name, kvfs_be32 number) {
  std::printf("%-14s%lu\n", name, static_cast<unsigned long>(number.get()));
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: volume_info VOLUME\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kReading, &session)) {
    return EXIT_FAILURE;
  }
  const kvfs_volume* const volume = session.volume;
  std::printf("%-14s", "label");
  const bool printed = print_name(volume->label, *volume->label_length);
  // The header is in memory as it is on disk: big-endian fields that get() brings into the host's order.
  print_number("block size", volume->header->blockSize);
  print_number("blocks", volume->header->totalBlocks);
  print_number("free blocks", volume->header->freeBlocks);
  print_number("files", volume->header->fileCount);
  print_number("folders", volume->header->folderCount);
  close_session(&session);
  return printed ? EXIT_SUCCESS : EXIT_FAILURE;
}
