#include "library_operations.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "bitmap.h"
#include "extents.h"
#include "fault_injection.h"
#include "support.h"
#include "unicode.h"
#include "volume_builder.h"

namespace kvfs_test {

// ---- The volume ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t kFile = kFirstUserId;
constexpr std::uint32_t kFiles = 40;
constexpr std::uint32_t kDataFile = kFile + kFiles;
constexpr std::uint32_t kLink = kDataFile + 3;  // behind the folder of its target and the target
constexpr std::uint64_t kInodeSize = 5000;

Volume campaign_volume(std::uint32_t catalog_extents) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, kFiles);
  (void)description.add_file(kRootFolderId, u"data", 40000);
  (void)description.add_hard_link(kRootFolderId, u"link", description.add_inode(kInodeSize));
  description.catalog.leaf_fill[0].free_bytes = 0;
  description.catalog.extent_count = catalog_extents;
  return build_volume(description);
}

// ---- Steps ---------------------------------------------------------------------------------------------------------

// A lock that fails while something is given back is told by the log alone.
static const std::set<std::string> kGivingBack = {"unlock", "write lock"};
// Besides, what a split reads of the node before the one that it claims is of no consequence when it cannot be read.
static const std::set<std::string> kSplitting = {"read lock", "unlock", "write lock"};
// Whatever fails while the blocks of a deleted file are freed leaks them, and the file is gone nevertheless.
static const std::set<std::string> kFreeingBlocks = {"attribute made", "attribute set", "lock made",    "memory",
                                                     "read",           "read lock",     "read nothing", "read short",
                                                     "unlock",         "write lock"};

// The handle of an object that was created, or null after a failure; it is destroyed at once.
template <typename Object, typename Destroyed>
static kvfs_result destroy_created(kvfs_result created, Object* object, Destroyed (*destroy)(Object**)) {
  EXPECT_EQ(object == nullptr, created != kvfs_ok);
  if (object != nullptr) {
    (void)destroy(&object);
  }
  return created;
}

static kvfs_result open_volume(const OpenVolume& volume, int without_allocation_file) {
  kvfs_volume* opened = nullptr;
  const kvfs_result result = kvfs_volume_create(volume.device(), without_allocation_file, &opened);
  return destroy_created(result, opened, kvfs_volume_destroy);
}

static kvfs_result open_device() {
  const int fd = memfd_create("device", MFD_CLOEXEC);
  kvfs_device* device = nullptr;
  const kvfs_result result = kvfs_device_create(fd, 1, 512, 0, &device);
  (void)destroy_created(result, device, kvfs_device_destroy);
  close(fd);
  return result;
}

static kvfs_result use_lock() {
  kvfs_rwlock* lock = nullptr;
  kvfs_result result = kvfs_rwlock_create(&lock);
  if (result == kvfs_ok) {
    for (kvfs_result (*const take)(kvfs_rwlock*) : {kvfs_rwlock_lock_read, kvfs_rwlock_lock_write}) {
      const kvfs_result taken = take(lock);
      result = kvfs_result_keep(result, taken);
      result = kvfs_result_keep(result, taken == kvfs_ok ? kvfs_rwlock_unlock(lock) : kvfs_ok);
    }
  }
  return lock == nullptr ? result : kvfs_result_keep(result, kvfs_rwlock_destroy(&lock));
}

static kvfs_result search_catalog(const std::function<kvfs_result(kvfs_catalog_search_result*)>& search) {
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  const kvfs_result searched = search(&result);
  EXPECT_TRUE(searched == kvfs_ok || result.locator == nullptr);
  kvfs_catalog_search_result_release(&result);
  return searched;
}

static kvfs_result search_tree(const std::function<kvfs_result(kvfs_btree_search_result*)>& search) {
  kvfs_btree_search_result result;
  kvfs_btree_search_result_init(&result);
  const kvfs_result searched = search(&result);
  EXPECT_TRUE(searched == kvfs_ok || result.locator == nullptr);
  kvfs_btree_search_result_release(&result);
  return searched;
}

// Follows a thread that was found without a failure.
static kvfs_result follow_thread(OpenVolume& volume, kvfs_catalog_search_result* result) {
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  {
    const FaultInjector::Pause pause;
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), kFile, false, &thread), kvfs_ok);
  }
  const kvfs_result followed = kvfs_catalog_follow_thread(volume.catalog(), thread.locator, result);
  const FaultInjector::Pause pause;
  kvfs_catalog_search_result_release(&thread);
  return followed;
}

// Runs an operation on an item that was found without a failure; the locator of its folder, the root folder, is its
// parent.
static kvfs_result with_item(OpenVolume& volume, std::uint32_t cnid,
                             const std::function<kvfs_result(kvfs_catalog_record_locator**)>& operate) {
  kvfs_catalog_search_result item;
  kvfs_catalog_search_result_init(&item);
  {
    const FaultInjector::Pause pause;
    kvfs_catalog_search_result folder;
    kvfs_catalog_search_result_init(&folder);
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), cnid, true, &item), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, true, &folder), kvfs_ok);
    EXPECT_EQ(kvfs_catalog_record_locator_set_parent_locator(item.locator, folder.locator), kvfs_ok);
    kvfs_catalog_search_result_release(&folder);
  }
  const kvfs_result result = operate(&item.locator);
  const FaultInjector::Pause pause;
  kvfs_catalog_search_result_release(&item);
  return result;
}

// The same on the item's record in the B-tree.
static kvfs_result with_record(OpenVolume& volume, std::uint32_t cnid,
                               const std::function<kvfs_result(kvfs_btree_record_locator*)>& operate) {
  return with_item(volume, cnid, [&](kvfs_catalog_record_locator** item) { return operate((*item)->btree_locator); });
}

static HFSPlusCatalogFile link_record(OpenVolume& volume) {
  HFSPlusCatalogFile file = {};
  (void)with_record(volume, kLink, [&file](const kvfs_btree_record_locator* record) {
    EXPECT_EQ(record->data_size, sizeof(file));
    std::memcpy(&file, record->data, sizeof(file));
    return kvfs_ok;
  });
  return file;
}

static std::vector<kvfs_be16> name_of(std::size_t length) {
  return std::vector<kvfs_be16>(length, kvfs_be16::of(u'n'));
}

// The key of an item in the root folder that is not there.
static HFSPlusCatalogKey new_key() {
  constexpr std::uint16_t kLength = 90;
  HFSPlusCatalogKey key = {};
  key.keyLength.set(kHFSPlusCatalogKeyMinimumLength + kLength * sizeof(kvfs_be16));
  key.parentID.set(kRootFolderId);
  key.nodeName.length.set(kLength);
  const std::vector<kvfs_be16> name = name_of(kLength);
  std::copy(name.begin(), name.end(), key.nodeName.unicode);
  return key;
}

// The first block of the catalog that the eight extents of the volume header do not cover.
static std::uint32_t first_overflow_block(const OpenVolume& volume) {
  const HFSPlusForkData fork_data = volume.header()->catalogFile;
  std::uint32_t blocks = 0;
  for (const HFSPlusExtentDescriptor& extent : fork_data.extents.extents) {
    blocks += extent.blockCount.get();
  }
  return blocks;
}

static void change_catalog(OpenVolume& volume) {
  const std::vector<kvfs_be16> label = name_of(8);
  ASSERT_EQ(kvfs_volume_set_label(volume.get(), label.data(), label.size()), kvfs_ok);
}

// ---- Operations ----------------------------------------------------------------------------------------------------

static std::vector<Operation> opening_operations() {
  return {
      {.name = "kvfs_volume_create",
       .run = [](OpenVolume& v) { return open_volume(v, 0); },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_volume_create, without allocation file",
       .run = [](OpenVolume& v) { return open_volume(v, 1); },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_extents_create",
       .run =
           [](OpenVolume& v) {
             kvfs_extents* extents = nullptr;
             const kvfs_result result = kvfs_extents_create(v.device(), v.header(), &extents);
             return destroy_created(result, extents, kvfs_extents_destroy);
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_extents_validate",
       .run =
           [](OpenVolume& v) {
             int valid = 0;
             return kvfs_extents_validate(v.get()->extents->btree, &valid);
           }},
      {.name = "kvfs_catalog_create",
       .run =
           [](OpenVolume& v) {
             kvfs_catalog* catalog = nullptr;
             const kvfs_result result = kvfs_catalog_create(v.device(), v.get()->extents, v.header(), &catalog);
             return destroy_created(result, catalog, kvfs_catalog_destroy);
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_btree_create",
       .run =
           [](OpenVolume& v) {
             kvfs_btree* tree = nullptr;
             const kvfs_result result = kvfs_btree_create(v.device(), v.get()->extents, 0, v.header(),
                                                          kHFSCatalogFileID, kvfs_catalog_compare_keys, &tree);
             return destroy_created(result, tree, kvfs_btree_destroy);
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_bitmap_create",
       .run =
           [](OpenVolume& v) {
             kvfs_bitmap* bitmap = nullptr;
             const kvfs_result result = kvfs_bitmap_create(v.header(), v.device(), v.get()->extents, &bitmap);
             return destroy_created(result, bitmap, kvfs_bitmap_destroy);
           }},
      {.name = "kvfs_fork_create",
       .run =
           [](OpenVolume& v) {
             kvfs_fork* fork = nullptr;
             const kvfs_result result = kvfs_fork_create(v.device(), v.get()->extents, 0, v.header(), kHFSCatalogFileID,
                                                         &v.header()->catalogFile, 4096, &fork);
             return destroy_created(result, fork, kvfs_fork_destroy);
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_rwlock_create and its lock", .run = [](OpenVolume& /*v*/) { return use_lock(); }},
      {.name = "kvfs_device_create",
       .run = [](OpenVolume& /*v*/) { return open_device(); },
       .silent_about = "memory",
       .succeeds_despite = {"flock"}},
      {.name = "kvfs_device_read_disk_sectors",
       .run =
           [](OpenVolume& v) {
             void* sectors = nullptr;
             const kvfs_result result = kvfs_device_read_disk_sectors(v.device(), 2, 1, &sectors);
             EXPECT_EQ(sectors == nullptr, result != kvfs_ok);
             std::free(sectors);
             return result;
           }},
      {.name = "kvfs_device_write_disk_sectors",
       .run =
           [](OpenVolume& v) {
             const unsigned char sector[512] = {};
             return kvfs_device_write_disk_sectors(v.device(), 0, 1, sector);
           },
       .writes = true},
  };
}

static std::vector<Operation> tree_searching_operations() {
  return {
      {.name = "kvfs_btree_search_node",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogKey key = new_key();
             return search_tree([&v, &key](kvfs_btree_search_result* result) {
               return kvfs_btree_search_node(v.catalog_tree(), &key, result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_btree_get_next_record",
       .run =
           [](OpenVolume& v) {
             return with_record(v, kFile, [&v](const kvfs_btree_record_locator* record) {
               kvfs_btree_record_locator* next = nullptr;
               const kvfs_result result = kvfs_btree_get_next_record(v.catalog_tree(), record, &next);
               return destroy_created(result, next, kvfs_btree_record_locator_close);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_extents_search",
       .run =
           [](OpenVolume& v) {
             return search_tree([&v](kvfs_btree_search_result* result) {
               return kvfs_extents_search(v.get()->extents, kHFSDataForkType, kHFSCatalogFileID,
                                          first_overflow_block(v), result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_extents_get_next_extent_record",
       .run =
           [](OpenVolume& v) {
             int found = 0;
             HFSPlusExtentRecord record = {};
             return kvfs_extents_get_next_extent_record(v.get()->extents, kHFSDataForkType, kHFSCatalogFileID,
                                                        first_overflow_block(v), &found, &record);
           },
       .succeeds_despite = kGivingBack},
  };
}

static std::vector<Operation> catalog_searching_operations() {
  return {
      {.name = "kvfs_catalog_search_node",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogKey key = new_key();
             return search_catalog([&v, &key](kvfs_catalog_search_result* result) {
               return kvfs_catalog_search_node(v.catalog(), &key, result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_search_by_cnid",
       .run =
           [](OpenVolume& v) {
             return search_catalog([&v](kvfs_catalog_search_result* result) {
               return kvfs_catalog_search_by_cnid(v.catalog(), kFile, true, result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_search_by_path",
       .run =
           [](OpenVolume& v) {
             kvfs_catalog_utf8_path path = {"/f000005"};
             return search_catalog([&v, &path](kvfs_catalog_search_result* result) {
               return kvfs_catalog_search_by_path(v.catalog(), kvfs_catalog_utf8_path_component, &path, nullptr,
                                                  result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_get_next_record",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
               kvfs_catalog_record_locator* next = nullptr;
               const kvfs_result result = kvfs_catalog_get_next_record(v.catalog(), *item, &next);
               return destroy_created(result, next, kvfs_catalog_record_locator_close);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_follow_thread",
       .run =
           [](OpenVolume& v) {
             return search_catalog([&v](kvfs_catalog_search_result* result) { return follow_thread(v, result); });
           },
       .succeeds_despite = kGivingBack},
  };
}

static std::vector<Operation> item_operations() {
  return {
      {.name = "kvfs_catalog_follow_hard_link",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogFile file = link_record(v);
             return search_catalog([&v, &file](kvfs_catalog_search_result* result) {
               return kvfs_catalog_follow_hard_link(v.catalog(), &file, result);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_record_get_file_size",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogFile file = link_record(v);
             const std::uint64_t size = kvfs_catalog_record_get_file_size(&file, v.catalog());
             EXPECT_TRUE(size == kInodeSize || size == 0) << size;  // which is all that it tells
             return kvfs_ok;
           },
       .succeeds_despite = {"memory", "read lock", "unlock", "write lock"}},
      {.name = "kvfs_catalog_is_directory_empty",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kRootFolderId, [&v](kvfs_catalog_record_locator** item) {
               int empty = 0;
               return kvfs_catalog_is_directory_empty(v.catalog(), *item, &empty);
             });
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_can_delete_file",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kRootFolderId, [&v](kvfs_catalog_record_locator** item) {
               int can_delete = 0;
               return kvfs_catalog_can_delete_file(v.catalog(), *item, &can_delete);
             });
           },
       .succeeds_despite = kGivingBack},
  };
}

static std::vector<Operation> reading_operations() {
  return {
      {.name = "kvfs_fork_map and kvfs_fork_unmap",
       .run =
           [](OpenVolume& v) {
             void* bytes = nullptr;
             const kvfs_result result = kvfs_fork_map(v.catalog_fork(), 0, &bytes, 100, nullptr);
             return result == kvfs_ok ? kvfs_fork_unmap(v.catalog_fork(), 0, &bytes, 100) : result;
           }},
      {.name = "kvfs_fork_read",
       .run =
           [](OpenVolume& v) {
             unsigned char bytes[10000];
             return kvfs_fork_read(v.catalog_fork(), 0, bytes, sizeof(bytes), nullptr);
           }},
      {.name = "FindContiguousUnallocated",
       .run =
           [](OpenVolume& v) {
             kvfs_allocation_location location = {};
             return FindContiguousUnallocated(v.get(), 3, 0, &location);
           }},
      {.name = "FindWriteLocation",
       .run =
           [](OpenVolume& v) {
             const HFSPlusForkData fork_data = v.header()->catalogFile;
             kvfs_allocation_location location = {};
             return FindWriteLocation(kHFSCatalogFileID, kHFSDataForkType, &fork_data, v.get(),
                                      fork_data.logicalSize.get(), 4096, &location);
           },
       .succeeds_despite = kGivingBack},
      {.name = "UpdateForks",
       .run =
           [](OpenVolume& v) {
             HFSPlusForkData fork_data = v.header()->catalogFile;
             kvfs_allocation_location location = {};
             return UpdateForks(v.get(), &fork_data, fork_data.logicalSize.get(), 4096, &location);
           },
       .extents = 5},
      {.name = "kvfs_unicode_utf8_to_unistr",
       .run =
           [](OpenVolume& /*v*/) {
             std::uint16_t* units = nullptr;
             std::size_t count = 0;
             const kvfs_result result = kvfs_unicode_utf8_to_unistr("text", 4, &units, &count);
             std::free(units);
             return result;
           },
       .succeeds_despite = {"memory"}},
      {.name = "kvfs_unicode_unistr_to_utf8",
       .run =
           [](OpenVolume& /*v*/) {
             const std::uint16_t units[] = {'t', 'e', 'x', 't'};
             char* text = nullptr;
             std::size_t length = 0;
             const kvfs_result result =
                 kvfs_unicode_unistr_to_utf8(units, std::size(units), kUnicodeHostOrder, &text, &length);
             std::free(text);
             return result;
           },
       .silent_about = "memory"},
  };
}

static std::vector<Operation> tree_changing_operations() {
  return {
      {.name = "kvfs_fork_write",
       .run =
           [](OpenVolume& v) {
             const unsigned char bytes[5000] = {};
             return kvfs_fork_write(v.catalog_fork(), 100, bytes, sizeof(bytes), nullptr);
           }},
      {.name = "kvfs_fork_fill",
       .run = [](OpenVolume& v) { return kvfs_fork_fill(v.catalog_fork(), 100, 5000, 0, nullptr); },
       .silent_about = "memory",
       .succeeds_despite = {"memory"}},
      {.name = "kvfs_btree_record_locator_write_data",
       .run =
           [](OpenVolume& v) {
             return with_record(v, kFile, [](kvfs_btree_record_locator* record) {
               return kvfs_btree_record_locator_write_data(record, record->data, record->data_size);
             });
           }},
      {.name = "kvfs_btree_insert_record",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogKey key = new_key();
             const unsigned char data[200] = {};
             kvfs_btree_record_locator* record = nullptr;
             const kvfs_result result =
                 kvfs_btree_insert_record(v.catalog_tree(), &key, data, sizeof(data), nullptr, &record);
             return destroy_created(result, record, kvfs_btree_record_locator_close);
           },
       .succeeds_despite = kSplitting},
      {.name = "kvfs_btree_delete_record",
       .run =
           [](OpenVolume& v) {
             return with_record(v, kFile, [&v](kvfs_btree_record_locator* record) {
               return kvfs_btree_delete_record(v.catalog_tree(), record, 0);
             });
           }},
      {.name = "kvfs_extents_insert",
       .run =
           [](OpenVolume& v) {
             const HFSPlusExtentRecord record = {};
             return kvfs_extents_insert(v.get()->extents, kHFSDataForkType, kDataFile, 10, &record);
           },
       .succeeds_despite = kGivingBack},
  };
}

static std::vector<Operation> catalog_changing_operations() {
  return {
      {.name = "kvfs_volume_set_label",
       .run =
           [](OpenVolume& v) {
             const std::vector<kvfs_be16> label = name_of(90);  // the first leaf is split
             return kvfs_volume_set_label(v.get(), label.data(), label.size());
           },
       .succeeds_despite = kSplitting},
      {.name = "kvfs_catalog_insert_record",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogKey key = new_key();
             const HFSPlusCatalogFile data = link_record(v);
             kvfs_catalog_record_locator* record = nullptr;
             const kvfs_result result =
                 kvfs_catalog_insert_record(v.catalog(), &key, &data, sizeof(data), nullptr, &record);
             return destroy_created(result, record, kvfs_catalog_record_locator_close);
           },
       .succeeds_despite = kSplitting},
      {.name = "kvfs_catalog_rename_record",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
               const std::vector<kvfs_be16> name = name_of(7);  // as long as the old one
               return kvfs_catalog_rename_record(v.catalog(), item, kvfs_be32::of(kRootFolderId), name.data(),
                                                 name.size());
             });
           },
       .succeeds_despite = {"read lock", "unlock", "write lock"}},
      {.name = "kvfs_catalog_update_valence",
       .run =
           [](OpenVolume& v) {
             const HFSPlusCatalogFile child = link_record(v);
             return with_item(v, kRootFolderId, [&v, &child](kvfs_catalog_record_locator** folder) {
               return kvfs_catalog_update_valence(v.catalog(), &child, *folder, 1);
             });
           },
       .succeeds_despite = {"read lock", "unlock", "write lock"}},
      {.name = "kvfs_catalog_delete",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kDataFile, [&v](kvfs_catalog_record_locator** item) {
               return kvfs_catalog_delete(v.catalog(), v.get(), *item);
             });
           },
       .succeeds_despite = kFreeingBlocks},
      {.name = "kvfs_catalog_mksymlink",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kFile, [&v](kvfs_catalog_record_locator** item) {
               const std::vector<kvfs_be16> target = name_of(5);
               return kvfs_catalog_mksymlink(*item, target.data(), target.size(), v.get());
             });
           },
       .writes = true},
  };
}

static std::vector<Operation> locator_operations() {
  return {
      {.name = "kvfs_catalog_record_locator_open and _close",
       .run =
           [](OpenVolume& v) {
             kvfs_btree_search_result found;
             kvfs_btree_search_result_init(&found);
             {
               const FaultInjector::Pause pause;
               const HFSPlusCatalogKey key = new_key();
               EXPECT_EQ(kvfs_btree_search_node(v.catalog_tree(), &key, &found), kvfs_ok);
             }
             kvfs_catalog_record_locator* locator = nullptr;
             const kvfs_result result =
                 kvfs_catalog_record_locator_open(v.catalog(), found.locator, 0, nullptr, 0, &locator);
             if (result == kvfs_ok) {
               kvfs_catalog_record_locator_close(&locator);
               return kvfs_ok;
             }
             const FaultInjector::Pause pause;
             kvfs_btree_search_result_release(&found);
             return result;
           },
       .succeeds_despite = kGivingBack},
      {.name = "kvfs_catalog_record_locator_set_parent_locator",
       .run =
           [](OpenVolume& v) {
             return with_item(v, kFile, [](kvfs_catalog_record_locator** item) {
               return kvfs_catalog_record_locator_set_parent_locator(*item, nullptr);
             });
           },
       .succeeds_despite = kGivingBack},
  };
}

static std::vector<Operation> block_operations() {
  return {
      {.name = "kvfs_btree_expand",
       .run = [](OpenVolume& v) { return kvfs_btree_expand(v.catalog_tree(), v.get()); },
       .extents = 5},
      {.name = "kvfs_fork_expand",
       .run =
           [](OpenVolume& v) {
             kvfs_allocation_location location = {};
             return kvfs_fork_expand(v.catalog_fork(), v.get(), &location);
           },
       .extents = 5},
      {.name = "kvfs_fork_shrink",
       .run = [](OpenVolume& v) { return kvfs_fork_shrink(v.catalog_fork(), v.get(), 1); },
       .extents = 5},
      {.name = "AllocateExtentAllocationBlocks",
       .run =
           [](OpenVolume& v) {
             kvfs_allocation_location location = {};
             {
               const FaultInjector::Pause pause;
               EXPECT_EQ(FindContiguousUnallocated(v.get(), 3, 0, &location), kvfs_ok);
             }
             return AllocateExtentAllocationBlocks(location.start_block, 3, v.get());
           }},
      {.name = "FreeAllocationBlock", .run = [](OpenVolume& v) { return FreeAllocationBlock(0, v.bitmap()); }},
      {.name = "FreeExtentAllocationBlocks",
       .run =
           [](OpenVolume& v) {
             const HFSPlusForkData fork_data = v.header()->catalogFile;
             return FreeExtentAllocationBlocks(&fork_data, 0, 1, v.bitmap(), nullptr);
           }},
  };
}

static std::vector<Operation> flushing_operations() {
  return {
      {.name = "kvfs_fork_flush",
       .run = [](OpenVolume& v) { return kvfs_fork_flush(v.catalog_fork()); },
       .prepare = change_catalog,
       .writes = true},
      {.name = "kvfs_volume_flush",
       .run = [](OpenVolume& v) { return kvfs_volume_flush(v.get()); },
       .prepare = change_catalog,
       .writes = true},
      {.name = "kvfs_bitmap_flush",
       .run = [](OpenVolume& v) { return kvfs_bitmap_flush(v.bitmap()); },
       .prepare = [](OpenVolume& v) { ASSERT_EQ(FreeAllocationBlock(0, v.bitmap()), kvfs_ok); },
       .writes = true},
  };
}

std::vector<Operation> library_operations() {
  std::vector<Operation> all;
  for (const auto& some :
       {opening_operations(), tree_searching_operations(), catalog_searching_operations(), item_operations(),
        reading_operations(), tree_changing_operations(), catalog_changing_operations(), locator_operations(),
        block_operations(), flushing_operations()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

}  // namespace kvfs_test
