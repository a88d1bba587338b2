// Setting the label of an open volume, and the fork data in its header.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "btree/private.h"
#include "catalog_fixture.h"
#include "label_change.h"
#include "replaced_routine.h"
#include "support.h"
#include "volume/private.h"

// The linker sends the volume's calls of the catalog here, so that they can be made to give what they never give.
namespace {
bool g_search_gives_nothing = false;
bool g_rename_keeps_locator = false;
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_catalog_rename_record, real_rename, wrap_rename);
KVFS_REPLACED_ROUTINE(kvfs_catalog_search_by_cnid, real_search, wrap_search);

kvfs_result wrap_rename(kvfs_catalog* catalog, kvfs_catalog_record_locator** locator, kvfs_be32 new_parent,
                        const kvfs_be16* name, std::size_t length) {
  return g_rename_keeps_locator ? kvfs_ok : real_rename(catalog, locator, new_parent, name, length);
}

kvfs_result wrap_search(kvfs_catalog* catalog, std::uint32_t cnid, bool follow, kvfs_catalog_search_result* result) {
  return g_search_gives_nothing ? kvfs_ok : real_search(catalog, cnid, follow, result);
}

namespace kvfs_test {
namespace {

VolumeDescription small_description() {
  VolumeDescription description;
  description.label = u"Untitled";
  (void)description.add_folder(kRootFolderId, u"folder");
  (void)description.add_file(kRootFolderId, u"file");
  return description;
}

Volume small_volume() {
  return build_volume(small_description());
}

// ---- Labels that are set -------------------------------------------------------------------------------------------

// Sets a label and expects all places that hold it to agree, and nothing else to have changed.
void expect_set(const Volume& before, const Name& label) {
  const OpenVolume volume(before, kWithoutAllocationFile);
  LogCapture log;
  ASSERT_EQ(volume.set_label(label), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(volume.label(), label);
  EXPECT_EQ(volume.get()->catalog->priv->open_locators, nullptr);
  EXPECT_EQ(volume.catalog_tree()->priv->open_locators, nullptr);
  EXPECT_TRUE(volume.contents() == before) << "written before the flush";
  const Volume after = volume.flushed_catalog();
  EXPECT_EQ(faults_of_change(before, after, label), "");
  const OpenVolume reopened(after, kWithoutAllocationFile);
  EXPECT_EQ(reopened.label(), label);
}

TEST(VolumeSetLabel, AnotherName_IsInTheCatalogInMemoryAndOnReopening) {
  expect_set(small_volume(), u"Backup");
}

TEST(VolumeSetLabel, EveryLength_IsStoredWhole) {
  const Volume before = small_volume();
  for (std::size_t length = 0; length <= 255; ++length) {
    expect_set(before, Name(length, u'x'));
  }
}

TEST(VolumeSetLabel, UnitsOfAnyValue_AreStoredAsGiven) {
  const Volume before = small_volume();
  for (const Name& label : {Name(u"\u200C\u200D"), Name(u"\xD800"), Name(u"\xDC00\xD800"), Name(u"\xFFFF\xFFFE"),
                            Name(u":/\\"), Name(u"a\x0001z")}) {
    expect_set(before, label);
  }
}

TEST(VolumeSetLabel, NameThatBeginsWithANul_IsStoredAsGiven) {
  expect_set(small_volume(), Name(1, u'\0'));
  expect_set(small_volume(), Name(u"\0\0label", 7));
}

// A label may be a part of the one that the volume holds in memory: the two then overlap.
// X-volume-2
TEST(VolumeSetLabel, PartOfTheLabelInMemory_IsSet) {
  VolumeDescription description = small_description();
  description.label = u"Old and long label";
  const Volume before = build_volume(description);
  const OpenVolume volume(before, kWithoutAllocationFile);
  ASSERT_EQ(kvfs_volume_set_label(volume.get(), volume.get()->label + 4, *volume.get()->label_length - 4), kvfs_ok);
  EXPECT_EQ(volume.label(), u"and long label");
  ASSERT_EQ(kvfs_volume_set_label(volume.get(), volume.get()->label, *volume.get()->label_length), kvfs_ok);
  EXPECT_EQ(volume.label(), u"and long label");
  EXPECT_EQ(faults_of_change(before, volume.flushed_catalog(), u"and long label"), "");
}

TEST(VolumeSetLabel, SameNameAgain_LeavesTheVolumeAsItIs) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  ASSERT_EQ(volume.set_label(u"Untitled"), kvfs_ok);
  EXPECT_EQ(volume.label(), u"Untitled");
  EXPECT_TRUE(volume.flushed_catalog() == before);
}

TEST(VolumeSetLabel, SeveralNamesInTurn_LeaveTheLastOne) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  for (const Name& label : {Name(u"one"), Name(255, u'2'), Name(), Name(u"ONE"), Name(u"last")}) {
    ASSERT_EQ(volume.set_label(label), kvfs_ok);
    EXPECT_EQ(volume.label(), label);
  }
  EXPECT_EQ(faults_of_change(before, volume.flushed_catalog(), u"last"), "");
}

TEST(VolumeSetLabel, LongLabelThenShort_LeavesTheOldUnitsUncounted) {
  VolumeDescription description = small_description();
  description.label = Name(255, u'o');
  const OpenVolume volume(build_volume(description), kWithoutAllocationFile);
  ASSERT_EQ(volume.set_label(u"n"), kvfs_ok);
  EXPECT_EQ(*volume.get()->label_length, 1u);
  EXPECT_EQ(volume.label(), u"n");
}

// ---- What a flush writes -------------------------------------------------------------------------------------------

TEST(VolumeSetLabel, Flush_WritesEachChangedNodeOnceInOrder) {
  VolumeDescription description = small_description();
  (void)description.add_files(kRootFolderId, 500);
  const Volume before = build_volume(description);
  const OpenVolume volume(before, kWithoutAllocationFile);
  ASSERT_EQ(volume.set_label(u"Backup"), kvfs_ok);
  FaultInjector faults;
  ASSERT_EQ(kvfs_fork_flush(volume.catalog_fork()), kvfs_ok);
  EXPECT_EQ(nodes_of_label(before).size(), 3u);
  EXPECT_EQ(writes_of(faults), transfers_of_nodes(before, nodes_of_label(before)));
  faults.clear_records();
  ASSERT_EQ(kvfs_fork_flush(volume.catalog_fork()), kvfs_ok);
  EXPECT_TRUE(faults.writes().empty());
}

TEST(VolumeSetLabel, WithoutAFlush_WritesNothing) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  FaultInjector faults;
  ASSERT_EQ(volume.set_label(u"Backup"), kvfs_ok);
  EXPECT_TRUE(faults.writes().empty());
  EXPECT_TRUE(volume.contents() == before);
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

// Q-catalog-12
TEST(VolumeSetLabel, 256Units_AreRefusedBeforeTheCatalogIsTouched) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  for (const std::size_t length : {std::size_t{256}, std::size_t{65536 + 3}, SIZE_MAX}) {
    const std::vector<kvfs_be16> units(256, kvfs_be16::of(u'x'));
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(kvfs_volume_set_label(volume.get(), units.data(), length), kvfs_invalid);
    EXPECT_EQ(faults.count_allocations(), 0u);
    EXPECT_TRUE(faults.lock_calls().empty());
    EXPECT_TRUE(faults.transfers().empty());
    EXPECT_LOG(log, "ERROR kvfs_volume_set_label Label length (" + std::to_string(length) + ") too large.\n");
  }
  EXPECT_EQ(volume.label(), u"Untitled");
  EXPECT_TRUE(volume.flushed_catalog() == before);
}

// Expects a set to fail and the label in memory to stay.
void expect_failure(const OpenVolume& volume, kvfs_result expected, const std::vector<std::string>& log_lines) {
  const Name before = volume.label();
  LogCapture log;
  EXPECT_EQ(volume.set_label(u"Backup"), expected);
  EXPECT_TRUE(log.matches(log_lines));
  EXPECT_EQ(volume.label(), before);
  EXPECT_EQ(volume.get()->catalog->priv->open_locators, nullptr);
  EXPECT_EQ(volume.catalog_tree()->priv->open_locators, nullptr);
}

// Deletes a record of the catalog behind the volume's back.
void delete_record(const OpenVolume& volume, std::uint32_t parent, const Name& name) {
  const HFSPlusCatalogKey key = stored_key(parent, name);
  Searched found;
  ASSERT_EQ(kvfs_catalog_search_node(volume.get()->catalog, &key, found.out()), kvfs_ok);
  ASSERT_EQ(found.out()->found, 1u);
  ASSERT_EQ(kvfs_btree_delete_record(volume.catalog_tree(), found.locator()->btree_locator, 0), kvfs_ok);
}

TEST(VolumeSetLabel, RootFolderMissing_IsReported) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  delete_record(volume, kRootParentId, u"Untitled");
  expect_failure(volume, kvfs_inconsistent,
                 {"ERROR kvfs_volume_set_label Could not find catalog record of root directory.\n"});
}

TEST(VolumeSetLabel, ThreadOfTheRootFolderMissing_IsReported) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  delete_record(volume, kRootFolderId, u"");
  expect_failure(volume, kvfs_inconsistent,
                 {"ERROR kvfs_volume_set_label Could not find catalog record of root directory.\n"});
}

TEST(VolumeSetLabel, SearchThatGivesNoLocator_IsAnInternalError) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  g_search_gives_nothing = true;
  expect_failure(volume, kvfs_internal,
                 {"CRITICAL kvfs_volume_set_label Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no "
                  "error.\n"});
  g_search_gives_nothing = false;
}

TEST(VolumeSetLabel, RecordThatCannotBeRenamed_IsReported) {
  Volume before = small_volume();
  before.set_field(before.find_by_cnid(kRootFolderId).value().path() + ".recordType", 9);
  expect_failure(OpenVolume(before, kWithoutAllocationFile), kvfs_invalid,
                 {"ERROR kvfs_catalog_rename_record Invalid record type (0x9) in record data!\n",
                  "ERROR kvfs_volume_set_label Error while renaming record.\n"});
}

TEST(VolumeSetLabel, RenameThatLeavesTheLocator_IsWarnedOfAndClosesIt) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  LogCapture log;
  g_rename_keeps_locator = true;
  EXPECT_EQ(volume.set_label(u"Backup"), kvfs_ok);
  g_rename_keeps_locator = false;
  EXPECT_LOG(log, "WARNING kvfs_volume_set_label 'loc' non-NULL ({*}) on successful return.\n");
  EXPECT_EQ(volume.label(), u"Backup");
  EXPECT_EQ(volume.get()->catalog->priv->open_locators, nullptr);
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

// Opens a volume, sets a label and closes it; only the set takes part in the faults.
kvfs_result set_alone(const Volume& before, Name* label) {
  std::optional<FaultInjector::Pause> pause(std::in_place);
  std::optional<OpenVolume> volume(std::in_place, before, kWithoutAllocationFile);
  const std::vector<kvfs_be16> units = {kvfs_be16::of(u'n'), kvfs_be16::of(u'e'), kvfs_be16::of(u'w')};
  pause.reset();
  const kvfs_result result = kvfs_volume_set_label(volume->get(), units.data(), units.size());
  pause.emplace();
  *label = volume->label();
  EXPECT_TRUE(volume->contents() == before);
  volume.reset();
  pause.reset();
  return result;
}

std::string context_of(const FailedRun& run) {
  std::string text = "call " + std::to_string(run.n) + "\n";
  for (const std::string& line : run.log) {
    text += line;
  }
  return text;
}

TEST(VolumeSetLabel, EachAllocationFailing_IsOutOfMemoryAndKeepsTheLabel) {
  const Volume before = small_volume();
  const std::vector<FailedRun> runs = fail_each(each_allocation(), [&] {
    Name label;
    const kvfs_result result = set_alone(before, &label);
    EXPECT_EQ(label, result == kvfs_ok ? u"new" : u"Untitled");
    return result;
  });
  ASSERT_GE(runs.size(), 10u);
  EXPECT_EQ(runs.front().log.back(),
            "ERROR kvfs_volume_set_label Error while looking up catalog record of root directory.\n");
  EXPECT_EQ(runs.back().log.back(), "ERROR kvfs_volume_set_label Error while renaming record.\n");
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_no_memory) << context_of(run);
    EXPECT_NE(run.log.back().find("ERROR kvfs_volume_set_label "), std::string::npos) << context_of(run);
  }
}

// A lock of the catalog's locators that fails while one is closed is reported and does not fail the set.
bool is_tolerated(const FailedRun& run) {
  return run.log.size() >= 2 && (run.log[1].find(" kvfs_catalog_record_locator_close ") != std::string::npos ||
                                 run.log[1].find(" kvfs_btree_record_locator_close ") != std::string::npos);
}

TEST(VolumeSetLabel, EachWriteLockRefused_FailsOrIsReported) {
  const Volume before = small_volume();
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockWrlock), [&] {
    Name label;
    const kvfs_result result = set_alone(before, &label);
    EXPECT_EQ(label, result == kvfs_ok ? u"new" : u"Untitled");
    return result;
  });
  ASSERT_FALSE(runs.empty());
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, is_tolerated(run) ? kvfs_ok : kvfs_failed) << context_of(run);
  }
  // The volume's own lock is the last one. The catalog is renamed then, the label in memory is not.
  EXPECT_EQ(runs.back().result, kvfs_failed);
  EXPECT_THAT(runs.back().log,
              ::testing::ElementsAre("ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n",
                                     "ERROR kvfs_volume_set_label Error while acquiring exclusive volume lock.\n"));
}

TEST(VolumeSetLabel, EachReadLockRefused_Fails) {
  const Volume before = small_volume();
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockRdlock), [&] {
    Name label;
    const kvfs_result result = set_alone(before, &label);
    EXPECT_EQ(label, result == kvfs_ok ? u"new" : u"Untitled");
    return result;
  });
  ASSERT_FALSE(runs.empty());
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_failed) << context_of(run);
  }
}

TEST(VolumeSetLabel, EachUnlockFailing_FailsOrIsReported) {
  const Volume before = small_volume();
  Name last_label;
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockUnlock), [&] {
    Name label;
    const kvfs_result result = set_alone(before, &label);
    if (result != kvfs_ok) {
      last_label = label;
    }
    return result;
  });
  ASSERT_FALSE(runs.empty());
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, is_tolerated(run) ? kvfs_ok : kvfs_failed) << context_of(run);
  }
  // The volume's own lock again: everything is done by then.
  EXPECT_THAT(runs.back().log,
              ::testing::ElementsAre("ERROR kvfs_rwlock_unlock Unable to unlock rwlock!\n",
                                     "CRITICAL kvfs_volume_set_label Error while unlocking volume lock.\n"));
  EXPECT_EQ(last_label, u"new");
}

TEST(VolumeSetLabel, LabelInMemory_ChangesUnderTheVolumeLockAlone) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  FaultInjector faults;
  ASSERT_EQ(volume.set_label(u"new"), kvfs_ok);
  EXPECT_EQ(faults.locks_held(), 0);
  const std::vector<LockCall> calls = faults.lock_calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[calls.size() - 2].call, Call::kRwlockWrlock);
  EXPECT_EQ(calls.back().call, Call::kRwlockUnlock);
  EXPECT_EQ(calls.back().lock, calls[calls.size() - 2].lock);
  int uses = 0;
  for (const LockCall& call : calls) {
    uses += call.lock == calls.back().lock ? 1 : 0;
  }
  EXPECT_EQ(uses, 2) << "the volume lock is taken once";
}

// ---- Fork data -----------------------------------------------------------------------------------------------------

HFSPlusForkData some_fork_data() {
  HFSPlusForkData data;
  for (std::size_t i = 0; i < sizeof(data); ++i) {
    reinterpret_cast<unsigned char*>(&data)[i] = static_cast<unsigned char>(i + 1);
  }
  return data;
}

Bytes header_bytes(const kvfs_volume* volume) {
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(volume->header);
  return {bytes, bytes + sizeof(*volume->header)};
}

TEST(VolumeUpdateForkData, EachSpecialFile_ChangesItsOwnSlotInMemoryOnly) {
  const Volume before = small_volume();
  const HFSPlusForkData data = some_fork_data();
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(&data);
  const std::pair<std::uint32_t, std::size_t> slots[] = {{6, 112}, {3, 192}, {4, 272}, {8, 352}, {7, 432}};
  for (const auto& [cnid, offset] : slots) {
    const OpenVolume volume(before, kWithoutAllocationFile);
    Bytes expected = header_bytes(volume.get());
    std::copy(bytes, bytes + sizeof(data), expected.begin() + static_cast<std::ptrdiff_t>(offset));
    LogCapture log;
    FaultInjector faults;
    kvfs_volume_update_fork_data(volume.get(), cnid, &data);
    EXPECT_TRUE(faults.lock_calls().empty());
    EXPECT_TRUE(faults.transfers().empty());
    EXPECT_EQ(header_bytes(volume.get()), expected) << cnid;
    EXPECT_LOG(log);
  }
}

// Q-log-2, Q-volume-3
TEST(VolumeUpdateForkData, AnyOtherFile_IsReportedWithoutALineFeedAndChangesNothing) {
  const Volume before = small_volume();
  for (const std::uint32_t cnid : {0U, 2U, 5U, 9U, 0xFFFFFFFFU}) {
    const OpenVolume volume(before, kWithoutAllocationFile);
    const Bytes expected = header_bytes(volume.get());
    const HFSPlusForkData data = some_fork_data();
    LogCapture log;
    kvfs_volume_update_fork_data(volume.get(), cnid, &data);
    kvfs_log("", 0, "any", "ERROR", "\n");  // ends the line, so that the next message begins one
    EXPECT_EQ(header_bytes(volume.get()), expected);
    EXPECT_LOG(log, "CRITICAL kvfs_volume_update_fork_data Unexpected catalog node ID for volume header file: " +
                        std::to_string(cnid) + "\n");
  }
}

// X-volume-2
TEST(VolumeUpdateForkData, SlotItself_StaysAsItIs) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  const Bytes expected = header_bytes(volume.get());
  kvfs_volume_update_fork_data(volume.get(), 4, &volume.get()->header->catalogFile);
  EXPECT_EQ(header_bytes(volume.get()), expected);
}

}  // namespace
}  // namespace kvfs_test
