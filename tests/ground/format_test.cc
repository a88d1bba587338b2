// The structures on disk: sizes, offsets and byte order.

#include "format.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// ---- Field types ---------------------------------------------------------------------------------------------------

TEST(ReverseBytes, EachWidth_ComesOutMirrored) {
  EXPECT_EQ(kvfs_reverse_bytes(std::uint16_t{0x0102}), 0x0201);
  EXPECT_EQ(kvfs_reverse_bytes(std::uint32_t{0x01020304}), 0x04030201u);
  EXPECT_EQ(kvfs_reverse_bytes(std::uint64_t{0x0102030405060708}), 0x0807060504030201u);
}

TEST(SwapBigEndian, HostOrder_DecidesWhetherBytesMove) {
  const bool big = std::endian::native == std::endian::big;
  EXPECT_EQ(kvfs_swap_big_endian(std::uint16_t{0x0102}), big ? 0x0102 : 0x0201);
  EXPECT_EQ(kvfs_swap_big_endian(std::uint32_t{0x01020304}), big ? 0x01020304u : 0x04030201u);
}

TEST(BigEndianField, KnownBytes_ReadMostSignificantFirst) {
  EXPECT_EQ((kvfs_be16{{0x48, 0x2B}}).get(), kHFSPlusSigWord);
  EXPECT_EQ((kvfs_be32{{0x80, 0x00, 0x01, 0xFE}}).get(), 0x800001FEu);
  EXPECT_EQ((kvfs_be64{{0xFF, 0, 0, 0, 0, 0, 0, 0x07}}).get(), 0xFF00000000000007u);
}

TEST(BigEndianField, Set_StoresMostSignificantByteFirst) {
  kvfs_be64 wide;
  wide.set(0x0102030405060708);
  const std::array<unsigned char, 8> expected = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(std::memcmp(wide.bytes, expected.data(), expected.size()), 0);
  const kvfs_be16 narrow = kvfs_be16::of(0xFFFE);
  EXPECT_EQ(narrow.bytes[0], 0xFF);
  EXPECT_EQ(narrow.bytes[1], 0xFE);
}

TEST(BigEndianField, EveryUnitOf16Bits_SurvivesSetAndGet) {
  for (std::uint32_t value = 0; value <= 0xFFFF; ++value) {
    ASSERT_EQ(kvfs_be16::of(static_cast<std::uint16_t>(value)).get(), value);
  }
}

template <typename Field, typename Integer>
concept MixesWithIntegers = requires(Field field, Integer integer) {
  field == integer;
}
|| requires(Field field, Integer integer) {
  field + integer;
}
|| std::convertible_to<Field, Integer> || std::convertible_to<Integer, Field>;

TEST(BigEndianField, ComparedWithAnInteger_DoesNotCompile) {
  EXPECT_FALSE((MixesWithIntegers<kvfs_be16, std::uint16_t>));
  EXPECT_FALSE((MixesWithIntegers<kvfs_be32, std::uint32_t>));
  EXPECT_FALSE((MixesWithIntegers<kvfs_be64, std::uint64_t>));
}

TEST(ViewAs, OddAddress_ReadsAndChangesTheFieldsInPlace) {
  std::array<unsigned char, sizeof(HFSPlusVolumeHeader) + 1> buffer = {};
  buffer[1] = 0x48;
  buffer[2] = 0x58;
  buffer[1 + 272 + 7] = 9;  // last byte of catalogFile.logicalSize
  const HFSPlusVolumeHeader* const header =
      kvfs_view_as<HFSPlusVolumeHeader>(static_cast<const void*>(buffer.data() + 1));
  EXPECT_EQ(header->signature.get(), kHFSXSigWord);
  EXPECT_EQ(header->catalogFile.logicalSize.get(), 9u);
  kvfs_view_as<HFSPlusVolumeHeader>(static_cast<void*>(buffer.data() + 1))->nextCatalogID.set(0x01020304);
  EXPECT_EQ(buffer[1 + 64], 1);
  EXPECT_EQ(buffer[1 + 67], 4);
}

// ---- Places of the fields ------------------------------------------------------------------------------------------

#define EXPECT_FIELD(structure, field, offset, size)                       \
  EXPECT_EQ(offsetof(structure, field), static_cast<std::size_t>(offset)); \
  EXPECT_EQ(sizeof(structure::field), static_cast<std::size_t>(size))

TEST(VolumeHeader, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusVolumeHeader, signature, 0, 2);
  EXPECT_FIELD(HFSPlusVolumeHeader, version, 2, 2);
  EXPECT_FIELD(HFSPlusVolumeHeader, attributes, 4, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, lastMountedVersion, 8, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, journalInfoBlock, 12, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, createDate, 16, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, modifyDate, 20, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, backupDate, 24, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, checkedDate, 28, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, fileCount, 32, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, folderCount, 36, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, blockSize, 40, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, totalBlocks, 44, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, freeBlocks, 48, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, nextAllocation, 52, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, rsrcClumpSize, 56, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, dataClumpSize, 60, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, nextCatalogID, 64, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, writeCount, 68, 4);
  EXPECT_FIELD(HFSPlusVolumeHeader, encodingsBitmap, 72, 8);
  EXPECT_FIELD(HFSPlusVolumeHeader, finderInfo, 80, 32);
  EXPECT_FIELD(HFSPlusVolumeHeader, allocationFile, 112, 80);
  EXPECT_FIELD(HFSPlusVolumeHeader, extentsFile, 192, 80);
  EXPECT_FIELD(HFSPlusVolumeHeader, catalogFile, 272, 80);
  EXPECT_FIELD(HFSPlusVolumeHeader, attributesFile, 352, 80);
  EXPECT_FIELD(HFSPlusVolumeHeader, startupFile, 432, 80);
  EXPECT_EQ(sizeof(HFSPlusVolumeHeader), 512u);
}

TEST(ForkData, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusForkData, logicalSize, 0, 8);
  EXPECT_FIELD(HFSPlusForkData, clumpSize, 8, 4);
  EXPECT_FIELD(HFSPlusForkData, totalBlocks, 12, 4);
  EXPECT_FIELD(HFSPlusForkData, extents, 16, 64);
  EXPECT_FIELD(HFSPlusExtentDescriptor, startBlock, 0, 4);
  EXPECT_FIELD(HFSPlusExtentDescriptor, blockCount, 4, 4);
  EXPECT_FIELD(HFSPlusExtentKey, keyLength, 0, 2);
  EXPECT_FIELD(HFSPlusExtentKey, forkType, 2, 1);
  EXPECT_FIELD(HFSPlusExtentKey, pad, 3, 1);
  EXPECT_FIELD(HFSPlusExtentKey, fileID, 4, 4);
  EXPECT_FIELD(HFSPlusExtentKey, startBlock, 8, 4);
}

TEST(BTreeStructures, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(BTNodeDescriptor, fLink, 0, 4);
  EXPECT_FIELD(BTNodeDescriptor, bLink, 4, 4);
  EXPECT_FIELD(BTNodeDescriptor, kind, 8, 1);
  EXPECT_FIELD(BTNodeDescriptor, height, 9, 1);
  EXPECT_FIELD(BTNodeDescriptor, numRecords, 10, 2);
  EXPECT_FIELD(BTHeaderRec, treeDepth, 0, 2);
  EXPECT_FIELD(BTHeaderRec, rootNode, 2, 4);
  EXPECT_FIELD(BTHeaderRec, leafRecords, 6, 4);
  EXPECT_FIELD(BTHeaderRec, firstLeafNode, 10, 4);
  EXPECT_FIELD(BTHeaderRec, lastLeafNode, 14, 4);
  EXPECT_FIELD(BTHeaderRec, nodeSize, 18, 2);
  EXPECT_FIELD(BTHeaderRec, maxKeyLength, 20, 2);
  EXPECT_FIELD(BTHeaderRec, totalNodes, 22, 4);
  EXPECT_FIELD(BTHeaderRec, freeNodes, 26, 4);
  EXPECT_FIELD(BTHeaderRec, clumpSize, 32, 4);
  EXPECT_FIELD(BTHeaderRec, btreeType, 36, 1);
  EXPECT_FIELD(BTHeaderRec, keyCompareType, 37, 1);
  EXPECT_FIELD(BTHeaderRec, attributes, 38, 4);
  EXPECT_EQ(sizeof(BTHeaderRec), 106u);
}

TEST(CatalogKey, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusCatalogKey, keyLength, 0, 2);
  EXPECT_FIELD(HFSPlusCatalogKey, parentID, 2, 4);
  EXPECT_FIELD(HFSPlusCatalogKey, nodeName, 6, 512);
  EXPECT_FIELD(HFSUniStr255, length, 0, 2);
  EXPECT_FIELD(HFSUniStr255, unicode, 2, 510);
}

TEST(CatalogFolder, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusCatalogFolder, recordType, 0, 2);
  EXPECT_FIELD(HFSPlusCatalogFolder, flags, 2, 2);
  EXPECT_FIELD(HFSPlusCatalogFolder, valence, 4, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, folderID, 8, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, createDate, 12, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, contentModDate, 16, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, attributeModDate, 20, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, accessDate, 24, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, backupDate, 28, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, permissions, 32, 16);
  EXPECT_FIELD(HFSPlusCatalogFolder, userInfo, 48, 16);
  EXPECT_FIELD(HFSPlusCatalogFolder, finderInfo, 64, 16);
  EXPECT_FIELD(HFSPlusCatalogFolder, textEncoding, 80, 4);
  EXPECT_FIELD(HFSPlusCatalogFolder, folderCount, 84, 4);
}

TEST(CatalogFile, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusCatalogFile, recordType, 0, 2);
  EXPECT_FIELD(HFSPlusCatalogFile, flags, 2, 2);
  EXPECT_FIELD(HFSPlusCatalogFile, fileID, 8, 4);
  EXPECT_FIELD(HFSPlusCatalogFile, createDate, 12, 4);
  EXPECT_FIELD(HFSPlusCatalogFile, backupDate, 28, 4);
  EXPECT_FIELD(HFSPlusCatalogFile, permissions, 32, 16);
  EXPECT_FIELD(HFSPlusCatalogFile, userInfo, 48, 16);
  EXPECT_FIELD(HFSPlusCatalogFile, finderInfo, 64, 16);
  EXPECT_FIELD(HFSPlusCatalogFile, textEncoding, 80, 4);
  EXPECT_FIELD(HFSPlusCatalogFile, dataFork, 88, 80);
  EXPECT_FIELD(HFSPlusCatalogFile, resourceFork, 168, 80);
  EXPECT_FIELD(HFSPlusBSDInfo, ownerID, 0, 4);
  EXPECT_FIELD(HFSPlusBSDInfo, groupID, 4, 4);
  EXPECT_FIELD(HFSPlusBSDInfo, adminFlags, 8, 1);
  EXPECT_FIELD(HFSPlusBSDInfo, ownerFlags, 9, 1);
  EXPECT_FIELD(HFSPlusBSDInfo, fileMode, 10, 2);
  EXPECT_FIELD(HFSPlusBSDInfo, special, 12, 4);
  EXPECT_FIELD(FndrFileInfo, fdType, 0, 4);
  EXPECT_FIELD(FndrFileInfo, fdCreator, 4, 4);
  EXPECT_FIELD(FndrFileInfo, fdFlags, 8, 2);
}

TEST(CatalogThread, EveryField_LiesAtItsPublishedPlace) {
  EXPECT_FIELD(HFSPlusCatalogThread, recordType, 0, 2);
  EXPECT_FIELD(HFSPlusCatalogThread, reserved, 2, 2);
  EXPECT_FIELD(HFSPlusCatalogThread, parentID, 4, 4);
  EXPECT_FIELD(HFSPlusCatalogThread, nodeName, 8, 512);
  EXPECT_EQ(kHFSPlusCatalogThreadNameOffset, 10u);
}

TEST(HeaderNode, SizeOfItsMapRecord_FollowsFromTheNodeSize) {
  // Descriptor, header record, 128 bytes of user data, and the offsets of three records and of the free space.
  EXPECT_EQ(kBTHeaderNodeOverhead, 14u + 106u + 128u + 4u * 2u);
  EXPECT_EQ(kBTHeaderRecordOffset, 14u);
  EXPECT_EQ(kBTHeaderEnd, 120u);
}

}  // namespace
