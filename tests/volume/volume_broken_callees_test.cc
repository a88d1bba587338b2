// Volumes whose catalog hands out what it never does, and one with an attributes file, which none has.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>

#include "catalog_fixture.h"
#include "replaced_routine.h"
#include "volume.h"

// What is done to what a search by ID has found.
namespace {
void (*g_damage)(kvfs_catalog_search_result* found) = nullptr;
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_catalog_search_by_cnid, real_search, wrap_search);

kvfs_result wrap_search(kvfs_catalog* catalog, std::uint32_t cnid, bool follow, kvfs_catalog_search_result* result) {
  const kvfs_result searched = real_search(catalog, cnid, follow, result);
  if (g_damage != nullptr) {
    g_damage(result);
  }
  return searched;
}

namespace kvfs_test {
namespace {

// Has a record end behind so many bytes of its key.
template <std::uint32_t kSize>
void cut_record(kvfs_catalog_search_result* found) {
  kvfs_btree_record_locator* const record = found->locator->btree_locator;
  record->data = record->key;
  record->data_size = kSize;
}

struct BrokenFind {
  const char* name;
  void (*damage)(kvfs_catalog_search_result* found);
  kvfs_result result;
  const char* message;

  friend void PrintTo(const BrokenFind& broken, std::ostream* stream) { *stream << broken.name; }
};

const BrokenFind kBrokenFinds[] = {
    {"WithoutLocator", kvfs_catalog_search_result_release, kvfs_internal,
     "CRITICAL kvfs_volume_setup Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error.\n"},
    {"WithoutName", cut_record<7>, kvfs_inconsistent,
     "ERROR kvfs_volume_setup Record of root directory is too short for its name.\n"},
    {"WithAPartOfItsName", cut_record<23>, kvfs_inconsistent,
     "ERROR kvfs_volume_setup Record of root directory is too short for its name.\n"},
};

class VolumeBrokenRootFolder : public ::testing::TestWithParam<BrokenFind> {};

TEST_P(VolumeBrokenRootFolder, IsReportedAndLeavesNothingBehind) {
  const TestDevice device(small_volume());
  const FaultInjector faults;
  LogCapture log;
  kvfs_volume* volume = nullptr;
  g_damage = GetParam().damage;
  EXPECT_EQ(kvfs_volume_create(device.get(), 0, &volume), GetParam().result);
  g_damage = nullptr;
  EXPECT_EQ(volume, nullptr);
  EXPECT_LOG(log, GetParam().message, "ERROR kvfs_volume_create Error while setting up HFS volume.\n");
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
}

INSTANTIATE_TEST_SUITE_P(Finds, VolumeBrokenRootFolder, ::testing::ValuesIn(kBrokenFinds),
                         [](const auto& suite) { return std::string(suite.param.name); });

TEST(VolumeDestroy, VolumeWithAnAttributesFile_ClosesItToo) {
  const TestDevice device(small_volume());
  const FaultInjector faults;
  LogCapture log;
  kvfs_volume* volume = nullptr;
  ASSERT_EQ(kvfs_volume_create(device.get(), 1, &volume), kvfs_ok);
  // Any tree serves.
  ASSERT_EQ(kvfs_btree_create(device.get(), volume->extents, 0, volume->header, kHFSCatalogFileID,
                              kvfs_catalog_compare_keys, &volume->attributes),
            kvfs_ok);
  kvfs_volume_destroy(&volume);
  EXPECT_LOG(log);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
}

}  // namespace
}  // namespace kvfs_test
