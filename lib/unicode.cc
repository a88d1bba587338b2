#include "unicode.h"

#include <bit>
#include <cstdlib>
#include <span>
#include <type_traits>

#include "owned.h"
#include "support.h"
#include "unicode_private.h"

namespace {

#include "unicode_tables.inc"

// ---- Surrogates ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t kHighSurrogate = 0xD800;
constexpr std::uint32_t kLowSurrogate = 0xDC00;
constexpr std::uint32_t kSupplementary = 0x10000;  // the first code point that takes two units
constexpr std::uint32_t kLastCodePoint = 0x10FFFF;

constexpr bool in_range(std::uint32_t value, std::uint32_t first, std::uint32_t count) {
  return value >= first && value - first < count;
}

constexpr bool is_high_surrogate(std::uint32_t unit) {
  return in_range(unit, kHighSurrogate, 0x400);
}

constexpr bool is_low_surrogate(std::uint32_t unit) {
  return in_range(unit, kLowSurrogate, 0x400);
}

constexpr std::uint32_t joined_surrogates(std::uint32_t high, std::uint32_t low) {
  return kSupplementary + ((high - kHighSurrogate) << 10) + (low - kLowSurrogate);
}

// ---- UTF-16 to UTF-8 -----------------------------------------------------------------------------------------------

// The sizing pass: stores the bytes of the text as the units lie in memory (Q-unicode-7).
kvfs_result measure_utf8(const std::uint16_t* units, std::size_t count, std::uint64_t limit, std::size_t* out_size) {
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

constexpr std::uint16_t in_host_order(std::uint16_t unit, std::int32_t byte_order) {
  constexpr std::int32_t kForeign =
      std::endian::native == std::endian::little ? kUnicodeBigEndian : kUnicodeLittleEndian;
  return byte_order == kForeign ? static_cast<std::uint16_t>(unit << 8 | unit >> 8) : unit;
}

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

// The conversion pass. Surrogates are checked again, because the byte order may turn other units into them.
// An unknown order is found at the first unit (Q-unicode-8).
kvfs_result encode_utf8(const char* speaker, const std::uint16_t* units, std::size_t count, std::int32_t byte_order,
                        utf8_buffer* out) {
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
      KVFS_ERROR_BY(speaker, "Text in byte order %d needs more than the %zu bytes sized for it.\n",
                    static_cast<int>(byte_order), out->capacity);
      return kvfs_inconsistent;
    }
    high = 0;
  }
  return high == 0 ? kvfs_ok : kvfs_invalid;
}

}  // namespace

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

// ---- UTF-8 to UTF-16 -----------------------------------------------------------------------------------------------

namespace {

using utf8_text = std::span<const char>;

constexpr unsigned char byte_at(utf8_text text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// The sizing pass: stores the units of the text up to its end or a zero byte, judging by lead bytes alone.
kvfs_result measure_utf16(utf8_text text, std::size_t* out_count) {
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
bool has_continuation(utf8_text text, std::size_t count) {
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
std::uint32_t sequence_value(utf8_text text, unsigned char mask, std::size_t continuation) {
  std::uint32_t value = byte_at(text, 0) & mask;
  for (std::size_t i = 1; i <= continuation; ++i) {
    value = value << 6 | (byte_at(text, i) & 0x3F);
  }
  return value;
}

// A decoded character. One that takes no bytes ends the text.
struct utf8_character {
  std::uint32_t value;
  std::size_t size;  // bytes
};

// Decodes the first character of a text that is not empty; false when it is malformed. Lead bytes above F4 do not get
// here: the sizing pass refuses them.
bool decode_character(utf8_text text, utf8_character* out) {
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

// Stores a code point. One above U+10FFFF gives two units that are no surrogate pair.
void append_code_point(std::uint32_t value, utf16_buffer* out) {
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
kvfs_result decode_utf8(const char* speaker, utf8_text text, std::size_t expected, utf16_buffer* out) {
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
kvfs_result check_utf16_buffer(const char* speaker, std::uint16_t* const* outs, const std::size_t* outs_len,
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
std::uint16_t* allocate_utf16(const char* speaker, std::size_t count) {
  constexpr std::size_t kMostUnits = SIZE_MAX / sizeof(std::uint16_t);
  const std::size_t size = count < kMostUnits ? (count + 1) * sizeof(std::uint16_t) : SIZE_MAX;
  std::uint16_t* const units = count < kMostUnits ? static_cast<std::uint16_t*>(std::malloc(size)) : nullptr;
  if (units == nullptr) {
    KVFS_ERROR_BY(speaker, "Error while allocating %zu bytes for UTF-16 result.\n", size);
  }
  return units;
}

}  // namespace

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

// ---- Hangul --------------------------------------------------------------------------------------------------------

namespace {

// Unicode's arithmetic: a syllable is a leading consonant, a vowel and, maybe, a trailing consonant.
constexpr std::uint16_t kSyllableBase = 0xAC00;
constexpr std::uint16_t kLeadingBase = 0x1100;
constexpr std::uint16_t kVowelBase = 0x1161;
constexpr std::uint16_t kTrailingBase = 0x11A7;  // stands for no trailing consonant
constexpr std::uint16_t kLeadingCount = 19;
constexpr std::uint16_t kVowelCount = 21;
constexpr std::uint16_t kTrailingCount = 28;
constexpr std::uint16_t kSyllablesPerLeading = kVowelCount * kTrailingCount;
constexpr std::uint16_t kSyllableCount = kLeadingCount * kSyllablesPerLeading;
static_assert(kSyllableCount == 11172);

constexpr bool is_syllable(std::uint16_t unit) {
  return in_range(unit, kSyllableBase, kSyllableCount);
}

std::size_t decompose_syllable(std::uint16_t syllable, std::uint16_t* out) {
  const int index = syllable - kSyllableBase;
  const int trailing = index % kTrailingCount;
  out[0] = static_cast<std::uint16_t>(kLeadingBase + index / kSyllablesPerLeading);
  out[1] = static_cast<std::uint16_t>(kVowelBase + index % kSyllablesPerLeading / kTrailingCount);
  if (trailing == 0) {
    return 2;
  }
  out[2] = static_cast<std::uint16_t>(kTrailingBase + trailing);
  return 3;
}

// The syllable that `next` makes of a leading consonant or of a syllable without a trailing one; 0 when it makes none.
// U+11A7 counts as a trailing consonant and leaves the syllable as it is (Q-unicode-4).
constexpr std::uint16_t joined_hangul(std::uint16_t first, std::uint16_t next) {
  if (in_range(first, kLeadingBase, kLeadingCount) && in_range(next, kVowelBase, kVowelCount)) {
    const int pair = (first - kLeadingBase) * kVowelCount + (next - kVowelBase);
    return static_cast<std::uint16_t>(kSyllableBase + pair * kTrailingCount);
  }
  if (is_syllable(first) && (first - kSyllableBase) % kTrailingCount == 0 &&
      in_range(next, kTrailingBase, kTrailingCount)) {
    return static_cast<std::uint16_t>(first + (next - kTrailingBase));
  }
  return 0;
}

std::uint16_t compose_hangul(std::span<const kvfs_be16> units, std::size_t* extra) {
  std::uint16_t composed = units[0].get();
  *extra = 0;
  for (const kvfs_be16 unit : units.subspan(1)) {
    const std::uint16_t joined = joined_hangul(composed, unit.get());
    if (joined == 0) {
      break;
    }
    composed = joined;
    ++*extra;
  }
  return composed;
}

// ---- Decomposition table -------------------------------------------------------------------------------------------

// Unit `i` of a decomposition; zero behind its end.
constexpr std::uint16_t sequence_unit(std::size_t number, std::size_t i) {
  return i == 0 ? kFirstUnits[number] : kTails[kTailNumbers[number]][i - 1];
}

constexpr std::size_t sequence_length(std::size_t number) {
  std::size_t length = 0;
  while (length < kUnicodeMaxDecomposedUnits && sequence_unit(number, length) != 0) {
    ++length;
  }
  return length;
}

constexpr bool runs_ascend() {
  for (std::size_t i = 0; i < kComposedRunCount; ++i) {
    const std::uint32_t length = std::uint32_t{kComposedRuns[i + 1].number} - kComposedRuns[i].number;
    if (length == 0 || kComposedRuns[i].first + length > kComposedRuns[i + 1].first) {
      return false;
    }
  }
  return kComposedRuns[0].number == 0 && kComposedRuns[kComposedRunCount].number == kDecompositionCount;
}
static_assert(runs_ascend());

// Strictly ascending also means that no position occurs twice, so that all of them occur.
constexpr bool sequences_ascend() {
  for (std::size_t i = 1; i < kDecompositionCount; ++i) {
    const std::size_t before = kCompositionOrder[i - 1];
    const std::size_t number = kCompositionOrder[i];
    std::size_t same = 0;
    while (same < kUnicodeMaxDecomposedUnits && sequence_unit(before, same) == sequence_unit(number, same)) {
      ++same;
    }
    if (same == kUnicodeMaxDecomposedUnits || sequence_unit(before, same) > sequence_unit(number, same)) {
      return false;
    }
  }
  return true;
}
static_assert(sequences_ascend());

// The last of `count` runs that does not begin behind a value; none when all of them do.
template <typename Run>
constexpr const Run* find_run(const Run* runs, std::size_t count, std::uint16_t Run::*begin, std::size_t value) {
  std::size_t low = 0;
  std::size_t end = count;
  while (low < end) {
    const std::size_t middle = low + (end - low) / 2;
    if (runs[middle].*begin <= value) {
      low = middle + 1;
    } else {
      end = middle;
    }
  }
  return low == 0 ? nullptr : &runs[low - 1];
}

constexpr std::size_t kNoDecomposition = kDecompositionCount;

// The number of a character's decomposition.
std::size_t find_decomposition(std::uint16_t composed) {
  const composed_run* const run = find_run(kComposedRuns, kComposedRunCount, &composed_run::first, composed);
  if (run == nullptr) {
    return kNoDecomposition;
  }
  const std::size_t number = std::size_t{run->number} + composed - run->first;
  return number < run[1].number ? number : kNoDecomposition;
}

// The character with a decomposition.
std::uint16_t composed_character(std::size_t number) {
  const composed_run* const run = find_run(kComposedRuns, kComposedRunCount, &composed_run::number, number);
  return static_cast<std::uint16_t>(run->first + (number - run->number));
}

// Where a decomposition sorts against a text: 0 when the text begins with it. A sequence that the text ends within
// sorts behind it.
int compare_sequence(std::size_t number, std::span<const kvfs_be16> text) {
  for (std::size_t i = 0; i < kUnicodeMaxDecomposedUnits && sequence_unit(number, i) != 0; ++i) {
    if (i == text.size()) {
      return 1;
    }
    const std::uint16_t unit = text[i].get();
    if (sequence_unit(number, i) != unit) {
      return sequence_unit(number, i) < unit ? -1 : 1;
    }
  }
  return 0;
}

// Finds a decomposition that the text begins with. Several may be such; which of them is met, and whether one is,
// depends on where the search looks, so that its bounds and middle stay as they are: Q-unicode-3.
std::size_t find_composition(std::span<const kvfs_be16> text) {
  int low = 0;
  int high = static_cast<int>(kDecompositionCount) - 1;
  while (low <= high) {
    const int middle = low + (high - low) / 2;
    const std::size_t number = kCompositionOrder[middle];
    const int order = compare_sequence(number, text);
    if (order == 0) {
      return number;
    }
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return kNoDecomposition;
}

}  // namespace

std::size_t kvfs_unicode_decompose_char(std::uint16_t c, std::uint16_t out[kUnicodeMaxDecomposedUnits]) {
  if (is_syllable(c)) {
    return decompose_syllable(c, out);
  }
  const std::size_t number = find_decomposition(c);
  if (number == kNoDecomposition) {
    out[0] = c;
    return 1;
  }
  const std::size_t length = sequence_length(number);
  for (std::size_t i = 0; i < length; ++i) {
    out[i] = sequence_unit(number, i);
  }
  return length;
}

std::uint16_t kvfs_unicode_compose_char(const kvfs_be16* src, std::size_t remaining, std::size_t* extra) {
  const std::span<const kvfs_be16> text(
      src, remaining < kUnicodeMaxDecomposedUnits ? remaining : kUnicodeMaxDecomposedUnits);
  const std::uint16_t composed = compose_hangul(text, extra);
  if (*extra != 0) {
    return composed;
  }
  const std::size_t number = find_composition(text);
  if (number == kNoDecomposition) {
    return composed;
  }
  *extra = sequence_length(number) - 1;
  return composed_character(number);
}

// ---- Names ---------------------------------------------------------------------------------------------------------

namespace {

void store_unit(std::uint16_t* field, std::uint16_t unit) {
  *field = unit;
}

void store_unit(kvfs_be16* field, std::uint16_t unit) {
  field->set(unit);
}

// The units of a foreign name up to its end or a zero unit.
std::size_t name_length(const std::uint16_t* src, std::size_t count) {
  std::size_t length = 0;
  while (length < count && src[length] != 0) {
    ++length;
  }
  return length;
}

// Where a name goes: units of fixed capacity or, without any, a mere count.
template <typename Unit>
struct name_buffer {
  Unit* units;
  std::size_t capacity;
  std::size_t count = 0;

  // Returns false, with nothing appended, when there is no room.
  bool append(std::uint16_t unit) {
    if (units != nullptr) {
      if (count == capacity) {
        return false;
      }
      store_unit(&units[count], unit);
    }
    ++count;
    return true;
  }

  // Appends a zero unit where there is room, and so not when only counting (X-unicode-2), and reports the count.
  void finish(std::size_t* out_count) {
    if (units != nullptr && count < capacity) {
      store_unit(&units[count], 0);
    }
    if (out_count != nullptr) {
      *out_count = count;
    }
  }
};

// The answer to a destination without room: nothing is stored, and any text at all overflows.
int refuse_without_room(std::size_t src_count, std::size_t* out_count) {
  if (out_count != nullptr) {
    *out_count = 0;
  }
  return src_count != 0 ? 1 : 0;
}

// Appends a decomposition, as far as there is room for it (Q-unicode-12).
template <typename Unit>
bool append_decomposed(std::uint16_t c, name_buffer<Unit>* out) {
  std::uint16_t units[kUnicodeMaxDecomposedUnits];
  const std::size_t count = kvfs_unicode_decompose_char(c, units);
  for (std::size_t i = 0; i < count; ++i) {
    if (!out->append(units[i])) {
      return false;
    }
  }
  return true;
}

template <typename Unit>
int decompose_name(const std::uint16_t* src, std::size_t src_count, name_buffer<Unit> out, std::size_t* out_count) {
  bool fits = true;
  for (std::size_t i = 0; i < src_count && fits; ++i) {
    fits = append_decomposed(src[i], &out);
  }
  out.finish(out_count);
  return fits ? 0 : 1;
}

// A zero unit ends what is composed; what is decomposed it does not end (Q-unicode-5).
int compose_name(const kvfs_be16* src, std::size_t src_count, name_buffer<std::uint16_t> out, std::size_t* out_count) {
  bool fits = true;
  for (std::size_t i = 0; i < src_count && src[i].get() != 0 && fits;) {
    std::size_t extra = 0;
    fits = out.append(kvfs_unicode_compose_char(src + i, src_count - i, &extra));
    i += 1 + extra;
  }
  out.finish(out_count);
  return fits ? 0 : 1;
}

}  // namespace

int kvfs_unicode_decompose(const std::uint16_t* src, std::size_t src_count, std::uint16_t* dst,
                           std::size_t dst_capacity, std::size_t* dst_count) {
  if (dst_capacity == 0) {
    return refuse_without_room(src_count, dst_count);
  }
  return decompose_name(src, src_count, name_buffer<std::uint16_t>{dst, dst_capacity}, dst_count);
}

int kvfs_unicode_compose(const kvfs_be16* src, std::size_t src_count, std::uint16_t* dst, std::size_t dst_capacity,
                         std::size_t* dst_count) {
  if (dst != nullptr && dst_capacity == 0) {
    return refuse_without_room(src_count, dst_count);
  }
  return compose_name(src, src_count, name_buffer<std::uint16_t>{dst, dst_capacity}, dst_count);
}

// ---- The order of names --------------------------------------------------------------------------------------------
//
// Zero units (Q-unicode-6) and ignorable ones (Q-unicode-13) have an order of their own.

namespace {

static_assert(kFoldingRuns[0].first == 0);
constexpr std::uint32_t kAsciiEnd = 0x80;

std::uint16_t fold_case(std::uint16_t unit) {
  if (in_range(unit, 1, kAsciiEnd - 1)) {  // what most names are made of
    return in_range(unit, 'A', 26) ? static_cast<std::uint16_t>(unit + ('a' - 'A')) : unit;
  }
  const folding_run* const run = find_run(kFoldingRuns, kFoldingRunCount, &folding_run::first, unit);
  const std::uint32_t distance = std::uint32_t{unit} - run->first;  // the first run begins at 0
  const bool folds = (distance & (run->step - 1U)) == 0 && distance < std::uint32_t{run->count} * run->step;
  return folds ? static_cast<std::uint16_t>(unit + run->added) : unit;
}

// What is compared where a name goes on behind the units that are there; no unit has this value.
constexpr std::uint32_t kMissingUnit = 0x10000;

// What is left of a name that is being compared.
struct name_cursor {
  const kvfs_be16* next;
  const kvfs_be16* end;
  std::uint32_t behind;  // what comes then: 0, or kMissingUnit

  // The next unit as it is.
  std::uint32_t take() { return next == end ? behind : (next++)->get(); }

  // The next unit that does not fold to 0, folded.
  std::uint32_t take_folded() {
    std::uint32_t unit = 0;
    while (unit == 0 && next != end) {
      unit = fold_case((next++)->get());
    }
    return unit == 0 ? behind : unit;
  }
};

name_cursor begin_of(const kvfs_cut_name& name) {
  return {name.units, name.units + name.readable, name.readable < name.length ? kMissingUnit : 0};
}

}  // namespace

int kvfs_unicode_compare_cut_names(const kvfs_cut_name& a, const kvfs_cut_name& b, bool binary) {
  name_cursor rest_of_a = begin_of(a);
  name_cursor rest_of_b = begin_of(b);
  for (;;) {
    const std::uint32_t unit_a = binary ? rest_of_a.take() : rest_of_a.take_folded();
    const std::uint32_t unit_b = binary ? rest_of_b.take() : rest_of_b.take_folded();
    if (unit_a == kMissingUnit || unit_b == kMissingUnit) {
      return kvfs_name_is_cut;
    }
    if (unit_a != unit_b) {
      return unit_a > unit_b ? 1 : -1;
    }
    if (unit_a == 0) {
      return 0;
    }
  }
}

int kvfs_unicode_fast_compare(const kvfs_be16* a, std::size_t a_length, const kvfs_be16* b, std::size_t b_length,
                              bool binary) {
  return kvfs_unicode_compare_cut_names({a, a_length, a_length}, {b, b_length, b_length}, binary);
}

// ---- Names of foreign systems --------------------------------------------------------------------------------------

int kvfs_unicode_hfsplus_to_windows(const kvfs_be16* src, std::size_t n, std::uint16_t* dst, std::size_t capacity,
                                    std::size_t* written) {
  return kvfs_unicode_compose(src, n, dst, capacity, written);
}

int kvfs_unicode_hfsplus_to_windows_capped(const kvfs_be16* src, std::size_t n, std::uint16_t* dst,
                                           std::size_t capacity, std::size_t* written) {
  if (capacity == 0) {
    return refuse_without_room(n, written);
  }
  return kvfs_unicode_hfsplus_to_windows(src, n, dst, capacity, written);
}

std::size_t kvfs_unicode_hfsplus_to_windows_string_length(const kvfs_be16* src, std::size_t n) {
  std::size_t length = 0;
  if (kvfs_unicode_hfsplus_to_windows(src, n, nullptr, 0, &length) != 0) {
    KVFS_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return length;
}

int kvfs_unicode_windows_to_hfsplus(const std::uint16_t* src, std::size_t n, kvfs_be16* dst, std::size_t capacity,
                                    std::size_t* written) {
  if (dst != nullptr && capacity == 0) {
    return refuse_without_room(n, written);
  }
  return decompose_name(src, name_length(src, n), name_buffer<kvfs_be16>{dst, capacity}, written);
}

int kvfs_unicode_windows_to_hfsplus_capped(const std::uint16_t* src, std::size_t n, kvfs_be16* dst,
                                           std::size_t capacity, std::size_t* written) {
  if (capacity == 0) {
    return refuse_without_room(n, written);
  }
  return kvfs_unicode_windows_to_hfsplus(src, n, dst, capacity, written);
}

std::size_t kvfs_unicode_windows_to_hfsplus_string_length(const std::uint16_t* src, std::size_t n) {
  std::size_t length = 0;
  if (kvfs_unicode_windows_to_hfsplus(src, n, nullptr, 0, &length) != 0) {
    KVFS_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return length;
}
