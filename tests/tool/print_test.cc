// Printing the label with the built tool: what it writes, what it reads and what it holds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <string>
#include <utility>
#include <vector>

#include "tool_runner.h"
#include "unicode_names.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kVolumeRefused[] = "Error while opening volume in read mode.\n";

Volume volume_named(const Name& label, bool binary = false) {
  VolumeDescription description;
  description.label = label;
  description.hfsx = description.case_sensitive = binary;
  return build_volume(description);
}

std::string print_composed(const Volume& volume) {
  const ScratchFile image(volume);
  const ToolRun run = run_tool({image.path()});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  return run.out;
}

std::string print_raw(const Volume& volume) {
  const ScratchFile image(volume);
  const ToolRun run = run_tool({"--output-mode=raw", image.path()});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  return run.out;
}

// ---- Labels --------------------------------------------------------------------------------------------------------

TEST(PrintLabel, LetterAndAccent_AreOneCharacterComposedAndTwoRaw) {
  const Volume volume = volume_named(u"e\u0301");
  EXPECT_EQ(print_composed(volume), "\xC3\xA9\n");
  EXPECT_EQ(print_raw(volume), "e\xCC\x81\n");
}

TEST(PrintLabel, HangulJamo_ComposeToASyllable) {
  const Volume volume = volume_named(u"\u1112\u1161\u11ab");
  EXPECT_EQ(print_composed(volume), "\xED\x95\x9C\n");
  EXPECT_EQ(print_raw(volume), "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB\n");
}

// Q-unicode-2
TEST(PrintLabel, SingleUnitsOfTheTable_ComposeToo) {
  EXPECT_EQ(print_composed(volume_named(u";")), "\xCD\xBE\n");
  EXPECT_EQ(print_raw(volume_named(u";")), ";\n");
}

TEST(PrintLabel, AnyLength_IsPrintedWhole) {
  for (const bool binary : {false, true}) {
    for (const std::size_t length : {0u, 1u, 254u, 255u}) {
      const Volume volume = volume_named(Name(length, u'\u20ac'), binary);
      std::string expected;
      for (std::size_t i = 0; i < length; ++i) {
        expected += "\xE2\x82\xAC";
      }
      EXPECT_EQ(print_composed(volume), expected + "\n");
      EXPECT_EQ(print_raw(volume), expected + "\n");
    }
  }
}

TEST(PrintLabel, FormatCharactersAndLineFeeds_ArePrintedAsTheyAre) {
  EXPECT_EQ(print_composed(volume_named(u"%s%n%d\\n\n/:")), "%s%n%d\\n\n/:\n");
}

TEST(PrintLabel, CharactersBeyondTheFirstPlane_TakeFourBytes) {
  const Volume volume = volume_named(u"\U0001F600\U0010FFFF");
  EXPECT_EQ(print_composed(volume), "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\n");
  EXPECT_EQ(print_raw(volume), "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\n");
}

// Q-unicode-5
TEST(PrintLabel, NulUnit_EndsTheText) {
  for (const bool binary : {false, true}) {
    const Volume volume = volume_named({u'a', u'\0', u'b'}, binary);
    EXPECT_EQ(print_composed(volume), "a\n");
    EXPECT_EQ(print_raw(volume), "a\n");
  }
}

// Labels of up to 255 units that together hold every row of the decomposition table and samples of Hangul.
std::vector<Name> labels_of_all_scripts() {
  std::vector<Name> labels(1);
  const auto add = [&](const Name& units) {
    if (labels.back().size() + units.size() > 255) {
      labels.emplace_back();
    }
    labels.back() += units;
  };
  for (const auto& row : decomposition_rows()) {
    add(row.second);
  }
  for (char16_t syllable = 0xAC00; syllable < 0xD7A4 - 97; syllable = static_cast<char16_t>(syllable + 97)) {
    add(decomposed(Name(1, syllable)));
  }
  return labels;
}

TEST(PrintLabel, EveryScript_ComposesToWhatDecomposesToTheStoredName) {
  for (const Name& label : labels_of_all_scripts()) {
    const Volume volume = volume_named(label);
    EXPECT_EQ(print_raw(volume), to_utf8(label) + "\n");
    const std::string composed = print_composed(volume);
    ASSERT_THAT(composed, EndsWith("\n"));
    const Name printed_units = to_utf16(composed.substr(0, composed.size() - 1));
    EXPECT_EQ(to_utf8(decomposed(printed_units)), to_utf8(label));
    EXPECT_LT(printed_units.size(), label.size());
  }
}

TEST(PrintLabel, SurrogateWithoutPartner_IsAFailureWithoutOutput) {
  const std::string message = "Error while converting UTF-16 string to UTF-8.\n";
  for (const Name& label : {Name{u'a', 0xD83D}, Name{0xDE00}, Name{0xD83D, u'x'}, Name{0xDE00, 0xD83D}}) {
    const ScratchFile image(volume_named(label));
    EXPECT_EQ(run_tool({image.path()}), failed(message));
    EXPECT_EQ(run_tool({"--output-mode=raw", image.path()}), failed(message));
  }
}

TEST(PrintLabel, LabelThatIsTooLong_IsRefusedInAnOpenLine) {
  // Keys are compared without ignorable units, so that a thread that names 255 of them finds a key with 256.
  constexpr char16_t kIgnorable = 0x200C;
  VolumeDescription description;
  description.label = Name(255, kIgnorable);
  description.root.with_record = false;
  Bytes record(88, 0);
  record[1] = 1;
  record[11] = kRootFolderId;
  description.extra_catalog_records.emplace_back(catalog_key(kRootParentId, Name(256, kIgnorable)), record);
  const ScratchFile image(build_volume(description));
  EXPECT_EQ(run_tool({image.path()}),
            failed("ERROR kvfs_volume_setup Invalid volume label length: 256Error while setting up HFS volume.\n" +
                   std::string(kVolumeRefused)));
}

// ---- Standard output -----------------------------------------------------------------------------------------------

// X-tool-3
TEST(PrintOutput, FullDevice_IsAFailureWithItsReason) {
  const ScratchFile image(volume_named(u"Untitled"));
  EXPECT_EQ(run_tool({image.path()}, {.out_path = "/dev/full"}),
            failed("Error while writing label to standard output: No space left on device (28)\n"));
}

TEST(PrintOutput, ClosedDescriptors_FailWithoutTouchingTheVolume) {
  const Volume volume = volume_named(u"Untitled");
  const ScratchFile image(volume);
  const ToolRun run = run_tool({image.path()}, {.closed = {1}});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, ::testing::StartsWith("Error while writing label to standard output: "));
  EXPECT_EQ(run_tool({image.path()}, {.closed = {0, 1, 2}}).status, 1);
  EXPECT_TRUE(volume == image.volume());
}

TEST(PrintOutput, ClosedInputAndError_DoNotMatter) {
  const ScratchFile image(volume_named(u"Untitled"));
  EXPECT_EQ(run_tool({image.path()}, {.closed = {0}}), printed("Untitled\n"));
  EXPECT_EQ(run_tool({image.path()}, {.closed = {2}}), printed("Untitled\n"));
}

// ---- The device ----------------------------------------------------------------------------------------------------

TEST(PrintDevice, Volume_StaysAsItIs) {
  const Volume volume = volume_named(u"Gro\u0308\u00dfe");
  const ScratchFile image(volume);
  EXPECT_EQ(run_tool({image.path()}).status, 0);
  EXPECT_EQ(run_tool({"--output-mode=raw", image.path()}).status, 0);
  const TracedRun traced = run_traced({image.path()});
  EXPECT_EQ(traced.run.status, 0);
  EXPECT_THAT(traced.calls_of("pwrite64"), IsEmpty());
  EXPECT_TRUE(volume == image.volume());
}

TEST(PrintDevice, EverythingThatWasTaken_IsGivenBack) {
  const ScratchFile image(volume_named(u"Untitled"));
  const TracedRun traced = run_traced({image.path()});
  EXPECT_EQ(traced.balance.at("allocations"), 0);
  EXPECT_EQ(traced.balance.at("bytes"), 0);
  EXPECT_EQ(traced.balance.at("locks"), 0);
}

// Reads from the device while a label is printed, and the most memory that was in use.
std::pair<std::size_t, long> cost(const VolumeDescription& description) {
  const Volume volume = build_volume(description);
  const ScratchFile image(volume);
  const TracedRun traced = run_traced({image.path()});
  EXPECT_EQ(traced.run, printed("Untitled\n"));
  return {traced.calls_of("pread64").size(), traced.balance.at("peak")};
}

TEST(PrintDevice, Reads_DependOnTheHeightOfTheTreeAlone) {
  constexpr std::size_t kFixed = 5;  // the volume header, and twice the header node of each tree
  for (std::uint16_t height = 1; height <= 5; ++height) {
    std::vector<std::size_t> reads;
    for (const std::uint32_t files : {0u, 20u, 200u}) {
      VolumeDescription description;
      description.catalog.height = height;
      if (height > 1 || files == 0) {
        (void)description.add_files(kRootFolderId, files);
      }
      reads.push_back(cost(description).first);
    }
    EXPECT_THAT(reads, ::testing::Each(kFixed + height));
  }
}

TEST(PrintDevice, HugeVolume_CostsNoMoreThanASmallOne) {
  VolumeDescription small;
  (void)small.add_files(kRootFolderId, 60);
  VolumeDescription huge = small;
  huge.size = std::uint64_t{1} << 40;
  VolumeDescription full;
  (void)full.add_files(kRootFolderId, 20000);
  full.catalog.height = 3;
  constexpr long kFewItems = 4 << 20;  // an item of the cache has 1 MiB
  const auto [small_reads, small_peak] = cost(small);
  const auto [huge_reads, huge_peak] = cost(huge);
  const auto [full_reads, full_peak] = cost(full);
  EXPECT_EQ(huge_reads, small_reads);
  EXPECT_EQ(huge_peak, small_peak);
  EXPECT_EQ(full_reads, small_reads + 1) << "its tree is higher by one node";
  EXPECT_LT(full_peak, kFewItems);
}

TEST(PrintDevice, FragmentedCatalog_CostsTheReadsOfItsOverflowRecords) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 60);
  const std::size_t whole = cost(description).first;
  description.catalog.extent_count = 30;
  EXPECT_EQ(cost(description).first, whole + 1) << "one leaf of the overflow file";
}

// ---- Other processes -----------------------------------------------------------------------------------------------

// Q-device-1
TEST(PrintLock, ExclusiveLockOfAnother_IsWaitedFor) {
  const ScratchFile image(volume_named(u"Untitled"));
  HeldLock lock(image.path(), LOCK_EX);
  RunningTool running(KVFSLABEL_PATH, {image.path()});
  EXPECT_TRUE(comes_to_wait(running));
  lock.release();
  EXPECT_EQ(running.finish(), printed("Untitled\n"));
}

TEST(PrintLock, SharedLockOfAnother_IsShared) {
  const ScratchFile image(volume_named(u"Untitled"));
  const HeldLock lock(image.path(), LOCK_SH);
  EXPECT_EQ(run_tool({image.path()}), printed("Untitled\n"));
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

// Prints with each of some calls failing in turn.
std::vector<ToolRun> fail_printing(const ScratchFile& image, const FailingCalls& failing) {
  std::vector<ToolRun> runs;
  fail_each(failing, [&](const std::string& fault) {
    TracedRun traced = run_traced({image.path()}, fault);
    if (traced.met_fault()) {
      EXPECT_EQ(traced.balance.at("allocations"), 0);
      EXPECT_EQ(traced.balance.at("locks"), 0);
      runs.push_back(traced.run);
    } else {
      EXPECT_EQ(traced.run, printed("Untitled\n"));
    }
    return traced;
  });
  return runs;
}

TEST(PrintFaults, EachAllocation_FailsWithAMessageAndWithoutOutput) {
  const ScratchFile image(volume_named(u"Untitled"));
  const std::vector<ToolRun> runs = fail_printing(image, each_allocation());
  EXPECT_GT(runs.size(), 20u);
  for (const ToolRun& run : runs) {
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, EndsWith(".\n"));
  }
  ASSERT_GE(runs.size(), 3u);
  EXPECT_EQ(runs[2], failed("ERROR kvfs_volume_create Error while allocating memory for kvfs_volume.\n" +
                            std::string(kVolumeRefused)));
  EXPECT_EQ(runs[runs.size() - 2], failed("Error while allocating memory for native-endian label.\n"));
  EXPECT_EQ(runs[runs.size() - 1], failed("Error while converting UTF-16 string to UTF-8.\n"));
}

TEST(PrintFaults, EachRead_FailsWithAMessageAndWithoutOutput) {
  const ScratchFile image(volume_named(u"Untitled"));
  for (const Fault& fault : transfer_faults()) {
    const std::vector<ToolRun> runs = fail_printing(image, each(Call::kPread64, fault));
    EXPECT_EQ(runs.size(), 6u);
    for (const ToolRun& run : runs) {
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.out, "");
      EXPECT_THAT(run.err, EndsWith("ERROR kvfs_volume_create Error while setting up HFS volume.\n" +
                                    std::string(kVolumeRefused)));
    }
  }
}

TEST(PrintFaults, EachLock_FailsOrIsReported) {
  const ScratchFile image(volume_named(u"Untitled"));
  for (const Call call : {Call::kRwlockInit, Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    const std::vector<ToolRun> runs = fail_printing(image, each(call));
    EXPECT_THAT(runs, Not(IsEmpty()));
    for (const ToolRun& run : runs) {
      EXPECT_NE(run.err, "") << call_name(call);
      EXPECT_EQ(run.out, run.status == 0 ? "Untitled\n" : "") << call_name(call);
    }
  }
}

}  // namespace
}  // namespace kvfs_test
