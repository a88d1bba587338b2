// A model of a volume: what its files, blocks and counters are after each change, told without the code under test.
//
// It has the odd sides of the system's behaviour too: freeing a block writes its byte to the start of a chunk of the
// allocation file, searches from inside a byte test bits of the wrong bytes, deleting a file leaves its resource fork
// and its overflow extents behind. From that it tells what the checker of volumes has to find, and nothing else.

#ifndef KVFS_VOLUME_MODEL_H
#define KVFS_VOLUME_MODEL_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "log_capture.h"
#include "volume_image.h"

namespace kvfs_test {

// A run of blocks for a fork to grow by; its count is 0 when there is none.
struct ModelRun {
  std::uint32_t start = 0;
  std::uint32_t count = 0;
  std::uint32_t index = 0;  // of the extent
};

struct ModelFork {
  std::uint64_t size = 0;   // bytes
  std::uint32_t total = 0;  // blocks, as the fork data says
  std::array<Extent, 8> extents;
  std::vector<Extent> overflow;

  [[nodiscard]] std::uint32_t blocks_in_extents() const;
  // The block of the volume that is block `index` of the fork, among the first eight extents.
  [[nodiscard]] std::uint32_t block(std::uint32_t index) const;
};

struct ModelItem {
  std::uint32_t parent = 0;
  Name name;
  bool folder = false;
  bool has_thread = true;
  bool is_link = false;
  ModelFork data;
  ModelFork resource;
};

class VolumeModel {
 public:
  explicit VolumeModel(const Volume& image);

  // ---- Files and folders

  std::map<std::uint32_t, ModelItem> items;  // by ID; the root folder among them
  [[nodiscard]] bool is_empty(std::uint32_t folder) const;
  [[nodiscard]] bool has_name(std::uint32_t folder, const Name& name) const;
  // Where a volume's catalog says something else of the items, a line for each.
  [[nodiscard]] Lines catalog_differences(const Volume& volume) const;

  // ---- Blocks

  ModelFork catalog;
  ModelFork startup;
  std::uint32_t file_count = 0;
  std::uint32_t folder_count = 0;
  std::uint32_t free_blocks = 0;
  std::uint32_t next_allocation = 0;
  std::uint32_t next_id = 0;
  std::uint32_t block_size = 0;
  std::uint32_t total_blocks = 0;

  // Where a fork can grow behind the extent that holds the byte at `offset`, or behind its last one.
  [[nodiscard]] ModelRun run_behind(const ModelFork& fork, std::uint64_t offset, std::uint32_t bytes) const;
  // The first block of a run that is marked as used, or its end.
  [[nodiscard]] std::uint32_t first_used(const ModelRun& run) const;
  // Whether a block of the run belongs to something, or lies behind the volume.
  [[nodiscard]] bool is_owned(const ModelRun& run) const;
  // Marks a run that is free and counts it out.
  void allocate(const ModelRun& run);
  // Adds a run to the extents of a fork.
  static void add_run(ModelFork& fork, const ModelRun& run);
  // Frees one block; false when it is free already.
  bool free_block(std::uint32_t block);
  // Cuts a fork to its first blocks.
  static void cut(ModelFork& fork, std::uint32_t blocks);

  [[nodiscard]] const std::vector<std::uint8_t>& bitmap() const { return bitmap_; }

  // ---- What the checker finds

  // Files that were deleted with overflow records.
  std::vector<std::uint32_t> orphans;
  // Sorted.
  [[nodiscard]] Lines findings() const;

 private:
  [[nodiscard]] bool is_used(std::uint64_t block) const;
  [[nodiscard]] ModelRun find_run(std::uint32_t wanted, std::uint32_t hint) const;
  // One bit for each block that belongs to something.
  [[nodiscard]] std::vector<std::uint8_t> owned_blocks() const;
  void add_block_findings(Lines& lines) const;

  std::vector<std::uint8_t> bitmap_;  // the whole allocation file
  std::uint64_t device_size_ = 0;
  std::vector<Extent> other_files_;  // blocks of the special files that do not change
};

}  // namespace kvfs_test

#endif  // KVFS_VOLUME_MODEL_H
