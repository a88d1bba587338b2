// Setting the label on damaged volumes: it succeeds or fails with a message, writes nothing before it is flushed, and
// nothing but blocks of the catalog file then.

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "fault_injection.h"
#include "label_change.h"
#include "label_volume.h"
#include "log_capture.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

constexpr Tree kCatalog = Tree::kCatalog;

// ---- One set -------------------------------------------------------------------------------------------------------

// The extents of the catalog as the volume has them now; none when the damage hides them.
std::vector<Extent> catalog_extents(const Volume& volume) {
  try {
    return volume.fork(kCatalog).extents();
  } catch (const std::exception&) {
    return {};
  }
}

bool covers(const std::vector<Extent>& extents, std::uint64_t block_size, const ByteRange& range) {
  return std::any_of(extents.begin(), extents.end(), [&](const Extent& extent) {
    const std::uint64_t begin = extent.start_block * block_size;
    return range.offset >= begin && range.offset + range.length <= begin + extent.block_count * block_size;
  });
}

// Sets and flushes, with the calls recorded. Returns whether that succeeded.
bool set_and_flush(const Volume& volume, const Name& label, FaultInjector& faults, std::string& findings) {
  std::optional<FaultInjector::Pause> pause(std::in_place);
  const std::vector<kvfs_be16> units = stored_units(label);
  std::optional<LabelVolume> open;
  pause.reset();
  open.emplace(volume);
  kvfs_result result = open->result();
  if (result == kvfs_ok) {
    result = kvfs_volume_set_label(open->get(), units.data(), units.size());
    findings += faults.writes().empty() ? "" : "written before the flush\n";
    if (result == kvfs_ok) {
      result = open->flush();
    }
  }
  findings += faults.locks_held() == 0 ? "" : "a lock is still held\n";
  return result == kvfs_ok;
}

// What is wrong with how a set went on a volume that was `sound` before it was damaged; "" when nothing is. The blocks
// of the catalog are those that either of the two gives it.
std::string faults_of_set(const Volume& sound, const Volume& volume, const Name& label) {
  std::string findings;
  LogCapture log;
  FaultInjector faults;
  const bool succeeded = set_and_flush(volume, label, faults, findings);
  findings += faults.outstanding_allocations() == 0 ? "" : "memory is left\n";
  findings += faults.locks_alive() == 0 ? "" : "locks are left\n";
  const std::vector<ByteRange> writes = writes_of(faults);
  const FaultInjector::Pause pause;
  std::vector<Extent> extents = catalog_extents(volume);
  const std::vector<Extent> sound_extents = catalog_extents(sound);
  extents.insert(extents.end(), sound_extents.begin(), sound_extents.end());
  for (const ByteRange& range : writes) {
    if (!covers(extents, volume.block_size(), range)) {
      findings += "written outside of the catalog: byte " + std::to_string(range.offset) + "\n";
    }
  }
  if (!succeeded && log.empty()) {
    findings += "failed without a message\n";
  }
  return findings;
}

// ---- Damages -------------------------------------------------------------------------------------------------------

// Values that a field is set to, besides its neighbours.
std::set<std::uint64_t> damaged_values(std::uint64_t value, std::size_t width) {
  const std::uint64_t mask = width >= 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * width)) - 1;
  std::set<std::uint64_t> values = {0,    1,         value - 1,          value + 1, value * 2, value ^ 3,
                                    mask, mask >> 1, mask - (mask >> 1), 512,       13,        value << 8};
  std::set<std::uint64_t> masked;
  for (const std::uint64_t other : values) {
    masked.insert(other & mask);
  }
  masked.erase(value);
  return masked;
}

// Damages one field after the other, each with all values.
unsigned damage_fields(const Volume& sound, const Name& label, const std::vector<std::string>& fields) {
  unsigned damages = 0;
  for (const std::string& field : fields) {
    const std::uint64_t value = sound.get_field(field);
    for (const std::uint64_t other : damaged_values(value, sound.width_of_field(field))) {
      Volume damaged = sound;
      damaged.set_field(field, other);
      EXPECT_EQ(faults_of_set(sound, damaged, label), "") << field << " set from " << value << " to " << other;
      ++damages;
    }
  }
  return damages;
}

// Those of the names that the node has.
void add_fields(const Volume& volume, const std::string& prefix, const std::vector<std::string>& names,
                std::vector<std::string>& fields) {
  for (const std::string& name : names) {
    try {
      (void)volume.get_field(prefix + name);
      fields.push_back(prefix + name);
    } catch (const std::exception&) {
      continue;  // this kind of record does not have it
    }
  }
}

// The fields of a node, and of its first records and its last one.
std::vector<std::string> fields_of_node(const Volume& volume, std::uint32_t node) {
  std::vector<std::string> fields;
  const std::string prefix = "catalog.node[" + std::to_string(node) + "]";
  add_fields(volume, prefix, {".fLink", ".bLink", ".kind", ".height", ".numRecords", ".reserved"}, fields);
  const std::uint16_t count = volume.record_count(kCatalog, node);
  for (std::uint16_t i = 0; i <= count; ++i) {
    fields.push_back(prefix + ".offset[" + std::to_string(i) + "]");
  }
  for (std::uint16_t i = 0; i < count; ++i) {
    if (i < 4 || i + 1 == count) {
      add_fields(volume, prefix + ".record[" + std::to_string(i) + "]",
                 {".key.keyLength", ".key.parentID", ".key.nodeName.length", ".key.nodeName.unicode[0]", ".child",
                  ".recordType", ".folderID", ".parentID", ".nodeName.length", ".nodeName.unicode[0]"},
                 fields);
    }
  }
  return fields;
}

// The nodes that a set touches: those of the label and all that it would claim or link anew.
std::set<std::uint32_t> touched_nodes(const Volume& volume, const Name& label) {
  const LabelVolume open(volume);
  EXPECT_EQ(open.set(label), kvfs_ok);
  const Volume after = open.flushed();
  EXPECT_EQ(faults_of_change(volume, after, label), "");
  std::set<std::uint32_t> nodes = changed_nodes(volume, after);
  nodes.merge(nodes_of_label(volume));
  nodes.erase(0);
  std::erase_if(nodes, [&](std::uint32_t node) { return !volume.node_used(kCatalog, node); });
  return nodes;
}

unsigned damage_nodes(const Volume& volume, const Name& label) {
  unsigned damages = 0;
  for (const std::uint32_t node : touched_nodes(volume, label)) {
    damages += damage_fields(volume, label, fields_of_node(volume, node));
  }
  return damages;
}

// ---- Volumes -------------------------------------------------------------------------------------------------------

const Name kLongLabel(200, u'n');

Volume one_leaf() {
  VolumeDescription description;
  (void)description.add_folder(kRootFolderId, u"folder");
  (void)description.add_file(kRootFolderId, u"file");
  return build_volume(description);
}

// A tree of three levels whose first leaf has to be split, and whose first index node has too.
Volume full_left_side() {
  VolumeDescription description;
  description.block_size = 1024;
  description.catalog.node_size = 2048;
  description.catalog.height = 3;
  description.catalog.max_index_records = 6;
  (void)description.add_files(kRootFolderId, 150, "f", 30);
  return build_volume(description);
}

Volume many_extents() {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 4096;
  description.catalog.extent_count = 30;
  (void)description.add_files(kRootFolderId, 60);
  return build_volume(description);
}

// Map nodes come first, so that each claim passes them.
Volume with_map_nodes() {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 1024;
  description.catalog.total_nodes = 8000;
  description.catalog.map_nodes_first = true;
  description.catalog.leaf_fill[0].free_bytes = 40;
  (void)description.add_files(kRootFolderId, 30);
  return build_volume(description);
}

// ---- Tests ---------------------------------------------------------------------------------------------------------

TEST(DamagedVolumeSetLabel, SoundVolumes_AreSet) {
  for (const Volume& volume : {one_leaf(), full_left_side(), many_extents(), with_map_nodes()}) {
    EXPECT_EQ(joined(check_volume(volume)), "");
    EXPECT_EQ(faults_of_set(volume, volume, u"New"), "");
  }
}

TEST(DamagedVolumeSetLabel, EachHeaderField_FailsCleanly) {
  EXPECT_GE(damage_fields(one_leaf(), u"New", Volume::header_field_names()), 100u);
}

TEST(DamagedVolumeSetLabel, EachForkField_FailsCleanly) {
  EXPECT_GE(damage_fields(many_extents(), u"New", Volume::fork_field_names("catalogFile")), 100u);
  EXPECT_GE(damage_fields(many_extents(), u"New", Volume::fork_field_names("extentsFile")), 100u);
}

TEST(DamagedVolumeSetLabel, EachTreeHeaderField_FailsCleanly) {
  for (const Volume& volume : {one_leaf(), full_left_side(), with_map_nodes()}) {
    EXPECT_GE(damage_fields(volume, kLongLabel, Volume::tree_field_names(kCatalog)), 100u);
  }
  EXPECT_GE(damage_fields(many_extents(), u"New", Volume::tree_field_names(Tree::kExtents)), 100u);
}

TEST(DamagedVolumeSetLabel, EachFieldOfTheHeaderNode_FailsCleanly) {
  for (const Volume& volume : {full_left_side(), with_map_nodes()}) {
    std::vector<std::string> fields;
    add_fields(
        volume, "catalog.node[0]",
        {".fLink", ".bLink", ".kind", ".height", ".numRecords", ".offset[0]", ".offset[1]", ".offset[2]", ".offset[3]"},
        fields);
    EXPECT_EQ(fields.size(), 9u);
    (void)damage_fields(volume, kLongLabel, fields);
  }
}

TEST(DamagedVolumeSetLabel, EachFieldOfOneLeaf_FailsCleanly) {
  EXPECT_GE(damage_nodes(one_leaf(), u"New"), 100u);
}

TEST(DamagedVolumeSetLabel, EachFieldOfTheNodesOfASplit_FailsCleanly) {
  EXPECT_GE(damage_nodes(full_left_side(), kLongLabel), 1000u);
}

TEST(DamagedVolumeSetLabel, EachFieldOfNodesAcrossExtents_FailsCleanly) {
  EXPECT_GE(damage_nodes(many_extents(), u"New"), 100u);
}

TEST(DamagedVolumeSetLabel, EachFieldOfTheMapNodes_FailsCleanly) {
  const Volume volume = with_map_nodes();
  std::vector<std::string> fields;
  for (std::uint32_t node = static_cast<std::uint32_t>(volume.get_field("catalog.node[0].fLink")); node != 0;
       node = static_cast<std::uint32_t>(volume.get_field("catalog.node[" + std::to_string(node) + "].fLink"))) {
    add_fields(volume, "catalog.node[" + std::to_string(node) + "]",
               {".fLink", ".bLink", ".kind", ".height", ".numRecords", ".offset[0]", ".offset[1]"}, fields);
  }
  EXPECT_GE(fields.size(), 7u);
  // With every bit of the header node set, the walk goes on to the map nodes.
  Volume used = volume;
  for (std::uint32_t node = 0; node < (1024 - 256 + 1) * 8; ++node) {
    used.set_node_used(kCatalog, node, true);
  }
  (void)damage_fields(volume, kLongLabel, fields);
  (void)damage_fields(used, kLongLabel, fields);
}

// Every byte of the descriptor, the first records and the offset table.
TEST(DamagedVolumeSetLabel, EachByteOfANode_FailsCleanly) {
  const Volume volume = full_left_side();
  for (const std::uint32_t node : nodes_of_label(volume)) {
    const Bytes sound = volume.read_node(kCatalog, node);
    for (std::size_t at = 0; at < sound.size(); at = at == 160 ? sound.size() - 24 : at + 1) {
      for (const std::uint8_t value :
           {std::uint8_t{0x00}, std::uint8_t{0xFF}, static_cast<std::uint8_t>(sound[at] ^ 0x80)}) {
        Bytes bytes = sound;
        bytes[at] = value;
        Volume damaged = volume;
        damaged.write_node(kCatalog, node, bytes);
        ASSERT_EQ(faults_of_set(volume, damaged, kLongLabel), "")
            << "byte " << at << " of node " << node << " set to " << int{value};
      }
    }
  }
}

TEST(DamagedVolumeSetLabel, DeviceCutShort_FailsCleanly) {
  const Volume volume = full_left_side();
  for (std::uint64_t size = 0; size < volume.size(); size += 1024) {
    Volume damaged = volume;
    damaged.truncate(size + 100);
    std::string findings;
    LogCapture log;
    FaultInjector faults;
    (void)set_and_flush(damaged, kLongLabel, faults, findings);
    ASSERT_EQ(findings, "") << size;
    ASSERT_EQ(faults.outstanding_allocations(), 0u);
  }
}

}  // namespace
}  // namespace kvfs_test
