// Names and texts between UTF-8 and the volume: see "Names, paths and items" in kvfs.h.

#include <cstring>

#include "session/private.h"
#include "unicode.h"
#include "unicode/surrogates.h"

using kvfs::unicode::is_high_surrogate;
using kvfs::unicode::is_low_surrogate;

// "%uXXXX" stands for one unit.
static constexpr std::size_t kSpelledUnitSize = 6;
static const char kHexDigits[] = "0123456789ABCDEF";

static int value_of_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Whether a text begins with a spelled unit; `unit` receives it.
static bool is_spelled_unit(const char* text, std::size_t size, std::uint16_t* unit) {
  if (size < kSpelledUnitSize || text[0] != '%' || text[1] != 'u') {
    return false;
  }
  unsigned value = 0;
  for (std::size_t i = 2; i < kSpelledUnitSize; ++i) {
    const int digit = value_of_digit(text[i]);
    if (digit < 0) {
      return false;
    }
    value = value * 16 + static_cast<unsigned>(digit);
  }
  *unit = static_cast<std::uint16_t>(value);
  return true;
}

// ---- From UTF-8 ----------------------------------------------------------------------------------------------------

static kvfs_result append_units(const std::uint16_t* units, std::size_t count, kvfs_be16* name, std::size_t* length) {
  if (count > kHFSPlusMaxNameLength - *length) {
    KVFS_ERROR_AS(kvfs_session_read_name, "Name has more than %hu units.\n", kHFSPlusMaxNameLength);
    return kvfs_invalid;
  }
  for (std::size_t i = 0; i < count; ++i) {
    name[*length + i].set(units[i]);
  }
  *length += count;
  return kvfs_ok;
}

// Whether units can be converted back. Four bytes beyond U+10FFFF are converted to units that are no pair.
static bool is_proper(const std::uint16_t* units, std::size_t count) {
  char text[KVFS_LABEL_SIZE];
  char* out = text;
  std::size_t size = sizeof(text) - 1;
  return kvfs_unicode_unistr_to_utf8(units, count, kUnicodeHostOrder, &out, &size) == kvfs_ok;
}

// Appends a text in which nothing is spelled.
static kvfs_result append_text(const char* text, std::size_t size, kvfs_session_name* name) {
  std::uint16_t units[kHFSPlusMaxNameLength];
  std::uint16_t* out = units;
  std::size_t count = kHFSPlusMaxNameLength;
  if (kvfs_unicode_utf8_to_unistr(text, size, &out, &count) != kvfs_ok || !is_proper(units, count)) {
    KVFS_ERROR_AS(kvfs_session_read_name, "Text of %zu bytes is too long or no UTF-8.\n", size);
    return kvfs_invalid;
  }
  std::uint16_t decomposed[kHFSPlusMaxNameLength];
  std::size_t decomposed_count = 0;
  if (kvfs_unicode_decompose(units, count, decomposed, kHFSPlusMaxNameLength, &decomposed_count) != 0) {
    KVFS_ERROR_AS(kvfs_session_read_name, "Text of %zu bytes is too long when it is decomposed.\n", size);
    return kvfs_invalid;
  }
  kvfs_result result = append_units(decomposed, decomposed_count, name->units, &name->length);
  if (result == kvfs_ok) {
    result = append_units(units, count, name->plain, &name->plain_length);
  }
  return result;
}

static kvfs_result append_unit(std::uint16_t unit, kvfs_session_name* name) {
  const kvfs_result result = append_units(&unit, 1, name->units, &name->length);
  return result == kvfs_ok ? append_units(&unit, 1, name->plain, &name->plain_length) : result;
}

// Bytes up to the next spelled unit or the end.
static std::size_t size_of_text(const char* text, std::size_t size) {
  std::size_t end = 0;
  std::uint16_t unit = 0;
  while (end < size && !is_spelled_unit(text + end, size - end, &unit)) {
    ++end;
  }
  return end;
}

kvfs_result kvfs_session_read_name(const char* text, std::size_t size, kvfs_session_name* name) {
  name->length = 0;
  name->plain_length = 0;
  kvfs_result result = kvfs_ok;
  while (size != 0 && result == kvfs_ok) {
    std::uint16_t unit = 0;
    std::size_t done = kSpelledUnitSize;
    if (is_spelled_unit(text, size, &unit)) {
      result = append_unit(unit, name);
    } else {
      done = size_of_text(text, size);
      result = append_text(text, done, name);
    }
    text += done;
    size -= done;
  }
  return result;
}

kvfs_result kvfs_session_read_text(const char* text, std::size_t size, kvfs_session_name* name) {
  name->length = 0;
  name->plain_length = 0;
  return append_text(text, size, name);
}

// ---- To UTF-8 ------------------------------------------------------------------------------------------------------

static std::uint16_t unit_at(const kvfs_be16* units, std::size_t length, std::size_t index) {
  return index < length ? units[index].get() : std::uint16_t{0};
}

// Whether a "%" is followed by what would make it a spelled unit.
static bool reads_as_spelled(const kvfs_be16* units, std::size_t length, std::size_t index) {
  char text[kSpelledUnitSize];
  for (std::size_t i = 0; i < kSpelledUnitSize; ++i) {
    const std::uint16_t unit = unit_at(units, length, index + i);
    text[i] = unit < 0x80 ? static_cast<char>(unit) : '\0';
  }
  std::uint16_t ignored = 0;
  return is_spelled_unit(text, kSpelledUnitSize, &ignored);
}

// Whether a unit stays the same when the name is read, which decomposes it.
static bool is_decomposed(std::uint16_t unit) {
  std::uint16_t units[kUnicodeMaxDecomposedUnits];
  return unit < 0x80 || (kvfs_unicode_decompose_char(unit, units) == 1 && units[0] == unit);
}

// Units from an index on that stand for themselves as one character; 0 for one that has to be spelled.
static std::size_t units_of_character(const kvfs_be16* units, std::size_t length, std::size_t index) {
  const std::uint16_t unit = units[index].get();
  if (is_high_surrogate(unit)) {
    return is_low_surrogate(unit_at(units, length, index + 1)) ? 2 : 0;
  }
  const bool is_spelled = unit == 0 || unit == '/' || is_low_surrogate(unit) || !is_decomposed(unit) ||
                          (unit == '%' && reads_as_spelled(units, length, index));
  return is_spelled ? 0 : 1;
}

static void spell_unit(std::uint16_t unit, char* text) {
  text[0] = '%';
  text[1] = 'u';
  for (unsigned i = 0; i < 4; ++i) {
    text[2 + i] = kHexDigits[(unit >> (12 - 4 * i)) & 0xF];
  }
}

// Converts one character, which is proper UTF-16. Returns its bytes.
static std::size_t convert_character(const kvfs_be16* units, std::size_t count, char* text) {
  const std::uint16_t character[2] = {units[0].get(), count == 2 ? units[1].get() : std::uint16_t{0}};
  std::size_t size = kSpelledUnitSize;
  return kvfs_unicode_unistr_to_utf8(character, count, kUnicodeHostOrder, &text, &size) == kvfs_ok ? size : 0;
}

std::size_t kvfs_session_spell(const kvfs_be16* units, std::size_t length, char* text) {
  static_assert(kHFSPlusMaxNameLength * kSpelledUnitSize < KVFS_NAME_SIZE);
  std::size_t size = 0;
  for (std::size_t i = 0; i < length;) {
    const std::size_t count = units_of_character(units, length, i);
    if (count == 0) {
      spell_unit(units[i].get(), text + size);
      size += kSpelledUnitSize;
      ++i;
    } else {
      size += convert_character(units + i, count, text + size);
      i += count;
    }
  }
  text[size] = '\0';
  return size;
}

bool kvfs_session_has_nul(const kvfs_be16* units, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (units[i].get() == 0) {
      return true;
    }
  }
  return false;
}

// ---- To callers ----------------------------------------------------------------------------------------------------

kvfs_result kvfs_session_copy_text(const char* text, std::size_t length, char* buffer, std::size_t size,
                                   std::size_t* out_length) {
  if (out_length != nullptr) {
    *out_length = length;
  }
  if (length >= size) {
    return kvfs_overflow;
  }
  std::memcpy(buffer, text, length);
  buffer[length] = '\0';
  return kvfs_ok;
}

void kvfs_session_copy_struct(const void* from, std::size_t size, void* to, std::uint32_t struct_size) {
  unsigned char* const bytes = static_cast<unsigned char*>(to);
  std::memset(bytes, 0, struct_size);  // what this library does not know of yet is 0
  std::memcpy(bytes, from, size);
  std::memcpy(bytes, &struct_size, sizeof(struct_size));
}

std::int64_t kvfs_session_date(kvfs_be32 date) {
  constexpr std::int64_t kFrom1904To1970 = 2082844800;
  const std::uint32_t seconds = date.get();
  return seconds == 0 ? KVFS_NO_DATE : std::int64_t{seconds} - kFrom1904To1970;
}
