#include "label.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "owned.h"
#include "support.h"
#include "unicode.h"
#include "volume.h"

std::uint32_t output_mode = kOutputComposed;

// ---- Printing ------------------------------------------------------------------------------------------------------

// Brings the stored label into host order, composed or as it is. `native` has room for as many units as are stored:
// composing never makes a name longer.
static kvfs_result convert_stored_label(const kvfs_volume* volume, std::uint16_t* native, std::size_t* native_length) {
  const std::size_t length = *volume->label_length;
  if (output_mode == kOutputComposed) {
    if (kvfs_unicode_compose(volume->label, length, native, length, native_length) != 0) {
      KVFS_ERROR_AS("kvfslabel_print_label", "Overflow while composing volume label string.\n");
      return kvfs_overflow;
    }
    return kvfs_ok;
  }
  for (std::size_t i = 0; i < length; ++i) {
    native[i] = volume->label[i].get();
  }
  *native_length = length;
  return kvfs_ok;
}

// The one place that writes to standard output. A label that was not delivered is a failure.
static kvfs_result deliver(const char* text, std::size_t length) {
  if (std::printf("%.*s\n", static_cast<int>(length), text) < 0 || std::fflush(stdout) != 0) {
    const int error = errno;
    std::fprintf(stderr, "Error while writing label to standard output: %s (%d)\n", std::strerror(error), error);
    return kvfs_io_error;
  }
  return kvfs_ok;
}

kvfs_result kvfslabel_print_label(const kvfs_volume* volume) {
  const kvfs_owned<unsigned char> buffer = kvfs_allocate_bytes(*volume->label_length * sizeof(std::uint16_t));
  if (!buffer) {
    std::fputs("Error while allocating memory for native-endian label.\n", stderr);
    return kvfs_no_memory;
  }
  std::uint16_t* const native = static_cast<std::uint16_t*>(static_cast<void*>(buffer.get()));
  std::size_t native_length = 0;
  kvfs_result result = convert_stored_label(volume, native, &native_length);
  if (result != kvfs_ok) {
    return result;
  }
  char* text = nullptr;
  std::size_t text_length = 0;
  result = kvfs_unicode_unistr_to_utf8(native, native_length, kUnicodeHostOrder, &text, &text_length);
  if (result != kvfs_ok) {
    std::fputs("Error while converting UTF-16 string to UTF-8.\n", stderr);
    return result;
  }
  const kvfs_owned<char> owned_text(text);
  return deliver(text, text_length);
}

// ---- Setting -------------------------------------------------------------------------------------------------------

kvfs_result kvfslabel_set_label(kvfs_volume* /*volume*/, const char* /*label*/) {
  std::fputs("Setting the label is not supported yet.\n", stderr);
  return kvfs_limit;
}
