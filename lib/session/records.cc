// Records of files and folders that searches have found, and what is known from them.

#include <cstddef>
#include <cstring>

#include "btree.h"
#include "session/private.h"

// ---- Results of searches -------------------------------------------------------------------------------------------

kvfs_catalog_record_locator* kvfs_session_found::take() {
  kvfs_catalog_record_locator* const locator = result_.locator;
  kvfs_catalog_search_result_init(&result_);
  return locator;
}

static std::uint16_t type_of(const void* record_data) {
  return kvfs_view_as<kvfs_be16>(record_data)->get();
}

const HFSPlusCatalogFile* kvfs_session_found::file() const {
  return type_of(record()->data) == kHFSPlusFileRecord ? kvfs_view_as<HFSPlusCatalogFile>(record()->data) : nullptr;
}

const HFSPlusCatalogFolder* kvfs_session_found::folder() const {
  return type_of(record()->data) == kHFSPlusFolderRecord ? kvfs_view_as<HFSPlusCatalogFolder>(record()->data) : nullptr;
}

// Whether a key holds as many units as it says, and no more than a name can have.
static bool holds_name(const kvfs_btree_record_locator* record) {
  if (record->key_length < kHFSPlusCatalogKeyNameOffset) {
    return false;
  }
  const std::size_t length = kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName.length.get();
  return length <= kHFSPlusMaxNameLength &&
         record->key_length - kHFSPlusCatalogKeyNameOffset >= length * sizeof(kvfs_be16);
}

kvfs_result kvfs_session_check_item(const kvfs_btree_record_locator* record) {
  std::size_t needed = SIZE_MAX;
  if (record->data_size >= sizeof(kvfs_be16)) {
    const std::uint16_t type = type_of(record->data);
    needed = type == kHFSPlusFileRecord     ? sizeof(HFSPlusCatalogFile)
             : type == kHFSPlusFolderRecord ? sizeof(HFSPlusCatalogFolder)
                                            : SIZE_MAX;
  }
  if (record->data_size < needed || !holds_name(record)) {
    KVFS_ERROR("Record %hu of node %lu is no whole file or folder.\n", *record->index, to_ul(*record->node));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

std::uint32_t kvfs_session_id_of(const void* record_data) {
  return type_of(record_data) == kHFSPlusFolderRecord ? kvfs_view_as<HFSPlusCatalogFolder>(record_data)->folderID.get()
                                                      : kvfs_view_as<HFSPlusCatalogFile>(record_data)->fileID.get();
}

// ---- Facts ---------------------------------------------------------------------------------------------------------

std::uint32_t kvfs_session_kind_of(const HFSPlusCatalogFile* file) {
  constexpr std::uint32_t kFolderLinkType = 0x66647270;     // 'fdrp'
  constexpr std::uint32_t kFolderLinkCreator = 0x4D414353;  // 'MACS'
  constexpr std::uint16_t kModeKind = 0170000;
  constexpr std::uint16_t kModeSymbolicLink = 0120000;
  const int link_kind = kvfs_catalog_file_link_kind(file);
  if (link_kind == kvfs_hard_link) {
    return KVFS_HARD_LINK;
  }
  if (link_kind == kvfs_symbolic_link || (file->permissions.fileMode.get() & kModeKind) == kModeSymbolicLink) {
    return KVFS_SYMBOLIC_LINK;
  }
  const bool is_folder_link = file->userInfo.fdType.get() == kFolderLinkType &&
                              file->userInfo.fdCreator.get() == kFolderLinkCreator &&
                              (file->flags.get() & kHFSHasLinkChainMask) != 0;
  return is_folder_link ? KVFS_FOLDER_LINK : KVFS_FILE;
}

// Facts that file and folder records have in the same places.
static void describe_common(const HFSPlusCatalogFolder& record, kvfs_item* item) {
  item->record_flags = record.flags.get();
  item->id = record.folderID.get();
  item->creation_date = kvfs_session_date(record.createDate);
  item->modification_date = kvfs_session_date(record.contentModDate);
  item->change_date = kvfs_session_date(record.attributeModDate);
  item->access_date = kvfs_session_date(record.accessDate);
  item->backup_date = kvfs_session_date(record.backupDate);
  item->owner_id = record.permissions.ownerID.get();
  item->group_id = record.permissions.groupID.get();
  item->mode = record.permissions.fileMode.get();
  item->admin_flags = record.permissions.adminFlags;
  item->owner_flags = record.permissions.ownerFlags;
}

static_assert(offsetof(HFSPlusCatalogFile, fileID) == offsetof(HFSPlusCatalogFolder, folderID));
static_assert(offsetof(HFSPlusCatalogFile, createDate) == offsetof(HFSPlusCatalogFolder, createDate));
static_assert(offsetof(HFSPlusCatalogFile, permissions) == offsetof(HFSPlusCatalogFolder, permissions));

static void describe_file(const HFSPlusCatalogFile& file, std::uint32_t block_size, kvfs_item* item) {
  item->kind = kvfs_session_kind_of(&file);
  const bool is_link = item->kind == KVFS_HARD_LINK || item->kind == KVFS_FOLDER_LINK;
  const std::uint32_t special = file.permissions.special.get();
  item->target_id = is_link ? special : 0;
  item->special = is_link ? 0 : special;
  item->data_size = file.dataFork.logicalSize.get();
  item->resource_size = file.resourceFork.logicalSize.get();
  item->data_allocated = std::uint64_t{block_size} * file.dataFork.totalBlocks.get();
  item->resource_allocated = std::uint64_t{block_size} * file.resourceFork.totalBlocks.get();
  item->finder_type = file.userInfo.fdType.get();
  item->finder_creator = file.userInfo.fdCreator.get();
  item->finder_flags = file.userInfo.fdFlags.get();
}

void kvfs_session_describe(const HFSPlusCatalogKey* key, const void* record_data, std::uint32_t block_size,
                           kvfs_item* item) {
  std::memset(item, 0, sizeof(*item));
  describe_common(*kvfs_view_as<HFSPlusCatalogFolder>(record_data), item);
  if (type_of(record_data) == kHFSPlusFolderRecord) {
    constexpr std::size_t kFinderFlagsOffset = 8;  // in the user info, behind the window's place
    const HFSPlusCatalogFolder* const folder = kvfs_view_as<HFSPlusCatalogFolder>(record_data);
    item->kind = KVFS_FOLDER;
    item->valence = folder->valence.get();
    item->finder_flags =
        kvfs_view_as<kvfs_be16>(static_cast<const void*>(folder->userInfo + kFinderFlagsOffset))->get();
  } else {
    describe_file(*kvfs_view_as<HFSPlusCatalogFile>(record_data), block_size, item);
  }
  item->parent_id = key->parentID.get();
  item->name_length =
      static_cast<std::uint16_t>(kvfs_session_spell(key->nodeName.unicode, key->nodeName.length.get(), item->name));
}
