// Fork data and places of blocks in words, and a loop that lets each call of an operation on a volume fail.
//
//   const FaultScenario scenario = {image, prepare, operation, check};
//   EXPECT_EQ(summary(fail_each(each(Call::kPread64), scenario)), (Lines{"4: ERROR ..."}));

#ifndef KVFS_ALLOCATION_FIXTURE_H
#define KVFS_ALLOCATION_FIXTURE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bitmap.h"
#include "fault_injection.h"
#include "format.h"
#include "open_volume.h"
#include "result.h"
#include "volume_builder.h"
#include "volume_image.h"

namespace kvfs_test {

using Lines = std::vector<std::string>;

// A fork data with extents, on-disk order; `total_blocks` is their sum when not given.
HFSPlusForkData fork_data_of(std::uint64_t logical_size, const std::vector<Extent>& extents,
                             std::optional<std::uint32_t> total_blocks = std::nullopt);

// "size=8192 total=2 extents={10+2}".
std::string describe(const HFSPlusForkData& fork_data);

// "start=10 count=4 index=1 bytes=16384 16384"; the words that must be 0 are named when they are not.
std::string describe(const kvfs_allocation_location& location);

// What a fork says that finds no free run to grow by: a run of no blocks at block 0 cannot be marked.
Lines no_run_messages();

// ---- Failing calls -------------------------------------------------------------------------------------------------

// What to do with a fresh volume for each call that fails.
struct FaultScenario {
  Volume image;
  std::function<void(OpenVolume&)> prepare;           // before; nothing fails
  std::function<kvfs_result(OpenVolume&)> operation;  // one of its calls fails
  std::function<void(OpenVolume&)> check;             // after a failure, before the volume is closed; nothing fails
};

// The n-th call that fails, from 1 on. Several faults may be set.
using SetFault = std::function<void(FaultInjector&, unsigned long n)>;
SetFault each(Call call);
SetFault each_allocation();

// What an operation gave when a call of it failed.
struct FailedOperation {
  kvfs_result result;
  Lines log;  // "LEVEL function text", addresses as "{*}"
};

// Runs the operation with its first call failing, with its second one, and so on until it has no more. After each run
// no lock may be held nor have been taken out of its order, and, once the volume is closed, no memory be left.
std::vector<FailedOperation> fail_each(const SetFault& set_fault, const FaultScenario& scenario);

// Each operation as its result, a colon and its log in one line, consecutive equal ones once. With functions given only
// their messages are kept.
Lines summary(const std::vector<FailedOperation>& operations, const std::vector<std::string>& functions = {});

}  // namespace kvfs_test

#endif  // KVFS_ALLOCATION_FIXTURE_H
