// Files that hold no volume, or a damaged one: the built tool says why it does not print, and prints nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tool_runner.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

constexpr char kRefused[] =
    "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
    "Error while opening volume in read mode.\n";

Volume sound_volume() {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.extents.node_size = 512;
  (void)description.add_files(kRootFolderId, 30);
  return build_volume(description);
}

// Expects both output modes to fail with this text and the file to stay as it is.
void expect_refused(const SparseImage& image, const std::string& messages) {
  const ScratchFile file(image);
  EXPECT_EQ(run_tool({file.path()}), failed(messages + kRefused));
  EXPECT_EQ(run_tool({"--output-mode=raw", file.path()}), failed(messages + kRefused));
  EXPECT_TRUE(SparseImage::load(file.path()) == image);
}

TEST(HostilePrint, FilesTooShortForAVolumeHeader_AreRefused) {
  const std::string reading = "ERROR kvfs_volume_setup Error while reading volume header disk sector.\n";
  for (const auto& [size, got] : {std::pair{0, 0}, {1, 0}, {1024, 0}, {1025, 1}, {1535, 511}}) {
    expect_refused(SparseImage(static_cast<std::uint64_t>(size)),
                   "ERROR kvfs_device_read_disk_sectors Partial read into buffer: " + std::to_string(got) +
                       "/512 bytes read\n" + reading);
  }
}

TEST(HostilePrint, Folder_IsRefusedWhenItIsRead) {
  const ToolRun run = run_tool({::testing::TempDir()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(
      run.err,
      ::testing::MatchesRegex(
          "ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 1024 into self-allocated buffer 0x[0-9a-f]+: Is a directory \\(21\\)\n"
          "ERROR kvfs_volume_setup Error while reading volume header disk sector.\n"
          "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
          "Error while opening volume in read mode.\n"));
}

TEST(HostilePrint, FilesWithAnotherSignature_AreRefused) {
  expect_refused(SparseImage(4096), "ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x0\n");
  Volume image = sound_volume();
  image.set_field("signature", 0x4244);
  expect_refused(image, "ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x16964\n");
}

TEST(HostilePrint, HeaderAlone_IsRefused) {
  Volume image = sound_volume();
  image.truncate(1536);
  expect_refused(image,
                 "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 0/512 bytes read\n"
                 "ERROR kvfs_btree_process Error while reading first sector of B-tree.\n"
                 "ERROR kvfs_btree_create Error while reading extents overflow B-Tree into memory.\n"
                 "ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n"
                 "ERROR kvfs_volume_setup Error while loading extents overflow file from HFS+ volume.\n");
}

TEST(HostilePrint, NoThreadOfTheRootFolder_IsRefused) {
  VolumeDescription description;
  description.root.with_thread = false;
  expect_refused(build_volume(description), "ERROR kvfs_volume_setup Root directory not found!\n");
}

TEST(HostilePrint, DamagedCatalog_IsRefused) {
  Volume image = sound_volume();
  image.set_field("catalog.header.attributes", 0);
  expect_refused(image,
                 "ERROR kvfs_btree_process Big keys flag not set for HFS+ B-tree.\n"
                 "ERROR kvfs_btree_create Error while reading catalog B-Tree into memory.\n"
                 "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n"
                 "ERROR kvfs_volume_setup Error while loading catalog file.\n");
}

TEST(HostilePrint, HugeFork_IsRefusedWithoutTheMemoryForIt) {
  Volume image = sound_volume();
  image.set_field("catalogFile.logicalSize", std::uint64_t{1} << 48);
  const ScratchFile file(image);
  const TracedRun traced = run_traced({file.path()}, "", {.environment = {{"KVFS_FAULT_LIMIT", "16777216"}}});
  EXPECT_EQ(traced.run.status, 1);
  EXPECT_EQ(traced.run.out, "");
  EXPECT_TRUE(traced.run.err.ends_with(kRefused));
  EXPECT_EQ(traced.balance.at("allocations"), 0);
}

TEST(HostilePrint, RandomDamage_EndsWithOneOfTheTwoStatuses) {
  const Volume volume = sound_volume();
  const std::uint64_t places[] = {
      kHeaderOffset + 40, volume.node_device_offset(Tree::kExtents, 0), volume.node_device_offset(Tree::kCatalog, 0),
      volume.node_device_offset(Tree::kCatalog,
                                static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"))),
      volume.node_device_offset(Tree::kCatalog, volume.leaf_nodes(Tree::kCatalog).at(0))};
  for (std::uint32_t seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    Volume damaged = volume;
    const std::uint64_t place = places[random() % std::size(places)];
    for (int i = 0; i < 6; ++i) {
      damaged.set8(place + random() % 400, static_cast<std::uint8_t>(random()));
    }
    const ScratchFile file(damaged);
    const TracedRun traced = run_traced({file.path()}, "", {.environment = {{"KVFS_FAULT_LIMIT", "16777216"}}});
    EXPECT_TRUE(traced.run.status == 0 || traced.run.status == 1) << "seed " << seed << "\n" << traced.run;
    EXPECT_EQ(traced.run.out.empty(), traced.run.status == 1) << "seed " << seed << "\n" << traced.run;
    if (traced.run.status == 1) {
      EXPECT_NE(traced.run.err, "") << "seed " << seed;
    }
    EXPECT_EQ(traced.balance.at("allocations"), 0) << "seed " << seed;
    EXPECT_EQ(traced.balance.at("locks"), 0) << "seed " << seed;
    EXPECT_TRUE(damaged == file.volume()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace kvfs_test
