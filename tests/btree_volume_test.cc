// The B-tree engine over the special files of whole volumes, each found, searched and walked as their users do.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "btree_fixture.h"
#include "catalog.h"
#include "extents.h"
#include "fork.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

// A volume in a file, with its header read and the extents overflow file open.
class OpenVolume {
 public:
  explicit OpenVolume(const Volume& volume) {
    const std::string path = ::testing::TempDir() + "kvfs-btree-volume-" + std::to_string(getpid());
    volume.write_to(path);
    fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
    unlink(path.c_str());
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(kvfs_device_create(fd_, 0, 512, 0, &device_), kvfs_ok);
    volume.read(kVolumeHeaderOffset, &header_, sizeof(header_));
    EXPECT_EQ(kvfs_extents_create(device_, &header_, &extents_), kvfs_ok);
  }
  ~OpenVolume() {
    EXPECT_EQ(kvfs_extents_destroy(&extents_), kvfs_ok);
    kvfs_device_destroy(&device_);
    ::close(fd_);
  }
  OpenVolume(const OpenVolume&) = delete;
  OpenVolume& operator=(const OpenVolume&) = delete;

  kvfs_btree* open_catalog() {
    kvfs_btree* tree = nullptr;
    EXPECT_EQ(kvfs_btree_create(device_, extents_, 0, &header_, kHFSCatalogFileID, kvfs_catalog_compare_keys, &tree),
              kvfs_ok);
    return tree;
  }
  kvfs_btree* extents_tree() { return extents_->btree; }

 private:
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
  HFSPlusVolumeHeader header_ = {};
  kvfs_extents* extents_ = nullptr;
};

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
  OpenVolume opened(volume);
  LogCapture log;
  kvfs_btree* tree = opened.open_catalog();
  EXPECT_EQ(walk(tree, catalog_key(0, u"")), records);
  find_each(tree, records);
  kvfs_btree_destroy(&tree);
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
  OpenVolume opened(volume);
  LogCapture log;
  EXPECT_EQ(walk(opened.extents_tree(), extents_key(0, 0, 0)), records);
  find_each(opened.extents_tree(), records);
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Shapes, BtreeOverflowVolume,
                         ::testing::Combine(::testing::Values(512u, 4096u, 32768u),
                                            ::testing::Values(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3})));

}  // namespace
}  // namespace kvfs_test
