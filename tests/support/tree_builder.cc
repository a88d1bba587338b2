#include "tree_builder.h"

#include <algorithm>
#include <stdexcept>

#include "big_endian.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kDescriptorSize = 14;
constexpr std::size_t kHeaderMapOffset = 248;
constexpr std::size_t kNoLimit = ~std::size_t{0};

constexpr std::size_t even(std::size_t length) {
  return length + length % 2;
}

// What a record takes of its node, its entry in the offset table included.
std::size_t record_size(const Record& record) {
  return even(record.first.size()) + even(record.second.size()) + 2;
}

// What all records of a node may take: one entry of the offset table is that of the free space.
std::size_t node_capacity(std::uint32_t node_size) {
  return node_size - kDescriptorSize - 2;
}

std::size_t header_map_bits(std::uint32_t node_size) {
  return (node_size - std::size_t{256}) * 8;
}

// A map node's record ends two bytes before the offset table, which keeps its length a multiple of four.
std::size_t map_node_bytes(std::uint32_t node_size) {
  return node_size - std::size_t{20};
}

struct NodeLimits {
  std::size_t capacity = 0;
  std::size_t max_records = kNoLimit;
};

// Number of records from `start` on that go into one node.
std::size_t count_fitting(const std::vector<Record>& records, std::size_t start, NodeLimits limits) {
  std::size_t used = 0;
  std::size_t count = 0;
  while (start + count < records.size() && count < limits.max_records) {
    used += record_size(records[start + count]);
    if (used > limits.capacity) {
      break;
    }
    ++count;
  }
  if (count == 0) {
    throw std::invalid_argument("a record is larger than a node may hold");
  }
  return count;
}

std::size_t size_of_run(const std::vector<Record>& records, std::size_t start, std::size_t count) {
  std::size_t used = 0;
  for (std::size_t i = start; i < start + count; ++i) {
    used += record_size(records[i]);
  }
  return used;
}

// Lays sorted records into leaves under the limits of a shape.
class LeafPacker {
 public:
  LeafPacker(std::vector<Record>& records, const TreeShape& shape, std::size_t max_records, const Stretch& stretch)
      : records_(records), shape_(shape), max_records_(max_records), stretch_(stretch) {}

  // Number of records in each leaf. Without a stretch, exact fills are only approached.
  [[nodiscard]] std::vector<std::size_t> pack() {
    std::vector<std::size_t> counts;
    for (std::size_t start = 0; start < records_.size(); start += counts.back()) {
      counts.push_back(pack_leaf(counts.size(), start));
    }
    return counts;
  }

 private:
  [[nodiscard]] std::size_t pack_leaf(std::size_t leaf, std::size_t start) {
    const auto fill = shape_.leaf_fill.find(leaf);
    NodeLimits limits{node_capacity(shape_.node_size) - shape_.leaf_free_bytes, max_records_};
    if (fill == shape_.leaf_fill.end()) {
      return count_fitting(records_, start, limits);
    }
    const std::size_t free_bytes = fill->second.free_bytes.value_or(0);
    limits.capacity = node_capacity(shape_.node_size) - free_bytes;
    limits.max_records = fill->second.max_records == 0 ? kNoLimit : fill->second.max_records;
    const std::size_t count = count_fitting(records_, start, limits);
    return fill->second.free_bytes && stretch_ ? fill_exactly(leaf, start, count, limits.capacity) : count;
  }

  [[nodiscard]] std::size_t fill_exactly(std::size_t leaf, std::size_t start, std::size_t count, std::size_t capacity) {
    for (; count > 0; --count) {
      const std::size_t missing = capacity - size_of_run(records_, start, count);
      if (missing == 0 || (missing % 2 == 0 && stretch_(start + count - 1, missing))) {
        return count;
      }
    }
    throw std::invalid_argument("leaf " + std::to_string(leaf) + " cannot be given the free bytes asked for");
  }

  std::vector<Record>& records_;
  const TreeShape& shape_;
  std::size_t max_records_;
  const Stretch& stretch_;
};

using Level = std::vector<TreePlan::Node>;

// The index records for the nodes of a level; their numbers come later.
std::vector<Record> index_records(const Level& level) {
  std::vector<Record> records;
  records.reserve(level.size());
  for (const TreePlan::Node& node : level) {
    records.emplace_back(node.records.front().first, Bytes(4));
  }
  return records;
}

Level split_level(const std::vector<Record>& records, const std::vector<std::size_t>& counts) {
  Level level;
  auto next = records.begin();
  for (const std::size_t count : counts) {
    const auto end = next + static_cast<std::ptrdiff_t>(count);
    level.push_back({0, std::vector<Record>(next, end)});
    next = end;
  }
  return level;
}

std::vector<std::size_t> pack_index(const std::vector<Record>& records, std::uint32_t node_size,
                                    std::size_t max_records) {
  std::vector<std::size_t> counts;
  for (std::size_t start = 0; start < records.size(); start += counts.back()) {
    counts.push_back(count_fitting(records, start, {node_capacity(node_size), max_records}));
  }
  return counts;
}

std::vector<Level> build_levels(std::vector<Record>& records, const TreeShape& shape, std::size_t leaf_limit,
                                std::size_t index_limit, const Stretch& stretch) {
  std::vector<Level> levels;
  if (records.empty()) {
    return levels;
  }
  levels.push_back(split_level(records, LeafPacker(records, shape, leaf_limit, stretch).pack()));
  while (levels.back().size() > 1) {
    const std::vector<Record> above = index_records(levels.back());
    const std::vector<std::size_t> counts = pack_index(above, shape.node_size, index_limit);
    if (counts.size() >= above.size()) {
      throw std::invalid_argument("the keys are too long for index nodes of two records");
    }
    levels.push_back(split_level(above, counts));
  }
  return levels;
}

std::size_t limit_of(std::uint16_t value) {
  return value == 0 ? kNoLimit : value;
}

// Finds the mildest limits that give the height asked for.
std::vector<Level> build_levels_of_height(std::vector<Record>& records, const TreeShape& shape,
                                          const Stretch& stretch) {
  constexpr std::size_t kLimits[] = {kNoLimit, 100, 30, 10, 6, 4, 3, 2};
  const std::size_t natural =
      build_levels(records, shape, limit_of(shape.max_leaf_records), limit_of(shape.max_index_records), {}).size();
  std::size_t leaf_limit = limit_of(shape.max_leaf_records);
  std::size_t index_limit = limit_of(shape.max_index_records);
  const auto try_limits = [&](std::size_t leaf, std::size_t index) {
    leaf = std::min(leaf, limit_of(shape.max_leaf_records));
    index = std::min(index, limit_of(shape.max_index_records));
    const bool fits = build_levels(records, shape, leaf, index, {}).size() == shape.height;
    if (fits) {
      leaf_limit = leaf;
      index_limit = index;
    }
    return fits;
  };
  for (const std::size_t limit : kLimits) {
    if (natural >= shape.height || try_limits(kNoLimit, limit) || try_limits(limit, limit)) {
      break;
    }
  }
  std::vector<Level> levels = build_levels(records, shape, leaf_limit, index_limit, stretch);
  while (!levels.empty() && levels.size() < shape.height) {
    levels.push_back(split_level(index_records(levels.back()), {1}));
  }
  if (levels.size() != shape.height) {
    throw std::invalid_argument("the records need a tree of height " + std::to_string(levels.size()));
  }
  return levels;
}

// Gives out node numbers in ascending order, past those that are to stay free.
class NodeNumbers {
 public:
  explicit NodeNumbers(const std::set<std::uint32_t>& free_nodes) : free_nodes_(free_nodes) {}

  std::uint32_t take() {
    while (free_nodes_.count(next_) != 0) {
      ++next_;
    }
    ++taken_;
    return next_++;
  }

  [[nodiscard]] std::uint32_t next() const { return next_; }
  [[nodiscard]] std::uint32_t taken() const { return taken_; }

 private:
  const std::set<std::uint32_t>& free_nodes_;
  std::uint32_t next_ = 1;
  std::uint32_t taken_ = 0;
};

void take_map_nodes(TreePlan& plan, NodeNumbers& numbers, std::size_t count) {
  plan.map_nodes.clear();
  for (std::size_t i = 0; i < count; ++i) {
    plan.map_nodes.push_back(numbers.take());
  }
}

// Numbers all nodes and returns the first number behind them.
std::uint32_t number_nodes(TreePlan& plan, const TreeShape& shape, std::size_t map_nodes) {
  NodeNumbers numbers(shape.free_nodes);
  if (shape.map_nodes_first) {
    take_map_nodes(plan, numbers, map_nodes);
  }
  for (Level& level : plan.levels) {
    for (TreePlan::Node& node : level) {
      node.number = numbers.take();
    }
  }
  if (!shape.map_nodes_first) {
    take_map_nodes(plan, numbers, map_nodes);
  }
  plan.used_nodes = numbers.taken() + 1;
  const std::uint32_t behind_holes = shape.free_nodes.empty() ? 0 : *shape.free_nodes.rbegin() + 1;
  return std::max(numbers.next(), behind_holes);
}

// Sets the size of the tree and of its fork for nodes that end before `end`.
void size_tree(TreePlan& plan, const TreeShape& shape, std::uint32_t block_size, std::uint32_t end) {
  const std::uint32_t wanted = shape.total_nodes != 0 ? shape.total_nodes : end + shape.spare_nodes;
  if (wanted < end) {
    throw std::invalid_argument("the tree needs " + std::to_string(end) + " nodes");
  }
  const std::uint64_t per_node = std::max<std::uint64_t>(1, plan.node_size / block_size);
  std::uint64_t blocks = (std::uint64_t{wanted} * plan.node_size + block_size - 1) / block_size;
  blocks = std::max<std::uint64_t>(blocks, shape.extent_count);
  blocks = (blocks + per_node - 1) / per_node * per_node;
  const std::uint64_t filled = blocks * block_size / plan.node_size;
  plan.blocks = static_cast<std::uint32_t>(blocks);
  plan.total_nodes = shape.total_nodes != 0 ? wanted : static_cast<std::uint32_t>(filled);
}

std::size_t map_nodes_needed(const TreePlan& plan) {
  const std::size_t first = header_map_bits(plan.node_size);
  const std::size_t each = map_node_bytes(plan.node_size) * 8;
  return plan.total_nodes <= first ? 0 : (plan.total_nodes - first + each - 1) / each;
}

// More map nodes need more nodes, which may need more map nodes: repeated until it comes out even.
void number_and_size(TreePlan& plan, const TreeShape& shape, std::uint32_t block_size) {
  std::size_t map_nodes = 0;
  while (true) {
    size_tree(plan, shape, block_size, number_nodes(plan, shape, map_nodes));
    const std::size_t needed = map_nodes_needed(plan);
    if (needed <= map_nodes) {
      return;
    }
    map_nodes = needed;
  }
}

void link_index_records(std::vector<Level>& levels) {
  for (std::size_t i = 1; i < levels.size(); ++i) {
    auto child = levels[i - 1].begin();
    for (TreePlan::Node& node : levels[i]) {
      for (Record& record : node.records) {
        put_be(record.second, 0, 4, child->number);
        ++child;
      }
    }
  }
}

void check_shape(const TreeShape& shape) {
  const bool power_of_two = (shape.node_size & (shape.node_size - 1)) == 0;
  if (shape.node_size < 512 || shape.node_size > 32768 || !power_of_two) {
    throw std::invalid_argument("a node size must be a power of two from 512 to 32768");
  }
  if (shape.max_index_records == 1 || shape.extent_count == 0 || shape.free_nodes.count(0) != 0) {
    throw std::invalid_argument("an impossible tree shape");
  }
}

// ---- Writing

struct Descriptor {
  std::uint32_t forward = 0;
  std::uint32_t backward = 0;
  std::int8_t kind = 0;
  std::uint8_t height = 0;
  std::uint16_t records = 0;
};

void put_descriptor(Bytes& node, const Descriptor& descriptor) {
  put_be(node, 0, 4, descriptor.forward);
  put_be(node, 4, 4, descriptor.backward);
  put_be(node, 8, 1, static_cast<std::uint8_t>(descriptor.kind));
  put_be(node, 9, 1, descriptor.height);
  put_be(node, 10, 2, descriptor.records);
}

void put_offset(Bytes& node, std::size_t index, std::size_t offset) {
  put_be(node, node.size() - 2 * (index + 1), 2, offset);
}

Bytes render_node(std::uint32_t node_size, const std::vector<Record>& records, const Descriptor& descriptor) {
  Bytes node(node_size);
  put_descriptor(node, descriptor);
  std::size_t at = kDescriptorSize;
  for (std::size_t i = 0; i < records.size(); ++i) {
    put_offset(node, i, at);
    const auto& [key, data] = records[i];
    std::copy(key.begin(), key.end(), node.begin() + static_cast<std::ptrdiff_t>(at));
    at += even(key.size());
    std::copy(data.begin(), data.end(), node.begin() + static_cast<std::ptrdiff_t>(at));
    at += even(data.size());
  }
  put_offset(node, records.size(), at);
  return node;
}

void write_level(SparseImage& image, const ForkView& fork, const TreePlan& plan, std::size_t height) {
  const Level& level = plan.levels[height];
  for (std::size_t i = 0; i < level.size(); ++i) {
    const Descriptor descriptor{
        i + 1 < level.size() ? level[i + 1].number : 0,      i > 0 ? level[i - 1].number : 0,
        static_cast<std::int8_t>(height == 0 ? -1 : 0),      static_cast<std::uint8_t>(height + 1),
        static_cast<std::uint16_t>(level[i].records.size()),
    };
    fork.write(image, std::uint64_t{level[i].number} * plan.node_size,
               render_node(plan.node_size, level[i].records, descriptor));
  }
}

std::size_t count_leaf_records(const TreePlan& plan) {
  std::size_t count = 0;
  if (!plan.levels.empty()) {
    for (const TreePlan::Node& leaf : plan.levels.front()) {
      count += leaf.records.size();
    }
  }
  return count;
}

void put_header_record(Bytes& node, const TreePlan& plan) {
  const bool empty = plan.levels.empty();
  std::uint8_t* const header = node.data() + kDescriptorSize;
  put_be(header + 0, 2, plan.levels.size());
  put_be(header + 2, 4, empty ? 0 : plan.levels.back().front().number);
  put_be(header + 6, 4, count_leaf_records(plan));
  put_be(header + 10, 4, empty ? 0 : plan.levels.front().front().number);
  put_be(header + 14, 4, empty ? 0 : plan.levels.front().back().number);
  put_be(header + 18, 2, plan.node_size);
  put_be(header + 20, 2, plan.traits.max_key_length);
  put_be(header + 22, 4, plan.total_nodes);
  put_be(header + 26, 4, plan.total_nodes - plan.used_nodes);
  put_be(header + 32, 4, plan.clump_size);
  put_be(header + 37, 1, plan.traits.key_compare_type);
  put_be(header + 38, 4, plan.traits.attributes);
}

// One bit for each node, over the whole of the map.
Bytes node_bitmap(const TreePlan& plan) {
  const std::size_t bytes = plan.node_size + plan.map_nodes.size() * map_node_bytes(plan.node_size);
  Bytes map(std::max<std::size_t>(bytes, plan.total_nodes / 8 + 1));
  const auto mark = [&map](std::uint32_t node) { map[node / 8] |= static_cast<std::uint8_t>(0x80U >> node % 8); };
  mark(0);
  std::for_each(plan.map_nodes.begin(), plan.map_nodes.end(), mark);
  for (const Level& level : plan.levels) {
    for (const TreePlan::Node& node : level) {
      mark(node.number);
    }
  }
  return map;
}

void write_header_node(SparseImage& image, const ForkView& fork, const TreePlan& plan, const Bytes& map) {
  Bytes node(plan.node_size);
  put_descriptor(node, {plan.map_nodes.empty() ? 0 : plan.map_nodes.front(), 0, 1, 0, 3});
  put_header_record(node, plan);
  const std::size_t offsets[] = {kDescriptorSize, 120, kHeaderMapOffset, plan.node_size - std::size_t{8}};
  for (std::size_t i = 0; i < 4; ++i) {
    put_offset(node, i, offsets[i]);
  }
  std::copy_n(map.begin(), plan.node_size - 256, node.begin() + kHeaderMapOffset);
  fork.write(image, 0, node);
}

void write_map_nodes(SparseImage& image, const ForkView& fork, const TreePlan& plan, const Bytes& map) {
  const std::size_t length = map_node_bytes(plan.node_size);
  for (std::size_t i = 0; i < plan.map_nodes.size(); ++i) {
    Bytes node(plan.node_size);
    const bool last = i + 1 == plan.map_nodes.size();
    put_descriptor(node, {last ? 0 : plan.map_nodes[i + 1], i == 0 ? 0 : plan.map_nodes[i - 1], 2, 0, 1});
    put_offset(node, 0, kDescriptorSize);
    put_offset(node, 1, kDescriptorSize + length);
    const auto from = map.begin() + static_cast<std::ptrdiff_t>(plan.node_size - 256 + i * length);
    std::copy_n(from, length, node.begin() + kDescriptorSize);
    fork.write(image, std::uint64_t{plan.map_nodes[i]} * plan.node_size, node);
  }
}

}  // namespace

TreePlan plan_tree(std::vector<Record>& records, const TreeShape& shape, const TreeTraits& traits,
                   std::uint32_t block_size, const Stretch& stretch) {
  check_shape(shape);
  TreePlan plan;
  plan.node_size = shape.node_size;
  plan.traits = traits;
  plan.clump_size = shape.clump_size != 0 ? shape.clump_size : 4 * std::max(shape.node_size, block_size);
  plan.levels = shape.height == 0 ? build_levels(records, shape, limit_of(shape.max_leaf_records),
                                                 limit_of(shape.max_index_records), stretch)
                                  : build_levels_of_height(records, shape, stretch);
  number_and_size(plan, shape, block_size);
  link_index_records(plan.levels);
  return plan;
}

void write_tree(SparseImage& image, const ForkView& fork, const TreePlan& plan) {
  const Bytes map = node_bitmap(plan);
  write_header_node(image, fork, plan, map);
  write_map_nodes(image, fork, plan, map);
  for (std::size_t height = 0; height < plan.levels.size(); ++height) {
    write_level(image, fork, plan, height);
  }
}

}  // namespace kvfs_test
