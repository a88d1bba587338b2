#include "session_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kvfs_test {

TestSession::TestSession(const SparseImage& image, std::uint32_t flags)
    : file_(image), opened_(kvfs_session_open_descriptor(file_.fd(), flags, &session_)) {}

TestSession::~TestSession() {
  EXPECT_EQ(close(), KVFS_OK);
}

kvfs_item TestSession::item(const std::string& path) const {
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  EXPECT_EQ(kvfs_session_find(session_, KVFS_ROOT_ID, path.c_str(), &item), KVFS_OK) << path;
  return item;
}

std::uint64_t TestSession::find(const std::string& path) const {
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  return kvfs_session_find(session_, KVFS_ROOT_ID, path.c_str(), &item);
}

std::vector<std::string> TestSession::names(const std::string& path) const {
  std::vector<std::string> names;
  kvfs_listing* listing = nullptr;
  EXPECT_EQ(kvfs_listing_open(session_, id(path), &listing), KVFS_OK) << path;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::uint64_t result = KVFS_OK;
  while ((result = kvfs_listing_next(listing, &item)) == KVFS_OK) {
    names.emplace_back(item.name);
    EXPECT_EQ(names.back().size(), item.name_length);
  }
  EXPECT_EQ(result, KVFS_END) << path;
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  return names;
}

Bytes TestSession::read(std::uint32_t id, std::uint32_t fork, std::size_t piece) const {
  kvfs_stream* stream = nullptr;
  EXPECT_EQ(kvfs_stream_open(session_, id, fork, &stream), KVFS_OK) << id;
  Bytes bytes;
  Bytes buffer(piece);
  std::size_t count = piece;
  while (stream != nullptr && count == piece) {
    const std::uint64_t result = kvfs_stream_read(stream, bytes.size(), buffer.data(), piece, &count);
    EXPECT_EQ(result, KVFS_OK) << id;
    count = result == KVFS_OK ? count : 0;
    bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
  }
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
  return bytes;
}

std::string TestSession::label(std::uint32_t form) const {
  char text[KVFS_LABEL_SIZE];
  std::size_t length = 0;
  EXPECT_EQ(kvfs_session_label(session_, form, text, sizeof(text), &length), KVFS_OK);
  return {text, length};
}

kvfs_volume_facts TestSession::facts() const {
  kvfs_volume_facts facts = {};
  facts.struct_size = sizeof(facts);
  EXPECT_EQ(kvfs_session_facts(session_, &facts), KVFS_OK);
  return facts;
}

std::uint64_t TestSession::rename(const std::string& path, const std::string& folder, const std::string& name) const {
  return kvfs_session_rename(session_, id(path), id(folder), name.c_str());
}

std::uint64_t TestSession::remove(const std::string& path) const {
  return kvfs_session_delete(session_, id(path));
}

std::string TestSession::flushed_findings(const CheckOptions& options) const {
  EXPECT_EQ(flush(), KVFS_OK);
  return joined(check_volume(contents(), options));
}

Bytes pattern(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>((i * 2654435761U) >> 13);
  }
  return bytes;
}

}  // namespace kvfs_test
