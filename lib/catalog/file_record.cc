// File records: sizes and hard links.

#include "catalog/file_record.h"

#include <cstddef>
#include <cstdint>

#include "catalog.h"
#include "catalog/key.h"
#include "catalog/lookup.h"
#include "format.h"
#include "result.h"
#include "support.h"

using namespace kvfs::catalog;

static constexpr std::uint32_t kHardLinkType = 0x686C6E6B;  // 'hlnk'

static constexpr std::uint32_t kHardLinkCreator = 0x6866732B;  // 'hfs+'

int kvfs_catalog_file_link_kind(const HFSPlusCatalogFile* record) {
  const std::uint32_t type = record->userInfo.fdType.get();
  const std::uint32_t creator = record->userInfo.fdCreator.get();
  if (type == kHardLinkType && creator == kHardLinkCreator) {
    return kvfs_hard_link;
  }
  return type == kSymLinkType && creator == kSymLinkCreator ? kvfs_symbolic_link : kvfs_plain_file;
}

static std::uint64_t size_of_forks(const HFSPlusCatalogFile& file) {
  const std::uint64_t data_size = file.dataFork.logicalSize.get();
  return data_size != 0 ? data_size : file.resourceFork.logicalSize.get();  // Q-catalog-20
}

// Reads the size out of a record that may be short; the resource fork's size is asked for only where it counts.
static bool read_size_of_forks(const kvfs_catalog_record_locator* locator, std::uint64_t* size) {
  constexpr std::size_t kDataSizeEnd = offsetof(HFSPlusCatalogFile, dataFork) + sizeof(kvfs_be64);
  constexpr std::size_t kResourceSizeEnd = offsetof(HFSPlusCatalogFile, resourceFork) + sizeof(kvfs_be64);
  const HFSPlusCatalogFile* const file = kvfs_view_as<HFSPlusCatalogFile>(locator->btree_locator->data);
  if (check_record_size(KVFS_NAME_OF(kvfs_catalog_record_get_file_size), locator, kDataSizeEnd) != kvfs_ok ||
      (file->dataFork.logicalSize.get() == 0 &&
       check_record_size(KVFS_NAME_OF(kvfs_catalog_record_get_file_size), locator, kResourceSizeEnd) != kvfs_ok)) {
    return false;
  }
  *size = size_of_forks(*file);
  return true;
}

// Reads the size of the file that a hard link stands for, or of the record in its place: whether the file is there is
// not asked (Q-catalog-24).
static bool read_link_target_size(kvfs_catalog* catalog, const HFSPlusCatalogFile* link, std::uint64_t* size) {
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const bool read = kvfs_catalog_follow_hard_link(catalog, link, &target) == kvfs_ok && target.locator != nullptr &&
                    read_size_of_forks(target.locator, size);
  kvfs_catalog_search_result_release(&target);
  return read;
}

std::uint64_t kvfs_catalog_record_get_file_size(const HFSPlusCatalogFile* record, kvfs_catalog* catalog) {
  if (kvfs_catalog_file_link_kind(record) != kvfs_hard_link) {
    return size_of_forks(*record);
  }
  std::uint64_t size = 0;
  if (!read_link_target_size(catalog, record, &size)) {
    KVFS_ERROR("Error while following hard link.\n");
    return 0;
  }
  return size;
}

void kvfs_catalog_record_set_file_size(void* record, std::uint64_t size) {
  if (record == nullptr) {
    KVFS_ERROR("Error in %s - no record\n", __func__);
    return;
  }
  const std::uint16_t type = kvfs_view_as<kvfs_be16>(record)->get();
  if (type != kHFSPlusFileRecord) {
    KVFS_ERROR("%s: Can only set size for a file record - This is a record of type: %d\n", __func__,
               static_cast<int>(type));
  }
  kvfs_view_as<HFSPlusCatalogFile>(record)->dataFork.logicalSize.set(size);  // into any record: Q-catalog-21
}

kvfs_result kvfs_catalog_follow_hard_link(kvfs_catalog* catalog, const HFSPlusCatalogFile* record,
                                          kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, record->permissions.special);
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_node(catalog, &key, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for catalog record of hard linked file.\n");
    return result;
  }
  if (thread.locator == nullptr) {
    return kvfs_internal;
  }
  // A missing thread has no message: Q-catalog-22.
  result = thread.found != 0 ? make_target_key(__func__, thread.locator, &key) : kvfs_inconsistent;
  if (result == kvfs_ok) {
    result = kvfs_catalog_search_node(catalog, &key, out_result);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while searching for hard link target.\n");
    }
  }
  kvfs_catalog_search_result_release(&thread);
  return result;
}
