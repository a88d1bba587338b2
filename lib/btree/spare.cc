// Memory that a tree keeps for later.

#include "btree/spare.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "btree.h"
#include "btree/private.h"

// An address sanitizer is told that nobody may use what is kept, as if it were free. Compilers differ in how they say
// that there is one.
#if defined(__has_feature)
#define KVFS_HAS_ADDRESS_SANITIZER __has_feature(address_sanitizer)
#elif defined(__SANITIZE_ADDRESS__)
#define KVFS_HAS_ADDRESS_SANITIZER 1
#else
#define KVFS_HAS_ADDRESS_SANITIZER 0
#endif

#if KVFS_HAS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>

static void forbid_use(void* memory, std::size_t size) {
  __asan_poison_memory_region(memory, size);
}

static void permit_use(void* memory, std::size_t size) {
  __asan_unpoison_memory_region(memory, size);
}
#else
static void forbid_use(void* /*memory*/, std::size_t /*size*/) {}

static void permit_use(void* /*memory*/, std::size_t /*size*/) {}
#endif

void* kvfs::btree::take_block(void** spare, std::size_t size) {
  void* const block = *spare;
  if (block == nullptr) {
    return std::malloc(size);
  }
  std::memcpy(spare, block, sizeof(block));
  permit_use(block, size);
  return block;
}

void kvfs::btree::keep_block(void** spare, void* block, std::size_t size) {
  std::memcpy(block, spare, sizeof(block));
  forbid_use(static_cast<unsigned char*>(block) + sizeof(block), size - sizeof(block));
  *spare = block;
}

void kvfs::btree::free_blocks(void** spare) {
  while (*spare != nullptr) {
    std::free(take_block(spare, 0));
  }
}

void kvfs_btree_keep_locator(kvfs_btree* tree, void* memory, std::size_t size) {
  kvfs::btree::keep_block(&tree->priv->spare_locators, memory, size);
}
