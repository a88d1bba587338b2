#include "btree.h"

#include <cstring>

#include "arithmetic.h"
#include "bitmap.h"
#include "btree_private.h"
#include "device.h"
#include "owned.h"
#include "rwlock_guard.h"
#include "support.h"
#include "volume.h"

// ---- Node view -----------------------------------------------------------------------------------------------------

// The bytes of one node. Offsets and lengths in a node come from disk: whatever follows one of them goes through the
// routines below, which stay inside the node (X-btree-1).
struct node_view {
  unsigned char* bytes;
  std::uint32_t size;    // the tree's nodeSize
  std::uint32_t number;  // of the node in its tree
};

static constexpr std::uint32_t kOffsetEntrySize = sizeof(kvfs_be16);

// Where the entry of a record lies: the offset table grows from the end of the node towards its start.
static constexpr std::uint32_t offset_entry_position(std::uint32_t node_size, std::uint32_t index) {
  return node_size - kOffsetEntrySize * (index + 1);
}

// Bytes of the longest offset table that a node can hold; its entries are those of the records and of the free space.
static constexpr std::uint32_t offset_table_room(std::uint32_t node_size) {
  return node_size < sizeof(BTNodeDescriptor) ? 0 : node_size - static_cast<std::uint32_t>(sizeof(BTNodeDescriptor));
}

static constexpr bool has_offset_entry(std::uint32_t node_size, std::uint32_t index) {
  return std::uint64_t{kOffsetEntrySize} * (std::uint64_t{index} + 1) <= offset_table_room(node_size);
}

static constexpr std::uint32_t round_up_to_even(std::uint32_t value) {
  return value + value % 2;
}

static BTNodeDescriptor descriptor_of(const node_view& node) {
  BTNodeDescriptor descriptor = {};
  std::memcpy(&descriptor, node.bytes, kvfs_min<std::size_t>(sizeof(descriptor), node.size));
  return descriptor;
}

// Reads an entry of the offset table; false when it would begin before the node. One that lies in the descriptor is
// read like any other.
static bool read_offset(const node_view& node, std::uint32_t index, std::uint16_t* offset) {
  if (std::uint64_t{kOffsetEntrySize} * (std::uint64_t{index} + 1) > node.size) {
    return false;
  }
  *offset = kvfs_view_as<kvfs_be16>(node.bytes + offset_entry_position(node.size, index))->get();
  return true;
}

// The bit of a node in its byte of the node bitmap.
static unsigned char node_bit(std::uint32_t node) {
  return static_cast<unsigned char>(0x80U >> (node % 8));
}

// Reads where the data behind a key begins, not rounded up to even; false when the key leaves the node. `end` is 0 when
// its length field does.
static bool read_key_end(const node_view& node, std::uint32_t offset, std::uint32_t* end) {
  *end = 0;
  if (offset + sizeof(kvfs_be16) > node.size) {
    return false;
  }
  *end = offset + static_cast<std::uint32_t>(sizeof(kvfs_be16)) + kvfs_view_as<kvfs_be16>(node.bytes + offset)->get();
  return *end <= node.size;
}

// Recognises that a walk from node to node goes in circles (X-btree-3). Where a node leads depends on it alone, so that
// coming back to a node once means coming back for ever. Comparing with one checkpoint, moved at each power of two,
// finds that with constant memory (R. P. Brent, "An improved Monte Carlo factorization algorithm", 1980).
struct cycle_finder {
  std::uint32_t checkpoint;  // a node that was visited; the first one to begin with
  std::uint32_t steps;
};

static bool comes_back(cycle_finder* finder, std::uint32_t next) {
  if (next == finder->checkpoint) {
    return true;
  }
  ++finder->steps;
  if ((finder->steps & (finder->steps - 1)) == 0) {
    finder->checkpoint = next;
  }
  return false;
}

// The fork position of an offset in a node.
static std::uint64_t fork_position(const kvfs_btree* tree, std::uint32_t node, std::uint64_t offset) {
  return std::uint64_t{node} * tree->nodeSize + offset;
}

// ---- Mappings ------------------------------------------------------------------------------------------------------

// A range of a tree's fork that is mapped while `bytes` is not null.
struct mapping {
  kvfs_fork* fork = nullptr;
  std::uint64_t offset = 0;
  std::size_t length = 0;
  void* bytes = nullptr;
};

static kvfs_result map_range(kvfs_fork* fork, std::uint64_t offset, std::size_t length, mapping* map) {
  void* bytes = nullptr;
  const kvfs_result result = kvfs_fork_map(fork, offset, &bytes, length, nullptr);
  if (result == kvfs_ok) {
    *map = {fork, offset, length, bytes};
  }
  return result;
}

static kvfs_result map_node(kvfs_btree* tree, std::uint32_t node, mapping* map) {
  return map_range(tree->fork, fork_position(tree, node, 0), tree->nodeSize, map);
}

static kvfs_result map_header_record(kvfs_btree* tree, mapping* map) {
  return map_range(tree->fork, kBTHeaderRecordOffset, sizeof(BTHeaderRec), map);
}

// Unmaps what is mapped. On failure the range counts as mapped still.
static kvfs_result unmap_range(mapping* map) {
  return map->bytes == nullptr ? kvfs_ok : kvfs_fork_unmap(map->fork, map->offset, &map->bytes, map->length);
}

static node_view view_of(const kvfs_btree* tree, std::uint32_t node, const mapping& map) {
  return {static_cast<unsigned char*>(map.bytes), tree->nodeSize, node};
}

// ---- Opening and closing a tree ------------------------------------------------------------------------------------

const char* kvfs_btree_type_name(std::uint32_t tree_kind) {
  switch (tree_kind) {
    case kHFSCatalogFileID:
      return "catalog";
    case kHFSExtentsFileID:
      return "extents overflow";
    case kHFSAttributesFileID:
      return "attributes";
    default:
      return "unknown";
  }
}

static HFSPlusForkData* fork_data_of(HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind) {
  switch (tree_kind) {
    case kHFSExtentsFileID:
      return &volume_header->extentsFile;
    case kHFSCatalogFileID:
      return &volume_header->catalogFile;
    case kHFSAttributesFileID:
      return &volume_header->attributesFile;
    default:
      return nullptr;
  }
}

// Reads the node size from the header record without a fork, whose transfer unit depends on it.
static kvfs_result read_node_size(kvfs_device* device, const HFSPlusVolumeHeader* volume_header,
                                  const HFSPlusForkData* fork_data, std::uint16_t* node_size) {
  const std::uint64_t sector_size = device->sector_size;
  if (sector_size == 0) {  // X-device-1
    KVFS_ERROR_AS(kvfs_btree_process, "Device has a sector size of 0.\n");
    return kvfs_inconsistent;
  }
  const std::uint64_t position =
      std::uint64_t{fork_data->extents.extents[0].startBlock.get()} * volume_header->blockSize.get();
  const std::uint64_t first = position / sector_size;
  const std::uint64_t count = (position + kBTHeaderEnd + sector_size - 1) / sector_size - first;
  void* sectors = nullptr;
  const kvfs_result result = kvfs_device_read_disk_sectors(device, first, static_cast<std::uint32_t>(count), &sectors);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while reading first sector%s of B-tree.\n", count >= 2 ? "s" : "");
    return result;
  }
  const kvfs_owned<unsigned char> buffer(static_cast<unsigned char*>(sectors));
  const unsigned char* const record = buffer.get() + position % sector_size + kBTHeaderRecordOffset;
  *node_size = kvfs_view_as<BTHeaderRec>(record)->nodeSize.get();
  return kvfs_ok;
}

// Node 0 must be a header node with its three records.
static kvfs_result check_header_descriptor(const mapping& map) {
  const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(map.bytes);
  if (descriptor->kind == kBTHeaderNode && descriptor->numRecords.get() == kBTHeaderNodeRecords) {
    return kvfs_ok;
  }
  // The count is printed with its bytes the wrong way round, 1024 for 4 records: Q-btree-1.
  const int swapped = descriptor->numRecords.bytes[0] | descriptor->numRecords.bytes[1] << 8;
  KVFS_ERROR_AS(kvfs_btree_process,
                "HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
                KVFS_NAME_OF(kvfs_btree_process), static_cast<int>(descriptor->kind), swapped);
  return kvfs_inconsistent;
}

static kvfs_result check_header_record(const mapping& map) {
  const BTHeaderRec* const header = kvfs_view_as<BTHeaderRec>(map.bytes);
  if (header->btreeType != kHFSBTreeType) {
    KVFS_ERROR_AS(kvfs_btree_process,
                  "HFSPlus:%s: Tree type, according to header node, is %d - and not kHFSBTreeType (0)\n",
                  KVFS_NAME_OF(kvfs_btree_process), static_cast<int>(header->btreeType));
    return kvfs_inconsistent;
  }
  if ((header->attributes.get() & kBTBigKeysMask) == 0) {
    KVFS_ERROR_AS(kvfs_btree_process, "Big keys flag not set for HFS+ B-tree.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Maps the descriptor and the header record of node 0, checks both and reads the two fields that a tree keeps, as they
// stand (Q-btree-2). What was mapped stays mapped for the caller.
static kvfs_result check_header_node(kvfs_fork* fork, mapping* descriptor, mapping* header, std::uint16_t* node_size,
                                     std::uint16_t* max_key_length) {
  kvfs_result result = map_range(fork, 0, sizeof(BTNodeDescriptor), descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while mapping node descriptor of B-tree from its fork.\n");
    return result;
  }
  result = check_header_descriptor(*descriptor);
  if (result != kvfs_ok) {
    return result;
  }
  result = map_range(fork, kBTHeaderRecordOffset, sizeof(BTHeaderRec), header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while mapping header record of B-tree from its fork.\n");
    return result;
  }
  result = check_header_record(*header);
  *node_size = kvfs_view_as<BTHeaderRec>(header->bytes)->nodeSize.get();
  *max_key_length = kvfs_view_as<BTHeaderRec>(header->bytes)->maxKeyLength.get();
  return result;
}

static kvfs_result check_tree_of_fork(kvfs_fork* fork, std::uint16_t* node_size, std::uint16_t* max_key_length) {
  mapping descriptor;
  mapping header;
  kvfs_result result = check_header_node(fork, &descriptor, &header, node_size, max_key_length);
  const kvfs_result header_unmapped = unmap_range(&header);
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while unmapping header record of B-tree from its fork.\n");
  }
  result = kvfs_result_keep(result, header_unmapped);
  const kvfs_result descriptor_unmapped = unmap_range(&descriptor);
  if (descriptor_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while unmapping node descriptor of B-tree from its fork.\n");
  }
  return kvfs_result_keep(result, descriptor_unmapped);
}

// The value of a failure exit, which must not be taken for a success.
static kvfs_result failure_value(kvfs_result result) {
  if (result == kvfs_ok) {
    KVFS_WARNING_AS(kvfs_btree_process, "err was not set at 'error'. Setting generic error value.\n");
    return kvfs_failed;
  }
  return result;
}

kvfs_result kvfs_btree_process(HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind, kvfs_device* device,
                               kvfs_extents* extents, int partial, kvfs_fork** out_fork, std::uint16_t* out_node_size,
                               std::uint16_t* out_max_key_length) {
  HFSPlusForkData* const fork_data = fork_data_of(volume_header, tree_kind);
  if (fork_data == nullptr) {
    return kvfs_invalid;
  }
  std::uint16_t node_size = 0;
  kvfs_result result = read_node_size(device, volume_header, fork_data, &node_size);
  if (result != kvfs_ok) {
    return failure_value(result);
  }
  kvfs_fork* fork = nullptr;
  result = kvfs_fork_create(device, extents, partial, volume_header, tree_kind, fork_data, node_size, &fork);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_fork.\n");
    return failure_value(result);
  }
  std::uint16_t max_key_length = 0;
  result = check_tree_of_fork(fork, &node_size, &max_key_length);
  if (result != kvfs_ok) {
    kvfs_fork_destroy(&fork);
    return failure_value(result);
  }
  *out_fork = fork;
  *out_node_size = node_size;
  *out_max_key_length = max_key_length;
  return kvfs_ok;
}

// Opens the fork of a tree and fills in what its header record says.
static kvfs_result open_tree(kvfs_device* device, kvfs_extents* extents, int partial,
                             HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind, kvfs_btree* tree) {
  const kvfs_result result = kvfs_btree_process(volume_header, tree_kind, device, extents, partial, &tree->fork,
                                                &tree->nodeSize, &tree->maxKeyLength);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_create, "Error while reading %s B-Tree into memory.\n", kvfs_btree_type_name(tree_kind));
  }
  return result;
}

kvfs_result kvfs_btree_create(kvfs_device* device, kvfs_extents* extents, int partial,
                              HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind,
                              kvfs_btree_compare_keys compare, kvfs_btree** out_tree) {
  kvfs_owned<kvfs_btree> tree = kvfs_allocate_zeroed<kvfs_btree>();
  if (!tree) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_btree.\n", to_ull(sizeof(kvfs_btree)));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_btree_private> priv = kvfs_allocate_zeroed<kvfs_btree_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_btree_private.\n", to_ull(sizeof(kvfs_btree_private)));
    return kvfs_no_memory;
  }
  kvfs_result result = kvfs_rwlock_create(&priv->open_locators_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating open locators list lock.\n");
    return result;
  }
  result = open_tree(device, extents, partial, volume_header, tree_kind, tree.get());
  if (result != kvfs_ok) {
    if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
      KVFS_ERROR("Error while destroying B-tree open locators list lock on cleanup.\n");
    }
    return result;
  }
  priv->tree_kind = tree_kind;
  priv->compare = compare;
  priv->reserve = priv->work_left = kWorkReserve;
  tree->priv = priv.release();
  *out_tree = tree.release();
  return kvfs_ok;
}

// Frees every locator that is still open, whatever references it has.
static void release_leaked_locators(kvfs_btree_private* priv) {
  std::uint64_t released = 0;
  while (priv->open_locators != nullptr) {
    kvfs_btree_record_locator* leaked = priv->open_locators;
    const std::uintptr_t head = reinterpret_cast<std::uintptr_t>(leaked);
    kvfs_btree_record_locator_release(&leaked, true);
    ++released;
    if (reinterpret_cast<std::uintptr_t>(priv->open_locators) == head) {
      KVFS_CRITICAL_AS(kvfs_btree_destroy,
                       "Internal error: Closing head of B-tree open locators list did not change the head!\n");
      break;
    }
  }
  if (released != 0) {
    KVFS_WARNING_AS(kvfs_btree_destroy, "Cleaned up %llu leaked B-tree record locators on destroy.\n",
                    to_ull(released));
  }
}

void kvfs_btree_destroy(kvfs_btree** tree) {
  kvfs_btree_private* const priv = (*tree)->priv;
  {
    kvfs_write_guard guard(priv->open_locators_lock);
    if (guard.result() != kvfs_ok) {
      KVFS_ERROR("Error while acquiring open locators list lock! Leaking open locators on kvfs_btree destruction...\n");
    } else {
      release_leaked_locators(priv);
      if (guard.release() != kvfs_ok) {
        KVFS_ERROR("Error while unlocking B-tree open locators list lock.\n");
      }
    }
  }
  if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
    KVFS_ERROR("Error while destroying B-tree open locators list lock. Leaking...\n");
  }
  kvfs_fork_destroy(&(*tree)->fork);
  kvfs_zero_and_free(priv);
  kvfs_zero_and_free(*tree);
  *tree = nullptr;
}

// ---- Attributes nodes ----------------------------------------------------------------------------------------------

// The fixed part of an attribute's key; the name follows, its length in UTF-16 units in the last two bytes.
static constexpr std::uint32_t kAttributeKeySize = 14;
static constexpr std::uint32_t kAttributeNameLengthOffset = 12;
static constexpr std::uint32_t kAttributeInlineData = 16;

// Checks the record type of one attribute; false when the record leaves the node.
static bool check_attribute_record(const node_view& node, std::uint32_t index) {
  std::uint16_t offset = 0;
  if (!read_offset(node, index, &offset) || offset < kBTFirstRecordOffset || offset + kAttributeKeySize > node.size) {
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

// ---- Locators ------------------------------------------------------------------------------------------------------

// The block of a locator; the record copy follows it. The tag marks locators in a memory dump and is never tested.
struct tree_locator_block {
  char tag[8];
  std::size_t size;  // of the whole block, to zero it before it is freed
  kvfs_btree_record_locator locator;
  kvfs_btree_record_locator_private priv;
};

static const char kLocatorTag[] = "kvfsbrla";

static std::size_t record_capacity(const kvfs_btree_record_locator_private* priv) {
  return static_cast<const tree_locator_block*>(priv->allocation)->size - sizeof(tree_locator_block);
}

// Rejects bytes that cannot be a record and computes where a record's data begins.
static kvfs_result check_record(const unsigned char* record, std::size_t record_size, std::uint32_t* data_offset) {
  if (record == nullptr) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open, "Invalid parameter: record == NULL\n");
    return kvfs_invalid;
  }
  if (record_size == 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open, "Invalid parameter: record_size == 0\n");
    return kvfs_invalid;
  }
  if (record_size % 2 != 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Invalid parameter: record_size (%zu) is not aligned on a 2-byte boundary.\n", record_size);
    return kvfs_invalid;
  }
  const std::uint32_t key_length =
      kvfs_view_as<kvfs_be16>(record)->get() + static_cast<std::uint32_t>(sizeof(kvfs_be16));
  *data_offset = round_up_to_even(key_length);
  if (*data_offset > record_size) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Invalid parameter: Record size too small to contain key! Expected minimum: %zu Actual: %zu\n",
                  std::size_t{*data_offset}, record_size);
    return kvfs_invalid;
  }
  return kvfs_ok;
}

static kvfs_btree_record_locator* find_open_locator(const kvfs_btree* tree, std::uint32_t node, std::uint16_t index) {
  kvfs_btree_record_locator* locator = tree->priv->open_locators;
  while (locator != nullptr &&
         (locator->priv->deleted != 0 || locator->priv->node != node || locator->priv->index != index)) {
    locator = locator->priv->next;
  }
  return locator;
}

// What a locator is opened with.
struct locator_arguments {
  kvfs_btree* tree;
  std::uint32_t node;
  std::uint16_t index;
  const unsigned char* record;
  std::size_t record_size;
  std::uint32_t data_offset;       // in the record
  std::uint64_t fork_data_offset;  // in the fork
};

// Brings sizes and offsets of an open locator up to date with a record that is opened again, warning of each change.
static void update_shared_offsets(kvfs_btree_record_locator_private* priv, const locator_arguments& arguments) {
  const unsigned long node = to_ul(arguments.node);
  if (priv->record_size != arguments.record_size) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record sizes for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n", node,
        arguments.index, std::size_t{priv->record_size}, arguments.record_size);
    priv->record_size = static_cast<std::uint32_t>(arguments.record_size);
  }
  if (priv->record_data_offset != arguments.data_offset) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record data offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_data_offset}, std::size_t{arguments.data_offset});
    priv->record_data_offset = arguments.data_offset;
  }
  if (priv->record_key_offset != 0) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record key offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_key_offset}, std::size_t{0});
    priv->record_key_offset = 0;
  }
}

// Adds a reference to an open locator. Its public lengths and pointers stay as they were, and so does the room for its
// copy: who opens a record again is expected to find it at its old size (Q-btree-3). Only a vacant place may have
// become a longer record (X-btree-6): the search for the place of a new index record behind the last one of a node
// opens a locator there with the bytes of the record before, and inserting finds it open.
static kvfs_result share_locator(kvfs_btree_record_locator* locator, const locator_arguments& arguments) {
  kvfs_btree_record_locator_private* const priv = locator->priv;
  const unsigned long node = to_ul(arguments.node);
  if (priv->fork_data_offset != arguments.fork_data_offset) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching data pointer offset for node %lu, record %hu (stored: %llu specified: %llu). Using specified.\n",
        node, arguments.index, to_ull(priv->fork_data_offset), to_ull(arguments.fork_data_offset));
    priv->fork_data_offset = arguments.fork_data_offset;
  }
  if (priv->tree != arguments.tree) {
    KVFS_CRITICAL_AS(kvfs_btree_record_locator_open, "Mismatching btree pointers (%p != %p)! Internal error...\n",
                     static_cast<void*>(priv->tree), static_cast<void*>(arguments.tree));
    return kvfs_internal;
  }
  if (arguments.record_size > record_capacity(priv) && priv->is_vacant == 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Record %hu of node %lu has outgrown its open locator (from %zu to %zu bytes).\n", arguments.index,
                  node, record_capacity(priv), arguments.record_size);
    return kvfs_internal;
  }
  update_shared_offsets(priv, arguments);
  const std::size_t size = kvfs_min(arguments.record_size, record_capacity(priv));
  if (std::memcmp(priv->record, arguments.record, size) != 0) {
    KVFS_WARNING_AS(kvfs_btree_record_locator_open,
                    "Mismatching record data for node %lu, record %hu. Using specified.\n", node, arguments.index);
    std::memcpy(priv->record, arguments.record, size);
  }
  ++priv->reference_count;
  return kvfs_ok;
}

// Allocates a locator with a copy of its record and links it at the head of the list.
static kvfs_result create_locator(const locator_arguments& arguments, kvfs_btree_record_locator** out_locator) {
  const std::size_t size = sizeof(tree_locator_block) + arguments.record_size;
  tree_locator_block* const block = static_cast<tree_locator_block*>(std::calloc(1, size));
  if (block == nullptr) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Error while allocating %zu bytes for kvfs_btree_record_locator allocation.\n", size);
    return kvfs_no_memory;
  }
  unsigned char* const record = reinterpret_cast<unsigned char*>(block + 1);
  kvfs_btree_record_locator* const head = arguments.tree->priv->open_locators;
  std::memcpy(block->tag, kLocatorTag, sizeof(block->tag));
  block->size = size;
  std::memcpy(record, arguments.record, arguments.record_size);
  kvfs_btree_record_locator_private* const priv = &block->priv;
  priv->allocation = block;
  priv->next = head;
  priv->reference_count = 1;
  priv->node = arguments.node;
  priv->index = arguments.index;
  priv->fork_data_offset = arguments.fork_data_offset;
  priv->tree = arguments.tree;
  priv->record_data_offset = arguments.data_offset;
  priv->record_size = static_cast<std::uint32_t>(arguments.record_size);
  priv->record = record;
  const std::uint32_t key_length =
      kvfs_view_as<kvfs_be16>(record)->get() + static_cast<std::uint32_t>(sizeof(kvfs_be16));
  block->locator = {&priv->node,
                    &priv->index,
                    record,
                    key_length,
                    record + arguments.data_offset,
                    priv->record_size - arguments.data_offset,
                    priv};
  if (head != nullptr) {
    head->priv->previous = &block->locator;
  }
  arguments.tree->priv->open_locators = &block->locator;
  *out_locator = &block->locator;
  return kvfs_ok;
}

kvfs_result kvfs_btree_record_locator_open(kvfs_btree* tree, std::uint32_t node, std::uint16_t index,
                                           const unsigned char* record, std::size_t record_size, std::uint64_t position,
                                           kvfs_btree_record_locator** out_locator) {
  std::uint32_t data_offset = 0;
  kvfs_result result = check_record(record, record_size, &data_offset);
  if (result != kvfs_ok) {
    return result;
  }
  const locator_arguments arguments = {tree, node, index, record, record_size, data_offset, position + data_offset};
  kvfs_btree_record_locator* const open = find_open_locator(tree, node, index);
  if (open == nullptr) {
    return create_locator(arguments, out_locator);
  }
  result = share_locator(open, arguments);
  if (result == kvfs_ok) {
    *out_locator = open;
  }
  return result;
}

void kvfs_btree_record_locator_release(kvfs_btree_record_locator** locator, bool force) {
  kvfs_btree_record_locator_private* const priv = (*locator)->priv;
  *locator = nullptr;
  --priv->reference_count;
  if (priv->reference_count > 0 && !force) {
    return;
  }
  if (priv->next != nullptr) {
    priv->next->priv->previous = priv->previous;
  }
  if (priv->previous != nullptr) {
    priv->previous->priv->next = priv->next;
  } else {
    priv->tree->priv->open_locators = priv->next;
  }
  void* const allocation = priv->allocation;
  std::memset(allocation, 0, static_cast<tree_locator_block*>(allocation)->size);
  asm volatile("" : : "r"(allocation) : "memory");  // the stores look dead to the compiler: the memory is freed next
  std::free(allocation);
}

void kvfs_btree_record_locator_close(kvfs_btree_record_locator** locator) {
  kvfs_write_guard guard((*locator)->priv->tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking B-tree open locators list.\n");
    *locator = nullptr;  // Q-btree-4: the reference is leaked; touching the list without the lock could do worse
    return;
  }
  kvfs_btree_record_locator_release(locator, false);
  if (guard.release() != kvfs_ok) {
    KVFS_WARNING("Error while unlocking B-tree open locators list lock. Ignoring...\n");
  }
}

// Writes a record's data to the fork and to the locator's copy; the caller holds the tree's lock.
static kvfs_result write_record_data(kvfs_btree_record_locator* locator, const void* data, std::size_t data_size) {
  kvfs_btree_record_locator_private* const priv = locator->priv;
  if (data_size > record_capacity(priv) || priv->record_data_offset > record_capacity(priv) - data_size) {
    // X-btree-6: it was opened again with a longer key, and the public sizes are still those of the first opening.
    KVFS_ERROR_AS(kvfs_btree_record_locator_write_data,
                  "Record %hu of node %lu has changed its layout and cannot be written.\n", priv->index,
                  to_ul(priv->node));
    return kvfs_internal;
  }
  const kvfs_result result = kvfs_fork_write(priv->tree->fork, priv->fork_data_offset, data, data_size, nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_write_data, "Error while writing out record data.\n");
    return result;
  }
  if (data_size != 0) {
    std::memcpy(priv->record + priv->record_data_offset, data, data_size);
  }
  return kvfs_ok;
}

kvfs_result kvfs_btree_record_locator_write_data(kvfs_btree_record_locator* locator, const void* data,
                                                 std::size_t data_size) {
  if (locator->priv->deleted != 0) {
    KVFS_CRITICAL("Attempted to write data to deleted locator.\n");
    return kvfs_internal;
  }
  if (data_size != locator->data_size) {
    KVFS_ERROR(
        "Invalid parameter: data_size (%zu) not equal to data size in locator (%zu). Inline record expansion is not supported.\n",
        data_size, std::size_t{locator->data_size});
    return kvfs_invalid;
  }
  kvfs_read_guard guard(locator->priv->tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking open locators list.\n");
    return guard.result();
  }
  const kvfs_result result = write_record_data(locator, data, data_size);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while unlocking rwlock.\n");
  }
  return kvfs_result_keep(result, unlocked);
}

void kvfs_btree_shift_locators(kvfs_btree* tree, std::uint32_t node, std::int32_t first, std::int32_t count,
                               std::uint32_t target_node, bool subtract, std::uint16_t index_delta,
                               std::uint32_t byte_delta) {
  for (kvfs_btree_record_locator* locator = tree->priv->open_locators; locator != nullptr;
       locator = locator->priv->next) {
    kvfs_btree_record_locator_private* const priv = locator->priv;
    const std::int32_t index = priv->index;
    if (priv->deleted != 0 || priv->node != node || index < first || index >= first + count) {
      continue;
    }
    priv->node = target_node;
    const std::uint32_t shifted =
        subtract ? priv->index - std::uint32_t{index_delta} : priv->index + std::uint32_t{index_delta};
    priv->index = static_cast<std::uint16_t>(shifted);
    priv->fork_data_offset = subtract ? priv->fork_data_offset - byte_delta : priv->fork_data_offset + byte_delta;
  }
}

// ---- Work ----------------------------------------------------------------------------------------------------------

// Begins an operation that is granted some work. The one before may have used up a part of the reserve.
static void grant_work(kvfs_btree* tree, std::uint64_t work) {
  kvfs_btree_private* const priv = tree->priv;
  priv->reserve = kvfs_min(priv->reserve, priv->work_left);
  priv->work_left = priv->reserve + work;
}

// Takes account of work; false when there has been too much of it.
static bool spend_work(kvfs_btree* tree, std::uint64_t work) {
  kvfs_btree_private* const priv = tree->priv;
  priv->work_left -= kvfs_min(priv->work_left, work);
  return priv->work_left != 0;
}

// ---- Search --------------------------------------------------------------------------------------------------------
//
// A search ends, and soon, whatever the nodes say: see X-btree-2 for empty nodes, X-btree-3 for ways down, X-btree-4
// and X-btree-5 for keys, X-btree-17 for the searches of an operation together.

void kvfs_btree_search_result_init(kvfs_btree_search_result* result) {
  *result = {0, 0, nullptr};
}

void kvfs_btree_search_result_release(kvfs_btree_search_result* result) {
  if (result->locator != nullptr) {
    kvfs_btree_record_locator_close(&result->locator);
  }
  *result = {0, 0, nullptr};
}

// A search on its way down.
struct search_walk {
  kvfs_btree* tree;
  const void* key;
  std::uint8_t mode;
  std::uint8_t target_height;
  BTHeaderRec header;

  mapping map;  // of the current node
  node_view node;
  BTNodeDescriptor descriptor;
  std::uint32_t index;          // of the record looked at
  std::uint32_t previous_data;  // where the data of the record kept in mind begins, in the node; 0 without one

  std::uint32_t descents;
  std::uint64_t key_bytes;  // of all keys that were compared
  std::uint32_t odd_keys;   // comparisons with a key of a length that the tree's keys do not have

  bool done;
  kvfs_btree_search_result result;
};

// A record of the current node. The engine rounds nothing here: the data of an index record begins right behind its
// key, whose length is even in a sound tree (Q-btree-7).
struct node_record {
  std::uint16_t offset;
  std::uint16_t end;
  std::uint32_t data;
  bool key_inside;  // whether the whole key lies in the node
};

static kvfs_result report_bad_record(std::uint32_t node, std::uint32_t index) {
  KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                "Invalid node data: Record %lu of node %lu lies outside of the node.\n", to_ul(index), to_ul(node));
  return kvfs_inconsistent;
}

static kvfs_result report_too_much_work() {
  KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Aborting search: Too much work.\n");
  return kvfs_inconsistent;
}

// Takes up the node that was just mapped.
static kvfs_result enter_node(search_walk* walk, std::uint32_t node) {
  if (!spend_work(walk->tree, kWorkOfANode)) {
    return report_too_much_work();
  }
  walk->node = view_of(walk->tree, node, walk->map);
  walk->descriptor = descriptor_of(walk->node);
  walk->index = 0;
  walk->previous_data = 0;
  if (walk->descriptor.numRecords.get() == 0) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Invalid node data: Node %lu has no records.\n", to_ul(node));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result enter_start_node(search_walk* walk, std::uint32_t start) {
  const std::uint32_t total_nodes = walk->header.totalNodes.get();
  // A start node equal to the number of nodes passes here: Q-btree-5.
  if (start > total_nodes) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Starting Node %lu > Total Nodes %lu\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal), to_ul(start), to_ul(total_nodes));
    return kvfs_invalid;
  }
  const kvfs_result result = map_node(walk->tree, start, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while mapping raw node data.\n");
    return result;
  }
  std::uint16_t first = 0;
  if (!read_offset(view_of(walk->tree, start, walk->map), 0, &first)) {
    return report_bad_record(start, 0);
  }
  if (first != kBTFirstRecordOffset) {  // asked here alone: Q-btree-6
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal), to_ul(start), first,
                  std::size_t{kBTFirstRecordOffset});
    return kvfs_inconsistent;
  }
  return enter_node(walk, start);
}

static kvfs_result read_record(const search_walk* walk, std::uint32_t index, node_record* record) {
  if (!read_offset(walk->node, index, &record->offset) || !read_offset(walk->node, index + 1, &record->end)) {
    return report_bad_record(walk->node.number, index);
  }
  record->key_inside = read_key_end(walk->node, record->offset, &record->data);
  return kvfs_ok;
}

// Opens the locator of the search's result on the bytes of a record (X-btree-18) and ends the search.
static kvfs_result finish_search(search_walk* walk, const node_record& record, std::uint32_t index) {
  walk->done = true;
  if (record.end > walk->node.size) {
    return report_bad_record(walk->node.number, index);
  }
  if (record.end < record.offset) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Invalid node data: Record %lu of node %lu ends before it begins.\n",
                  to_ul(index), to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  const std::uint32_t node = walk->node.number;
  const kvfs_result result = kvfs_btree_record_locator_open(
      walk->tree, node, static_cast<std::uint16_t>(index), walk->node.bytes + record.offset, record.end - record.offset,
      fork_position(walk->tree, node, record.offset), &walk->result.locator);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_btree_record_locator_private* const place = walk->result.locator->priv;
  place->index_height = walk->descriptor.kind == kBTIndexNode ? walk->descriptor.height : std::uint8_t{0};
  if (index >= walk->descriptor.numRecords.get() && place->reference_count == 1) {
    place->is_vacant = 1;
  }
  return kvfs_ok;
}

// A node of another kind, or one above the height that is looked for, was walked to its end.
static kvfs_result finish_behind_last_record(search_walk* walk) {
  node_record last = {};
  const kvfs_result result = read_record(walk, walk->index - 1, &last);
  return result == kvfs_ok ? finish_search(walk, last, walk->index) : result;
}

static kvfs_result finish_in_leaf(search_walk* walk, const node_record& record, int order) {
  walk->result.found = order == 0 ? 1 : 0;
  walk->result.after = order < 0 ? 1 : 0;
  const kvfs_result result = finish_search(walk, record, walk->index);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "HFSPlus:%s: Not enough memory\n",
                  KVFS_NAME_OF(kvfs_btree_search_node_internal));  // or else: Q-btree-25
  }
  return result;
}

// Stops in an index node of the target height, at the place where a record with the search key belongs.
static kvfs_result finish_in_index_node(search_walk* walk, const node_record& record, int order) {
  walk->result.found = order == 0 ? 1 : 0;
  const kvfs_result result = finish_search(walk, record, order < 0 ? walk->index + 1 : walk->index);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while creating kvfs_btree_record_locator.\n");
  }
  return result;
}

// Goes down to a child. A search of a sound tree goes down fewer times than the tree has nodes, and than heights exist.
static kvfs_result descend(search_walk* walk, std::uint32_t child) {
  if (++walk->descents == kvfs_min(walk->header.totalNodes.get(), kMaximumHeight)) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Aborting search due to cyclic references in the B-tree.\n");
    return kvfs_inconsistent;
  }
  const std::uint64_t position = walk->map.offset;
  kvfs_result result = unmap_range(&walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while unmapping raw node data of node at offset %llu.\n",
                  to_ull(position));
    return result;
  }
  result = map_node(walk->tree, child, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Error while mapping raw node data of node %lu.\n", to_ul(child));
    return result;
  }
  return enter_node(walk, child);
}

// Reads the child that an index record leads to.
static kvfs_result read_child(const search_walk* walk, std::uint32_t data, std::uint32_t* child) {
  if (data + sizeof(kvfs_be32) > walk->node.size) {
    return report_bad_record(walk->node.number, walk->index);
  }
  *child = kvfs_view_as<kvfs_be32>(walk->node.bytes + data)->get();
  if (*child == walk->node.number) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal, "Index node points back to itself. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  if (*child >= walk->header.totalNodes.get()) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                  "Index node points to node after the last node. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result visit_index_record(search_walk* walk, const node_record& record, int order) {
  // A key before the first one of the node still goes down through record 0.
  const bool by_itself = walk->index == 0 || order <= 0 || walk->previous_data == 0;
  const std::uint32_t data = by_itself ? record.data : walk->previous_data;
  std::uint32_t child = 0;
  const kvfs_result result = read_child(walk, data, &child);
  if (result != kvfs_ok) {
    return result;
  }
  if (walk->mode != kSearchToLeaf && walk->target_height == walk->descriptor.height) {
    return finish_in_index_node(walk, record, order);
  }
  if (walk->mode != kSearchToLeaf && walk->target_height > walk->descriptor.height) {
    ++walk->index;  // the child kept in mind stays the one before the search key
    return kvfs_ok;
  }
  return descend(walk, child);
}

// Whether a key has a length that no key of such a tree has. The comparison says so and looks at the length alone.
static bool is_odd_key(std::uint32_t tree_kind, const void* key) {
  const std::uint16_t length = kvfs_view_as<kvfs_be16>(key)->get();
  return (tree_kind == kHFSExtentsFileID && length != kHFSPlusExtentKeyLength) ||
         (tree_kind == kHFSCatalogFileID && length < kHFSPlusCatalogKeyMinimumLength);
}

// Whether the comparison logs a message for each key, since the catalog's header names an order that does not exist.
static bool is_illegal_comparison(const search_walk& walk) {
  const std::uint8_t order = walk.header.keyCompareType;
  return walk.tree->priv->tree_kind == kHFSCatalogFileID && order != kHFSBinaryCompare && order != kHFSCaseFolding;
}

// Takes account of a key that is going to be compared, and ends a search that would go on for very long: one that meets
// more keys than a node of each height can hold, or fills the log with keys of a wrong length.
static kvfs_result count_key(search_walk* walk, const node_record& record, bool odd) {
  const std::uint64_t bytes = odd ? sizeof(kvfs_be16) : std::uint64_t{record.data} - record.offset;
  walk->key_bytes += bytes;
  walk->odd_keys += odd ? 1 : 0;
  if (walk->key_bytes > kMaximumHeight * std::uint64_t{walk->node.size}) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                  "Invalid node data: Keys of more than %lu nodes up to record %lu of node %lu.\n",
                  to_ul(kMaximumHeight), to_ul(walk->index), to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  if (walk->odd_keys > kMaximumOddKeys) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                  "Invalid node data: More than %lu keys of a wrong length, up to record %lu of node %lu.\n",
                  to_ul(kMaximumOddKeys), to_ul(walk->index), to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  const bool logged = odd || is_illegal_comparison(*walk);
  return spend_work(walk->tree, bytes + (logged ? kWorkOfAMessage : kWorkOfAKey)) ? kvfs_ok : report_too_much_work();
}

// Compares a record's key with the search key. In a node that has no keys the outcome does not matter, so that bytes
// that look like a key but leave the node are passed over there. The records of the header node, where the search in an
// empty tree begins, are compared nevertheless (Q-btree-8): it is the first node of its cache item, and whatever its
// map reads as ends in there.
static kvfs_result compare_record(search_walk* walk, const node_record& record, int* order) {
  const bool has_keys = walk->descriptor.kind == kBTLeafNode || walk->descriptor.kind == kBTIndexNode;
  const unsigned char* const key = walk->node.bytes + record.offset;
  const std::uint32_t kind = walk->tree->priv->tree_kind;
  const bool odd = record.data != 0 && (is_odd_key(kind, key) || is_odd_key(kind, walk->key));
  *order = 0;
  if (has_keys && !record.key_inside && !(record.data != 0 && is_odd_key(kind, key))) {
    return report_bad_record(walk->node.number, walk->index);
  }
  if (has_keys || odd) {
    const kvfs_result counted = count_key(walk, record, odd);
    if (counted != kvfs_ok) {
      return counted;
    }
  }
  if (has_keys || odd || record.key_inside || walk->node.number == 0) {
    *order = walk->tree->priv->compare(key, walk->key, walk->header.keyCompareType);
  }
  if (has_keys && *order == kvfs_key_malformed) {
    KVFS_ERROR_AS(kvfs_btree_search_node_internal,
                  "Invalid node data: The key of record %lu of node %lu contradicts itself.\n", to_ul(walk->index),
                  to_ul(walk->node.number));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Looks at one record and moves on: to the next record, down to a child or to the end of the search.
static kvfs_result visit_record(search_walk* walk) {
  const std::uint32_t count = walk->descriptor.numRecords.get();
  if (walk->index >= count) {
    return finish_behind_last_record(walk);
  }
  node_record record = {};
  kvfs_result result = read_record(walk, walk->index, &record);
  if (result != kvfs_ok) {
    return result;
  }
  int order = 0;
  result = compare_record(walk, record, &order);
  if (result != kvfs_ok) {
    return result;
  }
  const bool before_last = walk->index + 1 < count;
  const bool is_leaf = walk->descriptor.kind == kBTLeafNode;
  const bool is_index = walk->descriptor.kind == kBTIndexNode;
  if ((order < 0 && before_last) || (!is_leaf && !is_index)) {
    walk->previous_data = record.data;
    ++walk->index;
    return kvfs_ok;
  }
  return is_leaf ? finish_in_leaf(walk, record, order) : visit_index_record(walk, record, order);
}

// Searches with the header record in `walk`; the node looked at last stays mapped for the caller.
static kvfs_result search_from(search_walk* walk, std::uint32_t start_node) {
  kvfs_result result = enter_start_node(walk, start_node != 0 ? start_node : walk->header.rootNode.get());
  while (result == kvfs_ok && !walk->done) {
    result = visit_record(walk);
  }
  return result;
}

kvfs_result kvfs_btree_search_node_internal(kvfs_btree* tree, const void* key, std::uint32_t start_node,
                                            std::uint8_t mode, std::uint8_t target_height,
                                            kvfs_btree_search_result* out_result) {
  if (key == nullptr) {
    KVFS_ERROR("HFSPlus:%s: Invalid Search key\n", __func__);
    return kvfs_invalid;
  }
  mapping header;
  kvfs_result result = map_header_record(tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping B-tree header record.\n");
    return result;
  }
  search_walk walk = {};
  walk.tree = tree;
  walk.key = key;
  walk.mode = mode;
  walk.target_height = target_height;
  walk.header = *kvfs_view_as<BTHeaderRec>(header.bytes);
  result = search_from(&walk, start_node);
  const kvfs_result node_unmapped = unmap_range(&walk.map);
  if (node_unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping raw node data.\n");
  }
  const kvfs_result header_unmapped = unmap_range(&header);
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping B-tree header record.\n");
  }
  result = kvfs_result_keep(kvfs_result_keep(result, node_unmapped), header_unmapped);
  if (result == kvfs_ok) {
    *out_result = walk.result;
  } else if (walk.result.locator != nullptr) {
    kvfs_btree_record_locator_release(&walk.result.locator, false);
  }
  return result;
}

kvfs_result kvfs_btree_search_node(kvfs_btree* tree, const void* key, kvfs_btree_search_result* out_result) {
  kvfs_write_guard guard(tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring open locators list lock in write mode.\n");
    return guard.result();
  }
  grant_work(tree, kWorkOfASearch);
  kvfs_btree_search_result found = {};
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToLeaf, 0, &found);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while releasing open locators list read-mode lock.\n");  // held for writing: Q-btree-25
    if (found.locator != nullptr) {
      kvfs_btree_record_locator_release(&found.locator, false);  // X-lock-1: the caller will not see it
    }
  } else if (result == kvfs_ok) {
    *out_result = found;
  }
  return kvfs_result_keep(result, unlocked);
}

// ---- Iteration -----------------------------------------------------------------------------------------------------

// A place in the tree: a node that is mapped and a record in it.
struct record_place {
  kvfs_btree* tree;
  mapping map;
  node_view node;
  BTNodeDescriptor descriptor;
  std::uint32_t index;
};

static void take_up_node(record_place* place, std::uint32_t node) {
  place->node = view_of(place->tree, node, place->map);
  place->descriptor = descriptor_of(place->node);
}

// Moves on to the first record of the next node. Only one step is taken: an empty node is not passed over
// (Q-btree-9).
static kvfs_result step_to_next_node(record_place* place) {
  const std::uint32_t next = place->descriptor.fLink.get();
  kvfs_result result = unmap_range(&place->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while unmapping original raw node data.\n");
    return result;
  }
  result = map_node(place->tree, next, &place->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while mapping raw node data of next node.\n");
    return result;
  }
  take_up_node(place, next);
  place->index = 0;
  return kvfs_ok;
}

// Reads an offset of the table and checks that it lies between the descriptor and the table. An entry behind the free
// space's, as that of record 1 in an empty node, is none, whatever bytes are there.
static kvfs_result read_checked_offset(const record_place& place, std::uint32_t index, std::uint16_t* offset) {
  const std::uint32_t count = place.descriptor.numRecords.get();
  *offset = 0;
  const bool exists = read_offset(place.node, index, offset) && index <= count;
  if (!exists || *offset < kBTFirstRecordOffset || *offset > offset_entry_position(place.node.size, count)) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                  "Invalid node data: Offset for record %hu is out of range (%hu).\n",
                  static_cast<unsigned short>(index), *offset);
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Opens a locator on the record of a place, after a check of the offset table.
static kvfs_result open_record_at(const record_place& place, kvfs_btree_record_locator** out_locator) {
  const std::uint16_t count = place.descriptor.numRecords.get();
  const unsigned short index = static_cast<unsigned short>(place.index);
  if (!has_offset_entry(place.node.size, count)) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                  "Invalid node data: Node cannot fit %hu records given the node size (%hu).\n", count,
                  place.tree->nodeSize);
    return kvfs_inconsistent;
  }
  std::uint16_t offset = 0;
  std::uint16_t end = 0;
  kvfs_result result = read_checked_offset(place, place.index, &offset);
  if (result == kvfs_ok) {
    result = read_checked_offset(place, place.index + 1, &end);
  }
  if (result != kvfs_ok) {
    return result;
  }
  if (end < offset) {
    KVFS_ERROR_AS(
        kvfs_btree_get_next_record_internal,
        "Invalid node data: Records offsets are not in order (offset for record %hu: %hu, offset for record %hu: %hu).\n",
        index, offset, static_cast<unsigned short>(place.index + 1), end);
    return kvfs_inconsistent;
  }
  result = kvfs_btree_record_locator_open(place.tree, place.node.number, index, place.node.bytes + offset, end - offset,
                                          fork_position(place.tree, place.node.number, offset), out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Error while creating target record locator.\n");
  }
  return result;
}

// Opens the record of a place whose node is mapped, or the first one of the next node. The node looked at last stays
// mapped for the caller.
static kvfs_result open_next_record(record_place* place, kvfs_btree_record_locator** out_locator) {
  const std::int8_t kind = place->descriptor.kind;
  const std::uint16_t count = place->descriptor.numRecords.get();
  if (kind != kBTLeafNode && kind != kBTIndexNode) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal, "Invalid node kind: %hhd\n", kind);
    return kvfs_inconsistent;
  }
  if (place->index > count) {
    KVFS_ERROR_AS(kvfs_btree_get_next_record_internal,
                  "Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
                  static_cast<unsigned short>(place->index), count);
    return kvfs_inconsistent;
  }
  if (place->index == count) {
    if (place->descriptor.fLink.get() == 0) {
      return kvfs_ok;
    }
    const kvfs_result stepped = step_to_next_node(place);
    if (stepped != kvfs_ok) {
      return stepped;
    }
  }
  return open_record_at(*place, out_locator);
}

kvfs_result kvfs_btree_get_next_record_internal(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                                kvfs_btree_record_locator** out_locator) {
  record_place place = {};
  place.tree = tree;
  kvfs_result result = map_node(tree, *locator->node, &place.map);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping raw node data.\n");
    return result;
  }
  take_up_node(&place, *locator->node);
  place.index = std::uint32_t{*locator->index} + 1;
  kvfs_btree_record_locator* next = nullptr;
  result = open_next_record(&place, &next);
  const kvfs_result unmapped = unmap_range(&place.map);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping raw node data.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_locator = next;
  } else if (next != nullptr) {
    kvfs_btree_record_locator_release(&next, false);
  }
  return result;
}

kvfs_result kvfs_btree_get_next_record(kvfs_btree* tree, const kvfs_btree_record_locator* locator,
                                       kvfs_btree_record_locator** out_locator) {
  kvfs_write_guard guard(tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring open locators list lock in write mode.\n");
    return guard.result();
  }
  kvfs_btree_record_locator* next = nullptr;
  const kvfs_result result = kvfs_btree_get_next_record_internal(tree, locator, &next);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while releasing open locators list read-mode lock.\n");  // held for writing: Q-btree-25
    if (next != nullptr) {
      kvfs_btree_record_locator_release(&next, false);  // X-lock-1: the caller will not see it
    }
  } else if (result == kvfs_ok) {
    *out_locator = next;
  }
  return kvfs_result_keep(result, unlocked);
}

// ---- Node buffers --------------------------------------------------------------------------------------------------

// A copy of a node that a change works on; `view` leads into it.
struct node_buffer {
  kvfs_owned<unsigned char> bytes;
  node_view view;
};

static bool allocate_node(const kvfs_btree* tree, node_buffer* buffer) {
  buffer->bytes = kvfs_allocate_bytes(tree->nodeSize);
  buffer->view = {buffer->bytes.get(), tree->nodeSize, 0};
  return static_cast<bool>(buffer->bytes);
}

static kvfs_result read_node(kvfs_btree* tree, std::uint32_t node, node_buffer* buffer) {
  (void)spend_work(tree, tree->nodeSize / kNodeBytesOfOneUnit);  // the next search ends when that was too much
  buffer->view.number = node;
  return kvfs_fork_read(tree->fork, fork_position(tree, node, 0), buffer->view.bytes, tree->nodeSize, nullptr);
}

static kvfs_result read_descriptor(kvfs_btree* tree, std::uint32_t node, BTNodeDescriptor* descriptor) {
  return kvfs_fork_read(tree->fork, fork_position(tree, node, 0), descriptor, sizeof(*descriptor), nullptr);
}

static kvfs_result write_node(kvfs_btree* tree, const node_buffer& buffer) {
  return kvfs_fork_write(tree->fork, fork_position(tree, buffer.view.number, 0), buffer.view.bytes, tree->nodeSize,
                         nullptr);
}

static void store_descriptor(const node_buffer& buffer, const BTNodeDescriptor& descriptor) {
  std::memcpy(buffer.view.bytes, &descriptor, sizeof(descriptor));
}

static void store_offset(const node_buffer& buffer, std::uint32_t index, std::uint32_t offset) {
  kvfs_view_as<kvfs_be16>(buffer.view.bytes + offset_entry_position(buffer.view.size, index))
      ->set(static_cast<std::uint16_t>(offset));
}

// An entry of an offset table that is known to hold it.
static std::uint16_t offset_at(const node_view& node, std::uint32_t index) {
  std::uint16_t offset = 0;
  (void)read_offset(node, index, &offset);
  return offset;
}

// Where the offset table of a node with `count` records begins.
static std::uint32_t offset_table_start(const node_view& node, std::uint32_t count) {
  return offset_entry_position(node.size, count);
}

static kvfs_result read_header_record(kvfs_btree* tree, BTHeaderRec* header) {
  return kvfs_fork_read(tree->fork, kBTHeaderRecordOffset, header, sizeof(*header), nullptr);
}

static kvfs_result write_header_record(kvfs_btree* tree, const BTHeaderRec& header) {
  return kvfs_fork_write(tree->fork, kBTHeaderRecordOffset, &header, sizeof(header), nullptr);
}

// The key at an offset of a node; null, with a message, when it leaves the node.
static const unsigned char* key_at(const char* speaker, const node_view& node, std::uint32_t offset) {
  std::uint32_t end = 0;
  if (!read_key_end(node, offset, &end)) {
    KVFS_ERROR_BY(speaker, "Invalid node data: Key at offset %lu of node %lu lies outside of the node.\n",
                  to_ul(offset), to_ul(node.number));
    return nullptr;
  }
  return node.bytes + offset;
}

// Whether the index above a node of some height can be maintained. To be asked before the first change: a change that
// ends half-way has to be discarded.
static kvfs_result check_levels_above(const char* speaker, std::uint8_t height, std::uint16_t depth) {
  if (height >= depth) {
    return kvfs_ok;  // it is the root
  }
  if (height == UINT8_MAX) {
    KVFS_ERROR_BY(speaker, "B-tree depth too large.\n");  // the height above has to fit a byte
    return kvfs_inconsistent;
  }
  if (depth > kMaximumMaintainedDepth) {
    KVFS_ERROR_BY(speaker, "B-tree of depth %hu is too deep to be maintained.\n", depth);
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static std::uint8_t height_above(std::uint8_t height) {
  return static_cast<std::uint8_t>(height + 1);
}

// ---- Insertion -----------------------------------------------------------------------------------------------------
//
// The index of a tree that is too deep is not maintained: X-btree-10.

// A record on its way into the tree.
struct insertion {
  kvfs_btree* tree;
  const void* key;
  std::uint16_t key_length;  // without the length field
  const void* data;
  std::uint16_t data_size;
  std::uint32_t record_size;  // in the node, with pads and the key's length field

  node_buffer node;             // where the record goes
  BTNodeDescriptor descriptor;  // of that node
  std::uint32_t count;          // its records, before the insertion
  std::uint32_t index;          // of the new record
};

// Descriptor, two entries of the offset table: what a node with a single record holds besides it.
static constexpr std::uint32_t kSingleRecordOverhead = sizeof(BTNodeDescriptor) + std::size_t{2} * kOffsetEntrySize;

// A node is taken to be damaged when its table leaves no room for this many more entries.
static constexpr std::uint32_t kSpareOffsetEntries = 8;

static std::uint32_t record_size_for(std::uint16_t key_length, std::uint16_t data_size) {
  return round_up_to_even(key_length) + round_up_to_even(data_size) + static_cast<std::uint32_t>(sizeof(kvfs_be16));
}

static void take_up_insertion_node(insertion* insert) {
  insert->descriptor = descriptor_of(insert->node.view);
  insert->count = insert->descriptor.numRecords.get();
}

static bool table_has_room(const insertion& insert) {
  return (insert.count + kSpareOffsetEntries) * kOffsetEntrySize <= insert.tree->nodeSize;
}

static std::int64_t free_space(const insertion& insert) {
  const std::int64_t table = kOffsetEntrySize * (std::int64_t{insert.count} + 1);
  return std::int64_t{insert.tree->nodeSize} - offset_at(insert.node.view, insert.count) - table;
}

static bool fits_in_place(const insertion& insert) {
  return free_space(insert) >= std::int64_t{insert.record_size} + kOffsetEntrySize;
}

// Searches for the place of a new key.
static kvfs_result find_insert_location(kvfs_btree* tree, const void* key, kvfs_btree_search_result* place) {
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToLeaf, 0, place);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while searching for insert location.\n");
    return result;
  }
  if (place->locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "ERROR:Unable to insert because kvfs_btree_search_node returned NULL when looking up insert location!\n");
    return kvfs_internal;
  }
  if (place->found != 0) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "ERROR:Unable to insert because already exists?!\n");
    kvfs_btree_record_locator_release(&place->locator, false);
    return kvfs_exists;
  }
  return kvfs_ok;
}

// Reads the node of a search result and turns the result into the index of the new record.
static kvfs_result take_up_place(insertion* insert, const kvfs_btree_search_result& place) {
  kvfs_btree* const tree = insert->tree;
  if (!allocate_node(tree, &insert->node)) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  const kvfs_result result = read_node(tree, *place.locator->node, &insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while reading complete node data of node where record should be inserted.\n");
    return result;
  }
  take_up_insertion_node(insert);
  insert->index = *place.locator->index;
  if (insert->index != insert->count && place.after != 0) {
    ++insert->index;
  }
  return kvfs_ok;
}

// Finds the node and the index of the new record, by the hint, which is not questioned (Q-btree-10), or by a search of
// its own.
static kvfs_result position_insertion(insertion* insert, const kvfs_btree_search_result* hint) {
  if (hint != nullptr && hint->locator != nullptr) {
    return take_up_place(insert, *hint);
  }
  kvfs_btree_search_result place;
  kvfs_btree_search_result_init(&place);
  kvfs_result result = find_insert_location(insert->tree, insert->key, &place);
  if (result != kvfs_ok) {
    return result;
  }
  result = take_up_place(insert, place);
  kvfs_btree_record_locator_release(&place.locator, false);
  return result;
}

static kvfs_result report_bad_insert_offset(std::uint32_t node, std::uint32_t index) {
  KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                "Invalid node data: Record %lu of node %lu lies outside of the node.\n", to_ul(index), to_ul(node));
  return kvfs_inconsistent;
}

// Checks the node around the place of the new record, and that the record fits an empty node
// (X-btree-7).
static kvfs_result check_insertion(const insertion& insert) {
  const std::uint16_t node_size = insert.tree->nodeSize;
  if (!table_has_room(insert)) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Invalid node data: Value of 'numRecords' (%hu) is too large for %hu byte node.\n",
                  insert.descriptor.numRecords.get(), node_size);
    return kvfs_inconsistent;
  }
  if (insert.index > insert.count) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Invalid position: Record %lu does not follow the %lu records of node %lu.\n", to_ul(insert.index),
                  to_ul(insert.count), to_ul(insert.node.view.number));
    return kvfs_inconsistent;
  }
  const std::uint16_t end = offset_at(insert.node.view, insert.count);
  const std::uint16_t offset = offset_at(insert.node.view, insert.index);
  if (insert.index < insert.count) {
    const std::uint16_t next = offset_at(insert.node.view, insert.index + 1);
    if (offset > next || end < next) {
      return kvfs_inconsistent;  // without a message: Q-btree-11
    }
  }
  if (end > node_size) {
    return kvfs_inconsistent;  // likewise
  }
  if (offset < kBTFirstRecordOffset) {
    return report_bad_insert_offset(insert.node.view.number, insert.index);
  }
  if (insert.record_size + kSingleRecordOverhead > node_size) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Record cannot fit in a node given the B-tree's node size of %hu bytes (need %zu bytes).\n",
                  node_size, std::size_t{insert.record_size} + kSingleRecordOverhead);
    return kvfs_limit;
  }
  return kvfs_ok;
}

// ---- The split point -----------------------------------------------------------------------------------------------

// Finds the record at which a full node is split: the one for which the two halves, with the new record counted in,
// differ least in size. Sizes grow with the index, so that a binary search does; of equals the first one found stays
// (Q-btree-12).
struct split_search {
  std::int64_t total;         // bytes in use after the insertion, descriptor included
  std::int64_t best;          // smallest difference so far
  std::int64_t best_index;    // min_occupied_size_record: where it was found
  std::int64_t split_size;    // what the node would hold that is split at the index looked at
  std::int64_t claimed_size;  // what the claimed node would hold
};

// Where the upper half begins, in the node as it would be after the insertion.
static std::int64_t split_boundary(const insertion& insert, std::uint32_t middle) {
  const std::int64_t size = insert.record_size;
  if (insert.index < middle) {
    return offset_at(insert.node.view, middle) + size;
  }
  return middle < insert.count ? std::int64_t{offset_at(insert.node.view, middle + 1)}
                               : offset_at(insert.node.view, middle) + size;
}

// Weighs a split before record `middle`.
static kvfs_result weigh_split(const insertion& insert, std::uint32_t middle, split_search* search) {
  const std::int64_t node_size = insert.tree->nodeSize;
  const std::int64_t boundary = split_boundary(insert, middle);
  const std::int64_t moved = std::int64_t{insert.count} - middle;
  search->split_size = boundary + kOffsetEntrySize * (std::int64_t{middle} + 1);
  search->claimed_size = search->total - boundary + kOffsetEntrySize * (moved + 2) + kBTFirstRecordOffset;
  if (search->claimed_size < 0) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Invalid node data: Record %lu of node %lu lies outside of the node.\n", to_ul(middle),
                  to_ul(insert.node.view.number));
    return kvfs_inconsistent;
  }
  if (search->split_size > node_size && search->claimed_size > node_size) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "Internal error: Occupied size for both split (%lu) and claimed (%lu) nodes exceed the node size (%hu)!\n",
        static_cast<unsigned long>(search->split_size), static_cast<unsigned long>(search->claimed_size),
        insert.tree->nodeSize);
    return kvfs_internal;
  }
  const std::int64_t difference = search->split_size > search->claimed_size ? search->split_size - search->claimed_size
                                                                            : search->claimed_size - search->split_size;
  if (difference < search->best) {
    search->best = difference;
    search->best_index = middle;
  }
  return kvfs_ok;
}

// Chooses the split point of a full node.
static kvfs_result choose_split(const insertion& insert, std::uint16_t* split_index) {
  const std::int64_t total = std::int64_t{offset_at(insert.node.view, insert.count)} + insert.record_size;
  split_search search = {total, insert.count + total - kBTFirstRecordOffset, -1, 0, 0};
  std::uint32_t low = 0;
  std::uint32_t high = insert.count;
  while (low != high) {
    const std::uint32_t middle = low + (high + 1 - low) / 2;
    const kvfs_result result = weigh_split(insert, middle, &search);
    if (result != kvfs_ok) {
      return result;
    }
    if (search.split_size >= search.claimed_size) {
      if (search.split_size == search.claimed_size || low == middle) {
        break;
      }
      high = middle - 1;
    } else {
      if (high == middle) {
        break;
      }
      low = middle + 1;
    }
  }
  if (search.best_index < 0 || search.best_index > UINT16_MAX) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal,
                     "Internal error: Invalid value for 'min_occupied_size_record' (%ld).\n",
                     static_cast<long>(search.best_index));
    return kvfs_internal;
  }
  *split_index = static_cast<std::uint16_t>(search.best_index);
  return kvfs_ok;
}

// The record offsets that a split relies on must be in order.
static kvfs_result check_split_offsets(const insertion& insert) {
  const node_view& node = insert.node.view;
  const std::uint16_t first = offset_at(node, 0);
  const std::uint16_t offset = offset_at(node, insert.index);
  const std::uint16_t end = offset_at(node, insert.count);
  const std::uint32_t table = offset_table_start(node, insert.count);
  if (first > offset || offset > end || end > table) {
    KVFS_ERROR_AS(
        kvfs_btree_insert_record_internal,
        "Invalid node data: Record offsets are not in order (record 0: %hu, record %hu: %hu, free space: %hu, record offset array: %hu).\n",
        first, static_cast<unsigned short>(insert.index), offset, end, static_cast<unsigned short>(table));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Takes up the half of a split node that the new record belongs to.
static kvfs_result take_up_half(insertion* insert, std::uint16_t split_index, std::uint32_t new_node) {
  std::uint32_t node = insert->node.view.number;
  // At the split index itself the record is appended to the node that was split: Q-btree-12.
  if (insert->index > split_index) {
    node = new_node;
    insert->index -= split_index;
  }
  const kvfs_result result = read_node(insert->tree, node, &insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading complete node data of claimed node.\n");
    return result;
  }
  take_up_insertion_node(insert);
  if (!table_has_room(*insert)) {
    KVFS_CRITICAL_AS(
        kvfs_btree_insert_record_internal,
        "Invalid node data in newly claimed node: Value of 'numRecords' (%hu) is too large for %hu byte node.\n",
        insert->descriptor.numRecords.get(), insert->tree->nodeSize);
    return kvfs_inconsistent;
  }
  if (insert->index > insert->count || offset_at(insert->node.view, insert->index) < kBTFirstRecordOffset) {
    return report_bad_insert_offset(node, insert->index);
  }
  if (!fits_in_place(*insert)) {  // X-btree-8
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Record of %lu bytes does not fit node %lu, even after a split.\n",
                  to_ul(insert->record_size), to_ul(node));
    return kvfs_internal;
  }
  return kvfs_ok;
}

static kvfs_result split_for_insertion(insertion* insert) {
  kvfs_result result = check_split_offsets(*insert);
  if (result != kvfs_ok) {
    return result;
  }
  std::uint16_t split_index = 0;
  result = choose_split(*insert, &split_index);
  if (result != kvfs_ok) {
    return result;
  }
  std::uint32_t new_node = 0;
  result = kvfs_btree_split_node(insert->tree, insert->node.view.number, split_index, &new_node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while splitting node.\n");
    return result;
  }
  if (new_node == 0) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal, "Unexpected: kvfs_btree_split_node returned 0.\n");
    return kvfs_internal;
  }
  return take_up_half(insert, split_index, new_node);
}

// ---- Inserting in place --------------------------------------------------------------------------------------------

kvfs_result kvfs_btree_node_make_record(const void* key, std::uint16_t key_length, const void* data,
                                        std::uint16_t data_size, unsigned char* destination,
                                        std::uint16_t record_size) {
  const std::size_t key_size = key_length + sizeof(kvfs_be16);
  if (key_size > record_size) {
    KVFS_CRITICAL("Not enough space for the record key.\n");
    return kvfs_internal;
  }
  std::memcpy(destination, key, key_size);
  std::size_t cur_offset = key_size;
  if (key_length % 2 != 0) {
    if (cur_offset + 1 > record_size) {
      KVFS_CRITICAL("Not enough space for record key padding.\n");
      return kvfs_internal;
    }
    destination[cur_offset++] = 0;
  }
  if (cur_offset + data_size > record_size) {
    KVFS_CRITICAL("Not enough space for the record data.\n");
    return kvfs_internal;
  }
  if (data_size != 0) {
    std::memcpy(destination + cur_offset, data, data_size);
  }
  cur_offset += data_size;
  if (data_size % 2 != 0) {
    if (cur_offset + 1 > record_size) {
      KVFS_CRITICAL("Not enough space for record data padding.\n");
      return kvfs_internal;
    }
    destination[cur_offset++] = 0;
  }
  if (cur_offset != record_size) {
    KVFS_CRITICAL("Unexpected: Calculation mismatch between cur_offset (%zu) and record_size (%hu).\n", cur_offset,
                  record_size);
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Makes room in the node buffer and puts the record there.
static kvfs_result place_record(insertion* insert) {
  const node_view& node = insert->node.view;
  const std::uint32_t size = insert->record_size;
  const std::uint16_t offset = offset_at(node, insert->index);
  const std::uint16_t end = offset_at(node, insert->count);
  if (offset > end) {
    return report_bad_insert_offset(node.number, insert->index);
  }
  std::memmove(node.bytes + offset + size, node.bytes + offset, static_cast<std::size_t>(end - offset));
  const kvfs_result result =
      kvfs_btree_node_make_record(insert->key, insert->key_length, insert->data, insert->data_size, node.bytes + offset,
                                  static_cast<std::uint16_t>(size));
  if (result != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_btree_insert_record_internal,
                     "Unexpected: Error while assembling B-tree node record from source key and data.");
    return result;
  }
  for (std::uint32_t record = insert->count + 1; record > insert->index; --record) {
    store_offset(insert->node, record, offset_at(node, record - 1) + size);
  }
  insert->descriptor.numRecords.set(static_cast<std::uint16_t>(insert->count + 1));
  store_descriptor(insert->node, insert->descriptor);
  return kvfs_ok;
}

// Counts a record that was added to a leaf.
static kvfs_result count_inserted_leaf_record(kvfs_btree* tree) {
  BTHeaderRec header = {};
  kvfs_result result = read_header_record(tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading B-tree header record.\n");
    return result;
  }
  header.leafRecords.set(header.leafRecords.get() + 1);
  result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal,
                  "Error while writing out incremented leaf record count in header record.\n");
  }
  return result;
}

// Searches for an index record of a height that is there or is not, as `found` says. In a damaged tree the search ends
// elsewhere, in a leaf or in an index node of another height, whose records must not be taken for those of that height
// (X-btree-9).
static kvfs_result search_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, std::uint32_t found,
                                       kvfs_btree_search_result* place) {
  kvfs_btree_search_result_init(place);
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToHeight, height, place);
  if (result == kvfs_ok && place->locator != nullptr && place->found == found &&
      place->locator->priv->index_height != height) {
    kvfs_btree_record_locator_release(&place->locator, false);
    return kvfs_inconsistent;
  }
  return result;
}

// Deletes the index record that leads to a node by the key that was its first one.
static kvfs_result delete_former_index_record(kvfs_btree* tree, const void* former_key, std::uint8_t height) {
  kvfs_btree_search_result found;
  kvfs_result result = search_index_record(tree, former_key, height, 1, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while searching for index node to modify.\n");
    return result;
  }
  if (found.found == 0) {
    result = kvfs_inconsistent;  // without a message: Q-btree-11
  } else {
    result = kvfs_btree_delete_record_internal(tree, found.locator, 0);
    if (result != kvfs_ok) {
      // An index record: Q-btree-25.
      KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while deleting file/folder record from B-tree.\n");
    }
  }
  kvfs_btree_record_locator_release(&found.locator, false);
  return result;
}

// Replaces the index record of a node that has a new first key.
static kvfs_result replace_index_record(const insertion& insert) {
  const std::uint32_t former_offset = kBTFirstRecordOffset + insert.record_size;
  const std::uint8_t height = height_above(insert.descriptor.height);
  const unsigned char* const former_key =
      key_at(KVFS_NAME_OF(kvfs_btree_insert_record_internal), insert.node.view, former_offset);
  if (former_key == nullptr) {
    return kvfs_inconsistent;
  }
  kvfs_result result = delete_former_index_record(insert.tree, former_key, height);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_add_index_record(insert.tree, insert.key, height, insert.node.view.number);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while adding index record.\n");
  }
  return result;
}

// Brings counts and index in line with a record that was written.
static kvfs_result maintain_after_insertion(const insertion& insert) {
  kvfs_result result = kvfs_ok;
  if (insert.descriptor.kind == kBTLeafNode) {
    result = count_inserted_leaf_record(insert.tree);
    if (result != kvfs_ok) {
      return result;
    }
  }
  BTHeaderRec header = {};
  result = read_header_record(insert.tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading header record.\n");
    return result;
  }
  if (insert.index != 0 || insert.descriptor.height >= header.treeDepth.get()) {
    return kvfs_ok;
  }
  return replace_index_record(insert);
}

// Inserts the record into a node that has room for it.
static kvfs_result insert_in_place(insertion* insert, kvfs_btree_record_locator** out_locator) {
  kvfs_btree* const tree = insert->tree;
  const std::uint32_t node = insert->node.view.number;
  const std::uint16_t offset = offset_at(insert->node.view, insert->index);
  const bool moves_records = offset != offset_at(insert->node.view, insert->count);
  kvfs_result result = place_record(insert);
  if (result != kvfs_ok) {
    return result;
  }
  result = write_node(tree, insert->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while writing out modified node after inserting record.\n");
    return result;
  }
  if (moves_records) {  // and with them the place behind the last one, which a locator may stand for
    kvfs_btree_shift_locators(tree, node, static_cast<std::int32_t>(insert->index),
                              static_cast<std::int32_t>(insert->count - insert->index + 1), node, false, 1,
                              insert->record_size);
  }
  result = maintain_after_insertion(*insert);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_record_locator_open(tree, node, static_cast<std::uint16_t>(insert->index),
                                          insert->node.view.bytes + offset, insert->record_size,
                                          fork_position(tree, node, offset), out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while creating kvfs_btree_record_locator.\n");
  }
  return result;
}

// Refuses an insertion that changes the index of a tree too deep for that: a split does, and a new first record.
static kvfs_result check_insertion_depth(const insertion& insert) {
  if (insert.index != 0 && fits_in_place(insert)) {
    return kvfs_ok;
  }
  BTHeaderRec header = {};
  const kvfs_result result = read_header_record(insert.tree, &header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_insert_record_internal, "Error while reading header record.\n");
    return result;
  }
  return check_levels_above(KVFS_NAME_OF(kvfs_btree_insert_record_internal), insert.descriptor.height,
                            header.treeDepth.get());
}

kvfs_result kvfs_btree_insert_record_internal(kvfs_btree* tree, const void* key, const void* data,
                                              std::uint16_t data_size, const kvfs_btree_search_result* hint,
                                              kvfs_btree_record_locator** out_locator) {
  const std::uint16_t key_length = key == nullptr ? std::uint16_t{0} : kvfs_view_as<kvfs_be16>(key)->get();
  insertion insert = {};
  insert.tree = tree;
  insert.key = key;
  insert.key_length = key_length;
  insert.data = data;
  insert.data_size = data_size;
  insert.record_size = record_size_for(key_length, data_size);
  kvfs_result result =
      position_insertion(&insert, key == nullptr ? nullptr : hint);  // X-btree-19: the search refuses to have no key
  if (result == kvfs_ok) {
    result = check_insertion(insert);
  }
  if (result == kvfs_ok) {
    result = check_insertion_depth(insert);
  }
  if (result == kvfs_ok && !fits_in_place(insert)) {
    result = split_for_insertion(&insert);
  }
  return result == kvfs_ok ? insert_in_place(&insert, out_locator) : result;
}

kvfs_result kvfs_btree_insert_record(kvfs_btree* tree, const void* key, const void* data, std::uint16_t data_size,
                                     const kvfs_btree_search_result* hint, kvfs_btree_record_locator** out_locator) {
  kvfs_write_guard guard(tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring write lock for open locators list.\n");
    return guard.result();
  }
  grant_work(tree, kWorkOfAChange);
  kvfs_btree_record_locator* locator = nullptr;
  const kvfs_result result = kvfs_btree_insert_record_internal(tree, key, data, data_size, hint, &locator);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Error while releasing write lock for open locators list. Will probably crash now...\n");
    if (locator != nullptr) {
      kvfs_btree_record_locator_release(&locator, false);  // X-lock-1: the caller will not see it
    }
  } else if (result == kvfs_ok) {
    *out_locator = locator;
  }
  return kvfs_result_keep(result, unlocked);
}

kvfs_result kvfs_btree_add_index_record(kvfs_btree* tree, const void* key, std::uint8_t height, std::uint32_t child) {
  kvfs_btree_search_result place;
  kvfs_result result = search_index_record(tree, key, height, 0, &place);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for location to insert index record.\n");
    return result;
  }
  if (place.locator == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_search_node returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  if (place.found != 0) {
    KVFS_ERROR("Index record that we wanted to add already exists.\n");
    kvfs_btree_record_locator_release(&place.locator, false);
    return kvfs_exists;
  }
  const kvfs_be32 data = kvfs_be32::of(child);
  kvfs_btree_record_locator* inserted = nullptr;
  result = kvfs_btree_insert_record_internal(tree, key, &data, sizeof(data), &place, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while inserting index record.\n");
  } else if (inserted == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_insert_record returned NULL locator but no error.\n");
    result = kvfs_internal;
  } else {
    kvfs_btree_record_locator_release(&inserted, false);
  }
  kvfs_btree_record_locator_release(&place.locator, false);
  return result;
}

// ---- Split ---------------------------------------------------------------------------------------------------------
//
// A split refuses a neighbour of another kind (X-btree-11) and a claimed node that is in use (X-btree-12).

// A node that is being split, and what the split changes besides it.
struct node_split {
  kvfs_btree* tree;
  std::uint16_t index;  // first record that moves
  node_buffer split;
  node_buffer claimed;
  BTNodeDescriptor split_descriptor;
  BTNodeDescriptor claimed_descriptor;
  std::uint32_t neighbour;                // the node behind both; 0 when there is none
  BTNodeDescriptor neighbour_descriptor;  // changed when there is a neighbour
  kvfs_owned<BTHeaderRec> header;
  bool header_changed;
};

// Reads the header record and the node to be split, and refuses the root (Q-btree-13).
static kvfs_result read_split_node(node_split* split, std::uint32_t node) {
  kvfs_btree* const tree = split->tree;
  split->header = kvfs_allocate_zeroed<BTHeaderRec>();
  if (!split->header) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while allocating memory for a BTHeaderRec buffer.\n");
    return kvfs_no_memory;
  }
  kvfs_result result = read_header_record(tree, split->header.get());
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while reading header record of B-tree.\n");
    return result;
  }
  if (!allocate_node(tree, &split->split)) {
    KVFS_ERROR_AS(kvfs_btree_split_node,
                  "Error while allocating node-sized (%zu bytes) buffer to hold the split node data.\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  result = read_node(tree, node, &split->split);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while mapping node descriptor of split node.\n");
    return result;
  }
  split->split_descriptor = descriptor_of(split->split.view);
  if (split->split_descriptor.height >= split->header->treeDepth.get()) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Unable to split root node.\n");
    return kvfs_internal;
  }
  return kvfs_ok;
}

static kvfs_result report_contradiction(std::uint32_t node) {
  KVFS_ERROR_AS(kvfs_btree_split_node, "Invalid node data: Node %lu is linked or marked wrongly.\n", to_ul(node));
  return kvfs_inconsistent;
}

// The bit of a node in the node bitmap, read as it is meant.
struct node_mark {
  bool used;
  bool begins_map_node;  // it is in the first byte of a map node, where a claim does not look: Q-btree-16
};

// Reads the bit of a node; what cannot be read calls it free. `buffer` takes the nodes that hold the bitmap.
static node_mark read_node_mark(kvfs_btree* tree, std::uint32_t node, node_buffer* buffer) {
  std::uint32_t byte = node / 8;
  cycle_finder segments = {0, 0};
  for (std::uint32_t holder = 0; read_node(tree, holder, buffer) == kvfs_ok;) {
    const node_view& view = buffer->view;
    std::uint32_t begin = offset_at(view, holder == 0 ? kBTHeaderNodeRecords - 1 : 0);
    std::uint32_t end = holder == 0 ? begin + view.size - kBTHeaderNodeOverhead : offset_at(view, 1);
    if (end < begin || end > view.size) {
      return {};
    }
    if (byte < end - begin) {
      return {(view.bytes[begin + byte] & node_bit(node)) != 0, holder != 0 && byte == 0};
    }
    byte -= end - begin;
    holder = descriptor_of(view).fLink.get();
    if (comes_back(&segments, holder)) {  // 0, where the walk began, ends the chain as well
      return {};
    }
  }
  return {};
}

// Whether a claimed node is in use. The node bitmap may call a node free that is not: the byte behind a full map record
// is read as a part of it, and a damaged bitmap says anything. A node is in use whose own bit, where the claim has not
// set it, says so, or when the one before it, in use itself, leads to it; besides, the root, the first leaf, the node
// that is split and the one behind that are. One that was freed has been taken out of that chain, whatever it and other
// free nodes still hold. `buffer` is used up.
static bool is_in_use(const node_split& split, std::uint32_t node, std::uint32_t previous, node_buffer* buffer) {
  const BTHeaderRec& header = *split.header;
  if (node == header.rootNode.get() || node == header.firstLeafNode.get() || node == split.split.view.number ||
      node == split.split_descriptor.fLink.get()) {
    return true;
  }
  if (node / 8 >= buffer->view.size - kBTHeaderNodeOverhead) {  // behind the header node's map record
    const node_mark own = read_node_mark(split.tree, node, buffer);
    if (own.used && own.begins_map_node) {
      return true;
    }
  }
  BTNodeDescriptor before = {};
  return previous < header.totalNodes.get() && previous != node && read_node_mark(split.tree, previous, buffer).used &&
         read_descriptor(split.tree, previous, &before) == kvfs_ok && node == before.fLink.get();
}

// Reads what the claimed node holds: the bytes that a split does not write stay as they are.
static kvfs_result read_claimed_node(node_split* split, std::uint32_t node) {
  kvfs_btree* const tree = split->tree;
  if (!allocate_node(tree, &split->claimed)) {
    KVFS_ERROR_AS(kvfs_btree_split_node,
                  "Error while allocating node-sized (%zu bytes) buffer to hold the claimed node data.\n",
                  std::size_t{tree->nodeSize});
    return kvfs_no_memory;
  }
  BTNodeDescriptor descriptor = {};
  kvfs_result result = read_descriptor(tree, node, &descriptor);
  if (result == kvfs_ok && is_in_use(*split, node, descriptor.bLink.get(), &split->claimed)) {
    return report_contradiction(node);
  }
  if (result == kvfs_ok) {
    result = read_node(tree, node, &split->claimed);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while mapping raw node data of claimed node.\n");
  }
  return result;
}

// Puts the claimed node between the split node and its neighbour.
static kvfs_result link_claimed_node(node_split* split) {
  BTNodeDescriptor* const lower = &split->split_descriptor;
  BTNodeDescriptor* const upper = &split->claimed_descriptor;
  const std::uint16_t count = lower->numRecords.get();
  split->neighbour = lower->fLink.get();
  *upper = *lower;
  upper->bLink.set(split->split.view.number);
  upper->numRecords.set(static_cast<std::uint16_t>(count - split->index));
  upper->reserved.set(0);
  lower->fLink.set(split->claimed.view.number);
  lower->numRecords.set(split->index);
  if (split->neighbour != 0) {
    const kvfs_result result = read_descriptor(split->tree, split->neighbour, &split->neighbour_descriptor);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node,
                    "Error while reading node descriptor of claimed node's forward linked node.\n");
      return result;
    }
    if (split->neighbour_descriptor.kind != lower->kind || split->neighbour_descriptor.height != lower->height ||
        split->neighbour == split->split.view.number) {
      return report_contradiction(split->neighbour);
    }
    split->neighbour_descriptor.bLink.set(split->claimed.view.number);
  } else if (lower->kind == kBTLeafNode) {
    split->header->lastLeafNode.set(split->claimed.view.number);
    split->header_changed = true;
  }
  return kvfs_ok;
}

// Moves the upper records and stores both descriptors. The split node's offset table needs no change: the entry of the
// first record that moved is that of its free space now, and the entries behind it stay (Q-btree-14).
static void move_upper_records(node_split* split, std::uint16_t count, std::uint16_t begin, std::size_t moved) {
  unsigned char* const lower = split->split.view.bytes;
  std::memcpy(split->claimed.view.bytes + kBTFirstRecordOffset, lower + begin, moved);
  std::memset(lower + begin, 0, moved);
  for (std::uint32_t record = 0; record <= static_cast<std::uint32_t>(count - split->index); ++record) {
    const std::uint32_t offset = offset_at(split->split.view, split->index + record);
    store_offset(split->claimed, record, offset - begin + kBTFirstRecordOffset);
  }
  store_descriptor(split->split, split->split_descriptor);
  store_descriptor(split->claimed, split->claimed_descriptor);
}

// Divides the records of a node that holds `count` of them; `moved` receives the bytes that moved.
static kvfs_result divide_records(node_split* split, std::uint16_t count, std::size_t* moved) {
  const node_view& lower = split->split.view;
  std::uint16_t begin = 0;
  std::uint16_t end = 0;
  if (split->index > count || !read_offset(lower, count, &end) || !read_offset(lower, split->index, &begin) ||
      begin < kBTFirstRecordOffset || begin > end || end > lower.size) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Invalid node data: Record %lu of node %lu lies outside of the node.\n",
                  to_ul(split->index), to_ul(lower.number));
    return kvfs_inconsistent;
  }
  *moved = static_cast<std::size_t>(end - begin);
  const std::size_t needed = *moved + kOffsetEntrySize * (std::size_t{count} + 1) + sizeof(BTNodeDescriptor);
  if (needed > split->tree->nodeSize) {
    KVFS_CRITICAL_AS(kvfs_btree_split_node,
                     "Unexpected: Oversized split node data (expected maximum: %hu actual: %zu).\n",
                     split->tree->nodeSize, needed);
    return kvfs_internal;
  }
  move_upper_records(split, count, begin, *moved);
  return kvfs_ok;
}

// Writes what a split has changed, the claimed node first, and moves the open locators along.
static kvfs_result write_split(node_split* split, std::uint16_t count, std::size_t moved) {
  kvfs_btree* const tree = split->tree;
  kvfs_result result = write_node(tree, split->claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified claimed node.\n ");  // Q-btree-25
    return result;
  }
  // Data offsets change by the bytes moved, not by the distance of the nodes: Q-btree-15. The next opening of the
  // record puts its locator's offset right.
  kvfs_btree_shift_locators(tree, split->split.view.number, split->index, count - split->index,
                            split->claimed.view.number, true, split->index, static_cast<std::uint32_t>(moved));
  result = write_node(tree, split->split);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified split node.\n ");  // Q-btree-25
    return result;
  }
  if (split->neighbour != 0) {
    result = kvfs_fork_write(tree->fork, fork_position(tree, split->neighbour, 0), &split->neighbour_descriptor,
                             sizeof(BTNodeDescriptor), nullptr);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing back modified node descriptor.\n");
      return result;
    }
  }
  if (split->header_changed) {
    result = write_header_record(tree, *split->header);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_split_node, "Error while writing out modified B-tree header record.\n");
    }
  }
  return result;
}

// Splits the node that `split` has read, with the claimed node's number.
static kvfs_result split_to_claimed_node(node_split* split, std::uint32_t claimed) {
  const std::uint16_t count = split->split_descriptor.numRecords.get();
  kvfs_result result = read_claimed_node(split, claimed);
  if (result == kvfs_ok) {
    result = link_claimed_node(split);
  }
  std::size_t moved = 0;
  if (result == kvfs_ok) {
    result = divide_records(split, count, &moved);
  }
  if (result == kvfs_ok) {
    result = write_split(split, count, moved);
  }
  if (result != kvfs_ok) {
    return result;
  }
  const unsigned char* const key =
      key_at(KVFS_NAME_OF(kvfs_btree_split_node), split->claimed.view, kBTFirstRecordOffset);
  if (key == nullptr) {
    return kvfs_inconsistent;
  }
  result = kvfs_btree_add_index_record(split->tree, key, height_above(split->split_descriptor.height), claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_split_node, "Error while inserting new index record for claimed node.\n");
  }
  return result;
}

kvfs_result kvfs_btree_split_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t split_index,
                                  std::uint32_t* out_new_node) {
  std::uint32_t claimed = 0;
  kvfs_result result = kvfs_btree_claim_node(tree, &claimed);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while claiming node.\n");
    return result;
  }
  node_split split = {};
  split.tree = tree;
  split.index = split_index;
  result = read_split_node(&split, node);
  if (result == kvfs_ok) {
    result = split_to_claimed_node(&split, claimed);
  }
  if (result == kvfs_ok) {
    *out_new_node = claimed;
  }
  return result;
}

// ---- Claiming ------------------------------------------------------------------------------------------------------

// A walk over the node bitmap, which begins in the map record of the header node and goes on in map nodes.
struct bitmap_walk {
  kvfs_btree* tree;
  std::uint32_t total_nodes;
  mapping header_map;    // of the header node
  mapping map;           // of the current map node, once the walk has left the header node
  node_view node;        // that holds the current segment
  std::uint32_t start;   // of the segment in its node
  std::uint32_t length;  // of the segment, bytes
  std::uint32_t next;    // node with the next segment; 0 when there is none
  std::uint32_t behind;  // bytes of the bitmap in the segments before
  cycle_finder segments;
};

// A map node has a single record, which may fill it up to the two entries of its offset table.
static constexpr std::uint16_t kMapNodeRecords = 1;
static constexpr std::uint32_t kMapNodeTableSize = 2 * kOffsetEntrySize;

// Unmapping a map node is tried again until it succeeds, but not for ever (X-btree-14).
static constexpr int kCleanUpTries = 64;

// The first segment: the map record of the header node.
static kvfs_result begin_bitmap_walk(bitmap_walk* walk) {
  kvfs_btree* const tree = walk->tree;
  const kvfs_result result = map_node(tree, 0, &walk->header_map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while mapping complete header node of B-tree.\n");
    return result;
  }
  if (tree->nodeSize < kBTHeaderNodeOverhead) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Node of %hu bytes cannot hold a map record.\n",
                  tree->nodeSize);
    return kvfs_inconsistent;
  }
  walk->node = view_of(tree, 0, walk->header_map);
  walk->total_nodes = kvfs_view_as<BTHeaderRec>(walk->node.bytes + kBTHeaderRecordOffset)->totalNodes.get();
  walk->next = descriptor_of(walk->node).fLink.get();
  if (walk->next > walk->total_nodes) {  // not >=: Q-btree-18
    KVFS_ERROR_AS(kvfs_btree_claim_node,
                  "Invalid node data: Value of 'fLink' (%lu) in node 0 exceeds the total number of nodes (%lu).\n",
                  to_ul(walk->next), to_ul(walk->total_nodes));
    return kvfs_inconsistent;
  }
  walk->start = offset_at(walk->node, kBTHeaderNodeRecords - 1);
  walk->length = tree->nodeSize - kBTHeaderNodeOverhead;
  return kvfs_ok;
}

static kvfs_result check_map_descriptor(const bitmap_walk& walk, const BTNodeDescriptor& descriptor) {
  if (descriptor.kind != kBTMapNode) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Expected map node, got node kind %hhd.\n",
                  descriptor.kind);
    return kvfs_inconsistent;
  }
  if (descriptor.numRecords.get() != kMapNodeRecords) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Unexpected number of records in map node (%hu).\n",
                  descriptor.numRecords.get());
    return kvfs_inconsistent;
  }
  if (descriptor.fLink.get() > walk.total_nodes) {  // not >=: Q-btree-18
    KVFS_ERROR_AS(kvfs_btree_claim_node,
                  "Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number of nodes (%lu).\n",
                  to_ul(descriptor.fLink.get()), to_ul(walk.node.number), to_ul(walk.total_nodes));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Takes the record of a map node as the current segment.
static kvfs_result take_up_map_record(bitmap_walk* walk) {
  const std::uint32_t limit = walk->node.size - kMapNodeTableSize;
  const std::uint16_t first = offset_at(walk->node, 0);
  const std::uint16_t end = offset_at(walk->node, 1);
  walk->behind += walk->length;
  if (first < kBTFirstRecordOffset || first > limit) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: First record offset is out of range (%hu).",
                  first);  // Q-log-2
    return kvfs_inconsistent;
  }
  if (end < kBTFirstRecordOffset || end > limit) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Free space offset is out of range (%hu).",
                  end);  // Q-log-2
    return kvfs_inconsistent;
  }
  if (first > end) {
    KVFS_ERROR_AS(
        kvfs_btree_claim_node,
        "Invalid node data: Records offsets out of order in map node %lu (first offset: %hu, free space: %hu)\n",
        to_ul(walk->node.number), first, end);
    return kvfs_inconsistent;
  }
  walk->start = first;
  walk->length = std::uint32_t{end} - first;
  return kvfs_ok;
}

// Moves on to the next map node; `node` is the tree node whose bit is looked for.
static kvfs_result next_segment(bitmap_walk* walk, std::uint32_t node) {
  kvfs_result result = unmap_range(&walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while unmapping previously mapped map node data.\n",
                  to_ull(result));
    return result;
  }
  if (walk->next == 0) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Missing map node after node %lu (%lu bytes of node bitmap data missing).\n",
                  to_ul(walk->node.number), to_ul((walk->total_nodes - node) / 8));
    return kvfs_inconsistent;
  }
  if (comes_back(&walk->segments, walk->next)) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: The map nodes form a ring at node %lu.\n",
                  to_ul(walk->next));
    return kvfs_inconsistent;
  }
  result = map_node(walk->tree, walk->next, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while mapping next map node into memory.\n", to_ull(result));
    return result;
  }
  walk->node = view_of(walk->tree, walk->next, walk->map);
  const BTNodeDescriptor descriptor = descriptor_of(walk->node);
  result = check_map_descriptor(*walk, descriptor);
  if (result != kvfs_ok) {
    return result;
  }
  walk->next = descriptor.fLink.get();
  return take_up_map_record(walk);
}

// The byte of the bitmap at an index of the current segment; null, with a message, when it lies outside of the node
// (X-btree-13).
static unsigned char* bitmap_byte_at(const bitmap_walk& walk, std::uint32_t index) {
  const std::uint64_t position = std::uint64_t{walk.start} + index;
  if (position >= walk.node.size) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Invalid node data: Byte %lu of the node bitmap lies outside of node %lu.\n",
                  to_ul(index), to_ul(walk.node.number));
    return nullptr;
  }
  return walk.node.bytes + position;
}

// Finds the first node whose bit is clear. A byte index that equals the segment's length still counts to the segment,
// and the node that makes the walk move on is looked for in the new segment by its index in the old one. Both decide
// which node is claimed: Q-btree-16.
static kvfs_result find_free_node(bitmap_walk* walk, std::uint32_t* free_node) {
  std::uint32_t node = 1;
  while (node < walk->total_nodes) {
    const std::uint32_t index = node / 8 - walk->behind;
    const bool moves = index > walk->length;
    if (moves) {
      const kvfs_result result = next_segment(walk, node);
      if (result != kvfs_ok) {
        return result;
      }
    }
    const unsigned char* const byte = bitmap_byte_at(*walk, index);
    if (byte == nullptr) {
      return kvfs_inconsistent;
    }
    if ((*byte & node_bit(node)) == 0) {
      *free_node = node;
      return kvfs_ok;
    }
    const bool whole_byte_used = *byte == 0xFF && node % 8 == 0 && !moves && walk->total_nodes - node > 8;
    node += whole_byte_used ? 8 : 1;
  }
  KVFS_ERROR_AS(kvfs_btree_claim_node, "Need to expand B-tree, but this is not yet implemented.\n");
  return kvfs_limit;
}

// Takes the node out of the count of free nodes, which is not questioned (Q-btree-17), and sets its bit.
static kvfs_result mark_node_used(const bitmap_walk& walk, std::uint32_t node) {
  kvfs_btree* const tree = walk.tree;
  BTHeaderRec header =
      *kvfs_view_as<BTHeaderRec>(static_cast<unsigned char*>(walk.header_map.bytes) + kBTHeaderRecordOffset);
  header.freeNodes.set(header.freeNodes.get() - 1);
  kvfs_result result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while writing out modified tree header record after claiming node.\n");
    return result;
  }
  const std::uint32_t index = node / 8 - walk.behind;
  const unsigned char* const byte = bitmap_byte_at(walk, index);
  if (byte == nullptr) {
    return kvfs_inconsistent;
  }
  if ((*byte & node_bit(node)) != 0) {
    KVFS_CRITICAL_AS(kvfs_btree_claim_node, "Internal error: Node is already allocated!\n");
    return kvfs_internal;
  }
  const unsigned char used = static_cast<unsigned char>(*byte | node_bit(node));
  const std::uint64_t position = fork_position(tree, walk.node.number, std::uint64_t{walk.start} + index);
  result = kvfs_fork_write(tree->fork, position, &used, sizeof(used), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error while writing out modified bitmap byte after claiming node.\n");
  }
  return result;
}

static void unmap_map_node(bitmap_walk* walk) {
  for (int tries = 0; tries < kCleanUpTries; ++tries) {
    const kvfs_result result = unmap_range(&walk->map);
    if (result == kvfs_ok) {
      return;
    }
    KVFS_ERROR_AS(kvfs_btree_claim_node, "Error %llu while unmapping previously mapped map node data.\n",
                  to_ull(result));
  }
}

kvfs_result kvfs_btree_claim_node(kvfs_btree* tree, std::uint32_t* out_node) {
  bitmap_walk walk = {};
  walk.tree = tree;
  std::uint32_t node = 0;
  kvfs_result result = begin_bitmap_walk(&walk);
  if (result == kvfs_ok) {
    result = find_free_node(&walk, &node);
  }
  if (result == kvfs_ok) {
    result = mark_node_used(walk, node);
  }
  unmap_map_node(&walk);
  const kvfs_result unmapped = unmap_range(&walk.header_map);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping complete header node of B-tree.\n");
  }
  result = kvfs_result_keep(result, unmapped);
  if (result == kvfs_ok) {
    *out_node = node;
  }
  return result;
}

// ---- Deletion ------------------------------------------------------------------------------------------------------

// A record on its way out of the tree.
struct deletion {
  kvfs_btree* tree;
  kvfs_btree_record_locator* locator;
  mapping header;
  node_buffer node;
  BTNodeDescriptor descriptor;
  std::uint32_t index;
};

// Where the record lies, and what lies behind it. The node must have it (X-btree-15).
struct record_extent {
  std::uint16_t begin;
  std::uint16_t end;
  std::uint16_t free_space;
};

static std::uint16_t depth_of(const deletion& removal) {
  return kvfs_view_as<BTHeaderRec>(removal.header.bytes)->treeDepth.get();
}

static kvfs_result read_deleted_extent(const deletion& removal, record_extent* extent) {
  const node_view& node = removal.node.view;
  const std::uint32_t count = removal.descriptor.numRecords.get();
  if (!read_offset(node, count, &extent->free_space) || !read_offset(node, removal.index + 1, &extent->end)) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Invalid node data: Node %lu has no room for %lu records.\n",
                  to_ul(node.number), to_ul(kvfs_max(count, removal.index)));
    return kvfs_inconsistent;
  }
  extent->begin = offset_at(node, removal.index);
  if (extent->begin > extent->end) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "$$$: This record offset is greater than the next. Impossible\n");
    return kvfs_inconsistent;
  }
  if (extent->free_space > node.size || extent->free_space < extent->end) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "$$$: Free space of %d is greater than node size. Impossible\n",
                  static_cast<int>(extent->free_space));
    return kvfs_inconsistent;
  }
  if (static_cast<std::uint32_t>(extent->end - extent->begin) > node.size - extent->begin) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "$$$: This record size is greater than the node size. Impossible\n");
    return kvfs_inconsistent;
  }
  if (removal.index >= count) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Invalid position: Node %lu of %lu records has no record %lu.\n",
                  to_ul(node.number), to_ul(count), to_ul(removal.index));
    return kvfs_inconsistent;
  }
  const std::uint32_t new_free_space = extent->begin + static_cast<std::uint32_t>(extent->free_space - extent->end);
  if (extent->begin < kBTFirstRecordOffset || new_free_space > offset_table_start(node, count)) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "Invalid node data: Records of node %lu overlap its descriptor or offset table.\n",
                  to_ul(node.number));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Closes the gap in the node buffer. The bytes that become free, and the last entry of the table, stay as they are
// (Q-btree-19).
static void remove_record(deletion* removal, const record_extent& extent) {
  const node_view& node = removal->node.view;
  const std::uint32_t count = removal->descriptor.numRecords.get();
  const std::uint32_t size = static_cast<std::uint32_t>(extent.end - extent.begin);
  std::memmove(node.bytes + extent.begin, node.bytes + extent.end,
               static_cast<std::size_t>(extent.free_space - extent.end));
  for (std::uint32_t record = removal->index + 1; record < count; ++record) {
    store_offset(removal->node, record, offset_at(node, record + 1) - size);
  }
  removal->descriptor.numRecords.set(static_cast<std::uint16_t>(count - 1));
  store_descriptor(removal->node, removal->descriptor);
}

static kvfs_result count_deleted_leaf_record(const deletion& removal) {
  BTHeaderRec header = *kvfs_view_as<BTHeaderRec>(removal.header.bytes);
  header.leafRecords.set(header.leafRecords.get() - 1);
  const kvfs_result result = write_header_record(removal.tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "Error while writing out decremented 'leafRecords' in B-tree header record.\n");
  }
  return result;
}

// Deletes the index record that leads to the node by its former first key.
static kvfs_result delete_index_record(const deletion& removal, std::uint8_t height) {
  kvfs_btree_search_result found;
  kvfs_result result = search_index_record(removal.tree, removal.locator->key, height, 1, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal,
                  "Error while searching for index record of deleted record's node.\n");
    return result;
  }
  if (found.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_btree_delete_record_internal,
                     "Unexpected: kvfs_btree_search_node returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  if (found.found == 0) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Index record of deleted record's node not found.\n");
    result = kvfs_inconsistent;
  } else {
    result = kvfs_btree_delete_record_internal(removal.tree, found.locator, 0);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while deleting index record from B-tree.\n");
    }
  }
  kvfs_btree_record_locator_release(&found.locator, false);
  return result;
}

// Q-btree-20. Replaces the index record of a node that lost its first record. An empty node still has the bytes of the
// deleted record, so that it is indexed under the deleted key again.
static kvfs_result replace_index_record_of_deleted(const deletion& removal) {
  const std::uint8_t height = height_above(removal.descriptor.height);
  kvfs_result result = delete_index_record(removal, height);
  if (result != kvfs_ok) {
    return result;
  }
  const unsigned char* const key =
      key_at(KVFS_NAME_OF(kvfs_btree_delete_record_internal), removal.node.view, kBTFirstRecordOffset);
  if (key == nullptr) {
    return kvfs_inconsistent;
  }
  result = kvfs_btree_add_index_record(removal.tree, key, height, removal.node.view.number);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while inserting index record.\n");
  }
  return result;
}

// Whether the node loses the record by whose key it is indexed.
static bool replaces_index_record(const deletion& removal) {
  return removal.index == 0 && removal.descriptor.height < depth_of(removal);
}

// Brings counts and index in line with a record that is gone.
static kvfs_result maintain_after_deletion(const deletion& removal) {
  if (removal.descriptor.kind == kBTLeafNode) {
    const kvfs_result result = count_deleted_leaf_record(removal);
    if (result != kvfs_ok) {
      return result;
    }
  }
  return replaces_index_record(removal) ? replace_index_record_of_deleted(removal) : kvfs_ok;
}

// Deletes with the header record mapped.
static kvfs_result delete_from_node(deletion* removal) {
  kvfs_btree* const tree = removal->tree;
  if (!allocate_node(tree, &removal->node)) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while allocating temporary copy of node data.\n");
    return kvfs_no_memory;
  }
  kvfs_result result = read_node(tree, *removal->locator->node, &removal->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while mapping raw node data.\n");
    return result;
  }
  removal->descriptor = descriptor_of(removal->node.view);
  record_extent extent = {};
  result = read_deleted_extent(*removal, &extent);
  if (result == kvfs_ok && removal->index == 0) {
    result = check_levels_above(KVFS_NAME_OF(kvfs_btree_delete_record_internal), removal->descriptor.height,
                                depth_of(*removal));
  }
  if (result != kvfs_ok) {
    return result;
  }
  remove_record(removal, extent);
  result = write_node(tree, removal->node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_delete_record_internal, "Error while writing out modified node %lu.\n",
                  to_ul(removal->node.view.number));
    return result;
  }
  removal->locator->priv->deleted = 1;
  // The other open locators of the node keep their indexes although records have moved: Q-btree-21.
  return maintain_after_deletion(*removal);
}

kvfs_result kvfs_btree_delete_record_internal(kvfs_btree* tree, kvfs_btree_record_locator* locator,
                                              std::uint32_t /*flag*/) {
  if (locator->priv->deleted != 0) {  // X-btree-15
    KVFS_CRITICAL("Attempted to delete a deleted record.\n");
    return kvfs_internal;
  }
  deletion removal = {};
  removal.tree = tree;
  removal.locator = locator;
  removal.index = *locator->index;
  kvfs_result result = map_header_record(tree, &removal.header);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while mapping B-tree header record.\n");
    return result;
  }
  result = delete_from_node(&removal);
  const kvfs_result unmapped = unmap_range(&removal.header);
  if (unmapped != kvfs_ok) {
    KVFS_ERROR("Error while unmapping B-tree header record.\n");
  }
  return kvfs_result_keep(result, unmapped);
}

kvfs_result kvfs_btree_delete_record(kvfs_btree* tree, kvfs_btree_record_locator* locator, std::uint32_t flag) {
  kvfs_write_guard guard(tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring write lock for open locators list.\n");
    return guard.result();
  }
  grant_work(tree, kWorkOfAChange);
  const kvfs_result result = kvfs_btree_delete_record_internal(tree, locator, flag);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Error while releasing write lock for open locators list. Will probably crash now...\n");
  }
  return kvfs_result_keep(result, unlocked);
}

// ---- Growing the tree ----------------------------------------------------------------------------------------------

// An expansion with what it has done so far, so that it can be undone.
struct tree_expansion {
  kvfs_btree* tree;
  kvfs_volume* volume;
  kvfs_allocation_location added;
  bool fork_grown;

  mapping header;
  BTHeaderRec saved_header;
  bool header_changed;

  mapping last_map;  // the descriptor of the last map node, or of the header node when there is none
  BTNodeDescriptor saved_last_map;
  std::uint32_t last_map_node;
  bool last_map_changed;

  mapping new_map;  // the descriptor of the new map node
};

static kvfs_result map_descriptor(kvfs_btree* tree, std::uint32_t node, mapping* map) {
  return map_range(tree->fork, fork_position(tree, node, 0), sizeof(BTNodeDescriptor), map);
}

static kvfs_result write_descriptor(kvfs_btree* tree, std::uint32_t node, const BTNodeDescriptor& descriptor) {
  return kvfs_fork_write(tree->fork, fork_position(tree, node, 0), &descriptor, sizeof(descriptor), nullptr);
}

// Grows the fork and its logical size in the volume header, without which the new nodes could not be read
// (X-btree-16).
static kvfs_result grow_fork(tree_expansion* expansion) {
  kvfs_fork* const fork = expansion->tree->fork;
  const kvfs_result result = kvfs_fork_expand(fork, expansion->volume, &expansion->added);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while expanding fork.\n");
    return result;
  }
  expansion->fork_grown = true;
  HFSPlusForkData fork_data = expansion->volume->header->catalogFile;
  fork_data.logicalSize.set(*fork->logical_size);
  kvfs_volume_update_fork_data(expansion->volume, kHFSCatalogFileID, &fork_data);
  return kvfs_ok;
}

// Maps the descriptor of the last node in the chain that begins at the header node.
static kvfs_result map_last_map_node(tree_expansion* expansion) {
  kvfs_btree* const tree = expansion->tree;
  cycle_finder chain = {0, 0};
  for (std::uint32_t node = 0;;) {
    kvfs_result result = unmap_range(&expansion->last_map);
    if (result == kvfs_ok) {
      result = map_descriptor(tree, node, &expansion->last_map);
    }
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping last map node's descriptor.\n");
      return result;
    }
    const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(expansion->last_map.bytes);
    if (node != 0 && descriptor->kind != kBTMapNode) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Invalid node data: Expected map node, got node kind %hhd.\n", descriptor->kind);
      return kvfs_inconsistent;
    }
    const std::uint32_t next = descriptor->fLink.get();
    expansion->last_map_node = node;
    expansion->saved_last_map = *descriptor;
    if (next == 0) {
      return kvfs_ok;
    }
    if (comes_back(&chain, next)) {
      KVFS_ERROR_AS(kvfs_btree_expand, "Invalid node data: The map nodes form a ring at node %lu.\n", to_ul(next));
      return kvfs_inconsistent;
    }
    node = next;
  }
}

// Counts the new nodes in.
static kvfs_result count_new_nodes(tree_expansion* expansion) {
  kvfs_btree* const tree = expansion->tree;
  const kvfs_result mapped = map_header_record(tree, &expansion->header);
  if (mapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping B-tree header record.\n");
    return mapped;
  }
  expansion->saved_header = *kvfs_view_as<BTHeaderRec>(expansion->header.bytes);
  const std::uint64_t bytes = std::uint64_t{expansion->added.block_count} * tree->fork->block_size;
  const std::uint32_t nodes = tree->nodeSize == 0 ? 0 : static_cast<std::uint32_t>(bytes / tree->nodeSize);
  BTHeaderRec header = expansion->saved_header;
  header.totalNodes.set(header.totalNodes.get() + nodes);
  header.freeNodes.set(header.freeNodes.get() + nodes);
  const kvfs_result result = write_header_record(tree, header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing back modified tree header record.\n");
    return result;
  }
  expansion->header_changed = true;
  return kvfs_ok;
}

// Whether the map record of the header node alone can describe all nodes. Map nodes that exist are not counted, so that
// every expansion of a tree that has outgrown it adds one more: Q-btree-23.
static bool header_map_suffices(const tree_expansion& expansion) {
  const std::uint32_t node_size = expansion.tree->nodeSize;
  const std::uint32_t bytes = node_size < kBTHeaderNodeOverhead ? 0 : node_size - kBTHeaderNodeOverhead;
  return bytes * 8 >= kvfs_view_as<BTHeaderRec>(expansion.header.bytes)->totalNodes.get();
}

// Claims and clears a node for a new map node.
static kvfs_result allocate_map_node(const tree_expansion& expansion, std::uint32_t* node) {
  kvfs_btree* const tree = expansion.tree;
  kvfs_result result = kvfs_btree_claim_node(tree, node);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while allocating new map node.\n");
    return result;
  }
  // X-btree-16: a block has to be read before all of it is overwritten, or a later reading brings its old bytes back.
  mapping old_bytes;
  result = map_node(tree, *node, &old_bytes);
  if (result == kvfs_ok) {
    result = unmap_range(&old_bytes);
  }
  if (result == kvfs_ok) {
    result = kvfs_fork_fill(tree->fork, fork_position(tree, *node, 0), tree->nodeSize, 0, nullptr);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing back modified tree header record.\n");  // Q-btree-25
  }
  return result;
}

static kvfs_result chain_map_node(tree_expansion* expansion, std::uint32_t node) {
  BTNodeDescriptor descriptor = expansion->saved_last_map;
  descriptor.fLink.set(node);
  const kvfs_result result = write_descriptor(expansion->tree, expansion->last_map_node, descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified last map node.\n");
    return result;
  }
  expansion->last_map_changed = true;
  return kvfs_ok;
}

// Gives the new map node its record, which fills the node up to the offset table, and its descriptor.
static kvfs_result fill_map_node(tree_expansion* expansion, std::uint32_t node) {
  kvfs_btree* const tree = expansion->tree;
  const std::uint32_t node_size = tree->nodeSize;
  const kvfs_be16 first = kvfs_be16::of(kBTFirstRecordOffset);
  const kvfs_be16 end = kvfs_be16::of(static_cast<std::uint16_t>(node_size - kMapNodeTableSize));
  kvfs_result result = kvfs_fork_write(tree->fork, fork_position(tree, node, offset_entry_position(node_size, 0)),
                                       &first, sizeof(first), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified last record pointer.\n");
    return result;
  }
  result = kvfs_fork_write(tree->fork, fork_position(tree, node, offset_entry_position(node_size, 1)), &end,
                           sizeof(end), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out modified free space pointer.\n");
    return result;
  }
  result = map_descriptor(tree, node, &expansion->new_map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while mapping node descriptor of claimed node.\n");
    return result;
  }
  BTNodeDescriptor descriptor = *kvfs_view_as<BTNodeDescriptor>(expansion->new_map.bytes);
  descriptor.kind = kBTMapNode;
  descriptor.numRecords.set(kMapNodeRecords);
  result = write_descriptor(tree, node, descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while writing out node descriptor of claimed node.\n");
  }
  return result;
}

static kvfs_result expand_tree(tree_expansion* expansion) {
  kvfs_result result = grow_fork(expansion);
  if (result == kvfs_ok) {
    result = map_last_map_node(expansion);
  }
  if (result == kvfs_ok) {
    result = count_new_nodes(expansion);
  }
  if (result != kvfs_ok || header_map_suffices(*expansion)) {
    return result;
  }
  std::uint32_t node = 0;
  result = allocate_map_node(*expansion, &node);
  if (result == kvfs_ok) {
    result = chain_map_node(expansion, node);
  }
  return result == kvfs_ok ? fill_map_node(expansion, node) : result;
}

// Writes the saved descriptor of the last map node back; it is tried again, but not for ever.
static void restore_last_map_node(const tree_expansion& expansion) {
  for (int tries = 0; tries < kCleanUpTries; ++tries) {
    if (write_descriptor(expansion.tree, expansion.last_map_node, expansion.saved_last_map) == kvfs_ok) {
      return;
    }
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while rolling back modifications to last map node.\n");
  }
}

// Undoes what was done, as far as that is possible; a claimed node stays claimed (Q-btree-24). Returns the value of the
// failure.
static kvfs_result roll_back_expansion(const tree_expansion& expansion, kvfs_result result) {
  if (result == kvfs_ok) {
    KVFS_WARNING_AS(kvfs_btree_expand, "Rollback requested with no error value. Setting dummy error.\n");
    result = kvfs_failed;
  }
  if (expansion.last_map_changed) {
    restore_last_map_node(expansion);
  }
  if (expansion.header_changed && write_header_record(expansion.tree, expansion.saved_header) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while reverting B-tree header record modifications.\n");
    return result;
  }
  if (expansion.fork_grown &&
      kvfs_fork_shrink(expansion.tree->fork, expansion.volume, expansion.added.block_count) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while rolling back fork expansion.\n");
  }
  return result;
}

// Unmaps what an expansion has mapped.
static kvfs_result unmap_expansion(tree_expansion* expansion) {
  const kvfs_result new_unmapped = unmap_range(&expansion->new_map);
  if (new_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping node descriptor of claimed node.\n");
  }
  const kvfs_result header_unmapped = unmap_range(&expansion->header);
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping B-tree header record.\n");
  }
  const kvfs_result last_unmapped = unmap_range(&expansion->last_map);
  if (last_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_expand, "Error while unmapping last map node's descriptor.\n");
  }
  return kvfs_result_keep(kvfs_result_keep(new_unmapped, header_unmapped), last_unmapped);
}

kvfs_result kvfs_btree_expand(kvfs_btree* tree, kvfs_volume* volume) {
  if (tree->priv->tree_kind != kHFSCatalogFileID) {  // Q-btree-22
    return kvfs_ok;
  }
  kvfs_write_guard guard(tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring write lock for open locators list.\n");
    return guard.result();
  }
  tree_expansion expansion = {};
  expansion.tree = tree;
  expansion.volume = volume;
  kvfs_result result = expand_tree(&expansion);
  if (result != kvfs_ok) {
    result = roll_back_expansion(expansion, result);
  }
  result = kvfs_result_keep(result, unmap_expansion(&expansion));
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Error while releasing write lock for open locators list. Will probably crash now...\n");
  }
  return kvfs_result_keep(result, unlocked);
}
