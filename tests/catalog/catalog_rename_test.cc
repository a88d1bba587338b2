// Inserting a catalog record, keeping a folder's valence, and renaming.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "big_endian.h"
#include "btree/private.h"
#include "catalog_fixture.h"
#include "replaced_routine.h"
#include "volume_checker.h"

// The linker sends the catalog's insertions here, so that one can be made to succeed without a locator, as the B-tree
// never does, and so that it can be seen which of them have a hint.
namespace {
bool g_insertion_gives_nothing = false;
std::vector<bool> g_insertions_with_hint;
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_btree_insert_record, real_insert, wrap_insert);

kvfs_result wrap_insert(kvfs_btree* tree, const void* key, const void* data, std::uint16_t data_size,
                        const kvfs_btree_search_result* hint, kvfs_btree_record_locator** out_locator) {
  if (g_insertion_gives_nothing) {
    return kvfs_ok;
  }
  g_insertions_with_hint.push_back(hint != nullptr);
  return real_insert(tree, key, data, data_size, hint, out_locator);
}

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;

// The root folder holds the folders 16 "alpha" and 17 "beta"; "alpha", which counts its folders, holds the folder 18
// "gamma" and the files 19 "one" and 20 "two".
constexpr std::uint32_t kAlpha = 16;
constexpr std::uint32_t kBeta = 17;
constexpr std::uint32_t kGamma = 18;
constexpr std::uint32_t kOne = 19;

VolumeDescription small_description() {
  VolumeDescription description;
  const std::uint32_t alpha = description.add_folder(kRootFolderId, u"alpha");
  (void)description.add_folder(kRootFolderId, u"beta");
  description.item(alpha).has_folder_count = true;
  (void)description.add_folder(alpha, u"gamma");
  (void)description.add_file(alpha, u"one", 5000);
  (void)description.add_file(alpha, u"two");
  return description;
}

Volume small_volume() {
  return build_volume(small_description());
}

// A catalog to change, and what it holds then.
class ChangedCatalog : public OpenCatalog {
 public:
  explicit ChangedCatalog(const Volume& volume) : OpenCatalog(volume) {}

  [[nodiscard]] kvfs_btree* tree() const { return priv()->btree; }

  // Brings the changes to the device.
  [[nodiscard]] Volume flushed() const {
    EXPECT_EQ(kvfs_fork_flush(tree()->fork), kvfs_ok);
    return contents();
  }

  // Renames the record behind a locator, with the name in host order.
  [[nodiscard]] kvfs_result rename(kvfs_catalog_record_locator** locator, std::uint32_t parent, const Name& name) {
    const HFSPlusCatalogKey key = stored_key(parent, Name(name, 0, 255));
    return kvfs_catalog_rename_record(get(), locator, key.parentID, key.nodeName.unicode, name.size());
  }
};

std::uint64_t field(const Volume& volume, std::uint32_t cnid, const char* name) {
  return volume.get_field(volume.find_by_cnid(cnid).value().path() + "." + name);
}

Bytes record_of(const Volume& volume, std::uint32_t parent, const Name& name) {
  const std::optional<RecordPlace> place = volume.find_entry(parent, name);
  return place ? volume.record_data(*place) : Bytes{};
}

Bytes thread_of(const Volume& volume, std::uint32_t cnid) {
  const std::optional<RecordPlace> place = volume.find_thread(cnid);
  return place ? volume.record_data(*place) : Bytes{};
}

// ---- Inserting -----------------------------------------------------------------------------------------------------

TEST(CatalogInsert, NewKey_IsInsertedAndHandedOut) {
  ChangedCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(kBeta, u"new");
  const Bytes data = thread_data(true, 1, u"any");
  kvfs_catalog_record_locator* locator = nullptr;
  LogCapture log;
  ASSERT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), static_cast<std::uint16_t>(data.size()),
                                       nullptr, &locator),
            kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(locator->record_type, 0u);
  EXPECT_EQ(locator->reserved, 0u);
  EXPECT_EQ(*locator->parent, nullptr);
  EXPECT_EQ(std::memcmp(locator->btree_locator->data, data.data(), data.size()), 0);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_EQ(catalog.tree()->priv->open_locators, nullptr);
  EXPECT_EQ(record_of(catalog.flushed(), kBeta, u"new"), data);
}

TEST(CatalogInsert, ExistingKey_IsRefusedAndChangesNothing) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  const HFSPlusCatalogKey key = stored_key(kAlpha, u"ONE");
  const Bytes data(88);
  kvfs_catalog_record_locator* locator = nullptr;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), 88, nullptr, &locator), kvfs_exists);
  EXPECT_EQ(locator, nullptr);
  EXPECT_LOG(log, "ERROR kvfs_btree_insert_record_internal ERROR:Unable to insert because already exists?!\n",
             "ERROR kvfs_catalog_insert_record Error in kvfs_btree_insert_record.\n");
  EXPECT_TRUE(catalog.flushed() == before);
}

TEST(CatalogInsert, WithHint_GoesThereWithoutASearch) {
  ChangedCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(kAlpha, u"one");
  const Bytes data(10, 0x55);
  Searched hint;
  ASSERT_EQ(kvfs_catalog_search_node(catalog.get(), &key, hint.out()), kvfs_ok);
  const std::uint16_t index = *hint.locator()->btree_locator->index;
  kvfs_catalog_record_locator* locator = nullptr;
  LogCapture log;
  // The key exists, which only a search would tell.
  ASSERT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), 10, hint.out(), &locator), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(*locator->btree_locator->index, index);
  EXPECT_EQ(*hint.locator()->btree_locator->index, index + 1);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_EQ(hint.text(), "found: file 19 in 16/one");
}

TEST(CatalogInsert, HintWithTheAfterFlag_AppendsBehindIt) {
  ChangedCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(900, u"behind all");
  const Bytes data(10, 0x55);
  Searched hint;
  ASSERT_EQ(kvfs_catalog_search_node(catalog.get(), &key, hint.out()), kvfs_ok);
  EXPECT_EQ(hint.out()->after, 1u);
  const std::uint16_t index = *hint.locator()->btree_locator->index;
  kvfs_catalog_record_locator* locator = nullptr;
  ASSERT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), 10, hint.out(), &locator), kvfs_ok);
  EXPECT_EQ(*locator->btree_locator->index, index + 1);
  kvfs_catalog_record_locator_close(&locator);
}

TEST(CatalogInsert, HintWithoutALocator_IsAsGoodAsNone) {
  ChangedCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(kBeta, u"new");
  const Bytes data(10, 0x55);
  const kvfs_catalog_search_result hint = {0, 0, nullptr};
  kvfs_catalog_record_locator* locator = nullptr;
  g_insertions_with_hint.clear();
  ASSERT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), 10, &hint, &locator), kvfs_ok);
  EXPECT_THAT(g_insertions_with_hint, ElementsAre(false));
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_EQ(record_of(catalog.flushed(), kBeta, u"new"), data);
}

TEST(CatalogInsert, TreeThatGivesNoLocator_IsAnInternalError) {
  ChangedCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(kBeta, u"new");
  const Bytes data(10);
  kvfs_catalog_record_locator* locator = nullptr;
  LogCapture log;
  g_insertion_gives_nothing = true;
  EXPECT_EQ(kvfs_catalog_insert_record(catalog.get(), &key, data.data(), 10, nullptr, &locator), kvfs_internal);
  g_insertion_gives_nothing = false;
  EXPECT_EQ(locator, nullptr);
  EXPECT_LOG(log,
             "CRITICAL kvfs_catalog_insert_record Unexpected: kvfs_btree_insert_record returned NULL locator but no "
             "error.\n");
}

// ---- Valence -------------------------------------------------------------------------------------------------------

// What a change of a folder's counts did: a record of 88 bytes is made of the two counts and the flags, changed, and
// read back.
struct Counts {
  std::uint64_t valence;
  std::uint64_t folders;

  friend bool operator==(const Counts&, const Counts&) = default;
  friend void PrintTo(const Counts& counts, std::ostream* stream) {
    *stream << counts.valence << " items, " << counts.folders << " folders";
  }
};

using Change = std::function<kvfs_result(kvfs_catalog*, kvfs_catalog_record_locator* parent)>;

Counts counts_after(const Volume& volume, const Name& folder_name, std::uint32_t folder, const Change& change) {
  ChangedCatalog catalog(volume);
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, folder_name);
  EXPECT_EQ(change(catalog.get(), parent), kvfs_ok);
  kvfs_catalog_record_locator_close(&parent);
  const Volume after = catalog.flushed();
  return {field(after, folder, "valence"), field(after, folder, "folderCount")};
}

Change update(const Bytes& child, int increment) {
  return [&child, increment](kvfs_catalog* catalog, kvfs_catalog_record_locator* parent) {
    return kvfs_catalog_update_valence(catalog, child.data(), parent, increment);
  };
}

TEST(CatalogValence, Folder_CountsInBothWhereTheFolderKeepsACount) {
  const Volume volume = small_volume();
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  LogCapture log;
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 1)), (Counts{4, 2}));
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 0)), (Counts{2, 0}));
  EXPECT_EQ(counts_after(volume, u"beta", kBeta, update(child, 1)), (Counts{1, 0}));
  EXPECT_LOG(log);
}

TEST(CatalogValence, File_CountsInTheValenceAlone) {
  const Volume volume = small_volume();
  const Bytes child = record_of(volume, kAlpha, u"one");
  LogCapture log;
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 1)), (Counts{4, 1}));
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 0)), (Counts{2, 1}));
  EXPECT_LOG(log);
}

TEST(CatalogValence, HardLinkToADirectory_CountsAsAFolder) {
  VolumeDescription description = small_description();
  (void)description.add_directory_hard_link(kBeta, u"link", kGamma);
  const Volume volume = build_volume(description);
  const Bytes link = record_of(volume, kBeta, u"link");
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(link, 1)), (Counts{4, 2}));
}

TEST(CatalogValence, HardLinkWithOneMarkMissing_CountsAsAFile) {
  VolumeDescription description = small_description();
  (void)description.add_directory_hard_link(kBeta, u"link", kGamma);
  const Volume volume = build_volume(description);
  for (const char* mark : {"fileType", "creator", "flags"}) {
    Volume changed = volume;
    changed.set_field(volume.find_entry(kBeta, u"link").value().path() + "." + mark, 0xFFDF);
    const Bytes link = record_of(changed, kBeta, u"link");
    EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(link, 1)), (Counts{4, 1})) << mark;
  }
}

// Q-catalog-11
TEST(CatalogValence, CountsAtTheirEnds_WrapWithoutACheck) {
  Volume volume = small_volume();
  const std::string alpha = volume.find_by_cnid(kAlpha).value().path();
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  volume.set_field(alpha + ".valence", 0);
  volume.set_field(alpha + ".folderCount", 0);
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 0)), (Counts{0xFFFFFFFF, 0xFFFFFFFF}));
  volume.set_field(alpha + ".valence", 0xFFFFFFFF);
  volume.set_field(alpha + ".folderCount", 0xFFFFFFFF);
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 1)), (Counts{0, 0}));
}

TEST(CatalogValence, TheTwoWrappers_CountUpAndDown) {
  const Volume volume = small_volume();
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  const auto up = [&](kvfs_catalog* catalog, kvfs_catalog_record_locator* parent) {
    return kvfs_catalog_increment_valence(catalog, child.data(), parent);
  };
  const auto down = [&](kvfs_catalog* catalog, kvfs_catalog_record_locator* parent) {
    return kvfs_catalog_decrement_valence(catalog, child.data(), parent);
  };
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, up), (Counts{4, 2}));
  EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, down), (Counts{2, 0}));
}

TEST(CatalogValence, OtherFieldsOfTheFolder_StayAsTheyAre) {
  const Volume volume = small_volume();
  ChangedCatalog catalog(volume);
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  ASSERT_EQ(kvfs_catalog_increment_valence(catalog.get(), child.data(), parent), kvfs_ok);
  kvfs_catalog_record_locator_close(&parent);
  Volume expected = volume;
  expected.add_to_field(volume.find_by_cnid(kAlpha).value().path() + ".valence", 1);
  expected.add_to_field(volume.find_by_cnid(kAlpha).value().path() + ".folderCount", 1);
  EXPECT_TRUE(catalog.flushed() == expected);
}

// Q-catalog-10
TEST(CatalogValence, ThreadRecordAsChild_IsReportedAndChangesNothingAndSucceeds) {
  const Volume volume = small_volume();
  for (const std::uint8_t type : {std::uint8_t{3}, std::uint8_t{4}}) {
    Bytes child = thread_of(volume, kGamma);
    child[1] = type;
    LogCapture log;
    EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 1)), (Counts{3, 1}));
    EXPECT_LOG(log, "ERROR kvfs_catalog_update_valence Invalid parameter: Child record data is a thread record.\n");
  }
}

// Q-catalog-10
TEST(CatalogValence, UnknownRecordAsChild_IsReportedAndChangesNothingAndSucceeds) {
  const Volume volume = small_volume();
  for (const auto& [type, text] : {std::pair{0x0000, "0x0"}, {0x0005, "0x5"}, {0xABCD, "0xABCD"}}) {
    Bytes child = record_of(volume, kAlpha, u"gamma");
    child[0] = static_cast<std::uint8_t>(type >> 8);
    child[1] = static_cast<std::uint8_t>(type);
    LogCapture log;
    EXPECT_EQ(counts_after(volume, u"alpha", kAlpha, update(child, 0)), (Counts{3, 1}));
    EXPECT_LOG(log, std::string("CRITICAL kvfs_catalog_update_valence Unexpected - Bad data in child_record_data (not "
                                "a catalog record, record type: ") +
                        text + ").\n");
  }
}

// Q-catalog-10
TEST(CatalogValence, ParentThatCannotBeWritten_IsReportedAndSucceeds) {
  const Volume volume = small_volume();
  ChangedCatalog catalog(volume);
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  parent->btree_locator->priv->deleted = 1;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_update_valence(catalog.get(), child.data(), parent, 1), kvfs_ok);
  EXPECT_EQ(log.lines().size(), 2u) << log.raw();
  EXPECT_TRUE(log.has("ERROR", "kvfs_catalog_update_valence", "Error while writing out updated parent valence.\n"));
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.flushed() == volume);
}

// X-catalog-3
TEST(CatalogValence, ParentRecordTooShort_IsReportedAndSucceeds) {
  VolumeDescription description = small_description();
  description.item(kBeta).record = Bytes(86, 0);
  description.item(kBeta).record->at(1) = 1;
  const Volume volume = build_volume(description);
  ChangedCatalog catalog(volume);
  const Bytes child = record_of(volume, kAlpha, u"gamma");
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"beta");
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_update_valence(catalog.get(), child.data(), parent, 1), kvfs_ok);
  EXPECT_LOG(log,
             "ERROR kvfs_catalog_update_valence Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 "
             "Actual: 86\n");
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.flushed() == volume);
}

// ---- Refusals of a rename ------------------------------------------------------------------------------------------

TEST(CatalogRename, NoLocator_IsRefused) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* none = nullptr;
  for (kvfs_catalog_record_locator** locator : {static_cast<kvfs_catalog_record_locator**>(nullptr), &none}) {
    LogCapture log;
    EXPECT_EQ(catalog.rename(locator, kBeta, u"new"), kvfs_invalid);
    EXPECT_LOG(log, "ERROR kvfs_catalog_rename_record No catalog record pointer specified.\n");
  }
  EXPECT_TRUE(catalog.flushed() == before);
}

TEST(CatalogRename, ItemWithoutItsParentsLocator_IsRefusedAndStaysOpen) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one");
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kAlpha, u"new"), kvfs_invalid);
  EXPECT_LOG(log, "ERROR kvfs_catalog_rename_record Supplied catalog record locator has no parent locator.\n");
  ASSERT_NE(locator, nullptr);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_TRUE(catalog.flushed() == before);
}

TEST(CatalogRename, ThreadRecord_IsRefusedAndStaysOpen) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kGamma, u"", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kBeta, u"new"), kvfs_invalid);
  EXPECT_LOG(log, "ERROR kvfs_catalog_rename_record Invalid record type (0x3) in record data!\n");
  ASSERT_NE(locator, nullptr);
  kvfs_catalog_record_locator_close(&locator);
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.flushed() == before);
}

// Renames a record with these bytes, and expects the one message.
void expect_refused_record(const Bytes& record, kvfs_result expected, const std::string& message) {
  VolumeDescription description = small_description();
  description.item(kOne).record = record;
  const Volume before = build_volume(description);
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kBeta, u"new"), expected);
  EXPECT_LOG(log, message);
  ASSERT_NE(locator, nullptr);
  kvfs_catalog_record_locator_close(&locator);
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.flushed() == before);
}

TEST(CatalogRename, UnknownRecordType_IsRefused) {
  expect_refused_record({0xAB, 0xCD, 0, 0}, kvfs_invalid,
                        "ERROR kvfs_catalog_rename_record Invalid record type (0xABCD) in record data!\n");
  expect_refused_record({0, 0}, kvfs_invalid,
                        "ERROR kvfs_catalog_rename_record Invalid record type (0x0) in record data!\n");
}

// X-catalog-3
TEST(CatalogRename, RecordWithoutAType_IsInconsistent) {
  expect_refused_record({}, kvfs_inconsistent,
                        "ERROR kvfs_catalog_rename_record Record of 0 bytes is too short for a record type.\n");
}

// Opens the file 19 under a key that has so many bytes behind its length field, and renames it without its parent.
void expect_renamed_by_key(std::uint16_t key_length, std::uint32_t parent, kvfs_result expected,
                           const Lines& messages) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one");
  Bytes key(locator->btree_locator->key, locator->btree_locator->key + 2 + key_length);
  put_be(key, 0, 2, key_length);
  if (key_length >= 4) {
    put_be(key, 2, 4, parent);
  }
  locator->btree_locator->key = key.data();
  locator->btree_locator->key_length = 2U + key_length;
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kAlpha, u"new"), expected);
  EXPECT_TRUE(log.matches(messages));
  if (locator != nullptr) {
    kvfs_catalog_record_locator_close(&locator);
  }
}

// X-catalog-3
TEST(CatalogRename, KeyTooShortForAParent_IsInconsistent) {
  for (const std::uint16_t length : {std::uint16_t{0}, std::uint16_t{3}}) {
    expect_renamed_by_key(length, 0, kvfs_inconsistent,
                          {"ERROR kvfs_catalog_rename_record Key of " + std::to_string(2 + length) +
                           " bytes is too short for a parent.\n"});
  }
}

TEST(CatalogRename, KeyThatEndsBehindItsParent_TellsIt) {
  for (const std::uint16_t length : {std::uint16_t{4}, std::uint16_t{5}}) {
    expect_renamed_by_key(
        length, kAlpha, kvfs_invalid,
        {"ERROR kvfs_catalog_rename_record Supplied catalog record locator has no parent locator.\n"});
    expect_renamed_by_key(
        length, kRootParentId, kvfs_internal,
        {"ERROR kvfs_catalog_rename_record kvfs_catalog_rename_record: Unable to decrement valence!\n"});
  }
}

// X-catalog-3
TEST(CatalogRename, RecordTooShortForItsType_IsRefused) {
  Bytes folder(86);
  folder[1] = 1;
  expect_refused_record(
      folder, kvfs_inconsistent,
      "ERROR kvfs_catalog_rename_record Unexpected data size for HFSPlusCatalogFolder. Expected minimum: "
      "88 Actual: 86\n");
  Bytes file(246);
  file[1] = 2;
  expect_refused_record(file, kvfs_inconsistent,
                        "ERROR kvfs_catalog_rename_record Unexpected data size for catalog record. Expected minimum: "
                        "248 Actual: 246\n");
}

TEST(CatalogRename, RootFolderToAnotherParent_IsRefusedBeforeAnythingIsDeleted) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"Untitled");
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, 5, u"new"), kvfs_invalid);
  EXPECT_LOG(log,
             "ERROR kvfs_catalog_rename_record Attempting to move root directory to other (non-root parent) folder. "
             "This is not allowed.\n");
  ASSERT_NE(locator, nullptr);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_TRUE(catalog.flushed() == before);
}

TEST(CatalogRename, RecordDeletedBefore_FailsAndStaysOpen) {
  ChangedCatalog catalog(small_volume());
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"Untitled");
  ASSERT_EQ(kvfs_btree_delete_record(catalog.tree(), locator->btree_locator, 0), kvfs_ok);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, 1, u"new"), kvfs_internal);
  EXPECT_LOG(log, "CRITICAL kvfs_btree_delete_record_internal Attempted to delete a deleted record.\n",
             "ERROR kvfs_catalog_rename_record Error while deleting record from B-tree.\n");
  ASSERT_NE(locator, nullptr);
  kvfs_catalog_record_locator_close(&locator);
}

TEST(CatalogRename, ItemUnderTheRootsParentThatIsNotTheRoot_FailsOnceItIsDeleted) {
  VolumeDescription description = small_description();
  Bytes folder = record_of(small_volume(), kAlpha, u"gamma");
  folder[11] = 99;  // its own ID
  description.extra_catalog_records.push_back({catalog_key(kRootParentId, u"stray"), folder});
  ChangedCatalog catalog(build_volume(description));
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"stray");
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, 1, u"new"), kvfs_internal);
  EXPECT_LOG(log, "ERROR kvfs_catalog_rename_record kvfs_catalog_rename_record: Unable to decrement valence!\n");
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(catalog.open_locators().empty());
  const Volume after = catalog.flushed();
  EXPECT_FALSE(after.find_entry(kRootParentId, u"stray").has_value());
  EXPECT_FALSE(after.find_entry(kRootParentId, u"new").has_value());
}

// Q-catalog-12
TEST(CatalogRename, NameOf256Units_DeletesTheRecordAndCountsItOutWithoutAMessage) {
  for (const std::size_t length : {std::size_t{256}, std::size_t{65536}, SIZE_MAX}) {
    ChangedCatalog catalog(small_volume());
    kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
    kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"gamma", parent);
    const HFSPlusCatalogKey key = stored_key(kAlpha, Name(255, u'x'));
    LogCapture log;
    EXPECT_EQ(kvfs_catalog_rename_record(catalog.get(), &locator, key.parentID, key.nodeName.unicode, length),
              kvfs_invalid);
    EXPECT_LOG(log);
    EXPECT_EQ(locator, nullptr);
    kvfs_catalog_record_locator_close(&parent);
    EXPECT_TRUE(catalog.open_locators().empty());
    const Volume after = catalog.flushed();
    EXPECT_FALSE(after.find_entry(kAlpha, u"gamma").has_value());
    EXPECT_TRUE(after.find_thread(kGamma).has_value());
    EXPECT_EQ(field(after, kAlpha, "valence"), 2u);
    EXPECT_EQ(field(after, kAlpha, "folderCount"), 0u);
  }
}

TEST(CatalogRename, RootFolderToANameOf256Units_IsDeletedWithoutAMessage) {
  ChangedCatalog catalog(small_volume());
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"Untitled");
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, 1, Name(256, u'x')), kvfs_invalid);
  EXPECT_LOG(log);
  EXPECT_EQ(locator, nullptr);
  EXPECT_FALSE(catalog.flushed().find_entry(kRootParentId, u"Untitled").has_value());
}

// Q-catalog-13
TEST(CatalogRename, NameThatExists_FailsOnceTheRecordIsDeleted) {
  ChangedCatalog catalog(small_volume());
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kAlpha, u"TWO"), kvfs_exists);
  EXPECT_LOG(log, "ERROR kvfs_btree_insert_record_internal ERROR:Unable to insert because already exists?!\n",
             "ERROR kvfs_catalog_insert_record Error in kvfs_btree_insert_record.\n",
             "ERROR kvfs_catalog_rename_record Error while inserting record into catalog.\n");
  EXPECT_EQ(locator, nullptr);
  kvfs_catalog_record_locator_close(&parent);
  const Volume after = catalog.flushed();
  EXPECT_FALSE(after.find_entry(kAlpha, u"one").has_value());
  EXPECT_EQ(field(after, kAlpha, "valence"), 2u);
}

// Q-catalog-13
TEST(CatalogRename, NewFolderThatDoesNotExist_FailsOnceTheRecordIsMoved) {
  ChangedCatalog catalog(small_volume());
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, 0x80000001, u"new"), kvfs_inconsistent);
  EXPECT_LOG(log,
             "CRITICAL kvfs_catalog_rename_record Unable to find containing parent with CNID 2147483649 when "
             "attempting to increment valence.\n");
  EXPECT_EQ(locator, nullptr);
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.open_locators().empty());
  const Volume after = catalog.flushed();
  EXPECT_TRUE(after.find_entry(0x80000001, u"new").has_value());
  EXPECT_EQ(thread_of(after, kOne), thread_data(false, kAlpha, u"one"));
}

TEST(CatalogRename, NewFolderWhoseThreadIsDamaged_FailsOnceTheRecordIsMoved) {
  Volume volume = small_volume();
  volume.set_field(volume.find_thread(kBeta).value().path() + ".nodeName.length", 300);
  ChangedCatalog catalog(volume);
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"one", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kBeta, u"new"), kvfs_inconsistent);
  ASSERT_GE(log.lines().size(), 2u);
  EXPECT_EQ(to_string(log.lines().back()),
            "ERROR kvfs_catalog_rename_record Error while searching for containing folder of newly inserted record by "
            "CNID.\n");
  EXPECT_EQ(locator, nullptr);
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.open_locators().empty());
}

// ---- Renames -------------------------------------------------------------------------------------------------------

TEST(CatalogRename, RootFolder_ChangesItsTwoRecordsAndNoValence) {
  const Volume before = small_volume();
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"Untitled");
  LogCapture log;
  ASSERT_EQ(catalog.rename(&locator, 1, u"Backup"), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(locator, nullptr);
  EXPECT_TRUE(catalog.open_locators().empty());
  EXPECT_EQ(catalog.tree()->priv->open_locators, nullptr);

  std::vector<Record> expected = dump_records(before, Tree::kCatalog);
  expected.at(0).first = catalog_key(kRootParentId, u"Backup");
  expected.at(1).second = thread_data(true, kRootParentId, u"Backup");
  const Volume after = catalog.flushed();
  EXPECT_EQ(dump_records(after, Tree::kCatalog), expected);
  EXPECT_EQ(joined(check_volume(after)), "");
}

// Renames an item of "alpha" and expects all other records, and what is said of them, to fit.
Volume rename_in_alpha(const Volume& before, const Name& name, std::uint32_t new_parent, const Name& new_name) {
  ChangedCatalog catalog(before);
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, name, parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, new_parent, new_name), kvfs_ok);
  EXPECT_LOG(log);
  EXPECT_EQ(locator, nullptr);
  kvfs_catalog_record_locator_close(&parent);
  EXPECT_TRUE(catalog.open_locators().empty());
  EXPECT_EQ(catalog.tree()->priv->open_locators, nullptr);
  Volume after = catalog.flushed();
  EXPECT_EQ(joined(check_volume(after)), "");
  EXPECT_EQ(dump_records(after, Tree::kCatalog).size(), dump_records(before, Tree::kCatalog).size());
  EXPECT_EQ(record_of(after, new_parent, new_name), record_of(before, kAlpha, name));
  return after;
}

// Q-catalog-14
TEST(CatalogRename, NewThread_IsInsertedWhereTheOldOneStoodWithoutASearch) {
  ChangedCatalog catalog(small_volume());
  kvfs_catalog_record_locator* locator = catalog.open(kRootParentId, u"Untitled");
  g_insertions_with_hint.clear();
  ASSERT_EQ(catalog.rename(&locator, 1, u"Backup"), kvfs_ok);
  EXPECT_THAT(g_insertions_with_hint, ElementsAre(false, true));
}

TEST(CatalogRename, FolderToAnotherFolder_MovesItsCountWhereAFolderCountIsKept) {
  const Volume after = rename_in_alpha(small_volume(), u"gamma", kBeta, u"delta");
  EXPECT_EQ(thread_of(after, kGamma), thread_data(true, kBeta, u"delta"));
  EXPECT_EQ(field(after, kAlpha, "valence"), 2u);
  EXPECT_EQ(field(after, kAlpha, "folderCount"), 0u);
  EXPECT_EQ(field(after, kBeta, "valence"), 1u);
  EXPECT_EQ(field(after, kBeta, "folderCount"), 0u);
}

TEST(CatalogRename, FileToAnotherFolder_MovesItsValenceAndGetsAFileThread) {
  const Volume after = rename_in_alpha(small_volume(), u"one", kBeta, u"a longer name than before");
  EXPECT_EQ(thread_of(after, kOne), thread_data(false, kBeta, u"a longer name than before"));
  EXPECT_EQ(field(after, kAlpha, "valence"), 2u);
  EXPECT_EQ(field(after, kAlpha, "folderCount"), 1u);
  EXPECT_EQ(field(after, kBeta, "valence"), 1u);
}

TEST(CatalogRename, WithinOneFolder_LeavesItsCountsAsTheyWere) {
  const Volume before = small_volume();
  const Volume after = rename_in_alpha(before, u"gamma", kAlpha, u"omega");
  EXPECT_EQ(record_of(after, kRootFolderId, u"alpha"), record_of(before, kRootFolderId, u"alpha"));
}

TEST(CatalogRename, CaseOnly_KeepsItsPlaceInTheOrder) {
  const Volume after = rename_in_alpha(small_volume(), u"one", kAlpha, u"ONE");
  EXPECT_EQ(thread_of(after, kOne), thread_data(false, kAlpha, u"ONE"));
}

// X-catalog-11
TEST(CatalogRename, NameThatLiesInTheItemsOwnKey_IsKept) {
  for (const Name& name : {Name(u"gamma"), Name(u"one")}) {
    ChangedCatalog catalog(small_volume());
    kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
    kvfs_catalog_record_locator* locator = catalog.open(kAlpha, name, parent);
    const HFSPlusCatalogKey* const key = kvfs_view_as<HFSPlusCatalogKey>(locator->btree_locator->key);
    LogCapture log;
    ASSERT_EQ(kvfs_catalog_rename_record(catalog.get(), &locator, kvfs_be32::of(kBeta), key->nodeName.unicode,
                                         key->nodeName.length.get()),
              kvfs_ok);
    EXPECT_LOG(log);
    kvfs_catalog_record_locator_close(&parent);
    const Volume after = catalog.flushed();
    EXPECT_EQ(joined(check_volume(after)), "");
    EXPECT_EQ(record_of(after, kBeta, name), record_of(small_volume(), kAlpha, name));
    EXPECT_EQ(thread_of(after, name == u"one" ? kOne : kGamma), thread_data(name != u"one", kBeta, name));
  }
}

TEST(CatalogRename, NameOf255Units_IsStoredWhole) {
  const Name name(255, u'n');
  const Volume after = rename_in_alpha(small_volume(), u"gamma", kBeta, name);
  EXPECT_EQ(thread_of(after, kGamma), thread_data(true, kBeta, name));
}

TEST(CatalogRename, RecordsLongerThanTheirType_AreCutToIt) {
  VolumeDescription description = small_description();
  Bytes folder = record_of(small_volume(), kAlpha, u"gamma");
  folder.resize(120, 0x77);
  description.item(kGamma).record = folder;
  ChangedCatalog catalog(build_volume(description));
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"gamma", parent);
  ASSERT_EQ(catalog.rename(&locator, kAlpha, u"short"), kvfs_ok);
  kvfs_catalog_record_locator_close(&parent);
  folder.resize(88);
  EXPECT_EQ(record_of(catalog.flushed(), kAlpha, u"short"), folder);
}

// Q-catalog-14
TEST(CatalogRename, MissingThread_IsWarnedOfAndMadeAnew) {
  for (const std::uint32_t cnid : {kGamma, kOne}) {
    VolumeDescription description = small_description();
    description.item(cnid).with_thread = false;
    ChangedCatalog catalog(build_volume(description));
    const bool folder = cnid == kGamma;
    kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
    kvfs_catalog_record_locator* locator = catalog.open(kAlpha, folder ? u"gamma" : u"one", parent);
    LogCapture log;
    EXPECT_EQ(catalog.rename(&locator, kBeta, u"new"), kvfs_ok);
    EXPECT_LOG(log,
               "WARNING kvfs_catalog_rename_record Missing thread record for original file in rename. Creating new "
               "thread record...\n");
    kvfs_catalog_record_locator_close(&parent);
    const Volume after = catalog.flushed();
    EXPECT_EQ(thread_of(after, cnid), thread_data(folder, kBeta, u"new"));
    EXPECT_EQ(joined(check_volume(after)), "");
  }
}

TEST(CatalogRename, MissingThreadOfTheLastItem_IsAppended) {
  VolumeDescription description = small_description();
  const std::uint32_t last = description.add_file(kAlpha, u"zzz");
  description.item(last).with_thread = false;
  ChangedCatalog catalog(build_volume(description));
  kvfs_catalog_record_locator* parent = catalog.open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog.open(kAlpha, u"zzz", parent);
  LogCapture log;
  EXPECT_EQ(catalog.rename(&locator, kBeta, u"aaa"), kvfs_ok);
  EXPECT_EQ(log.lines().size(), 1u) << log.raw();
  kvfs_catalog_record_locator_close(&parent);
  const Volume after = catalog.flushed();
  EXPECT_EQ(dump_records(after, Tree::kCatalog).back(), (Record{thread_key(last), thread_data(false, kBeta, u"aaa")}));
  EXPECT_EQ(joined(check_volume(after)), "");
}

TEST(CatalogRename, BinaryOrder_TakesANameThatDiffersInCaseOnlyFromAnother) {
  VolumeDescription description = small_description();
  description.hfsx = description.case_sensitive = true;
  const Volume after = rename_in_alpha(build_volume(description), u"one", kAlpha, u"TWO");
  EXPECT_TRUE(after.find_entry(kAlpha, u"two").has_value());
  EXPECT_TRUE(after.find_entry(kAlpha, u"TWO").has_value());
}

// ---- Renames that fail half-way ------------------------------------------------------------------------------------

// Moves "gamma" to "beta" with a catalog of its own, which takes no part in the faults.
kvfs_result move_gamma(const Volume& volume) {
  std::optional<FaultInjector::Pause> pause(std::in_place);
  std::optional<ChangedCatalog> catalog(std::in_place, volume);
  kvfs_catalog_record_locator* parent = catalog->open(kRootFolderId, u"alpha");
  kvfs_catalog_record_locator* locator = catalog->open(kAlpha, u"gamma", parent);
  const HFSPlusCatalogKey key = stored_key(kBeta, u"delta");
  pause.reset();
  const kvfs_result result =
      kvfs_catalog_rename_record(catalog->get(), &locator, key.parentID, key.nodeName.unicode, 5);
  pause.emplace();
  EXPECT_TRUE(result != kvfs_ok || locator == nullptr);
  catalog.reset();
  pause.reset();
  return result;
}

// The messages of the rename itself in all of the runs.
std::set<std::string> messages_of(const std::vector<FailedRun>& runs, const std::string& function) {
  std::set<std::string> messages;
  for (const FailedRun& run : runs) {
    for (const std::string& line : run.log) {
      if (line.find(" " + function + " ") != std::string::npos) {
        messages.insert(line);
      }
    }
  }
  return messages;
}

const std::set<std::string>& rename_messages() {
  static const std::set<std::string> messages = {
      "ERROR kvfs_catalog_rename_record Error while deleting catalog thread record from B-tree.\n",
      "ERROR kvfs_catalog_rename_record Error while deleting record from B-tree.\n",
      "ERROR kvfs_catalog_rename_record Error while inserting record into catalog.\n",
      "ERROR kvfs_catalog_rename_record Error while inserting thread record for renamed entry.\n",
      "ERROR kvfs_catalog_rename_record Error while searching for containing folder of newly inserted record by CNID.\n",
      "ERROR kvfs_catalog_rename_record Error while searching for thread record by CNID.\n",
  };
  return messages;
}

TEST(CatalogRename, EachAllocationFailing_IsOutOfMemoryAndReported) {
  const Volume volume = small_volume();
  const std::vector<FailedRun> runs = fail_each(each_allocation(), [&] { return move_gamma(volume); });
  EXPECT_GE(runs.size(), 10u);
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_no_memory) << "allocation " << run.n;
  }
  std::set<std::string> expected = rename_messages();
  // By then the tree has memory for nodes, and needs no other.
  expected.erase("ERROR kvfs_catalog_rename_record Error while deleting catalog thread record from B-tree.\n");
  EXPECT_EQ(messages_of(runs, "kvfs_catalog_rename_record"), expected);
  EXPECT_EQ(messages_of(runs, "kvfs_catalog_insert_record"),
            (std::set<std::string>{
                "ERROR kvfs_catalog_insert_record Error in kvfs_btree_insert_record.\n",
                "ERROR kvfs_catalog_insert_record Error while creating kvfs_catalog_record_locator.\n",
            }));
}

TEST(CatalogRename, EachWriteLockRefused_FailsOrLeaksOneLocatorAndIsReported) {
  const Volume volume = small_volume();
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockWrlock), [&] { return move_gamma(volume); });
  std::set<std::string> messages = messages_of(runs, "kvfs_catalog_rename_record");
  messages.insert("ERROR kvfs_catalog_update_valence Error while writing out updated parent valence.\n");
  EXPECT_TRUE(std::includes(messages.begin(), messages.end(), rename_messages().begin(), rename_messages().end()));
  for (const FailedRun& run : runs) {
    EXPECT_GE(run.log.size(), 2u) << "lock " << run.n;
    const bool fails = !messages_of({run}, "kvfs_catalog_rename_record").empty();
    EXPECT_EQ(run.result, fails ? kvfs_failed : kvfs_ok) << "lock " << run.n << ": " << run.log.back();
  }
}

TEST(CatalogRename, EachReadLockRefused_FailsAndIsReported) {
  const Volume volume = small_volume();
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockRdlock), [&] { return move_gamma(volume); });
  EXPECT_GE(runs.size(), 5u);
  for (const FailedRun& run : runs) {
    const bool fails = !messages_of({run}, "kvfs_catalog_rename_record").empty();
    EXPECT_EQ(run.result, fails ? kvfs_failed : kvfs_ok) << "lock " << run.n << ": " << run.log.back();
    EXPECT_TRUE(fails || !messages_of({run}, "kvfs_catalog_update_valence").empty()) << "lock " << run.n;
  }
}

TEST(CatalogRename, EachUnlockFailing_FailsOrIsIgnoredWithAMessage) {
  const Volume volume = small_volume();
  const std::vector<FailedRun> runs = fail_each(each(Call::kRwlockUnlock), [&] { return move_gamma(volume); });
  EXPECT_EQ(messages_of(runs, "kvfs_catalog_rename_record"), rename_messages());
  for (const FailedRun& run : runs) {
    EXPECT_GE(run.log.size(), 2u) << "unlock " << run.n;
    const bool fails = !messages_of({run}, "kvfs_catalog_rename_record").empty();
    EXPECT_EQ(run.result, fails ? kvfs_failed : kvfs_ok) << "unlock " << run.n << ": " << run.log.back();
  }
}

TEST(CatalogRename, ReadFailing_IsAnInputErrorAndReported) {
  VolumeDescription description = small_description();
  (void)description.add_files(kBeta, 300);  // so that the two folders lie in leaves of their own
  const Volume volume = build_volume(description);
  const std::vector<FailedRun> runs = fail_each(each(Call::kPread64), [&] { return move_gamma(volume); });
  EXPECT_FALSE(runs.empty());
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_io_error) << "read " << run.n;
    EXPECT_EQ(messages_of({run}, "kvfs_catalog_rename_record").size(), 1u) << "read " << run.n;
  }
}

}  // namespace
}  // namespace kvfs_test
