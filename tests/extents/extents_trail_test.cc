// Lookups in the extents overflow file that go on where the one before went down.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "extents_fixture.h"
#include "format.h"
#include "log_capture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

constexpr std::uint32_t kFile = 20;
constexpr std::uint32_t kRecords = 2000;
constexpr std::uint32_t kKeyLengthOffset = 0;
constexpr std::uint32_t kStartBlockOffset = 8;
constexpr std::uint32_t kIndexRecordSize = 16;  // key and child

std::uint64_t keys_compared = 0;

int count_comparison(const void* node_key, const void* search_key, std::uint8_t type) {
  ++keys_compared;
  return kvfs_extents_compare_keys(node_key, search_key, type);
}

constexpr std::uint32_t block_of(std::uint32_t record) {
  return 8 + 10 * record;
}

// A volume whose extents overflow file has a record of file 20 for every tenth block from 8 on.
Volume volume_of(std::uint32_t node_size, std::uint32_t records = kRecords) {
  VolumeDescription description;
  description.extents.node_size = node_size;
  for (std::uint32_t i = 0; i < records; ++i) {
    description.extra_extents_records.push_back({extents_key(kHFSDataForkType, kFile, block_of(i)), Bytes(64, 1)});
  }
  return build_volume(description);
}

// An open extents overflow file.
struct OpenFile {
  ExtentsMedium medium;
  kvfs_btree* tree;

  explicit OpenFile(const Volume& volume) : medium(volume), tree(medium.get()->btree) {}

  // What a search gives: where it ends, and what work it leaves.
  std::string search(std::uint32_t block, std::uint32_t file = kFile) {
    kvfs_btree_search_result found;
    kvfs_btree_search_result_init(&found);
    const kvfs_result result = kvfs_extents_search(medium.get(), kHFSDataForkType, file, block, &found);
    std::string outcome = "result " + std::to_string(static_cast<unsigned long long>(result));
    if (found.locator != nullptr) {
      outcome += " found " + std::to_string(found.found) + " after " + std::to_string(found.after) + " node " +
                 std::to_string(*found.locator->node) + " index " + std::to_string(*found.locator->index);
    }
    kvfs_btree_search_result_release(&found);
    return outcome + " work left " + std::to_string(tree->priv->work_left);
  }
  bool finds(std::uint32_t block) { return search(block).find(" found 1 ") != std::string::npos; }
  void forget_trail() { tree->priv->trail.node = nullptr; }

  std::uint32_t root() {
    BTHeaderRec header = {};
    EXPECT_EQ(kvfs_fork_read(tree->fork, kBTHeaderRecordOffset, &header, sizeof(header), nullptr), kvfs_ok);
    return header.rootNode.get();
  }
  // Overwrites a field of an index record.
  template <typename Field>
  void write(std::uint32_t node, std::uint32_t record, std::uint32_t offset, Field field) {
    const std::uint64_t position =
        std::uint64_t{node} * tree->nodeSize + kBTFirstRecordOffset + record * kIndexRecordSize + offset;
    ASSERT_EQ(kvfs_fork_write(tree->fork, position, &field, sizeof(field), nullptr), kvfs_ok);
  }
};

TEST(ExtentsTrail, LookupsInTheOrderOfKeys_CompareTheKeysOfOneLeafAndAFewMore) {
  for (const std::uint32_t node_size : {512u, 4096u, 32768u}) {
    OpenFile file(volume_of(node_size));
    file.tree->priv->compare = count_comparison;
    const std::uint32_t in_a_leaf = (node_size - 16) / 78;
    const std::uint32_t in_the_root = node_size == 512 ? (node_size - 16) / 18 : 0;  // one level more
    for (std::uint32_t i = 0; i < kRecords; ++i) {
      keys_compared = 0;
      EXPECT_TRUE(file.finds(block_of(i)));
      EXPECT_LE(keys_compared, in_a_leaf + in_the_root + 3) << node_size << " " << i;
    }
  }
}

TEST(ExtentsTrail, SmallerKey_IsFoundFromTheBeginning) {
  OpenFile file(volume_of(4096));
  EXPECT_TRUE(file.finds(block_of(1500)));
  EXPECT_TRUE(file.finds(block_of(1501)));
  EXPECT_TRUE(file.finds(block_of(3)));
  EXPECT_TRUE(file.finds(block_of(1500)));
  EXPECT_FALSE(file.finds(block_of(1500) + 1));
  EXPECT_TRUE(file.finds(block_of(1499)));
}

TEST(ExtentsTrail, AnotherNodeAboveTheLeaves_IsSearchedFromItsBeginning) {
  OpenFile file(volume_of(512));
  for (std::uint32_t i = 0; i < kRecords / 2; i += 7) {
    EXPECT_TRUE(file.finds(block_of(i)));
    EXPECT_TRUE(file.finds(block_of(i + kRecords / 2)));
  }
}

TEST(ExtentsTrail, NodeWrittenBetweenTwoLookups_IsSearchedFromItsBeginning) {
  OpenFile file(volume_of(4096));
  EXPECT_TRUE(file.finds(block_of(1500)));
  EXPECT_TRUE(file.finds(block_of(1501)));
  // Record 3 now orders behind the key: the search goes down before it.
  file.write(file.root(), 3, kStartBlockOffset, kvfs_be32::of(block_of(1900)));
  EXPECT_FALSE(file.finds(block_of(1501)));
  EXPECT_TRUE(file.finds(block_of(110)));
}

TEST(ExtentsTrail, KeyOfAWrongLengthInTheNode_IsReportedByEachLookup) {
  OpenFile file(volume_of(4096));
  EXPECT_TRUE(file.finds(block_of(1500)));
  file.write(file.root(), 3, kKeyLengthOffset, kvfs_be16::of(9));
  const std::string odd =
      "ERROR kvfs_extents_compare_keys Invalid key length for extents overflow file in a. Expected: 12 Actual: 9\n";
  for (int i = 0; i < 3; ++i) {
    LogCapture log;
    EXPECT_TRUE(file.finds(block_of(1500)));
    EXPECT_LOG(log, odd);
  }
}

TEST(ExtentsTrail, SearchKeyOfAWrongLength_IsReportedForEachKeyOfTheNode) {
  OpenFile file(volume_of(4096));
  HFSPlusExtentKey key = {kvfs_be16::of(9), kHFSDataForkType, 0, kvfs_be32::of(kFile), kvfs_be32::of(block_of(1500))};
  const auto messages = [&] {
    LogCapture log;
    kvfs_btree_search_result found;
    kvfs_btree_search_result_init(&found);
    EXPECT_EQ(kvfs_btree_search_node(file.tree, &key, &found), kvfs_ok);
    kvfs_btree_search_result_release(&found);
    return log.lines().size();
  };
  const std::size_t before = messages();
  EXPECT_GT(before, 39u);
  EXPECT_TRUE(file.finds(block_of(1500)));
  EXPECT_EQ(messages(), before);
}

TEST(ExtentsTrail, WorkThatIsUsedUp_EndsTheSearchAtTheSameRecord) {
  const Volume volume = volume_of(4096);
  OpenFile with(volume);
  OpenFile without(volume);
  const HFSPlusExtentKey key = {kvfs_be16::of(kHFSPlusExtentKeyLength), kHFSDataForkType, 0, kvfs_be32::of(kFile),
                                kvfs_be32::of(block_of(1500))};
  for (std::uint32_t work = 0; work < 2500; work += 7) {
    std::string outcomes[2];
    for (OpenFile* const file : {&with, &without}) {
      EXPECT_TRUE(file->finds(block_of(1500)));
      EXPECT_TRUE(file->finds(block_of(1500)));
      if (file == &without) {
        file->forget_trail();
      }
      file->tree->priv->work_left = work;
      file->tree->priv->reserve = kWorkReserve;
      LogCapture log;
      kvfs_btree_search_result found;
      kvfs_btree_search_result_init(&found);
      const kvfs_result result = kvfs_btree_search_node_internal(file->tree, &key, 0, kSearchToLeaf, 0, &found);
      kvfs_btree_search_result_release(&found);
      outcomes[file == &with ? 0 : 1] = std::to_string(static_cast<unsigned long long>(result)) + " " +
                                        std::to_string(file->tree->priv->work_left) + log.raw();
      file->tree->priv->work_left = kWorkReserve;
    }
    EXPECT_EQ(outcomes[0], outcomes[1]) << work;
  }
}

// An index node of 512 bytes in which 150 records are one and the same, with a key before those of file 20.
Bytes node_of_one_record(std::uint8_t height, std::uint32_t child) {
  constexpr std::uint8_t kCount = 150;
  constexpr std::uint8_t kEnd = kBTFirstRecordOffset + kIndexRecordSize;
  Bytes node(512);
  node[9] = height;
  node[11] = kCount;
  const Bytes key = extents_key(kHFSDataForkType, kFile - 1, 0);
  std::copy(key.begin(), key.end(), node.begin() + kBTFirstRecordOffset);
  node[kEnd - 1] = static_cast<std::uint8_t>(child);
  for (std::size_t i = 0; i <= kCount; ++i) {
    node[512 - 2 * i - 1] = i == kCount ? kEnd : kBTFirstRecordOffset;
  }
  return node;
}

// Two nodes lead to each other. Only a node right above the leaves has a trail.
TEST(ExtentsTrail, KeysOfMoreNodesThanATreeHasLevels_EndTheSearchAtTheSameRecord) {
  std::vector<std::string> outcomes;
  for (const std::uint8_t height : {std::uint8_t{3}, std::uint8_t{2}}) {
    OpenFile file(volume_of(512));
    ASSERT_GT(file.root(), 4u);
    file.write(file.root(), 0, sizeof(HFSPlusExtentKey), kvfs_be32::of(3));
    for (const std::uint32_t node : {3u, 4u}) {
      Bytes bytes(512);
      ASSERT_EQ(kvfs_fork_read(file.tree->fork, 512 * node, bytes.data(), bytes.size(), nullptr), kvfs_ok);  // Q-fork-7
      bytes = node_of_one_record(node == 3 ? height : std::uint8_t{3}, 7 - node);
      ASSERT_EQ(kvfs_fork_write(file.tree->fork, 512 * node, bytes.data(), bytes.size(), nullptr), kvfs_ok);
    }
    LogCapture log;
    const std::string outcome = file.search(0);
    EXPECT_TRUE(log.has("ERROR", "kvfs_btree_search_node_internal", "Too many or wrong keys up to record"));
    outcomes.push_back(outcome + log.raw());
  }
  EXPECT_EQ(outcomes[0], outcomes[1]);
}

class ExtentsTrailDamage : public ::testing::TestWithParam<std::uint32_t> {};

// Each search and each write is done in two trees, one of which forgets its trail before each search.
TEST_P(ExtentsTrailDamage, SearchesInAnyOrderAmongWrites_EndAsWithoutATrail) {
  std::mt19937 random(GetParam());
  const auto draw = [&](std::uint32_t end) { return static_cast<std::uint32_t>(random() % end); };
  const Volume volume = volume_of(GetParam() % 2 == 0 ? 512 : 4096, 400 + draw(1600));
  OpenFile with(volume);
  OpenFile without(volume);
  const std::uint32_t nodes = static_cast<std::uint32_t>(*with.tree->fork->logical_size / with.tree->nodeSize);
  const std::uint32_t writes_in = GetParam() % 3 == 0 ? 0xFFFFFFFF : 20;
  std::uint32_t record = 0;
  for (int i = 0; i < 600; ++i) {
    if (draw(writes_in) == 1) {
      // Mostly into the first bytes of a node, where its descriptor and first keys are.
      const std::uint64_t offset = std::uint64_t{draw(nodes)} * with.tree->nodeSize + draw(draw(2) == 0 ? 200 : 512);
      const std::uint8_t byte = static_cast<std::uint8_t>(draw(draw(3) == 0 ? 256 : 12));
      EXPECT_EQ(kvfs_fork_write(with.tree->fork, offset, &byte, 1, nullptr), kvfs_ok);
      EXPECT_EQ(kvfs_fork_write(without.tree->fork, offset, &byte, 1, nullptr), kvfs_ok);
    }
    record = draw(8) == 0 ? draw(kRecords) : record + draw(4);
    const std::uint32_t block = block_of(record) + (draw(5) == 0 ? 1 : 0);
    const std::uint32_t file = draw(30) == 0 ? kFile - 1 + draw(3) : kFile;
    LogCapture log_with;
    const std::string outcome = with.search(block, file);
    log_with.finish();
    without.forget_trail();
    LogCapture log_without;
    const std::string expected = without.search(block, file);
    log_without.finish();
    ASSERT_EQ(outcome, expected) << i;
    ASSERT_EQ(log_with.raw(), log_without.raw()) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ExtentsTrailDamage, ::testing::Range(std::uint32_t{1}, std::uint32_t{41}));

}  // namespace
}  // namespace kvfs_test
