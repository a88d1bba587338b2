// Names that the catalog of a volume takes for others: what they find, and which of them no item is given.

#include <gtest/gtest.h>

#include <string>

#include "log_capture.h"
#include "session_fixture.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// A volume with a folder "d" and some files.
VolumeDescription with_folder(bool case_sensitive) {
  VolumeDescription description;
  description.hfsx = case_sensitive;
  description.case_sensitive = case_sensitive;
  (void)description.add_folder(kRootFolderId, u"d");
  (void)description.add_files(kRootFolderId, 5);
  return description;
}

std::uint64_t make_link(const TestSession& session, const char* name) {
  return kvfs_session_make_link(session.get(), KVFS_ROOT_ID, name, "target", nullptr);
}

// ---- Names of ignorable units --------------------------------------------------------------------------------------

// Under case folding these are no units of a name at all (Q-unicode-13), so that a name of them alone is that of the
// folder's thread.
const char* const kIgnorableNames[] = {"\u200C", "\u200D", "\uFEFF", "\u200C\u200D\uFEFF", "%u200C"};

TEST(SessionIgnorableName, IsNotFound) {
  const TestSession session(build_volume(with_folder(false)));
  LogCapture log;
  for (const std::string name : kIgnorableNames) {
    EXPECT_EQ(session.find(name), KVFS_NOT_FOUND) << name;
    EXPECT_EQ(session.find(name + "/x"), KVFS_NOT_FOUND) << name;
    EXPECT_EQ(session.find("d/" + name), KVFS_NOT_FOUND) << name;
  }
  EXPECT_EQ(session.find("d\u200C"), KVFS_OK);
  EXPECT_LOG(log);
}

// Where case counts, the order ends names at a NUL (Q-unicode-6).
TEST(SessionNameWithNul, IsNotFoundByItsBeginning) {
  VolumeDescription description = with_folder(true);
  const std::uint32_t item = description.add_file(kRootFolderId, Name(u"a\0b", 3));
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.find("a"), KVFS_NOT_FOUND);
  EXPECT_EQ(session.id("a%u0000b"), item);
  EXPECT_EQ(make_link(session, "a"), KVFS_EXISTS) << "the catalog takes one for the other";
}

// Names are looked for decomposed, and then as they are spelled.
TEST(SessionNameWithNul, IsNotFoundByItsBeginningInEitherForm) {
  VolumeDescription description = with_folder(true);
  (void)description.add_file(kRootFolderId, Name(u"e\u0301\0x", 4));
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"g");
  const std::uint32_t spelled = description.add_file(kRootFolderId, u"\u00E9");
  const std::uint32_t cut = description.add_file(folder, Name(u"\u00E9\0x", 3));
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.id("\u00E9"), spelled);
  EXPECT_EQ(session.find("g/\u00E9"), KVFS_NOT_FOUND);
  EXPECT_EQ(session.id("g/\u00E9%u0000x"), cut);
}

TEST(SessionIgnorableName, OfAnItemsEnd_IsNoPartOfItsName) {
  VolumeDescription description = with_folder(false);
  const std::uint32_t item = description.add_file(kRootFolderId, u"a\u200C");
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.id("a"), item);
}

// The root folder's name is the label, and nothing that a link stands for is in it.
TEST(SessionNameWithNul, OfTheRootFolder_LeavesItsItemsFree) {
  VolumeDescription description = with_folder(false);
  description.label = Name(u"a\0b", 3);
  const TestSession session(build_volume(description));
  EXPECT_EQ(session.remove("f000000"), KVFS_OK);
  EXPECT_EQ(session.rename("f000001", "d", "g"), KVFS_OK);
  EXPECT_EQ(session.flush(), KVFS_OK);
}

// X-session-5
TEST(SessionIgnorableName, IsGivenToNoItem) {
  const Volume image = build_volume(with_folder(false));
  const TestSession session(image);
  LogCapture log;
  for (const char* name : kIgnorableNames) {
    EXPECT_EQ(make_link(session, name), KVFS_INVALID) << name;
    EXPECT_EQ(session.rename("d", "/", name), KVFS_INVALID) << name;
    EXPECT_EQ(session.rename("f000000", "d", name), KVFS_INVALID) << name;
  }
  EXPECT_LOG(log);
  EXPECT_EQ(session.facts().has_unflushed_changes, 0);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

TEST(SessionIgnorableName, OnAVolumeThatTellsCaseApart_IsANameLikeAnyOther) {
  const TestSession session(build_volume(with_folder(true)));
  for (const char* name : kIgnorableNames) {
    EXPECT_EQ(session.find(name), KVFS_NOT_FOUND) << name;
  }
  EXPECT_EQ(make_link(session, "\u200C"), KVFS_OK);
  EXPECT_EQ(session.rename("d", "/", "\uFEFF"), KVFS_OK);
  EXPECT_EQ(session.find("\u200C"), KVFS_OK);
  EXPECT_EQ(session.find("\uFEFF"), KVFS_OK);
  EXPECT_EQ(session.flushed_findings(), "");
}

// There is no thread of the root folder's parent that the label could be taken for.
TEST(SessionIgnorableName, AsTheLabel_IsNoItemOfTheID1) {
  VolumeDescription description = with_folder(false);
  description.label = u"\u200C";
  const TestSession session(build_volume(description));
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  LogCapture log;
  EXPECT_EQ(kvfs_session_find_id(session.get(), 1, &item), KVFS_NOT_FOUND);
  EXPECT_EQ(kvfs_session_find(session.get(), 1, "", &item), KVFS_NOT_FOUND);
  EXPECT_EQ(session.id("/"), KVFS_ROOT_ID);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "\u200D"), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session.get(), "Backup"), KVFS_OK);
  EXPECT_LOG(log);
  EXPECT_EQ(session.flushed_findings(), "");
}

// ---- The private folder of folder links ----------------------------------------------------------------------------

const char* const kPrivateNames[] = {".hfs+ private directory data\r", ".HFS+ PRIVATE DIRECTORY DATA\r",
                                     ".HFS+ Private\u200D Directory Data\r"};

// X-session-6
TEST(SessionPrivateName, InAnotherCase_IsGivenToNoItem) {
  const Volume image = build_volume(with_folder(false));
  const TestSession session(image);
  for (const char* name : kPrivateNames) {
    EXPECT_EQ(make_link(session, name), KVFS_INVALID) << name;
    EXPECT_EQ(session.rename("d", "/", name), KVFS_INVALID) << name;
  }
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
  EXPECT_EQ(session.rename("f000000", "d", kPrivateNames[0]), KVFS_OK) << "only that of the root folder is private";
  EXPECT_EQ(session.flushed_findings(), "");
}

TEST(SessionPrivateName, InAnotherCaseWhereCaseIsToldApart_IsANameLikeAnyOther) {
  const TestSession session(build_volume(with_folder(true)));
  EXPECT_EQ(make_link(session, ".HFS+ Private Directory Data\r"), KVFS_INVALID);
  for (const char* name : kPrivateNames) {
    EXPECT_EQ(make_link(session, name), KVFS_OK) << name;
  }
  EXPECT_EQ(session.flushed_findings(), "");
}

// Other systems find it by any name that is the same to them.
// X-session-6
TEST(SessionPrivateName, OfAFolderThatIsThere_ProtectsItInAnyCase) {
  VolumeDescription description = with_folder(false);
  const std::uint32_t folder = description.add_folder(kRootFolderId, u".hfs+ private directory data\r");
  const std::uint32_t inside = description.add_folder(folder, u"dir_77");
  const Volume image = build_volume(description);
  const TestSession session(image);
  for (const std::uint32_t id : {folder, inside}) {
    EXPECT_EQ(kvfs_session_delete(session.get(), id), KVFS_INVALID);
    EXPECT_EQ(kvfs_session_rename(session.get(), id, KVFS_ROOT_ID, "n"), KVFS_INVALID);
  }
  EXPECT_EQ(kvfs_session_make_link(session.get(), folder, "l", "t", nullptr), KVFS_INVALID);
  EXPECT_EQ(session.flush(), KVFS_OK);
  EXPECT_TRUE(session.contents() == image);
}

}  // namespace
}  // namespace kvfs_test
