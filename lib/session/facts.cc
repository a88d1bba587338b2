// Facts about the volume.

#include <cstddef>

#include "btree.h"
#include "fork.h"
#include "session/private.h"
#include "volume.h"

// Bits of the volume header's attributes.
static constexpr std::uint32_t kHardwareLockBit = 0x80;
static constexpr std::uint32_t kUnmountedBit = 0x100;
static constexpr std::uint32_t kInconsistentBit = 0x800;
static constexpr std::uint32_t kSoftwareLockBit = 0x8000;

static std::uint8_t flag(bool is_set) {
  return is_set ? 1 : 0;
}

static void describe_header(const HFSPlusVolumeHeader& header, kvfs_volume_facts* facts) {
  facts->block_size = header.blockSize.get();
  facts->block_count = header.totalBlocks.get();
  facts->free_block_count = header.freeBlocks.get();
  facts->size = std::uint64_t{facts->block_size} * facts->block_count;
  facts->free_size = std::uint64_t{facts->block_size} * facts->free_block_count;
  facts->file_count = header.fileCount.get();
  facts->folder_count = header.folderCount.get();
  facts->next_id = header.nextCatalogID.get();
  facts->identifier = std::uint64_t{header.finderInfo[6].get()} << 32 | header.finderInfo[7].get();
  facts->creation_date = kvfs_session_date(header.createDate);
  facts->modification_date = kvfs_session_date(header.modifyDate);
  facts->backup_date = kvfs_session_date(header.backupDate);
  facts->check_date = kvfs_session_date(header.checkedDate);
  facts->write_count = header.writeCount.get();
  facts->last_mounted_by = header.lastMountedVersion.get();
  facts->is_hfsx = flag(header.signature.get() == kHFSXSigWord);
  const std::uint32_t attributes = header.attributes.get();
  facts->attributes = attributes;
  facts->is_journaled = flag((attributes & kSessionJournaledBit) != 0);
  facts->is_dirty = flag((attributes & kUnmountedBit) == 0 || (attributes & kInconsistentBit) != 0);
  facts->is_locked = flag((attributes & (kHardwareLockBit | kSoftwareLockBit)) != 0);
}

// Every change is one of the catalog. A change of anything else is one of the header too, which is written last.
static bool has_changes(const kvfs_session* session) {
  return session->changes.catalog || session->changes.header;
}

static kvfs_result give_facts(kvfs_session* session, kvfs_volume_facts* out_facts) {
  const kvfs_volume* const volume = session->volume;
  std::uint8_t compare_type = 0;
  const kvfs_result result =
      kvfs_fork_read((*volume->catalog->btree)->fork, kBTHeaderRecordOffset + offsetof(BTHeaderRec, keyCompareType),
                     &compare_type, sizeof(compare_type), nullptr);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_volume_facts facts = {};
  describe_header(*volume->header, &facts);
  facts.is_case_sensitive = flag(compare_type == kHFSBinaryCompare);
  facts.is_writable = flag((session->flags & KVFS_OPEN_WRITE) != 0);
  facts.has_allocation_file = flag(volume->bitmap != nullptr);
  facts.has_unflushed_changes = flag(has_changes(session));
  kvfs_session_copy_struct(&facts, sizeof(facts), out_facts, out_facts->struct_size);
  return kvfs_ok;
}

uint64_t kvfs_session_facts(kvfs_session* session, kvfs_volume_facts* facts) {
  if (session == nullptr || facts == nullptr || !kvfs_session_can_fill(facts->struct_size, sizeof(*facts))) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return give_facts(session, facts); });
}
