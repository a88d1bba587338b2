// Catalog keys: making, comparing and ordering them.
//
// Of keys and records no more is read than they hold: X-catalog-3.

#ifndef KVFS_CATALOG_KEY_H
#define KVFS_CATALOG_KEY_H

#include <cstddef>
#include <cstdint>

#include "btree.h"
#include "catalog.h"
#include "format.h"
#include "result.h"

namespace kvfs::catalog {

constexpr std::uint16_t key_length_for(std::uint32_t name_length) {
  return static_cast<std::uint16_t>(kHFSPlusCatalogKeyMinimumLength + sizeof(kvfs_be16) * name_length);
}

// Builds the key of an item: its folder, as stored, and its name of at most 255 units.
void make_key(HFSPlusCatalogKey* key, kvfs_be32 parent, const kvfs_be16* name, std::uint32_t name_length);

// Builds the key of an item's thread record: the item itself and an empty name.
inline void make_thread_key(HFSPlusCatalogKey* key, kvfs_be32 cnid) {
  key->keyLength.set(key_length_for(0));
  key->parentID = cnid;
  key->nodeName.length.set(0);
}

// The type of a locator's record that is long enough to have one, host order.
inline std::uint16_t record_type_of(const kvfs_catalog_record_locator* locator) {
  return kvfs_view_as<kvfs_be16>(locator->btree_locator->data)->get();
}

// Reads the type of any locator's record, in the name of `speaker`.
kvfs_result read_record_type(const char* speaker, const kvfs_catalog_record_locator* locator, std::uint16_t* type);

// Reads the folder that holds the record of a locator, host order, out of the key.
kvfs_result read_key_parent(const char* speaker, const kvfs_catalog_record_locator* locator, std::uint32_t* parent);

// Checks that a locator's record has as many bytes as are going to be read.
kvfs_result check_record_size(const char* speaker, const kvfs_catalog_record_locator* locator, std::size_t minimum);

// Copies a record of a known size out of a locator.
kvfs_result copy_record(const char* speaker, const kvfs_catalog_record_locator* locator, void* record,
                        std::size_t size);

inline bool is_thread(std::uint16_t record_type) {
  return record_type == kHFSPlusFolderThreadRecord || record_type == kHFSPlusFileThreadRecord;
}

inline kvfs_btree* btree_of(const kvfs_catalog* catalog) {
  return *catalog->btree;
}

}  // namespace kvfs::catalog

#endif  // KVFS_CATALOG_KEY_H
