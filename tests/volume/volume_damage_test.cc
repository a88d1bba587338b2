// Volumes with damaged fields: what opening them gives and says, and that it never leaves its buffers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "catalog_fixture.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "unicode_names.h"
#include "volume.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// ---- One field at a time -------------------------------------------------------------------------------------------

// Where a volume stops opening, and so which messages follow the one about the damage.
enum class Stop {
  kNowhere,     // it opens all the same
  kOverflow,    // while its extents overflow file is opened
  kCatalog,     // while its catalog is opened
  kAllocation,  // while its allocation file is opened
  kThread,      // while the thread record of the root folder is searched
  kTarget,      // while the root folder's record is searched
  kFollow,      // while the thread record is taken apart
  kNotFound,    // after a search without a result
};

Lines messages_behind(Stop stop) {
  const std::string in_btree = "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n";
  const std::string following =
      "ERROR kvfs_catalog_search_by_cnid Error while following thread when searching for node by CNID.\n";
  const std::string root = "ERROR kvfs_volume_setup Error while looking up root directory.\n";
  const std::string setting_up = "ERROR kvfs_volume_create Error while setting up HFS volume.\n";
  switch (stop) {
    case Stop::kOverflow:
      return {"ERROR kvfs_btree_create Error while reading extents overflow B-Tree into memory.\n",
              "ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n",
              "ERROR kvfs_volume_setup Error while loading extents overflow file from HFS+ volume.\n", setting_up};
    case Stop::kCatalog:
      return {"ERROR kvfs_btree_create Error while reading catalog B-Tree into memory.\n",
              "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n",
              "ERROR kvfs_volume_setup Error while loading catalog file.\n", setting_up};
    case Stop::kAllocation:
      return {"ERROR kvfs_bitmap_create Error while creating kvfs_fork for allocation file.\n",
              "ERROR kvfs_volume_setup Unable to load allocation file.\n", setting_up};
    case Stop::kThread:
      return {in_btree,
              "ERROR kvfs_catalog_search_by_cnid Error while searching thread record when searching by CNID.\n", root,
              setting_up};
    case Stop::kTarget:
      return {in_btree, "ERROR kvfs_catalog_follow_thread Error while searching for target of thread.\n", following,
              root, setting_up};
    case Stop::kFollow:
      return {following, root, setting_up};
    case Stop::kNotFound:
      return {"ERROR kvfs_volume_setup Root directory not found!\n", setting_up};
    case Stop::kNowhere:
      break;
  }
  return {};
}

struct Damage {
  std::string field;
  std::uint64_t value;
  kvfs_result result;
  Stop stop;
  Lines messages = {};  // those about the damage itself
};

// Fields are given as Volume::set_field has them, with "leaf" for the first leaf of the catalog, "root" for its root
// node, "folder" for the record of the root folder and "thread" for its thread record.
std::string field_name(const Volume& volume, const std::string& field) {
  const std::size_t point = field.find('.');
  const std::string first = field.substr(0, point);
  std::string prefix = first;
  if (first == "leaf") {
    prefix = "catalog.node[" + std::to_string(volume.leaf_nodes(Tree::kCatalog).at(0)) + "]";
  } else if (first == "root") {
    prefix = "catalog.node[" + std::to_string(volume.get_field("catalog.header.rootNode")) + "]";
  } else if (first == "folder") {
    prefix = volume.find_entry(kRootParentId, u"Label")->path();
  } else if (first == "thread") {
    prefix = volume.find_thread(kRootFolderId)->path();
  }
  return point == std::string::npos ? prefix : prefix + field.substr(point);
}

// Opens and closes a volume with its allocation file. "" when it does not open; else its label.
kvfs_result open_and_close(const TestDevice& device, std::string* label) {
  const OpenVolume volume(device, {.may_fail = true});
  if (volume.result() != kvfs_ok) {
    EXPECT_EQ(volume.get(), nullptr);
  } else {
    *label = to_utf8(volume.label());
  }
  return volume.result();
}

void expect_damage_found(Volume volume, const Damage& damage, const std::string& label = "Label") {
  SCOPED_TRACE(damage.field + " = " + std::to_string(damage.value));
  volume.set_field(field_name(volume, damage.field), damage.value);
  const TestDevice device(volume);
  LogCapture log;
  std::string found;
  {
    FaultInjector faults;
    EXPECT_EQ(open_and_close(device, &found), damage.result);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_TRUE(faults.writes().empty());
  }
  Lines expected = damage.messages;
  for (const std::string& line : messages_behind(damage.stop)) {
    expected.push_back(line);
  }
  EXPECT_TRUE(log.matches(expected));
  if (damage.result == kvfs_ok) {
    EXPECT_EQ(found, label);
  }
}

// A catalog of one leaf.
Volume small_damaged_volume() {
  VolumeDescription description;
  description.set_label("Label");
  (void)description.add_files(kRootFolderId, 3);
  return build_volume(description);
}

// A catalog with an index node.
Volume large_damaged_volume() {
  VolumeDescription description;
  description.set_label("Label");
  (void)description.add_files(kRootFolderId, 200);
  return build_volume(description);
}

constexpr char kUnresolved[] = "ERROR kvfs_fork_private_create Error while resolving fork extents.\n";
constexpr char kNoPrivate[] = "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n";
constexpr char kNoFork[] = "ERROR kvfs_btree_process Error while creating kvfs_fork.\n";
constexpr char kNotMapped[] = "ERROR kvfs_btree_process Error while mapping node descriptor of B-tree from its fork.\n";
constexpr char kNoSectors[] = "ERROR kvfs_device_read_disk_sectors Partial read into buffer: 0/512 bytes read\n";
constexpr char kZeroExtent[] = "ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n";
constexpr char kEndsEarly[] = "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n";

std::string header_node_message(int kind, int records) {
  return "ERROR kvfs_btree_process HFSPlus:kvfs_btree_process: Node kind " + std::to_string(kind) + ", " +
         std::to_string(records) + " records - should be kind 1, 3 records - but it isn't!\n";
}

// What the first access to a fork says whose extents do not cover it.
Lines too_few_blocks() {
  return {"ERROR kvfs_fork_do_device_io Too few blocks for the logical size of the fork.\n",
          "ERROR kvfs_fork_read_into_cache Error 6 while reading block 0 from device offset 0.\n",
          "ERROR kvfs_fork_map Error while reading missing disk blocks into cache.\n", kNotMapped,
          "WARNING kvfs_fork_cache_item_destroy Destroying cache item 0x{*} with 1 remaining references.\n"};
}

TEST(VolumeDamage, ForkDataOfTheTrees_AreFound) {
  const Volume volume = small_damaged_volume();
  for (const auto& [file, stop] : {std::pair{std::string("extentsFile"), Stop::kOverflow},
                                   std::pair{std::string("catalogFile"), Stop::kCatalog}}) {
    const Damage table[] = {
        {file + ".logicalSize",
         0,
         kvfs_invalid,
         stop,
         {"CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 0, Length: 14, fork data size: 0\n",
          kNotMapped}},
        {file + ".logicalSize",
         13,
         kvfs_invalid,
         stop,
         {"CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 0, Length: 14, fork data size: 13\n",
          kNotMapped}},
        {file + ".logicalSize", 1ULL << 40, kvfs_inconsistent, stop, too_few_blocks()},
        {file + ".logicalSize",
         ~0ULL,
         kvfs_no_memory,
         stop,
         {"ERROR kvfs_fork_private_create Items array too large for address space.\n", kNoPrivate, kNoFork}},
        {file + ".totalBlocks", 0, kvfs_no_memory, stop, {kEndsEarly, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".totalBlocks", 1, kvfs_no_memory, stop, {kEndsEarly, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".totalBlocks", 0xFFFFFFFF, kvfs_no_memory, stop, {kEndsEarly, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".extents[0].blockCount", 0, kvfs_no_memory, stop, {kZeroExtent, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".extents[1].startBlock", 9, kvfs_no_memory, stop, {kZeroExtent, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".extents[1].blockCount", 9, kvfs_no_memory, stop, {kEndsEarly, kUnresolved, kNoPrivate, kNoFork}},
        {file + ".extents[0].startBlock",
         0xFFFFFFFF,
         kvfs_io_error,
         stop,
         {kNoSectors, "ERROR kvfs_btree_process Error while reading first sector of B-tree.\n"}},
        {file + ".extents[0].startBlock", 0, kvfs_inconsistent, stop, {header_node_message(0, 0)}},
        {file + ".clumpSize", 0, kvfs_ok, Stop::kNowhere},
    };
    for (const Damage& damage : table) {
      expect_damage_found(volume, damage);
    }
  }
}

TEST(VolumeDamage, ForkDataOfTheAllocationFile_AreFound) {
  const Volume volume = small_damaged_volume();
  const Damage table[] = {
      {"allocationFile.logicalSize",
       ~0ULL,
       kvfs_no_memory,
       Stop::kAllocation,
       {"ERROR kvfs_fork_private_create Items array too large for address space.\n", kNoPrivate}},
      {"allocationFile.totalBlocks", 0, kvfs_no_memory, Stop::kAllocation, {kEndsEarly, kUnresolved, kNoPrivate}},
      {"allocationFile.extents[1].startBlock",
       9,
       kvfs_no_memory,
       Stop::kAllocation,
       {kZeroExtent, kUnresolved, kNoPrivate}},
      {"allocationFile.logicalSize", 0, kvfs_ok, Stop::kNowhere},
      {"allocationFile.extents[0].startBlock", 0xFFFFFFFF, kvfs_ok, Stop::kNowhere},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

TEST(VolumeDamage, BlockSize_IsFoundByTheOverflowFile) {
  const Volume volume = small_damaged_volume();
  for (const std::uint64_t size : {0u, 1u, 512u, 513u, 4095u}) {
    expect_damage_found(volume, {"blockSize", size, kvfs_inconsistent, Stop::kOverflow, too_few_blocks()});
  }
  expect_damage_found(volume, {"blockSize", 8192, kvfs_inconsistent, Stop::kOverflow, {header_node_message(0, 0)}});
  expect_damage_found(volume, {"blockSize",
                               0xFFFFFFFF,
                               kvfs_io_error,
                               Stop::kOverflow,
                               {"ERROR kvfs_device_read_disk_sectors Partial read into buffer: 0/1024 bytes read\n",
                                "ERROR kvfs_btree_process Error while reading first sectors of B-tree.\n"}});
}

TEST(VolumeDamage, HeaderFieldsThatNothingReads_DoNotMatter) {
  const Volume volume = small_damaged_volume();
  for (const std::string& field : Volume::header_field_names()) {
    const bool is_read = field == "signature" || field == "blockSize" || field.find("File.") != std::string::npos;
    if (!is_read) {
      expect_damage_found(volume, {field, ~0ULL, kvfs_ok, Stop::kNowhere});
    }
  }
  for (const std::string_view slot : {"attributesFile", "startupFile"}) {
    for (const std::string& field : Volume::fork_field_names(slot)) {
      expect_damage_found(volume, {field, ~0ULL, kvfs_ok, Stop::kNowhere});
    }
  }
}

TEST(VolumeDamage, HeaderNodesOfTheTrees_AreChecked) {
  const Volume volume = small_damaged_volume();
  for (const auto& [tree, stop] :
       {std::pair{std::string("extents"), Stop::kOverflow}, std::pair{std::string("catalog"), Stop::kCatalog}}) {
    const auto type_message = [](int type) {
      return "ERROR kvfs_btree_process HFSPlus:kvfs_btree_process: Tree type, according to header node, is " +
             std::to_string(type) + " - and not kHFSBTreeType (0)\n";
    };
    const std::string big_keys = "ERROR kvfs_btree_process Big keys flag not set for HFS+ B-tree.\n";
    const Damage table[] = {
        {tree + ".node[0].kind", 0, kvfs_inconsistent, stop, {header_node_message(0, 768)}},
        {tree + ".node[0].kind", 2, kvfs_inconsistent, stop, {header_node_message(2, 768)}},
        {tree + ".node[0].kind", 0xFF, kvfs_inconsistent, stop, {header_node_message(-1, 768)}},
        {tree + ".node[0].numRecords", 0, kvfs_inconsistent, stop, {header_node_message(1, 0)}},
        {tree + ".node[0].numRecords", 4, kvfs_inconsistent, stop, {header_node_message(1, 1024)}},
        {tree + ".node[0].numRecords", 768, kvfs_inconsistent, stop, {header_node_message(1, 3)}},
        {tree + ".header.btreeType", 128, kvfs_inconsistent, stop, {type_message(128)}},
        {tree + ".header.btreeType", 255, kvfs_inconsistent, stop, {type_message(255)}},
        {tree + ".header.attributes", 0, kvfs_inconsistent, stop, {big_keys}},
        {tree + ".header.attributes", 0xFFFFFFFD, kvfs_inconsistent, stop, {big_keys}},
        {tree + ".node[0].height", 7, kvfs_ok, Stop::kNowhere},
        {tree + ".node[0].fLink", 0xFFFFFFFF, kvfs_ok, Stop::kNowhere},
        {tree + ".header.treeDepth", 0xFFFF, kvfs_ok, Stop::kNowhere},
        {tree + ".header.leafRecords", 0, kvfs_ok, Stop::kNowhere},
        {tree + ".header.firstLeafNode", 0, kvfs_ok, Stop::kNowhere},
        {tree + ".header.lastLeafNode", 0, kvfs_ok, Stop::kNowhere},
        {tree + ".header.freeNodes", 0xFFFFFFFF, kvfs_ok, Stop::kNowhere},
        {tree + ".header.clumpSize", 0xFFFFFFFF, kvfs_ok, Stop::kNowhere},
    };
    for (const Damage& damage : table) {
      expect_damage_found(volume, damage);
    }
  }
}

TEST(VolumeDamage, HeaderOfTheOverflowFile_IsValidated) {
  const Volume volume = small_damaged_volume();
  const auto refused = [&](const std::string& field, std::uint64_t value, const std::string& message) {
    expect_damage_found(
        volume, {field,
                 value,
                 kvfs_inconsistent,
                 Stop::kNowhere,
                 {message, "ERROR kvfs_extents_create Extents B-tree failed validation (see earlier log messages).\n",
                  "ERROR kvfs_volume_setup Error while loading extents overflow file from HFS+ volume.\n",
                  "ERROR kvfs_volume_create Error while setting up HFS volume.\n"}});
  };
  refused(
      "extents.header.attributes", 6,
      "ERROR kvfs_extents_validate Extents overflow file has the variable index keys flag set. Expected fixed-size index keys.\n");
  refused("extents.header.maxKeyLength", 11,
          "ERROR kvfs_extents_validate Unexpected size for extents overflow file keys. Expected: 10 Actual: 11\n");
  refused("extents.header.maxKeyLength", 0,
          "ERROR kvfs_extents_validate Unexpected size for extents overflow file keys. Expected: 10 Actual: 0\n");
}

TEST(VolumeDamage, OverflowFileThatIsNotAsked_MayHaveAnyTree) {
  const Volume volume = small_damaged_volume();
  for (const auto& [field, value] : {std::pair{"extents.header.rootNode", 0xFFFFFFFFu},
                                     {"extents.header.totalNodes", 0u},
                                     {"extents.header.nodeSize", 0u},
                                     {"extents.header.nodeSize", 0xFFFFu},
                                     {"extents.header.keyCompareType", 0x11u}}) {
    expect_damage_found(volume, {field, value, kvfs_ok, Stop::kNowhere});
  }
}

TEST(VolumeDamage, NodeSizeOfTheCatalog_IsFoundByTheSearch) {
  const Volume volume = small_damaged_volume();
  const std::string bad_offset =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 1 is 0, and not 14!\n";
  const std::string not_mapped = "ERROR kvfs_btree_search_node_internal Error while mapping raw node data.\n";
  const Damage table[] = {
      {"catalog.header.nodeSize",
       0,
       kvfs_internal,
       Stop::kThread,
       {"CRITICAL kvfs_fork_map Internal inconsistency: Last cache item number out of bounds!\n", not_mapped}},
      {"catalog.header.nodeSize",
       14,
       kvfs_inconsistent,
       Stop::kThread,
       {"ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 1 is 1, and not 14!\n"}},
      {"catalog.header.nodeSize", 512, kvfs_inconsistent, Stop::kThread, {bad_offset}},
      {"catalog.header.nodeSize", 8192, kvfs_inconsistent, Stop::kThread, {bad_offset}},
      {"catalog.header.nodeSize",
       0xFFFF,
       kvfs_invalid,
       Stop::kThread,
       {"CRITICAL kvfs_fork_map Attempted to read outside allocated fork size! Offset: 65535, Length: 65535, fork data size: {*}\n",
        not_mapped}},
      {"catalog.header.maxKeyLength", 0, kvfs_ok, Stop::kNowhere},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

TEST(VolumeDamage, RootAndSizeOfTheCatalogTree_AreFoundByTheSearch) {
  const std::string start =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Starting Node ";
  const Damage small_table[] = {
      {"catalog.header.rootNode", 0xFFFFFFFF, kvfs_invalid, Stop::kThread, {start + "4294967295 > Total Nodes {*}\n"}},
      {"catalog.header.totalNodes", 0, kvfs_invalid, Stop::kThread, {start + "1 > Total Nodes 0\n"}},
      {"catalog.header.totalNodes", 1, kvfs_ok, Stop::kNowhere},  // the root node may equal the number of nodes
  };
  for (const Damage& damage : small_table) {
    expect_damage_found(small_damaged_volume(), damage);
  }
  expect_damage_found(large_damaged_volume(),
                      {"catalog.header.totalNodes", 2, kvfs_invalid, Stop::kThread, {start + "{*} > Total Nodes 2\n"}});
}

TEST(VolumeDamage, EmptyCatalogTree_FailsOverTheMapRecordOfItsHeaderNode) {
  expect_damage_found(
      small_damaged_volume(),
      {"catalog.header.rootNode",
       0,
       kvfs_invalid,
       Stop::kThread,
       {"ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (1 bytes).\n",
        "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (0 bytes).\n",
        "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected minimum: 49154 Actual: 3840\n"}});
}

std::string too_small(int length) {
  return "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (" + std::to_string(length) +
         " bytes).\n";
}

TEST(VolumeDamage, LeafNode_IsFoundByTheSearch) {
  const Volume volume = small_damaged_volume();
  const auto first_offset = [](int offset) {
    return "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in 1 is " +
           std::to_string(offset) + ", and not 14!\n";
  };
  const std::string outside =
      "ERROR kvfs_btree_search_node_internal Invalid node data: Record 1 of node 1 lies outside of the node.\n";
  const std::string backwards =
      "ERROR kvfs_btree_search_node_internal Invalid node data: Record 1 of node 1 ends before it begins.\n";
  const std::string no_locator =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Not enough memory\n";
  const Damage table[] = {
      {"leaf.numRecords",
       0,
       kvfs_inconsistent,
       Stop::kThread,
       {"ERROR kvfs_btree_search_node_internal Invalid node data: Node 1 has no records.\n"}},
      {"leaf.numRecords", 1, kvfs_inconsistent, Stop::kNotFound},
      {"leaf.numRecords", 0xFFFF, kvfs_ok, Stop::kNowhere},
      {"leaf.offset[0]", 0, kvfs_inconsistent, Stop::kThread, {first_offset(0)}},
      {"leaf.offset[0]", 16, kvfs_inconsistent, Stop::kThread, {first_offset(16)}},
      {"leaf.offset[0]", 0xFFFF, kvfs_inconsistent, Stop::kThread, {first_offset(65535)}},
      {"leaf.offset[1]", 0, kvfs_inconsistent, Stop::kNotFound, {too_small(0)}},  // the key is read from the descriptor
      {"leaf.offset[1]", 0xFFFF, kvfs_inconsistent, Stop::kThread, {outside}},
      {"leaf.offset[1]", 4095, kvfs_inconsistent, Stop::kThread, {outside}},
      {"leaf.offset[2]", 0, kvfs_inconsistent, Stop::kThread, {backwards, no_locator}},
      {"leaf.offset[2]", 0xFFFF, kvfs_inconsistent, Stop::kThread, {outside, no_locator}},
      {"leaf.kind",
       0,
       kvfs_inconsistent,
       Stop::kThread,
       {"ERROR kvfs_btree_search_node_internal Index node points to node after the last node. Inconsistent B-tree.\n"}},
      {"leaf.kind", 2, kvfs_inconsistent, Stop::kNotFound},
      {"leaf.kind", 100, kvfs_inconsistent, Stop::kNotFound},
      {"leaf.fLink", 7, kvfs_ok, Stop::kNowhere},
      {"leaf.height", 9, kvfs_ok, Stop::kNowhere},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

TEST(VolumeDamage, IndexNode_IsFoundByTheSearch) {
  const Volume volume = large_damaged_volume();
  const std::string root = std::to_string(volume.get_field("catalog.header.rootNode"));
  const std::string in_search = "ERROR kvfs_btree_search_node_internal ";
  const auto outside = [&](int record) {
    return in_search + "Invalid node data: Record " + std::to_string(record) + " of node " + root +
           " lies outside of the node.\n";
  };
  const std::uint64_t root_node = volume.get_field("catalog.header.rootNode");
  const std::uint64_t last_leaf = volume.get_field("catalog.header.lastLeafNode");
  const Damage table[] = {
      {"root.record[0].child",
       root_node,
       kvfs_inconsistent,
       Stop::kThread,
       {in_search + "Index node points back to itself. Inconsistent B-tree.\n"}},
      {"root.record[0].child",
       0xFFFFFFFF,
       kvfs_inconsistent,
       Stop::kThread,
       {in_search + "Index node points to node after the last node. Inconsistent B-tree.\n"}},
      {"root.record[0].child", last_leaf, kvfs_inconsistent, Stop::kNotFound},
      {"root.kind", 0xFF, kvfs_inconsistent, Stop::kNotFound},
      {"root.kind", 2, kvfs_inconsistent, Stop::kNotFound},
      {"root.numRecords",
       0,
       kvfs_inconsistent,
       Stop::kThread,
       {in_search + "Invalid node data: Node " + root + " has no records.\n"}},
      {"root.offset[0]",
       15,
       kvfs_inconsistent,
       Stop::kThread,
       {in_search + "HFSPlus:kvfs_btree_search_node_internal: Offset of record 0 in " + root +
        " is 15, and not 14!\n"}},
      {"root.offset[1]",
       0,  // the descriptor is taken for a record that leads to the header node
       kvfs_invalid,
       Stop::kThread,
       {too_small(0), too_small(2), too_small(0),
        "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected minimum: 65538 Actual: 3840\n"}},
      {"root.offset[1]", 0xFFFF, kvfs_inconsistent, Stop::kThread, {outside(1)}},
      // The keys are decided by their parents. At record 1 the child of record 0 is wanted, which lies behind its key.
      {"root.record[0].key.keyLength", 0xFFFF, kvfs_inconsistent, Stop::kThread, {outside(1)}},
      {"root.record[1].key.keyLength", 0xFFFF, kvfs_ok, Stop::kNowhere},
      {"root.record[0].key.nodeName.length",
       0xFF,
       kvfs_inconsistent,
       Stop::kTarget,
       {"ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n",
        in_search + "Invalid node data: The key of record 0 of node " + root + " contradicts itself.\n"}},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

TEST(VolumeDamage, IndexNodesThatLeadInACircle_EndTheSearch) {
  VolumeDescription description;
  description.set_label("Label");
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.height = 3;
  Volume volume = build_volume(description);
  const std::uint64_t root = volume.get_field("catalog.header.rootNode");
  const std::uint64_t child = volume.get_field("catalog.node[" + std::to_string(root) + "].record[0].child");
  expect_damage_found(
      volume, {"catalog.node[" + std::to_string(child) + "].record[0].child",
               root,
               kvfs_inconsistent,
               Stop::kThread,
               {"ERROR kvfs_btree_search_node_internal Index node points back to itself. Inconsistent B-tree.\n"}});
}

// What a search says that needs more of a name than its key holds, in record `record` of the only leaf.
Lines name_exceeds_key(int record) {
  return {"ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n",
          "ERROR kvfs_btree_search_node_internal Invalid node data: The key of record " + std::to_string(record) +
              " of node 1 contradicts itself.\n"};
}

TEST(VolumeDamage, KeyOfTheRootFolder_IsFoundByTheSearch) {
  const Volume volume = small_damaged_volume();
  const Damage table[] = {
      {"folder.key.keyLength", 0, kvfs_inconsistent, Stop::kNotFound, {too_small(0), too_small(0)}},
      {"folder.key.keyLength", 5, kvfs_inconsistent, Stop::kNotFound, {too_small(5), too_small(5)}},
      {"folder.key.keyLength", 6, kvfs_inconsistent, Stop::kTarget, name_exceeds_key(0)},
      {"folder.key.keyLength", 15, kvfs_inconsistent, Stop::kTarget, name_exceeds_key(0)},
      {"folder.key.keyLength", 18, kvfs_ok, Stop::kNowhere},
      {"folder.key.keyLength",
       200,
       kvfs_invalid,
       Stop::kTarget,
       {"ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected minimum: 202 Actual: 106\n",
        "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Not enough memory\n"}},
      {"folder.key.keyLength",
       0xFFFF,
       kvfs_invalid,
       Stop::kTarget,
       {"ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected minimum: 65538 Actual: 106\n",
        "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Not enough memory\n"}},
      {"folder.key.parentID", 0, kvfs_inconsistent, Stop::kNotFound},
      {"folder.key.parentID", 2, kvfs_inconsistent, Stop::kNotFound},
      {"folder.key.nodeName.length", 0, kvfs_inconsistent, Stop::kNotFound},
      {"folder.key.nodeName.length", 4, kvfs_inconsistent, Stop::kNotFound},
      {"folder.key.nodeName.length", 6, kvfs_inconsistent, Stop::kTarget, name_exceeds_key(0)},
      {"folder.key.nodeName.length", 256, kvfs_inconsistent, Stop::kTarget, name_exceeds_key(0)},
      {"folder.key.nodeName.length", 0xFFFF, kvfs_inconsistent, Stop::kTarget, name_exceeds_key(0)},
      {"folder.key.nodeName.unicode[0]", 0, kvfs_inconsistent, Stop::kNotFound},
      {"folder.recordType", 9, kvfs_ok, Stop::kNowhere},  // the label is in the key
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

TEST(VolumeDamage, ThreadOfTheRootFolder_IsFoundByTheSearch) {
  const Volume volume = small_damaged_volume();
  const Lines too_long = {"ERROR kvfs_catalog_follow_thread Thread record of 20 bytes cannot hold its name.\n"};
  const Damage table[] = {
      {"thread.key.keyLength", 0, kvfs_inconsistent, Stop::kNotFound, {too_small(0)}},
      {"thread.key.keyLength", 5, kvfs_inconsistent, Stop::kNotFound, {too_small(5)}},
      {"thread.key.parentID", 9, kvfs_inconsistent, Stop::kNotFound},
      {"thread.key.nodeName.length", 1, kvfs_inconsistent, Stop::kThread, name_exceeds_key(1)},
      {"thread.recordType", 4, kvfs_ok, Stop::kNowhere},
      {"thread.parentID", 9, kvfs_inconsistent, Stop::kNotFound},
      {"thread.nodeName.length", 0, kvfs_inconsistent, Stop::kNotFound},
      {"thread.nodeName.length", 6, kvfs_inconsistent, Stop::kFollow, too_long},
      {"thread.nodeName.length", 255, kvfs_inconsistent, Stop::kFollow, too_long},
      {"thread.nodeName.length", 256, kvfs_inconsistent, Stop::kFollow, too_long},
      {"thread.nodeName.length", 0xFFFF, kvfs_inconsistent, Stop::kFollow, too_long},
      {"thread.nodeName.unicode[0]", 0, kvfs_inconsistent, Stop::kNotFound},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
  for (const std::uint64_t type : {0u, 1u, 2u, 5u, 0xFFFFu}) {
    // What is no thread record is not followed, and its own key has an empty name.
    expect_damage_found(volume, {"thread.recordType", type, kvfs_ok, Stop::kNowhere}, "");
  }
}

// Without data the thread has no type: it is not taken for a record that leads nowhere and names an empty label.
// X-catalog-3
TEST(VolumeDamage, ThreadOfTheRootFolderWithoutData_IsTooShort) {
  VolumeDescription description;
  description.set_label("Label");
  description.root.with_thread = false;
  description.extra_catalog_records.emplace_back(thread_key(kRootFolderId), Bytes{});
  const TestDevice device(build_volume(description));
  LogCapture log;
  std::string label;
  EXPECT_EQ(open_and_close(device, &label), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_catalog_search_by_cnid Record of 0 bytes is too short for a record type.\n",
             "ERROR kvfs_volume_setup Error while looking up root directory.\n",
             "ERROR kvfs_volume_create Error while setting up HFS volume.\n");
}

TEST(VolumeDamage, CompareTypeOfTheCatalog_IsReportedForEveryKey) {
  const Volume volume = small_damaged_volume();
  const Lines messages(8, "ERROR kvfs_catalog_compare_keys Illegal value for compare_type: 0x42\n");
  expect_damage_found(volume, {"catalog.header.keyCompareType", 0x42, kvfs_inconsistent, Stop::kNotFound, messages});
}

TEST(VolumeDamage, OverflowRecordsOfTheCatalog_AreChecked) {
  VolumeDescription description;
  description.set_label("Label");
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.extent_count = 12;
  const Volume volume = build_volume(description);
  const std::string record = "extents.node[" + std::to_string(volume.leaf_nodes(Tree::kExtents).at(0)) + "].record[0]";
  const Lines not_found = {
      "ERROR kvfs_fork_resolve_extents No overflow extent found for CNID 4 starting with block {*}.\n", kUnresolved,
      kNoPrivate, kNoFork};
  const Damage table[] = {
      {record + ".key.fileID", 5, kvfs_no_memory, Stop::kCatalog, not_found},
      {record + ".key.startBlock", 1, kvfs_no_memory, Stop::kCatalog, not_found},
      {record + ".key.forkType", 0xFF, kvfs_no_memory, Stop::kCatalog, not_found},
      {record + ".extents[0].blockCount",
       0,
       kvfs_no_memory,
       Stop::kCatalog,
       {kZeroExtent, kUnresolved, kNoPrivate, kNoFork}},
      {"extents.header.rootNode",
       0xFFFFFFFF,
       kvfs_no_memory,
       Stop::kCatalog,
       {"ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Starting Node 4294967295 > Total Nodes {*}\n",
        "ERROR kvfs_extents_get_next_extent_record Error while looking up overflow extent.\n",
        "ERROR kvfs_fork_resolve_extents Error while searching for overflow extents record for CNID 4 starting with block {*}.\n",
        kUnresolved, kNoPrivate, kNoFork}},
  };
  for (const Damage& damage : table) {
    expect_damage_found(volume, damage);
  }
}

// ---- Every byte ----------------------------------------------------------------------------------------------------

// Opens a volume whose bytes change underneath, and expects it to open or to say why not.
class ByteSweep {
 public:
  explicit ByteSweep(const Volume& volume) : device_(volume) {}

  void change(std::uint64_t offset, const Bytes& bytes) {
    const Bytes saved = device_.read(offset, bytes.size());
    device_.overwrite(offset, bytes);
    open(offset);
    device_.overwrite(offset, saved);
  }

  // Every byte of a range takes some values that are likely to hurt. Of a run of zeros only the ends do.
  void sweep(std::uint64_t offset, std::size_t length) {
    const Bytes before = device_.read(offset, length);
    for (std::size_t i = 0; i < length; ++i) {
      const bool inside_zeros = i > 0 && i + 1 < length && before[i - 1] == 0 && before[i] == 0 && before[i + 1] == 0;
      if (inside_zeros) {
        continue;
      }
      for (const int value : {0, 1, 0xFF, before[i] ^ 0x80}) {
        if (static_cast<std::uint8_t>(value) != before[i]) {
          change(offset + i, {static_cast<std::uint8_t>(value)});
        }
      }
    }
  }

  void open(std::uint64_t seed) {
    LogCapture log;
    std::string label;
    kvfs_result result = kvfs_ok;
    {
      // A size that is taken from disk must not cost more than a small machine has.
      FaultInjector faults;
      faults.refuse_allocations_above(std::size_t{16} << 20);
      result = open_and_close(device_, &label);
      EXPECT_EQ(faults.outstanding_allocations(), 0u) << seed;
      EXPECT_EQ(faults.locks_alive(), 0) << seed;
      EXPECT_TRUE(faults.writes().empty()) << seed;
    }
    if (result != kvfs_ok) {
      ASSERT_FALSE(log.lines().empty()) << seed;
      EXPECT_TRUE(log.lines().back().text.ends_with("Error while setting up HFS volume.\n")) << seed;
    }
    ++opened_[result == kvfs_ok ? 1 : 0];
  }

  // How many did not open and how many did.
  [[nodiscard]] int refused() const { return opened_[0]; }
  [[nodiscard]] int accepted() const { return opened_[1]; }

 private:
  TestDevice device_;
  int opened_[2] = {0, 0};
};

Volume compact_volume(std::uint32_t files) {
  VolumeDescription description;
  description.set_label("Label");
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.extents.node_size = 512;
  description.catalog.extent_count = files > 4 ? 10 : 1;
  (void)description.add_files(kRootFolderId, files);
  return build_volume(description);
}

TEST(VolumeDamage, AnyByteOfTheVolumeHeader_OpensOrIsRefused) {
  ByteSweep sweep(compact_volume(3));
  sweep.sweep(kHeaderOffset, 512);
  EXPECT_GT(sweep.refused(), 0);
  EXPECT_GT(sweep.accepted(), 0);
}

TEST(VolumeDamage, AnyByteOfTheHeaderNodes_OpensOrIsRefused) {
  const Volume volume = compact_volume(3);
  ByteSweep sweep(volume);
  sweep.sweep(volume.node_device_offset(Tree::kExtents, 0), 124);
  sweep.sweep(volume.node_device_offset(Tree::kCatalog, 0), 124);
  EXPECT_GT(sweep.refused(), 0);
}

TEST(VolumeDamage, AnyByteOfTheNodesOnTheWay_OpensOrIsRefused) {
  const Volume volume = compact_volume(30);
  ByteSweep sweep(volume);
  const auto root = static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"));
  sweep.sweep(volume.node_device_offset(Tree::kCatalog, root), 512);
  sweep.sweep(volume.node_device_offset(Tree::kCatalog, volume.leaf_nodes(Tree::kCatalog).at(0)), 512);
  sweep.sweep(volume.node_device_offset(Tree::kExtents, volume.leaf_nodes(Tree::kExtents).at(0)), 512);
  EXPECT_GT(sweep.refused(), 0);
}

TEST(VolumeDamage, RandomBytesInSeveralPlaces_OpenOrAreRefused) {
  const Volume volume = compact_volume(30);
  const std::vector<std::uint64_t> places = {
      kHeaderOffset,
      volume.node_device_offset(Tree::kExtents, 0),
      volume.node_device_offset(Tree::kCatalog, 0),
      volume.node_device_offset(Tree::kCatalog,
                                static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"))),
      volume.node_device_offset(Tree::kCatalog, volume.leaf_nodes(Tree::kCatalog).at(0)),
  };
  for (std::uint32_t seed = 0; seed < 400; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
    ByteSweep sweep(volume);
    const std::size_t changes = 1 + below(4);
    Bytes bytes(1 + below(8));
    for (std::size_t i = 0; i < changes; ++i) {
      for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
      }
      sweep.change(places[below(places.size())] + below(512 - bytes.size()), bytes);
    }
  }
}

TEST(VolumeDamage, EveryTruncation_OpensOrIsRefused) {
  Volume volume = compact_volume(30);
  for (std::uint64_t size = volume.size(); size > 0; size -= 512) {
    volume.truncate(size - 1);
    ByteSweep sweep(volume);
    sweep.open(size - 1);
    volume.truncate(size - 512);
  }
}

}  // namespace
}  // namespace kvfs_test
