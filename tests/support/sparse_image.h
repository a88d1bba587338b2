// The bytes of a device, as cheap as what is stored in them.

#ifndef KVFS_SPARSE_IMAGE_H
#define KVFS_SPARSE_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "big_endian.h"

namespace kvfs_test {

using Bytes = std::vector<std::uint8_t>;

// A run of bytes of an image.
struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;

  friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

// The bytes of a device, held as a map of chunks: what was never written reads as zero and takes no memory, so an
// image of 1 TiB is as cheap as what is stored in it. Images are values: copying one takes a snapshot.
//
// Every offset is checked against the size; going beyond the end throws std::out_of_range, since in a test that is
// always a mistake of the test.
class SparseImage {
 public:
  static constexpr std::size_t kChunkSize = 16384;

  SparseImage() = default;
  explicit SparseImage(std::uint64_t size) : size_(size) {}

  // Reads a file (holes and zero chunks stay holes). Throws std::runtime_error when it cannot be read.
  static SparseImage load(const std::string& path);

  // Writes a sparse file of exactly size() bytes, replacing what was there. Throws std::runtime_error on failure.
  void write_to(const std::string& path) const;

  [[nodiscard]] std::uint64_t size() const { return size_; }

  // Cuts the image, or lengthens it with zeros.
  void truncate(std::uint64_t size);

  void read(std::uint64_t offset, void* bytes, std::size_t length) const;
  void write(std::uint64_t offset, const void* bytes, std::size_t length);
  [[nodiscard]] Bytes read(std::uint64_t offset, std::size_t length) const;
  void write(std::uint64_t offset, const Bytes& bytes) { write(offset, bytes.data(), bytes.size()); }
  void fill(std::uint64_t offset, std::uint64_t length, std::uint8_t value);

  // Big-endian values at a byte offset.
  [[nodiscard]] std::uint8_t get8(std::uint64_t offset) const { return static_cast<std::uint8_t>(get(offset, 1)); }
  [[nodiscard]] std::uint16_t get16(std::uint64_t offset) const { return static_cast<std::uint16_t>(get(offset, 2)); }
  [[nodiscard]] std::uint32_t get32(std::uint64_t offset) const { return static_cast<std::uint32_t>(get(offset, 4)); }
  [[nodiscard]] std::uint64_t get64(std::uint64_t offset) const { return get(offset, 8); }
  void set8(std::uint64_t offset, std::uint8_t value) { set(offset, 1, value); }
  void set16(std::uint64_t offset, std::uint16_t value) { set(offset, 2, value); }
  void set32(std::uint64_t offset, std::uint32_t value) { set(offset, 4, value); }
  void set64(std::uint64_t offset, std::uint64_t value) { set(offset, 8, value); }

  // Same size and same bytes (a chunk of zeros equals a hole).
  friend bool operator==(const SparseImage& a, const SparseImage& b);

  // Where two images differ, as maximal runs of differing bytes in ascending order. What only the longer image has
  // counts as differing.
  [[nodiscard]] std::vector<ByteRange> differences(const SparseImage& other) const;

  // The same, as ascending numbers of the units of `unit` bytes (512: sectors) that hold a difference.
  [[nodiscard]] std::vector<std::uint64_t> changed_units(const SparseImage& other, std::uint64_t unit) const;

 private:
  [[nodiscard]] std::uint64_t get(std::uint64_t offset, std::size_t width) const;
  void set(std::uint64_t offset, std::size_t width, std::uint64_t value);
  void check_range(std::uint64_t offset, std::uint64_t length) const;

  std::uint64_t size_ = 0;
  std::map<std::uint64_t, Bytes> chunks_;  // by chunk number
};

}  // namespace kvfs_test

#endif  // KVFS_SPARSE_IMAGE_H
