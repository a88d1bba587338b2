// Looks up a path and says what is there.
//
//   look_up VOLUME PATH

#include <cstdio>
#include <cstdlib>

#include "volume_session.h"

static void print_item(const kvfs_catalog_record_locator* item) {
  if (const HFSPlusCatalogFolder* const folder = folder_record_of(item)) {
    std::printf("folder %lu with %lu items", static_cast<unsigned long>(folder->folderID.get()),
                static_cast<unsigned long>(folder->valence.get()));
  } else if (const HFSPlusCatalogFile* const file = file_record_of(item)) {
    static const char* const kKinds[] = {"file", "hard link", "symbolic link"};
    std::printf("%s %lu", kKinds[kvfs_catalog_file_link_kind(file)], static_cast<unsigned long>(file->fileID.get()));
  } else {
    std::printf("record of type %lu", static_cast<unsigned long>(item->record_type));
  }
  if (*item->parent != nullptr) {  // only the root folder lies in none
    if (const HFSPlusCatalogFolder* const parent = folder_record_of(*item->parent)) {
      std::printf(", in folder %lu", static_cast<unsigned long>(parent->folderID.get()));
    }
  }
  std::puts("");
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: look_up VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kReading, &session)) {
    return EXIT_FAILURE;
  }
  kvfs_catalog_search_result item;
  const bool found = find_item(session, argv[2], &item);
  if (found) {
    print_item(item.locator);
    kvfs_catalog_search_result_release(&item);  // also gives back the folder's locator
  }
  close_session(&session);
  return found ? EXIT_SUCCESS : EXIT_FAILURE;
}
