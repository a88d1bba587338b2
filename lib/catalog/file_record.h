// File records: sizes and hard links.

#ifndef KVFS_CATALOG_FILE_RECORD_H
#define KVFS_CATALOG_FILE_RECORD_H

#include <cstdint>

namespace kvfs::catalog {

inline constexpr std::uint32_t kSymLinkType = 0x736C6E6B;  // 'slnk'

inline constexpr std::uint32_t kSymLinkCreator = 0x72686170;  // 'rhap'

inline constexpr std::uint16_t kSymLinkFinderFlags = 0x8000;  // it is shown as an alias

inline constexpr std::uint16_t kSymLinkFileMode = 0xA1FF;  // a symbolic link with all permissions

}  // namespace kvfs::catalog

#endif  // KVFS_CATALOG_FILE_RECORD_H
