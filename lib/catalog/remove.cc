// Deletion of files and empty folders.

#include <cstdint>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "catalog/key.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::catalog;

// Looks at the record behind the place of a folder's thread record, which comes before all of the folder's items.
static kvfs_result look_behind_thread(kvfs_catalog* catalog, const kvfs_catalog_search_result& thread,
                                      std::uint32_t folder_id, int* out_empty) {
  if (thread.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_catalog_is_directory_empty,
                     "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator* next = nullptr;
  kvfs_result result = kvfs_catalog_get_next_record(catalog, thread.locator, &next);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_is_directory_empty,
                  "Error while looking up the next record after directory thread record.\n");
    return result;
  }
  if (next == nullptr) {
    *out_empty = 1;
    return kvfs_ok;
  }
  std::uint32_t parent = 0;
  result = read_key_parent(KVFS_NAME_OF(kvfs_catalog_is_directory_empty), next, &parent);
  if (result == kvfs_ok) {
    *out_empty = parent == folder_id ? 0 : 1;
  }
  kvfs_catalog_record_locator_close(&next);
  return result;
}

kvfs_result kvfs_catalog_is_directory_empty(kvfs_catalog* catalog, const kvfs_catalog_record_locator* folder,
                                            int* out_empty) {
  if (catalog == nullptr || folder == nullptr || out_empty == nullptr) {
    return kvfs_invalid;
  }
  HFSPlusCatalogFolder record;
  kvfs_result result = copy_record(__func__, folder, &record, sizeof(record));
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint32_t folder_id = record.folderID.get();
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  result = kvfs_catalog_search_by_cnid(catalog, folder_id, false, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for directory thread by CNID.\n");
    return result;
  }
  result = look_behind_thread(catalog, thread, folder_id, out_empty);
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_can_delete_file(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         int* out_can_delete) {
  if (catalog == nullptr || locator == nullptr || out_can_delete == nullptr) {
    return kvfs_invalid;
  }
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(__func__, locator, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord) {
    *out_can_delete = 1;
    return kvfs_ok;
  }
  result = kvfs_catalog_is_directory_empty(catalog, locator, out_can_delete);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while checking if directory is empty.\n");
  }
  return result;
}

namespace {

// An item that is being deleted, with a copy of its record.
struct catalog_deletion {
  kvfs_catalog* catalog;
  kvfs_volume* volume;
  kvfs_catalog_record_locator* locator;
  union {
    HFSPlusCatalogFolder folder;
    HFSPlusCatalogFile file;
  } record;
  bool is_folder;
  kvfs_be32 cnid;
  std::uint32_t freed_blocks;
};

}  // namespace

// Frees the blocks of the data fork; the resource fork's stay allocated. A failure does not stop the deletion. A volume
// without its allocation file fails where there is a block to free.
static void free_data_fork(catalog_deletion* item) {
  const HFSPlusForkData* const fork_data = &item->record.file.dataFork;
  kvfs_bitmap* const bitmap = item->volume->bitmap;
  if (fork_data->totalBlocks.get() == 0 || fork_data->extents.extents[0].blockCount.get() == 0) {
    return;
  }
  if (bitmap == nullptr ||
      FreeExtentAllocationBlocks(fork_data, 0, fork_data->totalBlocks.get(), bitmap, &item->freed_blocks) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while freeing allocation blocks of deleted file on cleanup.\n");
  }
}

static kvfs_result take_up_deleted_item(catalog_deletion* item) {
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord && type != kHFSPlusFileRecord) {
    KVFS_ERROR_AS(kvfs_catalog_delete,
                  "Invalid parameter: Record to delete is not a file or folder record (record type: %hd).\n",
                  static_cast<short>(type));
    return kvfs_invalid;
  }
  item->is_folder = type == kHFSPlusFolderRecord;
  if (item->is_folder) {
    result = copy_record(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &item->record.folder,
                         sizeof(item->record.folder));
    item->cnid = item->record.folder.folderID;
    return result;
  }
  result = copy_record(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &item->record.file, sizeof(item->record.file));
  if (result == kvfs_ok) {
    item->cnid = item->record.file.fileID;
    free_data_fork(item);
  }
  return result;
}

static kvfs_result leave_parent(const catalog_deletion& item) {
  kvfs_catalog_record_locator* const parent = *item.locator->parent;
  if (parent == nullptr) {  // Q-catalog-18
    KVFS_WARNING_AS(kvfs_catalog_delete, "INFO: No parent rec in delete..This is a todo\n");
    return kvfs_ok;
  }
  const kvfs_result result = kvfs_catalog_decrement_valence(item.catalog, &item.record, parent);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "%s: Failed to set parent valence.\n", KVFS_NAME_OF(kvfs_catalog_delete));
  }
  return result;
}

// Counts the item out of the volume.
static void count_out(const catalog_deletion& item) {
  if (item.is_folder) {
    kvfs_volume_subtract_folder_count(item.volume, 1);
  } else {
    kvfs_volume_subtract_file_count(item.volume, 1);
  }
  kvfs_volume_add_free_blocks(item.volume, item.freed_blocks);
}

// Deletes the thread record, or what stands in its place: whether it was found is not asked: Q-catalog-19.
static kvfs_result delete_thread_record(const catalog_deletion& item) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, item.cnid);
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_node(item.catalog, &key, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while searching for catalog thread record to destroy.\n");
    return result;
  }
  if (thread.locator == nullptr) {
    KVFS_WARNING_AS(kvfs_catalog_delete, "No thread record found for deleted %s.\n",
                    item.is_folder ? "folder" : "file");
    return kvfs_ok;
  }
  result = kvfs_btree_delete_record(btree_of(item.catalog), thread.locator->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while deleting thread record from B-tree.\n");
  } else {
    count_out(item);
  }
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_delete(kvfs_catalog* catalog, kvfs_volume* volume, kvfs_catalog_record_locator* locator) {
  if (catalog == nullptr || volume == nullptr || locator == nullptr) {
    return kvfs_invalid;
  }
  catalog_deletion item = {};
  item.catalog = catalog;
  item.volume = volume;
  item.locator = locator;
  kvfs_result result = take_up_deleted_item(&item);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_delete_record(btree_of(catalog), locator->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while deleting file/folder record from B-tree.\n");
    return result;
  }
  result = leave_parent(item);
  return result == kvfs_ok ? delete_thread_record(item) : result;
}
