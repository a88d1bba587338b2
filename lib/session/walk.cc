// Walking over the items of a folder, which follow its thread record in the order of their names.

#include <bit>
#include <cstring>

#include "btree.h"
#include "catalog/key.h"
#include "session/private.h"
#include "volume.h"

bool kvfs_session_leads_back(kvfs_session_trail* trail, std::uint32_t node, std::uint16_t index) {
  if (trail->steps != 0 && trail->node == node && trail->index == index) {
    return true;
  }
  if (std::has_single_bit(++trail->steps)) {
    trail->node = node;
    trail->index = index;
  }
  return false;
}

// Whether a record is beyond a folder. Of one whose key does not say it is not known what is behind it.
static bool is_elsewhere(const kvfs_btree_record_locator* record, std::uint32_t folder_id) {
  return record->key_length >= kHFSPlusCatalogKeyParentEnd &&
         kvfs_view_as<HFSPlusCatalogKey>(record->key)->parentID.get() != folder_id;
}

// Replaces the record by the one behind it, whatever that is.
static kvfs_result step_to_next(kvfs_session_walk* walk) {
  kvfs_catalog_record_locator* next = nullptr;
  const kvfs_result result =
      kvfs_session_blame_volume(kvfs_catalog_get_next_record(walk->session->volume->catalog, walk->record, &next));
  kvfs_catalog_record_locator_close(&walk->record);
  walk->record = next;
  if (next == nullptr) {
    return result;
  }
  if (kvfs_session_leads_back(&walk->trail, *next->btree_locator->node, *next->btree_locator->index)) {
    KVFS_ERROR_AS(kvfs_session_step, "The items of folder %lu form a ring.\n", to_ul(walk->folder_id));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Ends the walk where the record is no item of the folder any more.
static kvfs_result check_record(kvfs_session_walk* walk) {
  if (walk->record == nullptr) {
    return kvfs_ok;
  }
  if (is_elsewhere(walk->record->btree_locator, walk->folder_id)) {
    kvfs_catalog_record_locator_close(&walk->record);
    return kvfs_ok;
  }
  return kvfs_session_check_item(walk->record->btree_locator);
}

kvfs_result kvfs_session_step(kvfs_session_walk* walk) {
  const kvfs_result result = step_to_next(walk);
  return result == kvfs_ok ? check_record(walk) : result;
}

// Begins on the first record behind a key; `found` tells whether one with the key was there.
static kvfs_result begin_behind(const HFSPlusCatalogKey* key, kvfs_session_walk* walk, bool* found) {
  kvfs_session_found place;
  kvfs_result result =
      kvfs_session_blame_volume(kvfs_catalog_search_node(walk->session->volume->catalog, key, place.out()));
  if (result != kvfs_ok) {
    return result;
  }
  *found = place.found();
  const bool is_behind = !place.found() && place.out()->after == 0;
  walk->record = place.take();
  if (!is_behind) {
    result = step_to_next(walk);
  }
  return result == kvfs_ok ? check_record(walk) : result;
}

static kvfs_result begin_at_first(kvfs_session_walk* walk) {
  HFSPlusCatalogKey thread;
  kvfs::catalog::make_thread_key(&thread, kvfs_be32::of(walk->folder_id));
  bool ignored = false;
  return begin_behind(&thread, walk, &ignored);
}

// Whether an item of the folder that a key names has that key. Keys may have more bytes than their names.
static bool is_key(const kvfs_btree_record_locator* record, const HFSPlusCatalogKey* key) {
  const HFSUniStr255& name = kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName;
  const std::uint16_t length = key->nodeName.length.get();
  return name.length.get() == length &&
         std::memcmp(name.unicode, key->nodeName.unicode, length * sizeof(kvfs_be16)) == 0;
}

// Begins at the first item and passes all of them up to the one with exactly a key.
static kvfs_result pass_items(const HFSPlusCatalogKey* key, kvfs_session_walk* walk) {
  kvfs_session_end_walk(walk);
  walk->trail = {};
  kvfs_result result = begin_at_first(walk);
  while (result == kvfs_ok && walk->record != nullptr && !is_key(walk->record->btree_locator, key)) {
    result = kvfs_session_step(walk);
  }
  return result == kvfs_ok && walk->record != nullptr ? kvfs_session_step(walk) : result;
}

kvfs_result kvfs_session_begin_walk(kvfs_session* session, std::uint32_t folder_id, const HFSPlusCatalogKey* behind,
                                    bool is_there, kvfs_session_walk* walk) {
  *walk = {session, folder_id, nullptr, {}};
  if (behind == nullptr) {
    return begin_at_first(walk);
  }
  // Names with NUL units in them are not told from each other by the order, so that a search may end before or behind.
  if (kvfs_session_has_nul(behind->nodeName.unicode, behind->nodeName.length.get())) {
    return pass_items(behind, walk);
  }
  bool found = false;
  const kvfs_result result = begin_behind(behind, walk, &found);
  return result == kvfs_ok && !found && is_there ? pass_items(behind, walk) : result;
}

void kvfs_session_end_walk(kvfs_session_walk* walk) {
  if (walk->record != nullptr) {
    kvfs_catalog_record_locator_close(&walk->record);
  }
}
