// Finding catalog records: by key, by ID, through threads, by path and in order.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "btree/private.h"
#include "catalog_fixture.h"
#include "unicode_names.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// Data of a record: its type in big-endian and zeros.
Bytes record_of_type(std::uint16_t type, std::size_t size) {
  Bytes data(size, 0);
  data.at(0) = static_cast<std::uint8_t>(type >> 8);
  data.at(1) = static_cast<std::uint8_t>(type);
  return data;
}

Bytes folder_record(std::uint32_t cnid, std::size_t size = 88) {
  Bytes data = record_of_type(kHFSPlusFolderRecord, size);
  data.at(11) = static_cast<std::uint8_t>(cnid);
  return data;
}

// The small volume with a record more.
Volume volume_with(Bytes key, Bytes data) {
  VolumeDescription description = small_description();
  description.extra_catalog_records.emplace_back(std::move(key), std::move(data));
  return build_volume(description);
}

// ---- By key --------------------------------------------------------------------------------------------------------

std::string search(const OpenCatalog& catalog, std::uint32_t parent, const Name& name) {
  const HFSPlusCatalogKey key = stored_key(parent, name);
  Searched found;
  EXPECT_EQ(kvfs_catalog_search_node(catalog.get(), &key, found.out()), kvfs_ok);
  return found.text();
}

TEST(CatalogSearchNode, EveryRecord_IsFoundByItsKey) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(search(catalog, 1, u"Untitled"), "found: folder 2 in 1/Untitled");
  EXPECT_EQ(search(catalog, 2, u""), "found: folder thread of 2 to 1/Untitled");
  EXPECT_EQ(search(catalog, 2, u"alpha"), "found: folder 16 in 2/alpha");
  EXPECT_EQ(search(catalog, 2, u"one"), "found: file 19 in 2/one");
  EXPECT_EQ(search(catalog, 19, u""), "found: file thread of 19 to 2/one");
  EXPECT_EQ(search(catalog, 17, u"gamma"), "found: folder 18 in 17/gamma");
  EXPECT_LOG(log);
}

TEST(CatalogSearchNode, MissingKey_GivesThePlaceWhereItBelongs) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(search(catalog, 0, u""), "at: folder 2 in 1/Untitled") << "before every record";
  EXPECT_EQ(search(catalog, 2, u"beta"), "at: file 19 in 2/one");
  EXPECT_EQ(search(catalog, 0xFFFFFFFF, u"z"), "after: file thread of 21 to 2/three") << "behind every record";
  EXPECT_LOG(log);
}

TEST(CatalogSearchNode, OtherCase_IsFoundOnlyWhereCaseIsFolded) {
  VolumeDescription description = small_description();
  EXPECT_EQ(search(OpenCatalog(build_volume(description)), 2, u"ALPHA"), "found: folder 16 in 2/alpha");
  description.hfsx = description.case_sensitive = true;
  EXPECT_EQ(search(OpenCatalog(build_volume(description)), 2, u"ALPHA"), "at: folder 16 in 2/alpha");
}

// Q-catalog-1
TEST(CatalogSearchNode, PrivateFolder_IsNotFoundByItsOwnKey) {
  // Names that begin with a NUL are never equal, not even to themselves.
  for (const bool binary : {false, true}) {
    VolumeDescription description = small_description();
    description.hfsx = description.case_sensitive = binary;
    (void)description.private_folder();
    const OpenCatalog catalog(build_volume(description));
    const HFSPlusCatalogKey key = stored_key(kRootFolderId, Name(4, u'\0') + u"HFS+ Private Data");
    Searched found;
    EXPECT_EQ(kvfs_catalog_search_node(catalog.get(), &key, found.out()), kvfs_ok);
    EXPECT_EQ(found.out()->found, 0u);
    EXPECT_NE(found.locator(), nullptr);
  }
}

TEST(CatalogSearchNode, Result_HasOneReferenceAndNoParent) {
  const OpenCatalog catalog(small_volume());
  const HFSPlusCatalogKey key = stored_key(2, u"one");
  Searched found;
  ASSERT_EQ(kvfs_catalog_search_node(catalog.get(), &key, found.out()), kvfs_ok);
  EXPECT_EQ(found.locator()->priv->reference_count, 1u);
  EXPECT_EQ(*found.locator()->parent, nullptr);
  EXPECT_EQ(found.locator()->record_type, 0u);
  EXPECT_EQ(found.locator()->reserved, 0u);
  found.release();
  EXPECT_THAT(catalog.open_locators(), IsEmpty());
}

TEST(CatalogSearchNode, IndexNodeThatPointsToItself_PassesTheFailureOn) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 200);
  Volume volume = build_volume(description);
  const auto root = static_cast<std::uint32_t>(volume.get_field("catalog.header.rootNode"));
  volume.set_field("catalog.node[" + std::to_string(root) + "].record[0].child", root);
  const OpenCatalog catalog(volume);
  const HFSPlusCatalogKey key = stored_key(1, u"Untitled");
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_node(catalog.get(), &key, found.out()), kvfs_inconsistent);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_LOG(log, "ERROR kvfs_btree_search_node_internal Index node points back to itself. Inconsistent B-tree.\n",
             "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n");
}

// X-catalog-1
TEST(CatalogSearchNode, NameThatExceedsItsKey_EndsTheSearchThatNeedsTheRest) {
  Volume volume = small_volume();
  volume.set_field(volume.find_entry(kRootFolderId, u"alpha")->path() + ".key.nodeName.length", 200);
  const OpenCatalog catalog(volume);
  const HFSPlusCatalogKey key = stored_key(2, u"alphabet");
  Searched found;
  LogCapture silence;
  EXPECT_EQ(search(catalog, 2, u"two"), "found: file 20 in 2/two");
  EXPECT_EQ(search(catalog, 2, u"az"), "at: file 19 in 2/one");
  EXPECT_LOG(silence);
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_node(catalog.get(), &key, found.out()), kvfs_inconsistent);
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Names do not fit their keys.\n",
             "ERROR kvfs_btree_search_node_internal Invalid node data: The key of record {*} contradicts itself.\n",
             "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n");
}

// X-btree-5
TEST(CatalogSearchNode, ShortKeyInANode_IsReportedAndSortsFirst) {
  Volume volume = small_volume();
  volume.set_field(volume.find_entry(kRootFolderId, u"alpha")->path() + ".key.keyLength", 4);
  const OpenCatalog catalog(volume);
  LogCapture log;
  EXPECT_EQ(search(catalog, 2, u"two"), "found: file 20 in 2/two");
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Data in A is too small to be a HFSPlusCatalogKey (4 bytes).\n");
}

TEST(CatalogSearchNode, UnknownKeyCompareType_IsReportedForEachRecordAndFindsNothing) {
  VolumeDescription description;
  description.key_compare_type = 0x11;
  const OpenCatalog catalog(build_volume(description));
  LogCapture log;
  EXPECT_EQ(search(catalog, 1, u"Untitled"), "after: folder thread of 2 to 1/Untitled");
  EXPECT_LOG(log, "ERROR kvfs_catalog_compare_keys Illegal value for compare_type: 0x11\n",
             "ERROR kvfs_catalog_compare_keys Illegal value for compare_type: 0x11\n");
}

// ---- In order ------------------------------------------------------------------------------------------------------

TEST(CatalogGetNextRecord, FromTheFirst_VisitsEveryRecordInOrder) {
  VolumeDescription description = small_description();
  (void)description.add_files(kAlpha, 300);
  const Volume volume = build_volume(description);
  const OpenCatalog catalog(volume);
  LogCapture log;
  std::vector<Record> visited;
  kvfs_catalog_record_locator* locator = catalog.open(1, u"Untitled");
  while (locator != nullptr) {
    const kvfs_btree_record_locator* const record = locator->btree_locator;
    visited.emplace_back(Bytes(record->key, record->key + record->key_length),
                         Bytes(record->data, record->data + record->data_size));
    kvfs_catalog_record_locator* next = nullptr;
    EXPECT_EQ(kvfs_catalog_get_next_record(catalog.get(), locator, &next), kvfs_ok);
    kvfs_catalog_record_locator_close(&locator);
    locator = next;
  }
  EXPECT_EQ(visited, dump_records(volume, Tree::kCatalog));
  EXPECT_THAT(catalog.open_locators(), IsEmpty());
  EXPECT_LOG(log);
}

TEST(CatalogGetNextRecord, GivenLocator_StaysOpenAndTheNextHasNoParent) {
  const OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* one = catalog.open(2, u"one");
  kvfs_catalog_record_locator* next = nullptr;
  ASSERT_EQ(kvfs_catalog_get_next_record(catalog.get(), one, &next), kvfs_ok);
  EXPECT_EQ(describe(one), "file 19 in 2/one");
  EXPECT_EQ(describe(next), "file 21 in 2/three");
  EXPECT_EQ(*next->parent, nullptr);
  EXPECT_THAT(catalog.open_locators(), ElementsAre(next, one));
  kvfs_catalog_record_locator_close(&next);
  kvfs_catalog_record_locator_close(&one);
}

TEST(CatalogGetNextRecord, BehindTheLast_GivesNullAndSucceeds) {
  const OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* last = catalog.open(21, u"");
  kvfs_catalog_record_locator* next = last;
  EXPECT_EQ(kvfs_catalog_get_next_record(catalog.get(), last, &next), kvfs_ok);
  EXPECT_EQ(next, nullptr);
  kvfs_catalog_record_locator_close(&last);
}

TEST(CatalogGetNextRecord, DamagedNextLeaf_PassesTheFailureOn) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 100);
  Volume volume = build_volume(description);
  const std::vector<std::uint32_t> leaves = volume.leaf_nodes(Tree::kCatalog);
  volume.set_field("catalog.node[" + std::to_string(leaves.at(1)) + "].offset[0]", 3);
  const OpenCatalog catalog(volume);
  kvfs_catalog_record_locator* locator = catalog.open(1, u"Untitled");
  kvfs_catalog_record_locator* next = nullptr;
  kvfs_result result = kvfs_ok;
  LogCapture log;
  while (result == kvfs_ok) {
    result = kvfs_catalog_get_next_record(catalog.get(), locator, &next);
    if (result == kvfs_ok) {
      kvfs_catalog_record_locator_close(&locator);
      locator = next;
      next = nullptr;
    }
  }
  EXPECT_EQ(result, kvfs_inconsistent);
  EXPECT_EQ(next, nullptr);
  kvfs_catalog_record_locator_close(&locator);
  EXPECT_LOG(log,
             "ERROR kvfs_btree_get_next_record_internal Invalid node data: Offset for record 0 is out of range (3).\n",
             "ERROR kvfs_catalog_get_next_record Error in kvfs_btree_get_next_record.\n");
}

// ---- Through threads -----------------------------------------------------------------------------------------------

std::string follow(const OpenCatalog& catalog, std::uint32_t cnid) {
  kvfs_catalog_record_locator* thread = catalog.open(cnid, u"");
  Searched found;
  EXPECT_EQ(kvfs_catalog_follow_thread(catalog.get(), thread, found.out()), kvfs_ok);
  std::string text = found.text();
  found.release();
  EXPECT_THAT(catalog.open_locators(), ElementsAre(thread)) << "the thread's locator stays open";
  kvfs_catalog_record_locator_close(&thread);
  return text;
}

TEST(CatalogFollowThread, ThreadsOfFoldersAndFiles_LeadToThem) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(follow(catalog, 2), "found: folder 2 in 1/Untitled");
  EXPECT_EQ(follow(catalog, 18), "found: folder 18 in 17/gamma");
  EXPECT_EQ(follow(catalog, 20), "found: file 20 in 2/two");
  EXPECT_LOG(log);
}

TEST(CatalogFollowThread, NameOf255Units_IsFollowed) {
  VolumeDescription description;
  const Name name(255, u'n');
  const std::uint32_t file = description.add_file(kRootFolderId, name);
  EXPECT_EQ(follow(OpenCatalog(build_volume(description)), file), "found: file 16 in 2/" + to_utf8(name));
}

TEST(CatalogFollowThread, MissingTarget_IsASuccessThatFoundNothing) {
  LogCapture log;
  EXPECT_EQ(follow(OpenCatalog(volume_with(thread_key(50), thread_data(false, 2, u"nowhere"))), 50),
            "at: file 19 in 2/one");
  EXPECT_LOG(log);
}

// A thread record whose data are cut or whose name is longer than they are.
void expect_thread_refused(const Bytes& data, const std::string& message) {
  const OpenCatalog catalog(volume_with(thread_key(50), data));
  kvfs_catalog_record_locator* thread = catalog.open(50, u"");
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_follow_thread(catalog.get(), thread, found.out()), kvfs_inconsistent);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_LOG(log, "ERROR kvfs_catalog_follow_thread " + message);
  kvfs_catalog_record_locator_close(&thread);
}

// X-catalog-2
TEST(CatalogFollowThread, DataTooShortForTheFixedPart_AreRefused) {
  Bytes data = thread_data(true, 2, u"alpha");
  data.resize(8);
  expect_thread_refused(data, "Thread record of 8 bytes cannot hold its name.\n");
}

// X-catalog-2
TEST(CatalogFollowThread, DataTooShortForTheName_AreRefused) {
  Bytes data = thread_data(true, 2, u"alpha");
  data.resize(18);
  expect_thread_refused(data, "Thread record of 18 bytes cannot hold its name.\n");
}

// X-catalog-2
TEST(CatalogFollowThread, NameOfMoreThan255Units_IsRefused) {
  expect_thread_refused(thread_data(true, 2, Name(256, u'n')), "Thread record of 522 bytes cannot hold its name.\n");
}

TEST(CatalogFollowThread, FailingSearch_IsReported) {
  Volume volume = small_volume();
  const OpenCatalog catalog(volume);
  kvfs_catalog_record_locator* thread = catalog.open(2, u"");
  Searched found;
  LogCapture log;
  {
    FaultInjector faults;
    faults.fail(Call::kRwlockWrlock, 1);
    EXPECT_EQ(kvfs_catalog_follow_thread(catalog.get(), thread, found.out()), kvfs_failed);
  }
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_LOG(log, "ERROR kvfs_rwlock_lock_write Unable to acquire write lock!\n",
             "ERROR kvfs_btree_search_node Error while acquiring open locators list lock in write mode.\n",
             "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n",
             "ERROR kvfs_catalog_follow_thread Error while searching for target of thread.\n");
  kvfs_catalog_record_locator_close(&thread);
}

// ---- By ID ---------------------------------------------------------------------------------------------------------

std::string search_cnid(const OpenCatalog& catalog, std::uint32_t cnid, bool follow_thread) {
  Searched found;
  EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog.get(), cnid, follow_thread, found.out()), kvfs_ok);
  EXPECT_EQ(catalog.open_locators().size(), 1u) << "only the result stays open";
  return found.text();
}

TEST(CatalogSearchByCnid, ThreadWithoutData_IsInconsistentOnceItsTypeIsNeeded) {
  const OpenCatalog catalog(volume_with(thread_key(50), {}));
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog.get(), 50, true, found.out()), kvfs_inconsistent);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_THAT(catalog.open_locators(), IsEmpty());
  EXPECT_LOG(log, "ERROR kvfs_catalog_search_by_cnid Record of 0 bytes is too short for a record type.\n");
  EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog.get(), 50, false, found.out()), kvfs_ok);
}

TEST(CatalogSearchByCnid, RootFolder_IsFoundThroughItsThread) {
  LogCapture log;
  EXPECT_EQ(search_cnid(OpenCatalog(small_volume()), 2, true), "found: folder 2 in 1/Untitled");
  EXPECT_LOG(log);
}

TEST(CatalogSearchByCnid, WithoutFollow_GivesTheThreadRecord) {
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(search_cnid(catalog, 2, false), "found: folder thread of 2 to 1/Untitled");
  EXPECT_EQ(search_cnid(catalog, kOne, false), "found: file thread of 19 to 2/one");
}

TEST(CatalogSearchByCnid, File_IsFoundThroughItsThread) {
  EXPECT_EQ(search_cnid(OpenCatalog(small_volume()), kOne, true), "found: file 19 in 2/one");
}

// Q-catalog-6
TEST(CatalogSearchByCnid, NoThreadRecord_IsASuccessWithALocator) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(search_cnid(catalog, 5, true), "at: folder thread of 16 to 2/alpha");
  EXPECT_EQ(search_cnid(catalog, 0xFFFFFFFF, false), "after: file thread of 21 to 2/three");
  EXPECT_LOG(log);
}

// Q-catalog-6
TEST(CatalogSearchByCnid, RecordThatIsNoThread_IsReturnedAsItIs) {
  EXPECT_EQ(search_cnid(OpenCatalog(volume_with(thread_key(50), folder_record(50))), 50, true),
            "found: folder 50 in 50/");
  EXPECT_EQ(search_cnid(OpenCatalog(volume_with(thread_key(50), record_of_type(7, 8))), 50, true),
            "found: type 7 in 50/");
}

TEST(CatalogSearchByCnid, ThreadThatLeadsNowhere_GivesThePlaceOfItsTarget) {
  LogCapture log;
  EXPECT_EQ(search_cnid(OpenCatalog(volume_with(thread_key(50), thread_data(true, 2, u"beta"))), 50, true),
            "at: file 19 in 2/one");
  EXPECT_LOG(log);
}

TEST(CatalogSearchByCnid, MalformedThread_ReleasesItAndPassesTheFailureOn) {
  Bytes data = thread_data(true, 2, u"alpha");
  data.resize(12);
  const OpenCatalog catalog(volume_with(thread_key(50), data));
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog.get(), 50, true, found.out()), kvfs_inconsistent);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_THAT(catalog.open_locators(), IsEmpty());
  EXPECT_LOG(log, "ERROR kvfs_catalog_follow_thread Thread record of 12 bytes cannot hold its name.\n",
             "ERROR kvfs_catalog_search_by_cnid Error while following thread when searching for node by CNID.\n");
}

// ---- By path -------------------------------------------------------------------------------------------------------

// A component source over a list.
struct Path {
  std::vector<Name> components;
  std::size_t next = 0;
  kvfs_result end = kvfs_ok;       // what is returned behind the last component
  std::size_t claimed_length = 0;  // a length that is returned behind the last component
  std::vector<std::size_t> capacities = {};
};

kvfs_result next_component(void* context, kvfs_be16* buffer, std::size_t capacity, std::size_t* out_length) {
  Path* const path = static_cast<Path*>(context);
  path->capacities.push_back(capacity);
  if (path->next == path->components.size()) {
    *out_length = path->claimed_length;
    return path->end;
  }
  const Name& name = path->components[path->next++];
  for (std::size_t i = 0; i < name.size(); ++i) {
    buffer[i].set(name[i]);
  }
  *out_length = name.size();
  return kvfs_ok;
}

kvfs_result search_path(const OpenCatalog& catalog, Path path, kvfs_catalog_record_locator* start, Searched* found) {
  return kvfs_catalog_search_by_path(catalog.get(), next_component, &path, start, found->out());
}

// What a path leads to, its record type and the folder that is linked as its parent.
std::string path_text(const OpenCatalog& catalog, const std::vector<Name>& components,
                      kvfs_catalog_record_locator* start = nullptr) {
  Searched found;
  EXPECT_EQ(search_path(catalog, {components}, start, &found), kvfs_ok);
  if (found.locator() == nullptr) {
    return "nothing";
  }
  const kvfs_catalog_record_locator* const parent = *found.locator()->parent;
  return found.text() + ", type " + std::to_string(found.locator()->record_type) + ", " +
         (parent == nullptr ? "no parent" : "parent " + describe(parent));
}

TEST(CatalogSearchByPath, NoComponents_GivesTheRootFolderThroughItsThread) {
  LogCapture log;
  EXPECT_EQ(path_text(OpenCatalog(small_volume()), {}), "found: folder 2 in 1/Untitled, type 1, no parent");
  EXPECT_LOG(log);
}

TEST(CatalogSearchByPath, SeveralComponents_GiveTheLastWithItsFolderAsParent) {
  LogCapture log;
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(path_text(catalog, {u"alpha"}), "found: folder 16 in 2/alpha, type 1, parent folder 2 in 1/Untitled");
  EXPECT_EQ(path_text(catalog, {u"alpha", u"beta", u"gamma"}),
            "found: folder 18 in 17/gamma, type 1, parent folder 17 in 16/beta");
  EXPECT_EQ(path_text(catalog, {u"two"}), "found: file 20 in 2/two, type 2, parent folder 2 in 1/Untitled");
  EXPECT_THAT(catalog.open_locators(), IsEmpty()) << "closing the result closes its parent";
  EXPECT_LOG(log);
}

TEST(CatalogSearchByPath, Result_HoldsTheOnlyReferenceOnItsParent) {
  const OpenCatalog catalog(small_volume());
  Searched found;
  ASSERT_EQ(search_path(catalog, {{u"alpha", u"beta"}}, nullptr, &found), kvfs_ok);
  EXPECT_EQ((*found.locator()->parent)->priv->reference_count, 1u);
  EXPECT_EQ(catalog.open_locators().size(), 2u);
}

TEST(CatalogSearchByPath, MissingLastComponent_GivesItsPlaceInTheFolder) {
  LogCapture log;
  EXPECT_EQ(path_text(OpenCatalog(small_volume()), {u"alpha", u"zeta"}),
            "at: folder thread of 17 to 16/beta, type 3, parent folder 16 in 2/alpha");
  EXPECT_LOG(log);
}

// Q-catalog-7
TEST(CatalogSearchByPath, MissingIntermediateComponent_LooksLikeAMissingLastOne) {
  const OpenCatalog catalog(small_volume());
  EXPECT_EQ(path_text(catalog, {u"alpha", u"zeta", u"x", u"y"}), path_text(catalog, {u"alpha", u"zeta"}));
}

TEST(CatalogSearchByPath, MissingStartThread_GivesItsPlaceWithoutParent) {
  Volume volume = small_volume();
  volume.set_field(volume.find_thread(kRootFolderId)->path() + ".key.nodeName.length", 0);
  volume.set_field(volume.find_thread(kRootFolderId)->path() + ".key.parentID", 1);
  EXPECT_EQ(path_text(OpenCatalog(volume), {u"alpha"}), "at: folder 16 in 2/alpha, type 1, no parent");
}

TEST(CatalogSearchByPath, Source_IsAskedForAtMost255Units) {
  VolumeDescription description;
  const Name name(255, u'n');
  (void)description.add_file(kRootFolderId, name);
  const OpenCatalog catalog(build_volume(description));
  Path path = {{name}};
  Searched found;
  EXPECT_EQ(kvfs_catalog_search_by_path(catalog.get(), next_component, &path, nullptr, found.out()), kvfs_ok);
  EXPECT_EQ(found.text(), "found: file 16 in 2/" + to_utf8(name));
  EXPECT_THAT(path.capacities, ElementsAre(255u, 255u));
}

TEST(CatalogSearchByPath, StartFolder_IsWhereTheSearchBegins) {
  const OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* start = catalog.open(2, u"alpha");
  EXPECT_EQ(path_text(catalog, {u"beta"}, start), "found: folder 17 in 16/beta, type 1, parent folder 16 in 2/alpha");
  EXPECT_EQ(path_text(catalog, {u"one"}, start),
            "at: folder thread of 17 to 16/beta, type 3, parent folder 16 in 2/alpha");
  EXPECT_THAT(catalog.open_locators(), ElementsAre(start));
  EXPECT_EQ(start->priv->reference_count, 1u);
  kvfs_catalog_record_locator_close(&start);
}

TEST(CatalogSearchByPath, NoComponentsFromAFolder_GivesThatFolderWithTheStartAsParent) {
  const OpenCatalog catalog(small_volume());
  kvfs_catalog_record_locator* start = catalog.open(16, u"beta");
  Searched found;
  ASSERT_EQ(search_path(catalog, {}, start, &found), kvfs_ok);
  EXPECT_EQ(found.text(), "found: folder 17 in 16/beta");
  EXPECT_EQ(*found.locator()->parent, start);
  EXPECT_EQ(start->priv->reference_count, 2u);
  found.release();
  EXPECT_EQ(start->priv->reference_count, 1u);
  kvfs_catalog_record_locator_close(&start);
}

// Q-catalog-8
TEST(CatalogSearchByPath, StartFolderWithTheIdOfTheRootsParent_MeansTheRootFolder) {
  const OpenCatalog catalog(volume_with(catalog_key(2, u"odd"), folder_record(kRootParentId)));
  kvfs_catalog_record_locator* start = catalog.open(2, u"odd");
  EXPECT_EQ(path_text(catalog, {}, start), "found: folder 2 in 1/Untitled, type 1, no parent");
  kvfs_catalog_record_locator_close(&start);
}

// Expects a search from `name` in the root folder to be refused before anything is searched.
void expect_start_refused(const Volume& volume, const Name& name, kvfs_result result, const std::string& message) {
  const OpenCatalog catalog(volume);
  kvfs_catalog_record_locator* start = catalog.open(kRootFolderId, name);
  Path path;
  Searched found;
  LogCapture log;
  EXPECT_EQ(kvfs_catalog_search_by_path(catalog.get(), next_component, &path, start, found.out()), result);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_TRUE(path.capacities.empty());
  EXPECT_LOG(log, "ERROR kvfs_catalog_search_by_path " + message);
  EXPECT_EQ(start->priv->reference_count, 1u);
  kvfs_catalog_record_locator_close(&start);
}

TEST(CatalogSearchByPath, StartThatIsNoFolder_IsAnInvalidArgument) {
  expect_start_refused(small_volume(), u"one", kvfs_invalid,
                       "Invalid argument: 'CatalogRecord' has non-folder type 2.\n");
  expect_start_refused(small_volume(), u"", kvfs_invalid, "Invalid argument: 'CatalogRecord' has non-folder type 3.\n");
  expect_start_refused(volume_with(catalog_key(2, u"odd"), record_of_type(0xFFFF, 88)), u"odd", kvfs_invalid,
                       "Invalid argument: 'CatalogRecord' has non-folder type -1.\n");
}

TEST(CatalogSearchByPath, StartFolderWithAShortRecord_IsInconsistent) {
  expect_start_refused(volume_with(catalog_key(2, u"odd"), folder_record(60, 86)), u"odd", kvfs_inconsistent,
                       "Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 Actual: 86\n");
}

TEST(CatalogSearchByPath, StartWithoutData_IsInconsistent) {
  expect_start_refused(volume_with(catalog_key(2, u"odd"), {}), u"odd", kvfs_inconsistent,
                       "Record of 0 bytes is too short for a record type.\n");
}

// Expects a walk to fail with these messages and to leave nothing open.
void expect_path_fails(const Volume& volume, const Path& path, kvfs_result result, const Lines& messages) {
  const OpenCatalog catalog(volume);
  Searched found;
  LogCapture log;
  EXPECT_EQ(search_path(catalog, path, nullptr, &found), result);
  EXPECT_EQ(found.text(), "nothing");
  EXPECT_THAT(catalog.open_locators(), IsEmpty());
  EXPECT_TRUE(log.matches(messages));
}

// Q-catalog-7
TEST(CatalogSearchByPath, ComponentBehindAFile_IsAnInternalError) {
  expect_path_fails(small_volume(), {{u"one", u"x"}}, kvfs_internal,
                    {"ERROR kvfs_catalog_search_by_path Unexpected record type for parent directory in lookup: 2.\n"});
}

TEST(CatalogSearchByPath, UnknownRecordType_IsInconsistent) {
  expect_path_fails(volume_with(catalog_key(2, u"odd"), record_of_type(5, 88)), {{u"odd"}}, kvfs_inconsistent,
                    {"ERROR kvfs_catalog_search_by_path Unexpected record type 5 for looked up record data.\n"});
  expect_path_fails(volume_with(catalog_key(2, u"odd"), record_of_type(0, 88)), {{u"odd"}}, kvfs_inconsistent,
                    {"ERROR kvfs_catalog_search_by_path Unexpected record type 0 for looked up record data.\n"});
  expect_path_fails(volume_with(catalog_key(2, u"odd"), record_of_type(0x8001, 88)), {{u"odd"}}, kvfs_inconsistent,
                    {"ERROR kvfs_catalog_search_by_path Unexpected record type -32767 for looked up record data.\n"});
}

TEST(CatalogSearchByPath, RecordWithoutData_IsTooShortForAType) {
  const Lines too_short = {"ERROR kvfs_catalog_search_by_path Record of 0 bytes is too short for a record type.\n"};
  const Volume volume = volume_with(catalog_key(2, u"odd"), {});
  expect_path_fails(volume, {{u"odd"}}, kvfs_inconsistent, too_short);
  expect_path_fails(volume, {{u"oda"}}, kvfs_inconsistent, too_short);  // "odd" is in its place
}

TEST(CatalogSearchByPath, ShortRecord_IsInconsistent) {
  expect_path_fails(
      volume_with(catalog_key(2, u"odd"), folder_record(60, 40)), {{u"odd"}}, kvfs_inconsistent,
      {"ERROR kvfs_catalog_search_by_path Unexpected data size for HFSPlusCatalogFolder. Expected minimum: 88 Actual: 40\n"});
}

TEST(CatalogSearchByPath, ThreadRecordUnderAName_IsFollowed) {
  const OpenCatalog catalog(volume_with(catalog_key(2, u"odd"), thread_data(true, kAlpha, u"beta")));
  EXPECT_EQ(path_text(catalog, {u"odd"}), "found: folder 17 in 16/beta, type 1, parent folder 2 in 1/Untitled");
  EXPECT_EQ(path_text(catalog, {u"odd", u"gamma"}),
            "found: folder 18 in 17/gamma, type 1, parent folder 17 in 16/beta");
}

TEST(CatalogSearchByPath, ThreadThatLeadsNowhere_IsInconsistent) {
  expect_path_fails(volume_with(catalog_key(2, u"odd"), thread_data(true, kAlpha, u"missing")), {{u"odd"}},
                    kvfs_inconsistent,
                    {"ERROR kvfs_catalog_search_by_path kvfs_catalog_search_by_path: Thread target not found.\n"});
}

TEST(CatalogSearchByPath, MalformedThread_PassesTheFailureOn) {
  expect_path_fails(volume_with(catalog_key(2, u"odd"), thread_data(true, kAlpha, Name(256, u'n'))), {{u"odd"}},
                    kvfs_inconsistent,
                    {"ERROR kvfs_catalog_follow_thread Thread record of 522 bytes cannot hold its name.\n",
                     "ERROR kvfs_catalog_search_by_path Error while following thread.\n"});
}

TEST(CatalogSearchByPath, FailingSource_EndsTheWalkWithItsValue) {
  Path path = {{u"alpha"}};
  path.end = kvfs_exists;
  expect_path_fails(
      small_volume(), path, kvfs_exists,
      {"ERROR kvfs_catalog_search_by_path Error while converting native path component to HFS+ string.\n"});
}

// X-catalog-4
TEST(CatalogSearchByPath, SourceThatClaimsMoreThanTheCapacity_IsRefused) {
  Path path = {{u"alpha"}};
  path.claimed_length = 256;
  expect_path_fails(
      small_volume(), path, kvfs_invalid,
      {"ERROR kvfs_catalog_search_by_path Error while converting native path component to HFS+ string.\n"});
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

constexpr char kNoBtreeLocator[] =
    "ERROR kvfs_btree_record_locator_open Error while allocating {*} bytes for kvfs_btree_record_locator allocation.\n";

// Opens the catalog, does some work on it and closes it.
class CatalogFaults : public ::testing::Test {
 protected:
  using Work = kvfs_result (*)(kvfs_catalog* catalog);

  kvfs_result run(Work work) {
    kvfs_catalog* catalog = nullptr;
    kvfs_result result = kvfs_catalog_create(ground_.get(), ground_.extents(), ground_.header(), &catalog);
    if (result == kvfs_ok) {
      result = work(catalog);
      kvfs_catalog_destroy(&catalog);
    }
    return result;
  }

  std::vector<FailedRun> fail(const FailingCalls& failing, Work work) {
    return fail_each(failing, [&] { return run(work); });
  }

  // Lets each call of every kind fail in turn, and expects its value and a message.
  std::vector<Lines> fail_all(Work work) {
    std::vector<Lines> logs;
    const auto add = [&](const std::vector<FailedRun>& runs) {
      EXPECT_FALSE(runs.empty());
      for (const FailedRun& run : runs) {
        EXPECT_THAT(run.log, Not(IsEmpty())) << "call " << run.n;
        logs.push_back(run.log);
      }
    };
    const std::vector<FailedRun> allocations = fail(each_allocation(), work);
    for (const FailedRun& run : allocations) {
      EXPECT_EQ(run.result, kvfs_no_memory) << "allocation " << run.n;
    }
    add(allocations);
    for (const Fault& fault : transfer_faults()) {
      const std::vector<FailedRun> reads = fail(each(Call::kPread64, fault), work);
      for (const FailedRun& run : reads) {
        EXPECT_EQ(run.result, kvfs_io_error) << "read " << run.n;
      }
      add(reads);
    }
    for (const Call call : {Call::kRwlockWrlock, Call::kRwlockRdlock, Call::kRwlockUnlock}) {
      const std::vector<FailedRun> locks = fail(each(call), work);
      for (const FailedRun& run : locks) {
        // Giving something back goes on after a failure, so that some of them are only reported.
        EXPECT_THAT(run.result, ::testing::AnyOf(kvfs_failed, kvfs_ok)) << call_name(call) << " " << run.n;
      }
      add(locks);
    }
    return logs;
  }

  CatalogGround ground_{small_volume()};
};

// Whether one of the logs ends with these lines.
bool some_log_ends_with(const std::vector<Lines>& logs, const Lines& expected) {
  for (const Lines& log : logs) {
    const std::size_t skipped = log.size() - std::min(log.size(), expected.size());
    bool same = log.size() >= expected.size();
    for (std::size_t i = 0; same && i < expected.size(); ++i) {
      const std::size_t mark = expected[i].find("{*}");
      const std::string& line = log[skipped + i];
      same = mark == std::string::npos
                 ? line == expected[i]
                 : line.starts_with(expected[i].substr(0, mark)) && line.ends_with(expected[i].substr(mark + 3));
    }
    if (same) {
      return true;
    }
  }
  return false;
}

kvfs_result find_root(kvfs_catalog* catalog) {
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  const kvfs_result result = kvfs_catalog_search_by_cnid(catalog, kRootFolderId, true, &found);
  if (result != kvfs_ok) {
    EXPECT_EQ(found.locator, nullptr);
  }
  kvfs_catalog_search_result_release(&found);
  return result;
}

TEST_F(CatalogFaults, SearchByCnid_ReportsEachFailureAndLeavesNothingBehind) {
  const std::vector<Lines> logs = fail_all(find_root);
  const std::string no_locator =
      "ERROR kvfs_catalog_record_locator_open Error while allocating {*} bytes for kvfs_catalog_record_locator allocation.\n";
  const std::string not_enough =
      "ERROR kvfs_btree_search_node_internal HFSPlus:kvfs_btree_search_node_internal: Not enough memory\n";
  const std::string in_btree = "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n";
  const std::string creating = "ERROR kvfs_catalog_search_node Error while creating kvfs_catalog_record_locator\n";
  const std::string searching =
      "ERROR kvfs_catalog_search_by_cnid Error while searching thread record when searching by CNID.\n";
  const std::string target = "ERROR kvfs_catalog_follow_thread Error while searching for target of thread.\n";
  const std::string following =
      "ERROR kvfs_catalog_search_by_cnid Error while following thread when searching for node by CNID.\n";
  EXPECT_TRUE(some_log_ends_with(logs, {kNoBtreeLocator, not_enough, in_btree, searching}));
  EXPECT_TRUE(some_log_ends_with(logs, {no_locator, creating, searching}));
  EXPECT_TRUE(some_log_ends_with(logs, {kNoBtreeLocator, not_enough, in_btree, target, following}));
  EXPECT_TRUE(some_log_ends_with(logs, {no_locator, creating, target, following}));
}

kvfs_result step_twice(kvfs_catalog* catalog) {
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  kvfs_result result = kvfs_catalog_search_by_cnid(catalog, kRootFolderId, false, &found);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_catalog_record_locator* next = nullptr;
  result = kvfs_catalog_get_next_record(catalog, found.locator, &next);
  EXPECT_EQ(next == nullptr, result != kvfs_ok);
  if (next != nullptr) {
    kvfs_catalog_record_locator_close(&next);
  }
  kvfs_catalog_search_result_release(&found);
  return result;
}

TEST_F(CatalogFaults, GetNextRecord_ReportsEachFailureAndLeavesNothingBehind) {
  const std::vector<Lines> logs = fail_all(step_twice);
  EXPECT_TRUE(some_log_ends_with(
      logs, {kNoBtreeLocator, "ERROR kvfs_btree_get_next_record_internal Error while creating target record locator.\n",
             "ERROR kvfs_catalog_get_next_record Error in kvfs_btree_get_next_record.\n"}));
  EXPECT_TRUE(some_log_ends_with(
      logs,
      {"ERROR kvfs_catalog_record_locator_open Error while allocating {*} bytes for kvfs_catalog_record_locator allocation.\n",
       "ERROR kvfs_catalog_get_next_record Error while creating kvfs_catalog_record_locator.\n"}));
}

// Looks up /alpha/beta, and /alpha/missing.
kvfs_result walk_paths(kvfs_catalog* catalog) {
  for (const char16_t* const last : {u"beta", u"missing"}) {
    Path path = {{u"alpha", last}};
    kvfs_catalog_search_result found;
    kvfs_catalog_search_result_init(&found);
    const kvfs_result result = kvfs_catalog_search_by_path(catalog, next_component, &path, nullptr, &found);
    if (result != kvfs_ok) {
      EXPECT_EQ(found.locator, nullptr);
      return result;
    }
    kvfs_catalog_search_result_release(&found);
  }
  return kvfs_ok;
}

TEST_F(CatalogFaults, SearchByPath_ReportsEachFailureAndLeavesNothingBehind) {
  const std::vector<Lines> logs = fail_all(walk_paths);
  const std::string in_btree = "ERROR kvfs_catalog_search_node Error in kvfs_btree_search_node.\n";
  const std::string lock =
      "ERROR kvfs_catalog_record_locator_set_parent_locator Error while acquiring write lock for catalog open locators list.\n";
  const std::string unlock =
      "ERROR kvfs_catalog_record_locator_set_parent_locator Error while releasing lock for open locators list.\n";
  const std::string match =
      "ERROR kvfs_catalog_search_by_path Error while setting parent locator (search found a match).\n";
  const std::string no_match =
      "ERROR kvfs_catalog_search_by_path Error while setting parent locator (search did not find a match).\n";
  EXPECT_TRUE(some_log_ends_with(
      logs, {in_btree, "ERROR kvfs_catalog_search_by_path Error while searching for intermediate path component.\n"}));
  EXPECT_TRUE(some_log_ends_with(
      logs, {in_btree, "ERROR kvfs_catalog_follow_thread Error while searching for target of thread.\n",
             "ERROR kvfs_catalog_search_by_path Error while following thread.\n"}));
  EXPECT_TRUE(some_log_ends_with(logs, {lock, match}));
  EXPECT_TRUE(some_log_ends_with(logs, {unlock, match}));
  EXPECT_TRUE(some_log_ends_with(logs, {lock, no_match}));
  EXPECT_TRUE(some_log_ends_with(logs, {unlock, no_match}));
}

}  // namespace
}  // namespace kvfs_test
