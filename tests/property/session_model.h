// A model of what sessions show of a volume: names, folders, contents and counts, told without the code under test.
//
// A session changes it as its volume is changed; a copy of it is what a flush has brought to the device.

#ifndef KVFS_SESSION_MODEL_H
#define KVFS_SESSION_MODEL_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "log_capture.h"
#include "volume_builder.h"

namespace kvfs_test {

using Content = std::shared_ptr<const Bytes>;

struct SessionItem {
  std::uint32_t parent = 0;
  Name name;  // as stored
  std::uint32_t kind = 0;
  bool is_private = false;   // the folder with what hard links stand for, or an item in it
  std::uint32_t target = 0;  // of a hard link: the file that it stands for
  Content data;              // files and symbolic links
  Content resource;
  std::uint32_t blocks = 0;  // of both forks
};

class SessionModel {
 public:
  // Of a volume that was built from a description whose files have all of their bytes in it.
  SessionModel(const VolumeDescription& description, const Volume& volume);

  [[nodiscard]] const std::map<std::uint32_t, SessionItem>& items() const { return items_; }
  [[nodiscard]] bool has(std::uint32_t id) const { return items_.contains(id); }
  [[nodiscard]] const SessionItem& item(std::uint32_t id) const { return items_.at(id); }
  [[nodiscard]] bool is_folder(std::uint32_t id) const;
  // The item of a name in a folder; 0 when there is none.
  [[nodiscard]] std::uint32_t find(std::uint32_t folder, const Name& name) const;
  // The items of a folder.
  [[nodiscard]] std::vector<std::uint32_t> children(std::uint32_t folder) const;
  [[nodiscard]] bool is_inside(std::uint32_t item, std::uint32_t folder) const;

  void move(std::uint32_t id, std::uint32_t to, const Name& name);
  // Its blocks become free with the next flush.
  void remove(std::uint32_t id);
  // Gives the next ID to a new item and counts it, and its blocks.
  void add(const SessionItem& item);
  void flush();

  // Takes the counts of the volume header, and of the blocks that are free in the allocation file, from a volume.
  void take_counts(const Volume& volume);

  std::uint32_t file_count = 0;
  std::uint32_t folder_count = 0;
  std::uint32_t free_blocks = 0;  // as the volume header counts them
  std::uint32_t clear_bits = 0;   // of blocks, in the allocation file
  std::uint32_t next_id = 0;

  // Where a volume's catalog has other items than the model, a line for each.
  [[nodiscard]] Lines differences(const Volume& volume) const;

 private:
  struct NameOrder {
    bool case_sensitive;
    bool operator()(const Name& a, const Name& b) const { return compare_names(a, b, case_sensitive) < 0; }
  };
  using Folder = std::map<Name, std::uint32_t, NameOrder>;

  Folder& folder(std::uint32_t id) { return folders_.try_emplace(id, NameOrder{case_sensitive_}).first->second; }
  void insert(std::uint32_t id, const SessionItem& item);

  std::map<std::uint32_t, SessionItem> items_;
  std::map<std::uint32_t, Folder> folders_;  // by ID, where they have or had items
  bool case_sensitive_;
  std::uint32_t freed_ = 0;  // blocks, with the next flush
};

}  // namespace kvfs_test

#endif  // KVFS_SESSION_MODEL_H
