// Numbers within a range, and the run of a table that a number belongs to.

#ifndef KVFS_UNICODE_RANGES_H
#define KVFS_UNICODE_RANGES_H

#include <cstddef>
#include <cstdint>

namespace kvfs::unicode {

constexpr bool in_range(std::uint32_t value, std::uint32_t first, std::uint32_t count) {
  return value >= first && value - first < count;
}

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

}  // namespace kvfs::unicode

#endif  // KVFS_UNICODE_RANGES_H
