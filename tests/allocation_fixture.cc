#include "allocation_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "failing_runs.h"
#include "log_capture.h"

namespace kvfs_test {

// ---- In words ------------------------------------------------------------------------------------------------------

std::string describe(const HFSPlusForkData& fork_data) {
  std::string text = "size=" + std::to_string(fork_data.logicalSize.get()) +
                     " total=" + std::to_string(fork_data.totalBlocks.get()) + " extents={";
  const char* separator = "";
  for (const HFSPlusExtentDescriptor& extent : fork_data.extents.extents) {
    if (extent.startBlock.get() != 0 || extent.blockCount.get() != 0) {
      text += separator + std::to_string(extent.startBlock.get()) + "+" + std::to_string(extent.blockCount.get());
      separator = " ";
    }
  }
  return text + "}";
}

HFSPlusForkData fork_data_of(std::uint64_t logical_size, const std::vector<Extent>& extents,
                             std::optional<std::uint32_t> total_blocks) {
  HFSPlusForkData fork_data = {};
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < extents.size(); ++i) {
    fork_data.extents.extents[i].startBlock.set(extents[i].start_block);
    fork_data.extents.extents[i].blockCount.set(extents[i].block_count);
    sum += extents[i].block_count;
  }
  fork_data.logicalSize.set(logical_size);
  fork_data.totalBlocks.set(total_blocks.value_or(sum));
  return fork_data;
}

std::string describe(const kvfs_allocation_location& location) {
  std::string text = "start=" + std::to_string(location.start_block) +
                     " count=" + std::to_string(location.block_count) +
                     " index=" + std::to_string(location.extent_index) + " bytes=" + std::to_string(location.length) +
                     " " + std::to_string(location.length64);
  if (location.reserved[0] != 0 || location.reserved[1] != 0) {
    text += " reserved=" + std::to_string(location.reserved[0]) + " " + std::to_string(location.reserved[1]);
  }
  return text;
}

Lines no_run_messages() {
  return {
      "CRITICAL kvfs_fork_map Internal inconsistency: Last cache item number out of bounds!\n",
      "ERROR AllocateExtentAllocationBlocks Error while mapping from allocation file the region of data containing the "
      "bitmap bits for the blocks that we are allocating.\n",
      "ERROR kvfs_fork_expand Error while marking 0 blocks starting at block 0 as allocated in the allocation file.\n"};
}

// ---- Failing calls -------------------------------------------------------------------------------------------------

SetFault each(Call call) {
  return [call](FaultInjector& faults, unsigned long n) { faults.fail(call, n); };
}

SetFault each_allocation() {
  return [](FaultInjector& faults, unsigned long n) { faults.fail_allocation(n); };
}

// Addresses differ from run to run.
static std::string without_addresses(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at + 2;
    if (text.compare(at, 2, "0x") == 0) {
      while (end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end])) != 0) {
        ++end;
      }
    }
    if (end > at + 6) {  // longer than any other number
      result += "{*}";
      at = end;
    } else {
      result += text[at++];
    }
  }
  return result;
}

// One run with the n-th call failing; nothing when there was no n-th call.
static std::optional<FailedOperation> run_failing(const SetFault& set_fault, unsigned long n,
                                                  const FaultScenario& scenario) {
  OpenVolume volume(scenario.image);
  if (scenario.prepare) {
    scenario.prepare(volume);
  }
  FailedOperation outcome = {kvfs_ok, {}};
  FaultInjector faults;
  set_fault(faults, n);
  LogCapture log;
  outcome.result = scenario.operation(volume);
  const FaultInjector::Pause pause;
  outcome.log = log.texts();
  std::transform(outcome.log.begin(), outcome.log.end(), outcome.log.begin(), without_addresses);
  EXPECT_EQ(faults.locks_held(), 0) << "call " << n;
  EXPECT_EQ(order_violations(faults.lock_calls(), volume.locks()), Lines()) << "call " << n;
  const bool failed = faults.delivered() != 0;
  if (failed && scenario.check) {
    scenario.check(volume);
  }
  {
    LogCapture silence;
    volume.close();
  }
  EXPECT_EQ(faults.outstanding_allocations(), 0u) << "call " << n;
  return failed ? std::optional(outcome) : std::nullopt;
}

std::vector<FailedOperation> fail_each(const SetFault& set_fault, const FaultScenario& scenario) {
  return failing_runs<FailedOperation>([&](unsigned long n) { return run_failing(set_fault, n, scenario); });
}

// Whether a message was logged by one of the functions.
static bool is_from(const std::string& line, const std::vector<std::string>& functions) {
  const std::size_t begin = line.find(' ') + 1;
  const std::string function = line.substr(begin, line.find(' ', begin) - begin);
  return functions.empty() || std::find(functions.begin(), functions.end(), function) != functions.end();
}

Lines summary(const std::vector<FailedOperation>& operations, const std::vector<std::string>& functions) {
  Lines lines;
  for (const FailedOperation& operation : operations) {
    std::string text = std::to_string(operation.result) + ":";
    for (const std::string& line : operation.log) {
      text += is_from(line, functions) ? " " + line : "";
    }
    if (lines.empty() || lines.back() != text) {
      lines.push_back(text);
    }
  }
  return lines;
}

}  // namespace kvfs_test
