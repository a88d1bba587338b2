// The converters against each other, on any text.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_volume.h"
#include "unicode.h"

using namespace kvfs_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using Units = std::vector<std::uint16_t>;

static std::vector<kvfs_be16> stored(const Units& units) {
  std::vector<kvfs_be16> result;
  for (const std::uint16_t unit : units) {
    result.push_back(kvfs_be16::of(unit));
  }
  return result;
}

// Any bytes may be given for UTF-8, and UTF-16 that is accepted comes back as it was, up to its first zero unit.
static void check_utf8(const std::string& text, Units units) {
  std::uint16_t* from_text = nullptr;
  std::size_t count = 0;
  if (kvfs_unicode_utf8_to_unistr(text.data(), text.size(), &from_text, &count) == kvfs_ok) {
    std::free(from_text);
  }
  char* utf8 = nullptr;
  std::size_t length = 0;
  if (kvfs_unicode_unistr_to_utf8(units.data(), units.size(), kUnicodeHostOrder, &utf8, &length) != kvfs_ok) {
    return;
  }
  std::uint16_t* back = nullptr;
  require(kvfs_unicode_utf8_to_unistr(utf8, length, &back, &count) == kvfs_ok, "what was made UTF-8 is UTF-8");
  units.erase(std::find(units.begin(), units.end(), 0), units.end());
  require(count == units.size() && std::equal(units.begin(), units.end(), back), "UTF-16 comes back");
  std::free(back);
  std::free(utf8);
}

static Units decomposed(const Units& units) {
  Units result(4 * units.size() + 1);
  std::size_t count = 0;
  require(kvfs_unicode_decompose(units.data(), units.size(), result.data(), result.size(), &count) == 0,
          "four units hold any decomposition");
  std::size_t measured = 0;
  require(kvfs_unicode_decompose(units.data(), units.size(), nullptr, 1, &measured) == 0 && measured == count,
          "measuring a decomposition agrees with making it");
  result.resize(count);
  return result;
}

static void check_forms(const Units& units) {
  const Units once = decomposed(units);
  require(decomposed(once) == once, "decomposing twice is decomposing once");
  const std::vector<kvfs_be16> name = stored(once);
  Units composed(once.size() + 1);
  std::size_t count = 0;
  require(kvfs_unicode_compose(name.data(), name.size(), composed.data(), composed.size(), &count) == 0,
          "composing makes no text longer");
  std::size_t measured = 0;
  require(kvfs_unicode_compose(name.data(), name.size(), nullptr, 0, &measured) == 0 && measured == count,
          "measuring a composition agrees with making it");
  composed.resize(count);
  const auto is_lost = [](std::uint16_t unit) { return unit == 0 || unit == 0x11A7; };  // the end; see the header
  require(std::any_of(once.begin(), once.end(), is_lost) || decomposed(composed) == once, "composing loses nothing");
}

static int compare(const Units& a, const Units& b, bool binary) {
  const std::vector<kvfs_be16> x = stored(a);
  const std::vector<kvfs_be16> y = stored(b);
  return kvfs_unicode_fast_compare(x.data(), x.size(), y.data(), y.size(), binary);
}

// Names with zero units are left out: what lies behind two of them is not compared.
static void check_order(const Units& a, const Units& b, const Units& c) {
  for (const Units* const name : {&a, &b, &c}) {
    if (std::find(name->begin(), name->end(), 0) != name->end()) {
      return;
    }
  }
  for (const bool binary : {false, true}) {
    require(compare(a, a, binary) == 0, "a name equals itself");
    require(compare(a, b, binary) == -compare(b, a, binary), "the order has two sides");
    if (compare(a, b, binary) <= 0 && compare(b, c, binary) <= 0) {
      require(compare(a, c, binary) <= 0, "the order goes on");
    }
  }
}

static void check_foreign_names(const Units& units) {
  const std::vector<kvfs_be16> name = stored(units);
  const std::size_t length = kvfs_unicode_hfsplus_to_windows_string_length(name.data(), name.size());
  Units foreign(length + 1);
  std::size_t written = 0;
  require(kvfs_unicode_hfsplus_to_windows(name.data(), name.size(), foreign.data(), foreign.size(), &written) == 0 &&
              written == length,
          "a foreign name is as long as was said");
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Units names[3];
  for (Units& name : names) {
    const std::size_t length = input.below(64);
    while (name.size() < length && !input.at_end()) {
      name.push_back(input.unit());
    }
    check_utf8({data, data + size}, name);
    check_forms(name);
    check_foreign_names(name);
  }
  check_order(names[0], names[1], names[2]);
  return 0;
}
