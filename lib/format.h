// On-disk structures of an HFS Plus volume, as published with the HFS Plus volume format.
//
// Every multi-byte value on disk is big-endian, and structures lie at any byte offset of a node or sector. The field
// types below are therefore arrays of bytes with an alignment of 1: a structure can be laid over a buffer wherever it
// starts, and a field is read with get() and changed with set(). Compilers turn both into one load or store and a swap.

#ifndef KVFS_FORMAT_H
#define KVFS_FORMAT_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// ---- Field types ---------------------------------------------------------------------------------------------------

// Reverses the bytes of an unsigned integer; std::byteswap comes only with a later standard.
inline std::uint16_t kvfs_reverse_bytes(std::uint16_t value) {
  return __builtin_bswap16(value);
}
inline std::uint32_t kvfs_reverse_bytes(std::uint32_t value) {
  return __builtin_bswap32(value);
}
inline std::uint64_t kvfs_reverse_bytes(std::uint64_t value) {
  return __builtin_bswap64(value);
}

// Converts between big-endian and host order, in either direction.
template <typename Integer>
Integer kvfs_swap_big_endian(Integer value) {
  return std::endian::native == std::endian::big ? value : kvfs_reverse_bytes(value);
}

// An unsigned big-endian integer in `sizeof(Integer)` bytes. It does not convert to an integer by itself, so that a
// comparison that forgets the byte order does not compile.
template <typename Integer>
struct kvfs_big_endian {
  static_assert(std::is_unsigned_v<Integer>);

  unsigned char bytes[sizeof(Integer)];

  // The value in host order.
  Integer get() const {
    Integer value;
    std::memcpy(&value, bytes, sizeof(value));
    return kvfs_swap_big_endian(value);
  }

  // Stores a value given in host order.
  void set(Integer value) {
    const Integer stored = kvfs_swap_big_endian(value);
    std::memcpy(bytes, &stored, sizeof(stored));
  }

  // The field that holds `value`.
  static kvfs_big_endian of(Integer value) {
    kvfs_big_endian field;
    field.set(value);
    return field;
  }
};

using kvfs_be16 = kvfs_big_endian<std::uint16_t>;
using kvfs_be32 = kvfs_big_endian<std::uint32_t>;
using kvfs_be64 = kvfs_big_endian<std::uint64_t>;

// Reads a buffer as an on-disk structure. The caller has checked that the buffer holds sizeof(Structure) bytes.
template <typename Structure>
const Structure* kvfs_view_as(const void* bytes) {
  static_assert(alignof(Structure) == 1 && std::is_trivially_copyable_v<Structure>);
  return static_cast<const Structure*>(bytes);
}
template <typename Structure>
Structure* kvfs_view_as(void* bytes) {
  static_assert(alignof(Structure) == 1 && std::is_trivially_copyable_v<Structure>);
  return static_cast<Structure*>(bytes);
}

// Proves that a structure has its published size, lies at any address and ends with the field where it should.
#define KVFS_CHECK_LAYOUT(structure, size, last_field, last_offset)      \
  static_assert(sizeof(structure) == (size) && alignof(structure) == 1); \
  static_assert(offsetof(structure, last_field) == (last_offset));       \
  static_assert(std::is_standard_layout_v<structure> && std::is_trivially_copyable_v<structure>)

// ---- Volume header -------------------------------------------------------------------------------------------------

// A run of allocation blocks. An unused descriptor is all zero.
struct HFSPlusExtentDescriptor {
  kvfs_be32 startBlock;  // allocation block of the volume
  kvfs_be32 blockCount;  // allocation blocks
};
KVFS_CHECK_LAYOUT(HFSPlusExtentDescriptor, 8, blockCount, 4);

// Descriptors in a fork data and in a record of the extents overflow file.
inline constexpr std::uint32_t kHFSPlusExtentDensity = 8;

struct HFSPlusExtentRecord {
  HFSPlusExtentDescriptor extents[kHFSPlusExtentDensity];
};
KVFS_CHECK_LAYOUT(HFSPlusExtentRecord, 64, extents, 0);

// Size and first extents of a fork.
struct HFSPlusForkData {
  kvfs_be64 logicalSize;        // bytes
  kvfs_be32 clumpSize;          // bytes to grow by
  kvfs_be32 totalBlocks;        // allocation blocks in all extents, those in the extents overflow file included
  HFSPlusExtentRecord extents;  // the first eight
};
KVFS_CHECK_LAYOUT(HFSPlusForkData, 80, extents, 16);

// The volume header lies 1024 bytes into the volume and ends with its sector.
inline constexpr std::uint32_t kVolumeHeaderOffset = 1024;
inline constexpr std::uint32_t kVolumeHeaderSize = 512;

inline constexpr std::uint16_t kHFSPlusSigWord = 0x482B;  // "H+"
inline constexpr std::uint16_t kHFSXSigWord = 0x4858;     // "HX"

struct HFSPlusVolumeHeader {
  kvfs_be16 signature;  // kHFSPlusSigWord or kHFSXSigWord
  kvfs_be16 version;
  kvfs_be32 attributes;
  kvfs_be32 lastMountedVersion;
  kvfs_be32 journalInfoBlock;
  kvfs_be32 createDate;
  kvfs_be32 modifyDate;
  kvfs_be32 backupDate;
  kvfs_be32 checkedDate;
  kvfs_be32 fileCount;
  kvfs_be32 folderCount;
  kvfs_be32 blockSize;    // bytes in an allocation block
  kvfs_be32 totalBlocks;  // allocation blocks on the volume
  kvfs_be32 freeBlocks;   // allocation blocks not in use
  kvfs_be32 nextAllocation;
  kvfs_be32 rsrcClumpSize;
  kvfs_be32 dataClumpSize;
  kvfs_be32 nextCatalogID;
  kvfs_be32 writeCount;
  kvfs_be64 encodingsBitmap;
  kvfs_be32 finderInfo[8];
  HFSPlusForkData allocationFile;
  HFSPlusForkData extentsFile;
  HFSPlusForkData catalogFile;
  HFSPlusForkData attributesFile;
  HFSPlusForkData startupFile;
};
KVFS_CHECK_LAYOUT(HFSPlusVolumeHeader, kVolumeHeaderSize, startupFile, 432);
static_assert(offsetof(HFSPlusVolumeHeader, blockSize) == 40 && offsetof(HFSPlusVolumeHeader, nextCatalogID) == 64);
static_assert(offsetof(HFSPlusVolumeHeader, finderInfo) == 80 && offsetof(HFSPlusVolumeHeader, allocationFile) == 112);
static_assert(offsetof(HFSPlusVolumeHeader, extentsFile) == 192 && offsetof(HFSPlusVolumeHeader, catalogFile) == 272);
static_assert(offsetof(HFSPlusVolumeHeader, attributesFile) == 352);

// ---- Catalog node IDs ----------------------------------------------------------------------------------------------

inline constexpr std::uint32_t kHFSRootParentID = 1;  // names the root folder's parent, which has no record
inline constexpr std::uint32_t kHFSRootFolderID = 2;
inline constexpr std::uint32_t kHFSExtentsFileID = 3;
inline constexpr std::uint32_t kHFSCatalogFileID = 4;
inline constexpr std::uint32_t kHFSAllocationFileID = 6;
inline constexpr std::uint32_t kHFSStartupFileID = 7;
inline constexpr std::uint32_t kHFSAttributesFileID = 8;

// ---- B-trees -------------------------------------------------------------------------------------------------------

// Kinds of node. The field is a signed byte.
inline constexpr std::int8_t kBTLeafNode = -1;
inline constexpr std::int8_t kBTIndexNode = 0;
inline constexpr std::int8_t kBTHeaderNode = 1;
inline constexpr std::int8_t kBTMapNode = 2;

// Begins every node.
struct BTNodeDescriptor {
  kvfs_be32 fLink;       // next node of this kind and level, 0 for none
  kvfs_be32 bLink;       // previous node, 0 for none
  std::int8_t kind;      // one of the kinds above
  std::uint8_t height;   // level: 1 for leaves, the tree's depth for the root
  kvfs_be16 numRecords;  // records in the node
  kvfs_be16 reserved;    // 0
};
KVFS_CHECK_LAYOUT(BTNodeDescriptor, 14, reserved, 12);

// Record 0 of the header node, right behind its descriptor.
struct BTHeaderRec {
  kvfs_be16 treeDepth;      // height of the root
  kvfs_be32 rootNode;       // node number
  kvfs_be32 leafRecords;    // records in all leaves
  kvfs_be32 firstLeafNode;  // node number
  kvfs_be32 lastLeafNode;   // node number
  kvfs_be16 nodeSize;       // bytes
  kvfs_be16 maxKeyLength;   // bytes, without the length field
  kvfs_be32 totalNodes;     // nodes in the file, used or free
  kvfs_be32 freeNodes;      // nodes not in use
  kvfs_be16 reserved1;
  kvfs_be32 clumpSize;          // bytes; the one in the fork data counts
  std::uint8_t btreeType;       // kHFSBTreeType
  std::uint8_t keyCompareType;  // kHFSCaseFolding or kHFSBinaryCompare
  kvfs_be32 attributes;         // bits below
  kvfs_be32 reserved3[16];
};
KVFS_CHECK_LAYOUT(BTHeaderRec, 106, reserved3, 42);
static_assert(offsetof(BTHeaderRec, nodeSize) == 18 && offsetof(BTHeaderRec, attributes) == 38);

inline constexpr std::uint8_t kHFSBTreeType = 0;
inline constexpr std::uint8_t kHFSCaseFolding = 0xCF;
inline constexpr std::uint8_t kHFSBinaryCompare = 0xBC;
inline constexpr std::uint32_t kBTBigKeysMask = 0x2;
inline constexpr std::uint32_t kBTVariableIndexKeysMask = 0x4;

// The header node has three records: the header record, 128 bytes of user data and the map record. Together with the
// descriptor and the four entries of its offset table they leave the map record nodeSize - 256 bytes.
inline constexpr std::uint16_t kBTHeaderNodeRecords = 3;
inline constexpr std::uint32_t kBTHeaderRecordOffset = sizeof(BTNodeDescriptor);
inline constexpr std::uint32_t kBTHeaderEnd = sizeof(BTNodeDescriptor) + sizeof(BTHeaderRec);
inline constexpr std::uint32_t kBTHeaderNodeOverhead = 256;
static_assert(kBTHeaderEnd + 128 + 4 * sizeof(kvfs_be16) == kBTHeaderNodeOverhead);

// Record 0 of every node lies right behind the descriptor.
inline constexpr std::uint16_t kBTFirstRecordOffset = sizeof(BTNodeDescriptor);

// ---- Extents overflow file -----------------------------------------------------------------------------------------

inline constexpr std::uint8_t kHFSDataForkType = 0x00;
inline constexpr std::uint8_t kHFSResourceForkType = 0xFF;

struct HFSPlusExtentKey {
  kvfs_be16 keyLength;    // kHFSPlusExtentKeyLength
  std::uint8_t forkType;  // kHFSDataForkType or kHFSResourceForkType
  std::uint8_t pad;       // 0
  kvfs_be32 fileID;       // catalog node ID
  kvfs_be32 startBlock;   // first allocation block of the fork that the record describes
};
KVFS_CHECK_LAYOUT(HFSPlusExtentKey, 12, startBlock, 8);

inline constexpr std::uint16_t kHFSPlusExtentKeyLength = sizeof(HFSPlusExtentKey) - sizeof(kvfs_be16);

// ---- Catalog -------------------------------------------------------------------------------------------------------

// Longest file, folder and volume name, in UTF-16 units.
inline constexpr std::uint16_t kHFSPlusMaxNameLength = 255;

// A name as stored: canonically decomposed UTF-16. Records hold only the units that the name has.
struct HFSUniStr255 {
  kvfs_be16 length;  // units
  kvfs_be16 unicode[kHFSPlusMaxNameLength];
};
KVFS_CHECK_LAYOUT(HFSUniStr255, 512, unicode, 2);

struct HFSPlusCatalogKey {
  kvfs_be16 keyLength;  // bytes behind this field: 6 + 2 x name length
  kvfs_be32 parentID;   // folder that holds the item; in a thread's key the item itself
  HFSUniStr255 nodeName;
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogKey, 518, nodeName, 6);

// keyLength of a key with an empty name, such as a thread's, and the bytes of such a key.
inline constexpr std::uint16_t kHFSPlusCatalogKeyMinimumLength = 6;
inline constexpr std::uint32_t kHFSPlusCatalogKeyNameOffset = 8;
static_assert(offsetof(HFSPlusCatalogKey, nodeName) + offsetof(HFSUniStr255, unicode) == kHFSPlusCatalogKeyNameOffset);

// Record types: the first two bytes of every catalog record.
inline constexpr std::uint16_t kHFSPlusFolderRecord = 1;
inline constexpr std::uint16_t kHFSPlusFileRecord = 2;
inline constexpr std::uint16_t kHFSPlusFolderThreadRecord = 3;
inline constexpr std::uint16_t kHFSPlusFileThreadRecord = 4;

inline constexpr std::uint16_t kHFSHasFolderCountMask = 0x1000;  // folder flags: folderCount is kept
inline constexpr std::uint16_t kHFSHasLinkChainMask = 0x0020;    // file flags: part of a chain of hard links

struct HFSPlusBSDInfo {
  kvfs_be32 ownerID;
  kvfs_be32 groupID;
  std::uint8_t adminFlags;
  std::uint8_t ownerFlags;
  kvfs_be16 fileMode;
  kvfs_be32 special;  // of a hard link: the link reference
};
KVFS_CHECK_LAYOUT(HFSPlusBSDInfo, 16, special, 12);

struct HFSPlusCatalogFolder {
  kvfs_be16 recordType;  // kHFSPlusFolderRecord
  kvfs_be16 flags;
  kvfs_be32 valence;   // direct children
  kvfs_be32 folderID;  // catalog node ID
  kvfs_be32 createDate;
  kvfs_be32 contentModDate;
  kvfs_be32 attributeModDate;
  kvfs_be32 accessDate;
  kvfs_be32 backupDate;
  HFSPlusBSDInfo permissions;
  unsigned char userInfo[16];
  unsigned char finderInfo[16];
  kvfs_be32 textEncoding;
  kvfs_be32 folderCount;  // child folders, kept when flags has kHFSHasFolderCountMask
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogFolder, 88, folderCount, 84);

struct FndrFileInfo {
  kvfs_be32 fdType;     // file type, four characters
  kvfs_be32 fdCreator;  // creator, four characters
  kvfs_be16 fdFlags;
  unsigned char fdLocationAndReserved[6];
};
KVFS_CHECK_LAYOUT(FndrFileInfo, 16, fdLocationAndReserved, 10);

struct HFSPlusCatalogFile {
  kvfs_be16 recordType;  // kHFSPlusFileRecord
  kvfs_be16 flags;
  kvfs_be32 reserved1;
  kvfs_be32 fileID;  // catalog node ID
  kvfs_be32 createDate;
  kvfs_be32 contentModDate;
  kvfs_be32 attributeModDate;
  kvfs_be32 accessDate;
  kvfs_be32 backupDate;
  HFSPlusBSDInfo permissions;
  FndrFileInfo userInfo;
  unsigned char finderInfo[16];
  kvfs_be32 textEncoding;
  kvfs_be32 reserved2;
  HFSPlusForkData dataFork;
  HFSPlusForkData resourceFork;
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogFile, 248, resourceFork, 168);
static_assert(offsetof(HFSPlusCatalogFile, userInfo) == 48 && offsetof(HFSPlusCatalogFile, dataFork) == 88);

// Stored under the key (item, empty name); leads to the item's own record.
struct HFSPlusCatalogThread {
  kvfs_be16 recordType;  // kHFSPlusFolderThreadRecord or kHFSPlusFileThreadRecord
  kvfs_be16 reserved;    // 0
  kvfs_be32 parentID;    // folder that holds the item
  HFSUniStr255 nodeName;
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogThread, 520, nodeName, 8);

// Bytes of a thread record with an empty name.
inline constexpr std::uint32_t kHFSPlusCatalogThreadNameOffset = 10;

#endif  // KVFS_FORMAT_H
