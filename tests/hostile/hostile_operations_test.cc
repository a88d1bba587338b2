// Volumes made to hurt whoever opens them, and what the library can do besides printing and setting the label: every
// operation comes to its end with little memory, says so when it fails, gives everything back, and changes nothing on
// the device that was not flushed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bitmap.h"
#include "btree.h"
#include "fork.h"
#include "hostile_stories.h"
#include "item_fixture.h"
#include "log_capture.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kMemory = std::size_t{64} << 20;
constexpr std::uint32_t kSomeItems = 64;  // IDs below are looked at

// ---- Operations ----------------------------------------------------------------------------------------------------

struct Operation {
  const char* name;
  std::function<kvfs_result(OpenVolume&)> run;
  bool writes = false;  // to the device at once
};

// The item with an ID, with its folder as its parent; without a locator when it is not found.
kvfs_result find_item(OpenVolume& volume, std::uint32_t cnid, Searched* item) {
  kvfs_result result = kvfs_catalog_search_by_cnid(volume.catalog(), cnid, true, item->out());
  if (result != kvfs_ok || item->out()->found == 0) {
    item->release();
    return result;
  }
  HFSPlusCatalogKey key = {};
  std::memcpy(&key, item->locator()->btree_locator->key,
              std::min<std::size_t>(sizeof(key), item->locator()->btree_locator->key_length + 2u));
  Searched folder;
  result = kvfs_catalog_search_by_cnid(volume.catalog(), key.parentID.get(), true, folder.out());
  if (result != kvfs_ok || folder.out()->found == 0) {
    return result;
  }
  return kvfs_catalog_record_locator_set_parent_locator(item->locator(), folder.locator());
}

// Does something with each of the first items, as long as there is no failure.
kvfs_result for_each_item(OpenVolume& volume, const std::function<kvfs_result(Searched&)>& operate) {
  for (std::uint32_t cnid = kRootFolderId; cnid < kSomeItems; ++cnid) {
    Searched item;
    kvfs_result result = find_item(volume, cnid, &item);
    if (result == kvfs_ok && item.locator() != nullptr) {
      result = operate(item);
    }
    if (result != kvfs_ok) {
      return result;
    }
  }
  return kvfs_ok;
}

kvfs_result read_sizes(OpenVolume& volume) {
  return for_each_item(volume, [&](Searched& item) {
    const kvfs_btree_record_locator* const record = item.locator()->btree_locator;
    HFSPlusCatalogFile file = {};
    if (record->data_size >= sizeof(file)) {
      std::memcpy(&file, record->data, sizeof(file));
      (void)kvfs_catalog_record_get_file_size(&file, volume.catalog());
    }
    return kvfs_ok;
  });
}

kvfs_result list_all(OpenVolume& volume) {
  Searched item;
  kvfs_result result = kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, false, item.out());
  for (int i = 0; i < 10000 && result == kvfs_ok && item.locator() != nullptr; ++i) {
    kvfs_catalog_record_locator* next = nullptr;
    result = kvfs_catalog_get_next_record(volume.catalog(), item.locator(), &next);
    item.release();
    item.out()->locator = next;
  }
  return result;
}

kvfs_result rename_all(OpenVolume& volume) {
  return for_each_item(volume, [&](Searched& item) {
    const std::vector<kvfs_be16> name(200, kvfs_be16::of(u'n'));
    return kvfs_catalog_rename_record(volume.catalog(), &item.out()->locator, kvfs_be32::of(kRootFolderId), name.data(),
                                      name.size());
  });
}

kvfs_result delete_all(OpenVolume& volume) {
  return for_each_item(volume, [&](Searched& item) {
    int can_delete = 0;
    (void)kvfs_catalog_can_delete_file(volume.catalog(), item.locator(), &can_delete);
    return kvfs_catalog_delete(volume.catalog(), volume.get(), item.locator());
  });
}

kvfs_result make_symlinks(OpenVolume& volume) {
  return for_each_item(volume, [&](Searched& item) {
    const std::vector<kvfs_be16> target(30, kvfs_be16::of(u't'));
    return kvfs_catalog_mksymlink(item.locator(), target.data(), target.size(), volume.get());
  });
}

kvfs_result set_label(OpenVolume& volume) {
  const std::vector<kvfs_be16> label(100, kvfs_be16::of(u'L'));
  return kvfs_volume_set_label(volume.get(), label.data(), label.size());
}

kvfs_result use_blocks(OpenVolume& volume) {
  kvfs_allocation_location found = {};
  kvfs_result result = FindContiguousUnallocated(volume.get(), 5, 0, &found);
  if (result == kvfs_ok) {
    result = AllocateExtentAllocationBlocks(found.start_block, 5, volume.get());
  }
  return result == kvfs_ok ? FreeAllocationBlock(found.start_block, volume.get()->bitmap) : result;
}

std::vector<Operation> operations() {
  return {
      {"read sizes", read_sizes},
      {"list", list_all},
      {"rename", rename_all},
      {"delete", delete_all},
      {"make symbolic links", make_symlinks, true},
      {"set the label", set_label},
      {"expand", [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); }},
      {"shrink", [](OpenVolume& volume) { return kvfs_fork_shrink(volume.catalog_tree()->fork, volume.get(), 1); }},
      {"use blocks", use_blocks},
  };
}

// ---- Stories that only these operations meet -----------------------------------------------------------------------

struct ItemStory {
  const char* name;
  std::function<Volume()> volume;
};

VolumeDescription some_files() {
  VolumeDescription description;
  (void)description.add_file(kRootFolderId, u"a", 40000, 12);  // its first ID, so that it is the first to be met
  (void)description.add_files(kRootFolderId, 20);
  (void)description.add_folder(kRootFolderId, u"folder");
  return description;
}

// The field of the record of the file "a".
std::string field_of_file(const Volume& volume, const std::string& field) {
  const RecordPlace place = *volume.find_record(Tree::kCatalog, catalog_key(kRootFolderId, u"a"));
  return "catalog.node[" + std::to_string(place.node) + "].record[" + std::to_string(place.index) + "]." + field;
}

ItemStory damage_to(const char* name, const std::function<std::string(const Volume&)>& field, std::uint64_t value) {
  return {name, [field, value] {
            Volume volume = build_volume(some_files());
            volume.set_field(field(volume), value);
            return volume;
          }};
}

ItemStory damage_to_file(const char* name, const std::string& field, std::uint64_t value) {
  return damage_to(
      name, [field](const Volume& volume) { return field_of_file(volume, field); }, value);
}

ItemStory damage_to_header(const char* name, const std::string& field, std::uint64_t value) {
  return damage_to(
      name, [field](const Volume& /*volume*/) { return field; }, value);
}

// A hard link whose file is a hard link to itself.
Volume hard_link_to_itself() {
  VolumeDescription description = some_files();
  const std::uint32_t target = description.add_inode(100);
  (void)description.add_hard_link(kRootFolderId, u"link", target);
  Item& inode = description.item(target);
  inode.file_type = 0x686C6E6B;  // "hlnk"
  inode.creator = 0x6866732B;    // "hfs+"
  inode.special = target;
  return build_volume(description);
}

// A folder that is its own parent, in its record and in its thread.
Volume folder_in_itself() {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  description.item(folder).with_record = description.item(folder).with_thread = true;
  description.item(folder).parent = folder;
  return build_volume(description);
}

std::vector<ItemStory> item_stories() {
  return {
      damage_to_file("FileBeyondTheVolume", "dataFork.extents[0].startBlock", 0xFFFFFFF0),
      damage_to_file("FileOverTheVolumeHeader", "dataFork.extents[0].startBlock", 0),
      damage_to_file("ExtentOfAllBits", "dataFork.extents[3].blockCount", 0xFFFFFFFF),
      damage_to_file("TotalBlocksAllBits", "dataFork.totalBlocks", 0xFFFFFFFF),
      damage_to_file("TotalBlocks0", "dataFork.totalBlocks", 0),
      damage_to_file("FileSizeAllBits", "dataFork.logicalSize", ~std::uint64_t{0}),
      damage_to_file("ResourceForkOfAllBits", "resourceFork.totalBlocks", 0xFFFFFFFF),
      damage_to_file("FileWithTheIDOfTheCatalog", "fileID", 4),
      damage_to_file("FileWithTheIDOfTheRoot", "fileID", kRootFolderId),
      damage_to_file("RecordOfNoType", "recordType", 0),
      damage_to_file("RecordOfAFolder", "recordType", 1),
      damage_to_header("AllocationFileOfNoBlocks", "allocationFile.totalBlocks", 0),
      damage_to_header("AllocationFileOfNoBytes", "allocationFile.logicalSize", 0),
      damage_to_header("AllocationFileOfOneByte", "allocationFile.logicalSize", 1),
      damage_to_header("AllocationFileBeyondTheVolume", "allocationFile.extents[0].startBlock", 0xFFFFFFF0),
      damage_to_header("VolumeOfAllBlocks", "totalBlocks", 0xFFFFFFFF),
      damage_to_header("VolumeOfNoBlocks", "totalBlocks", 0),
      damage_to_header("NextAllocationAllBits", "nextAllocation", 0xFFFFFFFF),
      damage_to_header("CatalogOfNoNodes", "catalog.header.totalNodes", 0),
      damage_to_header("CatalogOfAllNodes", "catalog.header.totalNodes", 0xFFFFFFFF),
      damage_to_header("ClumpOfAllBits", "catalogFile.clumpSize", 0xFFFFFFFF),
      {"HardLinkToItself", hard_link_to_itself},
      {"FolderInItself", folder_in_itself},
  };
}

std::vector<ItemStory> all_stories() {
  std::vector<ItemStory> all = item_stories();
  for (const Story& story : stories()) {
    all.push_back({story.name, story.volume});
  }
  return all;
}

// ---- What becomes of them ------------------------------------------------------------------------------------------

class HostileOperations : public ::testing::TestWithParam<ItemStory> {};

void expect_clean_end(const Volume& image, const Operation& operation) {
  LogCapture log;
  FaultInjector faults;
  faults.refuse_allocations_above(kMemory);
  {
    OpenVolume volume(image, {.may_fail = true});
    const kvfs_result result = volume.get() == nullptr ? volume.result() : operation.run(volume);
    EXPECT_TRUE(result == kvfs_ok || !log.empty()) << "failed in silence with " << result;
    EXPECT_EQ(faults.locks_held(), 0);
    const FaultInjector::Pause pause;
    EXPECT_TRUE(operation.writes || volume.contents() == image);
  }
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
}

TEST_P(HostileOperations, EachOperation_EndsCleanly) {
  const Volume image = GetParam().volume();
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    expect_clean_end(image, operation);
  }
}

INSTANTIATE_TEST_SUITE_P(Stories, HostileOperations, ::testing::ValuesIn(all_stories()),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace kvfs_test
