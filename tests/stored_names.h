// Names and keys as the catalog keeps them.

#ifndef KVFS_STORED_NAMES_H
#define KVFS_STORED_NAMES_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "format.h"
#include "volume_image.h"

namespace kvfs_test {

// The units of a name, big-endian.
inline std::vector<kvfs_be16> stored_units(std::u16string_view name) {
  std::vector<kvfs_be16> units;
  for (const char16_t unit : name) {
    units.push_back(kvfs_be16::of(unit));
  }
  return units;
}

// A key in on-disk order.
inline HFSPlusCatalogKey stored_key(std::uint32_t parent, const Name& name) {
  HFSPlusCatalogKey key = {};
  const Bytes bytes = catalog_key(parent, name);
  std::memcpy(&key, bytes.data(), std::min(bytes.size(), sizeof(key)));
  return key;
}

}  // namespace kvfs_test

#endif  // KVFS_STORED_NAMES_H
