// Sessions on volumes made to hurt whoever opens them: every call comes to its end with little memory, says why it
// failed, and writes nothing that was not flushed.

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "fault_injection.h"
#include "hostile_stories.h"
#include "log_capture.h"
#include "session_fixture.h"

namespace kvfs_test {
namespace {

constexpr std::size_t kMemory = std::size_t{64} << 20;
constexpr std::uint32_t kSomeItems = 24;  // IDs below are looked at
constexpr int kSomeSteps = 500;
constexpr std::chrono::seconds kEnough{1};  // in which most volumes have shown all of that

void expect_known(std::uint64_t result) {
  EXPECT_STRNE(kvfs_result_text(result), "an unknown result");
}

void list(kvfs_session* session, std::uint32_t id) {
  kvfs_listing* listing = nullptr;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::uint64_t result = kvfs_listing_open(session, id, &listing);
  for (int i = 0; i < kSomeSteps && result == KVFS_OK; ++i) {
    result = kvfs_listing_next(listing, &item);
  }
  expect_known(result);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
}

void read(kvfs_session* session, std::uint32_t id, std::uint32_t fork) {
  kvfs_stream* stream = nullptr;
  std::uint64_t size = 0;
  std::size_t count = 0;
  Bytes buffer(100000);
  std::uint64_t result = kvfs_stream_open(session, id, fork, &stream);
  if (result == KVFS_OK) {
    EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
    for (const std::uint64_t offset : {std::uint64_t{0}, size / 2, size - 1}) {
      result = kvfs_stream_read(stream, offset, buffer.data(), buffer.size(), &count);
      expect_known(result);
      EXPECT_LE(count, buffer.size());
    }
  }
  expect_known(result);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

void change(kvfs_session* session, std::uint32_t id) {
  for (const std::uint64_t result :
       {kvfs_session_rename(session, id, KVFS_ROOT_ID, "renamed"), kvfs_session_delete(session, id),
        kvfs_session_make_link(session, id, "link", "target", nullptr), kvfs_session_set_label(session, "label")}) {
    expect_known(result);
    if (result == KVFS_SPOILED) {
      (void)!kvfs_session_discard(session);
    }
  }
}

void use_all(kvfs_session* session) {
  std::uint32_t free_blocks = 0;
  expect_known(kvfs_session_count_free_blocks(session, &free_blocks));
  const auto end = std::chrono::steady_clock::now() + kEnough;
  for (std::uint32_t id = 0; id < kSomeItems && std::chrono::steady_clock::now() < end; ++id) {
    char target[KVFS_TARGET_SIZE];
    list(session, id);
    read(session, id, KVFS_DATA_FORK);
    read(session, id, KVFS_RESOURCE_FORK);
    expect_known(kvfs_session_read_link(session, id, target, sizeof(target), nullptr));
    change(session, id);
  }
}

class SessionHostile : public ::testing::TestWithParam<Story> {};

TEST_P(SessionHostile, EveryCall_EndsAndWritesNothingByItself) {
  LogCapture silence;
  const Volume volume = GetParam().volume();
  FaultInjector faults;
  faults.refuse_allocations_above(kMemory);
  {
    const TestSession session(volume);
    expect_known(session.opened());
    if (session.get() != nullptr) {
      use_all(session.get());
    }
  }
  EXPECT_EQ(faults.outstanding_allocations(), 0U);
  EXPECT_EQ(faults.locks_held(), 0);
}

INSTANTIATE_TEST_SUITE_P(Stories, SessionHostile, ::testing::ValuesIn(stories()),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace kvfs_test
