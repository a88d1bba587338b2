// Memory that a tree keeps for later.

#include "btree/spare.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "btree.h"
#include "btree/private.h"

void* kvfs::btree::take_block(void** spare, std::size_t size) {
  void* const block = *spare;
  if (block == nullptr) {
    return std::malloc(size);
  }
  std::memcpy(spare, block, sizeof(block));
  return block;
}

void kvfs::btree::keep_block(void** spare, void* block) {
  std::memcpy(block, spare, sizeof(block));
  *spare = block;
}

void kvfs::btree::free_blocks(void** spare) {
  while (*spare != nullptr) {
    std::free(take_block(spare, 0));
  }
}

void kvfs_btree_keep_locator(kvfs_btree* tree, void* memory) {
  kvfs::btree::keep_block(&tree->priv->spare_locators, memory);
}
