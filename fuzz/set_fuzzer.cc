// Sets labels on damaged volumes. Until the flush nothing may be written, and a sound volume whose label was set has
// it.

#include <cstdint>
#include <string>
#include <vector>

#include "btree.h"
#include "catalog.h"
#include "fork.h"
#include "fuzz_volume.h"

using namespace kvfs_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static constexpr std::size_t kLongestLabel = 300;  // longer than a name may be

// Sets and flushes; false when that fails.
static bool set_label(const FuzzDevice& device, const std::vector<kvfs_be16>& label) {
  const OpenedVolume volume(device.device(), false);
  if (volume.get() == nullptr) {
    return false;
  }
  const std::vector<std::uint8_t> before = device.bytes();
  const kvfs_result result = kvfs_volume_set_label(volume.get(), label.data(), label.size());
  require(device.bytes() == before, "nothing is written before the flush");
  return result == kvfs_ok && kvfs_fork_flush((*volume.get()->catalog->btree)->fork) == kvfs_ok;
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
  const OpenedVolume again(device.device(), false);
  require(!is_sound || again.get() != nullptr, "a sound volume stays one");
  if (again.get() != nullptr) {
    const std::u16string found = again.label();
    require(!is_sound || !is_set || found == text, "a sound volume whose label was set has it");
  }
  return 0;
}
