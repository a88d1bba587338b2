#include "block_allocator.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

namespace kvfs_test {

void BlockAllocator::block(std::uint64_t start, std::uint64_t count) {
  if (count > 0 && find(start, count) != start) {
    throw std::invalid_argument("block " + std::to_string(start) + " or one behind it is taken");
  }
  if (count > 0) {
    taken_.emplace(start, start + count);
  }
}

void BlockAllocator::use(Extent extent) {
  block(extent.start_block, extent.block_count);
  used_.push_back(extent);
}

void BlockAllocator::keep_free(Extent extent) {
  block(extent.start_block, extent.block_count);
}

std::uint64_t BlockAllocator::end() const {
  return std::max(next_, taken_.empty() ? 0 : taken_.rbegin()->second);
}

// The first start at or behind `from` of a run that is not taken.
std::uint64_t BlockAllocator::find(std::uint64_t from, std::uint64_t count) const {
  auto next = taken_.upper_bound(from);
  std::uint64_t start = from;
  if (next != taken_.begin()) {
    start = std::max(start, std::prev(next)->second);
  }
  while (next != taken_.end() && next->first < start + count) {
    start = std::max(start, next->second);
    ++next;
  }
  return start;
}

std::vector<Extent> BlockAllocator::allocate(const Request& request) {
  const std::uint64_t pieces = std::min<std::uint64_t>(request.extent_count, request.blocks);
  std::vector<Extent> extents;
  std::uint64_t at = request.first_block != 0 ? request.first_block : next_;
  for (std::uint64_t i = 0; i < pieces; ++i) {
    const std::uint64_t count = request.blocks / pieces + (i < request.blocks % pieces ? 1 : 0);
    const std::uint64_t start = find(at, count);
    if (i == 0 && request.first_block != 0 && start != at) {
      throw std::invalid_argument("block " + std::to_string(at) + " is taken");
    }
    if (start + count > (limit_ != 0 ? limit_ : 0xFFFFFFFFU)) {
      throw std::invalid_argument("the volume is too small");
    }
    extents.push_back({static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(count)});
    use(extents.back());
    at = start + count + request.gap_blocks;
  }
  if (pieces > 0 && request.blocks_after > 0) {
    const std::uint64_t behind = std::uint64_t{extents.back().start_block} + extents.back().block_count;
    keep_free({static_cast<std::uint32_t>(behind), request.blocks_after});
    at = behind + request.blocks_after;
  }
  if (request.first_block == 0) {
    next_ = at;
  }
  return extents;
}

}  // namespace kvfs_test
