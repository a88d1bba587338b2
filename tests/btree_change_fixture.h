// Trees that are changed, for the tests of insertion, split, claiming and deletion.
//
//   ChangeTree tree({.records = numbered_records(10)});
//   tree.open();
//   EXPECT_EQ(tree.insert(15), kvfs_ok);
//   EXPECT_EQ(tree.show(tree.leaf(0)), "leaf 1 of height 1, 0 < > 0: 10 15 20 30 40 50 60 70 80 90 100");
//
// What is looked at is the tree's cache: a change reaches the device with flush() only.

#ifndef KVFS_BTREE_CHANGE_FIXTURE_H
#define KVFS_BTREE_CHANGE_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "btree_fixture.h"

namespace kvfs_test {

// Further offsets of fields in a node and of the header record in node 0.
inline constexpr std::uint32_t kBackwardLink = 4;
inline constexpr std::uint32_t kReserved = 12;
inline constexpr std::uint32_t kHeaderTreeDepth = 14;
inline constexpr std::uint32_t kHeaderLastLeafNode = 14 + 14;
inline constexpr std::uint32_t kHeaderFreeNodes = 14 + 26;

// A node taken apart.
struct NodeContent {
  std::uint32_t number = 0;
  std::uint32_t forward = 0;
  std::uint32_t backward = 0;
  int kind = 0;
  unsigned height = 0;
  unsigned reserved = 0;
  std::vector<std::uint16_t> offsets;  // of the records, and of the free space behind them
  std::vector<Bytes> records;
};

class ChangeTree : public TestTree {
  // The attributes file is the one whose keys the engine knows nothing of.
  static TreeOptions with_any_keys(TreeOptions options) {
    options.kind = kHFSAttributesFileID;
    return options;
  }

 public:
  explicit ChangeTree(TreeOptions options) : TestTree(with_any_keys(std::move(options))) {}

  // The cache.
  [[nodiscard]] Bytes cached(std::uint32_t node, std::uint32_t offset, std::size_t length) const;
  [[nodiscard]] Bytes cached_node(std::uint32_t node) const { return cached(node, 0, node_size()); }
  [[nodiscard]] std::vector<Bytes> cached_nodes() const;  // all of them, by number
  [[nodiscard]] std::uint64_t field(std::uint32_t node, std::uint32_t offset, std::size_t width) const;
  [[nodiscard]] std::uint16_t cached_entry(std::uint32_t node, std::uint32_t index) const;
  [[nodiscard]] NodeContent content(std::uint32_t node) const;
  // "leaf 1 of height 1, 0 < > 2: 10 20 30" or "index 3 of height 2, 0 < > 0: 10>1 40>2": number, links, records.
  [[nodiscard]] std::string show(std::uint32_t node) const;
  // The nodes that differ from an earlier state of the cache, by number.
  [[nodiscard]] Lines changed_since(const std::vector<Bytes>& before) const;

  // Damage done in the cache, which is seen at once.
  void poke(std::uint32_t node, std::uint32_t offset, std::size_t width, std::uint64_t value);
  void poke_entry(std::uint32_t node, std::uint32_t index, std::uint16_t offset);
  void poke_bytes(std::uint32_t node, std::uint32_t offset, const Bytes& bytes);
  void mark_node(std::uint32_t node, bool used);  // in the map record of the header node

  // Changes that leave no locator open.
  kvfs_result insert(const Record& record, const kvfs_btree_search_result* hint = nullptr);
  kvfs_result insert(std::uint32_t number) { return insert(number_record(number)); }
  kvfs_result remove(std::uint32_t number);

  // Opens a locator on a place as it stands, whether there is a record or not.
  kvfs_btree_record_locator* locator_at(std::uint32_t node, std::uint16_t index);

  // Writes the cache to the device and says which nodes it wrote, in order.
  Lines flush();
};

// "node index +data offset in its node" with " deleted".
std::string place_of(const kvfs_btree_record_locator* locator, std::uint32_t node_size);

void release(kvfs_btree_record_locator* locator);

// Numbered records in leaves of so many, under index nodes as full as they get or of so many.
TreeOptions leaves_of(std::uint32_t per_leaf, std::uint32_t count, std::uint16_t per_index = 0,
                      std::size_t data_size = 12);

// Leaves 1, 2 and 3 with 10 to 40, 50 to 80 and 90 to 120; the root is node 4. Each record takes 18 bytes.
TreeOptions three_leaves();

// Leaves 1 to 4 with 10 to 30, 40 to 60, 70 to 90 and 100 to 120, two each under the index nodes 5 and 6; root 7.
TreeOptions three_levels();

// Key and data as a node holds them: padded.
Bytes packed(const Record& record);

// A record of so many bytes in a node, with a number key. At least 6.
Record record_of_size(std::uint32_t number, std::size_t size);

// A node in the form of NodeContent's records.
std::vector<Bytes> packed_all(const std::vector<Record>& records);

// ---- Faults --------------------------------------------------------------------------------------------------------

// One use that a change makes of the tree's lock, of the fork or of memory, and what the B-tree engine logs when it
// fails: nothing below and nothing above the engine.
struct Use {
  enum class Kind {
    kTreeLock,
    kTreeUnlock,
    kMap,
    kUnmap,
    kRead,
    kWriteNode,        // whole transfer units
    kWriteDescriptor,  // ends inside of a unit
    kWriteInside,      // begins and ends inside of a unit
    kAllocation,
  };
  Kind kind;
  Lines lines;
  bool tolerated = false;  // the change succeeds all the same
};

using Uses = std::vector<Use>;

// Appends lines to what each use logs: those of the callers.
Uses within(Uses uses, const Lines& context);
Uses operator+(Uses a, const Uses& b);

// The uses that a search makes of the fork on its way through nodes. Starts with the header, ends with unmapping it.
Uses search_uses(const ChangeTree& tree, const std::vector<std::uint32_t>& nodes);

// For each call of a kind that the uses make, in order, the use that it belongs to.
Uses calls_among(const Uses& uses, Call call);

// The allocation of a locator by a routine whose lines are given.
Use locator_allocation(const Lines& lines);

// Runs `change` on a fresh tree from `make`, failing each allocation and each call on a lock in turn, and expects for
// each the result and the lines that the uses foretell, no lock held, no locator open and no memory lost. `change` runs
// with the tree open and every node of it cached.
void expect_each_fault_reported(const std::function<TreeOptions()>& make, const Uses& uses,
                                const std::function<kvfs_result(ChangeTree&)>& change);

// Whether lines read as expected; "{*}" stands for any characters.
::testing::AssertionResult lines_match(const Lines& actual, const Lines& expected);

std::string message(const std::string& level, const std::string& function, const std::string& text);
std::string insert_error(const std::string& text);  // of kvfs_btree_insert_record_internal
std::string split_error(const std::string& text);   // of kvfs_btree_split_node
std::string add_index_error(const std::string& text);
std::string claim_error(const std::string& text);
std::string delete_error(const std::string& text);
std::string search_error(const std::string& text);

}  // namespace kvfs_test

#endif  // KVFS_BTREE_CHANGE_FIXTURE_H
