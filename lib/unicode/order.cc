// The order of names: comparison without regard to case.
//
// Zero units (Q-unicode-6) and ignorable ones (Q-unicode-13) have an order of their own.

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "ground/arithmetic.h"
#include "unicode.h"
#include "unicode/private.h"
#include "unicode/ranges.h"

using namespace kvfs::unicode;

namespace {

#include "unicode/folding_table.inc"

}  // namespace

static_assert(kFoldingRuns[0].first == 0);

static constexpr std::uint32_t kAsciiEnd = 0x80;

static std::uint16_t fold_case(std::uint16_t unit) {
  if (in_range(unit, 1, kAsciiEnd - 1)) {  // what most names are made of
    return in_range(unit, 'A', 26) ? static_cast<std::uint16_t>(unit + ('a' - 'A')) : unit;
  }
  const folding_run* const run = find_run(kFoldingRuns, kFoldingRunCount, &folding_run::first, unit);
  const std::uint32_t distance = std::uint32_t{unit} - run->first;  // the first run begins at 0
  const bool folds = (distance & (run->step - 1U)) == 0 && distance < std::uint32_t{run->count} * run->step;
  return folds ? static_cast<std::uint16_t>(unit + run->added) : unit;
}

// What is compared where a name goes on behind the units that are there; no unit has this value.
static constexpr std::uint32_t kMissingUnit = 0x10000;

namespace {

// What is left of a name that is being compared.
struct name_cursor {
  const kvfs_be16* next;
  const kvfs_be16* end;
  std::uint32_t behind;  // what comes then: 0, or kMissingUnit

  // The next unit as it is.
  std::uint32_t take() { return next == end ? behind : (next++)->get(); }

  // The next unit that does not fold to 0, folded.
  std::uint32_t take_folded() {
    std::uint32_t unit = 0;
    while (unit == 0 && next != end) {
      unit = fold_case((next++)->get());
    }
    return unit == 0 ? behind : unit;
  }
};

}  // namespace

// How many units both names begin with. Whatever they fold to, it is the same.
static std::size_t common_units(const kvfs_cut_name& a, const kvfs_cut_name& b) {
  const std::size_t most = kvfs_min(a.readable, b.readable);
  std::size_t count = 0;
  while (count != most && a.units[count].get() == b.units[count].get()) {
    ++count;
  }
  return count;
}

static name_cursor begin_at(const kvfs_cut_name& name, std::size_t unit) {
  return {name.units + unit, name.units + name.readable, name.readable < name.length ? kMissingUnit : 0};
}

int kvfs_unicode_compare_cut_names(const kvfs_cut_name& a, const kvfs_cut_name& b, bool binary) {
  const std::size_t common = binary ? 0 : common_units(a, b);  // a pair of zero units ends a binary comparison
  name_cursor rest_of_a = begin_at(a, common);
  name_cursor rest_of_b = begin_at(b, common);
  for (;;) {
    const std::uint32_t unit_a = binary ? rest_of_a.take() : rest_of_a.take_folded();
    const std::uint32_t unit_b = binary ? rest_of_b.take() : rest_of_b.take_folded();
    if (unit_a == kMissingUnit || unit_b == kMissingUnit) {
      return kvfs_name_is_cut;
    }
    if (unit_a != unit_b) {
      return unit_a > unit_b ? 1 : -1;
    }
    if (unit_a == 0) {
      return 0;
    }
  }
}

int kvfs_unicode_fast_compare(const kvfs_be16* a, std::size_t a_length, const kvfs_be16* b, std::size_t b_length,
                              bool binary) {
  return kvfs_unicode_compare_cut_names({a, a_length, a_length}, {b, b_length, b_length}, binary);
}
