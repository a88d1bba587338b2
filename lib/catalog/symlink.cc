// Symbolic links.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/failure.h"
#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "catalog/file_record.h"
#include "catalog/key.h"
#include "device.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::catalog;

// Longest target, UTF-8.
static constexpr std::size_t kMaximumTargetSize = 255;

// Finds a free block for the target. None is a failure (X-catalog-6).
static kvfs_result find_target_block(kvfs_volume* volume, const HFSPlusCatalogFile& file, std::uint32_t* block) {
  kvfs_allocation_location location = {};
  const kvfs_result result = FindWriteLocation(file.fileID.get(), kHFSDataForkType, &file.dataFork, volume, 0,
                                               volume->header->blockSize.get(), &location);
  if (result != kvfs_ok || location.block_count == 0) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while searching for symlink data write location.\n");
    // A volume without a free block has not failed the search.
    return KVFS_FAILURE_VALUE(result, kvfs_catalog_mksymlink, "At error with no error value set!\n");
  }
  *block = location.start_block;
  return kvfs_ok;
}

// Writes the target, converted to UTF-8, to the first sector of a block, whose rest it clears (X-catalog-7);
// `size` receives its bytes.
static kvfs_result write_target(kvfs_volume* volume, std::uint32_t block, const kvfs_be16* target_name,
                                std::size_t target_length, std::size_t* size) {
  kvfs_device* const device = volume->device;
  const std::size_t buffer_size = kvfs_max<std::size_t>(device->sector_size, kMaximumTargetSize + 1);
  const kvfs_owned<char> sector(static_cast<char*>(std::calloc(1, buffer_size)));
  if (!sector) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while allocating %zu bytes for symlink data.\n", buffer_size);
    return kvfs_no_memory;
  }
  *size = kvfs_catalog_widechar_to_utf8(target_name, target_length, sector.get(), kMaximumTargetSize + 1);
  if (*size == 0 && target_length != 0) {
    if (target_name[0].get() == 0) {
      KVFS_ERROR_AS(kvfs_catalog_mksymlink, "The target of a symbolic link cannot begin with a NUL.\n");
    }
    return kvfs_invalid;  // or else the conversion has said why
  }
  const std::uint64_t first = std::uint64_t{block} * volume->header->blockSize.get() / device->sector_size;
  return kvfs_device_write_disk_sectors(device, first, 1, sector.get());
}

// Makes the record that of a symbolic link with its target in one block.
static void give_one_block(HFSPlusCatalogFile* file, std::uint32_t block) {
  file->dataFork.extents.extents[0] = {kvfs_be32::of(block), kvfs_be32::of(1)};
  file->dataFork.totalBlocks.set(1);
}

// Writes the target, marks its block as used and writes the record back: in this order, with nothing undone
// (Q-catalog-23).
static kvfs_result store_link(kvfs_catalog_record_locator* locator, HFSPlusCatalogFile* file,
                              const kvfs_be16* target_name, std::size_t target_length, kvfs_volume* volume) {
  std::uint32_t block = 0;
  kvfs_result result = find_target_block(volume, *file, &block);
  if (result != kvfs_ok) {
    return result;
  }
  std::size_t size = 0;
  result = write_target(volume, block, target_name, target_length, &size);
  if (result != kvfs_ok) {
    return result;
  }
  give_one_block(file, block);
  result = AllocateExtentAllocationBlocks(block, 1, volume);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while marking block %lu as allocated.\n", to_ul(block));
    return result;
  }
  kvfs_catalog_record_set_file_size(file, size);
  result = kvfs_btree_record_locator_write_data(locator->btree_locator, file, sizeof(*file));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while writing back modified HFSPlusCatalogFile to catalog.\n");
  }
  return result;
}

kvfs_result kvfs_catalog_mksymlink(kvfs_catalog_record_locator* locator, const kvfs_be16* target_name,
                                   std::size_t target_length, kvfs_volume* volume) {
  if (locator == nullptr) {
    return kvfs_invalid;
  }
  HFSPlusCatalogFile file;
  const kvfs_result copied = copy_record(__func__, locator, &file, sizeof(file));
  if (copied != kvfs_ok) {
    return copied;
  }
  file.userInfo.fdType.set(kSymLinkType);
  file.userInfo.fdCreator.set(kSymLinkCreator);
  file.userInfo.fdFlags.set(kSymLinkFinderFlags);
  file.permissions.fileMode.set(kSymLinkFileMode);
  return store_link(locator, &file, target_name, target_length, volume);
}
