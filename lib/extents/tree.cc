// Opening a B-tree: its fork and its header node.

#include <cstdint>

#include "base/failure.h"
#include "base/fork_data.h"
#include "btree.h"
#include "btree/node.h"
#include "btree/private.h"
#include "device.h"
#include "extents.h"
#include "fork.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

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
  const BTNodeDescriptor* const descriptor = kvfs_view_as<BTNodeDescriptor>(map.bytes());
  if (descriptor->kind == kBTHeaderNode && descriptor->numRecords.get() == kBTHeaderNodeRecords) {
    return kvfs_ok;
  }
  // The count is printed with its bytes the wrong way round, 1024 for 4 records: Q-btree-1.
  const int in_little_endian = descriptor->numRecords.bytes[0] | descriptor->numRecords.bytes[1] << 8;
  KVFS_ERROR_AS(kvfs_btree_process,
                "HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
                KVFS_NAME_OF(kvfs_btree_process), static_cast<int>(descriptor->kind), in_little_endian);
  return kvfs_inconsistent;
}

static kvfs_result check_header_record(const mapping& map) {
  const BTHeaderRec* const header = kvfs_view_as<BTHeaderRec>(map.bytes());
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
  kvfs_result result = descriptor->map(fork, 0, sizeof(BTNodeDescriptor));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while mapping node descriptor of B-tree from its fork.\n");
    return result;
  }
  result = check_header_descriptor(*descriptor);
  if (result != kvfs_ok) {
    return result;
  }
  result = header->map(fork, kBTHeaderRecordOffset, sizeof(BTHeaderRec));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while mapping header record of B-tree from its fork.\n");
    return result;
  }
  result = check_header_record(*header);
  *node_size = kvfs_view_as<BTHeaderRec>(header->bytes())->nodeSize.get();
  *max_key_length = kvfs_view_as<BTHeaderRec>(header->bytes())->maxKeyLength.get();
  return result;
}

static kvfs_result check_tree_of_fork(kvfs_fork* fork, std::uint16_t* node_size, std::uint16_t* max_key_length) {
  mapping descriptor;
  mapping header;
  kvfs_result result = check_header_node(fork, &descriptor, &header, node_size, max_key_length);
  const kvfs_result header_unmapped = header.unmap();
  if (header_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while unmapping header record of B-tree from its fork.\n");
  }
  result = kvfs_result_keep(result, header_unmapped);
  const kvfs_result descriptor_unmapped = descriptor.unmap();
  if (descriptor_unmapped != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_process, "Error while unmapping node descriptor of B-tree from its fork.\n");
  }
  return kvfs_result_keep(result, descriptor_unmapped);
}

// What the opening of a tree returns when it fails.
static kvfs_result failure_value(kvfs_result result) {
  return KVFS_FAILURE_VALUE(result, kvfs_btree_process, "err was not set at 'error'. Setting generic error value.\n");
}

static bool is_tree(std::uint32_t cnid) {
  return cnid == kHFSExtentsFileID || cnid == kHFSCatalogFileID || cnid == kHFSAttributesFileID;
}

kvfs_result kvfs_btree_process(HFSPlusVolumeHeader* volume_header, std::uint32_t tree_kind, kvfs_device* device,
                               kvfs_extents* extents, int partial, kvfs_fork** out_fork, std::uint16_t* out_node_size,
                               std::uint16_t* out_max_key_length) {
  if (!is_tree(tree_kind)) {
    return kvfs_invalid;
  }
  HFSPlusForkData* const fork_data = kvfs_volume_header_fork_data(volume_header, tree_kind);
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
