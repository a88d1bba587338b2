// A mapped range of a fork.

#ifndef KVFS_FORK_MAPPING_H
#define KVFS_FORK_MAPPING_H

#include <cstddef>
#include <cstdint>

#include "fork.h"
#include "result.h"

namespace kvfs::fork {

// Holds a range of a fork mapped, from `map` to `unmap`.
//
// Unmapping can fail, and the callers have to report that: they call `unmap` and look at its result. The destructor is
// only a net for a path that forgot; it drops the result.
class mapping {
 public:
  mapping() = default;
  mapping(const mapping&) = delete;
  mapping& operator=(const mapping&) = delete;
  ~mapping() {
    if (!refused_) {
      (void)unmap();
    }
  }

  // Maps a range, where none is mapped; offset and length in bytes. Returns what kvfs_fork_map returns.
  kvfs_result map(kvfs_fork* fork, std::uint64_t offset, std::size_t length);

  // Unmaps what is mapped, if anything is. On failure the range counts as mapped still, unless only a lock could not be
  // given back behind it. Returns kvfs_ok or what kvfs_fork_unmap returns.
  kvfs_result unmap();

  // The mapped bytes; null while nothing is mapped.
  unsigned char* bytes() const { return static_cast<unsigned char*>(bytes_); }
  // Where they begin in the fork, bytes.
  std::uint64_t offset() const { return offset_; }

 private:
  kvfs_fork* fork_ = nullptr;
  std::uint64_t offset_ = 0;
  std::size_t length_ = 0;
  void* bytes_ = nullptr;
  bool refused_ = false;  // whether unmapping has failed, and was reported
};

}  // namespace kvfs::fork

#endif  // KVFS_FORK_MAPPING_H
