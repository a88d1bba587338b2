// Index records: adding, finding and replacing them when a node's first key changes.

#ifndef KVFS_BTREE_INDEX_H
#define KVFS_BTREE_INDEX_H

#include <cstdint>

#include "btree.h"
#include "btree/insert_place.h"
#include "result.h"

namespace kvfs::btree {

// What an index record is searched for: to delete it, or to insert one in its place.
enum class index_search { kDeletion, kInsertion };

// Searches for an index record of a height. In a damaged tree the search ends elsewhere, in a leaf or in an index node
// of another height: there no record must be deleted and none be inserted (X-btree-9). A record that is missing, or
// that exists already, the caller judges by `place`.
kvfs_result search_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, index_search purpose,
                                kvfs_btree_search_result* place);

// Replaces the index record of a node that has a new first key.
kvfs_result replace_index_record(const insertion& insert);

}  // namespace kvfs::btree

#endif  // KVFS_BTREE_INDEX_H
