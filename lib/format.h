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

// Reverses the two bytes of an integer; std::byteswap comes only with a later standard.
inline std::uint16_t kvfs_reverse_bytes(std::uint16_t value) {
  return __builtin_bswap16(value);
}

// Reverses the four bytes of an integer.
inline std::uint32_t kvfs_reverse_bytes(std::uint32_t value) {
  return __builtin_bswap32(value);
}

// Reverses the eight bytes of an integer.
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

  unsigned char bytes[sizeof(Integer)];  // the most significant one first

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

using kvfs_be16 = kvfs_big_endian<std::uint16_t>;  // two bytes: a name's length, a kind of record, an offset in a node
using kvfs_be32 = kvfs_big_endian<std::uint32_t>;  // four bytes: a block or node number, a catalog node ID, a date
using kvfs_be64 = kvfs_big_endian<std::uint64_t>;  // eight bytes: the size of a fork

// Reads a buffer as an on-disk structure. The caller has checked that the buffer holds sizeof(Structure) bytes.
template <typename Structure>
const Structure* kvfs_view_as(const void* bytes) {
  static_assert(alignof(Structure) == 1 && std::is_trivially_copyable_v<Structure>);
  return static_cast<const Structure*>(bytes);
}

// Reads and changes a buffer as an on-disk structure, on the same terms.
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
  kvfs_be32 startBlock;  // first allocation block of the run, counted from the start of the volume
  kvfs_be32 blockCount;  // allocation blocks; 0 when the descriptor is not used
};
KVFS_CHECK_LAYOUT(HFSPlusExtentDescriptor, 8, blockCount, 4);

// Descriptors in a fork data and in a record of the extents overflow file.
inline constexpr std::uint32_t kHFSPlusExtentDensity = 8;

// Extents that follow each other in a fork: its first eight in the fork data, eight more in each record of the extents
// overflow file. The first unused descriptor ends them.
struct HFSPlusExtentRecord {
  HFSPlusExtentDescriptor extents[kHFSPlusExtentDensity];  // in the fork's order, unused ones last
};
KVFS_CHECK_LAYOUT(HFSPlusExtentRecord, 64, extents, 0);

// Size and first extents of a fork.
struct HFSPlusForkData {
  kvfs_be64 logicalSize;        // bytes of content; the rest of the last allocation block is not part of the fork
  kvfs_be32 clumpSize;          // bytes by which the fork grows; 0 leaves that to the volume's default
  kvfs_be32 totalBlocks;        // allocation blocks in all extents, those in the extents overflow file included
  HFSPlusExtentRecord extents;  // the first eight; more are in the extents overflow file
};
KVFS_CHECK_LAYOUT(HFSPlusForkData, 80, extents, 16);

// The volume header lies 1024 bytes into the volume and ends with its sector.
inline constexpr std::uint32_t kVolumeHeaderOffset = 1024;  // bytes of the volume in front of the header
inline constexpr std::uint32_t kVolumeHeaderSize = 512;     // bytes of the header: a whole sector of the smallest size

// What a volume header begins with.
inline constexpr std::uint16_t kHFSPlusSigWord = 0x482B;  // "H+": an HFS Plus volume
inline constexpr std::uint16_t kHFSXSigWord = 0x4858;     // "HX": an HFSX volume, whose names may be case-sensitive

// Says how large the volume is, what is on it and where its special files lie. A copy, the alternate volume header,
// lies 1024 bytes before the end of the volume.
//
// A date counts seconds from the beginning of 1904, in UTC except for the volume's own createDate; 0 says that what it
// dates has not happened.
struct HFSPlusVolumeHeader {
  kvfs_be16 signature;           // kHFSPlusSigWord or kHFSXSigWord
  kvfs_be16 version;             // of the format: 4 on HFS Plus, 5 on HFSX
  kvfs_be32 attributes;          // bits, such as 0x100 unmounted properly, 0x800 in use, 0x2000 has a journal
  kvfs_be32 lastMountedVersion;  // four characters for the implementation that mounted the volume for writing last
  kvfs_be32 journalInfoBlock;    // allocation block that says where the journal is; holds when the volume has one
  kvfs_be32 createDate;          // when the volume was made, in local time
  kvfs_be32 modifyDate;          // when anything on the volume changed last
  kvfs_be32 backupDate;          // when the volume was backed up last
  kvfs_be32 checkedDate;         // when its consistency was checked last
  kvfs_be32 fileCount;           // files in the catalog; the special files are not counted
  kvfs_be32 folderCount;         // folders in the catalog, the root folder not counted
  kvfs_be32 blockSize;           // bytes in an allocation block: a power of two, at least 512
  kvfs_be32 totalBlocks;         // allocation blocks on the volume
  kvfs_be32 freeBlocks;          // allocation blocks not in use
  kvfs_be32 nextAllocation;      // allocation block from which to search for free ones; a hint
  kvfs_be32 rsrcClumpSize;       // bytes by which resource forks grow that have no clump size of their own
  kvfs_be32 dataClumpSize;       // the same for data forks
  kvfs_be32 nextCatalogID;       // catalog node ID for the next new item, at least 16: those below are set aside
  kvfs_be32 writeCount;          // grows with each mount, which shows that a removable medium was used elsewhere
  kvfs_be64 encodingsBitmap;     // one bit for each text encoding that some name on the volume was made with
  // Catalog node IDs of folders: 0 to boot from, 1 of the program to start, 2 to show after mounting, 3 and 5 to boot
  // other systems from; 0 for none. Word 4 is reserved; 6 and 7 identify the volume.
  kvfs_be32 finderInfo[8];
  HFSPlusForkData allocationFile;  // one bit for each allocation block
  HFSPlusForkData extentsFile;     // extents overflow file: extents of forks that have more than eight
  HFSPlusForkData catalogFile;     // files and folders
  HFSPlusForkData attributesFile;  // named attributes of files and folders; no blocks when there are none
  HFSPlusForkData startupFile;     // for systems that boot from the volume without reading its catalog
};
KVFS_CHECK_LAYOUT(HFSPlusVolumeHeader, kVolumeHeaderSize, startupFile, 432);
static_assert(offsetof(HFSPlusVolumeHeader, blockSize) == 40 && offsetof(HFSPlusVolumeHeader, nextCatalogID) == 64);
static_assert(offsetof(HFSPlusVolumeHeader, finderInfo) == 80 && offsetof(HFSPlusVolumeHeader, allocationFile) == 112);
static_assert(offsetof(HFSPlusVolumeHeader, extentsFile) == 192 && offsetof(HFSPlusVolumeHeader, catalogFile) == 272);
static_assert(offsetof(HFSPlusVolumeHeader, attributesFile) == 352);

// Bit of a journal's flags: it lies on the volume, and not on another device.
inline constexpr std::uint32_t kJournalOnVolume = 0x1;

// Where the journal of a volume lies; the volume header names the block that begins with this.
struct JournalInfoBlock {
  kvfs_be32 flags;               // kJournalOnVolume; 0x2 on another device; 0x4 yet to be made
  kvfs_be32 deviceSignature[8];  // names the other device
  kvfs_be64 offset;              // of the journal, in bytes from the beginning of the volume or device
  kvfs_be64 size;                // of the journal in bytes
  kvfs_be32 reserved[32];        // 0
};
KVFS_CHECK_LAYOUT(JournalInfoBlock, 180, reserved, 52);

// ---- Catalog node IDs ----------------------------------------------------------------------------------------------

// A catalog node ID names a file or folder for as long as it exists. Those below 16 are set aside; 5 stands for blocks
// that cannot be used. The special files have no records in the catalog: their fork data is in the volume header.
inline constexpr std::uint32_t kHFSRootParentID = 1;      // names the root folder's parent, which has no record
inline constexpr std::uint32_t kHFSRootFolderID = 2;      // root folder, whose name is the volume's label
inline constexpr std::uint32_t kHFSExtentsFileID = 3;     // extents overflow file: the ninth extent and beyond
inline constexpr std::uint32_t kHFSCatalogFileID = 4;     // catalog file: files and folders
inline constexpr std::uint32_t kHFSAllocationFileID = 6;  // allocation file: one bit for each allocation block
inline constexpr std::uint32_t kHFSStartupFileID = 7;     // startup file: what some systems boot from
inline constexpr std::uint32_t kHFSAttributesFileID = 8;  // attributes file: named attributes of files and folders

// ---- B-trees -------------------------------------------------------------------------------------------------------

// Kinds of node. The field is a signed byte.
inline constexpr std::int8_t kBTLeafNode = -1;    // holds the records that the tree is for
inline constexpr std::uint8_t kBTLeafHeight = 1;  // of leaves; index nodes are above
inline constexpr std::int8_t kBTIndexNode = 0;    // holds, for each node below it, its first key and its number
inline constexpr std::int8_t kBTHeaderNode = 1;   // node 0: describes the tree and begins the map of used nodes
inline constexpr std::int8_t kBTMapNode = 2;      // goes on with that map where the header node has no more room

// Begins every node.
struct BTNodeDescriptor {
  kvfs_be32 fLink;       // next node of this kind and level, 0 for none
  kvfs_be32 bLink;       // previous node of this kind and level, 0 for none
  std::int8_t kind;      // kBTLeafNode, kBTIndexNode, kBTHeaderNode or kBTMapNode
  std::uint8_t height;   // level: 1 for leaves, the tree's depth for the root, 0 for header and map nodes
  kvfs_be16 numRecords;  // records in the node
  kvfs_be16 reserved;    // 0
};
KVFS_CHECK_LAYOUT(BTNodeDescriptor, 14, reserved, 12);

// Record 0 of the header node, right behind its descriptor.
struct BTHeaderRec {
  kvfs_be16 treeDepth;          // levels, which is the height of the root; 0 for a tree without records
  kvfs_be32 rootNode;           // node number; 0 for a tree without records
  kvfs_be32 leafRecords;        // records in all leaves
  kvfs_be32 firstLeafNode;      // node number of the leaf with the smallest keys; 0 for a tree without records
  kvfs_be32 lastLeafNode;       // node number of the leaf with the largest keys; 0 for a tree without records
  kvfs_be16 nodeSize;           // bytes: a power of two from 512 to 32768
  kvfs_be16 maxKeyLength;       // bytes, without the length field
  kvfs_be32 totalNodes;         // nodes in the file, used or free
  kvfs_be32 freeNodes;          // nodes not in use
  kvfs_be16 reserved1;          // 0
  kvfs_be32 clumpSize;          // bytes; the one in the fork data counts
  std::uint8_t btreeType;       // kHFSBTreeType
  std::uint8_t keyCompareType;  // order of names in the catalog: kHFSCaseFolding or kHFSBinaryCompare
  kvfs_be32 attributes;         // bits: kBTBigKeysMask, kBTVariableIndexKeysMask
  kvfs_be32 reserved3[16];      // 0
};
KVFS_CHECK_LAYOUT(BTHeaderRec, 106, reserved3, 42);
static_assert(offsetof(BTHeaderRec, nodeSize) == 18 && offsetof(BTHeaderRec, attributes) == 38);

// Values and bits of a header record.
inline constexpr std::uint8_t kHFSBTreeType = 0;         // a tree of the file system, not of a program
inline constexpr std::uint8_t kHFSCaseFolding = 0xCF;    // names that differ in case alone are equal
inline constexpr std::uint8_t kHFSBinaryCompare = 0xBC;  // names are compared unit by unit; on HFSX only
inline constexpr std::uint32_t kBTBigKeysMask = 0x2;     // keys begin with a length of two bytes: all of HFS Plus do
inline constexpr std::uint32_t kBTVariableIndexKeysMask = 0x4;  // keys in index nodes are of different lengths

// The header node has three records: the header record, 128 bytes of user data and the map record. Together with the
// descriptor and the four entries of its offset table they leave the map record nodeSize - 256 bytes.
inline constexpr std::uint16_t kBTHeaderNodeRecords = 3;                          // records in the node
inline constexpr std::uint32_t kBTHeaderRecordOffset = sizeof(BTNodeDescriptor);  // bytes to the header record
inline constexpr std::uint32_t kBTHeaderEnd = sizeof(BTNodeDescriptor) + sizeof(BTHeaderRec);  // bytes to the user data
inline constexpr std::uint32_t kBTHeaderMapOffset = kBTHeaderEnd + 128;  // bytes to the map record
inline constexpr std::uint32_t kBTHeaderNodeOverhead = 256;              // bytes without the map
static_assert(kBTHeaderMapOffset + 4 * sizeof(kvfs_be16) == kBTHeaderNodeOverhead);

// Bytes from a node's start to its record 0, which lies right behind the descriptor.
inline constexpr std::uint16_t kBTFirstRecordOffset = sizeof(BTNodeDescriptor);

// ---- Extents overflow file -----------------------------------------------------------------------------------------

// Which of a file's two forks an extent key is about.
inline constexpr std::uint8_t kHFSDataForkType = 0x00;      // the file's content
inline constexpr std::uint8_t kHFSResourceForkType = 0xFF;  // structured data that belongs to the file

// Key of a record of eight extents. Records are in the order of fileID, forkType and startBlock.
struct HFSPlusExtentKey {
  kvfs_be16 keyLength;    // bytes behind this field: kHFSPlusExtentKeyLength
  std::uint8_t forkType;  // kHFSDataForkType or kHFSResourceForkType
  std::uint8_t pad;       // 0
  kvfs_be32 fileID;       // catalog node ID of the file
  kvfs_be32 startBlock;   // first allocation block that the record describes, counted from the start of the fork
};
KVFS_CHECK_LAYOUT(HFSPlusExtentKey, 12, startBlock, 8);

// Bytes in each extent key, without the length field.
inline constexpr std::uint16_t kHFSPlusExtentKeyLength = sizeof(HFSPlusExtentKey) - sizeof(kvfs_be16);

// ---- Catalog -------------------------------------------------------------------------------------------------------

// Longest file, folder and volume name, in UTF-16 units.
inline constexpr std::uint16_t kHFSPlusMaxNameLength = 255;

// A name as stored: canonically decomposed UTF-16. Records hold only the units that the name has.
struct HFSUniStr255 {
  kvfs_be16 length;                          // units, 0 to 255
  kvfs_be16 unicode[kHFSPlusMaxNameLength];  // the units; no zero ends them
};
KVFS_CHECK_LAYOUT(HFSUniStr255, 512, unicode, 2);

// Key of a catalog record. Records are in the order of parentID, then of nodeName, so that a folder's thread record
// and its items follow each other.
struct HFSPlusCatalogKey {
  kvfs_be16 keyLength;    // bytes behind this field: 6 + 2 x name length
  kvfs_be32 parentID;     // folder that holds the item; in a thread's key the item itself
  HFSUniStr255 nodeName;  // the item's name; empty in a thread's key
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogKey, 518, nodeName, 6);

// A key with an empty name, such as a thread's.
inline constexpr std::uint16_t kHFSPlusCatalogKeyMinimumLength = 6;  // keyLength of such a key, the least that is valid
inline constexpr std::uint32_t kHFSPlusCatalogKeyParentEnd = 6;      // bytes of any such key that hold its parentID
inline constexpr std::uint32_t kHFSPlusCatalogKeyNameOffset = 8;     // bytes of such a key; the units of any begin here
static_assert(offsetof(HFSPlusCatalogKey, nodeName) == kHFSPlusCatalogKeyParentEnd);
static_assert(offsetof(HFSPlusCatalogKey, nodeName) + offsetof(HFSUniStr255, unicode) == kHFSPlusCatalogKeyNameOffset);

// Record types: the first two bytes of every catalog record.
inline constexpr std::uint16_t kHFSPlusFolderRecord = 1;        // the record is an HFSPlusCatalogFolder
inline constexpr std::uint16_t kHFSPlusFileRecord = 2;          // the record is an HFSPlusCatalogFile
inline constexpr std::uint16_t kHFSPlusFolderThreadRecord = 3;  // the record is an HFSPlusCatalogThread, of a folder
inline constexpr std::uint16_t kHFSPlusFileThreadRecord = 4;    // the record is an HFSPlusCatalogThread, of a file

// Bits in the flags of a file or folder record.
inline constexpr std::uint16_t kHFSHasFolderCountMask = 0x1000;  // folder: folderCount is kept
inline constexpr std::uint16_t kHFSHasLinkChainMask = 0x0020;    // file: part of a chain of hard links

// Owner and permissions as POSIX systems have them. They hold when fileMode is not 0.
struct HFSPlusBSDInfo {
  kvfs_be32 ownerID;        // user ID
  kvfs_be32 groupID;        // group ID
  std::uint8_t adminFlags;  // bits that only an administrator changes: 1 archived, 2 immutable, 4 only appended to
  std::uint8_t ownerFlags;  // bits that the owner changes: 1 not dumped, 2 immutable, 4 only appended to, 8 opaque
  kvfs_be16 fileMode;       // kind of file and permission bits, as in st_mode
  kvfs_be32 special;        // hard link: link reference; file that links stand for: their number; device: its number
};
KVFS_CHECK_LAYOUT(HFSPlusBSDInfo, 16, special, 12);

// Record of a folder, stored under (folder that holds it, name). Dates as in the volume header, all in UTC.
struct HFSPlusCatalogFolder {
  kvfs_be16 recordType;          // kHFSPlusFolderRecord
  kvfs_be16 flags;               // bits, such as kHFSHasFolderCountMask
  kvfs_be32 valence;             // items in the folder itself, those in its child folders not counted
  kvfs_be32 folderID;            // catalog node ID of the folder, such as kHFSRootFolderID
  kvfs_be32 createDate;          // when the folder was made
  kvfs_be32 contentModDate;      // when an item was made, deleted, moved in or moved out last
  kvfs_be32 attributeModDate;    // when anything in this record changed last
  kvfs_be32 accessDate;          // when the folder's content was read last
  kvfs_be32 backupDate;          // when the folder was backed up last
  HFSPlusBSDInfo permissions;    // owner and permissions of the folder itself
  unsigned char userInfo[16];    // how the folder is shown: its window's place, flags, its icon's place, kind of view
  unsigned char finderInfo[16];  // more of the same: how far its window is scrolled, further flags
  kvfs_be32 textEncoding;        // text encoding that the name was made with; a hint for systems without Unicode
  kvfs_be32 folderCount;         // child folders, kept when flags has kHFSHasFolderCountMask
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogFolder, 88, folderCount, 84);

// What a file is to the desktop. Type and creator also mark hard links and symbolic links.
struct FndrFileInfo {
  kvfs_be32 fdType;     // file type, four characters
  kvfs_be32 fdCreator;  // creator, four characters
  kvfs_be16 fdFlags;    // bits, such as 0x0400 has its own icon, 0x1000 name locked, 0x4000 invisible
  unsigned char fdLocationAndReserved[6];  // the icon's place, two signed 16-bit coordinates; then a reserved word
};
KVFS_CHECK_LAYOUT(FndrFileInfo, 16, fdLocationAndReserved, 10);

// Record of a file, stored under (folder that holds it, name). Dates as in the volume header, all in UTC.
struct HFSPlusCatalogFile {
  kvfs_be16 recordType;          // kHFSPlusFileRecord
  kvfs_be16 flags;               // bits: 0x1 locked, 0x2 has a thread record, as every file has; kHFSHasLinkChainMask
  kvfs_be32 reserved1;           // 0
  kvfs_be32 fileID;              // catalog node ID of the file, at least 16
  kvfs_be32 createDate;          // when the file was made
  kvfs_be32 contentModDate;      // when one of its forks changed last
  kvfs_be32 attributeModDate;    // when anything in this record changed last
  kvfs_be32 accessDate;          // when the file's content was read last
  kvfs_be32 backupDate;          // when the file was backed up last
  HFSPlusBSDInfo permissions;    // in a hard link its `special` is the link reference
  FndrFileInfo userInfo;         // file type and creator, how the file is shown
  unsigned char finderInfo[16];  // more on how the file is shown
  kvfs_be32 textEncoding;        // text encoding that the name was made with; a hint for systems without Unicode
  kvfs_be32 reserved2;           // 0
  HFSPlusForkData dataFork;      // the file's content; of a symbolic link: its target
  HFSPlusForkData resourceFork;  // structured data that belongs to the file
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogFile, 248, resourceFork, 168);
static_assert(offsetof(HFSPlusCatalogFile, userInfo) == 48 && offsetof(HFSPlusCatalogFile, dataFork) == 88);

// Stored under the key (item, empty name); leads to the item's own record.
struct HFSPlusCatalogThread {
  kvfs_be16 recordType;   // kHFSPlusFolderThreadRecord or kHFSPlusFileThreadRecord
  kvfs_be16 reserved;     // 0
  kvfs_be32 parentID;     // folder that holds the item
  HFSUniStr255 nodeName;  // the item's name; with parentID it makes the key of the item's own record
};
KVFS_CHECK_LAYOUT(HFSPlusCatalogThread, 520, nodeName, 8);

// Bytes of a thread record with an empty name; in any thread record the units begin here.
inline constexpr std::uint32_t kHFSPlusCatalogThreadNameOffset = 10;

#endif  // KVFS_FORMAT_H
