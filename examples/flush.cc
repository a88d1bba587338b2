// Shows what flushing does: sets the label of a volume without it, and once more with it, and prints what a volume that
// is opened afterwards has for a label.
//
//   flush VOLUME LABEL

#include <cstdio>
#include <cstdlib>

#include "btree.h"
#include "fork.h"
#include "volume_session.h"

static bool set_label(kvfs_volume* volume, const char* label) {
  kvfs_be16 units[kHFSPlusMaxNameLength];
  std::size_t length = 0;
  kvfs_catalog_utf8_path path = {label};
  kvfs_result result = kvfs_catalog_utf8_path_component(&path, units, kHFSPlusMaxNameLength, &length);
  if (result == kvfs_ok) {
    result = kvfs_volume_set_label(volume, units, length);
  }
  return result == kvfs_ok || failed("set the label", result);
}

// A label is a name in the catalog; nothing else has changed.
static bool flush_catalog(const kvfs_volume* volume) {
  const kvfs_result result = kvfs_fork_flush((*volume->catalog->btree)->fork);
  return result == kvfs_ok || failed("flush the catalog", result);
}

static bool change_label(const char* path, const char* label, bool flush) {
  volume_session session;
  if (!open_session(path, purpose::kChanging, &session)) {
    return false;
  }
  const bool good = set_label(session.volume, label) && (!flush || flush_catalog(session.volume));
  close_session(&session);
  return good;
}

static bool print_label(const char* path) {
  volume_session session;
  if (!open_session(path, purpose::kReading, &session)) {
    return false;
  }
  const bool good = print_name(session.volume->label, *session.volume->label_length);
  close_session(&session);
  return good;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: flush VOLUME LABEL\n", stderr);
    return EXIT_FAILURE;
  }
  const bool good = change_label(argv[1], argv[2], false) && print_label(argv[1]) &&
                    change_label(argv[1], argv[2], true) && print_label(argv[1]);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
