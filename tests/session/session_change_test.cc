// Changes through a session: the label, names, deletion, symbolic links, and what is refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "btree/private.h"
#include "log_capture.h"
#include "session/private.h"
#include "session_fixture.h"
#include "unix/system.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;

// The root folder holds the folders 16 "docs", 20 "empty" and 21 "late", which came into "docs" after its creation, and
// some files that keep the nodes filled. "docs" holds 17 "data", 18 "blank" and 19 "sub".
VolumeDescription described() {
  VolumeDescription description;
  const std::uint32_t docs = description.add_folder(kRootFolderId, u"docs");
  const std::uint32_t data = description.add_file(docs, u"data");
  description.item(data).data = {50000, pattern(50000), 3, 1, 0};
  description.item(data).resource = {9000, pattern(9000), 2, 1, 0};
  (void)description.add_file(docs, u"blank");
  (void)description.add_folder(docs, u"sub");
  (void)description.add_folder(kRootFolderId, u"empty");
  (void)description.add_files(kRootFolderId, 5);
  description.folder_counts = true;
  return description;
}

class SessionChanges : public ::testing::Test {
 protected:
  [[nodiscard]] const TestSession& session() const { return session_; }
  void expect_unchanged() const { EXPECT_TRUE(session_.contents() == image_); }

 private:
  const Volume image_ = build_volume(described());
  const TestSession session_{image_};
};

// ---- Label ---------------------------------------------------------------------------------------------------------

TEST_F(SessionChanges, Label_IsSetAndFoundOnTheDeviceAfterTheFlush) {
  EXPECT_EQ(kvfs_session_set_label(session().get(), "R\u00E9sum\u00E9 / 2"), KVFS_OK);
  EXPECT_EQ(session().label(), "R\u00E9sum\u00E9 / 2");
  EXPECT_EQ(session().facts().has_unflushed_changes, 1);
  expect_unchanged();
  EXPECT_EQ(session().flushed_findings(), "");
  EXPECT_EQ(session().facts().has_unflushed_changes, 0);
  EXPECT_EQ(to_utf8(read_label(session().contents())), "Re\u0301sume\u0301 / 2");
}

TEST_F(SessionChanges, TextThatIsNoLabel_IsRefusedAndChangesNothing) {
  LogCapture silence;
  EXPECT_EQ(kvfs_session_set_label(session().get(), ""), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_set_label(session().get(), "\xC3"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_set_label(session().get(), "\xF4\x90\x80\x80"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_set_label(session().get(), std::string(256, 'x').c_str()), KVFS_INVALID);
  std::string accents;
  for (int i = 0; i < 128; ++i) {
    accents += "\u00E9";
  }
  EXPECT_EQ(kvfs_session_set_label(session().get(), accents.c_str()), KVFS_INVALID);
  EXPECT_EQ(session().facts().has_unflushed_changes, 0);
  EXPECT_EQ(kvfs_session_set_label(session().get(), std::string(255, 'x').c_str()), KVFS_OK);
  EXPECT_EQ(session().flushed_findings(), "");
}

// ---- Renaming ------------------------------------------------------------------------------------------------------

TEST_F(SessionChanges, Rename_KeepsFolderAndContent) {
  const Bytes content = session().read(session().id("docs/data"));
  EXPECT_EQ(session().rename("docs/data", "docs", "DATA"), KVFS_OK);
  EXPECT_STREQ(session().item("docs/data").name, "DATA");
  EXPECT_EQ(session().rename("docs/data", "docs", "a%u002Fb"), KVFS_OK);
  EXPECT_EQ(session().rename("docs/a%u002Fb", "docs", "a%u002Fb"), KVFS_OK);
  EXPECT_THAT(session().names("docs"), ElementsAre("a%u002Fb", "blank", "sub"));
  EXPECT_EQ(session().read(session().id("docs/a%u002Fb")), content);
  EXPECT_EQ(session().flushed_findings(), "");
}

TEST_F(SessionChanges, MoveOfAFolder_CountsItInAndOut) {
  EXPECT_EQ(session().rename("docs/sub", "empty", "moved"), KVFS_OK);
  EXPECT_EQ(session().item("docs").valence, 2U);
  EXPECT_EQ(session().item("empty").valence, 1U);
  EXPECT_EQ(session().flushed_findings(), "");
  EXPECT_EQ(TestSession(session().contents()).item("empty/moved").kind, KVFS_FOLDER);
}

// The record of a folder stands behind those of its items where it lies in a folder with a higher ID, and moves when
// one of them leaves.
TEST_F(SessionChanges, FolderBehindItsItems_IsCountedAllTheSame) {
  EXPECT_EQ(session().rename("docs", "empty", "docs"), KVFS_OK);
  EXPECT_EQ(session().rename("empty/docs/data", "/", "data"), KVFS_OK);
  EXPECT_EQ(session().rename("empty/docs/blank", "empty/docs", "white"), KVFS_OK);
  EXPECT_EQ(session().item("empty/docs").valence, 2U);
  EXPECT_EQ(session().remove("empty/docs/white"), KVFS_OK);
  EXPECT_EQ(session().remove("empty/docs/sub"), KVFS_OK);
  EXPECT_EQ(session().item("empty/docs").valence, 0U);
  EXPECT_EQ(session().remove("empty/docs"), KVFS_OK);
  EXPECT_EQ(session().flushed_findings(), "");
}

TEST_F(SessionChanges, RenameThatCannotBe_IsRefusedAndChangesNothing) {
  LogCapture silence;
  kvfs_session* const s = session().get();
  const std::uint32_t data = session().id("docs/data");
  const std::uint32_t docs = session().id("docs");
  const std::uint32_t sub = session().id("docs/sub");
  EXPECT_EQ(kvfs_session_rename(s, data, docs, "BLANK"), KVFS_EXISTS);
  EXPECT_EQ(kvfs_session_rename(s, data, docs, ""), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, data, docs, "a/b"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, data, docs, "a%u0000"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, data, docs, "\xFF"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, data, docs, std::string(256, 'n').c_str()), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, KVFS_ROOT_ID, 9999, "name"), KVFS_NOT_FOUND) << "the place is looked for first";
  EXPECT_EQ(kvfs_session_rename(s, data, 99, "n"), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_rename(s, data, data, "n"), KVFS_NOT_A_FOLDER);
  EXPECT_EQ(kvfs_session_rename(s, 99, docs, "n"), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_rename(s, KVFS_ROOT_ID, docs, "n"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, docs, docs, "n"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_rename(s, docs, sub, "n"), KVFS_INVALID);
  EXPECT_EQ(session().facts().has_unflushed_changes, 0);
  EXPECT_EQ(session().flush(), KVFS_OK);
  expect_unchanged();
}

TEST(SessionRename, LongestNameOfAnyUnits_IsStored) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  (void)description.add_files(kRootFolderId, 3);
  const TestSession session(build_volume(description));
  for (const char* const unit : {"%uD800", "\u20AC"}) {
    std::string name;
    for (int i = 0; i < 255; ++i) {
      name += unit;
    }
    EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, name.c_str()), KVFS_OK);
    EXPECT_EQ(session.item(name).id, file);
    EXPECT_EQ(session.item(name).name, name);
    EXPECT_EQ(session.flushed_findings(), "");
  }
}

// ---- Deletion ------------------------------------------------------------------------------------------------------

TEST_F(SessionChanges, Delete_FreesTheBlocksOfBothForks) {
  const std::uint32_t before = session().facts().free_block_count;
  const kvfs_item data = session().item("docs/data");
  const std::uint32_t blocks =
      static_cast<std::uint32_t>((data.data_allocated + data.resource_allocated) / session().facts().block_size);
  EXPECT_EQ(session().remove("docs/data"), KVFS_OK);
  EXPECT_EQ(session().find("docs/data"), KVFS_NOT_FOUND);
  EXPECT_EQ(session().item("docs").valence, 2U);
  EXPECT_EQ(session().facts().free_block_count, before) << "blocks are freed by the flush";
  EXPECT_EQ(session().flushed_findings(), "");
  EXPECT_EQ(session().facts().free_block_count, before + blocks);
  EXPECT_EQ(session().facts().file_count, 6U);
}

TEST_F(SessionChanges, DeleteOfAnEmptyFolder_IsCounted) {
  EXPECT_EQ(session().remove("docs"), KVFS_NOT_EMPTY);
  EXPECT_EQ(session().remove("docs/sub"), KVFS_OK);
  EXPECT_EQ(session().remove("empty"), KVFS_OK);
  EXPECT_EQ(session().facts().folder_count, 1U);
  EXPECT_EQ(session().flushed_findings(), "");
}

TEST(SessionDelete, FileWithOverflowExtents_LeavesNothingBehind) {
  VolumeDescription description;
  description.block_size = 512;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  const std::uint32_t other = description.add_file(kRootFolderId, u"other");
  description.item(file).data = {512 * 50, {}, 50, 1, 0};
  description.item(file).resource = {512 * 20, {}, 20, 1, 0};
  description.item(other).data = {512 * 10, {}, 10, 1, 0};
  (void)description.add_files(kRootFolderId, 4);
  const TestSession session(build_volume(description));
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
  LogCapture silence;
  EXPECT_EQ(kvfs_session_delete(session.get(), other), KVFS_LIMIT) << "the overflow file would have no records";
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST(SessionDelete, WhatMustStay_IsRefusedAndChangesNothing) {
  VolumeDescription description;
  const std::uint32_t inode = description.add_inode(5000);
  const std::uint32_t link = description.add_hard_link(kRootFolderId, u"hard", inode);
  const std::uint32_t folder_link = description.add_directory_hard_link(kRootFolderId, u"dir", 77);
  const std::uint32_t private_folder = description.private_folder();
  (void)description.add_files(kRootFolderId, 5);
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_delete(session.get(), link), KVFS_LIMIT);
  EXPECT_EQ(kvfs_session_delete(session.get(), folder_link), KVFS_LIMIT);
  EXPECT_EQ(kvfs_session_delete(session.get(), inode), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_delete(session.get(), private_folder), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_delete(session.get(), KVFS_ROOT_ID), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_delete(session.get(), 99), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_rename(session.get(), link, private_folder, "n"), KVFS_INVALID);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The folder with the folders that folder links stand for has a name without a NUL.
TEST(SessionChange, PrivateFolderOfFolderLinks_StaysAsItIs) {
  const Name name = u".HFS+ Private Directory Data\r";
  VolumeDescription description;
  const std::uint32_t private_folder = description.add_folder(kRootFolderId, name);
  const std::uint32_t target = description.add_folder(private_folder, u"dir_77");
  const std::uint32_t inside = description.add_file(target, u"inside");
  const std::uint32_t other = description.add_file(target, u"other");
  (void)description.add_directory_hard_link(kRootFolderId, u"link", target);
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t elsewhere = description.add_folder(folder, name);
  (void)description.add_files(kRootFolderId, 5);
  const Volume image = build_volume(description);
  const TestSession session(image);
  for (const std::uint32_t id : {private_folder, target}) {
    EXPECT_EQ(kvfs_session_delete(session.get(), id), KVFS_INVALID);
    EXPECT_EQ(kvfs_session_rename(session.get(), id, folder, "n"), KVFS_INVALID);
  }
  EXPECT_EQ(kvfs_session_rename(session.get(), other, private_folder, "n"), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(session.get(), private_folder, "l", "t", nullptr), KVFS_INVALID);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(kvfs_session_delete(session.get(), inside), KVFS_OK) << "what a link shows is its folder's";
  EXPECT_EQ(kvfs_session_delete(session.get(), elsewhere), KVFS_OK) << "only that of the root folder is private";
  EXPECT_EQ(session.flushed_findings(), "");
}

// An empty one is refused for what it is, and not only for what it holds.
TEST(SessionChange, EmptyPrivateFolderOfFolderLinks_StaysAsItIs) {
  VolumeDescription description;
  const std::uint32_t private_folder = description.add_folder(kRootFolderId, u".HFS+ Private Directory Data\r");
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description));
  EXPECT_EQ(kvfs_session_delete(session.get(), private_folder), KVFS_INVALID);
}

// It could not be given another name again.
TEST_F(SessionChanges, NameOfAPrivateFolder_IsGivenToNoItem) {
  const char* const name = ".HFS+ Private Directory Data\r";
  EXPECT_EQ(session().rename("empty", "/", name), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(session().get(), KVFS_ROOT_ID, name, "t", nullptr), KVFS_INVALID);
  EXPECT_EQ(session().rename("empty", "docs", name), KVFS_OK);
  EXPECT_EQ(session().remove(std::string("docs/") + name), KVFS_OK);
  for (const char* other : {".HFS+ Private", ".HFS+ Private Directory Data", ".HFS+ Private Directory Data\r\r",
                            "-HFS+ Private Directory Data\r"}) {
    EXPECT_EQ(session().rename("docs", "/", other), KVFS_OK) << other;
    EXPECT_EQ(session().rename(other, "/", "docs"), KVFS_OK) << other;
  }
}

// Every item of a large folder but those that a node needs.
TEST(SessionDelete, ManyItems_LeaveASoundVolume) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t first = description.add_files(folder, 300);
  const TestSession session(build_volume(description));
  std::uint32_t refused = 0;
  LogCapture silence;
  for (std::uint32_t i = 0; i < 300; ++i) {
    const std::uint64_t result = kvfs_session_delete(session.get(), first + i);
    EXPECT_TRUE(result == KVFS_OK || result == KVFS_LIMIT) << result;
    refused += result == KVFS_LIMIT ? 1 : 0;
  }
  EXPECT_GT(refused, 0U);
  EXPECT_LT(refused, 50U);
  EXPECT_EQ(session.item("d").valence, refused);
  EXPECT_EQ(session.flushed_findings(), "");
  EXPECT_EQ(TestSession(session.contents()).names("d").size(), refused);
}

TEST(SessionDelete, BlocksThatCannotBeTheFiles_AreNotFreed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 5000);
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  const std::uint32_t catalog = static_cast<std::uint32_t>(sound.get_field("catalogFile.extents[0].startBlock"));
  const std::uint32_t free_block = static_cast<std::uint32_t>(sound.get_field("totalBlocks")) - 10;
  for (const std::uint32_t start : {0U, catalog, free_block, 0xFFFFFFF0U}) {
    Volume image = sound;
    image.set_field(image.find_by_cnid(file)->path() + ".dataFork.extents[0].startBlock", start);
    const TestSession session(image);
    LogCapture silence;
    EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT) << start;
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image) << start;
  }
}

TEST(SessionDelete, ForkThatCannotBeOpened_IsRefusedAndChangesNothing) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 5000);
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  image.set_field(image.find_by_cnid(file)->path() + ".resourceFork.logicalSize", 1);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_open_fork File 16 of 1 bytes and 0 blocks is larger than its space.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// ---- Symbolic links ------------------------------------------------------------------------------------------------

TEST_F(SessionChanges, SymbolicLink_IsMadeWithItsTarget) {
  std::uint32_t id = 0;
  const std::uint32_t next_id = session().facts().next_id;
  const std::int64_t before = kvfs_system_time();
  EXPECT_EQ(kvfs_session_make_link(session().get(), session().id("docs"), "l\u00EFnk", "../caf\u00E9/x", &id), KVFS_OK);
  EXPECT_EQ(id, next_id);
  const kvfs_item link = session().item("docs/l\u00EFnk");
  EXPECT_EQ(link.id, id);
  EXPECT_EQ(link.kind, KVFS_SYMBOLIC_LINK);
  EXPECT_EQ(link.mode, 0120777U);
  for (const std::int64_t date : {link.creation_date, link.modification_date, link.change_date, link.access_date}) {
    EXPECT_GE(date, before);
    EXPECT_LE(date, kvfs_system_time());
  }
  EXPECT_EQ(link.backup_date, KVFS_NO_DATE);
  char target[KVFS_TARGET_SIZE];
  EXPECT_EQ(kvfs_session_read_link(session().get(), id, target, sizeof(target), nullptr), KVFS_OK);
  EXPECT_STREQ(target, "../caf\u00E9/x");
  EXPECT_EQ(session().item("docs").valence, 4U);
  EXPECT_EQ(session().facts().file_count, 8U);
  EXPECT_EQ(session().flushed_findings(), "");
  EXPECT_EQ(session().remove("docs/l\u00EFnk"), KVFS_OK);
  EXPECT_EQ(session().flushed_findings(), "");
}

TEST_F(SessionChanges, LinkThatCannotBe_IsRefusedAndChangesNothing) {
  kvfs_session* const s = session().get();
  const std::string longest(255, 't');
  LogCapture silence;
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "docs", "t", nullptr), KVFS_EXISTS);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "", "t", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", "", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", "a\\b", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", "\xFF", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", "\xF4\x90\x80\x80", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", (longest + "t").c_str(), nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(s, 99, "l", "t", nullptr), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_make_link(s, session().id("docs/data"), "l", "t", nullptr), KVFS_NOT_A_FOLDER);
  EXPECT_EQ(session().flush(), KVFS_OK);
  expect_unchanged();
  EXPECT_EQ(kvfs_session_make_link(s, KVFS_ROOT_ID, "l", longest.c_str(), nullptr), KVFS_OK);
  EXPECT_EQ(session().flushed_findings(), "");
}

TEST(SessionLink, FullVolume_HasNoSpace) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 5);
  description.spare_blocks = 0;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_NO_SPACE);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionLink, NextIDThatIsTaken_IsInconsistent) {
  VolumeDescription description;
  const std::uint32_t first = description.add_files(kRootFolderId, 5);
  description.next_catalog_id = first;
  const TestSession session(build_volume(description));
  LogCapture log;
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_make_link The next catalog node ID, 16, is in use.\n");
  EXPECT_EQ(session.find("l"), KVFS_NOT_FOUND);
}

// ---- The index above what changes ----------------------------------------------------------------------------------

// The label's record is the first of the catalog, and so are the index records that lead to it.
TEST(SessionIndex, LowerIndexNodeOfOneRecord_IsRefusedWithNothingChanged) {
  VolumeDescription description;
  const std::uint32_t first = description.add_folders(kRootFolderId, 30);
  description.catalog.height = 5;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Second"), KVFS_LIMIT);
  EXPECT_TRUE(log.has("ERROR", "kvfs_session_check_index", " of 1 records would have none for a moment."));
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(kvfs_session_rename(session.get(), first + 5, KVFS_ROOT_ID, "g"), KVFS_OK) << "not spoiled";
}

TEST(SessionIndex, RootFolderAloneInItsNode_IsRefusedWithNothingChanged) {
  VolumeDescription description;
  description.catalog.max_leaf_records = 1;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Second"), KVFS_LIMIT);
  EXPECT_LOG(log, "ERROR kvfs_session_set_label The root folder's record is alone in node 1.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The search for an index record ends in a node of another height, whose locator the search gives back itself.
TEST(SessionIndex, LeafThatIsTheRootOfADeeperTree_LetsNoLabelBeSet) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  image.set_field("catalog.header.treeDepth", 3);
  const TestSession session(image);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_set_label(session.get(), "label"), KVFS_INCONSISTENT);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionIndex, LeavesDirectlyBelowARootOfHeightThree_LetNoItemBeDeleted) {
  VolumeDescription description;
  const std::uint32_t first = description.add_files(kRootFolderId, 100);
  Volume image = build_volume(description);
  ASSERT_EQ(image.get_field("catalog.header.treeDepth"), 2u);
  const std::string root = std::to_string(image.get_field("catalog.header.rootNode"));
  image.set_field("catalog.header.treeDepth", 3);
  image.set_field("catalog.node[" + root + "].height", 3);
  const std::uint32_t leaf = image.leaf_nodes(Tree::kCatalog)[1];
  for (std::uint32_t id = first; id < first + 100; ++id) {
    const RecordPlace place = *image.find_by_cnid(id);
    if (place.node != leaf || place.index != 0) {
      continue;
    }
    const TestSession session(image);
    LogCapture silence;
    EXPECT_EQ(kvfs_session_delete(session.get(), id), KVFS_INCONSISTENT);
    EXPECT_EQ(session.facts().has_unflushed_changes, 0);
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
    return;
  }
  ADD_FAILURE() << "no item is the first of its leaf";
}

TEST(SessionIndex, EachFailingCallWhileItIsLookedAt_IsPassedOn) {
  VolumeDescription description;
  (void)description.add_folders(kRootFolderId, 30);
  description.catalog.max_leaf_records = 3;
  description.catalog.max_index_records = 4;
  const LogCapture closing;  // references that locks failed to give back are reported when the session is closed
  const TestSession session(build_volume(description));
  kvfs_session_found root;
  ASSERT_EQ(kvfs_catalog_search_by_cnid(session.get()->volume->catalog, kRootFolderId, true, root.out()), kvfs_ok);
  kvfs_btree* const tree = *session.get()->volume->catalog->btree;
  const auto check = [&](FailingRun& run) {
    return run.operate([&] { return kvfs_session_check_index(tree, root.record(), nullptr); });
  };
  const std::pair<FailingCalls, kvfs_result> kinds[] = {{each_allocation(), kvfs_no_memory},
                                                        {each(Call::kRwlockRdlock), kvfs_failed}};
  for (const auto& [failing, expected] : kinds) {
    const unsigned long failures = fail_each(failing, [&, expected = expected](FailingRun& run) {
      const kvfs_result result = check(run);
      EXPECT_EQ(result, run.failed() ? expected : kvfs_ok) << run.n();
    });
    EXPECT_GE(failures, 4U) << failing.name();
  }
  // Closing a locator never fails.
  unsigned long failed = 0;
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockUnlock}) {
    (void)fail_each(each(call), [&](FailingRun& run) {
      const kvfs_result result = check(run);
      EXPECT_TRUE(result == kvfs_ok || result == kvfs_failed) << result;
      failed += result == kvfs_failed ? 1 : 0;
    });
  }
  EXPECT_GE(failed, 8U);
}

// The locator that a lock did not give back is closed, too.
TEST(SessionIndex, LockThatIsNotReleasedWhileItIsLookedAt_LeavesNoLocatorOpen) {
  VolumeDescription description;
  (void)description.add_folders(kRootFolderId, 30);
  description.catalog.max_leaf_records = 3;
  description.catalog.max_index_records = 4;
  const TestSession session(build_volume(description));
  kvfs_session_found root;
  ASSERT_EQ(kvfs_catalog_search_by_cnid(session.get()->volume->catalog, kRootFolderId, true, root.out()), kvfs_ok);
  kvfs_btree* const tree = *session.get()->volume->catalog->btree;
  const kvfs_btree_record_locator* const only = tree->priv->open_locators;
  const unsigned long failures = fail_each(each(Call::kRwlockUnlock), [&](FailingRun& run) {
    (void)run.operate([&] { return kvfs_session_check_index(tree, root.record(), nullptr); });
    EXPECT_EQ(tree->priv->open_locators, only) << run.n();
  });
  EXPECT_GE(failures, 4U);
}

TEST(SessionIndex, BehindAnOperationThatHasUsedUpItsWork_IsLookedAtAllTheSame) {
  VolumeDescription description;
  (void)description.add_folders(kRootFolderId, 30);
  description.catalog.max_leaf_records = 3;
  description.catalog.max_index_records = 4;
  const TestSession session(build_volume(description));
  kvfs_session_found root;
  ASSERT_EQ(kvfs_catalog_search_by_cnid(session.get()->volume->catalog, kRootFolderId, true, root.out()), kvfs_ok);
  kvfs_btree* const tree = *session.get()->volume->catalog->btree;
  tree->priv->work_left = 0;
  EXPECT_EQ(kvfs_session_check_index(tree, root.record(), nullptr), kvfs_ok);
}

// The second leaf of three records holds the thread of "d", "f" in it, and the thread of that.
TEST(SessionIndex, ItemAndThreadThatLeaveOneRecordInTheirLeaf_AreDeleted) {
  VolumeDescription description;
  (void)description.add_file(description.add_folder(kRootFolderId, u"d"), u"f");
  description.catalog.max_leaf_records = 3;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.remove("d/f"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

// Leaves of two records under index nodes of two. The third leaf holds "c" and "d", the fourth the threads of "c" and
// "d": both lie under the second index node, and each loses its first record with "c".
VolumeDescription narrow_catalog() {
  VolumeDescription description;
  for (const char16_t* const name : {u"c", u"d", u"a", u"b"}) {
    (void)description.add_folder(kRootFolderId, name);
  }
  description.catalog.max_leaf_records = description.catalog.max_index_records = 2;
  return description;
}

TEST(SessionIndex, ItemAndThreadThatWouldEmptyAnIndexNode_AreRefusedWithNothingChanged) {
  const Volume image = build_volume(narrow_catalog());
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(session.remove("c"), KVFS_LIMIT);
  EXPECT_TRUE(log.has("ERROR", "kvfs_session_check_index", " of 2 records would have none for a moment."));
  EXPECT_EQ(session.rename("c", "", "cc"), KVFS_LIMIT);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(session.rename("d", "", "dd"), KVFS_OK) << "not spoiled";
  EXPECT_EQ(session.flushed_findings(), "");
}

// Wherever a record lies, its change is made, or refused with nothing changed.
TEST(SessionIndex, EachChangeInNarrowCatalogs_LeavesASoundVolume) {
  constexpr int kFolders = 12;
  LogCapture silence;
  unsigned refused = 0;
  for (const std::uint16_t per_leaf : {std::uint16_t{2}, std::uint16_t{3}}) {
    for (const std::uint16_t per_index : {std::uint16_t{2}, std::uint16_t{3}, std::uint16_t{4}}) {
      VolumeDescription description;
      const std::uint32_t first = description.add_folders(kRootFolderId, kFolders);
      description.catalog.max_leaf_records = per_leaf;
      description.catalog.max_index_records = per_index;
      const Volume image = build_volume(description);
      for (std::uint32_t id = first; id < first + kFolders; ++id) {
        const TestSession renamed(image);
        const TestSession deleted(image);
        const std::uint64_t results[] = {kvfs_session_rename(renamed.get(), id, KVFS_ROOT_ID, "other"),
                                         kvfs_session_delete(deleted.get(), id)};
        for (const std::uint64_t result : results) {
          EXPECT_TRUE(result == KVFS_OK || result == KVFS_LIMIT) << id << ' ' << per_leaf << ' ' << per_index;
          refused += result == KVFS_LIMIT ? 1 : 0;
        }
        EXPECT_EQ(renamed.flushed_findings(), "");
        EXPECT_EQ(deleted.flushed_findings(), "");
      }
    }
  }
  EXPECT_GT(refused, 0U);
  EXPECT_LT(refused, 72U) << "most changes are possible";
}

// "e" is the first of the first leaf under the second index node, its thread that of the third leaf there.
TEST(SessionIndex, ItemAndThreadInLeavesThatAreNotSideBySide_LeaveTheirIndexNodeOneByOne) {
  VolumeDescription description;
  for (const char16_t* const name : {u"a", u"b", u"e", u"c", u"d", u"f"}) {
    (void)description.add_folder(kRootFolderId, name);
  }
  description.catalog.max_leaf_records = 2;
  description.catalog.max_index_records = 3;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.rename("e", "", "ee"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST(SessionIndex, EachFailingCallWhileTwoRecordsAreLookedAt_IsPassedOn) {
  const LogCapture closing;
  const TestSession session(build_volume(narrow_catalog()));
  kvfs_catalog* const catalog = session.get()->volume->catalog;
  kvfs_session_found item;
  kvfs_session_found thread;
  ASSERT_EQ(kvfs_catalog_search_by_cnid(catalog, 16, true, item.out()), kvfs_ok);
  ASSERT_EQ(kvfs_catalog_search_by_cnid(catalog, 16, false, thread.out()), kvfs_ok);
  const unsigned long failures = fail_each(each_allocation(), [&](FailingRun& run) {
    const kvfs_result result =
        run.operate([&] { return kvfs_session_check_index(*catalog->btree, item.record(), thread.record()); });
    EXPECT_EQ(result, run.failed() ? kvfs_no_memory : kvfs_limit) << run.n();
  });
  EXPECT_EQ(failures, 2U);
}

// The thread of "f" alone is the first of its leaf, and that leaf the only one under its index node.
TEST(SessionIndex, ThreadThatWouldEmptyAnIndexNode_IsRefusedWithNothingChanged) {
  VolumeDescription description;
  for (const char16_t* const name : {u"a", u"b", u"c", u"d", u"e", u"f", u"g", u"h"}) {
    (void)description.add_folder(kRootFolderId, name);
  }
  description.catalog.max_leaf_records = 3;
  description.catalog.max_index_records = 5;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(session.rename("f", "", "ff"), KVFS_LIMIT);
  EXPECT_TRUE(log.has("ERROR", "kvfs_session_check_index", " of 1 records would have none for a moment."));
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// Leaves of two overflow records under index nodes of two: the third leaf is the only one under its index node.
TEST(SessionIndex, OverflowRecordThatWouldEmptyAnIndexNode_IsRefusedWithNothingChanged) {
  VolumeDescription description;
  description.block_size = description.extents.node_size = 512;
  for (const char16_t* const name : {u"a", u"b", u"c", u"d", u"e", u"f"}) {
    (void)description.add_file(kRootFolderId, name, 512 * 12, 12);
  }
  description.extents.max_leaf_records = description.extents.max_index_records = 2;
  const Volume image = build_volume(description);
  ASSERT_EQ(image.get_field("extents.header.treeDepth"), 3U);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(session.remove("e"), KVFS_LIMIT);
  EXPECT_TRUE(log.has("ERROR", "kvfs_session_check_index", " of 1 records would have none for a moment."));
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(session.remove("c"), KVFS_OK) << "its index node keeps another one";
  EXPECT_EQ(session.flushed_findings(), "");
}

// Only in the first nodes of the tree is the second key searched for: "e" begins another one, before the leaf that
// begins with the private folder.
TEST(SessionIndex, PrivateFolderBehindALeafThatIsNotTheFirst_KeepsNothingFromChanging) {
  VolumeDescription description;
  for (const char16_t* const name : {u"a", u"b", u"c", u"d", u"e", u"f"}) {
    (void)description.add_folder(kRootFolderId, name);
  }
  (void)description.private_folder();
  description.catalog.max_leaf_records = 2;
  description.catalog.max_index_records = 3;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.rename("e", "", "ee"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

// The second leaf of three levels comes to begin with the private folder, whose key no search finds.
TEST(SessionIndex, KeyThatNoSearchFinds_IsRefusedWithNothingChanged) {
  VolumeDescription description;
  (void)description.add_folder(kRootFolderId, u"a");
  const std::uint32_t moved = description.add_folder(kRootFolderId, u"b");
  (void)description.private_folder();
  (void)description.add_folders(moved, 60);
  description.catalog.max_leaf_records = 3;
  description.catalog.max_index_records = 4;
  const TestSession session(build_volume(description));
  ASSERT_EQ(kvfs_session_set_label(session.get(), "First"), KVFS_OK);
  ASSERT_EQ(session.rename("b", "a", "b"), KVFS_OK);
  ASSERT_EQ(session.flushed_findings(), "");
  const Volume image = session.contents();
  LogCapture log;
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Second"), KVFS_LIMIT);
  EXPECT_LOG(log, "ERROR kvfs_session_check_index No index record of height 2 is found by its key.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(session.rename("a/b", "", "c"), KVFS_OK) << "not spoiled";
  EXPECT_EQ(session.flushed_findings(), "");
}

// ---- Who may change ------------------------------------------------------------------------------------------------

TEST(SessionForReading, Changes_AreRefused) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  const TestSession session(build_volume(description), 0);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "x"), KVFS_READ_ONLY);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "g"), KVFS_READ_ONLY);
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_READ_ONLY);
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_READ_ONLY);
  EXPECT_EQ(session.flush(), KVFS_OK);
}

TEST(SessionWithoutAllocationFile, BlocksCannotChange) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description), KVFS_OPEN_WRITE | KVFS_OPEN_NO_ALLOCATION);
  LogCapture log;
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "f", "t", nullptr), KVFS_INVALID);
  EXPECT_LOG(log);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "g"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

// A root node that is full cannot take a longer name: the catalog does not grow in height.
TEST(SessionSpoiled, AfterAChangeThatFailedHalfWay_OnlyDiscardingHelps) {
  VolumeDescription description;
  const std::uint32_t first = description.add_files(kRootFolderId, 12);
  const Volume image = build_volume(description);
  ASSERT_EQ(image.get_field("catalog.header.treeDepth"), 1U);
  const TestSession session(image);
  LogCapture silence;
  const std::string longest(255, 'x');
  EXPECT_EQ(kvfs_session_rename(session.get(), first, KVFS_ROOT_ID, longest.c_str()), KVFS_INTERNAL);
  EXPECT_EQ(kvfs_session_rename(session.get(), first + 1, KVFS_ROOT_ID, "g"), KVFS_SPOILED);
  EXPECT_EQ(session.flush(), KVFS_SPOILED);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(kvfs_session_rename(session.get(), first + 1, KVFS_ROOT_ID, "g"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

}  // namespace
}  // namespace kvfs_test
