// Checks the B-trees of a volume, for the volume checker.

#ifndef KVFS_TREE_CHECKER_H
#define KVFS_TREE_CHECKER_H

#include <cstdint>
#include <string>
#include <vector>

#include "volume_checker.h"

namespace kvfs_test {

// Gathers messages up to a limit.
class Findings {
 public:
  void add(const std::string& message) {
    if (messages_.size() < kMaxMessages) {
      messages_.push_back(message);
    }
  }
  [[nodiscard]] const std::vector<std::string>& messages() const { return messages_; }

 private:
  std::vector<std::string> messages_;
};

// A leaf record as the tree walk met it.
struct FoundRecord {
  std::uint32_t node = 0;
  std::uint16_t index = 0;
  Bytes key;  // with its length field
  Bytes data;
};

// Checks the structure of a tree and hands out its leaf records in order.
std::vector<FoundRecord> check_tree(const Volume& volume, Tree tree, const CheckOptions& options, Findings& findings);

std::string name_of_tree(Tree tree);

}  // namespace kvfs_test

#endif  // KVFS_TREE_CHECKER_H
