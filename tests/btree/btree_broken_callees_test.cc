// What a change of a tree does when a routine of the engine that it relies on breaks its contract.

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "btree_change_fixture.h"
#include "replaced_routine.h"
#include "support.h"

namespace {

// How the routines break their contracts; the library's own do the work of those that do not.
struct Breaches {
  std::optional<std::uint32_t> found;  // a search succeeds without a locator, and says so much of the key
  kvfs_result search = kvfs_ok;        // a search fails
  bool hides_locator = false;          // an insertion succeeds without a locator
  bool makes_no_record = false;
  std::function<std::uint32_t()> split = nullptr;  // succeeds with the node that this returns
};

Breaches g_breaches;

}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_btree_search_node_internal, real_search, wrapped_search);
kvfs_result wrapped_search(kvfs_btree* tree, const void* key, std::uint32_t start_node, std::uint8_t mode,
                           std::uint8_t target_height, kvfs_btree_search_result* out_result) {
  if (g_breaches.found) {
    *out_result = {*g_breaches.found, 0, nullptr};
    return kvfs_ok;
  }
  if (g_breaches.search != kvfs_ok) {
    return g_breaches.search;
  }
  return real_search(tree, key, start_node, mode, target_height, out_result);
}

KVFS_REPLACED_ROUTINE(kvfs_btree_insert_record_internal, real_insert, wrapped_insert);
kvfs_result wrapped_insert(kvfs_btree* tree, const void* key, const void* data, std::uint16_t data_size,
                           const kvfs_btree_search_result* hint, kvfs_btree_record_locator** out_locator) {
  return g_breaches.hides_locator ? kvfs_ok : real_insert(tree, key, data, data_size, hint, out_locator);
}

KVFS_REPLACED_ROUTINE(kvfs_btree_node_make_record, real_make_record, wrapped_make_record);
kvfs_result wrapped_make_record(const void* key, std::uint16_t key_length, const void* data, std::uint16_t data_size,
                                unsigned char* destination, std::uint16_t record_size) {
  return g_breaches.makes_no_record ? kvfs_internal
                                    : real_make_record(key, key_length, data, data_size, destination, record_size);
}

KVFS_REPLACED_ROUTINE(kvfs_btree_split_node, real_split, wrapped_split);
kvfs_result wrapped_split(kvfs_btree* tree, std::uint32_t node, std::uint16_t split_index,
                          std::uint32_t* out_new_node) {
  if (g_breaches.split) {
    *out_new_node = g_breaches.split();
    return kvfs_ok;
  }
  return real_split(tree, node, split_index, out_new_node);
}

namespace kvfs_test {
namespace {

std::string critical(const std::string& function, const std::string& text) {
  return message("CRITICAL", function, text);
}

const std::string kInsert = "kvfs_btree_insert_record_internal";

// A tree, a change of it while routines break their contracts, and what comes of that.
class BtreeBrokenCallee : public ::testing::Test {
 protected:
  ~BtreeBrokenCallee() override { g_breaches = {}; }

  void open(TreeOptions options) {
    tree_.emplace(std::move(options));
    tree_->open();
    before_ = tree_->cached_nodes();
  }

  void expect(const std::function<kvfs_result()>& change, kvfs_result result, const std::string& line,
              const Lines& changed_nodes = {}) {
    LogCapture log;
    EXPECT_EQ(change(), result);
    EXPECT_LOG(log, line);
    g_breaches = {};
    EXPECT_EQ(tree_->changed_since(before_), changed_nodes);
    EXPECT_TRUE(tree_->is_idle());
  }

  kvfs_result add_index_record() {
    const Bytes key = number_key(55);
    return kvfs_btree_add_index_record(tree_->get(), key.data(), 2, 3);
  }

  kvfs_result remove_while_searches_say(std::uint32_t found) {
    kvfs_btree_record_locator* locator = tree_->locate(50);
    g_breaches.found = found;
    const kvfs_result result = kvfs_btree_delete_record(tree_->get(), locator, 0);
    kvfs_btree_record_locator_close(&locator);
    return result;
  }

  // Inserts record 1 of leaf 2, which is full. All that its split does is the damage and to name a new node.
  kvfs_result insert_into_full_leaf(const std::function<void()>& damage, std::uint32_t new_node) {
    g_breaches.split = [this, damage, new_node] {
      damage();
      before_ = tree_->cached_nodes();
      return new_node;
    };
    return tree_->insert(255);
  }

  std::optional<ChangeTree> tree_;
  std::vector<Bytes> before_;
};

TEST_F(BtreeBrokenCallee, InsertionWhoseSearchHasNoLocator_IsInternalAndChangesNothing) {
  open(three_leaves());
  g_breaches.found = 0;
  expect([&] { return tree_->insert(65); }, kvfs_internal,
         critical(kInsert,
                  "ERROR:Unable to insert because kvfs_btree_search_node returned NULL when looking up insert "
                  "location!"));
}

// The claimed node holds what a leaf held, for which the index is asked; and then for the place of its new record.
TEST_F(BtreeBrokenCallee, SplitWhoseSearchesHaveNoLocator_TakesTheClaimedNodeAndIsInternal) {
  open(three_leaves());
  tree_->poke_bytes(5, 0, tree_->cached_node(3));
  g_breaches.found = 1;
  LogCapture log;
  std::uint32_t new_node = 0;
  EXPECT_EQ(kvfs_btree_split_node(tree_->get(), 2, 1, &new_node), kvfs_internal);
  EXPECT_LOG(log,
             critical("kvfs_btree_add_index_record",
                      "Unexpected: kvfs_btree_search_node returned NULL locator with no error."),
             message("ERROR", "kvfs_btree_split_node", "Error while inserting new index record for claimed node."));
  EXPECT_EQ(tree_->content(5).records.size(), 3u);
}

// What a search says of a tree that contradicts itself decides nothing about the claimed node.
TEST_F(BtreeBrokenCallee, SplitWhoseSearchesAreInternalFailures_TakesTheClaimedNode) {
  open(three_leaves());
  tree_->poke_bytes(5, 0, tree_->cached_node(3));
  g_breaches.search = kvfs_internal;
  LogCapture log;
  std::uint32_t new_node = 0;
  EXPECT_EQ(kvfs_btree_split_node(tree_->get(), 2, 1, &new_node), kvfs_internal);
  EXPECT_LOG(
      log,
      message("ERROR", "kvfs_btree_add_index_record", "Error while searching for location to insert index record."),
      message("ERROR", "kvfs_btree_split_node", "Error while inserting new index record for claimed node."));
  EXPECT_EQ(tree_->content(5).records.size(), 3u);
}

// The record is gone already, and counted out.
TEST_F(BtreeBrokenCallee, DeletionWhoseIndexRecordHasNoLocator_IsInternal) {
  for (const std::uint32_t found : {0u, 1u}) {
    open(three_leaves());
    expect([&] { return remove_while_searches_say(found); }, kvfs_internal,
           critical("kvfs_btree_delete_record_internal",
                    "Unexpected: kvfs_btree_search_node returned NULL locator with no error."),
           {"0", "2"});
  }
}

TEST_F(BtreeBrokenCallee, IndexRecordWhosePlaceHasNoLocator_IsInternalAndChangesNothing) {
  open(three_leaves());
  g_breaches.found = 0;
  expect([&] { return add_index_record(); }, kvfs_internal,
         critical("kvfs_btree_add_index_record",
                  "Unexpected: kvfs_btree_search_node returned NULL locator with no error."));
}

TEST_F(BtreeBrokenCallee, IndexRecordInsertedWithoutALocator_IsInternalAndReleasesItsPlace) {
  open(three_leaves());
  g_breaches.hides_locator = true;
  expect([&] { return add_index_record(); }, kvfs_internal,
         critical("kvfs_btree_add_index_record",
                  "Unexpected: kvfs_btree_insert_record returned NULL locator but no error."));
}

TEST_F(BtreeBrokenCallee, RecordThatIsNotMade_IsTheFailureAndChangesNothing) {
  open(three_leaves());
  g_breaches.makes_no_record = true;
  expect(
      [&] {
        const kvfs_result result = tree_->insert(65);
        kvfs_log("", 0, "", "", "\n");  // the message leaves its line open
        return result;
      },
      kvfs_internal,
      "CRITICAL " + kInsert + " Unexpected: Error while assembling B-tree node record from source key and data.\n");
}

// ---- Splits --------------------------------------------------------------------------------------------------------

TEST_F(BtreeBrokenCallee, SplitWithoutANewNode_IsInternal) {
  open(leaves_of(0, 72));
  expect([&] { return insert_into_full_leaf([] {}, 0); }, kvfs_internal,
         critical(kInsert, "Unexpected: kvfs_btree_split_node returned 0."));
}

TEST_F(BtreeBrokenCallee, SplitThatLeavesTooManyRecords_IsInconsistent) {
  open(leaves_of(0, 72));
  expect([&] { return insert_into_full_leaf([&] { tree_->poke(2, kNumRecords, 2, 249); }, 5); }, kvfs_inconsistent,
         critical(kInsert,
                  "Invalid node data in newly claimed node: Value of 'numRecords' (249) is too large for 512 byte "
                  "node."));
}

TEST_F(BtreeBrokenCallee, SplitThatLeavesNoPlaceForTheRecord_IsInconsistent) {
  const std::function<void(ChangeTree&)> damages[] = {
      [](ChangeTree& tree) {  // fewer than before it
        tree.poke(2, kNumRecords, 2, 0);
        tree.poke_entry(2, 0, 40);
      },
      [](ChangeTree& tree) { tree.poke_entry(2, 1, 12); },   // in the descriptor
      [](ChangeTree& tree) { tree.poke_entry(2, 24, 30); },  // behind the free space
  };
  for (const auto& damage : damages) {
    open(leaves_of(0, 72));
    expect([&] { return insert_into_full_leaf([&] { damage(*tree_); }, 5); }, kvfs_inconsistent,
           insert_error("Invalid node data: Record 1 has no place among those of node 2."));
  }
}

}  // namespace
}  // namespace kvfs_test
