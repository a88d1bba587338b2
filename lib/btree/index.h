// Index records: adding, finding and replacing them when a node's first key changes.

#ifndef KVFS_BTREE_INDEX_H
#define KVFS_BTREE_INDEX_H

#include <cstdint>

#include "btree.h"
#include "btree/insert_place.h"
#include "result.h"

namespace kvfs::btree {

// Searches for an index record of a height that is there or is not, as `found` says. In a damaged tree the search ends
// elsewhere, in a leaf or in an index node of another height, whose records must not be taken for those of that height
// (X-btree-9).
kvfs_result search_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, std::uint32_t found,
                                kvfs_btree_search_result* place);

// Replaces the index record of a node that has a new first key.
kvfs_result replace_index_record(const insertion& insert);

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_INDEX_H
