// Whether a folder is empty, whether a record may be deleted, and deleting files and folders.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "btree/private.h"
#include "catalog.h"
#include "fork.h"
#include "item_fixture.h"
#include "log_capture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::HasSubstr;

// The root folder holds the folder 16 "docs", which counts its folders, and the folder 21 "last". "docs" holds the folder
// 17 "hollow", the file 18 "ten" with 10 blocks in two extents, the file 19 "bare" without blocks, and the file 20 "both"
// with 2 blocks in its data fork and 3 in its resource fork.
constexpr std::uint32_t kDocs = 16;
constexpr std::uint32_t kHollow = 17;
constexpr std::uint32_t kTen = 18;
constexpr std::uint32_t kBare = 19;
constexpr std::uint32_t kBoth = 20;
constexpr std::uint32_t kLast = 21;

VolumeDescription described() {
  VolumeDescription description;
  const std::uint32_t docs = description.add_folder(kRootFolderId, u"docs");
  description.item(docs).has_folder_count = true;
  (void)description.add_folder(docs, u"hollow");
  (void)description.add_file(docs, u"ten", 10 * 4096 - 1, 2);
  (void)description.add_file(docs, u"bare");
  const std::uint32_t both = description.add_file(docs, u"both", 2 * 4096);
  description.item(both).resource.size = 3 * 4096;
  (void)description.add_folder(kRootFolderId, u"last");
  return description;
}

Volume volume_made() {
  return build_volume(described());
}

std::uint64_t field(const Volume& volume, std::uint32_t cnid, const std::string& name) {
  return volume.get_field(volume.find_by_cnid(cnid).value().path() + "." + name);
}

kvfs_result delete_item(const OpenVolume& volume, const ItemLocator& item) {
  return kvfs_catalog_delete(volume.catalog(), volume.get(), item.get());
}

// Deletes an item and hands out what the volume holds then; the deletion is to succeed without a message.
Volume deleted(const Volume& before, std::uint32_t parent, const Name& name) {
  OpenVolume volume(before);
  ItemLocator item(volume, parent, name);
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_LOG(log);
  item.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  return volume.flushed();
}

// All extents of a file's data fork in the catalog record, as block numbers.
std::vector<std::uint32_t> blocks_of(const Volume& volume, std::uint32_t cnid) {
  const ForkView fork = volume.data_fork(volume.find_by_cnid(cnid).value());
  std::vector<std::uint32_t> blocks;
  for (const Extent& extent : fork.extents()) {
    for (std::uint32_t i = 0; i < extent.block_count; ++i) {
      blocks.push_back(extent.start_block + i);
    }
  }
  return blocks;
}

Bytes bitmap_of(const Volume& volume) {
  return volume.read_fork(SpecialFile::kAllocation, 0,
                          static_cast<std::size_t>(volume.fork_logical_size(SpecialFile::kAllocation)));
}

// The allocation file after each of the blocks was freed: the byte of each goes, with its bit cleared, to the first
// byte of the chunk of 4096 bytes that it lies in.
Bytes bitmap_after_freeing(Bytes bitmap, const std::vector<std::uint32_t>& blocks) {
  for (const std::uint32_t block : blocks) {
    const std::size_t byte = block / 8;
    bitmap.at(byte / 4096 * 4096) = static_cast<std::uint8_t>(bitmap.at(byte) & ~(0x80U >> (block % 8)));
  }
  return bitmap;
}

bool has_thread(const Volume& volume, std::uint32_t cnid) {
  return volume.find_thread(cnid).has_value();
}

bool has_entry(const Volume& volume, std::uint32_t parent, const Name& name) {
  return volume.find_entry(parent, name).has_value();
}

// ---- Whether a folder is empty -------------------------------------------------------------------------------------

// 1 or 0, or -1 when the routine failed.
int emptiness(const Volume& image, std::uint32_t parent, const Name& name) {
  OpenVolume volume(image);
  ItemLocator folder(volume, parent, name);
  int empty = -1;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_is_directory_empty(volume.catalog(), folder.get(), &empty), kvfs_ok);
  EXPECT_LOG(log);
  folder.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  return empty;
}

TEST(CatalogIsDirectoryEmpty, FolderWithItems_IsNotEmpty) {
  EXPECT_EQ(emptiness(volume_made(), kRootFolderId, u"docs"), 0);
  EXPECT_EQ(emptiness(volume_made(), kRootParentId, u"Untitled"), 0);
}

TEST(CatalogIsDirectoryEmpty, FolderBeforeAnotherParentsRecord_IsEmpty) {
  EXPECT_EQ(emptiness(volume_made(), kDocs, u"hollow"), 1);
}

TEST(CatalogIsDirectoryEmpty, FolderAtTheEndOfTheTree_IsEmpty) {
  const Volume volume = volume_made();
  EXPECT_EQ(dump_records(volume, Tree::kCatalog).back().first, thread_key(kLast));
  EXPECT_EQ(emptiness(volume, kRootFolderId, u"last"), 1);
}

TEST(CatalogIsDirectoryEmpty, ValenceOfTheRecord_IsNotConsulted) {
  Volume volume = volume_made();
  volume.set_field(volume.find_by_cnid(kDocs).value().path() + ".valence", 0);
  volume.set_field(volume.find_by_cnid(kHollow).value().path() + ".valence", 7);
  EXPECT_EQ(emptiness(volume, kRootFolderId, u"docs"), 0);
  EXPECT_EQ(emptiness(volume, kDocs, u"hollow"), 1);
}

// Without its thread record the search ends on the folder's first item, and the record behind that one decides.
TEST(CatalogIsDirectoryEmpty, FolderWithOneItemAndNoThread_CountsAsEmpty) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  (void)description.add_file(folder, u"only");
  description.item(folder).with_thread = false;
  EXPECT_EQ(emptiness(build_volume(description), kRootFolderId, u"folder"), 1);
  (void)description.add_file(folder, u"second");
  EXPECT_EQ(emptiness(build_volume(description), kRootFolderId, u"folder"), 0);
}

TEST(CatalogIsDirectoryEmpty, FolderWithoutThreadAtTheEndOfTheTree_IsEmpty) {
  VolumeDescription description = described();
  description.item(kLast).with_thread = false;
  EXPECT_EQ(emptiness(build_volume(description), kRootFolderId, u"last"), 1);
}

TEST(CatalogIsDirectoryEmpty, RecordTooShortForAFolder_IsRefusedAndLeavesTheOutputAlone) {
  VolumeDescription description = described();
  description.item(kHollow).record = Bytes(86, 0);
  description.item(kHollow).record->at(1) = 1;
  OpenVolume volume(build_volume(description));
  const ItemLocator folder(volume, kDocs, u"hollow");
  int empty = 5;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_is_directory_empty(volume.catalog(), folder.get(), &empty), kvfs_inconsistent);
  EXPECT_LOG(
      log,
      "ERROR kvfs_catalog_is_directory_empty Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 "
      "Actual: 86\n");
  EXPECT_EQ(empty, 5);
}

// The folder "last" with an item whose key was cut to so many bytes behind its length field.
Volume volume_with_cut_key(std::uint16_t key_length) {
  VolumeDescription description = described();
  (void)description.add_file(kLast, u"item");
  Volume volume = build_volume(description);
  volume.set_field(volume.find_entry(kLast, u"item")->path() + ".key.keyLength", key_length);
  return volume;
}

TEST(CatalogIsDirectoryEmpty, ItemWhoseKeyEndsBehindItsParent_Counts) {
  EXPECT_EQ(emptiness(volume_with_cut_key(4), kRootFolderId, u"last"), 0);
  EXPECT_EQ(emptiness(volume_with_cut_key(5), kRootFolderId, u"last"), 0);
}

TEST(CatalogIsDirectoryEmpty, NextKeyTooShortForAParent_IsInconsistent) {
  for (const std::uint16_t key_length : {std::uint16_t{0}, std::uint16_t{3}}) {
    const std::string message = "ERROR kvfs_catalog_is_directory_empty Key of " + std::to_string(2 + key_length) +
                                " bytes is too short for a parent.\n";
    OpenVolume volume(volume_with_cut_key(key_length));
    ItemLocator folder(volume, kRootFolderId, u"last");
    int empty = 5;
    LogCapture log;
    EXPECT_EQ(kvfs_catalog_is_directory_empty(volume.catalog(), folder.get(), &empty), kvfs_inconsistent);
    EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), folder.get(), &empty), kvfs_inconsistent);
    EXPECT_LOG(log, message, message,
               "ERROR kvfs_catalog_can_delete_file Error while checking if directory is empty.\n");
    EXPECT_EQ(empty, 5);
    folder.close();
    EXPECT_EQ(volume.open_locators(), 0u);
  }
}

TEST(CatalogIsDirectoryEmpty, EachFailingCall_IsReportedAndLeavesNothingBehind) {
  VolumeDescription description = described();
  description.catalog.node_size = 512;
  const auto operate = [](OpenVolume& volume, kvfs_catalog_record_locator* item) {
    int empty = 5;
    const kvfs_result result = kvfs_catalog_is_directory_empty(volume.catalog(), item, &empty);
    EXPECT_EQ(empty, result == kvfs_ok ? 0 : 5);
    return result;
  };
  const std::vector<FailedRun> runs = fail_everything_in(build_volume(description), {kRootFolderId, u"docs", operate});
  EXPECT_TRUE(some_run_ends_with(
      runs, {"ERROR kvfs_catalog_search_by_cnid Error while searching thread record when searching by CNID.\n",
             "ERROR kvfs_catalog_is_directory_empty Error while searching for directory thread by CNID.\n"}));
  EXPECT_TRUE(some_run_ends_with(
      runs, {"ERROR kvfs_catalog_get_next_record Error in kvfs_btree_get_next_record.\n",
             "ERROR kvfs_catalog_is_directory_empty Error while looking up the next record after directory thread "
             "record.\n"}));
}

// ---- Whether a record may be deleted -------------------------------------------------------------------------------

int deletable(const Volume& image, std::uint32_t parent, const Name& name) {
  OpenVolume volume(image);
  ItemLocator item(volume, parent, name);
  int can_delete = -1;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), item.get(), &can_delete), kvfs_ok);
  EXPECT_LOG(log);
  item.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  return can_delete;
}

TEST(CatalogCanDeleteFile, NullArguments_AreRefusedWithoutAMessage) {
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kDocs, u"hollow");
  int can_delete = 5;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_can_delete_file(nullptr, item.get(), &can_delete), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), nullptr, &can_delete), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), item.get(), nullptr), kvfs_invalid);
  EXPECT_LOG(log);
  EXPECT_EQ(can_delete, 5);
  item.close();
}

TEST(CatalogCanDeleteFile, Folder_CanBeDeletedOnlyWhileItIsEmpty) {
  EXPECT_EQ(deletable(volume_made(), kDocs, u"hollow"), 1);
  EXPECT_EQ(deletable(volume_made(), kRootFolderId, u"docs"), 0);
}

TEST(CatalogCanDeleteFile, AnythingElse_CanBeDeleted) {
  EXPECT_EQ(deletable(volume_made(), kDocs, u"ten"), 1);
  EXPECT_EQ(deletable(volume_made(), kTen, u""), 1);
  EXPECT_EQ(deletable(volume_made(), kDocs, u""), 1);
  VolumeDescription description = described();
  description.item(kBare).record = Bytes{0xAB, 0xCD};
  EXPECT_EQ(deletable(build_volume(description), kDocs, u"bare"), 1);
}

TEST(CatalogCanDeleteFile, RecordWithoutAType_IsInconsistent) {
  VolumeDescription description = described();
  description.item(kBare).record = Bytes{};
  OpenVolume volume(build_volume(description));
  const ItemLocator item(volume, kDocs, u"bare");
  int can_delete = 5;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), item.get(), &can_delete), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_catalog_can_delete_file Record of 0 bytes is too short for a record type.\n");
  EXPECT_EQ(can_delete, 5);
}

TEST(CatalogCanDeleteFile, FailureToLookIntoTheFolder_IsPassedOnAndLeavesTheOutputAlone) {
  VolumeDescription description = described();
  description.item(kHollow).record = Bytes{0, 1};
  OpenVolume volume(build_volume(description));
  const ItemLocator folder(volume, kDocs, u"hollow");
  int can_delete = 5;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_can_delete_file(volume.catalog(), folder.get(), &can_delete), kvfs_inconsistent);
  EXPECT_LOG(
      log,
      "ERROR kvfs_catalog_is_directory_empty Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 "
      "Actual: 2\n",
      "ERROR kvfs_catalog_can_delete_file Error while checking if directory is empty.\n");
  EXPECT_EQ(can_delete, 5);
}

// ---- Deleting what is sound ----------------------------------------------------------------------------------------

TEST(CatalogDelete, FileWithTenBlocks_IsGoneAndCountedOut) {
  const Volume before = volume_made();
  const Volume after = deleted(before, kDocs, u"ten");
  EXPECT_FALSE(has_entry(after, kDocs, u"ten"));
  EXPECT_FALSE(has_thread(after, kTen));
  EXPECT_EQ(dump_records(after, Tree::kCatalog).size(), dump_records(before, Tree::kCatalog).size() - 2);
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") + 10);
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount") - 1);
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount"));
  EXPECT_EQ(field(after, kDocs, "valence"), field(before, kDocs, "valence") - 1);
  EXPECT_EQ(field(after, kDocs, "folderCount"), 1u);
  EXPECT_EQ(joined(check_btree(after, Tree::kCatalog)), "");
}

TEST(CatalogDelete, FreedBlocks_ChangeTheFirstByteOfTheirChunkOnly) {
  const Volume before = volume_made();
  const std::vector<std::uint32_t> blocks = blocks_of(before, kTen);
  ASSERT_EQ(blocks.size(), 10u);
  const Volume after = deleted(before, kDocs, u"ten");
  EXPECT_EQ(bitmap_of(after), bitmap_after_freeing(bitmap_of(before), blocks));
  for (const std::uint32_t block : blocks) {
    EXPECT_EQ(after.block_used(block), block / 8 != 0 || (bitmap_of(after)[0] & (0x80U >> (block % 8))) != 0);
  }
}

// Blocks whose bits lie in a later chunk than the first change the first byte of that chunk.
TEST(CatalogDelete, FreedBlocksOfALaterChunk_ChangeThatChunksFirstByte) {
  VolumeDescription description = described();
  description.size = 40000 * 4096ULL;
  description.item(kTen).data.first_block = 33000;
  const Volume before = build_volume(description);
  const Volume after = deleted(before, kDocs, u"ten");
  const Bytes expected = bitmap_after_freeing(bitmap_of(before), blocks_of(before, kTen));
  EXPECT_NE(expected[4096], bitmap_of(before)[4096]);
  EXPECT_EQ(expected[0], bitmap_of(before)[0]);
  EXPECT_EQ(bitmap_of(after), expected);
}

TEST(CatalogDelete, FileWithoutBlocks_LeavesASoundVolume) {
  const Volume before = volume_made();
  const Volume after = deleted(before, kDocs, u"bare");
  EXPECT_EQ(bitmap_of(after), bitmap_of(before));
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks"));
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount") - 1);
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogDelete, ResourceFork_StaysAllocated) {
  const Volume before = volume_made();
  const Volume after = deleted(before, kDocs, u"both");
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") + 2);
  EXPECT_EQ(bitmap_of(after), bitmap_after_freeing(bitmap_of(before), blocks_of(before, kBoth)));
}

TEST(CatalogDelete, FileWithOverflowExtents_FreesTheEightInItsRecordOnly) {
  VolumeDescription description = described();
  const std::uint32_t split = description.add_file(kRootFolderId, u"split", 12 * 4096, 12);
  const Volume before = build_volume(description);
  std::vector<std::uint32_t> blocks = blocks_of(before, split);
  ASSERT_EQ(blocks.size(), 12u);
  blocks.resize(8);
  const Volume after = deleted(before, kRootFolderId, u"split");
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") + 8);
  EXPECT_EQ(bitmap_of(after), bitmap_after_freeing(bitmap_of(before), blocks));
  EXPECT_EQ(dump_records(after, Tree::kExtents), dump_records(before, Tree::kExtents));
}

TEST(CatalogDelete, EmptyFolder_IsGoneAndCountedOut) {
  const Volume before = volume_made();
  const Volume after = deleted(before, kDocs, u"hollow");
  EXPECT_FALSE(has_entry(after, kDocs, u"hollow"));
  EXPECT_FALSE(has_thread(after, kHollow));
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount") - 1);
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount"));
  EXPECT_EQ(field(after, kDocs, "valence"), field(before, kDocs, "valence") - 1);
  EXPECT_EQ(field(after, kDocs, "folderCount"), 0u);
  EXPECT_EQ(bitmap_of(after), bitmap_of(before));
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogDelete, FolderWithItems_IsDeletedWithoutAsking) {
  const Volume before = volume_made();
  const Volume after = deleted(before, kRootFolderId, u"docs");
  EXPECT_FALSE(has_entry(after, kRootFolderId, u"docs"));
  EXPECT_FALSE(has_thread(after, kDocs));
  EXPECT_TRUE(has_entry(after, kDocs, u"ten"));
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount") - 1);
}

TEST(CatalogDelete, HardLinkToADirectory_CountsAsAFolderInItsParentAndAsAFileInTheVolume) {
  VolumeDescription description = described();
  (void)description.add_directory_hard_link(kDocs, u"link", kLast);
  const Volume before = build_volume(description);
  EXPECT_EQ(field(before, kDocs, "folderCount"), 2u);
  const Volume after = deleted(before, kDocs, u"link");
  EXPECT_EQ(field(after, kDocs, "folderCount"), 1u);
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount") - 1);
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount"));
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogDelete, CountsAtTheirEnd_WrapWithoutACheck) {
  Volume before = volume_made();
  before.set_field("fileCount", 0);
  before.set_field("folderCount", 0);
  before.set_field("freeBlocks", 0xFFFFFFFF);
  EXPECT_EQ(deleted(before, kDocs, u"ten").get_field("fileCount"), 0xFFFFFFFFu);
  EXPECT_EQ(deleted(before, kDocs, u"ten").get_field("freeBlocks"), 9u);
  EXPECT_EQ(deleted(before, kDocs, u"hollow").get_field("folderCount"), 0xFFFFFFFFu);
}

TEST(CatalogDelete, BeforeAFlush_NothingReachesTheDevice) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator item(volume, kDocs, u"ten");
  const FaultInjector calls;
  ASSERT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_EQ(calls.count(Call::kPwrite64), 0u);
  EXPECT_TRUE(volume.contents() == before);
  EXPECT_EQ(volume.header()->fileCount.get(), before.get_field("fileCount") - 1);
}

TEST(CatalogDelete, GivenLocator_StaysOpenAndReadable) {
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kDocs, u"bare");
  ASSERT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_EQ(volume.open_locators(), 2u);  // the item's and its parent's
  EXPECT_EQ(item.get()->btree_locator->priv->deleted, 1u);
  EXPECT_EQ(describe(item.get()), "file 19 in 16/bare");
  EXPECT_EQ(describe(*item.get()->parent), "folder 16 in 2/docs");
  item.close();
  EXPECT_EQ(volume.open_locators(), 0u);
}

// Every second one, so that no leaf becomes empty: a search does not get past an empty leaf.
TEST(CatalogDelete, ManyItemsOfManyLeaves_LeaveASoundVolume) {
  VolumeDescription description;
  description.catalog.node_size = 1024;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  const std::uint32_t first = description.add_folders(folder, 60);
  (void)description.add_files(folder, 60);
  const Volume before = build_volume(description);
  ASSERT_GE(before.leaf_nodes(Tree::kCatalog).size(), 20u);
  OpenVolume volume(before);
  for (std::uint32_t cnid = first; cnid < first + 120; cnid += 2) {
    const RecordPlace place = before.find_by_cnid(cnid).value();
    ItemLocator item(volume, folder, name_of_key(before.record_key(place)));
    LogCapture log;
    ASSERT_EQ(delete_item(volume, item), kvfs_ok) << log.raw();
    EXPECT_FALSE(log.has("ERROR", "kvfs_catalog_delete", "")) << log.raw();
  }
  const Volume after = volume.flushed();
  EXPECT_EQ(field(after, folder, "valence"), 60u);
  EXPECT_EQ(after.get_field("folderCount"), 31u);
  EXPECT_EQ(after.get_field("fileCount"), 30u);
  EXPECT_EQ(joined(check_volume(after)), "");
}

// The index record of that leaf is the only one in its index node, which is empty until the new one is there.
// Replacing the only record of an index node below the root would need a place in a node without records, which a
// search never gives there.
TEST(CatalogDelete, FirstRecordOfTheOnlyLeafUnderAnIndexNode_IsAnInconsistency) {
  VolumeDescription description;
  description.catalog.node_size = 1024;
  description.catalog.max_index_records = 2;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  const std::uint32_t first = description.add_folders(folder, 10);
  Volume before = build_volume(description);
  while (before.record_count(Tree::kCatalog,
                             before.index_path(Tree::kCatalog, before.leaf_nodes(Tree::kCatalog).back()).back().node) !=
         1) {
    (void)description.add_folder(folder, u"x" + Name(description.items.size(), u'x'));
    before = build_volume(description);
  }
  const RecordPlace place = before.record_at(Tree::kCatalog, before.leaf_nodes(Tree::kCatalog).back(), 0);
  const Bytes thread = before.record_key(place);
  const std::uint32_t cnid = static_cast<std::uint32_t>(before.get_field(place.path() + ".key.parentID"));
  ASSERT_GE(cnid, first);
  ASSERT_EQ(thread, thread_key(cnid));
  ASSERT_GE(before.record_count(Tree::kCatalog, place.node), 2u);
  OpenVolume volume(before);
  ItemLocator item(volume, folder, name_of_key(before.record_key(before.find_by_cnid(cnid).value())));
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_inconsistent);
  item.close();
  EXPECT_NE(log.raw().find("has no records.\n"), std::string::npos) << log.raw();
  EXPECT_NE(log.raw().find("Error while searching for location to insert index record.\n"), std::string::npos);
}

// ---- Deleting without a parent -------------------------------------------------------------------------------------

TEST(CatalogDelete, WithoutParent_WarnsAndLeavesEveryValence) {
  const Volume before = volume_made();
  for (const auto& [parent, name, cnid] :
       {std::tuple{kDocs, u"bare", kBare}, {kDocs, u"hollow", kHollow}, {kRootFolderId, u"last", kLast}}) {
    OpenVolume volume(before);
    ItemLocator item(volume, parent, name, ItemLocator::Parent::kNone);
    LogCapture log;
    ASSERT_EQ(delete_item(volume, item), kvfs_ok);
    EXPECT_LOG(log, "WARNING kvfs_catalog_delete INFO: No parent rec in delete..This is a todo\n");
    item.close();
    const Volume after = volume.flushed();
    EXPECT_FALSE(has_entry(after, parent, name));
    EXPECT_FALSE(has_thread(after, cnid));
    for (const std::uint32_t folder : {kRootFolderId, kDocs}) {
      EXPECT_EQ(field(after, folder, "valence"), field(before, folder, "valence"));
      EXPECT_EQ(field(after, folder, "folderCount"), field(before, folder, "folderCount"));
    }
    EXPECT_EQ(after.get_field("fileCount") + after.get_field("folderCount"),
              before.get_field("fileCount") + before.get_field("folderCount") - 1);
  }
}

// The way for callers whose folder's record lies behind that of its item: count the item out of a folder that was
// looked up after the deletion.
TEST(CatalogDelete, WithoutParentAndCountedOutAfterwards_LeavesASoundVolume) {
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kDocs, u"hollow", ItemLocator::Parent::kNone);
  ASSERT_EQ(delete_item(volume, item), kvfs_ok);
  {
    const ItemLocator folder(volume, kRootFolderId, u"docs", ItemLocator::Parent::kNone);
    ASSERT_EQ(kvfs_catalog_decrement_valence(volume.catalog(), item.get()->btree_locator->data, folder.get()), kvfs_ok);
  }
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

// ---- What is refused -----------------------------------------------------------------------------------------------

void expect_refused(const Volume& before, std::uint32_t parent, const Name& name, kvfs_result expected,
                    const std::string& message) {
  OpenVolume volume(before);
  ItemLocator item(volume, parent, name);
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), expected);
  EXPECT_LOG(log, message);
  ASSERT_NE(item.get(), nullptr);
  item.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  EXPECT_TRUE(volume.flushed() == before);
}

TEST(CatalogDelete, ThreadRecord_IsRefused) {
  expect_refused(volume_made(), kDocs, u"", kvfs_invalid,
                 "ERROR kvfs_catalog_delete Invalid parameter: Record to delete is not a file or folder record (record "
                 "type: 3).\n");
  expect_refused(volume_made(), kTen, u"", kvfs_invalid,
                 "ERROR kvfs_catalog_delete Invalid parameter: Record to delete is not a file or folder record (record "
                 "type: 4).\n");
}

TEST(CatalogDelete, UnknownRecord_IsRefusedWithItsTypeAsASignedNumber) {
  VolumeDescription description = described();
  for (const auto& [record, type] :
       {std::pair{Bytes{0x80, 0x01, 0, 0}, "-32767"}, {Bytes{0x00, 0x05}, "5"}, {Bytes{0, 0}, "0"}}) {
    description.item(kBare).record = record;
    expect_refused(build_volume(description), kDocs, u"bare", kvfs_invalid,
                   std::string("ERROR kvfs_catalog_delete Invalid parameter: Record to delete is not a file or folder "
                               "record (record type: ") +
                       type + ").\n");
  }
}

TEST(CatalogDelete, RecordWithoutAType_IsInconsistent) {
  VolumeDescription description = described();
  description.item(kBare).record = Bytes{};
  expect_refused(build_volume(description), kDocs, u"bare", kvfs_inconsistent,
                 "ERROR kvfs_catalog_delete Record of 0 bytes is too short for a record type.\n");
}

TEST(CatalogDelete, RecordTooShortForItsType_IsRefused) {
  VolumeDescription description = described();
  description.item(kBare).record = Bytes(246, 0);
  description.item(kBare).record->at(1) = 2;
  expect_refused(build_volume(description), kDocs, u"bare", kvfs_inconsistent,
                 "ERROR kvfs_catalog_delete Unexpected data size for catalog record. Expected minimum: 248 Actual: "
                 "246\n");
  description.item(kBare).record = Bytes(86, 0);
  description.item(kBare).record->at(1) = 1;
  expect_refused(
      build_volume(description), kDocs, u"bare", kvfs_inconsistent,
      "ERROR kvfs_catalog_delete Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 Actual: "
      "86\n");
}

TEST(CatalogDelete, ItemDeletedBefore_IsRefusedByTheTree) {
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kDocs, u"hollow");
  ASSERT_EQ(delete_item(volume, item), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_btree_delete_record_internal Attempted to delete a deleted record.\n",
             "ERROR kvfs_catalog_delete Error while deleting file/folder record from B-tree.\n");
  EXPECT_EQ(volume.header()->folderCount.get(), 2u);
}

// ---- Damage --------------------------------------------------------------------------------------------------------

TEST(CatalogDelete, ThreadMissing_DeletesTheRecordInItsPlace) {
  VolumeDescription description = described();
  description.item(kTen).with_thread = false;
  const Volume before = build_volume(description);
  const Volume after = deleted(before, kDocs, u"ten");
  EXPECT_FALSE(has_entry(after, kDocs, u"ten"));
  EXPECT_FALSE(has_thread(after, kBare));  // the one behind the place of the missing thread
  EXPECT_TRUE(has_entry(after, kDocs, u"bare"));
  EXPECT_TRUE(has_thread(after, kHollow));
  EXPECT_EQ(dump_records(after, Tree::kCatalog).size(), dump_records(before, Tree::kCatalog).size() - 2);
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount") - 1);
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") + 10);
}

TEST(CatalogDelete, ThreadMissingBehindTheLastRecord_DeletesTheLastRecord) {
  VolumeDescription description = described();
  description.item(kLast).with_thread = false;
  const Volume before = build_volume(description);
  ASSERT_EQ(dump_records(before, Tree::kCatalog).back().first, thread_key(kBoth));
  const Volume after = deleted(before, kRootFolderId, u"last");
  EXPECT_FALSE(has_entry(after, kRootFolderId, u"last"));
  EXPECT_FALSE(has_thread(after, kBoth));
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount") - 1);
}

TEST(CatalogDelete, BlockThatIsFreeAlready_IsReportedAndTheDeletionGoesOn) {
  Volume before = volume_made();
  const std::vector<std::uint32_t> blocks = blocks_of(before, kTen);
  before.set_block_used(blocks[3], false);
  OpenVolume volume(before);
  ItemLocator item(volume, kDocs, u"ten");
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_LOG(
      log, "ERROR FreeExtentAllocationBlocks Error while freeing allocation block " + std::to_string(blocks[3]) + ".\n",
      "ERROR kvfs_catalog_delete Error while freeing allocation blocks of deleted file on cleanup.\n");
  item.close();
  const Volume after = volume.flushed();
  EXPECT_FALSE(has_entry(after, kDocs, u"ten"));
  EXPECT_FALSE(has_thread(after, kTen));
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") + 3);  // what was freed before the failure
  EXPECT_EQ(after.get_field("fileCount"), before.get_field("fileCount") - 1);
}

TEST(CatalogDelete, VolumeWithoutItsAllocationFile_FreesNothingAndGoesOn) {
  const Volume before = volume_made();
  OpenVolume volume(before, true);
  ItemLocator item(volume, kDocs, u"ten");
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_LOG(log, "ERROR kvfs_catalog_delete Error while freeing allocation blocks of deleted file on cleanup.\n");
  item.close();
  const Volume after = volume.flushed();
  EXPECT_EQ(bitmap_of(after), bitmap_of(before));
  CheckOptions options;
  options.leaked_blocks = true;
  EXPECT_EQ(joined(check_volume(after, options)), "");
}

// Where there are no blocks to free, the allocation file is not missed.
TEST(CatalogDelete, FileWithoutBlocksOnAVolumeWithoutItsAllocationFile_IsDeletedInSilence) {
  for (const char* const damage : {"", ".dataFork.totalBlocks"}) {
    Volume before = volume_made();
    if (*damage != '\0') {
      before.set_field(before.find_by_cnid(kBare).value().path() + damage, 5);  // but no extent has any
    }
    OpenVolume volume(before, true);
    ItemLocator item(volume, kDocs, u"bare");
    LogCapture log;
    EXPECT_EQ(delete_item(volume, item), kvfs_ok);
    EXPECT_LOG(log);
    item.close();
    EXPECT_EQ(joined(check_volume(volume.flushed())), "");
  }
}

TEST(CatalogDelete, FailureToDeleteTheRecord_IsPassedOnAndLeavesTheRest) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator item(volume, kDocs, u"hollow");
  Volume damaged = before;
  const RecordPlace place = before.find_entry(kDocs, u"hollow").value();
  // The record is to begin behind the next one.
  const std::string entry = "catalog.node[" + std::to_string(place.node) + "].offset[" + std::to_string(place.index);
  damaged.add_to_field(entry + "]", 2000);
  const Bytes node = damaged.read_node(Tree::kCatalog, place.node);
  ASSERT_EQ(kvfs_fork_write(volume.catalog_fork(), std::uint64_t{place.node} * node.size(), node.data(), node.size(),
                            nullptr),
            kvfs_ok);
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_inconsistent);
  EXPECT_LOG(log,
             "ERROR kvfs_btree_delete_record_internal $$$: This record offset is greater than the next. Impossible\n",
             "ERROR kvfs_catalog_delete Error while deleting file/folder record from B-tree.\n");
  item.close();
  const Volume after = volume.flushed();
  EXPECT_EQ(after.get_field("folderCount"), before.get_field("folderCount"));
  EXPECT_EQ(field(after, kDocs, "valence"), field(before, kDocs, "valence"));
}

TEST(CatalogDelete, ParentThatCannotBeWritten_IsReportedAndTheDeletionGoesOn) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator item(volume, kDocs, u"hollow");
  (*item.get()->parent)->btree_locator->priv->deleted = 1;
  LogCapture log;
  EXPECT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_LOG(log, "CRITICAL kvfs_btree_record_locator_write_data Attempted to write data to deleted locator.\n",
             "ERROR kvfs_catalog_update_valence Error while writing out updated parent valence.\n");
  item.close();
  const Volume after = volume.flushed();
  EXPECT_FALSE(has_thread(after, kHollow));
  EXPECT_EQ(field(after, kDocs, "valence"), field(before, kDocs, "valence"));
}

// A deletion moves the records behind it without their open locators, and the folder's own record is among them when
// the folder lies in one with a higher ID: its valence is then written where the record has been.
TEST(CatalogDelete, ParentBehindTheItemInItsNode_IsWrittenWhereItHasBeen) {
  VolumeDescription description;
  const std::uint32_t low = description.add_folder(kRootFolderId, u"low");
  const std::uint32_t high = description.add_folder(kRootFolderId, u"high");
  description.item(low).parent = high;
  (void)description.add_file(low, u"file");
  const Volume before = build_volume(description);
  const RecordPlace folder = before.find_by_cnid(low).value();
  const RecordPlace file = before.find_entry(low, u"file").value();
  ASSERT_EQ(folder.node, file.node);
  ASSERT_GT(folder.index, file.index);
  OpenVolume volume(before);
  ItemLocator item(volume, low, u"file");
  LogCapture log;
  ASSERT_EQ(delete_item(volume, item), kvfs_ok);
  EXPECT_THAT(log.raw(), HasSubstr("Mismatching record data"));  // the thread stands now where the folder has been
  item.close();
  const Volume after = volume.flushed();
  EXPECT_EQ(field(after, low, "valence"), 1u);
  Bytes written = before.record_data(folder);
  written[7] = 0;
  EXPECT_EQ(after.read_fork(SpecialFile::kCatalog, folder.data_fork_offset, 88), written);
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

std::vector<FailedRun> fail_deletion(std::uint32_t parent, const Name& name) {
  VolumeDescription description = described();
  description.catalog.node_size = 512;
  const auto operate = [](OpenVolume& volume, kvfs_catalog_record_locator* item) {
    return kvfs_catalog_delete(volume.catalog(), volume.get(), item);
  };
  const Volume before = build_volume(description);
  const auto inspect = [&before](OpenVolume& volume, const FailedRun& run) {
    const std::uint32_t counted = volume.header()->fileCount.get() + volume.header()->folderCount.get();
    const std::uint64_t all = before.get_field("fileCount") + before.get_field("folderCount");
    // An unlocking that fails behind the last step is the only failure that comes after counting.
    if (run.result == kvfs_ok) {
      EXPECT_EQ(counted, all - 1) << run.n;
    } else {
      EXPECT_EQ(counted, all) << run.n;
    }
  };
  return fail_everything_in(before, {parent, name, operate, inspect});
}

constexpr char kNotFreed[] =
    "ERROR kvfs_catalog_delete Error while freeing allocation blocks of deleted file on cleanup.\n";
constexpr char kRecordNotDeleted[] = "ERROR kvfs_catalog_delete Error while deleting file/folder record from B-tree.\n";
constexpr char kValenceNotWritten[] =
    "ERROR kvfs_catalog_update_valence Error while writing out updated parent valence.\n";
constexpr char kNotSearched[] = "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n";
constexpr char kThreadNotSearched[] =
    "ERROR kvfs_catalog_delete Error while searching for catalog thread record to destroy.\n";
constexpr char kThreadNotDeleted[] = "ERROR kvfs_catalog_delete Error while deleting thread record from B-tree.\n";

TEST(CatalogDelete, EachFailingCallForAFile_IsReportedAndLeavesNothingBehind) {
  const std::vector<FailedRun> runs = fail_deletion(kDocs, u"ten");
  EXPECT_TRUE(some_run_says(runs, kNotFreed));
  EXPECT_TRUE(some_run_ends_with(runs, {kRecordNotDeleted}));
  EXPECT_TRUE(some_run_ends_with(runs, {kValenceNotWritten}));
  EXPECT_TRUE(some_run_ends_with(runs, {kNotSearched, kThreadNotSearched}));
  EXPECT_TRUE(some_run_ends_with(runs, {kThreadNotDeleted}));
  for (const FailedRun& run : runs) {
    if (some_run_says({run}, kNotFreed) || some_run_says({run}, kValenceNotWritten)) {
      EXPECT_EQ(run.result, kvfs_ok) << run.n;  // neither stops the deletion
    }
  }
}

TEST(CatalogDelete, EachFailingCallForAFolder_IsReportedAndLeavesNothingBehind) {
  const std::vector<FailedRun> runs = fail_deletion(kDocs, u"hollow");
  EXPECT_FALSE(some_run_says(runs, kNotFreed));
  EXPECT_TRUE(some_run_ends_with(runs, {kRecordNotDeleted}));
  EXPECT_TRUE(some_run_ends_with(runs, {kThreadNotDeleted}));
}

// ---- Arguments -----------------------------------------------------------------------------------------------------

TEST(CatalogDelete, NullArguments_AreRefusedWithoutAMessage) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator item(volume, kDocs, u"hollow");
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_delete(nullptr, volume.get(), item.get()), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_delete(volume.catalog(), nullptr, item.get()), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_delete(volume.catalog(), volume.get(), nullptr), kvfs_invalid);
  EXPECT_LOG(log);
  item.close();
  EXPECT_TRUE(volume.flushed() == before);
}

TEST(CatalogIsDirectoryEmpty, NullArguments_AreRefusedWithoutAMessage) {
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kDocs, u"hollow");
  int empty = 5;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_is_directory_empty(nullptr, item.get(), &empty), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_is_directory_empty(volume.catalog(), nullptr, &empty), kvfs_invalid);
  EXPECT_EQ(kvfs_catalog_is_directory_empty(volume.catalog(), item.get(), nullptr), kvfs_invalid);
  EXPECT_LOG(log);
  EXPECT_EQ(empty, 5);
  item.close();
}

}  // namespace
}  // namespace kvfs_test
