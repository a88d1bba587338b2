// The split point: where a node is divided so that a record fits.

#ifndef KVFS_BTREE_SPLIT_POINT_H
#define KVFS_BTREE_SPLIT_POINT_H

#include <cstdint>

#include "btree/insert_place.h"
#include "result.h"

namespace kvfs::btree {

// Chooses the record before which a full node is split, so that both halves, with the new record counted in, differ
// least in size. The node's offsets must be in order. It may also come behind the last record: nothing moves then.
//
// Returns kvfs_ok; kvfs_inconsistent where they are not; or kvfs_internal when no split leaves halves that fit.
kvfs_result choose_split_point(const insertion& insert, std::uint16_t* split_index);

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_SPLIT_POINT_H
