// Threads that search, iterate, map, read and flush on one volume while another one renames.
//
// What the locks promise: every lookup sees the tree between two of its changes, and lists, counts and the cache stay
// whole. What they do not: the bytes of a record that somebody changes, and locators of records that move. The readers
// therefore keep to files that lie in other nodes than those that are renamed.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "big_endian.h"
#include "log_capture.h"
#include "open_volume.h"
#include "stored_names.h"
#include "volume_builder.h"
#include "volume_checker.h"

namespace kvfs_test {
namespace {

constexpr unsigned kRenames = 120;
constexpr unsigned kRenamedFiles = 60;
constexpr unsigned kFillers = 60;
constexpr unsigned kReadFiles = 200;
constexpr std::uint32_t kRenamedFolder = kFirstUserId;
constexpr std::uint32_t kFirstRenamed = kRenamedFolder + 1;
constexpr std::uint32_t kFillerFolder = kFirstRenamed + kRenamedFiles;
constexpr std::uint32_t kReadFolder = kFillerFolder + 1 + kFillers;
constexpr std::uint32_t kFirstRead = kReadFolder + 1;

// The records of a folder's items, and the threads of these, lie in the order of their IDs. The fillers in the middle
// take more than one leaf.
Volume volume_in_three_parts() {
  VolumeDescription description;
  description.catalog.spare_nodes = 60;
  (void)description.add_folder(kRootFolderId, u"renamed");
  (void)description.add_files(kRenamedFolder, kRenamedFiles, "m");
  (void)description.add_folder(kRootFolderId, u"fillers");
  (void)description.add_files(kFillerFolder, kFillers, "x");
  (void)description.add_folder(kRootFolderId, u"read");
  (void)description.add_files(kReadFolder, kReadFiles, "r");
  return build_volume(description);
}

// The leaves that hold nothing but what is read.
std::vector<std::uint32_t> leaves_of_readers(const Volume& image) {
  std::vector<std::uint32_t> leaves;
  for (const std::uint32_t leaf : image.leaf_nodes(Tree::kCatalog)) {
    const Bytes key = image.record_key(image.record_at(Tree::kCatalog, leaf, 0));
    if (get_be32(key, 2) >= kReadFolder) {
      leaves.push_back(leaf);
    }
  }
  return leaves;
}

Name item_name(const std::string& prefix, unsigned index) {
  const std::string digits = std::to_string(index);
  return to_utf16(prefix + std::string(6 - digits.size(), '0') + digits);
}

// One volume and the threads on it. A reader is called again and again until the renames are done, with the number of
// the round; each false that it returns is a fault.
class BusyVolume {
 public:
  using Reader = std::function<bool(OpenVolume&, unsigned round)>;

  BusyVolume() : image_(volume_in_three_parts()), volume_(image_), leaves_(leaves_of_readers(image_)) {}

  void run(const std::vector<Reader>& readers) {
    std::vector<std::thread> threads;
    threads.reserve(readers.size());
    for (const Reader& reader : readers) {
      threads.emplace_back([this, &reader] {
        for (unsigned round = 0; round < kFewestRounds || !done_; ++round) {
          faults_ += reader(volume_, round) ? 0 : 1;
        }
      });
    }
    std::mt19937 random(1);
    for (unsigned i = 0; i < kRenames; ++i) {
      rename(kFirstRenamed + i * kStride % kRenamedFiles, random);
    }
    done_ = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  [[nodiscard]] unsigned faults() const { return faults_; }
  [[nodiscard]] OpenVolume& volume() { return volume_; }
  [[nodiscard]] const Volume& image() const { return image_; }
  [[nodiscard]] std::uint32_t leaf(unsigned round) const { return leaves_[round % leaves_.size()]; }

 private:
  static constexpr unsigned kFewestRounds = 20;
  static constexpr unsigned kStride = 37;  // one file after the other in the order of names would empty leaves

  void rename(std::uint32_t cnid, std::mt19937& random) {
    kvfs_catalog_search_result file;
    kvfs_catalog_search_result folder;
    kvfs_catalog_search_result_init(&file);
    kvfs_catalog_search_result_init(&folder);
    ASSERT_EQ(kvfs_catalog_search_by_cnid(volume_.catalog(), cnid, true, &file), kvfs_ok);
    ASSERT_EQ(kvfs_catalog_search_by_cnid(volume_.catalog(), kRenamedFolder, true, &folder), kvfs_ok);
    ASSERT_EQ(kvfs_catalog_record_locator_set_parent_locator(file.locator, folder.locator), kvfs_ok);
    kvfs_catalog_search_result_release(&folder);
    // A longer name in the same place of the order: no leaf becomes empty, and full ones are split.
    const std::vector<kvfs_be16> name =
        stored_units(item_name("m", cnid - kFirstRenamed) + to_utf16(std::to_string(random())));
    EXPECT_EQ(kvfs_catalog_rename_record(volume_.catalog(), &file.locator, kvfs_be32::of(kRenamedFolder), name.data(),
                                         name.size()),
              kvfs_ok);
  }

  Volume image_;
  OpenVolume volume_;
  std::vector<std::uint32_t> leaves_;
  std::atomic<bool> done_ = false;
  std::atomic<unsigned> faults_ = 0;
};

// ---- What the threads do -------------------------------------------------------------------------------------------

bool search_by_name(OpenVolume& volume, unsigned round) {
  const unsigned index = round * 7 % kReadFiles;
  const HFSPlusCatalogKey key = stored_key(kReadFolder, item_name("r", index));
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  const bool searched = kvfs_catalog_search_node(volume.catalog(), &key, &found) == kvfs_ok && found.found != 0;
  const bool right = searched && kvfs_view_as<HFSPlusCatalogFile>(found.locator->btree_locator->data)->fileID.get() ==
                                     kFirstRead + index;
  kvfs_catalog_search_result_release(&found);
  return right;
}

bool search_by_id(OpenVolume& volume, unsigned round) {
  const unsigned index = round * 11 % kReadFiles;
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  const bool searched = kvfs_catalog_search_by_cnid(volume.catalog(), kFirstRead + index, true, &found) == kvfs_ok;
  const bool right = searched && found.found != 0 &&
                     kvfs_view_as<HFSPlusCatalogKey>(found.locator->btree_locator->key)->parentID.get() == kReadFolder;
  kvfs_catalog_search_result_release(&found);
  return right;
}

// Walks over some files, holding each locator while the next one is opened.
bool iterate(OpenVolume& volume, unsigned round) {
  const unsigned first = round * 13 % (kReadFiles - 10);
  const HFSPlusCatalogKey key = stored_key(kReadFolder, item_name("r", first));
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  bool right = kvfs_catalog_search_node(volume.catalog(), &key, &found) == kvfs_ok && found.found != 0;
  kvfs_catalog_record_locator* locator = found.locator;
  for (unsigned i = 1; i < 10 && right; ++i) {
    kvfs_catalog_record_locator* next = nullptr;
    right = kvfs_catalog_get_next_record(volume.catalog(), locator, &next) == kvfs_ok && next != nullptr &&
            kvfs_view_as<HFSPlusCatalogFile>(next->btree_locator->data)->fileID.get() == kFirstRead + first + i;
    kvfs_catalog_record_locator_close(&locator);
    locator = next;
  }
  if (locator != nullptr) {
    kvfs_catalog_record_locator_close(&locator);
  }
  return right;
}

bool map_and_unmap(BusyVolume& busy, OpenVolume& volume, unsigned round) {
  const std::uint32_t leaf = busy.leaf(round);
  const std::uint16_t size = volume.catalog_tree()->nodeSize;
  const Bytes expected = busy.image().read_node(Tree::kCatalog, leaf);
  void* pointer = nullptr;
  bool right = kvfs_fork_map(volume.catalog_fork(), std::uint64_t{leaf} * size, &pointer, size, nullptr) == kvfs_ok;
  right = right && std::memcmp(pointer, expected.data(), size) == 0;
  return right && kvfs_fork_unmap(volume.catalog_fork(), std::uint64_t{leaf} * size, &pointer, size) == kvfs_ok;
}

bool read(BusyVolume& busy, OpenVolume& volume, unsigned round) {
  const std::uint32_t leaf = busy.leaf(round);
  const std::uint16_t size = volume.catalog_tree()->nodeSize;
  Bytes bytes(size);
  return kvfs_fork_read(volume.catalog_fork(), std::uint64_t{leaf} * size, bytes.data(), size, nullptr) == kvfs_ok &&
         bytes == busy.image().read_node(Tree::kCatalog, leaf);
}

bool flush(OpenVolume& volume, unsigned /*round*/) {
  return kvfs_fork_flush(volume.catalog_fork()) == kvfs_ok && kvfs_volume_flush(volume.get()) == kvfs_ok;
}

TEST(VolumeThreads, ReadersBesideARenamingThread_FindTheirFilesAndLeaveASoundVolume) {
  BusyVolume busy;
  LogCapture log;
  const BusyVolume::Reader map = [&busy](OpenVolume& volume, unsigned round) {
    return map_and_unmap(busy, volume, round);
  };
  const BusyVolume::Reader copy = [&busy](OpenVolume& volume, unsigned round) { return read(busy, volume, round); };
  busy.run({search_by_name, search_by_name, search_by_id, search_by_id, iterate, iterate, map, copy, flush});
  EXPECT_EQ(busy.faults(), 0u);
  EXPECT_LOG(log);
  const Volume after = busy.volume().flushed();
  EXPECT_EQ(joined(check_volume(after)), "");
  EXPECT_EQ(dump_records(after, Tree::kCatalog).size(), dump_records(busy.image(), Tree::kCatalog).size());
  LogCapture closing;
  busy.volume().close();
  EXPECT_LOG(closing);  // of locators or mappings left
}

}  // namespace
}  // namespace kvfs_test
