// Random numbers for tests that print their seeds, and how long such tests run.

#ifndef KVFS_RANDOM_H
#define KVFS_RANDOM_H

#include <cstdint>
#include <random>

#include "environment.h"

namespace kvfs_test {

using Random = std::mt19937;

inline std::uint32_t below(Random& random, std::uint32_t limit) {
  return static_cast<std::uint32_t>(random() % limit);
}

inline bool one_in(Random& random, std::uint32_t count) {
  return below(random, count) == 0;
}

}  // namespace kvfs_test

#endif  // KVFS_RANDOM_H
