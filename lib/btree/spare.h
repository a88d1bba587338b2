// Memory that a tree keeps for later: changes take one node after another and open one locator after another, and some
// C libraries map and unmap memory for each block of that size.

#ifndef KVFS_BTREE_SPARE_H
#define KVFS_BTREE_SPARE_H

#include <cstddef>

struct kvfs_btree;

namespace kvfs::btree {

// Blocks of one size, which has room for an address at least. `*spare` is the first of a list that owns them, or null;
// each begins with the address of the next one. The caller holds the tree's lock for writing, or is alone with it.

// Takes a block from the list, or allocates one of `size` bytes, those of all blocks of the list. Its bytes are
// anything; the caller owns it, and keeps or frees it. Returns null when memory is short.
void* take_block(void** spare, std::size_t size);

// Puts a block of `size` bytes on the list, which owns it from then on.
void keep_block(void** spare, void* block, std::size_t size);

// Frees all that are on the list.
void free_blocks(void** spare);

}  // namespace kvfs::btree

// Puts the memory of a locator, `size` bytes as those of all on the list, on that of its tree. The caller holds the
// tree's lock for writing.
void kvfs_btree_keep_locator(kvfs_btree* tree, void* memory, std::size_t size);

#endif  // KVFS_BTREE_SPARE_H
