#include "catalog_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "big_endian.h"
#include "failing_runs.h"
#include "log_capture.h"
#include "support.h"
#include "unicode_fixture.h"

namespace kvfs_test {

VolumeDescription small_description() {
  VolumeDescription description;
  const std::uint32_t alpha = description.add_folder(kRootFolderId, u"alpha");
  const std::uint32_t beta = description.add_folder(alpha, u"beta");
  (void)description.add_folder(beta, u"gamma");
  (void)description.add_file(kRootFolderId, u"one");
  (void)description.add_file(kRootFolderId, u"two");
  (void)description.add_file(kRootFolderId, u"three");
  return description;
}

Volume small_volume() {
  return build_volume(small_description());
}

// ---- Catalogs ------------------------------------------------------------------------------------------------------

CatalogGround::CatalogGround(const Volume& volume, std::uint32_t sector_size) : TestDevice(volume, sector_size) {
  volume.SparseImage::read(kHeaderOffset, &header_, sizeof(header_));
  EXPECT_EQ(kvfs_extents_create(get(), &header_, &extents_), kvfs_ok);
}

CatalogGround::~CatalogGround() {
  EXPECT_EQ(kvfs_extents_destroy(&extents_), kvfs_ok);
}

OpenCatalog::OpenCatalog(const Volume& volume, std::uint32_t sector_size) : CatalogGround(volume, sector_size) {
  EXPECT_EQ(kvfs_catalog_create(CatalogGround::get(), extents(), header(), &catalog_), kvfs_ok);
}

OpenCatalog::~OpenCatalog() {
  if (catalog_ != nullptr) {
    close();
  }
}

kvfs_btree_record_locator* OpenCatalog::find(std::uint32_t parent, const Name& name) const {
  const HFSPlusCatalogKey key = stored_key(parent, name);
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  EXPECT_EQ(kvfs_btree_search_node(catalog_->priv->btree, &key, &found), kvfs_ok);
  EXPECT_EQ(found.found, 1u);
  return found.locator;
}

kvfs_catalog_record_locator* OpenCatalog::open(std::uint32_t parent, const Name& name,
                                               kvfs_catalog_record_locator* folder) const {
  kvfs_catalog_record_locator* locator = nullptr;
  EXPECT_EQ(kvfs_catalog_record_locator_open(catalog_, find(parent, name), 0, folder, 0, &locator), kvfs_ok);
  return locator;
}

std::vector<kvfs_catalog_record_locator*> OpenCatalog::open_locators() const {
  std::vector<kvfs_catalog_record_locator*> found;
  kvfs_catalog_record_locator* previous = nullptr;
  for (kvfs_catalog_record_locator* locator = catalog_->priv->open_locators; locator != nullptr;
       locator = locator->priv->next) {
    EXPECT_EQ(locator->priv->previous, previous);
    EXPECT_EQ(locator->priv->catalog, catalog_);
    found.push_back(locator);
    previous = locator;
  }
  return found;
}

// ---- Records in words ----------------------------------------------------------------------------------------------

static Name name_at(const Bytes& bytes, std::size_t at) {
  Name name;
  for (std::size_t i = 0; i < get_be16(bytes, at); ++i) {
    name.push_back(static_cast<char16_t>(get_be16(bytes, at + 2 + 2 * i)));
  }
  return name;
}

std::string describe(const kvfs_catalog_record_locator* locator) {
  const kvfs_btree_record_locator* const record = locator->btree_locator;
  const Bytes key(record->key, record->key + record->key_length);
  const Bytes data(record->data, record->data + record->data_size);
  const std::string cnid = std::to_string(get_be32(key, 2));
  switch (get_be16(data, 0)) {
    case kHFSPlusFolderRecord:
      return "folder " + std::to_string(get_be32(data, 8)) + " in " + cnid + "/" + to_utf8(name_at(key, 6));
    case kHFSPlusFileRecord:
      return "file " + std::to_string(get_be32(data, 8)) + " in " + cnid + "/" + to_utf8(name_at(key, 6));
    case kHFSPlusFolderThreadRecord:
    case kHFSPlusFileThreadRecord:
      return (get_be16(data, 0) == kHFSPlusFolderThreadRecord ? "folder thread of " : "file thread of ") + cnid +
             " to " + std::to_string(get_be32(data, 4)) + "/" + to_utf8(name_at(data, 8));
    default:
      return "type " + std::to_string(get_be16(data, 0)) + " in " + cnid + "/" + to_utf8(name_at(key, 6));
  }
}

std::string Searched::text() const {
  if (result_.locator == nullptr) {
    return "nothing";
  }
  const char* const how = result_.found != 0 ? "found: " : (result_.after != 0 ? "after: " : "at: ");
  return how + describe(result_.locator);
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

// Destroys the locks that could not be destroyed at first.
static void destroy_surviving_locks(const FaultInjector& faults) {
  for (const LockCall& call : faults.lock_calls()) {
    if (call.call == Call::kRwlockDestroy && call.result != 0) {
      // A lock of the library begins with that of the thread library.
      kvfs_rwlock* lock = static_cast<kvfs_rwlock*>(const_cast<void*>(call.lock));
      EXPECT_EQ(kvfs_rwlock_destroy(&lock), kvfs_ok);
    }
  }
}

// One run with the n-th call failing; nothing when there was no n-th call.
static std::optional<FailedRun> run_failing(const FailingCall& failing, unsigned long n,
                                            const std::function<kvfs_result()>& operation) {
  LogCapture log;
  FailedRun run = {n, kvfs_ok, {}};
  unsigned long delivered = 0;
  {
    FaultInjector faults;
    if (failing.kind == FailingCall::Kind::kAllocation) {
      faults.fail_allocation(n);
    } else {
      faults.fail(failing.call, n, failing.fault);
    }
    run.result = operation();
    delivered = faults.delivered();
    const bool lock_survives = failing.kind == FailingCall::Kind::kCall && failing.call == Call::kRwlockDestroy;
    EXPECT_EQ(faults.outstanding_allocations(), lock_survives ? delivered : 0u) << "call " << n;
    EXPECT_EQ(faults.locks_alive(), lock_survives ? static_cast<long>(delivered) : 0) << "call " << n;
    EXPECT_EQ(faults.locks_held(), 0) << "call " << n;
    destroy_surviving_locks(faults);
  }
  if (delivered == 0) {
    return std::nullopt;
  }
  run.log = log.texts();
  return run;
}

std::vector<FailedRun> fail_each(const FailingCall& failing, const std::function<kvfs_result()>& operation) {
  return failing_runs<FailedRun>([&](unsigned long n) { return run_failing(failing, n, operation); });
}

std::vector<Lines> logs_of(const std::vector<FailedRun>& runs) {
  std::vector<Lines> logs;
  for (const FailedRun& run : runs) {
    if (std::find(logs.begin(), logs.end(), run.log) == logs.end()) {
      logs.push_back(run.log);
    }
  }
  return logs;
}

}  // namespace kvfs_test
