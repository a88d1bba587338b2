// The sizes of the keys of each kind of tree.

#ifndef KVFS_BTREE_KEY_SIZES_H
#define KVFS_BTREE_KEY_SIZES_H

#include <cstdint>

#include "format.h"

namespace kvfs::btree {

// The sizes that the keys of a tree have, their length field included.
struct key_sizes {
  std::uint32_t least;
  std::uint32_t span;  // from the least to the largest
};

// Those of a kind of tree, which is the catalog node ID of its file.
inline key_sizes key_sizes_of(std::uint32_t tree_kind) {
  if (tree_kind == kHFSExtentsFileID) {
    return {sizeof(HFSPlusExtentKey), 0};
  }
  const std::uint32_t least = tree_kind == kHFSCatalogFileID ? kHFSPlusCatalogKeyMinimumLength + sizeof(kvfs_be16) : 0;
  return {least, UINT16_MAX + sizeof(kvfs_be16)};
}

// Whether a key has a size that no key of the tree has. The comparison says so and looks at the length alone.
inline bool is_odd_key(key_sizes sizes, std::uint32_t size) {
  return size - sizes.least > sizes.span;
}

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_KEY_SIZES_H
