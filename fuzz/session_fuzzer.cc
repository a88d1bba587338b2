// Any sequence of calls of the C interface on a volume, damaged or not: nothing crashes, runs away, leaks or leaves a
// lock; what one session has flushed, the next one opens.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_volume.h"
#include "kvfs.h"

using namespace kvfs_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static constexpr int kMostCalls = 32;
static constexpr int kMostItems = 200;
static constexpr std::uint32_t kMostIDs = 64;
static constexpr std::uint32_t kLongestText = 40;

namespace {

class Session {
 public:
  Session(int fd, Input* input) : input_(input) {
    const std::uint32_t flags =
        KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT | (input->byte() % 4 == 0 ? KVFS_OPEN_NO_ALLOCATION : 0);
    (void)!kvfs_session_open_descriptor(fd, flags, &session_);
    item_.struct_size = sizeof(item_);
  }
  ~Session() {
    // Handles may go before their session or after it.
    if (input_->byte() % 2 == 0) {
      (void)kvfs_session_close(&session_);
    }
    (void)kvfs_listing_close(&listing_);
    (void)kvfs_stream_close(&stream_);
    (void)kvfs_session_close(&session_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] bool is_open() const { return session_ != nullptr; }

  void run() {
    for (int i = 0; i < kMostCalls && !input_->at_end(); ++i) {
      do_one();
    }
  }

 private:
  std::uint32_t id() { return input_->byte() % kMostIDs; }

  std::string text() {
    static const std::array<const char*, 6> kPieces = {"%u0000", "%uD800", "/", "a", "HFS+ Private Data", "%"};
    const std::uint8_t piece = input_->byte();
    const std::vector<std::uint8_t> bytes = input_->bytes(input_->below(kLongestText));
    const std::string prefix = piece % 4 == 0 ? kPieces.at(piece / 4 % kPieces.size()) : "";
    return prefix + std::string(bytes.begin(), bytes.end());
  }

  void do_one() {
    switch (input_->below(14)) {
      case 0:
        (void)!kvfs_session_find(session_, id(), text().c_str(), &item_);
        return;
      case 1:
        (void)!kvfs_session_find_id(session_, id(), &item_);
        return;
      case 2:
        return list();
      case 3:
      case 4:
        return read();
      case 5:
        return read_texts();
      case 6:
        (void)!kvfs_session_rename(session_, id(), id(), text().c_str());
        return;
      case 7:
        (void)!kvfs_session_delete(session_, id());
        return;
      case 8:
        (void)!kvfs_session_make_link(session_, id(), text().c_str(), text().c_str(), nullptr);
        return;
      case 9:
        (void)!kvfs_session_set_label(session_, text().c_str());
        return;
      case 10:
        return ask_blocks();
      case 11:
        (void)!kvfs_session_discard(session_);
        return;
      default:
        (void)!kvfs_session_flush(session_, 0);
        return;
    }
  }

  void list() {
    if (input_->byte() % 2 == 0) {
      (void)kvfs_listing_close(&listing_);
      (void)!kvfs_listing_open(session_, id(), &listing_);
    }
    for (int i = input_->byte() % kMostItems; i > 0 && kvfs_listing_next(listing_, &item_) == KVFS_OK; --i) {
    }
  }

  void read() {
    if (input_->byte() % 2 == 0) {
      (void)kvfs_stream_close(&stream_);
      (void)!kvfs_stream_open(session_, id(), input_->byte() % 2, &stream_);
    }
    std::vector<std::uint8_t> buffer(input_->unit());
    std::uint64_t size = 0;
    std::size_t count = 0;
    (void)!kvfs_stream_size(stream_, &size);
    (void)!kvfs_stream_read(stream_, input_->word() & 0xFFFFF, buffer.data(), buffer.size(), &count);
    if (count > buffer.size()) {
      std::abort();
    }
  }

  void read_texts() {
    std::array<char, KVFS_LABEL_SIZE> buffer = {};
    const std::size_t size = input_->unit() % buffer.size();
    (void)!kvfs_session_label(session_, input_->byte() % 2, buffer.data(), size, nullptr);
    (void)!kvfs_session_read_link(session_, id(), buffer.data(), size, nullptr);
    kvfs_volume_facts facts = {};
    facts.struct_size = sizeof(facts);
    (void)!kvfs_session_facts(session_, &facts);
  }

  void ask_blocks() {
    int in_use = 0;
    std::uint32_t count = 0;
    (void)!kvfs_session_block_in_use(session_, input_->unit(), &in_use);
    if (input_->byte() % 8 == 0) {
      (void)!kvfs_session_count_free_blocks(session_, &count);
    }
  }

  Input* input_;
  kvfs_session* session_ = nullptr;
  kvfs_listing* listing_ = nullptr;
  kvfs_stream* stream_ = nullptr;
  kvfs_item item_ = {};
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FuzzDevice& device = FuzzDevice::choose(&input);
  device.damage(&input);
  for (int sessions = 0; sessions < 2 && !input.at_end(); ++sessions) {
    Session session(device.fd(), &input);
    if (!session.is_open()) {
      break;
    }
    session.run();
  }
  return 0;
}
