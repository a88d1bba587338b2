// Records of the attributes file's nodes.

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "btree/node.h"
#include "format.h"
#include "support.h"

using namespace kvfs::btree;

// The fixed part of an attribute's key; the name follows, its length in UTF-16 units in the last two bytes.
static constexpr std::uint32_t kAttributeKeySize = 14;

static constexpr std::uint32_t kAttributeNameLengthOffset = 12;

static constexpr std::uint32_t kAttributeInlineData = 16;

// Checks the record type of one attribute; false when the record leaves the node.
static bool check_attribute_record(const node_view& node, std::uint32_t index) {
  std::uint16_t offset = 0;
  if (!read_offset(node, index, &offset) || offset + kAttributeKeySize > node.size) {
    return false;
  }
  const std::uint32_t name_length = kvfs_view_as<kvfs_be16>(node.bytes + offset + kAttributeNameLengthOffset)->get();
  const std::size_t data = offset + kAttributeKeySize + name_length * sizeof(kvfs_be16);
  if (data + sizeof(kvfs_be32) > node.size) {
    return false;
  }
  const std::uint32_t type = kvfs_view_as<kvfs_be32>(node.bytes + data)->get();
  if (type != kAttributeInlineData) {
    KVFS_ERROR_AS(ReadAttrNode, "HFSPlus:ERROR:%s: Unknown Attr Type: %X\n", "ReadAttrNode", type);
  }
  return true;
}

void ReadAttrNode(const unsigned char* node, std::size_t node_size) {
  // The view is only read here; it has no constant twin because every other user may write through it.
  const node_view view = {const_cast<unsigned char*>(node), static_cast<std::uint32_t>(node_size), 0};
  const BTNodeDescriptor descriptor = descriptor_of(view);
  if (descriptor.kind == kBTHeaderNode || descriptor.kind == kBTMapNode) {
    return;
  }
  if (descriptor.kind == kBTLeafNode && descriptor.height != 1) {
    KVFS_WARNING("HFSPlus:WARNING:%s: Leaf node height is not 1!\n", __func__);
  }
  std::uint16_t first = 0;
  if (!read_offset(view, 0, &first) || first != kBTFirstRecordOffset) {
    KVFS_ERROR("HFSPlus:%s: Offset of record is %hd, and not 14!\n", __func__, static_cast<short>(first));
    return;
  }
  for (std::uint32_t i = 0; i < descriptor.numRecords.get(); ++i) {
    if (!check_attribute_record(view, i)) {
      KVFS_ERROR("HFSPlus:%s: Record %lu lies outside of the node!\n", __func__, to_ul(i));
      return;
    }
  }
}
