#include "unicode_names.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>

namespace kvfs_test {
namespace {

struct DecompositionRow {
  char16_t character;
  char16_t units[4];
};

constexpr DecompositionRow kDecompositionRows[] = {
#include "decomposition_rows.inc"
};

struct FoldingRow {
  char16_t from;
  char16_t to;
};

constexpr FoldingRow kFoldingRows[] = {
#include "case_folding_rows.inc"
};

constexpr char16_t kSyllableBase = 0xAC00;
constexpr char16_t kSyllableCount = 11172;
constexpr char16_t kLeadingBase = 0x1100;
constexpr char16_t kVowelBase = 0x1161;
constexpr char16_t kTrailingBase = 0x11A7;
constexpr char16_t kVowels = 21;
constexpr char16_t kTrailings = 28;

std::size_t sequence_length(std::uint8_t lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead >= 0xC2 && lead < 0xE0) {
    return 2;
  }
  if (lead >= 0xE0 && lead < 0xF0) {
    return 3;
  }
  return lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
}

char32_t take_code_point(std::string_view& utf8) {
  const auto lead = static_cast<std::uint8_t>(utf8.front());
  const std::size_t length = sequence_length(lead);
  if (length == 0 || length > utf8.size()) {
    throw std::invalid_argument("malformed UTF-8");
  }
  char32_t code = length == 1 ? lead : lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    code = code << 6 | (static_cast<std::uint8_t>(utf8[i]) & 0x3FU);
  }
  utf8.remove_prefix(length);
  return code;
}

void append_utf8(std::string& text, char32_t code) {
  if (code < 0x80) {
    text += static_cast<char>(code);
    return;
  }
  const int tail = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  const char32_t marks[] = {0, 0xC0, 0xE0, 0xF0};
  text += static_cast<char>(marks[tail] | code >> (6 * tail));
  for (int i = tail - 1; i >= 0; --i) {
    text += static_cast<char>(0x80 | (code >> (6 * i) & 0x3F));
  }
}

Name decomposed_syllable(char16_t syllable) {
  const auto index = static_cast<unsigned>(syllable - kSyllableBase);
  Name units;
  units += static_cast<char16_t>(kLeadingBase + index / (kVowels * kTrailings));
  units += static_cast<char16_t>(kVowelBase + index % (kVowels * kTrailings) / kTrailings);
  if (index % kTrailings != 0) {
    units += static_cast<char16_t>(kTrailingBase + index % kTrailings);
  }
  return units;
}

// The next unit that counts, or 0 at the end.
char16_t take_unit(std::u16string_view& name, bool binary) {
  char16_t unit = 0;
  while (unit == 0 && !name.empty()) {
    unit = binary ? name.front() : folded(name.front());
    name.remove_prefix(1);
    if (binary) {
      break;
    }
  }
  return unit;
}

}  // namespace

Name to_utf16(std::string_view utf8) {
  Name name;
  while (!utf8.empty()) {
    const char32_t code = take_code_point(utf8);
    if (code < 0x10000) {
      name += static_cast<char16_t>(code);
    } else {
      name += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
      name += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
    }
  }
  return name;
}

std::string to_utf8(std::u16string_view name) {
  std::string text;
  for (std::size_t i = 0; i < name.size(); ++i) {
    char32_t code = name[i];
    const bool high = (code & 0xFC00) == 0xD800;
    if (high && i + 1 < name.size() && (name[i + 1] & 0xFC00) == 0xDC00) {
      code = 0x10000 + ((code & 0x3FF) << 10) + (name[i + 1] & 0x3FFU);
      ++i;
    } else if ((code & 0xF800) == 0xD800) {
      code = 0xFFFD;
    }
    append_utf8(text, code);
  }
  return text;
}

const std::vector<std::pair<char16_t, Name>>& decomposition_rows() {
  static const auto rows = [] {
    std::vector<std::pair<char16_t, Name>> list;
    for (const DecompositionRow& row : kDecompositionRows) {
      list.emplace_back(row.character, Name(row.units, std::find(row.units, row.units + 4, u'\0')));
    }
    return list;
  }();
  return rows;
}

Name decomposed(std::u16string_view name) {
  const auto& rows = decomposition_rows();
  Name result;
  for (const char16_t unit : name) {
    const auto row = std::lower_bound(rows.begin(), rows.end(), unit,
                                      [](const auto& entry, char16_t wanted) { return entry.first < wanted; });
    if (unit >= kSyllableBase && unit < kSyllableBase + kSyllableCount) {
      result += decomposed_syllable(unit);
    } else if (row != rows.end() && row->first == unit) {
      result += row->second;
    } else {
      result += unit;
    }
  }
  return result;
}

Name decomposed(std::string_view utf8) {
  return decomposed(std::u16string_view(to_utf16(utf8)));
}

char16_t folded(char16_t unit) {
  static const auto table = [] {
    std::vector<char16_t> values(0x10000);
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = static_cast<char16_t>(i);
    }
    for (const FoldingRow& row : kFoldingRows) {
      values[row.from] = row.to;
    }
    return values;
  }();
  return table[unit];
}

int compare_names(std::u16string_view a, std::u16string_view b, bool binary) {
  while (true) {
    const char16_t unit_a = take_unit(a, binary);
    const char16_t unit_b = take_unit(b, binary);
    if (unit_a != unit_b) {
      return unit_a < unit_b ? -1 : 1;
    }
    if (unit_a == 0) {
      return 0;
    }
  }
}

}  // namespace kvfs_test
