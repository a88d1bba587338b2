// Closing a tree, and the names of the trees.

#include <cstdint>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/private.h"
#include "btree/spare.h"
#include "fork.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

const char* kvfs_btree_type_name(std::uint32_t tree_kind) {
  switch (tree_kind) {
    case kHFSCatalogFileID:
      return "catalog";
    case kHFSExtentsFileID:
      return "extents overflow";
    case kHFSAttributesFileID:
      return "attributes";
    default:
      return "unknown";
  }
}

// Frees every locator that is still open, whatever references it has.
static void release_leaked_locators(kvfs_btree_private* priv) {
  std::uint64_t released = 0;
  while (priv->open_locators != nullptr) {
    kvfs_btree_record_locator* leaked = priv->open_locators;
    const std::uintptr_t head = reinterpret_cast<std::uintptr_t>(leaked);
    kvfs_btree_record_locator_release(&leaked, true);
    ++released;
    if (reinterpret_cast<std::uintptr_t>(priv->open_locators) == head) {
      KVFS_CRITICAL_AS(kvfs_btree_destroy,
                       "Internal error: Closing head of B-tree open locators list did not change the head!\n");
      break;
    }
  }
  if (released != 0) {
    KVFS_WARNING_AS(kvfs_btree_destroy, "Cleaned up %llu leaked B-tree record locators on destroy.\n",
                    to_ull(released));
  }
}

void kvfs_btree_destroy(kvfs_btree** tree) {
  kvfs_btree_private* const priv = (*tree)->priv;
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES(
      "Error while acquiring open locators list lock! Leaking open locators on kvfs_btree destruction...\n", error,
      "Error while unlocking B-tree open locators list lock.\n");
  (void)kvfs_with_write_lock(priv->open_locators_lock, messages, [&] {
    release_leaked_locators(priv);
    return kvfs_ok;
  });
  if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
    KVFS_ERROR("Error while destroying B-tree open locators list lock. Leaking...\n");
  }
  kvfs_fork_destroy(&(*tree)->fork);
  kvfs::btree::free_blocks(&priv->spare_nodes);
  kvfs::btree::free_blocks(&priv->spare_locators);
  kvfs_zero_and_free(priv);
  kvfs_zero_and_free(*tree);
  *tree = nullptr;
}
