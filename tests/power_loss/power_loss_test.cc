// The power fails while a label is being written. The writes of a set are recorded, and the device is made as it is
// when they end after each of them, and within each at every sector; then the volume is opened again.
//
// What is pinned here is what users may rely on (docs/design.md has the same table): it changes on purpose only.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"
#include "open_volume.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kSector = 512;

struct Shape {
  const char* name;
  std::function<void(VolumeDescription&)> describe;
  std::size_t label_length;
  const char* expected;
};

// ---- What is left --------------------------------------------------------------------------------------------------

// How an opening of the volume ends.
struct Outcome {
  enum class Label { kOld, kNew, kRefused, kOther };
  Label label = Label::kRefused;
  std::size_t lost = 0;  // files that are not found any more by their ID
};

bool finds(const OpenVolume& volume, std::uint32_t cnid) {
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  const bool found = kvfs_catalog_search_by_cnid(volume.catalog(), cnid, true, &result) == kvfs_ok && result.found != 0;
  kvfs_catalog_search_result_release(&result);
  return found;
}

Outcome outcome_of(const Volume& image, std::uint32_t files, const Name& old_label, const Name& new_label) {
  const LogCapture silence;
  const OpenVolume volume(image, {.skip_allocation_file = 1, .may_fail = true});
  if (volume.result() != kvfs_ok) {
    return {};
  }
  Outcome outcome;
  outcome.label = volume.label() == old_label   ? Outcome::Label::kOld
                  : volume.label() == new_label ? Outcome::Label::kNew
                                                : Outcome::Label::kOther;
  for (std::uint32_t cnid = kFirstUserId; cnid < kFirstUserId + files; ++cnid) {
    outcome.lost += finds(volume, cnid) ? 0 : 1;
  }
  return outcome;
}

// The outcomes of many cuts.
struct Tally {
  int cuts = 0;
  int old_label = 0;
  int new_label = 0;
  int refused = 0;
  int other_label = 0;
  int with_losses = 0;

  void add(const Outcome& outcome) {
    ++cuts;
    old_label += outcome.label == Outcome::Label::kOld ? 1 : 0;
    new_label += outcome.label == Outcome::Label::kNew ? 1 : 0;
    refused += outcome.label == Outcome::Label::kRefused ? 1 : 0;
    other_label += outcome.label == Outcome::Label::kOther ? 1 : 0;
    with_losses += outcome.lost != 0 ? 1 : 0;
  }

  [[nodiscard]] std::string text() const {
    return std::to_string(cuts) + " cuts: " + std::to_string(old_label) + " old, " + std::to_string(new_label) +
           " new, " + std::to_string(refused) + " refused, " + std::to_string(other_label) + " other, " +
           std::to_string(with_losses) + " lose files";
  }
};

// ---- Cutting -------------------------------------------------------------------------------------------------------

struct Recording {
  Volume before;
  Name old_label = u"Untitled";
  Name new_label;
  std::uint32_t files = 0;
  std::vector<Transfer> writes;
};

Recording record_set(const Shape& shape, std::uint32_t files) {
  Recording recording;
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, files);
  shape.describe(description);
  recording.before = build_volume(description);
  recording.files = files;
  recording.new_label = Name(shape.label_length, u'L');
  const OpenVolume volume(recording.before, kWithoutAllocationFile);
  const FaultInjector device;
  EXPECT_EQ(volume.set_label(recording.new_label), kvfs_ok);
  EXPECT_EQ(kvfs_fork_flush(volume.catalog_fork()), kvfs_ok);
  recording.writes = device.writes();
  return recording;
}

void apply(Volume* image, const Transfer& write, std::size_t length) {
  image->write(write.offset, write.bytes.data(), length);
}

// Cuts before and after each write.
Tally cut_between_writes(const Recording& recording) {
  Tally tally;
  Volume image = recording.before;
  tally.add(outcome_of(image, recording.files, recording.old_label, recording.new_label));
  for (const Transfer& write : recording.writes) {
    apply(&image, write, write.bytes.size());
    tally.add(outcome_of(image, recording.files, recording.old_label, recording.new_label));
  }
  return tally;
}

// Cuts within each write, at every sector.
Tally cut_within_writes(const Recording& recording) {
  Tally tally;
  Volume image = recording.before;
  for (const Transfer& write : recording.writes) {
    for (std::size_t length = kSector; length < write.bytes.size(); length += kSector) {
      Volume torn = image;
      apply(&torn, write, length);
      tally.add(outcome_of(torn, recording.files, recording.old_label, recording.new_label));
    }
    apply(&image, write, write.bytes.size());
  }
  return tally;
}

constexpr std::uint32_t kFiles = 60;
constexpr std::size_t kSameLength = 8;
constexpr std::size_t kLonger = 60;
constexpr std::size_t kTooLongForTheLeaf = 100;
constexpr std::size_t kTooLongForTheIndex = 20;

void leave_room_in_leaves(VolumeDescription& description) {
  description.catalog.leaf_free_bytes = 200;
}

std::vector<Shape> shapes() {
  return {
      {"OneLeafSameLength", [](VolumeDescription& d) { d.catalog.node_size = 32768; }, kSameLength,
       "2 writes; between them 3 cuts: 2 old, 1 new, 0 refused, 0 other, 0 lose files; within them 126 cuts: 63 old, "
       "63 new, 0 refused, 0 other, 0 lose files"},
      {"OneLeafLonger", [](VolumeDescription& d) { d.catalog.node_size = 32768; }, kLonger,
       "2 writes; between them 3 cuts: 2 old, 1 new, 0 refused, 0 other, 0 lose files; within them 126 cuts: 63 old, "
       "0 new, 63 refused, 0 other, 0 lose files"},
      {"NodesOfOneSector", [](VolumeDescription& d) { d.catalog.node_size = 512; }, kSameLength,
       "4 writes; between them 5 cuts: 2 old, 3 new, 0 refused, 0 other, 0 lose files; within them 0 cuts: 0 old, "
       "0 new, 0 refused, 0 other, 0 lose files"},
      {"IndexSameLength", leave_room_in_leaves, kSameLength,
       "3 writes; between them 4 cuts: 2 old, 2 new, 0 refused, 0 other, 0 lose files; within them 21 cuts: 7 old, "
       "14 new, 0 refused, 0 other, 0 lose files"},
      {"IndexLonger", leave_room_in_leaves, kLonger,
       "3 writes; between them 4 cuts: 2 old, 2 new, 0 refused, 0 other, 0 lose files; within them 21 cuts: 7 old, "
       "7 new, 7 refused, 0 other, 7 lose files"},
      {"TwoIndexNodesLonger",
       [](VolumeDescription& d) {
         leave_room_in_leaves(d);
         d.catalog.height = 3;
       },
       kLonger,
       "4 writes; between them 5 cuts: 2 old, 3 new, 0 refused, 0 other, 0 lose files; within them 28 cuts: 7 old, "
       "14 new, 7 refused, 0 other, 14 lose files"},
      {"Split", [](VolumeDescription& d) { d.catalog.leaf_fill[0].free_bytes = 0; }, kTooLongForTheLeaf,
       "5 writes; between them 6 cuts: 2 old, 4 new, 0 refused, 0 other, 3 lose files; within them 35 cuts: 7 old, "
       "21 new, 7 refused, 0 other, 21 lose files"},
      {"SplitOfAnIndexNode",
       [](VolumeDescription& d) {
         d.catalog.node_size = 512;
         d.catalog.leaf_free_bytes = 100;
         d.catalog.height = 3;
       },
       kTooLongForTheIndex,
       "6 writes; between them 7 cuts: 2 old, 5 new, 0 refused, 0 other, 3 lose files; within them 0 cuts: 0 old, "
       "0 new, 0 refused, 0 other, 0 lose files"},
      {"NodesAcrossExtents",
       [](VolumeDescription& d) {
         leave_room_in_leaves(d);
         d.block_size = 512;
         d.catalog.extent_count = 12;
       },
       kLonger,
       "5 writes; between them 6 cuts: 2 old, 3 new, 1 refused, 0 other, 1 lose files; within them 19 cuts: 7 old, "
       "6 new, 6 refused, 0 other, 6 lose files"},
  };
}

class PowerLoss : public ::testing::TestWithParam<Shape> {};

TEST_P(PowerLoss, WhileALabelIsWritten_LeavesWhatTheTableSays) {
  const Recording recording = record_set(GetParam(), kFiles);
  const std::string row = std::to_string(recording.writes.size()) + " writes; between them " +
                          cut_between_writes(recording).text() + "; within them " + cut_within_writes(recording).text();
  std::printf("%s: %s\n", GetParam().name, row.c_str());
  EXPECT_EQ(row, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Shapes, PowerLoss, ::testing::ValuesIn(shapes()),
                         [](const auto& suite) { return std::string(suite.param.name); });

// The common case: the root folder's record keeps its length, so that the set rewrites it where it is.
TEST(PowerLossCommonCase, AnywhereButWithinTheRecord_LeavesTheOldOrTheNewLabelAndEveryFile) {
  const Recording recording = record_set(shapes().front(), kFiles);
  for (const Tally& tally : {cut_between_writes(recording), cut_within_writes(recording)}) {
    EXPECT_EQ(tally.old_label + tally.new_label, tally.cuts);
    EXPECT_EQ(tally.with_losses, 0);
  }
}

}  // namespace
}  // namespace kvfs_test
