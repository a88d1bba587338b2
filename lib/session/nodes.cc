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

static kvfs_result find_index_record(kvfs_btree* tree, const unsigned char* key, std::uint8_t height,
                                     index_record* record) {
  const kvfs_result result = kvfs_with_write_lock(tree->priv->open_locators_lock, [=] {
    grant_work(tree, kWorkOfASearch);
    return search_index_record(tree, key, height, index_search::kDeletion, &record->result);
  });
  if (result == kvfs_ok && record->result.found == 0) {
    KVFS_ERROR_AS(kvfs_session_check_index, "No index record of height %lu is found by its key.\n", to_ul(height));
    return kvfs_limit;
  }
  return result;
}

// Whether the first record of an index node below the root can be replaced: there must be a second one, which is the
// first for a moment and is searched for then.
static kvfs_result check_second(kvfs_btree* tree, const kvfs_btree_record_locator* first, std::uint8_t height) {
  std::uint16_t records = 0;
  kvfs_result result = kvfs_session_records_in_node(tree, *first->node, &records);
  if (result == kvfs_ok && records <= 1) {
    KVFS_ERROR_AS(kvfs_session_check_index, "Index node %lu has no second record.\n", to_ul(*first->node));
    return kvfs_limit;
  }
  index_record second;
  if (result == kvfs_ok) {
    result = kvfs_btree_get_next_record(tree, first, &second.result.locator);
  }
  index_record found;
  return result == kvfs_ok ? find_index_record(tree, second.locator()->key, height, &found) : result;
}

kvfs_result kvfs_session_check_index(kvfs_btree* tree, const kvfs_btree_record_locator* record) {
  BTHeaderRec header = {};
  kvfs_result result = read_header_record(tree, &header);
  const std::uint32_t root = header.rootNode.get();
  bool is_first = *record->index == 0 && *record->node != root;
  for (std::uint8_t height = 2; result == kvfs_ok && is_first && height <= kMaximumMaintainedDepth; ++height) {
    index_record above;
    result = find_index_record(tree, record->key, height, &above);
    is_first = result == kvfs_ok && *above.locator()->index == 0 && *above.locator()->node != root;
    if (is_first) {
      result = check_second(tree, above.locator(), height);
    }
  }
  return result;
}
