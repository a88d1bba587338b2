// Collecting all extents of a fork, those in the extents overflow file included.
//
// Extents are looked for only as long as they do not lead back to where they were found: X-fork-1.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "extents.h"
#include "fork/private.h"
#include "format.h"
#include "result.h"
#include "support.h"

// Counts the leading descriptors in use and adds their blocks to `found`, reporting for the resolution of extents. The
// sum has 32 bits, as a fork's block count has.
static kvfs_result scan_extent_record(const HFSPlusExtentRecord& record, std::uint32_t total, std::uint32_t* found,
                                      std::uint32_t* used) {
  for (*used = 0; *used < kHFSPlusExtentDensity; ++*used) {
    const HFSPlusExtentDescriptor& extent = record.extents[*used];
    const std::uint32_t count = extent.blockCount.get();
    if (count == 0) {
      if (extent.startBlock.get() != 0) {
        KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Found zero-sized extent with non-0 start block.\n");
        return kvfs_inconsistent;
      }
      if (*found != total) {
        KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Last extent ends before the end of the fork.\n");
        return kvfs_inconsistent;
      }
      return kvfs_ok;
    }
    *found += count;
  }
  return kvfs_ok;
}

bool kvfs_fork_append_extents(HFSPlusExtentDescriptor** array, std::uint32_t* count,
                              const HFSPlusExtentDescriptor* extents, std::uint32_t added) {
  const std::size_t grown_count = std::size_t{*count} + added;
  const std::size_t room = std::bit_ceil(grown_count);  // whatever fits into memory has a next power of two
  if (*array == nullptr || room != std::bit_ceil(std::size_t{*count})) {
    void* const grown = room > SIZE_MAX / sizeof(*extents) ? nullptr : std::realloc(*array, room * sizeof(*extents));
    if (grown == nullptr) {
      return false;
    }
    *array = static_cast<HFSPlusExtentDescriptor*>(grown);
  }
  std::memcpy(*array + *count, extents, added * sizeof(*extents));
  *count = static_cast<std::uint32_t>(grown_count);
  return true;
}

// Appends the descriptors in use. What is said when memory is short counts the extents, not the room.
static kvfs_result append_extents(const HFSPlusExtentRecord& record, std::uint32_t used,
                                  HFSPlusExtentDescriptor** array, std::uint32_t* count) {
  if (kvfs_fork_append_extents(array, count, record.extents, used)) {
    return kvfs_ok;
  }
  KVFS_ERROR_AS(kvfs_fork_resolve_extents,
                "Error while allocating %zu bytes of memory for expanded fork_extents array.",  // Q-log-2
                static_cast<std::size_t>((std::uint64_t{*count} + used) * sizeof(HFSPlusExtentDescriptor)));
  return kvfs_no_memory;
}

namespace {

// The records that were looked up. A sum of blocks that has wrapped can lead back to one of them, and from there round
// and round. Comparing with one start block, exchanged at each power of two, finds that with constant memory.
struct overflow_lookups {
  std::uint32_t count;
  std::uint32_t checkpoint;  // a start block that was looked up
};

}  // namespace

// Reads the overflow record that goes on behind the blocks found so far.
static kvfs_result next_overflow_record(kvfs_extents* extents, std::uint32_t cnid, std::uint32_t found,
                                        overflow_lookups* lookups, HFSPlusExtentRecord* record) {
  if (lookups->count != 0 && found == lookups->checkpoint) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Overflow extents of CNID %lu form a ring.\n", to_ul(cnid));
    return kvfs_inconsistent;
  }
  if (std::has_single_bit(++lookups->count)) {
    lookups->checkpoint = found;
  }
  int exists = 0;
  const kvfs_result result =
      kvfs_extents_get_next_extent_record(extents, kHFSDataForkType, cnid, found, &exists, record);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents,
                  "Error while searching for overflow extents record for CNID %lu starting with block %lu.\n",
                  to_ul(cnid), to_ul(found));
    return result;
  }
  if (exists == 0) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents, "No overflow extent found for CNID %lu starting with block %lu.\n",
                  to_ul(cnid), to_ul(found));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Collects the extents in an array that is the caller's to free, whatever the result.
static kvfs_result collect_extents(kvfs_extents* extents, int partial, std::uint32_t cnid,
                                   const HFSPlusForkData* fork_data, HFSPlusExtentDescriptor** array,
                                   std::uint32_t* count) {
  const std::uint32_t total = fork_data->totalBlocks.get();
  HFSPlusExtentRecord record = fork_data->extents;
  std::uint32_t found = 0;  // blocks
  overflow_lookups lookups = {0, 0};
  for (;;) {
    std::uint32_t used = 0;
    kvfs_result result = scan_extent_record(record, total, &found, &used);
    if (result == kvfs_ok) {
      result = append_extents(record, used, array, count);
    }
    if (result != kvfs_ok || found == total || (extents == nullptr && partial != 0)) {
      return result;
    }
    if (extents == nullptr) {
      KVFS_CRITICAL_AS(kvfs_fork_resolve_extents,
                       "No kvfs_extents reference and we are not reading extents partially.\n");
      return kvfs_internal;
    }
    result = next_overflow_record(extents, cnid, found, &lookups, &record);
    if (result != kvfs_ok) {
      return result;
    }
  }
}

kvfs_result kvfs_fork_resolve_extents(kvfs_extents* extents, int partial, std::uint32_t cnid,
                                      const HFSPlusForkData* fork_data, HFSPlusExtentDescriptor** out_array,
                                      std::uint32_t* out_count) {
  HFSPlusExtentDescriptor* array = nullptr;
  std::uint32_t count = 0;
  const kvfs_result result = collect_extents(extents, partial, cnid, fork_data, &array, &count);
  if (result != kvfs_ok) {
    std::free(array);
    return result;
  }
  *out_array = array;
  *out_count = count;
  return kvfs_ok;
}
