// What the library's operations cost on catalogs of 1,000 to 1,000,000 records, all of it in memory: how the times grow
// with a catalog, not how fast a device is.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "extents.h"
#include "fork.h"
#include "open_volume.h"
#include "stored_names.h"
#include "unicode.h"
#include "volume_builder.h"

namespace {

using kvfs_test::build_volume;
using kvfs_test::kRootFolderId;
using kvfs_test::OpenVolume;
using kvfs_test::stored_units;
using kvfs_test::TestDevice;
using kvfs_test::VolumeDescription;

constexpr std::uint32_t kFilesPerFolder = 100;
constexpr std::uint32_t kSpareNodes = 2000;
constexpr int kInsertions = 100;  // records that go into a fresh opening; a root node is never split

void expect_ok(kvfs_result result, const char* what) {
  if (result != kvfs_ok) {
    throw std::runtime_error(what + std::string(" gives ") + std::to_string(result));
  }
}

// ---- Catalogs ------------------------------------------------------------------------------------------------------

// A catalog of about `records` records in folders of 100 files.
struct Catalog {
  explicit Catalog(std::uint32_t records) {
    VolumeDescription description;
    description.catalog.node_size = 8192;  // what large volumes have
    description.catalog.spare_nodes = kSpareNodes;
    const std::uint32_t folders = records / 2 / kFilesPerFolder;
    first_folder = description.add_folders(kRootFolderId, folders + 1);
    for (std::uint32_t i = 0; i < folders; ++i) {
      const std::uint32_t first = description.add_files(first_folder + i, kFilesPerFolder, "file");
      first_file = i == 0 ? first : first_file;
    }
    files = folders * kFilesPerFolder;
    device = std::make_unique<TestDevice>(build_volume(description));
  }

  [[nodiscard]] std::uint32_t folder_of(std::uint32_t file) const { return first_folder + file / kFilesPerFolder; }
  [[nodiscard]] static std::string name_of(std::uint32_t file) {
    const std::string digits = std::to_string(file % kFilesPerFolder);
    return "file" + std::string(6 - digits.size(), '0') + digits;
  }
  [[nodiscard]] std::string path_of(std::uint32_t file) const {
    const std::string digits = std::to_string(file / kFilesPerFolder);
    return "/d" + std::string(6 - digits.size(), '0') + digits + "/" + name_of(file);
  }
  // The leaf record that a file's key finds.
  [[nodiscard]] HFSPlusCatalogKey key_of(std::uint32_t file) const {
    HFSPlusCatalogKey key = {};
    const std::string name = name_of(file);
    key.parentID.set(folder_of(file));
    key.nodeName.length.set(static_cast<std::uint16_t>(name.size()));
    for (std::size_t i = 0; i < name.size(); ++i) {
      key.nodeName.unicode[i].set(static_cast<std::uint16_t>(name[i]));
    }
    key.keyLength.set(static_cast<std::uint16_t>(6 + 2 * name.size()));
    return key;
  }

  std::uint32_t first_folder;
  std::uint32_t first_file = 0;
  std::uint32_t files;
  // What is changed through one of the volumes that are opened on it, one behind the other, is never flushed.
  std::unique_ptr<TestDevice> device;
};

const Catalog& catalog_of(std::int64_t records) {
  static std::map<std::int64_t, std::unique_ptr<Catalog>> catalogs;
  std::unique_ptr<Catalog>& catalog = catalogs[records];
  if (catalog == nullptr) {
    catalog = std::make_unique<Catalog>(static_cast<std::uint32_t>(records));
  }
  return *catalog;
}

// Files in an order that a cache of the processor cannot foresee, the same one in each run.
class RandomFiles {
 public:
  explicit RandomFiles(const Catalog& catalog) : below_(0, catalog.files - 1) {}
  std::uint32_t next() { return below_(engine_); }

 private:
  std::mt19937 engine_{20240229};
  std::uniform_int_distribution<std::uint32_t> below_;
};

// Visits every record, so that the catalog is in memory, and counts them.
std::uint64_t walk(const OpenVolume& volume) {
  kvfs_catalog_search_result place;
  kvfs_catalog_search_result_init(&place);
  expect_ok(kvfs_catalog_search_by_cnid(volume.catalog(), kRootFolderId, false, &place), "search");
  std::uint64_t records = 0;
  kvfs_catalog_record_locator* record = place.locator;
  while (record != nullptr) {
    ++records;
    kvfs_catalog_record_locator* next = nullptr;
    expect_ok(kvfs_catalog_get_next_record(volume.catalog(), record, &next), "next record");
    kvfs_catalog_record_locator_close(&record);
    record = next;
  }
  return records;
}

void set_tree_counters(benchmark::State& state, const OpenVolume& volume) {
  void* bytes = nullptr;
  expect_ok(kvfs_fork_map(volume.catalog_tree()->fork, sizeof(BTNodeDescriptor), &bytes, sizeof(BTHeaderRec), nullptr),
            "header record");
  state.counters["height"] = kvfs_view_as<BTHeaderRec>(bytes)->treeDepth.get();
  expect_ok(kvfs_fork_unmap(volume.catalog_tree()->fork, sizeof(BTNodeDescriptor), &bytes, sizeof(BTHeaderRec)),
            "header record");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

// ---- Reading a catalog ---------------------------------------------------------------------------------------------

// Looks files up in random order; `search` searches for one of them.
template <typename Search>
void look_up(benchmark::State& state, const Search& search) {
  const Catalog& catalog = catalog_of(state.range(0));
  const OpenVolume volume(*catalog.device);
  walk(volume);
  RandomFiles files(catalog);
  for (auto iteration : state) {
    (void)iteration;
    kvfs_catalog_search_result result;
    kvfs_catalog_search_result_init(&result);
    expect_ok(search(volume.catalog(), catalog, files.next(), &result), "search");
    if (result.found == 0) {
      state.SkipWithError("not found");
    }
    kvfs_catalog_search_result_release(&result);
  }
  set_tree_counters(state, volume);
}

void lookup_by_key(benchmark::State& state) {
  look_up(state,
          [](kvfs_catalog* open, const Catalog& catalog, std::uint32_t file, kvfs_catalog_search_result* result) {
            const HFSPlusCatalogKey key = catalog.key_of(file);
            return kvfs_catalog_search_node(open, &key, result);
          });
}

void lookup_by_cnid(benchmark::State& state) {
  look_up(state,
          [](kvfs_catalog* open, const Catalog& catalog, std::uint32_t file, kvfs_catalog_search_result* result) {
            return kvfs_catalog_search_by_cnid(open, catalog.first_file + file, true, result);
          });
}

void lookup_by_path(benchmark::State& state) {
  look_up(state,
          [](kvfs_catalog* open, const Catalog& catalog, std::uint32_t file, kvfs_catalog_search_result* result) {
            const std::string path = catalog.path_of(file);
            kvfs_catalog_utf8_path components = {path.c_str()};
            return kvfs_catalog_search_by_path(open, kvfs_catalog_utf8_path_component, &components, nullptr, result);
          });
}

void iterate(benchmark::State& state) {
  const Catalog& catalog = catalog_of(state.range(0));
  const OpenVolume volume(*catalog.device);
  walk(volume);
  std::uint64_t records = 0;
  for (auto iteration : state) {
    (void)iteration;
    records += walk(volume);
  }
  set_tree_counters(state, volume);
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
}

// ---- Changing a catalog --------------------------------------------------------------------------------------------

void write_in_place(benchmark::State& state) {
  const Catalog& catalog = catalog_of(state.range(0));
  const OpenVolume volume(*catalog.device);
  const HFSPlusCatalogKey key = catalog.key_of(catalog.files / 2);
  kvfs_catalog_search_result result;
  kvfs_catalog_search_result_init(&result);
  expect_ok(kvfs_catalog_search_node(volume.catalog(), &key, &result), "search");
  HFSPlusCatalogFile record;
  std::memcpy(&record, result.locator->btree_locator->data, sizeof(record));
  for (auto iteration : state) {
    (void)iteration;
    record.contentModDate.set(record.contentModDate.get() + 1);
    expect_ok(kvfs_btree_record_locator_write_data(result.locator->btree_locator, &record, sizeof(record)), "write");
  }
  kvfs_catalog_search_result_release(&result);
  set_tree_counters(state, volume);
}

// Inserts records of files that are new in a folder, their names in the order given.
void insert(benchmark::State& state, bool ascending) {
  const Catalog& catalog = catalog_of(state.range(0));
  std::vector<std::uint32_t> order(kInsertions);
  for (std::uint32_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  if (!ascending) {
    std::shuffle(order.begin(), order.end(), std::mt19937{1});
  }
  std::vector<HFSPlusCatalogKey> keys;
  for (const std::uint32_t number : order) {
    HFSPlusCatalogKey key = catalog.key_of(catalog.files / 2);
    for (std::uint16_t i = 0; i < 4; ++i) {  // behind all that is there, and in order of the number
      key.nodeName.unicode[i].set(static_cast<std::uint16_t>('p' + ((number >> (4 * (3 - i))) & 0xF)));
    }
    keys.push_back(key);
  }
  HFSPlusCatalogFile record = {};
  record.recordType.set(kHFSPlusFileRecord);
  for (auto iteration : state) {
    (void)iteration;
    state.PauseTiming();
    auto volume = std::make_unique<OpenVolume>(*catalog.device);
    walk(*volume);
    state.ResumeTiming();
    for (const HFSPlusCatalogKey& key : keys) {
      kvfs_catalog_record_locator* locator = nullptr;
      expect_ok(kvfs_catalog_insert_record(volume->catalog(), &key, &record, sizeof(record), nullptr, &locator),
                "insertion");
      kvfs_catalog_record_locator_close(&locator);
    }
    state.PauseTiming();
    volume.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kInsertions);
}

void insert_ascending(benchmark::State& state) {
  insert(state, true);
}
void insert_random(benchmark::State& state) {
  insert(state, false);
}

// Each round renames a file to another name of the same length, so that a catalog stays as it is in size.
void rename_file(benchmark::State& state) {
  const Catalog& catalog = catalog_of(state.range(0));
  const OpenVolume volume(*catalog.device);
  walk(volume);
  const std::uint32_t cnid = catalog.first_file + catalog.files / 2 + kFilesPerFolder / 2;
  std::array<kvfs_be16, 10> name = {};
  std::uint32_t round = 0;
  for (auto iteration : state) {
    (void)iteration;
    for (std::size_t i = 0; i < name.size(); ++i) {
      name[i].set(static_cast<std::uint16_t>('a' + ((round >> i) & 7)));
    }
    ++round;
    kvfs_catalog_search_result result;
    kvfs_catalog_search_result_init(&result);
    expect_ok(kvfs_catalog_search_by_cnid(volume.catalog(), cnid, true, &result), "search");
    const kvfs_be32 parent = kvfs_be32::of(catalog.folder_of(catalog.files / 2 + kFilesPerFolder / 2));
    kvfs_catalog_search_result folder;
    kvfs_catalog_search_result_init(&folder);
    expect_ok(kvfs_catalog_search_by_cnid(volume.catalog(), parent.get(), true, &folder), "search");
    expect_ok(kvfs_catalog_record_locator_set_parent_locator(result.locator, folder.locator), "parent");
    folder.locator = nullptr;  // the item's now
    expect_ok(kvfs_catalog_rename_record(volume.catalog(), &result.locator, parent, name.data(), name.size()),
              "rename");
    kvfs_catalog_search_result_release(&result);
  }
  set_tree_counters(state, volume);
}

void delete_files(benchmark::State& state) {
  const Catalog& catalog = catalog_of(state.range(0));
  const std::uint32_t count = std::min(catalog.files / 2, 500U);
  for (auto iteration : state) {
    (void)iteration;
    state.PauseTiming();
    auto volume = std::make_unique<OpenVolume>(*catalog.device);
    walk(*volume);
    state.ResumeTiming();
    for (std::uint32_t file = 0; file < count; ++file) {
      if (file % kFilesPerFolder < 2) {
        continue;  // no leaf may become empty
      }
      kvfs_catalog_search_result result;
      kvfs_catalog_search_result_init(&result);
      expect_ok(kvfs_catalog_search_by_cnid(volume->catalog(), catalog.first_file + file, true, &result), "search");
      expect_ok(kvfs_btree_delete_record(volume->catalog_tree(), result.locator->btree_locator, 0), "deletion");
      kvfs_catalog_search_result_release(&result);
    }
    state.PauseTiming();
    volume.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * count * (kFilesPerFolder - 2) /
                          kFilesPerFolder);
}

BENCHMARK(lookup_by_key)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK(lookup_by_cnid)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK(lookup_by_path)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK(iterate)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(write_in_place)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK(insert_ascending)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(insert_random)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(rename_file)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK(delete_files)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);

// ---- Blocks and forks ----------------------------------------------------------------------------------------------

const TestDevice& block_device() {
  static const TestDevice device([] {
    VolumeDescription description;
    description.size = std::uint64_t{1} << 32;
    return build_volume(description);
  }());
  return device;
}

void allocate_and_search_blocks(benchmark::State& state) {
  const std::uint32_t blocks = static_cast<std::uint32_t>(state.range(0));
  const OpenVolume volume(block_device());
  kvfs_allocation_location location = {};
  std::uint32_t hint = 100000;
  for (auto iteration : state) {
    (void)iteration;
    expect_ok(FindContiguousUnallocated(volume.get(), blocks, hint, &location), "search");
    if (location.block_count == 0) {
      state.SkipWithError("no blocks left");
      break;
    }
    expect_ok(AllocateExtentAllocationBlocks(location.start_block, blocks, volume.get()), "allocation");
    hint = location.start_block + blocks;
    if (hint > 1000000) {
      hint = 100000;
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * blocks);
}
BENCHMARK(allocate_and_search_blocks)->Arg(8)->Arg(64)->Iterations(2000);

void map_and_unmap(benchmark::State& state) {
  const Catalog& catalog = catalog_of(1000);
  const OpenVolume volume(*catalog.device);
  kvfs_fork* const fork = volume.catalog_tree()->fork;
  for (auto iteration : state) {
    (void)iteration;
    void* bytes = nullptr;
    expect_ok(kvfs_fork_map(fork, 4096, &bytes, 4096, nullptr), "map");
    benchmark::DoNotOptimize(bytes);
    expect_ok(kvfs_fork_unmap(fork, 4096, &bytes, 4096), "unmap");
  }
}
BENCHMARK(map_and_unmap);

// Opens the fork of a file with many extents, nearly all of them in the extents overflow file, and reads all of it.
void open_and_read_fragmented_fork(benchmark::State& state) {
  const std::uint32_t extents = static_cast<std::uint32_t>(state.range(0));
  VolumeDescription description;
  description.block_size = 512;
  (void)description.add_overflow_records(extents / 8);
  const OpenVolume volume(build_volume(description));
  kvfs_catalog_search_result file;
  kvfs_catalog_search_result_init(&file);
  expect_ok(kvfs_catalog_search_by_cnid(volume.catalog(), 16, true, &file), "search");
  HFSPlusForkData fork_data = kvfs_view_as<HFSPlusCatalogFile>(file.locator->btree_locator->data)->dataFork;
  kvfs_catalog_search_result_release(&file);
  std::vector<std::uint8_t> content(static_cast<std::size_t>(fork_data.logicalSize.get()));
  for (auto iteration : state) {
    (void)iteration;
    kvfs_fork* fork = nullptr;
    expect_ok(kvfs_fork_create(volume.get()->device, volume.get()->extents, 0, volume.get()->header, 16, &fork_data,
                               512, &fork),
              "fork");
    expect_ok(kvfs_fork_read(fork, 0, content.data(), content.size(), nullptr), "read");
    kvfs_fork_destroy(&fork);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * extents);
}
BENCHMARK(open_and_read_fragmented_fork)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

// ---- Names ---------------------------------------------------------------------------------------------------------

constexpr std::u16string_view kAsciiName = u"A photograph of the harbour, taken at dusk (17).jpeg";
constexpr std::u16string_view kAccentedName = u"Ångström Übergröße àéîõü Çédille Žluťoučký kůň ぱぴぷ 한글.txt";

void compare_names(benchmark::State& state, std::u16string_view text) {
  const std::vector<kvfs_be16> a = stored_units(text);
  const std::vector<kvfs_be16> b = stored_units(text);
  for (auto iteration : state) {
    (void)iteration;
    benchmark::DoNotOptimize(kvfs_unicode_fast_compare(a.data(), a.size(), b.data(), b.size(), false));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK_CAPTURE(compare_names, ascii, kAsciiName);
BENCHMARK_CAPTURE(compare_names, accented, kAccentedName);

void decompose(benchmark::State& state, std::u16string_view text) {
  std::vector<std::uint16_t> name(text.begin(), text.end());
  std::vector<std::uint16_t> decomposed(4 * name.size());
  for (auto iteration : state) {
    (void)iteration;
    std::size_t count = 0;
    benchmark::DoNotOptimize(
        kvfs_unicode_decompose(name.data(), name.size(), decomposed.data(), decomposed.size(), &count));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK_CAPTURE(decompose, ascii, kAsciiName);
BENCHMARK_CAPTURE(decompose, accented, kAccentedName);

void compose(benchmark::State& state, std::u16string_view text) {
  std::vector<std::uint16_t> name(text.begin(), text.end());
  std::vector<std::uint16_t> decomposed(4 * name.size());
  std::size_t count = 0;
  (void)kvfs_unicode_decompose(name.data(), name.size(), decomposed.data(), decomposed.size(), &count);
  const std::vector<kvfs_be16> stored =
      stored_units(std::u16string(decomposed.begin(), decomposed.begin() + static_cast<std::ptrdiff_t>(count)));
  std::vector<std::uint16_t> composed(count);
  for (auto iteration : state) {
    (void)iteration;
    std::size_t length = 0;
    benchmark::DoNotOptimize(
        kvfs_unicode_compose(stored.data(), stored.size(), composed.data(), composed.size(), &length));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * stored.size()));
}
BENCHMARK_CAPTURE(compose, ascii, kAsciiName);
BENCHMARK_CAPTURE(compose, accented, kAccentedName);

}  // namespace

BENCHMARK_MAIN();
