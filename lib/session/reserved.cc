// Blocks that no file may have: those of the special files, of both volume headers and of the journal. A damaged volume
// may let a file share them, and deleting it would have the next file that grows written over them; or it may count
// them as free, and the target of a link would be written over them at once (X-session-1).

#include <cstdlib>

#include "device.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "session/private.h"
#include "volume.h"

// ---- Common blocks -------------------------------------------------------------------------------------------------

static std::uint64_t end_of(const HFSPlusExtentDescriptor& extent) {
  return std::uint64_t{extent.startBlock.get()} + extent.blockCount.get();
}

static int compare_starts(const void* a, const void* b) {
  const std::uint32_t start_a = kvfs_view_as<HFSPlusExtentDescriptor>(a)->startBlock.get();
  const std::uint32_t start_b = kvfs_view_as<HFSPlusExtentDescriptor>(b)->startBlock.get();
  return start_a == start_b ? 0 : (start_a < start_b ? -1 : 1);
}

static void sort(kvfs_session_extents extents) {
  if (extents.count != 0) {
    std::qsort(extents.array, extents.count, sizeof(*extents.array), compare_starts);
  }
}

// Finds a block that two sorted lists have in common, in one walk over both: an extent shares it with the other list
// when it begins before the furthest end there. Extents of one list may overlap.
static bool find_common_block(kvfs_session_extents a, kvfs_session_extents b, std::uint32_t* block) {
  std::uint64_t end_a = 0;
  std::uint64_t end_b = 0;
  for (std::uint32_t i = 0, j = 0; i < a.count || j < b.count;) {
    const bool is_a = j == b.count || (i < a.count && compare_starts(&a.array[i], &b.array[j]) <= 0);
    const HFSPlusExtentDescriptor& next = is_a ? a.array[i++] : b.array[j++];
    std::uint64_t* const end = is_a ? &end_a : &end_b;
    if (next.startBlock.get() < (is_a ? end_b : end_a)) {
      *block = next.startBlock.get();
      return true;
    }
    *end = kvfs_max(*end, end_of(next));
  }
  return false;
}

static kvfs_result check_distinct(const kvfs_session_claim& claim, kvfs_session_extents reserved) {
  std::uint32_t block = 0;
  if (find_common_block(claim.extents, reserved, &block)) {
    KVFS_ERROR_BY(claim.speaker, "Block %lu of file %lu belongs to the volume itself.\n", to_ul(block),
                  to_ul(claim.id));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// ---- What is reserved ----------------------------------------------------------------------------------------------

// Sectors at the end of the blocks that the alternate header may begin in.
static constexpr std::uint32_t kTailSectors = 2;

// Checks against all extents of a special file. The extents overflow file has none but those in the volume header.
static kvfs_result check_special_file(kvfs_session* session, const kvfs_session_claim& claim, std::uint32_t special_id,
                                      const HFSPlusForkData& special) {
  const bool is_overflow_file = special_id == kHFSExtentsFileID;
  HFSPlusExtentDescriptor* extents = nullptr;
  std::uint32_t count = 0;
  const kvfs_result result =
      kvfs_fork_resolve_extents(is_overflow_file ? nullptr : session->volume->extents, is_overflow_file ? 1 : 0,
                                special_id, &special, &extents, &count);
  if (result != kvfs_ok) {
    return kvfs_session_blame_volume(result);
  }
  const kvfs_owned<HFSPlusExtentDescriptor> owned(extents);
  const kvfs_session_extents reserved = {extents, count};
  sort(reserved);
  return check_distinct(claim, reserved);
}

static kvfs_result check_special_files(kvfs_session* session, const kvfs_session_claim& claim) {
  const HFSPlusVolumeHeader& header = *session->volume->header;
  const struct {
    std::uint32_t id;
    const HFSPlusForkData* fork;
  } special_files[] = {{kHFSExtentsFileID, &header.extentsFile},
                       {kHFSCatalogFileID, &header.catalogFile},
                       {kHFSAllocationFileID, &header.allocationFile},
                       {kHFSStartupFileID, &header.startupFile},
                       {kHFSAttributesFileID, &header.attributesFile}};
  for (const auto& special : special_files) {
    const kvfs_result result = check_special_file(session, claim, special.id, *special.fork);
    if (result != kvfs_ok) {
      return result;
    }
  }
  return kvfs_ok;
}

static HFSPlusExtentDescriptor make_extent(std::uint64_t first, std::uint64_t end) {
  return {kvfs_be32::of(static_cast<std::uint32_t>(first)), kvfs_be32::of(static_cast<std::uint32_t>(end - first))};
}

// Whether a sector holds the alternate header, and not data of a file that begins like one: what stays the same for the
// life of a volume is the same in both headers.
static bool is_alternate_header(const HFSPlusVolumeHeader& header, const HFSPlusVolumeHeader& sector) {
  const std::uint16_t signature = sector.signature.get();
  return (signature == kHFSPlusSigWord || signature == kHFSXSigWord) &&
         sector.createDate.get() == header.createDate.get() && sector.blockSize.get() == header.blockSize.get();
}

// Finds where the alternate header lies in the last blocks, if there at all: it begins 1024 bytes before the end of the
// device, which may be a little behind the last block. So it is looked for in the last two sectors of the blocks.
static kvfs_result find_alternate_header(kvfs_session* session, std::uint64_t first_sector, std::uint32_t* index) {
  unsigned char tail[kTailSectors * kSessionSectorSize];
  void* buffer = tail;
  const kvfs_result result = kvfs_device_read_disk_sectors(session->device, first_sector, kTailSectors, &buffer);
  if (result != kvfs_ok) {
    return result;
  }
  for (*index = 0; *index < kTailSectors; ++*index) {
    const unsigned char* const sector = tail + std::size_t{*index} * kSessionSectorSize;
    if (is_alternate_header(*session->volume->header, *kvfs_view_as<HFSPlusVolumeHeader>(sector))) {
      break;
    }
  }
  return kvfs_ok;
}

// The volume is longer than its header, as the file has blocks behind that.
static kvfs_result check_alternate_header(kvfs_session* session, const kvfs_session_claim& claim,
                                          std::uint32_t block_size) {
  const std::uint64_t end = session->volume->header->totalBlocks.get();
  const std::uint64_t first_sector = end * block_size / kSessionSectorSize - kTailSectors;
  HFSPlusExtentDescriptor tail = make_extent(first_sector * kSessionSectorSize / block_size, end);
  std::uint32_t ignored = 0;
  if (!find_common_block(claim.extents, {&tail, 1}, &ignored)) {
    return kvfs_ok;
  }
  std::uint32_t index = 0;
  const kvfs_result result = find_alternate_header(session, first_sector, &index);
  if (result != kvfs_ok || index == kTailSectors) {
    return result;
  }
  tail = make_extent((first_sector + index) * kSessionSectorSize / block_size, end);
  return check_distinct(claim, {&tail, 1});
}

// Finds the blocks of a journal: whole ones, cut to the volume. None where it lies on another device.
static HFSPlusExtentDescriptor journal_extent(const JournalInfoBlock& info, std::uint64_t volume_size,
                                              std::uint32_t block_size) {
  const std::uint64_t offset = info.offset.get();
  const std::uint64_t size = info.size.get();
  if ((info.flags.get() & kJournalOnVolume) == 0 || size == 0 || offset >= volume_size) {
    return {};
  }
  const std::uint64_t end = offset + kvfs_min(size, volume_size - offset);
  return make_extent(offset / block_size, kvfs_divide_rounding_up(end, block_size));
}

// Checks against the journal and the block that tells where it lies.
static kvfs_result check_journal(kvfs_session* session, const kvfs_session_claim& claim, std::uint32_t block_size) {
  const HFSPlusVolumeHeader& header = *session->volume->header;
  const std::uint64_t info_block = header.journalInfoBlock.get();
  if ((header.attributes.get() & kSessionJournaledBit) == 0 || info_block >= header.totalBlocks.get()) {
    return kvfs_ok;
  }
  HFSPlusExtentDescriptor own = make_extent(info_block, info_block + 1);
  kvfs_result result = check_distinct(claim, {&own, 1});
  if (result != kvfs_ok) {
    return result;
  }
  unsigned char sector[kSessionSectorSize];
  void* buffer = sector;
  result = kvfs_device_read_disk_sectors(session->device, info_block * block_size / kSessionSectorSize, 1, &buffer);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint64_t volume_size = std::uint64_t{header.totalBlocks.get()} * block_size;
  own = journal_extent(*kvfs_view_as<JournalInfoBlock>(sector), volume_size, block_size);
  return own.blockCount.get() == 0 ? kvfs_ok : check_distinct(claim, {&own, 1});
}

kvfs_result kvfs_session_check_unreserved(kvfs_session* session, const kvfs_session_claim& claim) {
  if (claim.extents.count == 0) {
    return kvfs_ok;
  }
  sort(claim.extents);
  const std::uint32_t block_size = kvfs_max(session->volume->header->blockSize.get(), 1U);
  HFSPlusExtentDescriptor head =
      make_extent(0, kvfs_divide_rounding_up(kVolumeHeaderOffset + kVolumeHeaderSize, block_size));
  kvfs_result result = check_distinct(claim, {&head, 1});
  if (result == kvfs_ok) {
    result = check_special_files(session, claim);
  }
  if (result == kvfs_ok) {
    result = check_journal(session, claim, block_size);
  }
  return result == kvfs_ok ? check_alternate_header(session, claim, block_size) : result;
}
