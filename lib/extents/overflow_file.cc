// The extents overflow file: opening, checking and closing it.

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "extents.h"
#include "fork.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"

struct kvfs_extents_private {
  std::uint32_t reserved;  // without a use so far
};

kvfs_result kvfs_extents_validate(kvfs_btree* btree, int* out_valid) {
  if (out_valid == nullptr) {
    KVFS_ERROR("Invalid argument: out_result == NULL\n");
    return kvfs_invalid;
  }
  *out_valid = 0;
  BTHeaderRec header = {};
  const kvfs_result result = kvfs_fork_read(btree->fork, kBTHeaderRecordOffset, &header, sizeof(header), nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while reading node descriptor.\n");  // it is the header record: Q-extents-2
    return result;
  }
  if (header.btreeType != kHFSBTreeType) {
    KVFS_ERROR("Incorrect B-tree type for extents overflow file: 0x%hhX\n", header.btreeType);
    return kvfs_ok;
  }
  if ((header.attributes.get() & kBTVariableIndexKeysMask) != 0) {
    KVFS_ERROR("Extents overflow file has the variable index keys flag set. Expected fixed-size index keys.\n");
    return kvfs_ok;
  }
  if (btree->maxKeyLength != kHFSPlusExtentKeyLength) {
    KVFS_ERROR("Unexpected size for extents overflow file keys. Expected: %zu Actual: %hu\n",
               std::size_t{kHFSPlusExtentKeyLength}, btree->maxKeyLength);
    return kvfs_ok;
  }
  *out_valid = 1;
  return kvfs_ok;
}

// Opens the B-tree and has it validated, in the name of kvfs_extents_create.
static kvfs_result open_valid_tree(kvfs_device* device, HFSPlusVolumeHeader* volume_header, kvfs_btree** out_tree) {
  kvfs_btree* tree = nullptr;
  kvfs_result result =
      kvfs_btree_create(device, nullptr, 1, volume_header, kHFSExtentsFileID, kvfs_extents_compare_keys, &tree);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_extents_create, "Error while reading Extents B-Tree into memory.\n");
    return result;
  }
  int valid = 0;
  result = kvfs_extents_validate(tree, &valid);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_extents_create, "Error while validating extents B-tree.\n");
  } else if (valid == 0) {
    KVFS_ERROR_AS(kvfs_extents_create, "Extents B-tree failed validation (see earlier log messages).\n");
    result = kvfs_inconsistent;
  }
  if (result != kvfs_ok) {
    kvfs_btree_destroy(&tree);  // nobody else has it: X-extents-1
    return result;
  }
  *out_tree = tree;
  return kvfs_ok;
}

kvfs_result kvfs_extents_create(kvfs_device* device, HFSPlusVolumeHeader* volume_header, kvfs_extents** out_extents) {
  kvfs_owned<kvfs_extents> extents = kvfs_allocate_zeroed<kvfs_extents>();
  if (!extents) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_extents.\n", to_ull(sizeof(kvfs_extents)));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_extents_private> priv = kvfs_allocate_zeroed<kvfs_extents_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_extents_private.\n", to_ull(sizeof(kvfs_extents_private)));
    return kvfs_no_memory;
  }
  const kvfs_result result = open_valid_tree(device, volume_header, &extents->btree);
  if (result != kvfs_ok) {
    return result;
  }
  extents->priv = priv.release();
  *out_extents = extents.release();
  return kvfs_ok;
}

kvfs_result kvfs_extents_destroy(kvfs_extents** extents) {
  kvfs_btree_destroy(&(*extents)->btree);
  kvfs_zero_and_free((*extents)->priv);
  kvfs_zero_and_free(*extents);
  *extents = nullptr;
  return kvfs_ok;
}
