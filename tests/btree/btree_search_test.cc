// Searching a B-tree.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "address_sanitizer.h"
#include "big_endian.h"
#include "btree_fixture.h"
#include "catalog.h"
#include "fork/private.h"
#include "support.h"

namespace kvfs_test {
namespace {

constexpr const char* kInternal = "kvfs_btree_search_node_internal";

std::string search_error(const std::string& text) {
  return std::string("ERROR ") + kInternal + " " + text + "\n";
}

std::string bad_record(std::uint32_t node, std::uint32_t index) {
  return search_error("Invalid node data: Record " + std::to_string(index) + " of node " + std::to_string(node) +
                      " lies outside of the node.");
}

const std::string kBackToItself = search_error("Index node points back to itself. Inconsistent B-tree.");
const std::string kCyclic = search_error("Aborting search due to cyclic references in the B-tree.");

// Where a search for a number has to end, found in the plan of the tree: in the last leaf whose first key is not above
// the number (or the first leaf), on the first record that is not below it (or the last record).
std::string expected_outcome(const TestTree& tree, std::uint32_t number) {
  const std::vector<TreePlan::Node>& leaves = tree.plan().levels.front();
  std::size_t leaf = 0;
  while (leaf + 1 < leaves.size() && number_of(leaves[leaf + 1].records.front().first.data()) <= number) {
    ++leaf;
  }
  const std::vector<Record>& records = leaves[leaf].records;
  std::size_t index = 0;
  while (index + 1 < records.size() && number_of(records[index].first.data()) < number) {
    ++index;
  }
  const std::uint32_t key = number_of(records[index].first.data());
  return outcome(key == number ? 1 : 0, key < number ? 1 : 0, leaves[leaf].number, static_cast<std::uint32_t>(index),
                 key);
}

// Two records in every node, as far as they go: leaves of {10, 20} {30, 40} ..., index nodes above two nodes each. The
// tree has a height of 2 with 4 records, 3 with 8, 4 with 12 and 5 with 24.
TreeOptions small_nodes(std::uint32_t records = 12) {
  TreeOptions options = {.records = numbered_records(records)};
  options.shape.max_leaf_records = 2;
  options.shape.max_index_records = 2;
  return options;
}

// ---- Sound trees ---------------------------------------------------------------------------------------------------

class BtreeSearchShape : public ::testing::TestWithParam<std::tuple<std::uint32_t, std::uint16_t>> {
 protected:
  static TreeOptions options() {
    const auto [node_size, height] = GetParam();
    TreeOptions options = {.records = numbered_records(height == 1 ? 9 : 60), .shape = shape_of(node_size, height)};
    return options;
  }
};

TEST_P(BtreeSearchShape, EveryNumber_EndsWhereItBelongs) {
  TestTree tree(options());
  ASSERT_EQ(tree.plan().levels.size(), std::get<1>(GetParam()));
  tree.open();
  LogCapture log;
  FaultInjector faults;
  const std::uint32_t end = 10 * (std::get<1>(GetParam()) == 1 ? 9 : 60) + 20;
  for (std::uint32_t number = 0; number <= end; number += 5) {
    EXPECT_EQ(tree.search(number), expected_outcome(tree, number)) << number;
  }
  EXPECT_EQ(tree.search(0xFFFFFFFF), expected_outcome(tree, 0xFFFFFFFF));
  EXPECT_TRUE(tree.is_idle());
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log);
}

TEST_P(BtreeSearchShape, FirstSearch_ReadsOneNodeOfEachLevelAndTheNextNone) {
  TestTree tree(options());
  tree.open();
  const std::uint32_t last = number_of(tree.plan().levels.front().back().records.back().first.data());
  Lines path;
  for (auto level = tree.plan().levels.rbegin(); level != tree.plan().levels.rend(); ++level) {
    path.push_back(std::to_string(level->back().number));
  }
  FaultInjector faults;
  EXPECT_EQ(tree.search(last), expected_outcome(tree, last));
  EXPECT_EQ(tree.nodes_read(faults), path);
  faults.clear_records();
  EXPECT_EQ(tree.search(last + 5), expected_outcome(tree, last + 5));
  EXPECT_EQ(tree.nodes_read(faults), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Shapes, BtreeSearchShape,
                         ::testing::Combine(::testing::Values(512u, 1024u, 2048u, 4096u, 8192u, 16384u, 32768u),
                                            ::testing::Values(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3},
                                                              std::uint16_t{4}, std::uint16_t{5})));

TEST(BtreeSearch, KeyBeforeAllOthers_GivesTheFirstRecord) {
  TestTree tree(small_nodes());
  tree.open();
  EXPECT_EQ(tree.search(3), outcome(0, 0, tree.leaf(0), 0, 10));
}

TEST(BtreeSearch, KeyBehindAllOthers_GivesTheLastRecordWithAfterSet) {
  TestTree tree(small_nodes());
  tree.open();
  EXPECT_EQ(tree.search(125), outcome(0, 1, tree.last_leaf(), 1, 120));
}

TEST(BtreeSearch, KeyBetweenTwoLeaves_BelongsBehindTheFirst) {
  TestTree tree(small_nodes());
  tree.open();
  EXPECT_EQ(tree.search(25), outcome(0, 1, tree.leaf(0), 1, 20));
  EXPECT_EQ(tree.search(45), outcome(0, 1, tree.leaf(1), 1, 40));
}

TEST(BtreeSearch, FoundRecord_IsCopiedWithItsPlaceInTheFork) {
  TestTree tree(small_nodes());
  tree.open();
  kvfs_btree_record_locator* locator = tree.locate(40);
  const Record record = number_record(40);
  const std::uint16_t offset = tree.entry(tree.leaf(1), 1);
  EXPECT_EQ(Bytes(locator->key, locator->key + locator->key_length), record.first);
  EXPECT_EQ(Bytes(locator->data, locator->data + locator->data_size), record.second);
  EXPECT_EQ(locator->priv->fork_data_offset, std::uint64_t{tree.leaf(1)} * 512 + offset + 6);
  kvfs_btree_record_locator_close(&locator);
}

TEST(BtreeSearch, KeysAndCompareType_AreHandedToTheCallbackAsTheyAre) {
  for (const std::uint8_t type : Numbers8{0xCF, 0xBC, 0x00, 0x77}) {
    TestTree tree({.records = numbered_records(3), .traits = {.key_compare_type = type}});
    tree.open();
    const Bytes key = number_key(25);
    kvfs_btree_search_result found;
    kvfs_btree_search_result_init(&found);
    const ComparisonRecorder recorder;
    ASSERT_EQ(kvfs_btree_search_node(tree.get(), key.data(), &found), kvfs_ok);
    ASSERT_EQ(recorder.calls().size(), 3u);
    for (std::uint32_t i = 0; i < 3; ++i) {
      EXPECT_EQ(recorder.calls()[i].search_key, key.data());
      EXPECT_EQ(recorder.calls()[i].node_key, number_key(10 * (i + 1)));
      EXPECT_EQ(recorder.calls()[i].type, type);
    }
    kvfs_btree_search_result_release(&found);
  }
}

TEST(BtreeSearch, RecordBehindTheKey_IsNotComparedAnyMore) {
  TestTree tree({.records = numbered_records(9)});
  tree.open();
  const ComparisonRecorder recorder;
  EXPECT_EQ(tree.search(35), outcome(0, 0, tree.root(), 3, 40));
  EXPECT_EQ(recorder.calls().size(), 4u);
}

TEST(BtreeSearch, TreeAboveOneCacheItem_IsSearchedInAllOfThem) {
  TestTree tree({.records = numbered_records(400, 4000), .shape = shape_of(8192), .kind = kHFSAttributesFileID});
  tree.open();
  ASSERT_GT(tree.get()->fork->priv->items_length, 1u);
  LogCapture log;
  for (std::uint32_t number = 5; number <= 4010; number += 5) {
    EXPECT_EQ(tree.search(number), expected_outcome(tree, number));
  }
  EXPECT_TRUE(tree.is_idle());
  EXPECT_LOG(log);
}

TEST(BtreeSearch, ForkInManyExtents_IsSearchedInAllOfThem) {
  TreeOptions options = {.records = numbered_records(400, 60), .shape = shape_of(1024), .block_size = 1024};
  options.kind = kHFSAttributesFileID;
  options.extents = {{30, 3}, {4, 1}, {50, 10}, {90, 2}, {70, 5}, {110, 7}, {200, 1}, {300, 0}};
  TestTree tree(options);
  tree.open();
  LogCapture log;
  for (std::uint32_t number = 5; number <= 4010; number += 5) {
    EXPECT_EQ(tree.search(number), expected_outcome(tree, number));
  }
  EXPECT_TRUE(tree.is_idle());
  EXPECT_LOG(log);
}

// ---- Arguments -----------------------------------------------------------------------------------------------------

TEST(BtreeSearch, WithoutKey_IsInvalid) {
  TestTree tree(small_nodes());
  tree.open();
  kvfs_btree_search_result found = {7, 8, nullptr};
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_btree_search_node(tree.get(), nullptr, &found), kvfs_invalid);
  EXPECT_EQ(found.found, 7u);
  EXPECT_EQ(found.after, 8u);
  EXPECT_EQ(tree.tree_locks(faults), (Lines{"write", "unlock"}));
  EXPECT_EQ(faults.lock_calls().size(), 2u);
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Invalid Search key"));
}

TEST(BtreeSearch, StartNode_LimitsTheSearchToItsPart) {
  TestTree tree(small_nodes());
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(40, tree.leaf(1), kSearchToLeaf, 0), outcome(1, 0, tree.leaf(1), 1, 40));
  EXPECT_EQ(tree.search_internal(40, tree.leaf(4), kSearchToLeaf, 0), outcome(0, 0, tree.leaf(4), 0, 90));
  EXPECT_EQ(tree.search_internal(40, tree.node_at(2, 2), kSearchToLeaf, 0), outcome(0, 0, tree.leaf(4), 0, 90));
  EXPECT_EQ(tree.search_internal(40, tree.root(), kSearchToLeaf, 0), outcome(1, 0, tree.leaf(1), 1, 40));
  EXPECT_EQ(tree.search_internal(40, 0, kSearchToLeaf, 0), outcome(1, 0, tree.leaf(1), 1, 40));
  EXPECT_TRUE(tree.is_idle());
  EXPECT_LOG(log);
}

// Q-btree-5
TEST(BtreeSearch, StartNodeBehindTheTree_IsInvalid) {
  TestTree tree(small_nodes());
  tree.set32(0, kHeaderTotalNodes, 20);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(40, 21, kSearchToLeaf, 0), "result 3");
  EXPECT_EQ(tree.search_internal(40, 0xFFFFFFFF, kSearchToLeaf, 0), "result 3");
  EXPECT_TRUE(tree.is_idle());
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Starting Node 21 > Total Nodes 20"),
             search_error("HFSPlus:kvfs_btree_search_node_internal: Starting Node 4294967295 > Total Nodes 20"));
}

TEST(BtreeSearch, RootBehindTheTree_IsInvalid) {
  TestTree tree(small_nodes());
  tree.set32(0, kHeaderRootNode, tree.plan().total_nodes + 1);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(40), "result 3");
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Starting Node " +
                               std::to_string(tree.plan().total_nodes + 1) + " > Total Nodes " +
                               std::to_string(tree.plan().total_nodes)));
}

// Q-btree-5
TEST(BtreeSearch, StartNodeEqualToTheNumberOfNodes_IsSearched) {
  TestTree tree(small_nodes());
  tree.set32(0, kHeaderTotalNodes, tree.leaf(3));
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(80, tree.leaf(3), kSearchToLeaf, 0), outcome(1, 0, tree.leaf(3), 1, 80));
  EXPECT_LOG(log);
}

TEST(BtreeSearch, StartNodeBehindTheFork_CannotBeMapped) {
  TestTree tree(small_nodes());
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(40, tree.plan().total_nodes, kSearchToLeaf, 0), "result 3");
  EXPECT_EQ(tree_lines(log), Lines{search_error("Error while mapping raw node data.")});
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeSearch, Internal_LeavesTheLockToItsCaller) {
  TestTree tree(small_nodes());
  tree.open();
  const Bytes key = number_key(40);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  FaultInjector faults;
  ASSERT_EQ(kvfs_btree_search_node_internal(tree.get(), key.data(), 0, kSearchToLeaf, 0, &found), kvfs_ok);
  EXPECT_EQ(tree.tree_locks(faults), Lines{});
  kvfs_btree_search_result_release(&found);
}

TEST(BtreeSearch, Search_HoldsTheLockForWritingAroundEverything) {
  TestTree tree(small_nodes());
  tree.open();
  const Bytes key = number_key(40);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  FaultInjector faults;
  ASSERT_EQ(kvfs_btree_search_node(tree.get(), key.data(), &found), kvfs_ok);
  EXPECT_EQ(tree.tree_locks(faults), (Lines{"write", "unlock"}));
  const std::vector<LockCall> calls = faults.lock_calls();
  EXPECT_EQ(calls.front().lock, static_cast<const void*>(tree.get()->priv->open_locators_lock));
  EXPECT_EQ(calls.back().lock, static_cast<const void*>(tree.get()->priv->open_locators_lock));
  EXPECT_GT(calls.size(), 2u);
  kvfs_btree_search_result_release(&found);
}

// ---- Stopping at a height ------------------------------------------------------------------------------------------

class BtreeSearchToHeight : public ::testing::TestWithParam<std::uint8_t> {
 protected:
  BtreeSearchToHeight() : tree_(small_nodes(24)) {
    EXPECT_EQ(tree_.plan().levels.size(), 5u);
    tree_.open();
  }
  std::string search(std::uint32_t number, std::uint8_t height) {
    return tree_.search_internal(number, 0, GetParam(), height);
  }

  TestTree tree_;
};

TEST_P(BtreeSearchToHeight, EqualKey_IsFoundAtItsIndex) {
  LogCapture log;
  EXPECT_EQ(search(30, 2), outcome(1, 0, tree_.node_at(2, 0), 1, 30));
  EXPECT_EQ(search(10, 2), outcome(1, 0, tree_.node_at(2, 0), 0, 10));
  EXPECT_EQ(search(50, 3), outcome(1, 0, tree_.node_at(3, 0), 1, 50));
  EXPECT_EQ(search(170, 5), outcome(1, 0, tree_.root(), 1, 170));
  EXPECT_TRUE(tree_.is_idle());
  EXPECT_LOG(log);
}

TEST_P(BtreeSearchToHeight, KeyBetweenTwoRecords_BelongsAtTheIndexOfTheSecond) {
  LogCapture log;
  EXPECT_EQ(search(25, 2), outcome(0, 0, tree_.node_at(2, 0), 1, 30));
  EXPECT_EQ(search(35, 3), outcome(0, 0, tree_.node_at(3, 0), 1, 50));
  EXPECT_LOG(log);
}

TEST_P(BtreeSearchToHeight, KeyBeforeTheFirstRecord_BelongsAtIndexZero) {
  EXPECT_EQ(search(5, 2), outcome(0, 0, tree_.node_at(2, 0), 0, 10));
  EXPECT_EQ(search(5, 5), outcome(0, 0, tree_.root(), 0, 10));
}

// The locator has the bytes of the last record, and the index behind it.
TEST_P(BtreeSearchToHeight, KeyBehindTheLastRecord_BelongsBehindIt) {
  EXPECT_EQ(search(45, 2), outcome(0, 0, tree_.node_at(2, 0), 2, 30));
  EXPECT_EQ(search(999, 2), outcome(0, 0, tree_.node_at(2, 5), 2, 230));
  EXPECT_EQ(search(999, 5), outcome(0, 0, tree_.root(), 2, 170));
}

TEST_P(BtreeSearchToHeight, Locator_HoldsTheIndexRecordAndItsPlace) {
  const Bytes key = number_key(45);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  ASSERT_EQ(kvfs_btree_search_node_internal(tree_.get(), key.data(), 0, GetParam(), 2, &found), kvfs_ok);
  const std::uint32_t node = tree_.node_at(2, 0);
  EXPECT_EQ(Bytes(found.locator->key, found.locator->key + 6), number_key(30));
  EXPECT_EQ(found.locator->data_size, 4u);
  EXPECT_EQ(get_be(found.locator->data, 4), tree_.leaf(1));
  EXPECT_EQ(found.locator->priv->fork_data_offset, std::uint64_t{node} * 512 + tree_.entry(node, 1) + 6);
  kvfs_btree_search_result_release(&found);
}

TEST_P(BtreeSearchToHeight, HeightOfALeafOrBelow_EndsInALeaf) {
  for (const std::uint8_t height : Numbers8{0, 1}) {
    EXPECT_EQ(search(40, height), outcome(1, 0, tree_.leaf(1), 1, 40));
    EXPECT_EQ(search(45, height), outcome(0, 1, tree_.leaf(1), 1, 40));
  }
}

// The node is walked to its end: the bytes are those of its last record, the index is the one behind it.
TEST_P(BtreeSearchToHeight, HeightAboveTheStartNode_EndsBehindItsLastRecord) {
  LogCapture log;
  EXPECT_EQ(search(10, 6), outcome(0, 0, tree_.root(), 2, 170));
  EXPECT_EQ(search(999, 255), outcome(0, 0, tree_.root(), 2, 170));
  const std::uint32_t start = tree_.node_at(2, 1);
  EXPECT_EQ(tree_.search_internal(60, start, GetParam(), 3), outcome(0, 0, start, 2, 70));
  EXPECT_TRUE(tree_.is_idle());
  EXPECT_LOG(log);
}

TEST_P(BtreeSearchToHeight, ChildOfTheRecord_IsCheckedBeforeTheHeight) {
  TestTree tree(small_nodes(24));
  tree.set_child(tree.node_at(2, 0), 1, tree.plan().total_nodes);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(30, 0, GetParam(), 2), "result 6");
  EXPECT_LOG(log, search_error("Index node points to node after the last node. Inconsistent B-tree."));
}

// Where the search only passes by, no child is kept in mind: behind the search key, that of the record before the key
// is looked at again and again.
TEST_P(BtreeSearchToHeight, RecordsPassedOnTheWayToAHigherNode_AreNotKeptInMind) {
  TreeOptions options = {.records = numbered_records(12)};
  options.shape.max_leaf_records = 3;
  TestTree tree(options);
  const std::uint32_t root = tree.root();
  tree.set_child(root, 2, tree.plan().total_nodes);  // one of a record behind the key
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(20, 0, GetParam(), 3), outcome(0, 0, root, 4, 100));
  EXPECT_LOG(log);
  EXPECT_EQ(tree.search_internal(70, 0, GetParam(), 3), "result 6");  // its own record is looked at
}

TEST_P(BtreeSearchToHeight, NoMemory_IsReportedInItsOwnWords) {
  LogCapture log;
  EXPECT_EQ(search(30, 2), outcome(1, 0, tree_.node_at(2, 0), 1, 30));
  {
    FaultInjector faults;
    faults.fail_allocation(1);
    EXPECT_EQ(search(30, 2), "result 2");
  }
  EXPECT_LOG(log,
             "ERROR kvfs_btree_record_locator_open Error while allocating {*} bytes for kvfs_btree_record_locator "
             "allocation.\n",
             search_error("Error while creating kvfs_btree_record_locator."));
  EXPECT_TRUE(tree_.is_idle());
}

INSTANTIATE_TEST_SUITE_P(Modes, BtreeSearchToHeight,
                         ::testing::Values(std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0x7F}, std::uint8_t{0xFE}));

// ---- The start node ------------------------------------------------------------------------------------------------

TEST(BtreeSearchDamage, FirstRecordOfTheStartNodeElsewhere_IsInconsistent) {
  for (const std::uint16_t offset : Numbers16{0, 13, 15, 16, 511, 0xFFFF}) {
    TestTree tree(small_nodes());
    tree.set_entry(tree.root(), 0, offset);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(40), "result 6");
    EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in " +
                                 std::to_string(tree.root()) + " is " + std::to_string(offset) + ", and not 14!"));
    EXPECT_TRUE(tree.is_idle());
  }
}

// Q-btree-6
TEST(BtreeSearchDamage, FirstRecordOfAChildElsewhere_IsNotLookedAt) {
  TestTree tree(small_nodes(24));
  const std::uint32_t leaf = tree.leaf(1);
  tree.set_entry(leaf, 0, tree.entry(leaf, 1));  // record 0 is empty, and seems to have the key of record 1
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(45), outcome(0, 1, leaf, 1, 40));
  EXPECT_LOG(log);
}

// X-btree-2
TEST(BtreeSearchDamage, EmptyStartNodeOfATreeWithRecords_IsInconsistent) {
  TestTree tree(small_nodes());
  tree.set16(tree.root(), kNumRecords, 0);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(40), "result 6");
  EXPECT_LOG(log, search_error("Invalid node data: Node " + std::to_string(tree.root()) + " has no records."));
  EXPECT_TRUE(tree.is_idle());
}

// The locator decides about the bytes up to the next entry of the table.
// X-btree-2
TEST(BtreeSearchEmptyTree, LeafThatNeverHadRecords_HasNoPlace) {
  TestTree tree({.records = numbered_records(1)});
  tree.set16(tree.root(), kNumRecords, 0);
  tree.set32(0, kHeaderLeafRecords, 0);
  tree.set_entry(tree.root(), 1, 0);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(10), "result 6");
  EXPECT_LOG(log, search_error("Invalid node data: Record 0 of node 1 ends before it begins."));
  tree.close();
  tree.set_entry(tree.root(), 1, 16);
  tree.open();
  LogCapture short_log;
  EXPECT_EQ(tree.search(10), "result 3");
  EXPECT_LOG(short_log,
             "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected "
             "minimum: 6 Actual: 2\n");
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-2
TEST(BtreeSearchDamage, EmptyChild_IsReadAndThenInconsistent) {
  for (const std::size_t height : {1u, 2u}) {
    TestTree tree(small_nodes());
    const std::uint32_t node = tree.node_at(height, 0);
    tree.set16(node, kNumRecords, 0);
    tree.open();
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_EQ(tree.nodes_read(faults).back(), std::to_string(node));
    EXPECT_LOG(log, search_error("Invalid node data: Node " + std::to_string(node) + " has no records."));
    EXPECT_TRUE(tree.is_idle());
  }
}

// ---- The empty tree ------------------------------------------------------------------------------------------------

// The search begins in the header node, whose three records are taken for keys and stepped over. It ends on the map
// record: a map that begins with one used node reads as a key of 0x8000 bytes.
// Q-btree-8
TEST(BtreeSearchEmptyTree, MapOfANewTree_IsNoRecord) {
  for (const std::uint32_t kind : {kHFSCatalogFileID, kHFSAttributesFileID}) {
    TestTree tree({.kind = kind});
    tree.open();
    LogCapture log;
    const ComparisonRecorder recorder;
    EXPECT_EQ(tree.search(40), "result 3");
    EXPECT_LOG(log,
               "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected "
               "minimum: 32770 Actual: 256\n");
    ASSERT_EQ(recorder.calls().size(), 3u);
    EXPECT_EQ(recorder.calls()[0].node_key, (Bytes{0, 0}));  // the depth
    EXPECT_EQ(recorder.calls()[1].node_key, (Bytes{0, 0}));  // the user data
    EXPECT_EQ(recorder.calls()[2].node_key.size(), 0x8002u);
    EXPECT_TRUE(tree.is_idle());
  }
}

// Q-btree-8
TEST(BtreeSearchEmptyTree, MapThatReadsAsAKey_OpensALocatorBehindTheLastRecord) {
  TestTree tree({});
  tree.set16(0, kHeaderMapRecord, 4);
  tree.set32(0, kHeaderMapRecord + 2, 77);
  tree.open();
  LogCapture log;
  const ComparisonRecorder recorder;
  EXPECT_EQ(tree.search(40), outcome(0, 0, 0, 3, 77));
  EXPECT_EQ(recorder.calls().size(), 3u);
  EXPECT_EQ(recorder.calls()[2].node_key, number_key(77));
  EXPECT_LOG(log);
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeSearchEmptyTree, EqualKeysInTheHeaderNode_AreNotFound) {
  TestTree tree({});
  tree.set16(0, kHeaderMapRecord, 4);
  tree.set32(0, kHeaderMapRecord + 2, 40);
  tree.open();
  EXPECT_EQ(tree.search(40), outcome(0, 0, 0, 3, 40));
}

TEST(BtreeSearchDamage, NodesOfAnotherKind_AreWalkedToTheirEnd) {
  for (const std::uint8_t kind : Numbers8{1, 2, 3, 127, 128, 254}) {
    TestTree tree(small_nodes());
    tree.set8(tree.leaf(1), kKind, kind);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(30), outcome(0, 0, tree.leaf(1), 2, 40));
    EXPECT_EQ(tree.search(49), outcome(0, 0, tree.leaf(1), 2, 40));
    EXPECT_TRUE(tree.is_idle());
    EXPECT_LOG(log);
  }
}

// X-btree-1
TEST(BtreeSearchDamage, KeyThatLeavesANodeOfAnotherKind_IsPassedOverUncompared) {
  for (const std::size_t leaf : {0u, 1u}) {
    TreeOptions options = small_nodes();
    options.kind = kHFSAttributesFileID;
    TestTree tree(options);
    const std::uint32_t node = tree.leaf(leaf);
    tree.set8(node, kKind, kBTMapNode);
    tree.set16(node, 14, 600);
    tree.open();
    const std::uint32_t last = leaf == 0 ? 20 : 40;
    LogCapture log;
    const ComparisonRecorder recorder;
    EXPECT_EQ(tree.search(last), outcome(0, 0, node, 2, last));
    for (const Comparison& call : recorder.calls()) {
      EXPECT_EQ(call.node_key.size(), 6u);
    }
    EXPECT_LOG(log);
  }
}

// X-btree-18
TEST(BtreeSearchDamage, LastRecordOfANodeOfAnotherKind_HasToLieInTheNode) {
  const auto backwards = [](std::uint32_t node) {
    return search_error("Invalid node data: Record 2 of node " + std::to_string(node) + " ends before it begins.");
  };
  const std::vector<std::pair<std::uint16_t, std::uint16_t>> ranges = {{32, 514}, {32, 30}};
  for (const auto& [offset, end] : ranges) {
    TestTree tree(small_nodes());
    tree.set8(tree.leaf(1), kKind, 2);
    tree.set_entry(tree.leaf(1), 1, offset);
    tree.set_entry(tree.leaf(1), 2, end);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(30), "result 6");
    EXPECT_LOG(log, end < offset ? backwards(tree.leaf(1)) : bad_record(tree.leaf(1), 2));
    EXPECT_TRUE(tree.is_idle());
  }
}

// ---- Children ------------------------------------------------------------------------------------------------------

TEST(BtreeSearchDamage, IndexRecordThatLeadsToItsOwnNode_IsInconsistent) {
  for (const std::size_t height : {3u, 2u}) {
    TestTree tree(small_nodes(8));
    const std::uint32_t node = tree.node_at(height, 0);
    tree.set_child(node, 0, node);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_LOG(log, search_error("Index node points back to itself. Inconsistent B-tree."));
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST(BtreeSearchDamage, ChildBehindTheLastNode_IsInconsistent) {
  for (const std::uint32_t beyond : Numbers32{0, 1, 1000}) {
    TestTree tree(small_nodes());
    tree.set_child(tree.root(), 0, tree.plan().total_nodes + beyond);
    tree.open();
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_EQ(faults.count(Call::kPread64), 1u);
    EXPECT_LOG(log, search_error("Index node points to node after the last node. Inconsistent B-tree."));
    EXPECT_TRUE(tree.is_idle());
  }
}

// The last four bytes of a node are read as a child, whatever they are for; no byte behind them is.
TEST(BtreeSearchDamage, ChildAtTheEndOfItsNode_IsReadUpToThere) {
  for (const std::uint16_t behind : Numbers16{0, 1}) {
    TestTree tree(small_nodes());
    tree.set16(tree.root(), 14, static_cast<std::uint16_t>(512 - 4 + behind - 14 - 2));  // the length of the key before
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(5), "result 6");
    EXPECT_LOG(log, behind == 0 ? search_error("Index node points to node after the last node. Inconsistent B-tree.")
                                : bad_record(tree.root(), 0));
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST(BtreeSearchDamage, ChildInsideTheTreeButBehindTheFork_CannotBeMapped) {
  TestTree tree(small_nodes());
  const std::uint32_t total = tree.plan().total_nodes;
  tree.set32(0, kHeaderTotalNodes, 0xFFFFFFFF);
  // The last two times the node size need more than 32 bits; cut down to those they would be nodes of the tree.
  for (const std::uint32_t child : {total, 0xFFFFFFFEu, 0x00800001u, 0x80000002u}) {
    tree.set_child(tree.root(), 0, child);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(10), "result 3");
    EXPECT_EQ(tree_lines(log),
              Lines{search_error("Error while mapping raw node data of node " + std::to_string(child) + ".")});
    EXPECT_TRUE(tree.is_idle());
    tree.close();
  }
}

TEST(BtreeSearchDamage, KeyBeforeAnIndexNodesFirst_StillGoesDownItsFirstRecord) {
  TestTree tree(small_nodes());
  tree.set_child(tree.root(), 1, 0);  // the other way is not taken
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(1), outcome(0, 0, tree.leaf(0), 0, 10));
  EXPECT_LOG(log);
}

// The child lies right behind the key; the key is not rounded up to an even length here.
// Q-btree-7
TEST(BtreeSearch, IndexKeyOfOddLength_IsFollowedByTheChildWithoutAPad) {
  TestTree tree(small_nodes(4));
  const std::uint32_t root = tree.root();
  ASSERT_EQ(tree.plan().levels.size(), 2u);
  const std::uint16_t at = tree.entry(root, 1);
  tree.set16(root, at, 5);
  tree.set8(root, at + 6u, 0);
  tree.set32(root, at + 7u, tree.leaf(1));
  tree.set_entry(root, 2, static_cast<std::uint16_t>(at + 12));
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(40), outcome(1, 0, tree.leaf(1), 1, 40));
  EXPECT_LOG(log);
}

// ---- Cycles --------------------------------------------------------------------------------------------------------

// The node that leads there is looked at once more, under the start node's number.
// Q-btree-26
TEST(BtreeSearchCycle, BackToTheStartNode_CountsAsANodeThatLeadsToItself) {
  for (const std::size_t height : {4u, 3u, 2u}) {
    TestTree tree(small_nodes(24));
    const std::uint32_t last = tree.node_at(height, 0);
    tree.set_child(last, 0, tree.root());
    tree.open();
    LogCapture log;
    FaultInjector faults;
    const ComparisonRecorder recorder;
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_EQ(tree.nodes_read(faults).back(), std::to_string(last));
    EXPECT_EQ(recorder.calls().size(), 5 - height + 2);
    EXPECT_LOG(log, kBackToItself);
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-3
TEST(BtreeSearchCycle, AwayFromTheStartNode_IsFound) {
  TestTree tree(small_nodes(24));
  tree.set_child(tree.node_at(2, 0), 0, tree.node_at(4, 0));  // the root is not on the way round
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(10), "result 6");
  EXPECT_LOG(log, kCyclic);
  EXPECT_TRUE(tree.is_idle());
}

// The number of nodes is no help against a cycle when it is damaged itself.
// X-btree-3
TEST(BtreeSearchCycle, TreeThatClaimsBillionsOfNodes_IsLeftAfter255Levels) {
  for (const std::uint32_t total : Numbers32{0xFFFFFFFF, 0xFFFFFFFE, 0x80000000}) {
    for (const std::size_t height : {4u, 3u}) {
      TestTree tree(small_nodes(24));
      tree.set32(0, kHeaderTotalNodes, total);
      tree.set_child(tree.node_at(2, 0), 0, tree.node_at(height, 0));
      tree.open();
      LogCapture log;
      FaultInjector faults;
      const ComparisonRecorder recorder;
      EXPECT_EQ(tree.search(10), "result 6");
      EXPECT_GE(recorder.calls().size(), 255u) << "no other bound stops it";
      EXPECT_LE(recorder.calls().size(), 255u * 24);
      EXPECT_LE(faults.count(Call::kPread64), 5u);
      EXPECT_EQ(log.lines().size(), 1u);
      EXPECT_TRUE(tree.is_idle());
    }
  }
}

// Q-btree-26, X-btree-3
TEST(BtreeSearchCycle, CyclesOfEveryLengthWithEveryLeadIn_AreFound) {
  constexpr std::uint32_t kNodes = 40;
  TreeOptions options = {.records = numbered_records(2 * kNodes)};
  options.shape.max_leaf_records = 2;
  for (std::uint32_t length = 2; length <= 16; ++length) {
    for (std::uint32_t lead_in = 0; lead_in + length <= 20; lead_in += 3) {
      // Leaves become index nodes in a row, the last of which leads back.
      TestTree tree(options);
      for (std::uint32_t i = 0; i < lead_in + length; ++i) {
        tree.set8(tree.leaf(i), kKind, 0);
        tree.set_child(tree.leaf(i), 0, i + 1 < lead_in + length ? tree.leaf(i + 1) : tree.leaf(lead_in));
      }
      tree.open();
      LogCapture log;
      FaultInjector faults;
      EXPECT_EQ(tree.search_internal(0, tree.leaf(0), kSearchToLeaf, 0), "result 6");
      EXPECT_EQ(faults.count(Call::kPread64), lead_in + length);
      EXPECT_LOG(log, lead_in == 0 ? kBackToItself : kCyclic);
      EXPECT_TRUE(tree.is_idle());
    }
  }
}

// Nodes 1 to 3 of 3,072 bytes on a device with sectors of 4,096: nodes 1 and 2 lie in two of them, and each mapping of
// one leaves a reference behind. Node 1 leads to the other two, which lead to each other.
TEST(BtreeSearchCycle, NodesThatLieInTwoTransferUnits_LeaveReferencesThatClosingTells) {
  constexpr std::uint16_t kNodeSize = 3072;
  TestTree tree({.records = numbered_records(6), .shape = shape_of(4096), .sector_size = 4096});
  tree.set16(0, kHeaderNodeSize, kNodeSize);
  tree.set32(0, kHeaderRootNode, 1);
  tree.set32(0, kHeaderTotalNodes, 0xFFFFFFFF);
  for (const std::uint32_t node : {1u, 2u, 3u}) {
    const std::uint32_t begin = node * kNodeSize;
    tree.set8(0, begin + kKind, 0);
    tree.set16(0, begin + kNumRecords, 1);
    tree.set32(0, begin + 14, 0x00040000);  // the key 0, of four bytes
    tree.set32(0, begin + 18, 0);
    tree.set32(0, begin + 20, node == 2 ? 3 : 2);      // the child
    tree.set32(0, begin + kNodeSize - 4, 0x0018000E);  // where the free space and the record begin
  }
  tree.open();
  {
    LogCapture log;
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_LOG(log, kCyclic);
    EXPECT_TRUE(tree.locators().empty());
  }
  const std::uint64_t references = tree.references();
  EXPECT_GT(references, 0u);
  LogCapture log;
  tree.close();
  EXPECT_LOG(log, "WARNING kvfs_fork_cache_item_destroy Destroying cache item {*} with " + std::to_string(references) +
                      " remaining references.\n");
}

// Leaves that became index nodes in a row: so many descents from the first one to the last, which is a leaf.
void make_descents(TestTree* tree, std::uint32_t descents) {
  for (std::uint32_t i = 0; i < descents; ++i) {
    tree->set8(tree->leaf(i), kKind, 0);
    tree->set_child(tree->leaf(i), 0, tree->leaf(i + 1));
  }
}

// X-btree-3
TEST(BtreeSearchCycle, LongWayWithoutACycle_IsWalkedToItsEndOrThrough255Levels) {
  TreeOptions options = {.records = numbered_records(600)};
  options.shape.max_leaf_records = 2;
  {
    TestTree tree(options);
    make_descents(&tree, 254);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search_internal(0, tree.leaf(0), kSearchToLeaf, 0), outcome(0, 0, tree.leaf(254), 0, 5090));
    EXPECT_LOG(log);
  }
  TestTree tree(options);
  make_descents(&tree, 255);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(0, tree.leaf(0), kSearchToLeaf, 0), "result 6");
  EXPECT_LOG(log, kCyclic);
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeSearchCycle, AsManyDescentsAsNodes_AreTooMany) {
  TestTree tree(small_nodes(24));
  // Nodes 3, 2, 1 and 0 in a row: three descents from a start node that equals the number of nodes.
  ASSERT_GE(tree.plan().levels.front().size(), 3u);
  for (std::uint32_t node = 3; node > 0; --node) {
    tree.set8(node, kKind, 0);
    tree.set_child(node, 0, node - 1);
  }
  tree.set32(0, kHeaderTotalNodes, 3);
  tree.open();
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(tree.search_internal(0, 3, kSearchToLeaf, 0), "result 6");
  EXPECT_EQ(tree.nodes_read(faults), (Lines{"3", "2", "1"}));
  EXPECT_LOG(log, kCyclic);
  EXPECT_TRUE(tree.is_idle());
}

// ---- Damaged offsets and keys --------------------------------------------------------------------------------------

// X-btree-1
TEST(BtreeSearchDamage, RecordThatDoesNotLieInTheNode_IsInconsistent) {
  for (const std::uint16_t offset : Numbers16{507, 508, 511, 512, 0x7FFF, 0xFFFF}) {
    TestTree tree({.records = numbered_records(6)});
    tree.set_entry(tree.root(), 3, offset);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(60), "result 6");
    EXPECT_LOG(log, bad_record(tree.root(), 3));
    EXPECT_TRUE(tree.is_idle());
  }
}

// Where a record lies in its node is not looked at: one in the descriptor has a key like any other.
TEST(BtreeSearchDamage, RecordInTheDescriptor_IsComparedLikeAnyOther) {
  TestTree tree({.records = numbered_records(6)});
  tree.set32(tree.root(), kForwardLink, 0x00040000);
  tree.set32(tree.root(), kForwardLink + 4, 35 << 16);  // with the link, the key 35 of four bytes
  tree.set_entry(tree.root(), 3, 0);
  tree.set_entry(tree.root(), 4, 12);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(35), outcome(1, 0, 1, 3, 35));
  EXPECT_LOG(log);
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-18
TEST(BtreeSearchDamage, FoundRecordThatEndsOutsideOrBeforeItsStart_IsInconsistent) {
  const std::string backwards = search_error("Invalid node data: Record 3 of node 1 ends before it begins.");
  const std::vector<std::pair<std::uint16_t, std::string>> ends = {
      {0, backwards}, {14, backwards}, {66, backwards}, {513, bad_record(1, 3)}, {0xFFFE, bad_record(1, 3)}};
  for (const auto& [end, message] : ends) {
    TestTree tree({.records = numbered_records(6)});
    tree.set_entry(tree.root(), 4, end);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(40), "result 6");
    EXPECT_LOG(log, message, search_error("HFSPlus:kvfs_btree_search_node_internal: Not enough memory"));
    EXPECT_TRUE(tree.is_idle());
  }
}

// Q-btree-25
TEST(BtreeSearchDamage, FoundRecordOfAnOddSize_IsRefusedByTheLocator) {
  TestTree tree({.records = numbered_records(6)});
  tree.set_entry(tree.root(), 6, static_cast<std::uint16_t>(tree.entry(tree.root(), 6) + 1));
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(60), "result 3");
  EXPECT_LOG(log,
             "ERROR kvfs_btree_record_locator_open Invalid parameter: record_size (19) is not aligned on a 2-byte "
             "boundary.\n",
             search_error("HFSPlus:kvfs_btree_search_node_internal: Not enough memory"));
}

// What such a key claims to hold does not matter as long as what the node has of it decides.
// X-btree-1
TEST(BtreeSearchDamage, CatalogKeyThatLeavesTheNode_IsComparedAsFarAsTheNodeGoes) {
  for (const std::uint16_t length : Numbers16{500, 0x7FFF, 0x8000, 0xFFFF}) {
    TestTree tree({.records = numbered_records(6)});
    const std::uint16_t at = tree.entry(tree.root(), 2);
    tree.set16(tree.root(), at, length);
    tree.open();
    LogCapture log;
    const ComparisonRecorder recorder;
    EXPECT_EQ(tree.search(60), outcome(1, 0, tree.root(), 5, 60));
    ASSERT_EQ(recorder.calls().size(), 6u);
    EXPECT_EQ(recorder.calls()[2].node_key.size(), 512u - at);
    EXPECT_LOG(log);
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-1
TEST(BtreeSearchDamage, LongCatalogKeyThatLeavesTheNode_IsComparedUpTo255Units) {
  TestTree tree({.records = numbered_records(6), .shape = shape_of(4096)});
  tree.set16(tree.root(), tree.entry(tree.root(), 2), 0xFFFF);
  tree.open();
  const ComparisonRecorder recorder;
  EXPECT_EQ(tree.search(60), outcome(1, 0, tree.root(), 5, 60));
  EXPECT_EQ(recorder.calls().at(2).node_key.size(), 518u);
}

// Many keys that claim to be long are no more work than what is compared of them.
// X-btree-1
TEST(BtreeSearchDamage, CatalogKeysThatLeaveTheNode_CountAsFarAsTheNodeGoes) {
  TestTree tree({.records = numbered_records(20)});
  for (std::uint32_t i = 0; i < 19; ++i) {
    tree.set16(tree.root(), tree.entry(tree.root(), i), 0xFFFF);
  }
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(200), outcome(1, 0, tree.root(), 19, 200));
  EXPECT_LOG(log);
}

// A key in the last 16 bytes of its node: parent 30 and, for the first units of its name, the offset table.
constexpr std::uint16_t kKeyAtTheEnd = 512 - 16;

Bytes catalog_key(std::uint32_t parent, const Bytes& name) {
  Bytes key(8);
  put_be(key, 0, 2, 6 + name.size());
  put_be(key, 2, 4, parent);
  put_be(key, 6, 2, name.size() / 2);
  key.insert(key.end(), name.begin(), name.end());
  return key;
}

std::string search_for_key(const TestTree& tree, const Bytes& key) {
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  const kvfs_result result = kvfs_btree_search_node(tree.get(), key.data(), &found);
  std::string text = describe(result, found);
  kvfs_btree_search_result_release(&found);
  return text;
}

// X-btree-1
TEST(BtreeSearchDamage, CatalogKeyWhoseNeededUnitLeavesTheNode_IsInconsistent) {
  const Bytes data(12);
  TestTree tree({.records = {{catalog_key(10, {}), data}, {catalog_key(20, {}), data}, {catalog_key(40, {}), data}},
                 .traits = {.key_compare_type = 0xBC}});
  const std::uint32_t node = tree.root();
  tree.set_entry(node, 1, kKeyAtTheEnd);
  tree.set16(node, kKeyAtTheEnd, 0x7FFF);
  tree.set32(node, kKeyAtTheEnd + 2, 30);
  tree.set16(node, kKeyAtTheEnd + 6, 5);
  tree.open(kvfs_catalog_compare_keys);
  LogCapture silence;
  EXPECT_EQ(search_for_key(tree, catalog_key(40, {})), outcome(1, 0, node, 2, 40)) << "the parents decide";
  EXPECT_EQ(search_for_key(tree, catalog_key(30, {0xFF, 0xFF})), outcome(0, 0, node, 2, 40)) << "a unit decides";
  EXPECT_LOG(silence);
  LogCapture log;
  EXPECT_EQ(search_for_key(tree, catalog_key(30, tree.bytes(node, 512 - 8, 8))), "result 6");
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n", bad_record(node, 1));
  EXPECT_TRUE(tree.is_idle());
}

// The key's length and its parent, 0x1FA000E, are the last entries of the offset table.
// X-btree-1
TEST(BtreeSearchDamage, CatalogKeyOfWhichTheNodeHasTheParentAlone_IsOrderedByThat) {
  const Bytes data(12);
  TestTree tree({.records = {{catalog_key(10, {}), data}, {catalog_key(20, {}), data}, {catalog_key(40, {}), data}},
                 .traits = {.key_compare_type = 0xBC}});
  const std::uint32_t node = tree.root();
  tree.set_entry(node, 1, 512 - 6);
  tree.open(kvfs_catalog_compare_keys);
  LogCapture silence;
  EXPECT_EQ(search_for_key(tree, catalog_key(0x2000000, {})), outcome(0, 1, node, 2, 40));
  EXPECT_LOG(silence);
  LogCapture log;
  EXPECT_EQ(search_for_key(tree, catalog_key(0x1FA000E, {})), "result 6");
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n", bad_record(node, 1));
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-1
TEST(BtreeSearchDamage, KeyOfAnotherTreeThatLeavesTheNode_IsInconsistent) {
  for (const std::uint16_t length : Numbers16{500, 0x7FFF, 0x8000, 0xFFFF}) {
    TestTree tree({.records = numbered_records(6), .kind = kHFSAttributesFileID});
    tree.set16(tree.root(), tree.entry(tree.root(), 2), length);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(60), "result 6");
    EXPECT_LOG(log, bad_record(tree.root(), 2));
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST(BtreeSearchDamage, KeyOfAnotherTreeThatEndsWithTheNode_IsComparedAndOneByteMoreIsNot) {
  TestTree tree({.records = numbered_records(6), .kind = kHFSAttributesFileID});
  const std::uint16_t at = tree.entry(tree.root(), 2);
  tree.set16(tree.root(), at, static_cast<std::uint16_t>(512 - at - 2));
  tree.open();
  EXPECT_EQ(tree.search(60), outcome(1, 0, tree.root(), 5, 60));
  tree.close();
  tree.set16(tree.root(), at, static_cast<std::uint16_t>(512 - at - 1));
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(60), "result 6");
  EXPECT_LOG(log, bad_record(tree.root(), 2));
}

// The comparison of extents needs all of a key's 12 bytes.
// X-btree-1
TEST(BtreeSearchDamage, ExtentKeyThatLeavesTheNode_IsInconsistent) {
  TestTree tree({.records = numbered_records(6), .kind = kHFSExtentsFileID});
  tree.set_entry(tree.root(), 3, 502);
  tree.set_entry(tree.root(), 4, 10);  // the length of that key
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(60), "result 6");
  EXPECT_LOG(log, bad_record(tree.root(), 3));
}

TEST(BtreeSearchDamage, KeyThatLeavesItsRecord_IsRefusedByTheLocator) {
  TestTree tree({.records = numbered_records(6)});
  tree.set16(tree.root(), tree.entry(tree.root(), 2), 18);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(25), "result 3");
  EXPECT_LOG(log,
             "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected "
             "minimum: 20 Actual: 18\n",
             search_error("HFSPlus:kvfs_btree_search_node_internal: Not enough memory"));
}

// X-btree-1
TEST(BtreeSearchDamage, MoreRecordsThanTheTableCanHold_AreInconsistent) {
  for (const std::uint16_t count : Numbers16{249, 1000, 0x7FFF, 0xFFFF}) {
    TestTree tree({.records = numbered_records(6)});
    tree.set16(tree.root(), kNumRecords, count);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(10), outcome(1, 0, tree.root(), 0, 10));
    EXPECT_LOG(log);
    LogCapture end_log;
    EXPECT_EQ(tree.search(999), "result 6");
    EXPECT_EQ(end_log.lines().size(), 1u);
    EXPECT_TRUE(tree.is_idle());
  }
}

// A node that is nothing but an offset table, from its last byte to its first one.
// X-btree-1
TEST(BtreeSearchDamage, TableThatFillsTheNode_IsReadToItsEnd) {
  for (const std::uint16_t count : Numbers16{255, 256}) {
    TestTree tree({.records = numbered_records(6)});
    const std::uint32_t root = tree.root();
    for (std::uint16_t offset = 0; offset < 512; offset = static_cast<std::uint16_t>(offset + 2)) {
      tree.set16(root, offset, 14);
    }
    tree.set8(root, kKind, 5);
    tree.set16(root, kNumRecords, count);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.search(10), count == 255 ? "result 3" : "result 6");
    EXPECT_LOG(log, count == 255 ? std::string("ERROR kvfs_btree_record_locator_open {*}\n") : bad_record(root, 255));
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-1
TEST(BtreeSearchDamage, ChildNumberThatLeavesTheNode_IsInconsistent) {
  TestTree tree(small_nodes(4));
  const std::uint32_t root = tree.root();
  const std::uint16_t at = tree.entry(root, 1);
  tree.set16(root, at, static_cast<std::uint16_t>(512 - at - 2 - 2));  // two bytes are left behind the key
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search(40), "result 6");
  EXPECT_LOG(log, bad_record(root, 1));
}

int refuse_all_keys(const void* /*node_key*/, const void* /*search_key*/, std::uint8_t /*compare_type*/) {
  return kvfs_key_malformed;
}

// X-catalog-1
TEST(BtreeSearchDamage, KeyThatTheCallbackFindsMalformed_IsInconsistent) {
  TestTree tree(small_nodes());
  tree.open(refuse_all_keys);
  LogCapture log;
  EXPECT_EQ(tree.search(10), "result 6");
  EXPECT_LOG(log, search_error("Invalid node data: The key of record 0 of node " + std::to_string(tree.root()) +
                               " contradicts itself."));
  EXPECT_TRUE(tree.is_idle());
}

// ---- Many keys -----------------------------------------------------------------------------------------------------

// Every record of the only leaf has the same bytes: so many entries in the offset table name them.
TestTree* repeat_first_record(TestTree* tree, std::uint32_t count) {
  tree->set16(tree->root(), kNumRecords, static_cast<std::uint16_t>(count));
  for (std::uint32_t i = 0; i < count; ++i) {
    tree->set_entry(tree->root(), i, 14);
  }
  return tree;
}

// X-btree-5
TEST(BtreeSearchManyKeys, ThousandOfAWrongLength_ArePassedOverAndTheNextOneEndsTheSearch) {
  for (const std::uint32_t count : Numbers32{1000, 1001, 1002, 2000}) {
    TestTree tree({.records = numbered_records(1),  // keys too short for a catalog
                   .shape = shape_of(8192),
                   .kind = kHFSCatalogFileID});
    repeat_first_record(&tree, count)->set_entry(tree.root(), count, 32);
    tree.open();
    LogCapture log;
    const ComparisonRecorder recorder;
    EXPECT_EQ(tree.search(99), count == 1000 ? outcome(0, 1, 1, 999, 10) : "result 6");
    EXPECT_EQ(recorder.calls().size(), 1000u);
    EXPECT_EQ(log.lines().size(), count == 1000 ? 0u : 1u);
    if (count > 1000) {
      EXPECT_LOG(log, search_error("Invalid node data: Too many or wrong keys up to record 1000 of node 1."));
    }
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-5
TEST(BtreeSearchManyKeys, ThousandOfAWrongLengthInANodeOfAnotherKind_EndTheSearchToo) {
  TestTree tree({.records = numbered_records(1), .shape = shape_of(8192), .kind = kHFSCatalogFileID});
  repeat_first_record(&tree, 2000)->set8(tree.root(), kKind, kBTMapNode);
  tree.open();
  LogCapture log;
  const ComparisonRecorder recorder;
  EXPECT_EQ(tree.search(99), "result 6");
  EXPECT_EQ(recorder.calls().size(), 1000u);
  EXPECT_LOG(log, search_error("Invalid node data: Too many or wrong keys up to record 1000 of node 1."));
}

// A label is set with eight searches; each passes over so many keys.
// X-btree-17
TEST(BtreeSearchManyKeys, ThousandOfAWrongLength_ArePassedOverBySeveralSearches) {
  TestTree tree({.records = numbered_records(1), .shape = shape_of(8192), .kind = kHFSCatalogFileID});
  repeat_first_record(&tree, 1000)->set_entry(tree.root(), 1000, 32);
  tree.open();
  LogCapture log;
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(tree.search(99), outcome(0, 1, 1, 999, 10));
  }
  EXPECT_LOG(log);
}

// The comparison says for each key that there is no such order.
// X-btree-17
TEST(BtreeSearchManyKeys, OrderThatDoesNotExist_CostsAMessageForEachKey) {
  for (const std::uint8_t order : Numbers8{0xBC, 0xCF, 0, 0x42}) {
    TestTree tree({.records = {number_record(10, 700)}, .shape = shape_of(8192), .kind = kHFSCatalogFileID});
    repeat_first_record(&tree, 100)->set_entry(tree.root(), 100, 14 + 706);
    tree.set16(tree.root(), 14, 600);
    tree.set8(0, kHeaderCompareType, order);
    tree.open();
    const unsigned char key[] = {0, 6, 0, 0, 0, 99, 0, 0};  // of a length that a catalog key may have
    kvfs_btree_search_result found = {};
    EXPECT_EQ(kvfs_btree_search_node(tree.get(), key, &found), kvfs_ok);
    kvfs_btree_search_result_release(&found);
    const std::uint64_t keys = kWorkOfANode + 100 * 602;
    const std::uint64_t each = order < 0x80 ? kWorkOfAMessage : kWorkOfAKey;
    EXPECT_EQ(tree.get()->priv->work_left, kWorkReserve + kWorkOfASearch - keys - 100 * each);
  }
}

// A node that has no keys is passed over, but what looks like its keys is compared, and the comparison may say of each
// that there is no such order, or that the key contradicts itself.
// X-btree-17
TEST(BtreeSearchManyKeys, MessagesOfANodeOfAnotherKind_AreWorkToo) {
  const std::uint32_t key_bytes = 10;
  for (const bool has_order : {false, true}) {
    TestTree tree({.records = {number_record(10, 4)}, .shape = shape_of(8192), .kind = kHFSCatalogFileID});
    repeat_first_record(&tree, 100)->set_entry(tree.root(), 100, 14 + 10);
    tree.set16(tree.root(), 14, key_bytes - 2);
    tree.set8(tree.root(), kKind, kBTMapNode);
    tree.set8(0, kHeaderCompareType, has_order ? kHFSBinaryCompare : 0);
    tree.open(refuse_all_keys);
    const unsigned char key[] = {0, 6, 0, 0, 0, 10, 0, 0};
    kvfs_btree_search_result found = {};
    EXPECT_EQ(kvfs_btree_search_node(tree.get(), key, &found), kvfs_ok);
    kvfs_btree_search_result_release(&found);
    const std::uint32_t each = key_bytes + kWorkOfAMessage + (has_order ? kWorkOfAKey : kWorkOfAMessage);
    EXPECT_EQ(tree.get()->priv->work_left, kWorkReserve + kWorkOfASearch - kWorkOfANode - 100 * each);
  }
}

// Keys that leave such a node are compared when their length is none that a key has: that is a message.
// X-btree-17
TEST(BtreeSearchManyKeys, WrongKeysOfANodeOfAnotherKind_AreComparedAndWork) {
  TestTree tree({.records = {number_record(10, 4)}, .shape = shape_of(8192), .kind = kHFSExtentsFileID});
  repeat_first_record(&tree, 100)->set_entry(tree.root(), 100, 14 + 10);
  tree.set16(tree.root(), 14, 0xFFFF);
  tree.set8(tree.root(), kKind, kBTMapNode);
  tree.open(refuse_all_keys);
  const unsigned char key[] = {0, 10, 0, 0, 0, 0, 0, 16, 0, 0, 0, 0};
  LogCapture log;
  kvfs_btree_search_result found = {};
  EXPECT_EQ(kvfs_btree_search_node(tree.get(), key, &found), kvfs_invalid) << "the last record has no room for its key";
  const std::uint32_t each = sizeof(kvfs_be16) + 2 * kWorkOfAMessage;
  EXPECT_EQ(tree.get()->priv->work_left, kWorkReserve + kWorkOfASearch - kWorkOfANode - 100 * each);
}

// What a search costs beyond what a sound tree calls for is taken from a reserve, which lasts for the life of the tree.
// X-btree-17
TEST(BtreeSearchManyKeys, WorkBeyondThatOfASoundTree_UsesUpAReserve) {
  TestTree tree({.records = {number_record(10, 700)}, .shape = shape_of(8192), .kind = kHFSAttributesFileID});
  const std::uint32_t root = tree.root();
  repeat_first_record(&tree, 300)->set_entry(root, 300, 14 + 706);
  tree.set16(root, 14, 600);
  tree.open();
  const std::uint32_t beyond = kWorkOfANode + 300 * (602 + kWorkOfAKey) - kWorkOfASearch;
  ASSERT_LT(beyond, kWorkReserve);
  tree.get()->priv->reserve = 2 * beyond + 1;
  LogCapture log;
  EXPECT_EQ(tree.search(99), outcome(0, 1, 1, 299, 10));
  EXPECT_EQ(tree.search(99), outcome(0, 1, 1, 299, 10));
  EXPECT_LOG(log);
  LogCapture end_log;
  EXPECT_EQ(tree.search(99), "result 6");
  EXPECT_LOG(end_log, search_error("Aborting search: Too much work."));
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-17
TEST(BtreeSearchManyKeys, SearchesOfASoundTree_LeaveTheReserveAlone) {
  TestTree tree({.records = numbered_records(400, 60), .shape = shape_of(512, 4), .kind = kHFSAttributesFileID});
  tree.open();
  for (std::uint32_t number = 5; number <= 4010; number += 5) {
    (void)tree.search(number);
  }
  EXPECT_EQ(tree.get()->priv->reserve, kWorkReserve);
}

// X-btree-4
TEST(BtreeSearchManyKeys, MoreBytesThan255NodesHave_EndTheSearch) {
  TestTree tree({.records = {number_record(10, 4)}, .shape = shape_of(8192), .kind = kHFSAttributesFileID});
  const std::uint32_t root = tree.root();
  repeat_first_record(&tree, 4000);
  tree.set16(root, 14, 600);  // 602 bytes of key: 255 nodes hold 3,470 of them
  tree.open();
  LogCapture log;
  const ComparisonRecorder recorder;
  EXPECT_EQ(tree.search(99), "result 6");
  EXPECT_EQ(recorder.calls().size(), 255 * 8192 / 602u);
  EXPECT_LOG(log, search_error("Invalid node data: Too many or wrong keys up to record 3470 of node 1."));
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-4
TEST(BtreeSearchManyKeys, MoreBytesOfKeysThatLeaveTheNode_EndTheSearch) {
  TestTree tree(
      {.records = {{catalog_key(10, {}), Bytes(12)}}, .shape = shape_of(8192), .traits = {.key_compare_type = 0xBC}});
  const std::uint32_t root = tree.root();
  repeat_first_record(&tree, 4000);
  tree.set16(root, 14, 9000);  // of which the node has 8,178 bytes: 255 nodes hold 255 of them
  tree.open(kvfs_catalog_compare_keys);
  LogCapture log;
  EXPECT_EQ(search_for_key(tree, catalog_key(99, {})), "result 6");
  EXPECT_LOG(log, search_error("Invalid node data: Too many or wrong keys up to record 255 of node 1."));
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeSearchDamage, NodeSizesThatNoTreeHas_FailWithoutLeavingTheFork) {
  for (const std::uint16_t size : Numbers16{0, 1, 13, 14, 15, 16, 17, 100, 120, 255, 511, 513, 768, 40000, 65535}) {
    TestTree tree({.records = numbered_records(60)});
    tree.set16(0, kHeaderNodeSize, size);
    tree.open();
    LogCapture log;
    FaultInjector faults;
    EXPECT_NE(tree.search(10).substr(0, 8), "result 0") << size;
    EXPECT_EQ(tree.locators(), Lines{});
    EXPECT_EQ(faults.locks_held(), 0);
    tree.forget_references();
  }
}

// Node 1 is bytes 2 and 3 of the fork: an index node without records, whose only offset is that of a first record.
TEST(BtreeSearchNodeSize, NodeOfTwoBytes_HasNoPlaceForARecord) {
  TestTree tree({.records = numbered_records(3)});
  tree.set16(0, kHeaderNodeSize, 2);
  tree.set16(0, 2, 14);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.search_internal(10, 1, kSearchToHeight, 2), "result 6");
  EXPECT_LOG(log, bad_record(1, 0));
  EXPECT_TRUE(tree.is_idle());
}

// A place that somebody holds as that of a record is not overwritten by a longer one.
TEST(BtreeSearchVacantPlace, PlaceThatIsOpenAsARecord_DoesNotBecomeVacant) {
  TestTree tree({.records = numbered_records(40)});
  tree.open();
  const Bytes root = tree.bytes(tree.root(), 0, tree.node_size());
  const std::uint16_t count = get_be16(root, kNumRecords);
  const std::uint16_t begin = tree.entry(tree.root(), count - 1u);
  const std::uint16_t end = tree.entry(tree.root(), count);
  kvfs_btree_record_locator* held = nullptr;
  ASSERT_EQ(kvfs_btree_record_locator_open(tree.get(), tree.root(), count, root.data() + begin,
                                           static_cast<std::size_t>(end - begin),
                                           std::uint64_t{tree.root()} * tree.node_size() + begin, &held),
            kvfs_ok);
  const Bytes key = number_key(999);
  kvfs_btree_search_result found = {};
  LogCapture log;
  ASSERT_EQ(kvfs_btree_search_node_internal(tree.get(), key.data(), 0, kSearchToHeight, 2, &found), kvfs_ok);
  EXPECT_EQ(found.locator, held);
  EXPECT_EQ(held->priv->reference_count, 2u);
  EXPECT_EQ(held->priv->is_vacant, 0u);
  EXPECT_LOG(log);
  kvfs_btree_search_result_release(&found);
  kvfs_btree_record_locator_close(&held);
  EXPECT_TRUE(tree.is_idle());
}

// Every byte of a leaf and of an index node is damaged in turn: whatever a search says of it, it ends, and it keeps
// inside the node and leaves nothing behind.
class BtreeSearchEveryByte : public ::testing::TestWithParam<std::uint8_t> {};

TEST_P(BtreeSearchEveryByte, Damaged_EndsInSuccessOrAKnownFailure) {
  const std::set<std::string> known = {"result 3", "result 6"};
  TreeOptions options = {.records = numbered_records(6)};
  options.shape.max_leaf_records = 3;
  options.shape.spare_nodes = 0;
  TestTree tree(options);
  const std::uint32_t index_node = tree.root();
  tree.open();
  (void)tree.search(10);
  (void)tree.search(60);
  unsigned char* const item = tree.get()->fork->priv->items[0]->data;
  // The rest of the cache item: whoever reads beyond the root, the last node, is caught.
  const std::size_t end = (index_node + std::size_t{1}) * 512;
  forbid_use(item + end, kForkItemSize - end);
  const Numbers32 nodes = {tree.leaf(0), index_node};
  for (const std::uint32_t node : nodes) {
    for (std::size_t offset = 0; offset < 512; ++offset) {
      unsigned char* const byte = item + std::size_t{node} * 512 + offset;
      const unsigned char before = *byte;
      *byte = GetParam();
      LogCapture log;
      for (const std::uint32_t number : Numbers32{0, 10, 25, 30, 60, 99}) {
        for (const std::uint8_t mode : Numbers8{kSearchToLeaf, kSearchToHeight}) {
          const std::string said = tree.search_internal(number, 0, mode, 2);
          EXPECT_TRUE(said.starts_with("result 0 ") || known.count(said) != 0) << said << " for byte " << offset;
        }
      }
      EXPECT_TRUE(tree.is_idle()) << offset;
      *byte = before;
    }
  }
  permit_use(item, kForkItemSize);
}

INSTANTIATE_TEST_SUITE_P(Values, BtreeSearchEveryByte,
                         ::testing::Values(std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{0x0D},
                                           std::uint8_t{0x7F}, std::uint8_t{0x80}, std::uint8_t{0xFE},
                                           std::uint8_t{0xFF}));

// ---- Faults --------------------------------------------------------------------------------------------------------

const std::string kNotLocked =
    "ERROR kvfs_btree_search_node Error while acquiring open locators list lock in write mode.\n";
const std::string kNotUnlocked =
    "ERROR kvfs_btree_search_node Error while releasing open locators list read-mode lock.\n";

// What a search in a tree of height 3 does with the fork and the lock.
std::vector<Step> steps_of_search(const TestTree& tree) {
  const std::uint32_t index_node = tree.node_at(2, 0);
  const auto mapping_of = [](std::uint32_t node) {
    return search_error("Error while mapping raw node data of node " + std::to_string(node) + ".");
  };
  const auto unmapping_of = [](std::uint32_t node) {
    return search_error("Error while unmapping raw node data of node at offset " + std::to_string(node * 512) + ".");
  };
  return {
      {Step::Kind::kWriteLock, kNotLocked},
      {Step::Kind::kMap, search_error("Error while mapping B-tree header record.")},
      {Step::Kind::kMap, search_error("Error while mapping raw node data.")},
      {Step::Kind::kUnmap, unmapping_of(tree.root())},
      {Step::Kind::kMap, mapping_of(index_node)},
      {Step::Kind::kUnmap, unmapping_of(index_node)},
      {Step::Kind::kMap, mapping_of(tree.leaf(0))},
      {Step::Kind::kUnmap, search_error("Error while unmapping raw node data.")},
      {Step::Kind::kUnmap, search_error("Error while unmapping B-tree header record.")},
      {Step::Kind::kUnlock, kNotUnlocked},
  };
}

// Q-btree-25, X-lock-1
TEST(BtreeSearchFault, EachLockCallFailing_IsReportedWhereItHappened) {
  TestTree tree(small_nodes(8));
  ASSERT_EQ(tree.plan().levels.size(), 3u);
  const Bytes key = number_key(10);
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    const Lines messages = messages_of(steps_of_search(tree), call);
    const unsigned long failures = fail_each(each(call), [&](FailingRun& run) {
      tree.open();
      kvfs_btree_search_result found = {7, 8, nullptr};
      const kvfs_result result = run.operate([&] { return kvfs_btree_search_node(tree.get(), key.data(), &found); });
      EXPECT_EQ(result, run.failed() ? kvfs_failed : kvfs_ok);
      EXPECT_EQ(tree_lines(run.log()), run.failed() ? Lines{messages.at(run.n() - 1)} : Lines{});
      if (run.failed()) {
        EXPECT_EQ(found.found, 7u);
        EXPECT_EQ(found.after, 8u);
        EXPECT_EQ(found.locator, nullptr);
        EXPECT_EQ(tree.locators(), Lines{});
      }
      kvfs_btree_search_result_release(&found);
      EXPECT_EQ(tree.search(30), outcome(1, 0, tree.leaf(1), 0, 30)) << "the next search";
      tree.forget_references();
      tree.close();
    });
    EXPECT_EQ(failures, messages.size()) << call_name(call);
  }
}

TEST(BtreeSearchFault, EachReadFailing_IsReportedWithItsNode) {
  TestTree tree(small_nodes(8));
  const Lines messages = {
      search_error("Error while mapping raw node data."),
      search_error("Error while mapping raw node data of node " + std::to_string(tree.node_at(2, 0)) + "."),
      search_error("Error while mapping raw node data of node " + std::to_string(tree.leaf(0)) + ".")};
  const std::string found = outcome(1, 0, tree.leaf(0), 0, 10);
  for (const Fault& fault : transfer_faults()) {
    const unsigned long failures = fail_each(each(Call::kPread64, fault), [&](FailingRun& run) {
      tree.open();
      const std::string said = run.operate([&] { return tree.search(10); });
      EXPECT_EQ(said, run.failed() ? "result 4" : found);
      EXPECT_EQ(tree_lines(run.log()), run.failed() ? Lines{messages.at(run.n() - 1)} : Lines{});
      EXPECT_EQ(tree.locators(), Lines{});
      EXPECT_EQ(tree.search(10), found) << "the next search";
      tree.forget_references();
      tree.close();
    });
    EXPECT_EQ(failures, messages.size());
  }
}

TEST(BtreeSearchFault, HeaderThatIsReadAgain_IsReported) {
  // The tree's own header is in the cache from its opening on; only a lock can fail there, or a fork that shrank.
  TestTree tree(small_nodes(8));
  tree.open();
  tree.get()->fork->priv->logical_size = 100;
  LogCapture log;
  EXPECT_EQ(tree.search(10), "result 3");
  EXPECT_EQ(tree_lines(log), Lines{search_error("Error while mapping B-tree header record.")});
}

TEST(BtreeSearchFault, EachAllocationFailing_LeavesNothingBehind) {
  TestTree tree({.records = numbered_records(400, 4000), .shape = shape_of(8192)});
  tree.open();
  ASSERT_GT(tree.get()->fork->priv->items_length, 1u);
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    const std::string said = run.operate([&] { return tree.search(4000); });  // in the second item, not there yet
    if (!run.failed()) {
      EXPECT_EQ(said, expected_outcome(tree, 4000));
      return;
    }
    EXPECT_EQ(said, "result 2");
    EXPECT_EQ(tree.locators(), Lines{});
    const Lines lines = tree_lines(run.log());
    ASSERT_FALSE(lines.empty());
    if (lines.size() == 2) {
      EXPECT_TRUE(lines[0].starts_with("ERROR kvfs_btree_record_locator_open Error while allocating "));
      EXPECT_EQ(lines[1], search_error("HFSPlus:kvfs_btree_search_node_internal: Not enough memory"));
    } else {
      EXPECT_TRUE(lines[0].starts_with("ERROR kvfs_btree_search_node_internal Error while mapping raw node data"));
    }
  });
  EXPECT_GT(failures, 3u);
  tree.forget_references();
}

TEST(BtreeSearchFault, FailureToUnmap_DoesNotReplaceAnEarlierFailure) {
  TestTree tree({.records = numbered_records(5)});
  tree.set_entry(tree.root(), 0, 20);
  tree.open();
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail_from(Call::kRwlockRdlock, 3);  // both mappings are made, none can be given back
    EXPECT_EQ(tree.search(10), "result 6");
    EXPECT_EQ(tree_lines(log), (Lines{search_error("HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in " +
                                                   std::to_string(tree.root()) + " is 20, and not 14!"),
                                      search_error("Error while unmapping raw node data."),
                                      search_error("Error while unmapping B-tree header record.")}));
  }
  tree.forget_references();
}

TEST(BtreeSearchFault, FailureToUnlock_DoesNotReplaceAnEarlierFailure) {
  TestTree tree({.records = numbered_records(5)});
  tree.open();
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1);
  kvfs_btree_search_result found = {7, 8, nullptr};
  EXPECT_EQ(kvfs_btree_search_node(tree.get(), nullptr, &found), kvfs_invalid);
  EXPECT_EQ(tree_lines(log),
            (Lines{search_error("HFSPlus:kvfs_btree_search_node_internal: Invalid Search key"), kNotUnlocked}));
}

TEST(BtreeSearchFault, SharedLocatorOfAFailedSearch_KeepsItsOtherReference) {
  TestTree tree({.records = numbered_records(5)});
  tree.open();
  kvfs_btree_record_locator* kept = tree.locate(30);
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail(Call::kRwlockRdlock, 3);  // header and node are mapped, the node cannot be given back
    EXPECT_EQ(tree.search(30), "result 1");
    EXPECT_EQ(tree_lines(log), Lines{search_error("Error while unmapping raw node data.")});
  }
  EXPECT_EQ(tree.locators(), Lines{std::to_string(tree.root()) + " 2 x1"});
  EXPECT_EQ(number_of(kept->key), 30u);
  kvfs_btree_record_locator_close(&kept);
  tree.forget_references();
}

// ---- Threads -------------------------------------------------------------------------------------------------------

// Each thread searches, iterates and closes all over the tree and rewrites records of its own.
void work_on_tree(TestTree& tree, std::uint32_t thread, std::uint32_t threads, int rounds) {
  std::uint32_t state = thread + 1;
  for (int i = 0; i < rounds; ++i) {
    state = state * 1664525 + 1013904223;
    const std::uint32_t number = 10 * (1 + (state >> 8) % 200);
    kvfs_btree_record_locator* locator = tree.locate(number);
    ASSERT_NE(locator, nullptr);
    EXPECT_EQ(number_of(locator->key), number);
    kvfs_btree_record_locator* following = tree.next(locator);
    if (number < 2000) {
      ASSERT_NE(following, nullptr);
      EXPECT_EQ(number_of(following->key), number + 10);
      kvfs_btree_record_locator_close(&following);
    }
    if (number / 10 % threads == thread) {
      const Bytes data(locator->data_size, static_cast<std::uint8_t>(i));
      EXPECT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_ok);
    }
    kvfs_btree_record_locator_close(&locator);
  }
}

TEST(BtreeThreads, SearchesIterationsAndWrites_GoTogether) {
  TreeOptions options = {.records = numbered_records(200)};
  options.shape.height = 4;
  TestTree tree(options);
  tree.open();
  constexpr std::uint32_t kThreads = 4;
  LogCapture log;
  std::vector<std::thread> threads;
  for (std::uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&tree, i] { work_on_tree(tree, i, kThreads, 300); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(tree.is_idle());
  EXPECT_LOG(log);
}

}  // namespace
}  // namespace kvfs_test
