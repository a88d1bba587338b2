#include "property/random_volume.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "session_fixture.h"

namespace kvfs_test {

std::string random_text(Random& random, std::uint32_t most) {
  static constexpr const char* kCharacters[] = {"a",
                                                "B",
                                                "c",
                                                "D",
                                                "e",
                                                "Z",
                                                "0",
                                                " ",
                                                ".",
                                                "-",
                                                "x",
                                                "y",
                                                "\xC3\xA9",
                                                "\xCE\xA9",
                                                "\xEA\xB0\x81",
                                                "\xF0\x9F\x98\x80",
                                                ":"};
  constexpr std::uint32_t kUnitsOfCharacter = 3;  // Hangul has three when it is decomposed
  std::string text;
  for (std::uint32_t i = 1 + below(random, most / kUnitsOfCharacter); i > 0; --i) {
    text += kCharacters[below(random, std::size(kCharacters))];
  }
  return text;
}

std::uint32_t longest_name(std::uint32_t node_size) {
  return node_size < 2048 ? 12 : node_size < 4096 ? 40 : 250;
}

namespace {

ForkDescription random_fork(Random& random, std::uint32_t block_size, std::uint32_t most_blocks) {
  ForkDescription fork;
  const std::uint32_t blocks = below(random, most_blocks);
  if (blocks != 0) {
    fork.content = pattern((blocks - 1) * block_size + 1 + below(random, block_size));
    const auto middle = static_cast<std::ptrdiff_t>(below(random, block_size) % fork.content.size());
    std::rotate(fork.content.begin(), fork.content.begin() + middle, fork.content.end());
    fork.size = fork.content.size();
    fork.extent_count = one_in(random, 3) ? 1 + below(random, std::min(blocks, 20U)) : 1;
  }
  return fork;
}

void describe_shape(VolumeDescription& description, Random& random) {
  static constexpr std::uint32_t kNodeSizes[] = {1024, 2048, 4096, 4096, 8192, 16384, 32768};
  static constexpr std::uint32_t kBlockSizes[] = {512, 1024, 4096};
  description.block_size = kBlockSizes[below(random, 3)];
  description.allocation_file_in_chunks = true;
  description.hfsx = one_in(random, 2);
  description.case_sensitive = description.hfsx && one_in(random, 2);
  description.nul_names_by_units = description.case_sensitive;
  description.folder_counts = description.hfsx && one_in(random, 2);
  description.spare_blocks = one_in(random, 4) ? 8 + below(random, 40) : 100 + below(random, 2000);
  TreeShape& catalog = description.catalog;
  catalog.node_size = kNodeSizes[below(random, std::size(kNodeSizes))];
  catalog.spare_nodes = 4 + below(random, 60);
  catalog.clump_size = (1 + below(random, 8)) * std::max(catalog.node_size, description.block_size);
  catalog.extent_count = one_in(random, 3) ? 2 + below(random, 11) : 1;
  catalog.height = static_cast<std::uint16_t>(one_in(random, 4) ? 3 + below(random, 2) : 0);
  catalog.leaf_free_bytes = static_cast<std::uint16_t>(one_in(random, 2) ? catalog.node_size / 4 : 0);
  description.startup_blocks = 1 + below(random, 20);
}

void describe_items(VolumeDescription& description, Random& random) {
  const std::uint32_t longest = longest_name(description.catalog.node_size);
  std::uint32_t number = 0;
  const auto name = [&] {
    return decomposed(std::to_string(number++) + " " + random_text(random, std::max(longest / 3, 4U)));
  };
  std::vector<std::uint32_t> folders = {kRootFolderId};
  const auto folder = [&] { return folders[below(random, static_cast<std::uint32_t>(folders.size()))]; };
  for (std::uint32_t i = 2 + below(random, 14); i > 0; --i) {
    folders.push_back(description.add_folder(folder(), name()));
  }
  for (std::uint32_t i = 20 + below(random, 120); i > 0; --i) {
    const std::uint32_t id = description.add_file(folder(), name());
    description.item(id).data = random_fork(random, description.block_size, one_in(random, 8) ? 40 : 4);
    description.item(id).resource = random_fork(random, description.block_size, one_in(random, 8) ? 6 : 1);
  }
  for (std::uint32_t i = one_in(random, 4) ? 1 + below(random, 3) : 0; i > 0; --i) {
    const std::uint32_t target = description.add_inode();
    description.item(target).data = random_fork(random, description.block_size, 6);
    (void)description.add_hard_link(folder(), name(), target);
  }
}

}  // namespace

// What cannot be built, such as a tree of more levels than its records give, is replaced by what can.
VolumeDescription random_description(Random& random) {
  for (;;) {
    VolumeDescription description;
    describe_shape(description, random);
    describe_items(description, random);
    try {
      (void)build_volume(description);
      return description;
    } catch (const std::invalid_argument&) {
    }
  }
}

}  // namespace kvfs_test
