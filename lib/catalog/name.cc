// Names as UTF-8.
//
// The zero byte needs room: X-catalog-8.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "catalog.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"
#include "unicode.h"

static constexpr std::uint16_t kSurrogateMask = 0xFC00;

static constexpr std::uint16_t kHighSurrogate = 0xD800;

static std::size_t count_units_before_nul(const kvfs_be16* units, std::size_t count) {
  std::size_t length = 0;
  while (length < count && units[length].get() != 0) {
    ++length;
  }
  return length;
}

// Brings the next units of a text into host order, as many as there is room for, and returns their number. A pair of
// surrogates stays together.
static std::size_t take_piece(const kvfs_be16* units, std::size_t count, std::uint16_t* host_units) {
  const std::size_t length = kvfs_min<std::size_t>(count, kHFSPlusMaxNameLength);
  for (std::size_t i = 0; i < length; ++i) {
    host_units[i] = units[i].get();
  }
  const bool cuts_pair = length < count && (units[length - 1].get() & kSurrogateMask) == kHighSurrogate;
  return cuts_pair ? length - 1 : length;
}

// Converts a text piece by piece, so that it may have any length: the converter measures units as they lie in memory,
// and so gets them in host order. Its capacity does not count the NUL.
std::size_t kvfs_catalog_widechar_to_utf8(const kvfs_be16* units, std::size_t count, char* buffer, std::size_t size) {
  if (size == 0) {
    KVFS_ERROR("Error while decoding UTF-16.\n");
    return 0;
  }
  const std::size_t end = count_units_before_nul(units, count);
  std::uint16_t host_units[kHFSPlusMaxNameLength];
  std::size_t length = 0;
  for (std::size_t done = 0; done < end;) {
    const std::size_t taken = take_piece(units + done, end - done, host_units);
    char* text = buffer + length;
    std::size_t text_length = size - 1 - length;
    if (kvfs_unicode_unistr_to_utf8(host_units, taken, kUnicodeHostOrder, &text, &text_length) != kvfs_ok) {
      KVFS_ERROR("Error while decoding UTF-16.\n");
      return 0;
    }
    if (text != buffer + length) {
      KVFS_ERROR("utf8_string was unexpectedly reallocated!\n");
      std::free(text);
      return 0;
    }
    done += taken;
    length += text_length;
  }
  buffer[length] = '\0';
  for (std::size_t i = 0; i < length; ++i) {
    if (buffer[i] == '\\') {
      buffer[i] = '/';
    }
  }
  return length;
}
