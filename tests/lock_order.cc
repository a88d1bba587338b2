#include "lock_order.h"

#include <algorithm>

#include "bitmap/private.h"
#include "btree/private.h"
#include "catalog/private.h"
#include "extents.h"
#include "fork/private.h"
#include "volume/private.h"

namespace kvfs_test {

enum Rank { kLabel, kCatalogList, kTreeList, kOverflowList, kItems, kDirty, kItem, kBehindOtherForks };

static void add_fork(const kvfs_fork& fork, const std::string& name, int base, LockRanks* ranks) {
  (*ranks)[fork.priv->items_lock] = {base + kItems, name + " items"};
  (*ranks)[fork.priv->dirty_lock] = {base + kDirty, name + " dirty"};
  for (std::uint32_t i = 0; i < fork.priv->items_end; ++i) {
    if (fork.priv->items[i] != nullptr) {
      (*ranks)[fork.priv->items[i]->item_lock] = {base + kItem, name + " item"};
    }
  }
  for (const kvfs_fork_cache_item* item = fork.priv->dropped_items; item != nullptr; item = item->next_dropped) {
    (*ranks)[item->item_lock] = {base + kItem, name + " item"};
  }
}

static void add_tree(const kvfs_btree& tree, const std::string& name, int rank, LockRanks* ranks) {
  (*ranks)[tree.priv->open_locators_lock] = {rank, name + " list"};
  add_fork(*tree.fork, name, 0, ranks);
}

LockRanks locks_of(const kvfs_volume& volume) {
  LockRanks ranks;
  ranks[volume.priv->lock] = {kLabel, "label"};
  ranks[volume.catalog->priv->open_locators_lock] = {kCatalogList, "catalog list"};
  add_tree(**volume.catalog->btree, "catalog tree", kTreeList, &ranks);
  add_tree(*volume.extents->btree, "extents tree", kOverflowList, &ranks);
  if (volume.bitmap != nullptr) {
    add_fork(*volume.bitmap->priv->fork, "allocation file", kBehindOtherForks, &ranks);
  }
  return ranks;
}

void add_locks_of(const kvfs_fork& fork, LockRanks* ranks) {
  add_fork(fork, "fork", 0, ranks);
}

static bool takes(const LockCall& call) {
  return (call.call == Call::kRwlockRdlock || call.call == Call::kRwlockWrlock) && call.result == 0;
}

std::vector<std::string> order_violations(const std::vector<LockCall>& calls, const LockRanks& ranks) {
  std::vector<std::string> found;
  std::vector<const void*> held;
  for (const LockCall& call : calls) {
    const auto taken = ranks.find(call.lock);
    if (takes(call) && taken != ranks.end()) {
      for (const void* const other : held) {
        if (ranks.at(other).rank >= taken->second.rank) {
          found.push_back(taken->second.name + " behind " + ranks.at(other).name);
        }
      }
      held.push_back(call.lock);
    } else if (call.call == Call::kRwlockUnlock) {
      held.erase(std::remove(held.begin(), held.end(), call.lock), held.end());
    }
  }
  return found;
}

std::size_t count_unknown(const std::vector<LockCall>& calls, const LockRanks& ranks) {
  const auto unknown = [&](const LockCall& call) { return takes(call) && !ranks.contains(call.lock); };
  return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), unknown));
}

}  // namespace kvfs_test
