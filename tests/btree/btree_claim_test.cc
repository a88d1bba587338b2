// Claiming a node: the walk over the node bitmap, in the header node and in map nodes, and what it writes.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree_change_fixture.h"
#include "support.h"

namespace kvfs_test {
namespace {

// The map record of a header node of 512 bytes: 256 bytes, for nodes 0 to 2047. A map node's record has 492 bytes here.
constexpr std::uint32_t kHeaderMapBytes = 256;
constexpr std::uint32_t kMapNodeBytes = 492;
constexpr std::uint32_t kMapNodeMap = 14;

// Leaves 1 to 3 and the root, node 4, in a tree of so many nodes; the map nodes follow the root.
TreeOptions tree_of(std::uint32_t total_nodes) {
  TreeOptions options = leaves_of(4, 12);
  options.shape.total_nodes = total_nodes;
  return options;
}

std::string claim(ChangeTree& tree) {
  std::uint32_t node = 0;
  const kvfs_result result = kvfs_btree_claim_node(tree.get(), &node);
  if (result != kvfs_ok) {
    EXPECT_EQ(node, 0u);
    return "result " + std::to_string(static_cast<unsigned long long>(result));
  }
  return "node " + std::to_string(node);
}

// Marks every node used that the header node's map record has a bit for.
void fill_header_map(ChangeTree& tree) {
  tree.poke_bytes(0, kHeaderMapRecord, Bytes(kHeaderMapBytes, 0xFF));
}

// The byte behind the header node's map record, the first one of its offset table, is taken for a part of the map.
constexpr std::uint32_t kByteBehindHeaderMap = kHeaderMapRecord + kHeaderMapBytes;

void fill_header_map_and_byte_behind(ChangeTree& tree) {
  fill_header_map(tree);
  tree.poke(0, kByteBehindHeaderMap, 1, 0xFF);
}

// Ends a line of the log that a message has left open, so that the next one begins with its prefix.
void end_open_line(LogCapture& log) {
  if (!log.raw().ends_with('\n')) {
    const LogCapture unseen;
    kvfs_log("", 0, "", "", "\n");
  }
}

// ---- The header node's map -----------------------------------------------------------------------------------------

TEST(BtreeClaim, FirstFreeNode_IsTheLowestClearBit) {
  ChangeTree tree(tree_of(16));
  tree.open();
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 5");
  EXPECT_EQ(claim(tree), "node 6");
  tree.mark_node(2, false);
  EXPECT_EQ(claim(tree), "node 2");
  EXPECT_EQ(claim(tree), "node 7");
  EXPECT_EQ(claim(tree), "node 8");
  EXPECT_LOG(log);
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeClaim, EveryNode_IsClaimedOnceUntilNoneIsLeft) {
  ChangeTree tree(tree_of(21));
  tree.open();
  for (std::uint32_t node = 5; node < 21; ++node) {
    EXPECT_EQ(claim(tree), "node " + std::to_string(node));
    EXPECT_EQ(tree.field(0, kHeaderFreeNodes, 4), 20 - node);
  }
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 10");
  EXPECT_LOG(log, claim_error("Need to expand B-tree, but this is not yet implemented."));
  // Nodes 21 to 23 have bits in the last byte, but are none.
  EXPECT_EQ(tree.cached(0, kHeaderMapRecord, 4), (Bytes{0xFF, 0xFF, 0xF8, 0}));
}

TEST(BtreeClaim, Claim_WritesTheHeaderRecordAndOneByte) {
  ChangeTree tree(tree_of(32));
  tree.open();
  for (const std::uint32_t used : Numbers32{5, 6, 7, 8, 10}) {
    tree.mark_node(used, true);
  }
  tree.poke(5, 0, 4, 0x12345678);
  (void)tree.flush();
  const std::vector<Bytes> before = tree.cached_nodes();
  FaultInjector faults;
  EXPECT_EQ(claim(tree), "node 9");
  const FaultInjector::Pause pause;
  // Two writes inside of a unit, of four locks each, and mapping and unmapping.
  EXPECT_EQ(faults.count(Call::kRwlockWrlock), 2 * 4 + 2u);
  EXPECT_EQ(faults.count_allocations(), 0u);
  Bytes header = before[0];
  put_be(header, kHeaderFreeNodes, 4, get_be32(header, kHeaderFreeNodes) - 1);
  header[kHeaderMapRecord + 1] = 0xE0;  // nodes 8, 9 and 10
  EXPECT_EQ(tree.cached_node(0), header);
  EXPECT_EQ(tree.changed_since(before), Lines{"0"});
}

TEST(BtreeClaim, Claim_ReachesTheDeviceAsOneNode) {
  ChangeTree tree(tree_of(32));
  tree.open();
  EXPECT_EQ(claim(tree), "node 5");
  EXPECT_EQ(tree.flush(), Lines{"0"});
}

TEST(BtreeClaim, HeaderNode_IsNeverClaimed) {
  ChangeTree tree(tree_of(8));
  tree.open();
  tree.poke(0, kHeaderMapRecord, 1, 0x7F);
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 10");
  tree.mark_node(1, false);
  EXPECT_EQ(claim(tree), "node 1");
}

TEST(BtreeClaim, SingleFreeNode_IsFoundWhereverItIs) {
  for (const std::uint32_t node : Numbers32{1, 7, 8, 9, 15, 16, 17, 63, 64, 1000, 1023, 1995, 1998}) {
    ChangeTree tree(tree_of(1999));
    tree.open();
    fill_header_map(tree);
    tree.mark_node(node, false);
    EXPECT_EQ(claim(tree), "node " + std::to_string(node));
    EXPECT_EQ(tree.cached(0, kHeaderMapRecord, kHeaderMapBytes), Bytes(kHeaderMapBytes, 0xFF));
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 10");
  }
}

TEST(BtreeClaim, FreeBitBehindTheLastNode_IsNoFreeNode) {
  for (const std::uint32_t total : Numbers32{1992, 1993, 1999}) {
    ChangeTree tree(tree_of(total));
    tree.open();
    fill_header_map(tree);
    tree.mark_node(total, false);
    const Bytes before = tree.cached_node(0);
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 10");
    EXPECT_LOG(log, claim_error("Need to expand B-tree, but this is not yet implemented."));
    EXPECT_EQ(tree.cached_node(0), before);
    EXPECT_TRUE(tree.is_idle());
  }
}

// Q-btree-17
TEST(BtreeClaim, FullBitmap_LeavesNothingToFlush) {
  ChangeTree tree(tree_of(5));
  tree.open();
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 10");
  EXPECT_EQ(tree.flush(), Lines());
}

// Q-btree-17
TEST(BtreeClaim, CountOfFreeNodes_IsNotQuestioned) {
  ChangeTree tree(tree_of(16));
  tree.open();
  tree.poke(0, kHeaderFreeNodes, 4, 0);
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 5");
  EXPECT_EQ(tree.field(0, kHeaderFreeNodes, 4), 0xFFFFFFFFu);
  EXPECT_LOG(log);
}

TEST(BtreeClaim, TreeOfNoOrOneNode_HasNoneToClaim) {
  for (const std::uint32_t total : Numbers32{0, 1}) {
    ChangeTree tree(tree_of(16));
    tree.open();
    tree.poke(0, kHeaderTotalNodes, 4, total);
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 10");
    EXPECT_LOG(log, claim_error("Need to expand B-tree, but this is not yet implemented."));
  }
}

TEST(BtreeClaim, MapRecord_BeginsWhereTheOffsetTableSays) {
  ChangeTree tree(tree_of(16));
  tree.open();
  tree.poke_entry(0, 2, 300);
  tree.poke(0, 300, 2, 0xFFDF);
  EXPECT_EQ(claim(tree), "node 10");
  EXPECT_EQ(tree.field(0, 300, 2), 0xFFFFu);
}

// Q-btree-18
TEST(BtreeClaim, HeaderLink_MayEqualTheNumberOfNodesButNotExceedIt) {
  ChangeTree tree(tree_of(16));
  tree.open();
  tree.poke(0, kForwardLink, 4, 16);
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 5");
  EXPECT_LOG(log);
  const std::vector<Bytes> before = tree.cached_nodes();
  for (const std::uint32_t link : Numbers32{17, 0xFFFFFFFF}) {
    tree.poke(0, kForwardLink, 4, link);
    LogCapture link_log;
    EXPECT_EQ(claim(tree), "result 6");
    EXPECT_LOG(link_log, claim_error("Invalid node data: Value of 'fLink' (" + std::to_string(link) +
                                     ") in node 0 exceeds the total number of nodes (16)."));
  }
  tree.poke(0, kForwardLink, 4, 16);
  EXPECT_EQ(tree.changed_since(before), Lines());
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-13
TEST(BtreeClaim, MapRecordOutsideOfTheNode_IsInconsistent) {
  ChangeTree tree(tree_of(16));
  tree.open();
  for (const std::uint16_t start : Numbers16{512, 513, 0xFFFF}) {
    tree.poke_entry(0, 2, start);
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 6");
    EXPECT_LOG(log, claim_error("Invalid node data: Byte 0 of the bitmap lies outside of node 0."));
  }
  tree.poke_entry(0, 2, 511);
  tree.poke(0, 511, 1, 0xFF);
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 6");
  EXPECT_LOG(log, claim_error("Invalid node data: Byte 1 of the bitmap lies outside of node 0."));
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-13
TEST(BtreeClaim, NodeWithoutRoomForAMapRecord_IsInconsistent) {
  ChangeTree tree(tree_of(16));
  tree.open();
  tree.get()->nodeSize = 254;
  tree.poke(0, 254 - 6, 2, 248);
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 6");
  EXPECT_LOG(log, claim_error("Invalid node data: No map record at offset 248."));
  tree.get()->nodeSize = 512;
  EXPECT_TRUE(tree.is_idle());
}

// The bit of a claimed node would be set in the header record or in the user data.
// X-btree-13
TEST(BtreeClaim, MapRecordInARecordBeforeIt_IsInconsistentAndChangesNothing) {
  for (const std::uint16_t offset : {std::uint16_t{0}, std::uint16_t{39}, std::uint16_t{247}}) {
    ChangeTree tree(tree_of(16));
    tree.open();
    tree.poke_entry(0, 2, offset);
    const std::vector<Bytes> before = tree.cached_nodes();
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 6");
    EXPECT_LOG(log, claim_error("Invalid node data: No map record at offset " + std::to_string(offset) + "."));
    EXPECT_EQ(tree.changed_since(before), Lines());
    EXPECT_TRUE(tree.is_idle());
  }
}

TEST(BtreeClaim, NodeWithRoomForAMapRecordOfNoBytes_StillHasTheByteBehindIt) {
  ChangeTree tree(tree_of(16));
  tree.open();
  tree.get()->nodeSize = 256;
  tree.poke(0, 256 - 6, 2, 248);
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 5");
  EXPECT_LOG(log);
  tree.get()->nodeSize = 512;
}

// ---- Map nodes -----------------------------------------------------------------------------------------------------
//
// The byte index of node n is n / 8 less the bytes of the segments before. An index equal to a segment's length is
// looked up in that segment still, in the byte behind it. The node that leads to the next segment is looked up there
// under its index in the segment before; all others, and every bit that is set, under their index in their own.

// Q-btree-16
TEST(BtreeClaimMap, ByteBehindTheHeadersMapRecord_IsTakenForAPartOfIt) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  fill_header_map(tree);
  ASSERT_EQ(tree.field(0, kByteBehindHeaderMap, 2), 504u);  // where the free space of the header node begins
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 2048");
  EXPECT_LOG(log);
  EXPECT_EQ(tree.field(0, kByteBehindHeaderMap, 2), 504u | 0x8000u);
  EXPECT_EQ(tree.flush(), Lines{"0"});
}

// Q-btree-16
TEST(BtreeClaimMap, NodeThatLeadsToAMapNode_IsLookedUpUnderItsFormerIndex) {
  ChangeTree tree(tree_of(2200));
  const std::uint32_t map_node = tree.plan().map_nodes.at(0);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  // Node 2056 is the first whose index, 257, is above 256. It is looked up in byte 257 of the map node, set in byte 1.
  LogCapture log;
  EXPECT_EQ(claim(tree), "node 2056");
  EXPECT_LOG(log);
  EXPECT_EQ(tree.cached(map_node, kMapNodeMap, 3), (Bytes{0, 0x80, 0}));
  EXPECT_EQ(tree.field(map_node, kMapNodeMap + 257, 1), 0u);
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeClaimMap, NodesBehindIt_AreLookedUpUnderTheirOwnIndex) {
  ChangeTree tree(tree_of(2200));
  const std::uint32_t map_node = tree.plan().map_nodes.at(0);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(map_node, kMapNodeMap + 257, 1, 0xFF);  // node 2056 counts as used, whatever the other bits
  EXPECT_EQ(claim(tree), "node 2057");
  EXPECT_EQ(tree.cached(map_node, kMapNodeMap, 3), (Bytes{0, 0x40, 0}));
  tree.poke_bytes(map_node, kMapNodeMap + 1, {0xFF, 0xFF, 0xFD});
  EXPECT_EQ(claim(tree), "node " + std::to_string(2048 + 3 * 8 + 6));
  EXPECT_EQ(claim(tree), "node " + std::to_string(2048 + 4 * 8));
}

TEST(BtreeClaimMap, NodeFreeUnderOneIndexAndUsedUnderTheOther_IsInternal) {
  ChangeTree tree(tree_of(2200));
  const std::uint32_t map_node = tree.plan().map_nodes.at(0);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(map_node, kMapNodeMap + 1, 1, 0x80);
  const Bytes before = tree.cached_node(map_node);
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 7");
  EXPECT_LOG(log, message("CRITICAL", "kvfs_btree_claim_node", "Internal error: Node is already allocated!"));
  EXPECT_EQ(tree.cached_node(map_node), before);
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeClaimMap, FullMapNode_LeavesNoNode) {
  ChangeTree tree(tree_of(2200));
  const std::uint32_t map_node = tree.plan().map_nodes.at(0);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke_bytes(map_node, kMapNodeMap, Bytes(kMapNodeBytes, 0xFF));
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 10");
  EXPECT_LOG(log, claim_error("Need to expand B-tree, but this is not yet implemented."));
  EXPECT_TRUE(tree.is_idle());
  tree.poke(map_node, kMapNodeMap + 2199 / 8 - kHeaderMapBytes, 1, 0xFE);  // the last node
  EXPECT_EQ(claim(tree), "node 2199");
}

TEST(BtreeClaimMap, ClaimInAMapNode_WritesTheHeaderRecordAndOneByteThere) {
  ChangeTree tree(tree_of(2200));
  const std::uint32_t map_node = tree.plan().map_nodes.at(0);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(map_node, kMapNodeMap + 257, 1, 0x80);
  (void)tree.flush();
  const std::vector<Bytes> before = tree.cached_nodes();
  EXPECT_EQ(claim(tree), "node 2057");
  Bytes header = before[0];
  put_be(header, kHeaderFreeNodes, 4, get_be32(header, kHeaderFreeNodes) - 1);
  EXPECT_EQ(tree.cached_node(0), header);
  EXPECT_EQ(tree.changed_since(before), (Lines{"0", std::to_string(map_node)}));
  EXPECT_EQ(tree.flush(), (Lines{"0", std::to_string(map_node)}));
}

// 6,100 nodes need two map nodes: the first one has the bytes up to index 492, its byte behind included, of nodes 2,048
// to 5,991.
class BtreeClaimTwoMapNodes : public ::testing::Test {
 protected:
  BtreeClaimTwoMapNodes()
      : tree_(tree_of(6100)), first_(tree_.plan().map_nodes.at(0)), second_(tree_.plan().map_nodes.at(1)) {
    tree_.open();
    fill_first_segments(tree_);
  }

  static void fill_first_segments(ChangeTree& tree) {
    fill_header_map_and_byte_behind(tree);
    tree.poke_bytes(tree.plan().map_nodes.at(0), kMapNodeMap, Bytes(kMapNodeBytes + 1, 0xFF));
  }

  ChangeTree tree_;
  std::uint32_t first_;
  std::uint32_t second_;
};

// Q-btree-16
TEST_F(BtreeClaimTwoMapNodes, ByteBehindAMapNodesRecord_IsTakenForAPartOfIt) {
  tree_.poke(first_, kMapNodeMap + kMapNodeBytes, 1, 0x7F);
  EXPECT_EQ(claim(tree_), "node " + std::to_string(8 * (kHeaderMapBytes + kMapNodeBytes)));
  EXPECT_EQ(tree_.field(first_, kMapNodeMap + kMapNodeBytes, 1), 0xFFu);
}

TEST_F(BtreeClaimTwoMapNodes, SecondMapNode_IsReachedByItsFormerIndex) {
  // Node 5,992 has the index 749 - 256 = 493 in the first map node, and 1 in the second one.
  EXPECT_EQ(claim(tree_), "node 5992");
  EXPECT_EQ(tree_.cached(second_, kMapNodeMap, 3), (Bytes{0, 0x80, 0}));
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeClaimTwoMapNodes, SecondMapNode_IsWalkedByItsOwnIndexes) {
  tree_.poke(second_, kMapNodeMap + 493, 1, 0x80);
  tree_.poke_bytes(second_, kMapNodeMap, {0, 0xFF, 0xEF});
  EXPECT_EQ(claim(tree_), "node " + std::to_string(8 * (256 + 492 + 2) + 3));
  EXPECT_EQ(tree_.cached(second_, kMapNodeMap, 3), (Bytes{0, 0xFF, 0xFF}));
}

TEST_F(BtreeClaimTwoMapNodes, EndOfTheChain_IsAMissingMapNode) {
  tree_.poke(first_, kForwardLink, 4, 0);
  LogCapture log;
  EXPECT_EQ(claim(tree_), "result 6");
  EXPECT_LOG(log, claim_error("Missing map node after node " + std::to_string(first_) +
                              " (13 bytes of node bitmap data missing)."));  // (6,100 - 5,992) / 8
  EXPECT_TRUE(tree_.is_idle());
}

TEST_F(BtreeClaimTwoMapNodes, EachFault_IsReportedAndLeavesNothingBehind) {
  const Lines unmapping = {claim_error("Error 1 while unmapping previously mapped map node data.")};
  const Uses uses = {
      {Use::Kind::kMap, {claim_error("Error while mapping complete header node of B-tree.")}},
      {Use::Kind::kMap, {claim_error("Error 1 while mapping next map node into memory.")}},
      {Use::Kind::kUnmap, unmapping},
      {Use::Kind::kMap, {claim_error("Error 1 while mapping next map node into memory.")}},
      {Use::Kind::kWriteInside,
       {claim_error("Error while writing out modified tree header record after claiming node.")}},
      {Use::Kind::kWriteInside, {claim_error("Error while writing out modified bitmap byte after claiming node.")}},
      {Use::Kind::kUnmap, unmapping, true},  // tried again until it succeeds
      {Use::Kind::kUnmap, {claim_error("Error while unmapping complete header node of B-tree.")}},
  };
  expect_each_fault_reported([] { return tree_of(6100); }, uses,
                             [](ChangeTree& tree) {
                               fill_first_segments(tree);
                               std::uint32_t node = 0;
                               const kvfs_result result = kvfs_btree_claim_node(tree.get(), &node);
                               EXPECT_EQ(node, result == kvfs_ok ? 5992u : 0u);
                               return result;
                             });
}

// X-btree-14
TEST_F(BtreeClaimTwoMapNodes, UnmappingThatNeverSucceeds_IsGivenUp) {
  (void)tree_.cached_node(second_);
  LogCapture log;
  {
    FaultInjector faults;
    // Mapping takes a lock for reading, and so does unmapping: header node, first map node and back, second map node.
    faults.fail_from(Call::kRwlockRdlock, 5);
    EXPECT_EQ(claim(tree_), "result 1");
  }
  const Lines lines = tree_lines(log);
  ASSERT_EQ(lines.size(), 64 + 1u);  // the tries, and the header node
  EXPECT_EQ(lines.front(), claim_error("Error 1 while unmapping previously mapped map node data."));
  EXPECT_EQ(lines.back(), claim_error("Error while unmapping complete header node of B-tree."));
  tree_.forget_references();
}

TEST(BtreeClaimMap, MissingFirstMapNode_IsInconsistent) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(0, kForwardLink, 4, 0);
  const std::vector<Bytes> before = tree.cached_nodes();
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 6");
  // (2,200 - 2,056) / 8
  EXPECT_LOG(log, claim_error("Missing map node after node 0 (18 bytes of node bitmap data missing)."));
  EXPECT_EQ(tree.changed_since(before), Lines());
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeClaimMap, MapNodeOutsideOfTheFork_FailsToMap) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(0, kForwardLink, 4, 2200);  // the number of nodes passes
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 3");
  EXPECT_EQ(tree_lines(log), Lines{claim_error("Error 3 while mapping next map node into memory.")});
  EXPECT_TRUE(tree.is_idle());
}

TEST(BtreeClaimMap, MapNodeThatCannotBeRead_FailsToMap) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  fill_header_map_and_byte_behind(tree);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kPread64, 1);
    EXPECT_EQ(claim(tree), "result 4");
  }
  EXPECT_EQ(tree_lines(log), Lines{claim_error("Error 4 while mapping next map node into memory.")});
  tree.forget_references();
}

// Damage to the only map node of a tree of 2,200 nodes, which is node 5.
struct MapNodeDamage {
  const char* name;
  std::uint32_t offset;
  std::size_t width;
  std::uint64_t value;
  const char* text;
};

const MapNodeDamage kMapNodeDamages[] = {
    {"Leaf", kKind, 1, 0xFF, "Invalid node data: Expected map node, got node kind -1.\n"},
    {"IndexNode", kKind, 1, 0, "Invalid node data: Expected map node, got node kind 0.\n"},
    {"HeaderNode", kKind, 1, 1, "Invalid node data: Expected map node, got node kind 1.\n"},
    {"UnknownKind", kKind, 1, 0x80, "Invalid node data: Expected map node, got node kind -128.\n"},
    {"NoRecord", kNumRecords, 2, 0, "Invalid node data: Unexpected number of records in map node (0).\n"},
    {"TwoRecords", kNumRecords, 2, 2, "Invalid node data: Unexpected number of records in map node (2).\n"},
    {"ManyRecords", kNumRecords, 2, 0xFFFF, "Invalid node data: Unexpected number of records in map node (65535).\n"},
    {"LinkBehindTheLastNode", kForwardLink, 4, 2201,
     "Invalid node data: Value of 'fLink' (2201) in node 5 exceeds the total number of nodes (2200).\n"},
    {"RecordInTheDescriptor", 510, 2, 13, "Invalid node data: First record offset is out of range (13)."},
    {"RecordInTheOffsetTable", 510, 2, 509, "Invalid node data: First record offset is out of range (509)."},
    {"RecordBehindTheNode", 510, 2, 0xFFFF, "Invalid node data: First record offset is out of range (65535)."},
    {"FreeSpaceInTheDescriptor", 508, 2, 13, "Invalid node data: Free space offset is out of range (13)."},
    {"FreeSpaceInTheOffsetTable", 508, 2, 509, "Invalid node data: Free space offset is out of range (509)."},
    {"FreeSpaceBehindTheNode", 508, 2, 0xFFFF, "Invalid node data: Free space offset is out of range (65535)."},
    {"RecordBehindTheFreeSpace", 510, 2, 507,
     "Invalid node data: Records offsets out of order in map node 5 (first offset: 507, free space: 506)\n"},
    {"EmptyRecordAtTheEnd", 508, 4, 508u << 16 | 508u,
     "Invalid node data: Byte 257 of the bitmap lies outside of node 5.\n"},
};

class BtreeClaimMapDamage : public ::testing::TestWithParam<MapNodeDamage> {};

// Q-log-2
TEST_P(BtreeClaimMapDamage, IsInconsistentAndChangesNothing) {
  ChangeTree tree(tree_of(2200));
  ASSERT_EQ(tree.plan().map_nodes.at(0), 5u);
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(5, GetParam().offset, GetParam().width, GetParam().value);
  (void)tree.flush();
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 6");
  end_open_line(log);
  EXPECT_LOG(log, "ERROR kvfs_btree_claim_node " + std::string(GetParam().text));
  EXPECT_EQ(tree.flush(), Lines());
  EXPECT_TRUE(tree.is_idle());
}

INSTANTIATE_TEST_SUITE_P(Damages, BtreeClaimMapDamage, ::testing::ValuesIn(kMapNodeDamages),
                         [](const auto& test) { return std::string(test.param.name); });

// Q-btree-18
TEST(BtreeClaimMap, MapNodeLink_MayEqualTheNumberOfNodes) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  fill_header_map_and_byte_behind(tree);
  tree.poke(5, kForwardLink, 4, 2200);
  EXPECT_EQ(claim(tree), "node 2056");
}

// Makes so many map nodes, from node 5 on, that lead to each other and have records of ten used bytes.
void make_ring(ChangeTree* tree, std::uint32_t length) {
  fill_header_map_and_byte_behind(*tree);
  Bytes node(512, 0xFF);
  node[kKind] = 2;
  put_be(node, kNumRecords, 2, 1);
  put_be(node, 508, 4, 24u << 16 | 14u);
  for (std::uint32_t i = 0; i < length; ++i) {
    put_be(node, kForwardLink, 4, 5 + (i + 1) % length);
    tree->poke_bytes(5 + i, 0, node);
  }
}

// X-btree-13
TEST(BtreeClaimMap, RingOfMapNodes_IsWalkedUpToTheLastNode) {
  for (const std::uint32_t length : Numbers32{1, 2, 5}) {
    ChangeTree tree(tree_of(2200));
    tree.open();
    make_ring(&tree, length);
    tree.poke(0, kHeaderTotalNodes, 4, 100000);
    const Bytes before = tree.cached_node(0);
    LogCapture log;
    EXPECT_EQ(claim(tree), "result 10");
    EXPECT_LOG(log, claim_error("Need to expand B-tree, but this is not yet implemented."));
    EXPECT_EQ(tree.cached_node(0), before);
    EXPECT_TRUE(tree.is_idle());
  }
}

// X-btree-13
TEST(BtreeClaimMap, MoreMapNodesThanASoundTreeHas_AreTooMuchWork) {
  ChangeTree tree(tree_of(2200));
  tree.open();
  make_ring(&tree, 1);
  tree.poke(0, kHeaderTotalNodes, 4, 0xFFFFFFFF);
  tree.get()->priv->work_left = 1000 * kWorkOfAMapNode;
  const Bytes before = tree.cached_node(0);
  LogCapture log;
  EXPECT_EQ(claim(tree), "result 6");
  EXPECT_LOG(log, claim_error("Invalid node data: Too many map nodes up to node 5."));
  EXPECT_EQ(tree.cached_node(0), before);
  EXPECT_TRUE(tree.is_idle());
}

// X-btree-13
TEST(BtreeClaimMap, LongMapRecords_AreWorkForEachOfTheirBytes) {
  constexpr std::uint64_t kWork = 1000000;
  for (const std::uint32_t end : Numbers32{500, 24}) {
    ChangeTree tree(tree_of(2200));
    tree.open();
    make_ring(&tree, 1);
    tree.poke(5, 508, 2, end);
    tree.poke(0, kHeaderTotalNodes, 4, 5000 * 8);
    tree.get()->priv->work_left = kWork;
    EXPECT_EQ(claim(tree), "result 10") << end;
    const std::uint64_t nodes = 4700 / (end - 14);  // behind the header node's record
    EXPECT_GE(kWork - tree.get()->priv->work_left, nodes * kWorkOfAMapNode + 4700) << end;
  }
}

}  // namespace
}  // namespace kvfs_test
