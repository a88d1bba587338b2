// Looking items up by path, ID and name.

#include <cstring>

#include "btree.h"
#include "catalog/key.h"
#include "catalog/lookup.h"
#include "session/private.h"
#include "volume.h"

using kvfs::catalog::make_target_key;

// ---- Searches ------------------------------------------------------------------------------------------------------

// Whether the name of an item is empty, as in the key of a thread. Where case is folded, some units count as none
// (Q-unicode-13): a search for a name of them alone finds the thread of the folder, and one for a thread may find an
// item of such a name. The key has been found equal to another one, or checked.
static bool has_no_name(const kvfs_session_found& item) {
  return item.key()->nodeName.length.get() == 0;
}

kvfs_result kvfs_session_find_key(kvfs_session* session, std::uint32_t folder_id, const kvfs_be16* units,
                                  std::size_t length, kvfs_session_found* item) {
  HFSPlusCatalogKey key;
  kvfs::catalog::make_key(&key, kvfs_be32::of(folder_id), units, static_cast<std::uint32_t>(length));
  const kvfs_result result =
      kvfs_session_blame_volume(kvfs_catalog_search_node(session->volume->catalog, &key, item->out()));
  if (result != kvfs_ok) {
    return result;
  }
  if (!item->found() || has_no_name(*item)) {
    item->release();
    return kvfs_not_found;
  }
  return kvfs_session_check_item(item->record());
}

kvfs_result kvfs_session_search_id(kvfs_session* session, std::uint32_t id, bool follow,
                                   kvfs_catalog_search_result* out_found) {
  return kvfs_session_blame_volume(kvfs_catalog_search_by_cnid(session->volume->catalog, id, follow, out_found));
}

static bool has_name(const kvfs_btree_record_locator* record, const kvfs_be16* units, std::size_t length) {
  const HFSUniStr255& name = kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName;
  return name.length.get() == length && std::memcmp(name.unicode, units, length * sizeof(kvfs_be16)) == 0;
}

// Looks at all items of a folder: the order of the catalog does not lead to names with NUL units in them.
static kvfs_result find_by_walking(kvfs_session* session, std::uint32_t folder_id, const kvfs_be16* units,
                                   std::size_t length, kvfs_session_found* item) {
  kvfs_session_walk walk;
  kvfs_result result = kvfs_session_begin_walk(session, folder_id, nullptr, false, &walk);
  while (result == kvfs_ok && walk.record != nullptr && !has_name(walk.record->btree_locator, units, length)) {
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
  kvfs_result result = kvfs_session_search_id(session, id, false, thread.out());
  HFSPlusCatalogKey key;
  if (result == kvfs_ok) {
    result =
        thread.found() ? make_target_key(KVFS_NAME_OF(kvfs_session_find_item), thread.locator(), &key) : kvfs_not_found;
  }
  if (result != kvfs_ok) {
    return result;
  }
  const HFSUniStr255& name = key.nodeName;
  if (!kvfs_session_has_nul(name.unicode, name.length.get())) {
    return kvfs_not_found;
  }
  thread.release();
  return find_by_walking(session, key.parentID.get(), name.unicode, name.length.get(), item);
}

static kvfs_result check_id(const kvfs_session_found& item, std::uint32_t id) {
  const kvfs_result checked = kvfs_session_check_item(item.record());
  // A search that finds no thread in its place ends there; an item there would lie in itself.
  if (checked == kvfs_ok && item.key()->parentID.get() == id) {
    if (!has_no_name(item)) {
      return kvfs_not_found;
    }
    KVFS_ERROR_AS(kvfs_session_find_item, "The thread of item %lu is no thread.\n", to_ul(id));
    return kvfs_inconsistent;
  }
  if (checked == kvfs_ok && kvfs_session_id_of(item.record()->data) != id) {
    KVFS_ERROR_AS(kvfs_session_find_item, "The thread of item %lu leads to item %lu.\n", to_ul(id),
                  to_ul(kvfs_session_id_of(item.record()->data)));
    return kvfs_inconsistent;
  }
  return checked;
}

kvfs_result kvfs_session_find_item(kvfs_session* session, std::uint32_t id, kvfs_session_found* item) {
  kvfs_result result = kvfs_session_search_id(session, id, true, item->out());
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

// Whether an item is found by its name up to a NUL, at which the binary order ends (Q-unicode-6).
static bool is_cut_off(const kvfs_session_found& item, std::size_t length) {
  const HFSUniStr255& name = item.key()->nodeName;
  return name.length.get() > length && name.unicode[length].get() == 0;
}

// Finds an item by its name as it is stored.
static kvfs_result find_stored_name(kvfs_session* session, std::uint32_t folder_id, const kvfs_be16* units,
                                    std::size_t length, kvfs_session_found* item) {
  if (kvfs_session_has_nul(units, length)) {
    return find_by_walking(session, folder_id, units, length, item);
  }
  const kvfs_result result = kvfs_session_find_key(session, folder_id, units, length, item);
  if (result != kvfs_ok || !is_cut_off(*item, length)) {
    return result;
  }
  item->release();
  return find_by_walking(session, folder_id, units, length, item);
}

kvfs_result kvfs_session_find_name(kvfs_session* session, std::uint32_t folder_id, const kvfs_session_name& name,
                                   kvfs_session_found* item) {
  const kvfs_result result = find_stored_name(session, folder_id, name.units, name.length, item);
  const bool is_plain =
      name.length == name.plain_length && std::memcmp(name.units, name.plain, name.length * sizeof(kvfs_be16)) == 0;
  if (result != kvfs_not_found || is_plain) {
    return result;
  }
  return find_stored_name(session, folder_id, name.plain, name.plain_length, item);
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
  if (session == nullptr || path == nullptr || out_item == nullptr ||
      !kvfs_session_can_fill(out_item->struct_size, sizeof(*out_item))) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return find_path(session, folder_id, path, out_item); });
}

uint64_t kvfs_session_find_id(kvfs_session* session, uint32_t id, kvfs_item* out_item) {
  if (session == nullptr || out_item == nullptr || !kvfs_session_can_fill(out_item->struct_size, sizeof(*out_item))) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return find_id(session, id, out_item); });
}
