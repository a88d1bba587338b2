// Checking a node of an attributes tree.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree_fixture.h"

namespace kvfs_test {
namespace {

struct Attribute {
  std::uint16_t name_length;  // UTF-16 units
  std::uint32_t type;
};

// A node of an attributes tree: each record a key of 14 bytes, the name, the type and eight bytes more.
Bytes attributes_node(const std::vector<Attribute>& attributes, int kind = -1, std::uint8_t height = 1) {
  Bytes node(512);
  node[kKind] = static_cast<std::uint8_t>(kind);
  node[kHeight] = height;
  put_be(node, kNumRecords, 2, attributes.size());
  std::size_t at = 14;
  for (std::size_t i = 0; i <= attributes.size(); ++i) {
    put_be(node, node.size() - 2 * (i + 1), 2, at);
    if (i < attributes.size()) {
      put_be(node, at + 12, 2, attributes[i].name_length);
      put_be(node, at + 14 + 2u * attributes[i].name_length, 4, attributes[i].type);
      at += 14 + 2u * attributes[i].name_length + 12;
    }
  }
  return node;
}

// Checks a copy in a block of exactly its size, so that the address sanitizer sees what is read outside of it.
void read_node(const Bytes& node) {
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[node.size()]);
  std::copy(node.begin(), node.end(), copy.get());
  ReadAttrNode(copy.get(), node.size());
  EXPECT_TRUE(std::equal(node.begin(), node.end(), copy.get())) << "the node was changed";
}

TEST(ReadAttrNode, LeafOfInlineData_IsAccepted) {
  LogCapture log;
  read_node(attributes_node({{0, 16}, {5, 16}, {20, 16}}));
  read_node(attributes_node({}));
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, HeaderAndMapNodes_AreAcceptedAsTheyAre) {
  LogCapture log;
  for (const int kind : {1, 2}) {
    Bytes node(512, 0xFF);
    node[kKind] = static_cast<std::uint8_t>(kind);
    read_node(node);
  }
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, LeafOfAnotherHeight_IsWarnedOfAndCheckedOn) {
  LogCapture log;
  read_node(attributes_node({{1, 17}}, -1, 2));
  EXPECT_LOG(log, "WARNING ReadAttrNode HFSPlus:WARNING:ReadAttrNode: Leaf node height is not 1!\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 11\n");
}

TEST(ReadAttrNode, IndexNode_MayHaveAnyHeight) {
  LogCapture log;
  read_node(attributes_node({{1, 16}}, 0, 3));
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, FirstRecordElsewhere_EndsTheCheck) {
  for (const std::uint16_t offset : Numbers16{0, 13, 16, 0x7FFF, 0xFFFE}) {
    Bytes node = attributes_node({{1, 99}});
    put_be(node, 510, 2, offset);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Offset of record is " +
                        std::to_string(static_cast<std::int16_t>(offset)) + ", and not 14!\n");
  }
}

TEST(ReadAttrNode, NodeWithoutRoomForAnOffset_EndsTheCheck) {
  for (const std::size_t size : {0u, 1u, 14u, 15u}) {
    LogCapture log;
    read_node(Bytes(size, 0));
    EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Offset of record is 0, and not 14!\n");
  }
}

TEST(ReadAttrNode, UnknownTypes_AreReportedAndTheWalkGoesOn) {
  LogCapture log;
  read_node(attributes_node({{1, 0}, {2, 16}, {0, 0x20}, {7, 0xDEADBEEF}}));
  EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 0\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 20\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: DEADBEEF\n");
}

// X-btree-1
TEST(ReadAttrNode, RecordThatLeavesTheNode_EndsTheCheck) {
  const std::string outside = "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Record 1 lies outside of the node!\n";
  for (const std::uint16_t name_length : Numbers16{236, 300, 0xFFFF}) {
    Bytes node = attributes_node({{1, 16}, {2, 16}, {3, 17}});
    put_be(node, 14 + 28 + 12, 2, name_length);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, outside);
  }
  for (const std::uint16_t offset : Numbers16{499, 511, 0xFFFF}) {
    Bytes node = attributes_node({{1, 16}, {2, 16}, {3, 17}});
    put_be(node, 508, 2, offset);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, outside);
  }
}

TEST(ReadAttrNode, RecordInTheDescriptor_IsCheckedLikeAnyOther) {
  Bytes node = attributes_node({{0, 16}, {2, 16}, {3, 17}});
  put_be(node, 508, 2, 2);
  put_be(node, 14, 2, 0);  // the length of that record's name
  put_be(node, 16, 4, 0xABC);
  LogCapture log;
  read_node(node);
  EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: ABC\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 11\n");
}

TEST(ReadAttrNode, MoreRecordsThanTheNodeHasRoomFor_EndTheCheck) {
  Bytes node = attributes_node({{1, 16}});
  put_be(node, kNumRecords, 2, 0xFFFF);
  LogCapture log;
  read_node(node);
  EXPECT_TRUE(log.has("ERROR", "ReadAttrNode", "lies outside of the node!\n"));
}

// Every entry that the node does have leads to an attribute inside, those in its descriptor included.
TEST(ReadAttrNode, OffsetTableThatIsLongerThanTheNode_EndsTheCheckBehindTheNode) {
  Bytes node(512);
  put_be(node, kNumRecords, 2, 300);
  put_be(node, 510, 2, 14);
  LogCapture log;
  read_node(node);
  Lines expected(256, "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 0\n");
  expected.push_back("ERROR ReadAttrNode HFSPlus:ReadAttrNode: Record 256 lies outside of the node!\n");
  EXPECT_EQ(log.texts(), expected);
}

TEST(ReadAttrNode, NodesOfAFewBytes_AreRefused) {
  for (std::size_t size = 9; size < 16; ++size) {
    Bytes node(size);
    node[kKind] = 0xFF;
    LogCapture log;
    read_node(node);
    EXPECT_TRUE(log.has("ERROR", "ReadAttrNode", ", and not 14!\n")) << size;
  }
}

}  // namespace
}  // namespace kvfs_test
