// Every failure of the operations below, one at a time: the first call of a kind fails, then the second, until the
// operation has no more. No failure is silent, nothing is left behind, and nothing is written but by a flush.
//
// What each failure says in detail is in the tests of the units, as are the operations that are not here.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "allocation_fixture.h"
#include "extents.h"
#include "log_capture.h"
#include "report.h"
#include "unicode.h"

namespace kvfs_test {
namespace {

// ---- Kinds of failure ----------------------------------------------------------------------------------------------

struct Kind {
  const char* name;
  SetFault set;
  std::set<kvfs_result> results;  // what an operation may give that it ends
};

SetFault each_transfer(Call call, Fault fault) {
  return [call, fault](FaultInjector& faults, unsigned long n) { faults.fail(call, n, fault); };
}

// Opening a fork gives 2 for whatever fails, and so do the trees and volumes that are opened with it. A lock that
// cannot be destroyed is leaked on purpose; the units' tests look at that.
std::vector<Kind> kinds() {
  return {
      {"memory", each_allocation(), {kvfs_no_memory}},
      {"lock made", each(Call::kRwlockInit), {kvfs_no_memory}},
      {"attribute made", each(Call::kRwlockattrInit), {kvfs_no_memory}},
      {"attribute set", each(Call::kRwlockattrSetpshared), {kvfs_failed, kvfs_no_memory}},
      {"read lock", each(Call::kRwlockRdlock), {kvfs_failed, kvfs_no_memory}},
      {"write lock", each(Call::kRwlockWrlock), {kvfs_failed, kvfs_no_memory}},
      {"unlock", each(Call::kRwlockUnlock), {kvfs_failed, kvfs_no_memory}},
      {"flock", each(Call::kFlock), {kvfs_failed}},
      {"read", each(Call::kPread64), {kvfs_io_error, kvfs_no_memory}},
      {"read short", each_transfer(Call::kPread64, Fault::short_by(1)), {kvfs_io_error, kvfs_no_memory}},
      {"read nothing", each_transfer(Call::kPread64, Fault::nothing_transferred()), {kvfs_io_error, kvfs_no_memory}},
      {"write", each(Call::kPwrite64), {kvfs_io_error}},
      {"write short", each_transfer(Call::kPwrite64, Fault::short_by(1)), {kvfs_io_error}},
      {"write nothing", each_transfer(Call::kPwrite64, Fault::nothing_transferred()), {kvfs_io_error}},
  };
}

// ---- Operations ----------------------------------------------------------------------------------------------------

struct Operation {
  const char* name;
  std::function<kvfs_result(OpenVolume&)> run;
  std::function<void(OpenVolume&)> prepare = nullptr;
  bool writes = false;                          // to the device, rather than to the cache
  std::uint32_t extents = 10;                   // of the catalog; those beyond eight are in the overflow file
  std::string silent_about = "";                // a kind of failure of which it says nothing
  std::set<std::string> succeeds_despite = {};  // kinds of failure that it gets over, some of them at least
};

// A lock that fails while something is given back is told by the log alone.
const std::set<std::string> kGivingBack = {"unlock", "write lock"};
// Whatever fails while the blocks of a deleted file are freed leaks them, and the file is gone nevertheless.
const std::set<std::string> kFreeingBlocks = {"attribute made", "attribute set", "lock made",  "memory", "read",
                                              "read lock",      "read nothing",  "read short", "unlock", "write lock"};

// A locator on an item; the folder's is its parent.
kvfs_result find_item(OpenVolume& volume, std::uint32_t cnid, kvfs_catalog_search_result* item) {
  kvfs_catalog_search_result_init(item);
  return kvfs_catalog_search_by_cnid(volume.catalog(), cnid, true, item);
}

// Runs an operation on an item that was found without a failure.
kvfs_result with_item(OpenVolume& volume, std::uint32_t cnid,
                      const std::function<kvfs_result(kvfs_catalog_record_locator**)>& operate) {
  kvfs_catalog_search_result item;
  kvfs_catalog_search_result folder;
  {
    const FaultInjector::Pause pause;
    kvfs_catalog_search_result_init(&folder);
    EXPECT_EQ(find_item(volume, cnid, &item), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, true, &folder), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_record_locator_set_parent_locator(item.locator, folder.locator), kvfs_ok);
    kvfs_catalog_search_result_release(&folder);
  }
  const kvfs_result result = operate(&item.locator);
  const FaultInjector::Pause pause;
  kvfs_catalog_search_result_release(&item);
  return result;
}

kvfs_result search_and_release(const std::function<kvfs_result(kvfs_catalog_search_result*)>& search) {
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  const kvfs_result searched = search(&result);
  kvfs_catalog_search_result_release(&result);
  return searched;
}

constexpr std::uint32_t kFile = 16;
constexpr std::uint32_t kFiles = 40;
constexpr std::uint32_t kDataFile = kFile + kFiles;

std::vector<kvfs_be16> name_of(std::size_t length) {
  return std::vector<kvfs_be16>(length, kvfs_be16::of(u'n'));
}

kvfs_result open_volume(OpenVolume& volume, int without_allocation_file) {
  kvfs_volume* opened = nullptr;
  const kvfs_result result = kvfs_volume_create(volume.device(), without_allocation_file, &opened);
  EXPECT_EQ(opened == nullptr, result != kvfs_ok);
  if (opened != nullptr) {
    kvfs_volume_destroy(&opened);
  }
  return result;
}

void change_catalog(OpenVolume& volume) {
  const std::vector<kvfs_be16> label = name_of(8);
  ASSERT_EQ(kvfs_volume_set_label(volume.get(), label.data(), label.size()), kvfs_ok);
}

std::vector<Operation> opening_operations() {
  return {
      {"kvfs_volume_create", [](OpenVolume& v) { return open_volume(v, 0); }, nullptr, false, 10, "", kGivingBack},
      {"kvfs_volume_create, without allocation file", [](OpenVolume& v) { return open_volume(v, 1); }, nullptr, false,
       10, "", kGivingBack},
      {"kvfs_device_create",
       [](OpenVolume& /*v*/) {
         const int fd = memfd_create("device", MFD_CLOEXEC);
         kvfs_device* device = nullptr;
         const kvfs_result result = kvfs_device_create(fd, 1, 512, 0, &device);
         EXPECT_EQ(device == nullptr, result != kvfs_ok);
         if (device != nullptr) {
           kvfs_device_destroy(&device);
         }
         close(fd);
         return result;
       },
       nullptr,
       false,
       10,
       "memory",
       {"flock"}},
      {"kvfs_device_read_disk_sectors",
       [](OpenVolume& v) {
         void* sectors = nullptr;
         const kvfs_result result = kvfs_device_read_disk_sectors(v.device(), 2, 1, &sectors);
         EXPECT_EQ(sectors == nullptr, result != kvfs_ok);
         std::free(sectors);
         return result;
       }},
      {"kvfs_device_write_disk_sectors",
       [](OpenVolume& v) {
         const unsigned char sector[512] = {};
         return kvfs_device_write_disk_sectors(v.device(), 0, 1, sector);
       },
       nullptr, true},
  };
}

std::vector<Operation> searching_operations() {
  return {
      {"kvfs_catalog_search_by_cnid",
       [](OpenVolume& v) {
         return search_and_release([&v](kvfs_catalog_search_result* result) {
           return kvfs_catalog_search_by_cnid(v.catalog(), kFile, true, result);
         });
       },
       nullptr, false, 10, "", kGivingBack},
      {"kvfs_catalog_search_by_path",
       [](OpenVolume& v) {
         kvfs_catalog_utf8_path path = {"/f000005"};
         return search_and_release([&v, &path](kvfs_catalog_search_result* result) {
           return kvfs_catalog_search_by_path(v.catalog(), kvfs_catalog_utf8_path_component, &path, nullptr, result);
         });
       },
       nullptr, false, 10, "", kGivingBack},
      {"kvfs_catalog_get_next_record",
       [](OpenVolume& v) {
         return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
           kvfs_catalog_record_locator* next = nullptr;
           const kvfs_result result = kvfs_catalog_get_next_record(v.catalog(), *item, &next);
           EXPECT_TRUE(result == kvfs_ok || next == nullptr);
           if (next != nullptr) {
             kvfs_catalog_record_locator_close(&next);
           }
           return result;
         });
       },
       nullptr, false, 10, "", kGivingBack},
      {"kvfs_catalog_is_directory_empty",
       [](OpenVolume& v) {
         return with_item(v, kRootFolderId, [&v](kvfs_catalog_record_locator** item) {
           int empty = 0;
           return kvfs_catalog_is_directory_empty(v.catalog(), *item, &empty);
         });
       },
       nullptr, false, 10, "", kGivingBack},
      {"kvfs_extents_get_next_extent_record",
       [](OpenVolume& v) {
         const HFSPlusForkData fork_data = v.header()->catalogFile;
         std::uint32_t blocks = 0;
         for (const HFSPlusExtentDescriptor& extent : fork_data.extents.extents) {
           blocks += extent.blockCount.get();
         }
         int found = 0;
         HFSPlusExtentRecord record = {};
         return kvfs_extents_get_next_extent_record(v.get()->extents, 0, 4, blocks, &found, &record);
       },
       nullptr, false, 10, "", kGivingBack},
  };
}

std::vector<Operation> reading_operations() {
  return {
      {"kvfs_fork_map and kvfs_fork_unmap",
       [](OpenVolume& v) {
         void* bytes = nullptr;
         kvfs_result result = kvfs_fork_map(v.catalog_fork(), 0, &bytes, 100, nullptr);
         if (result == kvfs_ok) {
           result = kvfs_fork_unmap(v.catalog_fork(), 0, &bytes, 100);
         }
         return result;
       }},
      {"kvfs_fork_read",
       [](OpenVolume& v) {
         unsigned char bytes[10000];
         return kvfs_fork_read(v.catalog_fork(), 0, bytes, sizeof(bytes), nullptr);
       }},
      {"FindContiguousUnallocated",
       [](OpenVolume& v) {
         kvfs_allocation_location location = {};
         return FindContiguousUnallocated(v.get(), 3, 0, &location);
       }},
      {"kvfs_unicode_utf8_to_unistr",
       [](OpenVolume& /*v*/) {
         std::uint16_t* units = nullptr;
         std::size_t count = 0;
         const kvfs_result result = kvfs_unicode_utf8_to_unistr("text", 4, &units, &count);
         std::free(units);
         return result;
       },
       nullptr,
       false,
       10,
       "",
       {"memory"}},
      {"kvfs_unicode_unistr_to_utf8",
       [](OpenVolume& /*v*/) {
         const std::uint16_t units[] = {'t', 'e', 'x', 't'};
         char* text = nullptr;
         std::size_t length = 0;
         const kvfs_result result = kvfs_unicode_unistr_to_utf8(units, 4, kUnicodeHostOrder, &text, &length);
         std::free(text);
         return result;
       },
       nullptr, false, 10, "memory"},
  };
}

std::vector<Operation> changing_operations() {
  return {
      {"kvfs_fork_write",
       [](OpenVolume& v) {
         const unsigned char bytes[5000] = {};
         return kvfs_fork_write(v.catalog_fork(), 100, bytes, sizeof(bytes), nullptr);
       }},
      {"kvfs_fork_fill",
       [](OpenVolume& v) { return kvfs_fork_fill(v.catalog_fork(), 100, 5000, 0, nullptr); },
       nullptr,
       false,
       10,
       "memory",
       {"memory"}},
      {"kvfs_volume_set_label",
       [](OpenVolume& v) {
         const std::vector<kvfs_be16> label = name_of(90);  // the first leaf is split
         return kvfs_volume_set_label(v.get(), label.data(), label.size());
       },
       nullptr, false, 10, "", kGivingBack},
      {"kvfs_catalog_rename_record",
       [](OpenVolume& v) {
         return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
           const std::vector<kvfs_be16> name = name_of(7);  // as long as the old one
           return kvfs_catalog_rename_record(v.catalog(), item, kvfs_be32::of(kRootFolderId), name.data(), name.size());
         });
       },
       nullptr,
       false,
       10,
       "",
       {"read lock", "unlock", "write lock"}},
      {"kvfs_catalog_delete",
       [](OpenVolume& v) {
         return with_item(v, kDataFile, [&v](kvfs_catalog_record_locator** item) {
           return kvfs_catalog_delete(v.catalog(), v.get(), *item);
         });
       },
       nullptr, false, 10, "", kFreeingBlocks},
      {"kvfs_catalog_mksymlink",
       [](OpenVolume& v) {
         return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
           const std::vector<kvfs_be16> target = name_of(5);
           return kvfs_catalog_mksymlink(*item, target.data(), target.size(), v.get());
         });
       },
       nullptr, true},
      {"kvfs_btree_expand", [](OpenVolume& v) { return kvfs_btree_expand(v.catalog_tree(), v.get()); }, nullptr, false,
       5},
      {"kvfs_fork_shrink", [](OpenVolume& v) { return kvfs_fork_shrink(v.catalog_fork(), v.get(), 1); }, nullptr, false,
       5},
      {"AllocateExtentAllocationBlocks",
       [](OpenVolume& v) {
         kvfs_allocation_location location = {};
         {
           const FaultInjector::Pause pause;
           EXPECT_EQ(FindContiguousUnallocated(v.get(), 3, 0, &location), kvfs_ok);
         }
         return AllocateExtentAllocationBlocks(location.start_block, 3, v.get());
       }},
      {"FreeAllocationBlock", [](OpenVolume& v) { return FreeAllocationBlock(0, v.bitmap()); }},
      {"kvfs_fork_flush", [](OpenVolume& v) { return kvfs_fork_flush(v.catalog_fork()); }, change_catalog, true},
      {"kvfs_volume_flush", [](OpenVolume& v) { return kvfs_volume_flush(v.get()); }, change_catalog, true},
      {"kvfs_bitmap_flush", [](OpenVolume& v) { return kvfs_bitmap_flush(v.bitmap()); },
       [](OpenVolume& v) { ASSERT_EQ(FreeAllocationBlock(0, v.bitmap()), kvfs_ok); }, true},
  };
}

std::vector<Operation> operations() {
  std::vector<Operation> all;
  for (const auto& some : {opening_operations(), searching_operations(), reading_operations(), changing_operations()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

// ---- The campaign --------------------------------------------------------------------------------------------------

FaultScenario scenario_of(const Operation& operation) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, kFiles);
  (void)description.add_file(kRootFolderId, u"data", 40000);
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.extent_count = operation.extents;
  FaultScenario scenario = {build_volume(description), operation.prepare, operation.run, {}};
  if (!operation.writes) {
    const Volume image = scenario.image;
    scenario.check = [image](OpenVolume& volume) {
      const FaultInjector::Pause pause;
      EXPECT_EQ(volume.contents(), image);
    };
  }
  return scenario;
}

void expect_success(const Operation& operation, const FaultScenario& scenario) {
  OpenVolume volume(scenario.image);
  if (scenario.prepare) {
    scenario.prepare(volume);
  }
  LogCapture log;
  EXPECT_EQ(operation.run(volume), kvfs_ok);
  EXPECT_LOG(log);
}

class FailureCampaign : public ::testing::TestWithParam<Operation> {};

TEST_P(FailureCampaign, EachFailure_IsReportedAndLeavesNothingBehind) {
  const FaultScenario scenario = scenario_of(GetParam());
  expect_success(GetParam(), scenario);
  std::vector<std::size_t> counts;
  std::set<std::string> got_over;
  for (const Kind& kind : kinds()) {
    SCOPED_TRACE(kind.name);
    const std::vector<FailedOperation> outcomes = fail_each(kind.set, scenario);
    for (const FailedOperation& outcome : outcomes) {
      EXPECT_EQ(outcome.log.empty(), kind.name == GetParam().silent_about) << "result " << outcome.result;
      EXPECT_TRUE(outcome.result == kvfs_ok || kind.results.contains(outcome.result)) << outcome.result;
      if (outcome.result == kvfs_ok) {
        got_over.insert(kind.name);
      }
    }
    counts.push_back(outcomes.size());
  }
  EXPECT_EQ(got_over, GetParam().succeeds_despite);
  EXPECT_GT(std::accumulate(counts.begin(), counts.end(), std::size_t{0}), 0u) << "nothing can fail";
  report_failures(std::string("`") + GetParam().name + "`", counts);
}

INSTANTIATE_TEST_SUITE_P(Operations, FailureCampaign, ::testing::ValuesIn(operations()), [](const auto& suite) {
  std::string name = suite.param.name;
  std::erase_if(name, [](char c) { return c == ' ' || c == ','; });
  return name;
});

}  // namespace
}  // namespace kvfs_test
