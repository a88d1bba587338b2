// The B-tree engine over the special files of whole volumes, each found, searched and walked as their users do.

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "btree.h"
#include "catalog_fixture.h"
#include "extents.h"
#include "log_capture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

// The records of a tree in the order of iteration, from the one that `first` finds.
std::vector<Record> walk(kvfs_btree* tree, const Bytes& first) {
  std::vector<Record> records;
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  EXPECT_EQ(kvfs_btree_search_node(tree, first.data(), &found), kvfs_ok);
  kvfs_btree_record_locator* locator = found.locator;
  while (locator != nullptr) {
    records.emplace_back(Bytes(locator->key, locator->key + locator->key_length),
                         Bytes(locator->data, locator->data + locator->data_size));
    kvfs_btree_record_locator* next = nullptr;
    EXPECT_EQ(kvfs_btree_get_next_record(tree, locator, &next), kvfs_ok);
    kvfs_btree_record_locator_close(&locator);
    locator = next;
  }
  return records;
}

// Whether a search for each key finds its record.
void find_each(kvfs_btree* tree, const std::vector<Record>& records) {
  for (const auto& [key, data] : records) {
    kvfs_btree_search_result found;
    kvfs_btree_search_result_init(&found);
    ASSERT_EQ(kvfs_btree_search_node(tree, key.data(), &found), kvfs_ok);
    ASSERT_EQ(found.found, 1u);
    EXPECT_EQ(Bytes(found.locator->key, found.locator->key + found.locator->key_length), key);
    EXPECT_EQ(Bytes(found.locator->data, found.locator->data + found.locator->data_size), data);
    kvfs_btree_search_result_release(&found);
  }
}

struct Shape {
  std::uint32_t node_size;
  std::uint16_t height;
  bool case_sensitive;
  std::uint32_t extent_count;
};

class BtreeVolume : public ::testing::TestWithParam<Shape> {};

TEST_P(BtreeVolume, EveryRecordOfTheCatalog_IsFoundAndMetInOrder) {
  const Shape& shape = GetParam();
  VolumeDescription description;
  description.hfsx = shape.case_sensitive;
  description.case_sensitive = shape.case_sensitive;
  description.block_size = 512;
  description.catalog.node_size = shape.node_size;
  description.catalog.height = shape.height;
  description.catalog.extent_count = shape.extent_count;
  description.add_files(kRootFolderId, shape.height == 1 ? 1 : 100, "File ");
  description.add_folders(kRootFolderId, shape.height == 1 ? 1 : 20, "fOLDER ");
  const Volume volume = build_volume(description);
  ASSERT_EQ(joined(check_volume(volume)), "");
  const std::vector<Record> records = dump_records(volume, Tree::kCatalog);
  ASSERT_EQ(volume.get_field("catalog.header.treeDepth"), shape.height);
  LogCapture log;
  {
    const OpenCatalog catalog(volume);
    EXPECT_EQ(walk(catalog.priv()->btree, catalog_key(0, u"")), records);
    find_each(catalog.priv()->btree, records);
  }
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Shapes, BtreeVolume,
                         ::testing::Values(Shape{1024, 5, false, 1}, Shape{1024, 4, true, 8}, Shape{2048, 4, false, 9},
                                           Shape{4096, 1, true, 1}, Shape{4096, 2, false, 40},
                                           Shape{8192, 3, true, 200}, Shape{16384, 3, false, 8},
                                           Shape{32768, 1, false, 1}, Shape{32768, 2, true, 20},
                                           Shape{512, 5, true, 30}, Shape{512, 3, false, 1}));

class BtreeOverflowVolume : public ::testing::TestWithParam<std::tuple<std::uint32_t, std::uint16_t>> {};

TEST_P(BtreeOverflowVolume, EveryRecordOfTheExtentsFile_IsFoundAndMetInOrder) {
  const auto [node_size, height] = GetParam();
  VolumeDescription description;
  description.block_size = 512;
  description.extents.node_size = node_size;
  description.extents.height = height;
  description.add_overflow_records(height == 1 ? 4 : 60);
  const Volume volume = build_volume(description);
  const std::vector<Record> records = dump_records(volume, Tree::kExtents);
  ASSERT_EQ(volume.get_field("extents.header.treeDepth"), height);
  LogCapture log;
  const CatalogGround ground(volume);
  EXPECT_EQ(walk(ground.extents()->btree, extents_key(0, 0, 0)), records);
  find_each(ground.extents()->btree, records);
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Shapes, BtreeOverflowVolume,
                         ::testing::Combine(::testing::Values(512u, 4096u, 32768u),
                                            ::testing::Values(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3})));

}  // namespace
}  // namespace kvfs_test
