// Where the volume header in memory describes the special files.

#include "base/fork_data.h"

HFSPlusForkData* kvfs_volume_header_fork_data(HFSPlusVolumeHeader* header, std::uint32_t cnid) {
  switch (cnid) {
    case kHFSExtentsFileID:
      return &header->extentsFile;
    case kHFSCatalogFileID:
      return &header->catalogFile;
    case kHFSAllocationFileID:
      return &header->allocationFile;
    case kHFSStartupFileID:
      return &header->startupFile;
    case kHFSAttributesFileID:
      return &header->attributesFile;
    default:
      return nullptr;
  }
}
