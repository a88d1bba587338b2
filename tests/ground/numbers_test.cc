// Arithmetic on numbers that come from disk, and the bits of bitmaps there.

#include <gtest/gtest.h>

#include <cstdint>

#include "ground/arithmetic.h"
#include "ground/bits.h"

namespace kvfs_test {
namespace {

constexpr std::uint64_t kLargest = UINT64_MAX;

TEST(Numbers, SmallerAndLarger_AreChosenAndEqualOnesStay) {
  EXPECT_EQ(kvfs_min(3, 5), 3);
  EXPECT_EQ(kvfs_min(5, 3), 3);
  EXPECT_EQ(kvfs_max(3, 5), 5);
  EXPECT_EQ(kvfs_max(5, 3), 5);
  EXPECT_EQ(kvfs_min(4, 4), 4);
  EXPECT_EQ(kvfs_max(4, 4), 4);
  EXPECT_EQ(kvfs_min<std::uint64_t>(kLargest, 0), 0u);
  EXPECT_EQ(kvfs_max<std::uint64_t>(kLargest, 0), kLargest);
}

TEST(Numbers, Quotient_IsRoundedUp) {
  EXPECT_EQ(kvfs_divide_rounding_up(0, 8), 0u);
  EXPECT_EQ(kvfs_divide_rounding_up(1, 8), 1u);
  EXPECT_EQ(kvfs_divide_rounding_up(8, 8), 1u);
  EXPECT_EQ(kvfs_divide_rounding_up(9, 8), 2u);
}

// Adding the divisor less one first would come out at 0 here.
TEST(Numbers, QuotientOfTheLargestNumber_DoesNotWrap) {
  EXPECT_EQ(kvfs_divide_rounding_up(kLargest, 8), kLargest / 8 + 1);
  EXPECT_EQ(kvfs_divide_rounding_up(kLargest, 1), kLargest);
  EXPECT_EQ(kvfs_divide_rounding_up(kLargest, kLargest), 1u);
  EXPECT_EQ(kvfs_divide_rounding_up(1, kLargest), 1u);
}

TEST(Bits, NumbersOfAByte_BeginWithItsMostSignificantBit) {
  EXPECT_EQ(kvfs_disk_bit(0), 0x80);
  EXPECT_EQ(kvfs_disk_bit(1), 0x40);
  EXPECT_EQ(kvfs_disk_bit(7), 0x01);
  EXPECT_EQ(kvfs_disk_bit(8), 0x80);
  EXPECT_EQ(kvfs_disk_bit(kLargest), 0x01);
}

}  // namespace
}  // namespace kvfs_test
