// Sets labels on damaged volumes. Until the flush nothing may be written, and a sound volume whose label was set has
// it. A label of any bytes that the tool has set there can be printed as well.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "btree.h"
#include "catalog.h"
#include "fork.h"
#include "fuzz_volume.h"
#include "label.h"
#include "unicode.h"

using namespace kvfs_fuzz;
using kvfs_test::OpenVolume;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static constexpr std::size_t kLongestLabel = 300;  // longer than a name may be

// Sets and flushes; false when that fails.
static bool set_label(const FuzzDevice& device, const std::vector<kvfs_be16>& label) {
  const OpenVolume volume(device.device(), kMaybeWithoutAllocationFile);
  if (volume.get() == nullptr) {
    return false;
  }
  const std::vector<std::uint8_t> before = device.bytes();
  const kvfs_result result = kvfs_volume_set_label(volume.get(), label.data(), label.size());
  require(device.bytes() == before, "nothing is written before the flush");
  return result == kvfs_ok && kvfs_fork_flush((*volume.get()->catalog->btree)->fork) == kvfs_ok;
}

static bool can_be_printed(const std::u16string& label) {
  const std::vector<std::uint16_t> units(label.begin(), label.end());
  char* text = nullptr;
  std::size_t length = 0;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units.data(), units.size(), kUnicodeHostOrder, &text, &length);
  std::free(text);
  return result == kvfs_ok;
}

// Sets a label of any bytes as the tool does, and reads it back when that succeeds. Where extents overlap, on a damaged
// volume, what is written may be anything.
static void set_as_the_tool_does(const FuzzDevice& device, bool is_sound, Input* input) {
  std::string label;
  for (std::size_t i = input->below(kLongestLabel); i > 0; --i) {
    label += static_cast<char>(input->byte());
  }
  const std::vector<std::uint8_t> before = device.bytes();
  kvfs_result result = kvfs_failed;
  {
    const OpenVolume volume(device.device(), kMaybeWithoutAllocationFile);
    if (volume.get() != nullptr) {
      result = kvfslabel_set_label(volume.get(), label.c_str());
    }
  }
  const OpenVolume again(device.device(), kMaybeWithoutAllocationFile);
  if (is_sound) {
    require(result == kvfs_ok || device.bytes() == before, "a set that fails on a sound volume writes nothing");
    require(again.get() != nullptr && can_be_printed(again.label()), "a label on a sound volume can be printed");
  }
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FuzzDevice& device = FuzzDevice::choose(&input);
  const bool is_sound = device.damage(&input) == 0;
  const bool long_label = (input.byte() & 1) != 0;
  std::vector<kvfs_be16> label(input.below(kLongestLabel));
  std::u16string text;
  for (kvfs_be16& unit : label) {
    unit.set(long_label ? u'L' : static_cast<std::uint16_t>(input.unit() & 0x7FF));
    text.push_back(static_cast<char16_t>(unit.get()));
  }
  const bool is_set = set_label(device, label);
  const OpenVolume again(device.device(), kMaybeWithoutAllocationFile);
  require(!is_sound || again.get() != nullptr, "a sound volume stays one");
  if (again.get() != nullptr) {
    const std::u16string found = again.label();
    require(!is_sound || !is_set || found == text, "a sound volume whose label was set has it");
  }
  if ((input.byte() & 1) != 0) {
    set_as_the_tool_does(device, is_sound, &input);
  }
  return 0;
}
