// The units of which two stand for one character.

#ifndef KVFS_UNICODE_SURROGATES_H
#define KVFS_UNICODE_SURROGATES_H

#include <cstdint>

#include "unicode/ranges.h"

namespace kvfs::unicode {

inline constexpr std::uint32_t kHighSurrogate = 0xD800;  // the first of those that come first in a pair
inline constexpr std::uint32_t kLowSurrogate = 0xDC00;
inline constexpr std::uint32_t kSurrogatesOfAKind = 0x400;

constexpr bool is_high_surrogate(std::uint32_t unit) {
  return in_range(unit, kHighSurrogate, kSurrogatesOfAKind);
}

constexpr bool is_low_surrogate(std::uint32_t unit) {
  return in_range(unit, kLowSurrogate, kSurrogatesOfAKind);
}

}  // namespace kvfs::unicode

#endif  // KVFS_UNICODE_SURROGATES_H
