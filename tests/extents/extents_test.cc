// The extents overflow file.

#include "extents.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "extents_fixture.h"
#include "replaced_routine.h"
#include "volume_builder.h"
#include "volume_checker.h"

// The search as the library has it, and in its place one that finds nothing and says so without a failure.
namespace {
bool find_nothing = false;
}  // namespace
KVFS_REPLACED_ROUTINE(kvfs_btree_search_node, real_search, wrapped_search);
kvfs_result wrapped_search(kvfs_btree* tree, const void* key, kvfs_btree_search_result* out_result) {
  if (find_nothing) {
    kvfs_btree_search_result_init(out_result);
    return kvfs_ok;
  }
  return real_search(tree, key, out_result);
}

namespace kvfs_test {
namespace {

constexpr std::uint8_t kData = kHFSDataForkType;
constexpr std::uint8_t kResource = kHFSResourceForkType;
constexpr const char* kNotValid =
    "ERROR kvfs_extents_create Extents B-tree failed validation (see earlier log messages).\n";

std::string validate_error(const std::string& text) {
  return "ERROR kvfs_extents_validate " + text + "\n";
}

// A record of eight extents that no other start block has.
Bytes extents_data(std::uint32_t start_block) {
  Bytes data(64);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(start_block + 3 * i);
  }
  return data;
}

Record extents_record(std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block) {
  return {extents_key(fork_type, file_id, start_block), extents_data(start_block)};
}

// A volume whose extents overflow file has these records and no others.
Volume volume_with(std::vector<Record> records, const TreeShape& shape = {}) {
  VolumeDescription description;
  description.extents = shape;
  description.extra_extents_records = std::move(records);
  return build_volume(description);
}

// Files 20 and 21, both forks, a record for every tenth block from 8 on.
std::vector<Record> many_records(std::uint32_t count_each) {
  std::vector<Record> records;
  for (const std::uint32_t file_id : {20u, 21u}) {
    for (const std::uint8_t type : {kData, kResource}) {
      for (std::uint32_t i = 0; i < count_each; ++i) {
        records.push_back(extents_record(type, file_id, 8 + 10 * i));
      }
    }
  }
  return records;
}

Lines own_lines(LogCapture& log) {
  Lines lines;
  for (const LogLine& line : log.lines()) {
    if (line.function.starts_with("kvfs_extents")) {
      lines.push_back(to_string(line));
    }
  }
  return lines;
}

// ---- Keys ----------------------------------------------------------------------------------------------------------

int compare(const Bytes& a, const Bytes& b, std::uint8_t type = 0) {
  return kvfs_extents_compare_keys(a.data(), b.data(), type);
}

TEST(ExtentsCompareKeys, FileThenForkThenBlock_Decide) {
  // Ascending; each number above 2^31 as well, since all of them are unsigned.
  const std::vector<Bytes> keys = {extents_key(kData, 0, 0),          extents_key(kData, 20, 0),
                                   extents_key(kData, 20, 100),       extents_key(kData, 20, 0xFFFFFFFF),
                                   extents_key(0x7F, 20, 5),          extents_key(0x80, 20, 4),
                                   extents_key(kResource, 20, 0),     extents_key(kResource, 20, 0x80000000),
                                   extents_key(kData, 0x7FFFFFFF, 3), extents_key(kData, 0x80000000, 2),
                                   extents_key(kData, 0xFFFFFFFF, 1)};
  LogCapture log;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    for (std::size_t j = 0; j < keys.size(); ++j) {
      for (const int type : {0, 0xBC, 0xCF}) {
        EXPECT_EQ(compare(keys[i], keys[j], static_cast<std::uint8_t>(type)), i < j ? -1 : (i > j ? 1 : 0));
      }
    }
  }
  EXPECT_LOG(log);
}

TEST(ExtentsCompareKeys, DataForkOfAFile_ComesBeforeItsResourceFork) {
  EXPECT_EQ(compare(extents_key(kData, 20, 100), extents_key(kResource, 20, 0)), -1);
  EXPECT_EQ(compare(extents_key(kResource, 20, 0), extents_key(kData, 20, 100)), 1);
}

TEST(ExtentsCompareKeys, Pad_MakesNoDifference) {
  Bytes padded = extents_key(kData, 20, 100);
  padded[3] = 0xFF;
  EXPECT_EQ(compare(padded, extents_key(kData, 20, 100)), 0);
}

// The messages name the size of the whole key, although its length field is tested.
// Q-extents-1
TEST(ExtentsCompareKeys, KeyOfAnotherLength_IsReportedAndOrdersFirst) {
  const Bytes good = extents_key(kData, 20, 100);
  for (const int length : {0, 1, 9, 11, 12, 0xFFFF}) {
    Bytes bad = good;
    bad[0] = static_cast<std::uint8_t>(length >> 8);
    bad[1] = static_cast<std::uint8_t>(length);
    const std::string in_a =
        "ERROR kvfs_extents_compare_keys Invalid key length for extents overflow file in a. "
        "Expected: 12 Actual: " +
        std::to_string(length) + "\n";
    const std::string in_b =
        "ERROR kvfs_extents_compare_keys Invalid key length for extents overflow file in b. "
        "Expected: 12 Actual: " +
        std::to_string(length) + "\n";
    LogCapture log;
    EXPECT_EQ(compare(bad, good), -1);
    EXPECT_EQ(compare(good, bad), -1);
    EXPECT_EQ(compare(bad, bad), -1);
    EXPECT_LOG(log, in_a, in_b, in_a);
  }
}

TEST(ExtentsCompareKeys, KeyOfAnotherLength_IsNotReadBeyondItsLengthField) {
  const Bytes good = extents_key(kData, 20, 100);
  const Bytes short_key = {0, 0};
  LogCapture log;
  EXPECT_EQ(compare(short_key, good), -1);
  EXPECT_EQ(compare(good, short_key), -1);
  EXPECT_EQ(log.lines().size(), 2u);
}

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST(ExtentsCreate, SoundFile_IsOpenedWithItsOwnExtentsAlone) {
  ExtentsMedium medium(volume_with(many_records(3)));
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(medium.try_open(), kvfs_ok);
  const kvfs_btree* const tree = medium.get()->btree;
  EXPECT_EQ(tree->priv->tree_kind, kHFSExtentsFileID);
  EXPECT_EQ(tree->priv->compare, &kvfs_extents_compare_keys);
  EXPECT_EQ(tree->maxKeyLength, 10);
  EXPECT_EQ(tree->fork->priv->fork_data, &medium.header()->extentsFile);
  EXPECT_NE(medium.get()->priv, nullptr);
  EXPECT_TRUE(medium.is_idle());
  EXPECT_EQ(faults.reads().size(), 2u);  // the first sector, and node 0
  EXPECT_EQ(faults.locks_held(), 0);
  medium.close();
  EXPECT_FALSE(medium.is_open());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log);
}

// The file itself has no overflow extents: what its fork data lacks stays unknown.
TEST(ExtentsCreate, FileOfMoreBlocksThanItsEightExtents_IsOpenedPartially) {
  VolumeDescription description;
  description.block_size = 512;
  description.extents.node_size = 512;
  description.extents.extent_count = 8;
  description.extra_extents_records = many_records(5);
  Volume volume = build_volume(description);
  volume.add_to_field("extentsFile.totalBlocks", 5);
  ExtentsMedium medium(volume);
  LogCapture log;
  ASSERT_EQ(medium.try_open(), kvfs_ok);
  EXPECT_EQ(medium.get()->btree->fork->priv->fork_extents_count, 8u);
  EXPECT_LOG(log);
}

struct Damage {
  const char* name;
  const char* field;
  std::uint64_t value;
  std::string message;
};

class ExtentsHeaderDamage : public ::testing::TestWithParam<Damage> {};

// X-extents-1
TEST_P(ExtentsHeaderDamage, Create_IsInconsistentAndKeepsNothing) {
  Volume volume = volume_with(many_records(3));
  volume.set_field(GetParam().field, GetParam().value);
  ExtentsMedium medium(volume);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(medium.try_open(), kvfs_inconsistent);
  EXPECT_FALSE(medium.is_open());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, validate_error(GetParam().message), kNotValid);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, ExtentsHeaderDamage,
    ::testing::Values(
        Damage{"VariableKeys", "extents.header.attributes", 6,
               "Extents overflow file has the variable index keys flag set. Expected fixed-size index keys."},
        Damage{"AllAttributes", "extents.header.attributes", 0xFFFFFFFF,
               "Extents overflow file has the variable index keys flag set. Expected fixed-size index keys."},
        Damage{"KeyLength0", "extents.header.maxKeyLength", 0,
               "Unexpected size for extents overflow file keys. Expected: 10 Actual: 0"},
        Damage{"KeyLength12", "extents.header.maxKeyLength", 12,
               "Unexpected size for extents overflow file keys. Expected: 10 Actual: 12"},
        Damage{"KeyLength65535", "extents.header.maxKeyLength", 65535,
               "Unexpected size for extents overflow file keys. Expected: 10 Actual: 65535"}),
    [](const auto& suite) { return std::string(suite.param.name); });

// The B-tree refuses such a header itself; the words of the validation follow where it is asked directly.
TEST(ExtentsCreate, UserTree_IsRefusedByTheBtree) {
  Volume volume = volume_with({});
  volume.set_field("extents.header.btreeType", 0x80);
  ExtentsMedium medium(volume);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(medium.try_open(), kvfs_inconsistent);
  EXPECT_FALSE(medium.is_open());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log,
             "ERROR kvfs_btree_process HFSPlus:kvfs_btree_process: Tree type, according to header node, is 128 - and "
             "not kHFSBTreeType (0)\n",
             "ERROR kvfs_btree_create Error while reading extents overflow B-Tree into memory.\n",
             "ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n");
}

TEST(ExtentsCreate, EachAllocationFailing_UndoesEverything) {
  ExtentsMedium medium(volume_with(many_records(3)));
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    const kvfs_result result = run.operate([&] { return medium.try_open(); });
    if (!run.failed()) {
      return;
    }
    EXPECT_EQ(result, kvfs_no_memory);
    EXPECT_FALSE(medium.is_open());
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(run.faults().locks_alive(), 0);
    if (run.n() == 1) {
      EXPECT_LOG(run.log(), "ERROR kvfs_extents_create Error while allocating " + std::to_string(sizeof(kvfs_extents)) +
                                " bytes for kvfs_extents.\n");
    } else if (run.n() == 2) {
      EXPECT_LOG(run.log(), "ERROR kvfs_extents_create Error while allocating 4 bytes for kvfs_extents_private.\n");
    } else {
      EXPECT_EQ(own_lines(run.log()),
                Lines{"ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n"});
    }
  });
  EXPECT_GT(failures, 11u);
}

TEST(ExtentsCreate, EachLockCallFailing_UndoesEverything) {
  ExtentsMedium medium(volume_with(many_records(3)));
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    bool validation_failed = false;
    fail_each(each(call), [&](FailingRun& run) {
      const kvfs_result result = run.operate([&] { return medium.try_open(); });
      const FaultInjector::Pause pause;
      const Lines lines = own_lines(run.log());
      EXPECT_EQ(medium.is_open(), !run.failed());
      if (!run.failed()) {
        EXPECT_EQ(result, kvfs_ok);
        return;
      }
      EXPECT_EQ(result, kvfs_failed);
      EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
      EXPECT_EQ(run.faults().locks_alive(), 0);
      if (lines.size() == 2) {
        validation_failed = true;
        EXPECT_EQ(lines, (Lines{validate_error("Error while reading node descriptor."),
                                "ERROR kvfs_extents_create Error while validating extents B-tree.\n"}));
      } else {
        EXPECT_EQ(lines, Lines{"ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n"});
      }
    });
    EXPECT_TRUE(validation_failed) << call_name(call);
    medium.close();
  }
}

TEST(ExtentsCreate, EachReadFailing_IsPassedUp) {
  ExtentsMedium medium(volume_with(many_records(3)));
  const unsigned long failures = fail_each(each(Call::kPread64), [&](FailingRun& run) {
    const kvfs_result result = run.operate([&] { return medium.try_open(); });
    if (!run.failed()) {
      EXPECT_EQ(result, kvfs_ok);
      return;
    }
    EXPECT_EQ(result, kvfs_io_error);
    EXPECT_FALSE(medium.is_open());
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(own_lines(run.log()),
              Lines{"ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n"});
  });
  EXPECT_EQ(failures, 2u);
}

// ---- Validation ----------------------------------------------------------------------------------------------------

TEST(ExtentsValidate, SoundHeader_IsValid) {
  ExtentsMedium medium(volume_with({}));
  int valid = 77;
  LogCapture log;
  EXPECT_EQ(kvfs_extents_validate(medium.get()->btree, &valid), kvfs_ok);
  EXPECT_EQ(valid, 1);
  EXPECT_TRUE(medium.is_idle());
  EXPECT_LOG(log);
}

TEST(ExtentsValidate, NowhereToPutTheVerdict_IsInvalid) {
  ExtentsMedium medium(volume_with({}));
  kvfs_btree* const tree = medium.get()->btree;
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(kvfs_extents_validate(tree, nullptr), kvfs_invalid);
  EXPECT_TRUE(faults.lock_calls().empty());
  EXPECT_LOG(log, validate_error("Invalid argument: out_result == NULL"));
}

// Q-extents-2
TEST(ExtentsValidate, HeaderThatCannotBeRead_IsNotValid) {
  ExtentsMedium medium(volume_with({}));
  kvfs_btree* const tree = medium.get()->btree;
  tree->fork->priv->logical_size = 119;
  int valid = 77;
  LogCapture log;
  EXPECT_EQ(kvfs_extents_validate(tree, &valid), kvfs_invalid);
  EXPECT_EQ(valid, 0);
  EXPECT_EQ(own_lines(log), Lines{validate_error("Error while reading node descriptor.")});
}

TEST(ExtentsValidate, OtherTreeType_IsNotValidWithoutBeingAFailure) {
  for (const int type : {1, 0x80, 0xFF}) {
    ExtentsMedium medium(volume_with({}));
    kvfs_btree* const tree = medium.get()->btree;
    const auto byte = static_cast<std::uint8_t>(type);
    ASSERT_EQ(kvfs_fork_write(tree->fork, 14 + 36, &byte, 1, nullptr), kvfs_ok);
    int valid = 77;
    LogCapture log;
    EXPECT_EQ(kvfs_extents_validate(tree, &valid), kvfs_ok);
    EXPECT_EQ(valid, 0);
    EXPECT_LOG(log, validate_error(std::string("Incorrect B-tree type for extents overflow file: 0x") +
                                   (type == 1 ? "1" : (type == 0x80 ? "80" : "FF"))));
  }
}

TEST(ExtentsValidate, KeyLength_IsTheOneThatTheTreeHolds) {
  ExtentsMedium medium(volume_with({}));
  kvfs_btree* const tree = medium.get()->btree;
  tree->maxKeyLength = 516;
  int valid = 77;
  LogCapture log;
  EXPECT_EQ(kvfs_extents_validate(tree, &valid), kvfs_ok);
  EXPECT_EQ(valid, 0);
  EXPECT_LOG(log, validate_error("Unexpected size for extents overflow file keys. Expected: 10 Actual: 516"));
}

TEST(ExtentsValidate, SeveralFaults_AreReportedOneAtATime) {
  ExtentsMedium medium(volume_with({}));
  kvfs_btree* const tree = medium.get()->btree;
  tree->maxKeyLength = 516;
  const std::uint8_t attributes = 0xFF;
  ASSERT_EQ(kvfs_fork_write(tree->fork, 14 + 41, &attributes, 1, nullptr), kvfs_ok);
  int valid = 77;
  LogCapture flag_log;
  EXPECT_EQ(kvfs_extents_validate(tree, &valid), kvfs_ok);
  EXPECT_LOG(flag_log,
             validate_error("Extents overflow file has the variable index keys flag set. Expected fixed-size index "
                            "keys."));
  const std::uint8_t type = 1;
  ASSERT_EQ(kvfs_fork_write(tree->fork, 14 + 36, &type, 1, nullptr), kvfs_ok);
  LogCapture type_log;
  EXPECT_EQ(kvfs_extents_validate(tree, &valid), kvfs_ok);
  EXPECT_LOG(type_log, validate_error("Incorrect B-tree type for extents overflow file: 0x1"));
}

// ---- Lookup --------------------------------------------------------------------------------------------------------

constexpr const char* kLookupFailed =
    "ERROR kvfs_extents_get_next_extent_record Error while looking up overflow extent.\n";

// What a lookup gives: "result 6", "none", or "found" once the record is the one of its start block.
std::string look_up(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block) {
  int found = 77;
  HFSPlusExtentRecord record;
  std::memset(&record, 0xEE, sizeof(record));
  const kvfs_result result =
      kvfs_extents_get_next_extent_record(extents, fork_type, file_id, start_block, &found, &record);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&record);
  const Bytes copied(bytes, bytes + sizeof(record));
  if (result != kvfs_ok) {
    EXPECT_EQ(found, 77);
    EXPECT_EQ(copied, Bytes(64, 0xEE));
    return "result " + std::to_string(static_cast<unsigned long long>(result));
  }
  if (found == 0) {
    EXPECT_EQ(copied, Bytes(64, 0xEE));
    return "none";
  }
  EXPECT_EQ(found, 1);
  EXPECT_EQ(copied, extents_data(start_block));
  return "found";
}

class ExtentsLookup : public ::testing::TestWithParam<std::tuple<std::uint32_t, std::uint16_t>> {};

TEST_P(ExtentsLookup, EveryRecord_IsFoundByItsExactKeyOnly) {
  const auto [node_size, height] = GetParam();
  TreeShape shape;
  shape.node_size = node_size;
  shape.height = height;
  const std::uint32_t count = height == 1 ? 1 : 40;
  ExtentsMedium medium(volume_with(many_records(count), shape));
  LogCapture log;
  FaultInjector faults;
  for (const std::uint32_t file_id : {20u, 21u}) {
    for (const std::uint8_t type : {kData, kResource}) {
      for (std::uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(look_up(medium.get(), type, file_id, 8 + 10 * i), "found");
        EXPECT_EQ(look_up(medium.get(), type, file_id, 9 + 10 * i), "none");
      }
      EXPECT_EQ(look_up(medium.get(), type, file_id, 0), "none");
    }
  }
  EXPECT_EQ(look_up(medium.get(), kData, 19, 8), "none");
  EXPECT_EQ(look_up(medium.get(), kData, 22, 8), "none");
  EXPECT_EQ(look_up(medium.get(), 1, 20, 8), "none");
  EXPECT_TRUE(medium.is_idle());
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ExtentsLookup,
                         ::testing::Combine(::testing::Values(512u, 1024u, 4096u, 8192u, 32768u),
                                            ::testing::Values(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3},
                                                              std::uint16_t{4}, std::uint16_t{5})));

// Q-extents-3
TEST(ExtentsLookupRecord, BlockInsideARecordButNotItsFirst_IsNotFound) {
  VolumeDescription description;
  description.block_size = 512;
  const std::uint32_t file = description.add_file(kRootFolderId, u"scattered", 512 * 100, 20);
  ExtentsMedium medium(build_volume(description));
  const auto find = [&](std::uint32_t block) {
    int found = 77;
    HFSPlusExtentRecord record;
    EXPECT_EQ(kvfs_extents_get_next_extent_record(medium.get(), kData, file, block, &found, &record), kvfs_ok);
    return found;
  };
  LogCapture log;
  std::vector<std::uint32_t> first_blocks;
  for (std::uint32_t block = 0; block < 100; ++block) {
    if (find(block) == 1) {
      first_blocks.push_back(block);
    }
  }
  EXPECT_EQ(first_blocks.size(), 2u);  // extents 8 to 15 and 16 to 19
  EXPECT_LOG(log);
}

TEST(ExtentsLookupRecord, NumbersThatNeedAllTheirBytes_AreFoundInBigEndianKeys) {
  ExtentsMedium medium(volume_with({extents_record(kResource, 0x81828384, 0xF1F2F3F4)}));
  EXPECT_EQ(look_up(medium.get(), kResource, 0x81828384, 0xF1F2F3F4), "found");
  EXPECT_EQ(look_up(medium.get(), kResource, 0x84838281, 0xF4F3F2F1), "none");
}

// The search begins in the header node, whose records are not keys of this file.
TEST(ExtentsLookupRecord, EmptyTree_FailsTheSearch) {
  ExtentsMedium medium(volume_with({}));
  LogCapture log;
  EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "result 3");
  const std::string no_key =
      "ERROR kvfs_extents_compare_keys Invalid key length for extents overflow file in a. Expected: 12 Actual: ";
  const std::string no_record =
      "ERROR kvfs_btree_record_locator_open Invalid parameter: Record size too small to contain key! Expected "
      "minimum: 32770 Actual: 3840\n";
  EXPECT_LOG(log, no_key + "0\n", no_key + "0\n", no_key + "32768\n", no_record, kLookupFailed);
  EXPECT_TRUE(medium.is_idle());
}

// Keys of a wrong length are told and passed over, wherever they say that they end.
// X-btree-5
TEST(ExtentsLookupRecord, KeysOfAWrongLength_AreReportedEachAndPassedOver) {
  for (const int length : {0, 8, 12, 0x7FFF, 0xFFFF}) {
    Volume volume = volume_with(many_records(5));
    const std::string leaf = "extents.node[" + std::to_string(volume.leaf_nodes(Tree::kExtents).at(0)) + "].";
    volume.set_field(leaf + "record[0].key.keyLength", static_cast<std::uint64_t>(length));
    volume.set_field(leaf + "record[1].key.keyLength", static_cast<std::uint64_t>(length));
    ExtentsMedium medium(volume);
    LogCapture log;
    EXPECT_EQ(look_up(medium.get(), kResource, 0xFFFFFFF0, 8), "none");
    const std::string told =
        "ERROR kvfs_extents_compare_keys Invalid key length for extents overflow file in a. Expected: 12 Actual: " +
        std::to_string(length) + "\n";
    EXPECT_LOG(log, told, told);
    EXPECT_TRUE(medium.is_idle());
  }
}

TEST(ExtentsLookupRecord, SearchThatFindsNothingAtAll_IsAnInternalError) {
  ExtentsMedium medium(volume_with(many_records(3)));
  (void)medium.get();
  LogCapture log;
  find_nothing = true;
  const std::string said = look_up(medium.get(), kData, 20, 8);
  find_nothing = false;
  EXPECT_EQ(said, "result 7");
  EXPECT_LOG(log,
             "CRITICAL kvfs_extents_get_next_extent_record Unexpected: Got NULL result with no error from "
             "kvfs_btree_search_node.\n");
}

// X-extents-2
TEST(ExtentsLookupRecord, RecordOfFewerBytesThanEightExtents_IsInconsistent) {
  for (const std::size_t size : {0u, 2u, 62u}) {
    Record record = extents_record(kData, 20, 8);
    record.second.resize(size);
    ExtentsMedium medium(volume_with({record}));
    LogCapture log;
    EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "result 6");
    EXPECT_LOG(log,
               "ERROR kvfs_extents_get_next_extent_record Unexpected data size for extent record. Expected minimum: 64 "
               "Actual: " +
                   std::to_string(size) + "\n");
    EXPECT_TRUE(medium.is_idle());
  }
}

TEST(ExtentsLookupRecord, LongerRecord_IsCopiedAsFarAsItsEightExtents) {
  Record record = extents_record(kData, 20, 8);
  record.second.resize(72, 0xFF);
  ExtentsMedium medium(volume_with({record}));
  LogCapture log;
  EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "found");
  EXPECT_LOG(log);
}

TEST(ExtentsLookupRecord, EachAllocationAndReadFailing_IsPassedUp) {
  ExtentsMedium medium(volume_with(many_records(3)));
  (void)medium.get();
  LogCapture read_log;
  {
    FaultInjector faults;
    faults.fail(Call::kPread64, 1);
    EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "result 4");
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_EQ(own_lines(read_log), Lines{kLookupFailed});
  medium.forget_references();
  LogCapture memory_log;
  {
    FaultInjector faults;
    faults.fail_allocation(1);
    EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "result 2");
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_EQ(own_lines(memory_log), Lines{kLookupFailed});
  EXPECT_TRUE(medium.is_idle());
  EXPECT_EQ(look_up(medium.get(), kData, 20, 8), "found");
}

// The last of its lock calls closes the locator, whose failure is not the lookup's.
TEST(ExtentsLookupRecord, EachLockCallFailing_LeavesNoLocatorOpen) {
  ExtentsMedium medium(volume_with(many_records(3)));
  (void)look_up(medium.get(), kData, 20, 8);
  for (const Call call : {Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    bool is_found = false;  // the last calls that can fail are those of the locator's closing
    fail_each(each(call), [&](FailingRun& run) {
      const std::string said = run.operate([&] { return look_up(medium.get(), kData, 20, 8); });
      EXPECT_EQ(medium.get()->btree->priv->open_locators, nullptr);
      is_found |= said == "found";
      EXPECT_EQ(said, is_found ? "found" : "result 1");
      EXPECT_EQ(own_lines(run.log()), is_found ? Lines{} : Lines{kLookupFailed});
    });
    EXPECT_TRUE(is_found);
  }
  medium.forget_references();
}

// ---- Search --------------------------------------------------------------------------------------------------------

TEST(ExtentsSearch, ExactKey_IsFoundWithItsRecord) {
  ExtentsMedium medium(volume_with(many_records(40)));
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  LogCapture log;
  ASSERT_EQ(kvfs_extents_search(medium.get(), kResource, 20, 38, &found), kvfs_ok);
  EXPECT_EQ(found.found, 1u);
  EXPECT_EQ(Bytes(found.locator->key, found.locator->key + found.locator->key_length), extents_key(kResource, 20, 38));
  EXPECT_EQ(Bytes(found.locator->data, found.locator->data + found.locator->data_size), extents_data(38));
  kvfs_btree_search_result_release(&found);
  EXPECT_TRUE(medium.is_idle());
  EXPECT_LOG(log);
}

TEST(ExtentsSearch, OtherKey_GivesThePlaceWhereItBelongs) {
  ExtentsMedium medium(volume_with(many_records(3)));
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  ASSERT_EQ(kvfs_extents_search(medium.get(), kData, 20, 20, &found), kvfs_ok);
  EXPECT_EQ(found.found, 0u);
  EXPECT_EQ(found.after, 0u);
  EXPECT_EQ(Bytes(found.locator->key, found.locator->key + found.locator->key_length), extents_key(kData, 20, 28));
  kvfs_btree_search_result_release(&found);
  ASSERT_EQ(kvfs_extents_search(medium.get(), kResource, 99, 0, &found), kvfs_ok);
  EXPECT_EQ(found.found, 0u);
  EXPECT_EQ(found.after, 1u);
  kvfs_btree_search_result_release(&found);
  EXPECT_TRUE(medium.is_idle());
}

TEST(ExtentsSearch, Failure_NamesTheKey) {
  Volume volume = volume_with(many_records(3));
  volume.set_field("extents.header.rootNode", 0xFFFFFFFF);
  ExtentsMedium medium(volume);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  LogCapture log;
  EXPECT_EQ(kvfs_extents_search(medium.get(), kResource, 4000000000, 3000000000, &found), kvfs_invalid);
  EXPECT_EQ(found.locator, nullptr);
  EXPECT_EQ(own_lines(log),
            Lines{"ERROR kvfs_extents_search Error while searching extents overflow B-tree for key with fork type "
                  "0xFF, cnid 4000000000, start block 3000000000.\n"});
}

// ---- Insertion -----------------------------------------------------------------------------------------------------

HFSPlusExtentRecord record_of(std::uint32_t start_block) {
  HFSPlusExtentRecord record;
  std::memcpy(&record, extents_data(start_block).data(), sizeof(record));
  return record;
}

TEST(ExtentsInsert, NewKey_IsFoundAfterwardsAndNoLocatorStaysOpen) {
  ExtentsMedium medium(volume_with(many_records(3)));
  const HFSPlusExtentRecord record = record_of(1000);
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(kvfs_extents_insert(medium.get(), kData, 20, 1000, &record), kvfs_ok);
  EXPECT_EQ(medium.get()->btree->priv->open_locators, nullptr);
  EXPECT_EQ(look_up(medium.get(), kData, 20, 1000), "found");
  EXPECT_EQ(look_up(medium.get(), kResource, 20, 8), "found");
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log);
}

TEST(ExtentsInsert, NewKey_IsStoredByteByByte) {
  ExtentsMedium medium(volume_with(many_records(3)));
  const HFSPlusExtentRecord record = record_of(1000);
  ASSERT_EQ(kvfs_extents_insert(medium.get(), kResource, 20, 1000, &record), kvfs_ok);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  ASSERT_EQ(kvfs_extents_search(medium.get(), kResource, 20, 1000, &found), kvfs_ok);
  EXPECT_EQ(Bytes(found.locator->key, found.locator->key + found.locator->key_length),
            extents_key(kResource, 20, 1000));
  kvfs_btree_search_result_release(&found);
}

// It speaks of searching, as the search does.
// Q-extents-2
TEST(ExtentsInsert, KeyThatExists_IsRefusedInTheWordsOfTheSearch) {
  ExtentsMedium medium(volume_with(many_records(3)));
  const HFSPlusExtentRecord record = record_of(1);
  LogCapture log;
  EXPECT_EQ(kvfs_extents_insert(medium.get(), kResource, 21, 18, &record), kvfs_exists);
  EXPECT_EQ(own_lines(log),
            Lines{"ERROR kvfs_extents_insert Error while searching extents overflow B-tree for key with fork type "
                  "0xFF, cnid 21, start block 18.\n"});
  EXPECT_EQ(look_up(medium.get(), kResource, 21, 18), "found");
  EXPECT_TRUE(medium.is_idle());
}

TEST(ExtentsDestroy, FileWithoutItsPrivatePart_IsDestroyedAllTheSame) {
  ExtentsMedium medium(build_volume({}));
  std::free(std::exchange(medium.get()->priv, nullptr));
  LogCapture log;
  medium.close();
  EXPECT_FALSE(medium.is_open());
  EXPECT_LOG(log);
}

// ---- A volume ------------------------------------------------------------------------------------------------------

TEST(ExtentsVolume, CatalogScatteredOverTheVolume_IsOpenedThroughItsOverflowRecords) {
  for (const std::uint32_t count : {9u, 16u, 17u, 100u, 300u}) {
    VolumeDescription description;
    description.block_size = 512;
    description.catalog.node_size = 512;
    description.catalog.extent_count = count;
    description.extents.node_size = 512;
    const Volume volume = build_volume(description);
    ASSERT_EQ(joined(check_volume(volume)), "");
    ExtentsMedium medium(volume);
    LogCapture log;
    HFSPlusExtentDescriptor* extents = nullptr;
    std::uint32_t extent_count = 0;
    ASSERT_EQ(kvfs_fork_resolve_extents(medium.get(), 0, kHFSCatalogFileID, &medium.header()->catalogFile, &extents,
                                        &extent_count),
              kvfs_ok);
    std::vector<Extent> resolved;
    for (std::uint32_t i = 0; i < extent_count; ++i) {
      resolved.push_back({extents[i].startBlock.get(), extents[i].blockCount.get()});
    }
    std::free(extents);
    EXPECT_EQ(resolved, volume.fork(Tree::kCatalog).extents());
    EXPECT_EQ(resolved.size(), count);
    EXPECT_TRUE(medium.is_idle());
    EXPECT_LOG(log);
  }
}

}  // namespace
}  // namespace kvfs_test
