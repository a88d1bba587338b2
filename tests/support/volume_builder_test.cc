#include "volume_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <ostream>
#include <stdexcept>

#include "volume_checker.h"

namespace kvfs_test {
namespace {

using ::testing::HasSubstr;

// A file that disappears with the test.
class TemporaryFile {
 public:
  TemporaryFile() {
    std::string name = ::testing::TempDir() + "kvfs_volume_XXXXXX";
    const int descriptor = ::mkstemp(name.data());
    if (descriptor < 0) {
      throw std::runtime_error("cannot make a temporary file");
    }
    ::close(descriptor);
    path_ = name;
  }
  ~TemporaryFile() { std::remove(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Output of a shell command, standard error included.
std::string run(const std::string& command) {
  std::FILE* const pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("cannot run " + command);
  }
  std::string output;
  std::array<char, 4096> buffer{};
  for (std::size_t got = 0; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    output.append(buffer.data(), got);
  }
  (void)::pclose(pipe);
  return output;
}

bool installed(const std::string& program) {
  return !run("command -v " + program).empty();
}

Volume build(const std::function<void(VolumeDescription&)>& describe) {
  VolumeDescription description;
  describe(description);
  return build_volume(description);
}

std::string refusal(const std::function<void(VolumeDescription&)>& describe) {
  try {
    (void)build(describe);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "built";
}

// ---- SparseImage

TEST(SparseImageTest, Read_NeverWritten_IsZero) {
  const SparseImage image(1ULL << 40);
  EXPECT_EQ(image.get64((1ULL << 40) - 8), 0U);
}

TEST(SparseImageTest, Write_AcrossChunks_ReadsBack) {
  SparseImage image(100000);
  const Bytes bytes = {1, 2, 3, 4, 5, 6};
  image.write(SparseImage::kChunkSize - 3, bytes);
  EXPECT_EQ(image.read(SparseImage::kChunkSize - 3, 6), bytes);
}

TEST(SparseImageTest, Access_BeyondTheEnd_Throws) {
  SparseImage image(1000);
  EXPECT_THROW((void)image.get16(999), std::out_of_range);
  EXPECT_THROW(image.set8(1000, 1), std::out_of_range);
  EXPECT_THROW((void)image.read(~std::uint64_t{0}, 2), std::out_of_range);
}

TEST(SparseImageTest, Set_StoresBigEndian) {
  SparseImage image(100);
  image.set32(10, 0x01020304);
  EXPECT_EQ(image.read(10, 4), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(image.get16(11), 0x0203);
}

TEST(SparseImageTest, Truncate_ThenLengthen_BringsZeros) {
  SparseImage image(100000);
  image.fill(0, 100000, 0xAA);
  image.truncate(50001);
  image.truncate(100000);
  EXPECT_EQ(image.get8(50000), 0xAA);
  EXPECT_EQ(image.get8(50001), 0);
  EXPECT_EQ(image.get8(99999), 0);
}

TEST(SparseImageTest, Differences_AreMaximalRuns) {
  SparseImage a(100000);
  a.set8(700, 9);
  SparseImage b = a;
  EXPECT_TRUE(a == b);
  b.set32(SparseImage::kChunkSize - 2, 0xFFFFFFFF);
  b.set8(700, 0);
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a.differences(b), (std::vector<ByteRange>{{700, 1}, {SparseImage::kChunkSize - 2, 4}}));
  EXPECT_EQ(a.changed_units(b, 512), (std::vector<std::uint64_t>{1, 31, 32}));
}

TEST(SparseImageTest, Differences_OfUnequalSizes_HoldTheTail) {
  EXPECT_EQ(SparseImage(100).differences(SparseImage(150)), (std::vector<ByteRange>{{100, 50}}));
}

TEST(SparseImageTest, WriteTo_HugeImage_IsSparseAndLoadsBack) {
  SparseImage image((1ULL << 40) + 7);
  image.set32(1024, 0x482B0004);
  image.set8(1ULL << 40, 0x55);
  const TemporaryFile file;
  image.write_to(file.path());
  struct stat64 status {};
  ASSERT_EQ(::stat64(file.path().c_str(), &status), 0);
  EXPECT_EQ(static_cast<std::uint64_t>(status.st_size), image.size());
  EXPECT_LT(status.st_blocks, 1000);
  EXPECT_TRUE(SparseImage::load(file.path()) == image);
}

TEST(SparseImageTest, Load_MissingFile_Throws) {
  EXPECT_THROW((void)SparseImage::load("/nonexistent/volume"), std::runtime_error);
}

// ---- Names

TEST(UnicodeFixtureTest, Decomposed_ComposedText_IsSplit) {
  EXPECT_EQ(decomposed("é"), u"e\u0301");
  EXPECT_EQ(decomposed("가각"), u"\u1100\u1161\u1100\u1161\u11A8");
  EXPECT_EQ(decomposed("\U0001F600"), u"\U0001F600");
  EXPECT_EQ(decomposition_rows().size(), 942U);
}

TEST(UnicodeFixtureTest, Utf8_RoundTrip_IsIdentity) {
  const std::string text = "aß가\U0001F600";
  EXPECT_EQ(to_utf8(to_utf16(text)), text);
  EXPECT_THROW((void)to_utf16("\xC3"), std::invalid_argument);
}

TEST(UnicodeFixtureTest, CompareNames_FollowsTheFoldingTable) {
  EXPECT_EQ(compare_names(u"Readme", u"README", false), 0);
  EXPECT_GT(compare_names(u"Readme", u"README", true), 0);
  EXPECT_EQ(compare_names(u"a\u200C", u"a", false), 0);
  EXPECT_GT(compare_names(u"a\u200B", u"a", false), 0);
  EXPECT_LT(compare_names(u"", u"a", true), 0);
  EXPECT_LT(compare_names(u"z", std::u16string_view(u"\0", 1), false), 0);
}

TEST(KeyOrderTest, PrivateFolder_SortsLastFoldedAndFirstBinary) {
  const Bytes folder = catalog_key(kRootFolderId, std::u16string_view(u"\0\0x", 3));
  const Bytes file = catalog_key(kRootFolderId, u"\uFFFE");
  EXPECT_GT(compare_keys(Tree::kCatalog, folder, file, false), 0);
  EXPECT_LT(compare_keys(Tree::kCatalog, folder, file, true), 0);
}

// ---- Bytes of a volume, by their places in the published format

TEST(VolumeBuilderTest, SmallVolume_HasTheFormatsBytes) {
  const Volume volume = build([](VolumeDescription& d) { d.label = u"AB"; });
  EXPECT_EQ(volume.read(1024, 4), (Bytes{0x48, 0x2B, 0, 4}));
  EXPECT_EQ(volume.get32(1024 + 40), 4096U);
  EXPECT_EQ(volume.get32(1024 + 44), volume.size() / 4096);
  EXPECT_EQ(volume.read(1024, 512), volume.read(volume.size() - 1024, 512));
  const std::uint64_t catalog = std::uint64_t{volume.get32(1024 + 272 + 16)} * 4096;
  EXPECT_EQ(volume.read(catalog + 8, 4), (Bytes{1, 0, 0, 3}));  // kind, height and number of records of node 0
  EXPECT_EQ(volume.get16(catalog + 4096 - 2), 14);
  EXPECT_EQ(volume.get16(catalog + 4096 - 6), 248);
  const std::uint64_t leaf = catalog + 4096;
  EXPECT_EQ(volume.read(leaf + 8, 4), (Bytes{0xFF, 1, 0, 2}));
  EXPECT_EQ(volume.read(leaf + 14, 12), (Bytes{0, 10, 0, 0, 0, 1, 0, 2, 0, 'A', 0, 'B'}));
  EXPECT_EQ(volume.read(leaf + 14 + 12, 2), (Bytes{0, 1}));                         // the root's folder record
  EXPECT_EQ(volume.get32(leaf + 14 + 12 + 8), 2U);                                  // and its ID
  EXPECT_EQ(volume.read(leaf + 14 + 12 + 88, 8), (Bytes{0, 6, 0, 0, 0, 2, 0, 0}));  // the thread's key
  EXPECT_EQ(volume.read(leaf + 122, 14), (Bytes{0, 3, 0, 0, 0, 0, 0, 1, 0, 2, 0, 'A', 0, 'B'}));
}

// ---- Shapes: each is sound, and is what was asked for

struct Shape {
  const char* name;
  std::function<void(VolumeDescription&)> describe;
  std::function<void(const Volume&)> expect;
};

void PrintTo(const Shape& shape, std::ostream* out) {
  *out << shape.name;
}

void expect_field(const Volume& volume, const std::string& name, std::uint64_t value) {
  EXPECT_EQ(volume.get_field(name), value) << name;
}

void describe_tree_of_height(VolumeDescription& d, std::uint16_t height) {
  if (height > 1) {
    (void)d.add_files(kRootFolderId, 60);
  }
  d.catalog.height = height;
}

std::vector<Shape> content_shapes() {
  return {
      {"Plain", [](VolumeDescription& d) { d.set_label("Größe"); },
       [](const Volume& v) {
         EXPECT_EQ(read_label(v), u"Gro\u0308\u00DFe");
         expect_field(v, "catalog.header.leafRecords", 2);
         expect_field(v, "extents.header.treeDepth", 0);
       }},
      {"EmptyLabel", [](VolumeDescription& d) { d.label.clear(); },
       [](const Volume& v) { EXPECT_EQ(read_label(v), u""); }},
      {"LongestLabel", [](VolumeDescription& d) { d.label.assign(255, u'y'); },
       [](const Volume& v) { EXPECT_EQ(read_label(v), Name(255, u'y')); }},
      {"SmallestBlocksAndNodes",
       [](VolumeDescription& d) {
         d.block_size = d.catalog.node_size = d.extents.node_size = d.attributes_tree.node_size = 512;
         (void)d.add_files(kRootFolderId, 500);
       },
       [](const Volume& v) { EXPECT_GT(v.get_field("catalog.header.treeDepth"), 2U); }},
      {"LargestBlocksAndNodes",
       [](VolumeDescription& d) {
         d.block_size = 65536;
         d.catalog.node_size = d.extents.node_size = 32768;
         (void)d.add_files(kRootFolderId, 500);
       },
       [](const Volume& v) { EXPECT_EQ(v.read_node(Tree::kCatalog, 0).size(), 32768U); }},
      {"NodesOfManyBlocks",
       [](VolumeDescription& d) {
         d.block_size = 512;
         d.catalog.node_size = 8192;
         d.catalog.extent_count = 7;  // so that extents end inside nodes
         (void)d.add_files(kRootFolderId, 200);
       },
       [](const Volume& v) { EXPECT_NE(v.get_field("catalogFile.extents[0].blockCount") % 16, 0U); }},
      {"HfsxCaseSensitive",
       [](VolumeDescription& d) {
         d.hfsx = d.case_sensitive = true;
         (void)d.add_file(kRootFolderId, u"readme");
         (void)d.add_file(kRootFolderId, u"README");
       },
       [](const Volume& v) {
         expect_field(v, "signature", 0x4858);
         expect_field(v, "catalog.header.keyCompareType", 0xBC);
         EXPECT_LT(v.find_entry(2, u"README")->index, v.find_entry(2, u"readme")->index);
       }},
      {"FoldersAndLinks",
       [](VolumeDescription& d) {
         d.folder_counts = true;
         const std::uint32_t folder = d.add_folder(kRootFolderId, u"folder");
         (void)d.add_folders(folder, 3);
         (void)d.add_files(folder, 5);
         const std::uint32_t inode = d.add_inode(5000);
         (void)d.add_hard_link(folder, u"hard", inode);
         (void)d.add_directory_hard_link(folder, u"directory link", folder);
         (void)d.add_symlink(folder, u"soft", "a/b");
       },
       [](const Volume& v) {
         const std::string folder = v.find_entry(2, u"folder")->path();
         expect_field(v, folder + ".valence", 11);
         expect_field(v, folder + ".folderCount", 4);
         expect_field(v, v.find_entry(16, u"soft")->path() + ".fileMode", 0xA1FF);
         const auto inode =
             v.find_by_cnid(static_cast<std::uint32_t>(v.get_field(v.find_entry(16, u"hard")->path() + ".special")));
         ASSERT_TRUE(inode.has_value());
         expect_field(v, inode->path() + ".dataFork.logicalSize", 5000);
       }},
      {"MissingRootThread", [](VolumeDescription& d) { d.root.with_thread = false; },
       [](const Volume& v) { EXPECT_FALSE(v.find_thread(2).has_value()); }},
  };
}

std::vector<Shape> fork_shapes() {
  return {
      {"EightExtents", [](VolumeDescription& d) { d.catalog.extent_count = 8; },
       [](const Volume& v) { EXPECT_EQ(v.fork(Tree::kCatalog).extents().size(), 8U); }},
      {"ManyExtents",
       [](VolumeDescription& d) {
         d.catalog.extent_count = 300;
         (void)d.add_files(kRootFolderId, 3000);
       },
       [](const Volume& v) { EXPECT_EQ(v.fork(Tree::kCatalog).extents().size(), 300U); }},
      {"DeepOverflowTree",
       [](VolumeDescription& d) {
         d.extents.node_size = 512;
         d.catalog.extent_count = 100;
         (void)d.add_overflow_records(200);
       },
       [](const Volume& v) {
         EXPECT_GE(v.get_field("extents.header.treeDepth"), 3U);
         EXPECT_EQ(v.data_fork(*v.find_by_cnid(16)).extents().size(), 8U + 8U * 200U);
       }},
      {"CatalogOfSeveralMiB", [](VolumeDescription& d) { (void)d.add_files(kRootFolderId, 8000); },
       [](const Volume& v) { EXPECT_GT(v.fork_logical_size(SpecialFile::kCatalog), 2U << 20); }},
  };
}

std::vector<Shape> tree_shapes() {
  std::vector<Shape> list = {
      {"MapNodes",
       [](VolumeDescription& d) {
         d.catalog.node_size = 512;
         d.catalog.total_nodes = 12000;
       },
       [](const Volume& v) {
         EXPECT_NE(v.get_field("catalog.node[0].fLink"), 0U);
         expect_field(v, "catalog.header.totalNodes", 12000);
         EXPECT_FALSE(v.node_used(Tree::kCatalog, 11999));
       }},
      {"MapNodesFirst",
       [](VolumeDescription& d) {
         d.catalog.node_size = 512;
         d.catalog.total_nodes = 12000;
         d.catalog.map_nodes_first = true;
       },
       [](const Volume& v) { expect_field(v, "catalog.node[0].fLink", 1); }},
      {"ChosenFreeNodes",
       [](VolumeDescription& d) {
         d.catalog.free_nodes = {1, 3};
         (void)d.add_files(kRootFolderId, 100);
       },
       [](const Volume& v) {
         EXPECT_FALSE(v.node_used(Tree::kCatalog, 1));
         EXPECT_TRUE(v.node_used(Tree::kCatalog, 2));
         EXPECT_FALSE(v.node_used(Tree::kCatalog, 3));
         expect_field(v, "catalog.header.firstLeafNode", 2);
       }},
      {"NoFreeNode",
       [](VolumeDescription& d) {
         d.catalog.spare_nodes = 0;
         (void)d.add_files(kRootFolderId, 100);
       },
       [](const Volume& v) { expect_field(v, "catalog.header.freeNodes", 0); }},
      {"ChosenFill",
       [](VolumeDescription& d) {
         (void)d.add_files(kRootFolderId, 200);
         d.catalog.leaf_free_bytes = 700;
         d.catalog.leaf_fill[0].free_bytes = 20;
         d.catalog.leaf_fill[2].max_records = 3;
       },
       [](const Volume& v) {
         const auto leaves = v.leaf_nodes(Tree::kCatalog);
         EXPECT_EQ(v.free_bytes(Tree::kCatalog, leaves.at(0)), 20);
         EXPECT_GE(v.free_bytes(Tree::kCatalog, leaves.at(1)), 700);
         EXPECT_EQ(v.record_count(Tree::kCatalog, leaves.at(2)), 3);
       }},
  };
  static const std::array<const char*, 5> kNames = {"Height1", "Height2", "Height3", "Height4", "Height5"};
  for (std::uint16_t height = 1; height <= std::uint16_t{kNames.size()}; ++height) {
    list.push_back({kNames.at(height - 1U), [height](VolumeDescription& d) { describe_tree_of_height(d, height); },
                    [height](const Volume& v) { expect_field(v, "catalog.header.treeDepth", height); }});
  }
  return list;
}

std::vector<Shape> space_shapes() {
  return {
      {"OneTebibyte",
       [](VolumeDescription& d) {
         d.size = 1ULL << 40;
         d.catalog.first_block = 200000000;
       },
       [](const Volume& v) { EXPECT_GT(v.device_offset(Tree::kCatalog, 0), 1ULL << 39); }},
      {"BytesBehindTheLastBlock", [](VolumeDescription& d) { d.trailing_bytes = 3072; },
       [](const Volume& v) {
         EXPECT_EQ(v.size() % 4096, 3072U);
         expect_field(v, "alternate.signature", 0x482B);
       }},
      {"ChosenFreeBlocks",
       [](VolumeDescription& d) {
         d.free_blocks = {{8, 8}};
         d.catalog.blocks_after = 5;
         (void)d.add_file(kRootFolderId, u"a", 100000, 5);
       },
       [](const Volume& v) {
         EXPECT_FALSE(v.block_used(8));
         EXPECT_FALSE(v.block_used(15));
         const Extent last = v.fork(Tree::kCatalog).extents().back();
         EXPECT_TRUE(v.block_used(last.start_block + last.block_count - 1));
         EXPECT_FALSE(v.block_used(last.start_block + last.block_count));
         EXPECT_FALSE(v.block_used(last.start_block + last.block_count + 4));
       }},
      {"AllSpecialFiles",
       [](VolumeDescription& d) {
         d.startup_blocks = 3;
         d.allocation_extent_count = 8;
         d.block_size = 512;
         d.size = 64ULL << 20;
       },
       [](const Volume& v) {
         EXPECT_EQ(v.fork(SpecialFile::kAllocation).extents().size(), 8U);
         expect_field(v, "startupFile.totalBlocks", 3);
       }},
  };
}

std::vector<Shape> shapes() {
  std::vector<Shape> all;
  for (const auto& some : {content_shapes(), fork_shapes(), tree_shapes(), space_shapes()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

class ShapeTest : public ::testing::TestWithParam<Shape> {};

TEST_P(ShapeTest, Built_IsSoundAndAsDescribed) {
  const Volume volume = build(GetParam().describe);
  CheckOptions options;
  options.missing_threads = std::string(GetParam().name) == "MissingRootThread";
  EXPECT_EQ(joined(check_volume(volume, options)), "");
  GetParam().expect(volume);
}

INSTANTIATE_TEST_SUITE_P(All, ShapeTest, ::testing::ValuesIn(shapes()),
                         [](const ::testing::TestParamInfo<Shape>& parameter) { return parameter.param.name; });

TEST(VolumeBuilderTest, ExactFill_EveryEvenFigureOfALeaf_IsMet) {
  for (std::uint16_t free_bytes = 0; free_bytes <= 400; free_bytes = static_cast<std::uint16_t>(free_bytes + 2)) {
    const Volume volume = build([free_bytes](VolumeDescription& d) {
      (void)d.add_files(kRootFolderId, 100);
      d.catalog.leaf_fill[0].free_bytes = free_bytes;
    });
    ASSERT_EQ(volume.free_bytes(Tree::kCatalog, volume.leaf_nodes(Tree::kCatalog).front()), free_bytes);
    ASSERT_EQ(joined(check_volume(volume)), "");
  }
}

TEST(VolumeBuilderTest, FileContent_OverManyExtents_IsReadBack) {
  Bytes content(50000);
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
  }
  VolumeDescription description;
  const std::uint32_t file = description.add_file_with(kRootFolderId, u"content", content);
  description.item(file).data.extent_count = 12;
  const Volume volume = build_volume(description);
  const ForkView fork = volume.data_fork(*volume.find_by_cnid(file));
  EXPECT_EQ(fork.extents().size(), 12U);
  EXPECT_EQ(fork.read(0, content.size()), content);
}

TEST(VolumeBuilderTest, CustomRecordBytes_AreStoredAsGiven) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"odd");
  description.item(file).record = Bytes{0, 9, 1, 2};
  description.extra_catalog_records.push_back({catalog_key(900, u"extra"), Bytes{7, 7}});
  const Volume volume = build_volume(description);
  EXPECT_EQ(volume.record_data(*volume.find_entry(kRootFolderId, u"odd")), (Bytes{0, 9, 1, 2}));
  EXPECT_EQ(volume.record_data(*volume.find_entry(900, u"extra")), (Bytes{7, 7}));
}

TEST(VolumeBuilderTest, ImpossibleDescriptions_AreRefusedWithTheReason) {
  EXPECT_THAT(refusal([](VolumeDescription& d) { d.block_size = 1000; }), HasSubstr("block size"));
  EXPECT_THAT(refusal([](VolumeDescription& d) { d.catalog.node_size = 256; }), HasSubstr("node size"));
  EXPECT_THAT(refusal([](VolumeDescription& d) { d.label.assign(256, u'a'); }), HasSubstr("255 units"));
  EXPECT_THAT(refusal([](VolumeDescription& d) { d.size = 65536; }), HasSubstr("too small"));
  EXPECT_THAT(refusal([](VolumeDescription& d) { d.catalog.leaf_fill[0].free_bytes = 21; }), HasSubstr("free bytes"));
  EXPECT_THAT(refusal([](VolumeDescription& d) {
                d.catalog.height = 1;
                (void)d.add_files(kRootFolderId, 100);
              }),
              HasSubstr("height"));
  EXPECT_THAT(refusal([](VolumeDescription& d) {
                (void)d.add_file(kRootFolderId, u"name");
                (void)d.add_folder(kRootFolderId, u"NAME");
              }),
              HasSubstr("same place"));
}

// ---- Fields and look-ups

TEST(VolumeFieldsTest, EveryHeaderField_WhenSet_ChangesItsOwnBytesOnly) {
  const Volume original = build([](VolumeDescription& d) { (void)d.add_files(kRootFolderId, 10); });
  std::vector<std::string> names = Volume::header_field_names();
  for (const char* const slot : {"allocationFile", "extentsFile", "catalogFile", "attributesFile", "startupFile"}) {
    const auto more = Volume::fork_field_names(slot);
    names.insert(names.end(), more.begin(), more.end());
  }
  EXPECT_EQ(names.size(), 28U + 5U * 19U);
  for (const std::string& name : names) {
    Volume changed = original;
    const std::uint64_t old = original.get_field(name);
    changed.set_field(name, ~old);
    const std::vector<ByteRange> expected = {{original.device_offset_of_field(name), original.width_of_field(name)}};
    EXPECT_EQ(original.differences(changed), expected) << name;
  }
}

TEST(VolumeFieldsTest, EveryTreeHeaderField_WhenSet_ChangesItsOwnBytesOnly) {
  const Volume original = build([](VolumeDescription& d) { d.catalog.extent_count = 2; });
  for (const Tree tree : {Tree::kCatalog, Tree::kExtents, Tree::kAttributes}) {
    for (const std::string& name : Volume::tree_field_names(tree)) {
      Volume changed = original;
      changed.set_field(name, ~original.get_field(name));
      const std::vector<ByteRange> expected = {{original.device_offset_of_field(name), original.width_of_field(name)}};
      EXPECT_EQ(original.differences(changed), expected) << name;
    }
  }
}

TEST(VolumeFieldsTest, NodeAndRecordFields_NameTheirBytes) {
  VolumeDescription description;
  (void)description.add_file(kRootFolderId, u"file", 9000);
  description.catalog.extent_count = 20;
  Volume volume = build_volume(description);
  const RecordPlace place = *volume.find_entry(kRootFolderId, u"file");
  expect_field(volume, place.path() + ".key.parentID", 2);
  expect_field(volume, place.path() + ".key.nodeName.unicode[3]", 'e');
  expect_field(volume, place.path() + ".dataFork.logicalSize", 9000);
  expect_field(volume, place.path() + ".byte[1]", 2);
  expect_field(volume, volume.find_thread(16)->path() + ".nodeName.length", 4);
  const std::string overflow = "extents.node[1].record[0]";
  expect_field(volume, overflow + ".key.fileID", 4);
  EXPECT_NE(volume.get_field(overflow + ".extents[0].startBlock"), 0U);
  volume.add_to_field("catalog.node[1].numRecords", -1);
  EXPECT_EQ(volume.record_count(Tree::kCatalog, 1), 3);
  EXPECT_EQ(volume.get8(place.device_offset + 9), 'f');
}

TEST(VolumeFieldsTest, UnknownNames_Throw) {
  const Volume volume = build([](VolumeDescription&) {});
  for (const char* const name : {"nonsense", "catalogFile.extents[8].startBlock", "catalog.header.nothing",
                                 "catalog.node[1].record[0].fileID", "catalog.node[x].fLink"}) {
    EXPECT_THROW((void)volume.get_field(name), std::invalid_argument) << name;
  }
}

TEST(VolumeLookupTest, IndexPath_LeadsFromTheRootToTheLeaf) {
  const Volume volume = build([](VolumeDescription& d) { describe_tree_of_height(d, 4); });
  const std::uint32_t leaf = volume.leaf_nodes(Tree::kCatalog).back();
  const std::vector<RecordPlace> path = volume.index_path(Tree::kCatalog, leaf);
  ASSERT_EQ(path.size(), 3U);
  EXPECT_EQ(path[0].node, volume.get_field("catalog.header.rootNode"));
  expect_field(volume, path[0].path() + ".child", path[1].node);
  expect_field(volume, path[2].path() + ".child", leaf);
}

TEST(VolumeLookupTest, DumpRecords_HoldsEveryRecordInOrder) {
  const Volume volume = build([](VolumeDescription& d) { (void)d.add_files(kRootFolderId, 300); });
  const std::vector<Record> records = dump_records(volume, Tree::kCatalog);
  EXPECT_EQ(records.size(), 602U);
  for (std::size_t i = 1; i < records.size(); ++i) {
    EXPECT_LT(compare_keys(Tree::kCatalog, records[i - 1].first, records[i].first, false), 0);
  }
}

// ---- Independent readers

class ReaderTest : public ::testing::Test {
 protected:
  // A volume with something of everything that all readers can read.
  void SetUp() override {
    VolumeDescription description;
    description.set_label("Reader Größe");
    const std::uint32_t folder = description.add_folder(kRootFolderId, u"folder");
    (void)description.add_files(folder, 500);
    (void)description.add_file_with(folder, u"hello.txt", Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    (void)description.add_file(folder, u"fragments", 200000, 20);
    description.catalog.extent_count = 20;
    build_volume(description).write_to(file_.path());
  }

  // The output of a reader.
  std::string read_with(const std::string& program, const std::string& arguments) {
    EXPECT_TRUE(installed(program)) << program << " is missing; scripts/setup installs it";
    return run(program + " " + arguments + " '" + file_.path() + "'");
  }

  TemporaryFile file_;
};

TEST_F(ReaderTest, Blkid_SeesTypeAndLabel) {
  EXPECT_EQ(read_with("blkid", "-p -o value -s TYPE"), "hfsplus\n");
  EXPECT_EQ(read_with("blkid", "-p -o value -s LABEL"), to_utf8(decomposed("Reader Größe")) + "\n");
}

TEST_F(ReaderTest, SevenZip_ListsAllFilesWithoutError) {
  const std::string output = read_with("7z", "l");
  EXPECT_THAT(output, HasSubstr("502 files, 2 folders"));
  EXPECT_THAT(output, HasSubstr("Method = HFS+"));
  EXPECT_THAT(output, ::testing::Not(HasSubstr("rror")));
}

TEST_F(ReaderTest, Fsstat_ReportsLabelAndCounts) {
  const std::string output = read_with("fsstat", "-f hfs");
  EXPECT_THAT(output, HasSubstr("Volume Name: Reader"));
  EXPECT_THAT(output, HasSubstr("Number of files: 502"));
  EXPECT_THAT(output, HasSubstr("Number of folders: 1"));
}

TEST_F(ReaderTest, Fls_FindsTheFilesInTheirFolder) {
  const std::string output = read_with("fls", "-f hfs -r");
  EXPECT_THAT(output, HasSubstr("d/d 16:\tfolder\n"));
  EXPECT_THAT(output, HasSubstr("+ r/r 516:\tf000499\n"));
  EXPECT_THAT(output, HasSubstr("+ r/r 518:\tfragments\n"));
}

TEST_F(ReaderTest, Fshfsinfo_WalksTheHierarchy) {
  EXPECT_THAT(read_with("fshfsinfo", ""), HasSubstr("Name\t\t\t\t: Reader"));
  EXPECT_THAT(read_with("fshfsinfo", "-H"), HasSubstr("/folder/hello.txt\n"));
}

}  // namespace
}  // namespace kvfs_test
