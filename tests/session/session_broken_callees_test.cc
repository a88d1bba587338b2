// Sessions above routines that break their contracts: what each function answers, and that nothing is changed.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include "extents.h"
#include "replaced_routine.h"
#include "session/private.h"
#include "session_fixture.h"
#include "unicode.h"
#include "volume_builder.h"

namespace {
using kvfs_test::BrokenCall;
BrokenCall g_composing;        // overflows
BrokenCall g_conversion;       // to UTF-8: fails
BrokenCall g_reading_name;     // fails
BrokenCall g_removal;          // is not expected: fails
BrokenCall g_search;           // by ID: finds nothing
BrokenCall g_next_record;      // is the end of the catalog
BrokenCall g_records_in_node;  // fails
BrokenCall g_overflow_search;  // g_damage is done to what it has found
void (*g_damage)(kvfs_btree_search_result* found) = nullptr;
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_unicode_compose, real_compose, wrap_compose);
KVFS_REPLACED_ROUTINE(kvfs_unicode_unistr_to_utf8, real_to_utf8, wrap_to_utf8);
KVFS_REPLACED_ROUTINE(kvfs_session_read_name, real_read_name, wrap_read_name);
KVFS_REPLACED_ROUTINE(kvfs_session_expect_removal, real_expect_removal, wrap_expect_removal);
KVFS_REPLACED_ROUTINE(kvfs_catalog_search_by_cnid, real_search, wrap_search);
KVFS_REPLACED_ROUTINE(kvfs_catalog_get_next_record, real_next_record, wrap_next_record);
KVFS_REPLACED_ROUTINE(kvfs_session_records_in_node, real_records_in_node, wrap_records_in_node);
KVFS_REPLACED_ROUTINE(kvfs_extents_search, real_overflow_search, wrap_overflow_search);

int wrap_compose(const kvfs_be16* src, std::size_t src_count, std::uint16_t* dst, std::size_t capacity,
                 std::size_t* count) {
  return g_composing.is_due() ? 1 : real_compose(src, src_count, dst, capacity, count);
}

kvfs_result wrap_to_utf8(const std::uint16_t* units, std::size_t count, std::int32_t byte_order, char** outs,
                         std::size_t* outs_len) {
  return g_conversion.is_due() ? kvfs_invalid : real_to_utf8(units, count, byte_order, outs, outs_len);
}

kvfs_result wrap_read_name(const char* text, std::size_t size, kvfs_session_name* name) {
  return g_reading_name.is_due() ? kvfs_invalid : real_read_name(text, size, name);
}

kvfs_result wrap_expect_removal(kvfs_session* session, const kvfs_session_found& item) {
  return g_removal.is_due() ? kvfs_failed : real_expect_removal(session, item);
}

kvfs_result wrap_search(kvfs_catalog* catalog, std::uint32_t cnid, bool follow, kvfs_catalog_search_result* result) {
  const kvfs_result searched = real_search(catalog, cnid, follow, result);
  if (g_search.is_due()) {
    result->found = 0;
  }
  return searched;
}

kvfs_result wrap_next_record(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                             kvfs_catalog_record_locator** out_next) {
  return g_next_record.is_due() ? kvfs_ok : real_next_record(catalog, locator, out_next);
}

kvfs_result wrap_records_in_node(kvfs_btree* tree, std::uint32_t node, std::uint16_t* count) {
  return g_records_in_node.is_due() ? kvfs_io_error : real_records_in_node(tree, node, count);
}

kvfs_result wrap_overflow_search(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                                 std::uint32_t start_block, kvfs_btree_search_result* out_result) {
  const kvfs_result result = real_overflow_search(extents, fork_type, file_id, start_block, out_result);
  if (g_overflow_search.is_due()) {
    g_damage(out_result);
  }
  return result;
}

namespace kvfs_test {
namespace {

// ---- Texts ---------------------------------------------------------------------------------------------------------

TEST(SessionBrokenCallee, LabelThatOverflowsComposed_IsReported) {
  const TestSession session(build_volume({}));
  char text[KVFS_LABEL_SIZE] = "before";
  std::size_t length = 77;
  LogCapture log;
  g_composing.choose(1);
  EXPECT_EQ(kvfs_session_label(session.get(), KVFS_LABEL_COMPOSED, text, sizeof(text), &length), KVFS_OVERFLOW);
  EXPECT_LOG(log, "ERROR kvfs_session_label Error while converting the volume label to UTF-8.\n");
  EXPECT_STREQ(text, "before");
  EXPECT_EQ(length, 77u);
}

TEST(SessionBrokenCallee, CharacterThatIsNotConverted_IsLeftOut) {
  const kvfs_be16 units[] = {kvfs_be16::of('a'), kvfs_be16::of('b'), kvfs_be16::of('c')};
  char text[KVFS_NAME_SIZE];
  g_conversion.choose(2);
  EXPECT_EQ(kvfs_session_spell(units, 3, text), 2u);
  EXPECT_STREQ(text, "ac");
}

TEST(SessionBrokenCallee, RootFolderThatIsNotFound_KeepsItsLabel) {
  const Volume image = build_volume({});
  const TestSession session(image);
  LogCapture log;
  g_search.choose(1);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "label"), KVFS_INCONSISTENT);
  EXPECT_TRUE(g_search.is_over());
  EXPECT_LOG(log, "ERROR kvfs_session_set_label The root folder is missing.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionBrokenCallee, RootFolderThatIsNotFoundBeforeAFlush_IsInconsistentAndNothingIsWritten) {
  const Volume image = build_volume({});
  const TestSession session(image);
  ASSERT_EQ(kvfs_session_set_label(session.get(), "label"), KVFS_OK);
  LogCapture log;
  g_search.choose(1);
  EXPECT_EQ(session.flush(), KVFS_INCONSISTENT);
  EXPECT_TRUE(g_search.is_over());
  EXPECT_LOG(log, "ERROR kvfs_session_check_catalog The root folder is missing.\n");
  EXPECT_TRUE(session.contents() == image);
}

// ---- Links ---------------------------------------------------------------------------------------------------------

// Two names are read for a hard link: of the private folder and of the file in it.
TEST(SessionBrokenCallee, NameOfALinkTargetThatCannotBeRead_FailsTheOpening) {
  VolumeDescription description;
  (void)description.add_hard_link(kRootFolderId, u"link", description.add_inode(600));
  for (unsigned n = 1; n <= 2; ++n) {
    const TestSession session(build_volume(description));
    const std::uint32_t link = session.id("link");
    kvfs_stream* stream = nullptr;
    LogCapture log;
    g_reading_name.choose(n);
    EXPECT_EQ(kvfs_stream_open(session.get(), link, KVFS_DATA_FORK, &stream), KVFS_INVALID);
    EXPECT_EQ(stream, nullptr);
    EXPECT_LOG(log);
    EXPECT_EQ(session.read(link).size(), 600u);  // the failure is not remembered
  }
}

// The private folder keeps its name, so that a second link leads there without it.
TEST(SessionBrokenCallee, PrivateFolderThatIsKnown_IsNotLookedForAgain) {
  VolumeDescription description;
  (void)description.add_hard_link(kRootFolderId, u"link", description.add_inode(600));
  const TestSession session(build_volume(description));
  const std::uint32_t link = session.id("link");
  EXPECT_EQ(session.read(link).size(), 600u);
  g_reading_name.choose(2);
  EXPECT_EQ(session.read(link).size(), 600u);
  EXPECT_FALSE(g_reading_name.is_over());
  g_reading_name.choose(0);
}

// ---- Streams -------------------------------------------------------------------------------------------------------

TEST(SessionBrokenCallee, StreamThatIsOpenAnew_LooksForItsFileOnce) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 600);
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description));
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
  ASSERT_EQ(session.rename("f", "/", "renamed"), KVFS_OK);
  std::uint64_t size = 0;
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
  g_search.choose(1);
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
  EXPECT_EQ(size, 600u);
  EXPECT_FALSE(g_search.is_over());
  g_search.choose(0);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

// ---- Listings ------------------------------------------------------------------------------------------------------

// Names with NULs are not searched: the listing goes through all items again to get behind the one given last.
TEST(SessionBrokenCallee, CatalogThatEndsBeforeTheItemGivenLast_EndsTheListing) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  for (char16_t i = 0; i < 40; ++i) {
    (void)description.add_file(folder, {u'\0', static_cast<char16_t>(0x4E00 + i)});
  }
  const TestSession session(build_volume(description));
  kvfs_listing* listing = nullptr;
  ASSERT_EQ(kvfs_listing_open(session.get(), folder, &listing), KVFS_OK);
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  for (int i = 0; i < 32; ++i) {  // the first batch
    ASSERT_EQ(kvfs_listing_next(listing, &item), KVFS_OK) << i;
  }
  LogCapture log;
  g_next_record.choose(2);  // behind the folder's thread and the first item
  EXPECT_EQ(kvfs_listing_next(listing, &item), KVFS_END);
  EXPECT_TRUE(g_next_record.is_over());
  EXPECT_LOG(log);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
}

// ---- Renaming ------------------------------------------------------------------------------------------------------

TEST(SessionBrokenCallee, RemovalThatCannotBePrepared_IsNotMade) {
  VolumeDescription description;
  (void)description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description));
  g_removal.choose(1);
  EXPECT_EQ(session.rename("d", "/", "renamed"), KVFS_FAILED);
  EXPECT_EQ(session.find("d"), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_SPOILED);
}

// ---- Changes -------------------------------------------------------------------------------------------------------

// Values that say that nothing has changed are given only where that is so.
TEST(SessionBrokenCallee, ItemThatVanishesInAChange_IsNotFoundBeforeItBeginsAndSpoilsTheSessionBehind) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t file = description.add_file(folder, u"f");
  (void)description.add_files(kRootFolderId, 5);
  const Volume before = build_volume(description);
  const auto link = [&](kvfs_session* s) { return kvfs_session_make_link(s, folder, "l", "t", nullptr); };
  const auto move = [&](kvfs_session* s) { return kvfs_session_rename(s, file, KVFS_ROOT_ID, "g"); };
  const auto remove = [&](kvfs_session* s) { return kvfs_session_delete(s, file); };
  const std::function<std::uint64_t(kvfs_session*)> changes[] = {link, move, remove};
  for (const auto& change : changes) {
    unsigned spoiled = 0;
    for (unsigned n = 1;; ++n) {
      const TestSession session(before);
      LogCapture silence;
      g_search.choose(n);
      const std::uint64_t result = change(session.get());
      if (!g_search.is_over()) {
        g_search.choose(0);
        break;
      }
      const std::uint64_t flushed = session.flush();
      if (flushed == KVFS_SPOILED) {
        EXPECT_EQ(result, KVFS_INCONSISTENT) << n;
        ++spoiled;
      } else {
        EXPECT_TRUE(result == KVFS_OK || session.contents() == before) << n;
      }
    }
    EXPECT_NE(spoiled, 0u);
  }
}

TEST(SessionBrokenCallee, NodeThatCannotBeReadBeforeADeletion_IsTheFailureAndNothingChanges) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  (void)description.add_files(kRootFolderId, 5);
  const Volume before = build_volume(description);
  for (unsigned n = 1; n <= 2; ++n) {
    const TestSession session(before);
    LogCapture log;
    g_records_in_node.choose(n);
    EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_IO_ERROR);
    EXPECT_TRUE(g_records_in_node.is_over());
    EXPECT_LOG(log);
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == before);
  }
}

// ---- Deletion ------------------------------------------------------------------------------------------------------

void find_nothing(kvfs_btree_search_result* found) {
  found->found = 0;
}

void cut_record(kvfs_btree_search_result* found) {
  found->locator->data_size = sizeof(HFSPlusExtentRecord) - 1;
}

void empty_record(kvfs_btree_search_result* found) {
  std::memset(const_cast<unsigned char*>(found->locator->data), 0, sizeof(HFSPlusExtentRecord));
}

// A file with one record in the overflow file, which a deletion looks up twice: to count it, and to delete it.
Volume overflowing_volume() {
  VolumeDescription description;
  description.block_size = 512;
  const std::uint32_t file = description.add_file(kRootFolderId, u"file");
  description.item(file).data = {512 * 12, {}, 12, 1, 0};
  const std::uint32_t other = description.add_file(kRootFolderId, u"other");
  description.item(other).data = {512 * 12, {}, 12, 1, 0};
  return build_volume(description);
}

// X-session-3
TEST(SessionBrokenCallee, OverflowRecordThatVanishesBeforeADeletion_IsRefusedAndNothingChanges) {
  const Volume before = overflowing_volume();
  for (const auto damage : {find_nothing, cut_record, empty_record}) {
    const TestSession session(before);
    LogCapture log;
    g_damage = damage;
    g_overflow_search.choose(1);
    EXPECT_EQ(session.remove("file"), KVFS_INCONSISTENT);
    EXPECT_LOG(log);
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == before);
  }
}

// X-session-3
TEST(SessionBrokenCallee, OverflowRecordThatVanishesInADeletion_SpoilsTheSession) {
  const Volume before = overflowing_volume();
  for (const auto damage : {find_nothing, cut_record, empty_record}) {
    const TestSession session(before);
    g_damage = damage;
    g_overflow_search.choose(2);
    EXPECT_EQ(session.remove("file"), KVFS_INCONSISTENT);
    EXPECT_TRUE(g_overflow_search.is_over());
    EXPECT_EQ(session.flush(), KVFS_SPOILED);
    EXPECT_TRUE(session.contents() == before);
  }
}

}  // namespace
}  // namespace kvfs_test
