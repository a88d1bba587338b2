// Lists the items of a folder in the order of the catalog.
//
//   list_folder VOLUME PATH

#include <cstdio>
#include <cstdlib>

#include "volume_session.h"

// Prints one item: what it is, its ID and its name.
static bool print_item(const kvfs_catalog_record_locator* item) {
  const HFSPlusCatalogKey* const key = kvfs_view_as<HFSPlusCatalogKey>(item->btree_locator->key);
  const std::size_t length = key->nodeName.length.get();
  if (kHFSPlusCatalogKeyNameOffset + length * sizeof(kvfs_be16) > item->btree_locator->key_length) {
    return failed("print a damaged name", kvfs_inconsistent);  // a key holds only the units that its name has
  }
  if (length != 0 && key->nodeName.unicode[0].get() == 0) {
    return true;  // one of the private folders
  }
  if (const HFSPlusCatalogFolder* const folder = folder_record_of(item)) {
    std::printf("folder %6lu  ", static_cast<unsigned long>(folder->folderID.get()));
  } else if (const HFSPlusCatalogFile* const file = file_record_of(item)) {
    std::printf("file   %6lu  ", static_cast<unsigned long>(file->fileID.get()));
  }
  return print_name(key->nodeName.unicode, length);
}

static bool belongs_to(const kvfs_catalog_record_locator* record, std::uint32_t folder_id) {
  return record->btree_locator->key_length >= kHFSPlusCatalogKeyNameOffset &&
         kvfs_view_as<HFSPlusCatalogKey>(record->btree_locator->key)->parentID.get() == folder_id;
}

// Replaces a record by the one behind it; null at the end of the catalog.
static bool step(kvfs_catalog* catalog, kvfs_catalog_record_locator** record) {
  kvfs_catalog_record_locator* next = nullptr;
  const kvfs_result result = kvfs_catalog_get_next_record(catalog, *record, &next);
  kvfs_catalog_record_locator_close(record);
  *record = next;
  return result == kvfs_ok || failed("read on", result);
}

// A folder's items stand behind its thread record, one after the other.
static bool list_items(kvfs_catalog* catalog, std::uint32_t folder_id) {
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  const kvfs_result result = kvfs_catalog_search_by_cnid(catalog, folder_id, false, &thread);
  if (result != kvfs_ok) {
    return failed("find the folder's thread record", result);
  }
  kvfs_catalog_record_locator* record = thread.locator;  // taken over: the result is not released
  // Where the thread record is missing, the search ends on the record behind its place, or on one before it.
  bool good = (thread.found == 0 && thread.after == 0) || step(catalog, &record);
  while (good && record != nullptr && belongs_to(record, folder_id)) {
    good = print_item(record) && step(catalog, &record);
  }
  if (record != nullptr) {
    kvfs_catalog_record_locator_close(&record);
  }
  return good;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: list_folder VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kReading, &session)) {
    return EXIT_FAILURE;
  }
  bool good = false;
  kvfs_catalog_search_result item;
  if (find_item(session, argv[2], &item)) {
    const HFSPlusCatalogFolder* const folder = folder_record_of(item.locator);
    good = folder != nullptr ? list_items(session.volume->catalog, folder->folderID.get())
                             : failed("list what is no folder", kvfs_invalid);
    kvfs_catalog_search_result_release(&item);
  }
  close_session(&session);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
