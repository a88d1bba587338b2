// UTF-8 paths: how they are split and converted, and what the catalog finds by them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "catalog.h"
#include "item_fixture.h"
#include "log_capture.h"
#include "unicode_names.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- Components ----------------------------------------------------------------------------------------------------

// What the component source gave, in host order.
struct Component {
  kvfs_result result;
  Name name;
};

Component next_of(kvfs_catalog_utf8_path* path, std::size_t capacity = kHFSPlusMaxNameLength) {
  std::vector<kvfs_be16> buffer(capacity + 1, kvfs_be16::of(0xBEEF));
  std::size_t length = 0;
  Component component = {kvfs_catalog_utf8_path_component(path, buffer.data(), capacity, &length), {}};
  EXPECT_EQ(buffer[capacity].get(), 0xBEEF) << "written behind the buffer";
  if (component.result == kvfs_ok) {
    EXPECT_LE(length, capacity);
    for (std::size_t i = 0; i < length; ++i) {
      component.name.push_back(buffer[i].get());
    }
  }
  return component;
}

// All components of a path.
std::vector<Name> components_of(const std::string& text) {
  kvfs_catalog_utf8_path path = {text.c_str()};
  std::vector<Name> names;
  LogCapture log;
  for (;;) {
    const Component component = next_of(&path);
    EXPECT_EQ(component.result, kvfs_ok);
    if (component.result != kvfs_ok || component.name.empty()) {
      EXPECT_LOG(log);
      EXPECT_STREQ(path.rest, "");
      return names;
    }
    names.push_back(component.name);
  }
}

TEST(CatalogUtf8Path, Slashes_SeparateNamesHoweverManyThereAre) {
  EXPECT_THAT(components_of("a"), ElementsAre(u"a"));
  EXPECT_THAT(components_of("a/bc/d"), ElementsAre(u"a", u"bc", u"d"));
  EXPECT_THAT(components_of("/a/bc"), ElementsAre(u"a", u"bc"));
  EXPECT_THAT(components_of("///a//bc///"), ElementsAre(u"a", u"bc"));
}

TEST(CatalogUtf8Path, PathWithoutNames_HasNoComponents) {
  EXPECT_THAT(components_of(""), IsEmpty());
  EXPECT_THAT(components_of("/"), IsEmpty());
  EXPECT_THAT(components_of("////"), IsEmpty());
}

TEST(CatalogUtf8Path, DotsColonsAndBackslashes_MeanNothingSpecial) {
  EXPECT_THAT(components_of("./../a:b/c\\d"), ElementsAre(u".", u"..", u"a:b", u"c\\d"));
}

TEST(CatalogUtf8Path, Names_AreDecomposed) {
  EXPECT_THAT(components_of("caf\u00E9/\uAC01"), ElementsAre(u"cafe\u0301", u"\u1100\u1161\u11A8"));
  EXPECT_THAT(components_of("cafe\u0301"), ElementsAre(u"cafe\u0301"));
}

TEST(CatalogUtf8Path, EveryDecomposition_IsApplied) {
  for (const auto& [unit, units] : decomposition_rows()) {
    EXPECT_THAT(components_of("x" + to_utf8(Name(1, unit)) + "/y"), ElementsAre(u"x" + units, u"y"));
  }
}

TEST(CatalogUtf8Path, CharactersBeyondTheBasicPlane_BecomeSurrogates) {
  EXPECT_THAT(components_of("\U0001F600/\U0010FFFF"), ElementsAre((Name{0xD83D, 0xDE00}), (Name{0xDBFF, 0xDFFF})));
}

TEST(CatalogUtf8Path, Rest_StandsBehindTheNameGivenLast) {
  kvfs_catalog_utf8_path path = {"//one/two//three"};
  EXPECT_EQ(next_of(&path).name, u"one");
  EXPECT_STREQ(path.rest, "/two//three");
  EXPECT_EQ(next_of(&path).name, u"two");
  EXPECT_STREQ(path.rest, "//three");
  EXPECT_EQ(next_of(&path).name, u"three");
  EXPECT_STREQ(path.rest, "");
  EXPECT_EQ(next_of(&path).name, u"");
  EXPECT_STREQ(path.rest, "");
}

TEST(CatalogUtf8Path, NameOf255Units_IsTheLongest) {
  EXPECT_THAT(components_of(std::string(255, 'x')), ElementsAre(Name(255, u'x')));
  std::string accented;
  for (int i = 0; i < 127; ++i) {
    accented += "\u00E9";
  }
  Name decomposed_name;
  for (int i = 0; i < 127; ++i) {
    decomposed_name += u"e\u0301";
  }
  EXPECT_THAT(components_of(accented + "x"), ElementsAre(decomposed_name + u"x"));
}

Component refused(const std::string& text, const Lines& messages, std::size_t capacity = kHFSPlusMaxNameLength) {
  kvfs_catalog_utf8_path path = {text.c_str()};
  LogCapture log;
  Component component = next_of(&path, capacity);
  EXPECT_TRUE(log.matches(messages)) << text;
  return component;
}

TEST(CatalogUtf8Path, NameTooLongBeforeItIsDecomposed_IsInvalid) {
  EXPECT_EQ(
      refused(
          std::string(256, 'x'),
          {"ERROR kvfs_unicode_utf8_to_unistr Preallocated buffer is too small to hold the UTF-16 result. *outs_len (255) < shorts (256)\n"})
          .result,
      kvfs_invalid);
}

// X-catalog-4
TEST(CatalogUtf8Path, NameTooLongAfterItIsDecomposed_Overflows) {
  std::string text;
  for (int i = 0; i < 128; ++i) {
    text += "\u00E9";
  }
  EXPECT_EQ(refused(text, {"ERROR kvfs_catalog_utf8_path_component Path component of 128 units is too long.\n"}).result,
            kvfs_overflow);
}

TEST(CatalogUtf8Path, SmallerBuffer_IsRespected) {
  EXPECT_EQ(refused("abc", {}, 3).name, u"abc");
  EXPECT_EQ(
      refused("abcd", {"ERROR kvfs_catalog_utf8_path_component Path component of 4 units is too long.\n"}, 3).result,
      kvfs_overflow);
  EXPECT_EQ(refused("a\u00E9x", {"ERROR kvfs_catalog_utf8_path_component Path component of 3 units is too long.\n"}, 3)
                .result,
            kvfs_overflow);
}

TEST(CatalogUtf8Path, MalformedText_IsInvalid) {
  const Lines silence;  // the caller says that a component could not be converted
  const Lines not_measured = {"ERROR kvfs_unicode_utf8_to_unistr Error while getting UTF-16 size for UTF-8 string.\n"};
  for (const auto& [text, messages] : {std::pair{"\x80", silence},
                                       {"\xC3", silence},
                                       {"\xC3\x28", silence},
                                       {"\xE2\x82", silence},
                                       {"\xED\xA0\x80", silence},
                                       {"\xC0\xAF", silence},
                                       {"\xF8\x88\x80\x80", not_measured},
                                       {"ok\xFF", not_measured},
                                       {"\xF0\x9F\x98", silence}}) {
    EXPECT_EQ(refused(text, messages).result, kvfs_invalid);
  }
}

// A character is not cut short by a slash behind its first byte.
TEST(CatalogUtf8Path, CharacterCutByASlash_IsInvalid) {
  EXPECT_EQ(refused("a\xC3/\xA9", {}).result, kvfs_invalid);
}

// ---- Lookup --------------------------------------------------------------------------------------------------------

// Folders 16 "alpha", 17 "beta" in it, 18 "gamma" in that one and 19 "Cafe" with an accent in the root folder, which
// holds the file 20 "long name" of 255 units; file 21 "file" in "beta"; file 22 "a:b" in "alpha".
VolumeDescription described() {
  VolumeDescription description;
  const std::uint32_t alpha = description.add_folder(kRootFolderId, u"alpha");
  const std::uint32_t beta = description.add_folder(alpha, u"beta");
  (void)description.add_folder(beta, u"gamma");
  const std::uint32_t cafe = description.add_folder(kRootFolderId, decomposed("Caf\u00E9"));
  (void)description.add_file(cafe, Name(255, u'n'));
  (void)description.add_file(beta, u"file");
  (void)description.add_file(alpha, u"a:b");
  return description;
}

// What a lookup gave: the record, its parent in brackets, and where the path stood then.
std::string looked_up(const OpenVolume& volume, const std::string& text, kvfs_catalog_record_locator* start = nullptr) {
  kvfs_catalog_utf8_path path = {text.c_str()};
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_by_path(volume.catalog(), kvfs_catalog_utf8_path_component, &path, start, found.out()),
            kvfs_ok);
  EXPECT_LOG(log);
  if (found.locator() == nullptr) {
    return found.text();
  }
  EXPECT_NE(found.locator()->record_type, 0u);
  const kvfs_catalog_record_locator* const parent = *found.locator()->parent;
  return found.text() + (parent != nullptr ? " (" + describe(parent) + ")" : "") +
         (*path.rest != '\0' ? " before " + std::string(path.rest) : "");
}

TEST(CatalogSearchByUtf8Path, Root_IsFoundByAnyPathWithoutNames) {
  const OpenVolume volume(build_volume(described()));
  for (const char* const path : {"", "/", "///"}) {
    EXPECT_EQ(looked_up(volume, path), "found: folder 2 in 1/Untitled");
  }
  EXPECT_EQ(volume.open_locators(), 0u);
}

TEST(CatalogSearchByUtf8Path, FoldersAndFiles_AreFoundWithTheirFolderAsParent) {
  const OpenVolume volume(build_volume(described()));
  EXPECT_EQ(looked_up(volume, "alpha"), "found: folder 16 in 2/alpha (folder 2 in 1/Untitled)");
  EXPECT_EQ(looked_up(volume, "/alpha/beta/gamma/"), "found: folder 18 in 17/gamma (folder 17 in 16/beta)");
  EXPECT_EQ(looked_up(volume, "alpha//beta/file"), "found: file 21 in 17/file (folder 17 in 16/beta)");
  EXPECT_EQ(looked_up(volume, "alpha/a:b"), "found: file 22 in 16/a:b (folder 16 in 2/alpha)");
  EXPECT_EQ(volume.open_locators(), 0u);
}

TEST(CatalogSearchByUtf8Path, AccentedNames_AreFoundComposedAndDecomposed) {
  const OpenVolume volume(build_volume(described()));
  const std::string expected = "found: folder 19 in 2/Cafe\u0301 (folder 2 in 1/Untitled)";
  EXPECT_EQ(looked_up(volume, "Caf\u00E9"), expected);
  EXPECT_EQ(looked_up(volume, "Cafe\u0301"), expected);
}

TEST(CatalogSearchByUtf8Path, OtherCase_IsFoundOnlyWhereCaseIsFolded) {
  VolumeDescription description = described();
  EXPECT_EQ(looked_up(OpenVolume(build_volume(description)), "ALPHA/Beta"),
            "found: folder 17 in 16/beta (folder 16 in 2/alpha)");
  description.hfsx = description.case_sensitive = true;
  const OpenVolume volume(build_volume(description));
  EXPECT_EQ(looked_up(volume, "ALPHA/Beta").substr(0, 3), "at:");
  EXPECT_EQ(looked_up(volume, "alpha/beta"), "found: folder 17 in 16/beta (folder 16 in 2/alpha)");
}

TEST(CatalogSearchByUtf8Path, NameOf255Units_IsFound) {
  const OpenVolume volume(build_volume(described()));
  const std::string name(255, 'n');
  EXPECT_EQ(looked_up(volume, "Caf\u00E9/" + name), "found: file 20 in 19/" + name + " (folder 19 in 2/Cafe\u0301)");
}

TEST(CatalogSearchByUtf8Path, UnknownName_GivesItsPlaceAndHowFarThePathWent) {
  const OpenVolume volume(build_volume(described()));
  EXPECT_EQ(looked_up(volume, "alpha/missing"), "at: folder thread of 17 to 16/beta (folder 16 in 2/alpha)");
  EXPECT_EQ(looked_up(volume, "alpha/missing/file"),
            "at: folder thread of 17 to 16/beta (folder 16 in 2/alpha) before /file");
  EXPECT_EQ(looked_up(volume, "alpha/a/b"), "at: file 22 in 16/a:b (folder 16 in 2/alpha) before /b");
}

TEST(CatalogSearchByUtf8Path, DotAndDotDot_AreNamesLikeAnyOther) {
  const OpenVolume volume(build_volume(described()));
  EXPECT_EQ(looked_up(volume, "alpha/../alpha").substr(0, 3), "at:");
  EXPECT_EQ(looked_up(volume, "./alpha").substr(0, 3), "at:");
}

TEST(CatalogSearchByUtf8Path, StartFolder_IsWhereThePathBegins) {
  const OpenVolume volume(build_volume(described()));
  {
    const ItemLocator alpha(volume, kRootFolderId, u"alpha");
    EXPECT_EQ(looked_up(volume, "beta/file", alpha.get()), "found: file 21 in 17/file (folder 17 in 16/beta)");
    EXPECT_EQ(looked_up(volume, "/beta", alpha.get()), "found: folder 17 in 16/beta (folder 16 in 2/alpha)");
    EXPECT_EQ(looked_up(volume, "", alpha.get()), "found: folder 16 in 2/alpha (folder 16 in 2/alpha)");
  }
  EXPECT_EQ(volume.open_locators(), 0u);
}

// Fails to look a path up.
void expect_lookup_fails(const std::string& text, kvfs_result expected, const Lines& messages) {
  const OpenVolume volume(build_volume(described()));
  kvfs_catalog_utf8_path path = {text.c_str()};
  Searched found;
  LogCapture log;
  EXPECT_EQ(
      kvfs_catalog_search_by_path(volume.catalog(), kvfs_catalog_utf8_path_component, &path, nullptr, found.out()),
      expected);
  EXPECT_TRUE(log.matches(messages));
  EXPECT_EQ(found.locator(), nullptr);
  EXPECT_EQ(volume.open_locators(), 0u);
}

constexpr char kNotConverted[] =
    "ERROR kvfs_catalog_search_by_path Error while converting native path component to HFS+ string.\n";

TEST(CatalogSearchByUtf8Path, ThroughAFile_IsAnInternalError) {
  expect_lookup_fails(
      "alpha/beta/file/more", kvfs_internal,
      {"ERROR kvfs_catalog_search_by_path Unexpected record type for parent directory in lookup: 2.\n"});
}

TEST(CatalogSearchByUtf8Path, SlashBehindAFile_StillFindsIt) {
  const OpenVolume volume(build_volume(described()));
  EXPECT_EQ(looked_up(volume, "alpha/beta/file/"), "found: file 21 in 17/file (folder 17 in 16/beta)");
}

TEST(CatalogSearchByUtf8Path, MalformedText_EndsTheLookup) {
  expect_lookup_fails(
      "alpha/\xFF/beta", kvfs_invalid,
      {"ERROR kvfs_unicode_utf8_to_unistr Error while getting UTF-16 size for UTF-8 string.\n", kNotConverted});
}

TEST(CatalogSearchByUtf8Path, MalformedTextBehindAnUnknownName_IsNotReached) {
  const OpenVolume volume(build_volume(described()));
  EXPECT_EQ(looked_up(volume, "missing/\xFF").substr(0, 3), "at:");
}

TEST(CatalogSearchByUtf8Path, NameTooLong_EndsTheLookup) {
  expect_lookup_fails(
      "alpha/" + std::string(256, 'x'), kvfs_invalid,
      {"ERROR kvfs_unicode_utf8_to_unistr Preallocated buffer is too small to hold the UTF-16 result. *outs_len (255) < shorts (256)\n",
       kNotConverted});
  std::string accented;
  for (int i = 0; i < 200; ++i) {
    accented += "\u00E9";
  }
  expect_lookup_fails(
      accented, kvfs_overflow,
      {"ERROR kvfs_catalog_utf8_path_component Path component of 200 units is too long.\n", kNotConverted});
}

TEST(CatalogSearchByUtf8Path, EachFailingCall_IsReportedAndLeavesNothingBehind) {
  const auto operate = [](OpenVolume& volume, kvfs_catalog_record_locator* start) {
    kvfs_catalog_utf8_path path = {"beta/file"};
    Searched found;
    const kvfs_result result =
        kvfs_catalog_search_by_path(volume.catalog(), kvfs_catalog_utf8_path_component, &path, start, found.out());
    EXPECT_EQ(found.locator() == nullptr, result != kvfs_ok);
    return result;
  };
  VolumeDescription description = described();
  description.catalog.node_size = 2048;
  description.catalog.max_leaf_records = 2;
  const std::vector<FailedRun> runs = fail_everything_in(build_volume(description), {kRootFolderId, u"alpha", operate});
  EXPECT_TRUE(some_run_ends_with(
      runs, {"ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
             "ERROR kvfs_catalog_search_by_path Error while searching for intermediate path component.\n"}));
}

}  // namespace
}  // namespace kvfs_test
