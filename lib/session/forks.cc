// Forks of files, read around the cache: what a program reads once need not stay in memory.

#include <cstdlib>
#include <cstring>

#include "device.h"
#include "extents.h"
#include "fork.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "session/private.h"
#include "volume.h"

// ---- Extents -------------------------------------------------------------------------------------------------------

static std::uint32_t blocks_in(const HFSPlusExtentRecord& record) {
  std::uint64_t blocks = 0;
  for (const HFSPlusExtentDescriptor& extent : record.extents) {
    blocks += extent.blockCount.get();
  }
  return static_cast<std::uint32_t>(kvfs_min<std::uint64_t>(blocks, UINT32_MAX));
}

// Appends extents to those of a fork.
static kvfs_result append_extents(kvfs_fork_private* priv, const HFSPlusExtentDescriptor* extents,
                                  std::uint32_t count) {
  if (!kvfs_fork_append_extents(&priv->fork_extents, &priv->fork_extents_count, extents, count)) {
    const std::uint64_t size = (std::uint64_t{priv->fork_extents_count} + count) * sizeof(HFSPlusExtentDescriptor);
    KVFS_ERROR_AS(kvfs_session_open_fork, "Error while allocating %llu bytes for extents.\n", to_ull(size));
    return kvfs_no_memory;
  }
  return kvfs_ok;
}

// Appends the extents of an overflow record, which are checked as those of a fork that has no others.
static kvfs_result append_record(kvfs_fork_private* priv, const HFSPlusExtentRecord& record) {
  HFSPlusForkData piece = {};
  piece.extents = record;
  piece.totalBlocks.set(blocks_in(record));
  HFSPlusExtentDescriptor* extents = nullptr;
  std::uint32_t count = 0;
  kvfs_result result = kvfs_fork_resolve_extents(nullptr, 1, priv->cnid, &piece, &extents, &count);
  if (result == kvfs_ok) {
    result = append_extents(priv, extents, count);
    std::free(extents);
  }
  return result;
}

// Finds the extents of a resource fork behind the eight in its record. A fork resolves those of data forks by itself.
static kvfs_result append_overflow_extents(kvfs_session* session, kvfs_fork_private* priv,
                                           const HFSPlusForkData& data) {
  const std::uint32_t total = data.totalBlocks.get();
  std::uint32_t found = blocks_in(data.extents);
  while (found < total) {
    int exists = 0;
    HFSPlusExtentRecord record = {};
    kvfs_result result = kvfs_extents_get_next_extent_record(session->volume->extents, kHFSResourceForkType, priv->cnid,
                                                             found, &exists, &record);
    result = kvfs_session_blame_volume(result);
    if (result == kvfs_ok && (exists == 0 || blocks_in(record) == 0 || blocks_in(record) > total - found)) {
      KVFS_ERROR_AS(kvfs_session_open_fork, "Extents of the resource fork of file %lu end at block %lu of %lu.\n",
                    to_ul(priv->cnid), to_ul(found), to_ul(total));
      result = kvfs_inconsistent;
    }
    if (result == kvfs_ok) {
      result = append_record(priv, record);
    }
    if (result != kvfs_ok) {
      return result;
    }
    found += blocks_in(record);
  }
  return kvfs_ok;
}

// ---- Long extents --------------------------------------------------------------------------------------------------
//
// A fork sees no more than 32 bits of the bytes in an extent (Q-fork-1). Special files stay below that; files need not.

// Bytes of an extent that is divided, and extents that a fork may have then.
static constexpr std::uint32_t kLongestExtent = std::uint32_t{1} << 31;
static constexpr std::uint32_t kMostExtents = std::uint32_t{1} << 24;

static std::uint64_t pieces_of(const HFSPlusExtentDescriptor& extent, std::uint32_t blocks_in_piece) {
  return kvfs_divide_rounding_up(extent.blockCount.get(), blocks_in_piece);
}

static std::uint64_t count_pieces(const kvfs_fork_private* priv, std::uint32_t blocks_in_piece) {
  std::uint64_t pieces = 0;
  for (std::uint32_t i = 0; i < priv->fork_extents_count; ++i) {
    pieces += pieces_of(priv->fork_extents[i], blocks_in_piece);
  }
  return pieces;
}

static void divide_extent(const HFSPlusExtentDescriptor& extent, std::uint32_t blocks_in_piece,
                          HFSPlusExtentDescriptor** next) {
  const std::uint32_t count = extent.blockCount.get();
  for (std::uint32_t done = 0; done < count;) {
    const std::uint32_t piece = kvfs_min(blocks_in_piece, count - done);
    *(*next)++ = {kvfs_be32::of(extent.startBlock.get() + done), kvfs_be32::of(piece)};
    done += piece;
  }
}

// Divides extents that are too long into shorter ones.
static kvfs_result divide_long_extents(kvfs_fork_private* priv, std::uint32_t block_size) {
  const std::uint32_t blocks_in_piece = kvfs_max<std::uint32_t>(kLongestExtent / kvfs_max(block_size, 1U), 1);
  const std::uint64_t pieces = count_pieces(priv, blocks_in_piece);
  if (pieces == priv->fork_extents_count) {
    return kvfs_ok;
  }
  if (pieces > kMostExtents) {
    KVFS_ERROR_AS(kvfs_session_open_fork, "File %lu has extents of too many blocks.\n", to_ul(priv->cnid));
    return kvfs_limit;
  }
  const std::size_t size = static_cast<std::size_t>(pieces) * sizeof(HFSPlusExtentDescriptor);
  HFSPlusExtentDescriptor* const divided = static_cast<HFSPlusExtentDescriptor*>(std::malloc(size));
  if (divided == nullptr) {
    KVFS_ERROR_AS(kvfs_session_open_fork, "Error while allocating %zu bytes for extents.\n", size);
    return kvfs_no_memory;
  }
  HFSPlusExtentDescriptor* next = divided;
  for (std::uint32_t i = 0; i < priv->fork_extents_count; ++i) {
    divide_extent(priv->fork_extents[i], blocks_in_piece, &next);
  }
  std::free(priv->fork_extents);
  priv->fork_extents = divided;
  priv->fork_extents_count = static_cast<std::uint32_t>(pieces);
  return kvfs_ok;
}

// ---- Opening -------------------------------------------------------------------------------------------------------

static kvfs_result check_size(kvfs_session* session, std::uint32_t id, const HFSPlusForkData& data) {
  const HFSPlusVolumeHeader* const header = session->volume->header;
  const std::uint64_t allocated = std::uint64_t{header->blockSize.get()} * data.totalBlocks.get();
  if (data.logicalSize.get() > allocated || data.totalBlocks.get() > header->totalBlocks.get()) {
    KVFS_ERROR_AS(kvfs_session_open_fork, "File %lu of %llu bytes and %lu blocks is larger than its space.\n",
                  to_ul(id), to_ull(data.logicalSize.get()), to_ul(data.totalBlocks.get()));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// The resolution of extents adds in 32 bits, and leaves what the eight of a resource fork come to to its callers.
static kvfs_result check_extents(const kvfs_fork_private* priv, const HFSPlusForkData& data) {
  std::uint64_t blocks = 0;
  for (std::uint32_t i = 0; i < priv->fork_extents_count; ++i) {
    blocks += priv->fork_extents[i].blockCount.get();
  }
  if (blocks != data.totalBlocks.get()) {
    KVFS_ERROR_AS(kvfs_session_open_fork, "Extents of file %lu have %llu blocks, and their fork %lu.\n",
                  to_ul(priv->cnid), to_ull(blocks), to_ul(data.totalBlocks.get()));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// Makes the private part of a fork, with all extents. A fork without a size has no slots for cache items.
static kvfs_result find_extents(kvfs_session* session, std::uint32_t id, std::uint8_t fork_type, HFSPlusForkData* data,
                                kvfs_fork_private** out_priv) {
  const bool is_data = fork_type == kHFSDataForkType;
  const kvfs_be64 size = data->logicalSize;
  data->logicalSize.set(0);
  kvfs_result result = kvfs_fork_private_create(session->device, is_data ? session->volume->extents : nullptr,
                                                is_data ? 0 : 1, id, data, kSessionSectorSize, out_priv);
  data->logicalSize = size;
  if (result != kvfs_ok) {
    return kvfs_session_blame_volume(result);
  }
  (*out_priv)->logical_size = size.get();
  if (!is_data) {
    result = append_overflow_extents(session, *out_priv, *data);
  }
  if (result == kvfs_ok) {
    result = check_extents(*out_priv, *data);
  }
  if (result == kvfs_ok) {
    result = divide_long_extents(*out_priv, session->volume->header->blockSize.get());
  }
  return result;
}

kvfs_result kvfs_session_open_fork(kvfs_session* session, const HFSPlusCatalogFile* file, std::uint8_t fork_type,
                                   kvfs_session_fork* fork) {
  fork->fork = nullptr;
  fork->data = fork_type == kHFSDataForkType ? file->dataFork : file->resourceFork;
  const std::uint32_t id = file->fileID.get();
  kvfs_result result = check_size(session, id, fork->data);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_owned<kvfs_fork> opened = kvfs_allocate_zeroed<kvfs_fork>();
  if (!opened) {
    KVFS_ERROR("Error while allocating %zu bytes for kvfs_fork.\n", sizeof(kvfs_fork));
    return kvfs_no_memory;
  }
  kvfs_fork_private* priv = nullptr;
  result = find_extents(session, id, fork_type, &fork->data, &priv);
  if (priv == nullptr) {
    return result;
  }
  *opened = {&priv->logical_size, session->volume->header->blockSize.get(), priv};
  fork->fork = opened.release();
  if (result != kvfs_ok) {
    kvfs_session_close_fork(fork);
  }
  return result;
}

void kvfs_session_close_fork(kvfs_session_fork* fork) {
  if (fork->fork != nullptr) {
    kvfs_fork_destroy(&fork->fork);
  }
}

// ---- Reading -------------------------------------------------------------------------------------------------------

// Bytes of one transfer: a single system call reads no more than 2 GiB.
static constexpr std::uint64_t kLongestTransfer = std::uint64_t{1} << 24;

namespace {

struct read_context {
  kvfs_device* device;
  unsigned char* destination;  // moves on with the pieces
};

}  // namespace

// Reads some bytes of one sector.
static kvfs_result read_in_sector(read_context* read, std::uint64_t offset, std::size_t length) {
  unsigned char sector[kSessionSectorSize];
  void* buffer = sector;
  const kvfs_result result = kvfs_device_read_disk_sectors(read->device, offset / kSessionSectorSize, 1, &buffer);
  if (result == kvfs_ok) {
    std::memcpy(read->destination, sector + offset % kSessionSectorSize, length);
  }
  return result;
}

static kvfs_result read_sectors(read_context* read, std::uint64_t offset, std::uint64_t length) {
  void* buffer = read->destination;
  return kvfs_device_read_disk_sectors(read->device, offset / kSessionSectorSize,
                                       static_cast<std::uint32_t>(length / kSessionSectorSize), &buffer);
}

// Reads one piece of a range: whole sectors straight to where they belong, what is left over by way of a copy. (The
// fork's own reading takes the last bytes of a file from the end of their sector: Q-fork-6.)
static kvfs_result read_piece(void* context, std::uint64_t device_offset, std::uint64_t /*fork_offset*/,
                              std::uint64_t length) {
  read_context* const read = static_cast<read_context*>(context);
  while (length != 0) {
    const std::uint64_t in_sector = device_offset % kSessionSectorSize;
    const bool is_whole = in_sector == 0 && length >= kSessionSectorSize;
    const std::uint64_t part = is_whole ? kvfs_min(length - length % kSessionSectorSize, kLongestTransfer)
                                        : kvfs_min(length, kSessionSectorSize - in_sector);
    const kvfs_result result = is_whole ? read_sectors(read, device_offset, part)
                                        : read_in_sector(read, device_offset, static_cast<std::size_t>(part));
    if (result != kvfs_ok) {
      return result;
    }
    read->destination += part;
    device_offset += part;
    length -= part;
  }
  return kvfs_ok;
}

kvfs_result kvfs_session_read_fork(kvfs_session_fork* fork, std::uint64_t offset, void* buffer, std::size_t size,
                                   std::size_t* out_read) {
  const std::uint64_t logical_size = *fork->fork->logical_size;
  const std::uint64_t length = offset < logical_size ? kvfs_min<std::uint64_t>(size, logical_size - offset) : 0;
  kvfs_result result = kvfs_ok;
  if (length != 0) {
    read_context context = {fork->fork->priv->device, static_cast<unsigned char*>(buffer)};
    result = kvfs_fork_do_device_io(fork->fork, offset, length, read_piece, &context);
  }
  if (result == kvfs_ok) {
    *out_read = static_cast<std::size_t>(length);
  }
  return result;
}
