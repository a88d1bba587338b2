// Renames a file or folder, or moves it to another folder.
//
//   rename VOLUME PATH FOLDER NAME

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "btree.h"
#include "fork.h"
#include "volume_session.h"

namespace {

// A name as the catalog stores it.
struct stored_name {
  kvfs_be16 units[kHFSPlusMaxNameLength];
  std::size_t length = 0;
};

}  // namespace

static bool convert_name(const char* text, stored_name* name) {
  kvfs_catalog_utf8_path path = {text};
  const kvfs_result result = kvfs_catalog_utf8_path_component(&path, name->units, kHFSPlusMaxNameLength, &name->length);
  if (result != kvfs_ok) {
    return failed("convert the name", result);
  }
  return (name->length != 0 && std::strchr(text, '/') == nullptr) || failed("use this as a name", kvfs_invalid);
}

// Whether the name is free in the folder; the item's own name is, so that its case can be changed.
static bool name_is_free(kvfs_catalog* catalog, kvfs_catalog_record_locator* folder, const char* name,
                         std::uint32_t id) {
  kvfs_catalog_utf8_path path = {name};
  kvfs_catalog_search_result other;
  kvfs_catalog_search_result_init(&other);
  const kvfs_result result =
      kvfs_catalog_search_by_path(catalog, kvfs_catalog_utf8_path_component, &path, folder, &other);
  if (result != kvfs_ok) {
    return failed("look for the new name", result);
  }
  const bool is_free = other.found == 0 || id_of(other.locator) == id;
  kvfs_catalog_search_result_release(&other);
  return is_free || failed("use a name that is taken", kvfs_exists);
}

// Whether a folder is the item or lies in it, at any depth. Nothing else keeps a folder from being moved into itself.
static bool lies_in(kvfs_catalog* catalog, std::uint32_t folder, std::uint32_t item, bool* inside) {
  constexpr int kDeepest = 1000;  // a damaged catalog may lead in a circle
  *inside = folder == item;
  for (int depth = 0; folder != kHFSRootFolderID && !*inside; ++depth) {
    kvfs_catalog_search_result found;
    kvfs_catalog_search_result_init(&found);
    const kvfs_result result = kvfs_catalog_search_by_cnid(catalog, folder, true, &found);
    if (result != kvfs_ok) {
      return failed("find a folder", result);
    }
    if (found.found != 0) {
      folder = kvfs_view_as<HFSPlusCatalogKey>(found.locator->btree_locator->key)->parentID.get();
    }
    const bool lost = found.found == 0 || depth == kDeepest;
    kvfs_catalog_search_result_release(&found);
    if (lost) {
      return failed("find a folder", kvfs_inconsistent);
    }
    *inside = folder == item;
  }
  return true;
}

// Checks what the library does not: it would find out with the old record gone already.
static bool may_move(const volume_session& session, const kvfs_catalog_record_locator* item, const char* folder_path,
                     const char* name, std::uint32_t* folder_id) {
  kvfs_catalog* const catalog = session.volume->catalog;
  kvfs_catalog_search_result folder;
  if (!find_item(session, folder_path, &folder)) {
    return false;
  }
  bool good = folder_record_of(folder.locator) != nullptr || failed("move into what is no folder", kvfs_invalid);
  if (good) {
    *folder_id = id_of(folder.locator);
    bool inside = false;
    good = name_is_free(catalog, folder.locator, name, id_of(item)) &&
           lies_in(catalog, *folder_id, id_of(item), &inside) &&
           (!inside || failed("move a folder into itself", kvfs_invalid));
  }
  kvfs_catalog_search_result_release(&folder);  // while records move, only the item and its folder may be open
  return good;
}

static bool rename_item(const volume_session& session, const char* path, const char* folder_path, const char* text) {
  stored_name name;
  kvfs_catalog_search_result item;
  if (!convert_name(text, &name) || !find_item(session, path, &item)) {
    return false;
  }
  std::uint32_t folder_id = 0;
  bool good = (*item.locator->parent != nullptr || failed("move the root folder", kvfs_invalid)) &&
              (!removal_moves_folder(item.locator) || failed("keep the folder's count right", kvfs_inconsistent)) &&
              may_move(session, item.locator, folder_path, text, &folder_id);
  if (good) {
    const kvfs_result result = kvfs_catalog_rename_record(session.volume->catalog, &item.locator,
                                                          kvfs_be32::of(folder_id), name.units, name.length);
    good = result == kvfs_ok || failed("rename the item", result);
  }
  kvfs_catalog_search_result_release(&item);  // renaming has closed the locator, unless it refused early
  if (good) {
    const kvfs_result result = kvfs_fork_flush((*session.volume->catalog->btree)->fork);
    good = result == kvfs_ok || failed("flush the catalog", result);
  }
  return good;  // after a failure nothing is flushed: the volume on the device stays as it was
}

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fputs("usage: rename VOLUME PATH FOLDER NAME\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kChanging, &session)) {
    return EXIT_FAILURE;
  }
  const bool good = rename_item(session, argv[2], argv[3], argv[4]);
  close_session(&session);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
