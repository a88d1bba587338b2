// Work: what the operations on a damaged tree may cost together.

#ifndef KVFS_BTREE_WORK_H
#define KVFS_BTREE_WORK_H

#include <cstdint>

#include "btree.h"
#include "btree/private.h"
#include "ground/arithmetic.h"

namespace kvfs::btree {

// Begins an operation that is granted some work. The one before may have used up a part of the reserve.
inline void grant_work(kvfs_btree* tree, std::uint32_t work) {
  kvfs_btree_private* const priv = tree->priv;
  priv->reserve = kvfs_min(priv->reserve, priv->work_left);
  priv->work_left = priv->reserve + work;
}

// Takes account of work; false when there has been too much of it.
inline bool spend_work(kvfs_btree* tree, std::uint32_t work) {
  kvfs_btree_private* const priv = tree->priv;
  priv->work_left -= kvfs_min(priv->work_left, work);
  return priv->work_left != 0;
}

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_WORK_H
