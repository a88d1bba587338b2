// The order in which locks are taken, on every path of the library: whoever holds a lock takes none that comes before
// it.
//
//   label, catalog's list, B-tree's list, the overflow file's list, then of the fork: items, dirty, one cache item
//
// The allocation file's fork comes behind that of any file that grows or shrinks, which holds its own lock meanwhile.

#ifndef KVFS_LOCK_ORDER_H
#define KVFS_LOCK_ORDER_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "fork.h"
#include "volume.h"

namespace kvfs_test {

struct RankedLock {
  int rank;  // a lock of a higher rank is taken later
  std::string name;
};

using LockRanks = std::map<const void*, RankedLock>;

// The locks of an open volume and of all that was opened with it. Locks of objects that are gone are not among them.
LockRanks locks_of(const kvfs_volume& volume);

// Adds the locks of a fork that a test opened by itself.
void add_locks_of(const kvfs_fork& fork, LockRanks* ranks);

// What is wrong with a series of calls of one thread; empty when all is well. Locks without a rank are passed over.
std::vector<std::string> order_violations(const std::vector<LockCall>& calls, const LockRanks& ranks);

// How many of the calls took a lock that has no rank.
std::size_t count_unknown(const std::vector<LockCall>& calls, const LockRanks& ranks);

}  // namespace kvfs_test

#endif  // KVFS_LOCK_ORDER_H
