// Stepping from record to record of a B-tree.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "big_endian.h"
#include "btree_fixture.h"
#include "fork/private.h"
#include "support.h"

namespace kvfs_test {
namespace {

std::string next_error(const std::string& text) {
  return "ERROR kvfs_btree_get_next_record_internal " + text + "\n";
}

std::string out_of_range(int index, int offset) {
  return next_error("Invalid node data: Offset for record " + std::to_string(index) + " is out of range (" +
                    std::to_string(offset) + ").");
}

// Leaves of {10, 20, 30} and {40, 50, 60} under a root.
TreeOptions two_leaves() {
  TreeOptions options = {.records = numbered_records(6)};
  options.shape.max_leaf_records = 3;
  return options;
}

// A tree, a locator on one of its records, and what stepping on from there gives.
class BtreeNext : public ::testing::Test {
 protected:
  BtreeNext() : tree_(two_leaves()) {}
  ~BtreeNext() override {
    if (from_ != nullptr) {
      kvfs_btree_record_locator_close(&from_);
    }
    if (tree_.get() != nullptr) {
      tree_.forget_references();
    }
  }

  // Opens the tree, with the second leaf not read yet, and stands on a record of the first.
  void stand_on(std::uint32_t number) {
    tree_.open();
    from_ = tree_.locate(number);
  }

  kvfs_result step() { return kvfs_btree_get_next_record(tree_.get(), from_, &next_); }

  // "result 3", "end", or the node, the index and the key of the next record.
  std::string step_and_close() {
    const kvfs_result result = step();
    if (result != kvfs_ok) {
      EXPECT_EQ(next_, untouched());
      next_ = untouched();
      return "result " + std::to_string(static_cast<unsigned long long>(result));
    }
    if (next_ == nullptr) {
      return "end";
    }
    std::string text = std::to_string(*next_->node) + " " + std::to_string(*next_->index) + " " +
                       std::to_string(number_of(next_->key));
    kvfs_btree_record_locator_close(&next_);
    next_ = untouched();
    return text;
  }

  std::string place(std::size_t leaf, int index, int key) const {
    return std::to_string(tree_.leaf(leaf)) + " " + std::to_string(index) + " " + std::to_string(key);
  }

  // Stands for what the caller had in its variable.
  kvfs_btree_record_locator* untouched() { return reinterpret_cast<kvfs_btree_record_locator*>(&tree_); }

  // Whether only the locator that the test stands on is open, once.
  bool only_start_is_open() const {
    return tree_.locators() == Lines{std::to_string(*from_->node) + " " + std::to_string(*from_->index) + " x1"};
  }

  TestTree tree_;
  kvfs_btree_record_locator* from_ = nullptr;
  kvfs_btree_record_locator* next_ = untouched();
};

// ---- Sound trees ---------------------------------------------------------------------------------------------------

class BtreeNextShape : public ::testing::TestWithParam<std::tuple<std::uint32_t, std::uint16_t>> {};

TEST_P(BtreeNextShape, WalkFromTheFirstRecord_MeetsEveryRecordOnceInOrder) {
  const auto [node_size, height] = GetParam();
  const std::uint32_t count = height == 1 ? 9 : 60;
  TestTree tree({.records = numbered_records(count), .shape = shape_of(node_size, height)});
  tree.open();
  LogCapture log;
  FaultInjector faults;
  std::uint32_t number = 10;
  kvfs_btree_record_locator* locator = tree.locate(number);
  while (locator != nullptr) {
    const Record record = number_record(number);
    EXPECT_EQ(Bytes(locator->key, locator->key + locator->key_length), record.first);
    EXPECT_EQ(Bytes(locator->data, locator->data + locator->data_size), record.second);
    kvfs_btree_record_locator* following = tree.next(locator);
    kvfs_btree_record_locator_close(&locator);
    locator = following;
    number += 10;
  }
  EXPECT_EQ(number, 10 * count + 10);
  EXPECT_TRUE(tree.is_idle());
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Shapes, BtreeNextShape,
                         ::testing::Combine(::testing::Values(512u, 1024u, 4096u, 16384u, 32768u),
                                            ::testing::Values(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3},
                                                              std::uint16_t{4}, std::uint16_t{5})));

TEST_F(BtreeNext, RecordInTheSameLeaf_HasTheNextIndexAndItsPlaceInTheFork) {
  stand_on(20);
  LogCapture log;
  ASSERT_EQ(step(), kvfs_ok);
  ASSERT_NE(next_, nullptr);
  EXPECT_EQ(*next_->node, tree_.leaf(0));
  EXPECT_EQ(*next_->index, 2u);
  EXPECT_EQ(number_of(next_->key), 30u);
  EXPECT_EQ(next_->priv->fork_data_offset, std::uint64_t{tree_.leaf(0)} * 512 + tree_.entry(tree_.leaf(0), 2) + 6);
  EXPECT_EQ(number_of(from_->key), 20u);
  EXPECT_EQ(from_->priv->reference_count, 1u);
  kvfs_btree_record_locator_close(&next_);
  EXPECT_TRUE(only_start_is_open());
  EXPECT_EQ(tree_.references(), 0u);
  EXPECT_LOG(log);
}

TEST_F(BtreeNext, LastRecordOfALeaf_IsFollowedByTheFirstOfTheNext) {
  stand_on(30);
  FaultInjector faults;
  EXPECT_EQ(step_and_close(), place(1, 0, 40));
  EXPECT_EQ(tree_.nodes_read(faults), Lines{std::to_string(tree_.leaf(1))});
  EXPECT_EQ(tree_.references(), 0u);
}

TEST_F(BtreeNext, LastRecordOfTheTree_IsFollowedByNothing) {
  stand_on(60);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(step_and_close(), "end");
  EXPECT_TRUE(only_start_is_open());
  EXPECT_EQ(tree_.references(), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log);
}

TEST_F(BtreeNext, RecordThatIsOpenAlready_IsShared) {
  stand_on(20);
  kvfs_btree_record_locator* open = tree_.locate(30);
  ASSERT_EQ(step(), kvfs_ok);
  EXPECT_EQ(next_, open);
  EXPECT_EQ(open->priv->reference_count, 2u);
  kvfs_btree_record_locator_close(&next_);
  kvfs_btree_record_locator_close(&open);
}

TEST_F(BtreeNext, IndexRecord_IsFollowedByTheNextOfItsLevel) {
  TreeOptions options = {.records = numbered_records(12)};
  options.shape.max_leaf_records = 2;
  options.shape.max_index_records = 2;
  TestTree tree(options);
  tree.open();
  const Bytes key = number_key(10);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  ASSERT_EQ(kvfs_btree_search_node_internal(tree.get(), key.data(), 0, kSearchToHeight, 2, &found), kvfs_ok);
  kvfs_btree_record_locator* locator = found.locator;
  std::vector<std::uint32_t> numbers;
  while (locator != nullptr) {
    numbers.push_back(number_of(locator->key));
    kvfs_btree_record_locator* following = tree.next(locator);
    kvfs_btree_record_locator_close(&locator);
    locator = following;
  }
  EXPECT_EQ(numbers, (std::vector<std::uint32_t>{10, 30, 50, 70, 90, 110}));
}

TEST_F(BtreeNext, Step_HoldsTheLockForWritingAroundEverything) {
  stand_on(30);
  FaultInjector faults;
  EXPECT_EQ(step(), kvfs_ok);
  EXPECT_EQ(tree_.tree_locks(faults), (Lines{"write", "unlock"}));
  const std::vector<LockCall> calls = faults.lock_calls();
  EXPECT_EQ(calls.front().lock, static_cast<const void*>(tree_.get()->priv->open_locators_lock));
  EXPECT_EQ(calls.back().lock, static_cast<const void*>(tree_.get()->priv->open_locators_lock));
  kvfs_btree_record_locator_close(&next_);
}

TEST_F(BtreeNext, Internal_LeavesTheLockToItsCaller) {
  stand_on(20);
  FaultInjector faults;
  EXPECT_EQ(kvfs_btree_get_next_record_internal(tree_.get(), from_, &next_), kvfs_ok);
  EXPECT_EQ(tree_.tree_locks(faults), Lines{});
  kvfs_btree_record_locator_close(&next_);
}

// ---- Damaged nodes -------------------------------------------------------------------------------------------------

TEST_F(BtreeNext, NodeOfAnotherKind_IsInconsistent) {
  for (const int kind : {1, 2, 3, 127, -128, -2}) {
    TestTree tree({.records = numbered_records(5)});
    tree.open();
    kvfs_btree_record_locator* from = tree.locate(20);
    tree.get()->fork->priv->items[0]->data[tree.root() * 512 + kKind] = static_cast<unsigned char>(kind);
    LogCapture log;
    EXPECT_EQ(kvfs_btree_get_next_record(tree.get(), from, &next_), kvfs_inconsistent);
    EXPECT_EQ(next_, untouched());
    EXPECT_EQ(tree.references(), 0u);
    EXPECT_LOG(log, next_error("Invalid node kind: " + std::to_string(kind)));
    kvfs_btree_record_locator_close(&from);
  }
}

TEST_F(BtreeNext, RecordBehindTheLastOne_IsInconsistent) {
  stand_on(20);
  for (const std::uint16_t index : Numbers16{3, 4, 1000, 0xFFFE}) {
    from_->priv->index = index;
    LogCapture log;
    EXPECT_EQ(step_and_close(), "result 6");
    EXPECT_EQ(tree_.references(), 0u);
    EXPECT_LOG(log, next_error("Invalid node data: Next record (" + std::to_string(index + 1) +
                               ") is larger than the number of records (3)."));
  }
}

TEST_F(BtreeNext, NodeThatIsNotInTheFork_CannotBeMapped) {
  stand_on(20);
  from_->priv->node = tree_.plan().total_nodes;
  LogCapture log;
  EXPECT_EQ(step_and_close(), "result 3");
  EXPECT_EQ(tree_lines(log), Lines{next_error("Error while mapping raw node data.")});
  EXPECT_EQ(tree_.references(), 0u);
}

TEST_F(BtreeNext, OffsetTableLargerThanTheNode_IsInconsistent) {
  for (const std::uint16_t count : Numbers16{249, 250, 1000, 0x7FFF, 0xFFFF}) {
    TestTree tree({.records = numbered_records(5)});
    tree.set16(tree.root(), kNumRecords, count);
    tree.open();
    kvfs_btree_record_locator* from = tree.locate(20);
    LogCapture log;
    EXPECT_EQ(kvfs_btree_get_next_record(tree.get(), from, &next_), kvfs_inconsistent);
    EXPECT_EQ(next_, untouched());
    EXPECT_LOG(log, next_error("Invalid node data: Node cannot fit " + std::to_string(count) +
                               " records given the node size (512)."));
    kvfs_btree_record_locator_close(&from);
  }
}

// 248 records: the table, with the entry of the free space, reaches down to the descriptor.
TEST_F(BtreeNext, OffsetTableThatFillsTheNode_IsLookedInto) {
  TestTree tree({.records = numbered_records(5)});
  tree.set16(tree.root(), kNumRecords, 248);
  tree.open();
  kvfs_btree_record_locator* from = tree.locate(20);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_get_next_record(tree.get(), from, &next_), kvfs_inconsistent);
  EXPECT_LOG(log, out_of_range(2, tree.entry(tree.root(), 2)));
  kvfs_btree_record_locator_close(&from);
}

TEST_F(BtreeNext, RecordOutsideOfTheRecordsArea_IsInconsistent) {
  stand_on(10);
  const std::uint32_t leaf = tree_.leaf(1);
  from_->priv->node = leaf;  // as if it stood on 40
  // Three records: the table has four entries and begins at byte 504.
  for (const std::uint16_t offset : Numbers16{0, 13, 505, 506, 511, 512, 0xFFFF}) {
    for (const std::uint32_t index : Numbers32{1, 2}) {
      const std::uint16_t before = tree_.entry(leaf, index);
      tree_.set_entry(leaf, index, offset);
      kvfs_btree_record_locator_close(&from_);
      tree_.close();
      stand_on(10);
      from_->priv->node = leaf;
      LogCapture log;
      EXPECT_EQ(step_and_close(), "result 6");
      EXPECT_EQ(tree_.references(), 0u);
      EXPECT_LOG(log, out_of_range(static_cast<int>(index), offset));
      tree_.set_entry(leaf, index, before);
    }
  }
}

TEST_F(BtreeNext, RecordThatReachesUpToTheTable_IsOpened) {
  const std::uint32_t leaf = tree_.leaf(0);
  tree_.set_entry(leaf, 3, 504);
  stand_on(20);
  LogCapture log;
  ASSERT_EQ(step(), kvfs_ok);
  EXPECT_EQ(next_->key_length + next_->data_size, 504u - tree_.entry(leaf, 2));
  kvfs_btree_record_locator_close(&next_);
  EXPECT_LOG(log);
}

TEST_F(BtreeNext, OffsetsOutOfOrder_AreInconsistent) {
  const std::uint32_t leaf = tree_.leaf(0);
  tree_.set_entry(leaf, 2, 14);
  stand_on(10);
  LogCapture log;
  EXPECT_EQ(step_and_close(), "result 6");
  EXPECT_LOG(log, next_error("Invalid node data: Records offsets are not in order (offset for record 1: 32, offset "
                             "for record 2: 14)."));
  EXPECT_EQ(tree_.references(), 0u);
}

TEST_F(BtreeNext, RecordThatTheLocatorRefuses_IsReportedTwice) {
  const std::uint32_t leaf = tree_.leaf(0);
  struct Refusal {
    std::uint16_t end;
    std::string message;
  };
  const std::vector<Refusal> refusals = {
      {32, "Invalid parameter: record_size == 0"},
      {49, "Invalid parameter: record_size (17) is not aligned on a 2-byte boundary."},
      {36, "Invalid parameter: Record size too small to contain key! Expected minimum: 6 Actual: 4"}};
  for (const Refusal& refusal : refusals) {
    tree_.set_entry(leaf, 2, refusal.end);
    stand_on(10);
    LogCapture log;
    EXPECT_EQ(step_and_close(), "result 3");
    EXPECT_LOG(log, "ERROR kvfs_btree_record_locator_open " + refusal.message + "\n",
               next_error("Error while creating target record locator."));
    EXPECT_TRUE(only_start_is_open());
    EXPECT_EQ(tree_.references(), 0u);
    kvfs_btree_record_locator_close(&from_);
    tree_.close();
  }
}

// ---- The next leaf -------------------------------------------------------------------------------------------------

TEST_F(BtreeNext, NextLeafBehindTheFork_CannotBeMapped) {
  for (const std::uint32_t link : {tree_.plan().total_nodes, 0xFFFFFFFFu}) {
    tree_.set32(tree_.leaf(0), kForwardLink, link);
    stand_on(30);
    LogCapture log;
    EXPECT_EQ(step_and_close(), "result 3");
    EXPECT_EQ(tree_lines(log), Lines{next_error("Error while mapping raw node data of next node.")});
    EXPECT_TRUE(only_start_is_open());
    EXPECT_EQ(tree_.references(), 0u);
    kvfs_btree_record_locator_close(&from_);
    tree_.close();
  }
}

// Whatever lies where the offset of record 1 would be: 14 there would make record 0 one without bytes.
// Q-btree-9
TEST_F(BtreeNext, EmptyNextLeaf_IsInconsistentAndNotPassedOver) {
  const std::uint32_t leaf = tree_.leaf(1);
  tree_.set16(leaf, kNumRecords, 0);
  for (const std::uint16_t offset : Numbers16{0, 14, 32, 0xFFFF}) {
    tree_.set_entry(leaf, 0, 14);
    tree_.set_entry(leaf, 1, offset);
    stand_on(30);
    LogCapture log;
    EXPECT_EQ(step_and_close(), "result 6");
    EXPECT_LOG(log, out_of_range(1, offset));
    EXPECT_TRUE(only_start_is_open());
    EXPECT_EQ(tree_.references(), 0u);
    kvfs_btree_record_locator_close(&from_);
    tree_.close();
  }
}

TEST_F(BtreeNext, EmptyNextLeafWithOffsetsOutOfOrder_IsReportedForTheOrder) {
  const std::uint32_t leaf = tree_.leaf(1);
  tree_.set16(leaf, kNumRecords, 0);
  tree_.set_entry(leaf, 0, 32);
  tree_.set_entry(leaf, 1, 14);
  stand_on(30);
  LogCapture log;
  EXPECT_EQ(step_and_close(), "result 6");
  EXPECT_LOG(log, next_error("Invalid node data: Records offsets are not in order (offset for record 0: 32, offset "
                             "for record 1: 14)."));
}

// Q-btree-9
TEST_F(BtreeNext, NextNodeOfAnotherKind_IsTakenForALeaf) {
  for (const std::uint8_t kind : Numbers8{0, 1, 2, 77}) {
    tree_.set8(tree_.leaf(1), kKind, kind);
    stand_on(30);
    LogCapture log;
    EXPECT_EQ(step_and_close(), place(1, 0, 40));
    EXPECT_LOG(log);
    kvfs_btree_record_locator_close(&from_);
    tree_.close();
  }
}

TEST_F(BtreeNext, LeafThatLinksToItself_IsSteppedToItsOwnFirstRecord) {
  tree_.set32(tree_.leaf(0), kForwardLink, tree_.leaf(0));
  stand_on(30);
  LogCapture log;
  EXPECT_EQ(step_and_close(), place(0, 0, 10));
  EXPECT_EQ(tree_.references(), 0u);
  EXPECT_LOG(log);
}

TEST_F(BtreeNext, LeavesThatLinkInACircle_AreWalkedRoundOneStepAtATime) {
  tree_.set32(tree_.leaf(1), kForwardLink, tree_.leaf(0));
  stand_on(60);
  LogCapture log;
  EXPECT_EQ(step_and_close(), place(0, 0, 10));
  EXPECT_LOG(log);
}

// ---- Faults --------------------------------------------------------------------------------------------------------

// A step to the next leaf.
std::vector<Step> steps_to_next_leaf() {
  return {
      {Step::Kind::kWriteLock,
       "ERROR kvfs_btree_get_next_record Error while acquiring open locators list lock in write mode.\n"},
      {Step::Kind::kMap, next_error("Error while mapping raw node data.")},
      {Step::Kind::kUnmap, next_error("Error while unmapping original raw node data.")},
      {Step::Kind::kMap, next_error("Error while mapping raw node data of next node.")},
      {Step::Kind::kUnmap, next_error("Error while unmapping raw node data.")},
      {Step::Kind::kUnlock,
       "ERROR kvfs_btree_get_next_record Error while releasing open locators list read-mode lock.\n"},
  };
}

// Q-btree-25, X-lock-1
TEST_F(BtreeNext, EachLockCallFailing_IsReportedWhereItHappened) {
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    const Lines messages = messages_of(steps_to_next_leaf(), call);
    const unsigned long failures = fail_each(each(call), [&](FailingRun& run) {
      stand_on(30);
      const kvfs_result result = run.operate([&] { return step(); });
      EXPECT_EQ(result, run.failed() ? kvfs_failed : kvfs_ok);
      EXPECT_EQ(tree_lines(run.log()), run.failed() ? Lines{messages.at(run.n() - 1)} : Lines{});
      if (run.failed()) {
        EXPECT_EQ(next_, untouched());
      } else {
        kvfs_btree_record_locator_close(&next_);
        next_ = untouched();
      }
      EXPECT_TRUE(only_start_is_open());
      EXPECT_EQ(step_and_close(), place(1, 0, 40)) << "the next step";
      kvfs_btree_record_locator_close(&from_);
      tree_.forget_references();
      tree_.close();
    });
    EXPECT_EQ(failures, messages.size()) << call_name(call);
  }
}

TEST_F(BtreeNext, ReadOfTheNextLeafFailing_IsPassedUp) {
  for (const Fault& fault : transfer_faults()) {
    stand_on(30);
    {
      LogCapture log;
      FaultInjector faults;
      faults.fail(Call::kPread64, 1, fault);
      EXPECT_EQ(step_and_close(), "result 4");
      EXPECT_EQ(faults.locks_held(), 0);
      EXPECT_EQ(tree_lines(log), Lines{next_error("Error while mapping raw node data of next node.")});
    }
    EXPECT_TRUE(only_start_is_open());
    kvfs_btree_record_locator_close(&from_);
    tree_.forget_references();
    tree_.close();
  }
}

TEST_F(BtreeNext, NoMemoryForTheLocator_IsPassedUp) {
  stand_on(30);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail_allocation(1);
    EXPECT_EQ(step_and_close(), "result 2");
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
  }
  EXPECT_LOG(log,
             "ERROR kvfs_btree_record_locator_open Error while allocating {*} bytes for kvfs_btree_record_locator "
             "allocation.\n",
             next_error("Error while creating target record locator."));
  EXPECT_TRUE(only_start_is_open());
  EXPECT_EQ(tree_.references(), 0u);
}

TEST_F(BtreeNext, FailureToUnmap_DoesNotReplaceAnEarlierFailure) {
  tree_.set_entry(tree_.leaf(0), 2, 14);
  stand_on(10);
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockRdlock, 2);
  EXPECT_EQ(step_and_close(), "result 6");
  EXPECT_EQ(tree_lines(log), (Lines{next_error("Invalid node data: Records offsets are not in order (offset for "
                                               "record 1: 32, offset for record 2: 14)."),
                                    next_error("Error while unmapping raw node data.")}));
}

}  // namespace
}  // namespace kvfs_test
