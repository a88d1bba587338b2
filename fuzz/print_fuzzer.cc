// Opens damaged volumes and brings their labels into both forms in which they are printed.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_volume.h"
#include "unicode.h"

using namespace kvfs_fuzz;
using kvfs_test::OpenVolume;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static void convert_to_utf8(const std::vector<std::uint16_t>& units) {
  char* text = nullptr;
  std::size_t length = 0;
  if (kvfs_unicode_unistr_to_utf8(units.data(), units.size(), kUnicodeHostOrder, &text, &length) == kvfs_ok) {
    require(text[length] == '\0', "the text ends with a zero byte");
    std::free(text);
  }
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FuzzDevice& device = FuzzDevice::choose(&input);
  device.damage(&input);
  const std::vector<std::uint8_t> before = device.bytes();
  {
    const OpenVolume volume(device.device(), (input.byte() & 1) != 0 ? kMaybe : kMaybeWithoutAllocationFile);
    require((volume.result() == kvfs_ok) == (volume.get() != nullptr), "a volume comes with success alone");
    if (volume.get() != nullptr) {
      const std::u16string label = volume.label();
      convert_to_utf8({label.begin(), label.end()});
      std::vector<std::uint16_t> composed(label.size());
      std::size_t length = 0;
      require(kvfs_unicode_compose(volume.get()->label, label.size(), composed.data(), composed.size(), &length) == 0 ||
                  label.empty(),
              "composing makes no label longer");
      composed.resize(length);
      convert_to_utf8(composed);
    }
  }
  require(device.bytes() == before, "opening writes nothing");
  return 0;
}
