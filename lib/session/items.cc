// Looking items up, and what is known about them.

#include <cstring>

#include "btree.h"
#include "session_private.h"
#include "volume.h"

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

void kvfs_session_make_key(std::uint32_t parent_id, const kvfs_be16* units, std::size_t length,
                           HFSPlusCatalogKey* key) {
  const std::size_t size = length * sizeof(kvfs_be16);
  key->keyLength.set(static_cast<std::uint16_t>(kHFSPlusCatalogKeyMinimumLength + size));
  key->parentID.set(parent_id);
  key->nodeName.length.set(static_cast<std::uint16_t>(length));
  if (length != 0) {
    std::memcpy(key->nodeName.unicode, units, size);
  }
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

// ---- Searches ------------------------------------------------------------------------------------------------------

kvfs_result kvfs_session_find_key(kvfs_session* session, std::uint32_t folder_id, const kvfs_be16* units,
                                  std::size_t length, kvfs_session_found* item) {
  HFSPlusCatalogKey key;
  kvfs_session_make_key(folder_id, units, length, &key);
  const kvfs_result result = kvfs_catalog_search_node(session->volume->catalog, &key, item->out());
  if (result != kvfs_ok) {
    return result;
  }
  if (!item->found()) {
    item->release();
    return kvfs_not_found;
  }
  return kvfs_session_check_item(item->record());
}

static bool has_name(const kvfs_btree_record_locator* record, const kvfs_be16* units, std::size_t length) {
  const HFSUniStr255& name = kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName;
  return name.length.get() == length && std::memcmp(name.unicode, units, length * sizeof(kvfs_be16)) == 0;
}

// Looks at all items of a folder: the order of the catalog does not lead to names with NUL units in them.
static kvfs_result find_by_walking(kvfs_session* session, std::uint32_t folder_id, const kvfs_session_name& name,
                                   kvfs_session_found* item) {
  kvfs_session_walk walk;
  kvfs_result result = kvfs_session_begin_walk(session, folder_id, nullptr, false, &walk);
  while (result == kvfs_ok && walk.record != nullptr &&
         !has_name(walk.record->btree_locator, name.units, name.length)) {
    result = kvfs_session_step(&walk);
  }
  if (result == kvfs_ok) {
    result = walk.record != nullptr ? kvfs_ok : kvfs_not_found;
  }
  if (result == kvfs_ok) {
    *item->out() = {1, 0, walk.record};
    walk.record = nullptr;
  }
  kvfs_session_end_walk(&walk);
  return result;
}

// Looks for the item of a thread whose name the order of the catalog does not lead to.
static kvfs_result find_by_thread(kvfs_session* session, std::uint32_t id, kvfs_session_found* item) {
  kvfs_session_found thread;
  const kvfs_result result = kvfs_catalog_search_by_cnid(session->volume->catalog, id, false, thread.out());
  if (result != kvfs_ok || !thread.found() || thread.record()->data_size < kHFSPlusCatalogThreadNameOffset) {
    return kvfs_result_keep(result, kvfs_not_found);
  }
  const HFSPlusCatalogThread* const data = kvfs_view_as<HFSPlusCatalogThread>(thread.record()->data);
  const std::size_t length = data->nodeName.length.get();
  const std::size_t room = (thread.record()->data_size - kHFSPlusCatalogThreadNameOffset) / sizeof(kvfs_be16);
  if (length > kHFSPlusMaxNameLength || length > room || !kvfs_session_has_nul(data->nodeName.unicode, length)) {
    return kvfs_not_found;
  }
  const std::uint32_t folder_id = data->parentID.get();
  kvfs_session_name name;
  name.length = length;
  std::memcpy(name.units, data->nodeName.unicode, length * sizeof(kvfs_be16));
  thread.release();
  return find_by_walking(session, folder_id, name, item);
}

static kvfs_result check_id(const kvfs_session_found& item, std::uint32_t id) {
  const kvfs_result checked = kvfs_session_check_item(item.record());
  if (checked == kvfs_ok && kvfs_session_id_of(item.record()->data) != id) {
    KVFS_ERROR_AS("kvfs_session_find_item", "The thread of item %lu leads to item %lu.\n", to_ul(id),
                  to_ul(kvfs_session_id_of(item.record()->data)));
    return kvfs_inconsistent;
  }
  return checked;
}

kvfs_result kvfs_session_find_item(kvfs_session* session, std::uint32_t id, kvfs_session_found* item) {
  kvfs_result result = kvfs_catalog_search_by_cnid(session->volume->catalog, id, true, item->out());
  if (result == kvfs_ok && !item->found()) {
    item->release();
    result = find_by_thread(session, id, item);
  }
  return result == kvfs_ok ? check_id(*item, id) : result;
}

kvfs_result kvfs_session_find_folder(kvfs_session* session, std::uint32_t id, kvfs_session_found* folder) {
  const kvfs_result result = kvfs_session_find_item(session, id, folder);
  return result == kvfs_ok && folder->folder() == nullptr ? kvfs_not_a_folder : result;
}

kvfs_result kvfs_session_find_name(kvfs_session* session, std::uint32_t folder_id, const kvfs_session_name& name,
                                   kvfs_session_found* item) {
  if (kvfs_session_has_nul(name.units, name.length)) {
    return find_by_walking(session, folder_id, name, item);
  }
  const kvfs_result result = kvfs_session_find_key(session, folder_id, name.units, name.length, item);
  const bool is_plain =
      name.length == name.plain_length && std::memcmp(name.units, name.plain, name.length * sizeof(kvfs_be16)) == 0;
  if (result != kvfs_not_found || is_plain) {
    return result;
  }
  return kvfs_session_find_key(session, folder_id, name.plain, name.plain_length, item);
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

// ---- Lookup by path and ID -----------------------------------------------------------------------------------------

static void give_item(kvfs_session* session, const kvfs_session_found& found, kvfs_item* out_item) {
  kvfs_item item;
  kvfs_session_describe(found.key(), found.record()->data, session->volume->header->blockSize.get(), &item);
  kvfs_session_copy_struct(&item, sizeof(item), out_item, out_item->struct_size);
}

static kvfs_result find_id(kvfs_session* session, std::uint32_t id, kvfs_item* out_item) {
  kvfs_session_found item;
  const kvfs_result result = kvfs_session_find_item(session, id, &item);
  if (result == kvfs_ok) {
    give_item(session, item, out_item);
  }
  return result;
}

// Goes on from an item to one in it. `text` of `size` bytes is a name.
static kvfs_result descend(kvfs_session* session, const char* text, std::size_t size, kvfs_session_found* item) {
  if (item->folder() == nullptr) {
    return kvfs_not_a_folder;
  }
  const std::uint32_t folder_id = item->folder()->folderID.get();
  item->release();
  kvfs_session_name name;
  const kvfs_result result = kvfs_session_read_name(text, size, &name);
  return result == kvfs_ok ? kvfs_session_find_name(session, folder_id, name, item) : result;
}

static kvfs_result find_path(kvfs_session* session, std::uint32_t folder_id, const char* path, kvfs_item* out_item) {
  kvfs_session_found item;
  kvfs_result result = kvfs_session_find_folder(session, folder_id, &item);
  while (result == kvfs_ok && *(path += std::strspn(path, "/")) != '\0') {
    const std::size_t size = std::strcspn(path, "/");
    result = descend(session, path, size, &item);
    path += size;
  }
  if (result == kvfs_ok) {
    give_item(session, item, out_item);
  }
  return result;
}

uint64_t kvfs_session_find(kvfs_session* session, uint32_t folder_id, const char* path, kvfs_item* out_item) {
  if (session == nullptr || path == nullptr || out_item == nullptr || out_item->struct_size < sizeof(kvfs_item)) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return find_path(session, folder_id, path, out_item); });
}

uint64_t kvfs_session_find_id(kvfs_session* session, uint32_t id, kvfs_item* out_item) {
  if (session == nullptr || out_item == nullptr || out_item->struct_size < sizeof(kvfs_item)) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return find_id(session, id, out_item); });
}
