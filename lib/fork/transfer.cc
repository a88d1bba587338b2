// Transfers: a range of the fork as pieces of its extents, and reading a piece by sectors.
//
// A piece within one sector is read only as far as it has room: X-fork-4.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "device.h"
#include "fork.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

static std::uint64_t sum_of_extents(const kvfs_fork_private* priv) {
  std::uint64_t sum = 0;
  for (std::uint32_t i = 0; i < priv->fork_extents_count && !is_empty(priv->fork_extents[i]); ++i) {
    sum += priv->fork_extents[i].blockCount.get();
  }
  return sum;
}

// The extents must hold as many blocks as the fork data says at most, and no fewer than its bytes need.
static kvfs_result check_extent_sum(const kvfs_fork* fork, std::uint64_t logical_size, std::uint32_t total_blocks) {
  kvfs_fork_private* const priv = fork->priv;
  if (priv->fork_extents_blocks == 0) {
    priv->fork_extents_blocks = sum_of_extents(priv);
  }
  const std::uint64_t sum = priv->fork_extents_blocks;
  if (sum > total_blocks) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Inconsistent fork data (more blocks than specified found in extent record).\n");
    return kvfs_inconsistent;
  }
  if (fork->block_size * sum < logical_size) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io, "Too few blocks for the logical size of the fork.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result check_io_range(const kvfs_fork* fork, std::uint64_t io_offset, std::uint64_t io_length) {
  const std::uint64_t logical_size = fork->priv->fork_data->logicalSize.get();
  const std::uint32_t total_blocks = fork->priv->fork_data->totalBlocks.get();
  if (total_blocks == 0) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io, "HFSPlus:%s: -- Nothing to process in fork!\n",
                  KVFS_NAME_OF(kvfs_fork_do_device_io));
    return kvfs_invalid;
  }
  if (io_offset >= logical_size) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Invalid parameter 'io_offset': Offset (%llu) is beyond the end of the file.\n", to_ull(io_offset));
    return kvfs_invalid;
  }
  if (io_length > logical_size - io_offset) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Invalid parameter 'io_length': Length (%llu) extends beyond the end of the file.\n",
                  to_ull(io_length));
    return kvfs_invalid;
  }
  return check_extent_sum(fork, logical_size, total_blocks);
}

kvfs_result kvfs_fork_do_device_io(kvfs_fork* fork, std::uint64_t io_offset, std::uint64_t io_length,
                                   kvfs_fork_io_process process, void* context) {
  kvfs_result result = check_io_range(fork, io_offset, io_length);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint64_t io_end = io_offset + io_length;
  kvfs_fork_private* const priv = fork->priv;
  const bool goes_on = priv->cursor.position <= io_offset;
  std::uint64_t position = goes_on ? priv->cursor.position : 0;  // where the extent begins in the fork, bytes
  for (std::uint32_t i = goes_on ? priv->cursor.index : 0; position < io_end; ++i) {
    if (i == priv->fork_extents_count || is_empty(priv->fork_extents[i])) {
      KVFS_CRITICAL("Unexpected: Reached the end of the allocation before all bytes have been processed.\n");
      return kvfs_inconsistent;
    }
    const HFSPlusExtentDescriptor& extent = priv->fork_extents[i];
    const std::uint64_t extent_end = position + extent_length(fork, extent);
    if (extent_end > io_offset) {
      priv->cursor = {i, position};
      const std::uint64_t begin = kvfs_max(position, io_offset);
      const std::uint64_t device_offset = std::uint64_t{fork->block_size} * extent.startBlock.get();
      result = process(context, device_offset + (begin - position), begin, kvfs_min(extent_end, io_end) - begin);
      if (result != kvfs_ok) {
        KVFS_ERROR("Error while processing I/O request.\n");
        return result;
      }
    }
    position = extent_end;
  }
  return kvfs_ok;
}

// Copies a part of one sector that a piece does not cover whole.
static kvfs_result read_partial_sector(kvfs_device* device, std::uint64_t sector, std::uint32_t offset_in_sector,
                                       std::uint32_t length, unsigned char* destination) {
  void* buffer = nullptr;
  const kvfs_result result = kvfs_device_read_disk_sectors(device, sector, 1, &buffer);
  if (result == kvfs_ok) {
    std::memcpy(destination, static_cast<unsigned char*>(buffer) + offset_in_sector, length);
    std::free(buffer);
  }
  return result;
}

namespace {

// A piece as whole sectors with what is left over before and behind them.
struct sector_run {
  std::uint64_t first;     // sector
  std::uint64_t count;     // whole sectors
  std::uint32_t lead_in;   // bytes of sector `first` before the piece
  std::uint32_t lead_out;  // bytes of the sector behind the run that belong to the piece
};

}  // namespace

static sector_run split_into_sectors(std::uint32_t sector_size, std::uint64_t device_offset, std::uint64_t length) {
  const std::uint64_t end = device_offset + length;
  const std::uint64_t first = device_offset / sector_size;
  return {first, end / sector_size - first, static_cast<std::uint32_t>(device_offset % sector_size),
          static_cast<std::uint32_t>(end % sector_size)};
}

// Reads whole sectors. More of them than can be counted, as when a piece lies within one sector and their number is one
// below 0, are the device's to refuse.
static kvfs_result read_whole_sectors(kvfs_device* device, const sector_run& run, void* destination) {
  const std::uint32_t count = static_cast<std::uint32_t>(kvfs_min(run.count, kMaximum32));
  const kvfs_result result = kvfs_device_read_disk_sectors(device, run.first, count, &destination);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_process_read_io, "Error while reading %llu fork sectors starting at sector %llu.\n",
                  to_ull(run.count), to_ull(run.first));
  }
  return result;
}

kvfs_result kvfs_fork_process_read_io(void* context, std::uint64_t device_offset, std::uint64_t /*fork_offset*/,
                                      std::uint64_t length) {
  kvfs_fork_read_context* const read = static_cast<kvfs_fork_read_context*>(context);
  const std::uint32_t sector_size = read->device->sector_size;
  if (sector_size == 0) {  // X-device-1
    KVFS_ERROR("Device has a sector size of 0.\n");
    return kvfs_inconsistent;
  }
  sector_run run = split_into_sectors(sector_size, device_offset, length);
  unsigned char* destination = read->destination + read->delivered;
  kvfs_result result = kvfs_ok;
  if (run.lead_in != 0) {
    const std::uint32_t part = static_cast<std::uint32_t>(kvfs_min<std::uint64_t>(sector_size - run.lead_in, length));
    result = read_partial_sector(read->device, run.first, run.lead_in, part, destination);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while reading lead-in sector %llu.\n", to_ull(run.first));
      return result;
    }
    ++run.first;
    --run.count;
    destination += part;
  }
  result = read_whole_sectors(read->device, run, destination);
  if (result != kvfs_ok) {
    return result;
  }
  destination += run.count * sector_size;
  if (run.lead_out != 0) {
    // The bytes are taken from the end of the sector, not its beginning: Q-fork-6.
    result =
        read_partial_sector(read->device, run.first + run.count, sector_size - run.lead_out, run.lead_out, destination);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while reading lead-out sector %llu.\n", to_ull(run.first + run.count));
      return result;
    }
  }
  read->delivered += static_cast<std::uint32_t>(length);
  return kvfs_ok;
}
