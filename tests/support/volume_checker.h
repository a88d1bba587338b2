// Says what is wrong with a volume.

#ifndef KVFS_VOLUME_CHECKER_H
#define KVFS_VOLUME_CHECKER_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "volume_image.h"

namespace kvfs_test {

// What a caller tolerates, because it made it so or because another system's volumes have it.
struct CheckOptions {
  std::set<std::uint32_t> empty_leaves;  // nodes that may be leaves without records
  bool leaked_blocks = false;            // blocks marked used that belong to nothing
  bool missing_threads = false;          // files and folders without thread record
};

// Walks a whole volume and says what is wrong with it; empty means sound. Shares no code with what it checks: node
// links and kinds, offset tables, record order, index keys against children, counts and depth in the tree headers, node
// bitmaps, extents against sizes, threads against records, valences and folder counts, the header's counters, the
// allocation bitmap, the alternate header.
//
// Never throws and never runs away on a damaged volume: at most kMaxMessages messages, each node visited once.
inline constexpr std::size_t kMaxMessages = 100;
std::vector<std::string> check_volume(const Volume& volume, const CheckOptions& options = {});

// One tree alone (structure and key order, not what its records say).
std::vector<std::string> check_btree(const Volume& volume, Tree tree, const CheckOptions& options = {});

// "" when there are no messages, else one line for each: for EXPECT_EQ(joined(check_volume(v)), "").
std::string joined(const std::vector<std::string>& messages);

}  // namespace kvfs_test

#endif  // KVFS_VOLUME_CHECKER_H
