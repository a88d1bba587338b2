// Changes of nodes whose offset table is damaged: one that succeeds loses no record that could be read before.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "btree_change_fixture.h"

namespace kvfs_test {
namespace {

using Records = std::map<std::uint32_t, Bytes>;

// What searches find of the numbers 10, 20 and so on.
Records readable_records(const ChangeTree& tree, std::uint32_t last) {
  Records records;
  for (std::uint32_t number = 10; number <= last; number += 10) {
    kvfs_btree_search_result found = {};
    if (kvfs_btree_search_node(tree.get(), number_key(number).data(), &found) == kvfs_ok && found.found != 0) {
      records[number] = Bytes(found.locator->data, found.locator->data + found.locator->data_size);
    }
    kvfs_btree_search_result_release(&found);
  }
  return records;
}

// How many changes were made, and how many were refused.
struct Tally {
  unsigned made = 0;
  unsigned refused = 0;
};

// A node of a tree with the records 10 to `last`, a number that is inserted into it and one that is removed.
struct Target {
  TreeOptions options;
  std::uint32_t last;
  std::uint32_t node;
  std::uint32_t inserted;
  std::uint32_t removed;
};

// Inserts or removes a record after one bit of an offset was inverted.
void change_with_damage(const Target& target, std::uint32_t entry, unsigned bit, bool inserts, Tally* tally) {
  ChangeTree tree(target.options);
  tree.open();
  const LogCapture silence;
  tree.poke_entry(target.node, entry, static_cast<std::uint16_t>(tree.cached_entry(target.node, entry) ^ 1U << bit));
  Records before = readable_records(tree, target.last);
  const bool is_possible = inserts || before.contains(target.removed);
  if (!is_possible || (inserts ? tree.insert(target.inserted) : tree.remove(target.removed)) != kvfs_ok) {
    ++tally->refused;
    return;
  }
  ++tally->made;
  if (!inserts) {
    before.erase(target.removed);
  }
  const Records after = readable_records(tree, target.last);
  for (const auto& [number, data] : before) {
    const auto found = after.find(number);
    ASSERT_TRUE(found != after.end()) << "lost: " << number;
    EXPECT_EQ(found->second, data) << number;
  }
}

Tally change_with_each_damage(const Target& target, bool inserts) {
  Tally tally;
  ChangeTree tree(target.options);
  tree.open();
  const std::size_t entries = tree.content(target.node).offsets.size();
  for (std::uint32_t entry = 0; entry < entries; ++entry) {
    for (unsigned bit = 0; bit < 16; ++bit) {
      SCOPED_TRACE("entry " + std::to_string(entry) + " bit " + std::to_string(bit));
      change_with_damage(target, entry, bit, inserts, &tally);
      if (::testing::Test::HasFailure()) {
        return tally;
      }
    }
  }
  return tally;
}

// X-btree-23
TEST(BtreeOffsets, ChangeOfALeafWithADamagedOne_LosesNothingWhenItSucceeds) {
  const Target full = {leaves_of(0, 72), 720, 2, 365, 370};
  const Target with_room = {leaves_of(12, 36), 360, 2, 165, 170};
  for (const Target& target : {full, with_room}) {
    for (const bool inserts : {true, false}) {
      const Tally tally = change_with_each_damage(target, inserts);
      EXPECT_GT(tally.made, 20u);
      EXPECT_GT(tally.refused, 20u);
    }
  }
}

// A split below adds an index record.
// X-btree-23
TEST(BtreeOffsets, ChangeOfAnIndexNodeWithADamagedOne_LosesNothingWhenItSucceeds) {
  const Target target = {leaves_of(0, 200), 2000, 0, 365, 370};
  ChangeTree tree(target.options);
  tree.open();
  Target index = target;
  index.node = tree.node_at(2, 0);
  const Tally tally = change_with_each_damage(index, true);
  EXPECT_GT(tally.made, 20u);
  EXPECT_GT(tally.refused, 20u);
}

// What lies there would not move along with its offset.
// X-btree-23
TEST(BtreeOffsets, LaterRecordWithinTheOneThatLeaves_IsRefused) {
  ChangeTree tree(three_leaves());
  tree.open();
  tree.poke_entry(2, 3, static_cast<std::uint16_t>(tree.cached_entry(2, 1) + 2));
  const std::vector<Bytes> before = tree.cached_nodes();
  LogCapture log;
  EXPECT_EQ(tree.remove(60), kvfs_inconsistent);
  EXPECT_LOG(log,
             message("ERROR", "kvfs_btree_delete_record_internal", "Invalid node data: Records of node 2 overlap."));
  EXPECT_EQ(tree.changed_since(before), Lines());
}

// A record that leaves its node cannot be read, and so not be lost.
// X-btree-23
TEST(BtreeOffsets, RecordThatLeavesItsNode_StaysWhatItIs) {
  ChangeTree tree(three_leaves());
  tree.open();
  tree.poke_entry(2, 2, 600);
  EXPECT_EQ(tree.remove(50), kvfs_ok);
  EXPECT_EQ(tree.field(2, kNumRecords, 2), 3u);
  EXPECT_EQ(tree.cached_entry(2, 1), 600u - 18u);
}

// X-btree-23
TEST(BtreeOffsets, RecordBeforeAtTheNodesBegin_StaysWhatItIs) {
  ChangeTree tree(three_leaves());
  tree.open();
  kvfs_btree_record_locator* locator = tree.locate(70);
  tree.poke_entry(2, 1, 0);
  EXPECT_EQ(kvfs_btree_delete_record(tree.get(), locator, 0), kvfs_ok);
  kvfs_btree_record_locator_close(&locator);
  EXPECT_EQ(tree.cached_entry(2, 1), 0u);
  EXPECT_EQ(tree.field(2, kNumRecords, 2), 3u);
}

// The bytes of the new record would go over the child of the last one.
// X-btree-23
TEST(BtreeOffsets, PlaceWithinTheLastIndexRecord_IsRefused) {
  ChangeTree tree(three_leaves());
  tree.open();
  tree.poke_entry(4, 3, static_cast<std::uint16_t>(tree.cached_entry(4, 3) - 2));
  const std::vector<Bytes> before = tree.cached_nodes();
  LogCapture log;
  EXPECT_EQ(kvfs_btree_add_index_record(tree.get(), number_key(130).data(), 2, 5), kvfs_inconsistent);
  EXPECT_LOG(log,
             message("ERROR", "kvfs_btree_insert_record_internal",
                     "Invalid node data: Record 3 has no place among those of node 4."),
             message("ERROR", "kvfs_btree_add_index_record", "Error while inserting index record."));
  EXPECT_EQ(tree.changed_since(before), Lines());
}

}  // namespace
}  // namespace kvfs_test
