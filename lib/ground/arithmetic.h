// Small arithmetic on numbers that come from disk.

#ifndef KVFS_GROUND_ARITHMETIC_H
#define KVFS_GROUND_ARITHMETIC_H

#include <cstdint>

// The smaller and the larger of two numbers.
template <typename Number>
constexpr Number kvfs_min(Number a, Number b) {
  return b < a ? b : a;
}
template <typename Number>
constexpr Number kvfs_max(Number a, Number b) {
  return a < b ? b : a;
}

// The true quotient rounded up, without a sum that could wrap.
constexpr std::uint64_t kvfs_divide_rounding_up(std::uint64_t dividend, std::uint64_t divisor) {
  return dividend / divisor + (dividend % divisor != 0 ? 1 : 0);
}

#endif  // KVFS_GROUND_ARITHMETIC_H
