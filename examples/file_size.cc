// Prints the size of a file in bytes. A hard link has the size of the file that it stands for.
//
//   file_size VOLUME PATH

#include <cstdio>
#include <cstdlib>

#include "volume_session.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: file_size VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kReading, &session)) {
    return EXIT_FAILURE;
  }
  bool good = false;
  kvfs_catalog_search_result item;
  if (find_item(session, argv[2], &item)) {
    const HFSPlusCatalogFile* const file = file_record_of(item.locator);
    good = file != nullptr || failed("read the size of what is no file", kvfs_invalid);
    if (good) {
      // The log tells a file of 0 bytes from a hard link that leads nowhere.
      const std::uint64_t size = kvfs_catalog_record_get_file_size(file, session.volume->catalog);
      std::printf("%llu\n", static_cast<unsigned long long>(size));
    }
    kvfs_catalog_search_result_release(&item);
  }
  close_session(&session);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
