// What a session tells of a volume: label, facts, items, listings, forks, blocks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "log_capture.h"
#include "session/private.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;

constexpr std::uint32_t kBlock = 4096;

// ---- Label and facts -----------------------------------------------------------------------------------------------

TEST(SessionLabel, ComposedAndStored_AreBothGiven) {
  VolumeDescription description;
  description.set_label("Caf\u00E9 /1");
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.label(), "Caf\u00E9 /1");
  EXPECT_EQ(session.label(KVFS_LABEL_STORED), "Cafe\u0301 /1");
}

TEST(SessionLabel, BufferTooSmall_TellsTheLengthAndLeavesTheBuffer) {
  const TestSession session(build_volume({}));
  char text[] = "........";
  std::size_t length = 0;
  EXPECT_EQ(kvfs_session_label(session.get(), KVFS_LABEL_COMPOSED, text, 8, &length), KVFS_OVERFLOW);
  EXPECT_EQ(length, std::strlen("Untitled"));
  EXPECT_STREQ(text, "........");
  EXPECT_EQ(kvfs_session_label(session.get(), KVFS_LABEL_COMPOSED, nullptr, 0, &length), KVFS_OVERFLOW);
  EXPECT_EQ(kvfs_session_label(session.get(), KVFS_LABEL_COMPOSED, text, 9, nullptr), KVFS_OK);
  EXPECT_STREQ(text, "Untitled");
}

TEST(SessionLabel, LoneSurrogate_IsInvalid) {
  VolumeDescription description;
  description.label = u"a\xD800";
  const TestSession session(build_volume(description));
  char text[KVFS_LABEL_SIZE];
  LogCapture log;
  EXPECT_EQ(kvfs_session_label(session.get(), KVFS_LABEL_STORED, text, sizeof(text), nullptr), KVFS_INVALID);
  EXPECT_LOG(log, "ERROR kvfs_session_label Error while converting the volume label to UTF-8.\n");
}

TEST(SessionFacts, AreThoseOfTheVolumeHeader) {
  VolumeDescription description;
  description.hfsx = true;
  description.case_sensitive = true;
  description.attributes = 0x2000;
  (void)description.add_file(description.add_folder(kRootFolderId, u"d"), u"f", 5000);
  Volume image = build_volume(description);
  image.set_field("finderInfo[6]", 0x01234567);
  image.set_field("finderInfo[7]", 0x89ABCDEF);
  image.set_field("createDate", 2082844800U + 86400);
  image.set_field("modifyDate", 2082844800U + 86401);
  image.set_field("backupDate", 0);
  image.set_field("checkedDate", 2082844800U + 86402);
  image.set_field("lastMountedVersion", 0x6B766673);
  image.set_field("writeCount", 12345);
  const TestSession session(image, 0);
  const kvfs_volume_facts facts = session.facts();
  EXPECT_EQ(facts.block_size, kBlock);
  EXPECT_EQ(facts.block_count, image.get_field("totalBlocks"));
  EXPECT_EQ(facts.size, std::uint64_t{kBlock} * facts.block_count);
  EXPECT_EQ(facts.free_block_count, image.get_field("freeBlocks"));
  EXPECT_EQ(facts.free_size, std::uint64_t{kBlock} * facts.free_block_count);
  EXPECT_EQ(facts.file_count, 1U);
  EXPECT_EQ(facts.folder_count, 1U);
  EXPECT_EQ(facts.next_id, image.get_field("nextCatalogID"));
  EXPECT_EQ(facts.identifier, 0x0123456789ABCDEFU);
  EXPECT_EQ(facts.creation_date, 86400);
  EXPECT_EQ(facts.modification_date, 86401);
  EXPECT_EQ(facts.backup_date, KVFS_NO_DATE);
  EXPECT_EQ(facts.check_date, 86402);
  EXPECT_EQ(facts.last_mounted_by, 0x6B766673U);
  EXPECT_EQ(facts.write_count, 12345U);
  EXPECT_EQ(facts.attributes, 0x2000U);
  EXPECT_EQ(facts.is_hfsx + facts.is_case_sensitive + facts.is_journaled + facts.is_dirty, 4);
  EXPECT_EQ(facts.is_locked + facts.is_writable + facts.has_unflushed_changes, 0);
  EXPECT_EQ(facts.has_allocation_file, 1);
}

TEST(SessionFacts, LargerStructureOfALaterProgram_IsFilledWithZeros) {
  const TestSession session(build_volume({}));
  struct {
    kvfs_volume_facts facts;
    std::uint64_t later;
  } newer = {};
  newer.facts.struct_size = sizeof(newer);
  newer.later = 7;
  EXPECT_EQ(kvfs_session_facts(session.get(), &newer.facts), KVFS_OK);
  EXPECT_EQ(newer.facts.struct_size, sizeof(newer));
  EXPECT_EQ(newer.facts.block_size, kBlock);
  EXPECT_EQ(newer.later, 0U);
  newer.facts.struct_size = sizeof(kvfs_volume_facts) - 1;
  EXPECT_EQ(kvfs_session_facts(session.get(), &newer.facts), KVFS_INVALID);
}

// ---- Items ---------------------------------------------------------------------------------------------------------

TEST(SessionFind, PathAndID_LeadToTheSameItem) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"Documents");
  const std::uint32_t file = description.add_file(folder, decomposed("r\u00E9sum\u00E9"), 5000);
  description.item(file).resource.size = 300;
  description.item(file).file_type = 0x54455854;
  description.item(file).mode = 0100600;
  const TestSession session(build_volume(description));
  const kvfs_item item = session.item("/documents//R\u00E9sum\u00E9/");
  EXPECT_EQ(item.id, file);
  EXPECT_EQ(item.parent_id, folder);
  EXPECT_EQ(item.kind, KVFS_FILE);
  EXPECT_STREQ(item.name, "re\u0301sume\u0301");
  EXPECT_EQ(item.data_size, 5000U);
  EXPECT_EQ(item.data_allocated, 2 * kBlock);
  EXPECT_EQ(item.resource_size, 300U);
  EXPECT_EQ(item.resource_allocated, kBlock);
  EXPECT_EQ(item.finder_type, 0x54455854U);
  EXPECT_EQ(item.mode, 0100600U);
  kvfs_item by_id = {};
  by_id.struct_size = sizeof(by_id);
  EXPECT_EQ(kvfs_session_find_id(session.get(), file, &by_id), KVFS_OK);
  EXPECT_EQ(std::memcmp(&by_id, &item, offsetof(kvfs_item, name)), 0);
  EXPECT_STREQ(by_id.name, item.name);
}

TEST(SessionFind, RootFolder_HasTheLabelForItsName) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 3);
  const TestSession session(build_volume(description));
  for (const char* path : {"", "/", "//"}) {
    const kvfs_item root = session.item(path);
    EXPECT_EQ(root.id, KVFS_ROOT_ID);
    EXPECT_EQ(root.parent_id, 1U);
    EXPECT_EQ(root.kind, KVFS_FOLDER);
    EXPECT_EQ(root.valence, 3U);
    EXPECT_STREQ(root.name, "Untitled");
  }
}

TEST(SessionFind, WhatIsMissing_IsNotFoundInSilence) {
  VolumeDescription description;
  (void)description.add_file(kRootFolderId, u"f");
  const TestSession session(build_volume(description));
  LogCapture log;
  EXPECT_EQ(session.find("g"), KVFS_NOT_FOUND);
  EXPECT_EQ(session.find("g/h"), KVFS_NOT_FOUND);
  EXPECT_EQ(session.find("f/h"), KVFS_NOT_A_FOLDER);
  EXPECT_EQ(session.find("."), KVFS_NOT_FOUND);
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  EXPECT_EQ(kvfs_session_find_id(session.get(), 99, &item), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_find(session.get(), 99, "f", &item), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_find(session.get(), kFirstUserId, "", &item), KVFS_NOT_A_FOLDER);
  EXPECT_EQ(item.id, 0U);
  EXPECT_LOG(log);
}

TEST(SessionFind, PathThatIsNoText_IsInvalid) {
  const TestSession session(build_volume({}));
  LogCapture silence;
  EXPECT_EQ(session.find("a\xFF"), KVFS_INVALID);
  EXPECT_EQ(session.find("\xF4\x90\x80\x80"), KVFS_INVALID);
  EXPECT_EQ(session.find(std::string(256, 'a')), KVFS_INVALID);
  EXPECT_EQ(session.find(std::string(255, 'a')), KVFS_NOT_FOUND);
}

TEST(SessionFind, EachKindOfItem_IsTold) {
  VolumeDescription description;
  const std::uint32_t inode = description.add_inode(1234);
  (void)description.add_hard_link(kRootFolderId, u"hard", inode);
  (void)description.add_directory_hard_link(kRootFolderId, u"folder link", 77);
  description.item(description.add_symlink(kRootFolderId, u"soft", "a/b")).special = 5;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.item("hard").kind, KVFS_HARD_LINK);
  EXPECT_EQ(session.item("hard").target_id, inode);
  EXPECT_EQ(session.item("hard").special, 0U);
  EXPECT_EQ(session.item("folder link").kind, KVFS_FOLDER_LINK);
  EXPECT_EQ(session.item("folder link").target_id, 77U);
  EXPECT_EQ(session.item("folder link").special, 0U);
  EXPECT_EQ(session.item("soft").kind, KVFS_SYMBOLIC_LINK);
  EXPECT_EQ(session.item("soft").target_id, 0U);
  EXPECT_EQ(session.item("soft").special, 5U);
}

TEST(SessionFind, WhatARecordSaysOfItsItem_IsTold) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"file");
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  Volume image = build_volume(description);
  for (const std::uint32_t id : {file, folder}) {
    const std::string record = image.find_by_cnid(id)->path();
    std::uint32_t days = 0;
    for (const char* date : {".createDate", ".contentModDate", ".attributeModDate", ".accessDate", ".backupDate"}) {
      image.set_field(record + date, 2082844800U + 86400 * ++days);
    }
    image.set_field(record + ".ownerID", 501);
    image.set_field(record + ".groupID", 20);
    image.set_field(record + ".adminFlags", 2);
    image.set_field(record + ".ownerFlags", 32);
    image.set_field(record + ".flags", 0x0042);
  }
  image.set_field(image.find_by_cnid(file)->path() + ".creator", 0x6B766673);
  const TestSession session(image);
  for (const char* path : {"file", "folder"}) {
    const kvfs_item item = session.item(path);
    EXPECT_EQ(item.creation_date, 86400);
    EXPECT_EQ(item.modification_date, 2 * 86400);
    EXPECT_EQ(item.change_date, 3 * 86400);
    EXPECT_EQ(item.access_date, 4 * 86400);
    EXPECT_EQ(item.backup_date, 5 * 86400);
    EXPECT_EQ(item.owner_id, 501U);
    EXPECT_EQ(item.group_id, 20U);
    EXPECT_EQ(item.admin_flags, 2U);
    EXPECT_EQ(item.owner_flags, 32U);
    EXPECT_EQ(item.record_flags, 0x0042U);
  }
  EXPECT_EQ(session.item("file").finder_creator, 0x6B766673U);
}

TEST(SessionFind, FinderFlags_AreToldOfFilesAndFolders) {
  VolumeDescription description;
  description.item(description.add_file(kRootFolderId, u"file")).finder_flags = 0x4321;
  description.item(description.add_folder(kRootFolderId, u"folder")).finder_flags = 0x8765;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.item("file").finder_flags, 0x4321U);
  EXPECT_EQ(session.item("folder").finder_flags, 0x8765U);
}

TEST(SessionFind, ThreadOfAnotherItem_IsInconsistent) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  Volume image = build_volume(description);
  image.set_field(image.find_by_cnid(file)->path() + ".fileID", 99);
  const TestSession session(image);
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  LogCapture log;
  EXPECT_EQ(kvfs_session_find_id(session.get(), file, &item), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_find_item The thread of item 16 leads to item 99.\n");
}

// ---- Names ---------------------------------------------------------------------------------------------------------

struct Spelling {
  Name stored;
  std::string text;
};

TEST(SessionNames, EachSpelledName_LeadsBackToItsItem) {
  const std::vector<Spelling> spellings = {
      {u"a/b", "a%u002Fb"},
      {u"100%", "100%"},
      {u"%u002F", "%u0025u002F"},
      {u"%u002f", "%u002f"},
      {u"%u00", "%u00"},
      {u"%u00\u00DF0", "%u00\u00DF0"},
      {u"\uE000\uFFFD", "\uE000\uFFFD"},
      {u"%/", "%%u002F"},
      {u"%u002/", "%u002%u002F"},
      {Name(u"x\xD800y"), "x%uD800y"},
      {Name(u"\xDC00"), "%uDC00"},
      {Name(u"\xD800\xD800\xDC00"), "%uD800\U00010000"},
      {Name(u"in\0ner", 6), "in%u0000ner"},
      {u"a:b\\c", "a:b\\c"},
      {u"e\u0301", "e\u0301"},
      {u"\U0001F600", "\U0001F600"},
      {Name(255, u'/'), ""},
  };
  VolumeDescription description;
  description.hfsx = true;
  description.case_sensitive = true;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"names");
  std::vector<std::uint32_t> ids;
  for (const Spelling& spelling : spellings) {
    ids.push_back(description.add_file(folder, spelling.stored));
  }
  const TestSession session(build_volume(description));
  for (std::size_t i = 0; i < spellings.size(); ++i) {
    kvfs_item item = {};
    item.struct_size = sizeof(item);
    ASSERT_EQ(kvfs_session_find_id(session.get(), ids[i], &item), KVFS_OK);
    if (!spellings[i].text.empty()) {
      EXPECT_EQ(item.name, spellings[i].text);
    }
    EXPECT_EQ(session.item(std::string("names/") + item.name).id, ids[i]) << item.name;
  }
}

TEST(SessionNames, UnitsBehindAName_AreNotReadWithIt) {
  const kvfs_be16 units[] = {kvfs_be16::of('%'), kvfs_be16::of('u'), kvfs_be16::of('0'),
                             kvfs_be16::of('0'), kvfs_be16::of('2'), kvfs_be16::of('F')};
  char text[KVFS_NAME_SIZE];
  EXPECT_EQ(kvfs_session_spell(units, 5, text), 5U);
  EXPECT_STREQ(text, "%u002");
}

TEST(SessionNames, StoredNameThatIsNotDecomposed_IsFoundByItsText) {
  VolumeDescription description;
  const std::uint32_t plain = description.add_file(kRootFolderId, u"\u00E9");
  const TestSession session(build_volume(description));
  EXPECT_STREQ(session.item("\u00E9").name, "%u00E9");
  EXPECT_EQ(session.id("\u00E9"), plain);
  EXPECT_EQ(session.find("e\u0301"), KVFS_NOT_FOUND);
}

// Decomposed, this name has as many units as before.
TEST(SessionNames, StoredNameOfOneOtherUnit_IsFoundByItsText) {
  VolumeDescription description;
  const std::uint32_t plain = description.add_file(kRootFolderId, u"\u0374");
  const TestSession session(build_volume(description));
  EXPECT_STREQ(session.item("\u0374").name, "%u0374");
  EXPECT_EQ(session.id("\u0374"), plain);
  EXPECT_EQ(session.find("\u02B9"), KVFS_NOT_FOUND);
}

TEST(SessionNames, MoreThan255Units_AreInvalid) {
  const TestSession session(build_volume({}));
  std::string spelled;
  for (int i = 0; i < 255; ++i) {
    spelled += "%u0061";
  }
  LogCapture log;
  EXPECT_EQ(session.find(spelled), KVFS_NOT_FOUND);
  EXPECT_EQ(session.find(spelled + "%u0061%u0061"), KVFS_INVALID);
  EXPECT_EQ(session.find(spelled + "text"), KVFS_INVALID);
  EXPECT_EQ(session.find("text" + spelled), KVFS_INVALID);
  const std::string message = "ERROR kvfs_session_read_name Name has more than 255 units.\n";
  EXPECT_LOG(log, message, message, message);
}

TEST(SessionNames, BothFormsOfAName_AreToldApartByTheSpelling) {
  VolumeDescription description;
  const std::uint32_t plain = description.add_file(kRootFolderId, u"\u00E9");
  const std::uint32_t stored = description.add_file(kRootFolderId, u"e\u0301");
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.id("\u00E9"), stored);
  EXPECT_EQ(session.id("%u00E9"), plain);
}

// What a listing says leads to the item that it is said of, and keeps its name when it is given to another folder.
TEST(SessionNames, UnitsThatWouldBeDecomposed_AreSpelled) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t plain = description.add_file(folder, u"a\u00E9\uD55Cz");
  const std::uint32_t stored = description.add_file(folder, u"ae\u0301\u1112\u1161\u11ABz");
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.id("d/a%u00E9%uD55Cz"), plain);
  EXPECT_EQ(session.id("d/a\u00E9\uD55Cz"), stored);
  for (const std::string& name : session.names("d")) {
    EXPECT_STREQ(session.item("d/" + name).name, name.c_str());
  }
  EXPECT_EQ(session.rename("d/a%u00E9%uD55Cz", "/", "a%u00E9%uD55Cz"), KVFS_OK);
  EXPECT_EQ(session.item("a%u00E9%uD55Cz").id, plain);
  EXPECT_EQ(session.flushed_findings(), "");
}

// ---- Listings ------------------------------------------------------------------------------------------------------

TEST(SessionListing, Items_ComeInTheOrderOfTheCatalog) {
  VolumeDescription description;
  for (const char16_t* name : {u"b", u"A", u"c"}) {
    (void)description.add_file(kRootFolderId, name);
  }
  (void)description.add_folder(kRootFolderId, u"empty");
  const TestSession session(build_volume(description));
  EXPECT_THAT(session.names("/"), ElementsAre("A", "b", "c", "empty"));
  EXPECT_THAT(session.names("empty"), ElementsAre());
}

TEST(SessionListing, ManyItems_EachComesOnce) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(folder, 1000);
  const TestSession session(build_volume(description));
  const std::vector<std::string> names = session.names("d");
  EXPECT_EQ(names.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

// Private folders come last in the order of names; none is told from another by a search. Where they stand first, as
// some systems have them, no search leads past them.
TEST(SessionListing, PrivateFoldersAmongManyItems_EachComesOnce) {
  for (const bool first : {false, true}) {
    VolumeDescription description;
    description.nul_names_by_units = first;
    (void)description.add_files(kRootFolderId, 95);
    for (char16_t i = 0; i < 70; ++i) {
      Name name(5, u'\0');
      name.back() = static_cast<char16_t>(0x4E00 + i);
      (void)description.add_folder(kRootFolderId, name);
    }
    const TestSession session(build_volume(description));
    std::vector<std::string> names = session.names("/");
    EXPECT_EQ(names.size(), 165U);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
    EXPECT_EQ(session.item("/%u0000%u0000%u0000%u0000\u4E01").kind, KVFS_FOLDER);
    EXPECT_EQ(session.find("/%u0000%u0000%u0000%u0000\u4DFF"), KVFS_NOT_FOUND);
  }
}

TEST(SessionListing, FileOrNothing_IsRefused) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  const TestSession session(build_volume(description));
  kvfs_listing* listing = nullptr;
  EXPECT_EQ(kvfs_listing_open(session.get(), file, &listing), KVFS_NOT_A_FOLDER);
  EXPECT_EQ(kvfs_listing_open(session.get(), 99, &listing), KVFS_NOT_FOUND);
  EXPECT_EQ(listing, nullptr);
}

TEST(SessionListing, ItemsThatStayDuringChanges_AreListedOnce) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(folder, 100);
  const TestSession session(build_volume(description));
  kvfs_listing* listing = nullptr;
  ASSERT_EQ(kvfs_listing_open(session.get(), folder, &listing), KVFS_OK);
  std::vector<std::string> names;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  LogCapture silence;  // of what changing a catalog of several levels says
  while (kvfs_listing_next(listing, &item) == KVFS_OK) {
    names.emplace_back(item.name);
    if (names.size() % 10 == 5) {
      EXPECT_EQ(kvfs_session_delete(session.get(), item.id), KVFS_OK);
    }
  }
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  EXPECT_EQ(names.size(), 100U);
  EXPECT_EQ(session.names("d").size(), 90U);
}

// A ring of leaves leads to the same items again and again.
TEST(SessionListing, RingOfNodes_Ends) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(folder, 200);
  Volume image = build_volume(description);
  const std::vector<std::uint32_t> leaves = image.leaf_nodes(Tree::kCatalog);
  ASSERT_GT(leaves.size(), 3U);
  image.set_field("catalog.node[" + std::to_string(leaves[2]) + "].fLink", leaves[1]);
  const TestSession session(image);
  kvfs_listing* listing = nullptr;
  ASSERT_EQ(kvfs_listing_open(session.get(), folder, &listing), KVFS_OK);
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  LogCapture silence;
  std::uint64_t result = KVFS_OK;
  for (int i = 0; i < 100000 && result == KVFS_OK; ++i) {
    result = kvfs_listing_next(listing, &item);
  }
  EXPECT_EQ(result, KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
}

// ---- Forks ---------------------------------------------------------------------------------------------------------

TEST(SessionStream, BothForksInPiecesOfAnySize_AreReadWhole) {
  VolumeDescription description;
  const Bytes data = pattern(100001);
  const Bytes resource = pattern(70003);
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  description.item(file).data = {data.size(), data, 5, 1, 0};
  description.item(file).resource = {resource.size(), resource, 12, 1, 0};
  const TestSession session(build_volume(description));
  for (const std::size_t piece : {1UL, 511UL, 512UL, 513UL, 4095UL, 4097UL, 50000UL, 1000000UL}) {
    if (piece != 1) {
      EXPECT_EQ(session.read(file, KVFS_DATA_FORK, piece), data) << piece;
    }
    EXPECT_EQ(session.read(file, KVFS_RESOURCE_FORK, piece), resource) << piece;
  }
}

TEST(SessionStream, ManyExtents_AreFoundInTheOverflowFile) {
  for (const std::uint32_t fork : {KVFS_DATA_FORK, KVFS_RESOURCE_FORK}) {
    VolumeDescription description;
    description.block_size = 512;
    const Bytes bytes = pattern(512 * 100 - 7);
    const std::uint32_t file = description.add_file(kRootFolderId, u"f");
    ForkDescription& described = fork == KVFS_DATA_FORK ? description.item(file).data : description.item(file).resource;
    described = {bytes.size(), bytes, 100, 1, 0};
    const TestSession session(build_volume(description));
    EXPECT_EQ(session.read(file, fork, 777), bytes);
  }
}

TEST(SessionStream, OffsetsInAnyOrder_AreRead) {
  VolumeDescription description;
  const Bytes bytes = pattern(60000);
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  description.item(file).data = {bytes.size(), bytes, 9, 1, 0};
  const TestSession session(build_volume(description));
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
  std::uint64_t size = 0;
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
  EXPECT_EQ(size, bytes.size());
  for (std::size_t i = 0; i < 200; ++i) {
    const std::size_t offset = i * 7919 % bytes.size();
    Bytes piece(1 + i * 31 % 9000);
    std::size_t count = 0;
    ASSERT_EQ(kvfs_stream_read(stream, offset, piece.data(), piece.size(), &count), KVFS_OK);
    ASSERT_EQ(count, std::min(piece.size(), bytes.size() - offset));
    EXPECT_TRUE(std::equal(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count),
                           bytes.begin() + static_cast<std::ptrdiff_t>(offset)))
        << offset;
  }
  std::size_t count = 7;
  EXPECT_EQ(kvfs_stream_read(stream, bytes.size(), nullptr, 0, &count), KVFS_OK);
  EXPECT_EQ(count, 0U);
  count = 7;
  char byte = 0;
  EXPECT_EQ(kvfs_stream_read(stream, UINT64_MAX, &byte, 1, &count), KVFS_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

TEST(SessionStream, HardLink_GivesTheFileThatItStandsFor) {
  VolumeDescription description;
  const std::uint32_t inode = description.add_inode();
  const Bytes bytes = pattern(5000);
  description.item(inode).data = {bytes.size(), bytes, 1, 1, 0};
  const std::uint32_t link = description.add_hard_link(kRootFolderId, u"link", inode);
  const std::uint32_t lost = description.add_hard_link(kRootFolderId, u"lost", 99);
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.read(link), bytes);
  kvfs_stream* stream = nullptr;
  EXPECT_EQ(kvfs_stream_open(session.get(), lost, KVFS_DATA_FORK, &stream), KVFS_NOT_FOUND);
}

// Some systems draw references at random: only the name of the file then has it.
TEST(SessionStream, HardLinkWhoseReferenceIsNoID_IsFollowedByName) {
  VolumeDescription description;
  const Bytes bytes = pattern(700);
  const std::uint32_t inode = description.add_inode();
  description.item(inode).data = {bytes.size(), bytes, 1, 1, 0};
  description.item(inode).name = u"iNode60583159";
  const std::uint32_t link = description.add_hard_link(kRootFolderId, u"link", 60583159);
  (void)description.add_file(kRootFolderId, u"f", 10);
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.read(link), bytes);
  EXPECT_EQ(session.read(link), bytes);
}

TEST(SessionStream, WhatHasNoForks_IsRefused) {
  VolumeDescription description;
  const std::uint32_t link = description.add_directory_hard_link(kRootFolderId, u"l", 2);
  const TestSession session(build_volume(description));
  kvfs_stream* stream = nullptr;
  EXPECT_EQ(kvfs_stream_open(session.get(), KVFS_ROOT_ID, KVFS_DATA_FORK, &stream), KVFS_NOT_A_FILE);
  EXPECT_EQ(kvfs_stream_open(session.get(), link, KVFS_DATA_FORK, &stream), KVFS_NOT_A_FILE);
  EXPECT_EQ(kvfs_stream_open(session.get(), 99, KVFS_DATA_FORK, &stream), KVFS_NOT_FOUND);
  EXPECT_EQ(stream, nullptr);
}

// An extent of 4 GiB and more, of which the layers below see the last bytes alone.
TEST(SessionStream, ExtentOfMoreThan4GiB_IsReadToItsEnd) {
  VolumeDescription description;
  constexpr std::uint64_t kSize = (std::uint64_t{9} << 30) + 123;
  const std::uint32_t file = description.add_file(kRootFolderId, u"large", kSize);
  Volume image = build_volume(description);
  const ForkView fork = image.data_fork(*image.find_by_cnid(file));
  ASSERT_EQ(fork.extents().size(), 1U);
  const std::vector<std::uint64_t> places = {0, (std::uint64_t{4} << 30) - 5, (std::uint64_t{6} << 30), kSize - 10};
  for (const std::uint64_t place : places) {
    fork.write(image, place, pattern(10));
  }
  const TestSession session(image, 0);
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
  for (const std::uint64_t place : places) {
    Bytes bytes(10);
    std::size_t count = 0;
    EXPECT_EQ(kvfs_stream_read(stream, place, bytes.data(), bytes.size(), &count), KVFS_OK);
    EXPECT_EQ(bytes, pattern(10)) << place;
  }
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

TEST(SessionStream, ForkOfAllBlocks_IsOpened) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  Volume image = build_volume(description);
  const std::string fork = image.find_by_cnid(file)->path() + ".dataFork";
  image.set_field(fork + ".totalBlocks", image.get_field("totalBlocks"));
  image.set_field(fork + ".extents[0].startBlock", 0);
  image.set_field(fork + ".extents[0].blockCount", image.get_field("totalBlocks"));
  const TestSession session(image);
  EXPECT_EQ(session.read(file).size(), 100U);
}

TEST(SessionStream, ForksLargerThanTheirSpace_AreInconsistent) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 5000);
  const Volume sound = build_volume(description);
  for (const char* field : {".dataFork.logicalSize", ".dataFork.totalBlocks"}) {
    Volume image = sound;
    image.set_field(image.find_by_cnid(file)->path() + field, 0xFFFFFFFF);
    const TestSession session(image);
    kvfs_stream* stream = nullptr;
    LogCapture silence;
    EXPECT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_INCONSISTENT) << field;
  }
}

TEST(SessionStream, ExtentsBehindTheDevice_AreAnIOError) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 5000);
  Volume image = build_volume(description);
  image.set_field(image.find_by_cnid(file)->path() + ".dataFork.extents[0].startBlock", 0xFFFFFF00);
  const TestSession session(image);
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
  char buffer[5000];
  std::size_t count = 3;
  LogCapture silence;
  EXPECT_EQ(kvfs_stream_read(stream, 0, buffer, sizeof(buffer), &count), KVFS_IO_ERROR);
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

TEST(SessionReadLink, Target_IsGiven) {
  VolumeDescription description;
  const std::uint32_t link = description.add_symlink(kRootFolderId, u"l", "../caf\u00E9");
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  const TestSession session(build_volume(description));
  char target[KVFS_TARGET_SIZE];
  std::size_t length = 0;
  EXPECT_EQ(kvfs_session_read_link(session.get(), link, target, sizeof(target), &length), KVFS_OK);
  EXPECT_STREQ(target, "../caf\u00E9");
  EXPECT_EQ(length, std::strlen(target));
  EXPECT_EQ(kvfs_session_read_link(session.get(), link, target, length, &length), KVFS_OVERFLOW);
  EXPECT_EQ(kvfs_session_read_link(session.get(), file, target, sizeof(target), &length), KVFS_NOT_A_FILE);
  EXPECT_EQ(kvfs_session_read_link(session.get(), KVFS_ROOT_ID, target, sizeof(target), &length), KVFS_NOT_A_FILE);
  EXPECT_EQ(kvfs_session_read_link(session.get(), 99, target, sizeof(target), &length), KVFS_NOT_FOUND);
}

// ---- Blocks --------------------------------------------------------------------------------------------------------

TEST(SessionBlocks, AllocationFile_CanBeAsked) {
  VolumeDescription description;
  description.free_blocks = {{100, 3}};
  (void)description.add_file(kRootFolderId, u"f", 500 * kBlock);
  const Volume image = build_volume(description);
  const TestSession session(image);
  const std::uint32_t blocks = session.facts().block_count;
  for (std::uint32_t block = 0; block < blocks; ++block) {
    int in_use = -1;
    ASSERT_EQ(kvfs_session_block_in_use(session.get(), block, &in_use), KVFS_OK);
    ASSERT_EQ(in_use != 0, image.block_used(block)) << block;
  }
  std::uint32_t free_blocks = 0;
  EXPECT_EQ(kvfs_session_count_free_blocks(session.get(), &free_blocks), KVFS_OK);
  EXPECT_EQ(free_blocks, session.facts().free_block_count);
  int in_use = -1;
  LogCapture silence;
  EXPECT_EQ(kvfs_session_block_in_use(session.get(), blocks, &in_use), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_block_in_use(session.get(), UINT32_MAX, &in_use), KVFS_INVALID);
  EXPECT_EQ(in_use, -1);
}

// What is read of the allocation file at a time lies in one block of its cache, which warns at closing of what was not
// given back.
// Q-fork-4
TEST(SessionBlocks, CountOverManyBlocksOfTheCache_IsClosedInSilence) {
  VolumeDescription description;
  description.block_size = 512;
  description.size = 100000 * std::uint64_t{512};
  TestSession session(build_volume(description));
  const std::uint32_t expected = session.facts().free_block_count;
  std::uint32_t free_blocks = 0;
  LogCapture log;
  EXPECT_EQ(kvfs_session_count_free_blocks(session.get(), &free_blocks), KVFS_OK);
  EXPECT_EQ(session.close(), KVFS_OK);
  EXPECT_LOG(log);
  EXPECT_EQ(free_blocks, expected);
}

TEST(SessionBlocks, WithoutTheAllocationFile_CannotBeAsked) {
  const TestSession session(build_volume({}), KVFS_OPEN_NO_ALLOCATION);
  EXPECT_EQ(session.facts().has_allocation_file, 0);
  int in_use = -1;
  std::uint32_t free_blocks = 0;
  LogCapture silence;
  EXPECT_EQ(kvfs_session_block_in_use(session.get(), 0, &in_use), KVFS_INVALID);
  EXPECT_EQ(kvfs_session_count_free_blocks(session.get(), &free_blocks), KVFS_INVALID);
}

}  // namespace
}  // namespace kvfs_test
