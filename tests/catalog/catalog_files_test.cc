// File records: kinds of file, sizes, hard links and symbolic links.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ios>
#include <optional>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree/private.h"
#include "item_fixture.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::AnyOf;

// The root folder holds the folder 16 "folder" and the files 17 "data" of 5000 bytes, 18 "resource" of 300 bytes in its
// resource fork, 19 "both" of 70 and 300 bytes, and 20 "nothing". In the private folder 21 lies the file 22 of 1234 bytes,
// to which 23 "link" is a hard link.
constexpr std::uint32_t kFolder = 16;
constexpr std::uint32_t kNothing = 20;
constexpr std::uint32_t kInode = 22;
constexpr std::uint32_t kLink = 23;

VolumeDescription described() {
  VolumeDescription description;
  (void)description.add_folder(kRootFolderId, u"folder");
  (void)description.add_file(kRootFolderId, u"data", 5000);
  const std::uint32_t resource = description.add_file(kRootFolderId, u"resource");
  description.item(resource).resource.size = 300;
  const std::uint32_t both = description.add_file(kRootFolderId, u"both", 70);
  description.item(both).resource.size = 300;
  (void)description.add_file(kRootFolderId, u"nothing");
  const std::uint32_t inode = description.add_inode(1234);
  (void)description.add_hard_link(kRootFolderId, u"link", inode);
  return description;
}

Volume volume_made() {
  return build_volume(described());
}

HFSPlusCatalogFile file_record(const Volume& volume, std::uint32_t parent, const Name& name) {
  HFSPlusCatalogFile file = {};
  const Bytes data = volume.record_data(volume.find_entry(parent, name).value());
  EXPECT_GE(data.size(), sizeof(file));
  std::memcpy(&file, data.data(), sizeof(file));
  return file;
}

// ---- Kinds ---------------------------------------------------------------------------------------------------------

TEST(CatalogFileLinkKind, TypeAndCreatorTogether_MakeTheKind) {
  constexpr std::uint32_t kHlnk = 0x686C6E6B;
  constexpr std::uint32_t kHfs = 0x6866732B;
  constexpr std::uint32_t kSlnk = 0x736C6E6B;
  constexpr std::uint32_t kRhap = 0x72686170;
  struct Row {
    std::uint32_t type;
    std::uint32_t creator;
    int kind;
  };
  for (const Row& row : {Row{kHlnk, kHfs, kvfs_hard_link}, Row{kSlnk, kRhap, kvfs_symbolic_link},
                         Row{kHlnk, kRhap, kvfs_plain_file}, Row{kSlnk, kHfs, kvfs_plain_file},
                         Row{kHlnk, 0, kvfs_plain_file}, Row{0, kRhap, kvfs_plain_file}, Row{0, 0, kvfs_plain_file}}) {
    HFSPlusCatalogFile file = {};
    file.userInfo.fdType.set(row.type);
    file.userInfo.fdCreator.set(row.creator);
    EXPECT_EQ(kvfs_catalog_file_link_kind(&file), row.kind) << std::hex << row.type << " " << row.creator;
  }
  EXPECT_EQ(kvfs_plain_file, 0);
  EXPECT_EQ(kvfs_hard_link, 1);
  EXPECT_EQ(kvfs_symbolic_link, 2);
}

TEST(CatalogFileLinkKind, RecordsOfAVolume_HaveTheirKinds) {
  VolumeDescription description = described();
  (void)description.add_symlink(kRootFolderId, u"symlink", "data");
  const Volume volume = build_volume(description);
  const auto kind = [&volume](const Name& name) {
    const HFSPlusCatalogFile file = file_record(volume, kRootFolderId, name);
    return kvfs_catalog_file_link_kind(&file);
  };
  EXPECT_EQ(kind(u"data"), kvfs_plain_file);
  EXPECT_EQ(kind(u"link"), kvfs_hard_link);
  EXPECT_EQ(kind(u"symlink"), kvfs_symbolic_link);
}

// ---- Reading a size ------------------------------------------------------------------------------------------------

// The size of a file of the root folder, with the messages expected on the way.
std::uint64_t size_of(const Volume& image, const Name& name, const Lines& messages = {}) {
  OpenVolume volume(image);
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, name);
  LogCapture log;
  const std::uint64_t size = kvfs_catalog_record_get_file_size(&file, volume.catalog());
  EXPECT_TRUE(log.matches(messages));
  EXPECT_EQ(volume.open_locators(), 0u);
  return size;
}

constexpr char kNotFollowed[] = "ERROR kvfs_catalog_record_get_file_size Error while following hard link.\n";

TEST(CatalogGetFileSize, DataFork_GivesTheSize) {
  EXPECT_EQ(size_of(volume_made(), u"data"), 5000u);
  EXPECT_EQ(size_of(volume_made(), u"both"), 70u);
}

// Q-catalog-20
TEST(CatalogGetFileSize, EmptyDataFork_GivesTheSizeOfTheResourceFork) {
  EXPECT_EQ(size_of(volume_made(), u"resource"), 300u);
}

TEST(CatalogGetFileSize, BothForksEmpty_GiveZero) {
  EXPECT_EQ(size_of(volume_made(), u"nothing"), 0u);
}

TEST(CatalogGetFileSize, SizeOf64Bits_IsGivenWhole) {
  HFSPlusCatalogFile file = {};
  file.dataFork.logicalSize.set(0xFEDCBA9876543210);
  EXPECT_EQ(kvfs_catalog_record_get_file_size(&file, nullptr), 0xFEDCBA9876543210u);
}

TEST(CatalogGetFileSize, HardLink_GivesTheSizeOfItsTarget) {
  EXPECT_EQ(size_of(volume_made(), u"link"), 1234u);
}

TEST(CatalogGetFileSize, HardLinkToAFileWithAResourceForkAlone_GivesThatForksSize) {
  VolumeDescription description = described();
  description.item(kInode).data = {};
  description.item(kInode).resource.size = 99;
  EXPECT_EQ(size_of(build_volume(description), u"link"), 99u);
}

TEST(CatalogGetFileSize, HardLinkToAHardLink_IsFollowedOnce) {
  VolumeDescription description = described();
  (void)description.add_hard_link(kRootFolderId, u"second", kLink);
  EXPECT_EQ(size_of(build_volume(description), u"second"), 0u);
}

TEST(CatalogGetFileSize, HardLinkWithoutItsThread_IsReportedAndGivesZero) {
  VolumeDescription description = described();
  description.item(kInode).with_thread = false;
  EXPECT_EQ(size_of(build_volume(description), u"link", {kNotFollowed}), 0u);
}

// The record in whose place the target belongs is taken for it: a second file of the private folder.
// Q-catalog-24
TEST(CatalogGetFileSize, HardLinkWithoutItsTarget_GivesTheSizeOfTheRecordInItsPlace) {
  VolumeDescription description = described();
  (void)description.add_inode(777);
  description.item(kInode).with_record = false;
  EXPECT_EQ(size_of(build_volume(description), u"link"), 777u);
}

// Q-catalog-24
TEST(CatalogGetFileSize, HardLinkWithoutItsTargetBeforeAShortRecord_IsReportedAndGivesZero) {
  VolumeDescription description = described();
  description.item(kInode).with_record = false;
  EXPECT_EQ(size_of(build_volume(description), u"link",
                    {"ERROR kvfs_catalog_record_get_file_size Unexpected data size for catalog record. Expected "
                     "minimum: 96 Actual: {*}\n",
                     kNotFollowed}),
            0u);
}

// X-catalog-3
TEST(CatalogGetFileSize, HardLinkToAFolder_IsReportedAndGivesZero) {
  VolumeDescription description = described();
  (void)description.add_hard_link(kRootFolderId, u"second", kFolder);
  EXPECT_EQ(size_of(build_volume(description), u"second",
                    {"ERROR kvfs_catalog_record_get_file_size Unexpected data size for catalog record. Expected "
                     "minimum: 96 Actual: 88\n",
                     kNotFollowed}),
            0u);
}

// The size of a link to a record that was cut.
std::uint64_t size_of_cut_target(std::uint64_t data_size, std::size_t record_size, const Lines& messages = {}) {
  VolumeDescription description = described();
  Bytes record(record_size, 0);
  put_be(record, 0, 2, kHFSPlusFileRecord);
  put_be(record, 88, 8, data_size);
  if (record_size >= 176) {
    put_be(record, 168, 8, 77);
  }
  description.item(kInode).record = record;
  return size_of(build_volume(description), u"link", messages);
}

// X-catalog-3
TEST(CatalogGetFileSize, HardLinkToAShortRecord_GivesTheSizeThatItHolds) {
  EXPECT_EQ(size_of_cut_target(55, 96), 55u);
  EXPECT_EQ(size_of_cut_target(55, 174), 55u);
  EXPECT_EQ(size_of_cut_target(0, 176), 77u);
  EXPECT_EQ(size_of_cut_target(0, 174,
                               {"ERROR kvfs_catalog_record_get_file_size Unexpected data size for catalog record. "
                                "Expected minimum: 176 Actual: 174\n",
                                kNotFollowed}),
            0u);
}

// ---- Setting a size ------------------------------------------------------------------------------------------------

TEST(CatalogSetFileSize, FileRecord_GetsTheSizeInItsDataForkAlone) {
  HFSPlusCatalogFile file = file_record(volume_made(), kRootFolderId, u"both");
  HFSPlusCatalogFile expected = file;
  expected.dataFork.logicalSize = {{0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
  LogCapture log;
  kvfs_catalog_record_set_file_size(&file, 0xFEDCBA9876543210);
  EXPECT_LOG(log);
  EXPECT_EQ(std::memcmp(&file, &expected, sizeof(file)), 0);
}

TEST(CatalogSetFileSize, NoRecord_IsReported) {
  LogCapture log;
  kvfs_catalog_record_set_file_size(nullptr, 5);
  EXPECT_LOG(log, "ERROR kvfs_catalog_record_set_file_size Error in kvfs_catalog_record_set_file_size - no record\n");
}

// Q-catalog-21
TEST(CatalogSetFileSize, AnyOtherRecord_IsReportedAndStillOverwritten) {
  for (const auto& [type, text] : {std::pair{1, "1"}, {3, "3"}, {4, "4"}, {0, "0"}, {0xFFFE, "65534"}}) {
    Bytes record(100, 0x77);
    put_be(record, 0, 2, static_cast<std::uint64_t>(type));
    Bytes expected = record;
    put_be(expected, 88, 8, 0x0102030405060708);
    LogCapture log;
    kvfs_catalog_record_set_file_size(record.data(), 0x0102030405060708);
    EXPECT_LOG(log, std::string("ERROR kvfs_catalog_record_set_file_size kvfs_catalog_record_set_file_size: Can only "
                                "set size for a file record - This is a record of type: ") +
                        text + "\n");
    EXPECT_EQ(record, expected);
  }
}

// ---- Following hard links ------------------------------------------------------------------------------------------

TEST(CatalogFollowHardLink, Link_LeadsToItsTarget) {
  const Volume image = volume_made();
  OpenVolume volume(image);
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, u"link");
  Searched target;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_follow_hard_link(volume.catalog(), &file, target.out()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(target.text(), "found: file 22 in 21/iNode22");
  EXPECT_EQ(*target.locator()->parent, nullptr);
  EXPECT_EQ(volume.open_locators(), 1u);
}

// Follows the link of a volume without success.
void expect_not_followed(const Volume& image, kvfs_result expected, const Lines& messages) {
  OpenVolume volume(image);
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, u"link");
  Searched target;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_follow_hard_link(volume.catalog(), &file, target.out()), expected);
  EXPECT_TRUE(log.matches(messages));
  EXPECT_EQ(target.text(), "nothing");
  EXPECT_EQ(volume.open_locators(), 0u);
}

// Q-catalog-22
TEST(CatalogFollowHardLink, ReferenceWithoutThread_IsInconsistentWithoutAMessage) {
  VolumeDescription description = described();
  description.item(kInode).with_thread = false;
  expect_not_followed(build_volume(description), kvfs_inconsistent, {});
}

TEST(CatalogFollowHardLink, MissingTarget_IsASuccessThatFoundNothing) {
  VolumeDescription description = described();
  description.item(kInode).with_record = false;
  const Volume image = build_volume(description);
  OpenVolume volume(image);
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, u"link");
  Searched target;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_follow_hard_link(volume.catalog(), &file, target.out()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(target.text(), "at: file thread of 22 to 21/iNode22");  // where the target would stand
}

// X-catalog-2
TEST(CatalogFollowHardLink, ThreadThatIsNoThread_IsRefused) {
  VolumeDescription description = described();
  description.item(kInode).with_thread = false;
  description.extra_catalog_records.emplace_back(thread_key(kInode), Bytes{0, 4, 0, 0, 0, 0, 0, 21, 0, 9});
  expect_not_followed(build_volume(description), kvfs_inconsistent,
                      {"ERROR kvfs_catalog_follow_hard_link Thread record of 10 bytes cannot hold its name.\n"});
}

TEST(CatalogFollowHardLink, EachFailingCall_IsReportedAndLeavesNothingBehind) {
  VolumeDescription description = described();
  description.catalog.node_size = 512;
  const Volume image = build_volume(description);
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, u"link");
  const auto operate = [&file](OpenVolume& volume, kvfs_catalog_record_locator*) {
    Searched target;
    const kvfs_result result = kvfs_catalog_follow_hard_link(volume.catalog(), &file, target.out());
    EXPECT_EQ(target.text(), result == kvfs_ok ? "found: file 22 in 21/iNode22" : "nothing");
    return result;
  };
  const std::vector<FailedRun> runs = fail_everything_in(image, {kRootFolderId, u"folder", operate});
  EXPECT_TRUE(some_run_ends_with(
      runs, {"ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
             "ERROR kvfs_catalog_follow_hard_link Error while searching for catalog record of hard linked file.\n"}));
  EXPECT_TRUE(
      some_run_ends_with(runs, {"ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
                                "ERROR kvfs_catalog_follow_hard_link Error while searching for hard link target.\n"}));
}

TEST(CatalogGetFileSize, EachFailingCall_IsReportedAndGivesZero) {
  const Volume image = volume_made();
  const HFSPlusCatalogFile file = file_record(image, kRootFolderId, u"link");
  const auto operate = [&file](OpenVolume& volume, kvfs_catalog_record_locator*) {
    EXPECT_THAT(kvfs_catalog_record_get_file_size(&file, volume.catalog()), AnyOf(0u, 1234u));
    return kvfs_ok;
  };
  const std::vector<FailedRun> runs = fail_everything_in(image, {kRootFolderId, u"folder", operate});
  EXPECT_TRUE(some_run_ends_with(runs, {kNotFollowed}));
}

// ---- Making symbolic links -----------------------------------------------------------------------------------------

kvfs_result make_link(const OpenVolume& volume, const ItemLocator& file, const Name& target) {
  const std::vector<kvfs_be16> units = stored_units(target);
  return kvfs_catalog_mksymlink(file.get(), units.data(), units.size(), volume.get());
}

// Makes the file "nothing" a link and hands out what the volume holds then; that is to succeed without a message.
Volume linked(const Volume& before, const Name& target, const Name& name = u"nothing",
              std::uint32_t sector_size = 512) {
  OpenVolume volume(before, {.sector_size = sector_size});
  ItemLocator file(volume, kRootFolderId, name);
  LogCapture log;
  EXPECT_EQ(make_link(volume, file, target), kvfs_ok);
  EXPECT_LOG(log);
  file.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  return volume.flushed();
}

std::uint32_t first_block(const Volume& volume, std::uint32_t cnid) {
  return static_cast<std::uint32_t>(
      volume.get_field(volume.find_by_cnid(cnid).value().path() + ".dataFork.extents[0].startBlock"));
}

std::string text_in(const Volume& volume, std::uint32_t block, std::size_t size) {
  const Bytes bytes = volume.read(std::uint64_t{block} * volume.block_size(), size);
  return {bytes.begin(), bytes.end()};
}

TEST(CatalogMksymlink, Target_IsStoredInOneBlockOfASoundVolume) {
  const Volume before = volume_made();
  const Volume after = linked(before, u"a/b");
  const HFSPlusCatalogFile file = file_record(after, kRootFolderId, u"nothing");
  EXPECT_EQ(kvfs_catalog_file_link_kind(&file), kvfs_symbolic_link);
  EXPECT_EQ(file.userInfo.fdFlags.get(), 0x8000u);
  EXPECT_EQ(file.permissions.fileMode.get(), 0xA1FFu);
  EXPECT_EQ(file.dataFork.logicalSize.get(), 3u);
  EXPECT_EQ(file.dataFork.totalBlocks.get(), 1u);
  EXPECT_EQ(file.dataFork.extents.extents[0].blockCount.get(), 1u);
  const std::uint32_t block = file.dataFork.extents.extents[0].startBlock.get();
  EXPECT_FALSE(before.block_used(block));
  EXPECT_EQ(text_in(after, block, 512), std::string("a/b") + std::string(509, '\0'));
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogMksymlink, OtherFieldsAndOtherBlocks_StayAsTheyAre) {
  const Volume before = volume_made();
  Volume expected = before;
  const Volume after = linked(before, u"a/b");
  const std::uint32_t block = first_block(after, kNothing);
  const std::string file = before.find_by_cnid(kNothing).value().path();
  expected.set_field(file + ".fileType", 0x736C6E6B);
  expected.set_field(file + ".creator", 0x72686170);
  expected.set_field(file + ".byte[56]", 0x80);
  expected.set_field(file + ".fileMode", 0xA1FF);
  expected.set_field(file + ".dataFork.logicalSize", 3);
  expected.set_field(file + ".dataFork.totalBlocks", 1);
  expected.set_field(file + ".dataFork.extents[0].startBlock", block);
  expected.set_field(file + ".dataFork.extents[0].blockCount", 1);
  expected.add_to_field("freeBlocks", -1);
  expected.set_field("nextAllocation", after.get_field("nextAllocation"));
  expected.set_block_used(block, true);
  expected.write(std::uint64_t{block} * 4096, Bytes{'a', '/', 'b'});
  EXPECT_TRUE(after == expected);
}

TEST(CatalogMksymlink, BlockAtNextAllocation_MovesIt) {
  Volume before = volume_made();
  const std::uint32_t next = (static_cast<std::uint32_t>(before.get_field("nextAllocation")) + 7) / 8 * 8;
  before.set_field("nextAllocation", next);
  const Volume after = linked(before, u"a");
  EXPECT_EQ(first_block(after, kNothing), next);
  EXPECT_EQ(after.get_field("nextAllocation"), next + 1);
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") - 1);
}

TEST(CatalogMksymlink, Backslashes_BecomeSlashes) {
  const Volume after = linked(volume_made(), u"..\\a\\b/c");
  EXPECT_EQ(text_in(after, first_block(after, kNothing), 9), std::string("../a/b/c\0", 9));
}

TEST(CatalogMksymlink, TargetBeyondAscii_IsStoredAsUtf8AsItIs) {
  const Name target = u"cafe\u0301 \uAC00 \U0001F600";
  const Volume after = linked(volume_made(), target);
  const HFSPlusCatalogFile file = file_record(after, kRootFolderId, u"nothing");
  const std::string text = "cafe\u0301 \uAC00 \U0001F600";
  EXPECT_EQ(file.dataFork.logicalSize.get(), text.size());
  EXPECT_EQ(text_in(after, first_block(after, kNothing), text.size()), text);
}

TEST(CatalogMksymlink, LinkMade_ReportsItsSize) {
  EXPECT_EQ(size_of(linked(volume_made(), u"some/where"), u"nothing"), 10u);
}

// X-catalog-6
TEST(CatalogMksymlink, EmptyTarget_MakesALinkOfNoBytes) {
  const Volume after = linked(volume_made(), u"");
  const HFSPlusCatalogFile file = file_record(after, kRootFolderId, u"nothing");
  EXPECT_EQ(kvfs_catalog_file_link_kind(&file), kvfs_symbolic_link);
  EXPECT_EQ(file.dataFork.logicalSize.get(), 0u);
  EXPECT_EQ(file.dataFork.totalBlocks.get(), 1u);
}

// X-catalog-8
TEST(CatalogMksymlink, TargetOf255Bytes_IsTheLongest) {
  const Volume after = linked(volume_made(), Name(255, u'x'));
  EXPECT_EQ(file_record(after, kRootFolderId, u"nothing").dataFork.logicalSize.get(), 255u);
  EXPECT_EQ(text_in(after, first_block(after, kNothing), 256), std::string(255, 'x') + '\0');
  const Volume accented = linked(volume_made(), Name(127, u'\u00E9') + u"x");  // 127 times two bytes and one more
  EXPECT_EQ(file_record(accented, kRootFolderId, u"nothing").dataFork.logicalSize.get(), 255u);
}

// X-catalog-7
TEST(CatalogMksymlink, LargerSectors_AreWrittenWhole) {
  const Volume after = linked(volume_made(), u"a/b", u"nothing", 2048);
  const std::uint32_t block = first_block(after, kNothing);
  EXPECT_EQ(text_in(after, block, 2048), std::string("a/b") + std::string(2045, '\0'));
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogMksymlink, BlocksOf512Bytes_AreOneSectorEach) {
  VolumeDescription description = described();
  description.block_size = 512;
  const Volume after = linked(build_volume(description), u"a/b");
  EXPECT_EQ(text_in(after, first_block(after, kNothing), 3), "a/b");
  EXPECT_EQ(joined(check_volume(after)), "");
}

// 2^32 bytes and more from the beginning of the volume.
TEST(CatalogMksymlink, BlockBeyond4GiB_IsWrittenThere) {
  VolumeDescription description = described();
  description.size = 6ULL << 30;
  description.next_allocation = 0x120000;
  const Volume after = linked(build_volume(description), u"far");
  EXPECT_EQ(first_block(after, kNothing), 0x120000u);
  EXPECT_EQ(text_in(after, 0x120000, 3), "far");
  EXPECT_EQ(joined(check_volume(after)), "");
}

// Q-catalog-23
TEST(CatalogMksymlink, FileWithContent_KeepsItsOldBlocksAllocated) {
  const Volume before = volume_made();
  const std::uint32_t old_block = first_block(before, 17);
  const Volume after = linked(before, u"a", u"data");
  EXPECT_NE(first_block(after, 17), old_block);
  EXPECT_TRUE(after.block_used(old_block));
  EXPECT_EQ(file_record(after, kRootFolderId, u"data").dataFork.totalBlocks.get(), 1u);
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") - 1);
  CheckOptions options;
  options.leaked_blocks = true;
  EXPECT_EQ(joined(check_volume(after, options)), "");
}

TEST(CatalogMksymlink, FileInSeveralExtents_KeepsTheOthersInItsRecord) {
  VolumeDescription description = described();
  (void)description.add_file(kRootFolderId, u"split", 3 * 4096, 3);
  const Volume before = build_volume(description);
  const HFSPlusCatalogFile old_record = file_record(before, kRootFolderId, u"split");
  const HFSPlusCatalogFile record = file_record(linked(before, u"a", u"split"), kRootFolderId, u"split");
  EXPECT_EQ(record.dataFork.totalBlocks.get(), 1u);
  EXPECT_EQ(std::memcmp(&record.dataFork.extents.extents[1], &old_record.dataFork.extents.extents[1],
                        7 * sizeof(HFSPlusExtentDescriptor)),
            0);
}

// Only the target's sector is written before a flush, with a single transfer.
TEST(CatalogMksymlink, BeforeAFlush_OnlyTheTargetReachesTheDevice) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  const ItemLocator file(volume, kRootFolderId, u"nothing");
  FaultInjector calls;
  ASSERT_EQ(make_link(volume, file, u"a/b"), kvfs_ok);
  const std::vector<Transfer> writes = calls.writes();
  const HFSPlusCatalogFile* const record = kvfs_view_as<HFSPlusCatalogFile>(file.get()->btree_locator->data);
  const std::uint64_t block = record->dataFork.extents.extents[0].startBlock.get();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_EQ(writes[0].offset, block * 4096);
  EXPECT_EQ(writes[0].size, 512u);
  EXPECT_EQ(kvfs_catalog_file_link_kind(record), kvfs_symbolic_link);  // the locator's copy has changed
  Volume expected = before;
  expected.write(block * 4096, Bytes{'a', '/', 'b'});
  EXPECT_TRUE(volume.contents() == expected);
}

// ---- Symbolic links that are refused -------------------------------------------------------------------------------

TEST(CatalogMksymlink, NoLocator_IsRefusedWithoutAMessage) {
  OpenVolume volume(volume_made());
  const std::vector<kvfs_be16> units = stored_units(u"a");
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_mksymlink(nullptr, units.data(), units.size(), volume.get()), kvfs_invalid);
  EXPECT_LOG(log);
}

// Fails to make a link of a file of the root folder, and expects the volume unchanged.
void expect_no_link(const Volume& before, const Name& name, const Name& target, kvfs_result expected,
                    const Lines& messages, const Opening& opening = {}) {
  OpenVolume volume(before, opening);
  ItemLocator file(volume, kRootFolderId, name);
  LogCapture log;
  EXPECT_EQ(make_link(volume, file, target), expected);
  EXPECT_TRUE(log.matches(messages));
  file.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  EXPECT_TRUE(volume.flushed() == before);
}

constexpr char kNotDecoded[] = "ERROR kvfs_catalog_widechar_to_utf8 Error while decoding UTF-16.\n";
constexpr char kNoValue[] = "WARNING kvfs_catalog_mksymlink At error with no error value set!\n";
constexpr char kNoLocation[] = "ERROR kvfs_catalog_mksymlink Error while searching for symlink data write location.\n";

// X-catalog-6
TEST(CatalogMksymlink, TargetOfMoreThan255Bytes_IsRefusedAndChangesNothing) {
  for (const Name& target : {Name(256, u'x'), Name(128, u'\u00E9'), Name(1000, u'x')}) {
    expect_no_link(volume_made(), u"nothing", target, kvfs_invalid, {kNotDecoded});
  }
}

// X-catalog-6
TEST(CatalogMksymlink, MalformedTarget_IsRefusedAndChangesNothing) {
  for (const Name& target : {Name{u'a', 0xD800}, Name{0xDC00, u'a'}, Name{0xD800, u'a'}}) {
    expect_no_link(volume_made(), u"nothing", target, kvfs_invalid, {kNotDecoded});
  }
}

// X-catalog-6
TEST(CatalogMksymlink, TargetThatBeginsWithANul_IsRefusedAndChangesNothing) {
  for (const Name& target : {Name(1, u'\0'), Name(u"\0target", 7)}) {
    expect_no_link(volume_made(), u"nothing", target, kvfs_invalid,
                   {"ERROR kvfs_catalog_mksymlink The target of a symbolic link cannot begin with a NUL.\n"});
  }
}

TEST(CatalogMksymlink, VolumeWithoutItsAllocationFile_IsRefusedAndChangesNothing) {
  expect_no_link(volume_made(), u"nothing", u"a", kvfs_invalid,
                 {"ERROR FindContiguousUnallocated The volume was opened without its allocation file.\n",
                  "ERROR FindWriteLocation Error while searching the bitmap for a free region of 1.\n", kNoLocation},
                 kWithoutAllocationFile);
}

TEST(CatalogMksymlink, Folder_IsRefusedAndChangesNothing) {
  expect_no_link(volume_made(), u"folder", u"a", kvfs_inconsistent,
                 {"ERROR kvfs_catalog_mksymlink Unexpected data size for catalog record. Expected minimum: 248 Actual: "
                  "88\n"});
}

// X-catalog-6
TEST(CatalogMksymlink, FullVolume_IsRefusedAndChangesNothing) {
  Volume before = volume_made();
  for (std::uint32_t block = 0; block < before.get_field("totalBlocks"); ++block) {
    before.set_block_used(block, true);
  }
  expect_no_link(before, u"nothing", u"a", kvfs_failed, {kNoLocation, kNoValue});
}

// The search wants whole bytes of the bitmap, so that a single free block does not serve.
TEST(CatalogMksymlink, OneFreeBlockAmongUsedOnes_IsNotFound) {
  Volume before = volume_made();
  const std::uint32_t free_block = static_cast<std::uint32_t>(before.get_field("nextAllocation")) + 3;
  for (std::uint32_t block = 0; block < before.get_field("totalBlocks"); ++block) {
    before.set_block_used(block, block != free_block);
  }
  expect_no_link(before, u"nothing", u"a", kvfs_failed, {kNoLocation, kNoValue});
}

TEST(CatalogMksymlink, ExtentsThatContradictThemselves_AreReported) {
  Volume before = volume_made();
  before.set_field(before.find_by_cnid(kNothing).value().path() + ".dataFork.extents[0].startBlock", 9);
  expect_no_link(before, u"nothing", u"a", kvfs_inconsistent,
                 {"ERROR FindWriteLocation Encountered zero block count in extent.\n", kNoLocation});
}

// Q-catalog-23
TEST(CatalogMksymlink, DeviceThatCannotBeWritten_LeavesAllButTheBlock) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator file(volume, kRootFolderId, u"nothing");
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 1, Fault::error_number(ENOSPC));
    EXPECT_EQ(make_link(volume, file, u"a"), kvfs_io_error);
  }
  ASSERT_EQ(log.lines().size(), 1u) << log.raw();
  EXPECT_EQ(log.lines()[0].function, "kvfs_device_write_disk_sectors");
  file.close();
  EXPECT_TRUE(volume.flushed() == before);
}

// Q-catalog-23
TEST(CatalogMksymlink, RecordThatCannotBeWrittenBack_LeavesTheBlockAllocated) {
  const Volume before = volume_made();
  OpenVolume volume(before);
  ItemLocator file(volume, kRootFolderId, u"nothing");
  file.get()->btree_locator->priv->deleted = 1;
  LogCapture log;
  EXPECT_EQ(make_link(volume, file, u"a"), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_btree_record_locator_write_data Attempted to write data to deleted locator.\n",
             "ERROR kvfs_catalog_mksymlink Error while writing back modified HFSPlusCatalogFile to catalog.\n");
  file.close();
  const Volume after = volume.flushed();
  EXPECT_EQ(dump_records(after, Tree::kCatalog), dump_records(before, Tree::kCatalog));
  EXPECT_EQ(after.get_field("freeBlocks"), before.get_field("freeBlocks") - 1);
  CheckOptions options;
  options.leaked_blocks = true;
  EXPECT_EQ(joined(check_volume(after, options)), "");
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

TEST(CatalogMksymlink, EachFailingCall_IsReportedAndLeavesNothingBehind) {
  VolumeDescription description = described();
  description.catalog.node_size = 512;
  const Volume before = build_volume(description);
  const auto operate = [](OpenVolume& volume, kvfs_catalog_record_locator* item) {
    const std::vector<kvfs_be16> units = stored_units(u"a\\b");
    return kvfs_catalog_mksymlink(item, units.data(), units.size(), volume.get());
  };
  // The record is written last: it is a link when everything went well, or when only the unlocking behind that failed.
  const auto inspect = [&before](OpenVolume& volume, const FailedRun& run) {
    const ItemLocator file(volume, kRootFolderId, u"nothing");
    const int kind = kvfs_catalog_file_link_kind(kvfs_view_as<HFSPlusCatalogFile>(file.get()->btree_locator->data));
    if (run.result == kvfs_ok) {
      EXPECT_EQ(kind, kvfs_symbolic_link) << run.n;
    }
    if (kind == kvfs_symbolic_link) {
      EXPECT_EQ(volume.header()->freeBlocks.get(), before.get_field("freeBlocks") - 1) << run.n;
    }
    if (run.result == kvfs_no_memory || run.result == kvfs_io_error) {
      EXPECT_EQ(kind, kvfs_plain_file) << run.n;
    }
  };
  const std::vector<FailedRun> runs = fail_everything_in(before, {kRootFolderId, u"nothing", operate, inspect});
  EXPECT_TRUE(some_run_ends_with(runs, {"ERROR kvfs_catalog_mksymlink Error while allocating {*} bytes for symlink "
                                        "data.\n"}));
  EXPECT_TRUE(some_run_ends_with(runs, {"ERROR FindWriteLocation Error while searching the bitmap for a free region of "
                                        "1.\n",
                                        kNoLocation}));
  EXPECT_TRUE(some_run_says(runs, "ERROR kvfs_catalog_mksymlink Error while marking block {*} as allocated.\n"));
  EXPECT_TRUE(some_run_ends_with(
      runs, {"ERROR kvfs_catalog_mksymlink Error while writing back modified HFSPlusCatalogFile to catalog.\n"}));
  EXPECT_FALSE(some_run_says(runs, "WARNING kvfs_catalog_mksymlink At error with no error value set!\n"));
}

}  // namespace
}  // namespace kvfs_test
