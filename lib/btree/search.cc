// Search: from the root, or a node given, down to the place of a key.
//
// From the top: kvfs_btree_search_node takes the lock, kvfs_btree_search_node_internal maps the header record, and
// search_from begins at the start node (enter_start_node) and looks at record after record (visit_records). Each is
// compared (compare_record); the search goes on behind it, or down to a child (visit_index_record, descend). Or it
// ends: in a leaf, in an index node of the height that is looked for, or behind the last record (finish_in_leaf and so
// on), where end_search_at opens the result's locator.
//
// A search ends, and soon, whatever the nodes say: see X-btree-2 for empty nodes, X-btree-3 for ways down, X-btree-4
// and X-btree-5 for keys, X-btree-17 for the searches of an operation together.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/key_sizes.h"
#include "btree/node.h"
#include "btree/private.h"
#include "btree/work.h"
#include "fork/extent.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

void kvfs_btree_search_result_init(kvfs_btree_search_result* result) {
  *result = {0, 0, nullptr};
}

void kvfs_btree_search_result_release(kvfs_btree_search_result* result) {
  if (result->locator != nullptr) {
    kvfs_btree_record_locator_close(&result->locator);
  }
  *result = {0, 0, nullptr};
}

namespace {

// Nodes of this height have the most records to pass by, and there are few of them.
constexpr std::uint8_t kHeightAboveLeaves = 2;

constexpr std::uint32_t kTrailKeySize = sizeof(HFSPlusExtentKey);

// How much a search has done, for its bounds.
struct search_cost {
  std::uint32_t descents;
  std::uint32_t key_bytes;  // of all keys that were compared
  std::uint32_t odd_keys;   // comparisons with a key of a length that the tree's keys do not have
};

// A search on its way down. What is the same for all records, or for those of a node, is found out once.
struct search_walk {
  kvfs_btree* tree;
  const void* key;
  std::uint8_t mode;
  std::uint8_t target_height;
  BTHeaderRec header;
  key_sizes sizes;              // of the tree's keys
  bool is_odd;                  // whether the search key has none of them
  std::uint32_t work_of_a_key;  // beside that for its bytes

  std::uint32_t start;  // node where the search began
  mapping map;          // of the current node
  node_view node;
  BTNodeDescriptor descriptor;
  std::uint32_t count;          // of its records
  bool has_keys;                // whether it is a leaf or an index node
  std::uint32_t index;          // of the record looked at
  std::uint32_t previous_data;  // where the data of the record kept in mind begins, in the node; 0 without one

  search_cost cost;
  bool done;
  kvfs_btree_search_result result;
};

// A record of the current node. The engine rounds nothing here: the data of an index record begins right behind its
// key, whose length is even in a sound tree (Q-btree-7).
struct node_record {
  std::uint16_t offset;
  std::uint16_t end;
  std::uint32_t data;  // 0 when the length of the key lies outside of the node
  bool key_inside;     // whether the whole key lies in the node
};

}  // namespace

static kvfs_result report_bad_record(std::uint32_t node, std::uint32_t index) {
  KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                "Invalid node data: Record %lu of node %lu lies outside of the node.\n", to_ul(index), to_ul(node));
  return kvfs_inconsistent;
}

static kvfs_result report_contradicting_key(const search_walk& walk) {
  KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                "Invalid node data: The key of record %lu of node %lu contradicts itself.\n", to_ul(walk.index),
                to_ul(walk.node.number));
  return kvfs_inconsistent;
}

static kvfs_result report_too_much_work() {
  KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Aborting search: Too much work.\n");
  return kvfs_inconsistent;
}

// Whether a node without records may be searched: the start node of a tree that has none, or the root when the only
// record of that index node is being replaced. The place of a record is over the bytes of the one deleted there
// (X-btree-2).
static bool may_be_empty(const search_walk& walk) {
  return walk.node.number == walk.start && (walk.mode != kSearchToLeaf || walk.header.leafRecords.get() == 0);
}

// Begins a node behind the records that the search key is known to order behind, as if their keys had been compared. In
// the tree that has a trail all of them have the same size, and none was odd.
static void follow_trail(search_walk* walk) {
  kvfs_btree_private* const priv = walk->tree->priv;
  kvfs_btree_trail* const trail = &priv->trail;
  if (trail->node != walk->node.bytes || walk->is_odd) {
    return;
  }
  if (kvfs::fork::see_changes(walk->tree->fork)) {
    trail->node = nullptr;
    return;
  }
  if (priv->compare(&trail->key, walk->key, walk->header.keyCompareType) > 0) {
    return;
  }
  const std::uint32_t key_bytes = trail->index * kTrailKeySize;
  const std::uint32_t work = key_bytes + trail->index * kWorkOfAKey;
  // A search that reaches a limit here has to tell at which record.
  if (walk->cost.key_bytes + key_bytes > kMaximumHeight * walk->node.size || priv->work_left <= work) {
    return;
  }
  walk->cost.key_bytes += key_bytes;
  priv->work_left -= work;
  walk->index = trail->index;
}

// Remembers how the search goes down, unless keys of another size than the tree's were met, which each search has to
// tell anew.
static void leave_trail(search_walk* walk, bool by_itself) {
  if (walk->sizes.span != 0 || walk->cost.odd_keys != 0 || walk->descriptor.height != kHeightAboveLeaves) {
    return;
  }
  walk->tree->priv->trail = {walk->node.bytes, by_itself ? walk->index : walk->index - 1,
                             *kvfs_view_as<HFSPlusExtentKey>(walk->key)};
}

// Takes up the node that was just mapped.
static kvfs_result enter_node(search_walk* walk, std::uint32_t node) {
  if (!spend_work(walk->tree, kWorkOfANode)) {
    return report_too_much_work();
  }
  walk->node = view_of(walk->tree, node, walk->map);
  walk->descriptor = descriptor_of(walk->node);
  walk->count = walk->descriptor.numRecords.get();
  walk->has_keys = walk->descriptor.kind == kBTLeafNode || walk->descriptor.kind == kBTIndexNode;
  walk->index = 0;
  walk->previous_data = 0;
  if (walk->count == 0 && !may_be_empty(*walk)) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Invalid node data: Node %lu has no records.\n", to_ul(node));
    return kvfs_inconsistent;
  }
  follow_trail(walk);
  return kvfs_ok;
}

static kvfs_result enter_start_node(search_walk* walk, std::uint32_t start) {
  const std::uint32_t total_nodes = walk->header.totalNodes.get();
  // A start node equal to the number of nodes passes here: Q-btree-5.
  if (start > total_nodes) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Starting Node %lu > Total Nodes %lu\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal), to_ul(start), to_ul(total_nodes));
    return kvfs_invalid;
  }
  walk->start = start;
  const kvfs_result result = map_node(walk->tree, start, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while mapping raw node data.\n");
    return result;
  }
  std::uint16_t first = 0;
  if (!read_offset(view_of(walk->tree, start, walk->map), 0, &first)) {
    return report_bad_record(start, 0);
  }
  if (first != kBTFirstRecordOffset) {  // asked here alone: Q-btree-6
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal), to_ul(start), first,
                  std::size_t{kBTFirstRecordOffset});
    return kvfs_inconsistent;
  }
  return enter_node(walk, start);
}

static kvfs_result read_record(const search_walk* walk, std::uint32_t index, node_record* record) {
  const node_view& node = walk->node;
  if (kOffsetEntrySize * (index + 2) > node.size) {
    return report_bad_record(node.number, index);
  }
  const kvfs_be16* const entries = kvfs_view_as<kvfs_be16>(node.bytes + offset_entry_position(node.size, index + 1));
  record->end = entries[0].get();
  record->offset = entries[1].get();
  record->key_inside = read_key_end(node, record->offset, &record->data);
  return kvfs_ok;
}

// Ends the search at a record, or behind the last one: opens the result's locator on its bytes (X-btree-18), and notes
// in it the height of the index node, or that the place has no record of its own.
static kvfs_result end_search_at(search_walk* walk, const node_record& record, std::uint32_t index) {
  walk->done = true;
  if (record.end > walk->node.size) {
    return report_bad_record(walk->node.number, index);
  }
  if (record.end < record.offset) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Invalid node data: Record %lu of node %lu ends before it begins.\n",
                  to_ul(index), to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  const std::uint32_t node = walk->node.number;
  const kvfs_result result = kvfs_btree_record_locator_open(
      walk->tree, node, static_cast<std::uint16_t>(index), walk->node.bytes + record.offset, record.end - record.offset,
      fork_position(walk->tree, node, record.offset), &walk->result.locator);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_btree_record_locator_private* const place = walk->result.locator->priv;
  place->index_height = walk->descriptor.kind == kBTIndexNode ? walk->descriptor.height : std::uint8_t{0};
  if (index >= walk->count && place->reference_count == 1) {
    place->is_vacant = 1;
  }
  return kvfs_ok;
}

// A node of another kind, or one above the height that is looked for, was walked to its end, or has no records.
static kvfs_result finish_behind_last_record(search_walk* walk) {
  node_record last = {};
  const kvfs_result result = read_record(walk, walk->index == 0 ? 0 : walk->index - 1, &last);
  return result == kvfs_ok ? end_search_at(walk, last, walk->index) : result;
}

static kvfs_result finish_in_leaf(search_walk* walk, const node_record& record, int order) {
  walk->result.found = order == 0 ? 1 : 0;
  walk->result.after = order < 0 ? 1 : 0;
  const kvfs_result result = end_search_at(walk, record, walk->index);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Not enough memory\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal));  // or else: Q-btree-25
  }
  return result;
}

// Stops in an index node of the target height, at the place where a record with the search key belongs.
static kvfs_result finish_in_index_node(search_walk* walk, const node_record& record, int order) {
  walk->result.found = order == 0 ? 1 : 0;
  const kvfs_result result = end_search_at(walk, record, order < 0 ? walk->index + 1 : walk->index);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while creating kvfs_btree_record_locator.\n");
  }
  return result;
}

// Goes down to a child. A search of a sound tree goes down fewer times than the tree has nodes, and than heights exist.
static kvfs_result descend(search_walk* walk, std::uint32_t child) {
  if (++walk->cost.descents == kvfs_min(walk->header.totalNodes.get(), kMaximumHeight)) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Aborting search due to cyclic references in the B-tree.\n");
    return kvfs_inconsistent;
  }
  if (child == walk->start) {  // Q-btree-26: the node that led here stays mapped, and leads to itself now
    walk->node.number = child;
    walk->index = 0;
    return kvfs_ok;
  }
  const std::uint64_t position = walk->map.offset();
  kvfs_result result = walk->map.unmap();
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while unmapping raw node data of node at offset %llu.\n",
                  to_ull(position));
    return result;
  }
  result = map_node(walk->tree, child, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while mapping raw node data of node %lu.\n", to_ul(child));
    return result;
  }
  return enter_node(walk, child);
}

// Reads the child that an index record leads to.
static kvfs_result read_child(const search_walk* walk, std::uint32_t data, std::uint32_t* child) {
  if (data + sizeof(kvfs_be32) > walk->node.size) {
    return report_bad_record(walk->node.number, walk->index);
  }
  *child = kvfs_view_as<kvfs_be32>(walk->node.bytes + data)->get();
  if (*child == walk->node.number) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Index node points back to itself. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  if (*child >= walk->header.totalNodes.get()) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                  "Index node points to node after the last node. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result visit_index_record(search_walk* walk, const node_record& record, int order) {
  // A key before the first one of the node still goes down through record 0.
  const bool by_itself = walk->index == 0 || order <= 0 || walk->previous_data == 0;
  const std::uint32_t data = by_itself ? record.data : walk->previous_data;
  std::uint32_t child = 0;
  const kvfs_result result = read_child(walk, data, &child);
  if (result != kvfs_ok) {
    return result;
  }
  if (walk->mode != kSearchToLeaf && walk->target_height == walk->descriptor.height) {
    return finish_in_index_node(walk, record, order);
  }
  if (walk->mode != kSearchToLeaf && walk->target_height > walk->descriptor.height) {
    ++walk->index;  // the child kept in mind stays the one before the search key
    return kvfs_ok;
  }
  leave_trail(walk, by_itself);
  return descend(walk, child);
}

// Whether the comparison logs a message for each key, since the catalog's header names an order that does not exist.
static bool is_illegal_comparison(const search_walk& walk) {
  const std::uint8_t order = walk.header.keyCompareType;
  return walk.tree->priv->tree_kind == kHFSCatalogFileID && order != kHFSBinaryCompare && order != kHFSCaseFolding;
}

// Takes account of a key that is going to be compared. False ends a search that would go on for very long: one that
// meets more keys than a node of each height can hold, or fills the log with keys of a wrong length, of which no more
// than that is read, or has no work left.
static bool count_key(search_walk* walk, std::uint32_t size, bool odd) {
  const std::uint32_t bytes = odd ? sizeof(kvfs_be16) : size;
  walk->cost.key_bytes += bytes;
  walk->cost.odd_keys += odd ? 1 : 0;
  return walk->cost.key_bytes <= kMaximumHeight * walk->node.size && walk->cost.odd_keys <= kMaximumOddKeys &&
         spend_work(walk->tree, bytes + (odd ? kWorkOfAMessage : walk->work_of_a_key));
}

// Says why a key was not counted.
static kvfs_result report_limit(const search_walk& walk) {
  if (walk.cost.key_bytes <= kMaximumHeight * walk.node.size && walk.cost.odd_keys <= kMaximumOddKeys) {
    return report_too_much_work();
  }
  KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                "Invalid node data: Too many or wrong keys up to record %lu of node %lu.\n", to_ul(walk.index),
                to_ul(walk.node.number));
  return kvfs_inconsistent;
}

static int compare_with_search_key(const search_walk& walk, const void* key) {
  return walk.tree->priv->compare(key, walk.key, walk.header.keyCompareType);
}

// Compares a key that leaves its node as one that ends with the node (X-btree-1). What is there may decide the order if
// it has the parent of a catalog key; the keys of the other trees are needed as a whole.
static kvfs_result compare_cut_record(search_walk* walk, const node_record& record, int* order) {
  const std::uint32_t room = walk->node.size - record.offset;
  if (walk->tree->priv->tree_kind != kHFSCatalogFileID ||
      record.offset + kHFSPlusCatalogKeyParentEnd > walk->node.size) {
    return report_bad_record(walk->node.number, walk->index);
  }
  if (!count_key(walk, room, walk->is_odd)) {
    return report_limit(*walk);
  }
  HFSPlusCatalogKey key;
  const std::size_t size = kvfs_min<std::size_t>(room, sizeof(key));
  key.nodeName.length.set(UINT16_MAX);  // if the node ends before it, nothing is known of the name
  std::memcpy(&key, walk->node.bytes + record.offset, size);
  key.keyLength.set(
      static_cast<std::uint16_t>(kvfs_max<std::size_t>(size - sizeof(key.keyLength), kHFSPlusCatalogKeyMinimumLength)));
  *order = compare_with_search_key(*walk, &key);
  // A unit behind the node would be needed.
  return *order == kvfs_key_malformed ? report_bad_record(walk->node.number, walk->index) : kvfs_ok;
}

// Compares a record's key with the search key. In a node that has no keys the outcome does not matter, so that bytes
// that look like a key but leave the node are passed over there. The records of the header node, where the search in an
// empty tree begins, are compared nevertheless (Q-btree-8): it is the first node of its cache item, and whatever its
// map reads as ends in there.
static kvfs_result compare_record(search_walk* walk, const node_record& record, int* order) {
  const std::uint32_t size = record.data - record.offset;  // of the key, with its length; if that can be read
  const bool odd_node_key = record.data != 0 && is_odd_key(walk->sizes, size);
  if (walk->has_keys && !record.key_inside && !odd_node_key) {
    return compare_cut_record(walk, record, order);
  }
  const bool odd = odd_node_key || (record.data != 0 && walk->is_odd);
  if (walk->has_keys || odd || record.key_inside) {
    if (!count_key(walk, size, odd)) {
      return report_limit(*walk);
    }
  } else if (walk->node.number != 0) {
    return kvfs_ok;
  }
  *order = compare_with_search_key(*walk, walk->node.bytes + record.offset);
  if (*order == kvfs_key_malformed && walk->has_keys) {
    return report_contradicting_key(*walk);
  }
  if (*order == kvfs_key_malformed) {
    (void)spend_work(walk->tree, kWorkOfAMessage);  // the next key ends the search when that was too much
  }
  return kvfs_ok;
}

// Looks at the records of the current node, one after the other, until one leads down to a child or to the end of the
// search.
static kvfs_result visit_records(search_walk* walk) {
  for (; walk->index < walk->count; ++walk->index) {
    node_record record = {};
    kvfs_result result = read_record(walk, walk->index, &record);
    if (result != kvfs_ok) {
      return result;
    }
    int order = 0;
    result = compare_record(walk, record, &order);
    if (result != kvfs_ok) {
      return result;
    }
    if (walk->has_keys && (order >= 0 || walk->index + 1 == walk->count)) {
      return walk->descriptor.kind == kBTLeafNode ? finish_in_leaf(walk, record, order)
                                                  : visit_index_record(walk, record, order);
    }
    walk->previous_data = record.data;
  }
  return finish_behind_last_record(walk);
}

// Searches with the header record in `walk`; the node looked at last stays mapped for the caller.
static kvfs_result search_from(search_walk* walk, std::uint32_t start_node) {
  kvfs_result result = enter_start_node(walk, start_node != 0 ? start_node : walk->header.rootNode.get());
  while (result == kvfs_ok && !walk->done) {
    result = visit_records(walk);
  }
  return result;
}

kvfs_result kvfs_btree_search_node_internal(kvfs_btree* tree, const void* key, std::uint32_t start_node,
                                            std::uint8_t mode, std::uint8_t target_height,
                                            kvfs_btree_search_result* out_result) {
  if (key == nullptr) {
    KVFS_ERROR("HFSPlus:%s: Invalid Search key\n", __func__);
    return kvfs_invalid;
  }
  mapping header;
  kvfs_result result = map_header_record(tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping B-tree header record.\n");
    return result;
  }
  search_walk walk = {};
  walk.tree = tree;
  walk.key = key;
  walk.mode = mode;
  walk.target_height = target_height;
  walk.header = *kvfs_view_as<BTHeaderRec>(header.bytes());
  walk.sizes = key_sizes_of(tree->priv->tree_kind);
  walk.is_odd = is_odd_key(walk.sizes, sizeof(kvfs_be16) + kvfs_view_as<kvfs_be16>(key)->get());
  walk.work_of_a_key = is_illegal_comparison(walk) ? kWorkOfAMessage : kWorkOfAKey;
  result = search_from(&walk, start_node);
  const kvfs_result node_unmapped = walk.map.unmap();
  if (node_unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping raw node data.\n");
  }
  const kvfs_result header_unmapped = header.unmap();
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping B-tree header record.\n");
  }
  result = kvfs_result_keep(kvfs_result_keep(result, node_unmapped), header_unmapped);
  if (result == kvfs_ok) {
    *out_result = walk.result;
  } else if (walk.result.locator != nullptr) {
    kvfs_btree_record_locator_release(&walk.result.locator, false);
  }
  return result;
}

kvfs_result kvfs_btree_search_node(kvfs_btree* tree, const void* key, kvfs_btree_search_result* out_result) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while acquiring open locators list lock in write mode.\n", error,
                         "Error while releasing open locators list read-mode lock.\n");  // for writing: Q-btree-25
  kvfs_btree_search_result found = {};
  const kvfs_result result = kvfs_with_write_lock(tree->priv->open_locators_lock, messages, [&] {
    grant_work(tree, kWorkOfASearch);
    return kvfs_btree_search_node_internal(tree, key, 0, kSearchToLeaf, 0, &found);
  });
  if (result == kvfs_ok) {
    *out_result = found;
  } else if (found.locator != nullptr) {
    kvfs_btree_record_locator_release(&found.locator, false);  // X-lock-1: the caller will not see it
  }
  return result;
}
