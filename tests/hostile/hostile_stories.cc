#include "hostile_stories.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "big_endian.h"

namespace kvfs_test {
namespace {

constexpr Tree kCatalog = Tree::kCatalog;

VolumeDescription description_with(std::uint32_t files) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, files);
  return description;
}

std::string catalog_node(std::uint64_t node) {
  return "catalog.node[" + std::to_string(node) + "].";
}

std::string first_leaf(const Volume& volume) {
  return catalog_node(volume.leaf_nodes(kCatalog).at(0));
}

Volume changed(Volume volume, const std::string& field, std::uint64_t value) {
  volume.set_field(field, value);
  return volume;
}

Volume small_volume() {
  return build_volume(description_with(30));
}

// An index whose lower node leads back to the root, in a tree that says it has four thousand million nodes: as many
// steps would be needed to walk the circle until that number is reached.
Volume index_circle() {
  VolumeDescription description = description_with(100);
  description.catalog.height = 4;
  Volume volume = build_volume(description);
  const std::uint64_t root = volume.get_field("catalog.header.rootNode");
  const std::uint64_t child = volume.get_field(catalog_node(root) + "record[0].child");
  const std::uint64_t grandchild = volume.get_field(catalog_node(child) + "record[0].child");
  volume.set_field(catalog_node(grandchild) + "record[0].child", child);  // the root is not on the way round
  volume.set_field("catalog.header.totalNodes", 0xFFFFFFFF);
  return volume;
}

// Overflow records whose block counts wrap around 32 bits, so that the sum comes back to where it was.
Volume wrapping_overflow_records() {
  VolumeDescription description = description_with(100);
  description.catalog.extent_count = 17;
  Volume volume = build_volume(description);
  const std::string record = "extents.node[" + std::to_string(volume.leaf_nodes(Tree::kExtents).at(0)) + "].record[0].";
  std::uint64_t others = 0;
  for (int i = 1; i < 8; ++i) {
    others += volume.get_field(record + "extents[" + std::to_string(i) + "].blockCount");
  }
  volume.set_field(record + "extents[0].blockCount", (std::uint64_t{1} << 32) - others);
  return volume;
}

// A catalog in more extents than any disk has given it.
Volume many_extents() {
  VolumeDescription description = description_with(10);
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.catalog.extent_count = 100000;
  return build_volume(description);
}

// A map node that leads to itself, and no free node in it.
Volume map_node_ring() {
  VolumeDescription description = description_with(60);
  description.catalog.node_size = description.extents.node_size = 512;
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.total_nodes = 6000;
  Volume volume = build_volume(description);
  for (std::uint32_t node = 0; node < 6000; ++node) {
    volume.set_node_used(kCatalog, node, true);
  }
  // The byte behind the header node's map record counts as a part of it: it is the first one of the free space offset.
  volume.set_field("catalog.node[0].offset[3]", 0xFFFF);
  const std::uint64_t first = volume.get_field("catalog.node[0].fLink");
  volume.set_field(catalog_node(first) + "fLink", first);
  volume.set_field(catalog_node(first) + "offset[1]", 24);  // the byte behind this record counts as well
  return volume;
}

// A leaf whose offset table names one long key 16,000 times.
Volume one_key_many_times() {
  VolumeDescription description = description_with(10);
  description.label = Name(255, u'x');
  description.catalog.node_size = 32768;
  Volume volume = build_volume(description);
  const std::string leaf = first_leaf(volume);
  volume.set_field(leaf + "numRecords", 15900);
  for (std::uint32_t record = 0; record <= 15900; ++record) {
    volume.set_field(leaf + "offset[" + std::to_string(record) + "]", 14);
  }
  return volume;
}

// A sound tree of two records in each node.
Volume thirteen_levels() {
  VolumeDescription description = description_with(2600);
  description.block_size = description.catalog.node_size = 512;
  description.catalog.height = 13;
  description.catalog.max_leaf_records = description.catalog.max_index_records = 2;
  return build_volume(description);
}

// An index node: keys of eight bytes or more, and the child behind each.
Bytes index_node(std::size_t size, std::uint8_t height, const std::vector<std::pair<Bytes, std::uint64_t>>& records) {
  Bytes node(size);
  node[9] = height;
  put_be(node, 10, 2, records.size());
  std::size_t end = 14;
  std::size_t entry = size;
  for (const auto& [key, child] : records) {
    put_be(node, entry -= 2, 2, end);
    std::copy(key.begin(), key.end(), node.begin() + static_cast<std::ptrdiff_t>(end));
    put_be(node, end + key.size(), 4, child);
    end += key.size() + 4;
  }
  put_be(node, entry - 2, 2, end);
  return node;
}

// The key of a catalog record without a name.
Bytes parent_key(std::uint64_t parent) {
  Bytes key(8);
  put_be(key, 0, 2, 6);
  put_be(key, 2, 4, parent);
  return key;
}

// An index of sixteen levels, each of which is replaced twice as often as the one below, and three nodes above its root
// that every search passes: they are full of keys before the one that is looked for, and as high as no node is.
Volume deep_index_under_full_nodes() {
  VolumeDescription description = description_with(10);
  description.catalog.node_size = 32768;
  description.catalog.spare_nodes = 20;
  Volume volume = build_volume(description);
  const std::uint32_t leaf = volume.leaf_nodes(kCatalog).at(0);
  const Bytes bytes = volume.read_node(kCatalog, leaf);
  const Bytes first(bytes.begin() + 14, bytes.begin() + 16 + get_be16(bytes, 14));
  std::uint32_t node = leaf;
  const auto put_above = [&](std::uint8_t height, const std::vector<std::pair<Bytes, std::uint64_t>>& records) {
    volume.write_node(kCatalog, ++node, index_node(bytes.size(), height, records));
    volume.set_node_used(kCatalog, node, true);
  };
  for (std::uint8_t height = 2; height <= 16; ++height) {
    put_above(height, {{first, node}, {parent_key(1000U * height), leaf}});
  }
  for (int i = 0; i < 3; ++i) {
    put_above(200, std::vector<std::pair<Bytes, std::uint64_t>>(2300, {parent_key(0), node}));
  }
  volume.set_field("catalog.header.rootNode", node);
  volume.set_field("catalog.header.treeDepth", 16);
  return volume;
}

// Header fields and fields of the first leaf, by which a story is told: the field is set to the value.
Story damage_to_header(const char* name, const char* field, std::uint64_t value, const char* message) {
  return {name, [field, value] { return changed(small_volume(), field, value); }, "Label", message, message};
}

Story damage_to_leaf(const char* name, const char* field, std::uint64_t value, const char* printing,
                     const char* setting) {
  return {name,
          [field, value] {
            const Volume volume = small_volume();
            return changed(volume, first_leaf(volume) + field, value);
          },
          "Label", printing, setting};
}

std::vector<Story> made_up_stories() {
  const char* const cyclic =
      "ERROR kvfs_btree_search_node_internal Aborting search due to cyclic references in the B-tree.\n";
  const char* const one_key = "ERROR kvfs_btree_record_locator_open Invalid parameter: record_size == 0\n";
  const char* const too_much = "ERROR kvfs_btree_search_node_internal Aborting search: Too much work.\n";
  const char* const leads_back = "ERROR kvfs_fork_resolve_extents Overflow extents of CNID 4 form a ring.\n";
  return {
      {"IndexNodesInACircle", index_circle, "Label", cyclic, cyclic},
      {"WrappingOverflowRecords", wrapping_overflow_records, "Label", leads_back, leads_back},
      {"HundredThousandExtents", many_extents, "Label", "", ""},
      {"OneKeyManyTimes", one_key_many_times, "Label", one_key, one_key},
      {"DeepIndexUnderFullNodes", deep_index_under_full_nodes, "Label", "", too_much},
      {"SoundIndexOfThirteenLevels", thirteen_levels, "Label", "", ""},
      {"MapNodesInARing", map_node_ring, std::string(20, 'L'), "",
       "ERROR kvfs_btree_claim_node Need to expand B-tree, but this is not yet implemented.\n"},
      {"MapNodesInARingForBillionsOfNodes",
       [] { return changed(map_node_ring(), "catalog.header.totalNodes", 0xFFFFFFFF); }, std::string(20, 'L'), "",
       "ERROR kvfs_btree_claim_node Invalid node data: Too many map nodes up to node "},
  };
}

// Sizes that would cost gigabytes, or be divided by.
std::vector<Story> size_stories() {
  const char* const too_few = "ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n";
  const char* const too_large = "ERROR kvfs_fork_private_create Items array too large for address space.\n";
  const char* const no_item = "CRITICAL kvfs_fork_map Internal inconsistency: Last cache item number out of bounds!\n";
  const char* const outside =
      "ERROR kvfs_btree_search_node_internal Invalid node data: Record 0 of node 4 lies outside of the node.\n";
  const char* const no_14 =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 4 is 0, and "
      "not 14!\n";
  const char* const no_first =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 4 is 0";
  const char* const behind = "CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: ";
  const char* const nothing_there = "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 0/";
  return {
      damage_to_header("LogicalSizeTebibyte", "catalogFile.logicalSize", std::uint64_t{1} << 40, too_few),
      damage_to_header("LogicalSizeAllBits", "catalogFile.logicalSize", ~std::uint64_t{0}, too_large),
      damage_to_header("NodeSize0", "catalog.header.nodeSize", 0, no_item),
      damage_to_header("NodeSize1", "catalog.header.nodeSize", 1, outside),
      damage_to_header("NodeSize14", "catalog.header.nodeSize", 14, no_14),
      damage_to_header("NodeSize256", "catalog.header.nodeSize", 256, no_first),
      damage_to_header("NodeSize511", "catalog.header.nodeSize", 511, no_first),
      damage_to_header("NodeSize513", "catalog.header.nodeSize", 513, no_first),
      damage_to_header("NodeSize1000", "catalog.header.nodeSize", 1000, no_first),
      damage_to_header("NodeSize32768", "catalog.header.nodeSize", 32768, behind),
      damage_to_header("NodeSize65535", "catalog.header.nodeSize", 65535, behind),
      damage_to_header("BlockSize0", "blockSize", 0, too_few),
      damage_to_header("BlockSize1", "blockSize", 1, too_few),
      damage_to_header("BlockSize511", "blockSize", 511, too_few),
      damage_to_header("BlockSize513", "blockSize", 513, too_few),
      damage_to_header("BlockSize2GiB", "blockSize", 0x80000000, nothing_there),
      damage_to_header("BlockSizeAllBits", "blockSize", 0xFFFFFFFF, nothing_there),
  };
}

// Records and keys that are not as long as they say.
std::vector<Story> record_stories() {
  const char* const small_key = "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (";
  const char* const long_key =
      "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected ";
  const char* const long_name = "ERROR kvfs_catalog_compare_keys Names of ";
  const char* const no_space = "ERROR kvfs_btree_delete_record_internal $$$: Free space of ";
  return {
      damage_to_leaf("KeyLength0", "record[1].key.keyLength", 0, small_key, small_key),
      damage_to_leaf("KeyLength5", "record[1].key.keyLength", 5, small_key, small_key),
      damage_to_leaf("KeyLength516", "record[1].key.keyLength", 516, long_key, long_key),
      damage_to_leaf("KeyLength32767", "record[1].key.keyLength", 0x7FFF, long_key, long_key),
      damage_to_leaf("KeyLengthAllBits", "record[1].key.keyLength", 0xFFFF, long_key, long_key),
      damage_to_leaf("NameLength256", "record[1].key.nodeName.length", 256, long_name, long_name),
      damage_to_leaf("NameLengthAllBits", "record[1].key.nodeName.length", 0xFFFF, long_name, long_name),
      damage_to_leaf("OffsetTableOverRecords", "numRecords", 300, "", no_space),
      damage_to_leaf("OffsetTableOverTheNode", "numRecords", 2040, "", no_space),
      damage_to_leaf("OffsetTableBeyondTheNode", "numRecords", 0xFFFF, "",
                     "ERROR kvfs_btree_delete_record_internal Invalid node data: Node 1 has no room "
                     "for 65535 records.\n"),
  };
}

// A header that lies about the depth of its tree, of which maintaining the index takes two to the power many steps.
std::vector<Story> depth_stories() {
  const auto lie = [](const char* name, std::uint64_t depth, const char* setting) {
    return Story{name, [depth] { return changed(small_volume(), "catalog.header.treeDepth", depth); },
                 std::string(200, 'L'), "", setting};
  };
  return {
      lie("Depth0", 0, "ERROR kvfs_btree_split_node Unable to split root node.\n"),
      lie("Depth16", 16, "ERROR kvfs_btree_delete_record_internal Index record of deleted record's node not found.\n"),
      lie("Depth17", 17, "ERROR kvfs_btree_delete_record_internal B-tree of depth 17 is too deep to be maintained.\n"),
      lie("DepthAllBits", 0xFFFF,
          "ERROR kvfs_btree_delete_record_internal B-tree of depth 65535 is too deep to be maintained.\n"),
  };
}

}  // namespace

std::vector<Story> stories() {
  std::vector<Story> all;
  for (const auto& some : {made_up_stories(), size_stories(), record_stories(), depth_stories()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

}  // namespace kvfs_test
