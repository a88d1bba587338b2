// Turns an empty file into a symbolic link.
//
//   make_symlink VOLUME PATH TARGET

#include <cstdio>
#include <cstdlib>

#include "bitmap.h"
#include "btree.h"
#include "fork.h"
#include "unicode.h"
#include "volume_session.h"

// Longest target, in bytes of UTF-8 and so in units as well.
static constexpr std::size_t kLongestTarget = 255;

// Converts the target to big-endian units. It is a path for other systems, so that nothing is decomposed.
static bool convert_target(const char* text, kvfs_be16* units, std::size_t* length) {
  std::uint16_t native[kLongestTarget];
  std::uint16_t* out = native;
  *length = kLongestTarget;
  std::size_t size = 0;
  while (text[size] != '\0') {
    ++size;
  }
  const kvfs_result result = kvfs_unicode_utf8_to_unistr(text, size, &out, length);
  if (result != kvfs_ok) {
    return failed("convert the target", result);
  }
  for (std::size_t i = 0; i < *length; ++i) {
    units[i].set(native[i]);
  }
  return true;
}

// The blocks that the file has would be lost: they are not freed.
static bool is_empty_file(const kvfs_catalog_record_locator* item) {
  const HFSPlusCatalogFile* const file = file_record_of(item);
  return (file != nullptr && kvfs_catalog_file_link_kind(file) == kvfs_plain_file &&
          file->dataFork.totalBlocks.get() == 0) ||
         failed("make a link of what is no empty file", kvfs_invalid);
}

// First the allocation file: a block that the catalog names must be in use on the device already.
static bool flush_link(kvfs_volume* volume) {
  kvfs_result result = kvfs_bitmap_flush(volume->bitmap);
  if (result == kvfs_ok) {
    result = kvfs_volume_flush(volume);
  }
  if (result == kvfs_ok) {
    result = kvfs_fork_flush((*volume->catalog->btree)->fork);
  }
  return result == kvfs_ok || failed("flush the volume", result);
}

static bool make_symlink(const volume_session& session, const char* path, const char* target) {
  kvfs_be16 units[kLongestTarget];
  std::size_t length = 0;
  kvfs_catalog_search_result item;
  if (!convert_target(target, units, &length) || !find_item(session, path, &item)) {
    return false;
  }
  bool good = is_empty_file(item.locator);
  if (good) {
    const kvfs_result result = kvfs_catalog_mksymlink(item.locator, units, length, session.volume);
    good = result == kvfs_ok || failed("make the link", result);
  }
  kvfs_catalog_search_result_release(&item);
  return good && flush_link(session.volume);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: make_symlink VOLUME PATH TARGET\n", stderr);
    return EXIT_FAILURE;
  }
  volume_session session;
  if (!open_session(argv[1], purpose::kChanging, &session)) {
    return EXIT_FAILURE;
  }
  const bool good = make_symlink(session, argv[2], argv[3]);
  close_session(&session);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
