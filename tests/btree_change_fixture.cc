#include "btree_change_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "big_endian.h"
#include "fork.h"

namespace kvfs_test {

// ---- The cache -----------------------------------------------------------------------------------------------------

Bytes ChangeTree::cached(std::uint32_t node, std::uint32_t offset, std::size_t length) const {
  const FaultInjector::Pause pause;
  Bytes bytes(length);
  EXPECT_EQ(kvfs_fork_read(get()->fork, std::uint64_t{node} * node_size() + offset, bytes.data(), length, nullptr),
            kvfs_ok);
  return bytes;
}

std::vector<Bytes> ChangeTree::cached_nodes() const {
  std::vector<Bytes> nodes;
  for (std::uint32_t node = 0; node < plan().total_nodes; ++node) {
    nodes.push_back(cached_node(node));
  }
  return nodes;
}

std::uint64_t ChangeTree::field(std::uint32_t node, std::uint32_t offset, std::size_t width) const {
  return get_be(cached(node, offset, width), 0, width);
}

std::uint16_t ChangeTree::cached_entry(std::uint32_t node, std::uint32_t index) const {
  return static_cast<std::uint16_t>(field(node, node_size() - 2 * (index + 1), 2));
}

NodeContent ChangeTree::content(std::uint32_t node) const {
  const Bytes bytes = cached_node(node);
  NodeContent content;
  content.number = node;
  content.forward = get_be32(bytes, kForwardLink);
  content.backward = get_be32(bytes, kBackwardLink);
  content.kind = bytes[kKind] < 0x80 ? bytes[kKind] : bytes[kKind] - 0x100;
  content.height = bytes[kHeight];
  content.reserved = get_be16(bytes, kReserved);
  const std::uint16_t count = get_be16(bytes, kNumRecords);
  for (std::size_t i = 0; i <= count; ++i) {
    content.offsets.push_back(get_be16(bytes, bytes.size() - 2 * (i + 1)));
    if (i > 0) {
      content.records.emplace_back(bytes.begin() + content.offsets[i - 1], bytes.begin() + content.offsets[i]);
    }
  }
  return content;
}

std::string ChangeTree::show(std::uint32_t node) const {
  const NodeContent content = this->content(node);
  std::string text = (content.kind == -1 ? "leaf " : "index ") + std::to_string(node) + " of height " +
                     std::to_string(content.height) + ", " + std::to_string(content.backward) + " < > " +
                     std::to_string(content.forward) + ":";
  for (const Bytes& record : content.records) {
    text += " " + std::to_string(number_of(record.data()));
    if (content.kind == 0) {
      text += ">" + std::to_string(get_be32(record, record.size() - 4));
    }
  }
  return text;
}

Lines ChangeTree::changed_since(const std::vector<Bytes>& before) const {
  const std::vector<Bytes> now = cached_nodes();
  Lines changed;
  for (std::size_t node = 0; node < now.size(); ++node) {
    if (now[node] != before[node]) {
      changed.push_back(std::to_string(node));
    }
  }
  return changed;
}

void ChangeTree::poke_bytes(std::uint32_t node, std::uint32_t offset, const Bytes& bytes) {
  const FaultInjector::Pause pause;
  (void)cached_node(node);  // a unit that is written before it was read is read over what was written
  EXPECT_EQ(
      kvfs_fork_write(get()->fork, std::uint64_t{node} * node_size() + offset, bytes.data(), bytes.size(), nullptr),
      kvfs_ok);
}

void ChangeTree::poke(std::uint32_t node, std::uint32_t offset, std::size_t width, std::uint64_t value) {
  Bytes bytes(width);
  put_be(bytes, 0, width, value);
  poke_bytes(node, offset, bytes);
}

void ChangeTree::poke_entry(std::uint32_t node, std::uint32_t index, std::uint16_t offset) {
  poke(node, node_size() - 2 * (index + 1), 2, offset);
}

void ChangeTree::mark_node(std::uint32_t node, bool used) {
  const std::uint32_t byte = kHeaderMapRecord + node / 8;
  const std::uint64_t bit = 0x80u >> node % 8;
  const std::uint64_t old = field(0, byte, 1);
  poke(0, byte, 1, used ? old | bit : old & ~bit);
}

// ---- Changes -------------------------------------------------------------------------------------------------------

kvfs_result ChangeTree::insert(const Record& record, const kvfs_btree_search_result* hint) {
  kvfs_btree_record_locator* locator = nullptr;
  const kvfs_result result = kvfs_btree_insert_record(get(), record.first.data(), record.second.data(),
                                                      static_cast<std::uint16_t>(record.second.size()), hint, &locator);
  EXPECT_EQ(locator != nullptr, result == kvfs_ok);
  if (locator != nullptr) {
    kvfs_btree_record_locator_close(&locator);
  }
  return result;
}

kvfs_result ChangeTree::remove(std::uint32_t number) {
  kvfs_btree_record_locator* locator = locate(number);
  const kvfs_result result = kvfs_btree_delete_record(get(), locator, 0);
  kvfs_btree_record_locator_close(&locator);
  return result;
}

kvfs_btree_record_locator* ChangeTree::locator_at(std::uint32_t node, std::uint16_t index) {
  const std::uint16_t begin = cached_entry(node, index);
  const Bytes record = cached(node, begin, static_cast<std::size_t>(cached_entry(node, index + 1u) - begin));
  kvfs_btree_record_locator* locator = nullptr;
  EXPECT_EQ(kvfs_btree_record_locator_open(get(), node, index, record.data(), record.size(),
                                           std::uint64_t{node} * node_size() + begin, &locator),
            kvfs_ok);
  return locator;
}

Lines ChangeTree::flush() {
  std::map<std::uint64_t, std::uint32_t> nodes;
  for (std::uint32_t node = 0; node < plan().total_nodes; ++node) {
    nodes[device_offset(node)] = node;
  }
  std::vector<Transfer> writes;
  {
    FaultInjector faults;
    EXPECT_EQ(kvfs_fork_flush(get()->fork), kvfs_ok);
    const FaultInjector::Pause pause;
    writes = faults.writes();
  }
  Lines lines;
  for (const Transfer& write : writes) {
    const auto node = nodes.find(write.offset);
    lines.push_back(node != nodes.end() && write.size == node_size()
                        ? std::to_string(node->second)
                        : std::to_string(write.offset) + "+" + std::to_string(write.size));
  }
  return lines;
}

std::string place_of(const kvfs_btree_record_locator* locator, std::uint32_t node_size) {
  const auto in_node = static_cast<std::int64_t>(locator->priv->fork_data_offset) -
                       std::int64_t{*locator->node} * std::int64_t{node_size};
  return std::to_string(*locator->node) + " " + std::to_string(*locator->index) + " +" + std::to_string(in_node) +
         (locator->priv->deleted != 0 ? " deleted" : "");
}

void release(kvfs_btree_record_locator* locator) {
  kvfs_btree_record_locator_release(&locator, false);
}

TreeOptions leaves_of(std::uint32_t per_leaf, std::uint32_t count, std::uint16_t per_index, std::size_t data_size) {
  TreeOptions options;
  options.records = numbered_records(count, data_size);
  options.shape.max_leaf_records = static_cast<std::uint16_t>(per_leaf);
  options.shape.max_index_records = per_index;
  return options;
}

TreeOptions three_leaves() {
  return leaves_of(4, 12);
}

TreeOptions three_levels() {
  return leaves_of(3, 12, 2);
}

Bytes packed(const Record& record) {
  Bytes bytes = record.first;
  bytes.resize(bytes.size() + bytes.size() % 2);
  bytes.insert(bytes.end(), record.second.begin(), record.second.end());
  bytes.resize(bytes.size() + bytes.size() % 2);
  return bytes;
}

Record record_of_size(std::uint32_t number, std::size_t size) {
  return number_record(number, size - number_key(0).size());
}

std::vector<Bytes> packed_all(const std::vector<Record>& records) {
  std::vector<Bytes> all;
  std::transform(records.begin(), records.end(), std::back_inserter(all), packed);
  return all;
}

// ---- Faults --------------------------------------------------------------------------------------------------------

Uses within(Uses uses, const Lines& context) {
  for (Use& use : uses) {
    use.lines.insert(use.lines.end(), context.begin(), context.end());
  }
  return uses;
}

Uses operator+(Uses a, const Uses& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Uses search_uses(const ChangeTree& tree, const std::vector<std::uint32_t>& nodes) {
  Uses uses = {{Use::Kind::kMap, {search_error("Error while mapping B-tree header record.")}},
               {Use::Kind::kMap, {search_error("Error while mapping raw node data.")}}};
  for (std::size_t i = 1; i < nodes.size(); ++i) {
    const std::uint64_t position = std::uint64_t{nodes[i - 1]} * tree.node_size();
    uses.push_back(
        {Use::Kind::kUnmap,
         {search_error("Error while unmapping raw node data of node at offset " + std::to_string(position) + ".")}});
    uses.push_back({Use::Kind::kMap,
                    {search_error("Error while mapping raw node data of node " + std::to_string(nodes[i]) + ".")}});
  }
  uses.push_back({Use::Kind::kUnmap, {search_error("Error while unmapping raw node data.")}});
  uses.push_back({Use::Kind::kUnmap, {search_error("Error while unmapping B-tree header record.")}});
  return uses;
}

// Locks taken for reading and for writing. Filling the cache takes the lock over the items for writing, and does so for
// each end of a write that lies inside of a unit; a write takes that lock and the one over what is modified.
struct LockUses {
  std::size_t reads;
  std::size_t writes;
};

static LockUses locks_of(Use::Kind kind) {
  switch (kind) {
    case Use::Kind::kTreeLock:
      return {0, 1};
    case Use::Kind::kMap:
    case Use::Kind::kUnmap:
      return {1, 1};
    case Use::Kind::kRead:
      return {1, 2};
    case Use::Kind::kWriteNode:
      return {0, 2};
    case Use::Kind::kWriteDescriptor:
      return {0, 3};
    case Use::Kind::kWriteInside:
      return {0, 4};
    case Use::Kind::kTreeUnlock:
    case Use::Kind::kAllocation:
      break;
  }
  return {0, 0};
}

static std::size_t calls_of(Use::Kind kind, Call call) {
  const LockUses locks = locks_of(kind);
  switch (call) {
    case Call::kRwlockRdlock:
      return locks.reads;
    case Call::kRwlockWrlock:
      return locks.writes;
    case Call::kRwlockUnlock:
      if (kind == Use::Kind::kTreeLock) {
        return 0;
      }
      return kind == Use::Kind::kTreeUnlock ? 1 : locks.reads + locks.writes;
    default:
      return kind == Use::Kind::kAllocation ? 1 : 0;
  }
}

Uses calls_among(const Uses& uses, Call call) {
  Uses calls;
  for (const Use& use : uses) {
    calls.insert(calls.end(), calls_of(use.kind, call), use);
  }
  return calls;
}

Use locator_allocation(const Lines& lines) {
  Lines all = {message("ERROR", "kvfs_btree_record_locator_open",
                       "Error while allocating {*} bytes for kvfs_btree_record_locator allocation.")};
  all.insert(all.end(), lines.begin(), lines.end());
  return {Use::Kind::kAllocation, all, false};
}

::testing::AssertionResult lines_match(const Lines& actual, const Lines& expected) {
  bool same = actual.size() == expected.size();
  for (std::size_t i = 0; same && i < actual.size(); ++i) {
    same = line_matches(actual[i], expected[i]);
  }
  return (same ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
         << ::testing::PrintToString(actual) << "\nwhere this was expected:\n"
         << ::testing::PrintToString(expected);
}

// One run with the n-th call failing.
static void expect_fault_reported(const TreeOptions& options, Call call, unsigned long n, const Use& use,
                                  const std::function<kvfs_result(ChangeTree&)>& change) {
  SCOPED_TRACE(std::string(call_name(call)) + " " + std::to_string(n));
  ChangeTree tree(options);
  tree.open();
  (void)tree.cached_nodes();
  LogCapture log;
  {
    FaultInjector faults;
    if (call == Call::kMalloc) {
      faults.fail_allocation(n);
    } else {
      faults.fail(call, n);
    }
    const kvfs_result result = change(tree);
    const FaultInjector::Pause pause;
    EXPECT_EQ(faults.delivered(), 1u);
    const kvfs_result failure = call == Call::kMalloc ? kvfs_no_memory : kvfs_failed;
    EXPECT_EQ(result, use.tolerated ? kvfs_ok : failure);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(tree.locators(), Lines());
  }
  EXPECT_TRUE(lines_match(tree_lines(log), use.lines));
  tree.forget_references();
}

void expect_each_fault_reported(const std::function<TreeOptions()>& make, const Uses& uses,
                                const std::function<kvfs_result(ChangeTree&)>& change) {
  for (const Call call : {Call::kMalloc, Call::kRwlockRdlock, Call::kRwlockWrlock, Call::kRwlockUnlock}) {
    const Uses calls = calls_among(uses, call);
    for (std::size_t i = 0; i < calls.size(); ++i) {
      expect_fault_reported(make(), call, i + 1, calls[i], change);
    }
    ChangeTree tree(make());
    tree.open();
    (void)tree.cached_nodes();
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(change(tree), kvfs_ok);
    const FaultInjector::Pause pause;
    EXPECT_EQ(call == Call::kMalloc ? faults.count_allocations() : faults.count(call), calls.size())
        << call_name(call) << ": not every call has been failed";
  }
}

std::string message(const std::string& level, const std::string& function, const std::string& text) {
  return level + " " + function + " " + text + "\n";
}

std::string insert_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_insert_record_internal", text);
}

std::string split_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_split_node", text);
}

std::string add_index_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_add_index_record", text);
}

std::string claim_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_claim_node", text);
}

std::string delete_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_delete_record_internal", text);
}

std::string search_error(const std::string& text) {
  return message("ERROR", "kvfs_btree_search_node_internal", text);
}

}  // namespace kvfs_test
