// Random labels on random volumes, sound and damaged: whenever the tool says that a label was set, it can be read back,
// and whenever it fails, the device is as it was.
//
// KVFS_PROPERTY_ROUNDS makes a run longer (default 1: seconds), and KVFS_PROPERTY_SEED is the first volume's seed.

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fail_each.h"
#include "label.h"
#include "label_change.h"
#include "property/random.h"
#include "unicode.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

// ---- Volumes -------------------------------------------------------------------------------------------------------

// Units that orders treat in a way of their own: NUL, ignorable ones, capitals, the last of all.
Name random_name(Random& random, std::size_t most) {
  static constexpr char16_t kUnits[] = {0, 0, 1, u'a', u'A', u'b', u'~', 0x200C, 0xFEFF, 0x0301, 0xD83D, 0xFFFF};
  Name name(1 + below(random, static_cast<std::uint32_t>(most)), u'x');
  for (char16_t& unit : name) {
    unit =
        one_in(random, 3) ? static_cast<char16_t>('a' + below(random, 26)) : kUnits[below(random, std::size(kUnits))];
  }
  return name;
}

VolumeDescription random_description(Random& random) {
  static constexpr std::uint32_t kNodeSizes[] = {512, 1024, 2048, 4096, 8192};
  VolumeDescription description;
  description.catalog.node_size = kNodeSizes[below(random, 5)];
  description.block_size = description.catalog.node_size == 512 ? 512 : 1024;
  description.hfsx = true;
  description.case_sensitive = one_in(random, 2);
  description.nul_names_by_units = description.case_sensitive && one_in(random, 2);
  const std::size_t most = description.catalog.node_size < 2048 ? 14 : 250;
  description.label = Name(below(random, static_cast<std::uint32_t>(most)), u'o');
  if (one_in(random, 2)) {
    (void)description.private_folder();
  }
  const std::uint32_t folders = below(random, 40);
  for (std::uint32_t i = 0; i < folders; ++i) {
    (void)description.add_folder(one_in(random, 5) ? kFirstUserId : kRootFolderId, random_name(random, most));
  }
  description.catalog.spare_nodes = below(random, 12);
  description.catalog.leaf_free_bytes = static_cast<std::uint16_t>(one_in(random, 2) ? 0 : 2 * below(random, 60));
  return description;
}

// What cannot be built, such as one name twice in a folder, is replaced by what can.
Volume random_volume(Random& random) {
  for (;;) {
    try {
      return build_volume(random_description(random));
    } catch (const std::invalid_argument&) {
    }
  }
}

// Changes bytes where the label is looked for.
void damage(Volume& volume, Random& random) {
  const std::uint32_t size = volume.node_size(Tree::kCatalog);
  const std::uint32_t nodes = static_cast<std::uint32_t>(volume.fork(Tree::kCatalog).size() / size);
  std::vector<std::uint64_t> places;  // found before anything is damaged
  for (std::uint32_t node = 0; node < nodes; ++node) {
    places.push_back(volume.node_device_offset(Tree::kCatalog, node));
  }
  for (std::uint32_t i = 1 + below(random, 4); i > 0; --i) {
    const std::uint32_t node = one_in(random, 2) ? 1 : below(random, nodes);
    const std::uint32_t at = one_in(random, 2) ? below(random, 64) : below(random, size);
    const std::uint32_t value = one_in(random, 2) ? below(random, 8) : below(random, 256);
    volume.write(places.at(node) + at, {static_cast<std::uint8_t>(value)});
  }
}

// ---- Labels --------------------------------------------------------------------------------------------------------

std::string random_label(Random& random) {
  static constexpr const char* kCharacters[] = {
      "A",        "a",        "\xC3\xA9",     "\xE1\xBA\xA6", "\xEA\xB0\x81", "\xF0\x9F\x98\x80",
      ";",        "\xCE\x86", "\xEF\xBF\xBF", "\xE2\x80\x8C", "\xEF\xBB\xBF", "\xF4\x8F\xBF\xBF",
      "\xCC\x81", "\x01"};
  std::string label;
  for (std::uint32_t i = below(random, one_in(random, 2) ? 12 : 200); i > 0; --i) {
    label += kCharacters[below(random, std::size(kCharacters))];
  }
  return one_in(random, 10) ? label + "\xF4\x90\x80\x80" : label;
}

constexpr Opening kMaybe = {.skip_allocation_file = 1, .may_fail = true};

// Sets a label as the tool does.
kvfs_result set_label(const OpenVolume& volume, const std::string& label) {
  return kvfslabel_set_label(volume.get(), label.c_str());
}

// Whether the label in memory can be printed.
bool can_be_printed(const OpenVolume& volume) {
  std::vector<std::uint16_t> units;
  for (const char16_t unit : volume.label()) {
    units.push_back(unit);
  }
  char* text = nullptr;
  std::size_t length = 0;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units.data(), units.size(), kUnicodeHostOrder, &text, &length);
  std::free(text);
  return result == kvfs_ok;
}

// Sets a random label; "" when all is well. `sets` counts those that succeed.
std::string fault_of_set(const Volume& before, bool is_sound, Random& random, unsigned* sets) {
  const OpenVolume volume(before, kMaybe);
  if (volume.result() != kvfs_ok) {
    return "";
  }
  const std::string label = random_label(random);
  if (set_label(volume, label) != kvfs_ok) {
    return volume.contents() == before ? "" : "a set that failed has changed the device: " + label;
  }
  ++*sets;
  const OpenVolume again(volume.contents(), kMaybe);
  if (again.result() != kvfs_ok) {
    return "the volume does not open any more: " + label;
  }
  if (label.ends_with("\xF4\x90\x80\x80") || again.label() != decomposed(label)) {
    return "another label is read back: " + label;
  }
  if (!can_be_printed(again)) {
    return "the label cannot be printed: " + label;
  }
  return is_sound && joined(check_volume(before)).empty()
             ? faults_of_change(before, again.contents(), decomposed(label))
             : "";
}

void expect_no_faults(void (*change)(Volume&, Random&), unsigned volumes) {
  const unsigned long first = number_from("KVFS_PROPERTY_SEED", 1);
  const unsigned long last = first + volumes * number_from("KVFS_PROPERTY_ROUNDS", 1);
  unsigned sets = 0;
  for (unsigned long seed = first; seed < last; ++seed) {
    Random random(static_cast<Random::result_type>(seed));
    Volume volume = random_volume(random);
    if (change != nullptr) {
      change(volume, random);
    }
    LogCapture log;
    const std::string fault = fault_of_set(volume, change == nullptr, random, &sets);
    log.finish();
    EXPECT_EQ(fault, "") << "KVFS_PROPERTY_SEED=" << seed;
  }
  ::testing::Test::RecordProperty("sets", std::to_string(sets));
  EXPECT_GT(sets, volumes / 10);
}

// X-tool-5
TEST(LabelProperty, SoundVolumes_GiveBackWhateverWasSet) {
  expect_no_faults(nullptr, 300);
}

// X-tool-5
TEST(LabelProperty, DamagedVolumes_GiveBackWhateverWasSet) {
  expect_no_faults(damage, 600);
}

}  // namespace
}  // namespace kvfs_test
