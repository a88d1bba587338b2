// The order of names for the catalog, whose keys may hold less of a name than they claim.

#ifndef KVFS_UNICODE_PRIVATE_H
#define KVFS_UNICODE_PRIVATE_H

#include <climits>
#include <cstddef>

#include "format.h"
#include "unicode.h"

// A stored name of which the first units can be read.
struct kvfs_cut_name {
  const kvfs_be16* units;
  std::size_t length;    // units that the name claims to have
  std::size_t readable;  // units that are there, at most `length`
};

// What a comparison gives when it would need a unit that is not there.
inline constexpr int kvfs_name_is_cut = INT_MIN;

// Compares two stored names as kvfs_unicode_fast_compare does, and reads no further than until they differ. Returns
// what that returns, or kvfs_name_is_cut.
int kvfs_unicode_compare_cut_names(const kvfs_cut_name& a, const kvfs_cut_name& b, bool binary);

#endif  // KVFS_UNICODE_PRIVATE_H
