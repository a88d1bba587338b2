// Locators of files and folders, and loops that let each call of an operation on one fail.
//
//   OpenVolume volume(build_volume(description));
//   const ItemLocator item(volume, kRootFolderId, u"file");
//   EXPECT_EQ(kvfs_catalog_delete(volume.catalog(), volume.get(), item.get()), kvfs_ok);
//   EXPECT_EQ(joined(check_volume(volume.flushed())), "");

#ifndef KVFS_ITEM_FIXTURE_H
#define KVFS_ITEM_FIXTURE_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "catalog.h"
#include "catalog_fixture.h"
#include "fault_injection.h"
#include "open_volume.h"
#include "volume_builder.h"
#include "volume_image.h"

namespace kvfs_test {

// A catalog locator on the record with a key, by default with the locator of its folder as its parent (none where the
// folder has no record that its thread leads to).
class ItemLocator {
 public:
  enum class Parent { kFolder, kNone };

  ItemLocator(const OpenVolume& volume, std::uint32_t parent, const Name& name, Parent with = Parent::kFolder);
  ~ItemLocator() { close(); }
  ItemLocator(const ItemLocator&) = delete;
  ItemLocator& operator=(const ItemLocator&) = delete;

  [[nodiscard]] kvfs_catalog_record_locator* get() const { return locator_; }
  // Hands the locator over.
  [[nodiscard]] kvfs_catalog_record_locator* release() { return std::exchange(locator_, nullptr); }
  void close();

 private:
  kvfs_catalog_record_locator* locator_ = nullptr;
};

// An operation on an item, for the two routines below.
struct ItemOperation {
  std::uint32_t parent;  // the item's key
  Name name;
  std::function<kvfs_result(OpenVolume&, kvfs_catalog_record_locator* item)> operate;
  // Looks at the volume after a run that met its fault; may be null.
  std::function<void(OpenVolume&, const FailedRun&)> inspect = nullptr;
};

// What the operation gives on a fresh volume each time when its first call of a kind fails, its second one, and so on
// until none is left to fail. Opening the volume and the item, and closing them, meet no faults. Each run must leave no
// memory, no lock and no held lock behind, take locks in their order, and leave no locator open unless a lock failed,
// which leaks it by design.
std::vector<FailedRun> fail_each_in(const SparseImage& image, const FailingCall& failing,
                                    const ItemOperation& operation);

// The same for allocations, for taking and giving back locks, and for transfers in all their ways to fail. Expects the
// result that belongs to the kind of call, or success where the operation goes on, and a message in each run.
std::vector<FailedRun> fail_everything_in(const SparseImage& image, const ItemOperation& operation);

// Whether the log of a run ends with these lines; "{*}" in a line stands for any characters.
bool some_run_ends_with(const std::vector<FailedRun>& runs, const Lines& lines);
// Whether the log of a run has the line.
bool some_run_says(const std::vector<FailedRun>& runs, const std::string& line);

}  // namespace kvfs_test

#endif  // KVFS_ITEM_FIXTURE_H
