// The operations of a volume take their locks in their order. What they do when a call fails is compared with it by the
// fixtures that let calls fail.

#include "lock_order.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "fork.h"
#include "item_fixture.h"
#include "log_capture.h"

namespace kvfs_test {
namespace {

// ---- The checker ---------------------------------------------------------------------------------------------------

TEST(LockOrderChecker, LocksInTheirOrder_AreRight) {
  const int a = 0;
  const int b = 0;
  const LockRanks ranks = {{&a, {1, "a"}}, {&b, {2, "b"}}};
  EXPECT_EQ(order_violations({{Call::kRwlockRdlock, &a, 0}, {Call::kRwlockWrlock, &b, 0}, {Call::kRwlockUnlock, &a, 0}},
                             ranks),
            std::vector<std::string>());
  EXPECT_EQ(order_violations({{Call::kRwlockRdlock, &b, 0}, {Call::kRwlockUnlock, &b, 0}, {Call::kRwlockRdlock, &a, 0}},
                             ranks),
            std::vector<std::string>());
}

TEST(LockOrderChecker, LocksOutOfTheirOrder_AreNamed) {
  const int a = 0;
  const int b = 0;
  const LockRanks ranks = {{&a, {1, "a"}}, {&b, {2, "b"}}};
  EXPECT_EQ(order_violations({{Call::kRwlockRdlock, &b, 0}, {Call::kRwlockWrlock, &a, 0}}, ranks),
            std::vector<std::string>{"a behind b"});
  EXPECT_EQ(order_violations({{Call::kRwlockRdlock, &a, 0}, {Call::kRwlockRdlock, &a, 0}}, ranks),
            std::vector<std::string>{"a behind a"});
}

TEST(LockOrderChecker, LocksThatNobodyKnows_AreCounted) {
  const int a = 0;
  const int b = 0;
  const LockRanks ranks = {{&a, {1, "a"}}};
  const std::vector<LockCall> calls = {
      {Call::kRwlockRdlock, &a, 0}, {Call::kRwlockWrlock, &b, 0}, {Call::kRwlockUnlock, &b, 0}};
  EXPECT_EQ(count_unknown(calls, ranks), 1u);
  EXPECT_EQ(order_violations(calls, ranks), std::vector<std::string>());
}

// ---- The operations ------------------------------------------------------------------------------------------------

struct Operation {
  const char* name;
  std::function<void(OpenVolume&)> run;
  std::uint32_t extents = 10;  // of the catalog; those beyond eight are in the overflow file
};

void look_up(const OpenVolume& volume, const std::string& path) {
  kvfs_catalog_utf8_path components = {path.c_str()};
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  EXPECT_EQ(
      kvfs_catalog_search_by_path(volume.catalog(), kvfs_catalog_utf8_path_component, &components, nullptr, &result),
      kvfs_ok);
  kvfs_catalog_search_result_release(&result);
}

void iterate(const OpenVolume& volume) {
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, false, &result), kvfs_ok);
  while (result.locator != nullptr) {
    kvfs_catalog_record_locator* next = nullptr;
    EXPECT_EQ(kvfs_catalog_get_next_record(volume.catalog(), result.locator, &next), kvfs_ok);
    kvfs_catalog_record_locator_close(&result.locator);
    result.locator = next;
  }
}

void rename(const OpenVolume& volume) {
  ItemLocator item(volume, kRootFolderId, u"f000050");
  std::vector<kvfs_be16> name(60, kvfs_be16::of(u'f'));
  kvfs_catalog_record_locator* locator = item.release();
  EXPECT_EQ(
      kvfs_catalog_rename_record(volume.catalog(), &locator, kvfs_be32::of(kRootFolderId), name.data(), name.size()),
      kvfs_ok);
}

void delete_file(const OpenVolume& volume) {
  const ItemLocator item(volume, kRootFolderId, u"data");
  int can_delete = 0;
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), item.get(), &can_delete), kvfs_ok);
  EXPECT_EQ(kvfs_catalog_delete(volume.catalog(), volume.get(), item.get()), kvfs_ok);
}

void make_symlink(const OpenVolume& volume) {
  const ItemLocator item(volume, kRootFolderId, u"f000020");
  const kvfs_be16 target[] = {kvfs_be16::of(u'a'), kvfs_be16::of(u'b')};
  EXPECT_EQ(kvfs_catalog_mksymlink(item.get(), target, std::size(target), volume.get()), kvfs_ok);
}

void set_label(const OpenVolume& volume) {
  const std::vector<kvfs_be16> label(90, kvfs_be16::of(u'L'));
  EXPECT_EQ(kvfs_volume_set_label(volume.get(), label.data(), label.size()), kvfs_ok);
}

void use_fork(const OpenVolume& volume) {
  kvfs_fork* const fork = volume.catalog_fork();
  void* bytes = nullptr;
  EXPECT_EQ(kvfs_fork_map(fork, 4096, &bytes, 100, nullptr), kvfs_ok);
  EXPECT_EQ(kvfs_fork_unmap(fork, 4096, &bytes, 100), kvfs_ok);
  Bytes buffer(8192);
  EXPECT_EQ(kvfs_fork_read(fork, 0, buffer.data(), buffer.size(), nullptr), kvfs_ok);
  EXPECT_EQ(kvfs_fork_write(fork, 0, buffer.data(), buffer.size(), nullptr), kvfs_ok);
  const std::uint64_t last_node = *fork->logical_size - 4096;  // not in use
  EXPECT_EQ(kvfs_fork_fill(fork, last_node, 4096, 0, nullptr), kvfs_ok);
}

void flush(const OpenVolume& volume) {
  EXPECT_EQ(kvfs_fork_flush(volume.catalog_fork()), kvfs_ok);
  EXPECT_EQ(kvfs_bitmap_flush(volume.get()->bitmap), kvfs_ok);
  EXPECT_EQ(kvfs_volume_flush(volume.get()), kvfs_ok);
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> all = {
      {"LookUpPath", [](OpenVolume& volume) { look_up(volume, "/f000010"); }},
      {"Iterate", iterate},
      {"Rename", rename},
      {"Delete", delete_file},
      {"MakeSymlink", make_symlink},
      {"SetLabel", set_label},
      {"ExpandTree",
       [](OpenVolume& volume) { EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok); }, 5},
      {"ShrinkFork",
       [](OpenVolume& volume) { EXPECT_EQ(kvfs_fork_shrink(volume.catalog_fork(), volume.get(), 1), kvfs_ok); }, 5},
      {"UseFork", use_fork},
      {"FlushChanges",
       [](OpenVolume& volume) {
         rename(volume);
         make_symlink(volume);
         flush(volume);
       }},
  };
  return all;
}

class LockOrder : public ::testing::TestWithParam<Operation> {};

TEST_P(LockOrder, OfEachOperation_IsKept) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  (void)description.add_file(kRootFolderId, u"data", 40000);
  description.catalog.leaf_fill[0].free_bytes = 0;  // so that a set splits
  description.catalog.extent_count = GetParam().extents;
  OpenVolume volume(build_volume(description));
  LogCapture log;
  FaultInjector calls;
  GetParam().run(volume);
  EXPECT_LOG(log);
  const LockRanks ranks = volume.locks();
  EXPECT_EQ(order_violations(calls.lock_calls(), ranks), std::vector<std::string>());
  EXPECT_EQ(count_unknown(calls.lock_calls(), ranks), 0u);
  EXPECT_GT(calls.lock_calls().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Operations, LockOrder, ::testing::ValuesIn(operations()),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace kvfs_test
