// Opening and closing the catalog, its locators, the order of its keys and its names in UTF-8.

#include "catalog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "btree/private.h"
#include "catalog_fixture.h"
#include "support.h"
#include "unicode_names.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;
using ::testing::Not;

constexpr char kAcquireFailed[] = "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n";
constexpr char kUnlockFailed[] = "ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n";

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST(CatalogCreate, SoundVolume_FillsBothParts) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(catalog.get()->btree, &catalog.priv()->btree);
  EXPECT_EQ(catalog.priv()->btree->priv->tree_kind, kHFSCatalogFileID);
  EXPECT_EQ(catalog.priv()->btree->priv->compare, &kvfs_catalog_compare_keys);
  EXPECT_EQ(catalog.priv()->btree->maxKeyLength, 516u);
  EXPECT_EQ(catalog.priv()->open_locators, nullptr);
  EXPECT_NE(catalog.priv()->open_locators_lock, nullptr);
  EXPECT_LOG(log);
}

TEST(CatalogCreate, CatalogInMoreThanEightExtents_AsksTheOverflowFile) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 400);
  description.catalog.extent_count = 20;
  LogCapture log;
  const OpenCatalog catalog(build_volume(description));
  EXPECT_LOG(log);
}

// Its own extents might not be all.
TEST(CatalogCreate, WithoutTheOverflowFile_IsRefused) {
  CatalogGround ground(small_volume());
  LogCapture log;
  kvfs_catalog* catalog = nullptr;
  EXPECT_NE(kvfs_catalog_create(ground.get(), nullptr, ground.header(), &catalog), kvfs_ok);
  EXPECT_EQ(catalog, nullptr);
  EXPECT_TRUE(log.has("ERROR", "kvfs_fork_private_create", "NULL extents overflow file."));
}

// Opens and closes the catalog of a volume. The output must stay untouched on failure.
kvfs_result open_and_close(CatalogGround& ground) {
  kvfs_catalog* const untouched = reinterpret_cast<kvfs_catalog*>(&ground);
  kvfs_catalog* catalog = untouched;
  const kvfs_result result = kvfs_catalog_create(ground.get(), ground.extents(), ground.header(), &catalog);
  EXPECT_EQ(result == kvfs_ok, catalog != untouched);
  if (catalog != untouched) {
    kvfs_catalog_destroy(&catalog);
    EXPECT_EQ(catalog, nullptr);
  }
  return result;
}

TEST(CatalogCreate, DamagedHeaderNode_FailsAndFreesEverything) {
  Volume volume = small_volume();
  volume.set_field("catalog.header.btreeType", 128);
  CatalogGround ground(volume);
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(open_and_close(ground), kvfs_inconsistent);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_LOG(
      log,
      "ERROR kvfs_btree_process HFSPlus:kvfs_btree_process: Tree type, according to header node, is 128 - and not kHFSBTreeType (0)\n",
      "ERROR kvfs_btree_create Error while reading catalog B-Tree into memory.\n",
      "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n");
}

TEST(CatalogCreate, EachAllocationFailing_IsOutOfMemoryAndReported) {
  CatalogGround ground(small_volume());
  const std::vector<FailedRun> runs = fail_each(each_allocation(), [&] { return open_and_close(ground); });
  EXPECT_GE(runs.size(), 10u);
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_no_memory) << "allocation " << run.n;
    EXPECT_THAT(run.log, Not(ElementsAre())) << "allocation " << run.n;
  }
  ASSERT_GE(runs.size(), 3u);
  EXPECT_THAT(runs[0].log, ElementsAre("ERROR kvfs_catalog_create Error while allocating " +
                                       std::to_string(sizeof(kvfs_catalog)) + " bytes for kvfs_catalog.\n"));
  EXPECT_THAT(runs[1].log,
              ElementsAre("ERROR kvfs_catalog_create Error while allocating " +
                          std::to_string(sizeof(kvfs_catalog_private)) + " bytes for kvfs_catalog_private.\n"));
  EXPECT_THAT(
      runs[2].log,
      ElementsAre(
          "ERROR kvfs_rwlock_create Error while allocating memory for kvfs_rwlock: Cannot allocate memory (12)\n",
          "ERROR kvfs_catalog_create Error while creating open locators list lock.\n"));
  for (std::size_t i = 3; i < runs.size(); ++i) {
    EXPECT_EQ(runs[i].log.back(), "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n");
  }
}

TEST(CatalogCreate, EachReadFailing_IsAnInputError) {
  CatalogGround ground(small_volume());
  const std::vector<FailedRun> runs = fail_each(each(Call::kPread64), [&] { return open_and_close(ground); });
  EXPECT_EQ(runs.size(), 2u);
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_io_error) << "read " << run.n;
    EXPECT_EQ(run.log.back(), "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n");
  }
}

TEST(CatalogCreate, LockAttributeRefused_PassesTheValueOfTheLockOn) {
  CatalogGround ground(small_volume());
  const std::vector<FailedRun> runs =
      fail_each(each(Call::kRwlockattrSetpshared), [&] { return open_and_close(ground); });
  ASSERT_FALSE(runs.empty());
  EXPECT_EQ(runs[0].result, kvfs_failed);
  EXPECT_EQ(runs[0].log.back(), "ERROR kvfs_catalog_create Error while creating open locators list lock.\n");
}

TEST(CatalogCreate, LockNotDestroyedOnCleanup_IsReportedBehindTheFailure) {
  Volume volume = small_volume();
  volume.set_field("catalog.header.attributes", 0);
  CatalogGround ground(volume);
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockDestroy), [&] { return open_and_close(ground); });
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_inconsistent);
  }
  ASSERT_FALSE(runs.empty());
  const Lines& last = runs.back().log;
  ASSERT_GE(last.size(), 3u);
  EXPECT_EQ(last[last.size() - 3], "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n");
  EXPECT_EQ(last.back(),
            "ERROR kvfs_catalog_create Error while destroying catalog open locators list lock on cleanup.\n");
}

// ---- Closing -------------------------------------------------------------------------------------------------------

TEST(CatalogDestroy, NoOpenLocators_IsSilentAndFreesEverything) {
  CatalogGround ground(small_volume());
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(open_and_close(ground), kvfs_ok);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_TRUE(faults.writes().empty());
  EXPECT_LOG(log);
}

TEST(CatalogDestroy, ThreeOpenLocators_AreClosedWithAWarning) {
  OpenCatalog catalog(small_volume());
  LogCapture log;
  FaultInjector faults;
  (void)catalog.open(kRootFolderId, u"one");
  (void)catalog.open(kRootFolderId, u"two");
  (void)catalog.open(kRootFolderId, u"three");
  EXPECT_NE(faults.outstanding_allocations(), 0u);
  catalog.close();
  EXPECT_TRUE(catalog.is_closed());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
  EXPECT_LOG(log, "WARNING kvfs_catalog_destroy Cleaned up 3 leaked catalog record locators on destroy.\n");
}

TEST(CatalogDestroy, ParentOlderThanItsChild_IsReleasedByTheChildAndThenClosed) {
  OpenCatalog catalog(small_volume());
  LogCapture log;
  kvfs_catalog_record_locator* const folder = catalog.open(kRootFolderId, u"alpha");
  (void)catalog.open(kAlpha, u"beta", folder);
  catalog.close();
  EXPECT_LOG(log, "WARNING kvfs_catalog_destroy Cleaned up 2 leaked catalog record locators on destroy.\n");
}

// Only the child holds the parent, which is met first.
// X-catalog-5
TEST(CatalogDestroy, ParentYoungerThanItsChild_IsForgottenByTheChild) {
  OpenCatalog catalog(small_volume());
  LogCapture log;
  FaultInjector faults;
  kvfs_catalog_record_locator* const child = catalog.open(kAlpha, u"beta");
  kvfs_catalog_record_locator* folder = catalog.open(kRootFolderId, u"alpha");
  ASSERT_EQ(kvfs_catalog_record_locator_set_parent_locator(child, folder), kvfs_ok);
  kvfs_catalog_record_locator_close(&folder);
  catalog.close();
  EXPECT_LOG(log, "WARNING kvfs_catalog_destroy Cleaned up 2 leaked catalog record locators on destroy.\n");
}

// Q-catalog-5
TEST(CatalogDestroy, HeadWithTwoReferences_StopsTheCleanUpAtOnce) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* const older = catalog.open(kRootFolderId, u"one");
  kvfs_catalog_record_locator* const head = catalog.open(kRootFolderId, u"two");
  head->priv->reference_count = 2;
  void* const left[] = {older->priv->allocation, head->priv->allocation};
  LogCapture log;
  catalog.close();
  EXPECT_TRUE(catalog.is_closed());
  EXPECT_LOG(
      log,
      "CRITICAL kvfs_catalog_destroy Internal error: Closing head of catalog open locators list did not change the head!\n",
      "WARNING kvfs_catalog_destroy Cleaned up 1 leaked catalog record locators on destroy.\n",
      "WARNING kvfs_btree_destroy Cleaned up 2 leaked B-tree record locators on destroy.\n");
  EXPECT_EQ(head->priv->reference_count, 1u);
  for (void* allocation : left) {
    std::free(allocation);
  }
}

TEST(CatalogDestroy, ListLockRefused_LeaksTheLocatorsAndGoesOn) {
  OpenCatalog catalog(small_volume());
  void* const left = catalog.open(kRootFolderId, u"one")->priv->allocation;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1);
    catalog.close();
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_TRUE(catalog.is_closed());
  EXPECT_LOG(
      log, kAcquireFailed,
      "ERROR kvfs_catalog_destroy Error while acquiring open locators list lock! Leaking open locators on kvfs_catalog destruction...\n",
      "WARNING kvfs_btree_destroy Cleaned up 1 leaked B-tree record locators on destroy.\n");
  std::free(left);
}

TEST(CatalogDestroy, ListLockNotReleased_IsIgnoredWithAWarning) {
  OpenCatalog catalog(small_volume());
  LogCapture log;
  FaultInjector faults;
  faults.fail(Call::kRwlockUnlock, 1);
  catalog.close();
  EXPECT_TRUE(catalog.is_closed());
  EXPECT_LOG(log, kUnlockFailed,
             "WARNING kvfs_catalog_destroy Error while unlocking catalog open locators list lock. Ignoring...\n");
}

TEST(CatalogDestroy, ListLockNotDestroyed_IsLeakedWithAMessage) {
  OpenCatalog catalog(small_volume());
  kvfs_rwlock* left = catalog.priv()->open_locators_lock;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockDestroy, 1);
    catalog.close();
  }
  EXPECT_TRUE(catalog.is_closed());
  EXPECT_LOG(log,
             "ERROR kvfs_rwlock_destroy Error while destroying pthread_rwlock_t associated with kvfs_rwlock {*}.\n",
             "ERROR kvfs_catalog_destroy Error while destroying catalog open locators list lock. Leaking...\n");
  EXPECT_EQ(kvfs_rwlock_destroy(&left), kvfs_ok);
}

// ---- Locators ------------------------------------------------------------------------------------------------------

// The bytes of a locator's block: a tag of 8 bytes and both parts.
constexpr std::size_t locator_size() {
  constexpr std::size_t kAlign = alignof(kvfs_catalog_record_locator_private);
  constexpr std::size_t kPriv = (8 + sizeof(kvfs_catalog_record_locator) + kAlign - 1) / kAlign * kAlign;
  return kPriv + sizeof(kvfs_catalog_record_locator_private);
}

TEST(CatalogLocatorOpen, WithoutParent_FillsBothPartsAndTagsTheBlock) {
  OpenCatalog catalog(small_volume());
  kvfs_btree_record_locator* const record = catalog.find(kRootFolderId, u"one");
  kvfs_catalog_record_locator* locator = nullptr;
  ASSERT_EQ(kvfs_catalog_record_locator_open(catalog.get(), record, 0, nullptr, 0, &locator), kvfs_ok);
  EXPECT_EQ(locator->btree_locator, record);
  EXPECT_EQ(locator->record_type, 0u);
  EXPECT_EQ(locator->parent, &locator->priv->parent);
  EXPECT_EQ(*locator->parent, nullptr);
  EXPECT_EQ(locator->reserved, 0u);
  EXPECT_EQ(std::memcmp(locator->priv->allocation, "kvfscrla", 8), 0);
  EXPECT_EQ(locator->priv->catalog, catalog.get());
  EXPECT_EQ(locator->priv->reference_count, 1u);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(locator));
  kvfs_catalog_record_locator_close(&locator);
}

TEST(CatalogLocatorOpen, TheTwoWordsOfTheOpener_AreKept) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* locator = nullptr;
  ASSERT_EQ(
      kvfs_catalog_record_locator_open(catalog.get(), catalog.find(kRootFolderId, u"one"), 2, nullptr, 77, &locator),
      kvfs_ok);
  EXPECT_EQ(locator->record_type, 2u);
  EXPECT_EQ(locator->reserved, 77u);
  kvfs_catalog_record_locator_close(&locator);
}

TEST(CatalogLocatorOpen, Another_BecomesTheHeadOfTheList) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* one = catalog.open(kRootFolderId, u"one");
  kvfs_catalog_record_locator* two = catalog.open(kRootFolderId, u"two");
  kvfs_catalog_record_locator* three = catalog.open(kRootFolderId, u"three");
  EXPECT_THAT(catalog.open_locators(), ElementsAre(three, two, one));
  kvfs_catalog_record_locator_close(&two);
  EXPECT_EQ(two, nullptr);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(three, one));
  kvfs_catalog_record_locator_close(&three);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(one));
  kvfs_catalog_record_locator_close(&one);
  EXPECT_TRUE(catalog.open_locators().empty());
}

TEST(CatalogLocatorOpen, SameRecordTwice_GivesTwoLocatorsOverOneBtreeLocator) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* first = catalog.open(kRootFolderId, u"one");
  kvfs_catalog_record_locator* second = catalog.open(kRootFolderId, u"one");
  EXPECT_NE(first, second);
  EXPECT_EQ(first->btree_locator, second->btree_locator);
  EXPECT_EQ(first->btree_locator->priv->reference_count, 2u);
  kvfs_catalog_record_locator_close(&first);
  EXPECT_EQ(second->btree_locator->priv->reference_count, 1u);
  EXPECT_EQ(describe(second), "file 19 in 2/one");
  kvfs_catalog_record_locator_close(&second);
  EXPECT_EQ(catalog.priv()->btree->priv->open_locators, nullptr);
}

TEST(CatalogLocatorOpen, WithParent_AddsAReferenceToIt) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* folder = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* child = catalog.open(kAlpha, u"beta", folder);
  EXPECT_EQ(*child->parent, folder);
  EXPECT_EQ(folder->priv->reference_count, 2u);
  kvfs_catalog_record_locator_close(&child);
  EXPECT_EQ(folder->priv->reference_count, 1u);
  kvfs_catalog_record_locator_close(&folder);
}

TEST(CatalogLocatorOpen, TakesAndReleasesTheListLockForWriting) {
  OpenCatalog catalog(small_volume());
  kvfs_btree_record_locator* const record = catalog.find(kRootFolderId, u"one");
  FaultInjector faults;
  kvfs_catalog_record_locator* locator = nullptr;
  ASSERT_EQ(kvfs_catalog_record_locator_open(catalog.get(), record, 0, nullptr, 0, &locator), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRwlockWrlock), 1u);
  EXPECT_EQ(faults.count(Call::kRwlockRdlock), 0u);
  EXPECT_EQ(faults.count(Call::kRwlockUnlock), 1u);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_EQ(faults.count(Call::kRwlockRdlock), 0u);
  EXPECT_EQ(faults.locks_held(), 0);
}

// Opens a locator on file "one", as a child of "alpha", with a call failing; it must leave everything as it was, but for
// references to "alpha".
void expect_open_refused(Call call, kvfs_result result, const Lines& expected, std::uint64_t references = 1) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* folder = catalog.open(kRootFolderId, u"alpha");
  kvfs_btree_record_locator* record = catalog.find(kRootFolderId, u"one");
  kvfs_catalog_record_locator* const untouched = folder;
  kvfs_catalog_record_locator* locator = untouched;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(call, 1);
    EXPECT_EQ(kvfs_catalog_record_locator_open(catalog.get(), record, 0, folder, 0, &locator), result);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_held(), 0);
  }
  EXPECT_TRUE(log.matches(expected));
  EXPECT_EQ(locator, untouched);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(folder));
  EXPECT_EQ(folder->priv->reference_count, references);
  EXPECT_EQ(record->priv->reference_count, 1u) << "the B-tree locator stays the caller's";
  kvfs_btree_record_locator_close(&record);
  for (std::uint64_t i = 0; i < references; ++i) {
    kvfs_catalog_record_locator* closed = folder;
    kvfs_catalog_record_locator_close(&closed);
  }
}

// X-catalog-10
TEST(CatalogLocatorOpen, NoMemory_IsReportedAndChangesNothing) {
  expect_open_refused(Call::kCalloc, kvfs_no_memory,
                      {"ERROR kvfs_catalog_record_locator_open Error while allocating " +
                       std::to_string(locator_size()) + " bytes for kvfs_catalog_record_locator allocation.\n"});
}

TEST(CatalogLocatorOpen, LockRefused_IsReportedAndChangesNothing) {
  expect_open_refused(
      Call::kRwlockWrlock, kvfs_failed,
      {kAcquireFailed,
       "ERROR kvfs_catalog_record_locator_open Error while acquiring catalog open locators list lock.\n"});
}

// Q-catalog-3, X-catalog-9
TEST(CatalogLocatorOpen, LockNotReleased_FreesTheLocatorAndTakesItOffTheListButNotFromItsParent) {
  expect_open_refused(
      Call::kRwlockUnlock, kvfs_failed,
      {kUnlockFailed,
       "ERROR kvfs_catalog_record_locator_open Error while unlocking catalog open locators list lock.\n"},
      2);
}

// ---- Parents -------------------------------------------------------------------------------------------------------

class CatalogLocatorParent : public ::testing::Test {
 protected:
  kvfs_result set(kvfs_catalog_record_locator* parent) {
    return kvfs_catalog_record_locator_set_parent_locator(child_, parent);
  }
  void close_all() {
    for (kvfs_catalog_record_locator** locator : {&child_, &alpha_, &beta_}) {
      if (*locator != nullptr) {
        kvfs_catalog_record_locator_close(locator);
      }
    }
  }
  ~CatalogLocatorParent() override { close_all(); }

  OpenCatalog catalog_{small_volume()};
  kvfs_catalog_record_locator* alpha_ = catalog_.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* beta_ = catalog_.open(kAlpha, u"beta");
  kvfs_catalog_record_locator* child_ = catalog_.open(kBeta, u"gamma");
};

TEST_F(CatalogLocatorParent, SetFirst_AddsAReference) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  EXPECT_EQ(*child_->parent, alpha_);
  EXPECT_EQ(alpha_->priv->reference_count, 2u);
}

TEST_F(CatalogLocatorParent, Replaced_MovesTheReference) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  EXPECT_EQ(set(beta_), kvfs_ok);
  EXPECT_EQ(*child_->parent, beta_);
  EXPECT_EQ(alpha_->priv->reference_count, 1u);
  EXPECT_EQ(beta_->priv->reference_count, 2u);
}

TEST_F(CatalogLocatorParent, SetToTheSame_KeepsItsCount) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  EXPECT_EQ(set(alpha_), kvfs_ok);
  EXPECT_EQ(*child_->parent, alpha_);
  EXPECT_EQ(alpha_->priv->reference_count, 2u);
}

TEST_F(CatalogLocatorParent, SetToNone_DropsTheReference) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  EXPECT_EQ(set(nullptr), kvfs_ok);
  EXPECT_EQ(*child_->parent, nullptr);
  EXPECT_EQ(alpha_->priv->reference_count, 1u);
}

TEST_F(CatalogLocatorParent, ReplacedWithoutAnotherHolder_IsFreed) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  kvfs_catalog_record_locator_close(&alpha_);
  EXPECT_EQ(catalog_.open_locators().size(), 3u) << "the child holds it";
  EXPECT_EQ(set(beta_), kvfs_ok);
  EXPECT_THAT(catalog_.open_locators(), ElementsAre(child_, beta_));
}

TEST_F(CatalogLocatorParent, LastChildClosed_FreesTheWholeChain) {
  EXPECT_EQ(kvfs_catalog_record_locator_set_parent_locator(beta_, alpha_), kvfs_ok);
  EXPECT_EQ(set(beta_), kvfs_ok);
  kvfs_catalog_record_locator_close(&alpha_);
  kvfs_catalog_record_locator_close(&beta_);
  EXPECT_EQ(catalog_.open_locators().size(), 3u);
  LogCapture log;
  kvfs_catalog_record_locator_close(&child_);
  EXPECT_TRUE(catalog_.open_locators().empty());
  EXPECT_EQ(catalog_.priv()->btree->priv->open_locators, nullptr);
  EXPECT_LOG(log);
}

TEST_F(CatalogLocatorParent, LockRefused_ChangesNothing) {
  EXPECT_EQ(set(alpha_), kvfs_ok);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1);
    EXPECT_EQ(set(beta_), kvfs_failed);
    EXPECT_EQ(faults.count(Call::kRwlockUnlock), 0u);
  }
  EXPECT_EQ(*child_->parent, alpha_);
  EXPECT_EQ(alpha_->priv->reference_count, 2u);
  EXPECT_EQ(beta_->priv->reference_count, 1u);
  EXPECT_LOG(
      log, kAcquireFailed,
      "ERROR kvfs_catalog_record_locator_set_parent_locator Error while acquiring write lock for catalog open locators list.\n");
}

TEST_F(CatalogLocatorParent, LockNotReleased_FailsWithTheParentSet) {
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockUnlock, 1);
    EXPECT_EQ(set(beta_), kvfs_failed);
  }
  EXPECT_EQ(*child_->parent, beta_);
  EXPECT_EQ(beta_->priv->reference_count, 2u);
  EXPECT_LOG(
      log, kUnlockFailed,
      "ERROR kvfs_catalog_record_locator_set_parent_locator Error while releasing lock for open locators list.\n");
}

// ---- Closing locators ----------------------------------------------------------------------------------------------

TEST(CatalogLocatorClose, SharedReference_OnlyCountsDown) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* const locator = catalog.open(kRootFolderId, u"one");
  locator->priv->reference_count = 2;
  kvfs_catalog_record_locator* handle = locator;
  LogCapture log;
  kvfs_catalog_record_locator_close(&handle);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(locator->priv->reference_count, 1u);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(locator));
  handle = locator;
  kvfs_catalog_record_locator_close(&handle);
  EXPECT_TRUE(catalog.open_locators().empty());
  EXPECT_LOG(log);
}

TEST(CatalogLocatorClose, LastReference_FreesLocatorAndBtreeLocator) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* warm = catalog.open(kRootFolderId, u"one");  // fills the cache
  kvfs_catalog_record_locator_close(&warm);
  FaultInjector faults;
  kvfs_catalog_record_locator* locator = catalog.open(kRootFolderId, u"one");
  EXPECT_EQ(faults.outstanding_allocations(), 2u);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_EQ(locator, nullptr);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

// What is left for a second close of a locator whose references are used up.
// Q-catalog-4
TEST(CatalogLocatorClose, NoReferencesLeft_WarnsAndStillUnlinksAndFrees) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* older = catalog.open(kRootFolderId, u"one");
  kvfs_catalog_record_locator* locator = catalog.open(kRootFolderId, u"two");
  locator->priv->reference_count = 0;
  LogCapture log;
  {
    FaultInjector faults;
    kvfs_catalog_record_locator_close(&locator);
    EXPECT_EQ(faults.count(Call::kFree), 2u) << "the locator and its B-tree locator";
  }
  EXPECT_EQ(locator, nullptr);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(older));
  EXPECT_LOG(log, "WARNING kvfs_catalog_record_locator_close_internal Closing locator 0x{*} with 0 refcount!\n");
  kvfs_catalog_record_locator_close(&older);
}

TEST(CatalogLocatorClose, LockRefused_LeaksTheReference) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* const locator = catalog.open(kRootFolderId, u"one");
  kvfs_catalog_record_locator* handle = locator;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1);
    kvfs_catalog_record_locator_close(&handle);
    EXPECT_EQ(faults.count(Call::kRwlockUnlock), 0u);
  }
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(locator->priv->reference_count, 1u);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(locator));
  EXPECT_LOG(log, kAcquireFailed,
             "ERROR kvfs_catalog_record_locator_close Error while locking catalog open locators list.\n");
  handle = locator;
  kvfs_catalog_record_locator_close(&handle);
}

TEST(CatalogLocatorClose, LockNotReleased_IsIgnoredWithAWarning) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* locator = catalog.open(kRootFolderId, u"one");
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockUnlock, 2);  // the first is that of the B-tree's list
    kvfs_catalog_record_locator_close(&locator);
  }
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(catalog.open_locators().empty());
  EXPECT_LOG(
      log, kUnlockFailed,
      "WARNING kvfs_catalog_record_locator_close Error while unlocking catalog open locators list lock. Ignoring...\n");
}

TEST(CatalogLocatorCloseInternal, TakesNoCatalogLockAndSucceeds) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* const locator = catalog.open(kRootFolderId, u"one");
  locator->priv->reference_count = 2;
  kvfs_catalog_record_locator* handle = locator;
  FaultInjector faults;
  EXPECT_EQ(kvfs_catalog_record_locator_close_internal(&handle), kvfs_ok);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(faults.count(Call::kRwlockWrlock), 0u);
  handle = locator;
  EXPECT_EQ(kvfs_catalog_record_locator_close_internal(&handle), kvfs_ok);
  EXPECT_EQ(faults.count(Call::kRwlockWrlock), 1u) << "that of the B-tree's list";
  EXPECT_TRUE(catalog.open_locators().empty());
}

// ---- Search results ------------------------------------------------------------------------------------------------

TEST(CatalogSearchResult, Init_Empties) {
  kvfs_catalog_search_result result = {7, 8, reinterpret_cast<kvfs_catalog_record_locator*>(&result)};
  kvfs_catalog_search_result_init(&result);
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
  EXPECT_EQ(result.locator, nullptr);
}

TEST(CatalogSearchResult, Release_ClosesTheLocatorAndEmpties) {
  OpenCatalog catalog(small_volume());
  kvfs_catalog_search_result result = {1, 1, catalog.open(kRootFolderId, u"one")};
  kvfs_catalog_search_result_release(&result);
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
  EXPECT_EQ(result.locator, nullptr);
  EXPECT_TRUE(catalog.open_locators().empty());
}

TEST(CatalogSearchResult, ReleaseOfAnEmptyOne_TakesNoLock) {
  kvfs_catalog_search_result result = {1, 1, nullptr};
  FaultInjector faults;
  kvfs_catalog_search_result_release(&result);
  EXPECT_EQ(result.found, 0u);
  EXPECT_EQ(result.after, 0u);
  EXPECT_TRUE(faults.lock_calls().empty());
}

// ---- Order of keys -------------------------------------------------------------------------------------------------

int compare(const HFSPlusCatalogKey& a, const HFSPlusCatalogKey& b, std::uint8_t compare_type) {
  return kvfs_catalog_compare_keys(&a, &b, compare_type);
}

// Expects two keys to order as given, and the other way round.
void expect_order(const HFSPlusCatalogKey& a, const HFSPlusCatalogKey& b, std::uint8_t compare_type, int order) {
  EXPECT_EQ(compare(a, b, compare_type), order);
  EXPECT_EQ(compare(b, a, compare_type), -order);
}

TEST(CatalogCompareKeys, Parents_OrderAsUnsignedNumbersBeforeNames) {
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_order(stored_key(2, u"z"), stored_key(3, u"a"), type, -1);
    expect_order(stored_key(0x7FFFFFFF, u""), stored_key(0x80000000, u""), type, -1);
    expect_order(stored_key(0x0000FF00, u""), stored_key(0x00010000, u""), type, -1);
  }
}

TEST(CatalogCompareKeys, NamesThatDifferInCase_AreEqualOnlyWhenFolded) {
  expect_order(stored_key(20, u"ABC"), stored_key(20, u"abc"), kHFSCaseFolding, 0);
  expect_order(stored_key(20, u"ABC"), stored_key(20, u"abc"), kHFSBinaryCompare, -1);
}

TEST(CatalogCompareKeys, PrefixAndLongerName_OrderByLength) {
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_order(stored_key(20, u"abc"), stored_key(20, u"abcd"), type, -1);
    expect_order(stored_key(20, u""), stored_key(20, u"a"), type, -1);
    expect_order(stored_key(20, u""), stored_key(20, u""), type, 0);
  }
}

TEST(CatalogCompareKeys, NamesOf255Units_CompareToTheirLastUnit) {
  const Name name(254, u'x');
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_order(stored_key(20, name + u"a"), stored_key(20, name + u"b"), type, -1);
    expect_order(stored_key(20, name + u"a"), stored_key(20, name + u"a"), type, 0);
  }
}

// Q-catalog-1
TEST(CatalogCompareKeys, PrivateNameUnderTheRoot_SortsFirstBinaryAndLastFolded) {
  const HFSPlusCatalogKey private_name = stored_key(2, {u'\0', u'\0', u'H'});
  const HFSPlusCatalogKey other = stored_key(2, u"a");
  const HFSPlusCatalogKey thread = stored_key(2, u"");
  expect_order(private_name, other, kHFSBinaryCompare, -1);
  expect_order(private_name, other, kHFSCaseFolding, 1);
  expect_order(private_name, thread, kHFSBinaryCompare, -1);
  expect_order(private_name, thread, kHFSCaseFolding, 1);
}

// Q-catalog-1
TEST(CatalogCompareKeys, TwoPrivateNames_AreNeverEqualAndTheFirstDecides) {
  const HFSPlusCatalogKey a = stored_key(2, {u'\0', u'a'});
  const HFSPlusCatalogKey b = stored_key(2, {u'\0', u'b'});
  EXPECT_EQ(compare(a, b, kHFSBinaryCompare), -1);
  EXPECT_EQ(compare(b, a, kHFSBinaryCompare), -1);
  EXPECT_EQ(compare(a, a, kHFSBinaryCompare), -1);
  EXPECT_EQ(compare(a, b, kHFSCaseFolding), 1);
  EXPECT_EQ(compare(b, a, kHFSCaseFolding), 1);
  EXPECT_EQ(compare(a, a, kHFSCaseFolding), 1);
}

TEST(CatalogCompareKeys, NulNamesUnderOtherFolders_AreOrdinary) {
  const HFSPlusCatalogKey a = stored_key(3, {u'\0', u'a'});
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_order(a, a, type, 0);
  }
  expect_order(a, stored_key(3, u"a"), kHFSBinaryCompare, -1);
  expect_order(a, stored_key(3, u"a"), kHFSCaseFolding, 1);  // a NUL folds to U+FFFF
}

TEST(CatalogCompareKeys, AllPairsOfManyNames_OrderAsTheVolumesDo) {
  const std::vector<Name> names = {u"",        u"a",       u"A",      u"b", u"B",      u"ab",
                                   u"aB",      u"\u00e6",  u"\u00c6", u"e", u"\u0153", u"\u200ce",
                                   u"e\u0301", u"E\u0301", u"\uffff", u"0", u"\u0391", u"\u03b1"};
  for (const bool binary : {false, true}) {
    for (const Name& a : names) {
      for (const Name& b : names) {
        const int expected = compare_entries(20, a, 20, b, binary);
        const int actual = compare(stored_key(20, a), stored_key(20, b), binary ? kHFSBinaryCompare : kHFSCaseFolding);
        EXPECT_EQ(actual, expected < 0 ? -1 : (expected > 0 ? 1 : 0)) << to_utf8(a) << " " << to_utf8(b);
      }
    }
  }
}

// Q-catalog-2
TEST(CatalogCompareKeys, ShortKeys_OrderFirstWithAMessage) {
  HFSPlusCatalogKey short_key = stored_key(2, u"a");
  short_key.keyLength.set(5);
  const HFSPlusCatalogKey good = stored_key(1, u"a");
  LogCapture log;
  EXPECT_EQ(compare(short_key, good, kHFSCaseFolding), -1);
  EXPECT_EQ(compare(good, short_key, kHFSCaseFolding), -1);
  EXPECT_EQ(compare(short_key, short_key, 0), -1);
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (5 bytes).\n",
             "ERROR kvfs_catalog_compare_keys Data in B is too small to be a HFSPlusCatalogKey (5 bytes).\n",
             "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (5 bytes).\n");
}

TEST(CatalogCompareKeys, KeyOfTwoBytes_IsReadNoFurther) {
  const std::vector<unsigned char> empty = {0, 0};
  const HFSPlusCatalogKey good = stored_key(1, u"a");
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_compare_keys(empty.data(), &good, kHFSCaseFolding), -1);
  EXPECT_EQ(kvfs_catalog_compare_keys(&good, empty.data(), kHFSCaseFolding), -1);
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (0 bytes).\n",
             "ERROR kvfs_catalog_compare_keys Data in B is too small to be a HFSPlusCatalogKey (0 bytes).\n");
}

// Q-catalog-2
TEST(CatalogCompareKeys, UnknownCompareType_OrdersFirstWithAMessage) {
  const HFSPlusCatalogKey key = stored_key(3, u"a");
  LogCapture log;
  EXPECT_EQ(compare(key, stored_key(1, u"a"), 0), -1);
  EXPECT_EQ(compare(key, key, 0xCD), -1);
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Illegal value for compare_type: 0x0\n",
             "ERROR kvfs_catalog_compare_keys Illegal value for compare_type: 0xCD\n");
}

// A key whose name claims to be longer than it is.
HFSPlusCatalogKey cut_key(std::uint32_t parent, const Name& name, std::uint16_t claimed) {
  HFSPlusCatalogKey key = stored_key(parent, name);
  key.nodeName.length.set(claimed);
  return key;
}

void expect_malformed(const HFSPlusCatalogKey& a, const HFSPlusCatalogKey& b, std::uint8_t type,
                      const std::string& message) {
  LogCapture log;
  EXPECT_EQ(compare(a, b, type), kvfs_key_malformed);
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys " + message);
}

// X-catalog-1
TEST(CatalogCompareKeys, NameComparedBeyondItsKey_IsMalformed) {
  const HFSPlusCatalogKey cut = cut_key(20, u"abc", 4);
  const HFSPlusCatalogKey good = stored_key(20, u"abc");
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_malformed(cut, good, type, "Names do not fit their keys.\n");
    expect_malformed(good, cut, type, "Names do not fit their keys.\n");
    expect_malformed(cut, stored_key(20, u"abcd"), type, "Names do not fit their keys.\n");
    expect_malformed(cut, cut, type, "Names do not fit their keys.\n");
  }
}

// X-catalog-1
TEST(CatalogCompareKeys, NameBeyondItsKeyThatIsNotNeeded_DoesNotMatter) {
  LogCapture log;
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    const HFSPlusCatalogKey cut = cut_key(20, u"abc", 0xFFFF);
    expect_order(cut, stored_key(21, u"abc"), type, -1);  // parents decide first
    expect_order(cut, stored_key(20, u"abb"), type, 1);   // and then the first unit that differs
    expect_order(cut, stored_key(20, u"abdef"), type, -1);
    expect_order(cut, stored_key(20, u"ab"), type, 1);  // the other name ends before this one's key does
    expect_order(cut_key(2, u"", 1), stored_key(1, u"x"), type, 1);
  }
  EXPECT_LOG(log);
}

// X-catalog-1
TEST(CatalogCompareKeys, OddByteOfAKey_IsNoUnit) {
  HFSPlusCatalogKey key = stored_key(20, u"ab");
  key.keyLength.set(9);
  expect_malformed(key, stored_key(20, u"ab"), kHFSBinaryCompare, "Names do not fit their keys.\n");
}

// X-catalog-1
TEST(CatalogCompareKeys, NameUnderTheRootWithoutAFirstUnit_IsMalformed) {
  const HFSPlusCatalogKey cut = cut_key(kHFSRootFolderID, u"", 3);
  for (const std::uint8_t type : {kHFSCaseFolding, kHFSBinaryCompare}) {
    expect_malformed(cut, stored_key(2, u""), type, "Names do not fit their keys.\n");
    expect_malformed(stored_key(2, u"a"), cut, type, "Names do not fit their keys.\n");
  }
  // A private name decides before the other key's name is looked at.
  LogCapture log;
  expect_order(stored_key(2, Name(2, u'\0')), stored_key(2, u"a"), kHFSBinaryCompare, -1);
  EXPECT_EQ(compare(stored_key(2, Name(2, u'\0')), cut, kHFSBinaryCompare), -1);
  EXPECT_EQ(compare(stored_key(2, Name(2, u'\0')), cut, kHFSCaseFolding), 1);
  EXPECT_LOG(log);
}

TEST(CatalogCompareKeys, BinaryNamesThatMeetInANul_AreEqualBeforeTheKeyEnds) {
  LogCapture log;
  EXPECT_EQ(compare(cut_key(20, Name{u'a', u'\0'}, 9), stored_key(20, u"a"), kHFSBinaryCompare), 0);
  EXPECT_LOG(log);
}

// X-catalog-1
TEST(CatalogCompareKeys, KeyLongerThanItsName_IsAccepted) {
  HFSPlusCatalogKey key = stored_key(20, u"abc");
  key.nodeName.length.set(2);
  LogCapture log;
  EXPECT_EQ(compare(key, stored_key(20, u"ab"), kHFSCaseFolding), 0);
  EXPECT_LOG(log);
}

// ---- Names in UTF-8 ------------------------------------------------------------------------------------------------

// Converts into a buffer of `size` bytes between guard bytes, which must survive.
std::string to_text(const Name& name, std::size_t size, std::size_t* out_count) {
  std::vector<char> buffer(size + 2, '#');
  const std::vector<kvfs_be16> units = stored_units(name);
  *out_count = kvfs_catalog_widechar_to_utf8(units.data(), units.size(), buffer.data() + 1, size);
  EXPECT_EQ(buffer.front(), '#');
  EXPECT_EQ(buffer.back(), '#');
  if (*out_count == 0) {
    return "";
  }
  EXPECT_EQ(buffer[1 + *out_count], '\0');
  return {buffer.data() + 1, *out_count};
}

// Q-catalog-9
TEST(CatalogWidecharToUtf8, Names_ConvertWithSlashForBackslash) {
  const std::vector<Name> names = {u"a", u"caf\u00e9", u"\\", u"\\a\\\\b", u"a/b:c", u"\u20ac", u"\U0001F600"};
  for (const Name& name : names) {
    std::string expected = to_utf8(name);
    for (char& c : expected) {
      c = c == '\\' ? '/' : c;
    }
    std::size_t count = 0;
    EXPECT_EQ(to_text(name, 64, &count), expected);
    EXPECT_EQ(count, expected.size());
  }
}

TEST(CatalogWidecharToUtf8, EmptyName_GivesNothingButTheNul) {
  char buffer[4] = {'#', '#', '#', '#'};
  const kvfs_be16 unit = kvfs_be16::of('x');
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_widechar_to_utf8(&unit, 0, buffer, sizeof(buffer)), 0u);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_LOG(log);
}

// X-catalog-8
TEST(CatalogWidecharToUtf8, TextAndNulThatFillTheBuffer_Fit) {
  std::size_t count = 0;
  EXPECT_EQ(to_text(u"abcd", 5, &count), "abcd");
  EXPECT_EQ(count, 4u);
}

TEST(CatalogWidecharToUtf8, LongestName_Fits) {
  std::size_t count = 0;
  (void)to_text(Name(255, u'\u20ac'), 3 * 255 + 1, &count);
  EXPECT_EQ(count, 3u * 255);
}

// What a pair of surrogates lies across must not matter, wherever it is.
TEST(CatalogWidecharToUtf8, TextLongerThanAName_IsConvertedWhole) {
  for (std::size_t length = 250; length < 260; ++length) {
    const Name name = Name(length, u'a') + u"\U0001F600" + Name(600, u'\u20ac') + u"\\";
    std::size_t count = 0;
    EXPECT_EQ(to_text(name, 4000, &count), to_utf8(Name(name, 0, name.size() - 1)) + "/");
    EXPECT_EQ(count, length + 4 + 1801);
    EXPECT_EQ(to_text(name, count + 1, &count), to_utf8(Name(name, 0, name.size() - 1)) + "/");
  }
}

TEST(CatalogWidecharToUtf8, NothingButPairs_AreConvertedWhole) {
  Name name;
  for (int i = 0; i < 300; ++i) {
    name += u"\U0001F600";
  }
  std::size_t count = 0;
  EXPECT_EQ(to_text(name, 4000, &count), to_utf8(name));
  EXPECT_EQ(to_text(u"a" + name, 4000, &count), to_utf8(u"a" + name));
}

TEST(CatalogWidecharToUtf8, Nul_EndsTheTextWhateverFollows) {
  std::size_t count = 0;
  EXPECT_EQ(to_text(Name(300, u'a') + Name(1, u'\0') + Name(300, char16_t{0xDE00}), 4000, &count),
            std::string(300, 'a'));
  EXPECT_EQ(to_text(Name(1, u'a') + Name(1, u'\0') + Name(300, u'b'), 2, &count), "a");
}

// X-catalog-8
TEST(CatalogWidecharToUtf8, BadInput_GivesNothingWithAMessage) {
  const struct {
    Name name;
    std::size_t size;
  } table[] = {
      {u"abcd", 4},                     // no room for the NUL
      {u"abcd", 0},                     // no room at all
      {Name(1, char16_t{0xD83D}), 64},  // a high surrogate alone
      {Name(1, char16_t{0xDE00}), 64},  // a low surrogate alone
      {Name(300, char16_t{0xD83D}), 2000},
      {Name(300, u'a') + Name(1, char16_t{0xD83D}), 2000},
      {Name(254, u'a') + Name(1, char16_t{0xD83D}) + u"a", 2000},
      {Name(255, u'a') + Name(1, char16_t{0xDE00}), 2000},
      {Name(300, u'a'), 300},
  };
  for (const auto& row : table) {
    LogCapture log;
    std::size_t count = 99;
    EXPECT_EQ(to_text(row.name, row.size, &count), "");
    EXPECT_EQ(count, 0u);
    EXPECT_LOG(log, "ERROR kvfs_catalog_widechar_to_utf8 Error while decoding UTF-16.\n");
  }
}

}  // namespace
}  // namespace kvfs_test
