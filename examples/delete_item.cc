// Deletes a file or an empty folder.
//
//   delete_item VOLUME PATH

#include <cstdio>
#include <cstdlib>

#include "btree.h"
#include "fork.h"
#include "volume_session.h"

// Takes a deleted item, whose locator is still readable, out of the count of its folder.
static bool count_out(kvfs_catalog* catalog, const kvfs_catalog_record_locator* item) {
  const std::uint32_t folder_id = kvfs_view_as<HFSPlusCatalogKey>(item->btree_locator->key)->parentID.get();
  kvfs_catalog_search_result folder;
  kvfs_catalog_search_result_init(&folder);
  kvfs_result result = kvfs_catalog_search_by_cnid(catalog, folder_id, true, &folder);
  if (result == kvfs_ok) {
    result = folder.found != 0 ? kvfs_catalog_decrement_valence(catalog, item->btree_locator->data, folder.locator)
                               : kvfs_inconsistent;
    kvfs_catalog_search_result_release(&folder);
  }
  return result == kvfs_ok || failed("count the item out of its folder", result);
}

// Deletes an item for which nothing else is open.
static bool remove_item(const volume_session& session, kvfs_catalog_record_locator* item) {
  kvfs_catalog* const catalog = session.volume->catalog;
  const bool count_afterwards = removal_moves_folder(item);
  kvfs_result result = kvfs_ok;
  if (count_afterwards) {
    result = kvfs_catalog_record_locator_set_parent_locator(item, nullptr);
  }
  if (result == kvfs_ok) {
    result = kvfs_catalog_delete(catalog, session.volume, item);
  }
  if (result != kvfs_ok) {
    return failed("delete the item", result);
  }
  return !count_afterwards || count_out(catalog, item);
}

// Without its thread record the library would delete another one, the one in its place.
static bool has_thread(kvfs_catalog* catalog, const kvfs_catalog_record_locator* item) {
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  const kvfs_result result = kvfs_catalog_search_by_cnid(catalog, id_of(item), false, &thread);
  const bool found = thread.found != 0;
  kvfs_catalog_search_result_release(&thread);
  return (result == kvfs_ok && found) ||
         failed("find the thread record", result != kvfs_ok ? result : kvfs_inconsistent);
}

static bool may_delete(const volume_session& session, const kvfs_catalog_record_locator* item) {
  if (*item->parent == nullptr) {
    return failed("delete the root folder", kvfs_invalid);
  }
  int can_delete = 0;
  const kvfs_result result = kvfs_catalog_can_delete_file(session.volume->catalog, item, &can_delete);
  if (result != kvfs_ok) {
    return failed("look into the folder", result);
  }
  if (can_delete == 0) {
    return failed("delete a folder that is not empty", kvfs_invalid);
  }
  return has_thread(session.volume->catalog, item);
}

// First the catalog, which stops naming the item, then the counts.
static bool flush_deletion(kvfs_volume* volume) {
  kvfs_result result = kvfs_fork_flush((*volume->catalog->btree)->fork);
  if (result == kvfs_ok) {
    result = kvfs_volume_flush(volume);
  }
  return result == kvfs_ok || failed("flush the volume", result);
}

static bool delete_item(const volume_session& session, const char* path) {
  kvfs_volume* const volume = session.volume;
  kvfs_catalog_search_result item;
  if (!find_item(session, path, &item)) {
    return false;
  }
  const std::uint32_t free_blocks = volume->header->freeBlocks.get();
  bool good = may_delete(session, item.locator) && remove_item(session, item.locator);
  kvfs_catalog_search_result_release(&item);
  if (good) {
    // Freeing a block writes another byte than its own, so that the allocation file had better not be flushed. The
    // blocks then stay in use on the device, and must not be counted as free.
    kvfs_volume_subtract_free_blocks(volume, volume->header->freeBlocks.get() - free_blocks);
    good = flush_deletion(volume);
  }
  return good;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: delete_item VOLUME PATH\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kChanging, &session)) {
    return EXIT_FAILURE;
  }
  const bool good = delete_item(session, argv[2]);
  close_session(&session);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
