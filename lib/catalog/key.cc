// Catalog keys: making, comparing and ordering them.
//
// A key that cannot be compared sorts first (Q-catalog-2). One whose name goes on behind its end ends the search when
// it comes to that (X-catalog-1).

#include "catalog/key.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "btree.h"
#include "catalog.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"
#include "unicode.h"
#include "unicode/private.h"

using namespace kvfs::catalog;

void kvfs::catalog::make_key(HFSPlusCatalogKey* key, kvfs_be32 parent, const kvfs_be16* name,
                             std::uint32_t name_length) {
  key->keyLength.set(key_length_for(name_length));
  key->parentID = parent;
  key->nodeName.length.set(static_cast<std::uint16_t>(name_length));
  if (name_length != 0) {
    std::memcpy(key->nodeName.unicode, name, name_length * sizeof(kvfs_be16));
  }
}

kvfs_result kvfs::catalog::read_record_type(const char* speaker, const kvfs_catalog_record_locator* locator,
                                            std::uint16_t* type) {
  const std::size_t size = locator->btree_locator->data_size;
  if (size < sizeof(kvfs_be16)) {
    KVFS_ERROR_BY(speaker, "Record of %zu bytes is too short for a record type.\n", size);
    return kvfs_inconsistent;
  }
  *type = record_type_of(locator);
  return kvfs_ok;
}

kvfs_result kvfs::catalog::read_key_parent(const char* speaker, const kvfs_catalog_record_locator* locator,
                                           std::uint32_t* parent) {
  const kvfs_btree_record_locator* const record = locator->btree_locator;
  if (record->key_length < kHFSPlusCatalogKeyParentEnd) {
    KVFS_ERROR_BY(speaker, "Key of %lu bytes is too short for a parent.\n", to_ul(record->key_length));
    return kvfs_inconsistent;
  }
  *parent = kvfs_view_as<HFSPlusCatalogKey>(record->key)->parentID.get();
  return kvfs_ok;
}

kvfs_result kvfs::catalog::check_record_size(const char* speaker, const kvfs_catalog_record_locator* locator,
                                             std::size_t minimum) {
  const std::size_t size = locator->btree_locator->data_size;
  if (size >= minimum) {
    return kvfs_ok;
  }
  if (minimum == sizeof(HFSPlusCatalogFolder)) {
    KVFS_ERROR_BY(speaker, "Unexpected data size for HFSPlusCatalogFolder. Expected minimum: %zu Actual: %zu\n",
                  minimum, size);
  } else {
    KVFS_ERROR_BY(speaker, "Unexpected data size for catalog record. Expected minimum: %zu Actual: %zu\n", minimum,
                  size);
  }
  return kvfs_inconsistent;
}

kvfs_result kvfs::catalog::copy_record(const char* speaker, const kvfs_catalog_record_locator* locator, void* record,
                                       std::size_t size) {
  const kvfs_result checked = check_record_size(speaker, locator, size);
  if (checked == kvfs_ok) {
    std::memcpy(record, locator->btree_locator->data, size);
  }
  return checked;
}

namespace {

// A key with its fields in reach. Of the name only what the key holds can be read.
struct catalog_key_view {
  std::uint32_t parent;
  kvfs_cut_name name;
};

}  // namespace

// Takes apart a key that is known to hold its fixed fields.
static catalog_key_view view_key(const void* key) {
  const HFSPlusCatalogKey* const fields = kvfs_view_as<HFSPlusCatalogKey>(key);
  const std::uint16_t key_length = fields->keyLength.get();
  const std::size_t length = fields->nodeName.length.get();
  const std::size_t room = (key_length - std::size_t{key_length_for(0)}) / sizeof(kvfs_be16);
  return {fields->parentID.get(), {fields->nodeName.unicode, length, kvfs_min(length, room)}};
}

// The names of the private folders under the root folder begin with NUL units.
static bool is_private_name(const catalog_key_view& key) {
  return key.parent == kHFSRootFolderID && key.name.readable != 0 && key.name.units[0].get() == 0;
}

// Whether not even the first unit of a name is there, which decides how it is compared.
static bool lacks_first_unit(const catalog_key_view& key) {
  return key.name.readable == 0 && key.name.length != 0;
}

// Compares two keys in the same folder.
static int compare_key_views(const catalog_key_view& a, const catalog_key_view& b, std::uint8_t compare_type) {
  const bool binary = compare_type == kHFSBinaryCompare;
  // The first key decides even when both are private names, so that such names are never equal: Q-catalog-1.
  if (is_private_name(a)) {
    return binary ? -1 : 1;
  }
  if (!lacks_first_unit(a) && is_private_name(b)) {
    return binary ? 1 : -1;
  }
  return kvfs_unicode_compare_cut_names(a.name, b.name, binary);
}

int kvfs_catalog_compare_keys(const void* key_a, const void* key_b, std::uint8_t compare_type) {
  const std::uint16_t length_a = kvfs_view_as<kvfs_be16>(key_a)->get();
  if (length_a < kHFSPlusCatalogKeyMinimumLength) {
    KVFS_ERROR("Data in A is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_a);
    return -1;
  }
  const std::uint16_t length_b = kvfs_view_as<kvfs_be16>(key_b)->get();
  if (length_b < kHFSPlusCatalogKeyMinimumLength) {
    KVFS_ERROR("Data in B is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_b);
    return -1;
  }
  if (compare_type != kHFSBinaryCompare && compare_type != kHFSCaseFolding) {
    KVFS_ERROR("Illegal value for compare_type: 0x%X\n", static_cast<unsigned>(compare_type));
    return -1;
  }
  const std::uint32_t parent_a = kvfs_view_as<HFSPlusCatalogKey>(key_a)->parentID.get();
  const std::uint32_t parent_b = kvfs_view_as<HFSPlusCatalogKey>(key_b)->parentID.get();
  if (parent_a != parent_b) {
    return parent_a < parent_b ? -1 : 1;
  }
  const catalog_key_view a = view_key(key_a);
  const catalog_key_view b = view_key(key_b);
  const int order = compare_key_views(a, b, compare_type);
  if (order == kvfs_name_is_cut) {
    KVFS_ERROR("Names do not fit their keys.\n");
    return kvfs_key_malformed;
  }
  return order;
}
