// Memory that a tree keeps: that of nodes is tried with the changes, that of locators here.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "address_sanitizer.h"
#include "btree/private.h"
#include "btree_fixture.h"
#include "fault_injection.h"

namespace kvfs_test {
namespace {

// The usual size has room for a record of 116 bytes.
constexpr std::size_t kUsualRecord = 116;

class BtreeSpareLocators : public ::testing::Test {
 protected:
  BtreeSpareLocators() { tree_.open(); }

  kvfs_btree_record_locator* opened(std::uint16_t index, std::size_t record_size) {
    std::array<unsigned char, 2 * kUsualRecord> record = {};
    record.fill(0xA5);
    record[0] = 0;
    record[1] = 4;
    kvfs_btree_record_locator* locator = nullptr;
    EXPECT_EQ(kvfs_btree_record_locator_open(tree_.get(), 1, index, record.data(), record_size, 600, &locator),
              kvfs_ok);
    return locator;
  }

  void use(std::uint16_t index, std::size_t record_size) {
    kvfs_btree_record_locator* locator = opened(index, record_size);
    kvfs_btree_record_locator_release(&locator, false);
  }

  TestTree tree_{{.records = numbered_records(10)}};
};

// X-btree-20
TEST_F(BtreeSpareLocators, UsualSize_TakesTheMemoryOfThoseBefore) {
  FaultInjector faults;
  use(0, kUsualRecord);
  EXPECT_EQ(faults.count_allocations(), 1u);
  kvfs_btree_record_locator* first = opened(2, 16);
  EXPECT_EQ(faults.count_allocations(), 1u);
  EXPECT_EQ(first->priv->reference_count, 1u);
  EXPECT_EQ(first->priv->previous, nullptr);
  EXPECT_EQ(first->priv->next, nullptr);
  EXPECT_EQ(first->priv->is_vacant, 0u);
  EXPECT_EQ(first->data_size, 10u);
  kvfs_btree_record_locator* second = opened(3, 16);
  EXPECT_EQ(faults.count_allocations(), 2u) << "the first one is in use";
  kvfs_btree_record_locator_release(&first, false);
  kvfs_btree_record_locator_release(&second, false);
  use(4, 16);
  use(5, kUsualRecord);
  EXPECT_EQ(faults.count_allocations(), 2u);
}

// X-btree-20
TEST_F(BtreeSpareLocators, MoreThanUsualSize_IsFreedAtOnce) {
  FaultInjector faults;
  use(0, kUsualRecord + 2);
  EXPECT_EQ(faults.count_allocations(), 1u);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  use(0, 16);
  EXPECT_EQ(faults.count_allocations(), 2u);
}

// X-btree-20
TEST_F(BtreeSpareLocators, ReleasedMemory_HoldsNothingOfTheRecord) {
  FaultInjector faults;
  use(0, kUsualRecord);
  kvfs_btree_record_locator* shorter = opened(1, 16);
  EXPECT_EQ(faults.count_allocations(), 1u) << "it has the memory of the one before";
  EXPECT_EQ(shorter->key[16], 0u);
  EXPECT_EQ(shorter->key[kUsualRecord - 1], 0u);
  kvfs_btree_record_locator_release(&shorter, false);
}

// X-btree-20
TEST_F(BtreeSpareLocators, ReleasedMemory_IsReportedWhereItIsUsed) {
  kvfs_btree_record_locator* locator = opened(0, 16);
  const unsigned char* const record = locator->key;
  EXPECT_FALSE(is_forbidden(record));
  kvfs_btree_record_locator_release(&locator, false);
  EXPECT_EQ(is_forbidden(record), kHasAddressSanitizer);
  locator = opened(1, 16);
  EXPECT_EQ(locator->key, record) << "it has the memory of the one before";
  EXPECT_FALSE(is_forbidden(record));
  kvfs_btree_record_locator_release(&locator, false);
}

// X-btree-20
TEST(BtreeSpareMemory, OfAClosedTree_IsFreed) {
  FaultInjector faults;
  {
    TestTree tree({.records = numbered_records(10)});
    tree.open();
    EXPECT_EQ(tree.search(30), "result 0 found 1 after 0 node 1 index 2 key 30");
  }
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

}  // namespace
}  // namespace kvfs_test
