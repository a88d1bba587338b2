// Setting the label with the built tool.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ios>
#include <set>
#include <string>
#include <vector>

#include "set_fixture.h"
#include "unicode_names.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr Tree kCatalog = Tree::kCatalog;

VolumeDescription small_description() {
  VolumeDescription description;
  const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
  (void)description.add_file(folder, u"file", 5000);
  return description;
}

Volume small_volume() {
  return build_volume(small_description());
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

// ---- Labels --------------------------------------------------------------------------------------------------------

// X-tool-5
TEST(ToolSet, OrdinaryLabel_IsSetAndNothingElse) {
  const ScratchFile image(small_volume());
  const Volume after = expect_set(image, "New label");
  EXPECT_EQ(read_label(after), u"New label");
}

TEST(ToolSet, EmptyLabel_IsSet) {
  const ScratchFile image(small_volume());
  EXPECT_EQ(read_label(expect_set(image, "")), u"");
  EXPECT_EQ(run_tool({image.path()}), printed("\n"));
  EXPECT_EQ(read_label(expect_set(image, "again")), u"again");
}

TEST(ToolSet, SameLabel_LeavesTheVolumeAsItIs) {
  const Volume before = small_volume();
  const ScratchFile image(before);
  EXPECT_TRUE(expect_set(image, "Untitled") == before);
}

TEST(ToolSet, CaseAlone_Changes) {
  for (const bool binary : {false, true}) {
    VolumeDescription description = small_description();
    description.hfsx = description.case_sensitive = binary;
    const ScratchFile image(build_volume(description));
    EXPECT_EQ(read_label(expect_set(image, "UNTITLED")), u"UNTITLED");
    EXPECT_EQ(read_label(expect_set(image, "untitled")), u"untitled");
  }
}

TEST(ToolSet, TextOfAnOption_IsALabel) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"--output-mode=raw", "--output-mode=bad", "-", "--help", "%s%n", " ", "\n", "/:\\"}) {
    (void)expect_set(image, label);
  }
}

TEST(ToolSet, OutputModeBeforeALabel_IsAcceptedAndDoesNotMatter) {
  const ScratchFile image(small_volume());
  for (const char* const mode : {"--output-mode=raw", "--output-mode=composed"}) {
    const std::string label = std::string("by ") + mode;
    EXPECT_EQ(run_tool({mode, image.path(), label}), printed(""));
    EXPECT_EQ(run_tool({image.path()}), printed(label + "\n"));
  }
}

TEST(ToolSet, AccentedLetter_IsStoredAsTwoUnits) {
  const ScratchFile image(small_volume());
  EXPECT_EQ(read_label(expect_set(image, "\xC3\xA9")), u"\u0065\u0301");
  EXPECT_EQ(run_tool({image.path()}), printed("\xC3\xA9\n"));
  EXPECT_EQ(run_tool({"--output-mode=raw", image.path()}), printed("e\xCC\x81\n"));
}

// Q-unicode-1
TEST(ToolSet, DecomposedText_IsStoredAsGiven) {
  const ScratchFile image(small_volume());
  EXPECT_EQ(read_label(expect_set(image, "e\xCC\x81")), u"\u0065\u0301");
  EXPECT_EQ(read_label(expect_set(image, "a\xCC\xA3\xCC\x81")), u"a\u0323\u0301");
}

TEST(ToolSet, CharactersBeyondTheBasicPlane_AreStoredAsPairs) {
  const ScratchFile image(small_volume());
  EXPECT_EQ(read_label(expect_set(image, "a\xF0\x9F\x98\x80z")), u"a\xD83D\xDE00z");
  (void)expect_set(image, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST(ToolSet, IgnorableCharacters_AreStored) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"\xE2\x80\x8C", "a\xE2\x80\x8D", "\xEF\xBB\xBFx", "\xE2\x80\xAA\xE2\x80\xAC"}) {
    (void)expect_set(image, label);
  }
}

TEST(ToolSet, EveryPrecomposedCharacter_IsStoredDecomposed) {
  const ScratchFile image(small_volume());
  ASSERT_EQ(decomposition_rows().size(), 942u);
  Name label;
  std::size_t units = 0;
  for (const auto& [character, sequence] : decomposition_rows()) {
    if (units + 1 + sequence.size() > 255) {
      (void)expect_set(image, to_utf8(label));
      label.clear();
      units = 0;
    }
    label += character;
    label += u'|';  // so that it does not compose with what follows
    units += sequence.size() + 1;
  }
  (void)expect_set(image, to_utf8(label));
}

TEST(ToolSet, EveryHangulSyllable_IsStoredAsJamo) {
  const ScratchFile image(small_volume());
  for (char16_t first = 0xAC00; first < 0xD7A4; first = static_cast<char16_t>(first + 85)) {
    Name label;
    for (char16_t unit = first; unit < 0xD7A4 && label.size() < 85; ++unit) {
      label += unit;
    }
    ASSERT_EQ(run_tool({image.path(), to_utf8(label)}), printed("")) << std::hex << int{first};
    ASSERT_EQ(read_label(image.volume()), decomposed(label)) << std::hex << int{first};
    ASSERT_EQ(run_tool({image.path()}), printed(to_utf8(label) + "\n")) << std::hex << int{first};
  }
  EXPECT_EQ(joined(check_volume(image.volume())), "");
}

// ---- Lengths -------------------------------------------------------------------------------------------------------

TEST(ToolSet, 255Units_AreSetHoweverTheyComeAbout) {
  const ScratchFile image(small_volume());
  for (const std::string& label :
       {repeated("x", 255), repeated("\xC3\xA9", 127) + "x", repeated("\xEA\xB0\x81", 85),
        repeated("\xF0\x9F\x98\x80", 127) + "x", repeated("\xE1\xBA\xA6", 85), repeated("\xE2\x80\x8C", 255)}) {
    EXPECT_EQ(read_label(expect_set(image, label)).size(), 255u);
  }
}

TEST(ToolSet, MoreThan255Units_AreRefusedAndChangeNothing) {
  const ScratchFile image(small_volume());
  const std::pair<std::string, const char*> labels[] = {
      {repeated("x", 256), "256"},
      {repeated("\xC3\xA9", 128), "256"},
      {repeated("\xC3\xA9", 255), "510"},
      {repeated("\xF0\x9F\x98\x80", 128), "256"},
      {repeated("\xEA\xB0\x81", 85) + "x", "256"},
      {repeated("x", 100000), "100000"},
  };
  for (const auto& [label, length] : labels) {
    expect_refused(image, label,
                   std::string("ERROR kvfs_volume_set_label Label length (") + length +
                       ") too large.\nError while changing volume label.\n");
  }
}

// ---- Malformed UTF-8 -----------------------------------------------------------------------------------------------

constexpr char kNotConverted[] = "Error when converting volume label from UTF-8 to UTF-16.\n";

TEST(ToolSet, MalformedUtf8_IsRefusedAndChangesNothing) {
  const ScratchFile image(small_volume());
  const std::string sequences[] = {
      "\x80",  // a continuation byte alone
      "\xBF",
      "\xC3",  // cut off
      "\xE2\x82",
      "\xE2",
      "\xF0\x9F\x98",
      "\xF0",
      "\xC0\x80",  // longer than needed
      "\xC1\xBF",
      "\xE0\x80\x80",
      "\xE0\x9F\xBF",
      "\xC3\x28",  // no continuation byte where one has to be
      "\xE2\x28\xA1",
      "\xE2\x82\x28",
      "\xF0\x28\x8C\xBC",
      "\xF0\x90\x28\xBC",
      "\xF0\x90\x8C\x28",
      "\xC3\xC3",
      "\xED\xA0\x80",  // surrogates
      "\xED\xBF\xBF",
      "\xED\xA0\xBD\xED\xB8\x80",
  };
  for (const std::string& sequence : sequences) {
    expect_refused(image, sequence, kNotConverted);
    expect_refused(image, "before " + sequence, kNotConverted);
  }
}

TEST(ToolSet, MalformedUtf8WithTextBehindIt_IsRefusedAndChangesNothing) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"\x80 after", "\xC0\x80 after", "\xC3 after", "\xED\xA0\x80 after"}) {
    expect_refused(image, label, kNotConverted);
  }
}

TEST(ToolSet, LeadByteBeyondUnicode_IsReportedByTheSizing) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"\xF5", "\xF5\x80\x80\x80", "x\xFE", "\xFF", "\xF8\x88\x80\x80\x80"}) {
    expect_refused(
        image, label,
        std::string("ERROR kvfs_unicode_utf8_to_unistr Error while getting UTF-16 size for UTF-8 string.\n") +
            kNotConverted);
  }
}

TEST(ToolSet, FourByteSequenceOutsideItsRange_IsAnInternalErrorAndChangesNothing) {
  const ScratchFile image(small_volume());
  const std::pair<const char*, const char*> labels[] = {
      {"\xF0\x80\x80\x80", "Expected: 2 Actual: 1"},
      {"\xF0\x8F\xBF\xBF", "Expected: 2 Actual: 1"},
      {"\xF4\x90\x80\x80z", "Expected: 3 Actual: 2"},
  };
  for (const auto& [label, counts] : labels) {
    expect_refused(
        image, label,
        std::string("ERROR kvfs_unicode_utf8_to_unistr Internal error - Filled length is not as expected. ") + counts +
            "\n" + kNotConverted);
  }
}

// ---- Labels that cannot be read back -------------------------------------------------------------------------------

constexpr char kNotReadBack[] = "Error while reading the changed volume label back.\n";

// The converter lets a last character beyond U+10FFFF through, as two units that no converter takes back.
// X-tool-5
TEST(ToolSet, CharacterJustBeyondUnicodeAtTheEnd_IsRefusedAndChangesNothing) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"\xF4\x90\x80\x80", "long before \xF4\x90\x80\x80", "\xF4\xBF\xBF\xBF"}) {
    expect_refused(image, label, std::string("Error while converting UTF-16 string to UTF-8.\n") + kNotReadBack);
  }
}

// A catalog in binary order, in nodes of one sector: in the first leaf the root folder's two records, a private folder
// and one more.
Volume volume_with_private_name_in_the_first_leaf() {
  VolumeDescription description;
  description.hfsx = description.case_sensitive = description.nul_names_by_units = true;
  description.label = u"o";
  description.block_size = description.catalog.node_size = 512;
  (void)description.private_folder();
  (void)description.add_folders(kRootFolderId, 12, "d", 10);
  description.catalog.leaf_fill[0].max_records = 4;
  return build_volume(description);
}

// When the new thread record splits the leaf before the private folder, whose name orders before the thread's empty
// one, the index leads past the thread: nothing would find the root folder any more.
// X-tool-5
TEST(ToolSet, SplitThatLetsALeafBeginWithAPrivateName_IsRefusedAndChangesNothing) {
  const ScratchFile image(volume_with_private_name_in_the_first_leaf());
  expect_refused(image, std::string(50, 'L'), kNotReadBack);
  EXPECT_EQ(run_tool({image.path()}), printed("o\n"));
  EXPECT_EQ(run_tool({image.path(), std::string(20, 'S')}), printed("")) << "one that needs no split is set";
  EXPECT_EQ(run_tool({image.path()}), printed(std::string(20, 'S') + "\n"));
}

// When the new folder record splits that leaf there, the old thread is not found again. A second one, with the new
// label, would stand behind it, where this tool finds it and other systems do not.
// X-tool-6
TEST(ToolSet, SecondThreadOfTheRootFolder_IsRefusedAndChangesNothing) {
  const ScratchFile image(volume_with_private_name_in_the_first_leaf());
  expect_refused(
      image, std::string(70, 'L'),
      std::string("WARNING kvfs_catalog_rename_record Missing thread record for original file in rename. Creating new "
                  "thread record...\n") +
          kNotReadBack);
  EXPECT_EQ(run_tool({image.path()}), printed("o\n"));
}

// ---- Printing without opening the volume anew ----------------------------------------------------------------------

TEST(ToolSet, LabelPrintedWithoutReopening_IsTheNewOne) {
  const ScratchFile image(small_volume());
  for (const char* const label : {"New label", "", "Caf\xC3\xA9", "\xF0\x9F\x98\x80"}) {
    EXPECT_EQ(run_program(SET_AND_PRINT_PATH, {image.path(), label}), printed(label + std::string("\n")));
    EXPECT_EQ(run_tool({image.path()}), printed(label + std::string("\n")));
  }
}

TEST(ToolSet, RefusedLabel_IsNotPrintedWithoutReopening) {
  const ScratchFile image(small_volume());
  EXPECT_EQ(run_program(SET_AND_PRINT_PATH, {image.path(), "\x80"}),
            failed("Error when converting volume label from UTF-8 to UTF-16.\n"));
  EXPECT_EQ(run_tool({image.path()}), printed("Untitled\n"));
}

// ---- How the device is used ----------------------------------------------------------------------------------------

TEST(ToolSet, Device_IsOpenedForWritingAndLockedAlone) {
  const ScratchFile image(small_volume());
  const TracedRun traced = run_traced({image.path(), "new"});
  EXPECT_THAT(traced.calls_of("open64 "), ElementsAre(MatchesRegex("open64 " + image.path() + " flags=2 = [0-9]+")));
  EXPECT_THAT(traced.calls_of("flock "),
              ElementsAre(MatchesRegex("flock [0-9]+ LOCK_EX = 0"), MatchesRegex("flock [0-9]+ LOCK_UN = 0")));
}

TEST(ToolSet, FileThatCannotBeWritten_IsRefused) {
  EXPECT_EQ(run_tool({"/", "new"}), failed("Error while opening HFS+ volume in read/write mode.\n"));
  EXPECT_EQ(run_tool({"/nowhere/at all", "new"}), failed("Error while opening HFS+ volume in read/write mode.\n"));
}

// Q-tool-4
TEST(ToolSet, NoVolume_IsReportedInReadWriteMode) {
  const ScratchFile image(SparseImage(65536));
  expect_refused(image, "new",
                 "ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x0\n"
                 "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
                 "Error while opening volume in read/write mode.\n");
}

// Q-tool-5
TEST(ToolSet, VolumeHeaders_AreNotWritten) {
  const Volume before = small_volume();
  const ScratchFile image(before);
  const Volume after = expect_set(image, "new");
  EXPECT_EQ(after.SparseImage::read(1024, 512), before.SparseImage::read(1024, 512));
  EXPECT_EQ(after.SparseImage::read(after.size() - 1024, 512), before.SparseImage::read(before.size() - 1024, 512));
}

// ---- Volumes of every shape ----------------------------------------------------------------------------------------

struct Shape {
  const char* name;
  std::function<void(VolumeDescription&)> describe;
  std::size_t long_label = 255;  // units that the shape has room for
};

void PrintTo(const Shape& shape, std::ostream* stream) {
  *stream << shape.name;
}

void describe_tree(VolumeDescription& d, std::uint32_t node_size, std::uint32_t block_size, std::uint32_t files) {
  d.catalog.node_size = node_size;
  d.block_size = block_size;
  (void)d.add_files(kRootFolderId, files);
}

std::vector<Shape> height_shapes() {
  return {
      {"HeightOne", [](VolumeDescription& d) { d.catalog.height = 1; }},
      {"HeightTwo",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 60);
         d.catalog.height = 2;
       }},
      {"HeightThree",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.catalog.height = 3;
       }},
      {"HeightFour",
       [](VolumeDescription& d) {
         describe_tree(d, 2048, 1024, 300);
         d.catalog.height = 4;
       },
       200},
      {"HeightFive",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 300);
         d.catalog.height = 5;
       }},
  };
}

std::vector<Shape> size_shapes() {
  return {
      {"Nodes512", [](VolumeDescription& d) { describe_tree(d, 512, 512, 60); }, 20},
      {"Nodes1024", [](VolumeDescription& d) { describe_tree(d, 1024, 512, 60); }, 60},
      {"Nodes8192", [](VolumeDescription& d) { describe_tree(d, 8192, 4096, 500); }},
      {"Nodes32768", [](VolumeDescription& d) { describe_tree(d, 32768, 4096, 500); }},
      {"Blocks65536", [](VolumeDescription& d) { describe_tree(d, 4096, 65536, 100); }},
      {"NodesOf32768InBlocksOf512", [](VolumeDescription& d) { describe_tree(d, 32768, 512, 500); }},
  };
}

std::vector<Shape> extent_shapes() {
  return {
      {"EightExtents",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.catalog.extent_count = 8;
       }},
      {"FortyExtents",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 500);
         d.catalog.extent_count = 40;
       }},
      // Extents of odd numbers of blocks cut nodes in two or more parts.
      {"NodesAcrossExtents",
       [](VolumeDescription& d) {
         describe_tree(d, 8192, 512, 100);
         d.catalog.extent_count = 45;
       }},
      {"EachBlockAnExtent",
       [](VolumeDescription& d) {
         describe_tree(d, 2048, 512, 30);
         d.catalog.spare_nodes = 2;
         d.catalog.extent_count = 60;
       },
       200},
      {"OverOneMebibyte", [](VolumeDescription& d) { describe_tree(d, 4096, 4096, 6000); }},
      {"OverOneMebibyteInManyExtents",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 6000);
         d.catalog.extent_count = 50;
       }},
      {"BeyondFourGibibytes",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.size = std::uint64_t{6} << 30;
         d.catalog.first_block = 5 << 18;  // at 5 GiB
       }},
      {"TrailingSectors",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 5);
         d.trailing_bytes = 1536;
       }},
  };
}

std::vector<Shape> kind_shapes() {
  return {
      {"Hfsx",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.hfsx = true;
       }},
      {"CaseSensitive",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.hfsx = d.case_sensitive = true;
       }},
      {"BinaryOrderOnHfsPlus",
       [](VolumeDescription& d) {
         describe_tree(d, 4096, 4096, 100);
         d.case_sensitive = true;
       }},
      {"FolderCounts",
       [](VolumeDescription& d) {
         d.folder_counts = true;
         (void)d.add_folders(kRootFolderId, 20);
       }},
      {"HardLinks",
       [](VolumeDescription& d) {
         const std::uint32_t target = d.add_inode(100);
         (void)d.add_hard_link(kRootFolderId, u"one", target);
         (void)d.add_hard_link(kRootFolderId, u"two", target);
       }},
      {"MapNodes",
       [](VolumeDescription& d) {
         describe_tree(d, 512, 512, 60);
         d.catalog.total_nodes = 6000;
       },
       20},
      {"MapNodesFirst",
       [](VolumeDescription& d) {
         describe_tree(d, 512, 512, 60);
         d.catalog.total_nodes = 6000;
         d.catalog.map_nodes_first = true;
       },
       20},
  };
}

std::vector<Shape> shapes() {
  std::vector<Shape> all;
  for (const auto& some : {height_shapes(), size_shapes(), extent_shapes(), kind_shapes()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

Volume volume_of(const Shape& shape) {
  VolumeDescription description;
  shape.describe(description);
  return build_volume(description);
}

class ToolSetShape : public ::testing::TestWithParam<Shape> {};

TEST_P(ToolSetShape, SameLength_RewritesTheLeftSideOfTheTreeAlone) {
  const Volume before = volume_of(GetParam());
  const ScratchFile image(before);
  const TracedRun traced = run_traced({image.path(), "Renamed!"});
  EXPECT_EQ(traced.run, printed(""));
  EXPECT_EQ(writes_of(traced), transfers_of_nodes(before, nodes_of_label(before)));
  EXPECT_EQ(faults_of_change(before, image.volume(), u"Renamed!"), "");
}

TEST_P(ToolSetShape, LongLabel_FindsItsRoom) {
  const ScratchFile image(volume_of(GetParam()));
  (void)expect_set(image, repeated("L", GetParam().long_label));
}

TEST_P(ToolSetShape, SetAndSetBack_LeavesAllRecordsAsTheyWere) {
  const Volume before = volume_of(GetParam());
  const ScratchFile image(before);
  (void)expect_set(image, "");
  (void)expect_set(image, repeated("\xC3\xA9", GetParam().long_label / 2));
  const Volume after = expect_set(image, "Untitled");
  EXPECT_EQ(dump_records(after, kCatalog), dump_records(before, kCatalog));
}

INSTANTIATE_TEST_SUITE_P(All, ToolSetShape, ::testing::ValuesIn(shapes()),
                         [](const ::testing::TestParamInfo<Shape>& parameter) { return parameter.param.name; });

// ---- Full nodes ----------------------------------------------------------------------------------------------------

// The lowest node, from 1 on, whose bit is clear.
std::uint32_t first_free_node(const Volume& volume, std::uint32_t from = 1) {
  while (volume.node_used(kCatalog, from)) {
    ++from;
  }
  return from;
}

std::uint32_t root_of(const Volume& volume) {
  return static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"));
}

std::uint32_t first_leaf_of(const Volume& volume) {
  return static_cast<std::uint32_t>(volume.get_field("catalog.header.firstLeafNode"));
}

TEST(ToolSetFull, FirstLeaf_IsSplitAndFiveNodesAreWritten) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].free_bytes = 0;
  const Volume before = build_volume(description);
  ASSERT_EQ(before.get_field("catalog.header.treeDepth"), 2u);
  const ScratchFile image(before);
  const TracedRun traced = run_traced({image.path(), repeated("L", 100)});
  EXPECT_EQ(traced.run, printed(""));
  const std::uint32_t leaf = first_leaf_of(before);
  const std::uint32_t claimed = first_free_node(before);
  const std::uint32_t neighbour = before.leaf_nodes(kCatalog).at(1);
  EXPECT_EQ(writes_of(traced), transfers_of_nodes(before, {0, leaf, claimed, neighbour, root_of(before)}));
  const Volume after = image.volume();
  EXPECT_EQ(faults_of_change(before, after, Name(100, u'L')), "");
  EXPECT_EQ(after.leaf_nodes(kCatalog).at(1), claimed);
  EXPECT_EQ(after.get_field("catalog.header.freeNodes") + 1, before.get_field("catalog.header.freeNodes"));
}

// A tree whose nodes on the left are full but for the root.
Volume full_left_side(std::uint16_t height) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.catalog.height = height;
  description.catalog.spare_nodes = 20;
  (void)description.add_files(kRootFolderId, height == 3 ? 60 : 150, "f", 16);
  return build_volume(description);
}

TEST(ToolSetFull, IndexNodesUpToTheRoot_AreSplitOneAfterTheOther) {
  for (const std::uint16_t height : {std::uint16_t{3}, std::uint16_t{4}}) {
    const Volume before = full_left_side(height);
    const ScratchFile image(before);
    const Volume after = expect_set(image, repeated("L", 60));
    EXPECT_GE(before.get_field("catalog.header.freeNodes"), after.get_field("catalog.header.freeNodes") + 2)
        << "no index node was split";
    EXPECT_EQ(after.get_field("catalog.header.treeDepth"), height);
    EXPECT_EQ(root_of(after), root_of(before));
  }
}

TEST(ToolSetFull, HoleAmongTheUsedNodes_IsClaimedFirst) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.free_nodes = {2, 5};
  const ScratchFile image(build_volume(description));
  const Volume after = expect_set(image, repeated("L", 100));
  EXPECT_TRUE(after.node_used(kCatalog, 2));
  EXPECT_FALSE(after.node_used(kCatalog, 5));
}

// What a free node holds does not matter, be it a node that was freed or anything else.
TEST(ToolSetFull, FreeNodeThatHoldsSomething_IsClaimed) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].free_bytes = 0;
  const Volume clean = build_volume(description);
  const std::uint32_t claimed = first_free_node(clean);
  const std::string node = "catalog.node[" + std::to_string(claimed) + "].";
  const struct {
    std::int8_t kind;
    std::uint8_t height;
    std::uint16_t key_length;
  } cases[] = {{-1, 1, 0}, {-1, 1, 5}, {-1, 1, 0xFFFF}, {0, 0, 6}, {1, 1, 6}, {2, 0, 0xFFFF}, {-18, 1, 6}};
  for (const auto& [kind, height, key_length] : cases) {
    Volume volume = clean;
    volume.write_node(kCatalog, claimed, volume.read_node(kCatalog, first_leaf_of(clean)));
    volume.set_field(node + "kind", static_cast<std::uint8_t>(kind));
    volume.set_field(node + "height", height);
    volume.set_field(node + "record[0].key.keyLength", key_length);
    const ScratchFile image(volume);
    const Volume after = expect_set(image, repeated("L", 100));
    EXPECT_EQ(after.leaf_nodes(kCatalog).at(1), claimed);
  }
}

constexpr char kNotInserted[] =
    "ERROR kvfs_catalog_insert_record Error in kvfs_btree_insert_record.\n"
    "ERROR kvfs_catalog_rename_record Error while inserting record into catalog.\n"
    "ERROR kvfs_volume_set_label Error while renaming record.\n"
    "Error while changing volume label.\n";

TEST(ToolSetFull, RootThatIsALeaf_CannotBeSplit) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 12, "f", 12);
  description.catalog.height = 1;
  const ScratchFile image(build_volume(description));
  expect_refused(image, repeated("L", 50),
                 std::string("ERROR kvfs_btree_split_node Unable to split root node.\n"
                             "ERROR kvfs_btree_insert_record_internal Error while splitting node.\n") +
                     kNotInserted);
  (void)expect_set(image, "short");
}

// Q-btree-13
TEST(ToolSetFull, RootThatIsAnIndexNode_CannotBeSplit) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  (void)description.add_files(kRootFolderId, 10, "f", 16);
  const Volume before = build_volume(description);
  ASSERT_EQ(before.get_field("catalog.header.treeDepth"), 2u);
  ASSERT_LT(before.free_bytes(kCatalog, root_of(before)), 40);
  const ScratchFile image(before);
  const TracedRun traced = run_traced({image.path(), repeated("L", 60)});
  EXPECT_EQ(traced.run.status, 1);
  EXPECT_NE(traced.run.err.find("ERROR kvfs_btree_split_node Unable to split root node.\n"), std::string::npos)
      << traced.run;
  EXPECT_TRUE(traced.run.err.ends_with("Error while changing volume label.\n")) << traced.run;
  EXPECT_TRUE(image.volume() == before);
}

// Q-btree-17
TEST(ToolSetFull, NoFreeNode_FailsAndChangesNothing) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.spare_nodes = 0;
  const Volume before = build_volume(description);
  ASSERT_EQ(before.get_field("catalog.header.freeNodes"), 0u);
  const ScratchFile image(before);
  expect_refused(image, repeated("L", 50),
                 std::string("ERROR kvfs_btree_claim_node Need to expand B-tree, but this is not yet implemented.\n"
                             "ERROR kvfs_btree_split_node Error while claiming node.\n"
                             "ERROR kvfs_btree_insert_record_internal Error while splitting node.\n") +
                     kNotInserted);
  (void)expect_set(image, "short");
}

// The byte behind the header node's map record, an offset, stands for nodes 2,048 to 2,055 and calls most of them free.
// X-btree-12
TEST(ToolSetFull, NodeInUseBehindAFullMapRecord_IsNotOverwritten) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.catalog.leaf_fill[0].free_bytes = 0;
  (void)description.add_files(kRootFolderId, 2000);
  const Volume before = build_volume(description);
  ASSERT_GT(first_free_node(before), 2056u);
  const ScratchFile image(before);
  expect_refused(image, repeated("L", 50),
                 std::string("ERROR kvfs_btree_split_node Invalid node data: Node 2048 is linked or marked wrongly.\n"
                             "ERROR kvfs_btree_insert_record_internal Error while splitting node.\n") +
                     kNotInserted);
  (void)expect_set(image, "Untitled");
}

// Where the links are damaged too, the index alone knows that the node is in use.
// X-btree-12
TEST(ToolSetFull, LeavesThatTheNodeBitmapCallsFree_AreNotOverwritten) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.catalog.leaf_fill[0].free_bytes = 0;
  (void)description.add_files(kRootFolderId, 100);
  for (const std::vector<std::string>& lost :
       std::vector<std::vector<std::string>>{{}, {".bLink"}, {".bLink", ".fLink"}}) {
    Volume before = build_volume(description);
    const std::uint32_t leaf = before.leaf_nodes(kCatalog).at(5);
    before.set_node_used(kCatalog, leaf, false);
    for (const std::string& link : lost) {
      before.set_field("catalog.node[" + std::to_string(leaf) + "]" + link, 0);
    }
    const ScratchFile image(before);
    expect_refused(image, repeated("L", 50),
                   "ERROR kvfs_btree_split_node Invalid node data: Node " + std::to_string(leaf) +
                       " is linked or marked wrongly.\nERROR kvfs_btree_insert_record_internal Error while splitting "
                       "node.\n" +
                       std::string(kNotInserted));
  }
}

// The first index node of height 2 gets a new first record, and so a new index record, for which the node above is
// split: its former one is gone by then.
// X-btree-12
TEST(ToolSetFull, NodesThatTheIndexDoesNotLeadToForAWhile_AreNotOverwritten) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.label = u"V";
  (void)description.add_files(kRootFolderId, 900);
  const Volume sound = build_volume(description);
  const std::vector<std::uint32_t> leaves = sound.leaf_nodes(kCatalog);
  const std::uint32_t index_node = sound.index_path(kCatalog, leaves.front()).back().node;
  std::vector<std::uint32_t> nodes = {index_node, leaves.at(1), leaves.at(2), leaves.at(7), leaves.at(100)};
  for (const std::uint32_t node : nodes) {
    for (const std::size_t length : {std::size_t{5}, std::size_t{20}, std::size_t{50}}) {
      Volume before = sound;
      before.set_node_used(kCatalog, node, false);
      const ScratchFile image(before);
      const auto run = run_tool({image.path(), repeated("L", length)});
      EXPECT_EQ(run.status, 1) << node << " " << length;
      EXPECT_TRUE(image.volume() == before) << node << " " << length;
    }
  }
}

// X-btree-10
TEST(ToolSetFull, FirstLeafOfAnotherHeight_IsRefused) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  (void)description.add_files(kRootFolderId, 300);
  Volume before = build_volume(description);
  before.set_field("catalog.node[" + std::to_string(before.leaf_nodes(kCatalog).front()) + "].height", 2);
  const ScratchFile image(before);
  expect_refused(image, "A new and longer label",
                 "ERROR kvfs_btree_delete_record_internal B-tree of depth 4 cannot be maintained at height 2.\n"
                 "ERROR kvfs_catalog_rename_record Error while deleting record from B-tree.\n"
                 "ERROR kvfs_volume_set_label Error while renaming record.\n"
                 "Error while changing volume label.\n");
}

// A free node is asked whether it is in use, but what it holds, such as a name that its key cuts off, is no message.
// X-btree-12
TEST(ToolSetFull, FreeNodesThatHoldAnything_AreTakenInSilence) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  description.catalog.leaf_fill[0].free_bytes = 0;
  (void)description.add_files(kRootFolderId, 100);
  const Volume sound = build_volume(description);
  const std::uint32_t claimed = first_free_node(sound);
  const std::uint32_t leaf = sound.leaf_nodes(kCatalog).at(5);
  const std::uint32_t index_node = sound.index_path(kCatalog, leaf).back().node;
  for (const std::uint32_t copied : {leaf, index_node}) {
    for (const std::uint32_t name_length : {0u, 1u, 200u, 255u, 0xFFFFu}) {
      Volume before = sound;
      Bytes bytes = sound.read_node(kCatalog, copied);
      put_be(bytes, kBTFirstRecordOffset + offsetof(HFSPlusCatalogKey, nodeName), 2, name_length);
      before.write_node(kCatalog, claimed, bytes);
      const ScratchFile image(before);
      (void)expect_set(image, repeated("L", 50));
      EXPECT_EQ(image.volume().leaf_nodes(kCatalog).at(1), claimed);
    }
  }
}

TEST(ToolSetFull, LabelTooLargeForANode_FailsAndChangesNothing) {
  VolumeDescription description;
  description.block_size = 512;
  description.catalog.node_size = 512;
  (void)description.add_files(kRootFolderId, 5);
  const ScratchFile image(build_volume(description));
  // 8 bytes and two for each unit of key, 88 of data: 199 units fill the 494 bytes that a node has for a record.
  expect_refused(
      image, repeated("L", 200),
      std::string(
          "ERROR kvfs_btree_insert_record_internal Record cannot fit in a node given the B-tree's node size of 512 bytes (need 514 bytes).\n") +
          kNotInserted);
}

// A node that has lost its last record cannot be searched any more, so that a label cannot be changed where that
// happens on the way.
// X-btree-2
TEST(ToolSetFull, RootFolderAloneInItsLeaf_FailsAndChangesNothing) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].max_records = 1;
  const Volume before = build_volume(description);
  const ScratchFile image(before);
  const TracedRun traced = run_traced({image.path(), "new"});
  EXPECT_EQ(traced.run.status, 1);
  EXPECT_TRUE(traced.run.err.ends_with(kNotInserted)) << traced.run;
  EXPECT_TRUE(image.volume() == before);
}

// The root node loses its record and gets another one, whose place is over the bytes of the old one: of that the
// engine warns.
// X-btree-2
TEST(ToolSetFull, RootNodeOfOneIndexRecord_IsMaintained) {
  VolumeDescription description;
  description.catalog.height = 2;
  description.catalog.leaf_fill[0].max_records = 100;  // one leaf alone below the root node
  const Volume before = build_volume(description);
  for (const std::string& label : {std::string("new"), std::string("Untitled2"), repeated("L", 255)}) {
    const ScratchFile image(before);
    const ToolRun run = run_tool({image.path(), label});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.err.find("ERROR"), std::string::npos) << run;
    EXPECT_EQ(faults_of_change(before, image.volume(), decomposed(label)), "");
    EXPECT_EQ(run_tool({image.path()}), printed(label + "\n"));
  }
}

TEST(ToolSetFull, ThreadOfTheRootFolderMissing_CannotBeOpened) {
  VolumeDescription description = small_description();
  description.root.with_thread = false;
  const ScratchFile image(build_volume(description));
  const TracedRun traced = run_traced({image.path(), "new"});
  EXPECT_EQ(traced.run, failed("ERROR kvfs_volume_setup Root directory not found!\n"
                               "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
                               "Error while opening volume in read/write mode.\n"));
}

// ---- Independent readers -------------------------------------------------------------------------------------------

TEST(ToolSetReaders, EveryReader_ShowsTheNewLabelAndTheSameListing) {
  for (const auto& describe : {std::function<void(VolumeDescription&)>([](VolumeDescription&) {}),
                               std::function<void(VolumeDescription&)>([](VolumeDescription& d) {
                                 (void)d.add_files(d.add_folder(kRootFolderId, u"many"), 200);
                                 d.catalog.leaf_fill[0].free_bytes = 0;
                                 d.catalog.extent_count = 20;
                               })}) {
    VolumeDescription description = small_description();
    describe(description);
    const ScratchFile image(build_volume(description));
    const std::string listing = listing_by_others(image.path());
    EXPECT_NE(listing.find("folder/file"), std::string::npos);
    const std::vector<std::string> labels = labels_by_others(image.path());
    EXPECT_EQ(labels.size(), 4u);
    EXPECT_THAT(labels, Each(::testing::EndsWith(": Untitled")));
    for (const std::string label : {"Backup 2024", "Ünïcode", "한국"}) {
      (void)expect_set(image, label);
      EXPECT_THAT(labels_by_others(image.path()), Each(::testing::EndsWith(": " + to_utf8(decomposed(label)))));
      EXPECT_EQ(listing_by_others(image.path()), listing);
    }
  }
}

}  // namespace
}  // namespace kvfs_test
