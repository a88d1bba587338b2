// The same volume and the same arguments give the same image, output and messages, whichever machine and C library the
// tool was built for.
//
// The environment variable KVFSLABEL_COMMANDS names the tools to compare, one command on each line, an emulator in it
// where one is needed; without it, the tool of this build is compared with its twin that can inject faults.
//
// Of inputs of the fuzzers and mutations of them KVFS_COMPARE_INPUTS are compared (default 20), from the seed
// KVFS_COMPARE_SEED on (default 1). scripts/compare-platforms runs this for long.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "environment.h"
#include "fuzz_volume.h"
#include "tool_runner.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

std::vector<std::string> commands() {
  const char* const given = std::getenv("KVFSLABEL_COMMANDS");
  std::istringstream lines(given != nullptr ? given : "'" KVFSLABEL_PATH "'\n'" KVFSLABEL_FAULTY_PATH "'");
  std::vector<std::string> all;
  for (std::string line; std::getline(lines, line);) {
    all.push_back(line);
  }
  return all;
}

// A text without the addresses of memory in it, which differ from run to run.
std::string without_addresses(std::string text) {
  for (const std::string before : {" item 0x", " buffer 0x"}) {
    for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
      at += before.size();
      text.erase(at, text.find_first_not_of("0123456789abcdef", at) - at);
    }
  }
  return text;
}

// Runs a tool with its messages and its output, in this order, in one text. Line numbers belong to the messages.
ToolRun run_command(const std::string& command, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"-c", "exec " + command + " \"$@\" 2>&1", "sh"});
  ToolRun run = run_program("sh", arguments);
  run.out = without_addresses(run.out);
  return run;
}

// Whether a run ended because an array, as large as a damaged volume says, did not fit into memory: 32 bits have no
// addresses for what 64 bits can allocate.
bool lacks_memory(const ToolRun& run) {
  return run.status == 1 && run.out.find("Error while allocating") != std::string::npos;
}

// Runs all tools on the image as it is, expects the same of each and leaves what the last of them wrote. One that lacks
// memory has to leave the image alone. The tool of the given number comes last, so that over several calls each finds
// what each other one has written.
ToolRun run_all(const ScratchFile& image, const std::vector<std::string>& arguments, std::size_t last) {
  const std::vector<std::string> tools = commands();
  const Volume before = image.volume();
  std::vector<std::string> all_arguments = {image.path()};
  all_arguments.insert(all_arguments.end(), arguments.begin(), arguments.end());
  std::optional<ToolRun> first;
  ToolRun lacking;
  Volume after;
  for (std::size_t i = 0; i < tools.size(); ++i) {
    const std::string& tool = tools[(last + 1 + i) % tools.size()];
    before.write_to(image.path());
    const ToolRun run = run_command(tool, all_arguments);
    if (lacks_memory(run)) {
      EXPECT_TRUE(image.volume() == before) << tool << " changes the image";
      lacking = run;
      continue;
    }
    if (!first.has_value()) {
      first = run;
      after = image.volume();
    }
    EXPECT_EQ(run, *first) << tool << " differs from those before it";
    EXPECT_TRUE(image.volume() == after) << tool << " leaves another image";
  }
  return first.value_or(lacking);
}

TEST(Platforms, ThereAreToolsToCompare) {
  EXPECT_GE(commands().size(), 2u);
}

// ---- Sound volumes -------------------------------------------------------------------------------------------------

struct Shape {
  const char* name;
  std::function<void(VolumeDescription&)> describe;
};

void PrintTo(const Shape& shape, std::ostream* stream) {
  *stream << shape.name;
}

std::vector<Shape> shapes() {
  return {
      {"Small", [](VolumeDescription&) {}},
      // The label of a full leaf moves the keys of the index above when it splits.
      {"FullLeaf", [](VolumeDescription& d) { d.catalog.leaf_fill[0].free_bytes = 0; }},
      {"HeightFour", [](VolumeDescription& d) { d.catalog.height = 4; }},
      {"CaseSensitive", [](VolumeDescription& d) { d.hfsx = d.case_sensitive = true; }},
      {"FortyExtents", [](VolumeDescription& d) { d.catalog.extent_count = 40; }},
      {"BeyondFourGibibytes",
       [](VolumeDescription& d) {
         d.size = std::uint64_t{6} << 30;
         d.catalog.first_block = 5 << 18;  // at 5 GiB
       }},
      {"OfEightTebibytes",
       [](VolumeDescription& d) {
         d.size = std::uint64_t{8} << 40;
         d.catalog.first_block = 0x7F000000;
       }},
  };
}

class PlatformsShape : public ::testing::TestWithParam<Shape> {};

TEST_P(PlatformsShape, WhatOneSets_AllPrintAndSetAlike) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  GetParam().describe(description);
  const ScratchFile image(build_volume(description));
  std::size_t turn = 0;
  for (const std::string& label : {std::string("Größe"), std::string(255, 'L'), std::string(), std::string("한국어"),
                                   std::string("\xF0\x9F\x98\x80 \n%s"), std::string("Untitled")}) {
    SCOPED_TRACE(label);
    EXPECT_EQ(run_all(image, {label}, turn++), printed(""));
    EXPECT_EQ(run_all(image, {}, turn++), printed(label + "\n"));
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, PlatformsShape, ::testing::ValuesIn(shapes()),
                         [](const ::testing::TestParamInfo<Shape>& test) { return std::string(test.param.name); });

// ---- Refused arguments and damaged volumes -------------------------------------------------------------------------

TEST(Platforms, RefusedLabels_GiveTheSameMessages) {
  const ScratchFile image(build_volume({}));
  for (const std::string& label : {std::string(256, 'L'), std::string("\xFF"), std::string("\xC3"),
                                   std::string("\xF8\x88\x80\x80\x80"), std::string("\xF4\x90\x80\x80 behind")}) {
    EXPECT_EQ(run_all(image, {label}, 0).status, 1);
  }
}

TEST(Platforms, NoNodeForASplit_GivesTheSameMessages) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.spare_nodes = 0;
  const ScratchFile image(build_volume(description));
  EXPECT_EQ(run_all(image, {std::string(50, 'L')}, 0).status, 1);
}

TEST(Platforms, WrongArguments_GiveTheSameMessages) {
  const ScratchFile image(build_volume({}));
  EXPECT_EQ(run_all(image, {"label", "one more"}, 0).status, 1);
  for (const std::string& command : commands()) {
    EXPECT_EQ(run_command(command, {}), run_command(commands().front(), {})) << command;
  }
}

TEST(Platforms, DamagedVolumes_GiveTheSameMessages) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  const Volume volume = build_volume(description);
  const std::uint64_t places[] = {
      kHeaderOffset + 40, volume.node_device_offset(Tree::kExtents, 0), volume.node_device_offset(Tree::kCatalog, 0),
      volume.node_device_offset(Tree::kCatalog,
                                static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"))),
      volume.node_device_offset(Tree::kCatalog, volume.leaf_nodes(Tree::kCatalog).at(0))};
  int refused = 0;
  for (std::uint32_t seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Volume damaged = volume;
    const std::uint64_t place = places[seed % std::size(places)];
    for (int i = 0; i < 6; ++i) {
      damaged.set8(place + random() % 120, static_cast<std::uint8_t>(random()));
    }
    const ScratchFile image(damaged);
    refused += run_all(image, {}, seed).status;
    (void)run_all(image, {"A new label"}, seed);
  }
  EXPECT_GT(refused, 10) << "most of the damage does not matter";
}

// An array for so large a file is refused by 64 bits, and cannot be allocated with 32.
TEST(Platforms, FileTooLargeForMemory_IsRefusedByAll) {
  Volume volume = build_volume({});
  volume.set_field("catalogFile.logicalSize", std::uint64_t{1} << 49);
  const ScratchFile image(volume);
  EXPECT_EQ(run_all(image, {}, 0).status, 1);
  EXPECT_EQ(run_all(image, {"A new label"}, 1).status, 1);
}

// ---- Inputs of the fuzzers -----------------------------------------------------------------------------------------

// What the fuzzers of printing and setting have found to be of use.
std::vector<Bytes> stored_inputs() {
  std::set<std::filesystem::path> paths;
  for (const char* const target : {"print", "set"}) {
    for (const auto& entry :
         std::filesystem::directory_iterator(KVFS_SOURCE_DIR "/fuzz/corpus/" + std::string(target))) {
      paths.insert(entry.path());
    }
  }
  std::vector<Bytes> inputs;
  for (const std::filesystem::path& path : paths) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

// A stored input, every other time with some of its bytes changed, and some of another one behind them.
Bytes random_input(const std::vector<Bytes>& stored, std::mt19937& random) {
  Bytes input = stored[random() % stored.size()];
  if (input.empty() || random() % 2 == 0) {
    return input;
  }
  for (std::uint32_t i = 1 + random() % 4; i > 0; --i) {
    input[random() % input.size()] = static_cast<std::uint8_t>(random());
  }
  const Bytes& other = stored[random() % stored.size()];
  const std::size_t from = other.empty() ? 0 : random() % other.size();
  input.insert(input.end(), other.begin() + static_cast<std::ptrdiff_t>(from), other.end());
  return input;
}

// The label that an input goes on with behind the damage. Arguments hold no zero bytes.
std::string label_of(kvfs_fuzz::Input& input) {
  constexpr std::size_t kLongest = 300;
  const Bytes bytes = input.bytes(input.below(kLongest));
  std::string label(bytes.begin(), bytes.end());
  std::erase(label, '\0');
  return label;
}

TEST(Platforms, InputsOfTheFuzzers_GiveTheSameMessagesAndImages) {
  const unsigned long first = number_from("KVFS_COMPARE_SEED", 1);
  const unsigned long count = number_from("KVFS_COMPARE_INPUTS", 20);
  const std::vector<Bytes> stored = stored_inputs();
  ASSERT_FALSE(stored.empty());
  unsigned long printed_labels = 0;
  unsigned long set_labels = 0;
  for (unsigned long seed = first; seed < first + count; ++seed) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    const Bytes bytes = random_input(stored, random);
    kvfs_fuzz::Input input(bytes.data(), bytes.size());
    kvfs_fuzz::FuzzDevice& device = kvfs_fuzz::FuzzDevice::choose(&input);
    device.damage(&input);
    const ScratchFile image(device.device().contents());
    printed_labels += run_all(image, {}, seed).status == 0 ? 1 : 0;
    set_labels += run_all(image, {label_of(input)}, seed).status == 0 ? 1 : 0;
    (void)run_all(image, {}, seed);
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
  std::printf("%lu inputs from seed %lu through %zu tools: %lu labels printed, %lu set\n", count, first,
              commands().size(), printed_labels, set_labels);
  EXPECT_GT(printed_labels, 0U);
  EXPECT_GT(set_labels, 0U);
}

// ---- The mount table -----------------------------------------------------------------------------------------------

// Some C libraries decode the mount table's escape sequences and some leave them. The table is the kernel's own, in a
// mount namespace where something is mounted from a device of such a path.
TEST(Platforms, MountedDeviceWithBlanksInItsPath_IsRefusedByAll) {
  KVFS_NEEDS(may_mount(), "the right to mount in a namespace of its own");
  const std::string device = "/no such\tdisk\\";
  for (const std::string& command : commands()) {
    const std::string script = "mount -t tmpfs \"$1\" /mnt && shift && exec " + command + " \"$@\" 2>&1";
    const auto run_mounted = [&](const std::vector<std::string>& arguments) {
      std::vector<std::string> all = {"--map-root-user", "--mount", "sh", "-c", script, "sh", device};
      all.insert(all.end(), arguments.begin(), arguments.end());
      return run_program("unshare", all);
    };
    EXPECT_EQ(run_mounted({device}), (ToolRun{1, "Refusing to open mounted file system.\n", ""})) << command;
    EXPECT_EQ(run_mounted({device, "label"}), (ToolRun{1, "Refusing to open mounted file system.\n", ""})) << command;
    EXPECT_EQ(run_mounted({device + "x"}), (ToolRun{1, "Error while opening HFS+ volume in read mode.\n", ""}))
        << command;
  }
}

}  // namespace
}  // namespace kvfs_test
