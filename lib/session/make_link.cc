// Making symbolic links: an empty file, which the catalog then turns into a link.

#include <cstring>

#include "bitmap.h"
#include "btree.h"
#include "catalog/key.h"
#include "session/private.h"
#include "unicode.h"
#include "unix/system.h"
#include "volume.h"

// ---- What is looked at before --------------------------------------------------------------------------------------

namespace {

struct link_target {
  kvfs_be16 units[KVFS_TARGET_SIZE];
  std::size_t length;
};

}  // namespace

// Converts the target. It is a path for other systems, so that nothing in it is decomposed; a backslash would become a
// slash (Q-catalog-9).
static kvfs_result read_target(const char* text, link_target* target) {
  const std::size_t size = std::strlen(text);
  const bool fits = size != 0 && size < KVFS_TARGET_SIZE && std::strchr(text, '\\') == nullptr;
  if (!fits) {
    return kvfs_invalid;
  }
  std::uint16_t units[KVFS_TARGET_SIZE];
  std::uint16_t* out = units;
  target->length = KVFS_TARGET_SIZE;
  if (kvfs_unicode_utf8_to_unistr(text, size, &out, &target->length) != kvfs_ok) {
    return kvfs_invalid;
  }
  char back[KVFS_TARGET_SIZE];
  char* back_out = back;
  std::size_t back_size = sizeof(back) - 1;
  if (kvfs_unicode_unistr_to_utf8(units, target->length, kUnicodeHostOrder, &back_out, &back_size) != kvfs_ok) {
    return kvfs_invalid;
  }
  for (std::size_t i = 0; i < target->length; ++i) {
    target->units[i].set(units[i]);
  }
  return kvfs_ok;
}

// The ID for a new item. A volume may give one that is taken: its header is not written at once by every system.
static kvfs_result next_id(kvfs_session* session, std::uint32_t* id) {
  constexpr std::uint32_t kFirstId = 16;
  *id = session->volume->header->nextCatalogID.get();
  if (*id < kFirstId || *id == UINT32_MAX) {
    KVFS_ERROR_AS(kvfs_session_make_link, "The next catalog node ID cannot be %lu.\n", to_ul(*id));
    return kvfs_inconsistent;
  }
  kvfs_session_found thread;
  const kvfs_result result = kvfs_session_search_id(session, *id, false, thread.out());
  if (result == kvfs_ok && thread.found()) {
    KVFS_ERROR_AS(kvfs_session_make_link, "The next catalog node ID, %lu, is in use.\n", to_ul(*id));
    return kvfs_inconsistent;
  }
  return result;
}

// Whether a block is free for the target, which would be missed only when the file is there already, and written to
// before anything could tell that it is in use after all. It is written as a whole sector (X-session-4).
static kvfs_result check_space(kvfs_session* session, std::uint32_t id) {
  kvfs_volume* const volume = session->volume;
  const std::uint32_t block_size = volume->header->blockSize.get();
  if (block_size % kSessionSectorSize != 0) {
    KVFS_ERROR_AS(kvfs_session_make_link, "Blocks of %lu bytes are no whole sectors.\n", to_ul(block_size));
    return kvfs_inconsistent;
  }
  const HFSPlusForkData none = {};
  kvfs_allocation_location location = {};
  const kvfs_result result = FindWriteLocation(id, kHFSDataForkType, &none, volume, 0, block_size, &location);
  if (result != kvfs_ok) {
    return kvfs_session_blame_volume(result);
  }
  if (location.block_count == 0) {
    return kvfs_no_space;
  }
  HFSPlusExtentDescriptor target = {kvfs_be32::of(location.start_block), kvfs_be32::of(1)};
  return kvfs_session_check_unreserved(session, {KVFS_NAME_OF(kvfs_session_make_link), id, {&target, 1}});
}

// ---- Making the file -----------------------------------------------------------------------------------------------

static void describe_file(std::uint32_t id, HFSPlusCatalogFile* file) {
  constexpr std::uint16_t kHasThread = 0x2;
  constexpr std::int64_t kFrom1904To1970 = 2082844800;
  const kvfs_be32 now = kvfs_be32::of(static_cast<std::uint32_t>(kvfs_system_time() + kFrom1904To1970));
  *file = {};
  file->recordType.set(kHFSPlusFileRecord);
  file->flags.set(kHasThread);
  file->fileID.set(id);
  file->createDate = now;
  file->contentModDate = now;
  file->attributeModDate = now;
  file->accessDate = now;
}

static kvfs_result insert(kvfs_session* session, const HFSPlusCatalogKey& key, const void* data, std::size_t size) {
  kvfs_catalog_record_locator* inserted = nullptr;
  const kvfs_result result = kvfs_catalog_insert_record(session->volume->catalog, &key, data,
                                                        static_cast<std::uint16_t>(size), nullptr, &inserted);
  if (inserted != nullptr) {
    kvfs_catalog_record_locator_close(&inserted);
  }
  return result;
}

static kvfs_result insert_thread(kvfs_session* session, std::uint32_t id, const kvfs_session_place& place) {
  HFSPlusCatalogThread thread = {};
  const std::size_t name_size = place.name.length * sizeof(kvfs_be16);
  thread.recordType.set(kHFSPlusFileThreadRecord);
  thread.parentID.set(place.folder_id);
  thread.nodeName.length.set(static_cast<std::uint16_t>(place.name.length));
  std::memcpy(thread.nodeName.unicode, place.name.units, name_size);
  HFSPlusCatalogKey key;
  kvfs::catalog::make_thread_key(&key, kvfs_be32::of(id));
  return insert(session, key, &thread, kHFSPlusCatalogThreadNameOffset + name_size);
}

static kvfs_result insert_file(kvfs_session* session, std::uint32_t id, const kvfs_session_place& place) {
  HFSPlusCatalogFile file;
  describe_file(id, &file);
  HFSPlusCatalogKey key;
  kvfs::catalog::make_key(&key, kvfs_be32::of(place.folder_id), place.name.units,
                          static_cast<std::uint32_t>(place.name.length));
  kvfs_result result = insert(session, key, &file, sizeof(file));
  if (result == kvfs_ok) {
    result = insert_thread(session, id, place);
  }
  kvfs_session_found folder;
  if (result == kvfs_ok) {
    result = kvfs_session_find_folder(session, place.folder_id, &folder);
  }
  return result == kvfs_ok ? kvfs_catalog_increment_valence(session->volume->catalog, &file, folder.locator()) : result;
}

static kvfs_result turn_into_link(kvfs_session* session, std::uint32_t id, const link_target& target) {
  kvfs_session_found file;
  const kvfs_result result = kvfs_session_find_item(session, id, &file);
  return result == kvfs_ok ? kvfs_catalog_mksymlink(file.locator(), target.units, target.length, session->volume)
                           : result;
}

static kvfs_result make_file_and_link(kvfs_session* session, std::uint32_t id, const kvfs_session_place& place,
                                      const link_target& target) {
  constexpr int kRecords = 2;
  kvfs_session_valence folder = {};
  kvfs_result result = kvfs_session_get_valence(session, place.folder_id, &folder);
  if (result != kvfs_ok) {
    return result;  // nothing has changed
  }
  session->changes.ids = true;
  session->changes.header = true;
  session->changes.allocation = true;
  kvfs_volume_increment_next_catalog_id(session->volume);
  kvfs_volume_add_file_count(session->volume, 1);
  result = insert_file(session, id, place);
  if (result == kvfs_ok) {
    result = turn_into_link(session, id, target);
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_valence(session, folder, 1);
  }
  return kvfs_session_end_change(session, result, kRecords);
}

static kvfs_result make_link(kvfs_session* session, std::uint32_t folder_id, const char* name,
                             const link_target& target, std::uint32_t* out_id) {
  kvfs_result result = kvfs_session_begin_change(session);
  if (result != kvfs_ok) {
    return result;
  }
  if (session->volume->bitmap == nullptr) {
    return kvfs_invalid;
  }
  std::uint32_t id = 0;
  kvfs_session_place place;
  result = kvfs_session_find_place(session, 0, folder_id, name, &place);
  if (result == kvfs_ok) {
    result = next_id(session, &id);
  }
  if (result == kvfs_ok) {
    result = check_space(session, id);
  }
  if (result == kvfs_ok) {
    result = make_file_and_link(session, id, place, target);
  }
  if (result == kvfs_ok && out_id != nullptr) {
    *out_id = id;
  }
  return result;
}

uint64_t kvfs_session_make_link(kvfs_session* session, uint32_t folder_id, const char* name, const char* target,
                                uint32_t* out_id) {
  link_target converted;
  if (session == nullptr || name == nullptr || target == nullptr || read_target(target, &converted) != kvfs_ok) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return make_link(session, folder_id, name, converted, out_id); });
}
