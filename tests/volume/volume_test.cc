// Opening, closing and flushing a volume, and its label.

#include "volume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "btree/private.h"
#include "catalog_fixture.h"
#include "support.h"
#include "unicode_names.h"
#include "volume/private.h"

namespace kvfs_test {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kSettingUp[] = "ERROR kvfs_volume_create Error while setting up HFS volume.\n";

// Opens and closes a volume. The output must stay untouched on failure.
kvfs_result open_and_close(kvfs_device* device, int skip_allocation_file = 1) {
  kvfs_volume* const untouched = reinterpret_cast<kvfs_volume*>(device);
  kvfs_volume* volume = untouched;
  const kvfs_result result = kvfs_volume_create(device, skip_allocation_file, &volume);
  if (result == kvfs_ok) {
    kvfs_volume_destroy(&volume);
    EXPECT_EQ(volume, nullptr);
  } else {
    EXPECT_EQ(volume, untouched);
  }
  return result;
}

// Expects the volume in an image not to open, with these messages, and nothing to stay behind.
void expect_refused(const SparseImage& image, kvfs_result result, const Lines& messages, int skip_allocation_file = 1) {
  const TestDevice device(image);
  LogCapture log;
  {
    FaultInjector faults;
    EXPECT_EQ(open_and_close(device.get(), skip_allocation_file), result);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_EQ(faults.locks_held(), 0);
    EXPECT_TRUE(faults.writes().empty());
  }
  EXPECT_TRUE(log.matches(messages));
}

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST(VolumeCreate, SoundVolume_FillsBothParts) {
  LogCapture log;
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  EXPECT_EQ(volume->device, volume.device());
  EXPECT_EQ(volume->header, volume->priv->header);
  EXPECT_EQ(volume->label_length, &volume->priv->label_length);
  EXPECT_EQ(volume->label, volume->priv->label);
  EXPECT_EQ(volume->bitmap, nullptr);
  EXPECT_NE(volume->extents, nullptr);
  EXPECT_NE(volume->catalog, nullptr);
  EXPECT_EQ(volume->attributes, nullptr);
  EXPECT_NE(volume->priv->lock, nullptr);
  EXPECT_EQ(volume->priv->sector_buffer_size, 512u);
  EXPECT_EQ(static_cast<void*>(volume->header), static_cast<void*>(volume->priv->sector_buffer));
  EXPECT_EQ(volume->header->signature.get(), kHFSPlusSigWord);
  EXPECT_EQ(volume.label(), u"Untitled");
  EXPECT_LOG(log);
}

TEST(VolumeCreate, RootFolder_IsNotHeldOpen) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  Searched found;
  ASSERT_EQ(kvfs_catalog_search_by_cnid(volume->catalog, kRootFolderId, true, found.out()), kvfs_ok);
  EXPECT_EQ(found.locator()->btree_locator->priv->reference_count, 1u);
}

TEST(VolumeCreate, Hfsx_OpensLikeHfsPlus) {
  VolumeDescription description = small_description();
  description.hfsx = true;
  LogCapture log;
  const OpenVolume volume(build_volume(description), kWithoutAllocationFile);
  EXPECT_EQ(volume->header->signature.get(), kHFSXSigWord);
  EXPECT_EQ(volume.label(), u"Untitled");
  EXPECT_LOG(log);
}

TEST(VolumeCreate, AllocationFileWanted_IsOpenedToo) {
  LogCapture log;
  {
    const OpenVolume volume(small_volume());
    EXPECT_NE(volume->bitmap, nullptr);
  }
  EXPECT_LOG(log);
}

TEST(VolumeCreate, AnyNonzeroSkip_LeavesTheAllocationFileUnopened) {
  EXPECT_EQ(OpenVolume(small_volume(), {.skip_allocation_file = -1})->bitmap, nullptr);
}

TEST(VolumeCreate, Opening_WritesNothing) {
  const Volume image = small_volume();
  const TestDevice device(image);
  FaultInjector faults;
  EXPECT_EQ(open_and_close(device.get(), 0), kvfs_ok);
  EXPECT_TRUE(faults.writes().empty());
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
  EXPECT_EQ(faults.locks_alive(), 0);
  EXPECT_TRUE(image == device.contents());
}

// What the first read of an open asks for.
std::string header_read(std::uint32_t sector_size) {
  VolumeDescription description = small_description();
  description.block_size = 65536;
  const TestDevice device(build_volume(description), sector_size);
  FaultInjector faults;
  (void)open_and_close(device.get());
  const FaultInjector::Pause pause;
  const std::vector<Transfer> reads = faults.reads();
  return reads.empty() ? "" : std::to_string(reads[0].offset) + " " + std::to_string(reads[0].size);
}

TEST(VolumeCreate, SectorSize_DecidesWhichSectorsHoldTheHeader) {
  LogCapture log;
  EXPECT_EQ(header_read(512), "1024 512");
  EXPECT_EQ(header_read(1024), "1024 1024");
  EXPECT_EQ(header_read(2048), "0 2048");
  EXPECT_EQ(header_read(4096), "0 4096");
  EXPECT_EQ(header_read(128), "1024 512");
  EXPECT_EQ(header_read(32768), "0 32768");
  EXPECT_LOG(log);
}

TEST(VolumeCreate, EverySectorSizeBelowTheBlockSize_GivesTheLabel) {
  for (const std::uint32_t sector_size : {512u, 1024u, 2048u, 4096u}) {
    VolumeDescription description = small_description();
    description.set_label("Größe");
    description.catalog.node_size = 1024;
    description.extents.node_size = 512;
    const OpenVolume volume(build_volume(description), {.sector_size = sector_size});
    EXPECT_EQ(volume.label(), decomposed("Größe")) << sector_size;
    const std::uint32_t offset = 1024 % sector_size;
    EXPECT_EQ(static_cast<void*>(volume->header), static_cast<void*>(volume->priv->sector_buffer + offset));
    EXPECT_EQ(volume->priv->sector_buffer_size, sector_size);
  }
}

TEST(VolumeCreate, EveryBlockAndNodeSize_GivesTheLabel) {
  for (std::uint32_t block_size = 512; block_size <= 65536; block_size *= 2) {
    for (std::uint32_t node_size = 512; node_size <= 32768; node_size *= 4) {
      VolumeDescription description;
      description.block_size = block_size;
      description.catalog.node_size = node_size;
      description.extents.node_size = node_size;
      (void)description.add_files(kRootFolderId, 40);
      LogCapture log;
      {
        const OpenVolume volume(build_volume(description));
        EXPECT_EQ(volume.label(), u"Untitled");
      }
      EXPECT_LOG(log);
    }
  }
}

TEST(VolumeCreate, ShapesOfTheCatalog_GiveTheLabel) {
  const std::vector<std::function<void(VolumeDescription&)>> shapes = {
      [](VolumeDescription& d) { d.catalog.extent_count = 8; },
      [](VolumeDescription& d) { d.catalog.extent_count = 60; },
      [](VolumeDescription& d) {
        d.catalog.extent_count = 40, d.add_overflow_records(2000), d.extents.node_size = 512;
      },
      [](VolumeDescription& d) { d.catalog.height = 5; },
      [](VolumeDescription& d) { d.catalog.node_size = 512, d.catalog.max_leaf_records = 1; },
      [](VolumeDescription& d) { d.catalog.spare_nodes = 40000; },
      [](VolumeDescription& d) { d.catalog.first_block = 400; },
      [](VolumeDescription& d) { d.attributes_file = false; },
  };
  for (std::size_t i = 0; i < shapes.size(); ++i) {
    VolumeDescription description;
    (void)description.add_files(kRootFolderId, 300);
    shapes[i](description);
    LogCapture log;
    {
      const OpenVolume volume(build_volume(description), kWithoutAllocationFile);
      EXPECT_EQ(volume.label(), u"Untitled") << "shape " << i;
    }
    EXPECT_LOG(log);
  }
}

// ---- Labels --------------------------------------------------------------------------------------------------------

// Expects a label to be read as it is stored, whatever the order of the keys.
void expect_label(const Name& label) {
  for (const bool binary : {false, true}) {
    VolumeDescription description;
    description.label = label;
    description.hfsx = description.case_sensitive = binary;
    LogCapture log;
    {
      const OpenVolume volume(build_volume(description), kWithoutAllocationFile);
      EXPECT_EQ(*volume->label_length, label.size());
      EXPECT_EQ(volume.label(), label);
    }
    EXPECT_LOG(log);
  }
}

TEST(VolumeLabel, LengthsFrom0To255Units_AreRead) {
  for (const std::size_t length : {0u, 1u, 2u, 127u, 254u, 255u}) {
    expect_label(Name(length, u'x'));
  }
}

TEST(VolumeLabel, EveryDecomposition_IsReadAsStored) {
  const std::vector<std::pair<char16_t, Name>>& rows = decomposition_rows();
  Name label;
  for (const auto& row : rows) {
    if (label.size() + row.second.size() > 255) {
      expect_label(label);
      label.clear();
    }
    label += row.second;
  }
  expect_label(label);
}

TEST(VolumeLabel, UnitsOfAnyKind_AreReadAsStored) {
  expect_label(u"\u1112\u1161\u11ab");      // Hangul
  expect_label(u"\U0001F600\U0001F4BE");    // surrogate pairs
  expect_label(Name(3, char16_t{0xD83D}));  // surrogates without partners
  expect_label(u"a/b:c\\d");
  expect_label(u"\u200c\u200d");  // nothing but ignorable units
  expect_label(Name(1, u'\0') + u"x");
}

// A root folder whose name has 256 units. Keys are compared without ignorable units, so that a thread that names 255
// of them finds it.
Volume volume_with_too_long_label(bool with_full_key) {
  constexpr char16_t kIgnorable = 0x200C;
  VolumeDescription description;
  description.label = Name(255, kIgnorable);
  description.root.with_record = false;
  description.catalog.node_size = 4096;
  Bytes key = catalog_key(kRootParentId, Name(256, kIgnorable));
  if (!with_full_key) {
    key = catalog_key(kRootParentId, Name(255, kIgnorable));
  }
  Bytes data(88, 0);
  data[1] = kHFSPlusFolderRecord;
  data[11] = kRootFolderId;
  description.extra_catalog_records.emplace_back(key, data);
  return build_volume(description);
}

// Q-log-2
TEST(VolumeLabel, LengthOf256_IsRefusedInAnOpenLine) {
  expect_refused(volume_with_too_long_label(true), kvfs_inconsistent,
                 {"ERROR kvfs_volume_setup Invalid volume label length: 256Error while setting up HFS volume.\n"});
}

TEST(VolumeLabel, LengthOf255InAKeyOfTheSameMaking_IsAccepted) {
  const OpenVolume volume(volume_with_too_long_label(false), kWithoutAllocationFile);
  EXPECT_EQ(*volume->label_length, 255u);
}

// X-volume-1, X-catalog-1
TEST(VolumeLabel, LengthBeyondItsKey_IsInconsistent) {
  Volume image = small_volume();
  image.set_field(image.find_entry(kRootParentId, u"Untitled")->path() + ".key.nodeName.length", 256);
  expect_refused(
      image, kvfs_inconsistent,
      {"ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n",
       "ERROR kvfs_btree_search_node_internal Invalid node data: The key of record 0 of node {*} contradicts itself.\n",
       "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
       "ERROR kvfs_catalog_follow_thread Error while searching for target of thread.\n",
       "ERROR kvfs_catalog_search_by_cnid Error while following thread when searching for node by CNID.\n",
       "ERROR kvfs_volume_setup Error while looking up root directory.\n", kSettingUp});
}

TEST(VolumeLabel, RootThreadThatIsAFolderRecord_GivesTheEmptyNameOfItsKey) {
  Volume image = small_volume();
  image.set_field(image.find_thread(kRootFolderId)->path() + ".recordType", kHFSPlusFolderRecord);
  LogCapture log;
  const OpenVolume volume(image, kWithoutAllocationFile);
  EXPECT_EQ(*volume->label_length, 0u);
  EXPECT_LOG(log);
}

// ---- Volumes that do not open --------------------------------------------------------------------------------------

TEST(VolumeCreate, Zeros_AreNoVolume) {
  expect_refused(SparseImage(65536), kvfs_failed,
                 {"ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x0\n", kSettingUp});
}

// Q-volume-1
TEST(VolumeCreate, OtherSignature_IsPrintedInDecimal) {
  for (const auto& [value, text] :
       {std::pair{0x4244, "16964"}, {0x482C, "18476"}, {0xFFFF, "65535"}, {0x2B48, "11080"}}) {
    Volume image = small_volume();
    image.set_field("signature", static_cast<std::uint64_t>(value));
    expect_refused(
        image, kvfs_failed,
        {"ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x" + std::string(text) + "\n", kSettingUp});
  }
}

TEST(VolumeCreate, DeviceThatEndsBeforeTheHeader_IsAnInputError) {
  for (const std::uint64_t size : {0u, 1024u, 1535u}) {
    expect_refused(SparseImage(size), kvfs_io_error,
                   {"ERROR kvfs_device_read_disk_sectors Partial read into buffer: " +
                        std::to_string(size > 1024 ? size - 1024 : 0) + "/512 bytes read\n",
                    "ERROR kvfs_volume_setup Error while reading volume header disk sector.\n", kSettingUp});
  }
}

TEST(VolumeCreate, HeaderInSeveralSectors_IsReportedInThePlural) {
  const TestDevice device(SparseImage(65536), 256);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kPread64, 1, Fault::error_number(EIO));
    EXPECT_EQ(open_and_close(device.get()), kvfs_io_error);
  }
  EXPECT_LOG(
      log,
      "ERROR kvfs_device_read_disk_sectors Error while reading 512 bytes from device offset 1024 into self-allocated buffer 0x{*}: Input/output error (5)\n",
      "ERROR kvfs_volume_setup Error while reading volume header disk sectors.\n", kSettingUp);
}

// X-device-1
TEST(VolumeCreate, SectorSizeZero_IsRefused) {
  const TestDevice device(small_volume(), 0);
  LogCapture log;
  EXPECT_NE(open_and_close(device.get()), kvfs_ok);
  EXPECT_LOG(log, "ERROR kvfs_volume_setup Device has a sector size of 0.\n", kSettingUp);
}

TEST(VolumeCreate, DamagedOverflowFile_NamesTheVariantOfTheVolume) {
  for (const bool hfsx : {false, true}) {
    VolumeDescription description = small_description();
    description.hfsx = hfsx;
    Volume image = build_volume(description);
    image.set_field("extents.header.attributes", 0);
    expect_refused(image, kvfs_inconsistent,
                   {"ERROR kvfs_btree_process Big keys flag not set for HFS+ B-tree.\n",
                    "ERROR kvfs_btree_create Error while reading extents overflow B-Tree into memory.\n",
                    "ERROR kvfs_extents_create Error while reading Extents B-Tree into memory.\n",
                    "ERROR kvfs_volume_setup Error while loading extents overflow file from HFS" +
                        std::string(hfsx ? "X" : "+") + " volume.\n",
                    kSettingUp});
  }
}

TEST(VolumeCreate, DamagedCatalog_ClosesTheOverflowFileAgain) {
  Volume image = small_volume();
  image.set_field("catalog.node[0].numRecords", 4);
  expect_refused(
      image, kvfs_inconsistent,
      {"ERROR kvfs_btree_process HFSPlus:kvfs_btree_process: Node kind 1, 1024 records - should be kind 1, 3 records - but it isn't!\n",
       "ERROR kvfs_btree_create Error while reading catalog B-Tree into memory.\n",
       "ERROR kvfs_catalog_create Error while reading Catalog B-Tree into memory.\n",
       "ERROR kvfs_volume_setup Error while loading catalog file.\n", kSettingUp});
}

TEST(VolumeCreate, DamagedAllocationFile_IsRefusedOnlyWhenItIsWanted) {
  Volume image = small_volume();
  image.set_field("allocationFile.extents[0].blockCount", 0);
  image.set_field("allocationFile.extents[0].startBlock", 5);
  expect_refused(image, kvfs_no_memory,
                 {"ERROR kvfs_fork_resolve_extents Found zero-sized extent with non-0 start block.\n",
                  "ERROR kvfs_fork_private_create Error while resolving fork extents.\n",
                  "ERROR kvfs_fork_create Error while creating kvfs_fork_private.\n",
                  "ERROR kvfs_bitmap_create Error while creating kvfs_fork for allocation file.\n",
                  "ERROR kvfs_volume_setup Unable to load allocation file.\n", kSettingUp},
                 0);
  EXPECT_EQ(OpenVolume(image, kWithoutAllocationFile).label(), u"Untitled");
}

TEST(VolumeCreate, NoThreadOfTheRoot_MeansNoRootDirectory) {
  VolumeDescription description = small_description();
  description.root.with_thread = false;
  expect_refused(build_volume(description), kvfs_inconsistent,
                 {"ERROR kvfs_volume_setup Root directory not found!\n", kSettingUp});
}

TEST(VolumeCreate, NoRecordOfTheRoot_MeansNoRootDirectory) {
  VolumeDescription description = small_description();
  description.root.with_record = false;
  expect_refused(build_volume(description), kvfs_inconsistent,
                 {"ERROR kvfs_volume_setup Root directory not found!\n", kSettingUp});
}

TEST(VolumeCreate, ThreadWithAnotherName_MeansNoRootDirectory) {
  Volume image = small_volume();
  image.set_field(image.find_thread(kRootFolderId)->path() + ".nodeName.unicode[0]", 'V');
  expect_refused(image, kvfs_inconsistent, {"ERROR kvfs_volume_setup Root directory not found!\n", kSettingUp});
}

TEST(VolumeCreate, IndexThatLeadsNowhere_IsAFailureOfTheLookUp) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 200);
  Volume image = build_volume(description);
  const std::uint64_t root = image.get_field("catalog.header.rootNode");
  image.set_field("catalog.node[" + std::to_string(root) + "].record[0].child", 0xFFFFFFFF);
  expect_refused(
      image, kvfs_inconsistent,
      {"ERROR kvfs_btree_search_node_internal Index node points to node after the last node. Inconsistent B-tree.\n",
       "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
       "ERROR kvfs_catalog_search_by_cnid Error while searching thread record when searching by CNID.\n",
       "ERROR kvfs_volume_setup Error while looking up root directory.\n", kSettingUp});
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

class VolumeFaults : public ::testing::TestWithParam<int> {
 protected:
  std::vector<FailedRun> fail(const FailingCalls& failing) {
    std::vector<FailedRun> runs = fail_each(failing, [this] { return open_and_close(device_.get(), GetParam()); });
    EXPECT_THAT(runs, Not(IsEmpty()));
    for (const FailedRun& run : runs) {
      EXPECT_THAT(run.log, Not(IsEmpty())) << "call " << run.n;
    }
    return runs;
  }

  TestDevice device_{small_volume()};
};

INSTANTIATE_TEST_SUITE_P(WithAndWithoutAllocationFile, VolumeFaults, ::testing::Values(0, 1));

TEST_P(VolumeFaults, EachAllocationFailing_IsOutOfMemory) {
  const std::vector<FailedRun> runs = fail(each_allocation());
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_no_memory) << "allocation " << run.n;
    EXPECT_EQ(run.log.back(),
              run.n == 1 ? "ERROR kvfs_volume_create Error while allocating memory for kvfs_volume.\n" : kSettingUp);
  }
  const std::vector<Lines> logs = logs_of(runs);
  EXPECT_THAT(logs,
              Contains(ElementsAre("ERROR kvfs_volume_setup Error while allocating memory for kvfs_volume_private.\n",
                                   kSettingUp)));
  EXPECT_THAT(logs, Contains(ElementsAre(
                        "ERROR kvfs_device_read_disk_sectors Error while allocating read buffer of 512 bytes.\n",
                        "ERROR kvfs_volume_setup Error while reading volume header disk sector.\n", kSettingUp)));
  EXPECT_THAT(
      logs, Contains(ElementsAre(
                "ERROR kvfs_rwlock_create Error while allocating memory for kvfs_rwlock: Cannot allocate memory (12)\n",
                "ERROR kvfs_volume_setup Error while creating volume lock.\n", kSettingUp)));
}

TEST_P(VolumeFaults, EachReadFailing_IsAnInputError) {
  for (const Fault& fault : transfer_faults()) {
    const std::vector<FailedRun> runs = fail(each(Call::kPread64, fault));
    EXPECT_EQ(runs.size(), 6u) << "header, two trees twice, one leaf";
    for (const FailedRun& run : runs) {
      EXPECT_EQ(run.result, kvfs_io_error) << "read " << run.n;
      EXPECT_EQ(run.log.back(), kSettingUp);
    }
  }
}

TEST_P(VolumeFaults, EachLockNotCreated_IsReported) {
  for (const Call call : {Call::kRwlockInit, Call::kRwlockattrInit, Call::kRwlockattrSetpshared}) {
    const std::vector<FailedRun> runs = fail(each(call));
    for (const FailedRun& run : runs) {
      // A fork reports every failure of its own opening as a lack of memory.
      EXPECT_THAT(run.result, AnyOf(kvfs_no_memory, kvfs_failed)) << call_name(call) << " " << run.n;
      EXPECT_EQ(run.log.back(), kSettingUp);
    }
    const FailedRun& last = runs.back();
    EXPECT_EQ(last.result, call == Call::kRwlockattrSetpshared ? kvfs_failed : kvfs_no_memory);
    ASSERT_EQ(last.log.size(), 3u);
    EXPECT_EQ(last.log[1], "ERROR kvfs_volume_setup Error while creating volume lock.\n");
  }
}

TEST_P(VolumeFaults, EachLockNotTakenOrReleased_LeavesNothingBehind) {
  for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
    for (const FailedRun& run : fail(each(call))) {
      // A release that fails while something is given back is only reported.
      EXPECT_THAT(run.result, AnyOf(kvfs_failed, kvfs_ok)) << call_name(call) << " " << run.n;
      if (run.result != kvfs_ok) {
        EXPECT_EQ(run.log.back(), kSettingUp) << call_name(call) << " " << run.n;
      }
    }
  }
}

TEST_P(VolumeFaults, EachLockNotDestroyed_IsReportedAndTheRestIsFreed) {
  const std::vector<FailedRun> runs = fail(each(Call::kRwlockDestroy));
  for (const FailedRun& run : runs) {
    EXPECT_EQ(run.result, kvfs_ok) << "lock " << run.n;
  }
  EXPECT_THAT(runs.front().log,
              ElementsAre(::testing::StartsWith(
                              "ERROR kvfs_rwlock_destroy Error while destroying pthread_rwlock_t associated with"),
                          "CRITICAL kvfs_volume_destroy Error 1 while destroying volume label lock.\n"));
}

TEST(VolumeSetup, FailureBehindTheLock_DestroysTheLock) {
  const TestDevice device(volume_with_too_long_label(true));
  LogCapture log;
  FaultInjector faults;
  EXPECT_EQ(open_and_close(device.get()), kvfs_inconsistent);
  EXPECT_EQ(faults.count(Call::kRwlockInit), faults.count(Call::kRwlockDestroy));
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(VolumeSetup, Success_HandsOutTheParts) {
  const TestDevice device(small_volume());
  kvfs_volume parts = {};
  ASSERT_EQ(
      kvfs_volume_setup(device.get(), 0, &parts.bitmap, &parts.extents, &parts.catalog, &parts.attributes, &parts.priv),
      kvfs_ok);
  EXPECT_NE(parts.bitmap, nullptr);
  EXPECT_NE(parts.extents, nullptr);
  EXPECT_NE(parts.catalog, nullptr);
  EXPECT_EQ(parts.attributes, nullptr);
  EXPECT_EQ(parts.priv->label_length, 8u);
  kvfs_rwlock* lock = parts.priv->lock;
  EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
  kvfs_bitmap_destroy(&parts.bitmap);
  kvfs_catalog_destroy(&parts.catalog);
  EXPECT_EQ(kvfs_extents_destroy(&parts.extents), kvfs_ok);
  std::free(parts.priv->sector_buffer);
  std::free(parts.priv);
}

// ---- Closing -------------------------------------------------------------------------------------------------------

TEST(VolumeDestroy, ClosesEverythingAndLeavesTheDeviceOpen) {
  for (const int skip : {0, 1}) {
    const TestDevice device(small_volume());
    LogCapture log;
    FaultInjector faults;
    EXPECT_EQ(open_and_close(device.get(), skip), kvfs_ok);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(faults.locks_alive(), 0);
    EXPECT_EQ(faults.count(Call::kFlock), 0u);
    void* sector = nullptr;
    EXPECT_EQ(kvfs_device_read_disk_sectors(device.get(), 2, 1, &sector), kvfs_ok);
    std::free(sector);
    EXPECT_LOG(log);
  }
}

TEST(VolumeDestroy, LocatorsLeftOpen_AreClosedByTheCatalog) {
  OpenVolume volume(small_volume(), kWithoutAllocationFile);
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  ASSERT_EQ(kvfs_catalog_search_by_cnid(volume->catalog, kAlpha, true, &found), kvfs_ok);
  LogCapture log;
  volume.close();
  EXPECT_LOG(log, "WARNING kvfs_catalog_destroy Cleaned up 1 leaked catalog record locators on destroy.\n");
}

// Q-fork-9
TEST(VolumeDestroy, ChangesInMemory_AreNotWritten) {
  const Volume image = small_volume();
  OpenVolume volume(image, kWithoutAllocationFile);
  kvfs_volume_add_file_count(volume.get(), 5);
  volume.close();
  EXPECT_TRUE(image == volume.contents());
}

// ---- Flushing ------------------------------------------------------------------------------------------------------

TEST(VolumeFlush, WritesTheSectorsOfTheHeaderOnce) {
  for (const std::uint32_t sector_size : {128u, 256u, 512u, 1024u, 2048u, 4096u}) {
    const Volume image = small_volume();
    OpenVolume volume(image, {.skip_allocation_file = 1, .sector_size = sector_size});
    kvfs_volume_set_next_allocation(volume.get(), 0xABCDEF01);
    LogCapture log;
    {
      FaultInjector faults;
      EXPECT_EQ(kvfs_volume_flush(volume.get()), kvfs_ok);
      const std::vector<Transfer> writes = faults.writes();
      ASSERT_EQ(writes.size(), 1u);
      EXPECT_EQ(writes[0].offset, 1024 / sector_size * sector_size);
      EXPECT_EQ(writes[0].size, std::max(sector_size, 512u));
      EXPECT_TRUE(faults.reads().empty());
    }
    EXPECT_LOG(log);
    Volume expected = image;
    expected.set_field("nextAllocation", 0xABCDEF01);
    EXPECT_TRUE(expected == volume.contents()) << "only that field changed, with sectors of " << sector_size;
  }
}

TEST(VolumeFlush, NothingChanged_WritesWhatWasRead) {
  const Volume image = small_volume();
  const OpenVolume volume(image, kWithoutAllocationFile);
  EXPECT_EQ(kvfs_volume_flush(volume.get()), kvfs_ok);
  EXPECT_TRUE(image == volume.contents());
}

TEST(VolumeFlush, FailingWrite_PassesTheFailureOn) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 1, Fault::error_number(ENOSPC));
    EXPECT_EQ(kvfs_volume_flush(volume.get()), kvfs_io_error);
  }
  EXPECT_LOG(
      log,
      "ERROR kvfs_device_write_disk_sectors Error while writing 512 bytes to device offset 1024 from buffer 0x{*}: No space left on device (28)\n",
      "ERROR kvfs_volume_flush Error while flushing volume header.\n");
}

TEST(VolumeFlush, ShortWrite_IsAFailure) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kPwrite64, 1, Fault::short_by(1));
    EXPECT_EQ(kvfs_volume_flush(volume.get()), kvfs_io_error);
  }
  EXPECT_LOG(log, "ERROR kvfs_device_write_disk_sectors Partial write of buffer contents: 511/512 bytes written\n",
             "ERROR kvfs_volume_flush Error while flushing volume header.\n");
}

}  // namespace
}  // namespace kvfs_test
