// Map nodes, which hold the bits of nodes for which the header node has no room: for claiming a free node, and for
// growing a tree.

#ifndef KVFS_BTREE_CLAIM_H
#define KVFS_BTREE_CLAIM_H

#include <cstdint>

#include "btree/node.h"

namespace kvfs::btree {

// A map node has a single record, which may fill it up to the two entries of its offset table.
inline constexpr std::uint16_t kMapNodeRecords = 1;

inline constexpr std::uint32_t kMapNodeTableSize = 2 * kOffsetEntrySize;

// Unmapping a map node is tried again until it succeeds, but not for ever (X-btree-14).
inline constexpr int kCleanUpTries = 64;

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_CLAIM_H
