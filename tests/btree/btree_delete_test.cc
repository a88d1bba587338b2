// Deletion: closing the gap, the index record of a node that has lost its first record, emptied nodes, open locators.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree/index.h"
#include "btree_change_fixture.h"

namespace kvfs_test {
namespace {

class BtreeDelete : public ::testing::Test {
 protected:
  BtreeDelete() : tree_(three_leaves()) { tree_.open(); }

  // Deletes the record of a locator and closes it.
  static kvfs_result delete_and_release(ChangeTree& tree, kvfs_btree_record_locator* locator) {
    const kvfs_result result = kvfs_btree_delete_record(tree.get(), locator, 0);
    release(locator);
    return result;
  }

  ChangeTree tree_;
};

// ---- The node ------------------------------------------------------------------------------------------------------

// Q-btree-19
TEST_F(BtreeDelete, MiddleRecord_LetsTheOthersMoveUp) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree_.remove(60), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 70 80");
  Bytes expected = before[2];
  put_be(expected, kNumRecords, 2, 3);
  std::copy(before[2].begin() + 50, before[2].begin() + 86, expected.begin() + 32);
  put_be(expected, 512 - 2 * 3, 2, 50);
  put_be(expected, 512 - 2 * 4, 2, 68);
  // The entry behind the free space's, and the bytes that became free, stay as they were.
  EXPECT_EQ(tree_.cached_node(2), expected);
  Bytes header = before[0];
  put_be(header, kHeaderLeafRecords, 4, 11);
  EXPECT_EQ(tree_.cached_node(0), header);
  EXPECT_EQ(tree_.changed_since(before), (Lines{"0", "2"}));
  EXPECT_TRUE(tree_.is_idle());
}

// Q-btree-19
TEST_F(BtreeDelete, LastRecord_ChangesTheCountAlone) {
  Bytes expected = tree_.cached_node(2);
  EXPECT_EQ(tree_.remove(80), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 60 70");
  put_be(expected, kNumRecords, 2, 3);
  EXPECT_EQ(tree_.cached_node(2), expected);  // what was the offset of record 3 is that of the free space
}

TEST_F(BtreeDelete, RecordsOfOtherSizes_KeepTheirBytes) {
  std::vector<Record> records;
  for (const std::size_t size : {20u, 60u, 8u, 34u, 6u}) {
    records.push_back(record_of_size(static_cast<std::uint32_t>(10 * (records.size() + 1)), size));
  }
  ChangeTree tree({.records = records});
  tree.open();
  EXPECT_EQ(tree.remove(20), kvfs_ok);
  records.erase(records.begin() + 1);
  EXPECT_EQ(tree.content(1).records, packed_all(records));
  EXPECT_EQ(tree.content(1).offsets, (std::vector<std::uint16_t>{14, 34, 42, 76, 82}));
}

TEST_F(BtreeDelete, DeletedRecord_IsNotFoundAndLeavesTheDeviceWithTheFlush) {
  EXPECT_EQ(tree_.remove(60), kvfs_ok);
  EXPECT_EQ(tree_.search(60), outcome(0, 0, 2, 1, 70));
  EXPECT_EQ(tree_.flush(), (Lines{"0", "2"}));
  EXPECT_EQ(tree_.bytes(2, 0, 512), tree_.cached_node(2));
}

TEST_F(BtreeDelete, Flag_IsNotUsed) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0xFFFFFFFF), kvfs_ok);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 50 70 80");
  release(locator);
}

TEST_F(BtreeDelete, OnlyRecordOfTheRoot_LeavesAnEmptyRoot) {
  ChangeTree tree(leaves_of(1, 1));
  tree.open();
  Bytes expected = tree.cached_node(1);
  LogCapture log;
  EXPECT_EQ(tree.remove(10), kvfs_ok);
  EXPECT_LOG(log);
  put_be(expected, kNumRecords, 2, 0);
  EXPECT_EQ(tree.cached_node(1), expected);
  EXPECT_EQ(tree.content(1).offsets, std::vector<std::uint16_t>{14});
  EXPECT_EQ(tree.field(0, kHeaderLeafRecords, 4), 0u);
  EXPECT_EQ(tree.field(0, kHeaderRootNode, 4), 1u);
}

// ---- The index -----------------------------------------------------------------------------------------------------

TEST_F(BtreeDelete, FirstRecordOfALeaf_ReplacesItsIndexRecord) {
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree_.remove(50), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 60 70 80");
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 10>1 60>2 90>3");
  EXPECT_EQ(tree_.field(0, kHeaderLeafRecords, 4), 11u);  // the index record is not counted
  EXPECT_EQ(tree_.changed_since(before), (Lines{"0", "2", "4"}));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, FirstRecordOfTheTree_ReplacesItsIndexRecord) {
  EXPECT_EQ(tree_.remove(10), kvfs_ok);
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 20>1 50>2 90>3");
  EXPECT_EQ(tree_.search(10), outcome(0, 0, 1, 0, 20));
}

// The locator of the search for the place lies where the new index record goes, behind the last one.
TEST_F(BtreeDelete, FirstRecordOfTheLastLeaf_SharesTheLocatorOfItsPlace) {
  LogCapture log;
  EXPECT_EQ(tree_.remove(90), kvfs_ok);
  EXPECT_EQ(tree_.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 100>3");
  const std::string warning = "WARNING kvfs_btree_record_locator_open Mismatching ";
  EXPECT_LOG(log,
             warning + "data pointer offset for node 4, record 2 (stored: " + std::to_string(4 * 512 + 14 + 10 + 6) +
                 " specified: " + std::to_string(4 * 512 + 14 + 20 + 6) + "). Using specified.\n",
             warning + "record data for node 4, record 2. Using specified.\n");
  EXPECT_TRUE(tree_.is_idle());
}

TEST(BtreeDeleteIndex, FirstRecordOfTheTree_ReplacesItsIndexRecordsUpToTheRoot) {
  ChangeTree tree(three_levels());
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.remove(10), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree.show(5), "index 5 of height 2, 0 < > 6: 20>1 40>2");
  EXPECT_EQ(tree.show(7), "index 7 of height 3, 0 < > 0: 20>5 70>6");
  EXPECT_TRUE(tree.is_idle());
}

// The index record is deleted before the new one is added. In between, its node is indexed under its second key, so
// that the new record, which orders before that, goes to the end of the index node before.
TEST(BtreeDeleteIndex, FirstRecordUnderALaterIndexNode_IsIndexedInTheNodeBefore) {
  ChangeTree tree(three_levels());
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.remove(70), kvfs_ok);
  EXPECT_EQ(tree.show(3), "leaf 3 of height 1, 2 < > 4: 80 90");
  EXPECT_EQ(tree.show(5), "index 5 of height 2, 0 < > 6: 10>1 40>2 80>3");
  EXPECT_EQ(tree.show(6), "index 6 of height 2, 5 < > 0: 100>4");
  EXPECT_EQ(tree.show(7), "index 7 of height 3, 0 < > 0: 10>5 100>6");
  EXPECT_EQ(tree.search(80), outcome(1, 0, 3, 0, 80));
  EXPECT_EQ(tree.search(100), outcome(1, 0, 4, 0, 100));
  EXPECT_TRUE(tree.is_idle());
}

// The tree claims to have a level above its only leaf. The search for the index record ends in that leaf, at a second
// record with the key, which is not an index record.
// X-btree-9
TEST(BtreeDeleteIndex, RecordFoundInALeaf_IsNotTakenForAnIndexRecord) {
  ChangeTree tree(leaves_of(4, 4));
  tree.open();
  kvfs_btree_search_result twin = {1, 0, tree.locate(10)};
  ASSERT_EQ(tree.insert(number_record(10), &twin), kvfs_ok);
  release(twin.locator);
  tree.poke(0, kHeaderTreeDepth, 2, 2);
  LogCapture log;
  EXPECT_EQ(tree.remove(10), kvfs_inconsistent);
  EXPECT_LOG(log, message("ERROR", "kvfs_btree_delete_record_internal",
                          "Error while searching for index record of deleted record's node."));
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 0: 10 20 30 40");
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeDeleteIndex, LongerNewFirstKey_IsIndexed) {
  std::vector<Record> records = numbered_records(12);
  records[1].first.resize(26, 7);
  put_be(records[1].first, 0, 2, 24);
  TreeOptions options = three_leaves();
  options.records = records;
  ChangeTree tree(options);
  tree.open();
  EXPECT_EQ(tree.remove(10), kvfs_ok);
  EXPECT_EQ(tree.content(4).records[0], packed({records[1].first, {0, 0, 0, 1}}));
  EXPECT_EQ(tree.content(4).records[1], packed({number_key(50), {0, 0, 0, 2}}));
}

TEST(BtreeDeleteIndex, LongerNewFirstKeyOfTheLastLeaf_IsIndexed) {
  std::vector<Record> records = numbered_records(12);
  records[9].first.resize(26, 7);
  put_be(records[9].first, 0, 2, 24);
  TreeOptions options = three_leaves();
  options.records = records;
  ChangeTree tree(options);
  tree.open();
  LogCapture log;
  EXPECT_EQ(tree.remove(90), kvfs_ok);
  EXPECT_EQ(tree.content(4).records.back(), packed({records[9].first, {0, 0, 0, 3}}));
  EXPECT_TRUE(tree.is_idle());
}

// Q-btree-20
TEST(BtreeDeleteIndex, OnlyRecordOfALeaf_LeavesItLinkedAndIndexedUnderTheDeletedKey) {
  ChangeTree tree(leaves_of(1, 4));  // leaves 1 to 4, root 5
  tree.open();
  Bytes expected = tree.cached_node(2);
  LogCapture log;
  EXPECT_EQ(tree.remove(20), kvfs_ok);
  EXPECT_LOG(log);
  put_be(expected, kNumRecords, 2, 0);
  EXPECT_EQ(tree.cached_node(2), expected);
  EXPECT_EQ(tree.show(2), "leaf 2 of height 1, 1 < > 3:");
  EXPECT_EQ(tree.content(2).offsets, std::vector<std::uint16_t>{14});
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 2: 10");
  EXPECT_EQ(tree.show(3), "leaf 3 of height 1, 2 < > 4: 30");
  EXPECT_EQ(tree.show(5), "index 5 of height 2, 0 < > 0: 10>1 20>2 30>3 40>4");
  EXPECT_EQ(tree.field(0, kHeaderLeafRecords, 4), 3u);
  EXPECT_EQ(tree.field(0, kHeaderMapRecord, 1), 0xFCu);  // nodes 0 to 5 are in use still
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeDeleteIndex, IndexRecord_IsDeletedWithoutTouchingTheCountOfLeafRecords) {
  ChangeTree tree(three_levels());
  tree.open();
  kvfs_btree_record_locator* const locator = tree.locator_at(5, 1);
  EXPECT_EQ(kvfs_btree_delete_record(tree.get(), locator, 0), kvfs_ok);
  release(locator);
  EXPECT_EQ(tree.show(5), "index 5 of height 2, 0 < > 6: 10>1");
  EXPECT_EQ(tree.field(0, kHeaderLeafRecords, 4), 12u);
}

// Between deleting a root's only record and adding the new one the root has no records. Its place for the new one is
// over the bytes of the record deleted, with a locator of their size.
// X-btree-2
TEST(BtreeDeleteIndex, RootWithASingleIndexRecord_GetsTheNewOneInItsPlace) {
  TreeOptions options = leaves_of(0, 2);
  options.shape.height = 2;
  ChangeTree tree(options);
  tree.open();
  ASSERT_EQ(tree.show(2), "index 2 of height 2, 0 < > 0: 10>1");
  LogCapture log;
  EXPECT_EQ(tree.remove(10), kvfs_ok);
  EXPECT_LOG(log, message("WARNING", "kvfs_btree_record_locator_open",
                          "Mismatching record data for node 2, record 0. Using specified."));
  EXPECT_EQ(tree.show(2), "index 2 of height 2, 0 < > 0: 20>1");
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-2
TEST_F(BtreeDelete, OnlyRecordOfATree_MakesRoomForOthers) {
  ChangeTree tree({.records = numbered_records(1)});
  tree.open();
  ASSERT_EQ(tree.remove(10), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(tree.search(10), outcome(0, 0, 1, 0, 10)) << "the bytes of the deleted record, not found";
  EXPECT_EQ(tree.insert(record_of_size(20, 40)), kvfs_ok);
  EXPECT_EQ(tree.insert(5), kvfs_ok);
  EXPECT_EQ(tree.show(1), "leaf 1 of height 1, 0 < > 0: 5 20");
  EXPECT_LOG(log);
  EXPECT_TRUE(tree.is_idle());
}

// The place of the new index record would be in an index node that has no records.
// X-btree-2
TEST(BtreeDeleteIndex, LowerIndexNodeWithASingleRecord_CannotBeMaintained) {
  ChangeTree tree(leaves_of(3, 9, 2));  // leaves 1 to 3; index node 4 with two of them, 5 with one; root 6
  tree.open();
  ASSERT_EQ(tree.show(5), "index 5 of height 2, 4 < > 0: 70>3");
  LogCapture log;
  EXPECT_EQ(tree.remove(70), kvfs_inconsistent);
  const Lines lines = tree_lines(log);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), delete_error("Error while inserting index record."));
  EXPECT_TRUE(tree.is_idle());
}

// ---- Deleting and inserting again, as renaming does ----------------------------------------------------------------

TEST_F(BtreeDelete, RecordInsertedAgainUnderAnotherKey_StaysWhereItBelongs) {
  for (const std::uint32_t number : Numbers32{5, 15, 35}) {
    ChangeTree tree(three_leaves());
    tree.open();
    ASSERT_EQ(tree.remove(10), kvfs_ok);
    ASSERT_EQ(tree.insert(number), kvfs_ok);
    const std::uint32_t first = std::min(number, 20u);
    EXPECT_EQ(tree.show(4), "index 4 of height 2, 0 < > 0: " + std::to_string(first) + ">1 50>2 90>3");
    EXPECT_EQ(tree.content(1).records.size(), 4u);
    EXPECT_EQ(tree.field(0, kHeaderLeafRecords, 4), 12u);
    EXPECT_EQ(tree.flush(), (Lines{"0", "1", "4"}));
  }
}

TEST_F(BtreeDelete, RecordInsertedAgainUnderItsKey_MakesTheNodeAsItWas) {
  for (const std::uint32_t number : Numbers32{10, 60, 80}) {
    const std::vector<Bytes> before = tree_.cached_nodes();
    ASSERT_EQ(tree_.remove(number), kvfs_ok);
    ASSERT_EQ(tree_.insert(number), kvfs_ok);
    EXPECT_EQ(tree_.changed_since(before), Lines()) << number;
  }
}

// ---- Open locators -------------------------------------------------------------------------------------------------

// Q-btree-21
TEST_F(BtreeDelete, LocatorsBehindTheRecord_KeepTheirIndexes) {
  std::vector<kvfs_btree_record_locator*> open;
  for (const std::uint32_t number : Numbers32{50, 60, 70, 80, 90}) {
    open.push_back(tree_.locate(number));
  }
  const Bytes copy(open[2]->key, open[2]->key + 18);
  EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), open[1], 0), kvfs_ok);
  Lines places;
  for (const kvfs_btree_record_locator* locator : open) {
    places.push_back(place_of(locator, 512));
  }
  EXPECT_EQ(places, (Lines{"2 0 +20", "2 1 +38 deleted", "2 2 +56", "2 3 +74", "3 0 +20"}));
  EXPECT_EQ(Bytes(open[2]->key, open[2]->key + 18), copy);
  for (kvfs_btree_record_locator* locator : open) {
    release(locator);
  }
}

TEST_F(BtreeDelete, RecordAtAKeptIndex_SharesThatLocator) {
  kvfs_btree_record_locator* const kept = tree_.locate(70);
  ASSERT_EQ(tree_.remove(60), kvfs_ok);
  LogCapture log;
  kvfs_btree_record_locator* const other = tree_.locate(80);
  EXPECT_EQ(other, kept);
  EXPECT_LOG(log, message("WARNING", "kvfs_btree_record_locator_open",
                          "Mismatching record data for node 2, record 2. Using specified."));
  EXPECT_EQ(number_of(kept->key), 80u);
  release(kept);
  release(other);
}

TEST_F(BtreeDelete, DeletedLocator_CanBeReadButNotWritten) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  ASSERT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_ok);
  EXPECT_EQ(Bytes(locator->key, locator->key + 18), packed(number_record(60)));
  const std::vector<Bytes> before = tree_.cached_nodes();
  const Bytes data(12, 0x55);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_internal);
  EXPECT_LOG(
      log, message("CRITICAL", "kvfs_btree_record_locator_write_data", "Attempted to write data to deleted locator."));
  EXPECT_EQ(tree_.changed_since(before), Lines());
  EXPECT_EQ(Bytes(locator->key, locator->key + 18), packed(number_record(60)));
  release(locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, SearchAtTheSamePlace_GetsANewLocator) {
  kvfs_btree_record_locator* const deleted = tree_.locate(60);
  ASSERT_EQ(kvfs_btree_delete_record(tree_.get(), deleted, 0), kvfs_ok);
  ASSERT_EQ(tree_.insert(60), kvfs_ok);
  LogCapture log;
  kvfs_btree_record_locator* const found = tree_.locate(60);
  EXPECT_LOG(log);
  EXPECT_NE(found, deleted);
  EXPECT_EQ(tree_.locators(), (Lines{"2 1 x1", "2 1 x1"}));
  release(found);
  release(deleted);
}

TEST_F(BtreeDelete, SharedLocator_IsDeletedForAllItsHolders) {
  kvfs_btree_record_locator* const first = tree_.locate(60);
  kvfs_btree_record_locator* const second = tree_.locate(60);
  ASSERT_EQ(first, second);
  ASSERT_EQ(kvfs_btree_delete_record(tree_.get(), first, 0), kvfs_ok);
  release(first);
  EXPECT_EQ(place_of(second, 512), "2 1 +38 deleted");
  release(second);
  EXPECT_TRUE(tree_.is_idle());
}

// A locator that kept its index while its record moved may come to stand where a record with a longer key is. Its copy
// has no room for that one, so that nobody gets a locator with a key that leaves it.
TEST(BtreeDeleteLocator, RecordWithALongerKeyAtAKeptIndex_CannotBeOpened) {
  std::vector<Record> records = numbered_records(72);
  records[38].first.resize(26, 7);  // 390
  put_be(records[38].first, 0, 2, 24);
  ChangeTree tree({.records = records});
  tree.open();
  const std::uint32_t leaf = tree.leaf(1);
  kvfs_btree_record_locator* const kept = tree.locate(380);
  const auto index = static_cast<std::uint16_t>(*kept->index);
  ASSERT_EQ(*kept->node, leaf);
  ASSERT_EQ(tree.remove(300), kvfs_ok);  // 390 moves to the index of 380
  std::uint32_t upper = 0;
  ASSERT_EQ(kvfs_btree_split_node(tree.get(), leaf, index, &upper), kvfs_ok);  // and becomes the first of its node
  LogCapture log;
  kvfs_btree_search_result found = {};
  EXPECT_EQ(kvfs_btree_search_node(tree.get(), records[38].first.data(), &found), kvfs_internal);
  EXPECT_EQ(found.locator, nullptr);
  EXPECT_NE(log.raw().find("has outgrown its open locator"), std::string::npos) << log.raw();
  release(kept);
  ASSERT_EQ(kvfs_btree_search_node(tree.get(), records[38].first.data(), &found), kvfs_ok);
  EXPECT_EQ(found.found, 1u);
  release(found.locator);
}

// X-btree-9
TEST_F(BtreeDelete, IndexSearchThatEndsElsewhere_GivesNoLocatorThatOthersHold) {
  kvfs_btree_record_locator* const held = tree_.locate(60);
  tree_.poke(4, kHeight, 1, 3);
  kvfs_btree_search_result place = {};
  EXPECT_EQ(kvfs::btree::search_index_record(tree_.get(), held->key, 2, kvfs::btree::index_search::kDeletion, &place),
            kvfs_inconsistent);
  EXPECT_EQ(place.locator, nullptr);
  EXPECT_EQ(held->priv->reference_count, 1u);
  release(held);
}

// X-btree-15
TEST_F(BtreeDelete, SecondDeletion_IsInternalAndChangesNothing) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  ASSERT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_ok);
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_internal);
  EXPECT_LOG(log, message("CRITICAL", "kvfs_btree_delete_record_internal", "Attempted to delete a deleted record."));
  EXPECT_EQ(tree_.changed_since(before), Lines());
  release(locator);
  EXPECT_TRUE(tree_.is_idle());
}

// ---- Damage --------------------------------------------------------------------------------------------------------

// X-btree-15
TEST_F(BtreeDelete, DamagedOffsets_AreInconsistentAndChangeNothing) {
  const std::string beyond = "$$$: This record offset is greater than the next. Impossible";
  const auto free_space = [](int offset) {
    return "$$$: Free space of " + std::to_string(offset) + " is greater than node size. Impossible";
  };
  const std::string overlap = "Invalid node data: Records of node 2 overlap.";
  const struct {
    std::uint32_t index;
    std::uint16_t offset;
    std::string text;
  } damages[] = {
      {1, 51, beyond},            // the record's own offset; the next record's is 50
      {1, 0xFFFF, beyond},        //
      {2, 31, beyond},            // the next record's
      {4, 49, free_space(49)},    // the free space before the record's end
      {4, 0, free_space(0)},      //
      {4, 513, free_space(513)},  // and behind the node
      {4, 0xFFFF, free_space(65535)},
      {2, 0xFFFF, free_space(86)},  // the next record's offset behind the free space
      {2, 87, free_space(86)},      //
      {1, 13, overlap},             // the record in the descriptor
      {1, 0, overlap},
  };
  for (const auto& [index, offset, text] : damages) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    tree.poke_entry(2, index, offset);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(kvfs_btree_delete_record(tree.get(), locator, 0), kvfs_inconsistent) << index << " " << offset;
    EXPECT_LOG(log, delete_error(text));
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_EQ(locator->priv->deleted, 0u);
    release(locator);
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST_F(BtreeDelete, FreeSpaceUpToTheOffsetTable_IsAccepted) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  tree_.poke_entry(2, 4, 502);
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_ok);
  EXPECT_EQ(tree_.content(2).offsets, (std::vector<std::uint16_t>{14, 32, 50, 484}));
}

// The free space may lie in the offset table, which begins at 502, as long as the bytes that move do not.
// X-btree-15
TEST_F(BtreeDelete, FreeSpaceInTheOffsetTable_IsInconsistentWhereTheTableWouldBeOverwritten) {
  for (const std::uint16_t free_space : Numbers16{503, 512}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    tree.poke_entry(2, 4, free_space);
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_ok);
    EXPECT_LOG(log);
    EXPECT_EQ(tree.content(2).offsets,
              (std::vector<std::uint16_t>{14, 32, 50, static_cast<std::uint16_t>(free_space - 18)}));
  }
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  tree_.poke_entry(2, 1, 44);  // a size of 6
  tree_.poke_entry(2, 4, 512);
  const std::vector<Bytes> before = tree_.cached_nodes();
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("Invalid node data: Records of node 2 overlap."));
  EXPECT_EQ(tree_.changed_since(before), Lines());
}

// X-btree-15
TEST_F(BtreeDelete, FreeSpaceInTheOffsetTable_IsLeftAloneWhereNothingMoves) {
  kvfs_btree_record_locator* const without_bytes = tree_.locate(60);
  tree_.poke_entry(2, 1, 50);
  tree_.poke_entry(2, 4, 512);
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, without_bytes), kvfs_ok);
  EXPECT_EQ(tree_.content(2).offsets, (std::vector<std::uint16_t>{14, 50, 68, 512}));
  for (const std::uint16_t begin : Numbers16{504, 10}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const last = tree.locate(80);
    tree.poke_entry(2, 3, begin);
    tree.poke_entry(2, 4, 510);
    Bytes expected = tree.cached_node(2);
    put_be(expected, kNumRecords, 2, 3);
    EXPECT_EQ(delete_and_release(tree, last), kvfs_ok);
    EXPECT_EQ(tree.cached_node(2), expected);
  }
  EXPECT_LOG(log);
}

// A locator keeps its index while records before it are deleted, and may stand at the node's end then. The offsets
// there are judged as those of any record.
TEST_F(BtreeDelete, LocatorAtTheEndOfItsNode_IsJudgedByTheOffsetsThere) {
  const std::string beyond = "$$$: This record offset is greater than the next. Impossible";
  const std::string free_space = "$$$: Free space of 86 is greater than node size. Impossible";
  const std::string nothing = "Invalid position: Node 2 has no record 4.";
  for (const auto& [next, text] :
       std::vector<std::pair<std::uint16_t, std::string>>{{0, beyond}, {85, beyond}, {86, nothing}, {87, free_space}}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(80);
    tree.poke_entry(2, 5, next);
    locator->priv->index = 4;
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_inconsistent);
    EXPECT_LOG(log, delete_error(text));
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-15
TEST_F(BtreeDelete, OffsetsBehindTheNode_AreInconsistent) {
  for (const std::uint16_t count : Numbers16{256, 0x7FFF, 0xFFFF}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    tree.poke(2, kNumRecords, 2, count);
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_inconsistent);
    EXPECT_LOG(log, delete_error("Invalid position: Node 2 has no record 1."));
  }
}

TEST_F(BtreeDelete, LocatorBehindTheOffsetTable_IsInconsistent) {
  for (const std::uint16_t index : Numbers16{256, 0x7FFF, 0xFFFE}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    locator->priv->index = index;
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_inconsistent);
    EXPECT_LOG(log, delete_error("Invalid position: Node 2 has no record " + std::to_string(index) + "."));
  }
}

// X-btree-15
TEST_F(BtreeDelete, RecordThatTheNodeDoesNotHave_LiesBehindTheFreeSpace) {
  for (const auto& [count, free_space] : std::vector<std::pair<std::uint16_t, int>>{{0, 14}, {1, 32}}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    tree.poke(2, kNumRecords, 2, count);
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_inconsistent);
    EXPECT_LOG(log, delete_error("$$$: Free space of " + std::to_string(free_space) +
                                 " is greater than node size. Impossible"));
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST_F(BtreeDelete, TooManyRecordsForTheNode_AreInconsistent) {
  for (const std::uint16_t count : Numbers16{248, 255, 256, 0x7FFF, 0xFFFF}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(60);
    tree.poke(2, kNumRecords, 2, count);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_inconsistent) << count;
    EXPECT_FALSE(log.empty());
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST_F(BtreeDelete, NodeOutsideOfTheFork_FailsToRead) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  locator->priv->node = tree_.plan().total_nodes;
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_invalid);
  EXPECT_EQ(tree_lines(log), Lines{delete_error("Error while mapping raw node data.")});
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, MissingIndexRecord_IsInconsistent) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke(4, 14 + 10 + 2, 4, 51);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("Index record of deleted record's node not found."));
  EXPECT_EQ(locator->priv->deleted, 1u);  // it is gone all the same
  EXPECT_EQ(tree_.show(2), "leaf 2 of height 1, 1 < > 3: 60 70 80");
  release(locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, DamagedIndex_FailsTheSearchForTheIndexRecord) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke_entry(4, 0, 15);
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_inconsistent);
  EXPECT_LOG(log, search_error("HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 4 is 15, and not 14!"),
             delete_error("Error while searching for index record of deleted record's node."));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, IndexRecordThatCannotBeDeleted_FailsTheDeletion) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke_entry(4, 3, 30);  // the root's free space before the end of its second record
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("$$$: Free space of 30 is greater than node size. Impossible"),
             delete_error("Error while deleting index record from B-tree."));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, NewFirstKeyThatIsIndexedAlready_FailsTheDeletion) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke(2, 32 + 2, 4, 90);
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_exists);
  EXPECT_LOG(log, add_index_error("Index record that we wanted to add already exists."),
             delete_error("Error while inserting index record."));
  EXPECT_TRUE(tree_.is_idle());
}

// X-btree-1
TEST_F(BtreeDelete, NewFirstKeyOutsideOfTheNode_IsInconsistent) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke(2, 32, 2, 500);
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("Invalid node data: Key at offset 14 of node 2 lies outside of the node."));
  EXPECT_TRUE(tree_.is_idle());
}

// X-btree-10
TEST_F(BtreeDelete, HeightThatFillsItsByte_IsTooLarge) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.poke(2, kHeight, 1, 255);
  tree_.poke(0, kHeaderTreeDepth, 2, 256);
  LogCapture log;
  EXPECT_EQ(delete_and_release(tree_, locator), kvfs_inconsistent);
  EXPECT_LOG(log, delete_error("B-tree depth too large."));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeDelete, NodeOfTheTreesHeight_HasNoIndexRecord) {
  for (const std::uint8_t height : Numbers8{2, 3, 255}) {
    ChangeTree tree(three_leaves());
    tree.open();
    kvfs_btree_record_locator* const locator = tree.locate(50);
    tree.poke(2, kHeight, 1, height);
    LogCapture log;
    EXPECT_EQ(delete_and_release(tree, locator), kvfs_ok);
    EXPECT_LOG(log);
    EXPECT_EQ(tree.show(4), "index 4 of height 2, 0 < > 0: 10>1 50>2 90>3");
  }
}

// X-btree-10
TEST_F(BtreeDelete, TreeDeeperThanSixteenLevels_IsRefusedBeforeAnythingChanges) {
  for (const std::uint16_t depth : Numbers16{17, 255, 0xFFFF}) {
    ChangeTree tree(three_leaves());
    tree.open();
    tree.poke(0, kHeaderTreeDepth, 2, depth);
    kvfs_btree_record_locator* const locator = tree.locate(50);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(kvfs_btree_delete_record(tree.get(), locator, 0), kvfs_inconsistent);
    EXPECT_LOG(log, delete_error("B-tree of depth " + std::to_string(depth) + " cannot be maintained at height 1."));
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_EQ(locator->priv->deleted, 0u);
    release(locator);
    EXPECT_TRUE(tree.is_idle());
  }
}

// The index record of a first record is searched for.
// X-btree-17
TEST_F(BtreeDelete, BehindAnOperationThatHasUsedUpItsWork_HasWorkOfItsOwn) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  tree_.get()->priv->work_left = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_.get()->priv->reserve, 0u);
  release(locator);
}

// X-btree-10
TEST_F(BtreeDelete, OtherRecordThanTheFirst_LeavesTheDepthAlone) {
  tree_.poke(0, kHeaderTreeDepth, 2, 0xFFFF);
  LogCapture log;
  EXPECT_EQ(tree_.remove(60), kvfs_ok);
  EXPECT_LOG(log);
}

// Two records in each node: the whole index is replaced, level by level, each taking twice the steps of the one below.
// X-btree-10
TEST(BtreeDepth, TreeOfThirteenToSixteenLevels_IsMaintained) {
  for (const std::uint32_t height : Numbers32{13, 16}) {
    ChangeTree tree(leaves_of(2, 1U << height, 2, 4));
    ASSERT_EQ(tree.plan().levels.size(), height);
    tree.open();
    LogCapture log;
    EXPECT_EQ(tree.remove(10), kvfs_ok);
    EXPECT_EQ(tree.insert(number_record(5, 4)), kvfs_ok);
    EXPECT_EQ(tree.search(5), outcome(1, 0, tree.leaf(0), 0, 5));
    for (std::size_t level = 2; level <= height; ++level) {
      const std::uint32_t below = tree.node_at(level - 1, 0);
      EXPECT_TRUE(tree.show(tree.node_at(level, 0)).find(": 5>" + std::to_string(below) + " ") != std::string::npos);
    }
    EXPECT_FALSE(log.has("ERROR", "", ""));
    EXPECT_TRUE(tree.is_idle());
  }
}

// ---- Faults --------------------------------------------------------------------------------------------------------

Use tree_lock() {
  return {Use::Kind::kTreeLock,
          {message("ERROR", "kvfs_btree_delete_record", "Error while acquiring write lock for open locators list.")}};
}

Use tree_unlock() {
  return {Use::Kind::kTreeUnlock,
          {message("CRITICAL", "kvfs_btree_delete_record",
                   "Error while releasing write lock for open locators list. Will probably crash now...")}};
}

Use header_map() {
  return {Use::Kind::kMap, {delete_error("Error while mapping B-tree header record.")}};
}

Use header_unmap() {
  return {Use::Kind::kUnmap, {delete_error("Error while unmapping B-tree header record.")}};
}

Uses node_uses(std::uint32_t node) {
  return {
      {Use::Kind::kAllocation, {delete_error("Error while allocating temporary copy of node data.")}},
      {Use::Kind::kRead, {delete_error("Error while mapping raw node data.")}},
      {Use::Kind::kWriteNode, {delete_error("Error while writing out modified node " + std::to_string(node) + ".")}}};
}

Use count_use() {
  return {Use::Kind::kWriteInside,
          {delete_error("Error while writing out decremented 'leafRecords' in B-tree header record.")}};
}

// The node that takes the new index record lies in the buffer of the one that gave the old one: nothing is allocated.
Uses replacement_uses(const ChangeTree& tree) {
  const Uses search = Uses{locator_allocation({search_error("Error while creating kvfs_btree_record_locator.")})} +
                      search_uses(tree, {4});
  const Uses deletion = Uses{header_map()} + node_uses(4) + Uses{header_unmap()};
  const Uses insertion = {
      {Use::Kind::kRead,
       {insert_error("Error while reading complete node data of node where record should be inserted.")}},
      {Use::Kind::kWriteNode, {insert_error("Error while writing out modified node after inserting record.")}},
      {Use::Kind::kRead, {insert_error("Error while reading header record.")}},
      locator_allocation({insert_error("Error while creating kvfs_btree_record_locator.")}),
  };
  return within(search, {delete_error("Error while searching for index record of deleted record's node.")}) +
         within(deletion, {delete_error("Error while deleting index record from B-tree.")}) +
         within(within(search, {add_index_error("Error while searching for location to insert index record.")}) +
                    within(insertion, {add_index_error("Error while inserting index record.")}),
                {delete_error("Error while inserting index record.")});
}

kvfs_result locate_and_delete(ChangeTree& tree, std::uint32_t number) {
  kvfs_btree_record_locator* locator = nullptr;
  {
    const FaultInjector::Pause pause;
    locator = tree.locate(number);
  }
  const kvfs_result result = kvfs_btree_delete_record(tree.get(), locator, 0);
  const FaultInjector::Pause pause;
  release(locator);
  return result;
}

TEST_F(BtreeDelete, EachFault_IsReportedAndLeavesNothingBehind) {
  const Uses uses = Uses{tree_lock(), header_map()} + node_uses(2) + Uses{count_use(), header_unmap(), tree_unlock()};
  expect_each_fault_reported(three_leaves, uses, [](ChangeTree& tree) { return locate_and_delete(tree, 60); });
}

TEST_F(BtreeDelete, EachFaultWhileTheIndexRecordIsReplaced_IsReportedAndLeavesNothingBehind) {
  const Uses uses = Uses{tree_lock(), header_map()} + node_uses(2) + Uses{count_use()} + replacement_uses(tree_) +
                    Uses{header_unmap(), tree_unlock()};
  expect_each_fault_reported(three_leaves, uses, [](ChangeTree& tree) { return locate_and_delete(tree, 50); });
}

TEST_F(BtreeDelete, FailedUnlocksAfterAFailure_KeepTheFirstFailure) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  tree_.poke_entry(2, 4, 513);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail_from(Call::kRwlockUnlock, 6);  // behind mapping and reading: unmapping and the tree's own
    EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_inconsistent);
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_EQ(tree_lines(log), (Lines{delete_error("$$$: Free space of 513 is greater than node size. Impossible"),
                                    header_unmap().lines[0], tree_unlock().lines[0]}));
  release(locator);
}

TEST_F(BtreeDelete, FailedUnmappingAfterASuccess_IsTheResult) {
  kvfs_btree_record_locator* const locator = tree_.locate(60);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockRdlock, 3);  // mapping, reading, unmapping
    EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_failed);
  }
  EXPECT_EQ(tree_lines(log), header_unmap().lines);
  EXPECT_EQ(locator->priv->deleted, 1u);
  tree_.forget_references();
  release(locator);
}

TEST_F(BtreeDelete, TreeLock_IsHeldForWritingOverTheWholeDeletion) {
  kvfs_btree_record_locator* const locator = tree_.locate(50);
  {
    FaultInjector faults;
    EXPECT_EQ(kvfs_btree_delete_record(tree_.get(), locator, 0), kvfs_ok);
    EXPECT_EQ(tree_.tree_locks(faults), (Lines{"write", "unlock"}));
  }
  release(locator);
}

}  // namespace
}  // namespace kvfs_test
