// Opening, flushing and closing a volume.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "device.h"
#include "extents.h"
#include "format.h"
#include "ground/owned.h"
#include "result.h"
#include "support.h"
#include "volume.h"
#include "volume/private.h"
#include "volume_header.h"

namespace {

// What a setup has opened so far. It is undone in one go when a later step fails.
struct volume_parts {
  kvfs_rwlock* lock;
  unsigned char* sector_buffer;
  std::uint32_t sector_buffer_size;
  HFSPlusVolumeHeader* header;
  kvfs_bitmap* bitmap;
  kvfs_extents* extents;
  kvfs_catalog* catalog;
  kvfs_btree* attributes;
  kvfs_catalog_search_result root;
};

}  // namespace

static void close_files(kvfs_bitmap** bitmap, kvfs_btree** attributes, kvfs_catalog** catalog, kvfs_extents** extents) {
  if (*bitmap != nullptr) {
    kvfs_bitmap_destroy(bitmap);
  }
  if (*attributes != nullptr) {
    kvfs_btree_destroy(attributes);
  }
  if (*catalog != nullptr) {
    kvfs_catalog_destroy(catalog);
  }
  if (*extents != nullptr) {
    (void)kvfs_extents_destroy(extents);  // it has no failures
  }
}

static void undo_setup(volume_parts* parts) {
  if (parts->lock != nullptr) {
    (void)kvfs_rwlock_destroy(&parts->lock);  // a refusal is logged there; nothing else can be done about it
  }
  kvfs_catalog_search_result_release(&parts->root);
  close_files(&parts->bitmap, &parts->attributes, &parts->catalog, &parts->extents);
  std::free(parts->sector_buffer);
}

// Reads the sectors that hold the volume header: those that cover its 512 bytes from byte 1024 of the volume on.
static kvfs_result read_header(kvfs_device* device, volume_parts* parts) {
  const std::uint64_t sector_size = device->sector_size;
  if (sector_size == 0) {  // X-device-1
    KVFS_ERROR_AS(kvfs_volume_setup, "Device has a sector size of 0.\n");
    return kvfs_invalid;
  }
  const std::uint64_t offset = kVolumeHeaderOffset % sector_size;
  const std::uint64_t count = (sector_size + offset + kVolumeHeaderSize - 1) / sector_size;
  void* buffer = nullptr;
  const kvfs_result result = kvfs_device_read_disk_sectors(device, kVolumeHeaderOffset / sector_size,
                                                           static_cast<std::uint32_t>(count), &buffer);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Error while reading volume header disk sector%s.\n", count >= 2 ? "s" : "");
    return result;
  }
  parts->sector_buffer = static_cast<unsigned char*>(buffer);
  parts->sector_buffer_size = static_cast<std::uint32_t>(count * sector_size);
  parts->header = kvfs_view_as<HFSPlusVolumeHeader>(static_cast<void*>(parts->sector_buffer + offset));
  return kvfs_ok;
}

// Names the variant of the volume for messages, "+" or "X"; null when the signature is neither's.
static const char* name_variant(const HFSPlusVolumeHeader* header) {
  const std::uint16_t signature = header->signature.get();
  if (signature == kHFSPlusSigWord) {
    return "+";
  }
  if (signature == kHFSXSigWord) {
    return "X";
  }
  // Decimal digits behind "0x": Q-volume-1.
  KVFS_ERROR_AS(kvfs_volume_setup, "Invalid signature word for HFS+ volume: 0x%hu\n", signature);
  return nullptr;
}

static kvfs_result open_files(kvfs_device* device, int skip_allocation_file, const char* variant, volume_parts* parts) {
  kvfs_result result = kvfs_extents_create(device, parts->header, &parts->extents);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Error while loading extents overflow file from HFS%s volume.\n", variant);
    return result;
  }
  result = kvfs_catalog_create(device, parts->extents, parts->header, &parts->catalog);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Error while loading catalog file.\n");
    return result;
  }
  if (skip_allocation_file == 0) {
    result = kvfs_bitmap_create(parts->header, device, parts->extents, &parts->bitmap);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_volume_setup, "Unable to load allocation file.\n");
    }
  }
  return result;
}

static kvfs_result find_root_folder(volume_parts* parts) {
  const kvfs_result result = kvfs_catalog_search_by_cnid(parts->catalog, kHFSRootFolderID, true, &parts->root);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Error while looking up root directory.\n");
    return result;
  }
  if (parts->root.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_volume_setup,
                     "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  if (parts->root.found == 0) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Root directory not found!\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result report_short_root() {
  KVFS_ERROR_AS(kvfs_volume_setup, "Record of root directory is too short for its name.\n");
  return kvfs_inconsistent;
}

// Copies the root folder's name, which must lie in the copy of its record (X-volume-1), as the label.
static kvfs_result read_label(const volume_parts& parts, kvfs_volume_private* priv) {
  const kvfs_btree_record_locator* const record = parts.root.locator->btree_locator;
  const std::uint32_t size = static_cast<std::uint32_t>(record->data - record->key) + record->data_size;
  if (size < kHFSPlusCatalogKeyNameOffset) {
    return report_short_root();
  }
  const HFSUniStr255* const name = &kvfs_view_as<HFSPlusCatalogKey>(record->key)->nodeName;
  const std::uint16_t length = name->length.get();
  if (length > kHFSPlusMaxNameLength) {
    // Without a line feed, so that the caller's message goes on in the same line: Q-log-2.
    KVFS_ERROR_AS(kvfs_volume_setup, "Invalid volume label length: %hu", length);
    return kvfs_inconsistent;
  }
  if (size - kHFSPlusCatalogKeyNameOffset < length * sizeof(kvfs_be16)) {
    return report_short_root();
  }
  priv->label_length = length;
  std::memcpy(priv->label, name->unicode, length * sizeof(kvfs_be16));
  return kvfs_ok;
}

// Opens all that a volume consists of. What was opened before a failure is in `parts` for the caller to undo.
static kvfs_result open_parts(kvfs_device* device, int skip_allocation_file, volume_parts* parts,
                              kvfs_volume_private* priv) {
  kvfs_result result = read_header(device, parts);
  if (result != kvfs_ok) {
    return result;
  }
  const char* const variant = name_variant(parts->header);
  if (variant == nullptr) {
    return kvfs_failed;
  }
  result = open_files(device, skip_allocation_file, variant, parts);
  if (result == kvfs_ok) {
    result = find_root_folder(parts);
  }
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_rwlock_create(&parts->lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_volume_setup, "Error while creating volume lock.\n");
    return result;
  }
  return read_label(*parts, priv);
}

kvfs_result kvfs_volume_setup(kvfs_device* device, int skip_allocation_file, kvfs_bitmap** out_bitmap,
                              kvfs_extents** out_extents, kvfs_catalog** out_catalog, kvfs_btree** out_attributes,
                              kvfs_volume_private** out_private) {
  kvfs_owned<kvfs_volume_private> priv = kvfs_allocate_zeroed<kvfs_volume_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating memory for kvfs_volume_private.\n");
    return kvfs_no_memory;
  }
  volume_parts parts = {};
  kvfs_catalog_search_result_init(&parts.root);
  const kvfs_result result = open_parts(device, skip_allocation_file, &parts, priv.get());
  if (result != kvfs_ok) {
    undo_setup(&parts);
    return result;
  }
  priv->lock = parts.lock;
  priv->sector_buffer = parts.sector_buffer;
  priv->sector_buffer_size = parts.sector_buffer_size;
  priv->header = parts.header;
  kvfs_catalog_search_result_release(&parts.root);
  *out_bitmap = parts.bitmap;
  *out_extents = parts.extents;
  *out_catalog = parts.catalog;
  *out_attributes = parts.attributes;
  *out_private = priv.release();
  return kvfs_ok;
}

kvfs_result kvfs_volume_create(kvfs_device* device, int skip_allocation_file, kvfs_volume** out_volume) {
  kvfs_owned<kvfs_volume> volume = kvfs_allocate_zeroed<kvfs_volume>();
  if (!volume) {
    KVFS_ERROR("Error while allocating memory for kvfs_volume.\n");
    return kvfs_no_memory;
  }
  const kvfs_result result = kvfs_volume_setup(device, skip_allocation_file, &volume->bitmap, &volume->extents,
                                               &volume->catalog, &volume->attributes, &volume->priv);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while setting up HFS volume.\n");
    return result;
  }
  volume->device = device;
  volume->header = volume->priv->header;
  volume->label_length = &volume->priv->label_length;
  volume->label = volume->priv->label;
  *out_volume = volume.release();
  return kvfs_ok;
}

void kvfs_volume_destroy(kvfs_volume** volume) {
  kvfs_volume* const closed = *volume;
  const kvfs_result result = kvfs_rwlock_destroy(&closed->priv->lock);
  if (result != kvfs_ok) {
    KVFS_CRITICAL("Error %llu while destroying volume label lock.\n", to_ull(result));
  }
  close_files(&closed->bitmap, &closed->attributes, &closed->catalog, &closed->extents);
  std::free(closed->priv->sector_buffer);
  kvfs_zero_and_free(closed->priv);
  kvfs_zero_and_free(closed);
  *volume = nullptr;
}

kvfs_result kvfs_volume_flush(kvfs_volume* volume) {
  const kvfs_volume_private* const priv = volume->priv;
  const std::uint32_t sector_size = volume->device->sector_size;
  const kvfs_result result = kvfs_device_write_disk_sectors(
      volume->device, kVolumeHeaderOffset / sector_size, priv->sector_buffer_size / sector_size, priv->sector_buffer);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while flushing volume header.\n");
  }
  return result;
}
