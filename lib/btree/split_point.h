// The split point: where a node is divided so that a record fits.

#ifndef KVFS_BTREE_SPLIT_POINT_H
#define KVFS_BTREE_SPLIT_POINT_H

#include "btree/insert_place.h"
#include "result.h"

namespace kvfs::btree {

kvfs_result split_for_insertion(insertion* insert);

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_SPLIT_POINT_H
