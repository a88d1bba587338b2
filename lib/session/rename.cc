// Giving items other names and folders.

#include "session/private.h"
#include "volume.h"

static kvfs_result move_item(kvfs_session* session, kvfs_session_found* item, const kvfs_session_place& place) {
  const kvfs_result result = kvfs_session_expect_removal(session, *item);
  if (result != kvfs_ok) {
    return result;
  }
  // The locator is closed there, unless it fails early.
  return kvfs_catalog_rename_record(session->volume->catalog, &item->out()->locator, kvfs_be32::of(place.folder_id),
                                    place.name.units, place.name.length);
}

static kvfs_result move_and_check(kvfs_session* session, kvfs_session_found* item, const kvfs_session_place& place) {
  kvfs_session_valence from = {};
  kvfs_session_valence to = {};
  kvfs_result result = kvfs_session_get_valence(session, item->key()->parentID.get(), &from);
  if (result == kvfs_ok) {
    result = kvfs_session_get_valence(session, place.folder_id, &to);
  }
  if (result != kvfs_ok) {
    return result;  // nothing has changed
  }
  const int moved = from.folder_id == to.folder_id ? 0 : 1;
  result = move_item(session, item, place);
  item->release();
  if (result == kvfs_ok) {
    result = kvfs_session_check_valence(session, from, -moved);
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_valence(session, to, moved);
  }
  return kvfs_session_end_change(session, result, 0);
}

static kvfs_result rename(kvfs_session* session, std::uint32_t id, std::uint32_t folder_id, const char* name) {
  kvfs_result result = kvfs_session_begin_change(session);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_session_place place;
  result = kvfs_session_find_place(session, id, folder_id, name, &place);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_session_found item;
  result = kvfs_session_find_removable(session, id, &item);
  return result == kvfs_ok ? move_and_check(session, &item, place) : result;
}

uint64_t kvfs_session_rename(kvfs_session* session, uint32_t id, uint32_t folder_id, const char* name) {
  if (session == nullptr || name == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return rename(session, id, folder_id, name); });
}
