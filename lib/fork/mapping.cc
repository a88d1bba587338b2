// A mapped range of a fork.

#include "fork/mapping.h"

using kvfs::fork::mapping;

kvfs_result mapping::map(kvfs_fork* fork, std::uint64_t offset, std::size_t length) {
  void* bytes = nullptr;
  const kvfs_result result = kvfs_fork_map(fork, offset, &bytes, length, nullptr);
  if (result == kvfs_ok) {
    fork_ = fork;
    offset_ = offset;
    length_ = length;
    bytes_ = bytes;
  }
  return result;
}

kvfs_result mapping::unmap() {
  if (bytes_ == nullptr) {
    return kvfs_ok;
  }
  const kvfs_result result = kvfs_fork_unmap(fork_, offset_, &bytes_, length_);
  refused_ = result != kvfs_ok;
  return result;
}
