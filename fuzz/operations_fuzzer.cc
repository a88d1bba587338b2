// Any sequence of the library's operations on a volume, damaged or not: nothing crashes, runs away, leaks or leaves a
// lock, whatever came before.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "bitmap.h"
#include "btree.h"
#include "catalog.h"
#include "fork.h"
#include "format.h"
#include "fuzz_volume.h"

using namespace kvfs_fuzz;
using kvfs_test::OpenVolume;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static constexpr int kMostOperations = 24;
static constexpr std::uint32_t kMostIDs = 64;
static constexpr std::size_t kLongestName = 40;

namespace {

// A session with a volume, with the item that was looked up last.
class Session {
 public:
  Session(FuzzDevice* device, Input* input) : input_(input), volume_(device->device(), kMaybe) {
    kvfs_catalog_search_result_init(&item_);
  }
  ~Session() { forget_item(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] bool is_open() const { return volume_.get() != nullptr; }

  void run() {
    for (int i = 0; i < kMostOperations && !input_->at_end(); ++i) {
      do_one();
    }
  }

 private:
  [[nodiscard]] kvfs_catalog* catalog() const { return volume_.get()->catalog; }
  [[nodiscard]] kvfs_btree* tree() const { return *catalog()->btree; }

  void forget_item() { kvfs_catalog_search_result_release(&item_); }

  std::vector<kvfs_be16> take_name() {
    std::vector<kvfs_be16> name(input_->below(kLongestName));
    for (kvfs_be16& unit : name) {
      unit.set(input_->byte());
    }
    return name;
  }

  void do_one() {
    switch (input_->below(16)) {
      case 0:
        return look_up_id();
      case 1:
        return look_up_path();
      case 2:
        return look_up_key();
      case 3:
        return step();
      case 4:
        return rename();
      case 5:
        return delete_item();
      case 6:
        return make_symlink();
      case 7:
        return insert();
      case 8:
        (void)kvfs_btree_expand(tree(), volume_.get());
        return;
      case 9:
        (void)kvfs_fork_shrink(tree()->fork, volume_.get(), input_->byte());
        return;
      case 10:
        return use_blocks();
      case 11:
        return use_fork();
      case 12:
        return set_label();
      case 13:
        return read_size();
      case 14:
        return write_item();
      default:
        (void)kvfs_fork_flush(tree()->fork);
        (void)kvfs_volume_flush(volume_.get());
        return;
    }
  }

  void look_up_id() {
    forget_item();
    const std::uint32_t cnid = input_->word() % kMostIDs;
    (void)kvfs_catalog_search_by_cnid(catalog(), cnid, (input_->byte() & 1) != 0, &item_);
  }

  void look_up_path() {
    forget_item();
    const std::vector<std::uint8_t> bytes = input_->bytes(input_->below(kLongestName));
    const std::string path = "/" + std::string(bytes.begin(), bytes.end());
    kvfs_catalog_utf8_path components = {path.c_str()};
    (void)kvfs_catalog_search_by_path(catalog(), kvfs_catalog_utf8_path_component, &components, nullptr, &item_);
  }

  HFSPlusCatalogKey take_key() {
    HFSPlusCatalogKey key = {};
    const std::vector<kvfs_be16> name = take_name();
    key.keyLength.set(static_cast<std::uint16_t>(6 + 2 * name.size()));
    key.parentID.set(input_->byte() % kMostIDs);
    key.nodeName.length.set(static_cast<std::uint16_t>(name.size()));
    std::copy(name.begin(), name.end(), key.nodeName.unicode);
    return key;
  }

  void look_up_key() {
    forget_item();
    const HFSPlusCatalogKey key = take_key();
    (void)kvfs_catalog_search_node(catalog(), &key, &item_);
  }

  // Goes on to the next records.
  void step() {
    for (unsigned i = input_->byte() % 8; i > 0 && item_.locator != nullptr; --i) {
      kvfs_catalog_record_locator* next = nullptr;
      (void)kvfs_catalog_get_next_record(catalog(), item_.locator, &next);
      forget_item();
      item_.locator = next;
    }
  }

  // Gives the item's locator the folder with an ID as its parent.
  void give_parent(std::uint32_t cnid) {
    kvfs_catalog_search_result folder;
    kvfs_catalog_search_result_init(&folder);
    if (kvfs_catalog_search_by_cnid(catalog(), cnid, true, &folder) == kvfs_ok && folder.locator != nullptr &&
        kvfs_catalog_record_locator_set_parent_locator(item_.locator, folder.locator) == kvfs_ok) {
      folder.locator = nullptr;
    }
    kvfs_catalog_search_result_release(&folder);
  }

  void rename() {
    const std::vector<kvfs_be16> name = take_name();
    const std::uint32_t parent = input_->byte() % kMostIDs;
    if (item_.locator != nullptr) {
      if ((input_->byte() & 1) != 0 && *item_.locator->parent == nullptr) {
        give_parent(parent);
      }
      (void)kvfs_catalog_rename_record(catalog(), &item_.locator, kvfs_be32::of(parent), name.data(), name.size());
    }
    forget_item();
  }

  void delete_item() {
    if (item_.locator != nullptr) {
      int can_delete = 0;
      (void)kvfs_catalog_can_delete_file(catalog(), item_.locator, &can_delete);
      (void)kvfs_catalog_delete(catalog(), volume_.get(), item_.locator);
    }
    forget_item();
  }

  void make_symlink() {
    const std::vector<kvfs_be16> target = take_name();
    if (item_.locator != nullptr) {
      (void)kvfs_catalog_mksymlink(item_.locator, target.data(), target.size(), volume_.get());
    }
  }

  void insert() {
    const HFSPlusCatalogKey key = take_key();
    std::vector<std::uint8_t> record = input_->bytes(input_->below(256));
    kvfs_catalog_record_locator* inserted = nullptr;
    if (kvfs_catalog_insert_record(catalog(), &key, record.data(), static_cast<std::uint16_t>(record.size()),
                                   (input_->byte() & 1) != 0 ? &item_ : nullptr, &inserted) == kvfs_ok) {
      kvfs_catalog_record_locator_close(&inserted);
    }
  }

  void use_blocks() {
    const std::uint32_t count = input_->byte();
    const std::uint32_t block = input_->unit();
    kvfs_allocation_location location = {};
    (void)FindContiguousUnallocated(volume_.get(), count, block, &location);
    (void)AllocateExtentAllocationBlocks(block, count % 16, volume_.get());
    (void)FreeAllocationBlock(block, volume_.get()->bitmap);
    use_blocks_of_item();
  }

  // Looks for room behind the data of the item, and gives a copy of its fork data more.
  void use_blocks_of_item() {
    if (item_.locator == nullptr || item_.locator->btree_locator->data_size < sizeof(HFSPlusCatalogFile)) {
      return;
    }
    const HFSPlusCatalogFile record = *kvfs_view_as<HFSPlusCatalogFile>(item_.locator->btree_locator->data);
    HFSPlusForkData data = record.dataFork;
    const std::uint64_t offset = input_->word() & 0xFFFFF;
    const std::uint32_t length = input_->unit();
    kvfs_allocation_location location = {};
    (void)FindWriteLocation(record.fileID.get(), kHFSDataForkType, &data, volume_.get(), offset, length, &location);
    (void)UpdateForks(volume_.get(), &data, offset, length, &location);
  }

  void use_fork() {
    kvfs_fork* const fork = tree()->fork;
    const std::uint32_t offset = input_->word() & 0xFFFFF;
    const std::size_t length = input_->unit();
    std::vector<std::uint8_t> buffer(length + 1);
    void* bytes = nullptr;
    if (kvfs_fork_map(fork, offset, &bytes, length, nullptr) == kvfs_ok) {
      (void)kvfs_fork_unmap(fork, offset, &bytes, length);
    }
    (void)kvfs_fork_read(fork, offset, buffer.data(), length, nullptr);
    if ((input_->byte() & 3) == 0) {
      (void)kvfs_fork_write(fork, offset, buffer.data(), length / 16, nullptr);
      (void)kvfs_fork_fill(fork, offset, length / 16, input_->byte(), nullptr);
    }
  }

  void set_label() {
    const std::vector<kvfs_be16> label = take_name();
    (void)kvfs_volume_set_label(volume_.get(), label.data(), label.size());
  }

  void read_size() {
    if (item_.locator != nullptr && item_.locator->btree_locator->data_size >= sizeof(HFSPlusCatalogFile)) {
      HFSPlusCatalogFile record = *kvfs_view_as<HFSPlusCatalogFile>(item_.locator->btree_locator->data);
      (void)kvfs_catalog_record_get_file_size(&record, catalog());
      kvfs_catalog_record_set_file_size(&record, input_->word());
    }
  }

  void write_item() {
    const std::vector<std::uint8_t> data = input_->bytes(input_->below(256));
    if (item_.locator != nullptr) {
      (void)kvfs_btree_record_locator_write_data(item_.locator->btree_locator, data.data(), data.size());
    }
  }

  Input* input_;
  OpenVolume volume_;
  kvfs_catalog_search_result item_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FuzzDevice& device = FuzzDevice::choose(&input);
  device.damage(&input);
  for (int sessions = 0; sessions < 2 && !input.at_end(); ++sessions) {
    Session session(&device, &input);
    if (!session.is_open()) {
      break;
    }
    session.run();
  }
  return 0;
}
