// UTF-8 and UTF-16, one into the other.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <type_traits>

#include "ground/owned.h"
#include "result.h"
#include "support.h"
#include "unicode.h"
#include "unicode/ranges.h"
#include "unicode/surrogates.h"

using namespace kvfs::unicode;

static constexpr std::uint32_t kSupplementary = 0x10000;  // the first code point that takes two units

static constexpr std::uint32_t kLastCodePoint = 0x10FFFF;

static constexpr std::uint32_t joined_surrogates(std::uint32_t high, std::uint32_t low) {
  return kSupplementary + ((high - kHighSurrogate) << 10) + (low - kLowSurrogate);
}

// The sizing pass: stores the bytes of the text as the units lie in memory (Q-unicode-7).
static kvfs_result measure_utf8(const std::uint16_t* units, std::size_t count, std::uint64_t limit,
                                std::size_t* out_size) {
  std::uint64_t size = 0;
  bool high_pending = false;
  for (std::size_t i = 0; i < count && units[i] != 0; ++i) {
    const std::uint16_t unit = units[i];
    if (is_low_surrogate(unit) != high_pending) {
      return kvfs_invalid;
    }
    if (high_pending) {
      size += 4;
      high_pending = false;
    } else if (is_high_surrogate(unit)) {
      high_pending = true;
    } else {
      size += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
    }
    if (size > limit) {
      return kvfs_overflow;
    }
  }
  *out_size = static_cast<std::size_t>(size);  // every limit fits
  return high_pending ? kvfs_invalid : kvfs_ok;
}

static constexpr std::uint16_t in_host_order(std::uint16_t unit, std::int32_t byte_order) {
  constexpr std::int32_t kOtherOrder =
      std::endian::native == std::endian::little ? kUnicodeBigEndian : kUnicodeLittleEndian;
  return byte_order == kOtherOrder ? static_cast<std::uint16_t>(unit << 8 | unit >> 8) : unit;
}

namespace {

// UTF-8 in a buffer of fixed size.
struct utf8_buffer {
  char* bytes;
  std::size_t capacity;
  std::size_t size = 0;

  // Returns false, with nothing appended, when there is no room.
  bool append(std::uint32_t code_point) {
    const std::size_t further = code_point < 0x80 ? 0 : code_point < 0x800 ? 1 : code_point < kSupplementary ? 2 : 3;
    if (capacity - size < further + 1) {
      return false;
    }
    constexpr unsigned char kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
    bytes[size++] = static_cast<char>(kLead[further] | code_point >> 6 * further);
    for (std::size_t i = further; i > 0; --i) {
      bytes[size++] = static_cast<char>(0x80 | (code_point >> 6 * (i - 1) & 0x3F));
    }
    return true;
  }
};

}  // namespace

// The conversion pass. Surrogates are checked again, because the byte order may turn other units into them.
// An unknown order is found at the first unit (Q-unicode-8).
static kvfs_result encode_utf8(const char* speaker, const std::uint16_t* units, std::size_t count,
                               std::int32_t byte_order, utf8_buffer* out) {
  std::uint16_t high = 0;
  for (std::size_t i = 0; i < count && units[i] != 0; ++i) {
    if (byte_order != kUnicodeHostOrder && byte_order != kUnicodeBigEndian && byte_order != kUnicodeLittleEndian) {
      KVFS_ERROR_BY(speaker, "Unrecognized endianness: %d\n", static_cast<int>(byte_order));
      return kvfs_invalid;
    }
    const std::uint16_t unit = in_host_order(units[i], byte_order);
    if (is_low_surrogate(unit) != (high != 0)) {
      return kvfs_invalid;
    }
    if (is_high_surrogate(unit)) {
      high = unit;
      continue;
    }
    if (!out->append(high != 0 ? joined_surrogates(high, unit) : unit)) {
      // X-unicode-1: the sizing pass saw the units in another byte order, in which they are shorter.
      KVFS_ERROR_BY(speaker, "Text needs more than the %zu bytes sized for it.\n", out->capacity);
      return kvfs_inconsistent;
    }
    high = 0;
  }
  return high == 0 ? kvfs_ok : kvfs_invalid;  // X-unicode-2
}

kvfs_result kvfs_unicode_unistr_to_utf8(const std::uint16_t* units, std::size_t count, std::int32_t byte_order,
                                        char** outs, std::size_t* outs_len) {
  constexpr std::uint32_t kLimit = 0xFFFFFFFF;
  std::size_t size = 0;
  const kvfs_result measured = measure_utf8(units, count, *outs != nullptr ? *outs_len : kLimit, &size);
  if (measured != kvfs_ok) {
    return measured;
  }

  kvfs_owned<char> allocated;
  utf8_buffer out{*outs, *outs != nullptr ? *outs_len : size};
  if (*outs == nullptr) {
    if (size < SIZE_MAX) {  // with 32 bits, room for the zero byte cannot be expressed at the limit
      allocated.reset(static_cast<char*>(std::malloc(size + 1)));
    }
    if (!allocated) {
      return kvfs_no_memory;
    }
    out.bytes = allocated.get();
  }

  const kvfs_result encoded = encode_utf8(__func__, units, count, byte_order, &out);
  if (encoded != kvfs_ok) {
    return encoded;
  }
  out.bytes[out.size] = '\0';  // where the capacity ends, at the latest: Q-unicode-9
  if (allocated) {
    *outs = allocated.release();
  }
  *outs_len = out.size;
  return kvfs_ok;
}

namespace {

using utf8_text = std::span<const char>;

}  // namespace

static constexpr unsigned char byte_at(utf8_text text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// The sizing pass: stores the units of the text up to its end or a zero byte, judging by lead bytes alone.
static kvfs_result measure_utf16(utf8_text text, std::size_t* out_count) {
  std::size_t count = 0;
  std::size_t next = 0;
  bool zero_met = false;
  while (next < text.size() && text[next] != '\0' && !zero_met) {
    const unsigned char lead = byte_at(text, next++);
    if (lead > 0xF4) {
      return kvfs_invalid;
    }
    ++count;
    const std::size_t further = lead > 0xEF ? 3 : lead > 0xDF ? 2 : lead > 0xBF ? 1 : 0;
    for (std::size_t i = 0; i < further && !zero_met; ++i, ++next) {
      zero_met = next < text.size() && text[next] == '\0';
    }
    if (lead > 0xEF && !zero_met) {
      ++count;  // the second half of a surrogate pair
    }
  }
  *out_count = count;
  return kvfs_ok;
}

// Whether `count` bytes of the form 10xxxxxx stand behind the first.
static bool has_continuation(utf8_text text, std::size_t count) {
  if (text.size() <= count) {
    return false;
  }
  for (std::size_t i = 1; i <= count; ++i) {
    if ((byte_at(text, i) & 0xC0) != 0x80) {
      return false;
    }
  }
  return true;
}

// The lead byte's bits under `mask`, followed by six of each continuation byte.
static std::uint32_t sequence_value(utf8_text text, unsigned char mask, std::size_t continuation) {
  std::uint32_t value = byte_at(text, 0) & mask;
  for (std::size_t i = 1; i <= continuation; ++i) {
    value = value << 6 | (byte_at(text, i) & 0x3F);
  }
  return value;
}

namespace {

// A decoded character. One that takes no bytes ends the text.
struct utf8_character {
  std::uint32_t value;
  std::size_t size;  // bytes
};

}  // namespace

// Decodes the first character of a text that is not empty; false when it is malformed. Lead bytes above F4 do not get
// here: the sizing pass refuses them.
static bool decode_character(utf8_text text, utf8_character* out) {
  const unsigned char lead = byte_at(text, 0);
  if (lead < 0x80) {
    *out = {lead, lead == 0 ? std::size_t{0} : std::size_t{1}};
    return true;
  }
  if (lead < 0xC2) {
    return false;  // a stray continuation byte, or the lead of an overlong form
  }
  const std::size_t continuation = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
  if (!has_continuation(text, continuation)) {
    return false;
  }
  constexpr unsigned char kMasks[] = {0x7F, 0x1F, 0x0F, 0x07};
  const std::uint32_t value = sequence_value(text, kMasks[continuation], continuation);
  if (continuation == 2 && (value < 0x800 || is_high_surrogate(value) || is_low_surrogate(value))) {
    return false;
  }
  const bool ends_text = continuation == 3 && !in_range(value, kSupplementary, kLastCodePoint - kSupplementary + 1);
  *out = {value, ends_text ? 0 : continuation + 1};
  return true;
}

namespace {

// UTF-16 in a buffer of fixed size. Units that do not fit are counted all the same.
struct utf16_buffer {
  std::uint16_t* units;
  std::size_t capacity;
  std::size_t count = 0;

  void append(std::uint32_t unit) {
    if (count < capacity) {
      units[count] = static_cast<std::uint16_t>(unit);
    }
    ++count;
  }
};

}  // namespace

// Stores a code point. One above U+10FFFF gives two units that are no surrogate pair.
static void append_code_point(std::uint32_t value, utf16_buffer* out) {
  if (value < kSupplementary) {
    out->append(value);
    return;
  }
  out->append(kHighSurrogate + ((value - kSupplementary) >> 10));
  out->append(kLowSurrogate + ((value - kSupplementary) & 0x3FF));
}

// The conversion pass. A character that takes no bytes is stored before it ends the text, so that the count of units
// differs from the one that was sized: a zero byte adds a unit, a value that is no code point costs what follows it
// (Q-unicode-11).
static kvfs_result decode_utf8(const char* speaker, utf8_text text, std::size_t expected, utf16_buffer* out) {
  while (!text.empty()) {
    utf8_character character{};
    if (!decode_character(text, &character)) {
      return kvfs_invalid;
    }
    append_code_point(character.value, out);
    if (character.size == 0) {
      break;
    }
    text = text.subspan(character.size);
  }
  if (out->count < out->capacity) {
    out->units[out->count] = 0;
  }
  if (out->count != expected) {
    KVFS_ERROR_BY(speaker, "Internal error - Filled length is not as expected. Expected: %d Actual: %zd\n",
                  static_cast<int>(expected), static_cast<std::make_signed_t<std::size_t>>(out->count));
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Checks the buffer that a caller supplies for `expected` units.
static kvfs_result check_utf16_buffer(const char* speaker, std::uint16_t* const* outs, const std::size_t* outs_len,
                                      std::size_t expected) {
  if (outs_len == nullptr) {
    KVFS_ERROR_BY(speaker, "Preallocated 'outs', but no 'outs_len' specified. *outs=%p outs_len=%p\n",
                  static_cast<const void*>(*outs), static_cast<const void*>(outs_len));
    return kvfs_invalid;
  }
  if (*outs_len < expected) {
    KVFS_ERROR_BY(speaker,
                  "Preallocated buffer is too small to hold the UTF-16 result. *outs_len (%zu) < shorts (%d)\n",
                  *outs_len, static_cast<int>(expected));
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// Allocates room for `count` units and a zero unit, or logs and returns null.
static std::uint16_t* allocate_utf16(const char* speaker, std::size_t count) {
  constexpr std::size_t kMostUnits = SIZE_MAX / sizeof(std::uint16_t);
  const std::size_t size = count < kMostUnits ? (count + 1) * sizeof(std::uint16_t) : SIZE_MAX;
  std::uint16_t* const units = count < kMostUnits ? static_cast<std::uint16_t*>(std::malloc(size)) : nullptr;
  if (units == nullptr) {
    KVFS_ERROR_BY(speaker, "Error while allocating %zu bytes for UTF-16 result.\n", size);
  }
  return units;
}

kvfs_result kvfs_unicode_utf8_to_unistr(const char* text, std::size_t length, std::uint16_t** outs,
                                        std::size_t* outs_len) {
  std::size_t expected = 0;
  const kvfs_result measured = measure_utf16({text, length}, &expected);
  if (measured != kvfs_ok) {
    KVFS_ERROR("Error while getting UTF-16 size for UTF-8 string.\n");
    return measured;
  }

  kvfs_owned<std::uint16_t> allocated;
  utf16_buffer out{*outs, 0};
  if (*outs != nullptr) {
    const kvfs_result checked = check_utf16_buffer(__func__, outs, outs_len, expected);
    if (checked != kvfs_ok) {
      return checked;
    }
    out.capacity = *outs_len;
  } else {
    allocated.reset(allocate_utf16(__func__, expected));
    out.units = allocated.get();
    out.capacity = allocated ? expected + 1 : 0;
  }

  if (out.units != nullptr) {  // short of memory, the result is an empty success: Q-unicode-10
    const kvfs_result decoded = decode_utf8(__func__, {text, length}, expected, &out);
    if (decoded != kvfs_ok) {
      return decoded;
    }
  }
  if (allocated) {
    *outs = allocated.release();
  }
  if (outs_len != nullptr) {
    *outs_len = out.count;
  }
  return kvfs_ok;
}
