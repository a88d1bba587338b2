// Opening a B-tree.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree_fixture.h"
#include "fork/private.h"
#include "support.h"

namespace kvfs_test {
namespace {

constexpr const char* kCatalogFailed = "ERROR kvfs_btree_create Error while reading catalog B-Tree into memory.\n";

std::string process_error(const std::string& text) {
  return "ERROR kvfs_btree_process " + text + "\n";
}

// ---- Kinds of tree -------------------------------------------------------------------------------------------------

TEST(BtreeTypeName, KnownKinds_HaveTheirNameAndOthersAreUnknown) {
  EXPECT_STREQ(kvfs_btree_type_name(3), "extents overflow");
  EXPECT_STREQ(kvfs_btree_type_name(4), "catalog");
  EXPECT_STREQ(kvfs_btree_type_name(8), "attributes");
  for (const std::uint32_t kind : Numbers32{0u, 1u, 2u, 5u, 6u, 7u, 9u, 0xFFFFFFFFu}) {
    EXPECT_STREQ(kvfs_btree_type_name(kind), "unknown");
  }
}

class BtreeKind : public ::testing::TestWithParam<std::uint32_t> {};

// Each kind has its fork data at another place of the volume header; the other places are empty here.
TEST_P(BtreeKind, Create_TakesTheForkDataOfItsKind) {
  TestTree tree({.records = numbered_records(5), .kind = GetParam()});
  LogCapture log;
  ASSERT_EQ(tree.try_open(), kvfs_ok);
  EXPECT_EQ(tree.get()->fork->priv->fork_data, tree.fork_data());
  EXPECT_EQ(tree.get()->fork->priv->cnid, GetParam());
  EXPECT_EQ(tree.get()->priv->tree_kind, GetParam());
  EXPECT_EQ(tree.search(30), outcome(1, 0, tree.root(), 2, 30));
  tree.close();
  EXPECT_LOG(log);
}

TEST_P(BtreeKind, CreateFails_NamesTheKind) {
  TestTree tree({.kind = GetParam()});
  tree.set8(0, kHeaderType, 128);
  LogCapture log;
  EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(log.lines().back().text,
            std::string("Error while reading ") + kvfs_btree_type_name(GetParam()) + " B-Tree into memory.\n");
}

INSTANTIATE_TEST_SUITE_P(Kinds, BtreeKind, ::testing::Values(3u, 4u, 8u));

TEST(BtreeCreate, UnknownKind_IsInvalidAndReadsNothing) {
  for (const std::uint32_t kind : Numbers32{0u, 2u, 5u, 6u, 7u, 9u, 0xFFFFFFFFu}) {
    TestTree tree({});
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(kvfs_btree_create(tree.device(), nullptr, 1, tree.header(), kind, compare_bytes, tree.handle()),
              kvfs_invalid);
    EXPECT_EQ(tree.get(), nullptr);
    EXPECT_EQ(faults.count(Call::kPread64), 0u);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_LOG(log, "ERROR kvfs_btree_create Error while reading unknown B-Tree into memory.\n");
  }
}

// ---- Success -------------------------------------------------------------------------------------------------------

class BtreeNodeSize : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(BtreeNodeSize, Create_KeepsSizesAndReadsTheHeaderAlone) {
  TestTree tree({.records = numbered_records(20), .shape = shape_of(GetParam())});
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(tree.try_open(), kvfs_ok);
  EXPECT_EQ(tree.get()->nodeSize, GetParam());
  EXPECT_EQ(tree.get()->maxKeyLength, 516);
  EXPECT_EQ(tree.get()->fork->priv->modificationBitmapBlockSize, GetParam());
  EXPECT_EQ(tree.get()->priv->compare, &compare_bytes);
  EXPECT_EQ(tree.get()->priv->open_locators, nullptr);
  ASSERT_EQ(faults.reads().size(), 2u);
  EXPECT_EQ(faults.reads()[0].offset, tree.device_offset(0));
  EXPECT_EQ(faults.reads()[0].size, 512u);
  EXPECT_EQ(faults.reads()[1].offset, tree.device_offset(0));
  EXPECT_EQ(faults.reads()[1].size, GetParam());
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_TRUE(tree.is_idle());
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log);
}

INSTANTIATE_TEST_SUITE_P(Sizes, BtreeNodeSize, ::testing::Values(512u, 1024u, 2048u, 4096u, 8192u, 16384u, 32768u));

// Q-btree-2
TEST(BtreeCreate, SizesInTheHeaderRecord_AreTakenAsTheyStand) {
  for (const std::uint16_t size : Numbers16{0, 1, 14, 513, 1000, 65535}) {
    TestTree tree({});
    tree.set16(0, kHeaderNodeSize, size);
    tree.set16(0, kHeaderMaxKeyLength, static_cast<std::uint16_t>(65535 - size));
    LogCapture log;
    tree.open();
    EXPECT_EQ(tree.get()->nodeSize, size);
    EXPECT_EQ(tree.get()->maxKeyLength, 65535 - size);
    EXPECT_LOG(log);
  }
}

TEST(BtreeCreate, AttributesWithMoreBitsThanBigKeys_AreAccepted) {
  for (const std::uint32_t attributes : Numbers32{2u, 3u, 6u, 0xFFFFFFFFu}) {
    TestTree tree({.traits = {.attributes = attributes}});
    LogCapture log;
    tree.open();
    EXPECT_LOG(log);
  }
}

// ---- The first read ------------------------------------------------------------------------------------------------

struct FirstRead {
  std::uint32_t sector_size;
  std::uint32_t block_size;
  std::uint32_t start_block;
  std::uint64_t offset;
  std::size_t size;
  bool plural;
};

class BtreeFirstRead : public ::testing::TestWithParam<FirstRead> {};

// The descriptor and the header record, 120 bytes, are read in whole sectors ahead of the fork.
TEST_P(BtreeFirstRead, Failure_TellsWhetherItWasOneSector) {
  const FirstRead& read = GetParam();
  TestTree tree({.block_size = 512, .sector_size = read.sector_size});
  tree.header()->blockSize.set(read.block_size);
  tree.fork_data()->extents.extents[0].startBlock.set(read.start_block);
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kPread64, 1, Fault::error_number(EIO));
  EXPECT_EQ(tree.try_open(), kvfs_io_error);
  EXPECT_EQ(tree.get(), nullptr);
  ASSERT_EQ(faults.reads().size(), 1u);
  EXPECT_EQ(faults.reads()[0].offset, read.offset);
  EXPECT_EQ(faults.reads()[0].size, read.size);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(tree_lines(log), (Lines{process_error(read.plural ? "Error while reading first sectors of B-tree."
                                                              : "Error while reading first sector of B-tree."),
                                    kCatalogFailed}));
}

INSTANTIATE_TEST_SUITE_P(
    Places, BtreeFirstRead,
    ::testing::Values(FirstRead{512, 4096, 4, 16384, 512, false}, FirstRead{4096, 512, 9, 4096, 4096, false},
                      FirstRead{128, 512, 4, 2048, 128, false}, FirstRead{120, 120, 4, 480, 120, false},
                      FirstRead{64, 512, 4, 2048, 128, true}, FirstRead{32, 512, 4, 2048, 128, true},
                      FirstRead{119, 119, 4, 476, 238, true}, FirstRead{512, 456, 1, 0, 1024, true},
                      FirstRead{512, 392, 1, 0, 512, false}, FirstRead{512, 393, 1, 0, 1024, true},
                      // The product of block and block size needs more than 32 bits.
                      FirstRead{512, 0x10000, 0x00800000, 0x8000000000, 512, false}));

TEST(BtreeCreate, HeaderRecordAcrossASectorBoundary_IsReadWithTwoSectors) {
  TestTree tree({.records = numbered_records(5), .block_size = 512, .sector_size = 64});
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(tree.try_open(), kvfs_ok);
  ASSERT_GE(faults.reads().size(), 2u);
  EXPECT_EQ(faults.reads()[0].size, 128u);
  EXPECT_EQ(faults.reads()[1].size, 512u);
  EXPECT_EQ(tree.get()->nodeSize, 512);
  EXPECT_EQ(tree.search(30), outcome(1, 0, tree.root(), 2, 30));
  EXPECT_LOG(log);
}

TEST(BtreeCreate, TreeInsideASector_TakesItsNodeSizeFromThere) {
  TestTree tree({.shape = shape_of(1024), .block_size = 512, .sector_size = 4096, .extents = {{9, 0}}});
  LogCapture log;
  FaultInjector faults;
  ASSERT_EQ(tree.try_open(), kvfs_ok);
  EXPECT_EQ(faults.reads()[0].offset, 4096u);
  EXPECT_EQ(faults.reads()[0].size, 4096u);
  EXPECT_EQ(tree.get()->nodeSize, 1024);
  EXPECT_EQ(tree.get()->fork->priv->modificationBitmapBlockSize, 4096u);
  EXPECT_LOG(log);
}

// X-device-1
TEST(BtreeCreate, DeviceWithoutSectorSize_IsInconsistent) {
  TestTree tree({});
  tree.device()->sector_size = 0;
  LogCapture log;
  EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
  EXPECT_LOG(log, process_error("Device has a sector size of 0."), kCatalogFailed);
}

// ---- Header node ---------------------------------------------------------------------------------------------------

TEST(BtreeCreate, NodeZeroOfAnotherKind_IsInconsistent) {
  for (const int kind : {-128, -1, 0, 2, 3, 127}) {
    TestTree tree({});
    tree.set8(0, kKind, static_cast<std::uint8_t>(kind));
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
    EXPECT_EQ(tree.get(), nullptr);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_LOG(log,
               process_error("HFSPlus:kvfs_btree_process: Node kind " + std::to_string(kind) +
                             ", 768 records - should be kind 1, 3 records - but it isn't!"),
               kCatalogFailed);
  }
}

// The count is printed with its two bytes the wrong way round.
// Q-btree-1
TEST(BtreeCreate, HeaderNodeWithoutThreeRecords_IsInconsistent) {
  const std::vector<std::pair<std::uint16_t, int>> counts = {{0, 0},     {1, 256},         {2, 512},       {4, 1024},
                                                             {0x300, 3}, {0x1234, 0x3412}, {0xFFFF, 65535}};
  for (const auto& [count, printed] : counts) {
    TestTree tree({});
    tree.set16(0, kNumRecords, count);
    LogCapture log;
    EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
    EXPECT_LOG(log,
               process_error("HFSPlus:kvfs_btree_process: Node kind 1, " + std::to_string(printed) +
                             " records - should be kind 1, 3 records - but it isn't!"),
               kCatalogFailed);
  }
}

TEST(BtreeCreate, OtherTreeTypes_AreInconsistent) {
  for (const std::uint8_t type : Numbers8{1, 128, 255}) {
    TestTree tree({});
    tree.set8(0, kHeaderType, type);
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_LOG(log,
               process_error("HFSPlus:kvfs_btree_process: Tree type, according to header node, is " +
                             std::to_string(type) + " - and not kHFSBTreeType (0)"),
               kCatalogFailed);
  }
}

TEST(BtreeCreate, WithoutBigKeys_IsInconsistent) {
  for (const std::uint32_t attributes : Numbers32{0u, 1u, 4u, 0xFFFFFFFDu}) {
    TestTree tree({});
    tree.set32(0, kHeaderAttributes, attributes);
    LogCapture log;
    EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
    EXPECT_LOG(log, process_error("Big keys flag not set for HFS+ B-tree."), kCatalogFailed);
  }
}

TEST(BtreeCreate, SeveralFaults_AreReportedOneAtATime) {
  TestTree tree({});
  tree.set32(0, kHeaderAttributes, 0);
  tree.set8(0, kHeaderType, 255);
  LogCapture type_log;
  EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
  EXPECT_TRUE(type_log.has("ERROR", "kvfs_btree_process", "Tree type"));
  EXPECT_FALSE(type_log.has("ERROR", "kvfs_btree_process", "Big keys"));
  tree.set8(0, kKind, 2);
  LogCapture kind_log;
  EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
  EXPECT_TRUE(kind_log.has("ERROR", "kvfs_btree_process", "Node kind 2"));
  EXPECT_FALSE(kind_log.has("ERROR", "kvfs_btree_process", "Tree type"));
}

TEST(BtreeCreate, ForkTooShortForTheHeader_FailsToMapIt) {
  TestTree tree({});
  tree.fork_data()->logicalSize.set(13);
  LogCapture descriptor_log;
  EXPECT_EQ(tree.try_open(), kvfs_invalid);
  EXPECT_EQ(tree_lines(descriptor_log),
            (Lines{process_error("Error while mapping node descriptor of B-tree from its fork."), kCatalogFailed}));
  tree.fork_data()->logicalSize.set(119);
  // A fork that ends inside its first sector gets the bytes at the end of that sector.
  tree.set8(0, 512 - 119 + kKind, 1);
  tree.set16(0, 512 - 119 + kNumRecords, 3);
  LogCapture record_log;
  EXPECT_EQ(tree.try_open(), kvfs_invalid);
  EXPECT_EQ(tree_lines(record_log),
            (Lines{process_error("Error while mapping header record of B-tree from its fork."), kCatalogFailed}));
}

TEST(BtreeCreate, NeitherExtentsNorPartial_FailsInTheFork) {
  TestTree tree({});
  LogCapture log;
  EXPECT_EQ(kvfs_btree_create(tree.device(), nullptr, 0, tree.header(), 4, compare_bytes, tree.handle()),
            kvfs_no_memory);
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_LOG(log, "ERROR kvfs_fork_private_create NULL extents overflow file.\n",
             "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n",
             process_error("Error while creating kvfs_fork."), kCatalogFailed);
}

// ---- Faults while opening ------------------------------------------------------------------------------------------

TEST(BtreeCreate, EachAllocationFailing_UndoesEverything) {
  TestTree tree({.records = numbered_records(5)});
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    const kvfs_result result = run.operate([&] { return tree.try_open(); });
    if (!run.failed()) {
      return;
    }
    EXPECT_EQ(result, kvfs_no_memory);
    EXPECT_EQ(tree.get(), nullptr);
    EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
    EXPECT_EQ(run.faults().locks_alive(), 0);
    const Lines lines = tree_lines(run.log());
    if (run.n() == 1) {
      EXPECT_LOG(run.log(), "ERROR kvfs_btree_create Error while allocating " + std::to_string(sizeof(kvfs_btree)) +
                                " bytes for kvfs_btree.\n");
    } else if (run.n() == 2) {
      EXPECT_LOG(run.log(), "ERROR kvfs_btree_create Error while allocating " +
                                std::to_string(sizeof(kvfs_btree_private)) + " bytes for kvfs_btree_private.\n");
    } else if (run.n() == 3) {
      EXPECT_EQ(lines, Lines{"ERROR kvfs_btree_create Error while creating open locators list lock.\n"});
    } else {
      ASSERT_EQ(lines.size(), 2u);
      EXPECT_EQ(lines[1], kCatalogFailed);
    }
  });
  EXPECT_GT(failures, 9u);
  EXPECT_NE(tree.get(), nullptr);
}

TEST(BtreeCreate, EachReadFailing_UndoesEverything) {
  TestTree tree({.records = numbered_records(5)});
  const Lines messages = {process_error("Error while reading first sector of B-tree."),
                          process_error("Error while mapping node descriptor of B-tree from its fork.")};
  for (const Fault& fault : transfer_faults()) {
    const unsigned long failures = fail_each(each(Call::kPread64, fault), [&](FailingRun& run) {
      const kvfs_result result = run.operate([&] { return tree.try_open(); });
      if (!run.failed()) {
        EXPECT_EQ(result, kvfs_ok);
        return;
      }
      EXPECT_EQ(result, kvfs_io_error);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
      EXPECT_EQ(run.faults().locks_alive(), 0);
      EXPECT_EQ(tree_lines(run.log()), (Lines{messages.at(run.n() - 1), kCatalogFailed}));
    });
    EXPECT_EQ(failures, messages.size());
    tree.close();
  }
}

TEST(BtreeCreate, EachLockThatCannotBeMade_UndoesEverything) {
  TestTree tree({.records = numbered_records(5)});
  for (const Call call : {Call::kRwlockattrInit, Call::kRwlockattrSetpshared, Call::kRwlockInit}) {
    const unsigned long failures = fail_each(each(call), [&](FailingRun& run) {
      const kvfs_result result = run.operate([&] { return tree.try_open(); });
      if (!run.failed()) {
        return;
      }
      // The list's own lock fails with the lock's result; in the fork everything is a lack of memory.
      const bool own = run.n() == 1;
      EXPECT_EQ(result, own && call == Call::kRwlockattrSetpshared ? kvfs_failed : kvfs_no_memory);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
      EXPECT_EQ(run.faults().locks_alive(), 0);
      EXPECT_EQ(tree_lines(run.log()).back(),
                own ? "ERROR kvfs_btree_create Error while creating open locators list lock.\n" : kCatalogFailed);
    });
    EXPECT_EQ(failures, 4u) << call_name(call);  // the list's, the fork's two and the cache item's
    tree.close();
  }
}

const std::vector<Step> kOpenSteps = {
    {Step::Kind::kMap, process_error("Error while mapping node descriptor of B-tree from its fork.")},
    {Step::Kind::kMap, process_error("Error while mapping header record of B-tree from its fork.")},
    {Step::Kind::kUnmap, process_error("Error while unmapping header record of B-tree from its fork.")},
    {Step::Kind::kUnmap, process_error("Error while unmapping node descriptor of B-tree from its fork.")},
};

TEST(BtreeCreate, EachLockCallFailing_IsReportedWhereItHappened) {
  TestTree tree({.records = numbered_records(5)});
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    const Lines messages = messages_of(kOpenSteps, call);
    const unsigned long failures = fail_each(each(call), [&](FailingRun& run) {
      const kvfs_result result = run.operate([&] { return tree.try_open(); });
      if (!run.failed()) {
        EXPECT_EQ(result, kvfs_ok);
        return;
      }
      EXPECT_EQ(result, kvfs_failed);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(run.faults().outstanding_allocations(), 0u);
      EXPECT_EQ(run.faults().locks_alive(), 0);
      EXPECT_EQ(tree_lines(run.log()), (Lines{messages.at(run.n() - 1), kCatalogFailed}));
    });
    EXPECT_EQ(failures, messages.size()) << call_name(call) << ": calls that the steps do not name";
    tree.close();
  }
}

TEST(BtreeCreate, FailureToUnmap_DoesNotReplaceAnEarlierFailure) {
  TestTree tree({});
  tree.set8(0, kHeaderType, 7);
  LogCapture log;
  FaultInjector faults;
  faults.fail_from(Call::kRwlockRdlock, 3);  // the two mappings are made, none can be given back
  EXPECT_EQ(tree.try_open(), kvfs_inconsistent);
  EXPECT_EQ(tree_lines(log),
            (Lines{process_error("HFSPlus:kvfs_btree_process: Tree type, according to header node, is 7 - and not "
                                 "kHFSBTreeType (0)"),
                   process_error("Error while unmapping header record of B-tree from its fork."),
                   process_error("Error while unmapping node descriptor of B-tree from its fork."), kCatalogFailed}));
}

TEST(BtreeCreate, LockThatCannotBeDestroyedOnCleanup_IsReported) {
  TestTree tree({});
  const LockCall* made = nullptr;
  std::vector<LockCall> calls;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockDestroy, 1);
    EXPECT_EQ(kvfs_btree_create(tree.device(), nullptr, 1, tree.header(), 0, compare_bytes, tree.handle()),
              kvfs_invalid);
    const FaultInjector::Pause pause;
    calls = faults.lock_calls();
    EXPECT_EQ(faults.outstanding_allocations(), 1u);  // the lock alone
  }
  EXPECT_EQ(tree_lines(log),
            (Lines{"ERROR kvfs_btree_create Error while reading unknown B-Tree into memory.\n",
                   "ERROR kvfs_btree_create Error while destroying B-tree open locators list lock on cleanup.\n"}));
  for (const LockCall& call : calls) {
    made = call.call == Call::kRwlockInit ? &call : made;
  }
  ASSERT_NE(made, nullptr);
  // A lock's object begins with the lock of the thread library.
  kvfs_rwlock* leaked = static_cast<kvfs_rwlock*>(const_cast<void*>(made->lock));
  EXPECT_EQ(kvfs_rwlock_destroy(&leaked), kvfs_ok);
}

}  // namespace
}  // namespace kvfs_test
