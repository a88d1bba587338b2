// Decomposition and composition of single characters, by table and for Hangul by rule.

#include <cstddef>
#include <cstdint>
#include <span>

#include "format.h"
#include "unicode.h"
#include "unicode/ranges.h"

using namespace kvfs::unicode;

namespace {

#include "unicode/decomposition_tables.inc"

}  // namespace

// Unicode's arithmetic: a syllable is a leading consonant, a vowel and, maybe, a trailing consonant.
static constexpr std::uint16_t kSyllableBase = 0xAC00;

static constexpr std::uint16_t kLeadingBase = 0x1100;

static constexpr std::uint16_t kVowelBase = 0x1161;

static constexpr std::uint16_t kTrailingBase = 0x11A7;  // stands for no trailing consonant

static constexpr std::uint16_t kLeadingCount = 19;

static constexpr std::uint16_t kVowelCount = 21;

static constexpr std::uint16_t kTrailingCount = 28;

static constexpr std::uint16_t kSyllablesPerLeading = kVowelCount * kTrailingCount;

static constexpr std::uint16_t kSyllableCount = kLeadingCount * kSyllablesPerLeading;

static_assert(kSyllableCount == 11172);

static constexpr bool is_syllable(std::uint16_t unit) {
  return in_range(unit, kSyllableBase, kSyllableCount);
}

static std::size_t decompose_syllable(std::uint16_t syllable, std::uint16_t* out) {
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
static constexpr std::uint16_t joined_hangul(std::uint16_t first, std::uint16_t next) {
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

static std::uint16_t compose_hangul(std::span<const kvfs_be16> units, std::size_t* extra) {
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

// Unit `i` of a decomposition; zero behind its end.
static constexpr std::uint16_t sequence_unit(std::size_t number, std::size_t i) {
  return i == 0 ? kFirstUnits[number] : kTails[kTailNumbers[number]][i - 1];
}

static constexpr std::size_t sequence_length(std::size_t number) {
  std::size_t length = 0;
  while (length < kUnicodeMaxDecomposedUnits && sequence_unit(number, length) != 0) {
    ++length;
  }
  return length;
}

static constexpr bool runs_ascend() {
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
static constexpr bool sequences_ascend() {
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

static constexpr std::size_t kNoDecomposition = kDecompositionCount;

// The number of a character's decomposition.
static std::size_t find_decomposition(std::uint16_t composed) {
  const composed_run* const run = find_run(kComposedRuns, kComposedRunCount, &composed_run::first, composed);
  if (run == nullptr) {
    return kNoDecomposition;
  }
  const std::size_t number = std::size_t{run->number} + composed - run->first;
  return number < run[1].number ? number : kNoDecomposition;
}

// The character with a decomposition.
static std::uint16_t composed_character(std::size_t number) {
  const composed_run* const run = find_run(kComposedRuns, kComposedRunCount, &composed_run::number, number);
  return static_cast<std::uint16_t>(run->first + (number - run->number));
}

// Where a decomposition sorts against a text: 0 when the text begins with it. A sequence that the text ends within
// sorts behind it.
static int compare_sequence(std::size_t number, std::span<const kvfs_be16> text) {
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
static std::size_t find_composition(std::span<const kvfs_be16> text) {
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
