// The label of the volume.

#include <cstring>

#include "session/private.h"
#include "unicode.h"
#include "volume.h"

// Brings the label into host order. `units` has room for as many as are stored: composing makes no name longer.
static kvfs_result convert_label(const kvfs_volume* volume, std::uint32_t form, std::uint16_t* units,
                                 std::size_t* count) {
  const std::size_t length = *volume->label_length;
  if (form == KVFS_LABEL_COMPOSED) {
    return kvfs_unicode_compose(volume->label, length, units, kHFSPlusMaxNameLength, count) == 0 ? kvfs_ok
                                                                                                 : kvfs_overflow;
  }
  for (std::size_t i = 0; i < length; ++i) {
    units[i] = volume->label[i].get();
  }
  *count = length;
  return kvfs_ok;
}

static kvfs_result give_label(const kvfs_session* session, std::uint32_t form, char* buffer, std::size_t size,
                              std::size_t* out_length) {
  std::uint16_t units[kHFSPlusMaxNameLength];
  std::size_t count = 0;
  kvfs_result result = convert_label(session->volume, form, units, &count);
  char text[KVFS_LABEL_SIZE];
  char* out = text;
  std::size_t length = sizeof(text) - 1;
  if (result == kvfs_ok) {
    result = kvfs_unicode_unistr_to_utf8(units, count, kUnicodeHostOrder, &out, &length);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_session_label, "Error while converting the volume label to UTF-8.\n");
    return result;
  }
  return kvfs_session_copy_text(text, length, buffer, size, out_length);
}

uint64_t kvfs_session_label(kvfs_session* session, uint32_t form, char* buffer, size_t size, size_t* out_length) {
  if (session == nullptr || form > KVFS_LABEL_STORED || (buffer == nullptr && size != 0)) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return give_label(session, form, buffer, size, out_length); });
}

// Whether the root folder's record can leave its place for a moment.
static kvfs_result check_removable(kvfs_session* session) {
  kvfs_btree* const tree = *session->volume->catalog->btree;
  kvfs_session_found root;
  std::uint16_t records = 0;
  kvfs_result result = kvfs_session_search_id(session, kHFSRootFolderID, true, root.out());
  if (result == kvfs_ok && !root.found()) {
    KVFS_ERROR_AS(kvfs_session_set_label, "The root folder is missing.\n");
    return kvfs_inconsistent;
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_item(root.record());
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_exact_size(root);  // X-session-7
  }
  if (result == kvfs_ok) {
    result = kvfs_session_records_in_node(tree, *root.record()->node, &records);
  }
  if (result == kvfs_ok && records <= 1) {
    KVFS_ERROR_AS(kvfs_session_set_label, "The root folder's record is alone in node %lu.\n",
                  to_ul(*root.record()->node));
    return kvfs_limit;
  }
  return result == kvfs_ok ? kvfs_session_check_index(tree, root.record(), nullptr) : result;
}

static kvfs_result set_label(kvfs_session* session, const char* label) {
  kvfs_result result = kvfs_session_begin_change(session);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_session_place place;
  place.folder_id = kHFSRootParentID;
  const kvfs_session_name& name = place.name;
  result = kvfs_session_read_text(label, std::strlen(label), &place.name);
  if (result != kvfs_ok || name.length == 0) {
    return kvfs_invalid;
  }
  // The root folder should be alone there, but finding its new place taken would be too late once it is renamed.
  result = kvfs_session_check_free(session, kHFSRootFolderID, place);
  if (result == kvfs_ok) {
    result = check_removable(session);
  }
  if (result != kvfs_ok) {
    return result;
  }
  return kvfs_session_end_change(session, kvfs_volume_set_label(session->volume, name.units, name.length), 0);
}

uint64_t kvfs_session_set_label(kvfs_session* session, const char* label) {
  if (session == nullptr || label == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return set_label(session, label); });
}
