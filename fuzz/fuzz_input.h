// An input of the fuzzer, taken apart byte by byte. Whatever is asked for behind its end is zero.

#ifndef KVFS_FUZZ_INPUT_H
#define KVFS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvfs_fuzz {

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  [[nodiscard]] bool at_end() const { return position_ >= size_; }
  [[nodiscard]] std::size_t left() const { return at_end() ? 0 : size_ - position_; }

  std::uint8_t byte() { return at_end() ? 0 : data_[position_++]; }
  std::uint16_t unit() {
    const unsigned high = byte();
    return static_cast<std::uint16_t>(high << 8 | byte());
  }
  std::uint32_t word() {
    const std::uint32_t high = unit();
    return high << 16 | unit();
  }
  // A number below `count`, which is not zero.
  std::size_t below(std::size_t count) { return (count <= 256 ? byte() : word()) % count; }

  // As many bytes, or those that are left.
  std::vector<std::uint8_t> bytes(std::size_t count) {
    std::vector<std::uint8_t> taken;
    while (taken.size() < count && !at_end()) {
      taken.push_back(byte());
    }
    return taken;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t position_ = 0;
};

}  // namespace kvfs_fuzz

#endif  // KVFS_FUZZ_INPUT_H
