// The view of a node's bytes, which stays inside the node, and mapped ranges of a tree's fork.

#include "btree/node.h"

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "result.h"

using namespace kvfs::btree;

kvfs_result kvfs::btree::map_range(kvfs_fork* fork, std::uint64_t offset, std::size_t length, mapping* map) {
  void* bytes = nullptr;
  const kvfs_result result = kvfs_fork_map(fork, offset, &bytes, length, nullptr);
  if (result == kvfs_ok) {
    *map = {fork, offset, length, bytes};
  }
  return result;
}
