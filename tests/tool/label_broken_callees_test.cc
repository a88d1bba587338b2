// Printing and setting a label with routines of the library that do what they never do, and on a standard output that
// is not for writing.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <utility>

#include "btree/private.h"
#include "catalog_fixture.h"
#include "label.h"
#include "label_change.h"
#include "replaced_routine.h"
#include "unicode.h"

namespace {
using kvfs_test::BrokenCall;
BrokenCall g_composing;    // overflows
BrokenCall g_decomposing;  // overflows
BrokenCall g_search;       // of the root folder: g_damage is done to what it has found
void (*g_damage)(kvfs_catalog_search_result* found) = nullptr;
}  // namespace

KVFS_REPLACED_ROUTINE(kvfs_unicode_compose, real_compose, wrap_compose);
KVFS_REPLACED_ROUTINE(kvfs_unicode_decompose, real_decompose, wrap_decompose);
KVFS_REPLACED_ROUTINE(kvfs_catalog_search_by_cnid, real_search, wrap_search);

int wrap_compose(const kvfs_be16* src, std::size_t src_count, std::uint16_t* dst, std::size_t capacity,
                 std::size_t* count) {
  return g_composing.is_due() ? 1 : real_compose(src, src_count, dst, capacity, count);
}

int wrap_decompose(const std::uint16_t* src, std::size_t src_count, std::uint16_t* dst, std::size_t capacity,
                   std::size_t* count) {
  return g_decomposing.is_due() ? 1 : real_decompose(src, src_count, dst, capacity, count);
}

kvfs_result wrap_search(kvfs_catalog* catalog, std::uint32_t cnid, bool follow, kvfs_catalog_search_result* result) {
  const kvfs_result searched = real_search(catalog, cnid, follow, result);
  if (g_search.is_due()) {
    g_damage(result);
  }
  return searched;
}

namespace kvfs_test {
namespace {

// ---- Printing ------------------------------------------------------------------------------------------------------

TEST(PrintLabel, ComposingThatOverflows_IsReported) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  const FaultInjector faults;
  LogCapture log;
  g_composing.choose(1);
  EXPECT_EQ(kvfslabel_print_label(volume.get()), kvfs_overflow);
  EXPECT_LOG(log, "ERROR kvfslabel_print_label Overflow while composing volume label string.\n");
  EXPECT_EQ(faults.outstanding_allocations(), 0u);
}

TEST(PrintLabel, StandardOutputForReading_IsReported) {
  const OpenVolume volume(small_volume(), kWithoutAllocationFile);
  std::FILE* const readable = std::fopen("/dev/null", "r");
  ASSERT_NE(readable, nullptr);
  LogCapture log;
  std::FILE* const own = std::exchange(stdout, readable);
  const kvfs_result result = kvfslabel_print_label(volume.get());
  stdout = own;
  EXPECT_EQ(std::fclose(readable), 0);
  EXPECT_EQ(result, kvfs_io_error);
  EXPECT_LOG(log, "Error while writing label to standard output: Bad file descriptor (9)\n");
}

// ---- Setting -------------------------------------------------------------------------------------------------------

// Expects a set with the n-th call of a routine broken to fail with a message, without a byte changed on the device.
void expect_refused(BrokenCall* broken, unsigned n, kvfs_result result, const std::string& message) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  LogCapture log;
  broken->choose(n);
  EXPECT_EQ(kvfslabel_set_label(volume.get(), "label"), result);
  EXPECT_TRUE(broken->is_over());
  EXPECT_LOG(log, message);
  EXPECT_EQ(volume.open_locators(), 0u);
  EXPECT_TRUE(volume.contents() == before);
}

TEST(SetLabel, DecomposingThatOverflows_IsReportedAndChangesNothing) {
  expect_refused(&g_decomposing, 1, kvfs_overflow, "Unexpected: Overflow when decomposing volume label.\n");
}

// The text is converted to nothing at all, which is what it says.
TEST(SetLabel, EmptyTextWithoutMemoryForIt_IsTheEmptyLabel) {
  const Volume before = small_volume();
  const OpenVolume volume(before, kWithoutAllocationFile);
  LogCapture log;
  FaultInjector faults;
  faults.fail_allocation(1);
  EXPECT_EQ(kvfslabel_set_label(volume.get(), ""), kvfs_ok);
  EXPECT_LOG(log, "ERROR kvfs_unicode_utf8_to_unistr Error while allocating 2 bytes for UTF-16 result.\n");
  EXPECT_EQ(faults_of_change(before, volume.contents(), u""), "");
}

struct BrokenFind {
  const char* name;
  void (*damage)(kvfs_catalog_search_result* found);

  friend void PrintTo(const BrokenFind& broken, std::ostream* stream) { *stream << broken.name; }
};

kvfs_btree_record_locator* record_of(kvfs_catalog_search_result* found) {
  return found->locator->btree_locator;
}

const BrokenFind kBrokenFinds[] = {
    {"OfAShorterKey", [](kvfs_catalog_search_result* found) { --record_of(found)->key_length; }},
    {"OfAShorterName", [](kvfs_catalog_search_result* found) { --record_of(found)->priv->record[7]; }},
    {"OfAnotherName", [](kvfs_catalog_search_result* found) { ++record_of(found)->priv->record[9]; }},
};

class SetLabelReadBack : public ::testing::TestWithParam<BrokenFind> {};

TEST_P(SetLabelReadBack, IsRefusedAndChangesNothing) {
  g_damage = GetParam().damage;
  // Before it come the searches for the folder to rename and for its thread.
  expect_refused(&g_search, 3, kvfs_inconsistent, "Error while reading the changed volume label back.\n");
}

INSTANTIATE_TEST_SUITE_P(Finds, SetLabelReadBack, ::testing::ValuesIn(kBrokenFinds),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace kvfs_test
