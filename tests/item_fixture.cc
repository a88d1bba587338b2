#include "item_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "failing_runs.h"
#include "log_capture.h"

namespace kvfs_test {

// ---- Items ---------------------------------------------------------------------------------------------------------

ItemLocator::ItemLocator(const OpenVolume& volume, std::uint32_t parent, const Name& name, Parent with) {
  Searched folder;
  if (with == Parent::kFolder && parent != kRootParentId) {
    EXPECT_EQ(kvfs_catalog_search_by_cnid(volume.catalog(), parent, true, folder.out()), kvfs_ok);
    if (folder.out()->found == 0) {
      folder.release();
    }
  }
  const HFSPlusCatalogKey key = stored_key(parent, name);
  Searched item;
  EXPECT_EQ(kvfs_catalog_search_node(volume.catalog(), &key, item.out()), kvfs_ok);
  EXPECT_EQ(item.out()->found, 1u);
  std::swap(locator_, item.out()->locator);
  EXPECT_EQ(kvfs_catalog_record_locator_set_parent_locator(locator_, folder.locator()), kvfs_ok);
}

void ItemLocator::close() {
  if (locator_ != nullptr) {
    kvfs_catalog_record_locator_close(&locator_);
  }
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

static bool is_lock_call(const FailingCall& failing) {
  return failing.kind == FailingCall::Kind::kCall && failing.call != Call::kPread64 && failing.call != Call::kPwrite64;
}

static void set_fault(FaultInjector& faults, const FailingCall& failing, unsigned long n) {
  if (failing.kind == FailingCall::Kind::kAllocation) {
    faults.fail_allocation(faults.count_allocations() + n);
  } else {
    faults.fail(failing.call, faults.count(failing.call) + n, failing.fault);
  }
}

// Operates with the n-th call failing; nothing when there was no n-th call.
static std::optional<FailedRun> operate_once(OpenVolume& volume, FaultInjector& faults, const FailingCall& failing,
                                             unsigned long n, const ItemOperation& operation) {
  ItemLocator item(volume, operation.parent, operation.name);
  const unsigned long before = faults.delivered();
  FailedRun run = {n, kvfs_ok, {}};
  LogCapture log;
  set_fault(faults, failing, n);
  run.result = operation.operate(volume, item.get());
  const bool delivered = faults.delivered() != before;
  log.finish();
  EXPECT_EQ(faults.locks_held(), 0) << "call " << n;
  EXPECT_EQ(order_violations(faults.lock_calls(), volume.locks()), Lines()) << "call " << n;
  if (!delivered) {
    return std::nullopt;
  }
  item.close();
  run.log = log.texts();
  if (operation.inspect != nullptr) {
    operation.inspect(volume, run);
  }
  if (!is_lock_call(failing)) {
    EXPECT_EQ(volume.open_locators(), 0u) << "call " << n;
  }
  return run;
}

static std::optional<FailedRun> run_failing(const SparseImage& image, const FailingCall& failing, unsigned long n,
                                            const ItemOperation& operation) {
  FaultInjector faults;
  std::optional<FailedRun> run;
  {
    LogCapture closing;  // leaked locators are reported when the volume is closed
    OpenVolume volume(image);
    run = operate_once(volume, faults, failing, n, operation);
  }
  if (run) {
    EXPECT_EQ(faults.outstanding_allocations(), 0u) << "call " << n;
    EXPECT_EQ(faults.locks_alive(), 0) << "call " << n;
  }
  return run;
}

std::vector<FailedRun> fail_each_in(const SparseImage& image, const FailingCall& failing,
                                    const ItemOperation& operation) {
  return failing_runs<FailedRun>([&](unsigned long n) { return run_failing(image, failing, n, operation); });
}

std::vector<FailedRun> fail_everything_in(const SparseImage& image, const ItemOperation& operation) {
  struct Kind {
    const char* name;
    FailingCall failing;
    kvfs_result result;
  };
  std::vector<Kind> kinds = {{"allocation", FailingCall::allocation(), kvfs_no_memory}};
  for (const Call call : {Call::kRwlockRdlock, Call::kRwlockWrlock, Call::kRwlockUnlock}) {
    kinds.push_back({call_name(call), FailingCall::of(call), kvfs_failed});
  }
  for (const Call call : {Call::kPread64, Call::kPwrite64}) {
    for (const Fault& fault : {Fault::error_number(EIO), Fault::short_by(1), Fault::nothing_transferred()}) {
      kinds.push_back({call_name(call), FailingCall::of(call, fault), kvfs_io_error});
    }
  }
  std::vector<FailedRun> all;
  for (const Kind& kind : kinds) {
    for (FailedRun& run : fail_each_in(image, kind.failing, operation)) {
      EXPECT_TRUE(run.result == kind.result || run.result == kvfs_ok)
          << kind.name << " " << run.n << " gave " << run.result;
      EXPECT_FALSE(run.log.empty()) << kind.name << " " << run.n;
      all.push_back(std::move(run));
    }
  }
  return all;
}

// ---- Logs ----------------------------------------------------------------------------------------------------------

bool some_run_ends_with(const std::vector<FailedRun>& runs, const Lines& lines) {
  return std::any_of(runs.begin(), runs.end(), [&](const FailedRun& run) {
    return run.log.size() >= lines.size() &&
           std::equal(lines.rbegin(), lines.rend(), run.log.rbegin(),
                      [](const std::string& pattern, const std::string& line) { return line_matches(line, pattern); });
  });
}

bool some_run_says(const std::vector<FailedRun>& runs, const std::string& line) {
  return std::any_of(runs.begin(), runs.end(), [&](const FailedRun& run) {
    return std::any_of(run.log.begin(), run.log.end(),
                       [&](const std::string& logged) { return line_matches(logged, line); });
  });
}

}  // namespace kvfs_test
