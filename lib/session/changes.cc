// What all changes have in common: when they are allowed, what they look at before, and what is checked behind them.

#include <cstring>

#include "btree.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "catalog/key.h"
#include "session/private.h"
#include "volume.h"

using kvfs::catalog::make_key;
using kvfs::catalog::make_thread_key;

static kvfs_btree* catalog_tree(const kvfs_session* session) {
  return *session->volume->catalog->btree;
}

// ---- Beginning and end ---------------------------------------------------------------------------------------------

static kvfs_result count_records(kvfs_session* session, std::uint32_t* count) {
  BTHeaderRec header = {};
  const kvfs_result result = kvfs::btree::read_header_record(catalog_tree(session), &header);
  *count = header.leafRecords.get();
  return result;
}

kvfs_result kvfs_session_begin_change(kvfs_session* session) {
  if ((session->flags & KVFS_OPEN_WRITE) == 0) {
    return kvfs_read_only;
  }
  if (session->spoiled) {
    return kvfs_spoiled;
  }
  if (session->changes.catalog) {
    return kvfs_ok;
  }
  session->changes.records = 0;
  return count_records(session, &session->changes.records_before);
}

// What a change that has begun fails with. Values with which changes are refused say that nothing has changed; there it
// is the volume that is not as it was found before.
static kvfs_result failure_of_begun(kvfs_result result) {
  static constexpr kvfs_result kRefusals[] = {kvfs_invalid, kvfs_exists, kvfs_not_found, kvfs_not_a_folder};
  for (const kvfs_result refusal : kRefusals) {
    if (result == refusal) {
      return kvfs_inconsistent;
    }
  }
  return result;
}

kvfs_result kvfs_session_end_change(kvfs_session* session, kvfs_result result, int added_records) {
  session->changes.catalog = true;
  session->changes.records += added_records;
  ++session->epoch;
  session->spoiled = result != kvfs_ok;
  return failure_of_begun(result);
}

kvfs_result kvfs_session_check_catalog(kvfs_session* session) {
  kvfs_session_found root;
  kvfs_result result = kvfs_session_find_folder(session, kHFSRootFolderID, &root);
  std::uint32_t records = 0;
  if (result == kvfs_ok) {
    result = count_records(session, &records);
  }
  if (result == kvfs_ok && records != session->changes.records_before + session->changes.records) {
    KVFS_ERROR("Changed catalog has %lu records, and had %lu.\n", to_ul(records),
               to_ul(session->changes.records_before));
    return kvfs_inconsistent;
  }
  if (result == kvfs_not_found || result == kvfs_not_a_folder) {
    KVFS_ERROR("The root folder is missing.\n");
    return kvfs_inconsistent;
  }
  return result;
}

// ---- Names that are taken for others -------------------------------------------------------------------------------

// Whether the catalog takes two keys for the same.
static kvfs_result compare_keys(kvfs_session* session, const HFSPlusCatalogKey& a, const HFSPlusCatalogKey& b,
                                bool* are_same) {
  BTHeaderRec header = {};
  const kvfs_result result = kvfs::btree::read_header_record(catalog_tree(session), &header);
  *are_same = result == kvfs_ok && kvfs_catalog_compare_keys(&a, &b, header.keyCompareType) == 0;
  return result;
}

// Whether the key of an item is none of those of the two folders that hold what links stand for. The one for files has
// NULs in its name. So may other items have, and the order of the catalog does not lead to them: they are left alone as
// well (X-session-6). Returns kvfs_ok, kvfs_invalid or a failure.
static kvfs_result check_not_private(kvfs_session* session, const HFSPlusCatalogKey& key) {
  static constexpr char16_t kFolderOfFolders[] = u".HFS+ Private Directory Data\r";
  constexpr std::uint32_t kLength = sizeof(kFolderOfFolders) / sizeof(kFolderOfFolders[0]) - 1;
  if (kvfs_session_has_nul(key.nodeName.unicode, key.nodeName.length.get())) {
    return kvfs_invalid;
  }
  if (key.parentID.get() != kHFSRootFolderID) {
    return kvfs_ok;
  }
  kvfs_be16 name[kLength];
  for (std::uint32_t i = 0; i < kLength; ++i) {
    name[i].set(kFolderOfFolders[i]);
  }
  HFSPlusCatalogKey private_key;
  make_key(&private_key, key.parentID, name, kLength);
  bool is_private = false;
  const kvfs_result result = compare_keys(session, key, private_key, &is_private);
  return is_private ? kvfs_invalid : result;
}

// Whether a folder is no private one. The root folder is none, whatever the label is.
static kvfs_result check_folder(kvfs_session* session, const kvfs_session_found& folder) {
  return kvfs_session_id_of(folder.record()->data) == kHFSRootFolderID ? kvfs_ok
                                                                       : check_not_private(session, *folder.key());
}

// Whether a name can be given to an item: not where the catalog would take it for that of a private folder, or for none
// at all and so for the thread of the folder (X-session-5). Returns as above.
static kvfs_result check_new_name(kvfs_session* session, const kvfs_session_place& place) {
  HFSPlusCatalogKey key;
  make_key(&key, kvfs_be32::of(place.folder_id), place.name.units, static_cast<std::uint32_t>(place.name.length));
  const kvfs_result result = check_not_private(session, key);
  if (result != kvfs_ok) {
    return result;
  }
  HFSPlusCatalogKey thread;
  make_thread_key(&thread, key.parentID);
  bool is_thread = false;
  const kvfs_result compared = compare_keys(session, key, thread, &is_thread);
  return is_thread ? kvfs_invalid : compared;
}

// ---- Items that are to leave their place ---------------------------------------------------------------------------

// Links an item's locator with that of its folder, which a search by ID does not do. The root folder lies in none. What
// lies in a private folder stays there.
static kvfs_result link_folder(kvfs_session* session, kvfs_session_found* item) {
  kvfs_session_found folder;
  kvfs_result result = kvfs_session_find_folder(session, item->key()->parentID.get(), &folder);
  if (result == kvfs_not_found || result == kvfs_not_a_folder) {
    KVFS_ERROR_AS(kvfs_session_find_removable, "Folder %lu, which holds item %lu, is missing.\n",
                  to_ul(item->key()->parentID.get()), to_ul(kvfs_session_id_of(item->record()->data)));
    return kvfs_inconsistent;
  }
  if (result == kvfs_ok) {
    result = check_folder(session, folder);
  }
  return result == kvfs_ok ? kvfs_catalog_record_locator_set_parent_locator(item->locator(), folder.locator()) : result;
}

// Whether the nodes of an item's record and of its thread, which has led to it, keep other records without them, and
// the index can follow. No search and no walk gets past a node without any.
static kvfs_result check_nodes(kvfs_session* session, const kvfs_session_found& item, std::uint32_t id) {
  kvfs_session_found thread;
  kvfs_result result = kvfs_session_search_id(session, id, false, thread.out());
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint32_t nodes[2] = {*item.record()->node, *thread.record()->node};
  const std::uint16_t leaving = nodes[0] == nodes[1] ? 2 : 1;
  for (const std::uint32_t node : nodes) {
    std::uint16_t records = 0;
    result = kvfs_session_records_in_node(catalog_tree(session), node, &records);
    if (result != kvfs_ok) {
      return result;
    }
    if (records <= leaving) {
      KVFS_ERROR_AS(kvfs_session_find_removable, "Without item %lu node %lu would have no records.\n", to_ul(id),
                    to_ul(node));
      return kvfs_limit;
    }
  }
  result = kvfs_session_check_index(catalog_tree(session), item.record(), thread.record());
  return result == kvfs_ok ? kvfs_session_check_index(catalog_tree(session), thread.record(), item.record()) : result;
}

kvfs_result kvfs_session_check_exact_size(const kvfs_session_found& item) {
  const std::size_t size = item.file() != nullptr ? sizeof(HFSPlusCatalogFile) : sizeof(HFSPlusCatalogFolder);
  if (item.record()->data_size != size) {
    KVFS_ERROR_AS(kvfs_session_begin_change, "Record of item %lu has %zu bytes, and not %zu.\n",
                  to_ul(kvfs_session_id_of(item.record()->data)), std::size_t{item.record()->data_size}, size);
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

kvfs_result kvfs_session_find_removable(kvfs_session* session, std::uint32_t id, kvfs_session_found* item) {
  kvfs_result result = kvfs_session_find_item(session, id, item);
  if (result == kvfs_ok) {
    result = kvfs_session_check_exact_size(*item);
  }
  if (result == kvfs_ok) {
    result = id == kHFSRootFolderID ? kvfs_invalid : check_not_private(session, *item->key());
  }
  if (result == kvfs_ok) {
    result = link_folder(session, item);
  }
  return result == kvfs_ok ? check_nodes(session, *item, id) : result;
}

kvfs_result kvfs_session_expect_removal(kvfs_session* session, const kvfs_session_found& item) {
  constexpr std::int32_t kAllRecords = 0x10000;
  const kvfs_btree_record_locator_private* const record = item.record()->priv;
  kvfs_btree* const tree = catalog_tree(session);
  return kvfs_with_write_lock(tree->priv->open_locators_lock, [=] {
    // The one other locator that is open is the folder's.
    kvfs_btree_shift_locators(tree, record->node, record->index + 1, kAllRecords, record->node, true, 1,
                              record->record_size);
    return kvfs_result{kvfs_ok};
  });
}

// ---- Places where items are to come --------------------------------------------------------------------------------

static kvfs_result read_new_name(const char* text, kvfs_session_place* place) {
  kvfs_session_name* const name = &place->name;
  const kvfs_result result = kvfs_session_read_name(text, std::strlen(text), name);
  const bool is_name = result == kvfs_ok && name->length != 0 && std::strchr(text, '/') == nullptr &&
                       !kvfs_session_has_nul(name->units, name->length);
  return is_name ? kvfs_ok : kvfs_invalid;
}

// Whether a folder is the item or lies in it, at any depth, where the item would vanish together with its place.
static kvfs_result check_not_inside(kvfs_session* session, std::uint32_t id, std::uint32_t folder_id) {
  constexpr std::uint32_t kDeepest = 10000;  // a damaged catalog may lead in a circle
  std::uint32_t outer = folder_id;
  for (std::uint32_t depth = 0; outer != kHFSRootFolderID; ++depth) {
    if (outer == id) {
      return kvfs_invalid;
    }
    kvfs_session_found folder;
    const kvfs_result result = kvfs_session_find_folder(session, outer, &folder);
    if (result == kvfs_not_found || result == kvfs_not_a_folder || depth == kDeepest) {
      KVFS_ERROR_AS(kvfs_session_find_place, "Folder %lu does not lie below the root folder.\n", to_ul(folder_id));
      return kvfs_inconsistent;
    }
    if (result != kvfs_ok) {
      return result;
    }
    outer = folder.key()->parentID.get();
  }
  return kvfs_ok;
}

kvfs_result kvfs_session_check_free(kvfs_session* session, std::uint32_t id, const kvfs_session_place& place) {
  kvfs_session_found other;
  const kvfs_result result =
      kvfs_session_find_key(session, place.folder_id, place.name.units, place.name.length, &other);
  if (result == kvfs_ok) {
    return kvfs_session_id_of(other.record()->data) == id ? kvfs_ok : kvfs_exists;
  }
  return result == kvfs_not_found ? kvfs_ok : result;
}

kvfs_result kvfs_session_find_place(kvfs_session* session, std::uint32_t id, std::uint32_t folder_id, const char* name,
                                    kvfs_session_place* place) {
  place->folder_id = folder_id;
  kvfs_result result = read_new_name(name, place);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_session_found folder;
  result = kvfs_session_find_folder(session, folder_id, &folder);
  if (result != kvfs_ok) {
    return result;
  }
  result = check_folder(session, folder);
  folder.release();
  if (result == kvfs_ok) {
    result = check_new_name(session, *place);
  }
  if (result == kvfs_ok) {
    result = check_not_inside(session, id, folder_id);
  }
  return result == kvfs_ok ? kvfs_session_check_free(session, id, *place) : result;
}

// ---- Valences ------------------------------------------------------------------------------------------------------

kvfs_result kvfs_session_get_valence(kvfs_session* session, std::uint32_t folder_id, kvfs_session_valence* valence) {
  kvfs_session_found folder;
  kvfs_result result = kvfs_session_find_folder(session, folder_id, &folder);
  if (result == kvfs_ok) {
    result = kvfs_session_check_exact_size(folder);
  }
  if (result == kvfs_ok) {
    *valence = {folder_id, folder.folder()->valence.get()};
  }
  return result;
}

kvfs_result kvfs_session_check_valence(kvfs_session* session, const kvfs_session_valence& before, int change) {
  kvfs_session_valence now = {};
  const kvfs_result result = kvfs_session_get_valence(session, before.folder_id, &now);
  if (result == kvfs_ok && now.value != before.value + static_cast<std::uint32_t>(change)) {
    KVFS_ERROR("Folder %lu counts %lu items after a change, and %lu before.\n", to_ul(before.folder_id),
               to_ul(now.value), to_ul(before.value));
    return kvfs_failed;
  }
  return result;
}
