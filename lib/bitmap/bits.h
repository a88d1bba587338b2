// The bits of blocks in the allocation file.

#ifndef KVFS_BITMAP_BITS_H
#define KVFS_BITMAP_BITS_H

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "fork/mapping.h"
#include "result.h"
#include "volume_header.h"

namespace kvfs::bitmap {

using fork::mapping;

// Single bits are changed with this part of the allocation file mapped, all of it (Q-bitmap-2).
inline constexpr std::uint64_t kChunkSize = 4096;

// The mapped byte that holds the bit of a block.
inline unsigned char byte_of(const mapping& map, std::uint64_t block) {
  return map.bytes()[block / 8 - map.offset()];
}

inline kvfs_result write_byte(kvfs_fork* fork, std::uint64_t offset, unsigned char byte) {
  return kvfs_fork_write(fork, offset, &byte, sizeof(byte), nullptr);
}

// The allocation file's fork, or null with a message when the volume was opened without that file
// (X-bitmap-1).
kvfs_fork* fork_of_bits(const char* speaker, const kvfs_volume* volume);

}  // namespace kvfs::bitmap

#endif  // KVFS_BITMAP_BITS_H
