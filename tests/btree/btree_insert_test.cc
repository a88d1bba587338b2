// Insertion into a node with room, the index record of a node with a new first key, and building records.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree_change_fixture.h"
#include "fork/private.h"

namespace kvfs_test {
namespace {

const char* const kInsert = "kvfs_btree_insert_record_internal";

kvfs_result insert_and_release(ChangeTree& tree, const Record& record, const kvfs_btree_search_result* hint = nullptr) {
  kvfs_btree_record_locator* locator = nullptr;
  const kvfs_result result = kvfs_btree_insert_record(tree.get(), record.first.data(), record.second.data(),
                                                      static_cast<std::uint16_t>(record.second.size()), hint, &locator);
  if (locator != nullptr) {
    release(locator);
  }
  return result;
}

class BtreeInsert : public ::testing::Test {
 protected:
  BtreeInsert() : tree_(three_leaves()) { tree_.open(); }

  // The record that a locator was opened on when a hint names it.
  kvfs_btree_search_result hint_at(std::uint32_t node, std::uint16_t index, std::uint32_t after = 0) {
    return {0, after, tree_.locator_at(node, index)};
  }

  ChangeTree tree_;
};

// ---- In place ------------------------------------------------------------------------------------------------------

TEST_F(BtreeInsert, BetweenTwoRecords_MovesThoseBehindAndCountsTheRecord) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree_.insert(65), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 65 70 80");
  const NodeContent leaf = tree_.content(2);
  EXPECT_EQ(leaf.offsets, (std::vector<std::uint16_t>{14, 32, 50, 68, 86, 104}));
  EXPECT_EQ(leaf.records, packed_all({number_record(50), number_record(60), number_record(65), number_record(70),
                                      number_record(80)}));
  EXPECT_EQ(tree_.field(0, kHeaderLeafRecords, 4), 13u);
  EXPECT_EQ(tree_.changed_since(before), (Lines{"0", "2"}));
  Bytes header = before[0];
  put_be(header, kHeaderLeafRecords, 4, 13);
  EXPECT_EQ(tree_.cached_node(0), header);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, BehindTheLastRecord_MovesNothing) {
  const Bytes before = tree_.cached_node(3);
  LogCapture log;
  EXPECT_EQ(tree_.insert(125), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(3), "leaf 3 of height 1, 2 < > 0: 90 100 110 120 125");
  Bytes expected = before;
  put_be(expected, kNumRecords, 2, 5);
  const Bytes record = packed(number_record(125));
  std::copy(record.begin(), record.end(), expected.begin() + 14 + 4 * 18);
  put_be(expected, 512 - 2 * 6, 2, 14 + 5 * 18);
  EXPECT_EQ(tree_.cached_node(3), expected);
  EXPECT_EQ(tree_.field(0, kHeaderLeafRecords, 4), 13u);
}

TEST_F(BtreeInsert, BehindTheLastRecordOfAMiddleLeaf_StaysInThatLeaf) {
  EXPECT_EQ(tree_.insert(85), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 70 80 85");
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 90>3");
}

TEST_F(BtreeInsert, Locator_IsOnTheNewRecord) {
  const Record record = number_record(65, 20);
  kvfs_btree_record_locator* locator = nullptr;
  ASSERT_EQ(kvfs_btree_insert_record(tree_.get(), record.first.data(), record.second.data(), 20, nullptr, &locator),
            kvfs_ok);
  EXPECT_EQ(tree_.locators(), Lines{"2 2 x1"});
  EXPECT_EQ(place_of(locator, 512), "2 2 +56");
  EXPECT_EQ(locator->key_length, 6u);
  EXPECT_EQ(Bytes(locator->key, locator->key + 6), record.first);
  EXPECT_EQ(locator->data_size, 20u);
  EXPECT_EQ(Bytes(locator->data, locator->data + 20), record.second);
  kvfs_btree_record_locator_close(&locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, NewRecord_IsFoundAndReachesTheDeviceWithTheFlush) {
  const Bytes on_device = tree_.bytes(2, 0, 512);
  EXPECT_EQ(tree_.insert(65), kvfs_ok);
  EXPECT_EQ(tree_.search(65), outcome(1, 0, 2, 2, 65));
  EXPECT_EQ(tree_.bytes(2, 0, 512), on_device);
  EXPECT_EQ(tree_.flush(), (Lines{"0", "2"}));
  EXPECT_EQ(tree_.bytes(2, 0, 512), tree_.cached_node(2));
}

TEST_F(BtreeInsert, OddKeyAndOddData_ArePaddedWithZeros) {
  tree_.poke_bytes(2, 14 + 4 * 18, Bytes(100, 0xAA));  // free space that was used before
  const Record record = {{0, 5, 0, 0, 0, 65, 1}, {1, 2, 3}};
  ASSERT_EQ(tree_.insert(record), kvfs_ok);
  EXPECT_EQ(tree_.content(2).offsets, (std::vector<std::uint16_t>{14, 32, 50, 62, 80, 98}));
  EXPECT_EQ(tree_.content(2).records[2], (Bytes{0, 5, 0, 0, 0, 65, 1, 0, 1, 2, 3, 0}));
  // At the end, where the old bytes are not moved away but written over.
  const Record last = {{0, 5, 0, 0, 0, 85, 1}, {4}};
  ASSERT_EQ(tree_.insert(last), kvfs_ok);
  EXPECT_EQ(tree_.content(2).records[5], (Bytes{0, 5, 0, 0, 0, 85, 1, 0, 4, 0}));
}

TEST_F(BtreeInsert, RecordWithoutData_IsAKeyAlone) {
  ASSERT_EQ(tree_.insert(number_record(65, 0)), kvfs_ok);
  EXPECT_EQ(tree_.content(2).offsets, (std::vector<std::uint16_t>{14, 32, 50, 56, 74, 92}));
  EXPECT_EQ(tree_.content(2).records[2], number_key(65));
}

TEST_F(BtreeInsert, ExistingKey_IsRefusedAndChangesNothing) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  {
    FaultInjector faults;
    EXPECT_EQ(insert_and_release(tree_, number_record(60)), kvfs_exists);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_LOG(log, insert_error("ERROR:Unable to insert because already exists?!"));
  EXPECT_EQ(tree_.changed_since(before), Lines());
  EXPECT_EQ(tree_.flush(), Lines());
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, RoomToTheLastByte_NeedsNoSplit) {
  // Four records of 18 bytes leave 512 - 86 - 10 = 416 bytes: enough for a record of 414 and its entry.
  ASSERT_EQ(tree_.insert(record_of_size(65, 414)), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 65 70 80");
  EXPECT_EQ(tree_.content(2).offsets.back(), 500u);
  EXPECT_EQ(tree_.field(0, kHeaderFreeNodes, 4), tree_.plan().total_nodes - 5u);
}

TEST_F(BtreeInsert, TwoBytesMoreThanRoom_Split) {
  ASSERT_EQ(tree_.insert(record_of_size(85, 416)), kvfs_ok);
  EXPECT_EQ(tree_.field(0, kHeaderFreeNodes, 4), tree_.plan().total_nodes - 6u);
  EXPECT_EQ(tree_.content(2).records.size() + tree_.content(5).records.size(), 5u);
}

// A node holds 512 - 18 bytes of a single record, besides its descriptor and two entries.
TEST(BtreeInsertSize, LargestRecord_FillsAnEmptyNode) {
  ChangeTree tree({.records = {number_record(10)}});
  tree.open();
  kvfs_btree_search_result hint = {0, 0, tree.locate(10)};
  ASSERT_EQ(kvfs_btree_delete_record(tree.get(), hint.locator, 0), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(tree.insert(record_of_size(20, 494), &hint), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 0: 20");
  EXPECT_EQ(tree.content(1).offsets, (std::vector<std::uint16_t>{14, 508}));
  release(hint.locator);
}

TEST_F(BtreeInsert, RecordOneByteTooLarge_IsRefusedBeforeAnythingChanges) {
  for (const std::size_t data_size : {489u, 490u}) {  // both make a record of 496 bytes
    const std::vector<Bytes> before = tree_.cached_nodes();
    LogCapture log;
    EXPECT_EQ(tree_.insert(number_record(65, data_size)), kvfs_limit);
    EXPECT_LOG(log, insert_error("Record cannot fit in a node given the B-tree's node size of 512 bytes (need 514 "
                                 "bytes)."));
    EXPECT_EQ(tree_.changed_since(before), Lines());
    EXPECT_EQ(tree_.flush(), Lines());
  }
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, HugeKeyAndData_AreRefused) {
  Bytes key(65537);
  put_be(key, 0, 4, 0xFFFF0000);
  put_be(key, 4, 2, 65);
  LogCapture log;
  EXPECT_EQ(tree_.insert({key, Bytes(65535)}), kvfs_limit);
  // 65,536 bytes of padded key, 65,536 of padded data, 2 of the key's length and the 18 of the node.
  EXPECT_LOG(log, insert_error("Record cannot fit in a node given the B-tree's node size of 512 bytes (need 131092 "
                               "bytes)."));
}

TEST(BtreeInsertSize, NextChange_TakesTheMemoryForNodesThatTheTreeHasKept) {
  ChangeTree tree({.records = {number_record(10)}});
  tree.open();
  ASSERT_EQ(tree.insert(number_record(20)), kvfs_ok);
  const std::size_t kept = kept_nodes(tree.get());
  EXPECT_EQ(kept, 1u);
  kvfs_btree_record_locator* const locator = tree.locate(20);
  ASSERT_EQ(kvfs_btree_delete_record(tree.get(), locator, 0), kvfs_ok);
  release(locator);
  ASSERT_EQ(tree.insert(number_record(30)), kvfs_ok);
  EXPECT_EQ(kept_nodes(tree.get()), kept);
}

TEST(BtreeInsertSize, NodesOf32KiB_TakeTheLargestRecord) {
  ChangeTree tree({.records = {number_record(10)}, .shape = shape_of(32768)});
  tree.open();
  kvfs_btree_search_result hint = {0, 0, tree.locate(10)};
  ASSERT_EQ(kvfs_btree_delete_record(tree.get(), hint.locator, 0), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(tree.insert(number_record(20, 32768 - 18 - 6 + 1), &hint), kvfs_limit);
  EXPECT_LOG(log, insert_error("Record cannot fit in a node given the B-tree's node size of 32768 bytes (need 32770 "
                               "bytes)."));
  EXPECT_EQ(tree.insert(number_record(20, 32768 - 18 - 6), &hint), kvfs_ok);
  EXPECT_EQ(tree.content(1).offsets, (std::vector<std::uint16_t>{14, 32764}));
  release(hint.locator);
}

// ---- The index -----------------------------------------------------------------------------------------------------

TEST_F(BtreeInsert, FirstRecordOfALeaf_ReplacesItsIndexRecord) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree_.insert(5), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(1), "leaf 1 of height 1, 0 < > 2: 5 10 20 30 40");
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 5>1 50>2 90>3");
  EXPECT_EQ(tree_.changed_since(before), (Lines{"0", "1", "4"}));
  EXPECT_EQ(tree_.field(0, kHeaderLeafRecords, 4), 13u);  // the index record is not counted
  EXPECT_EQ(tree_.search(5), outcome(1, 0, 1, 0, 5));
  EXPECT_TRUE(tree_.is_idle());
}

TEST(BtreeInsertIndex, FirstRecordOfTheTree_ReplacesItsIndexRecordsUpToTheRoot) {
  ChangeTree tree(three_levels());
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.insert(5), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 2: 5 10 20 30");
  EXPECT_EQ(tree.show(5), "index 5 of height 2, 0 < > 6: 5>1 40>2");
  EXPECT_EQ(tree.show(7), "index 7 of height 3, 0 < > 0: 5>5 70>6");
  EXPECT_EQ(tree.field(0, kHeaderLeafRecords, 4), 13u);
  EXPECT_EQ(tree.search(5), outcome(1, 0, 1, 0, 5));
  EXPECT_EQ(tree.search(120), outcome(1, 0, 4, 2, 120));
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeInsertIndex, IndexRecordOfAnotherLength_IsReplaced) {
  ChangeTree tree(three_levels());
  tree.open();
  const Record longer = {{0, 8, 0, 0, 0, 1, 9, 9, 9, 9}, {1, 2}};
  EXPECT_EQ(tree.insert(longer), kvfs_ok);
  EXPECT_EQ(tree.content(5).records[0], (Bytes{0, 8, 0, 0, 0, 1, 9, 9, 9, 9, 0, 0, 0, 1}));
  EXPECT_EQ(tree.content(7).records[0], (Bytes{0, 8, 0, 0, 0, 1, 9, 9, 9, 9, 0, 0, 0, 5}));
  const Record shorter = {{0, 2, 0, 0}, {1, 2}};
  EXPECT_EQ(tree.insert(shorter), kvfs_ok);
  EXPECT_EQ(tree.content(5).records[0], (Bytes{0, 2, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(tree.content(7).records[0], (Bytes{0, 2, 0, 0, 0, 0, 0, 5}));
  EXPECT_EQ(tree.show(6), "index 6 of height 2, 5 < > 0: 70>3 100>4");
}

TEST(BtreeInsertIndex, FirstRecordOfARootLeaf_HasNoIndexRecord) {
  ChangeTree tree(leaves_of(4, 4));
  tree.open();
  const std::vector<Bytes> before = tree.cached_nodes();
  EXPECT_EQ(tree.insert(5), kvfs_ok);
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 0: 5 10 20 30 40");
  EXPECT_EQ(tree.changed_since(before), (Lines{"0", "1"}));
}

// Q-btree-11
TEST_F(BtreeInsert, FormerKeyMissingInTheIndex_IsInconsistentWithoutAMessage) {
  tree_.poke(4, 14 + 2, 4, 9);  // the key of the first index record: 9 instead of 10
  LogCapture log;
  EXPECT_EQ(tree_.insert(5), kvfs_inconsistent);
  EXPECT_LOG(log);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, DamagedIndexNode_FailsTheSearchForTheFormerKey) {
  kvfs_btree_search_result hint = hint_at(1, 0);
  tree_.poke_entry(4, 0, 15);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(5), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 4 is 15, and not 14!"),
             insert_error("Error while searching for index node to modify."));
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

// Q-btree-25
TEST_F(BtreeInsert, IndexRecordThatCannotBeDeleted_FailsWithTheWordsForAnyRecord) {
  kvfs_btree_search_result hint = hint_at(1, 0);
  tree_.poke_entry(4, 3, 20);  // free space before the end of the last record; searching looks at the first one only
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(5), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("$$$: Free space of 20 is greater than node size. Impossible"),
             insert_error("Error while deleting file/folder record from B-tree."));
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, IndexRecordThatCannotBeAdded_FailsTheInsertion) {
  kvfs_btree_search_result hint = hint_at(3, 0);
  LogCapture log;
  // A hint may bring a key that orders before other leaves' keys. This one is the index key of leaf 2.
  EXPECT_EQ(tree_.insert(number_record(50), &hint), kvfs_exists);
  EXPECT_LOG(log, add_index_error("Index record that we wanted to add already exists."),
             insert_error("Error while adding index record."));
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

// X-btree-1, X-btree-7
TEST_F(BtreeInsert, FormerKeyOutsideOfTheNode_IsInconsistent) {
  kvfs_btree_search_result hint = hint_at(1, 0);
  tree_.poke(1, 14, 2, 500);  // the length of the first key
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(5), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("Invalid node data: Key at offset 32 of node 1 lies outside of the node."));
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

// Deletions leave a locator where it is, which then is far behind the last record: no insertion moves it any more.
// Q-btree-21
TEST_F(BtreeInsert, LocatorBehindThePlaceAtTheEnd_KeepsItsIndex) {
  kvfs_btree_record_locator* const last = tree_.locate(80);
  kvfs_btree_record_locator* const place = tree_.locate(70);
  ASSERT_EQ(tree_.remove(50), kvfs_ok);
  ASSERT_EQ(tree_.remove(60), kvfs_ok);
  place->priv->index = 2;
  ASSERT_EQ(*last->index, 3u);  // of two records
  EXPECT_EQ(tree_.insert(75), kvfs_ok);
  EXPECT_EQ(*place->index, 3u);
  EXPECT_EQ(*last->index, 3u);
  release(place);
  release(last);
}

// A search for a place ends behind the last record of a node that is neither leaf nor index node, where nobody would
// find the new one.
// X-btree-21
TEST_F(BtreeInsert, NodeThatIsNoLeaf_IsRefused) {
  for (const std::int8_t kind : {kBTMapNode, kBTHeaderNode, std::int8_t{5}}) {
    ChangeTree tree(three_leaves());
    tree.open();
    tree.poke(2, offsetof(BTNodeDescriptor, kind), 1, static_cast<std::uint8_t>(kind));
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(tree.insert(65), kvfs_inconsistent);
    EXPECT_LOG(log, insert_error("Invalid node data: Record 4 has no place among those of node 2."));
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_TRUE(tree.is_idle());
  }
}

// An index record of that height has the leaf's first key, too, but leads to another node.
// X-btree-10
TEST_F(BtreeInsert, FirstRecordOfALeafOfAnotherHeight_IsRefused) {
  ChangeTree tree(three_levels());
  tree.open();
  const std::uint32_t leaf = tree.node_at(1, 0);
  tree.poke(leaf, kHeight, 1, 2);
  const std::vector<Bytes> before = tree.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree.insert(5), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("B-tree of depth 3 cannot be maintained at height 2."));
  EXPECT_EQ(tree.changed_since(before), Lines());
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-10
TEST_F(BtreeInsert, HeightThatFillsItsByte_IsTooLarge) {
  kvfs_btree_search_result hint = hint_at(1, 0);
  tree_.poke(1, kHeight, 1, 255);
  tree_.poke(0, kHeaderTreeDepth, 2, 256);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(5), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("B-tree depth too large."));
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, NodeOfTheTreesHeight_HasNoIndexRecord) {
  for (const std::uint8_t height : Numbers8{2, 3, 255}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_search_result hint = {0, 0, tree.locator_at(1, 0)};
    tree.poke(1, kHeight, 1, height);
    LogCapture log;
    EXPECT_EQ(tree.insert(number_record(5), &hint), kvfs_ok);
    EXPECT_LOG(log);
    EXPECT_EQ(tree.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 90>3");
    release(hint.locator);
  }
}

// X-btree-10
TEST_F(BtreeInsert, TreeDeeperThanSixteenLevels_IsRefusedBeforeAnythingChanges) {
  for (const std::uint16_t depth : Numbers16{17, 254, 255, 0xFFFF}) {
    ChangeTree tree(three_leaves());
    tree.open();
    tree.poke(0, kHeaderTreeDepth, 2, depth);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(tree.insert(5), kvfs_inconsistent);
    EXPECT_LOG(log, insert_error("B-tree of depth " + std::to_string(depth) + " cannot be maintained at height 1."));
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_TRUE(tree.is_idle());
  }
}

// There is no index above the root that would have to be maintained.
TEST(BtreeInsertRoot, OfATreeDeeperThanSixteenLevels_TakesANewFirstRecord) {
  for (const std::uint8_t depth : Numbers8{17, 254, 255}) {
    ChangeTree tree({.records = {number_record(10)}});
    tree.open();
    tree.poke(0, kHeaderTreeDepth, 2, depth);
    tree.poke(1, kHeight, 1, depth);
    LogCapture log;
    EXPECT_EQ(tree.insert(5), kvfs_ok);
    EXPECT_LOG(log);
    EXPECT_EQ(tree.show(1), "leaf 1 of height " + std::to_string(depth) + ", 0 < > 0: 5 10");
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-17
TEST_F(BtreeInsert, BehindAnOperationThatHasUsedUpItsWork_HasWorkOfItsOwn) {
  tree_.get()->priv->work_left = 0;
  LogCapture log;
  EXPECT_EQ(tree_.insert(65), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.get()->priv->reserve, 0u);
}

TEST_F(BtreeInsert, TreeOfSixteenLevelsByItsHeader_IsMaintained) {
  tree_.poke(0, kHeaderTreeDepth, 2, 16);
  LogCapture log;
  // The root of height 2 is taken for a node below the root, whose own first record is replaced in turn.
  EXPECT_EQ(tree_.insert(5), kvfs_inconsistent);
  EXPECT_FALSE(log.has("ERROR", kInsert, "too deep"));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, OtherFirstIndex_LeavesTheIndexAlone) {
  tree_.poke(0, kHeaderTreeDepth, 2, 0xFFFF);
  LogCapture log;
  EXPECT_EQ(tree_.insert(15), kvfs_ok);
  EXPECT_LOG(log);
}

// ---- Without a key -------------------------------------------------------------------------------------------------

// X-btree-19
TEST_F(BtreeInsert, WithoutKey_IsInvalid) {
  kvfs_btree_search_result hint = hint_at(2, 1);
  const kvfs_btree_search_result empty = {};
  for (const kvfs_btree_search_result* const place : {static_cast<const kvfs_btree_search_result*>(nullptr), &empty,
                                                      static_cast<const kvfs_btree_search_result*>(&hint)}) {
    const std::vector<Bytes> before = tree_.cached_nodes();
    kvfs_btree_record_locator* locator = nullptr;
    LogCapture log;
    EXPECT_EQ(kvfs_btree_insert_record(tree_.get(), nullptr, "data", 4, place, &locator), kvfs_invalid);
    EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Invalid Search key"),
               insert_error("Error while searching for insert location."));
    EXPECT_EQ(locator, nullptr);
    EXPECT_EQ(tree_.changed_since(before), Lines());
  }
  release(hint.locator);
  EXPECT_TRUE(tree_.is_idle());
}

// ---- Hints ---------------------------------------------------------------------------------------------------------

// Q-btree-10
TEST_F(BtreeInsert, Hint_SparesTheSearchAndStaysTheCallers) {
  kvfs_btree_search_result hint = {};
  const Bytes key = number_key(65);
  ASSERT_EQ(kvfs_btree_search_node(tree_.get(), key.data(), &hint), kvfs_ok);
  EXPECT_EQ(tree_.locators(), Lines{"2 2 x1"});
  const ComparisonRecorder comparisons;
  EXPECT_EQ(tree_.insert(number_record(65), &hint), kvfs_ok);
  EXPECT_TRUE(comparisons.calls().empty());
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 65 70 80");
  EXPECT_EQ(tree_.locators(), Lines{"2 3 x1"});  // it follows its record
  EXPECT_EQ(number_of(hint.locator->key), 70u);
  kvfs_btree_search_result_release(&hint);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, HintBehindTheLastRecord_AppendsTheRecord) {
  kvfs_btree_search_result hint = {};
  const Bytes key = number_key(85);
  ASSERT_EQ(kvfs_btree_search_node(tree_.get(), key.data(), &hint), kvfs_ok);
  EXPECT_EQ(hint.after, 1u);
  EXPECT_EQ(tree_.insert(number_record(85), &hint), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 70 80 85");
  EXPECT_EQ(tree_.locators(), Lines{"2 3 x1"});
  kvfs_btree_search_result_release(&hint);
}

// Q-btree-10
TEST_F(BtreeInsert, HintOnAnExistingKey_IsNotQuestioned) {
  kvfs_btree_search_result hint = {1, 0, tree_.locate(60)};
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(60), &hint), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 60 70 80");
  release(hint.locator);
}

TEST_F(BtreeInsert, HintWithoutLocator_IsSearchedFor) {
  const kvfs_btree_search_result hint = {};
  EXPECT_EQ(tree_.insert(number_record(65), &hint), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 65 70 80");
}

// X-btree-7
TEST_F(BtreeInsert, HintBehindTheFreeSpace_IsInconsistent) {
  kvfs_btree_search_result hint = hint_at(2, 3);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(tree_.remove(50 + 10 * static_cast<std::uint32_t>(i)), kvfs_ok);
  }
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(85), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("Invalid node data: Record 3 has no place among those of node 2."));
  EXPECT_EQ(tree_.changed_since(before), Lines());
  release(hint.locator);
}

TEST_F(BtreeInsert, HintAtTheFreeSpace_IgnoresTheAfterFlag) {
  kvfs_btree_search_result hint = hint_at(2, 3, 1);
  ASSERT_EQ(tree_.remove(70), kvfs_ok);  // the hint keeps its index, which is that of the free space now
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(85), &hint), kvfs_ok);
  EXPECT_LOG(log, message("WARNING", "kvfs_btree_record_locator_open",
                          "Mismatching record data for node 2, record 3. Using specified."));
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 80 85");
  release(hint.locator);
}

// ---- Open locators -------------------------------------------------------------------------------------------------

TEST_F(BtreeInsert, LocatorsBehindTheRecord_FollowTheirRecords) {
  std::vector<kvfs_btree_record_locator*> open;
  for (const std::uint32_t number : Numbers32{40, 50, 60, 70, 80, 90}) {
    open.push_back(tree_.locate(number));
  }
  const Bytes copy(open[3]->key, open[3]->key + 18);
  ASSERT_EQ(tree_.insert(number_record(65, 20)), kvfs_ok);
  Lines places;
  for (kvfs_btree_record_locator* locator : open) {
    places.push_back(place_of(locator, 512));
  }
  // Data lies six bytes behind the record; the new one takes 26.
  EXPECT_EQ(places, (Lines{"1 3 +74", "2 0 +20", "2 1 +38", "2 3 +82", "2 4 +100", "3 0 +20"}));
  EXPECT_EQ(Bytes(open[3]->key, open[3]->key + 18), copy);
  LogCapture log;
  EXPECT_EQ(tree_.locate(70), open[3]);  // shared, without a word about another place or other bytes
  EXPECT_LOG(log);
  release(open[3]);
  for (kvfs_btree_record_locator* locator : open) {
    release(locator);
  }
}

// A deletion leaves locators where they are, so that one may stand at the free space.
TEST_F(BtreeInsert, LocatorAtTheFreeSpace_IsMovedWithIt) {
  kvfs_btree_record_locator* const locator = tree_.locate(80);
  ASSERT_EQ(tree_.remove(60), kvfs_ok);
  EXPECT_EQ(tree_.locators(), Lines{"2 3 x1"});
  ASSERT_EQ(tree_.insert(65), kvfs_ok);
  EXPECT_EQ(tree_.locators(), Lines{"2 4 x1"});
  release(locator);
}

TEST_F(BtreeInsert, LocatorMovedByAnInsertion_WritesToItsRecord) {
  kvfs_btree_record_locator* const locator = tree_.locate(70);
  ASSERT_EQ(tree_.insert(65), kvfs_ok);
  const Bytes data(12, 0x55);
  EXPECT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_ok);
  EXPECT_EQ(tree_.content(2).records[3], packed({number_key(70), data}));
  EXPECT_EQ(tree_.content(2).records[2], packed(number_record(65)));
  release(locator);
}

TEST_F(BtreeInsert, AppendedRecord_MovesNoLocator) {
  std::vector<kvfs_btree_record_locator*> open;
  for (const std::uint32_t number : Numbers32{90, 120}) {
    open.push_back(tree_.locate(number));
  }
  ASSERT_EQ(tree_.insert(125), kvfs_ok);
  EXPECT_EQ(place_of(open[0], 512), "3 0 +20");
  EXPECT_EQ(place_of(open[1], 512), "3 3 +74");
  release(open[0]);
  release(open[1]);
}

TEST_F(BtreeInsert, DeletedLocator_StaysWhereItWas) {
  kvfs_btree_record_locator* const deleted = tree_.locate(70);
  ASSERT_EQ(kvfs_btree_delete_record(tree_.get(), deleted, 0), kvfs_ok);
  ASSERT_EQ(tree_.insert(55), kvfs_ok);
  EXPECT_EQ(place_of(deleted, 512), "2 2 +56 deleted");
  release(deleted);
}

// ---- Damaged nodes -------------------------------------------------------------------------------------------------

TEST_F(BtreeInsert, TooManyRecordsForTheNode_AreInconsistent) {
  // (numRecords + 8) entries have to fit a node: 248 do in 512 bytes.
  for (const std::uint16_t count : Numbers16{249, 0x8000, 0xFFFF}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_search_result hint = {0, 0, tree.locator_at(2, 1)};
    tree.poke(2, kNumRecords, 2, count);
    LogCapture log;
    EXPECT_EQ(tree.insert(number_record(65), &hint), kvfs_inconsistent);
    EXPECT_LOG(log, insert_error("Invalid node data: Value of 'numRecords' (" + std::to_string(count) +
                                 ") is too large for 512 byte node."));
    release(hint.locator);
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST_F(BtreeInsert, AsManyRecordsAsANodeMayHave_PassThatTest) {
  kvfs_btree_search_result hint = hint_at(2, 1);
  tree_.poke(2, kNumRecords, 2, 248);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(65), &hint), kvfs_inconsistent);
  EXPECT_FALSE(log.has("ERROR", kInsert, "too large"));
  release(hint.locator);
}

// Offsets around the new record that contradict each other are refused without a word.
// Q-btree-11
TEST_F(BtreeInsert, OffsetsOutOfOrder_AreInconsistentWithoutAMessage) {
  const struct {
    std::uint32_t index;
    std::uint16_t offset;
  } damages[] = {
      {1, 51},      // behind the next record's
      {1, 0xFFFF},  // far behind
      {2, 31},      // the next record's before the record's own
      {2, 88},      // the next record's behind the free space
      {4, 49},      // the free space before the next record
      {4, 0},       //
      {4, 513},     // the free space behind the node
      {4, 0xFFFF},
  };
  for (const auto& [index, offset] : damages) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_search_result hint = {0, 0, tree.locator_at(2, 1)};
    tree.poke_entry(2, index, offset);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(tree.insert(number_record(55), &hint), kvfs_inconsistent) << index << " " << offset;
    EXPECT_LOG(log);
    EXPECT_EQ(tree.changed_since(before), Lines());
    release(hint.locator);
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST_F(BtreeInsert, FreeSpaceBehindTheNode_IsInconsistentForAnAppendedRecordToo) {
  kvfs_btree_search_result hint = hint_at(2, 3, 1);
  tree_.poke_entry(2, 4, 513);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(85), &hint), kvfs_inconsistent);
  EXPECT_LOG(log);
  release(hint.locator);
}

// X-btree-7
TEST_F(BtreeInsert, PlaceInsideTheDescriptor_IsInconsistent) {
  kvfs_btree_search_result hint = hint_at(2, 1);
  tree_.poke_entry(2, 1, 12);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(55), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("Invalid node data: Record 1 has no place among those of node 2."));
  hint.locator->priv->index = 3;
  hint.after = 1;
  tree_.poke_entry(2, 4, 2);
  LogCapture end_log;
  EXPECT_EQ(tree_.insert(number_record(85), &hint), kvfs_inconsistent);
  EXPECT_LOG(end_log, insert_error("Invalid node data: Record 4 has no place among those of node 2."));
  release(hint.locator);
}

// The free space may end inside of the offset table of a damaged node: that is no room, and too much for a split.
TEST_F(BtreeInsert, FreeSpaceInTheOffsetTable_IsNoRoom) {
  kvfs_btree_search_result hint = hint_at(2, 1);
  tree_.poke_entry(2, 4, 504);
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(55), &hint), kvfs_inconsistent);
  EXPECT_LOG(log, insert_error("Invalid node data: Record offsets are not in order (record 0: 14, record 1: 32, free "
                               "space: 504, record offset array: 502)."));
  release(hint.locator);
}

TEST_F(BtreeInsert, DamageOnTheWayDown_FailsTheSearch) {
  tree_.poke_entry(4, 0, 15);
  LogCapture log;
  EXPECT_EQ(tree_.insert(65), kvfs_inconsistent);
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 4 is 15, and not 14!"),
             insert_error("Error while searching for insert location."));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, HintInANodeOutsideOfTheFork_FailsToRead) {
  kvfs_btree_search_result hint = hint_at(2, 1);
  hint.locator->priv->node = tree_.plan().total_nodes;
  LogCapture log;
  EXPECT_EQ(tree_.insert(number_record(65), &hint), kvfs_invalid);
  EXPECT_EQ(tree_lines(log),
            Lines{insert_error("Error while reading complete node data of node where record should be inserted.")});
  release(hint.locator);
}

// ---- Faults --------------------------------------------------------------------------------------------------------

Use tree_lock() {
  return {Use::Kind::kTreeLock,
          {message("ERROR", "kvfs_btree_insert_record", "Error while acquiring write lock for open locators list.")}};
}

Use tree_unlock() {
  return {Use::Kind::kTreeUnlock,
          {message("CRITICAL", "kvfs_btree_insert_record",
                   "Error while releasing write lock for open locators list. Will probably crash now...")}};
}

Use locator_of_leaf_search() {
  return locator_allocation({search_error("HFSPlus:kvfs_btree_search_node_internal: Not enough memory")});
}

Use locator_of_index_search() {
  return locator_allocation({search_error("Error while creating kvfs_btree_record_locator.")});
}

Uses position_uses(const ChangeTree& tree, const std::vector<std::uint32_t>& nodes) {
  return within(Uses{locator_of_leaf_search()} + search_uses(tree, nodes),
                {insert_error("Error while searching for insert location.")});
}

Use node_read() {
  return {Use::Kind::kRead,
          {insert_error("Error while reading complete node data of node where record should be inserted.")}};
}

Uses take_up_uses() {
  return {{Use::Kind::kAllocation,
           {insert_error("Error while allocating node-sized buffer for modified contents (512 bytes).")}},
          node_read()};
}

Use node_write() {
  return {Use::Kind::kWriteNode, {insert_error("Error while writing out modified node after inserting record.")}};
}

Uses count_uses() {
  return {{Use::Kind::kRead, {insert_error("Error while reading B-tree header record.")}},
          {Use::Kind::kWriteInside,
           {insert_error("Error while writing out incremented leaf record count in header record.")}}};
}

Use header_read() {
  return {Use::Kind::kRead, {insert_error("Error while reading header record.")}};
}

Use new_locator() {
  return locator_allocation({insert_error("Error while creating kvfs_btree_record_locator.")});
}

// The node that takes the new index record lies in the buffer of the one that gave the old one: nothing is allocated.
Uses replacement_uses(const ChangeTree& tree) {
  const Lines deleting = {insert_error("Error while deleting file/folder record from B-tree.")};
  const Lines adding = {insert_error("Error while adding index record.")};
  const Lines searching = {add_index_error("Error while searching for location to insert index record.")};
  const Lines inserting = {add_index_error("Error while inserting index record.")};
  const Uses deletion = {
      {Use::Kind::kMap, {delete_error("Error while mapping B-tree header record.")}},
      {Use::Kind::kAllocation, {delete_error("Error while allocating temporary copy of node data.")}},
      {Use::Kind::kRead, {delete_error("Error while mapping raw node data.")}},
      {Use::Kind::kWriteNode, {delete_error("Error while writing out modified node 4.")}},
      {Use::Kind::kUnmap, {delete_error("Error while unmapping B-tree header record.")}},
  };
  const Uses search = Uses{locator_of_index_search()} + search_uses(tree, {4});
  return within(search, {insert_error("Error while searching for index node to modify.")}) +
         within(deletion, deleting) + within(within(search, searching), adding) +
         within(within(Uses{node_read(), header_read(), node_write(), header_read(), new_locator()}, inserting),
                adding);
}

TEST_F(BtreeInsert, EachFault_IsReportedAndLeavesNothingBehind) {
  const Uses uses = Uses{tree_lock()} + position_uses(tree_, {4, 2}) + take_up_uses() + Uses{node_write()} +
                    count_uses() + Uses{header_read(), new_locator(), tree_unlock()};
  expect_each_fault_reported(three_leaves, uses,
                             [](ChangeTree& tree) { return insert_and_release(tree, number_record(65)); });
}

TEST_F(BtreeInsert, EachFaultWhileTheIndexRecordIsReplaced_IsReportedAndLeavesNothingBehind) {
  const Uses uses = Uses{tree_lock()} + position_uses(tree_, {4, 1}) + take_up_uses() +
                    Uses{header_read(), node_write()} + count_uses() + Uses{header_read()} + replacement_uses(tree_) +
                    Uses{new_locator(), tree_unlock()};
  expect_each_fault_reported(three_leaves, uses,
                             [](ChangeTree& tree) { return insert_and_release(tree, number_record(5)); });
}

TEST_F(BtreeInsert, FailedUnlockAfterAFailedInsertion_KeepsTheFirstFailure) {
  LogCapture log;
  FaultInjector faults;
  const unsigned long unlocks = 1 + 2 * 3 + 2 * 3;  // of a search through two nodes, and the tree's own
  faults.fail(Call::kRwlockUnlock, unlocks);
  EXPECT_EQ(insert_and_release(tree_, number_record(60)), kvfs_exists);
  EXPECT_EQ(faults.delivered(), 1u);
  EXPECT_TRUE(lines_match(tree_lines(log),
                          {insert_error("ERROR:Unable to insert because already exists?!"), tree_unlock().lines[0]}));
}

// X-lock-1
TEST_F(BtreeInsert, FailedUnlock_HandsOutNoLocator) {
  const Record record = number_record(65);
  kvfs_btree_record_locator* locator = nullptr;
  FaultInjector faults;
  EXPECT_EQ(kvfs_btree_insert_record(tree_.get(), record.first.data(), record.second.data(), 12, nullptr, &locator),
            kvfs_ok);
  const unsigned long unlocks = faults.count(Call::kRwlockUnlock);
  kvfs_btree_record_locator_close(&locator);
  const Record other = number_record(66);
  faults.fail(Call::kRwlockUnlock, faults.count(Call::kRwlockUnlock) + unlocks);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_insert_record(tree_.get(), other.first.data(), other.second.data(), 12, nullptr, &locator),
            kvfs_failed);
  EXPECT_EQ(locator, nullptr);
  EXPECT_EQ(faults.delivered(), 1u);
  EXPECT_EQ(tree_lines(log), tree_unlock().lines);
  EXPECT_TRUE(tree_.is_idle());
}

TEST(BtreeInsertFaults, EachReadOfTheDevice_IsReported) {
  // Nothing is cached but the header: a search reads the root and the leaf, the insertion finds both in the cache.
  const std::vector<Lines> expected = {
      {search_error("Error while mapping raw node data."), insert_error("Error while searching for insert location.")},
      {search_error("Error while mapping raw node data of node 2."),
       insert_error("Error while searching for insert location.")},
  };
  const unsigned long failures = fail_each(each(Call::kPread64), [&](FailingRun& run) {
    ChangeTree tree(three_leaves());
    tree.open();
    const kvfs_result result = run.operate([&] { return insert_and_release(tree, number_record(65)); });
    const FaultInjector::Pause pause;
    EXPECT_EQ(result, run.failed() ? kvfs_io_error : kvfs_ok);
    EXPECT_EQ(tree_lines(run.log()), run.failed() ? expected.at(run.n() - 1) : Lines());
    EXPECT_EQ(tree.locators(), Lines());
    EXPECT_EQ(run.faults().writes().size(), 0u);
    tree.forget_references();
  });
  EXPECT_EQ(failures, expected.size());
}

TEST_F(BtreeInsert, TreeLock_IsHeldForWritingOverTheWholeInsertion) {
  FaultInjector faults;
  EXPECT_EQ(insert_and_release(tree_, number_record(5)), kvfs_ok);
  EXPECT_EQ(tree_.tree_locks(faults), (Lines{"write", "unlock"}));
}

// ---- Records and index records -------------------------------------------------------------------------------------

TEST(BtreeMakeRecord, EachShortage_IsInternal) {
  const Bytes key = {0, 3, 'a', 'b', 'c'};
  const Bytes data = {1, 2, 3};
  const struct {
    std::uint16_t record_size;
    const char* text;  // null for success
  } cases[] = {
      {4, "Not enough space for the record key."},
      {5, "Not enough space for record key padding."},
      {6, "Not enough space for the record data."},
      {8, "Not enough space for the record data."},
      {9, "Not enough space for record data padding."},
      {10, nullptr},
      {11, "Unexpected: Calculation mismatch between cur_offset (10) and record_size (11)."},
      {12, "Unexpected: Calculation mismatch between cur_offset (10) and record_size (12)."},
  };
  for (const auto& [record_size, text] : cases) {
    Bytes record(record_size, 0xEE);
    LogCapture log;
    const kvfs_result result = kvfs_btree_node_make_record(key.data(), 3, data.data(), 3, record.data(), record_size);
    EXPECT_EQ(result, text != nullptr ? kvfs_internal : kvfs_ok) << record_size;
    if (text != nullptr) {
      EXPECT_LOG(log, message("CRITICAL", "kvfs_btree_node_make_record", text));
    } else {
      EXPECT_LOG(log);
      EXPECT_EQ(record, (Bytes{0, 3, 'a', 'b', 'c', 0, 1, 2, 3, 0}));
    }
  }
}

TEST(BtreeMakeRecord, EvenParts_HaveNoPadding) {
  const Bytes key = {0, 2, 'a', 'b'};
  const Bytes data = {1, 2};
  Bytes record(6, 0xEE);
  EXPECT_EQ(kvfs_btree_node_make_record(key.data(), 2, data.data(), 2, record.data(), 6), kvfs_ok);
  EXPECT_EQ(record, (Bytes{0, 2, 'a', 'b', 1, 2}));
  Bytes bare(4, 0xEE);
  EXPECT_EQ(kvfs_btree_node_make_record(key.data(), 2, nullptr, 0, bare.data(), 4), kvfs_ok);
  EXPECT_EQ(bare, key);
}

TEST_F(BtreeInsert, AddIndexRecord_PutsItInOrder) {
  LogCapture log;
  EXPECT_EQ(kvfs_btree_add_index_record(tree_.get(), number_key(70).data(), 2, 0x01020304), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 70>16909060 90>3");
  EXPECT_EQ(tree_.field(0, kHeaderLeafRecords, 4), 12u);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeInsert, AddIndexRecordThatExists_IsRefused) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(kvfs_btree_add_index_record(tree_.get(), number_key(50).data(), 2, 7), kvfs_exists);
  EXPECT_LOG(log, add_index_error("Index record that we wanted to add already exists."));
  EXPECT_EQ(tree_.changed_since(before), Lines());
  EXPECT_TRUE(tree_.is_idle());
}

// The search for the place leaves its locator under the index at which the record goes, where it meets the new record
// when that is the last one of its node.
TEST_F(BtreeInsert, AddIndexRecordAtTheEnd_SharesTheSearchsLocator) {
  LogCapture log;
  EXPECT_EQ(kvfs_btree_add_index_record(tree_.get(), number_key(200).data(), 2, 7), kvfs_ok);
  const std::string warning = "WARNING kvfs_btree_record_locator_open Mismatching ";
  EXPECT_LOG(log,
             warning +
                 "data pointer offset for node 4, record 3 (stored: " + std::to_string(4 * 512 + 14 + 2 * 10 + 6) +
                 " specified: " + std::to_string(4 * 512 + 14 + 3 * 10 + 6) + "). Using specified.\n",
             warning + "record data for node 4, record 3. Using specified.\n");
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 90>3 200>7");
  EXPECT_TRUE(tree_.is_idle());
}

// X-btree-6
TEST_F(BtreeInsert, AddLongerIndexRecordAtTheEnd_Succeeds) {
  const Bytes key = {0, 10, 0, 0, 0, 200, 1, 2, 3, 4, 5, 6};
  LogCapture log;
  EXPECT_EQ(kvfs_btree_add_index_record(tree_.get(), key.data(), 2, 7), kvfs_ok);
  EXPECT_EQ(tree_.content(4).records.at(3), packed({key, {0, 0, 0, 7}}));
  EXPECT_TRUE(tree_.is_idle());
}

// The search ends behind the last record of the root, which is no place for an index record of that height: a full one
// would be split for it, and the record of that split would come to the same place again.
// X-btree-9
TEST_F(BtreeInsert, AddIndexRecordOfAHeightThatIsNotThere_IsInconsistent) {
  const Bytes key = number_key(200);
  for (const std::uint8_t height : Numbers8{3, 7, 255}) {
    const std::vector<Bytes> before = tree_.cached_nodes();
    LogCapture log;
    EXPECT_EQ(kvfs_btree_add_index_record(tree_.get(), key.data(), height, 7), kvfs_inconsistent);
    EXPECT_LOG(log, message("ERROR", "kvfs_btree_add_index_record",
                            "Error while searching for location to insert index record."));
    EXPECT_EQ(tree_.changed_since(before), Lines());
    EXPECT_TRUE(tree_.is_idle());
  }
}

}  // namespace
}  // namespace kvfs_test
