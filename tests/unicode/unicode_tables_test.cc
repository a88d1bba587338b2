// The Unicode tables, proved row by row and unit by unit against the tests' own copy of the rows.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <ios>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stored_names.h"
#include "unicode.h"
#include "unicode_names.h"

namespace {

using kvfs_test::Name;
using kvfs_test::stored_units;

constexpr std::size_t kRows = 942;
constexpr unsigned kUnits = 0x10000;

Name decomposed_by_library(char16_t unit) {
  std::uint16_t units[kUnicodeMaxDecomposedUnits] = {};
  const std::size_t count = kvfs_unicode_decompose_char(unit, units);
  return Name(units, units + count);
}

Name composed_by_library(std::u16string_view name) {
  const std::vector<kvfs_be16> source = stored_units(name);
  std::vector<std::uint16_t> units(name.size());
  std::size_t count = 0;
  EXPECT_EQ(kvfs_unicode_compose(source.data(), source.size(), units.data(), units.size(), &count), 0);
  return Name(units.begin(), units.begin() + static_cast<std::ptrdiff_t>(count));
}

int compare(std::u16string_view a, std::u16string_view b) {
  const std::vector<kvfs_be16> units_a = stored_units(a);
  const std::vector<kvfs_be16> units_b = stored_units(b);
  return kvfs_unicode_fast_compare(units_a.data(), units_a.size(), units_b.data(), units_b.size(), false);
}

// A composition table of the test's own: the rows sorted by their sequences.
const std::vector<std::pair<Name, char16_t>>& rows_by_sequence() {
  static const auto rows = [] {
    std::map<Name, char16_t> sorted;
    for (const auto& [composed, sequence] : kvfs_test::decomposition_rows()) {
      sorted.emplace(sequence, composed);
    }
    return std::vector<std::pair<Name, char16_t>>(sorted.begin(), sorted.end());
  }();
  return rows;
}

// Composes the beginning of a name with a plain binary search that stops at the first row it meets.
std::pair<char16_t, std::size_t> composed_character(std::u16string_view name) {
  const auto& rows = rows_by_sequence();
  const std::u16string_view text = name.substr(0, 4);
  std::ptrdiff_t low = 0;
  std::ptrdiff_t high = static_cast<std::ptrdiff_t>(rows.size()) - 1;
  while (low <= high) {
    const std::ptrdiff_t middle = low + (high - low) / 2;
    const auto& [sequence, composed] = rows[static_cast<std::size_t>(middle)];
    if (text.starts_with(sequence)) {
      return {composed, sequence.size()};
    }
    if (sequence < text) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return {name.front(), 1};
}

Name composed(std::u16string_view name) {
  Name result;
  while (!name.empty()) {
    const auto [unit, length] = composed_character(name);
    result += unit;
    name.remove_prefix(length);
  }
  return result;
}

TEST(UnicodeTables, Rows_ByNumberOfUnits_AreThePublishedCounts) {
  std::map<std::size_t, int> counts;
  for (const auto& [unit, sequence] : kvfs_test::decomposition_rows()) {
    counts[decomposed_by_library(unit).size()]++;
  }
  EXPECT_EQ(counts, (std::map<std::size_t, int>{{1, 17}, {2, 674}, {3, 215}, {4, 36}}));
  EXPECT_EQ(rows_by_sequence().size(), kRows) << "every sequence belongs to one character";
}

TEST(UnicodeTables, DecomposeChar_EveryUnit_GivesItsRowOrItself) {
  std::size_t changed = 0;
  for (unsigned unit = 0; unit < kUnits; ++unit) {
    const Name expected = kvfs_test::decomposed(Name(1, static_cast<char16_t>(unit)));
    ASSERT_EQ(decomposed_by_library(static_cast<char16_t>(unit)), expected) << std::hex << unit;
    changed += expected != Name(1, static_cast<char16_t>(unit));
  }
  EXPECT_EQ(changed, kRows + 11172u);
}

TEST(UnicodeTables, DecomposeChar_EveryUnit_IsFullyDecomposed) {
  for (unsigned unit = 0; unit < kUnits; ++unit) {
    const Name once = decomposed_by_library(static_cast<char16_t>(unit));
    for (const char16_t part : once) {
      ASSERT_EQ(decomposed_by_library(part), Name(1, part)) << std::hex << unit;
    }
  }
}

// Q-unicode-1
TEST(UnicodeTables, DecomposeChar_CharactersOfTheOldForm_KeepIt) {
  EXPECT_EQ(decomposed_by_library(0x0386), u"\u0391\u030D");
  EXPECT_EQ(decomposed_by_library(0x0310), u"\u0306\u0307");
  EXPECT_EQ(decomposed_by_library(0x04D4), u"\u00C6");
  EXPECT_EQ(decomposed_by_library(0x1FBE), u"\u03B9");
  for (const char16_t unit : {u'\u01F8', u'\u0218', u'\u0400', u'\u0622'}) {
    EXPECT_EQ(decomposed_by_library(unit), Name(1, unit)) << std::hex << +unit;
  }
}

// The search settles for the first row that it meets. These are the characters behind which a shorter row hides.
TEST(UnicodeTables, Compose_EveryRow_ComesBackExceptNinetyNine) {
  constexpr char16_t kHidden[] = {
      0x01DE, 0x01DF, 0x01EC, 0x01EE, 0x01EF, 0x01FB, 0x01FD, 0x04DB, 0x04EA, 0x04EB, 0x1E08, 0x1E09, 0x1E2E,
      0x1E38, 0x1E4D, 0x1E4F, 0x1E5D, 0x1E64, 0x1E65, 0x1E66, 0x1E68, 0x1E7A, 0x1EA7, 0x1EAC, 0x1EB1, 0x1EB6,
      0x1EBF, 0x1EC1, 0x1EC3, 0x1EC5, 0x1EC6, 0x1EC7, 0x1ED2, 0x1ED3, 0x1ED8, 0x1ED9, 0x1EDD, 0x1F02, 0x1F03,
      0x1F0A, 0x1F0B, 0x1F0C, 0x1F0D, 0x1F0E, 0x1F0F, 0x1F12, 0x1F14, 0x1F1B, 0x1F1D, 0x1F23, 0x1F2B, 0x1F2D,
      0x1F2F, 0x1F32, 0x1F34, 0x1F36, 0x1F3A, 0x1F3C, 0x1F3E, 0x1F43, 0x1F45, 0x1F4A, 0x1F4C, 0x1F52, 0x1F53,
      0x1F5B, 0x1F63, 0x1F65, 0x1F67, 0x1F6A, 0x1F6B, 0x1F80, 0x1F88, 0x1F89, 0x1F8A, 0x1F8B, 0x1F8C, 0x1F8D,
      0x1F8E, 0x1F8F, 0x1F98, 0x1F99, 0x1F9A, 0x1F9B, 0x1F9C, 0x1F9D, 0x1F9E, 0x1F9F, 0x1FAA, 0x1FAB, 0x1FAC,
      0x1FAD, 0x1FAE, 0x1FAF, 0x1FB2, 0x1FB4, 0x1FD2, 0xFB2C, 0xFB2D};
  Name hidden;
  for (const auto& [unit, sequence] : kvfs_test::decomposition_rows()) {
    const Name result = composed_by_library(sequence);
    ASSERT_EQ(result, composed(sequence)) << std::hex << +unit;
    if (result != Name(1, unit)) {
      hidden += unit;
    }
  }
  EXPECT_EQ(hidden.size(), 99u);
  EXPECT_EQ(hidden, Name(std::begin(kHidden), std::end(kHidden)));
}

// Q-unicode-3
TEST(UnicodeTables, Compose_HiddenRows_GiveTheShorterCharacterAndTheRest) {
  EXPECT_EQ(composed_by_library(u"A\u0308\u0304"), u"\u00C4\u0304");
  EXPECT_EQ(composed_by_library(u"a\u0302\u0300"), u"\u00E2\u0340");
  EXPECT_EQ(composed_by_library(u"\u0391\u0345\u0313\u0300"), u"\u1FBC\u0343\u0340");
}

TEST(UnicodeTables, Compose_EveryRowCutShortOrContinued_FollowsTheSearch) {
  for (const auto& [sequence, unit] : rows_by_sequence()) {
    for (std::size_t length = 1; length <= sequence.size(); ++length) {
      const Name cut = sequence.substr(0, length);
      ASSERT_EQ(composed_by_library(cut), composed(cut)) << std::hex << +unit << " cut to " << length;
      for (const char16_t next : {u'\u0001', u'\u0300', u'\u0345', u'\uFFFF'}) {
        const Name continued = cut + next;
        ASSERT_EQ(composed_by_library(continued), composed(continued)) << std::hex << +unit << " then " << +next;
      }
    }
  }
}

TEST(UnicodeTables, ComposeChar_EverySingleUnit_StandsForItselfExceptSeventeen) {
  std::size_t changed = 0;
  for (unsigned unit = 0; unit < kUnits; ++unit) {
    const kvfs_be16 source = kvfs_be16::of(static_cast<std::uint16_t>(unit));
    std::size_t extra = 1;
    const std::uint16_t result = kvfs_unicode_compose_char(&source, 1, &extra);
    ASSERT_EQ(extra, 0u) << std::hex << unit;
    ASSERT_EQ(result, composed_character(Name(1, static_cast<char16_t>(unit))).first) << std::hex << unit;
    changed += result != unit;
  }
  EXPECT_EQ(changed, 17u);
}

// Q-unicode-2
TEST(UnicodeTables, Compose_SingleUnits_TurnIntoTheCharactersThatDecomposeToThem) {
  EXPECT_EQ(composed_by_library(u";"), u"\u037E");
  EXPECT_EQ(composed_by_library(u"\u00C6"), u"\u04D4");
  EXPECT_EQ(composed_by_library(u"\u03B9"), u"\u1FBE");
  EXPECT_EQ(composed_by_library(u"`\u00B4\u00B7"), u"\u1FEF\u1FFD\u0387");
}

// Rows that begin with U+00C6 and go on with a mark lead the search past the row of U+00C6 alone.
// Q-unicode-3
TEST(UnicodeTables, Compose_TextSortsBehindALongerRow_MissesTheShorterOne) {
  EXPECT_EQ(composed_by_library(u"\u00C6a"), u"\u04D4a");
  EXPECT_EQ(composed_by_library(u"\u00C6\u03BA"), u"\u00C6\u03BA");
}

TEST(UnicodeTables, Hangul_EverySyllable_DecomposesByArithmeticAndComesBack) {
  unsigned syllable = 0xAC00;
  for (unsigned leading = 0x1100; leading < 0x1100 + 19; ++leading) {
    for (unsigned vowel = 0x1161; vowel < 0x1161 + 21; ++vowel) {
      for (unsigned trailing = 0x11A7; trailing < 0x11A7 + 28; ++trailing, ++syllable) {
        Name jamo{static_cast<char16_t>(leading), static_cast<char16_t>(vowel)};
        if (trailing != 0x11A7) {
          jamo += static_cast<char16_t>(trailing);
        }
        ASSERT_EQ(decomposed_by_library(static_cast<char16_t>(syllable)), jamo) << std::hex << syllable;
        ASSERT_EQ(composed_by_library(jamo), Name(1, static_cast<char16_t>(syllable))) << std::hex << syllable;
      }
    }
  }
  EXPECT_EQ(syllable, 0xAC00u + 11172u);
}

// Each unit equals the one that it folds to; the units that fold to themselves are all different and in their own
// order.
TEST(UnicodeTables, CaseFolding_EveryUnit_FoldsByItsRowOrToItself) {
  char16_t before = 0;
  std::size_t changed = 0;
  for (unsigned unit = 0; unit < kUnits; ++unit) {
    const Name name(1, static_cast<char16_t>(unit));
    const char16_t folded = kvfs_test::folded(name.front());
    changed += folded != unit;
    if (folded == 0) {
      ASSERT_EQ(compare(name, u""), 0) << std::hex << unit;
      continue;
    }
    ASSERT_EQ(compare(name, u""), 1) << std::hex << unit;
    ASSERT_EQ(compare(name, Name(1, folded)), 0) << std::hex << unit;
    if (folded == unit) {
      ASSERT_EQ(compare(Name(1, before), name), before == 0 ? 1 : -1) << std::hex << unit << " after " << +before;
      before = folded;
    }
  }
  EXPECT_EQ(changed, 329u);
}

TEST(UnicodeTables, CaseFolding_EveryPairOfUnitsOfOnePage_KeepsTheOrderOfTheRows) {
  for (const unsigned page : {0x00u, 0x01u, 0x03u, 0x04u, 0x05u, 0x10u, 0x20u, 0x21u, 0xFEu, 0xFFu}) {
    for (unsigned low = 0; low < 0x100; ++low) {
      const Name name(1, static_cast<char16_t>(page << 8 | low));
      for (unsigned other = 0; other < 0x100; ++other) {
        const Name other_name(1, static_cast<char16_t>(page << 8 | other));
        ASSERT_EQ(compare(name, other_name), kvfs_test::compare_names(name, other_name, false))
            << std::hex << page << " " << low << " " << other;
      }
    }
  }
}

}  // namespace
