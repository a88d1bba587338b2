// A flush that a loss of power has cut: after some of its writes, or within one at a sector.

#ifndef KVFS_FLUSH_CUT_H
#define KVFS_FLUSH_CUT_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "fault_injection.h"
#include "property/random.h"
#include "volume_image.h"

namespace kvfs_test {

class FlushCut {
 public:
  // Cuts a flush at random, most times where the trees are as they were or have all come.
  FlushCut(const Volume& before, const std::vector<Transfer>& writes, Random& random);

  // What is on the device.
  [[nodiscard]] const Volume& device() const { return device_; }

  // Whether the catalog is as the flush has it; nothing when some of the writes of the catalog or of the extents
  // overflow file have come and others have not.
  [[nodiscard]] std::optional<bool> is_new() const;

  // "3 of 7 writes and 512 bytes".
  [[nodiscard]] std::string text() const;

 private:
  void choose(Random& random);
  [[nodiscard]] bool is_of_tree(const Transfer& write, Tree tree) const;

  const Volume& before_;
  const std::vector<Transfer>& writes_;
  std::size_t whole_ = 0;  // writes that have come
  std::size_t torn_ = 0;   // bytes of the next one
  Volume device_;
};

}  // namespace kvfs_test

#endif  // KVFS_FLUSH_CUT_H
