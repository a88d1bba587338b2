#include "fork_fixture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>

// Takes the place of the lookup in the B-tree: the linker is told to prefer it to the library's.
kvfs_result wrapped_lookup(
    kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block, int* out_found,
    HFSPlusExtentRecord*
        out_record) __asm__("__wrap__Z35kvfs_extents_get_next_extent_recordP12kvfs_extentshjjPiP19HFSPlusExtentRecord");
kvfs_result wrapped_lookup(kvfs_extents* extents, std::uint8_t fork_type, std::uint32_t file_id,
                           std::uint32_t start_block, int* out_found, HFSPlusExtentRecord* out_record) {
  return static_cast<kvfs_test::OverflowFile*>(extents)->look_up(fork_type, file_id, start_block, out_found,
                                                                 out_record);
}

namespace kvfs_test {

HFSPlusExtentRecord extent_record(const std::vector<BlockRun>& extents) {
  HFSPlusExtentRecord record = {};
  for (std::size_t i = 0; i < extents.size() && i < kHFSPlusExtentDensity; ++i) {
    record.extents[i].startBlock.set(extents[i].start);
    record.extents[i].blockCount.set(extents[i].count);
  }
  return record;
}

// ---- Overflow file -------------------------------------------------------------------------------------------------

void OverflowFile::add(std::uint32_t cnid, std::uint32_t start_block, const std::vector<BlockRun>& extents) {
  records_[{cnid, start_block}] = extent_record(extents);
}

kvfs_result OverflowFile::look_up(std::uint8_t fork_type, std::uint32_t cnid, std::uint32_t start_block, int* out_found,
                                  HFSPlusExtentRecord* out_record) {
  lookups_.push_back("type " + std::to_string(fork_type) + " cnid " + std::to_string(cnid) + " block " +
                     std::to_string(start_block));
  if (result_ != kvfs_ok) {
    return result_;
  }
  const auto record = records_.find({cnid, start_block});
  *out_found = record != records_.end() ? 1 : 0;
  if (record != records_.end()) {
    *out_record = record->second;
  }
  return kvfs_ok;
}

// ---- Medium --------------------------------------------------------------------------------------------------------

namespace {

// Extents that lie farther out than any test reads or writes get no bytes in the image file.
constexpr std::uint64_t kLargestImage = 64 * kMiB;
constexpr std::uint64_t kImageFactor = 0x9E3779B97F4A7C15;  // spreads an offset over all bits of the product

std::uint64_t end_of_extents(const ForkShape& shape) {
  std::uint64_t end = 0;
  for (const BlockRun& run : shape.extents) {
    const std::uint64_t run_end = (std::uint64_t{run.start} + run.count) * shape.block_size;
    if (run_end <= kLargestImage) {
      end = std::max(end, run_end);
    }
  }
  return end + 4096;  // room for a sector that reaches over the last extent
}

std::uint32_t sum_of_blocks(const ForkShape& shape) {
  std::uint32_t sum = 0;
  for (const BlockRun& run : shape.extents) {
    sum += run.count;
  }
  return sum;
}

}  // namespace

ForkMedium::ForkMedium(const ForkShape& shape)
    : shape_(shape), image_size_(shape.image_size != 0 ? shape.image_size : end_of_extents(shape)) {
  std::string path = ::testing::TempDir() + "kvfs-fork-XXXXXX";
  fd_ = mkostemp(path.data(), 0);
  EXPECT_GE(fd_, 0);
  unlink(path.c_str());
  const ByteVector bytes = image_bytes(0, static_cast<std::size_t>(image_size_));
  EXPECT_EQ(pwrite(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(kvfs_device_create(fd_, 0, shape_.sector_size, 0, &device_), kvfs_ok);
  header_.blockSize.set(shape_.block_size);
  header_.catalogFile.logicalSize.set(shape_.logical_size);
  header_.catalogFile.totalBlocks.set(shape_.total_blocks.value_or(sum_of_blocks(shape_)));
  header_.catalogFile.extents = extent_record(shape_.extents);
}

ForkMedium::~ForkMedium() {
  kvfs_device_destroy(&device_);
  ::close(fd_);
}

unsigned char ForkMedium::image_byte(std::uint64_t device_offset) {
  return static_cast<unsigned char>(device_offset * kImageFactor >> 56);
}

// Images are made for each case, and tests are not optimised: hence a sum instead of a call for each byte.
ByteVector ForkMedium::image_bytes(std::uint64_t device_offset, std::size_t length) {
  ByteVector bytes(length);
  unsigned char* const first = bytes.data();
  std::uint64_t product = device_offset * kImageFactor;
  for (std::size_t i = 0; i < length; ++i) {
    first[i] = static_cast<unsigned char>(product >> 56);
    product += kImageFactor;
  }
  return bytes;
}

ByteVector ForkMedium::read_image(std::uint64_t device_offset, std::size_t length) const {
  ByteVector bytes(length);
  EXPECT_EQ(pread(fd_, bytes.data(), length, static_cast<off_t>(device_offset)), static_cast<ssize_t>(length));
  return bytes;
}

Lines ForkMedium::changed_ranges() const {
  const off_t size = lseek(fd_, 0, SEEK_END);
  const ByteVector bytes = read_image(0, static_cast<std::size_t>(size));
  Lines ranges;
  if (bytes == image_bytes(0, static_cast<std::size_t>(image_size_))) {
    return ranges;
  }
  for (std::size_t begin = 0; begin < bytes.size();) {
    std::size_t end = begin;
    while (end < bytes.size() && (end >= image_size_ || bytes[end] != image_byte(end))) {
      ++end;
    }
    if (end != begin) {
      ranges.push_back(std::to_string(begin) + " " + std::to_string(end - begin));
    }
    begin = end + 1;
  }
  return ranges;
}

std::uint64_t ForkMedium::device_offset(std::uint64_t fork_offset) const {
  std::uint64_t begin = 0;
  for (const BlockRun& run : shape_.extents) {
    const std::uint64_t length = std::uint64_t{run.count} * shape_.block_size;
    if (fork_offset < begin + length) {
      return std::uint64_t{run.start} * shape_.block_size + (fork_offset - begin);
    }
    begin += length;
  }
  ADD_FAILURE() << "fork offset " << fork_offset << " is in no extent";
  return 0;
}

ByteVector ForkMedium::fork_bytes(std::uint64_t offset, std::size_t length) const {
  ByteVector bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = image_byte(device_offset(offset + i));
  }
  return bytes;
}

ByteVector ForkMedium::changed_bytes(std::uint64_t offset, std::size_t length) const {
  ByteVector bytes = fork_bytes(offset, length);
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(~byte);
  }
  return bytes;
}

// ---- Open fork -----------------------------------------------------------------------------------------------------

OpenFork::OpenFork(const ForkShape& shape) : ForkMedium(shape) {
  EXPECT_EQ(
      kvfs_fork_create(device(), nullptr, 1, header(), kHFSCatalogFileID, fork_data(), shape.transfer_unit, &fork_),
      kvfs_ok);
}

OpenFork::~OpenFork() {
  if (fork_ != nullptr) {
    close();
  }
}

void OpenFork::close() {
  for (std::uint32_t i = 0; i < priv()->items_length; ++i) {
    if (priv()->items[i] != nullptr) {
      priv()->items[i]->references = 0;
    }
  }
  kvfs_fork_destroy(&fork_);
}

namespace {

std::string set_bits(const unsigned char* bitmap, std::size_t size) {
  std::string text = "{";
  for (std::size_t bit = 0; bit < size * 8; ++bit) {
    if ((bitmap[bit / 8] >> (bit % 8) & 1) != 0) {
      text += (text.size() > 1 ? " " : "") + std::to_string(bit);
    }
  }
  return text + "}";
}

std::size_t count_bits(const unsigned char* bitmap, std::size_t size) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < size; ++i) {
    count += static_cast<std::size_t>(std::popcount(bitmap[i]));
  }
  return count;
}

const char* verb_of(Call call) {
  switch (call) {
    case Call::kRwlockRdlock:
      return "read ";
    case Call::kRwlockWrlock:
      return "write ";
    case Call::kRwlockUnlock:
      return "unlock ";
    default:
      return nullptr;
  }
}

}  // namespace

std::string OpenFork::item(std::size_t index) const {
  const kvfs_fork_cache_item* const cached = priv()->items[index];
  if (cached == nullptr) {
    return "none";
  }
  return "refs=" + std::to_string(cached->references) +
         " valid=" + set_bits(cached->valid_bitmap, cached->valid_bitmap_size) +
         " modified=" + set_bits(cached->modification_bitmap, cached->modification_bitmap_size) +
         " dirty=" + std::to_string(cached->dirty_blocks);
}

bool OpenFork::counts_hold() const {
  std::size_t items_with_dirty_blocks = 0;
  for (std::uint32_t i = 0; i < priv()->items_length; ++i) {
    const kvfs_fork_cache_item* const cached = priv()->items[i];
    if (cached == nullptr) {
      continue;
    }
    if (count_bits(cached->modification_bitmap, cached->modification_bitmap_size) != cached->dirty_blocks) {
      return false;
    }
    items_with_dirty_blocks += cached->dirty_blocks != 0 ? 1 : 0;
  }
  return items_with_dirty_blocks == priv()->dirty_items;
}

Lines OpenFork::locks(const FaultInjector& faults) const {
  const FaultInjector::Pause pause;
  // A lock's object begins with the lock of the thread library.
  std::map<const void*, std::string> names = {{priv()->items_lock, "items"}, {priv()->dirty_lock, "dirty"}};
  for (std::uint32_t i = 0; i < priv()->items_length; ++i) {
    if (priv()->items[i] != nullptr) {
      names[priv()->items[i]->item_lock] = "item " + std::to_string(i);
    }
  }
  Lines lines;
  for (const LockCall& call : faults.lock_calls()) {
    const char* const verb = verb_of(call.call);
    if (verb != nullptr) {
      lines.push_back(verb + names[call.lock] + (call.result != 0 ? " failed" : ""));
    }
  }
  return lines;
}

Lines transfers(const FaultInjector& faults) {
  Lines lines;
  for (const Transfer& transfer : faults.transfers()) {
    lines.push_back((transfer.call == Call::kPread64 ? "read " : "write ") + std::to_string(transfer.offset) + " " +
                    std::to_string(transfer.size));
  }
  return lines;
}

ByteVector marker_bytes(std::size_t length, unsigned char seed) {
  ByteVector bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(i * 7 + (i >> 8) * 5 + seed * 29u);
  }
  return bytes;
}

}  // namespace kvfs_test
