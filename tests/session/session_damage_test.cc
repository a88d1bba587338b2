// Sessions on volumes that contradict themselves: what each function answers and says, and that nothing is changed
// where it is refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;

std::string field_of(const Volume& image, std::uint32_t id, const char* field) {
  return image.find_by_cnid(id)->path() + field;
}

// What opening and closing a fork gives.
std::uint64_t open_fork(const TestSession& session, std::uint32_t id, std::uint32_t fork = KVFS_DATA_FORK) {
  kvfs_stream* stream = nullptr;
  const std::uint64_t result = kvfs_stream_open(session.get(), id, fork, &stream);
  EXPECT_EQ(result == KVFS_OK, stream != nullptr);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
  return result;
}

std::uint64_t find_id(const TestSession& session, std::uint32_t id) {
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  return kvfs_session_find_id(session.get(), id, &item);
}

// The names in a folder, and the result that ends them.
std::uint64_t list(const TestSession& session, std::uint32_t folder, std::vector<std::string>& names) {
  kvfs_listing* listing = nullptr;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::uint64_t result = kvfs_listing_open(session.get(), folder, &listing);
  while (result == KVFS_OK && (result = kvfs_listing_next(listing, &item)) == KVFS_OK) {
    names.emplace_back(item.name);
  }
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  return result;
}

// ---- Records and keys ----------------------------------------------------------------------------------------------

struct RecordDamage {
  const char* name;
  std::function<void(Volume& image, const RecordPlace& place)> make;
};

std::vector<RecordDamage> record_damages() {
  return {
      {"FileTypeOnAFolder", [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".recordType", 2); }},
      {"UnknownType", [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".recordType", 9); }},
      {"NoData",
       [](Volume& image, const RecordPlace& p) {
         const std::string next = ".offset[" + std::to_string(p.index + 1) + "]";
         image.set_field("catalog.node[" + std::to_string(p.node) + "]" + next,
                         p.offset_in_node + (p.data_fork_offset - p.fork_offset));
       }},
      {"KeyWithoutParent",
       [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".key.keyLength", 2); }},
      // What was the length of the name, 1, reads as the type of a folder record then.
      {"KeyWithoutName", [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".key.keyLength", 4); }},
      {"NameBehindItsKey",
       [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".key.nodeName.length", 2); }},
      {"NameThatIsTooLong",
       [](Volume& image, const RecordPlace& p) { image.set_field(p.path() + ".key.nodeName.length", 256); }},
  };
}

class SessionDamagedRecord : public ::testing::TestWithParam<RecordDamage> {};

TEST_P(SessionDamagedRecord, IsInconsistentBehindTheItemsBeforeIt) {
  VolumeDescription description;
  description.key_compare_type = 0xCF;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_file(folder, u"a");
  const std::uint32_t last = description.add_folder(folder, u"z");
  Volume image = build_volume(description);
  const RecordPlace place = *image.find_by_cnid(last);
  GetParam().make(image, place);
  const TestSession session(image);
  std::vector<std::string> names;
  LogCapture log;
  EXPECT_EQ(list(session, folder, names), KVFS_INCONSISTENT);
  EXPECT_THAT(names, ElementsAre("a"));
  const std::string message = "ERROR kvfs_session_check_item Record " + std::to_string(place.index) + " of node " +
                              std::to_string(place.node) + " is no whole file or folder.\n";
  EXPECT_LOG(log, message, message);  // of the first batch, which ends before it, and of the second
}

INSTANTIATE_TEST_SUITE_P(Damages, SessionDamagedRecord, ::testing::ValuesIn(record_damages()),
                         [](const auto& suite) { return std::string(suite.param.name); });

// The engine calls the size of such a record an argument that is not acceptable. It is the volume's.
TEST(SessionDamage, RecordOfAnOddSize_IsInconsistent) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t file = description.add_file(folder, u"a");
  (void)description.add_file(folder, u"b");
  Volume image = build_volume(description);
  const RecordPlace place = *image.find_by_cnid(file);
  image.add_to_field("catalog.node[" + std::to_string(place.node) + "].offset[" + std::to_string(place.index + 1) + "]",
                     -1);
  const TestSession session(image);
  const LogCapture silence;
  std::vector<std::string> names;
  EXPECT_EQ(session.find("d/a"), KVFS_INCONSISTENT);
  EXPECT_EQ(find_id(session, file), KVFS_INCONSISTENT);
  EXPECT_EQ(list(session, folder, names), KVFS_INCONSISTENT);
  EXPECT_EQ(open_fork(session, file), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "c"), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_make_link(session.get(), folder, "a", "target", nullptr), KVFS_INCONSISTENT);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
}

// Expects that an item is not deleted, and why, with nothing changed.
void expect_kept(const Volume& image, std::uint32_t id, const std::string& message) {
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_delete(session.get(), id), KVFS_INCONSISTENT);
  EXPECT_LOG(log, message);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// Its items cannot be found behind its thread any more, but elsewhere.
// X-session-8
TEST(SessionDamage, FolderThatSeemsEmptyButCountsItems_IsNotDeleted) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  image.set_field(image.find_by_cnid(folder)->path() + ".valence", 1);
  expect_kept(image, folder, "ERROR kvfs_session_delete Folder 16 counts 1 items and none is found.\n");
}

// X-btree-10
TEST(SessionDamage, LeafOfAnotherHeight_KeepsItsFirstItem) {
  VolumeDescription description;
  description.catalog.node_size = 1024;
  (void)description.add_files(kRootFolderId, 200);
  Volume image = build_volume(description);
  const std::string node = "catalog.node[" + std::to_string(image.leaf_nodes(Tree::kCatalog).at(3)) + "]";
  const std::uint32_t file = static_cast<std::uint32_t>(image.get_field(node + ".record[0].fileID"));
  image.set_field(node + ".height", 2);
  expect_kept(image, file, "ERROR kvfs_session_check_index B-tree of depth 3 cannot be maintained at height 2.\n");
}

// The thread of the file comes behind the folder's items.
TEST(SessionDamage, KeyOfAnotherParentWithoutItsName_EndsTheListing) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t file = description.add_file(folder, u"a");
  Volume image = build_volume(description);
  image.set_field(image.find_record(Tree::kCatalog, catalog_key(file, u""))->path() + ".key.keyLength", 4);
  const TestSession session(image);
  std::vector<std::string> names;
  LogCapture log;
  EXPECT_EQ(list(session, folder, names), KVFS_END);
  EXPECT_THAT(names, ElementsAre("a"));
  EXPECT_LOG(log);
}

TEST(SessionDamage, ItemOfAThreadThatIsNoItem_IsInconsistent) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  Volume image = build_volume(description);
  const RecordPlace place = *image.find_by_cnid(folder);
  image.set_field(place.path() + ".recordType", 2);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(find_id(session, folder), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_check_item Record " + std::to_string(place.index) + " of node " +
                      std::to_string(place.node) + " is no whole file or folder.\n");
}

TEST(SessionDamage, ThreadWithoutItsItem_IsNotFound) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  description.item(file).with_record = false;
  const TestSession session(build_volume(description));
  LogCapture log;
  EXPECT_EQ(find_id(session, file), KVFS_NOT_FOUND);
  EXPECT_EQ(session.find("f"), KVFS_NOT_FOUND);
  EXPECT_LOG(log);
}

TEST(SessionDamage, ItemWithoutItsThread_IsFoundByItsPathAlone) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 10);
  (void)description.add_files(kRootFolderId, 5);
  description.item(file).with_thread = false;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(session.id("f"), file);
  EXPECT_EQ(find_id(session, file), KVFS_NOT_FOUND);
  EXPECT_EQ(open_fork(session, file), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "g"), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_NOT_FOUND);
  EXPECT_LOG(log);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The names of these items are compared unit by unit, so that only walking leads to them.
TEST(SessionDamage, KeyLongerThanAnyKey_IsPassedByTheListing) {
  VolumeDescription description;
  constexpr std::uint32_t kItems = 70;
  constexpr std::uint32_t kOdd = 31;  // the last one of the listing's first batch
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  for (std::uint32_t i = 0; i < kItems; ++i) {
    Name name(2, u'\0');
    name.back() = static_cast<char16_t>(0x4E00 + i);
    if (i == kOdd) {
      continue;
    }
    (void)description.add_file(folder, name);
  }
  const Volume sound = build_volume(description);
  // A record of the same name with 100 bytes behind it in its key.
  Record record = dump_records(sound, Tree::kCatalog)[0];
  for (const Record& other : dump_records(sound, Tree::kCatalog)) {
    const Name name = name_of_key(other.first);
    record = name.size() == 2 && name.back() == 0x4E00 + kOdd - 1 ? other : record;
  }
  record.first[record.first.size() - 1] = static_cast<std::uint8_t>(kOdd);
  record.first.resize(700);
  record.first[0] = (700 - 2) >> 8;
  record.first[1] = (700 - 2) & 0xFF;
  description.extra_catalog_records.push_back(record);
  const TestSession session(build_volume(description));
  LogCapture silence;
  EXPECT_EQ(session.names("d").size(), kItems);
}

// ---- Threads and folders that lead astray --------------------------------------------------------------------------

TEST(SessionDamage, FolderWithoutAThread_KeepsItsItemsWhereTheyAre) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t file = description.add_file(folder, u"f");
  const std::uint32_t in_file = description.add_file(file, u"in a file");
  const std::uint32_t in_folder = description.add_folder(folder, u"in a folder");
  const std::uint32_t folder_in_file = description.add_folder(file, u"folder in a file");
  (void)description.add_files(kRootFolderId, 5);
  description.item(folder).with_thread = false;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_make_link(session.get(), in_folder, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_make_link(session.get(), folder_in_file, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "g"), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), in_file), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_find_place Folder 19 does not lie below the root folder.\n",
             "ERROR kvfs_session_find_place Folder 20 does not lie below the root folder.\n",
             "ERROR kvfs_session_find_removable Folder 16, which holds item 17, is missing.\n",
             "ERROR kvfs_session_find_removable Folder 17, which holds item 18, is missing.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionDamage, FoldersThatLieInEachOther_TakeNoNewItems) {
  VolumeDescription description;
  const std::uint32_t one = description.add_folder(kRootFolderId, u"one");
  const std::uint32_t two = description.add_folder(one, u"two");
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  (void)description.add_files(kRootFolderId, 5);
  description.item(one).parent = two;
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_rename(session.get(), file, two, "g"), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_find_place Folder 17 does not lie below the root folder.\n");
  EXPECT_EQ(kvfs_session_rename(session.get(), one, one, "g"), KVFS_INVALID);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// A folder record where its thread should be has the folder for its own parent.
TEST(SessionDamage, FolderInThePlaceOfItsThread_IsNotMoved) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  description.item(folder).with_thread = false;
  description.extra_catalog_records.emplace_back(thread_key(folder), sound.record_data(*sound.find_by_cnid(folder)));
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_rename(session.get(), folder, KVFS_ROOT_ID, "g"), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), folder), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_find_item The thread of item 16 is no thread.\n",
             "ERROR kvfs_session_find_item The thread of item 16 is no thread.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The parent of the root folder should hold nothing else.
TEST(SessionDamage, LabelThatIsTakenBesideTheRootFolder_IsRefusedAndChangesNothing) {
  VolumeDescription description;
  (void)description.add_file(kRootParentId, u"Taken");
  (void)description.add_files(kRootFolderId, 5);
  const Volume image = build_volume(description);
  const TestSession session(image);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "taken"), KVFS_EXISTS);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Free"), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "FREE"), KVFS_OK);
  EXPECT_EQ(session.label(), "FREE");
  EXPECT_EQ(session.flush(), KVFS_OK);
}

TEST(SessionDamage, FolderBesideTheRootFolder_TakesNoNewItems) {
  VolumeDescription description;
  const std::uint32_t beside = description.add_folder(kRootParentId, u"beside");
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  (void)description.add_files(kRootFolderId, 5);
  const TestSession session(build_volume(description));
  LogCapture log;
  EXPECT_EQ(kvfs_session_make_link(session.get(), beside, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_rename(session.get(), file, beside, "f"), KVFS_INCONSISTENT);
  const std::string message = "ERROR kvfs_session_find_place Folder 16 does not lie below the root folder.\n";
  EXPECT_LOG(log, message, message);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
}

// A volume whose root folder has its items in a ring of leaves, in a catalog that claims to have a terabyte. A walk
// that is bounded by what the catalog has room for would not end within days.
class SessionRing : public ::testing::Test {
 protected:
  SessionRing() {
    VolumeDescription description;
    link_ = description.add_hard_link(kRootFolderId, u"a link", kFirstUserId + 1);
    unnamed_ = description.add_file(kRootFolderId, Name(1, u'\0'));
    description.item(unnamed_).with_record = false;
    (void)description.add_files(kRootFolderId, kItems);
    image_ = build_volume(description);
    const std::vector<std::uint32_t> leaves = image_.leaf_nodes(Tree::kCatalog);
    EXPECT_GT(leaves.size(), 3U);
    image_.set_field("catalog.node[" + std::to_string(leaves[2]) + "].fLink", leaves[1]);
    constexpr std::uint64_t kBlocks = (std::uint64_t{1} << 28) - 1;
    image_.set_field("catalogFile.totalBlocks", kBlocks);
    image_.set_field("catalogFile.extents[0].blockCount", kBlocks);
    image_.set_field("catalogFile.logicalSize", kBlocks * image_.block_size());
  }

  static constexpr std::uint32_t kItems = 200;
  static constexpr const char* kMessage = "ERROR kvfs_session_step The items of folder 2 form a ring.\n";
  Volume image_;
  std::uint32_t link_ = 0;
  std::uint32_t unnamed_ = 0;
};

// X-session-2
TEST_F(SessionRing, SearchByWalking_Ends) {
  const TestSession session(image_);
  LogCapture log;
  EXPECT_EQ(session.find("%u0000"), KVFS_INCONSISTENT);
  EXPECT_LOG(log, kMessage);
}

// X-session-2
TEST_F(SessionRing, SearchForThePrivateFolderOrByAThread_Ends) {
  const TestSession session(image_);
  LogCapture log;
  EXPECT_EQ(open_fork(session, link_), KVFS_INCONSISTENT);
  EXPECT_EQ(find_id(session, unnamed_), KVFS_INCONSISTENT);
  EXPECT_LOG(log, kMessage, kMessage);
}

// X-session-2
TEST_F(SessionRing, Listing_EndsBehindItsItems) {
  const TestSession session(image_);
  std::vector<std::string> names;
  LogCapture log;
  EXPECT_EQ(list(session, KVFS_ROOT_ID, names), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_listing_next The items of folder 2 form a ring.\n");
  EXPECT_LT(names.size(), 4 * kItems);
}

// X-session-2
TEST(SessionDamage, ListingOfALeafThatLeadsToItself_GivesItsItemOnce) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 200);
  Volume image = build_volume(description);
  const std::vector<std::uint32_t> leaves = image.leaf_nodes(Tree::kCatalog);
  const std::string node = "catalog.node[";
  image.set_field(node + std::to_string(leaves[0]) + "].numRecords", 2);
  image.set_field(node + std::to_string(leaves[1]) + "].numRecords", 1);
  image.set_field(node + std::to_string(leaves[1]) + "].fLink", leaves[1]);
  const TestSession session(image);
  std::vector<std::string> names;
  LogCapture log;
  EXPECT_EQ(list(session, KVFS_ROOT_ID, names), KVFS_INCONSISTENT);
  const std::string step = "ERROR kvfs_session_step The items of folder 2 form a ring.\n";
  EXPECT_LOG(log, step, step, "ERROR kvfs_listing_next The items of folder 2 form a ring.\n");
  EXPECT_EQ(names.size(), 1u);
}

// ---- Hard links ----------------------------------------------------------------------------------------------------

TEST(SessionDamage, HardLinkToAFolder_HasNoForks) {
  VolumeDescription description;
  const std::uint32_t link = description.add_hard_link(kRootFolderId, u"link", KVFS_ROOT_ID);
  const TestSession session(build_volume(description));
  LogCapture log;
  EXPECT_EQ(open_fork(session, link), KVFS_NOT_A_FILE);
  EXPECT_LOG(log);
}

TEST(SessionDamage, HardLinkToADamagedFile_IsInconsistentAndNotMissing) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  const std::uint32_t link = description.add_hard_link(kRootFolderId, u"link", file);
  Volume image = build_volume(description);
  image.set_field(image.find_thread(file)->path() + ".nodeName.length", 300);
  const TestSession session(image);
  LogCapture silence;
  EXPECT_EQ(open_fork(session, link), KVFS_INCONSISTENT);
}

TEST(SessionDamage, FilesThatOnlyLookLikeLinks_AreFiles) {
  constexpr std::uint32_t kFolderLink = 0x66647270;
  constexpr std::uint32_t kFolderLinkCreator = 0x4D414353;
  VolumeDescription description;
  description.item(description.add_file(kRootFolderId, u"type")).file_type = kFolderLink;
  const std::uint32_t no_chain = description.add_file(kRootFolderId, u"no chain");
  description.item(no_chain).file_type = kFolderLink;
  description.item(no_chain).creator = kFolderLinkCreator;
  description.item(description.add_file(kRootFolderId, u"soft")).mode = 0120777;
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.item("type").kind, KVFS_FILE);
  EXPECT_EQ(session.item("no chain").kind, KVFS_FILE);
  EXPECT_EQ(session.item("soft").kind, KVFS_SYMBOLIC_LINK) << "by its mode, as other systems make them";
}

// ---- Forks ---------------------------------------------------------------------------------------------------------

// A resource fork of 12 extents of one block each: the first overflow record has four of them.
constexpr std::uint32_t kFragmented = kFirstUserId;

Volume volume_with_fragments() {
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_file(kRootFolderId, u"f");
  description.item(kFragmented).data = {512 * 3, {}, 3, 1, 0};
  description.item(kFragmented).resource = {512 * 12, {}, 12, 1, 0};
  (void)description.add_files(kRootFolderId, 5);
  return build_volume(description);
}

TEST(SessionDamage, OverflowExtentsThatDoNotMakeUpAResourceFork_AreInconsistent) {
  const Volume sound = volume_with_fragments();
  const std::string record = sound.find_record(Tree::kExtents, extents_key(0xFF, kFragmented, 8))->path();
  Volume missing = sound;
  missing.set_field(record + ".key.startBlock", 9);
  Volume empty = sound;
  empty.set_field(record + ".extents[0].blockCount", 0);
  empty.set_field(record + ".extents[0].startBlock", 0);
  for (const char* extent : {".extents[1]", ".extents[2]", ".extents[3]"}) {
    empty.set_field(record + extent + ".blockCount", 0);
  }
  Volume too_many = sound;
  too_many.set_field(record + ".extents[3].blockCount", 2);
  for (const Volume& image : {missing, empty, too_many}) {
    const TestSession session(image);
    LogCapture log;
    EXPECT_EQ(open_fork(session, kFragmented, KVFS_RESOURCE_FORK), KVFS_INCONSISTENT);
    EXPECT_LOG(log, "ERROR kvfs_session_open_fork Extents of the resource fork of file 16 end at block 8 of 12.\n");
    LogCapture again;
    EXPECT_EQ(kvfs_session_delete(session.get(), kFragmented), KVFS_INCONSISTENT);
    EXPECT_LOG(again, "ERROR kvfs_session_open_fork Extents of the resource fork of file 16 end at block 8 of 12.\n");
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
  }
}

TEST(SessionDamage, GapInTheExtentsOfAnOverflowRecord_IsInconsistent) {
  Volume image = volume_with_fragments();
  const std::string record = image.find_record(Tree::kExtents, extents_key(0xFF, kFragmented, 8))->path();
  image.set_field(record + ".extents[1].blockCount", 0);
  image.set_field(record + ".extents[1].startBlock", 0);
  image.set_field(record + ".extents[2].blockCount", 2);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(open_fork(session, kFragmented, KVFS_RESOURCE_FORK), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_fork_resolve_extents Last extent ends before the end of the fork.\n");
}

// Deleting such a file would free blocks that it does not count.
TEST(SessionDamage, ExtentsOfMoreBlocksThanTheirFork_AreInconsistent) {
  Volume image = volume_with_fragments();
  image.set_field(field_of(image, kFragmented, ".resourceFork.totalBlocks"), 6);
  image.set_field(field_of(image, kFragmented, ".resourceFork.logicalSize"), 512 * 6);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(open_fork(session, kFragmented, KVFS_RESOURCE_FORK), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), kFragmented), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_open_fork Extents of file 16 have 8 blocks, and their fork 6.\n",
             "ERROR kvfs_session_open_fork Extents of file 16 have 8 blocks, and their fork 6.\n");
}

TEST(SessionDamage, ExtentsWhoseSumWraps_AreInconsistent) {
  Volume image = volume_with_fragments();
  image.set_field(field_of(image, kFragmented, ".dataFork.extents[1].blockCount"), 0xFFFFFFFF);
  image.set_field(field_of(image, kFragmented, ".dataFork.extents[2].blockCount"), 3);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(open_fork(session, kFragmented), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_open_fork Extents of file 16 have 4294967299 blocks, and their fork 3.\n");
}

// Behind an extent without blocks is none, whatever stands there: added to the one before it in 32 bits, this one would
// have the deletion look for an overflow record at block 0 again and again.
// X-session-3
TEST(SessionDamage, BlocksBehindTheLastExtentOfAFork_AreNotAddedByTheDeletion) {
  for (const char* fork : {".dataFork", ".resourceFork"}) {
    const bool is_data = std::string(fork) == ".dataFork";
    VolumeDescription description;
    const std::uint32_t file = description.add_file(kRootFolderId, u"f");
    (is_data ? description.item(file).data : description.item(file).resource) = {100, {}, 1, 1, 0};
    (void)description.add_files(kRootFolderId, 5);
    description.extra_extents_records.emplace_back(extents_key(is_data ? 0 : 0xFF, file, 0), Bytes(64));
    Volume image = build_volume(description);
    image.set_field(field_of(image, file, fork) + ".extents[2].blockCount", 0xFFFFFFFF);
    const TestSession session(image);
    LogCapture log;
    EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_OK) << fork;
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_LOG(log);
    EXPECT_EQ(session.facts().free_block_count, image.get_field("freeBlocks") + 1) << fork;
  }
}

// A search in a tree without records fails with another value than one that does not find its key.
TEST(SessionDamage, OverflowExtentsMissingInAnEmptyTree_AreInconsistent) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f");
  description.item(file).data = {8 * 4096, {}, 8, 1, 0};
  description.item(file).resource = {8 * 4096, {}, 8, 1, 0};
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  for (const std::uint32_t fork : {KVFS_DATA_FORK, KVFS_RESOURCE_FORK}) {
    Volume image = sound;
    const char* const field = fork == KVFS_DATA_FORK ? ".dataFork.totalBlocks" : ".resourceFork.totalBlocks";
    image.set_field(field_of(image, file, field), 9);
    const TestSession session(image);
    LogCapture silence;
    EXPECT_EQ(open_fork(session, file, fork), KVFS_INCONSISTENT);
    EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
  }
}

TEST(SessionDamage, OverflowExtentsOfASpecialFileMissingInAnEmptyTree_AreInconsistent) {
  VolumeDescription description;
  description.attributes_tree.extent_count = 8;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  image.add_to_field("attributesFile.totalBlocks", 1);
  const TestSession session(image);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionDamage, BlocksBehindTheEndOfTheAllocationFile_AreInconsistentAndNotFreed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  description.item(file).data.first_block = 100;
  Volume image = build_volume(description);
  image.set_field("allocationFile.logicalSize", 12);
  const TestSession session(image);
  LogCapture silence;
  int in_use = -1;
  std::uint32_t free_blocks = 0;
  EXPECT_EQ(kvfs_session_block_in_use(session.get(), 95, &in_use), KVFS_OK);
  EXPECT_EQ(kvfs_session_block_in_use(session.get(), 96, &in_use), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_count_free_blocks(session.get(), &free_blocks), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The volume with 64 KiB at the beginning of each block; no special file has two blocks.
Volume with_blocks_of_16_mib(const Volume& volume) {
  constexpr std::uint64_t kSmall = std::uint64_t{1} << 16;
  constexpr std::uint64_t kLarge = std::uint64_t{1} << 24;
  const std::uint64_t blocks = volume.get_field("totalBlocks");
  SparseImage image(blocks * kLarge);
  for (std::uint64_t block = 0; block < blocks; ++block) {
    image.write(block * kLarge, volume.read(block * kSmall, kSmall));
  }
  Volume large(image);
  large.set_field("blockSize", kLarge);
  return large;
}

TEST(SessionDamage, ExtentOfTooManyPieces_IsBeyondTheLimit) {
  VolumeDescription description;
  description.block_size = 65536;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 100);
  Volume image = with_blocks_of_16_mib(build_volume(description));
  image.set_field("totalBlocks", 0xFFFFFFFF);
  for (const char* field : {".dataFork.totalBlocks", ".dataFork.extents[0].blockCount"}) {
    image.set_field(field_of(image, file, field), 0xF0000000);
  }
  const TestSession session(image, KVFS_OPEN_NO_ALLOCATION);
  LogCapture log;
  EXPECT_EQ(open_fork(session, file), KVFS_LIMIT);
  EXPECT_LOG(log, "ERROR kvfs_session_open_fork File 16 has extents of too many blocks.\n");
}

TEST(SessionDamage, RunThatEndsBehindTheVolume_IsNotFreed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 8000);
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  const std::uint32_t last = static_cast<std::uint32_t>(image.get_field("totalBlocks")) - 1;
  image.set_field(field_of(image, file, ".dataFork.extents[0].startBlock"), last);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_delete Blocks " + std::to_string(last) +
                      " and 2 behind it cannot be those of file 16.\n");
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// A record may have bytes behind those that are known. They do not matter to readers, but would not survive a change.
TEST(SessionDamage, LongRecords_AreReadAndNotChanged) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 10);
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t inner = description.add_file(folder, u"inner");
  (void)description.add_files(folder, 5);
  const Volume sound = build_volume(description);
  for (const std::uint32_t id : {file, folder}) {
    Bytes record = sound.record_data(*sound.find_by_cnid(id));
    record.resize(600, 0xAB);
    description.item(id).record = record;
  }
  const Volume image = build_volume(description);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(session.id("d/inner"), inner);
  EXPECT_EQ(session.read(file).size(), 10U);
  EXPECT_EQ(kvfs_session_delete(session.get(), file), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), inner), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_rename(session.get(), inner, KVFS_ROOT_ID, "outer"), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_make_link(session.get(), folder, "link", "target", nullptr), KVFS_INCONSISTENT);
  const std::string message = "ERROR kvfs_session_begin_change Record of item 17 has 600 bytes, and not 88.\n";
  EXPECT_LOG(log, "ERROR kvfs_session_begin_change Record of item 16 has 600 bytes, and not 248.\n", message, message,
             message);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// X-session-7
TEST(SessionDamage, RootFolderOfTooManyOrTooFewBytes_KeepsItsLabel) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  const RecordPlace place = *sound.find_by_cnid(kRootFolderId);
  struct {
    std::size_t size;
    std::string message;
  } const cases[] = {
      {600, "ERROR kvfs_session_begin_change Record of item 2 has 600 bytes, and not 88.\n"},
      {86, "ERROR kvfs_session_check_item Record " + std::to_string(place.index) + " of node " +
               std::to_string(place.node) + " is no whole file or folder.\n"},
  };
  for (const auto& c : cases) {
    Bytes record = sound.record_data(place);
    record.resize(c.size, 0xAB);
    description.root.record = record;
    const Volume image = build_volume(description);
    const TestSession session(image);
    LogCapture log;
    EXPECT_EQ(kvfs_session_set_label(session.get(), "label"), KVFS_INCONSISTENT);
    EXPECT_LOG(log, c.message);
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
  }
}

TEST(SessionDamage, LinkTarget_IsReadUpTo64KiB) {
  VolumeDescription description;
  constexpr std::size_t kLongest = 65536;
  const std::uint32_t empty = description.add_symlink(kRootFolderId, u"empty", "");
  const std::uint32_t longest = description.add_symlink(kRootFolderId, u"longest", "");
  const std::uint32_t longer = description.add_symlink(kRootFolderId, u"longer", "");
  description.item(longest).data = {kLongest, Bytes(kLongest, 'x'), 1, 1, 0};
  description.item(longer).data = {kLongest + 1, Bytes(kLongest + 1, 'x'), 1, 1, 0};
  const TestSession session(build_volume(description));
  std::string target(kLongest + 1, '?');
  std::size_t length = 7;
  LogCapture log;
  EXPECT_EQ(kvfs_session_read_link(session.get(), empty, target.data(), 1, &length), KVFS_OK);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(kvfs_session_read_link(session.get(), longest, nullptr, 0, &length), KVFS_OVERFLOW);
  EXPECT_EQ(length, kLongest);
  EXPECT_EQ(kvfs_session_read_link(session.get(), longest, target.data(), target.size(), &length), KVFS_OK);
  EXPECT_EQ(target, std::string(kLongest, 'x') + '\0');
  EXPECT_EQ(kvfs_session_read_link(session.get(), longer, target.data(), target.size(), &length), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_read_link Target of symbolic link is too long (65537 bytes).\n");
}

// ---- Blocks that are not the file's --------------------------------------------------------------------------------

constexpr std::uint32_t kClaimant = kFirstUserId;

// Special files of more extents than the volume header has room for, and a file of one block.
VolumeDescription description_of_fragments() {
  VolumeDescription description;
  description.block_size = 512;
  description.size = 32 << 20;
  description.catalog.extent_count = 12;
  description.attributes_tree.extent_count = 12;
  description.allocation_extent_count = 8;
  description.startup_blocks = 3;
  (void)description.add_file(kRootFolderId, u"f", 512);
  (void)description.add_files(kRootFolderId, 5);
  return description;
}

// The volume with the file's block at another place, which is in use.
Volume with_claim(Volume image, std::uint32_t block) {
  image.set_field(field_of(image, kClaimant, ".dataFork.extents[0].startBlock"), block);
  image.set_block_used(block, true);
  return image;
}

std::string of_the_volume(std::uint32_t block) {
  return "ERROR kvfs_session_delete Block " + std::to_string(block) + " of file 16 belongs to the volume itself.\n";
}

// X-session-1
TEST(SessionDamage, BlockOfASpecialFile_IsNotFreed) {
  const Volume sound = build_volume(description_of_fragments());
  struct {
    SpecialFile file;
    std::size_t extents;
  } const cases[] = {{SpecialFile::kExtents, 1},
                     {SpecialFile::kCatalog, 12},
                     {SpecialFile::kAllocation, 8},
                     {SpecialFile::kStartup, 1},
                     {SpecialFile::kAttributes, 12}};
  for (const auto& c : cases) {
    const std::vector<Extent> extents = sound.fork(c.file).extents();
    ASSERT_EQ(extents.size(), c.extents);
    for (const Extent& extent : extents) {
      const std::uint32_t block = extent.start_block + extent.block_count - 1;
      expect_kept(with_claim(sound, block), kClaimant, of_the_volume(block));
    }
  }
}

// The runs before and behind those of the special files are the file's.
TEST(SessionDamage, BlocksBesideThoseOfTheVolume_AreFreed) {
  VolumeDescription description = description_of_fragments();
  description.item(kClaimant).data = {512 * 60, {}, 60, 1, 0};
  const TestSession session(build_volume(description));
  EXPECT_EQ(kvfs_session_delete(session.get(), kClaimant), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

// The first one lies behind all blocks of the volume, and the second one between those of the attributes file.
TEST(SessionDamage, BlocksInAnyOrder_AreFreed) {
  VolumeDescription description = description_of_fragments();
  description.item(kClaimant).data = {512 * 2, {}, 2, 1, 0};
  Volume image = build_volume(description);
  const std::vector<Extent> extents = image.fork(SpecialFile::kAttributes).extents();
  const std::uint32_t between = extents[1].start_block - 1;
  image.set_field(field_of(image, kClaimant, ".dataFork.extents[1].startBlock"), between);
  image.set_block_used(between, true);
  const TestSession session(with_claim(image, 1000));
  EXPECT_EQ(kvfs_session_delete(session.get(), kClaimant), KVFS_OK);
}

// X-session-1
TEST(SessionDamage, ExtentThatHoldsThoseOfASpecialFile_IsNotFreed) {
  Volume image = build_volume(description_of_fragments());
  const std::vector<Extent> extents = image.fork(SpecialFile::kAttributes).extents();
  const std::uint32_t first = extents[9].start_block - 1;
  const std::uint32_t count = extents[11].start_block - first;
  for (std::uint32_t i = 0; i < count; ++i) {
    image.set_block_used(first + i, true);
  }
  image = with_claim(image, first);
  for (const char* field : {".dataFork.totalBlocks", ".dataFork.extents[0].blockCount"}) {
    image.set_field(field_of(image, kClaimant, field), count);
  }
  expect_kept(image, kClaimant, of_the_volume(first + 1));
}

// X-session-1
TEST(SessionDamage, SpecialFileWhoseExtentsCannotBeFound_LetsNoFileBeDeleted) {
  Volume image = build_volume(description_of_fragments());
  std::uint32_t blocks = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    blocks += image.fork(SpecialFile::kAttributes).extents()[i].block_count;
  }
  const std::string record = image.find_record(Tree::kExtents, extents_key(0, 8, blocks))->path();
  image.set_field(record + ".key.startBlock", blocks + 1);
  expect_kept(image, kClaimant,
              "ERROR kvfs_fork_resolve_extents No overflow extent found for CNID 8 starting with block " +
                  std::to_string(blocks) + ".\n");
}

// X-session-1
TEST(SessionDamage, BlockOfTheAlternateHeader_IsNotFreed) {
  VolumeDescription description;
  (void)description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  for (const std::uint32_t block_size : {512U, 4096U}) {
    for (const std::uint32_t trailing : {0U, 512U, 1024U, 1536U}) {
      if (trailing >= block_size) {
        continue;
      }
      description.block_size = block_size;
      description.trailing_bytes = trailing;
      const Volume sound = build_volume(description);
      const std::uint32_t end = static_cast<std::uint32_t>(sound.get_field("totalBlocks"));
      const std::uint32_t first = static_cast<std::uint32_t>((sound.size() - 1024) / block_size);
      for (std::uint32_t block = first; block < end; ++block) {
        expect_kept(with_claim(sound, block), kClaimant, of_the_volume(block));
      }
      const TestSession session(with_claim(sound, std::min(first, end) - 1));
      EXPECT_EQ(kvfs_session_delete(session.get(), kClaimant), KVFS_OK) << block_size << ' ' << trailing;
    }
  }
}

// The device is a block longer than the volume, and the header in the second one of the two sectors that are looked at.
TEST(SessionDamage, BlockBeforeThatOfTheAlternateHeader_IsFreed) {
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  const std::uint32_t end = static_cast<std::uint32_t>(image.get_field("totalBlocks")) - 1;
  image.set_field("totalBlocks", end);
  expect_kept(with_claim(image, end - 1), kClaimant, of_the_volume(end - 1));
  const TestSession session(with_claim(image, end - 2));
  EXPECT_EQ(kvfs_session_delete(session.get(), kClaimant), KVFS_OK);
}

// What is found in the last sectors may be a file's own data.
TEST(SessionDamage, DataThatBeginsLikeAnAlternateHeader_IsFreed) {
  VolumeDescription description;
  description.trailing_bytes = 1536;
  (void)description.add_file(kRootFolderId, u"f", 100);
  (void)description.add_files(kRootFolderId, 5);
  for (const bool hfsx : {false, true}) {
    description.hfsx = hfsx;
    const Volume sound = build_volume(description);
    const std::uint32_t last = static_cast<std::uint32_t>(sound.get_field("totalBlocks")) - 1;
    const std::uint64_t data = (last + std::uint64_t{1}) * description.block_size - 512;
    Volume image = with_claim(sound, last);
    image.write(data, image.read(kHeaderOffset, 512));
    expect_kept(image, kClaimant, of_the_volume(last));
    for (const char* field : {"signature", "createDate", "blockSize"}) {
      Volume other = image;
      const std::uint64_t place = data + other.device_offset_of_field(field) - kHeaderOffset;
      other.set8(place, static_cast<std::uint8_t>(other.get8(place) + 1));
      const TestSession session(other);
      EXPECT_EQ(kvfs_session_delete(session.get(), kClaimant), KVFS_OK) << field;
    }
  }
}

// ---- The journal ---------------------------------------------------------------------------------------------------

// The flags that say where a journal lies.
constexpr std::uint32_t kOnTheVolume = 1;
constexpr std::uint32_t kElsewhere = 2;

// The volume of fragments with a journal: a file has the block that tells where it lies, and others it itself.
class SessionJournal : public ::testing::Test {
 protected:
  SessionJournal() {
    VolumeDescription description = description_of_fragments();
    info_ = description.add_file(kRootFolderId, u".journal_info_block", 512);
    journal_ = description.add_file(kRootFolderId, u".journal", 512 * 20);
    image_ = build_volume(description);
    info_block_ = block_of(info_);
    journal_block_ = block_of(journal_);
    image_.set_field("attributes", 0x2100);
    image_.set_field("journalInfoBlock", info_block_);
    set_place(kOnTheVolume, journal_block_ * std::uint64_t{512}, 20 * 512);
  }

  // What the block says: flags and bytes.
  void set_place(std::uint32_t flags, std::uint64_t offset, std::uint64_t size) {
    const std::uint64_t info = std::uint64_t{info_block_} * 512;
    image_.set32(info, flags);
    image_.set64(info + 36, offset);
    image_.set64(info + 44, size);
  }

  // Whether the file of one block can be deleted when it has this one.
  [[nodiscard]] bool is_freed(std::uint32_t block) const {
    const TestSession session(with_claim(image_, block));
    LogCapture silence;
    return kvfs_session_delete(session.get(), kClaimant) == KVFS_OK;
  }

  Volume image_;
  std::uint32_t info_ = 0;
  std::uint32_t info_block_ = 0;
  std::uint32_t journal_ = 0;
  std::uint32_t journal_block_ = 0;

 private:
  [[nodiscard]] std::uint32_t block_of(std::uint32_t id) const {
    return static_cast<std::uint32_t>(image_.get_field(field_of(image_, id, ".dataFork.extents[0].startBlock")));
  }
};

// X-session-1
TEST_F(SessionJournal, ItsBlocks_AreNotFreed) {
  for (const std::uint32_t block : {info_block_, journal_block_, journal_block_ + 19}) {
    expect_kept(with_claim(image_, block), kClaimant, of_the_volume(block));
  }
  EXPECT_TRUE(is_freed(info_block_ + 1000));
  const TestSession session(image_);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_delete(session.get(), info_), KVFS_INCONSISTENT);
  EXPECT_EQ(kvfs_session_delete(session.get(), journal_), KVFS_INCONSISTENT);
}

TEST_F(SessionJournal, VolumeWithoutOne_LetsItsFilesBeDeleted) {
  image_.set_field("attributes", 0x100);
  const TestSession session(image_);
  EXPECT_EQ(kvfs_session_delete(session.get(), info_), KVFS_OK);
  EXPECT_EQ(kvfs_session_delete(session.get(), journal_), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST_F(SessionJournal, OnAnotherDevice_HasItsInformationHereAlone) {
  set_place(kElsewhere, journal_block_ * std::uint64_t{512}, 20 * 512);
  EXPECT_FALSE(is_freed(info_block_));
  EXPECT_TRUE(is_freed(journal_block_));
}

// What is not whole blocks has all that it touches; what lies behind the volume has none there.
TEST_F(SessionJournal, PlaceOfAnyBytes_IsCutToTheVolume) {
  const std::uint32_t end = static_cast<std::uint32_t>(image_.get_field("totalBlocks"));
  const std::uint64_t begin = journal_block_ * std::uint64_t{512};
  const std::uint32_t behind = journal_block_ + 20;
  set_place(kOnTheVolume, begin + 511, 2);
  EXPECT_FALSE(is_freed(journal_block_));
  EXPECT_FALSE(is_freed(journal_block_ + 1));
  EXPECT_TRUE(is_freed(journal_block_ + 2));
  set_place(kOnTheVolume, begin, UINT64_MAX);
  EXPECT_FALSE(is_freed(behind));
  EXPECT_FALSE(is_freed(end - 3));
  set_place(kOnTheVolume, begin, 0);
  EXPECT_TRUE(is_freed(journal_block_));
  set_place(kOnTheVolume, UINT64_MAX, UINT64_MAX);
  EXPECT_TRUE(is_freed(behind));
  set_place(kOnTheVolume, end * std::uint64_t{512}, 512);
  EXPECT_TRUE(is_freed(end - 3));
}

TEST_F(SessionJournal, InformationBehindTheVolume_IsNotLookedFor) {
  for (const std::uint32_t block : {static_cast<std::uint32_t>(image_.get_field("totalBlocks")), 0xFFFFFFFFU}) {
    image_.set_field("journalInfoBlock", block);
    EXPECT_TRUE(is_freed(journal_block_)) << block;
  }
}

// ---- Blocks for links ----------------------------------------------------------------------------------------------

// Marks a block of the volume's own as free, with all blocks of its byte (Q-bitmap-6), and has the search begin there.
Volume with_lost_byte(Volume image, std::uint32_t block) {
  const std::uint32_t first = block / 8 * 8;
  for (std::uint32_t i = first; i < first + 8; ++i) {
    image.set_block_used(i, false);
  }
  image.set_field("nextAllocation", block);
  return image;
}

void expect_no_link(const Volume& image, std::uint32_t block) {
  const TestSession session(image);
  const std::string id = std::to_string(session.facts().next_id);
  LogCapture log;
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_make_link Block " + std::to_string(block) + " of file " + id +
                      " belongs to the volume itself.\n");
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// The target would be written at once.
// X-session-1
TEST(SessionDamage, BlockOfTheVolumeThatCountsAsFree_IsGivenToNoLink) {
  const Volume sound = build_volume(description_of_fragments());
  std::vector<std::uint32_t> blocks = {2};
  for (const SpecialFile file : {SpecialFile::kExtents, SpecialFile::kCatalog, SpecialFile::kAllocation,
                                 SpecialFile::kStartup, SpecialFile::kAttributes}) {
    blocks.push_back(sound.fork(file).extents().back().start_block);
  }
  for (const std::uint32_t block : blocks) {
    expect_no_link(with_lost_byte(sound, block), block);
  }
}

// X-session-1
TEST(SessionDamage, BlockOfTheAlternateHeaderThatCountsAsFree_IsGivenToNoLink) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  const std::uint32_t last = static_cast<std::uint32_t>(sound.get_field("totalBlocks")) - 1;
  expect_no_link(with_lost_byte(sound, last), last);
}

// X-session-1
TEST_F(SessionJournal, ItsBlocksThatCountAsFree_AreGivenToNoLink) {
  expect_no_link(with_lost_byte(image_, info_block_), info_block_);
  expect_no_link(with_lost_byte(image_, journal_block_ + 7), journal_block_ + 7);
}

// A volume whose blocks are no whole sectors. Its special files begin with one, in the block of twice the number.
Volume with_blocks_of_768_bytes(const Volume& volume) {
  constexpr std::uint64_t kOld = 512;
  constexpr std::uint64_t kNew = 768;
  const std::uint64_t blocks = volume.get_field("totalBlocks");
  SparseImage image(2 * blocks * kNew);
  image.write(kHeaderOffset, volume.read(kHeaderOffset, 512));
  Volume odd(image);
  odd.set_field("blockSize", kNew);
  for (const char* file : {"extentsFile", "catalogFile", "allocationFile"}) {
    const std::string extent = std::string(file) + ".extents[0]";
    const std::uint64_t start = volume.get_field(extent + ".startBlock");
    const std::size_t size = static_cast<std::size_t>(volume.get_field(std::string(file) + ".logicalSize"));
    odd.set_field(extent + ".startBlock", 2 * start);
    odd.write(2 * start * kNew, volume.read(start * kOld, size));
  }
  return odd;
}

// The sector in which such a block begins, which is written at once, has bytes of the block before it.
// X-session-4
TEST(SessionDamage, BlocksThatAreNoWholeSectors_AreGivenToNoLink) {
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_files(kRootFolderId, 5);
  const Volume image = with_blocks_of_768_bytes(build_volume(description));
  const TestSession session(image);
  ASSERT_EQ(session.opened(), KVFS_OK);
  LogCapture log;
  EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_make_link Blocks of 768 bytes are no whole sectors.\n");
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

// ---- Counts --------------------------------------------------------------------------------------------------------

TEST(SessionDamage, CatalogThatCountsFewerRecordsThanItLoses_IsNotWritten) {
  VolumeDescription description;
  const std::uint32_t first = description.add_files(kRootFolderId, 5);
  Volume image = build_volume(description);
  image.set_field("catalog.header.leafRecords", 1);
  const TestSession session(image);
  LogCapture log;
  EXPECT_EQ(kvfs_session_delete(session.get(), first), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_INCONSISTENT);
  EXPECT_LOG(log, "ERROR kvfs_session_check_catalog Changed catalog has 4294967295 records, and had 1.\n");
  EXPECT_EQ(session.flush(), KVFS_SPOILED);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_OK);
}

// A volume is opened whatever its thread of the root folder leads to.
TEST(SessionDamage, RootThatIsNoFolder_LetsNoChangeBeWritten) {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"d");
  const std::uint32_t file = description.add_file(folder, u"f");
  (void)description.add_files(folder, 5);
  const Volume sound = build_volume(description);
  Bytes record = sound.record_data(*sound.find_by_cnid(file));
  constexpr std::size_t kLowByteOfTheID = 11;
  record[kLowByteOfTheID] = KVFS_ROOT_ID;
  description.root.record = record;
  const Volume image = build_volume(description);
  const TestSession session(image);
  ASSERT_EQ(kvfs_session_rename(session.get(), file, folder, "g"), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_INCONSISTENT);
  EXPECT_EQ(session.flush(), KVFS_SPOILED);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionDamage, NextIDThatCannotBe_IsInconsistent) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 5);
  const Volume sound = build_volume(description);
  for (const std::uint32_t next : {15U, 0xFFFFFFFFU}) {
    Volume image = sound;
    image.set_field("nextCatalogID", next);
    const TestSession session(image);
    LogCapture log;
    EXPECT_EQ(kvfs_session_make_link(session.get(), KVFS_ROOT_ID, "l", "t", nullptr), KVFS_INCONSISTENT);
    EXPECT_LOG(log, "ERROR kvfs_session_make_link The next catalog node ID cannot be " + std::to_string(next) + ".\n");
    EXPECT_EQ(session.flush(), KVFS_OK);
    EXPECT_TRUE(session.contents() == image);
  }
}

TEST(SessionFacts, EachBitOfTheAttributes_IsTold) {
  struct {
    std::uint32_t attributes;
    int journaled, dirty, locked;
  } const cases[] = {{0x100, 0, 0, 0}, {0, 0, 1, 0},      {0x900, 0, 1, 0}, {0x800, 0, 1, 0},
                     {0x180, 0, 0, 1}, {0x8100, 0, 0, 1}, {0x2100, 1, 0, 0}};
  for (const auto& c : cases) {
    VolumeDescription description;
    description.attributes = c.attributes;
    const kvfs_volume_facts facts = TestSession(build_volume(description)).facts();
    EXPECT_EQ(facts.attributes, c.attributes);
    EXPECT_EQ(facts.is_journaled, c.journaled) << c.attributes;
    EXPECT_EQ(facts.is_dirty, c.dirty) << c.attributes;
    EXPECT_EQ(facts.is_locked, c.locked) << c.attributes;
  }
}

}  // namespace
}  // namespace kvfs_test
