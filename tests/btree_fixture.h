// Trees with keys of no meaning, for the tests of the B-tree engine.
//
//   TestTree tree({.records = numbered_records(100)});
//   tree.set16(tree.leaf(0), kNumRecords, 0);             // damage, seen by whatever was not read yet
//   tree.open();
//   EXPECT_EQ(tree.search(30), "result 0 found 1 after 0 node 1 index 2 key 30");

#ifndef KVFS_BTREE_FIXTURE_H
#define KVFS_BTREE_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "btree.h"
#include "btree/private.h"
#include "device.h"
#include "fault_injection.h"
#include "format.h"
#include "log_capture.h"
#include "tree_builder.h"
#include "volume_image.h"

namespace kvfs_test {

using Lines = std::vector<std::string>;
using Numbers8 = std::initializer_list<std::uint8_t>;
using Numbers16 = std::initializer_list<std::uint16_t>;
using Numbers32 = std::initializer_list<std::uint32_t>;

// Offsets of fields in a node.
inline constexpr std::uint32_t kForwardLink = 0;
inline constexpr std::uint32_t kKind = 8;
inline constexpr std::uint32_t kHeight = 9;
inline constexpr std::uint32_t kNumRecords = 10;

// Offsets of fields of the header record in node 0.
inline constexpr std::uint32_t kHeaderRootNode = 14 + 2;
inline constexpr std::uint32_t kHeaderLeafRecords = 14 + 6;
inline constexpr std::uint32_t kHeaderNodeSize = 14 + 18;
inline constexpr std::uint32_t kHeaderMaxKeyLength = 14 + 20;
inline constexpr std::uint32_t kHeaderTotalNodes = 14 + 22;
inline constexpr std::uint32_t kHeaderType = 14 + 36;
inline constexpr std::uint32_t kHeaderCompareType = 14 + 37;
inline constexpr std::uint32_t kHeaderAttributes = 14 + 38;
inline constexpr std::uint32_t kHeaderMapRecord = 248;

// ---- Keys and records ----------------------------------------------------------------------------------------------

// A key of four bytes behind its length, ordered as the number is.
Bytes number_key(std::uint32_t number);
std::uint32_t number_of(const void* key);

// A record with that key and data that tells it from every other one.
Record number_record(std::uint32_t number, std::size_t data_size = 12);
// The numbers 10, 20, 30 ... in order.
std::vector<Record> numbered_records(std::uint32_t count, std::size_t data_size = 12);

// Orders keys byte by byte, a shorter one first; the compare type makes no difference.
int compare_bytes(const void* node_key, const void* search_key, std::uint8_t compare_type);

// The calls of compare_bytes on this thread while one of these lives.
struct Comparison {
  const void* search_key;
  Bytes node_key;  // with its length field
  std::uint8_t type;
};

class ComparisonRecorder {
 public:
  ComparisonRecorder();
  ~ComparisonRecorder();
  ComparisonRecorder(const ComparisonRecorder&) = delete;
  ComparisonRecorder& operator=(const ComparisonRecorder&) = delete;

  [[nodiscard]] const std::vector<Comparison>& calls() const { return calls_; }

 private:
  friend int compare_bytes(const void* node_key, const void* search_key, std::uint8_t compare_type);
  std::vector<Comparison> calls_;
};

// ---- Trees ---------------------------------------------------------------------------------------------------------

TreeShape shape_of(std::uint32_t node_size, std::uint16_t height = 0);

struct TreeOptions {
  std::vector<Record> records = {};  // sorted by compare_bytes
  TreeShape shape = shape_of(512);
  TreeTraits traits = {};
  std::uint32_t block_size = 4096;
  std::uint32_t sector_size = 512;
  std::uint32_t kind = kHFSCatalogFileID;
  std::vector<Extent> extents = {{4, 0}};  // at most eight; the last one takes what is left of the blocks
};

// A tree in an image file, and the device and the volume header to open it with. Nothing is open at first.
class TestTree {
 public:
  explicit TestTree(TreeOptions options);
  ~TestTree();
  TestTree(const TestTree&) = delete;
  TestTree& operator=(const TestTree&) = delete;

  // The shape: the root; the leaves in key order; the index nodes of a height, in key order.
  [[nodiscard]] std::uint32_t root() const { return plan_.levels.back().front().number; }
  [[nodiscard]] std::uint32_t leaf(std::size_t i) const { return plan_.levels.front().at(i).number; }
  [[nodiscard]] std::uint32_t last_leaf() const { return plan_.levels.front().back().number; }
  [[nodiscard]] std::uint32_t node_at(std::size_t height, std::size_t i) const {
    return plan_.levels.at(height - 1).at(i).number;
  }
  [[nodiscard]] const TreePlan& plan() const { return plan_; }
  [[nodiscard]] std::uint32_t node_size() const { return plan_.node_size; }
  [[nodiscard]] std::uint64_t device_offset(std::uint32_t node, std::uint64_t offset = 0) const;

  // Fields in the image file. A node that was read by an open tree stays as it was read.
  void set8(std::uint32_t node, std::uint32_t offset, std::uint8_t value);
  void set16(std::uint32_t node, std::uint32_t offset, std::uint16_t value);
  void set32(std::uint32_t node, std::uint32_t offset, std::uint32_t value);
  void set_entry(std::uint32_t node, std::uint32_t index, std::uint16_t offset);
  [[nodiscard]] std::uint16_t entry(std::uint32_t node, std::uint32_t index) const;
  // The child that a record of an index node with number keys leads to.
  void set_child(std::uint32_t node, std::uint32_t index, std::uint32_t child);
  [[nodiscard]] Bytes bytes(std::uint32_t node, std::uint32_t offset, std::size_t length) const;

  [[nodiscard]] kvfs_device* device() const { return device_; }
  [[nodiscard]] HFSPlusVolumeHeader* header() { return &header_; }
  [[nodiscard]] HFSPlusForkData* fork_data();

  // Opens the tree, whatever comes of it, or expects success.
  kvfs_result try_open(kvfs_btree_compare_keys compare = compare_bytes);
  void open(kvfs_btree_compare_keys compare = compare_bytes);
  void close();
  [[nodiscard]] kvfs_btree* get() const { return tree_; }
  kvfs_btree** handle() { return &tree_; }

  // Searches for a number, says what came of it and releases it.
  std::string search(std::uint32_t number);
  std::string search_internal(std::uint32_t number, std::uint32_t start, std::uint8_t mode, std::uint8_t height);
  // Searches for a number and keeps the locator, which the caller closes.
  kvfs_btree_record_locator* locate(std::uint32_t number);
  kvfs_btree_record_locator* next(const kvfs_btree_record_locator* locator);

  // Open locators, head first, each as "node index xreferences".
  [[nodiscard]] Lines locators() const;
  // Mappings that were not given back.
  [[nodiscard]] std::uint64_t references() const;
  // Takes those mappings off the books that a failed call has left behind, so that closing is silent.
  void forget_references();
  // Whether no locator is open and no mapping left.
  [[nodiscard]] ::testing::AssertionResult is_idle() const;

  // Calls on the tree's own lock: "read", "write" or "unlock", with " failed" where it did.
  [[nodiscard]] Lines tree_locks(const FaultInjector& faults) const;
  // The nodes that were read, in order; other reads as "offset+size".
  [[nodiscard]] Lines nodes_read(const FaultInjector& faults) const;

 private:
  void put(std::uint32_t node, std::uint32_t offset, std::size_t width, std::uint64_t value);

  TreePlan plan_;
  std::uint32_t kind_;
  SparseImage image_;
  ForkView view_;
  int fd_ = -1;
  kvfs_device* device_ = nullptr;
  HFSPlusVolumeHeader header_ = {};
  kvfs_btree* tree_ = nullptr;
};

// "result 0 found 1 after 0 node 1 index 2 key 30"; "result 6" for a failure, "none" in place of a missing locator.
std::string describe(kvfs_result result, const kvfs_btree_search_result& found);
std::string outcome(std::uint32_t found, std::uint32_t after, std::uint32_t node, std::uint32_t index,
                    std::uint32_t key);

// The lines of the log that the B-tree engine and what lies above it have written, in the form of EXPECT_LOG.
Lines tree_lines(LogCapture& log);

// ---- Faults --------------------------------------------------------------------------------------------------------

// One use that an operation makes of the fork or of its lock, and what it logs when that fails.
struct Step {
  enum class Kind { kWriteLock, kReadLock, kMap, kUnmap, kUnlock };
  Kind kind;
  std::string message;  // "LEVEL function text"
};

// For each call of a kind that the steps make, in order, the message that its failure brings.
Lines messages_of(const std::vector<Step>& steps, Call call);

}  // namespace kvfs_test

#endif  // KVFS_BTREE_FIXTURE_H
