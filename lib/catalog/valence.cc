// The counts that a folder keeps of what is in it.

#include <cstdint>

#include "btree.h"
#include "catalog.h"
#include "catalog/key.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

// File type and creator of a file that is a hard link to a directory.
static constexpr std::uint32_t kDirectoryLinkType = 0x66647270;  // 'fdrp'

static constexpr std::uint32_t kDirectoryLinkCreator = 0x4D414353;  // 'MACS'

static bool counts_as_folder(const void* record_data) {
  if (kvfs_view_as<kvfs_be16>(record_data)->get() == kHFSPlusFolderRecord) {
    return true;
  }
  const HFSPlusCatalogFile* const file = kvfs_view_as<HFSPlusCatalogFile>(record_data);
  return file->userInfo.fdType.get() == kDirectoryLinkType && file->userInfo.fdCreator.get() == kDirectoryLinkCreator &&
         (file->flags.get() & kHFSHasLinkChainMask) != 0;
}

// Rewrites the folder record of the parent, in the name of kvfs_catalog_update_valence. Its counts wrap (Q-catalog-11).
static void change_counts(const void* child_record_data, kvfs_catalog_record_locator* parent, std::uint32_t change) {
  HFSPlusCatalogFolder folder;
  if (copy_record(KVFS_NAME_OF(kvfs_catalog_update_valence), parent, &folder, sizeof(folder)) != kvfs_ok) {
    return;
  }
  if (counts_as_folder(child_record_data) && (folder.flags.get() & kHFSHasFolderCountMask) != 0) {
    folder.folderCount.set(folder.folderCount.get() + change);
  }
  folder.valence.set(folder.valence.get() + change);
  if (kvfs_btree_record_locator_write_data(parent->btree_locator, &folder, sizeof(folder)) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_update_valence, "Error while writing out updated parent valence.\n");
  }
}

kvfs_result kvfs_catalog_update_valence(kvfs_catalog* /*catalog*/, const void* child_record_data,
                                        kvfs_catalog_record_locator* parent, int increment) {
  const std::uint16_t type = kvfs_view_as<kvfs_be16>(child_record_data)->get();
  if (is_thread(type)) {
    KVFS_ERROR("Invalid parameter: Child record data is a thread record.\n");
  } else if (type != kHFSPlusFolderRecord && type != kHFSPlusFileRecord) {
    KVFS_CRITICAL("Unexpected - Bad data in child_record_data (not a catalog record, record type: 0x%hX).\n", type);
  } else {
    change_counts(child_record_data, parent, increment != 0 ? 1U : 0U - 1U);
  }
  return kvfs_ok;  // in every case: Q-catalog-10
}

kvfs_result kvfs_catalog_increment_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent) {
  return kvfs_catalog_update_valence(catalog, child_record_data, parent, 1);
}

kvfs_result kvfs_catalog_decrement_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent) {
  return kvfs_catalog_update_valence(catalog, child_record_data, parent, 0);
}
