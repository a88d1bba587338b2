// Sessions on volumes in memory, as a program in C uses them, and what is on the device behind them.
//
//   TestSession session(build_volume(description));
//   EXPECT_EQ(session.rename("/a", "/folder", "b"), KVFS_OK);
//   EXPECT_EQ(session.flushed_findings(), "");

#ifndef KVFS_TEST_SESSION_FIXTURE_H
#define KVFS_TEST_SESSION_FIXTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "fail_each.h"
#include "kvfs.h"
#include "volume_checker.h"

namespace kvfs_test {

// A session, open for changing unless flags say otherwise; null when it could not be opened.
class TestSession {
 public:
  explicit TestSession(const SparseImage& image, std::uint32_t flags = KVFS_OPEN_WRITE);
  ~TestSession();
  TestSession(const TestSession&) = delete;
  TestSession& operator=(const TestSession&) = delete;

  [[nodiscard]] kvfs_session* get() const { return session_; }
  [[nodiscard]] std::uint64_t opened() const { return opened_; }
  [[nodiscard]] Volume contents() const { return file_.contents(); }
  [[nodiscard]] const MemoryFile& file() const { return file_; }

  // The item at a path; a failure of the test when there is none.
  [[nodiscard]] kvfs_item item(const std::string& path) const;
  [[nodiscard]] std::uint32_t id(const std::string& path) const { return item(path).id; }
  [[nodiscard]] std::uint64_t find(const std::string& path) const;
  // The names in a folder, in the order of the listing.
  [[nodiscard]] std::vector<std::string> names(const std::string& path) const;
  // The bytes of a fork, read in pieces of `piece` bytes.
  [[nodiscard]] Bytes read(std::uint32_t id, std::uint32_t fork = KVFS_DATA_FORK, std::size_t piece = 65536) const;
  [[nodiscard]] std::string label(std::uint32_t form = KVFS_LABEL_COMPOSED) const;
  [[nodiscard]] kvfs_volume_facts facts() const;

  [[nodiscard]] std::uint64_t rename(const std::string& path, const std::string& folder, const std::string& name) const;
  [[nodiscard]] std::uint64_t remove(const std::string& path) const;
  [[nodiscard]] std::uint64_t flush() const { return kvfs_session_flush(session_, 0); }

  // Flushes, and says what the volume checker finds then.
  [[nodiscard]] std::string flushed_findings(const CheckOptions& options = {}) const;

  std::uint64_t close() { return kvfs_session_close(&session_); }

 private:
  MemoryFile file_;
  kvfs_session* session_ = nullptr;
  std::uint64_t opened_;
};

// Bytes that tell where they stand.
Bytes pattern(std::size_t size);

}  // namespace kvfs_test

#endif  // KVFS_TEST_SESSION_FIXTURE_H
