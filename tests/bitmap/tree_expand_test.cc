// Growing the catalog's B-tree: new nodes, map nodes, undoing, and going on in the new nodes.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "allocation_fixture.h"
#include "big_endian.h"
#include "btree/private.h"
#include "extents.h"
#include "replaced_routine.h"
#include "volume_checker.h"

// A fork whose next range to be unmapped is, with a failure.
namespace {
const kvfs_fork* g_refuses_unmapping_of = nullptr;
unsigned g_unmaps = 0;
unsigned g_fails_from = UINT_MAX;  // the call from which on each fails, every time with another result
}  // namespace
KVFS_REPLACED_ROUTINE(kvfs_fork_unmap, real_unmap, wrapped_unmap);
kvfs_result wrapped_unmap(kvfs_fork* fork, std::uint64_t offset, void** pointer, std::size_t length) {
  const kvfs_result result = real_unmap(fork, offset, pointer, length);
  if (++g_unmaps >= g_fails_from) {
    return g_unmaps == g_fails_from ? kvfs_failed : kvfs_io_error;
  }
  if (fork != g_refuses_unmapping_of) {
    return result;
  }
  g_refuses_unmapping_of = nullptr;
  return kvfs_failed;
}

namespace kvfs_test {
namespace {

const CheckOptions kWithLeakedBlocks = {{}, true, false};

Bytes read_catalog(const OpenVolume& volume, std::uint64_t offset, std::size_t length) {
  Bytes bytes(length);
  EXPECT_EQ(kvfs_fork_read(volume.catalog_fork(), offset, bytes.data(), length, nullptr), kvfs_ok);
  return bytes;
}

std::uint32_t total_nodes(const OpenVolume& volume) {
  return get_be32(read_catalog(volume, 14 + 22, 4), 0);
}

std::uint32_t free_nodes(const OpenVolume& volume) {
  return get_be32(read_catalog(volume, 14 + 26, 4), 0);
}

// The tree as its header node tells: "nodes=20 free=8 map=0", with the first map node.
std::string tree_text(const OpenVolume& volume) {
  return "nodes=" + std::to_string(total_nodes(volume)) + " free=" + std::to_string(free_nodes(volume)) +
         " map=" + std::to_string(get_be32(read_catalog(volume, 0, 4), 0));
}

// The catalog's fork: its size in memory and its fork data.
std::string fork_text(const OpenVolume& volume) {
  return std::to_string(*volume.catalog_fork()->logical_size) + " " + describe(volume.header()->catalogFile);
}

// ---- Without map nodes ---------------------------------------------------------------------------------------------

// A catalog of 16 nodes in one extent from block 104 on, which grows by four.
VolumeDescription small_description() {
  VolumeDescription description;
  description.size = 4096 * 1024;
  description.catalog.total_nodes = 16;
  description.catalog.first_block = 104;
  (void)description.add_files(kRootFolderId, 20);
  return description;
}

TEST(ExpandTree, InPlace_GainsTheNodesOfItsClump) {
  OpenVolume volume(build_volume(small_description()));
  const std::uint32_t free_before = free_nodes(volume);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_text(volume), "nodes=20 free=" + std::to_string(free_before + 4) + " map=0");
  EXPECT_EQ(fork_text(volume), "81920 size=81920 total=20 extents={104+20}");
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

TEST(ExpandTree, WithUsedBlocksBehind_GrowsIntoANewExtent) {
  Volume image = build_volume(small_description());
  image.set_block_used(120, true);
  image.add_to_field("freeBlocks", -1);
  OpenVolume volume(image);
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_EQ(fork_text(volume), "81920 size=81920 total=20 extents={104+16 128+4}");
  EXPECT_EQ(joined(check_volume(volume.flushed(), kWithLeakedBlocks)), "");
}

// The last byte of the volume's bits offers all that is wanted, and what lies behind the volume is not its own.
// X-bitmap-5
TEST(ExpandTree, WithTooFewBlocksAtTheEndOfTheVolume_IsRefusedAndChangesNothing) {
  VolumeDescription description = small_description();
  description.size = 4096 * 1000;
  description.catalog.clump_size = 4096 * 64;
  Volume image = build_volume(description);
  for (std::uint32_t block = 0; block < 1000; ++block) {
    image.set_block_used(block, block < 992);
  }
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_limit);
  EXPECT_LOG(
      log, "ERROR AllocateExtentAllocationBlocks Cannot allocate 64 blocks starting at block 992 of 1000 blocks.\n",
      "ERROR kvfs_fork_expand Error while marking 64 blocks starting at block 992 as allocated in the allocation "
      "file.\n",
      "ERROR kvfs_btree_expand Error while expanding fork.\n");
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandTree, ChangesTheHeaderRecordAlone) {
  const Volume image = build_volume(small_description());
  OpenVolume volume(image);
  ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(volume.catalog_fork()), kvfs_ok);
  ASSERT_EQ(faults.writes().size(), 1u);
  EXPECT_EQ(faults.writes()[0].offset, 104u * 4096);
  EXPECT_EQ(faults.writes()[0].size, 4096u);
  const std::vector<ByteRange> expected = {{104 * 4096 + 14 + 22 + 3, 1}, {104 * 4096 + 14 + 26 + 3, 1}};
  EXPECT_EQ(volume.contents().differences(image), expected);
}

// X-btree-16
TEST(ExpandTree, ReopenedFromTheDevice_HasItsNewNodes) {
  OpenVolume grown(build_volume(small_description()));
  ASSERT_EQ(kvfs_btree_expand(grown.catalog_tree(), grown.get()), kvfs_ok);
  const OpenVolume reopened(grown.flushed());
  EXPECT_EQ(tree_text(reopened), tree_text(grown));
  EXPECT_EQ(fork_text(reopened), fork_text(grown));
}

TEST(ExpandTree, OpenLocators_StayWhereTheyAre) {
  OpenVolume volume(build_volume(small_description()));
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  ASSERT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, true, &found), kvfs_ok);
  ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  kvfs_catalog_record_locator* next = nullptr;
  EXPECT_EQ(kvfs_catalog_get_next_record(volume.catalog(), found.locator, &next), kvfs_ok);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(get_be32(Bytes(next->btree_locator->key, next->btree_locator->key + 8), 2), kRootFolderId);
  kvfs_catalog_record_locator_close(&next);
  kvfs_catalog_search_result_release(&found);
}

// Q-btree-22
TEST(ExpandTree, OfAnotherKind_DoesNothing) {
  const Volume image = build_volume(small_description());
  OpenVolume volume(image);
  FaultInjector faults;
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.get()->extents->btree, volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_TRUE(faults.lock_calls().empty());
  EXPECT_TRUE(faults.transfers().empty());
  EXPECT_EQ(volume.flushed(), image);
}

// Blocks smaller than a node: each clump is too small for a node, and no expansion counts the blocks of earlier ones.
TEST(ExpandTree, WithAClumpSmallerThanANode_GainsNone) {
  VolumeDescription description;
  description.block_size = 512;
  description.allocation_file_in_chunks = true;
  description.catalog.total_nodes = 16;
  description.catalog.clump_size = 2048;
  OpenVolume volume(build_volume(description));
  const std::string before = tree_text(volume);
  for (unsigned i = 0; i < 4; ++i) {
    ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  }
  EXPECT_EQ(tree_text(volume), before);
  EXPECT_EQ(*volume.catalog_fork()->logical_size, 16u * 4096 + 4 * 2048);
  EXPECT_EQ(volume.header()->catalogFile.logicalSize.get(), 16u * 4096 + 4 * 2048);
}

TEST(ExpandTree, WithEightUsedExtents_IsRefused) {
  VolumeDescription description;
  description.size = 4096 * 1024;
  description.catalog.total_nodes = 16;
  description.catalog.extent_count = 8;
  const Volume image = build_volume(description);
  OpenVolume volume(image);
  const std::string fork = fork_text(volume);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_unsupported_extents);
  EXPECT_LOG(log,
             "ERROR UpdateForkExtents Unable to update fork extents beyond the first 8 extents.Error while updating "
             "fork extents.\n",
             "ERROR kvfs_btree_expand Error while expanding fork.\n");
  EXPECT_EQ(fork_text(volume), fork);
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandTree, WithoutAFreeRun_IsAnInternalErrorAndChangesNothing) {
  Volume image = build_volume(small_description());
  for (std::uint32_t block = 0; block < 1024; ++block) {
    image.set_block_used(block, true);
  }
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_internal);
  Lines expected = no_run_messages();
  expected.push_back("ERROR kvfs_btree_expand Error while expanding fork.\n");
  EXPECT_TRUE(log.matches(expected));
  EXPECT_EQ(volume.flushed(), image);
}

TEST(ExpandTree, AsLargeAsItsHeadersMapRecord_NeedsNoMapNode) {
  VolumeDescription description;
  description.block_size = 512;
  description.allocation_file_in_chunks = true;
  description.catalog.node_size = 512;
  description.catalog.total_nodes = 2044;
  OpenVolume volume(build_volume(description));
  ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_EQ(total_nodes(volume), 2048u);
  EXPECT_EQ(get_be32(read_catalog(volume, 0, 4), 0), 0u);
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

// ---- Map nodes -----------------------------------------------------------------------------------------------------

// A catalog of nodes of 512 bytes, whose header node describes 2048 nodes. It grows by four nodes.
constexpr std::uint32_t kHeaderMapNodes = 2048;

VolumeDescription full_map_description(std::uint32_t nodes = kHeaderMapNodes) {
  VolumeDescription description;
  description.block_size = 512;
  description.allocation_file_in_chunks = true;
  description.spare_blocks = 400;
  description.catalog.node_size = 512;
  description.catalog.total_nodes = nodes;
  return description;
}

Bytes node_bytes(const OpenVolume& volume, std::uint32_t node) {
  return read_catalog(volume, std::uint64_t{node} * volume.catalog_tree()->nodeSize, volume.catalog_tree()->nodeSize);
}

// A map node as an expansion makes it: empty up to its two offsets.
Bytes new_map_node(std::uint32_t node_size) {
  Bytes node(node_size);
  node[8] = 2;
  put_be(node, 10, 2, 1);
  put_be(node, node_size - 2, 2, 14);
  put_be(node, node_size - 4, 2, node_size - 4);
  return node;
}

// The chain of map nodes, from the header node on.
std::vector<std::uint32_t> map_chain(const OpenVolume& volume) {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t node = 0;;) {
    node = get_be32(node_bytes(volume, node), 0);
    if (node == 0 || chain.size() > 100) {
      return chain;
    }
    chain.push_back(node);
  }
}

// X-btree-16
TEST(ExpandTree, BeyondItsHeadersMapRecord_ChainsAMapNode) {
  Volume image = build_volume(full_map_description());
  std::uint32_t first_free = 1;
  while (image.node_used(Tree::kCatalog, first_free)) {
    ++first_free;
  }
  // What the node held before is cleared.
  image.write_node(Tree::kCatalog, first_free, Bytes(512, 0xEE));
  const std::uint64_t free_before = image.get_field("catalog.header.freeNodes");
  OpenVolume volume(image);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(total_nodes(volume), kHeaderMapNodes + 4);
  EXPECT_EQ(free_nodes(volume), free_before + 4 - 1);
  EXPECT_EQ(map_chain(volume), std::vector<std::uint32_t>{first_free});
  EXPECT_EQ(node_bytes(volume, first_free), new_map_node(512));
  EXPECT_EQ(joined(check_volume(volume.flushed())), "");
}

// Q-btree-23
TEST(ExpandTree, WithMapNodesAlready_ChainsOneMoreEachTime) {
  OpenVolume volume(build_volume(full_map_description(3000)));
  const std::vector<std::uint32_t> before = map_chain(volume);
  ASSERT_EQ(before.size(), 1u);
  for (std::size_t round = 1; round <= 5; ++round) {
    ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
    const std::vector<std::uint32_t> chain = map_chain(volume);
    ASSERT_EQ(chain.size(), 1 + round);
    EXPECT_EQ(chain[0], before[0]);
    EXPECT_EQ(node_bytes(volume, chain.back()), new_map_node(512));
    EXPECT_EQ(joined(check_volume(volume.flushed())), "");
  }
}

// The free node is found in a map node, whose reading is work.
// X-btree-17
TEST(ExpandTree, BehindAnOperationThatHasUsedUpItsWork_HasWorkOfItsOwn) {
  Volume image = build_volume(full_map_description(3000));
  for (std::uint32_t node = 0; node < kHeaderMapNodes; ++node) {
    image.set_node_used(Tree::kCatalog, node, true);
  }
  image.set_field("catalog.node[0].offset[3]", 0xFFF8);  // the byte behind the map record, which counts to it
  OpenVolume volume(image);
  volume.catalog_tree()->priv->work_left = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(map_chain(volume).size(), 2u);
}

// A full catalog: every node that its header describes is marked as used.
Volume full_catalog() {
  Volume image = build_volume(full_map_description());
  for (std::uint32_t node = 0; node < kHeaderMapNodes; ++node) {
    image.set_node_used(Tree::kCatalog, node, true);
  }
  image.set_field("catalog.header.freeNodes", 0);
  return image;
}

// The claim takes the byte behind the header's map record for its last one. That byte belongs to the offset table: it
// is the upper half of the free-space offset, 504, and marking node 2048 there makes it 33272.
TEST(ExpandTree, WithEveryNodeUsed_MarksItsMapNodeBehindTheHeadersMapRecord) {
  OpenVolume volume(full_catalog());
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(tree_text(volume), "nodes=2052 free=3 map=2048");
  const Bytes header = node_bytes(volume, 0);
  EXPECT_EQ(get_be16(header, 504), 0x81F8);
  EXPECT_EQ(node_bytes(volume, 2048), new_map_node(512));
  const std::vector<std::string> findings = check_btree(volume.flushed(), Tree::kCatalog);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings[0], "catalog: node 0: offset 3 is 33272");
}

// The seven clear bits of that byte serve seven nodes. Then the walk goes on to the map node: the node that moves it on
// is looked for by its byte in the old segment and marked by its byte in the new one, so that it is found again and
// again.
TEST(ExpandTree, WithEveryNodeUsed_OffersTheNodesBehindTheHeadersMapRecordAndOneMore) {
  OpenVolume volume(full_catalog());
  for (unsigned i = 0; i < 3; ++i) {
    ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
  }
  EXPECT_EQ(map_chain(volume), (std::vector<std::uint32_t>{2048, 2049, 2050}));
  EXPECT_EQ(tree_text(volume), "nodes=2060 free=9 map=2048");
  for (const std::uint32_t expected : {2051U, 2052U, 2053U, 2054U, 2056U}) {
    std::uint32_t node = 0;
    ASSERT_EQ(kvfs_btree_claim_node(volume.catalog_tree(), &node), kvfs_ok);
    EXPECT_EQ(node, expected);
  }
  EXPECT_EQ(get_be16(node_bytes(volume, 0), 504), 0xFFF8);
  EXPECT_EQ(get_be16(node_bytes(volume, 2048), 14), 0x0080);  // byte 1 of the map node's record
  std::uint32_t node = 77;
  LogCapture log;
  EXPECT_EQ(kvfs_btree_claim_node(volume.catalog_tree(), &node), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_btree_claim_node Internal error: Node is already allocated!\n");
  EXPECT_EQ(node, 77u);
  // The next map node finds no place either.
  LogCapture again;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_internal);
  EXPECT_LOG(again, "CRITICAL kvfs_btree_claim_node Internal error: Node is already allocated!\n",
             "ERROR kvfs_btree_expand Error while allocating new map node.\n");
}

constexpr std::uint64_t kMapNodeKind = 2;

// X-btree-13
TEST(ExpandTree, WithARingOfMapNodes_IsInconsistent) {
  Volume image = build_volume(full_map_description(3000));
  const std::uint64_t map_node = image.get_field("catalog.node[0].fLink");
  for (const std::uint64_t target : {map_node, map_node + 1}) {
    Volume damaged = image;
    damaged.set_field("catalog.node[" + std::to_string(map_node) + "].fLink", target);
    if (target != map_node) {
      damaged.set_field("catalog.node[" + std::to_string(target) + "].fLink", map_node);
      damaged.set_field("catalog.node[" + std::to_string(target) + "].kind", kMapNodeKind);
    }
    OpenVolume volume(damaged);
    const std::string fork = fork_text(volume);
    const std::string tree = tree_text(volume);
    LogCapture log;
    EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_inconsistent);
    EXPECT_TRUE(log.has("ERROR", "kvfs_btree_expand", "Invalid node data: The map nodes form a ring at node "));
    EXPECT_EQ(fork_text(volume), fork);
    EXPECT_EQ(tree_text(volume), tree);
  }
}

// X-btree-13
TEST(ExpandTree, WithAnotherKindOfNodeInTheMapChain_IsInconsistent) {
  Volume image = build_volume(small_description());
  image.set_field("catalog.node[0].fLink", 1);
  OpenVolume volume(image);
  const std::string fork = fork_text(volume);
  const std::string tree = tree_text(volume);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_btree_expand Invalid node data: Expected map node, got node kind -1.\n");
  EXPECT_EQ(fork_text(volume), fork);
  EXPECT_EQ(tree_text(volume), tree);
}

// Q-btree-25
TEST(ExpandTree, WithAMapNodeBehindTheFork_CannotMapIt) {
  Volume image = build_volume(small_description());
  image.set_field("catalog.node[0].fLink", 100);
  OpenVolume volume(image);
  const std::string fork = fork_text(volume);
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_invalid);
  EXPECT_LOG(log,
             "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 409600, Length: 14, fork "
             "data size: 81920\n",
             "ERROR kvfs_btree_expand Error while mapping last map node's descriptor.\n");
  EXPECT_EQ(fork_text(volume), fork);
}

// A tree whose nodes have no size gains none, and no map node for them either.
TEST(ExpandTree, WithoutANodeSize_IsUndone) {
  for (const std::uint32_t nodes : {8U, 16U}) {
    VolumeDescription description = small_description();
    description.catalog.total_nodes = nodes;
    OpenVolume volume(build_volume(description));
    const std::string fork = fork_text(volume);
    const std::string tree = tree_text(volume);
    const std::uint16_t node_size = std::exchange(volume.catalog_tree()->nodeSize, std::uint16_t{0});
    LogCapture log;
    EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_internal);
    EXPECT_LOG(log, "CRITICAL kvfs_fork_map Internal inconsistency: Last cache item number out of bounds!\n",
               "ERROR kvfs_btree_claim_node Error while mapping complete header node of B-tree.\n",
               "ERROR kvfs_btree_expand Error while allocating new map node.\n");
    volume.catalog_tree()->nodeSize = node_size;
    EXPECT_EQ(fork_text(volume), fork);
    EXPECT_EQ(tree_text(volume), tree);
  }
}

// The descriptor of the header node is given back before that of its map node is mapped.
TEST(ExpandTree, WithADescriptorThatIsNotUnmapped_IsUndone) {
  OpenVolume volume(build_volume(full_map_description(3000)));
  const std::string fork = fork_text(volume);
  const std::string tree = tree_text(volume);
  g_refuses_unmapping_of = volume.catalog_fork();
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_failed);
  EXPECT_LOG(log, "ERROR kvfs_btree_expand Error while mapping last map node's descriptor.\n");
  EXPECT_EQ(g_refuses_unmapping_of, nullptr);
  EXPECT_EQ(fork_text(volume), fork);
  EXPECT_EQ(tree_text(volume), tree);
}

// What is mapped is given back in the end: the new map node, the header and the last map node.
TEST(ExpandTree, WithNothingThatIsUnmappedInTheEnd_KeepsTheFirstFailure) {
  const Volume image = build_volume(full_map_description(3000));
  OpenVolume other(image);
  OpenVolume volume(image);
  g_unmaps = 0;
  ASSERT_EQ(kvfs_btree_expand(other.catalog_tree(), other.get()), kvfs_ok);
  g_fails_from = g_unmaps - 2;
  g_unmaps = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_failed);
  g_fails_from = UINT_MAX;
  EXPECT_LOG(log, "ERROR kvfs_btree_expand Error while unmapping node descriptor of claimed node.\n",
             "ERROR kvfs_btree_expand Error while unmapping B-tree header record.\n",
             "ERROR kvfs_btree_expand Error while unmapping last map node's descriptor.\n");
}

// ---- Failing calls and undoing -------------------------------------------------------------------------------------

const Lines kOwn = {"kvfs_btree_expand"};
const std::string kForkFailed = "ERROR kvfs_btree_expand Error while expanding fork.\n";
const std::string kMapLastFailed = "ERROR kvfs_btree_expand Error while mapping last map node's descriptor.\n";
const std::string kMapHeaderFailed = "ERROR kvfs_btree_expand Error while mapping B-tree header record.\n";
const std::string kHeaderFailed = "ERROR kvfs_btree_expand Error while writing back modified tree header record.\n";
const std::string kClaimFailed = "ERROR kvfs_btree_expand Error while allocating new map node.\n";
const std::string kChainFailed = "ERROR kvfs_btree_expand Error while writing out modified last map node.\n";
const std::string kFirstFailed = "ERROR kvfs_btree_expand Error while writing out modified last record pointer.\n";
const std::string kEndFailed = "ERROR kvfs_btree_expand Error while writing out modified free space pointer.\n";
const std::string kMapNewFailed = "ERROR kvfs_btree_expand Error while mapping node descriptor of claimed node.\n";
const std::string kNewFailed = "ERROR kvfs_btree_expand Error while writing out node descriptor of claimed node.\n";
const std::string kUndoLast = "ERROR kvfs_btree_expand Error while rolling back modifications to last map node.\n";
const std::string kUndoHeader = "ERROR kvfs_btree_expand Error while reverting B-tree header record modifications.\n";
const std::string kUndoFork = "ERROR kvfs_btree_expand Error while rolling back fork expansion.\n";
const std::string kUnmapNew = "ERROR kvfs_btree_expand Error while unmapping node descriptor of claimed node.\n";
const std::string kUnmapHeader = "ERROR kvfs_btree_expand Error while unmapping B-tree header record.\n";
const std::string kUnmapLast = "ERROR kvfs_btree_expand Error while unmapping last map node's descriptor.\n";
const std::string kLockFailed = "ERROR kvfs_btree_expand Error while acquiring write lock for open locators list.\n";
const std::string kUnlockFailed =
    "CRITICAL kvfs_btree_expand Error while releasing write lock for open locators list. Will probably crash now...\n";

std::string state_of(const OpenVolume& volume) {
  std::string state = fork_text(volume) + " " + tree_text(volume) + " chain";
  for (const std::uint32_t node : map_chain(volume)) {
    state += " " + std::to_string(node);
  }
  return state;
}

// An expansion that chains a map node. After a failure the tree is either what it was or, when only giving something
// back failed at the end, what it should be.
struct ExpansionScenario {
  std::string before;
  std::string after;
  std::vector<bool> grown;  // for each failure
  FaultScenario scenario;

  ExpansionScenario() : scenario{build_volume(full_map_description()), {}, {}, {}} {
    OpenVolume volume(scenario.image);
    before = state_of(volume);
    EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_ok);
    after = state_of(volume);
    scenario.operation = [](OpenVolume& open) { return kvfs_btree_expand(open.catalog_tree(), open.get()); };
    scenario.check = [this](OpenVolume& open) {
      const std::string state = state_of(open);
      grown.push_back(state == after);
      EXPECT_TRUE(state == before || state == after) << state;
    };
  }

  // Runs the scenario and gives the messages, and those of failures behind which the tree has grown.
  struct Outcome {
    Lines all;
    Lines grown;
  };
  Outcome fail(const FailingCalls& failing) {
    grown.clear();
    const std::vector<FailedRun> failures = fail_each(failing, scenario);
    std::vector<FailedRun> of_grown;
    for (std::size_t i = 0; i < failures.size(); ++i) {
      if (grown[i]) {
        of_grown.push_back(failures[i]);
      }
    }
    return {summary(failures, kOwn), summary(of_grown, kOwn)};
  }
};

// A lack of memory for the pattern that clears the new node is met with a smaller one.
TEST(ExpandTree, WithoutMemory_IsUndone) {
  ExpansionScenario expansion;
  const ExpansionScenario::Outcome outcome = expansion.fail(each_allocation());
  EXPECT_EQ(outcome.all, (Lines{"2: " + kForkFailed, "0:"}));
  EXPECT_EQ(outcome.grown, Lines{"0:"});
}

TEST(ExpandTree, WhenTheDeviceFails_IsUndone) {
  ExpansionScenario expansion;
  const ExpansionScenario::Outcome outcome = expansion.fail(each(Call::kPread64));
  // The allocation file, then what the new map node held before.
  EXPECT_EQ(outcome.all, (Lines{"4: " + kForkFailed, "4: " + kHeaderFailed}));
  EXPECT_EQ(outcome.grown, Lines{});
}

TEST(ExpandTree, WhenALockIsNotGrantedForWriting_IsUndone) {
  ExpansionScenario expansion;
  const ExpansionScenario::Outcome outcome = expansion.fail(each(Call::kRwlockWrlock));
  EXPECT_EQ(outcome.all,
            (Lines{"1: " + kLockFailed, "1: " + kForkFailed, "1: " + kMapLastFailed, "1: " + kMapHeaderFailed,
                   "1: " + kHeaderFailed, "1: " + kClaimFailed, "1: " + kHeaderFailed, "1: " + kChainFailed,
                   "1: " + kFirstFailed, "1: " + kEndFailed, "1: " + kMapNewFailed, "1: " + kNewFailed,
                   "1: " + kUnmapNew, "1: " + kUnmapHeader, "1: " + kUnmapLast}));
  EXPECT_EQ(outcome.grown, (Lines{"1: " + kUnmapNew, "1: " + kUnmapHeader, "1: " + kUnmapLast}));
}

TEST(ExpandTree, WhenALockIsNotGrantedForReading_IsUndone) {
  ExpansionScenario expansion;
  const ExpansionScenario::Outcome outcome = expansion.fail(each(Call::kRwlockRdlock));
  EXPECT_EQ(outcome.all, (Lines{"1: " + kForkFailed, "1: " + kMapLastFailed, "1: " + kMapHeaderFailed,
                                "1: " + kClaimFailed, "1: " + kHeaderFailed, "1: " + kMapNewFailed, "1: " + kUnmapNew,
                                "1: " + kUnmapHeader, "1: " + kUnmapLast}));
  EXPECT_EQ(outcome.grown, (Lines{"1: " + kUnmapNew, "1: " + kUnmapHeader, "1: " + kUnmapLast}));
}

// A step whose lock was not released is done all the same, and counts as not done: what it changed is not undone.
TEST(ExpandTree, WhenALockIsNotReleased_SaysWhichStepFailed) {
  FaultScenario scenario = {build_volume(full_map_description()), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  EXPECT_EQ(summary(fail_each(each(Call::kRwlockUnlock), scenario), kOwn),
            (Lines{"1: " + kForkFailed, "1: " + kMapLastFailed, "1: " + kMapHeaderFailed, "1: " + kHeaderFailed,
                   "1: " + kClaimFailed, "1: " + kHeaderFailed, "1: " + kChainFailed, "1: " + kFirstFailed,
                   "1: " + kEndFailed, "1: " + kMapNewFailed, "1: " + kNewFailed, "1: " + kUnmapNew,
                   "1: " + kUnmapHeader, "1: " + kUnmapLast, "1: " + kUnlockFailed}));
}

// The node that was claimed for the chain stays marked as used, and so do the blocks that the fork had gained, of which
// the last one's byte has gone to the first byte of the allocation file.
// Q-btree-24
TEST(ExpandTree, AfterUndoing_LeavesTheClaimedNodeAndTheBlocksMarked) {
  const Volume image = build_volume(full_map_description());
  OpenVolume volume(image);
  {
    LogCapture log;
    FaultInjector faults;
    faults.fail(Call::kPread64, 2);  // of the new map node
    ASSERT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_io_error);
    ASSERT_EQ(log.lines().back().function, "kvfs_btree_expand");
    ASSERT_EQ(to_string(log.lines().back()), kHeaderFailed);
  }
  const Volume after = volume.flushed();
  EXPECT_EQ(after.get_field("freeBlocks"), image.get_field("freeBlocks") - 4);
  EXPECT_EQ(joined(check_volume(after)),
            "catalog: node 2: marked used but not reached\n"
            "blocks 3 to 7: used, marked free\n"
            "blocks 2144 to 2147: marked used, belong to nothing\n"
            "freeBlocks is 400, not 405\n");
}

// The fork gets as many whole blocks as its clump has, and the fork data one more. The part that undoing cuts off is
// longer than what the fork has behind its old end, so that its modified blocks cannot be written.
// X-fork-10
TEST(ExpandTree, UndoneWithAClumpOfNoWholeBlocks_KeepsItsBlocks) {
  Volume image = build_volume(full_map_description());
  const std::uint64_t block_size = image.get_field("blockSize");
  image.set_field("catalogFile.clumpSize", image.get_field("catalogFile.clumpSize") + 1);
  OpenVolume volume(image);
  const std::uint64_t size = *volume.catalog_fork()->logical_size;
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 2);  // of the new map node
  EXPECT_EQ(kvfs_btree_expand(volume.catalog_tree(), volume.get()), kvfs_io_error);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_do_device_io",
                      "Invalid parameter 'io_length': Length (" + std::to_string(5 * block_size) +
                          ") extends beyond the end of the file.\n"));
  EXPECT_EQ(to_string(log.lines().back()), kUndoFork);
  EXPECT_EQ(*volume.catalog_fork()->logical_size, size + 4 * block_size);
}

// The result and the expansion's own messages, each once however often it was repeated.
std::string collapsed(const FailedRun& failure) {
  std::string text = std::to_string(failure.result) + ":";
  std::string last;
  for (const std::string& line : failure.log) {
    if (line.find(" kvfs_btree_expand ") != std::string::npos && line != last) {
      text += " " + line;
      last = line;
    }
  }
  return text;
}

TEST(ExpandTree, WhenUndoingFailsToo_GoesAsFarAsItCan) {
  FaultScenario scenario = {build_volume(full_map_description()), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  Lines lines;
  for (const FailedRun& failure : fail_each(each_and_all_later(Call::kRwlockWrlock), scenario)) {
    const std::string text = collapsed(failure);
    if (lines.empty() || lines.back() != text) {
      lines.push_back(text);
    }
  }
  const std::string unmap = kUnmapHeader + " " + kUnmapLast;
  EXPECT_EQ(lines, (Lines{"1: " + kLockFailed, "1: " + kForkFailed, "1: " + kMapLastFailed + " " + kUndoFork,
                          "1: " + kMapHeaderFailed + " " + kUndoFork + " " + kUnmapLast,
                          "1: " + kHeaderFailed + " " + kUndoFork + " " + unmap,
                          "1: " + kClaimFailed + " " + kUndoHeader + " " + unmap,
                          "1: " + kHeaderFailed + " " + kUndoHeader + " " + unmap,
                          "1: " + kChainFailed + " " + kUndoHeader + " " + unmap,
                          "1: " + kFirstFailed + " " + kUndoLast + " " + kUndoHeader + " " + unmap,
                          "1: " + kEndFailed + " " + kUndoLast + " " + kUndoHeader + " " + unmap,
                          "1: " + kMapNewFailed + " " + kUndoLast + " " + kUndoHeader + " " + unmap,
                          "1: " + kNewFailed + " " + kUndoLast + " " + kUndoHeader + " " + kUnmapNew + " " + unmap,
                          "1: " + kUnmapNew + " " + unmap, "1: " + unmap, "1: " + kUnmapLast}));
}

TEST(ExpandTree, WhenTheLastMapNodeIsNotRestoredAtOnce_TriesAgain) {
  FaultScenario scenario = {build_volume(full_map_description()), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  std::vector<std::size_t> map_nodes;
  scenario.check = [&map_nodes](OpenVolume& volume) { map_nodes.push_back(map_chain(volume).size()); };
  const std::vector<FailedRun> failures = fail_each(each_in_a_row(Call::kRwlockWrlock, 2), scenario);
  Lines retried;
  for (std::size_t i = 0; i < failures.size(); ++i) {
    if (collapsed(failures[i]).find(kUndoLast) != std::string::npos) {
      retried.push_back(summary({failures[i]}, kOwn)[0]);
      EXPECT_EQ(map_nodes[i], 0u);
    }
  }
  ASSERT_FALSE(retried.empty());
  EXPECT_EQ(retried.back(), "1: " + kNewFailed + " " + kUndoLast);
}

TEST(ExpandTree, WhenItsHeaderIsNotRestored_HasFailedAllTheSame) {
  FaultScenario scenario = {build_volume(full_map_description()), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  const std::vector<FailedRun> failures = fail_each(each_in_a_row(Call::kRwlockWrlock, 2), scenario);
  EXPECT_TRUE(std::any_of(failures.begin(), failures.end(), [](const FailedRun& failure) {
    return collapsed(failure) == "1: " + kChainFailed + " " + kUndoHeader;
  }));
}

// X-btree-14
TEST(ExpandTree, WhenTheLastMapNodeIsNotRestoredFor64Tries_GivesUp) {
  FaultScenario scenario = {build_volume(full_map_description()), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  std::vector<std::size_t> tries;
  for (const FailedRun& failure :
       fail_each(each_in_a_row(Call::kRwlockWrlock, 66), scenario)) {  // the failure, every try, and another
    tries.push_back(static_cast<std::size_t>(
        std::count(failure.log.begin(), failure.log.end(),
                   "ERROR kvfs_btree_expand Error while rolling back modifications to last map node.\n")));
  }
  EXPECT_EQ(*std::max_element(tries.begin(), tries.end()), 64u);
}

// The new map node lies in the part that undoing cuts off, where its mapping cannot be given back.
TEST(ExpandTree, UndoneWithItsNewMapNodeMapped_CannotUnmapIt) {
  FaultScenario scenario = {full_catalog(), {}, {}, {}};
  scenario.operation = [](OpenVolume& volume) { return kvfs_btree_expand(volume.catalog_tree(), volume.get()); };
  const std::string expected = "1: " + kNewFailed + " " + kUnmapNew;
  bool seen = false;
  for (const FailedRun& failure : fail_each(each(Call::kRwlockWrlock), scenario)) {
    if (collapsed(failure).find(kNewFailed) != std::string::npos) {
      seen = true;
      EXPECT_EQ(failure.result, kvfs_failed);
      EXPECT_EQ(collapsed(failure), expected);
      EXPECT_NE(joined(failure.log)
                    .find("CRITICAL kvfs_fork_unmap Attempted to unmap region outside allocated fork "
                          "size! Offset: 1048576, Length: 14, fork data size: 1048576\n"),
                std::string::npos);
    }
  }
  EXPECT_TRUE(seen);
}

// ---- Going on in the new nodes -------------------------------------------------------------------------------------

// A catalog to which files are added, with all that belongs to them.
class GrowingCatalog : public OpenVolume {
 public:
  explicit GrowingCatalog(const Volume& image) : OpenVolume(image) {}

  kvfs_result add_file(const Name& name) { return add(false, name); }
  kvfs_result add_folder(const Name& name) { return add(true, name); }

  // Nodes that must be free before an insertion. Otherwise the tree is expanded when an insertion has failed for lack
  // of nodes, which must leave no trace.
  std::uint32_t reserve = 0;
  unsigned expansions = 0;

 private:
  bool full_ = false;  // whether the last insertion found no free node

  // Adds the two records of an item. Each is inserted by `insert`, which expands the tree when that has to be.
  kvfs_result add(bool folder, const Name& name) {
    const std::uint32_t cnid = header()->nextCatalogID.get();
    const Bytes data = item_data(folder, cnid);
    kvfs_result result = insert(catalog_key(kRootFolderId, name), data);
    if (result == kvfs_ok) {
      result = insert(thread_key(cnid), thread_data(folder, kRootFolderId, name));
    }
    if (result == kvfs_ok) {
      count_item(folder, data);
    }
    return result;
  }

  static Bytes item_data(bool folder, std::uint32_t cnid) {
    Bytes data(folder ? 88 : 248);
    put_be(data, 0, 2, folder ? 1 : 2);
    put_be(data, 2, 2, folder ? 0 : 2);
    put_be(data, 8, 4, cnid);
    put_be(data, 42, 2, folder ? 040755 : 0100644);
    return data;
  }

  // An index record that is added behind the last one of its node meets the locator of its own search there: the tree
  // warns of that, and of nothing else.
  kvfs_result insert_once(const Bytes& key, const Bytes& data) {
    LogCapture log;
    const kvfs_result result = insert_record(key, data);
    for (const LogLine& line : log.lines()) {
      const bool usual = line.level == "WARNING" && line.function == "kvfs_btree_record_locator_open";
      EXPECT_TRUE(result != kvfs_ok || usual) << to_string(line);
    }
    full_ = log.has("ERROR", "kvfs_btree_claim_node", "Need to expand B-tree, but this is not yet implemented.\n");
    return result;
  }

  kvfs_result insert_record(const Bytes& key, const Bytes& data) {
    HFSPlusCatalogKey stored = {};
    std::memcpy(&stored, key.data(), key.size());
    kvfs_catalog_record_locator* locator = nullptr;
    const kvfs_result result = kvfs_catalog_insert_record(catalog(), &stored, data.data(),
                                                          static_cast<std::uint16_t>(data.size()), nullptr, &locator);
    if (result == kvfs_ok) {
      kvfs_catalog_record_locator_close(&locator);
    }
    return result;
  }

  kvfs_result insert(const Bytes& key, const Bytes& data) {
    for (unsigned tries = 0; tries < 8 && free_nodes(*this) < reserve; ++tries) {
      expand();
    }
    if (free_nodes(*this) != 0) {
      return insert_once(key, data);
    }
    const Volume before = flushed();
    const kvfs_result result = insert_once(key, data);
    if (result != kvfs_limit) {
      return result;
    }
    EXPECT_TRUE(full_);
    EXPECT_EQ(flushed(), before);
    expand();
    return insert_once(key, data);
  }

  void expand() {
    const std::uint32_t nodes = total_nodes(*this);
    LogCapture log;
    EXPECT_EQ(kvfs_btree_expand(catalog_tree(), get()), kvfs_ok);
    EXPECT_LOG(log);
    EXPECT_GT(total_nodes(*this), nodes);
    ++expansions;
  }

  void count_item(bool folder, const Bytes& data) {
    kvfs_catalog_search_result found;
    kvfs_catalog_search_result_init(&found);
    EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog(), kRootFolderId, true, &found), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_increment_valence(catalog(), data.data(), found.locator), kvfs_ok);
    kvfs_catalog_search_result_release(&found);
    if (folder) {
      kvfs_volume_add_folder_count(get(), 1);
    } else {
      kvfs_volume_add_file_count(get(), 1);
    }
    kvfs_volume_increment_next_catalog_id(get());
  }
};

Name file_name(std::mt19937& random, std::size_t length) {
  Name name = u"f";
  while (name.size() < length) {
    name.push_back(static_cast<char16_t>(u'a' + random() % 26));
  }
  return name;
}

TEST(ExpandTree, FilledAndExpandedTimeAndAgain_StaysSound) {
  constexpr unsigned kRounds = 12;
  VolumeDescription description;
  description.spare_blocks = 400;
  description.catalog.spare_nodes = 1;
  description.catalog.clump_size = 8 * 4096;  // only runs of whole bytes of the allocation file go on in place
  (void)description.add_files(kRootFolderId, 40);
  GrowingCatalog catalog(build_volume(description));
  std::mt19937 random(5);
  for (unsigned files = 0; catalog.expansions < kRounds && files < 3000; ++files) {
    const unsigned expansions = catalog.expansions;
    ASSERT_EQ(catalog.add_file(file_name(random, 10)), kvfs_ok);
    if (catalog.expansions != expansions) {
      ASSERT_EQ(joined(check_volume(catalog.flushed())), "") << "round " << catalog.expansions;
    }
  }
  EXPECT_EQ(catalog.expansions, kRounds);
}

TEST(ExpandTree, OfThreeLevelsWithRandomNames_StaysSound) {
  VolumeDescription description;
  description.block_size = 1024;
  description.allocation_file_in_chunks = true;
  description.spare_blocks = 2000;
  description.catalog.node_size = 1024;
  description.catalog.height = 3;
  description.catalog.spare_nodes = 1;
  description.catalog.extent_count = 3;
  description.catalog.clump_size = 8 * 1024;
  (void)description.add_files(kRootFolderId, 60);
  GrowingCatalog catalog(build_volume(description));
  catalog.reserve = 3;
  std::mt19937 random(6);
  for (unsigned files = 0; files < 200; ++files) {
    ASSERT_EQ(catalog.add_file(file_name(random, 5 + random() % 20)), kvfs_ok) << files;
    if (files % 5 == 0) {
      ASSERT_EQ(joined(check_volume(catalog.flushed())), "") << "file " << files;
    }
  }
  EXPECT_GT(catalog.expansions, 10u);
}

// Moves the bits of nodes 2048 to 2054, which claims have set behind the header's map record, to the first byte of the
// map node, where they belong; the eighth bit of that place was never theirs.
Volume with_moved_bits(Volume volume) {
  const std::uint64_t map_node = volume.get_field("catalog.node[0].fLink");
  const std::uint64_t place = volume.device_offset(Tree::kCatalog, 504);
  if (map_node != 0) {
    const std::uint64_t first = volume.device_offset(Tree::kCatalog, map_node * 512 + 14);
    volume.set8(first, static_cast<std::uint8_t>(volume.get8(place) & 0xFE));
    volume.set16(place, 504);
  }
  return volume;
}

// A catalog that outgrows what its header node describes while folders are added. What is wrong with it then is the
// byte behind the header's map record alone, until the nodes run out that a claim can reach.
TEST(ExpandTree, OutgrowingItsHeadersMapRecord_GoesOnUntilNoNodeIsReached) {
  VolumeDescription description;
  description.block_size = 512;
  description.allocation_file_in_chunks = true;
  description.spare_blocks = 400;
  description.catalog.node_size = 512;
  description.catalog.spare_nodes = 1;
  description.catalog.clump_size = 8 * 512;
  (void)description.add_folders(kRootFolderId, 6000);
  GrowingCatalog catalog(build_volume(description));
  catalog.reserve = 6;
  std::mt19937 random(6);
  kvfs_result result = kvfs_ok;
  for (unsigned folders = 0; folders < 100 && result == kvfs_ok; ++folders) {
    result = catalog.add_folder(file_name(random, 7));
    if (result == kvfs_ok && folders % 4 == 0) {
      ASSERT_EQ(joined(check_volume(with_moved_bits(catalog.flushed()))), "") << "folder " << folders;
    }
  }
  EXPECT_EQ(result, kvfs_internal);
  EXPECT_EQ(map_chain(catalog).size(), 2u);
  EXPECT_EQ(total_nodes(catalog), 2063u);
  EXPECT_EQ(get_be16(read_catalog(catalog, 504, 2), 0), 0xFFF8);
}

}  // namespace
}  // namespace kvfs_test
