// Big-endian numbers in bytes.

#ifndef KVFS_BIG_ENDIAN_H
#define KVFS_BIG_ENDIAN_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kvfs_test {

// Big-endian values of 1 to 8 bytes.
inline std::uint64_t get_be(const std::uint8_t* bytes, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

inline void put_be(std::uint8_t* bytes, std::size_t width, std::uint64_t value) {
  for (std::size_t i = width; i > 0; --i) {
    bytes[i - 1] = static_cast<std::uint8_t>(value);
    value >>= 8;
  }
}

// The same at a position of a vector; vector::at refuses what lies outside.
inline std::uint64_t get_be(const std::vector<std::uint8_t>& bytes, std::size_t at, std::size_t width) {
  (void)bytes.at(at + width - 1);
  return get_be(bytes.data() + at, width);
}

inline std::uint16_t get_be16(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  return static_cast<std::uint16_t>(get_be(bytes, at, 2));
}

inline std::uint32_t get_be32(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(get_be(bytes, at, 4));
}

inline void put_be(std::vector<std::uint8_t>& bytes, std::size_t at, std::size_t width, std::uint64_t value) {
  (void)bytes.at(at + width - 1);
  put_be(bytes.data() + at, width, value);
}

inline void put_units(std::vector<std::uint8_t>& bytes, std::size_t at, std::u16string_view units) {
  for (std::size_t i = 0; i < units.size(); ++i) {
    put_be(bytes, at + 2 * i, 2, units[i]);
  }
}

}  // namespace kvfs_test

#endif  // KVFS_BIG_ENDIAN_H
