// Where the volume header in memory describes the special files.

#ifndef KVFS_BASE_FORK_DATA_H
#define KVFS_BASE_FORK_DATA_H

#include <cstdint>

#include "format.h"

// The fork data of a special file, by its catalog node ID; null for any other ID.
HFSPlusForkData* kvfs_volume_header_fork_data(HFSPlusVolumeHeader* header, std::uint32_t cnid);

#endif  // KVFS_BASE_FORK_DATA_H
