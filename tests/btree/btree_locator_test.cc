// Record locators: opening, sharing, releasing, shifting, and writing data in place.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree_fixture.h"
#include "fork/private.h"
#include "support.h"

namespace kvfs_test {
namespace {

std::string open_error(const std::string& text) {
  return "ERROR kvfs_btree_record_locator_open " + text + "\n";
}

// "Mismatching ... for node 1, record 2 ..."
std::string mismatch(const std::string& what, const std::string& values = "") {
  return "WARNING kvfs_btree_record_locator_open Mismatching " + what + " for node 1, record 2" + values +
         ". Using specified.\n";
}

std::string stored(std::uint64_t before, std::uint64_t after) {
  return " (stored: " + std::to_string(before) + " specified: " + std::to_string(after) + ")";
}

// A record with a key of so many bytes behind its length field.
Bytes record_of(std::uint16_t key_length, std::size_t data_size, std::uint8_t seed = 1) {
  Bytes record(2u + key_length + key_length % 2 + data_size);
  put_be(record, 0, 2, key_length);
  for (std::size_t i = 2; i < record.size(); ++i) {
    record[i] = static_cast<std::uint8_t>(seed + i);
  }
  return record;
}

class BtreeLocator : public ::testing::Test {
 protected:
  BtreeLocator() : tree_({.records = numbered_records(5)}) { tree_.open(); }

  kvfs_result open_at(std::uint32_t node, std::uint16_t index, const Bytes& record, std::uint64_t position,
                      kvfs_btree_record_locator** locator) {
    return kvfs_btree_record_locator_open(tree_.get(), node, index, record.data(), record.size(), position, locator);
  }

  kvfs_btree_record_locator* opened(std::uint32_t node, std::uint16_t index, const Bytes& record,
                                    std::uint64_t position = 600) {
    kvfs_btree_record_locator* locator = nullptr;
    EXPECT_EQ(open_at(node, index, record, position, &locator), kvfs_ok);
    return locator;
  }

  static void release(kvfs_btree_record_locator* locator) { kvfs_btree_record_locator_release(&locator, false); }

  TestTree tree_;
};

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST_F(BtreeLocator, Open_FillsBothPartsAndCopiesTheRecord) {
  LogCapture log;
  Bytes record = record_of(4, 10);
  const Bytes original = record;
  kvfs_btree_record_locator* const locator = opened(7, 3, record, 5000);
  std::fill(record.begin(), record.end(), std::uint8_t{0});
  EXPECT_EQ(*locator->node, 7u);
  EXPECT_EQ(*locator->index, 3u);
  EXPECT_EQ(locator->key_length, 6u);
  EXPECT_EQ(locator->data, locator->key + 6);
  EXPECT_EQ(locator->data_size, 10u);
  EXPECT_EQ(Bytes(locator->key, locator->key + original.size()), original);
  const kvfs_btree_record_locator_private& priv = *locator->priv;
  EXPECT_EQ(priv.reference_count, 1u);
  EXPECT_EQ(priv.deleted, 0u);
  EXPECT_EQ(priv.fork_data_offset, 5006u);
  EXPECT_EQ(priv.tree, tree_.get());
  EXPECT_EQ(priv.record_key_offset, 0u);
  EXPECT_EQ(priv.record_data_offset, 6u);
  EXPECT_EQ(priv.record_size, 16u);
  EXPECT_EQ(priv.record, locator->key);
  EXPECT_EQ(locator->node, &priv.node);
  EXPECT_EQ(locator->index, &priv.index);
  release(locator);
  EXPECT_LOG(log);
}

TEST_F(BtreeLocator, OddKey_IsFollowedByAPadByteBeforeTheData) {
  const Bytes record = record_of(5, 8);
  kvfs_btree_record_locator* const locator = opened(7, 3, record, 5000);
  EXPECT_EQ(locator->key_length, 7u);
  EXPECT_EQ(locator->data, locator->key + 8);
  EXPECT_EQ(locator->data_size, 8u);
  EXPECT_EQ(locator->priv->record_data_offset, 8u);
  EXPECT_EQ(locator->priv->fork_data_offset, 5008u);
  release(locator);
}

TEST_F(BtreeLocator, RecordOfAKeyAlone_HasNoData) {
  for (const std::uint16_t key_length : Numbers16{0, 1, 4, 5}) {
    LogCapture log;
    kvfs_btree_record_locator* const locator = opened(7, 3, record_of(key_length, 0));
    EXPECT_EQ(locator->data_size, 0u);
    EXPECT_EQ(locator->key_length, key_length + 2u);
    release(locator);
    EXPECT_LOG(log);
  }
}

TEST_F(BtreeLocator, Allocation_BeginsWithTheTagAndItsSize) {
  FaultInjector faults;
  kvfs_btree_record_locator* const locator = opened(7, 3, record_of(4, 1000));
  ASSERT_EQ(faults.allocation_sizes().size(), 1u);
  const char* const block = static_cast<const char*>(locator->priv->allocation);
  std::size_t size = 0;
  std::memcpy(&size, block + 8, sizeof(size));
  EXPECT_EQ(std::string(block, 8), "kvfsbrla");
  EXPECT_EQ(size, faults.allocation_sizes()[0]);
  EXPECT_GE(reinterpret_cast<const char*>(locator->priv->record), block);
  EXPECT_LE(reinterpret_cast<const char*>(locator->priv->record) + 1006, block + size);
  release(locator);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST_F(BtreeLocator, BytesThatAreNoRecord_AreInvalid) {
  Bytes record = record_of(4, 10);
  kvfs_btree_record_locator* locator = nullptr;
  LogCapture null_log;
  EXPECT_EQ(kvfs_btree_record_locator_open(tree_.get(), 1, 2, nullptr, 16, 600, &locator), kvfs_invalid);
  EXPECT_LOG(null_log, open_error("Invalid parameter: record == NULL"));
  LogCapture empty_log;
  EXPECT_EQ(kvfs_btree_record_locator_open(tree_.get(), 1, 2, record.data(), 0, 600, &locator), kvfs_invalid);
  EXPECT_LOG(empty_log, open_error("Invalid parameter: record_size == 0"));
  LogCapture odd_log;
  EXPECT_EQ(kvfs_btree_record_locator_open(tree_.get(), 1, 2, record.data(), 15, 600, &locator), kvfs_invalid);
  EXPECT_LOG(odd_log, open_error("Invalid parameter: record_size (15) is not aligned on a 2-byte boundary."));
  LogCapture one_log;
  EXPECT_EQ(kvfs_btree_record_locator_open(tree_.get(), 1, 2, record.data(), 1, 600, &locator), kvfs_invalid);
  EXPECT_LOG(one_log, open_error("Invalid parameter: record_size (1) is not aligned on a 2-byte boundary."));
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeLocator, KeyLongerThanTheRecord_IsInvalid) {
  const std::vector<std::pair<std::uint16_t, std::size_t>> keys = {
      {15, 18}, {16, 18}, {0x8000, 32770}, {0xFFFE, 65536}, {0xFFFF, 65538}};
  for (const auto& [key_length, expected] : keys) {
    Bytes record = record_of(4, 10);
    put_be(record, 0, 2, key_length);
    kvfs_btree_record_locator* locator = nullptr;
    LogCapture log;
    EXPECT_EQ(open_at(1, 2, record, 600, &locator), kvfs_invalid);
    EXPECT_EQ(locator, nullptr);
    EXPECT_LOG(log, open_error("Invalid parameter: Record size too small to contain key! Expected minimum: " +
                               std::to_string(expected) + " Actual: 16"));
  }
  EXPECT_TRUE(tree_.is_idle());
}

// X-btree-20
TEST_F(BtreeLocator, NoMemory_IsReportedWithTheSizeAskedFor) {
  kvfs_btree_record_locator* locator = nullptr;
  LogCapture log;
  FaultInjector faults;
  faults.fail_allocation(1);
  EXPECT_EQ(open_at(1, 2, record_of(4, 10), 600, &locator), kvfs_no_memory);
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(tree_.is_idle());
  ASSERT_EQ(faults.allocation_sizes().size(), 1u);
  EXPECT_LOG(log, open_error("Error while allocating " + std::to_string(faults.allocation_sizes()[0]) +
                             " bytes for kvfs_btree_record_locator allocation."));
}

// ---- The list ------------------------------------------------------------------------------------------------------

TEST_F(BtreeLocator, NewLocators_GoToTheHeadOfTheList) {
  kvfs_btree_record_locator* const a = opened(1, 0, record_of(4, 10));
  kvfs_btree_record_locator* const b = opened(1, 1, record_of(4, 10));
  kvfs_btree_record_locator* const c = opened(2, 0, record_of(4, 10));
  EXPECT_EQ(tree_.locators(), (Lines{"2 0 x1", "1 1 x1", "1 0 x1"}));
  EXPECT_EQ(c->priv->previous, nullptr);
  EXPECT_EQ(b->priv->previous, c);
  EXPECT_EQ(a->priv->previous, b);
  EXPECT_EQ(a->priv->next, nullptr);
  release(c);
  release(b);
  release(a);
}

TEST_F(BtreeLocator, Release_UnlinksFromAnyPlaceOfTheList) {
  for (const std::size_t gone : {0u, 1u, 2u}) {
    LogCapture log;
    FaultInjector faults;
    std::vector<kvfs_btree_record_locator*> opened_ones;
    Lines left;
    for (std::uint16_t i = 0; i < 3; ++i) {
      opened_ones.push_back(opened(1, i, record_of(4, 10)));
      if (i != gone) {
        left.insert(left.begin(), "1 " + std::to_string(i) + " x1");
      }
    }
    kvfs_btree_record_locator_release(&opened_ones[gone], false);
    EXPECT_EQ(opened_ones[gone], nullptr);
    EXPECT_EQ(tree_.locators(), left);
    EXPECT_EQ(faults.outstanding_allocations(), 2u);
    const kvfs_btree_record_locator* const head = tree_.get()->priv->open_locators;
    EXPECT_EQ(head->priv->previous, nullptr);
    EXPECT_EQ(head->priv->next->priv->previous, head);
    for (kvfs_btree_record_locator* locator : opened_ones) {
      if (locator != nullptr) {
        release(locator);
      }
    }
    EXPECT_TRUE(tree_.is_idle());
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_LOG(log);
  }
}

TEST_F(BtreeLocator, Release_FreesWithTheLastReferenceAndLeavesThePointerUntilThen) {
  kvfs_btree_record_locator* first = opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator* second = opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator_release(&first, false);
  EXPECT_EQ(first, second);
  EXPECT_EQ(tree_.locators(), Lines{"1 2 x1"});
  kvfs_btree_record_locator_release(&second, false);
  EXPECT_EQ(second, nullptr);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeLocator, CloseWithReferencesLeft_NullsThePointerAllTheSame) {
  kvfs_btree_record_locator* first = opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator* second = opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator_close(&first);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(tree_.locators(), Lines{"1 2 x1"});
  release(second);
}

TEST_F(BtreeLocator, ForcedRelease_FreesWhateverTheReferences) {
  FaultInjector faults;
  kvfs_btree_record_locator* locator = opened(1, 2, record_of(4, 10));
  (void)opened(1, 2, record_of(4, 10));
  (void)opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator_release(&locator, true);
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(tree_.is_idle());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

// ---- Sharing -------------------------------------------------------------------------------------------------------

TEST_F(BtreeLocator, SameRecordAgain_SharesTheLocator) {
  kvfs_btree_record_locator* const first = opened(1, 2, record_of(4, 10));
  LogCapture log;
  FaultInjector faults;
  kvfs_btree_record_locator* const second = opened(1, 2, record_of(4, 10));
  EXPECT_EQ(second, first);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_EQ(tree_.locators(), Lines{"1 2 x2"});
  EXPECT_LOG(log);
  release(first);
  release(second);
}

TEST_F(BtreeLocator, OtherNodeOrIndex_IsNotShared) {
  kvfs_btree_record_locator* const first = opened(1, 2, record_of(4, 10));
  kvfs_btree_record_locator* const second = opened(1, 3, record_of(4, 10));
  kvfs_btree_record_locator* const third = opened(3, 2, record_of(4, 10));
  EXPECT_EQ(tree_.locators(), (Lines{"3 2 x1", "1 3 x1", "1 2 x1"}));
  EXPECT_EQ(opened(1, 2, record_of(4, 10)), first);
  release(first);
  release(first);
  release(second);
  release(third);
}

TEST_F(BtreeLocator, DeletedLocator_IsNotFoundAgain) {
  kvfs_btree_record_locator* const deleted = opened(1, 2, record_of(4, 10, 1));
  deleted->priv->deleted = 1;
  LogCapture log;
  kvfs_btree_record_locator* const fresh = opened(1, 2, record_of(4, 10, 50));
  EXPECT_NE(fresh, deleted);
  EXPECT_EQ(opened(1, 2, record_of(4, 10, 50)), fresh);
  EXPECT_EQ(tree_.locators(), (Lines{"1 2 x2", "1 2 x1"}));
  EXPECT_EQ(deleted->key[2], 3);  // its copy stays readable
  EXPECT_LOG(log);
  release(fresh);
  release(fresh);
  release(deleted);
}

TEST_F(BtreeLocator, SharedAtAnotherPosition_TakesTheNewOne) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10), 600);
  LogCapture log;
  EXPECT_EQ(opened(1, 2, record_of(4, 10), 0x500000000), locator);
  EXPECT_EQ(locator->priv->fork_data_offset, 0x500000006u);
  EXPECT_EQ(locator->priv->reference_count, 2u);
  EXPECT_LOG(log, mismatch("data pointer offset", stored(606, 0x500000006)));
  release(locator);
  release(locator);
}

TEST_F(BtreeLocator, SharedWithOtherBytes_TakesThem) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10, 1));
  const Bytes changed = record_of(4, 10, 90);
  LogCapture log;
  EXPECT_EQ(opened(1, 2, changed), locator);
  EXPECT_EQ(Bytes(locator->key, locator->key + changed.size()), changed);
  EXPECT_LOG(log, mismatch("record data"));
  release(locator);
  release(locator);
}

// Q-btree-3
TEST_F(BtreeLocator, SharedWithAShorterRecord_KeepsItsPublicSizes) {
  Bytes record = record_of(4, 10);
  kvfs_btree_record_locator* const locator = opened(1, 2, record);
  record.resize(12);
  LogCapture log;
  EXPECT_EQ(opened(1, 2, record), locator);
  EXPECT_EQ(locator->priv->record_size, 12u);
  EXPECT_EQ(locator->data_size, 10u);
  EXPECT_EQ(locator->key_length, 6u);
  EXPECT_LOG(log, mismatch("raw record sizes", stored(16, 12)));
  record.resize(16);
  std::copy_n(locator->key, 16, record.begin());
  LogCapture regrown_log;  // what was copied before can be copied again
  EXPECT_EQ(opened(1, 2, record), locator);
  EXPECT_EQ(locator->priv->record_size, 16u);
  EXPECT_LOG(regrown_log, mismatch("raw record sizes", stored(12, 16)));
  for (int i = 0; i < 3; ++i) {
    release(locator);
  }
}

// Q-btree-3
TEST_F(BtreeLocator, SharedWithAnotherKeyLength_KeepsItsPublicPointers) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10));
  const Bytes longer_key = record_of(6, 8);
  LogCapture log;
  EXPECT_EQ(opened(1, 2, longer_key), locator);
  EXPECT_EQ(locator->priv->record_data_offset, 8u);
  EXPECT_EQ(locator->key_length, 6u);
  EXPECT_EQ(locator->data, locator->key + 6);
  EXPECT_EQ(locator->data_size, 10u);
  EXPECT_LOG(log, mismatch("data pointer offset", stored(606, 608)), mismatch("raw record data offsets", stored(6, 8)),
             mismatch("record data"));
  release(locator);
  release(locator);
}

TEST_F(BtreeLocator, SharedWithAKeyElsewhere_PutsItBack) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10));
  locator->priv->record_key_offset = 4;
  LogCapture log;
  EXPECT_EQ(opened(1, 2, record_of(4, 10)), locator);
  EXPECT_EQ(locator->priv->record_key_offset, 0u);
  EXPECT_LOG(log, mismatch("raw record key offsets", stored(4, 0)));
  release(locator);
  release(locator);
}

TEST_F(BtreeLocator, EverythingChanged_IsWarnedOfInOrder) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10));
  locator->priv->record_key_offset = 2;
  LogCapture log;
  EXPECT_EQ(opened(1, 2, record_of(2, 6, 77), 700), locator);
  EXPECT_LOG(log, mismatch("data pointer offset", stored(606, 704)), mismatch("raw record sizes", stored(16, 10)),
             mismatch("raw record data offsets", stored(6, 4)), mismatch("raw record key offsets", stored(2, 0)),
             mismatch("record data"));
  release(locator);
  release(locator);
}

TEST_F(BtreeLocator, SharedLocatorOfAnotherTree_IsAnInternalError) {
  TestTree other({.records = numbered_records(5)});
  other.open();
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10), 600);
  locator->priv->tree = other.get();
  kvfs_btree_record_locator* again = nullptr;
  LogCapture log;
  EXPECT_EQ(open_at(1, 2, record_of(4, 10, 9), 700, &again), kvfs_internal);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(locator->priv->reference_count, 1u);
  EXPECT_EQ(locator->priv->fork_data_offset, 706u);  // compared, and taken over, before
  EXPECT_EQ(locator->key[2], 3);
  EXPECT_LOG(log, mismatch("data pointer offset", stored(606, 706)),
             "CRITICAL kvfs_btree_record_locator_open Mismatching btree pointers ({*} != {*})! Internal error...\n");
  locator->priv->tree = tree_.get();
  release(locator);
}

// X-btree-6
TEST_F(BtreeLocator, RecordGrownBeyondItsOpenLocator_IsAnInternalError) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10, 1));
  kvfs_btree_record_locator* again = nullptr;
  LogCapture log;
  EXPECT_EQ(open_at(1, 2, record_of(4, 12, 9), 600, &again), kvfs_internal);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(locator->priv->reference_count, 1u);
  EXPECT_EQ(locator->priv->record_size, 16u);
  EXPECT_EQ(Bytes(locator->key, locator->key + 16), record_of(4, 10, 1));
  EXPECT_LOG(log, open_error("Record 2 of node 1 has outgrown its open locator."));
  release(locator);
}

// As when an index record is added behind the last one of a node: the place is open with the bytes of a shorter record.
// X-btree-6
TEST_F(BtreeLocator, LongerRecordInAVacantPlace_LeavesTheCopyAsItIs) {
  kvfs_btree_record_locator* const locator = opened(1, 2, record_of(4, 10, 1));
  locator->priv->is_vacant = 1;
  kvfs_btree_record_locator* again = nullptr;
  LogCapture log;
  EXPECT_EQ(open_at(1, 2, record_of(4, 12, 9), 600, &again), kvfs_ok);
  EXPECT_EQ(again, locator);
  EXPECT_EQ(locator->priv->reference_count, 2u);
  EXPECT_EQ(locator->priv->record_size, 18u);
  EXPECT_EQ(locator->data_size, 10u);
  EXPECT_EQ(Bytes(locator->key, locator->key + 16), record_of(4, 10, 1));
  EXPECT_LOG(log, mismatch("raw record sizes", stored(16, 18)),
             "WARNING kvfs_btree_record_locator_open Mismatching record data for node 1, record 2. Using specified.\n");
  release(again);
  release(locator);
}

// ---- Closing -------------------------------------------------------------------------------------------------------

TEST_F(BtreeLocator, Close_TakesTheLockForWriting) {
  kvfs_btree_record_locator* locator = tree_.locate(30);
  LogCapture log;
  FaultInjector faults;
  kvfs_btree_record_locator_close(&locator);
  EXPECT_EQ(locator, nullptr);
  EXPECT_EQ(tree_.tree_locks(faults), (Lines{"write", "unlock"}));
  EXPECT_EQ(faults.lock_calls().size(), 2u);
  EXPECT_TRUE(tree_.is_idle());
  EXPECT_LOG(log);
}

// Q-btree-4
TEST_F(BtreeLocator, CloseThatCannotLock_LeaksTheReference) {
  kvfs_btree_record_locator* const kept = tree_.locate(30);
  kvfs_btree_record_locator* locator = kept;
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1);
    kvfs_btree_record_locator_close(&locator);
    EXPECT_EQ(locator, nullptr);
    EXPECT_EQ(faults.count(Call::kRwlockUnlock), 0u);
    EXPECT_EQ(tree_lines(log),
              Lines{"ERROR kvfs_btree_record_locator_close Error while locking B-tree open locators list.\n"});
  }
  EXPECT_EQ(tree_.locators(), Lines{std::to_string(tree_.root()) + " 2 x1"});
  locator = kept;
  kvfs_btree_record_locator_close(&locator);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeLocator, CloseThatCannotUnlock_WarnsAndCloses) {
  kvfs_btree_record_locator* locator = tree_.locate(30);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1);
  kvfs_btree_record_locator_close(&locator);
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(tree_.is_idle());
  EXPECT_EQ(tree_lines(log), Lines{"WARNING kvfs_btree_record_locator_close Error while unlocking B-tree open "
                                   "locators list lock. Ignoring...\n"});
}

TEST_F(BtreeLocator, TwoSearches_ShareALocatorThatTheSecondCloseFrees) {
  kvfs_btree_record_locator* first = tree_.locate(30);
  kvfs_btree_record_locator* second = tree_.locate(30);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->priv->reference_count, 2u);
  kvfs_btree_record_locator_close(&first);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(number_of(second->key), 30u);
  EXPECT_EQ(second->priv->reference_count, 1u);
  kvfs_btree_record_locator_close(&second);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeLocator, SearchForADeletedRecordsPlace_GetsANewLocator) {
  kvfs_btree_record_locator* deleted = tree_.locate(30);
  deleted->priv->deleted = 1;
  kvfs_btree_record_locator* fresh = tree_.locate(30);
  EXPECT_NE(fresh, deleted);
  EXPECT_EQ(*fresh->node, *deleted->node);
  EXPECT_EQ(*fresh->index, *deleted->index);
  kvfs_btree_record_locator_close(&deleted);
  EXPECT_EQ(number_of(fresh->key), 30u);
  kvfs_btree_record_locator_close(&fresh);
  EXPECT_TRUE(tree_.is_idle());
}

// ---- Search results ------------------------------------------------------------------------------------------------

TEST_F(BtreeLocator, SearchResultInit_EmptiesTheResult) {
  kvfs_btree_search_result result = {7, 7, reinterpret_cast<kvfs_btree_record_locator*>(&result)};
  kvfs_btree_search_result_init(&result);
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
  EXPECT_EQ(result.locator, nullptr);
}

TEST_F(BtreeLocator, SearchResultRelease_ClosesTheLocatorAndEmptiesTheResult) {
  kvfs_btree_search_result result = {1, 1, tree_.locate(30)};
  kvfs_btree_search_result_release(&result);
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
  EXPECT_EQ(result.locator, nullptr);
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeLocator, SearchResultReleaseWithoutLocator_TakesNoLock) {
  kvfs_btree_search_result result = {1, 1, nullptr};
  FaultInjector faults;
  kvfs_btree_search_result_release(&result);
  EXPECT_TRUE(faults.lock_calls().empty());
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
}

// ---- Writing data --------------------------------------------------------------------------------------------------

constexpr const char* kWrite = "ERROR kvfs_btree_record_locator_write_data ";

class BtreeWriteData : public BtreeLocator {
 protected:
  BtreeWriteData() : locator_(tree_.locate(30)), old_(copy()), new_(locator_->data_size, 0xA5) {}
  ~BtreeWriteData() override {
    if (locator_ != nullptr) {
      kvfs_btree_record_locator_close(&locator_);
    }
    tree_.forget_references();
  }

  Bytes copy() const { return Bytes(locator_->data, locator_->data + locator_->data_size); }

  // The record's data in the fork.
  Bytes in_fork() const {
    Bytes bytes(locator_->data_size);
    EXPECT_EQ(kvfs_fork_read(tree_.get()->fork, locator_->priv->fork_data_offset, bytes.data(), bytes.size(), nullptr),
              kvfs_ok);
    return bytes;
  }

  kvfs_result write(std::size_t size) { return kvfs_btree_record_locator_write_data(locator_, new_.data(), size); }

  kvfs_btree_record_locator* locator_;
  const Bytes old_;
  Bytes new_;
};

TEST_F(BtreeWriteData, Success_ChangesTheForkAndTheCopy) {
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(write(new_.size()), kvfs_ok);
  EXPECT_EQ(tree_.tree_locks(faults), (Lines{"read", "unlock"}));
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_EQ(copy(), new_);
  EXPECT_EQ(in_fork(), new_);
  EXPECT_EQ(number_of(locator_->key), 30u);
  EXPECT_EQ(locator_->priv->fork_data_offset, tree_.root() * 512u + tree_.entry(tree_.root(), 2) + 6);
  EXPECT_LOG(log);
}

TEST_F(BtreeWriteData, Flush_BringsTheRecordsNodeToTheDeviceAndNothingElse) {
  EXPECT_EQ(write(new_.size()), kvfs_ok);
  const std::uint32_t root = tree_.root();
  const std::uint16_t at = tree_.entry(root, 2);
  const Bytes before = tree_.bytes(root, 0, 512);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(tree_.get()->fork), kvfs_ok);
  ASSERT_EQ(faults.writes().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, tree_.device_offset(root));
  EXPECT_EQ(faults.writes()[0].size, 512u);
  Bytes expected = before;
  std::copy(new_.begin(), new_.end(), expected.begin() + at + 6);
  EXPECT_EQ(tree_.bytes(root, 0, 512), expected);
}

TEST_F(BtreeWriteData, NextSearch_FindsTheNewDataWithoutAWarning) {
  EXPECT_EQ(write(new_.size()), kvfs_ok);
  LogCapture log;
  kvfs_btree_record_locator* again = tree_.locate(30);
  EXPECT_EQ(again, locator_);
  EXPECT_EQ(Bytes(again->data, again->data + again->data_size), new_);
  kvfs_btree_record_locator_close(&again);
  EXPECT_LOG(log);
}

TEST_F(BtreeWriteData, AnotherSize_IsInvalidAndChangesNothing) {
  new_.resize(100, 0xA5);
  const std::size_t size = old_.size();
  for (const std::size_t wrong : {size + 1, size - 1, std::size_t{0}, size + 2}) {
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(write(wrong), kvfs_invalid);
    EXPECT_TRUE(faults.lock_calls().empty());
    EXPECT_EQ(copy(), old_);
    EXPECT_EQ(in_fork(), old_);
    EXPECT_LOG(log, kWrite + ("Invalid parameter: data_size (" + std::to_string(wrong) +
                              ") not equal to data size in locator (" + std::to_string(size) +
                              "). Inline record expansion is not supported.\n"));
  }
}

TEST_F(BtreeLocator, WriteOfNothingFromNowhere_IsAllowedForARecordWithoutData) {
  kvfs_btree_record_locator* locator = opened(1, 0, record_of(4, 0));
  EXPECT_EQ(kvfs_btree_record_locator_write_data(locator, nullptr, 0), kvfs_ok);
  release(locator);
}

TEST_F(BtreeWriteData, DeletedRecord_IsRefusedBeforeTheSizeIsLookedAt) {
  locator_->priv->deleted = 1;
  for (const std::size_t size : {old_.size(), old_.size() - 2}) {
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(write(size), kvfs_internal);
    EXPECT_TRUE(faults.lock_calls().empty());
    EXPECT_EQ(copy(), old_);
    EXPECT_EQ(in_fork(), old_);
    EXPECT_LOG(log, "CRITICAL kvfs_btree_record_locator_write_data Attempted to write data to deleted locator.\n");
  }
}

TEST_F(BtreeWriteData, ListThatCannotBeLocked_ChangesNothing) {
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockRdlock, 1);
    EXPECT_EQ(write(new_.size()), kvfs_failed);
    EXPECT_EQ(faults.count(Call::kRwlockUnlock), 0u);
  }
  EXPECT_EQ(tree_lines(log), Lines{std::string(kWrite) + "Error while locking open locators list.\n"});
  EXPECT_EQ(copy(), old_);
  EXPECT_EQ(in_fork(), old_);
}

TEST_F(BtreeWriteData, ListThatCannotBeUnlocked_IsAFailureAfterTheWrite) {
  LogCapture log;
  {
    FaultInjector faults;
    EXPECT_EQ(write(new_.size()), kvfs_ok);
    const unsigned long unlocks = faults.count(Call::kRwlockUnlock);
    faults.fail(Call::kRwlockUnlock, 2 * unlocks);
    EXPECT_EQ(write(new_.size()), kvfs_failed);
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_EQ(tree_lines(log), Lines{std::string(kWrite) + "Error while unlocking rwlock.\n"});
  EXPECT_EQ(copy(), new_);
  EXPECT_EQ(in_fork(), new_);
}

TEST_F(BtreeWriteData, EachLockCallOfTheFork_FailsTheWriteAndKeepsTheCopy) {
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    unsigned long of_fork = 0;
    fail_each(each(call), [&](FailingRun& run) {
      const kvfs_result result = run.operate([&] { return write(new_.size()); });
      const FaultInjector::Pause pause;
      // The first read lock and the last unlock are the tree's own.
      if (tree_.tree_locks(run.faults()) != Lines{"read", "unlock"}) {
        return;
      }
      if (!run.failed()) {
        EXPECT_EQ(result, kvfs_ok);
        return;
      }
      ++of_fork;
      EXPECT_EQ(result, kvfs_failed);
      EXPECT_EQ(tree_lines(run.log()), Lines{std::string(kWrite) + "Error while writing out record data.\n"});
      EXPECT_EQ(copy(), old_);
    });
    EXPECT_EQ(of_fork == 0, call == Call::kRwlockRdlock);
    std::copy(old_.begin(), old_.end(), locator_->priv->record + locator_->priv->record_data_offset);
  }
}

TEST_F(BtreeWriteData, ForkThatRefuses_PassesItsFailureUpAndIsReportedOnce) {
  locator_->priv->fork_data_offset = *tree_.get()->fork->logical_size - 2;
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(write(new_.size()), kvfs_invalid);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_EQ(copy(), old_);
  EXPECT_EQ(tree_lines(log), Lines{std::string(kWrite) + "Error while writing out record data.\n"});
}

TEST_F(BtreeWriteData, FailureToUnlock_DoesNotReplaceTheForksFailure) {
  locator_->priv->fork_data_offset = *tree_.get()->fork->logical_size - 2;
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1);
  EXPECT_EQ(write(new_.size()), kvfs_invalid);
  EXPECT_EQ(tree_lines(log), (Lines{std::string(kWrite) + "Error while writing out record data.\n",
                                    std::string(kWrite) + "Error while unlocking rwlock.\n"}));
}

// The public size is that of the first opening; the data would lie beyond the copy now.
// X-btree-6
TEST_F(BtreeWriteData, RecordWithALongerKeySince_IsNotWrittenBeyondTheCopy) {
  const Bytes longer_key = record_of(8, old_.size() - 4);
  kvfs_btree_record_locator* again = nullptr;
  {
    LogCapture log;
    ASSERT_EQ(open_at(*locator_->node, *locator_->index, longer_key, locator_->priv->fork_data_offset - 6, &again),
              kvfs_ok);
    EXPECT_EQ(again, locator_);
  }
  LogCapture log;
  EXPECT_EQ(write(new_.size()), kvfs_internal);
  EXPECT_EQ(tree_lines(log), Lines{std::string(kWrite) + "Record 2 of node " + std::to_string(tree_.root()) +
                                   " has changed its layout.\n"});
  EXPECT_EQ(Bytes(locator_->key, locator_->key + longer_key.size()), longer_key);
  kvfs_btree_record_locator_close(&again);
}

TEST_F(BtreeWriteData, RecordThatClaimsMoreThanItsCopy_IsNotWritten) {
  const std::uint32_t size = locator_->data_size;
  locator_->data_size = 1000;
  new_.resize(1000);
  LogCapture log;
  EXPECT_EQ(write(1000), kvfs_internal);
  EXPECT_EQ(tree_lines(log), Lines{std::string(kWrite) + "Record 2 of node " + std::to_string(tree_.root()) +
                                   " has changed its layout.\n"});
  locator_->data_size = size;
  EXPECT_EQ(copy(), old_);
  EXPECT_EQ(in_fork(), old_);
}

// ---- Shifting ------------------------------------------------------------------------------------------------------

class BtreeShift : public BtreeLocator {
 protected:
  BtreeShift() {
    for (std::uint16_t i = 0; i < 5; ++i) {
      locators_.push_back(opened(1, i, record_of(4, 10), 1000u + 100u * i));
    }
    locators_.push_back(opened(2, 2, record_of(4, 10), 2000));
  }
  ~BtreeShift() override {
    for (kvfs_btree_record_locator* locator : locators_) {
      release(locator);
    }
  }

  // Each locator as "node index offset of its data".
  Lines places() const {
    Lines lines;
    for (const kvfs_btree_record_locator* locator : locators_) {
      lines.push_back(std::to_string(*locator->node) + " " + std::to_string(*locator->index) + " " +
                      std::to_string(locator->priv->fork_data_offset));
    }
    return lines;
  }

  std::vector<kvfs_btree_record_locator*> locators_;
};

TEST_F(BtreeShift, Adding_MovesTheRangeUp) {
  LogCapture log;
  kvfs_btree_shift_locators(tree_.get(), 1, 2, 2, 1, false, 1, 30);
  EXPECT_EQ(places(), (Lines{"1 0 1006", "1 1 1106", "1 3 1236", "1 4 1336", "1 4 1406", "2 2 2006"}));
  EXPECT_LOG(log);
}

TEST_F(BtreeShift, Subtracting_MovesTheRangeDown) {
  kvfs_btree_shift_locators(tree_.get(), 1, 2, 3, 1, true, 2, 250);
  EXPECT_EQ(places(), (Lines{"1 0 1006", "1 1 1106", "1 0 956", "1 1 1056", "1 2 1156", "2 2 2006"}));
}

TEST_F(BtreeShift, AnotherTargetNode_IsTakenOver) {
  kvfs_btree_shift_locators(tree_.get(), 1, 3, 100, 9, true, 3, 300);
  EXPECT_EQ(places(), (Lines{"1 0 1006", "1 1 1106", "1 2 1206", "9 0 1006", "9 1 1106", "2 2 2006"}));
  EXPECT_EQ(*locators_[3]->node, 9u);
}

TEST_F(BtreeShift, RangesAreSigned) {
  kvfs_btree_shift_locators(tree_.get(), 1, -2, 3, 1, false, 7, 1);
  EXPECT_EQ(places()[0], "1 7 1007");
  EXPECT_EQ(places()[1], "1 1 1106");
  kvfs_btree_shift_locators(tree_.get(), 1, 1, 0, 1, false, 7, 1);
  kvfs_btree_shift_locators(tree_.get(), 1, 1, -1, 1, false, 7, 1);
  EXPECT_EQ(places()[1], "1 1 1106");
}

TEST_F(BtreeShift, DeletedLocators_Stay) {
  locators_[2]->priv->deleted = 1;
  kvfs_btree_shift_locators(tree_.get(), 1, 0, 5, 8, false, 1, 10);
  EXPECT_EQ(places(), (Lines{"8 1 1016", "8 2 1116", "1 2 1206", "8 4 1316", "8 5 1416", "2 2 2006"}));
}

TEST_F(BtreeShift, CopiesAndReferences_StayAsTheyWere) {
  const Bytes record = record_of(4, 10);
  kvfs_btree_shift_locators(tree_.get(), 1, 0, 5, 3, false, 4, 40);
  for (const kvfs_btree_record_locator* locator : locators_) {
    EXPECT_EQ(Bytes(locator->key, locator->key + record.size()), record);
    EXPECT_EQ(locator->priv->reference_count, 1u);
    EXPECT_EQ(locator->data_size, 10u);
  }
}

TEST_F(BtreeShift, ShiftedLocator_IsFoundAtItsNewPlace) {
  kvfs_btree_shift_locators(tree_.get(), 1, 4, 1, 6, false, 2, 500);
  LogCapture log;
  EXPECT_EQ(opened(6, 6, record_of(4, 10), 1900), locators_[4]);
  EXPECT_LOG(log);
  release(locators_[4]);
}

}  // namespace
}  // namespace kvfs_test
