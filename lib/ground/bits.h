// The bits of blocks and nodes in the bitmaps on disk.

#ifndef KVFS_GROUND_BITS_H
#define KVFS_GROUND_BITS_H

#include <cstdint>

// The bit of a block or node in its byte, which is number / 8: the most significant bit comes first.
constexpr unsigned char kvfs_disk_bit(std::uint64_t number) {
  return static_cast<unsigned char>(0x80U >> (number % 8));
}

#endif  // KVFS_GROUND_BITS_H
