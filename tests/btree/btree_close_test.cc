// Closing a B-tree.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "btree_fixture.h"
#include "support.h"

namespace kvfs_test {
namespace {

TEST(BtreeDestroy, OpenLocators_AreReleasedWithAWarning) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  (void)tree.locate(40);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 2 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, SharedLocator_CountsOnceWhateverItsReferences) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  (void)tree.locate(20);
  (void)tree.locate(20);
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, DeletedLocator_IsReleasedToo) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  tree.locate(20)->priv->deleted = 1;
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, ModifiedNode_IsNotWrittenToTheDevice) {
  TestTree tree({.records = numbered_records(5)});
  tree.open();
  kvfs_btree_record_locator* locator = tree.locate(20);
  const Bytes data(locator->data_size, 0xAA);
  ASSERT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_ok);
  kvfs_btree_record_locator_close(&locator);
  FaultInjector faults;
  tree.close();
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
}

TEST(BtreeDestroy, ListThatCannotBeLocked_LeaksItsLocators) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  void* const first = tree.locate(20)->priv->allocation;
  void* const second = tree.locate(30)->priv->allocation;
  faults.fail_from(Call::kRwlockWrlock, faults.count(Call::kRwlockWrlock) + 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 2u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(tree_lines(log),
            Lines{"ERROR kvfs_btree_destroy Error while acquiring open locators list lock! Leaking open locators on "
                  "kvfs_btree destruction...\n"});
  std::free(first);
  std::free(second);
}

TEST(BtreeDestroy, ListThatCannotBeUnlocked_IsReportedAndTheTreeGoes) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  faults.fail(Call::kRwlockUnlock, faults.count(Call::kRwlockUnlock) + 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(tree_lines(log),
            (Lines{"WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n",
                   "ERROR kvfs_btree_destroy Error while unlocking B-tree open locators list lock.\n"}));
}

TEST(BtreeDestroy, LockThatCannotBeDestroyed_IsLeaked) {
  TestTree tree({});
  FaultInjector faults;
  tree.open();
  kvfs_rwlock* lock = tree.get()->priv->open_locators_lock;
  faults.fail(Call::kRwlockDestroy, 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  EXPECT_EQ(tree_lines(log), Lines{"ERROR kvfs_btree_destroy Error while destroying B-tree open locators list lock. "
                                   "Leaking...\n"});
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
}

// A locator that believes to belong to another tree leaves this one's list as it is.
TEST(BtreeDestroy, HeadThatStaysAfterItsRelease_EndsTheCleanUp) {
  TestTree tree({.records = numbered_records(5)});
  TestTree other({.records = numbered_records(5)});
  other.open();
  tree.open();
  tree.locate(20)->priv->tree = other.get();
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_LOG(log,
             "CRITICAL kvfs_btree_destroy Internal error: Closing head of B-tree open locators list did not change "
             "the head!\n",
             "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

}  // namespace
}  // namespace kvfs_test
