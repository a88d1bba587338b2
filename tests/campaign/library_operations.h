// The operations of the library that the campaign lets fail: every routine of the public headers that allocates, locks
// or transfers. What is left computes, or frees and says nothing.

#ifndef KVFS_TEST_CAMPAIGN_LIBRARY_OPERATIONS_H
#define KVFS_TEST_CAMPAIGN_LIBRARY_OPERATIONS_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "open_volume.h"
#include "result.h"

namespace kvfs_test {

struct Operation {
  const char* name;
  std::function<kvfs_result(OpenVolume&)> run;
  std::function<void(OpenVolume&)> prepare = nullptr;
  bool writes = false;                          // to the device, rather than to the cache
  std::uint32_t extents = 10;                   // of the catalog; those beyond eight are in the overflow file
  std::string silent_about = "";                // a kind of failure of which it says nothing
  std::set<std::string> succeeds_despite = {};  // kinds of failure that it gets over, some of them at least
};

// How the test framework names one.
inline void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

std::vector<Operation> library_operations();

// The volume that they run on: its first leaf is full, and it has files without and with content and a hard link.
Volume campaign_volume(std::uint32_t catalog_extents);

}  // namespace kvfs_test

#endif  // KVFS_TEST_CAMPAIGN_LIBRARY_OPERATIONS_H
