#include "fuzz_volume.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

#include "volume_builder.h"

namespace kvfs_fuzz {

using kvfs_test::kRootFolderId;
using kvfs_test::Tree;
using kvfs_test::Volume;
using kvfs_test::VolumeDescription;

namespace {

constexpr std::uint64_t kLargestChange = 8;
constexpr unsigned kMostChanges = 7;
constexpr std::size_t kFirstShapes = 8;
constexpr std::uint8_t kFirstOfLaterShapes = 0xC0;
constexpr std::uint32_t kSpareBlocks = 8;         // small volumes are restored faster
constexpr std::uint32_t kNodesOfTwoMaps = 2500;   // of 512 bytes
constexpr std::size_t kJournalInfoBytes = 52;     // of the block that says where the journal lies
constexpr std::uint64_t kRecordsOfFragments = 4;  // of overflow extents; other shapes have fewer

void small_nodes(VolumeDescription& d) {
  d.block_size = d.catalog.node_size = d.extents.node_size = 512;
  (void)d.add_files(kRootFolderId, 40);
}

// Files whose extents go on in the extents overflow file, and a journal.
void fragments(VolumeDescription& d) {
  constexpr std::uint64_t kBlock = 512;
  d.block_size = d.extents.node_size = kBlock;
  const std::uint32_t file = d.add_file(kRootFolderId, u"data", kBlock * 30, 30);
  d.item(file).resource = {kBlock * 20, {}, 20, 1, 0};
  (void)d.add_file(kRootFolderId, u"other", kBlock * 12, 12);
  (void)d.add_files(kRootFolderId, 5);
}

// One description for each shape.
std::vector<std::function<void(VolumeDescription&)>> shapes() {
  return {
      [](VolumeDescription& /*d*/) {},
      [](VolumeDescription& d) { (void)d.add_files(kRootFolderId, 30); },
      small_nodes,
      [](VolumeDescription& d) {
        small_nodes(d);
        d.catalog.extent_count = 20;
      },
      [](VolumeDescription& d) {
        small_nodes(d);
        d.catalog.leaf_fill[0].free_bytes = 0;
      },
      [](VolumeDescription& d) {
        small_nodes(d);
        d.catalog.total_nodes = 3000;
      },
      [](VolumeDescription& d) {
        (void)d.add_files(kRootFolderId, 100);
        d.catalog.height = 4;
        d.catalog.leaf_free_bytes = 300;
      },
      [](VolumeDescription& d) {
        d.hfsx = d.case_sensitive = d.folder_counts = true;
        (void)d.add_folders(kRootFolderId, 10);
        const std::uint32_t target = d.add_inode(100);
        (void)d.add_hard_link(kRootFolderId, u"link", target);
        (void)d.add_symlink(kRootFolderId, u"symlink", "target");
        (void)d.add_file(kRootFolderId, u"data", 40000, 5);
      },
      fragments,
      [](VolumeDescription& d) {
        small_nodes(d);
        d.catalog.leaf_fill[0].free_bytes = 0;
        d.catalog.total_nodes = kNodesOfTwoMaps;
      },
  };
}

// Gives a volume with fragments a journal in its last blocks but one, and has the nodes that the header node's map
// shows all in use where there is a second map.
Volume finished(Volume volume) {
  constexpr std::uint64_t kMapRecord = 248;
  constexpr std::uint64_t kMapBytes = 256;
  constexpr std::uint32_t kJournaled = 0x2100;
  constexpr std::uint64_t kFlags = 0;
  constexpr std::uint64_t kOffset = 36;
  constexpr std::uint64_t kSize = 44;
  if (volume.get_field("catalog.header.totalNodes") == kNodesOfTwoMaps) {
    const std::uint64_t map = volume.node_device_offset(Tree::kCatalog, 0) + kMapRecord;
    for (std::uint64_t byte = 0; byte < kMapBytes; ++byte) {
      volume.set8(map + byte, 0xFF);
    }
  } else if (volume.get_field("extents.header.leafRecords") > kRecordsOfFragments) {
    const std::uint64_t block = volume.get_field("totalBlocks") - 6;
    const std::uint64_t block_size = volume.get_field("blockSize");
    volume.set_field("attributes", kJournaled);
    volume.set_field("journalInfoBlock", block);
    volume.set32(block * block_size + kFlags, 1);
    volume.set64(block * block_size + kOffset, (block + 1) * block_size);
    volume.set64(block * block_size + kSize, 2 * block_size);
  }
  return volume;
}

std::vector<std::unique_ptr<FuzzDevice>> build_devices() {
  std::vector<std::unique_ptr<FuzzDevice>> devices;
  for (const auto& shape : shapes()) {
    VolumeDescription description;
    description.spare_blocks = kSpareBlocks;
    description.attributes_file = false;
    shape(description);
    devices.push_back(std::make_unique<FuzzDevice>(finished(build_volume(description))));
  }
  return devices;
}

}  // namespace

void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

FuzzDevice::FuzzDevice(const Volume& volume)
    : device_(volume), original_(volume.read(0, static_cast<std::size_t>(volume.size()))) {
  places_.emplace_back(kvfs_test::kHeaderOffset, 512);
  if (const std::uint64_t block = volume.get_field("journalInfoBlock"); block != 0) {
    places_.emplace_back(block * volume.get_field("blockSize"), kJournalInfoBytes);
  }
  for (const Tree tree : {Tree::kExtents, Tree::kCatalog}) {
    const char* const name = tree == Tree::kCatalog ? "catalog.header.nodeSize" : "extents.header.nodeSize";
    const std::uint64_t node_size = volume.get_field(name);
    const std::uint64_t nodes = volume.fork(tree).size() / node_size;
    for (std::uint32_t node = 0; node < nodes && node < 24; ++node) {
      places_.emplace_back(volume.node_device_offset(tree, node), node_size);
    }
  }
}

FuzzDevice& FuzzDevice::choose(Input* input) {
  static const std::vector<std::unique_ptr<FuzzDevice>> devices = build_devices();
  // The first byte of older inputs named one of fewer shapes, and still does.
  const std::uint8_t shape = input->byte();
  FuzzDevice& device = *devices[shape < kFirstOfLaterShapes
                                    ? shape % kFirstShapes
                                    : kFirstShapes + (shape - kFirstOfLaterShapes) % (devices.size() - kFirstShapes)];
  device.device_.replace(device.original_);
  return device;
}

// A change replaces up to eight bytes. Its place counts from either end of a structure: a node's offset table is at the
// end.
unsigned FuzzDevice::damage(Input* input) {
  const unsigned wanted = input->byte() % (kMostChanges + 1);
  unsigned changes = 0;
  for (; changes < wanted && !input->at_end(); ++changes) {
    const auto& [offset, length] = places_[input->below(places_.size())];
    const std::uint16_t where = input->unit();
    const std::uint64_t position = (where & 0x8000) != 0 ? length - 1 - (where & 0x7FFF) % length : where % length;
    std::vector<std::uint8_t> bytes = input->bytes(1 + input->byte() % kLargestChange);
    bytes.resize(std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(length - position)));
    device_.overwrite(offset + position, bytes);
  }
  return changes;
}

std::vector<std::uint8_t> FuzzDevice::bytes() const {
  return device_.read(0, static_cast<std::size_t>(device_.size()));
}

}  // namespace kvfs_fuzz
