// Rename and move.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "catalog.h"
#include "catalog/key.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

namespace {

// An item that is being renamed, with a copy of its record, and its new thread record, which has folder and name from
// the beginning: the caller's name may lie in the old record (X-catalog-11).
struct renaming {
  kvfs_catalog* catalog;
  union {
    HFSPlusCatalogFolder folder;
    HFSPlusCatalogFile file;
  } record;
  HFSPlusCatalogThread thread;
  std::uint16_t record_size;
  bool is_folder;
  bool is_root;
  kvfs_be32 cnid;
  std::uint32_t name_length;
};

}  // namespace

// Copies the record of the item, which has to be a file or a folder.
static kvfs_result copy_renamed_record(renaming* item, const kvfs_catalog_record_locator* locator) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &type);
  if (read != kvfs_ok) {
    return read;
  }
  if (type != kHFSPlusFileRecord && type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Invalid record type (0x%hX) in record data!\n", type);
    return kvfs_invalid;
  }
  item->is_folder = type == kHFSPlusFolderRecord;
  item->record_size = item->is_folder ? sizeof(HFSPlusCatalogFolder) : sizeof(HFSPlusCatalogFile);
  const kvfs_result copied =
      copy_record(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &item->record, item->record_size);
  item->cnid = item->is_folder ? item->record.folder.folderID : item->record.file.fileID;
  return copied;
}

// Checks that the record of the item's folder is at hand: only under the root folder's parent there is none.
static kvfs_result check_parent_locator(const kvfs_catalog_record_locator* locator) {
  if (*locator->parent != nullptr) {
    return kvfs_ok;
  }
  std::uint32_t parent = 0;
  const kvfs_result read = read_key_parent(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &parent);
  if (read == kvfs_ok && parent != kHFSRootParentID) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Supplied catalog record locator has no parent locator.\n");
    return kvfs_invalid;
  }
  return read;
}

// Checks what can be checked before anything is deleted.
static kvfs_result prepare_rename(renaming* item, kvfs_catalog_record_locator* const* locator) {
  if (locator == nullptr || *locator == nullptr) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "No catalog record pointer specified.\n");
    return kvfs_invalid;
  }
  kvfs_result result = check_parent_locator(*locator);
  if (result == kvfs_ok) {
    result = copy_renamed_record(item, *locator);
  }
  if (result != kvfs_ok) {
    return result;
  }
  item->is_root = item->cnid.get() == kHFSRootFolderID;
  if (item->is_root && item->thread.parentID.get() != kHFSRootParentID) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record,
                  "Attempting to move root directory to other (non-root parent) folder. This is not allowed.\n");
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// Takes the item out of its old folder's valence. The root folder's parent has no record and so no valence.
static kvfs_result leave_old_folder(renaming* item, const kvfs_catalog_record_locator* locator) {
  if (item->is_root) {
    return kvfs_ok;
  }
  if (*locator->parent == nullptr) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "%s: Unable to decrement valence!\n",
                  KVFS_NAME_OF(kvfs_catalog_rename_record));
    return kvfs_internal;
  }
  const kvfs_result result = kvfs_catalog_decrement_valence(item->catalog, &item->record, *locator->parent);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error when decrementing valence of old parent folder.\n");
  }
  return result;
}

// Keys and thread records take half a KiB each. The two routines that insert records are not inlined, so that no frame
// holds more than one of them: the stacks of small systems are small.
[[gnu::noinline]] static kvfs_result insert_renamed_record(const renaming& item) {
  HFSPlusCatalogKey key;
  make_key(&key, item.thread.parentID, item.thread.nodeName.unicode, item.name_length);
  kvfs_catalog_record_locator* inserted = nullptr;
  const kvfs_result result =
      kvfs_catalog_insert_record(item.catalog, &key, &item.record, item.record_size, nullptr, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while inserting record into catalog.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_insert_record returned NULL locator but no error after inserting new record for renamed item into catalog.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator_close(&inserted);
  return kvfs_ok;
}

// Counts the item in where it is now, given the search for the folder.
static kvfs_result count_in_new_folder(const renaming& item, const kvfs_catalog_search_result& folder) {
  if (folder.locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error after searching for new containing folder of renamed item by CNID.\n");
    return kvfs_internal;
  }
  if (folder.found == 0) {
    KVFS_CRITICAL_AS(kvfs_catalog_rename_record,
                     "Unable to find containing parent with CNID %lu when attempting to increment valence.\n",
                     to_ul(item.thread.parentID.get()));
    return kvfs_inconsistent;
  }
  const kvfs_result result = kvfs_catalog_increment_valence(item.catalog, &item.record, folder.locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error when incrementing valence of new parent folder.\n");
  }
  return result;
}

static kvfs_result enter_new_folder(const renaming& item) {
  if (item.is_root) {
    return kvfs_ok;
  }
  kvfs_catalog_search_result folder;
  kvfs_catalog_search_result_init(&folder);
  kvfs_result result = kvfs_catalog_search_by_cnid(item.catalog, item.thread.parentID.get(), true, &folder);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record,
                  "Error while searching for containing folder of newly inserted record by CNID.\n");
    return result;
  }
  result = count_in_new_folder(item, folder);
  kvfs_catalog_search_result_release(&folder);
  return result;
}

// Inserts the new thread record where the old one stood or would have stood (Q-catalog-14).
[[gnu::noinline]] static kvfs_result insert_thread_record(renaming* item, const kvfs_catalog_search_result& place) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, item->cnid);
  HFSPlusCatalogThread* const thread = &item->thread;
  thread->recordType.set(item->is_folder ? kHFSPlusFolderThreadRecord : kHFSPlusFileThreadRecord);
  thread->nodeName.length.set(static_cast<std::uint16_t>(item->name_length));
  const std::uint16_t size =
      static_cast<std::uint16_t>(kHFSPlusCatalogThreadNameOffset + item->name_length * sizeof(kvfs_be16));
  kvfs_catalog_record_locator* inserted = nullptr;
  const kvfs_result result = kvfs_catalog_insert_record(item->catalog, &key, thread, size, &place, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while inserting thread record for renamed entry.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_insert_record returned NULL locator but no error after inserting new thread record.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator_close(&inserted);
  return kvfs_ok;
}

// Replaces the thread record that a search has found, or adds one where there was none.
static kvfs_result replace_found_thread(renaming* item, const kvfs_catalog_search_result& thread) {
  if (thread.locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error when seaching for thread of inserted record.\n");
    return kvfs_internal;
  }
  if (thread.found == 0) {
    KVFS_WARNING_AS(kvfs_catalog_rename_record,
                    "Missing thread record for original file in rename. Creating new thread record...\n");
  } else {
    const kvfs_result result = kvfs_btree_delete_record(btree_of(item->catalog), thread.locator->btree_locator, 0);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while deleting catalog thread record from B-tree.\n");
      return result;
    }
  }
  return insert_thread_record(item, thread);
}

static kvfs_result replace_thread_record(renaming* item) {
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_by_cnid(item->catalog, item->cnid.get(), false, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while searching for thread record by CNID.\n");
    return result;
  }
  result = replace_found_thread(item, thread);
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_rename_record(kvfs_catalog* catalog, kvfs_catalog_record_locator** locator,
                                       kvfs_be32 new_parent, const kvfs_be16* name, std::size_t name_length) {
  renaming item = {};
  item.catalog = catalog;
  item.thread.parentID = new_parent;
  kvfs_result result = prepare_rename(&item, locator);
  if (result != kvfs_ok) {
    return result;
  }
  if (name_length != 0 && name_length <= kHFSPlusMaxNameLength) {
    std::memcpy(item.thread.nodeName.unicode, name, name_length * sizeof(kvfs_be16));
  }
  result = kvfs_btree_delete_record(btree_of(catalog), (*locator)->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while deleting record from B-tree.\n");
    return result;
  }
  result = leave_old_folder(&item, *locator);
  kvfs_catalog_record_locator_close(locator);
  if (result != kvfs_ok) {
    return result;
  }
  if (name_length > kHFSPlusMaxNameLength) {
    return kvfs_invalid;  // only now, with the record gone, and without a message: Q-catalog-12
  }
  item.name_length = static_cast<std::uint32_t>(name_length);
  result = insert_renamed_record(item);
  if (result == kvfs_ok) {
    result = enter_new_folder(item);
  }
  return result == kvfs_ok ? replace_thread_record(&item) : result;
}
