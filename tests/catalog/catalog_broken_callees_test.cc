// What the catalog does about a routine below it that breaks its contract: one that succeeds and gives nothing, one
// that fails and never does, one that gives another buffer than it was handed.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "btree/private.h"
#include "item_fixture.h"
#include "replaced_routine.h"
#include "unicode.h"

namespace {
using kvfs_test::BrokenCall;
BrokenCall g_opening;      // of a catalog locator: succeeds without one
BrokenCall g_search;       // by ID: succeeds without a locator
BrokenCall g_counting_in;  // of an item in its folder: fails
BrokenCall g_counting_out;
BrokenCall g_conversion;                               // to UTF-8: allocates its result
kvfs_catalog_search_result* g_first_result = nullptr;  // that a search by key was to fill
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_catalog_record_locator_open, real_open, wrap_open);
KVFS_REPLACED_ROUTINE(kvfs_catalog_search_by_cnid, real_search_by_cnid, wrap_search_by_cnid);
KVFS_REPLACED_ROUTINE(kvfs_catalog_search_node, real_search_node, wrap_search_node);
KVFS_REPLACED_ROUTINE(kvfs_catalog_increment_valence, real_increment, wrap_increment);
KVFS_REPLACED_ROUTINE(kvfs_catalog_decrement_valence, real_decrement, wrap_decrement);
KVFS_REPLACED_ROUTINE(kvfs_unicode_unistr_to_utf8, real_to_utf8, wrap_to_utf8);

kvfs_result wrap_open(kvfs_catalog* catalog, kvfs_btree_record_locator* record, std::uint32_t type,
                      kvfs_catalog_record_locator* parent, std::uint32_t reserved,
                      kvfs_catalog_record_locator** out_locator) {
  if (g_opening.is_due()) {
    kvfs_btree_record_locator_close(&record);  // it is the locator's, whatever became of that
    return kvfs_ok;
  }
  return real_open(catalog, record, type, parent, reserved, out_locator);
}

kvfs_result wrap_search_by_cnid(kvfs_catalog* catalog, std::uint32_t cnid, bool follow,
                                kvfs_catalog_search_result* out_result) {
  return g_search.is_due() ? kvfs_ok : real_search_by_cnid(catalog, cnid, follow, out_result);
}

kvfs_result wrap_search_node(kvfs_catalog* catalog, const HFSPlusCatalogKey* key,
                             kvfs_catalog_search_result* out_result) {
  g_first_result = g_first_result == nullptr ? out_result : g_first_result;
  return real_search_node(catalog, key, out_result);
}

kvfs_result wrap_increment(kvfs_catalog* catalog, const void* child, kvfs_catalog_record_locator* parent) {
  return g_counting_in.is_due() ? kvfs_failed : real_increment(catalog, child, parent);
}

kvfs_result wrap_decrement(kvfs_catalog* catalog, const void* child, kvfs_catalog_record_locator* parent) {
  return g_counting_out.is_due() ? kvfs_failed : real_decrement(catalog, child, parent);
}

kvfs_result wrap_to_utf8(const std::uint16_t* units, std::size_t count, std::int32_t byte_order, char** outs,
                         std::size_t* outs_len) {
  if (!g_conversion.is_due()) {
    return real_to_utf8(units, count, byte_order, outs, outs_len);
  }
  *outs = static_cast<char*>(std::malloc(sizeof("other")));
  std::memcpy(*outs, "other", sizeof("other"));
  *outs_len = std::strlen(*outs);
  return kvfs_ok;
}

namespace kvfs_test {
namespace {

// The root folder holds the folders 16 "folder", with the folder 17 "inner" and the file 18 "file" in it, and 19 "other".
// In the private folder 20 lies the file 21 of 1234 bytes, to which 22 "link" is a hard link.
constexpr std::uint32_t kFolder = 16;
constexpr std::uint32_t kInner = 17;
constexpr std::uint32_t kFile = 18;
constexpr std::uint32_t kOther = 19;

Volume volume_made() {
  VolumeDescription description;
  (void)description.add_folder(kRootFolderId, u"folder");
  (void)description.add_folder(kFolder, u"inner");
  (void)description.add_file(kFolder, u"file");
  (void)description.add_folder(kRootFolderId, u"other");
  (void)description.add_hard_link(kRootFolderId, u"link", description.add_inode(1234));
  return build_volume(description);
}

// What became of an item of the folder 16 that was to be moved or deleted, of its thread and of its count.
std::string whereabouts(const Volume& volume, const Name& name) {
  const std::optional<RecordPlace> thread = volume.find_thread(name == u"inner" ? kInner : kFile);
  return std::string(volume.find_entry(kFolder, name)    ? "here"
                     : volume.find_entry(kOther, u"new") ? "there"
                                                         : "gone") +
         ", thread to " + (thread ? std::to_string(volume.get_field(thread->path() + ".parentID")) : "none") + ", " +
         std::to_string(volume.get_field("fileCount") + volume.get_field("folderCount")) + " items";
}

using Operation = std::uint64_t (*)(OpenVolume&, ItemLocator* item, kvfs_catalog_search_result* found);

// An operation, the call below it that is broken, and what comes of that.
struct BrokenCase {
  const char* name;
  BrokenCall* call;
  unsigned n;  // of the calls of that routine from when the operation begins
  Operation operate;
  std::uint64_t result;
  Lines messages;
  Name item = u"file";  // in the folder 16, opened before the operation
  const char* whereabouts = "here, thread to 16, 7 items";

  friend void PrintTo(const BrokenCase& broken, std::ostream* stream) { *stream << broken.name; }
};

class CatalogBrokenCallee : public ::testing::TestWithParam<BrokenCase> {};

TEST_P(CatalogBrokenCallee, IsReportedAndLeavesNothingOpen) {
  const BrokenCase& broken = GetParam();
  OpenVolume volume(volume_made());
  ItemLocator item(volume, kFolder, broken.item);
  Searched found;
  LogCapture log;
  broken.call->choose(broken.n);
  EXPECT_EQ(broken.operate(volume, &item, found.out()), broken.result);
  EXPECT_TRUE(broken.call->is_over());
  broken.call->choose(0);
  EXPECT_TRUE(log.matches(broken.messages));
  EXPECT_EQ(found.text(), "nothing");
  item.close();
  EXPECT_EQ(volume.open_locators(), 0u);
  EXPECT_EQ(volume.catalog_tree()->priv->open_locators, nullptr);
  EXPECT_EQ(whereabouts(volume.flushed(), broken.item), broken.whereabouts);
}

std::string name_of(const ::testing::TestParamInfo<BrokenCase>& suite) {
  return suite.param.name;
}

// ---- Lookup --------------------------------------------------------------------------------------------------------

std::uint64_t search_by_id(OpenVolume& volume, ItemLocator* /*item*/, kvfs_catalog_search_result* found) {
  return kvfs_catalog_search_by_cnid(volume.catalog(), kFolder, true, found);
}

std::uint64_t search_by_path(OpenVolume& volume, ItemLocator* /*item*/, kvfs_catalog_search_result* found) {
  kvfs_catalog_utf8_path path = {"folder/inner"};
  return kvfs_catalog_search_by_path(volume.catalog(), kvfs_catalog_utf8_path_component, &path, nullptr, found);
}

// Gives a component, and takes away what the search has found before it.
kvfs_result take_found_away(void* /*context*/, kvfs_be16* buffer, std::size_t /*capacity*/, std::size_t* out_length) {
  kvfs_catalog_search_result_release(g_first_result);
  buffer[0].set(u'x');
  *out_length = 1;
  return kvfs_ok;
}

std::uint64_t search_for_what_vanishes(OpenVolume& volume, ItemLocator* /*item*/, kvfs_catalog_search_result* found) {
  g_first_result = nullptr;
  return kvfs_catalog_search_by_path(volume.catalog(), take_found_away, nullptr, nullptr, found);
}

HFSPlusCatalogFile link_record() {
  const Volume image = volume_made();
  const Bytes data = image.record_data(image.find_entry(kRootFolderId, u"link").value());
  HFSPlusCatalogFile link = {};
  std::memcpy(&link, data.data(), sizeof(link));
  return link;
}

std::uint64_t follow_link(OpenVolume& volume, ItemLocator* /*item*/, kvfs_catalog_search_result* found) {
  const HFSPlusCatalogFile link = link_record();
  return kvfs_catalog_follow_hard_link(volume.catalog(), &link, found);
}

std::uint64_t measure_link(OpenVolume& volume, ItemLocator* /*item*/, kvfs_catalog_search_result* /*found*/) {
  const HFSPlusCatalogFile link = link_record();
  return kvfs_catalog_record_get_file_size(&link, volume.catalog());
}

constexpr char kLinkNotFollowed[] = "ERROR kvfs_catalog_record_get_file_size Error while following hard link.\n";

const BrokenCase kLookups[] = {
    {"IdWithoutThread",
     &g_opening,
     1,
     search_by_id,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_search_by_cnid Unexpected: kvfs_catalog_search_node returned NULL locator but no "
      "error.\n"}},
    {"IdWithoutTarget",
     &g_opening,
     2,
     search_by_id,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_search_by_cnid Unexpected: kvfs_catalog_follow_thread returned NULL locator but no "
      "error.\n"}},
    {"PathWithoutThreadOfItsStart", &g_opening, 1, search_by_path, kvfs_ok, {}},
    {"PathWithoutTarget",
     &g_opening,
     2,
     search_by_path,
     kvfs_inconsistent,
     {"ERROR kvfs_catalog_search_by_path kvfs_catalog_search_by_path: Thread target not found.\n"}},
    {"PathWithoutComponent", &g_opening, 3, search_by_path, kvfs_ok, {}},
    {"PathWithoutLastComponent", &g_opening, 4, search_by_path, kvfs_ok, {}},
    {"PathWhoseFindVanishes",
     &g_opening,
     0,
     search_for_what_vanishes,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_search_by_path Unexpected: NULL current_entry but non-0 nodeNameLength (1).\n"}},
    {"LinkWithoutThread", &g_opening, 1, follow_link, kvfs_internal, {}},
    {"LinkWithoutTarget", &g_opening, 2, follow_link, kvfs_ok, {}},
    {"SizeWithoutThread", &g_opening, 1, measure_link, 0, {kLinkNotFollowed}},
    {"SizeWithoutTarget", &g_opening, 2, measure_link, 0, {kLinkNotFollowed}},
};

INSTANTIATE_TEST_SUITE_P(Lookup, CatalogBrokenCallee, ::testing::ValuesIn(kLookups), name_of);

// ---- Deletion ------------------------------------------------------------------------------------------------------

std::uint64_t look_into_folder(OpenVolume& volume, ItemLocator* folder, kvfs_catalog_search_result* /*found*/) {
  int empty = 5;
  const kvfs_result result = kvfs_catalog_is_directory_empty(volume.catalog(), folder->get(), &empty);
  EXPECT_EQ(empty, 5);
  return result;
}

std::uint64_t delete_item(OpenVolume& volume, ItemLocator* item, kvfs_catalog_search_result* /*found*/) {
  return kvfs_catalog_delete(volume.catalog(), volume.get(), item->get());
}

// A record that is gone with its thread left and itself counted.
constexpr char kGoneAlone[] = "gone, thread to 16, 7 items";

const BrokenCase kDeletions[] = {
    {"FolderWithoutThread",
     &g_search,
     1,
     look_into_folder,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_is_directory_empty Unexpected: kvfs_catalog_search_by_cnid returned NULL locator with no "
      "error.\n"},
     u"inner"},
    {"DeletedFileWithoutThread",
     &g_opening,
     1,
     delete_item,
     kvfs_ok,
     {"WARNING kvfs_catalog_delete No thread record found for deleted file.\n"},
     u"file",
     kGoneAlone},
    {"DeletedFolderWithoutThread",
     &g_opening,
     1,
     delete_item,
     kvfs_ok,
     {"WARNING kvfs_catalog_delete No thread record found for deleted folder.\n"},
     u"inner",
     kGoneAlone},
    {"DeletedFileThatCannotBeCountedOut",
     &g_counting_out,
     1,
     delete_item,
     kvfs_failed,
     {"ERROR kvfs_catalog_delete kvfs_catalog_delete: Failed to set parent valence.\n"},
     u"file",
     kGoneAlone},
};

INSTANTIATE_TEST_SUITE_P(Deletion, CatalogBrokenCallee, ::testing::ValuesIn(kDeletions), name_of);

// ---- Renaming ------------------------------------------------------------------------------------------------------

std::uint64_t move_item(OpenVolume& volume, ItemLocator* item, kvfs_catalog_search_result* /*found*/) {
  const std::vector<kvfs_be16> name = stored_units(u"new");
  kvfs_catalog_record_locator* locator = item->release();
  const kvfs_result result =
      kvfs_catalog_rename_record(volume.catalog(), &locator, kvfs_be32::of(kOther), name.data(), name.size());
  EXPECT_EQ(locator, nullptr);
  return result;
}

// A record at its new place with its old thread.
constexpr char kMovedAlone[] = "there, thread to 16, 7 items";

const BrokenCase kMoves[] = {
    {"OldFolderThatCannotCount",
     &g_counting_out,
     1,
     move_item,
     kvfs_failed,
     {"ERROR kvfs_catalog_rename_record Error when decrementing valence of old parent folder.\n"},
     u"file",
     kGoneAlone},
    {"NewRecordWithoutLocator",
     &g_opening,
     1,
     move_item,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_rename_record Unexpected: kvfs_catalog_insert_record returned NULL locator but no error "
      "after inserting new record for renamed item into catalog.\n"},
     u"file",
     kMovedAlone},
    {"NewFolderWithoutLocator",
     &g_search,
     1,
     move_item,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_rename_record Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error "
      "after searching for new containing folder of renamed item by CNID.\n"},
     u"file",
     kMovedAlone},
    {"NewFolderThatCannotCount",
     &g_counting_in,
     1,
     move_item,
     kvfs_failed,
     {"ERROR kvfs_catalog_rename_record Error when incrementing valence of new parent folder.\n"},
     u"file",
     kMovedAlone},
    {"ThreadWithoutLocator",
     &g_search,
     2,
     move_item,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_rename_record Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error "
      "when seaching for thread of inserted record.\n"},
     u"file",
     kMovedAlone},
    {"NewThreadWithoutLocator",
     &g_opening,
     5,
     move_item,
     kvfs_internal,
     {"CRITICAL kvfs_catalog_rename_record Unexpected: kvfs_catalog_insert_record returned NULL locator but no error "
      "after inserting new thread record.\n"},
     u"file",
     "there, thread to 19, 7 items"},
};

INSTANTIATE_TEST_SUITE_P(Move, CatalogBrokenCallee, ::testing::ValuesIn(kMoves), name_of);

// ---- Names ---------------------------------------------------------------------------------------------------------

TEST(CatalogBrokenConverter, NameInAnotherBuffer_IsReportedAndFreed) {
  const std::vector<kvfs_be16> units = stored_units(u"name");
  char buffer[16] = "";
  FaultInjector faults;
  LogCapture log;
  g_conversion.choose(1);
  EXPECT_EQ(kvfs_catalog_widechar_to_utf8(units.data(), units.size(), buffer, sizeof(buffer)), 0u);
  EXPECT_LOG(log, "ERROR kvfs_catalog_widechar_to_utf8 utf8_string was unexpectedly reallocated!\n");
  EXPECT_EQ(faults.count_allocations(), 1u);
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

}  // namespace
}  // namespace kvfs_test
