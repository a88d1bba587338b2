#include "property/flush_cut.h"

#include <algorithm>

namespace kvfs_test {

FlushCut::FlushCut(const Volume& before, const std::vector<Transfer>& writes, Random& random)
    : before_(before), writes_(writes), device_(before) {
  choose(random);
  const auto is_between_steps = [this] { return whole_ != 0 && whole_ != writes_.size() && is_new().has_value(); };
  for (int tries = one_in(random, 3) ? 0 : 6; tries > 0 && !is_between_steps(); --tries) {
    choose(random);
  }
  for (std::size_t i = 0; i < whole_; ++i) {
    device_.write(writes[i].offset, writes[i].bytes);
  }
  if (torn_ != 0) {
    device_.write(writes[whole_].offset, writes[whole_].bytes.data(), torn_);
  }
}

void FlushCut::choose(Random& random) {
  constexpr std::uint32_t kSector = 512;
  whole_ = below(random, static_cast<std::uint32_t>(writes_.size()) + 1);
  const auto sectors = static_cast<std::uint32_t>(whole_ == writes_.size() ? 0 : writes_[whole_].size / kSector);
  torn_ = sectors == 0 ? 0 : std::size_t{kSector} * below(random, sectors);
}

bool FlushCut::is_of_tree(const Transfer& write, Tree tree) const {
  const std::vector<Extent> extents = before_.fork(tree).extents();
  const std::uint64_t block = write.offset / before_.block_size();
  return std::any_of(extents.begin(), extents.end(), [block](const Extent& extent) {
    return block >= extent.start_block && block - extent.start_block < extent.block_count;
  });
}

std::optional<bool> FlushCut::is_new() const {
  bool catalog_is_new = false;
  for (const Tree tree : {Tree::kExtents, Tree::kCatalog}) {
    const auto is_its = [this, tree](const Transfer& write) { return is_of_tree(write, tree); };
    const auto cut = writes_.begin() + static_cast<std::ptrdiff_t>(whole_);
    const bool has_come =
        std::any_of(writes_.begin(), cut, is_its) || (torn_ != 0 && cut != writes_.end() && is_its(*cut));
    const bool is_missing = std::any_of(cut, writes_.end(), is_its);
    if (has_come && is_missing) {
      return std::nullopt;
    }
    catalog_is_new = !is_missing;
  }
  return catalog_is_new;
}

std::string FlushCut::text() const {
  return std::to_string(whole_) + " of " + std::to_string(writes_.size()) + " writes and " + std::to_string(torn_) +
         " bytes";
}

}  // namespace kvfs_test
