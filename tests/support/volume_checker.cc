#include "volume_checker.h"

#include <algorithm>
#include <exception>
#include <map>
#include <tuple>
#include <utility>

#include "big_endian.h"
#include "tree_checker.h"

namespace kvfs_test {
namespace {

constexpr std::uint16_t kFolder = 1;
constexpr std::uint16_t kFile = 2;
constexpr std::uint16_t kFolderThread = 3;
constexpr std::uint16_t kFileThread = 4;
constexpr std::uint16_t kHasFolderCount = 0x1000;
constexpr std::uint16_t kHasLinkChain = 0x0020;
constexpr std::uint32_t kDirectoryLinkType = 0x66647270;     // 'fdrp'
constexpr std::uint32_t kDirectoryLinkCreator = 0x4D414353;  // 'MACS'

std::string text(std::uint64_t value) {
  return std::to_string(value);
}

// A file or folder as its catalog record tells.
struct CatalogEntry {
  std::uint32_t cnid = 0;
  std::uint32_t parent = 0;
  Name name;
  bool folder = false;
  bool counts_as_folder = false;
  Bytes data;

  [[nodiscard]] std::string label() const { return (folder ? "folder " : "file ") + text(cnid); }
};

struct CatalogThread {
  std::uint32_t parent = 0;
  Name name;
  bool folder = false;
};

struct Claim {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::string owner;
};

struct Children {
  std::uint32_t all = 0;
  std::uint32_t folders = 0;
};

// The overflow records of one fork, by the fork block at which each begins.
using Overflow = std::map<std::uint32_t, std::vector<Extent>>;
using ForkKey = std::pair<std::uint32_t, std::uint8_t>;  // file ID and fork type

std::vector<Extent> eight_extents(const Bytes& bytes, std::size_t at) {
  std::vector<Extent> extents;
  for (std::size_t i = 0; i < 8; ++i) {
    extents.push_back({get_be32(bytes, at + 8 * i), get_be32(bytes, at + 8 * i + 4)});
  }
  return extents;
}

class VolumeChecker {
 public:
  VolumeChecker(const Volume& volume, const CheckOptions& options) : volume_(volume), options_(options) {}

  std::vector<std::string> run() {
    if (check_header()) {
      read_overflow_records(check_tree(volume_, Tree::kExtents, options_, findings_));
      check_special_files();
      read_catalog(check_tree(volume_, Tree::kCatalog, options_, findings_));
      if (volume_.get_field("attributesFile.totalBlocks") != 0) {
        (void)check_tree(volume_, Tree::kAttributes, options_, findings_);
      }
      check_entries();
      check_threads();
      check_counters();
      check_orphan_overflow();
      check_claims();
      check_allocation();
    }
    return findings_.messages();
  }

  void report(const std::string& what) { findings_.add(what); }
  [[nodiscard]] const std::vector<std::string>& messages() const { return findings_.messages(); }

 private:
  [[nodiscard]] std::uint64_t field(const std::string& name) const { return volume_.get_field(name); }
  bool check_header();
  void check_alternate_header();
  void read_overflow_records(const std::vector<FoundRecord>& records);
  void check_special_files();
  void check_fork(const std::string& owner, const Bytes& fork_data, std::uint32_t cnid, std::uint8_t type);
  std::uint64_t add_extents(const std::string& owner, const std::vector<Extent>& extents);
  void read_catalog(const std::vector<FoundRecord>& records);
  void read_entry(const FoundRecord& record, std::uint16_t type, const std::string& place);
  void read_thread(const FoundRecord& record, std::uint16_t type, const std::string& place);
  void check_entries();
  void check_folder(const CatalogEntry& folder);
  void check_threads();
  void check_counters();
  void check_orphan_overflow();
  void claim_reserved_blocks();
  void check_claims();
  void check_allocation();
  void compare_bitmap(const Bytes& expected, const Bytes& actual);

  const Volume& volume_;
  const CheckOptions& options_;
  Findings findings_;
  std::map<ForkKey, Overflow> overflow_;
  std::vector<CatalogEntry> entries_;
  std::map<std::uint32_t, std::size_t> entry_of_cnid_;
  std::map<std::uint32_t, CatalogThread> threads_;
  std::map<std::uint32_t, Children> children_;
  std::vector<Claim> claims_;
  std::uint64_t total_blocks_ = 0;
  std::uint64_t block_size_ = 0;
};

bool VolumeChecker::check_header() {
  if (volume_.size() < 4096) {
    report("the device is too small for a volume");
    return false;
  }
  const std::uint64_t signature = field("signature");
  const std::uint64_t version = field("version");
  if (!(signature == 0x482B && version == 4) && !(signature == 0x4858 && version == 5)) {
    report("signature " + text(signature) + " with version " + text(version));
    return false;
  }
  block_size_ = field("blockSize");
  total_blocks_ = field("totalBlocks");
  if (block_size_ < 512 || (block_size_ & (block_size_ - 1)) != 0) {
    report("blockSize is " + text(block_size_));
    return false;
  }
  if (total_blocks_ == 0 || total_blocks_ * block_size_ > volume_.size()) {
    report("totalBlocks " + text(total_blocks_) + " does not fit the device");
    return false;
  }
  check_alternate_header();
  return true;
}

// Only what never changes while a volume lives: systems write the rest at times of their own.
void VolumeChecker::check_alternate_header() {
  for (const char* const name : {"signature", "version", "blockSize", "totalBlocks"}) {
    if (field(std::string("alternate.") + name) != field(name)) {
      report(std::string("the alternate header has another ") + name);
    }
  }
}

void VolumeChecker::read_overflow_records(const std::vector<FoundRecord>& records) {
  for (const FoundRecord& record : records) {
    const std::string place = "extents: node " + text(record.node) + ": record " + text(record.index);
    if (record.key.size() != 12 || record.data.size() != 64) {
      report(place + " has a key of " + text(record.key.size()) + " and data of " + text(record.data.size()) +
             " bytes");
      continue;
    }
    const std::uint8_t type = record.key[2];
    if (type != 0 && type != 0xFF) {
      report(place + " has fork type " + text(type));
    }
    overflow_[{get_be32(record.key, 4), type}][get_be32(record.key, 8)] = eight_extents(record.data, 0);
  }
}

void VolumeChecker::check_special_files() {
  const std::tuple<const char*, SpecialFile, std::uint64_t> slots[] = {
      {"allocation file", SpecialFile::kAllocation, 112}, {"extents file", SpecialFile::kExtents, 192},
      {"catalog file", SpecialFile::kCatalog, 272},       {"attributes file", SpecialFile::kAttributes, 352},
      {"startup file", SpecialFile::kStartup, 432},
  };
  for (const auto& [name, file, offset] : slots) {
    check_fork(name, volume_.read(kHeaderOffset + offset, 80), static_cast<std::uint32_t>(file), 0);
  }
}

// Claims the blocks of some extents and returns their number. Behind an empty extent there must be empty ones only.
std::uint64_t VolumeChecker::add_extents(const std::string& owner, const std::vector<Extent>& extents) {
  std::uint64_t blocks = 0;
  bool ended = false;
  for (const Extent& extent : extents) {
    if (extent.block_count == 0) {
      ended = true;
      continue;
    }
    const std::uint64_t end = std::uint64_t{extent.start_block} + extent.block_count;
    if (ended) {
      report(owner + ": an extent behind an empty one");
    }
    if (end > total_blocks_) {
      report(owner + ": extent " + text(extent.start_block) + " + " + text(extent.block_count) + " leaves the volume");
    } else {
      claims_.push_back({extent.start_block, end, owner});
    }
    blocks += extent.block_count;
  }
  return blocks;
}

void VolumeChecker::check_fork(const std::string& owner, const Bytes& fork_data, std::uint32_t cnid,
                               std::uint8_t type) {
  const std::uint64_t logical_size = get_be(fork_data, 0, 8);
  const std::uint64_t total = get_be32(fork_data, 12);
  std::uint64_t blocks = add_extents(owner, eight_extents(fork_data, 16));
  const auto overflow = overflow_.find({cnid, type});
  if (overflow != overflow_.end()) {
    for (const auto& [start, extents] : overflow->second) {
      if (start != blocks) {
        report(owner + ": overflow record at block " + text(start) + ", expected at " + text(blocks));
      }
      blocks += add_extents(owner, extents);
    }
    overflow_.erase(overflow);
  }
  if (blocks != total) {
    report(owner + ": totalBlocks is " + text(total) + ", its extents have " + text(blocks));
  }
  const std::uint64_t needed = logical_size / block_size_ + (logical_size % block_size_ != 0 ? 1 : 0);
  if (needed > total) {
    report(owner + ": logicalSize " + text(logical_size) + " exceeds its blocks");
  }
}

void VolumeChecker::read_catalog(const std::vector<FoundRecord>& records) {
  for (const FoundRecord& record : records) {
    const std::string place = "catalog: node " + text(record.node) + ": record " + text(record.index);
    const std::uint16_t type = get_be16(record.data, 0);
    if (type == kFolder || type == kFile) {
      read_entry(record, type, place);
    } else if (type == kFolderThread || type == kFileThread) {
      read_thread(record, type, place);
    } else {
      report(place + " has record type " + text(type));
    }
  }
}

void VolumeChecker::read_entry(const FoundRecord& record, std::uint16_t type, const std::string& place) {
  if (record.data.size() != (type == kFolder ? 88U : 248U)) {
    report(place + ": " + (type == kFolder ? "folder" : "file") + " record of " + text(record.data.size()) + " bytes");
    return;
  }
  CatalogEntry entry;
  entry.cnid = get_be32(record.data, 8);
  entry.parent = get_be32(record.key, 2);
  entry.name = name_of_key(record.key);
  entry.folder = type == kFolder;
  entry.counts_as_folder = entry.folder || (get_be32(record.data, 48) == kDirectoryLinkType &&
                                            get_be32(record.data, 52) == kDirectoryLinkCreator &&
                                            (get_be16(record.data, 2) & kHasLinkChain) != 0);
  entry.data = record.data;
  if (!entry_of_cnid_.emplace(entry.cnid, entries_.size()).second) {
    report(entry.label() + ": the ID is used twice");
  }
  ++children_[entry.parent].all;
  children_[entry.parent].folders += entry.counts_as_folder ? 1 : 0;
  entries_.push_back(std::move(entry));
}

void VolumeChecker::read_thread(const FoundRecord& record, std::uint16_t type, const std::string& place) {
  const std::size_t length = record.data.size() < 10 ? 0 : get_be16(record.data, 8);
  if (record.data.size() != 10 + 2 * length) {
    report(place + ": thread record of " + text(record.data.size()) + " bytes with a name of " + text(length));
    return;
  }
  if (record.key.size() != 8) {
    report(place + ": thread record under a name");
  }
  CatalogThread thread{get_be32(record.data, 4), {}, type == kFolderThread};
  for (std::size_t i = 0; i < length; ++i) {
    thread.name += static_cast<char16_t>(get_be16(record.data, 10 + 2 * i));
  }
  threads_[get_be32(record.key, 2)] = std::move(thread);
}

void VolumeChecker::check_entries() {
  if (entry_of_cnid_.count(kRootFolderId) == 0) {
    report("there is no root folder");
  }
  for (const CatalogEntry& entry : entries_) {
    const auto thread = threads_.find(entry.cnid);
    if (thread == threads_.end()) {
      if (!options_.missing_threads) {
        report(entry.label() + ": no thread record");
      }
    } else if (thread->second.parent != entry.parent || thread->second.name != entry.name ||
               thread->second.folder != entry.folder) {
      report(entry.label() + ": its thread record names another place");
    }
    const auto parent = entry_of_cnid_.find(entry.parent);
    const bool root = entry.cnid == kRootFolderId && entry.folder;
    if (root ? entry.parent != kRootParentId : parent == entry_of_cnid_.end() || !entries_[parent->second].folder) {
      report(entry.label() + ": its parent " + text(entry.parent) + " is no folder");
    }
    if (entry.folder) {
      check_folder(entry);
    } else {
      check_fork(entry.label(), Bytes(entry.data.begin() + 88, entry.data.begin() + 168), entry.cnid, 0);
      check_fork(entry.label() + " resource fork", Bytes(entry.data.begin() + 168, entry.data.end()), entry.cnid, 0xFF);
    }
  }
}

void VolumeChecker::check_folder(const CatalogEntry& folder) {
  const Children children = children_[folder.cnid];
  if (get_be32(folder.data, 4) != children.all) {
    report(folder.label() + ": valence is " + text(get_be32(folder.data, 4)) + ", not " + text(children.all));
  }
  if ((get_be16(folder.data, 2) & kHasFolderCount) != 0 && get_be32(folder.data, 84) != children.folders) {
    report(folder.label() + ": folderCount is " + text(get_be32(folder.data, 84)) + ", not " + text(children.folders));
  }
}

void VolumeChecker::check_threads() {
  for (const auto& [cnid, thread] : threads_) {
    if (entry_of_cnid_.count(cnid) == 0) {
      report("thread record " + text(cnid) + " belongs to nothing");
    }
  }
}

void VolumeChecker::check_counters() {
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
  std::uint32_t highest = 0;
  for (const CatalogEntry& entry : entries_) {
    files += entry.folder ? 0 : 1;
    folders += entry.folder && entry.cnid != kRootFolderId ? 1 : 0;
    highest = std::max(highest, entry.cnid);
  }
  if (field("fileCount") != files) {
    report("fileCount is " + text(field("fileCount")) + ", not " + text(files));
  }
  if (field("folderCount") != folders) {
    report("folderCount is " + text(field("folderCount")) + ", not " + text(folders));
  }
  if (field("nextCatalogID") <= highest || field("nextCatalogID") < kFirstUserId) {
    report("nextCatalogID " + text(field("nextCatalogID")) + " is in use");
  }
}

void VolumeChecker::check_orphan_overflow() {
  for (const auto& [key, records] : overflow_) {
    if (key.first != 5) {  // the bad-blocks file has no record but in the overflow tree
      report("overflow records of file " + text(key.first) + ", fork type " + text(key.second) + ", belong to nothing");
    }
    for (const auto& [start, extents] : records) {
      if (key.first == 5) {
        (void)add_extents("bad blocks", extents);
      }
    }
  }
}

void VolumeChecker::claim_reserved_blocks() {
  claims_.push_back({0, (1536 + block_size_ - 1) / block_size_, "volume header"});
  const std::uint64_t tail = (volume_.size() - 1024) / block_size_;
  if (tail < total_blocks_) {
    claims_.push_back({tail, total_blocks_, "alternate header"});
  }
}

void VolumeChecker::check_claims() {
  claim_reserved_blocks();
  std::sort(claims_.begin(), claims_.end(), [](const Claim& a, const Claim& b) { return a.start < b.start; });
  const Claim* widest = nullptr;
  for (const Claim& claim : claims_) {
    if (widest != nullptr && claim.start < widest->end) {
      report("block " + text(claim.start) + " belongs to " + widest->owner + " and to " + claim.owner);
    }
    if (widest == nullptr || claim.end > widest->end) {
      widest = &claim;
    }
  }
}

void set_bits(Bytes& bitmap, std::uint64_t start, std::uint64_t end) {
  for (std::uint64_t block = start; block < end;) {
    if (block % 8 == 0 && end - block >= 8) {
      bitmap[static_cast<std::size_t>(block / 8)] = 0xFF;
      block += 8;
    } else {
      bitmap[static_cast<std::size_t>(block / 8)] |= static_cast<std::uint8_t>(0x80U >> block % 8);
      ++block;
    }
  }
}

void VolumeChecker::check_allocation() {
  const auto bytes = static_cast<std::size_t>((total_blocks_ + 7) / 8);
  if (volume_.fork_logical_size(SpecialFile::kAllocation) < bytes) {
    report("the allocation file is too short");
    return;
  }
  Bytes expected(bytes);
  for (const Claim& claim : claims_) {
    set_bits(expected, claim.start, claim.end);
  }
  const Bytes actual = volume_.read_fork(SpecialFile::kAllocation, 0, bytes);
  if (actual != expected) {
    compare_bitmap(expected, actual);
  }
  std::uint64_t used = 0;
  for (const std::uint8_t byte : actual) {
    for (unsigned bits = byte; bits != 0; bits &= bits - 1) {
      ++used;
    }
  }
  if (field("freeBlocks") != total_blocks_ - used) {
    report("freeBlocks is " + text(field("freeBlocks")) + ", not " + text(total_blocks_ - used));
  }
}

// Reports the runs of blocks whose bits differ, each run once.
void VolumeChecker::compare_bitmap(const Bytes& expected, const Bytes& actual) {
  const auto state = [&](std::uint64_t block) {
    const unsigned bit = 0x80U >> block % 8;
    const auto at = static_cast<std::size_t>(block / 8);
    const bool marked = (actual[at] & bit) != 0;
    const bool owned = (expected[at] & bit) != 0;
    return marked == owned ? 0 : marked ? 1 : 2;
  };
  const std::uint64_t bits = expected.size() * std::uint64_t{8};
  for (std::uint64_t block = 0; block < bits;) {
    if (block % 8 == 0 &&
        expected[static_cast<std::size_t>(block / 8)] == actual[static_cast<std::size_t>(block / 8)]) {
      block += 8;
      continue;
    }
    const int what = state(block);
    const std::uint64_t start = block;
    while (block < bits && state(block) == what) {
      ++block;
    }
    const std::string run = "blocks " + text(start) + " to " + text(block - 1);
    if (what == 1 && !options_.leaked_blocks) {
      report(run + ": marked used, belong to nothing");
    } else if (what == 2) {
      report(run + ": used, marked free");
    }
  }
}

}  // namespace

std::vector<std::string> check_volume(const Volume& volume, const CheckOptions& options) {
  VolumeChecker checker(volume, options);
  try {
    return checker.run();
  } catch (const std::exception& error) {
    std::vector<std::string> messages = checker.messages();
    messages.push_back(std::string("the walk ended early: ") + error.what());
    return messages;
  }
}

std::vector<std::string> check_btree(const Volume& volume, Tree tree, const CheckOptions& options) {
  Findings findings;
  try {
    (void)check_tree(volume, tree, options, findings);
  } catch (const std::exception& error) {
    findings.add(std::string("the walk ended early: ") + error.what());
  }
  return findings.messages();
}

std::string joined(const std::vector<std::string>& messages) {
  std::string lines;
  for (const std::string& message : messages) {
    lines += message + "\n";
  }
  return lines;
}

}  // namespace kvfs_test
