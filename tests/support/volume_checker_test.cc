#include "volume_checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "known_volumes.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A volume with index nodes, map nodes, overflow records, folder counts and every kind of record.
VolumeDescription rich_description() {
  VolumeDescription description;
  description.folder_counts = true;
  description.block_size = 512;
  description.catalog.node_size = 1024;
  description.catalog.total_nodes = 7000;
  description.catalog.height = 3;
  description.catalog.extent_count = 10;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");  // 16
  (void)description.add_file(folder, u"data", 6000, 12);                          // 17
  (void)description.add_files(folder, 40);
  return description;
}

const Volume& rich_volume() {
  static const Volume volume = build_volume(rich_description());
  return volume;
}

std::vector<std::string> findings_after(const std::function<void(Volume&)>& damage) {
  Volume volume = rich_volume();
  damage(volume);
  return check_volume(volume);
}

std::vector<std::string> findings_with(const std::string& field, std::uint64_t value) {
  return findings_after([&](Volume& volume) { volume.set_field(field, value); });
}

// First leaf, second leaf, the root and the index node above the first leaf.
std::uint32_t first_leaf() {
  return rich_volume().leaf_nodes(Tree::kCatalog).at(0);
}

std::uint32_t root_node() {
  return static_cast<std::uint32_t>(rich_volume().get_field("catalog.header.rootNode"));
}

std::string node_name(std::uint32_t node) {
  return "catalog.node[" + std::to_string(node) + "]";
}

std::string entry_of(std::uint32_t cnid) {
  return rich_volume().find_by_cnid(cnid)->path();
}

TEST(VolumeCheckerTest, RichVolume_IsSound) {
  EXPECT_THAT(check_volume(rich_volume()), IsEmpty());
  EXPECT_THAT(check_btree(rich_volume(), Tree::kCatalog), IsEmpty());
  EXPECT_GE(rich_volume().get_field("catalog.header.treeDepth"), 3U);
  EXPECT_NE(rich_volume().get_field("catalog.node[0].fLink"), 0U);
}

// ---- Volume header

TEST(VolumeCheckerTest, HeaderCounters_WhenWrong_AreNamed) {
  EXPECT_THAT(findings_with("fileCount", 40), ElementsAre("fileCount is 40, not 41"));
  EXPECT_THAT(findings_with("folderCount", 2), ElementsAre("folderCount is 2, not 1"));
  EXPECT_THAT(findings_with("nextCatalogID", 57), ElementsAre("nextCatalogID 57 is in use"));
  const std::uint64_t free_blocks = rich_volume().get_field("freeBlocks");
  EXPECT_THAT(findings_with("freeBlocks", free_blocks + 1),
              ElementsAre("freeBlocks is " + std::to_string(free_blocks + 1) + ", not " + std::to_string(free_blocks)));
}

TEST(VolumeCheckerTest, Signature_WhenWrong_EndsTheCheck) {
  EXPECT_THAT(findings_with("signature", 0x4244), ElementsAre("signature 16964 with version 4"));
  EXPECT_THAT(findings_with("version", 5), ElementsAre("signature 18475 with version 5"));
}

TEST(VolumeCheckerTest, AlternateHeader_WhenMissing_IsNoticed) {
  EXPECT_THAT(findings_with("alternate.signature", 0), ElementsAre("the alternate header has another signature"));
}

TEST(VolumeCheckerTest, Sizes_BeyondTheDevice_EndTheCheck) {
  EXPECT_THAT(findings_with("totalBlocks", 100000000), ElementsAre("totalBlocks 100000000 does not fit the device"));
  EXPECT_THAT(findings_with("blockSize", 513), ElementsAre("blockSize is 513"));
  EXPECT_THAT(findings_after([](Volume& v) { v.truncate(1000); }), ElementsAre("the device is too small for a volume"));
}

// ---- Forks and the allocation bitmap

TEST(VolumeCheckerTest, ForkSizes_AgainstExtents_AreCompared) {
  EXPECT_THAT(findings_with(entry_of(17) + ".dataFork.totalBlocks", 13),
              ElementsAre("file 17: totalBlocks is 13, its extents have 12"));
  EXPECT_THAT(findings_with(entry_of(17) + ".dataFork.logicalSize", 6145),
              ElementsAre("file 17: logicalSize 6145 exceeds its blocks"));
}

TEST(VolumeCheckerTest, OverflowRecords_AtTheWrongBlock_AreNoticed) {
  const std::uint64_t node = rich_volume().get_field("extents.header.firstLeafNode");
  const std::string record = "extents.node[" + std::to_string(node) + "].record[1]";
  EXPECT_THAT(findings_with(record + ".key.startBlock", 7),
              ElementsAre("file 17: overflow record at block 7, expected at 8"));
  EXPECT_THAT(findings_with(record + ".key.fileID", 5000),
              Contains("overflow records of file 5000, fork type 0, belong to nothing"));
  EXPECT_THAT(findings_with(record + ".key.forkType", 1),
              Contains("extents: node " + std::to_string(node) + ": record 1 has fork type 1"));
}

TEST(VolumeCheckerTest, Extents_OverlappingOrOutside_AreNoticed) {
  const std::uint64_t mine = rich_volume().get_field(entry_of(17) + ".dataFork.extents[0].startBlock");
  EXPECT_THAT(findings_with(entry_of(17) + ".dataFork.extents[1].startBlock", mine),
              Contains("block " + std::to_string(mine) + " belongs to file 17 and to file 17"));
  EXPECT_THAT(findings_with(entry_of(17) + ".dataFork.extents[1].startBlock", 900000000),
              Contains("file 17: extent 900000000 + 1 leaves the volume"));
}

TEST(VolumeCheckerTest, AllocationBitmap_IsComparedBothWays) {
  const auto block =
      static_cast<std::uint32_t>(rich_volume().get_field(entry_of(17) + ".dataFork.extents[0].startBlock"));
  const std::string at = std::to_string(block);
  EXPECT_THAT(findings_after([block](Volume& v) { v.set_block_used(block, false); }),
              Contains("blocks " + at + " to " + at + ": used, marked free"));
  const auto next = static_cast<std::uint32_t>(rich_volume().get_field("nextAllocation"));
  const std::string spare = std::to_string(next + 3);
  const auto leak = [next](Volume& v) {
    v.set_block_used(next + 3, true);
    v.add_to_field("freeBlocks", -1);
  };
  EXPECT_THAT(findings_after(leak),
              ElementsAre("blocks " + spare + " to " + spare + ": marked used, belong to nothing"));
  Volume volume = rich_volume();
  leak(volume);
  CheckOptions options;
  options.leaked_blocks = true;
  EXPECT_THAT(check_volume(volume, options), IsEmpty());
}

// ---- Trees

TEST(VolumeCheckerTest, TreeHeader_WhenWrong_IsNoticed) {
  const std::uint64_t records = rich_volume().get_field("catalog.header.leafRecords");
  EXPECT_THAT(
      findings_with("catalog.header.leafRecords", records + 1),
      ElementsAre("catalog: leafRecords is " + std::to_string(records + 1) + ", not " + std::to_string(records)));
  EXPECT_THAT(findings_with("catalog.header.firstLeafNode", 99),
              ElementsAre("catalog: firstLeafNode is 99, not " + std::to_string(first_leaf())));
  EXPECT_THAT(findings_with("catalog.header.lastLeafNode", 1),
              Contains(::testing::StartsWith("catalog: lastLeafNode is 1, not ")));
  EXPECT_THAT(findings_with("catalog.header.freeNodes", 1),
              ElementsAre(::testing::StartsWith("catalog: freeNodes is 1, not ")));
  EXPECT_THAT(findings_with("catalog.header.btreeType", 128), ElementsAre("catalog: btreeType is 128"));
  EXPECT_THAT(findings_with("catalog.header.keyCompareType", 1), Contains("catalog: keyCompareType is 1"));
  EXPECT_THAT(findings_with("catalog.header.attributes", 4), ElementsAre("catalog: attributes are 4"));
  EXPECT_THAT(findings_with("extents.header.attributes", 6), ElementsAre("extents: attributes are 6"));
  EXPECT_THAT(findings_with("extents.header.maxKeyLength", 12), ElementsAre("extents: maxKeyLength is 12"));
  EXPECT_THAT(findings_with("attributes.header.rootNode", 1), Contains("attributes: rootNode is 1 with treeDepth 0"));
}

TEST(VolumeCheckerTest, TreeSizes_WhenAbsurd_EndTheWalkOfThatTree) {
  EXPECT_THAT(findings_with("catalog.header.nodeSize", 1000), Contains("catalog: node size is 1000"));
  EXPECT_THAT(findings_with("catalog.header.totalNodes", 0xFFFFFFFF),
              Contains(::testing::StartsWith("catalog: totalNodes 4294967295 does not fit the fork")));
  EXPECT_THAT(findings_with("catalog.header.treeDepth", 65535), Contains("catalog: treeDepth is 65535"));
}

TEST(VolumeCheckerTest, NodeDescriptor_WhenWrong_IsNoticed) {
  const std::string leaf = std::to_string(first_leaf());
  const std::string name = node_name(first_leaf());
  const std::string next = std::to_string(rich_volume().leaf_nodes(Tree::kCatalog).at(1));
  EXPECT_THAT(findings_with(name + ".fLink", 0), ElementsAre("catalog: node " + leaf + ": fLink is 0, not " + next));
  EXPECT_THAT(findings_with(name + ".bLink", 3), ElementsAre("catalog: node " + leaf + ": bLink is 3, not 0"));
  EXPECT_THAT(findings_with(name + ".kind", 0), Contains("catalog: node " + leaf + ": kind is 0"));
  EXPECT_THAT(findings_with(name + ".height", 2), ElementsAre("catalog: node " + leaf + ": height is 2, not 1"));
  EXPECT_THAT(findings_with(name + ".numRecords", 600),
              Contains("catalog: node " + leaf + ": numRecords 600 does not fit"));
  EXPECT_THAT(findings_with("catalog.node[0].kind", 2), Contains("catalog: node 0 is not a header node"));
}

TEST(VolumeCheckerTest, OffsetTable_WhenWrong_IsNoticed) {
  const std::string leaf = std::to_string(first_leaf());
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".offset[0]", 16),
              Contains("catalog: node " + leaf + ": record 0 lies at offset 16"));
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".offset[1]", 14),
              Contains("catalog: node " + leaf + ": offset 1 is 14"));
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".offset[1]", 1023),
              Contains("catalog: node " + leaf + ": offset 1 is 1023"));
}

TEST(VolumeCheckerTest, Keys_OutOfOrderOrDifferentFromTheIndex_AreNoticed) {
  const std::string leaf = std::to_string(first_leaf());
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".record[1].key.parentID", 0),
              Contains("catalog: node " + leaf + ": record 1 is out of order"));
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".record[0].key.nodeName.unicode[0]", u'V'),
              Contains("catalog: node " + leaf + ": first key differs from its index key"));
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".record[0].key.keyLength", 5),
              Contains("catalog: node " + leaf + ": record 0: keyLength is 5"));
  EXPECT_THAT(findings_with(node_name(first_leaf()) + ".record[0].key.nodeName.length", 2),
              Contains("catalog: node " + leaf + ": record 0: name length 2 in a key of length 22"));
}

TEST(VolumeCheckerTest, IndexRecords_PointingAstray_AreNoticed) {
  const std::string child = node_name(root_node()) + ".record[1].child";
  const std::string root = std::to_string(root_node());
  EXPECT_THAT(findings_with(child, root_node()), Contains("catalog: node " + root + ": reached twice"));
  EXPECT_THAT(findings_with(child, 7000), Contains("catalog: node 7000 lies beyond totalNodes"));
}

TEST(VolumeCheckerTest, NodeBitmap_IsComparedBothWays) {
  const auto clear_leaf = [](Volume& v) { v.set_node_used(Tree::kCatalog, first_leaf(), false); };
  EXPECT_THAT(findings_after(clear_leaf),
              ElementsAre("catalog: node " + std::to_string(first_leaf()) + ": used but marked free"));
  EXPECT_THAT(findings_after([](Volume& v) { v.set_node_used(Tree::kCatalog, 6999, true); }),
              ElementsAre("catalog: node 6999: marked used but not reached"));
}

TEST(VolumeCheckerTest, MapNodes_WhenUnlinkedOrOfAnotherKind_AreNoticed) {
  EXPECT_THAT(findings_with("catalog.node[0].fLink", 0),
              Contains(::testing::StartsWith("catalog: the node bitmap ends before node ")));
  const auto map_node = static_cast<std::uint32_t>(rich_volume().get_field("catalog.node[0].fLink"));
  EXPECT_THAT(findings_with(node_name(map_node) + ".kind", 0),
              Contains("catalog: node " + std::to_string(map_node) + ": is not a map node"));
  EXPECT_THAT(findings_with(node_name(map_node) + ".fLink", map_node),
              Contains("catalog: map node " + std::to_string(map_node) + " is no free place for one"));
}

TEST(VolumeCheckerTest, EmptyLeaf_IsAFindingUnlessNamed) {
  VolumeDescription description;
  description.catalog.max_leaf_records = 1;
  const std::uint32_t file = description.add_file(kRootFolderId, u"a");
  description.item(file).with_thread = false;
  Volume volume = build_volume(description);
  const std::uint32_t last = volume.leaf_nodes(Tree::kCatalog).back();
  volume.set_field(node_name(last) + ".numRecords", 0);
  volume.add_to_field("catalog.header.leafRecords", -1);
  EXPECT_THAT(check_btree(volume, Tree::kCatalog),
              ElementsAre("catalog: node " + std::to_string(last) + ": has no records"));
  CheckOptions options;
  options.empty_leaves = {last};
  EXPECT_THAT(check_btree(volume, Tree::kCatalog, options), IsEmpty());
}

// ---- Catalog records

TEST(VolumeCheckerTest, FolderRecords_WhenWrong_AreNoticed) {
  EXPECT_THAT(findings_with(entry_of(16) + ".valence", 5), ElementsAre("folder 16: valence is 5, not 41"));
  EXPECT_THAT(findings_with(entry_of(2) + ".folderCount", 5), ElementsAre("folder 2: folderCount is 5, not 1"));
  EXPECT_THAT(findings_with(entry_of(17) + ".recordType", 7), Contains(::testing::EndsWith("has record type 7")));
  EXPECT_THAT(findings_with(entry_of(17) + ".fileID", 18), Contains("file 18: the ID is used twice"));
}

TEST(VolumeCheckerTest, Threads_WhenWrongOrMissing_AreNoticed) {
  const std::string thread = rich_volume().find_thread(17)->path();
  EXPECT_THAT(findings_with(thread + ".parentID", 2), ElementsAre("file 17: its thread record names another place"));
  EXPECT_THAT(findings_with(thread + ".nodeName.unicode[0]", u'D'),
              ElementsAre("file 17: its thread record names another place"));
  EXPECT_THAT(findings_with(thread + ".recordType", 3), ElementsAre("file 17: its thread record names another place"));

  VolumeDescription description = rich_description();
  description.item(17).with_thread = false;
  const Volume volume = build_volume(description);
  EXPECT_THAT(check_volume(volume), ElementsAre("file 17: no thread record"));
  CheckOptions options;
  options.missing_threads = true;
  EXPECT_THAT(check_volume(volume, options), IsEmpty());
}

TEST(VolumeCheckerTest, Thread_WithoutRecord_BelongsToNothing) {
  VolumeDescription description = rich_description();
  description.item(20).with_record = false;
  EXPECT_THAT(check_volume(build_volume(description)), ElementsAre("thread record 20 belongs to nothing"));
}

TEST(VolumeCheckerTest, Parent_ThatIsNoFolder_IsNoticed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"file");
  (void)description.add_file(file, u"child");
  EXPECT_THAT(check_volume(build_volume(description)), ElementsAre("file 17: its parent 16 is no folder"));
}

TEST(VolumeCheckerTest, RecordsOfTheWrongSize_AreNoticed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"file");
  description.item(file).record = Bytes(100, 0);
  description.item(file).record->at(1) = 2;
  EXPECT_THAT(check_volume(build_volume(description)), Contains("catalog: node 1: record 2: file record of 100 bytes"));
}

TEST(VolumeCheckerTest, AnySingleDamagedByteOfACatalogNode_NeverThrows) {
  const std::uint64_t leaf = rich_volume().node_device_offset(Tree::kCatalog, first_leaf());
  for (std::uint64_t at = 0; at < 1024; ++at) {
    Volume volume = rich_volume();
    volume.set8(leaf + at, static_cast<std::uint8_t>(volume.get8(leaf + at) ^ 0xFF));
    EXPECT_LE(check_volume(volume).size(), kMaxMessages + 1);
  }
}

// ---- Volumes of other systems

std::string shell(const std::string& command) {
  return std::system(command.c_str()) == 0 ? "" : "failed: " + command;
}

class ForeignVolumeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = ::testing::TempDir() + "kvfs_foreign_XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::filesystem::path folder_;
};

class CollectedVolumes : public KnownVolumes {};
KVFS_INSTANTIATE_KNOWN_VOLUMES(CollectedVolumes);

TEST_P(CollectedVolumes, AllOfThem_AreSound) {
  const std::string image = ::testing::TempDir() + "kvfs_collected_" + std::to_string(::getpid());
  for (const KnownVolume& volume : volumes()) {
    ASSERT_TRUE(unpack(volume.file, image));
    EXPECT_EQ(joined(check_volume(Volume::load(image))), "") << volume.file;
  }
  std::filesystem::remove(image);
}

// This writer marks one block more than its files have, which is tolerated.
TEST_F(ForeignVolumeTest, VolumeOfXorriso_IsSoundButForALeakedBlock) {
  for (int i = 0; i < 500; ++i) {
    const auto folder = folder_ / "tree" / ("folder\u00E9" + std::to_string(i % 7));
    std::filesystem::create_directories(folder);
    std::ofstream(folder / ("file\u00FC" + std::to_string(i))) << i;
  }
  const std::string image = (folder_ / "image").string();
  ASSERT_EQ(shell("xorriso -as mkisofs -hfsplus -V XLABEL -o '" + image + "' '" + (folder_ / "tree").string() +
                  "' > /dev/null 2>&1"),
            "");
  const Volume volume = cut_out_partition(SparseImage::load(image));
  CheckOptions options;
  options.leaked_blocks = true;
  EXPECT_EQ(joined(check_volume(volume, options)), "");
  EXPECT_EQ(read_label(volume), u"XLABEL");
  EXPECT_EQ(volume.get_field("fileCount"), 500U);
}

}  // namespace
}  // namespace kvfs_test
