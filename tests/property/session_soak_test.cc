// A soak: random calls of the C interface on random volumes, growth and shrinking in between, against a model, with a
// loss of power every thousand calls and the volume opened anew.
//
// KVFS_SOAK_OPERATIONS makes a run longer (default 4,000: a second) and KVFS_SOAK_SEED is the first volume's seed. A
// volume serves for two thousand operations; a failure names its seed.

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>

#include "property/soaked_volume.h"

namespace kvfs_test {
namespace {

constexpr unsigned long kOperationsOfAVolume = 2000;
constexpr unsigned long kOperationsBetweenCuts = 1000;

// Resident bytes of this process, without what it has given back and the C library keeps.
std::uint64_t resident_size() {
#ifdef __GLIBC__
  (void)malloc_trim(0);
#endif
  std::uint64_t pages = 0;
  std::uint64_t resident = 0;
  std::ifstream file("/proc/self/statm");
  EXPECT_TRUE(file >> pages >> resident) << "the size of the process is not known";
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Uses one volume until its time is up. Returns whether all was as it should be.
bool soak(unsigned long seed, Figures& figures) {
  ++figures.volumes;
  SoakedVolume volume(seed, figures);
  for (unsigned long i = 1; i <= kOperationsOfAVolume && !volume.is_used_up(); ++i) {
    try {
      volume.operate();
      if (i % kOperationsBetweenCuts == 0) {
        volume.cut_power();
      }
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    if (::testing::Test::HasFailure()) {
      ADD_FAILURE() << "seed " << seed << volume.history();
      return false;
    }
  }
  return true;
}

void print(const Figures& figures, unsigned long first_seed) {
  std::printf(
      "%lu operations on %lu volumes from seed %lu, %lu losses of power; refused: %lu by rule, %lu by nodes that "
      "would be empty or indexes that could not follow, %lu in full catalogs, %lu without free blocks\n",
      figures.operations, figures.volumes, first_seed, figures.cuts, figures.refused, figures.limited,
      figures.without_room, figures.without_space);
}

TEST(SessionSoak, RandomOperationsAndLossesOfPower_LeaveWhatTheModelHas) {
  constexpr std::size_t kKindsOfOperation = 12;
  constexpr unsigned long kLongRun = 100000;
  constexpr std::uint64_t kMebibyte = 0x100000;
  const unsigned long first = number_from("KVFS_SOAK_SEED", 1);
  const unsigned long wanted = number_from("KVFS_SOAK_OPERATIONS", 4000);
  Figures figures;
  std::uint64_t early_size = 0;
  while (figures.operations < wanted) {
    ASSERT_TRUE(soak(first + figures.volumes, figures));
    early_size = early_size == 0 && figures.operations >= wanted / 10 ? resident_size() : early_size;
  }
  print(figures, first);
  EXPECT_EQ(figures.done.size(), kKindsOfOperation);
  EXPECT_GT(figures.cuts, 0U);
  EXPECT_LT(figures.limited + figures.without_room, figures.operations / 4) << "most changes are to be possible";
  const std::uint64_t size = resident_size();
  std::printf("%.1f MiB resident after a tenth, %.1f MiB in the end\n", static_cast<double>(early_size) / kMebibyte,
              static_cast<double>(size) / kMebibyte);
  if (wanted >= kLongRun) {
    EXPECT_LE(size, early_size + 2 * kMebibyte) << "memory has grown";
  }
}

}  // namespace
}  // namespace kvfs_test
