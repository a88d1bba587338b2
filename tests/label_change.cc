#include "label_change.h"

#include <algorithm>
#include <optional>

namespace kvfs_test {

static constexpr Tree kCatalog = Tree::kCatalog;

std::set<std::uint32_t> nodes_of_label(const Volume& volume) {
  const std::uint32_t leaf = volume.find_by_cnid(kRootFolderId).value().node;
  std::set<std::uint32_t> nodes = {0, leaf};
  for (const RecordPlace& record : volume.index_path(kCatalog, leaf)) {
    nodes.insert(record.node);
  }
  return nodes;
}

std::vector<ByteRange> transfers_of_nodes(const Volume& volume, const std::set<std::uint32_t>& nodes) {
  const ForkView fork = volume.fork(kCatalog);
  const std::uint64_t node_size = volume.node_size(kCatalog);
  const std::uint64_t block_size = volume.block_size();
  std::vector<ByteRange> transfers;
  std::uint64_t fork_offset = 0;
  for (const Extent& extent : fork.extents()) {
    const std::uint64_t extent_end = fork_offset + extent.block_count * block_size;
    for (const std::uint32_t node : nodes) {
      const std::uint64_t begin = std::max(fork_offset, node * node_size);
      const std::uint64_t end = std::min(extent_end, (node + 1) * node_size);
      if (begin < end) {
        transfers.push_back({extent.start_block * block_size + begin - fork_offset, end - begin});
      }
    }
    fork_offset = extent_end;
  }
  return transfers;
}

std::set<std::uint32_t> changed_nodes(const Volume& before, const Volume& after) {
  std::set<std::uint32_t> changed;
  const std::uint64_t total = before.get_field("catalog.header.totalNodes");
  for (std::uint32_t node = 0; node < total; ++node) {
    if (before.read_node(kCatalog, node) != after.read_node(kCatalog, node)) {
      changed.insert(node);
    }
  }
  return changed;
}

std::string changes_outside_catalog(const Volume& before, const SparseImage& after) {
  const std::uint64_t block_size = before.block_size();
  const std::vector<Extent> extents = before.fork(kCatalog).extents();
  for (const std::uint64_t block : after.changed_units(before, block_size)) {
    const bool inside = std::any_of(extents.begin(), extents.end(), [block](const Extent& extent) {
      return block >= extent.start_block && block < std::uint64_t{extent.start_block} + extent.block_count;
    });
    if (!inside) {
      return "block " + std::to_string(block) + " outside of the catalog file has changed\n";
    }
  }
  return "";
}

// Takes a record out of a list and gives back its data.
static std::optional<Bytes> take_record(std::vector<Record>& records, const Bytes& key) {
  const auto found =
      std::find_if(records.begin(), records.end(), [&](const Record& record) { return record.first == key; });
  if (found == records.end()) {
    return std::nullopt;
  }
  Bytes data = found->second;
  records.erase(found);
  return data;
}

// Compares the records of both volumes, of which those of the root folder are taken out.
static std::string faults_of_records(const Volume& before, const Volume& after, const Name& label) {
  std::vector<Record> old_records = dump_records(before, kCatalog);
  std::vector<Record> new_records = dump_records(after, kCatalog);
  const std::optional<Bytes> old_folder = take_record(old_records, catalog_key(kRootParentId, read_label(before)));
  const std::optional<Bytes> new_folder = take_record(new_records, catalog_key(kRootParentId, label));
  (void)take_record(old_records, thread_key(kRootFolderId));
  const std::optional<Bytes> new_thread = take_record(new_records, thread_key(kRootFolderId));
  std::string faults;
  if (!new_folder || new_folder != old_folder) {
    faults += "the root folder's record is not what it was\n";
  }
  if (new_thread != thread_data(true, kRootParentId, label)) {
    faults += "the root folder's thread does not have the label\n";
  }
  if (new_records != old_records) {
    faults += "other records have changed\n";
  }
  return faults;
}

std::string faults_of_change(const Volume& before, const Volume& after, const Name& label,
                             const CheckOptions& options) {
  if (before.size() != after.size()) {
    return "the size has changed\n";
  }
  std::string faults = changes_outside_catalog(before, after);
  const std::vector<std::string> old_findings = check_volume(before, options);
  for (const std::string& finding : check_volume(after, options)) {
    if (std::find(old_findings.begin(), old_findings.end(), finding) == old_findings.end()) {
      faults += finding + "\n";
    }
  }
  return faults + faults_of_records(before, after, label);
}

std::string faults_of_partial_change(const Volume& before, const Volume& complete, const Volume& after,
                                     std::uint64_t unit) {
  std::string faults = changes_outside_catalog(before, after);
  for (const ByteRange& range : transfers_of_nodes(before, changed_nodes(before, after))) {
    for (std::uint64_t at = range.offset; at < range.offset + range.length; at += unit) {
      const std::size_t length = static_cast<std::size_t>(std::min(unit, range.offset + range.length - at));
      const Bytes now = after.SparseImage::read(at, length);
      if (now != before.SparseImage::read(at, length) && now != complete.SparseImage::read(at, length)) {
        faults += std::to_string(length) + " bytes from " + std::to_string(at) + " on are neither old nor new\n";
      }
    }
  }
  return faults;
}

}  // namespace kvfs_test
