#include "label.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "btree.h"
#include "catalog.h"
#include "fork.h"
#include "format.h"
#include "ground/owned.h"
#include "support.h"
#include "unicode.h"
#include "volume.h"

// ---- Printing ------------------------------------------------------------------------------------------------------

// Brings the stored label into host order, composed or as it is. `units` has room for as many as are stored:
// composing never makes a name longer.
static kvfs_result convert_stored_label(const kvfs_volume* volume, std::uint16_t* units, std::size_t* count) {
  const std::size_t length = *volume->label_length;
  if (output_mode == kOutputComposed) {
    if (kvfs_unicode_compose(volume->label, length, units, length, count) != 0) {
      KVFS_ERROR_AS(kvfslabel_print_label, "Overflow while composing volume label string.\n");
      return kvfs_overflow;
    }
    return kvfs_ok;
  }
  for (std::size_t i = 0; i < length; ++i) {
    units[i] = volume->label[i].get();
  }
  *count = length;
  return kvfs_ok;
}

// The one place that writes to standard output. A label that was not delivered is a failure (X-tool-3).
static kvfs_result deliver(const char* text, std::size_t length) {
  // With a buffer of its own the stream asks for no memory, and not whether it is a terminal.
  static char buffer[BUFSIZ];
  (void)std::setvbuf(stdout, buffer, _IOFBF, sizeof(buffer));
  if (std::printf("%.*s\n", static_cast<int>(length), text) < 0 || std::fflush(stdout) != 0) {
    const int error = errno;
    std::fprintf(stderr, "Error while writing label to standard output: %s (%d)\n", std::strerror(error), error);
    return kvfs_io_error;
  }
  return kvfs_ok;
}

// Converts the label to what is printed. `text` is allocated.
static kvfs_result convert_label_to_text(const kvfs_volume* volume, kvfs_owned<char>* text, std::size_t* text_length) {
  const kvfs_owned<unsigned char> buffer = kvfs_allocate_bytes(*volume->label_length * sizeof(std::uint16_t));
  if (!buffer) {
    std::fputs("Error while allocating memory for native-endian label.\n", stderr);
    return kvfs_no_memory;
  }
  std::uint16_t* const units = static_cast<std::uint16_t*>(static_cast<void*>(buffer.get()));
  std::size_t count = 0;
  kvfs_result result = convert_stored_label(volume, units, &count);
  if (result != kvfs_ok) {
    return result;
  }
  char* converted = nullptr;
  result = kvfs_unicode_unistr_to_utf8(units, count, kUnicodeHostOrder, &converted, text_length);
  if (result != kvfs_ok) {
    std::fputs("Error while converting UTF-16 string to UTF-8.\n", stderr);
  }
  text->reset(converted);
  return result;
}

kvfs_result kvfslabel_print_label(const kvfs_volume* volume) {
  kvfs_owned<char> text;
  std::size_t length = 0;
  const kvfs_result result = convert_label_to_text(volume, &text, &length);
  return result == kvfs_ok ? deliver(text.get(), length) : result;
}

// ---- Setting -------------------------------------------------------------------------------------------------------
//
// A label that could not be printed afterwards is not written: X-tool-5.

namespace {

// A text of UTF-16 units in host order.
struct utf16_text {
  kvfs_owned<std::uint16_t> units;
  std::size_t length;
};

}  // namespace

static kvfs_result convert_new_label(const char* label, utf16_text* text) {
  std::uint16_t* units = nullptr;
  const std::size_t bytes = std::strlen(label);
  kvfs_result result = kvfs_unicode_utf8_to_unistr(label, bytes, &units, &text->length);
  if (result == kvfs_ok && units == nullptr && bytes != 0) {
    result = kvfs_no_memory;  // X-tool-4: to the converter, an empty text; no volume must lose its label
  }
  if (result != kvfs_ok) {
    std::fputs("Error when converting volume label from UTF-8 to UTF-16.\n", stderr);
    return result;
  }
  text->units.reset(units);
  return kvfs_ok;
}

// A unit decomposes into this many at most.
static constexpr std::size_t kDecompositionFactor = kUnicodeMaxDecomposedUnits;

// Decomposes a text. `decomposed` is allocated, with room for the longest outcome.
static kvfs_result decompose_label(const utf16_text& text, utf16_text* decomposed) {
  const std::size_t capacity = kDecompositionFactor * text.length;
  const std::size_t size = capacity * sizeof(std::uint16_t);
  decomposed->units.reset(static_cast<std::uint16_t*>(static_cast<void*>(kvfs_allocate_bytes(size).release())));
  if (!decomposed->units) {
    std::fprintf(stderr, "Error when allocating %zu bytes for decomposed volume label.\n", size);
    return kvfs_no_memory;
  }
  if (kvfs_unicode_decompose(text.units.get(), text.length, decomposed->units.get(), capacity, &decomposed->length) !=
      0) {
    std::fputs("Unexpected: Overflow when decomposing volume label.\n", stderr);
    return kvfs_overflow;
  }
  return kvfs_ok;
}

// Brings the units of a text into the stored byte order, where they are.
static const kvfs_be16* swap_to_big_endian(const utf16_text& text) {
  kvfs_be16* const stored = kvfs_view_as<kvfs_be16>(static_cast<void*>(text.units.get()));
  for (std::size_t i = 0; i < text.length; ++i) {
    stored[i].set(text.units[i]);
  }
  return stored;
}

// Whether a record's key holds the label that the volume has in memory, as its name.
static bool holds_label(const kvfs_btree_record_locator* record, const kvfs_volume* volume) {
  const std::uint32_t length = *volume->label_length;
  const std::size_t size = length * sizeof(kvfs_be16);
  if (record->key_length < kHFSPlusCatalogKeyNameOffset + size) {
    return false;
  }
  const HFSUniStr255* const name = &kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName;
  return name->length.get() == length && std::memcmp(name->unicode, volume->label, size) == 0;
}

// Whether the changed catalog leads to the root folder under its new label, as whoever opens the volume looks for it.
static bool finds_label(const kvfs_volume* volume) {
  kvfs_catalog_search_result root;
  kvfs_catalog_search_result_init(&root);
  const bool found = kvfs_catalog_search_by_cnid(volume->catalog, kHFSRootFolderID, true, &root) == kvfs_ok &&
                     root.found != 0 && holds_label(root.locator->btree_locator, volume);
  kvfs_catalog_search_result_release(&root);
  return found;
}

// The number of records in the catalog, in big-endian order. Its header was read when the volume was opened.
static kvfs_result read_record_count(const kvfs_volume* volume, kvfs_be32* count) {
  kvfs_fork* const fork = (*volume->catalog->btree)->fork;
  const std::uint64_t offset = kBTHeaderRecordOffset + offsetof(BTHeaderRec, leafRecords);
  return kvfs_fork_read(fork, offset, count, sizeof(*count), nullptr);
}

// Whether the catalog has as many records as before the change. One more is a second thread of the root folder: the
// first one, which other systems find, was not found again and still has the old name (X-tool-6).
static bool keeps_record_count(const kvfs_volume* volume, kvfs_be32 before) {
  kvfs_be32 now = {};
  return read_record_count(volume, &now) == kvfs_ok && now.get() == before.get();
}

// Reads a label that was set back before it reaches the device: what cannot be found again, or cannot be printed, must
// not take the place of a label that can.
static kvfs_result read_label_back(const kvfs_volume* volume, kvfs_be32 records_before) {
  kvfs_owned<char> text;
  std::size_t length = 0;
  if (finds_label(volume) && keeps_record_count(volume, records_before) &&
      convert_label_to_text(volume, &text, &length) == kvfs_ok) {
    return kvfs_ok;
  }
  std::fputs("Error while reading the changed volume label back.\n", stderr);
  return kvfs_inconsistent;
}

// Renames the root folder in the cache. `records` receives the number of records before that.
static kvfs_result change_label(kvfs_volume* volume, const char* label, kvfs_be32* records) {
  utf16_text text = {};
  kvfs_result result = convert_new_label(label, &text);
  if (result != kvfs_ok) {
    return result;
  }
  utf16_text decomposed = {};
  result = decompose_label(text, &decomposed);
  if (result != kvfs_ok) {
    return result;
  }
  result = read_record_count(volume, records);
  if (result == kvfs_ok) {
    result = kvfs_volume_set_label(volume, swap_to_big_endian(decomposed), decomposed.length);
  }
  if (result != kvfs_ok) {
    std::fputs("Error while changing volume label.\n", stderr);
  }
  return result;
}

kvfs_result kvfslabel_set_label(kvfs_volume* volume, const char* label) {
  kvfs_be32 records = {};
  kvfs_result result = change_label(volume, label, &records);
  if (result == kvfs_ok) {
    result = read_label_back(volume, records);
  }
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_fork_flush((*volume->catalog->btree)->fork);
  if (result != kvfs_ok) {
    std::fputs("Error while flushing changes to catalog file.\n", stderr);
  }
  return result;
}
