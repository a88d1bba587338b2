#include "tree_checker.h"

#include <algorithm>
#include <optional>

#include "big_endian.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kDescriptorSize = 14;
constexpr std::size_t kMaxDepth = 32;  // more levels than 2^32 nodes can need
constexpr std::uint8_t kLeafKind = 0xFF;
constexpr std::uint8_t kIndexKind = 0;
constexpr std::uint8_t kHeaderKind = 1;
constexpr std::uint8_t kMapKind = 2;

std::string text(std::uint64_t value) {
  return std::to_string(value);
}

// A node whose offset table has been found sound.
struct Node {
  std::uint32_t number = 0;
  std::uint32_t forward = 0;
  std::uint32_t backward = 0;
  std::uint8_t kind = 0;
  std::uint8_t height = 0;
  std::vector<Bytes> records;
};

// The key that a subtree's first key must equal; absent at the root.
using Bound = std::optional<Bytes>;

class TreeChecker {
 public:
  TreeChecker(const Volume& volume, Tree tree, const CheckOptions& options, Findings& findings)
      : options_(options),
        findings_(findings),
        tree_(tree),
        fork_(volume.fork(tree)),
        device_size_(volume.size()),
        header_(fork_.read(0, 512)) {
    node_size_ = get_be16(header_, kDescriptorSize + 18);
    total_nodes_ = field(22, 4);
  }

  std::vector<FoundRecord> run(std::uint64_t logical_size) {
    if (!check_size(logical_size)) {
      return {};
    }
    used_.assign(total_nodes_, false);
    used_[0] = true;
    check_header_node();
    walk_tree();
    check_counts();
    check_bitmap(read_bitmap());
    return std::move(found_);
  }

 private:
  void report(const std::string& what) { findings_.add(name_of_tree(tree_) + ": " + what); }
  void report(std::uint32_t node, const std::string& what) { report("node " + text(node) + ": " + what); }

  [[nodiscard]] std::uint32_t field(std::size_t offset, std::size_t width) const {
    return static_cast<std::uint32_t>(get_be(header_, kDescriptorSize + offset, width));
  }

  bool check_size(std::uint64_t logical_size);
  void check_header_node();
  void walk_tree();
  void walk(std::uint32_t number, std::size_t height, const Bound& bound);
  void check_kind(const Node& node, std::size_t height);
  void check_first_key(const Node& node, const Bound& bound);
  void visit_index_record(const Node& node, std::size_t index, std::size_t height);
  void visit_leaf_record(const Node& node, std::size_t index);
  void check_order(const Node& node, std::size_t index, const Bytes& key, std::size_t height);
  std::optional<Node> read_node(std::uint32_t number);
  std::optional<Bytes> key_of(const Node& node, std::size_t index);
  void check_links(std::size_t height);
  void check_counts();
  void check_extreme_leaf(const char* name, std::size_t offset, std::uint32_t expected);
  Bytes read_bitmap();
  void check_bitmap(const Bytes& bitmap);

  const CheckOptions& options_;
  Findings& findings_;
  Tree tree_;
  ForkView fork_;
  std::uint64_t device_size_;
  Bytes header_;
  std::uint32_t node_size_ = 0;
  std::uint32_t total_nodes_ = 0;
  std::vector<bool> used_;
  struct Link {
    std::uint32_t number = 0;
    std::uint32_t forward = 0;
    std::uint32_t backward = 0;
  };
  std::vector<std::vector<Link>> levels_;  // nodes of each height in key order, leaves first
  std::vector<Bytes> last_keys_;           // the last key met at each height
  std::vector<FoundRecord> found_;
};

bool TreeChecker::check_size(std::uint64_t logical_size) {
  const bool power_of_two = (node_size_ & (node_size_ - 1)) == 0;
  if (node_size_ < 512 || node_size_ > 32768 || !power_of_two) {
    report("node size is " + text(node_size_));
    return false;
  }
  if (total_nodes_ == 0 || std::uint64_t{total_nodes_} * node_size_ > std::min(fork_.size(), device_size_)) {
    report("totalNodes " + text(total_nodes_) + " does not fit the fork of " + text(fork_.size()) + " bytes");
    return false;
  }
  if (std::uint64_t{total_nodes_} * node_size_ != logical_size) {
    report("totalNodes " + text(total_nodes_) + " does not fill the logical size " + text(logical_size));
  }
  return true;
}

void TreeChecker::check_header_node() {
  const auto node = read_node(0);
  if (!node) {
    return;
  }
  if (node->kind != kHeaderKind || node->records.size() != 3 || node->height != 0 || node->backward != 0) {
    report("node 0 is not a header node");
  }
  if (field(36, 1) != 0) {
    report("btreeType is " + text(field(36, 1)));
  }
  const std::uint32_t max_key = tree_ == Tree::kExtents ? 10 : tree_ == Tree::kCatalog ? 516 : 266;
  if (field(20, 2) != max_key) {
    report("maxKeyLength is " + text(field(20, 2)));
  }
  if ((field(38, 4) & 6) != (tree_ == Tree::kExtents ? 2U : 6U)) {
    report("attributes are " + text(field(38, 4)));
  }
  const std::uint32_t compare = field(37, 1);
  if (tree_ == Tree::kCatalog && compare != 0xCF && compare != 0xBC) {
    report("keyCompareType is " + text(compare));
  }
}

// Reads a node and its records; nothing if the records cannot be told apart.
std::optional<Node> TreeChecker::read_node(std::uint32_t number) {
  const Bytes bytes = fork_.read(std::uint64_t{number} * node_size_, node_size_);
  Node node{number, get_be32(bytes, 0), get_be32(bytes, 4), bytes[8], bytes[9], {}};
  const std::size_t count = get_be16(bytes, 10);
  if (kDescriptorSize + 2 * (count + 1) > node_size_) {
    report(number, "numRecords " + text(count) + " does not fit");
    return std::nullopt;
  }
  const std::size_t table = node_size_ - 2 * (count + 1);
  std::size_t start = get_be16(bytes, node_size_ - 2);
  if (start != kDescriptorSize) {
    report(number, "record 0 lies at offset " + text(start));
    return std::nullopt;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t end = get_be16(bytes, node_size_ - 2 * (i + 2));
    if (end <= start || end > table || end % 2 != 0) {
      report(number, "offset " + text(i + 1) + " is " + text(end));
      return std::nullopt;
    }
    node.records.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                              bytes.begin() + static_cast<std::ptrdiff_t>(end));
    start = end;
  }
  return node;
}

// The key of a record with its length field, if it fits the record and the tree.
std::optional<Bytes> TreeChecker::key_of(const Node& node, std::size_t index) {
  const Bytes& record = node.records[index];
  const std::size_t length = get_be16(record, 0);
  const std::size_t least = tree_ == Tree::kExtents ? 10 : 6;
  const std::size_t data = node.kind == kIndexKind ? 4 : 2;
  if (length < least || length > field(20, 2) || 2 + length + length % 2 + data > record.size()) {
    report(node.number, "record " + text(index) + ": keyLength is " + text(length));
    return std::nullopt;
  }
  Bytes key(record.begin(), record.begin() + 2 + static_cast<std::ptrdiff_t>(length));
  if (tree_ == Tree::kCatalog && length != 6 + 2U * get_be16(key, 6)) {
    report(node.number,
           "record " + text(index) + ": name length " + text(get_be16(key, 6)) + " in a key of length " + text(length));
    return std::nullopt;
  }
  return key;
}

void TreeChecker::walk_tree() {
  const std::uint32_t root = field(2, 4);
  const std::size_t depth = field(0, 2);
  if (depth > kMaxDepth) {
    report("treeDepth is " + text(depth));
    return;
  }
  if (root == 0 || depth == 0) {
    if (root != 0 || depth != 0) {
      report("rootNode is " + text(root) + " with treeDepth " + text(depth));
    }
    return;
  }
  levels_.resize(depth);
  last_keys_.resize(depth);
  walk(root, depth, std::nullopt);
  for (std::size_t height = 0; height < depth; ++height) {
    check_links(height);
  }
}

void TreeChecker::walk(std::uint32_t number, std::size_t height, const Bound& bound) {
  if (number >= total_nodes_) {
    report("node " + text(number) + " lies beyond totalNodes");
    return;
  }
  if (used_[number]) {
    report(number, "reached twice");
    return;
  }
  used_[number] = true;
  const auto node = read_node(number);
  if (!node) {
    return;
  }
  levels_[height - 1].push_back({number, node->forward, node->backward});
  check_kind(*node, height);
  check_first_key(*node, bound);
  for (std::size_t i = 0; i < node->records.size(); ++i) {
    if (height > 1) {
      visit_index_record(*node, i, height);
    } else {
      visit_leaf_record(*node, i);
    }
  }
}

void TreeChecker::check_kind(const Node& node, std::size_t height) {
  const std::uint8_t expected = height == 1 ? kLeafKind : kIndexKind;
  if (node.kind != expected) {
    report(node.number, "kind is " + text(node.kind));
  }
  if (node.height != height) {
    report(node.number, "height is " + text(node.height) + ", not " + text(height));
  }
  if (node.records.empty() && options_.empty_leaves.count(node.number) == 0) {
    report(node.number, "has no records");
  }
}

void TreeChecker::check_first_key(const Node& node, const Bound& bound) {
  if (!bound || node.records.empty()) {
    return;
  }
  const auto key = key_of(node, 0);
  if (key && *key != *bound) {
    report(node.number, "first key differs from its index key");
  }
}

// In the binary order other systems have the root's thread record, whose name is empty, before its private folders.
bool is_thread_before_item(const Bytes& last, const Bytes& key) {
  return get_be32(last, 2) == get_be32(key, 2) && name_of_key(last).empty() && !name_of_key(key).empty();
}

void TreeChecker::check_order(const Node& node, std::size_t index, const Bytes& key, std::size_t height) {
  Bytes& last = last_keys_[height - 1];
  const bool binary = field(37, 1) == 0xBC;
  const bool follows = last.empty() || compare_keys(tree_, last, key, binary) < 0 ||
                       (tree_ == Tree::kCatalog && binary && is_thread_before_item(last, key));
  if (!follows) {
    report(node.number, "record " + text(index) + " is out of order");
  }
  last = key;
}

void TreeChecker::visit_index_record(const Node& node, std::size_t index, std::size_t height) {
  const auto key = key_of(node, index);
  if (!key) {
    return;
  }
  check_order(node, index, *key, height);
  const std::size_t data = key->size() + key->size() % 2;
  if (node.records[index].size() != data + 4) {
    report(node.number, "record " + text(index) + " has " + text(node.records[index].size() - data) + " data bytes");
  }
  walk(get_be32(node.records[index], data), height - 1, key);
}

void TreeChecker::visit_leaf_record(const Node& node, std::size_t index) {
  const auto key = key_of(node, index);
  if (!key) {
    return;
  }
  check_order(node, index, *key, 1);
  const Bytes& record = node.records[index];
  const auto data = record.begin() + static_cast<std::ptrdiff_t>(key->size() + key->size() % 2);
  found_.push_back({node.number, static_cast<std::uint16_t>(index), *key, Bytes(data, record.end())});
}

void TreeChecker::check_links(std::size_t height) {
  const std::vector<Link>& level = levels_[height];
  for (std::size_t i = 0; i < level.size(); ++i) {
    const std::uint32_t next = i + 1 < level.size() ? level[i + 1].number : 0;
    const std::uint32_t previous = i > 0 ? level[i - 1].number : 0;
    if (level[i].forward != next) {
      report(level[i].number, "fLink is " + text(level[i].forward) + ", not " + text(next));
    }
    if (level[i].backward != previous) {
      report(level[i].number, "bLink is " + text(level[i].backward) + ", not " + text(previous));
    }
  }
}

void TreeChecker::check_extreme_leaf(const char* name, std::size_t offset, std::uint32_t expected) {
  if (field(offset, 4) != expected) {
    report(std::string(name) + " is " + text(field(offset, 4)) + ", not " + text(expected));
  }
}

void TreeChecker::check_counts() {
  const bool empty = levels_.empty() || levels_[0].empty();
  check_extreme_leaf("firstLeafNode", 10, empty ? 0 : levels_[0].front().number);
  check_extreme_leaf("lastLeafNode", 14, empty ? 0 : levels_[0].back().number);
  if (field(6, 4) != found_.size()) {
    report("leafRecords is " + text(field(6, 4)) + ", not " + text(found_.size()));
  }
}

// The header's map record and those of all map nodes, one behind the other. Marks the map nodes as used.
Bytes TreeChecker::read_bitmap() {
  const auto header = read_node(0);
  Bytes bitmap = header && header->records.size() == 3 ? header->records[2] : Bytes();
  std::uint32_t previous = 0;
  std::uint32_t number = get_be32(header_, 0);
  while (number != 0) {
    if (number >= total_nodes_ || used_[number]) {
      report("map node " + text(number) + " is no free place for one");
      break;
    }
    used_[number] = true;
    const auto node = read_node(number);
    if (!node || node->kind != kMapKind || node->records.size() != 1) {
      report(number, "is not a map node");
      break;
    }
    if (node->height != 0 || (node->backward != previous && node->backward != 0)) {
      report(number, "map node of height " + text(node->height) + " with bLink " + text(node->backward));
    }
    bitmap.insert(bitmap.end(), node->records[0].begin(), node->records[0].end());
    previous = number;
    number = node->forward;
  }
  return bitmap;
}

void TreeChecker::check_bitmap(const Bytes& bitmap) {
  std::uint32_t used = 0;
  for (std::uint32_t node = 0; node < total_nodes_; ++node) {
    used += used_[node] ? 1 : 0;
    if (node / 8 >= bitmap.size()) {
      report("the node bitmap ends before node " + text(node));
      return;
    }
    const bool marked = (bitmap[node / 8] & 0x80U >> node % 8) != 0;
    if (marked != used_[node]) {
      report(node, marked ? "marked used but not reached" : "used but marked free");
    }
  }
  for (std::uint64_t node = total_nodes_; node < bitmap.size() * std::uint64_t{8}; ++node) {
    if ((bitmap[static_cast<std::size_t>(node / 8)] & 0x80U >> node % 8) != 0) {
      report("node bitmap: bit " + text(node) + " beyond totalNodes is set");
    }
  }
  if (field(26, 4) != total_nodes_ - used) {
    report("freeNodes is " + text(field(26, 4)) + ", not " + text(total_nodes_ - used));
  }
}

}  // namespace

std::string name_of_tree(Tree tree) {
  switch (tree) {
    case Tree::kExtents:
      return "extents";
    case Tree::kCatalog:
      return "catalog";
    case Tree::kAttributes:
      return "attributes";
  }
  return "unknown tree";
}

std::vector<FoundRecord> check_tree(const Volume& volume, Tree tree, const CheckOptions& options, Findings& findings) {
  return TreeChecker(volume, tree, options, findings).run(volume.fork_logical_size(file_of(tree)));
}

}  // namespace kvfs_test
