#include "btree_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "big_endian.h"
#include "fork/private.h"
#include "support.h"

namespace kvfs_test {

// ---- Keys and records ----------------------------------------------------------------------------------------------

Bytes number_key(std::uint32_t number) {
  Bytes key(6);
  put_be(key, 0, 2, 4);
  put_be(key, 2, 4, number);
  return key;
}

std::uint32_t number_of(const void* key) {
  return static_cast<std::uint32_t>(get_be(static_cast<const std::uint8_t*>(key) + 2, 4));
}

Record number_record(std::uint32_t number, std::size_t data_size) {
  Bytes data(data_size);
  for (std::size_t i = 0; i < data_size; ++i) {
    data[i] = static_cast<std::uint8_t>(number * 31 + i * 7 + 1);
  }
  return {number_key(number), data};
}

std::vector<Record> numbered_records(std::uint32_t count, std::size_t data_size) {
  std::vector<Record> records;
  for (std::uint32_t i = 1; i <= count; ++i) {
    records.push_back(number_record(10 * i, data_size));
  }
  return records;
}

static thread_local ComparisonRecorder* recorder = nullptr;

ComparisonRecorder::ComparisonRecorder() {
  recorder = this;
}

ComparisonRecorder::~ComparisonRecorder() {
  recorder = nullptr;
}

int compare_bytes(const void* node_key, const void* search_key, std::uint8_t compare_type) {
  const auto* const a = static_cast<const std::uint8_t*>(node_key);
  const auto* const b = static_cast<const std::uint8_t*>(search_key);
  const std::size_t length_a = static_cast<std::size_t>(get_be(a, 2));
  const std::size_t length_b = static_cast<std::size_t>(get_be(b, 2));
  if (recorder != nullptr) {
    const FaultInjector::Pause pause;
    recorder->calls_.push_back({search_key, Bytes(a, a + 2 + length_a), compare_type});
  }
  const int order = std::memcmp(a + 2, b + 2, std::min(length_a, length_b));
  return order != 0 ? order : static_cast<int>(length_a) - static_cast<int>(length_b);
}

// ---- Trees ---------------------------------------------------------------------------------------------------------

TreeShape shape_of(std::uint32_t node_size, std::uint16_t height) {
  TreeShape shape;
  shape.node_size = node_size;
  shape.height = height;
  return shape;
}

static TreePlan make_plan(TreeOptions& options) {
  return plan_tree(options.records, options.shape, options.traits, options.block_size, {});
}

// The extents as given, the last one as long as the blocks need.
static std::vector<Extent> fit_extents(std::vector<Extent> extents, std::uint32_t blocks) {
  for (std::size_t i = 0; i + 1 < extents.size(); ++i) {
    blocks -= extents[i].block_count;
  }
  extents.back().block_count = blocks;
  return extents;
}

// Room for every extent and a sector behind the last one.
static SparseImage image_for(const std::vector<Extent>& extents, std::uint32_t block_size) {
  std::uint64_t end = 0;
  for (const Extent& extent : extents) {
    end = std::max(end, (std::uint64_t{extent.start_block} + extent.block_count) * block_size);
  }
  return SparseImage(end + 4096);
}

static int open_as_file(const SparseImage& image) {
  static int number = 0;
  const std::string path =
      ::testing::TempDir() + "kvfs-btree-" + std::to_string(getpid()) + "-" + std::to_string(++number);
  image.write_to(path);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  unlink(path.c_str());
  return fd;
}

TestTree::TestTree(TreeOptions options)
    : plan_(make_plan(options)),
      kind_(options.kind),
      image_(image_for(fit_extents(options.extents, plan_.blocks), options.block_size)),
      view_(image_, options.block_size, fit_extents(options.extents, plan_.blocks)) {
  write_tree(image_, view_, plan_);
  fd_ = open_as_file(image_);
  EXPECT_GE(fd_, 0);
  EXPECT_EQ(kvfs_device_create(fd_, 0, options.sector_size, 0, &device_), kvfs_ok);
  header_.blockSize.set(options.block_size);
  HFSPlusForkData* const data = fork_data();
  data->logicalSize.set(plan_.logical_size());
  data->totalBlocks.set(plan_.blocks);
  for (std::size_t i = 0; i < view_.extents().size(); ++i) {
    data->extents.extents[i].startBlock.set(view_.extents()[i].start_block);
    data->extents.extents[i].blockCount.set(view_.extents()[i].block_count);
  }
}

TestTree::~TestTree() {
  if (tree_ != nullptr) {
    close();
  }
  kvfs_device_destroy(&device_);
  ::close(fd_);
}

HFSPlusForkData* TestTree::fork_data() {
  switch (kind_) {
    case kHFSExtentsFileID:
      return &header_.extentsFile;
    case kHFSAttributesFileID:
      return &header_.attributesFile;
    default:
      return &header_.catalogFile;
  }
}

std::uint64_t TestTree::device_offset(std::uint32_t node, std::uint64_t offset) const {
  return view_.device_offset(std::uint64_t{node} * plan_.node_size + offset);
}

void TestTree::put(std::uint32_t node, std::uint32_t offset, std::size_t width, std::uint64_t value) {
  Bytes field(width);
  put_be(field, 0, width, value);
  image_.write(device_offset(node, offset), field);
  EXPECT_EQ(pwrite(fd_, field.data(), width, static_cast<off_t>(device_offset(node, offset))),
            static_cast<ssize_t>(width));
}

void TestTree::set8(std::uint32_t node, std::uint32_t offset, std::uint8_t value) {
  put(node, offset, 1, value);
}

void TestTree::set16(std::uint32_t node, std::uint32_t offset, std::uint16_t value) {
  put(node, offset, 2, value);
}

void TestTree::set32(std::uint32_t node, std::uint32_t offset, std::uint32_t value) {
  put(node, offset, 4, value);
}

void TestTree::set_entry(std::uint32_t node, std::uint32_t index, std::uint16_t offset) {
  set16(node, node_size() - 2 * (index + 1), offset);
}

std::uint16_t TestTree::entry(std::uint32_t node, std::uint32_t index) const {
  return get_be16(bytes(node, node_size() - 2 * (index + 1), 2), 0);
}

void TestTree::set_child(std::uint32_t node, std::uint32_t index, std::uint32_t child) {
  set32(node, entry(node, index) + static_cast<std::uint32_t>(number_key(0).size()), child);
}

Bytes TestTree::bytes(std::uint32_t node, std::uint32_t offset, std::size_t length) const {
  Bytes result(length);
  EXPECT_EQ(pread(fd_, result.data(), length, static_cast<off_t>(device_offset(node, offset))),
            static_cast<ssize_t>(length));
  return result;
}

kvfs_result TestTree::try_open(kvfs_btree_compare_keys compare) {
  return kvfs_btree_create(device_, nullptr, 1, &header_, kind_, compare, &tree_);
}

void TestTree::open(kvfs_btree_compare_keys compare) {
  EXPECT_EQ(try_open(compare), kvfs_ok);
}

void TestTree::close() {
  kvfs_btree_destroy(&tree_);
}

std::string TestTree::search(std::uint32_t number) {
  const Bytes key = number_key(number);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  const kvfs_result result = kvfs_btree_search_node(tree_, key.data(), &found);
  std::string text = describe(result, found);
  kvfs_btree_search_result_release(&found);
  return text;
}

std::string TestTree::search_internal(std::uint32_t number, std::uint32_t start, std::uint8_t mode,
                                      std::uint8_t height) {
  const Bytes key = number_key(number);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  const kvfs_result result = kvfs_btree_search_node_internal(tree_, key.data(), start, mode, height, &found);
  std::string text = describe(result, found);
  kvfs_btree_search_result_release(&found);
  return text;
}

kvfs_btree_record_locator* TestTree::locate(std::uint32_t number) {
  const Bytes key = number_key(number);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  EXPECT_EQ(kvfs_btree_search_node(tree_, key.data(), &found), kvfs_ok);
  EXPECT_EQ(found.found, 1u);
  return found.locator;
}

kvfs_btree_record_locator* TestTree::next(const kvfs_btree_record_locator* locator) {
  kvfs_btree_record_locator* following = nullptr;
  EXPECT_EQ(kvfs_btree_get_next_record(tree_, locator, &following), kvfs_ok);
  return following;
}

Lines TestTree::locators() const {
  Lines lines;
  for (const kvfs_btree_record_locator* locator = tree_->priv->open_locators; locator != nullptr;
       locator = locator->priv->next) {
    lines.push_back(std::to_string(*locator->node) + " " + std::to_string(*locator->index) + " x" +
                    std::to_string(locator->priv->reference_count));
  }
  return lines;
}

std::uint64_t TestTree::references() const {
  const kvfs_fork_private* const fork = tree_->fork->priv;
  std::uint64_t count = 0;
  for (std::uint32_t i = 0; i < fork->items_length; ++i) {
    count += fork->items[i] != nullptr ? fork->items[i]->references : 0;
  }
  return count;
}

void TestTree::forget_references() {
  const kvfs_fork_private* const fork = tree_->fork->priv;
  for (std::uint32_t i = 0; i < fork->items_length; ++i) {
    if (fork->items[i] != nullptr) {
      fork->items[i]->references = 0;
    }
  }
}

::testing::AssertionResult TestTree::is_idle() const {
  if (!locators().empty()) {
    return ::testing::AssertionFailure() << locators().size() << " locators are open, the head is " << locators()[0];
  }
  if (references() != 0) {
    return ::testing::AssertionFailure() << references() << " mappings were not given back";
  }
  return ::testing::AssertionSuccess();
}

Lines TestTree::tree_locks(const FaultInjector& faults) const {
  const FaultInjector::Pause pause;
  const std::map<Call, std::string> verbs = {
      {Call::kRwlockRdlock, "read"}, {Call::kRwlockWrlock, "write"}, {Call::kRwlockUnlock, "unlock"}};
  Lines lines;
  for (const LockCall& call : faults.lock_calls()) {
    const auto verb = verbs.find(call.call);
    // A lock's object begins with the lock of the thread library.
    if (verb != verbs.end() && call.lock == static_cast<const void*>(tree_->priv->open_locators_lock)) {
      lines.push_back(verb->second + (call.result != 0 ? " failed" : ""));
    }
  }
  return lines;
}

Lines TestTree::nodes_read(const FaultInjector& faults) const {
  const FaultInjector::Pause pause;
  std::map<std::uint64_t, std::uint32_t> nodes;
  for (std::uint32_t node = 0; node < plan_.total_nodes; ++node) {
    nodes[device_offset(node)] = node;
  }
  Lines lines;
  for (const Transfer& read : faults.reads()) {
    const auto node = nodes.find(read.offset);
    lines.push_back(node != nodes.end() && read.size == node_size()
                        ? std::to_string(node->second)
                        : std::to_string(read.offset) + "+" + std::to_string(read.size));
  }
  return lines;
}

std::string describe(kvfs_result result, const kvfs_btree_search_result& found) {
  if (result != kvfs_ok) {
    return "result " + std::to_string(static_cast<unsigned long long>(result));
  }
  if (found.locator == nullptr) {
    return "result 0 found " + std::to_string(found.found) + " after " + std::to_string(found.after) + " none";
  }
  return outcome(found.found, found.after, *found.locator->node, *found.locator->index, number_of(found.locator->key));
}

std::string outcome(std::uint32_t found, std::uint32_t after, std::uint32_t node, std::uint32_t index,
                    std::uint32_t key) {
  return "result 0 found " + std::to_string(found) + " after " + std::to_string(after) + " node " +
         std::to_string(node) + " index " + std::to_string(index) + " key " + std::to_string(key);
}

Lines tree_lines(LogCapture& log) {
  Lines lines;
  for (const LogLine& line : log.lines()) {
    if (line.function.starts_with("kvfs_btree") || line.function.starts_with("kvfs_extents") ||
        line.function == "ReadAttrNode") {
      lines.push_back(to_string(line));
    }
  }
  return lines;
}

// ---- Faults --------------------------------------------------------------------------------------------------------

// How many calls of a kind a step makes. Mapping takes the fork's lock for writing to read what is missing and for
// reading to find the bytes; unmapping takes it for reading and then an item's lock for writing.
static std::size_t calls_in(Step::Kind step, Call call) {
  switch (step) {
    case Step::Kind::kWriteLock:
      return call == Call::kRwlockWrlock ? 1 : 0;
    case Step::Kind::kReadLock:
      return call == Call::kRwlockRdlock ? 1 : 0;
    case Step::Kind::kUnlock:
      return call == Call::kRwlockUnlock ? 1 : 0;
    case Step::Kind::kMap:
    case Step::Kind::kUnmap:
      return call == Call::kRwlockUnlock ? 2 : 1;
  }
  return 0;
}

Lines messages_of(const std::vector<Step>& steps, Call call) {
  Lines messages;
  for (const Step& step : steps) {
    messages.insert(messages.end(), calls_in(step.kind, call), step.message);
  }
  return messages;
}

}  // namespace kvfs_test
