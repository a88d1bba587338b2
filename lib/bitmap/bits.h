// The bits of blocks, and mapped ranges of the allocation file.

#ifndef KVFS_BITMAP_BITS_H
#define KVFS_BITMAP_BITS_H

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "result.h"
#include "volume_header.h"

namespace kvfs::bitmap {

constexpr unsigned char block_bit(std::uint64_t block) {
  return static_cast<unsigned char>(0x80U >> (block % 8));
}

// Single bits are changed with this part of the allocation file mapped, all of it (Q-bitmap-2).
inline constexpr std::uint64_t kChunkSize = 4096;

// A mapped range of the allocation file.
struct bitmap_mapping {
  std::uint64_t offset;  // bytes
  std::size_t length;
  void* bytes;
};

inline kvfs_result map_bytes(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length, bitmap_mapping* map) {
  *map = {offset, static_cast<std::size_t>(length), nullptr};
  return kvfs_fork_map(fork, map->offset, &map->bytes, map->length, nullptr);
}

inline kvfs_result unmap_bytes(kvfs_fork* fork, bitmap_mapping* map) {
  return map->bytes == nullptr ? kvfs_ok : kvfs_fork_unmap(fork, map->offset, &map->bytes, map->length);
}

// The mapped byte that holds the bit of a block.
inline unsigned char byte_of(const bitmap_mapping& map, std::uint64_t block) {
  return static_cast<const unsigned char*>(map.bytes)[block / 8 - map.offset];
}

inline kvfs_result write_byte(kvfs_fork* fork, std::uint64_t offset, unsigned char byte) {
  return kvfs_fork_write(fork, offset, &byte, sizeof(byte), nullptr);
}

// The allocation file's fork, or null with a message when the volume was opened without that file
// (X-bitmap-1).
kvfs_fork* fork_of_bits(const char* speaker, const kvfs_volume* volume);

}  // namespace kvfs::bitmap

#endif  // KVFS_BITMAP_BITS_H
