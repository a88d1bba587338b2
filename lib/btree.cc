#include "btree.h"

#include <algorithm>
#include <cstring>

#include "btree_private.h"
#include "device.h"
#include "owned.h"
#include "rwlock_guard.h"
#include "support.h"

// ---- Node view -----------------------------------------------------------------------------------------------------

// The bytes of one node. Offsets and lengths in a node come from disk: whatever follows one of them goes through the
// routines below, which stay inside the node.
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
  std::memcpy(&descriptor, node.bytes, std::min<std::size_t>(sizeof(descriptor), node.size));
  return descriptor;
}

// Reads an entry of the offset table; false when the node has no room for the entry.
static bool read_offset(const node_view& node, std::uint32_t index, std::uint16_t* offset) {
  if (!has_offset_entry(node.size, index)) {
    return false;
  }
  *offset = kvfs_view_as<kvfs_be16>(node.bytes + offset_entry_position(node.size, index))->get();
  return true;
}

// Reads where the data behind a key begins, not rounded up to even; false when the key leaves the node.
static bool read_key_end(const node_view& node, std::uint32_t offset, std::uint32_t* end) {
  if (offset < kBTFirstRecordOffset || offset + sizeof(kvfs_be16) > node.size) {
    return false;
  }
  *end = offset + static_cast<std::uint32_t>(sizeof(kvfs_be16)) + kvfs_view_as<kvfs_be16>(node.bytes + offset)->get();
  return *end <= node.size;
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
  static const char* const kFunction = "kvfs_btree_process";
  const std::uint64_t sector_size = device->sector_size;
  if (sector_size == 0) {
    KVFS_ERROR_AS(kFunction, "Device has a sector size of 0.\n");
    return kvfs_inconsistent;
  }
  const std::uint64_t position =
      std::uint64_t{fork_data->extents.extents[0].startBlock.get()} * volume_header->blockSize.get();
  const std::uint64_t first = position / sector_size;
  const std::uint64_t count = (position + kBTHeaderEnd + sector_size - 1) / sector_size - first;
  void* sectors = nullptr;
  const kvfs_result result =
      kvfs_device_read_disk_sectors(device, first, static_cast<std::uint32_t>(count), &sectors);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while reading first sector%s of B-tree.\n", count >= 2 ? "s" : "");
    return result;
  }
  const kvfs_owned<unsigned char> buffer(static_cast<unsigned char*>(sectors));
  const unsigned char* const record = buffer.get() + position % sector_size + kBTHeaderRecordOffset;
  *node_size = kvfs_view_as<BTHeaderRec>(record)->nodeSize.get();
  return kvfs_ok;
}

// Node 0 must be a header node with its three records.
static kvfs_result check_header_descriptor(const mapping& map) {
  static const char* const kFunction = "kvfs_btree_process";
  const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(map.bytes);
  if (descriptor->kind == kBTHeaderNode && descriptor->numRecords.get() == kBTHeaderNodeRecords) {
    return kvfs_ok;
  }
  // The count is printed with its bytes the wrong way round, 1024 for 4 records: this must stay as it is.
  const int swapped = descriptor->numRecords.bytes[0] | descriptor->numRecords.bytes[1] << 8;
  KVFS_ERROR_AS(kFunction, "HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
                kFunction, static_cast<int>(descriptor->kind), swapped);
  return kvfs_inconsistent;
}

static kvfs_result check_header_record(const mapping& map) {
  static const char* const kFunction = "kvfs_btree_process";
  const BTHeaderRec* const header = kvfs_view_as<BTHeaderRec>(map.bytes);
  if (header->btreeType != kHFSBTreeType) {
    KVFS_ERROR_AS(kFunction, "HFSPlus:%s: Tree type, according to header node, is %d - and not kHFSBTreeType (0)\n",
                  kFunction, static_cast<int>(header->btreeType));
    return kvfs_inconsistent;
  }
  if ((header->attributes.get() & kBTBigKeysMask) == 0) {
    KVFS_ERROR_AS(kFunction, "Big keys flag not set for HFS+ B-tree.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Maps the descriptor and the header record of node 0, checks both and reads the two fields that a tree keeps. What was
// mapped stays mapped for the caller.
static kvfs_result check_header_node(kvfs_fork* fork, mapping* descriptor, mapping* header, std::uint16_t* node_size,
                                     std::uint16_t* max_key_length) {
  static const char* const kFunction = "kvfs_btree_process";
  kvfs_result result = map_range(fork, 0, sizeof(BTNodeDescriptor), descriptor);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while mapping node descriptor of B-tree from its fork.\n");
    return result;
  }
  result = check_header_descriptor(*descriptor);
  if (result != kvfs_ok) {
    return result;
  }
  result = map_range(fork, kBTHeaderRecordOffset, sizeof(BTHeaderRec), header);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while mapping header record of B-tree from its fork.\n");
    return result;
  }
  result = check_header_record(*header);
  *node_size = kvfs_view_as<BTHeaderRec>(header->bytes)->nodeSize.get();
  *max_key_length = kvfs_view_as<BTHeaderRec>(header->bytes)->maxKeyLength.get();
  return result;
}

static kvfs_result check_tree_of_fork(kvfs_fork* fork, std::uint16_t* node_size, std::uint16_t* max_key_length) {
  static const char* const kFunction = "kvfs_btree_process";
  mapping descriptor;
  mapping header;
  kvfs_result result = check_header_node(fork, &descriptor, &header, node_size, max_key_length);
  const kvfs_result header_unmapped = unmap_range(&header);
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while unmapping header record of B-tree from its fork.\n");
  }
  result = kvfs_result_keep(result, header_unmapped);
  const kvfs_result descriptor_unmapped = unmap_range(&descriptor);
  if (descriptor_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while unmapping node descriptor of B-tree from its fork.\n");
  }
  return kvfs_result_keep(result, descriptor_unmapped);
}

// The value of a failure exit, which must not be taken for a success.
static kvfs_result failure_value(kvfs_result result) {
  if (result == kvfs_ok) {
    KVFS_WARNING_AS("kvfs_btree_process", "err was not set at 'error'. Setting generic error value.\n");
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

// Opens the fork of a tree whose lock exists and fills both parts.
static kvfs_result open_tree(kvfs_device* device, kvfs_extents* extents, int partial,
                             HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind, kvfs_btree* tree) {
  const kvfs_result result = kvfs_btree_process(volume_header, tree_kind, device, extents, partial, &tree->fork,
                                                &tree->nodeSize, &tree->maxKeyLength);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS("kvfs_btree_create", "Error while reading %s B-Tree into memory.\n", kvfs_btree_type_name(tree_kind));
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
  tree->priv = priv.release();
  *out_tree = tree.release();
  return kvfs_ok;
}

// Frees every locator that is still open, whatever references it has.
static void release_leaked_locators(kvfs_btree_private* priv) {
  static const char* const kFunction = "kvfs_btree_destroy";
  std::uint64_t released = 0;
  while (priv->open_locators != nullptr) {
    kvfs_btree_record_locator* const head = priv->open_locators;
    kvfs_btree_record_locator* leaked = head;
    kvfs_btree_record_locator_release(&leaked, true);
    ++released;
    if (priv->open_locators == head) {
      KVFS_CRITICAL_AS(kFunction, "Internal error: Closing head of B-tree open locators list did not change the head!\n");
      break;
    }
  }
  if (released != 0) {
    KVFS_WARNING_AS(kFunction, "Cleaned up %llu leaked B-tree record locators on destroy.\n", to_ull(released));
  }
}

void kvfs_btree_destroy(kvfs_btree** tree) {
  kvfs_btree_private* const priv = (*tree)->priv;
  {
    kvfs_write_guard guard(priv->open_locators_lock);
    if (guard.result() != kvfs_ok) {
      KVFS_ERROR(
          "Error while acquiring open locators list lock! Leaking open locators on kvfs_btree destruction...\n");
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
  if (!read_offset(node, index, &offset) || offset < kBTFirstRecordOffset ||
      offset + kAttributeKeySize > node.size) {
    return false;
  }
  const std::uint32_t name_length =
      kvfs_view_as<kvfs_be16>(node.bytes + offset + kAttributeNameLengthOffset)->get();
  const std::size_t data = offset + kAttributeKeySize + name_length * sizeof(kvfs_be16);
  if (data + sizeof(kvfs_be32) > node.size) {
    return false;
  }
  const std::uint32_t type = kvfs_view_as<kvfs_be32>(node.bytes + data)->get();
  if (type != kAttributeInlineData) {
    KVFS_ERROR_AS("ReadAttrNode", "HFSPlus:ERROR:%s: Unknown Attr Type: %X\n", "ReadAttrNode", type);
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
struct locator_block {
  char tag[8];
  std::size_t size;  // of the whole block, to zero it before it is freed
  kvfs_btree_record_locator locator;
  kvfs_btree_record_locator_private priv;
};

static const char kLocatorTag[] = "kvfsbrla";

static std::size_t record_capacity(const kvfs_btree_record_locator_private* priv) {
  return static_cast<const locator_block*>(priv->allocation)->size - sizeof(locator_block);
}

// Rejects bytes that cannot be a record and computes where a record's data begins.
static kvfs_result check_record(const unsigned char* record, std::size_t record_size, std::uint32_t* data_offset) {
  static const char* const kFunction = "kvfs_btree_record_locator_open";
  if (record == nullptr) {
    KVFS_ERROR_AS(kFunction, "Invalid parameter: record == NULL\n");
    return kvfs_invalid;
  }
  if (record_size == 0) {
    KVFS_ERROR_AS(kFunction, "Invalid parameter: record_size == 0\n");
    return kvfs_invalid;
  }
  if (record_size % 2 != 0) {
    KVFS_ERROR_AS(kFunction, "Invalid parameter: record_size (%zu) is not aligned on a 2-byte boundary.\n",
                  record_size);
    return kvfs_invalid;
  }
  const std::uint32_t key_length =
      kvfs_view_as<kvfs_be16>(record)->get() + static_cast<std::uint32_t>(sizeof(kvfs_be16));
  *data_offset = round_up_to_even(key_length);
  if (*data_offset > record_size) {
    KVFS_ERROR_AS(kFunction,
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
  static const char* const kFunction = "kvfs_btree_record_locator_open";
  const unsigned long node = to_ul(arguments.node);
  if (priv->record_size != arguments.record_size) {
    KVFS_WARNING_AS(
        kFunction,
        "Mismatching raw record sizes for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n", node,
        arguments.index, std::size_t{priv->record_size}, arguments.record_size);
    priv->record_size = static_cast<std::uint32_t>(arguments.record_size);
  }
  if (priv->record_data_offset != arguments.data_offset) {
    KVFS_WARNING_AS(
        kFunction,
        "Mismatching raw record data offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_data_offset}, std::size_t{arguments.data_offset});
    priv->record_data_offset = arguments.data_offset;
  }
  if (priv->record_key_offset != 0) {
    KVFS_WARNING_AS(
        kFunction,
        "Mismatching raw record key offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_key_offset}, std::size_t{0});
    priv->record_key_offset = 0;
  }
}

// Adds a reference to an open locator. Its public lengths and pointers stay as they were: who opens a record again is
// expected to find it at its old size.
static kvfs_result share_locator(kvfs_btree_record_locator* locator, const locator_arguments& arguments) {
  static const char* const kFunction = "kvfs_btree_record_locator_open";
  kvfs_btree_record_locator_private* const priv = locator->priv;
  const unsigned long node = to_ul(arguments.node);
  if (arguments.record_size > record_capacity(priv)) {
    KVFS_ERROR_AS(kFunction, "Record %hu of node %lu has grown beyond its open locator (from %zu to %zu bytes).\n",
                  arguments.index, node, record_capacity(priv), arguments.record_size);
    return kvfs_inconsistent;
  }
  if (priv->fork_data_offset != arguments.fork_data_offset) {
    KVFS_WARNING_AS(
        kFunction,
        "Mismatching data pointer offset for node %lu, record %hu (stored: %llu specified: %llu). Using specified.\n",
        node, arguments.index, to_ull(priv->fork_data_offset), to_ull(arguments.fork_data_offset));
    priv->fork_data_offset = arguments.fork_data_offset;
  }
  if (priv->tree != arguments.tree) {
    KVFS_CRITICAL_AS(kFunction, "Mismatching btree pointers (%p != %p)! Internal error...\n",
                     static_cast<void*>(priv->tree), static_cast<void*>(arguments.tree));
    return kvfs_internal;
  }
  update_shared_offsets(priv, arguments);
  if (std::memcmp(priv->record, arguments.record, arguments.record_size) != 0) {
    KVFS_WARNING_AS(kFunction, "Mismatching record data for node %lu, record %hu. Using specified.\n", node,
                    arguments.index);
    std::memcpy(priv->record, arguments.record, arguments.record_size);
  }
  ++priv->reference_count;
  return kvfs_ok;
}

// Allocates a locator with a copy of its record and links it at the head of the list.
static kvfs_result create_locator(const locator_arguments& arguments, kvfs_btree_record_locator** out_locator) {
  const std::size_t size = sizeof(locator_block) + arguments.record_size;
  locator_block* const block = static_cast<locator_block*>(std::calloc(1, size));
  if (block == nullptr) {
    KVFS_ERROR_AS("kvfs_btree_record_locator_open",
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
  std::memset(allocation, 0, static_cast<locator_block*>(allocation)->size);
  asm volatile("" : : "r"(allocation) : "memory");  // the stores look dead to the compiler: the memory is freed next
  std::free(allocation);
}

void kvfs_btree_record_locator_close(kvfs_btree_record_locator** locator) {
  kvfs_write_guard guard((*locator)->priv->tree->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking B-tree open locators list.\n");
    *locator = nullptr;  // the reference is leaked: touching the list without the lock could do worse
    return;
  }
  kvfs_btree_record_locator_release(locator, false);
  if (guard.release() != kvfs_ok) {
    KVFS_WARNING("Error while unlocking B-tree open locators list lock. Ignoring...\n");
  }
}

// Writes a record's data to the fork and to the locator's copy; the caller holds the tree's lock.
static kvfs_result write_record_data(kvfs_btree_record_locator* locator, const void* data, std::size_t data_size) {
  static const char* const kFunction = "kvfs_btree_record_locator_write_data";
  kvfs_btree_record_locator_private* const priv = locator->priv;
  if (data_size > record_capacity(priv) || priv->record_data_offset > record_capacity(priv) - data_size) {
    // The record was opened again with a longer key, and the public sizes are still those of the first opening.
    KVFS_ERROR_AS(kFunction, "Record %hu of node %lu has changed its layout. Its data cannot be written.\n",
                  priv->index, to_ul(priv->node));
    return kvfs_inconsistent;
  }
  const kvfs_result result = kvfs_fork_write(priv->tree->fork, priv->fork_data_offset, data, data_size, nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while writing out record data.\n");
    return result;
  }
  std::memcpy(priv->record + priv->record_data_offset, data, data_size);
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
    const std::uint32_t shifted = subtract ? priv->index - std::uint32_t{index_delta} : priv->index + std::uint32_t{index_delta};
    priv->index = static_cast<std::uint16_t>(shifted);
    priv->fork_data_offset = subtract ? priv->fork_data_offset - byte_delta : priv->fork_data_offset + byte_delta;
  }
}

// ---- Search --------------------------------------------------------------------------------------------------------

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
  std::uint32_t previous_data;  // where the data of the record before it begins, in the node

  std::uint32_t descents;
  std::uint32_t checkpoint;  // a node visited before, for finding cycles

  bool done;
  kvfs_btree_search_result result;
};

// A record of the current node. The engine rounds nothing here: the data of an index record begins right behind its
// key, whose length is even.
struct node_record {
  std::uint16_t offset;
  std::uint16_t end;
  std::uint32_t data;
  bool key_inside;  // whether the whole key lies in the node
};

static kvfs_result report_bad_record(std::uint32_t node, std::uint32_t index) {
  KVFS_ERROR_AS("kvfs_btree_search_node_internal", "Invalid node data: Record %lu of node %lu lies outside of the node.\n",
                to_ul(index), to_ul(node));
  return kvfs_inconsistent;
}

// Takes up the node that was just mapped.
static kvfs_result enter_node(search_walk* walk, std::uint32_t node) {
  walk->node = view_of(walk->tree, node, walk->map);
  walk->descriptor = descriptor_of(walk->node);
  walk->index = 0;
  if (walk->descriptor.numRecords.get() == 0) {
    KVFS_ERROR_AS("kvfs_btree_search_node_internal", "Invalid node data: Node %lu has no records.\n", to_ul(node));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result enter_start_node(search_walk* walk, std::uint32_t start) {
  static const char* const kFunction = "kvfs_btree_search_node_internal";
  const std::uint32_t total_nodes = walk->header.totalNodes.get();
  // A start node equal to the number of nodes passes here: this must stay as it is.
  if (start > total_nodes) {
    KVFS_ERROR_AS(kFunction, "HFSPlus:%s: Starting Node %lu > Total Nodes %lu\n", kFunction, to_ul(start),
                  to_ul(total_nodes));
    return kvfs_invalid;
  }
  const kvfs_result result = map_node(walk->tree, start, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while mapping raw node data.\n");
    return result;
  }
  std::uint16_t first = 0;
  if (!read_offset(view_of(walk->tree, start, walk->map), 0, &first)) {
    return report_bad_record(start, 0);
  }
  if (first != kBTFirstRecordOffset) {
    KVFS_ERROR_AS(kFunction, "HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n", kFunction, to_ul(start),
                  first, std::size_t{kBTFirstRecordOffset});
    return kvfs_inconsistent;
  }
  walk->checkpoint = start;
  return enter_node(walk, start);
}

static kvfs_result read_record(const search_walk* walk, std::uint32_t index, node_record* record) {
  if (!read_offset(walk->node, index, &record->offset) || !read_offset(walk->node, index + 1, &record->end)) {
    return report_bad_record(walk->node.number, index);
  }
  record->key_inside = read_key_end(walk->node, record->offset, &record->data);
  return kvfs_ok;
}

// Opens the locator of the search's result on the bytes of a record and ends the search.
static kvfs_result finish_search(search_walk* walk, const node_record& record, std::uint32_t index) {
  walk->done = true;
  if (record.offset < kBTFirstRecordOffset || record.end < record.offset || record.end > walk->node.size) {
    return report_bad_record(walk->node.number, index);
  }
  const std::uint32_t node = walk->node.number;
  return kvfs_btree_record_locator_open(walk->tree, node, static_cast<std::uint16_t>(index),
                                        walk->node.bytes + record.offset, record.end - record.offset,
                                        fork_position(walk->tree, node, record.offset), &walk->result.locator);
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
    static const char* const kFunction = "kvfs_btree_search_node_internal";
    KVFS_ERROR_AS(kFunction, "HFSPlus:%s: Not enough memory\n", kFunction);
  }
  return result;
}

// Stops in an index node of the target height, at the place where a record with the search key belongs.
static kvfs_result finish_in_index_node(search_walk* walk, const node_record& record, int order) {
  walk->result.found = order == 0 ? 1 : 0;
  const kvfs_result result = finish_search(walk, record, order < 0 ? walk->index + 1 : walk->index);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS("kvfs_btree_search_node_internal", "Error while creating kvfs_btree_record_locator.\n");
  }
  return result;
}

// Goes down to a child. What a search does in a node depends on the node alone, so that coming back to a node once
// means coming back for ever: comparing with one checkpoint, moved at each power of two (R. P. Brent's method), finds
// every cycle long before the bound on the number of descents would.
static kvfs_result descend(search_walk* walk, std::uint32_t child) {
  static const char* const kFunction = "kvfs_btree_search_node_internal";
  ++walk->descents;
  if (walk->descents == walk->header.totalNodes.get() || child == walk->checkpoint) {
    KVFS_ERROR_AS(kFunction, "Aborting search due to cyclic references in the B-tree.\n");
    return kvfs_inconsistent;
  }
  if ((walk->descents & (walk->descents - 1)) == 0) {
    walk->checkpoint = child;
  }
  const std::uint64_t position = walk->map.offset;
  kvfs_result result = unmap_range(&walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while unmapping raw node data of node at offset %llu.\n", to_ull(position));
    return result;
  }
  result = map_node(walk->tree, child, &walk->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while mapping raw node data of node %lu.\n", to_ul(child));
    return result;
  }
  return enter_node(walk, child);
}

// Reads the child that an index record leads to.
static kvfs_result read_child(const search_walk* walk, std::uint32_t data, std::uint32_t* child) {
  static const char* const kFunction = "kvfs_btree_search_node_internal";
  if (data + sizeof(kvfs_be32) > walk->node.size) {
    return report_bad_record(walk->node.number, walk->index);
  }
  *child = kvfs_view_as<kvfs_be32>(walk->node.bytes + data)->get();
  if (*child == walk->node.number) {
    KVFS_ERROR_AS(kFunction, "Index node points back to itself. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  if (*child >= walk->header.totalNodes.get()) {
    KVFS_ERROR_AS(kFunction, "Index node points to node after the last node. Inconsistent B-tree.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result visit_index_record(search_walk* walk, const node_record& record, int order) {
  // A key before the first one of the node still goes down through record 0.
  const std::uint32_t data = walk->index == 0 || order <= 0 ? record.data : walk->previous_data;
  std::uint32_t child = 0;
  const kvfs_result result = read_child(walk, data, &child);
  if (result != kvfs_ok) {
    return result;
  }
  if (walk->mode != kSearchToLeaf && walk->target_height == walk->descriptor.height) {
    return finish_in_index_node(walk, record, order);
  }
  if (walk->mode != kSearchToLeaf && walk->target_height > walk->descriptor.height) {
    ++walk->index;
    return kvfs_ok;
  }
  return descend(walk, child);
}

// Compares a record's key with the search key. In a node that has no keys the outcome does not matter, so that bytes
// that look like a key but leave the node are passed over there.
static kvfs_result compare_record(const search_walk* walk, const node_record& record, int* order) {
  const bool has_keys = walk->descriptor.kind == kBTLeafNode || walk->descriptor.kind == kBTIndexNode;
  *order = 0;
  if (record.key_inside) {
    *order =
        walk->tree->priv->compare(walk->node.bytes + record.offset, walk->key, walk->header.keyCompareType);
  }
  if (has_keys && (!record.key_inside || *order == kvfs_key_malformed)) {
    return report_bad_record(walk->node.number, walk->index);
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
  kvfs_btree_search_result found = {};
  const kvfs_result result = kvfs_btree_search_node_internal(tree, key, 0, kSearchToLeaf, 0, &found);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while releasing open locators list read-mode lock.\n");  // held for writing; the words must stay
    if (found.locator != nullptr) {
      kvfs_btree_record_locator_release(&found.locator, false);  // the caller will not see it
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

// Moves on to the first record of the next node. Only one step is taken: an empty node is not passed over.
static kvfs_result step_to_next_node(record_place* place) {
  static const char* const kFunction = "kvfs_btree_get_next_record_internal";
  const std::uint32_t next = place->descriptor.fLink.get();
  kvfs_result result = unmap_range(&place->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while unmapping original raw node data.\n");
    return result;
  }
  result = map_node(place->tree, next, &place->map);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while mapping raw node data of next node.\n");
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
    KVFS_ERROR_AS("kvfs_btree_get_next_record_internal",
                  "Invalid node data: Offset for record %hu is out of range (%hu).\n",
                  static_cast<unsigned short>(index), *offset);
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Opens a locator on the record of a place, after a check of the offset table.
static kvfs_result open_record_at(const record_place& place, kvfs_btree_record_locator** out_locator) {
  static const char* const kFunction = "kvfs_btree_get_next_record_internal";
  const std::uint16_t count = place.descriptor.numRecords.get();
  const unsigned short index = static_cast<unsigned short>(place.index);
  if (!has_offset_entry(place.node.size, count)) {
    KVFS_ERROR_AS(kFunction, "Invalid node data: Node cannot fit %hu records given the node size (%hu).\n", count,
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
        kFunction,
        "Invalid node data: Records offsets are not in order (offset for record %hu: %hu, offset for record %hu: %hu).\n",
        index, offset, static_cast<unsigned short>(place.index + 1), end);
    return kvfs_inconsistent;
  }
  result = kvfs_btree_record_locator_open(place.tree, place.node.number, index, place.node.bytes + offset, end - offset,
                                          fork_position(place.tree, place.node.number, offset), out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kFunction, "Error while creating target record locator.\n");
  }
  return result;
}

// Opens the record of a place whose node is mapped, or the first one of the next node. The node looked at last stays
// mapped for the caller.
static kvfs_result open_next_record(record_place* place, kvfs_btree_record_locator** out_locator) {
  static const char* const kFunction = "kvfs_btree_get_next_record_internal";
  const std::int8_t kind = place->descriptor.kind;
  const std::uint16_t count = place->descriptor.numRecords.get();
  if (kind != kBTLeafNode && kind != kBTIndexNode) {
    KVFS_ERROR_AS(kFunction, "Invalid node kind: %hhd\n", kind);
    return kvfs_inconsistent;
  }
  if (place->index > count) {
    KVFS_ERROR_AS(kFunction, "Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
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
    KVFS_ERROR("Error while releasing open locators list read-mode lock.\n");  // held for writing; the words must stay
    if (next != nullptr) {
      kvfs_btree_record_locator_release(&next, false);  // the caller will not see it
    }
  } else if (result == kvfs_ok) {
    *out_locator = next;
  }
  return kvfs_result_keep(result, unlocked);
}
