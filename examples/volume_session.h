// What the examples share: a volume on an open device, and the item behind a path.

#ifndef VOLUME_SESSION_H
#define VOLUME_SESSION_H

#include <cstddef>
#include <cstdint>

#include "catalog.h"
#include "device.h"
#include "format.h"
#include "result.h"
#include "volume.h"

enum class purpose { kReading, kChanging };

struct volume_session {
  int fd = -1;
  kvfs_device* device = nullptr;
  kvfs_volume* volume = nullptr;
};

// Opens the volume on a block device or in a disk image. False, with a message, when that fails.
bool open_session(const char* path, purpose wanted, volume_session* session);

// Closes what was opened, in reverse order. Changes that were not flushed are lost.
void close_session(volume_session* session);

// Looks a path up. True hands out the item, which the caller releases, with its folder's locator as its parent; the
// root folder has none. False, with a message, when there is no such item.
bool find_item(const volume_session& session, const char* path, kvfs_catalog_search_result* item);

// The file or folder record of an item, or null when the item is something else.
const HFSPlusCatalogFile* file_record_of(const kvfs_catalog_record_locator* item);
const HFSPlusCatalogFolder* folder_record_of(const kvfs_catalog_record_locator* item);
// The catalog node ID of either; 0 for anything else.
std::uint32_t id_of(const kvfs_catalog_record_locator* item);

// Whether taking the item out of the catalog moves the record of its folder, whose open locator would not follow.
bool removal_moves_folder(const kvfs_catalog_record_locator* item);

// Prints a stored name, composed and in UTF-8, and a line feed.
bool print_name(const kvfs_be16* units, std::size_t length);

// Says what has failed, and returns false.
bool failed(const char* what, kvfs_result result);

#endif  // VOLUME_SESSION_H
