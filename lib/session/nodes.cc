// What the nodes of a tree need so that a record can leave: a change that fails half-way spoils the session.

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/index.h"
#include "btree/node_buffer.h"
#include "btree/private.h"
#include "btree/work.h"
#include "session/private.h"

using namespace kvfs::btree;

kvfs_result kvfs_session_records_in_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t* count) {
  BTNodeDescriptor descriptor = {};
  const kvfs_result result = read_descriptor(tree, node, &descriptor);
  *count = descriptor.numRecords.get();
  return result;
}

namespace {

// An index record, released at the end of the scope.
struct index_record {
  kvfs_btree_search_result result = {};

  index_record() = default;
  index_record(const index_record&) = delete;
  index_record& operator=(const index_record&) = delete;
  ~index_record() { kvfs_btree_search_result_release(&result); }

  const kvfs_btree_record_locator* locator() const { return result.locator; }
};

}  // namespace

// Searches for the index record that leads to a leaf by its first key, or for the node where it would be.
static kvfs_result search_index(kvfs_btree* tree, const unsigned char* key, std::uint8_t height, index_record* record) {
  const kvfs_result result = kvfs_with_write_lock(tree->priv->open_locators_lock, [=] {
    grant_work(tree, kWorkOfASearch);
    return kvfs_session_blame_volume(search_index_record(tree, key, height, index_search::kDeletion, &record->result));
  });
  if (result != kvfs_ok && record->result.locator != nullptr) {
    kvfs_btree_record_locator_release(&record->result.locator, false);  // X-lock-1
    record->result.locator = nullptr;                                   // also while others hold it
  }
  return result;
}

static kvfs_result find_index_record(kvfs_btree* tree, const unsigned char* key, std::uint8_t height,
                                     index_record* record) {
  const kvfs_result result = search_index(tree, key, height, record);
  if (result == kvfs_ok && record->result.found == 0) {
    KVFS_ERROR_AS(kvfs_session_check_index, "No index record of height %lu is found by its key.\n", to_ul(height));
    return kvfs_limit;
  }
  return result;
}

// How many index records leave a node from its front: the first one, and with it the second one when that leads to the
// leaf of which the other record is the first.
static kvfs_result count_leaving(kvfs_btree* tree, std::uint32_t node, std::uint8_t height,
                                 const kvfs_btree_record_locator* other, std::uint32_t* leaving) {
  *leaving = 1;
  if (other == nullptr || *other->index != 0) {
    return kvfs_ok;
  }
  index_record beside;
  const kvfs_result result = search_index(tree, other->key, height, &beside);
  const bool is_second =
      result == kvfs_ok && beside.result.found != 0 && *beside.locator()->node == node && *beside.locator()->index == 1;
  *leaving += is_second ? 1 : 0;
  return result;
}

// Whether an index node keeps records without as many as may leave it.
static kvfs_result check_count(kvfs_btree* tree, std::uint32_t node, std::uint32_t leaving) {
  std::uint16_t records = 0;
  const kvfs_result result = kvfs_session_records_in_node(tree, node, &records);
  if (result == kvfs_ok && records <= leaving) {
    KVFS_ERROR_AS(kvfs_session_check_index, "Index node %lu of %lu records would have none for a moment.\n",
                  to_ul(node), to_ul(records));
    return kvfs_limit;
  }
  return result;
}

// Whether the record behind another one is found by its key.
static kvfs_result check_next(kvfs_btree* tree, const kvfs_btree_record_locator* record, std::uint8_t height) {
  index_record next;
  const kvfs_result result = kvfs_session_blame_volume(kvfs_btree_get_next_record(tree, record, &next.result.locator));
  index_record found;
  return result == kvfs_ok ? find_index_record(tree, next.locator()->key, height, &found) : result;
}

// Looks at the index record of a height that leads to a leaf by its first key.
//
//   comes_back  whether the leaf is the tree's first one
//   is_first    receives whether the record is the first of its node
static kvfs_result check_level(kvfs_btree* tree, const unsigned char* key, std::uint8_t height,
                               const kvfs_btree_record_locator* other, bool comes_back, bool* is_first) {
  index_record above;
  kvfs_result result = find_index_record(tree, key, height, &above);
  *is_first = result == kvfs_ok && *above.locator()->index == 0;
  if (!*is_first) {
    return result;
  }
  std::uint32_t leaving = 0;
  result = count_leaving(tree, *above.locator()->node, height, other, &leaving);
  if (result == kvfs_ok) {
    result = check_count(tree, *above.locator()->node, leaving);
  }
  return result == kvfs_ok && comes_back ? check_next(tree, above.locator(), height) : result;
}

// When the index record of a leaf is inserted anew, it belongs into the node of the one before it. So the node above
// loses one for each leaf that is the first below it when its first record leaves, and the level above likewise. In the
// first nodes of the tree there is none before it: the new one comes back to the front, and the next one, which is the
// first for a moment, is searched for.
kvfs_result kvfs_session_check_index(kvfs_btree* tree, const kvfs_btree_record_locator* record,
                                     const kvfs_btree_record_locator* other) {
  BTHeaderRec header = {};
  kvfs_result result = read_header_record(tree, &header);
  if (result != kvfs_ok || *record->index != 0) {
    return result;
  }
  BTNodeDescriptor leaf = {};
  result = read_descriptor(tree, *record->node, &leaf);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint16_t depth = header.treeDepth.get();
  result = check_levels_above(KVFS_NAME_OF(kvfs_session_check_index), leaf, depth);
  const bool comes_back = *record->node == header.firstLeafNode.get();
  bool is_first = true;
  for (std::uint8_t height = kBTLeafHeight + 1; result == kvfs_ok && is_first && height < depth; ++height) {
    result = check_level(tree, record->key, height, other, comes_back, &is_first);
  }
  return result;
}
