#include "volume_session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "unicode.h"

bool failed(const char* what, kvfs_result result) {
  std::fprintf(stderr, "cannot %s: result %llu\n", what, static_cast<unsigned long long>(result));
  return false;
}

// ---- Opening and closing -------------------------------------------------------------------------------------------

bool open_session(const char* path, purpose wanted, volume_session* session) {
  const bool reading = wanted == purpose::kReading;
  session->fd = open(path, (reading ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  if (session->fd < 0) {
    std::perror(path);
    return false;
  }
  // The device locks the whole file, shared or for itself alone, and waits until nobody objects.
  kvfs_result result = kvfs_device_create(session->fd, reading ? 1 : 0, 512, 0, &session->device);
  if (result == kvfs_ok) {
    // Reading does not need the allocation file.
    result = kvfs_volume_create(session->device, reading ? 1 : 0, &session->volume);
  }
  if (result != kvfs_ok) {
    close_session(session);
    return failed("open the volume", result);
  }
  return true;
}

void close_session(volume_session* session) {
  if (session->volume != nullptr) {
    kvfs_volume_destroy(&session->volume);
  }
  if (session->device != nullptr) {
    kvfs_device_destroy(&session->device);
  }
  if (session->fd >= 0) {
    close(session->fd);
    session->fd = -1;
  }
}

// ---- Looking up ----------------------------------------------------------------------------------------------------

bool find_item(const volume_session& session, const char* path, kvfs_catalog_search_result* item) {
  kvfs_catalog_search_result_init(item);
  kvfs_catalog_utf8_path components = {path};
  const kvfs_result result = kvfs_catalog_search_by_path(session.volume->catalog, kvfs_catalog_utf8_path_component,
                                                         &components, nullptr, item);
  if (result != kvfs_ok) {
    return failed("look up the path", result);
  }
  if (item->found == 0) {  // a success all the same: the locator is on the place where the item would stand
    const int looked_at = static_cast<int>(components.rest - path);
    std::fprintf(stderr, "there is no %.*s\n", looked_at, path);
    kvfs_catalog_search_result_release(item);
    return false;
  }
  return true;
}

const HFSPlusCatalogFile* file_record_of(const kvfs_catalog_record_locator* item) {
  const kvfs_btree_record_locator* const record = item->btree_locator;
  const bool is_file = record->data_size >= sizeof(HFSPlusCatalogFile) &&
                       kvfs_view_as<kvfs_be16>(record->data)->get() == kHFSPlusFileRecord;
  return is_file ? kvfs_view_as<HFSPlusCatalogFile>(record->data) : nullptr;
}

const HFSPlusCatalogFolder* folder_record_of(const kvfs_catalog_record_locator* item) {
  const kvfs_btree_record_locator* const record = item->btree_locator;
  const bool is_folder = record->data_size >= sizeof(HFSPlusCatalogFolder) &&
                         kvfs_view_as<kvfs_be16>(record->data)->get() == kHFSPlusFolderRecord;
  return is_folder ? kvfs_view_as<HFSPlusCatalogFolder>(record->data) : nullptr;
}

std::uint32_t id_of(const kvfs_catalog_record_locator* item) {
  const HFSPlusCatalogFolder* const folder = folder_record_of(item);
  const HFSPlusCatalogFile* const file = file_record_of(item);
  return folder != nullptr ? folder->folderID.get() : (file != nullptr ? file->fileID.get() : 0);
}

bool removal_moves_folder(const kvfs_catalog_record_locator* item) {
  const kvfs_catalog_record_locator* const folder = *item->parent;
  return folder != nullptr && *folder->btree_locator->node == *item->btree_locator->node &&
         *folder->btree_locator->index > *item->btree_locator->index;
}

// ---- Names ---------------------------------------------------------------------------------------------------------

bool print_name(const kvfs_be16* units, std::size_t length) {
  std::uint16_t composed[kHFSPlusMaxNameLength];
  std::size_t count = 0;
  if (kvfs_unicode_compose(units, length, composed, kHFSPlusMaxNameLength, &count) != 0) {
    return failed("compose a name", kvfs_overflow);
  }
  char* text = nullptr;  // the converter allocates it
  std::size_t size = 0;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(composed, count, kUnicodeHostOrder, &text, &size);
  if (result != kvfs_ok) {
    return failed("convert a name", result);
  }
  std::printf("%.*s\n", static_cast<int>(size), text);
  std::free(text);
  return true;
}
