// Access to cached bytes: map, unmap and read.

#ifndef KVFS_FORK_ACCESS_H
#define KVFS_FORK_ACCESS_H

#include <cstdint>

#include "fork.h"
#include "fork/private.h"
#include "result.h"

namespace kvfs::fork {

// The items that hold the first and the last byte of a range.
struct item_range {
  std::uint64_t first;
  std::uint64_t last;
};

inline item_range items_of(const kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  return {offset / fork->priv->item_size, (offset + length - 1) / fork->priv->item_size};
}

kvfs_result check_item_numbers(const char* speaker, const kvfs_fork* fork, item_range items);

// The item in a slot, or null where there is none.
inline kvfs_fork_cache_item* item_at(const kvfs_fork* fork, std::uint64_t index) {
  return index < fork->priv->items_length ? fork->priv->items[index] : nullptr;
}

}  // namespace kvfs::fork

#endif  // KVFS_FORK_ACCESS_H
