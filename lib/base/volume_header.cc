// What the volume header in memory counts and describes: fork data and counters.

#include "volume_header.h"

#include <cstdint>
#include <cstring>

#include "base/fork_data.h"
#include "format.h"
#include "support.h"

void kvfs_volume_update_fork_data(kvfs_volume* volume, std::uint32_t cnid, const HFSPlusForkData* fork_data) {
  HFSPlusForkData* const slot = kvfs_volume_header_fork_data(volume->header, cnid);
  if (slot == nullptr) {
    // Q-volume-3. Without a line feed, so that the next message goes on in the same line: Q-log-2.
    KVFS_CRITICAL("Unexpected catalog node ID for volume header file: %lu", to_ul(cnid));
    return;
  }
  std::memmove(slot, fork_data, sizeof(*slot));  // X-volume-2: it may be the slot itself
}

// Adds in unsigned arithmetic; taking away is adding the complement. Nothing stops at the ends (Q-volume-2).
static void add_to(kvfs_be32* field, std::uint32_t amount) {
  field->set(field->get() + amount);
}

void kvfs_volume_add_file_count(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->fileCount, amount);
}

void kvfs_volume_subtract_file_count(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->fileCount, 0U - amount);
}

void kvfs_volume_add_folder_count(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->folderCount, amount);
}

void kvfs_volume_subtract_folder_count(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->folderCount, 0U - amount);
}

void kvfs_volume_add_free_blocks(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->freeBlocks, amount);
}

void kvfs_volume_subtract_free_blocks(kvfs_volume* volume, std::uint32_t amount) {
  add_to(&volume->header->freeBlocks, 0U - amount);
}

void kvfs_volume_set_next_allocation(kvfs_volume* volume, std::uint32_t block) {
  volume->header->nextAllocation.set(block);
}

void kvfs_volume_increment_next_catalog_id(kvfs_volume* volume) {
  add_to(&volume->header->nextCatalogID, 1);
}
