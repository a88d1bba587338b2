#include "sparse_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

namespace kvfs_test {
namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

// An open file that closes itself.
class File {
 public:
  File(const std::string& path, int flags) : path_(path), descriptor_(::open64(path.c_str(), flags | O_CLOEXEC, 0644)) {
    if (descriptor_ < 0) {
      fail("cannot open", path);
    }
  }
  ~File() { ::close(descriptor_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] std::uint64_t size() const {
    const off64_t end = ::lseek64(descriptor_, 0, SEEK_END);
    if (end < 0) {
      fail("cannot tell the size of", path_);
    }
    return static_cast<std::uint64_t>(end);
  }

  void resize(std::uint64_t size) {
    if (::ftruncate64(descriptor_, static_cast<off64_t>(size)) != 0) {
      fail("cannot resize", path_);
    }
  }

  // The first byte at or behind `offset` that is no hole; `end` when there is none.
  [[nodiscard]] std::uint64_t next_data(std::uint64_t offset, std::uint64_t end) const {
    const off64_t found = ::lseek64(descriptor_, static_cast<off64_t>(offset), SEEK_DATA);
    if (found >= 0) {
      return static_cast<std::uint64_t>(found);
    }
    return errno == ENXIO ? end : offset;  // a file system without holes: everything is data
  }

  void read_at(std::uint64_t offset, std::uint8_t* bytes, std::size_t length) {
    seek(offset);
    while (length > 0) {
      const ssize_t done = ::read(descriptor_, bytes, length);
      if (done <= 0) {
        fail("cannot read", path_);
      }
      bytes += done;
      length -= static_cast<std::size_t>(done);
    }
  }

  void write_at(std::uint64_t offset, const std::uint8_t* bytes, std::size_t length) {
    seek(offset);
    while (length > 0) {
      const ssize_t done = ::write(descriptor_, bytes, length);
      if (done <= 0) {
        fail("cannot write", path_);
      }
      bytes += done;
      length -= static_cast<std::size_t>(done);
    }
  }

 private:
  void seek(std::uint64_t offset) {
    if (::lseek64(descriptor_, static_cast<off64_t>(offset), SEEK_SET) < 0) {
      fail("cannot seek in", path_);
    }
  }

  std::string path_;
  int descriptor_;
};

bool is_zero(const std::uint8_t* bytes, std::size_t length) {
  return std::all_of(bytes, bytes + length, [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

SparseImage SparseImage::load(const std::string& path) {
  File file(path, O_RDONLY);
  SparseImage image(file.size());
  Bytes buffer(kChunkSize);
  for (std::uint64_t at = 0; at < image.size_;) {
    at = std::max(at, file.next_data(at, image.size_) / kChunkSize * kChunkSize);
    if (at >= image.size_) {
      break;
    }
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kChunkSize, image.size_ - at));
    file.read_at(at, buffer.data(), length);
    image.write(at, buffer.data(), length);
    at += length;
  }
  return image;
}

void SparseImage::write_to(const std::string& path) const {
  File file(path, O_WRONLY | O_CREAT | O_TRUNC);
  file.resize(size_);
  for (const auto& [number, bytes] : chunks_) {
    const std::uint64_t at = number * kChunkSize;
    if (!is_zero(bytes.data(), bytes.size())) {
      file.write_at(at, bytes.data(), static_cast<std::size_t>(std::min<std::uint64_t>(kChunkSize, size_ - at)));
    }
  }
}

void SparseImage::truncate(std::uint64_t size) {
  size_ = size;
  chunks_.erase(chunks_.lower_bound((size + kChunkSize - 1) / kChunkSize), chunks_.end());
  const auto last = chunks_.find(size / kChunkSize);
  if (last != chunks_.end()) {
    // What a later lengthening brings back has to read as zero.
    std::fill(last->second.begin() + static_cast<std::ptrdiff_t>(size % kChunkSize), last->second.end(),
              std::uint8_t{0});
  }
}

void SparseImage::check_range(std::uint64_t offset, std::uint64_t length) const {
  if (offset > size_ || length > size_ - offset) {
    throw std::out_of_range("bytes " + std::to_string(offset) + " + " + std::to_string(length) +
                            " lie outside an image of " + std::to_string(size_) + " bytes");
  }
}

void SparseImage::read(std::uint64_t offset, void* bytes, std::size_t length) const {
  check_range(offset, length);
  auto* out = static_cast<std::uint8_t*>(bytes);
  while (length > 0) {
    const auto inside = static_cast<std::size_t>(offset % kChunkSize);
    const std::size_t piece = std::min(length, kChunkSize - inside);
    const auto chunk = chunks_.find(offset / kChunkSize);
    if (chunk == chunks_.end()) {
      std::memset(out, 0, piece);
    } else {
      std::memcpy(out, chunk->second.data() + inside, piece);
    }
    out += piece;
    offset += piece;
    length -= piece;
  }
}

void SparseImage::write(std::uint64_t offset, const void* bytes, std::size_t length) {
  check_range(offset, length);
  const auto* in = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const auto inside = static_cast<std::size_t>(offset % kChunkSize);
    const std::size_t piece = std::min(length, kChunkSize - inside);
    auto chunk = chunks_.find(offset / kChunkSize);
    if (chunk == chunks_.end() && !is_zero(in, piece)) {
      chunk = chunks_.emplace(offset / kChunkSize, Bytes(kChunkSize)).first;
    }
    if (chunk != chunks_.end()) {
      std::memcpy(chunk->second.data() + inside, in, piece);
    }
    in += piece;
    offset += piece;
    length -= piece;
  }
}

Bytes SparseImage::read(std::uint64_t offset, std::size_t length) const {
  Bytes bytes(length);
  read(offset, bytes.data(), length);
  return bytes;
}

void SparseImage::fill(std::uint64_t offset, std::uint64_t length, std::uint8_t value) {
  check_range(offset, length);
  const Bytes piece(kChunkSize, value);
  while (length > 0) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(length, kChunkSize));
    write(offset, piece.data(), part);
    offset += part;
    length -= part;
  }
}

std::uint64_t SparseImage::get(std::uint64_t offset, std::size_t width) const {
  std::uint8_t bytes[8] = {};
  read(offset, bytes, width);
  return get_be(bytes, width);
}

void SparseImage::set(std::uint64_t offset, std::size_t width, std::uint64_t value) {
  std::uint8_t bytes[8] = {};
  put_be(bytes, width, value);
  write(offset, bytes, width);
}

bool operator==(const SparseImage& a, const SparseImage& b) {
  return a.size_ == b.size_ && a.differences(b).empty();
}

std::vector<ByteRange> SparseImage::differences(const SparseImage& other) const {
  std::set<std::uint64_t> numbers;
  for (const auto& chunk : chunks_) {
    numbers.insert(chunk.first);
  }
  for (const auto& chunk : other.chunks_) {
    numbers.insert(chunk.first);
  }
  const std::uint64_t common = std::min(size_, other.size_);
  std::vector<ByteRange> ranges;
  const auto add = [&ranges](std::uint64_t at, std::uint64_t length) {
    if (!ranges.empty() && ranges.back().offset + ranges.back().length == at) {
      ranges.back().length += length;
    } else {
      ranges.push_back({at, length});
    }
  };
  for (const std::uint64_t number : numbers) {
    const std::uint64_t start = number * kChunkSize;
    if (start >= common) {
      break;
    }
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kChunkSize, common - start));
    const Bytes mine = read(start, length);
    const Bytes theirs = other.read(start, length);
    for (std::size_t i = 0; mine != theirs && i < length; ++i) {
      if (mine[i] != theirs[i]) {
        add(start + i, 1);
      }
    }
  }
  if (size_ != other.size_) {
    add(common, std::max(size_, other.size_) - common);
  }
  return ranges;
}

std::vector<std::uint64_t> SparseImage::changed_units(const SparseImage& other, std::uint64_t unit) const {
  std::vector<std::uint64_t> units;
  for (const ByteRange& range : differences(other)) {
    const std::uint64_t last = (range.offset + range.length - 1) / unit;
    for (std::uint64_t number = range.offset / unit; number <= last; ++number) {
      if (units.empty() || units.back() != number) {
        units.push_back(number);
      }
    }
  }
  return units;
}

}  // namespace kvfs_test
