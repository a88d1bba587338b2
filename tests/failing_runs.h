// The loop of every test that lets each call of an operation fail.

#ifndef KVFS_FAILING_RUNS_H
#define KVFS_FAILING_RUNS_H

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace kvfs_test {

// What `run` gives when the first call fails, when the second one does, and so on, until it gives nothing because the
// operation makes no n-th call.
template <typename Run>
std::vector<Run> failing_runs(const std::function<std::optional<Run>(unsigned long n)>& run) {
  constexpr unsigned long kTooMany = 5000;
  std::vector<Run> runs;
  for (unsigned long n = 1; n < kTooMany; ++n) {
    std::optional<Run> failed = run(n);
    if (!failed) {
      return runs;
    }
    runs.push_back(*std::move(failed));
  }
  ADD_FAILURE() << "the operation never comes to its end";
  return runs;
}

}  // namespace kvfs_test

#endif  // KVFS_FAILING_RUNS_H
