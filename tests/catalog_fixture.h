// Catalogs over images that the volume builder makes, and a loop that lets each call of an operation fail.
//
//   OpenCatalog catalog(build_volume(description));
//   Searched found;
//   EXPECT_EQ(kvfs_catalog_search_by_cnid(catalog.get(), 2, true, found.out()), kvfs_ok);
//   EXPECT_EQ(found.text(), "found: folder 2 in 1/Untitled");

#ifndef KVFS_CATALOG_FIXTURE_H
#define KVFS_CATALOG_FIXTURE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "catalog.h"
#include "catalog/private.h"
#include "extents.h"
#include "fault_injection.h"
#include "format.h"
#include "open_volume.h"
#include "stored_names.h"
#include "volume_builder.h"
#include "volume_image.h"

namespace kvfs_test {

using Lines = std::vector<std::string>;

// Folders 16 "alpha", 17 "beta" in it and 18 "gamma" in that one; files 19 "one", 20 "two" and 21 "three" in the root
// folder.
VolumeDescription small_description();
Volume small_volume();
inline constexpr std::uint32_t kAlpha = 16;
inline constexpr std::uint32_t kBeta = 17;
inline constexpr std::uint32_t kOne = 19;

// All that a catalog is opened with: a device, the volume header and the extents overflow file.
class CatalogGround : public TestDevice {
 public:
  explicit CatalogGround(const Volume& volume, std::uint32_t sector_size = 512);
  ~CatalogGround();

  [[nodiscard]] kvfs_extents* extents() const { return extents_; }
  [[nodiscard]] HFSPlusVolumeHeader* header() { return &header_; }

 private:
  HFSPlusVolumeHeader header_ = {};
  kvfs_extents* extents_ = nullptr;
};

// An open catalog.
class OpenCatalog : public CatalogGround {
 public:
  explicit OpenCatalog(const Volume& volume, std::uint32_t sector_size = 512);
  ~OpenCatalog();

  [[nodiscard]] kvfs_catalog* get() const { return catalog_; }
  [[nodiscard]] kvfs_catalog_private* priv() const { return catalog_->priv; }
  void close() { kvfs_catalog_destroy(&catalog_); }
  [[nodiscard]] bool is_closed() const { return catalog_ == nullptr; }

  // A B-tree locator on the record with this key, owned by the caller.
  [[nodiscard]] kvfs_btree_record_locator* find(std::uint32_t parent, const Name& name) const;
  // A catalog locator on it with one reference.
  [[nodiscard]] kvfs_catalog_record_locator* open(std::uint32_t parent, const Name& name,
                                                  kvfs_catalog_record_locator* folder = nullptr) const;

  // The open locators from the newest to the oldest. Checks the links on the way.
  [[nodiscard]] std::vector<kvfs_catalog_record_locator*> open_locators() const;

 private:
  kvfs_catalog* catalog_ = nullptr;
};

// A search result that is released when the scope ends.
class Searched {
 public:
  Searched() { kvfs_catalog_search_result_init(&result_); }
  ~Searched() { release(); }
  Searched(const Searched&) = delete;
  Searched& operator=(const Searched&) = delete;

  [[nodiscard]] kvfs_catalog_search_result* out() { return &result_; }
  [[nodiscard]] kvfs_catalog_record_locator* locator() const { return result_.locator; }
  // "nothing", or "found: ", "at: " or "after: " and the record of the locator as describe() has it.
  [[nodiscard]] std::string text() const;
  void release() { kvfs_catalog_search_result_release(&result_); }

 private:
  kvfs_catalog_search_result result_;
};

// "folder 18 in 2/name", "file 20 in 18/name", "folder thread of 18 to 2/name", "file thread of 20 to 18/name".
std::string describe(const kvfs_catalog_record_locator* locator);

// What an operation gave in a run of fail_each.
struct FailedRun {
  unsigned long n;  // the call that failed
  kvfs_result result;
  Lines log;  // "LEVEL function text"
};

// Which calls fail_each lets fail.
struct FailingCall {
  enum class Kind { kAllocation, kCall };
  Kind kind;
  Call call;
  Fault fault;

  static FailingCall allocation() { return {Kind::kAllocation, Call::kMalloc, {}}; }
  static FailingCall of(Call call) { return {Kind::kCall, call, Fault::usual(call)}; }
  static FailingCall of(Call call, const Fault& fault) { return {Kind::kCall, call, fault}; }
};

// Runs an operation with its first call failing, with its second one, and so on until none is left to fail. The
// operation gives back all that it got when it succeeds. Each run must leave no memory, no lock and no held lock
// behind, apart from locks that could not be destroyed.
std::vector<FailedRun> fail_each(const FailingCall& failing, const std::function<kvfs_result()>& operation);

// The log of each run, once.
std::vector<Lines> logs_of(const std::vector<FailedRun>& runs);

}  // namespace kvfs_test

#endif  // KVFS_CATALOG_FIXTURE_H
