// Opening and closing a B-tree, and checking a node of an attributes tree.

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
  unsigned long n = 1;
  for (;; ++n) {
    ASSERT_LT(n, 100u);
    LogCapture log;
    FaultInjector faults;
    faults.fail_allocation(n);
    const kvfs_result result = tree.try_open();
    if (faults.delivered() == 0) {
      break;
    }
    EXPECT_EQ(result, kvfs_no_memory) << n;
    EXPECT_EQ(tree.get(), nullptr) << n;
    EXPECT_EQ(faults.outstanding_allocations(), 0u) << n;
    EXPECT_EQ(faults.locks_alive(), 0) << n;
    EXPECT_EQ(faults.locks_held(), 0) << n;
    if (n == 1) {
      EXPECT_LOG(log, "ERROR kvfs_btree_create Error while allocating " + std::to_string(sizeof(kvfs_btree)) +
                          " bytes for kvfs_btree.\n");
    } else if (n == 2) {
      EXPECT_LOG(log, "ERROR kvfs_btree_create Error while allocating " + std::to_string(sizeof(kvfs_btree_private)) +
                          " bytes for kvfs_btree_private.\n");
    } else if (n == 3) {
      EXPECT_EQ(tree_lines(log), Lines{"ERROR kvfs_btree_create Error while creating open locators list lock.\n"});
    } else {
      const Lines lines = tree_lines(log);
      ASSERT_EQ(lines.size(), 2u) << n;
      EXPECT_EQ(lines[1], kCatalogFailed) << n;
    }
  }
  EXPECT_GT(n, 10u);
  EXPECT_NE(tree.get(), nullptr);
}

TEST(BtreeCreate, EachReadFailing_UndoesEverything) {
  TestTree tree({.records = numbered_records(5)});
  const Lines messages = {process_error("Error while reading first sector of B-tree."),
                          process_error("Error while mapping node descriptor of B-tree from its fork.")};
  for (std::size_t n = 0; n < messages.size(); ++n) {
    for (const Fault& fault : {Fault::error_number(EIO), Fault::short_by(1), Fault::nothing_transferred()}) {
      LogCapture log;
      FaultInjector faults;
      faults.fail(Call::kPread64, n + 1, fault);
      EXPECT_EQ(tree.try_open(), kvfs_io_error);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(faults.outstanding_allocations(), 0u);
      EXPECT_EQ(faults.locks_alive(), 0);
      EXPECT_EQ(tree_lines(log), (Lines{messages[n], kCatalogFailed}));
    }
  }
}

TEST(BtreeCreate, EachLockThatCannotBeMade_UndoesEverything) {
  TestTree tree({.records = numbered_records(5)});
  for (const Call call : {Call::kRwlockattrInit, Call::kRwlockattrSetpshared, Call::kRwlockInit}) {
    unsigned long n = 1;
    for (;; ++n) {
      ASSERT_LT(n, 100u);
      LogCapture log;
      FaultInjector faults;
      faults.fail(call, n);
      const kvfs_result result = tree.try_open();
      if (faults.delivered() == 0) {
        break;
      }
      // The list's own lock fails with the lock's result; in the fork everything is a lack of memory.
      const bool own = n == 1;
      EXPECT_EQ(result, own && call == Call::kRwlockattrSetpshared ? kvfs_failed : kvfs_no_memory);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(faults.outstanding_allocations(), 0u);
      EXPECT_EQ(faults.locks_alive(), 0);
      EXPECT_EQ(tree_lines(log).back(),
                own ? "ERROR kvfs_btree_create Error while creating open locators list lock.\n" : kCatalogFailed);
    }
    EXPECT_EQ(n, 5u) << call_name(call);  // the list's, the fork's two and the cache item's
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
    for (std::size_t n = 0; n < messages.size(); ++n) {
      LogCapture log;
      FaultInjector faults;
      faults.fail(call, n + 1);
      EXPECT_EQ(tree.try_open(), kvfs_failed);
      EXPECT_EQ(faults.delivered(), 1u);
      EXPECT_EQ(tree.get(), nullptr);
      EXPECT_EQ(faults.locks_held(), 0);
      EXPECT_EQ(faults.outstanding_allocations(), 0u);
      EXPECT_EQ(faults.locks_alive(), 0);
      EXPECT_EQ(tree_lines(log), (Lines{messages[n], kCatalogFailed})) << call_name(call) << " " << n;
    }
    {
      FaultInjector faults;
      faults.fail(call, messages.size() + 1);
      tree.open();
      EXPECT_EQ(faults.delivered(), 0u) << "a call that the steps do not name";
    }
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

// ---- Destroying ----------------------------------------------------------------------------------------------------

TEST(BtreeDestroy, OpenLocators_AreReleasedWithAWarning) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  (void)tree.locate(40);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 2 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, SharedLocator_CountsOnceWhateverItsReferences) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  (void)tree.locate(20);
  (void)tree.locate(20);
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, DeletedLocator_IsReleasedToo) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  tree.locate(20)->priv->deleted = 1;
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_LOG(log, "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

TEST(BtreeDestroy, ModifiedNode_IsNotWrittenToTheDevice) {
  TestTree tree({.records = numbered_records(5)});
  tree.open();
  kvfs_btree_record_locator* locator = tree.locate(20);
  const Bytes data(locator->data_size, 0xAA);
  ASSERT_EQ(kvfs_btree_record_locator_write_data(locator, data.data(), data.size()), kvfs_ok);
  kvfs_btree_record_locator_close(&locator);
  FaultInjector faults;
  tree.close();
  EXPECT_EQ(faults.count(Call::kPwrite64), 0u);
}

TEST(BtreeDestroy, ListThatCannotBeLocked_LeaksItsLocators) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  void* const first = tree.locate(20)->priv->allocation;
  void* const second = tree.locate(30)->priv->allocation;
  faults.fail_from(Call::kRwlockWrlock, faults.count(Call::kRwlockWrlock) + 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 2u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(tree_lines(log),
            Lines{"ERROR kvfs_btree_destroy Error while acquiring open locators list lock! Leaking open locators on "
                  "kvfs_btree destruction...\n"});
  std::free(first);
  std::free(second);
}

TEST(BtreeDestroy, ListThatCannotBeUnlocked_IsReportedAndTheTreeGoes) {
  TestTree tree({.records = numbered_records(5)});
  FaultInjector faults;
  tree.open();
  (void)tree.locate(20);
  faults.fail(Call::kRwlockUnlock, faults.count(Call::kRwlockUnlock) + 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(tree_lines(log),
            (Lines{"WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n",
                   "ERROR kvfs_btree_destroy Error while unlocking B-tree open locators list lock.\n"}));
}

TEST(BtreeDestroy, LockThatCannotBeDestroyed_IsLeaked) {
  TestTree tree({});
  FaultInjector faults;
  tree.open();
  kvfs_rwlock* lock = tree.get()->priv->open_locators_lock;
  faults.fail(Call::kRwlockDestroy, 1);
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 1u);
  EXPECT_EQ(tree_lines(log), Lines{"ERROR kvfs_btree_destroy Error while destroying B-tree open locators list lock. "
                                   "Leaking...\n"});
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
}

// A locator that believes to belong to another tree leaves this one's list as it is.
TEST(BtreeDestroy, HeadThatStaysAfterItsRelease_EndsTheCleanUp) {
  TestTree tree({.records = numbered_records(5)});
  TestTree other({.records = numbered_records(5)});
  other.open();
  tree.open();
  tree.locate(20)->priv->tree = other.get();
  LogCapture log;
  tree.close();
  EXPECT_EQ(tree.get(), nullptr);
  EXPECT_LOG(log,
             "CRITICAL kvfs_btree_destroy Internal error: Closing head of B-tree open locators list did not change "
             "the head!\n",
             "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
}

// ---- Attributes nodes ----------------------------------------------------------------------------------------------

struct Attribute {
  std::uint16_t name_length;  // UTF-16 units
  std::uint32_t type;
};

// A node of an attributes tree: each record a key of 14 bytes, the name, the type and eight bytes more.
Bytes attributes_node(const std::vector<Attribute>& attributes, int kind = -1, std::uint8_t height = 1) {
  Bytes node(512);
  node[kKind] = static_cast<std::uint8_t>(kind);
  node[kHeight] = height;
  put_be(node, kNumRecords, 2, attributes.size());
  std::size_t at = 14;
  for (std::size_t i = 0; i <= attributes.size(); ++i) {
    put_be(node, node.size() - 2 * (i + 1), 2, at);
    if (i < attributes.size()) {
      put_be(node, at + 12, 2, attributes[i].name_length);
      put_be(node, at + 14 + 2u * attributes[i].name_length, 4, attributes[i].type);
      at += 14 + 2u * attributes[i].name_length + 12;
    }
  }
  return node;
}

// Checks a copy in a block of exactly its size, so that the address sanitizer sees what is read outside of it.
void read_node(const Bytes& node) {
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[node.size()]);
  std::copy(node.begin(), node.end(), copy.get());
  ReadAttrNode(copy.get(), node.size());
  EXPECT_TRUE(std::equal(node.begin(), node.end(), copy.get())) << "the node was changed";
}

TEST(ReadAttrNode, LeafOfInlineData_IsAccepted) {
  LogCapture log;
  read_node(attributes_node({{0, 16}, {5, 16}, {20, 16}}));
  read_node(attributes_node({}));
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, HeaderAndMapNodes_AreAcceptedAsTheyAre) {
  LogCapture log;
  for (const int kind : {1, 2}) {
    Bytes node(512, 0xFF);
    node[kKind] = static_cast<std::uint8_t>(kind);
    read_node(node);
  }
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, LeafOfAnotherHeight_IsWarnedOfAndCheckedOn) {
  LogCapture log;
  read_node(attributes_node({{1, 17}}, -1, 2));
  EXPECT_LOG(log, "WARNING ReadAttrNode HFSPlus:WARNING:ReadAttrNode: Leaf node height is not 1!\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 11\n");
}

TEST(ReadAttrNode, IndexNode_MayHaveAnyHeight) {
  LogCapture log;
  read_node(attributes_node({{1, 16}}, 0, 3));
  EXPECT_LOG(log);
}

TEST(ReadAttrNode, FirstRecordElsewhere_EndsTheCheck) {
  for (const std::uint16_t offset : Numbers16{0, 13, 16, 0x7FFF, 0xFFFE}) {
    Bytes node = attributes_node({{1, 99}});
    put_be(node, 510, 2, offset);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Offset of record is " +
                        std::to_string(static_cast<std::int16_t>(offset)) + ", and not 14!\n");
  }
}

TEST(ReadAttrNode, NodeWithoutRoomForAnOffset_EndsTheCheck) {
  for (const std::size_t size : {0u, 1u, 14u, 15u}) {
    LogCapture log;
    read_node(Bytes(size, 0));
    EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Offset of record is 0, and not 14!\n");
  }
}

TEST(ReadAttrNode, UnknownTypes_AreReportedAndTheWalkGoesOn) {
  LogCapture log;
  read_node(attributes_node({{1, 0}, {2, 16}, {0, 0x20}, {7, 0xDEADBEEF}}));
  EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 0\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 20\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: DEADBEEF\n");
}

TEST(ReadAttrNode, RecordThatLeavesTheNode_EndsTheCheck) {
  const std::string outside = "ERROR ReadAttrNode HFSPlus:ReadAttrNode: Record 1 lies outside of the node!\n";
  for (const std::uint16_t name_length : Numbers16{236, 300, 0xFFFF}) {
    Bytes node = attributes_node({{1, 16}, {2, 16}, {3, 17}});
    put_be(node, 14 + 28 + 12, 2, name_length);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, outside);
  }
  for (const std::uint16_t offset : Numbers16{499, 511, 0xFFFF}) {
    Bytes node = attributes_node({{1, 16}, {2, 16}, {3, 17}});
    put_be(node, 508, 2, offset);
    LogCapture log;
    read_node(node);
    EXPECT_LOG(log, outside);
  }
}

TEST(ReadAttrNode, RecordInTheDescriptor_IsCheckedLikeAnyOther) {
  Bytes node = attributes_node({{0, 16}, {2, 16}, {3, 17}});
  put_be(node, 508, 2, 2);
  put_be(node, 14, 2, 0);  // the length of that record's name
  put_be(node, 16, 4, 0xABC);
  LogCapture log;
  read_node(node);
  EXPECT_LOG(log, "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: ABC\n",
             "ERROR ReadAttrNode HFSPlus:ERROR:ReadAttrNode: Unknown Attr Type: 11\n");
}

TEST(ReadAttrNode, MoreRecordsThanTheNodeHasRoomFor_EndTheCheck) {
  Bytes node = attributes_node({{1, 16}});
  put_be(node, kNumRecords, 2, 0xFFFF);
  LogCapture log;
  read_node(node);
  EXPECT_TRUE(log.has("ERROR", "ReadAttrNode", "lies outside of the node!\n"));
}

TEST(ReadAttrNode, NodesOfAFewBytes_AreRefused) {
  for (std::size_t size = 9; size < 16; ++size) {
    Bytes node(size);
    node[kKind] = 0xFF;
    LogCapture log;
    read_node(node);
    EXPECT_TRUE(log.has("ERROR", "ReadAttrNode", ", and not 14!\n")) << size;
  }
}

}  // namespace
}  // namespace kvfs_test
