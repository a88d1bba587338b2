// Names for the tests: UTF-8 and UTF-16, decomposition and the order of names, without the library.

#ifndef KVFS_UNICODE_NAMES_H
#define KVFS_UNICODE_NAMES_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvfs_test {

// A name in host order. The volume stores it big-endian.
using Name = std::u16string;

// UTF-8 (well-formed; throws std::invalid_argument otherwise) to UTF-16, code point by code point.
Name to_utf16(std::string_view utf8);

// UTF-16 to UTF-8; a lone surrogate becomes U+FFFD.
std::string to_utf8(std::u16string_view name);

// The form in which HFS Plus stores a name: each unit replaced by its row of the decomposition table, Hangul
// syllables by their jamo.
Name decomposed(std::u16string_view name);
Name decomposed(std::string_view utf8);

// The value that a unit has in the case-insensitive order: 0 for an ignorable unit, 0xFFFF for a NUL.
char16_t folded(char16_t unit);

// Negative, 0 or positive: the order of two names under a parent.
int compare_names(std::u16string_view a, std::u16string_view b, bool binary);

// All rows of the decomposition table, ascending: the character and its units.
const std::vector<std::pair<char16_t, Name>>& decomposition_rows();

}  // namespace kvfs_test

#endif  // KVFS_UNICODE_NAMES_H
