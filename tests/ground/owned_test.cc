// The guards of memory.

#include "ground/owned.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "fault_injection.h"

namespace kvfs_test {
namespace {

struct Pair {
  std::uint32_t first;
  std::uint64_t second;
};

// The optimiser may drop an allocation that nobody looks at.
void look_at(const void* block) {
  asm volatile("" : : "r"(block) : "memory");
}

TEST(Owned, Default_OwnsNothing) {
  const kvfs_owned<int> owned;
  EXPECT_FALSE(owned);
  EXPECT_EQ(owned.get(), nullptr);
}

TEST(Owned, EndOfScope_FreesTheBlock) {
  FaultInjector faults;
  {
    const kvfs_owned<Pair> owned = kvfs_allocate_zeroed<Pair>();
    look_at(owned.get());
    EXPECT_EQ(faults.outstanding_bytes(), sizeof(Pair));
  }
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(Owned, Release_HandsTheBlockToTheCaller) {
  FaultInjector faults;
  Pair* pair = nullptr;
  {
    kvfs_owned<Pair> owned = kvfs_allocate_zeroed<Pair>();
    owned->second = 7;
    look_at(owned.get());
    pair = owned.release();
    EXPECT_FALSE(owned);
  }
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  EXPECT_EQ(pair->second, 7u);
  std::free(pair);
}

TEST(Owned, Reset_FreesTheOldBlockAndKeepsTheNew) {
  FaultInjector faults;
  kvfs_owned<Pair> owned = kvfs_allocate_zeroed<Pair>();
  look_at(owned.get());
  Pair* const second = kvfs_allocate_zeroed<Pair>().release();
  look_at(second);
  owned.reset(second);
  EXPECT_EQ(owned.get(), second);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  owned.reset();
  EXPECT_FALSE(owned);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(Owned, Array_IsReachedByIndex) {
  const kvfs_owned<std::uint32_t> owned(static_cast<std::uint32_t*>(std::calloc(3, sizeof(std::uint32_t))));
  ASSERT_TRUE(owned);
  owned[2] = 5;
  EXPECT_EQ(owned.get()[2], 5u);
  EXPECT_EQ(*owned, 0u);
}

TEST(AllocateZeroed, Success_GivesZeroBytes) {
  const kvfs_owned<Pair> owned = kvfs_allocate_zeroed<Pair>();
  ASSERT_TRUE(owned);
  EXPECT_EQ(owned->first, 0u);
  EXPECT_EQ(owned->second, 0u);
}

TEST(AllocateZeroed, NoMemory_TestsFalse) {
  FaultInjector faults;
  faults.fail_allocation(1);
  const kvfs_owned<Pair> owned = kvfs_allocate_zeroed<Pair>();
  look_at(owned.get());
  EXPECT_FALSE(owned);
}

TEST(AllocateBytes, SizeZero_IsNoFailure) {
  FaultInjector faults;
  const kvfs_owned<unsigned char> owned = kvfs_allocate_bytes(0);
  look_at(owned.get());
  EXPECT_TRUE(owned);
  EXPECT_NE(faults.allocation_sizes().at(0), 0u);  // some C libraries give null for 0
}

TEST(AllocateBytes, AnySize_AsksForExactlyThat) {
  FaultInjector faults;
  const kvfs_owned<unsigned char> owned = kvfs_allocate_bytes(513);
  look_at(owned.get());
  EXPECT_EQ(faults.allocation_sizes().at(0), 513u);
}

TEST(AllocateBytes, NoMemory_TestsFalse) {
  FaultInjector faults;
  faults.fail_allocation(1);
  const kvfs_owned<unsigned char> owned = kvfs_allocate_bytes(16);
  look_at(owned.get());
  EXPECT_FALSE(owned);
}

TEST(ZeroAndFree, Object_IsFreed) {
  FaultInjector faults;
  Pair* const pair = static_cast<Pair*>(std::malloc(sizeof(Pair)));
  look_at(pair);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  kvfs_zero_and_free(pair);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(ZeroAndFree, Null_IsPassedOver) {
  FaultInjector faults;
  kvfs_zero_and_free(static_cast<Pair*>(nullptr));
  EXPECT_EQ(faults.count(Call::kFree), 0u);
}

}  // namespace
}  // namespace kvfs_test
