// Gives the files of a volume their blocks, for the volume builder.

#ifndef KVFS_BLOCK_ALLOCATOR_H
#define KVFS_BLOCK_ALLOCATOR_H

#include <cstdint>
#include <map>
#include <vector>

#include "volume_image.h"

namespace kvfs_test {

// Hands out the blocks of a volume in ascending order, and knows in the end which are used. The volume may still be
// without a size: then it ends where the caller says at last.
class BlockAllocator {
 public:
  struct Request {
    std::uint64_t blocks = 0;
    std::uint32_t extent_count = 1;  // at most `blocks` are made
    std::uint32_t gap_blocks = 0;
    std::uint32_t first_block = 0;  // 0: the next free one
    std::uint32_t blocks_after = 0;
  };

  // Blocks from `limit` on are never given out; 0: no limit.
  explicit BlockAllocator(std::uint64_t limit) : limit_(limit) {}

  // Marks blocks as used. Throws std::invalid_argument when one of them is taken.
  void use(Extent extent);
  // Keeps blocks free: they are not given out.
  void keep_free(Extent extent);
  // Throws std::invalid_argument when the volume is too small or the place asked for is taken.
  std::vector<Extent> allocate(const Request& request);

  [[nodiscard]] const std::vector<Extent>& used() const { return used_; }
  // The first block behind all that were given out or kept free.
  [[nodiscard]] std::uint64_t end() const;

 private:
  void block(std::uint64_t start, std::uint64_t count);
  [[nodiscard]] std::uint64_t find(std::uint64_t from, std::uint64_t count) const;

  std::uint64_t limit_;
  std::uint64_t next_ = 0;
  std::map<std::uint64_t, std::uint64_t> taken_;  // start to end of each run that cannot be given out
  std::vector<Extent> used_;
};

}  // namespace kvfs_test

#endif  // KVFS_BLOCK_ALLOCATOR_H
