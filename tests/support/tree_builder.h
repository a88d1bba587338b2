// Makes the B-trees of a volume, for the volume builder.

#ifndef KVFS_TREE_BUILDER_H
#define KVFS_TREE_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "volume_builder.h"

namespace kvfs_test {

// What is the same for every tree of a kind.
struct TreeTraits {
  std::uint16_t max_key_length = 516;
  std::uint32_t attributes = 6;  // big keys, variable index keys
  std::uint8_t key_compare_type = 0xCF;
};

// A B-tree in nodes, ready to be written once its fork has its place.
//
//   plan_tree puts sorted records into leaves, index records above them, chooses node numbers and the size of the fork;
//   write_tree writes header node, map nodes and all others through the fork.
struct TreePlan {
  struct Node {
    std::uint32_t number = 0;
    std::vector<Record> records;
  };

  std::uint32_t node_size = 0;
  std::uint32_t clump_size = 0;
  TreeTraits traits;
  std::vector<std::vector<Node>> levels;  // leaves first
  std::vector<std::uint32_t> map_nodes;
  std::uint32_t total_nodes = 0;
  std::uint32_t used_nodes = 0;  // with node 0 and the map nodes
  std::uint32_t blocks = 0;      // of the fork

  [[nodiscard]] std::uint64_t logical_size() const { return std::uint64_t{total_nodes} * node_size; }
};

// Lengthens the name of record `index` by so many bytes (an even number) and returns true, or changes nothing and
// returns false.
using Stretch = std::function<bool(std::size_t index, std::size_t bytes)>;

// Throws std::invalid_argument for what cannot be built.
TreePlan plan_tree(std::vector<Record>& records, const TreeShape& shape, const TreeTraits& traits,
                   std::uint32_t block_size, const Stretch& stretch);

void write_tree(SparseImage& image, const ForkView& fork, const TreePlan& plan);

}  // namespace kvfs_test

#endif  // KVFS_TREE_BUILDER_H
