// Opening and closing sessions and their handles, arguments that are refused, results in words, and the log.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fault_injection.h"
#include "log_capture.h"
#include "session/private.h"
#include "session_fixture.h"
#include "support.h"
#include "volume_builder.h"

namespace kvfs_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// ---- Opening -------------------------------------------------------------------------------------------------------

TEST(SessionOpen, Path_IsOpenedAndClosed) {
  const MemoryFile file(build_volume({}));
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open(file.path().c_str(), 0, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(session, nullptr);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(nullptr), KVFS_OK);
}

TEST(SessionOpen, PathForChanging_TakesTheChangesAndForReadingIsNotWritable) {
  const MemoryFile file(build_volume({}));
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open(file.path().c_str(), KVFS_OPEN_WRITE, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_set_label(session, "Changed"), KVFS_OK);
  EXPECT_EQ(kvfs_session_flush(session, 0), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(to_utf8(read_label(file.contents())), "Changed");
  ASSERT_EQ(kvfs_session_open(file.path().c_str(), 0, &session), KVFS_OK);
  EXPECT_EQ(fcntl(session->fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
}

TEST(SessionOpen, MissingFile_IsAnIOErrorWithItsErrno) {
  kvfs_session* session = nullptr;
  LogCapture log;
  errno = 0;
  EXPECT_EQ(kvfs_session_open("/nowhere/at all", 0, &session), KVFS_IO_ERROR);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_LOG(log, "ERROR kvfs_system_open Error while opening '/nowhere/at all': No such file or directory (2)\n");
}

TEST(SessionOpen, NoMemory_ClosesTheFileOfAPathAndNoOther) {
  const MemoryFile file(build_volume({}));
  kvfs_session* session = nullptr;
  LogCapture silence;
  FaultInjector faults;
  const int next = dup(file.fd());  // the lowest descriptor that is free
  ASSERT_EQ(close(next), 0);
  faults.fail_allocation(1);
  EXPECT_EQ(kvfs_session_open(file.path().c_str(), 0, &session), KVFS_NO_MEMORY);
  EXPECT_EQ(fcntl(next, F_GETFD), -1);
  faults.fail_allocation(faults.count_allocations() + 1);
  EXPECT_EQ(kvfs_session_open_descriptor(file.fd(), 0, &session), KVFS_NO_MEMORY);
  EXPECT_NE(fcntl(file.fd(), F_GETFD), -1);
}

TEST(SessionOpen, NoVolume_FailsAndLeavesTheDescriptorOpen) {
  LogCapture silence;
  const MemoryFile file(SparseImage(1 << 20));
  kvfs_session* session = nullptr;
  EXPECT_EQ(kvfs_session_open_descriptor(file.fd(), 0, &session), KVFS_FAILED);
  EXPECT_EQ(session, nullptr);
  EXPECT_NE(fcntl(file.fd(), F_GETFD), -1);
}

TEST(SessionOpen, SpecialFileThatCannotBe_ComesOutAsNoMemory) {
  const Volume sound = build_volume({});
  struct {
    const char* field;
    std::uint64_t value;
  } const cases[] = {{"catalogFile.totalBlocks", 0xFFFFFFFF},
                     {"allocationFile.totalBlocks", 0xFFFFFFFF},
                     {"extentsFile.logicalSize", UINT64_MAX}};
  for (const auto& c : cases) {
    Volume image = sound;
    image.set_field(c.field, c.value);
    LogCapture silence;
    EXPECT_EQ(TestSession(image).opened(), KVFS_NO_MEMORY) << c.field;
  }
}

// One lock belongs to the open file, whoever has a descriptor of it.
TEST(SessionOpen, DescriptorOfAnotherSession_SharesItsLock) {
  const MemoryFile file(build_volume({}));
  kvfs_session* first = nullptr;
  kvfs_session* second = nullptr;
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE, &first), KVFS_OK);
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT, &second), KVFS_OK);
  const int other = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(other, 0);
  EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0);
  EXPECT_EQ(kvfs_session_close(&first), KVFS_OK);
  EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0) << "although the second session is open";
  EXPECT_EQ(kvfs_session_close(&second), KVFS_OK);
  close(other);
}

TEST(SessionOpen, LockHeldByAnother_IsBusyAtOnce) {
  const MemoryFile file(build_volume({}));
  const int other = open(file.path().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_SH), 0);
  kvfs_session* session = nullptr;
  LogCapture log;
  EXPECT_EQ(kvfs_session_open(file.path().c_str(), KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT, &session), KVFS_BUSY);
  EXPECT_EQ(kvfs_session_open(file.path().c_str(), KVFS_OPEN_NO_WAIT, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  close(other);
  EXPECT_EQ(kvfs_session_open(file.path().c_str(), KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT, &session), KVFS_OK);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_LOG(log);
}

TEST(SessionOpen, WithoutNoWait_WaitsForTheLock) {
  const MemoryFile file(build_volume({}));
  kvfs_session* first = nullptr;
  ASSERT_EQ(kvfs_session_open(file.path().c_str(), KVFS_OPEN_WRITE, &first), KVFS_OK);
  kvfs_session* second = nullptr;
  std::thread waiting([&] { EXPECT_EQ(kvfs_session_open(file.path().c_str(), 0, &second), KVFS_OK); });
  EXPECT_EQ(kvfs_session_close(&first), KVFS_OK);
  waiting.join();
  EXPECT_EQ(kvfs_session_close(&second), KVFS_OK);
}

// Writes at the end of the file, wherever they belong, would report success and leave the volume as it is.
TEST(SessionOpen, DescriptorThatCannotDoWhatIsAsked_IsInvalid) {
  const MemoryFile file(build_volume({}));
  struct {
    int mode;
    std::uint32_t flags;
    std::uint64_t result;
    const char* message;
  } const cases[] = {
      {O_RDONLY, 0, KVFS_OK, nullptr},
      {O_RDWR, 0, KVFS_OK, nullptr},
      {O_RDWR, KVFS_OPEN_WRITE, KVFS_OK, nullptr},
      {O_RDWR | O_APPEND, 0, KVFS_OK, nullptr},
      {O_WRONLY, 0, KVFS_INVALID, "reading"},
      {O_RDONLY, KVFS_OPEN_WRITE, KVFS_INVALID, "reading and writing at any place"},
      {O_WRONLY, KVFS_OPEN_WRITE, KVFS_INVALID, "reading and writing at any place"},
      {O_RDWR | O_APPEND, KVFS_OPEN_WRITE, KVFS_INVALID, "reading and writing at any place"},
  };
  for (const auto& c : cases) {
    const int fd = open(file.path().c_str(), c.mode | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    kvfs_session* session = nullptr;
    LogCapture log;
    EXPECT_EQ(kvfs_session_open_descriptor(fd, c.flags, &session), c.result) << c.mode << ' ' << c.flags;
    EXPECT_EQ(session != nullptr, c.result == KVFS_OK);
    if (c.message != nullptr) {
      EXPECT_LOG(log, "ERROR kvfs_system_check_mode File descriptor " + std::to_string(fd) + " is not open for " +
                          c.message + ".\n");
    }
    EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
    close(fd);
  }
}

TEST(SessionOpen, DescriptorThatIsNotOpen_IsInvalid) {
  kvfs_session* session = nullptr;
  LogCapture log;  // has a descriptor of its own
  const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  close(fd);
  EXPECT_EQ(kvfs_session_open_descriptor(fd, 0, &session), KVFS_INVALID);
  EXPECT_LOG(log, "ERROR kvfs_system_check_mode Error while looking at file descriptor " + std::to_string(fd) +
                      ": Bad file descriptor (9)\n");
}

TEST(SessionClose, Lock_IsGivenBackAndTheDescriptorStays) {
  const MemoryFile file(build_volume({}));
  kvfs_session* session = nullptr;
  ASSERT_EQ(kvfs_session_open_descriptor(file.fd(), KVFS_OPEN_WRITE, &session), KVFS_OK);
  const int other = open(file.path().c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(kvfs_session_close(&session), KVFS_OK);
  EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  close(other);
  EXPECT_NE(fcntl(file.fd(), F_GETFD), -1);
}

// ---- Handles -------------------------------------------------------------------------------------------------------

TEST(SessionHandles, ThatOutliveTheirSession_SayThatItIsClosed) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 5000);
  kvfs_listing* listing = nullptr;
  kvfs_stream* stream = nullptr;
  kvfs_session* closed = nullptr;  // good for as long as its handles
  {
    TestSession session(build_volume(description));
    ASSERT_EQ(kvfs_listing_open(session.get(), KVFS_ROOT_ID, &listing), KVFS_OK);
    ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
    closed = session.get();
    EXPECT_EQ(session.close(), KVFS_OK);
  }
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  std::uint64_t size = 0;
  std::size_t count = 0;
  EXPECT_EQ(kvfs_listing_next(listing, &item), KVFS_CLOSED);
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_CLOSED);
  EXPECT_EQ(kvfs_stream_read(stream, 0, &size, 1, &count), KVFS_CLOSED);
  EXPECT_EQ(kvfs_session_find_id(closed, file, &item), KVFS_CLOSED);
  EXPECT_EQ(kvfs_session_flush(closed, 0), KVFS_CLOSED);
  EXPECT_EQ(kvfs_session_discard(closed), KVFS_CLOSED);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
  EXPECT_EQ(stream, nullptr);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  EXPECT_EQ(kvfs_stream_close(nullptr), KVFS_OK);
  EXPECT_EQ(kvfs_listing_close(nullptr), KVFS_OK);
}

TEST(SessionHandles, StreamOfADeletedFile_SaysThatThereIsNoSuchItem) {
  VolumeDescription description;
  (void)description.add_files(kRootFolderId, 3);
  const std::uint32_t file = description.add_file(kRootFolderId, u"z", 5000);
  const TestSession session(build_volume(description));
  kvfs_stream* stream = nullptr;
  ASSERT_EQ(kvfs_stream_open(session.get(), file, KVFS_DATA_FORK, &stream), KVFS_OK);
  ASSERT_EQ(kvfs_session_rename(session.get(), file, KVFS_ROOT_ID, "renamed"), KVFS_OK);
  std::uint64_t size = 0;
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
  EXPECT_EQ(size, 5000U);
  ASSERT_EQ(kvfs_session_delete(session.get(), file), KVFS_OK);
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_NOT_FOUND);
  char byte = 0;
  std::size_t count = 7;
  EXPECT_EQ(kvfs_stream_read(stream, 0, &byte, 1, &count), KVFS_NOT_FOUND);
  EXPECT_EQ(count, 7U);
  ASSERT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(kvfs_stream_size(stream, &size), KVFS_OK);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

TEST(SessionDiscard, VolumeThatCannotBeOpenedAgain_LeavesTheSessionToBeClosed) {
  VolumeDescription description;
  const Volume image = build_volume(description);
  const TestSession session(image);
  const std::uint8_t no_signature[2] = {0, 0};
  ASSERT_EQ(pwrite(session.file().fd(), no_signature, 2, kHeaderOffset), 2);
  LogCapture silence;
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_FAILED);
  EXPECT_EQ(session.find("/"), KVFS_CLOSED);
  EXPECT_EQ(session.flush(), KVFS_CLOSED);
  const std::uint8_t signature[2] = {'H', '+'};
  ASSERT_EQ(pwrite(session.file().fd(), signature, 2, kHeaderOffset), 2);
  EXPECT_EQ(kvfs_session_discard(session.get()), KVFS_OK);
  EXPECT_EQ(session.find("/"), KVFS_OK);
}

// ---- Arguments -----------------------------------------------------------------------------------------------------

TEST(SessionArguments, NullPointersAndUnknownValues_AreInvalid) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 10);
  const TestSession test(build_volume(description));
  kvfs_session* const session = test.get();
  kvfs_session* opened = nullptr;
  kvfs_item item = {};
  item.struct_size = sizeof(item);
  kvfs_item old_item = {};
  kvfs_volume_facts old_facts = {};
  kvfs_listing* listing = nullptr;
  kvfs_stream* stream = nullptr;
  char text[8];
  std::uint32_t number = 0;
  std::uint64_t size = 0;
  std::size_t count = 0;
  int in_use = 0;
  ASSERT_EQ(kvfs_listing_open(session, KVFS_ROOT_ID, &listing), KVFS_OK);
  ASSERT_EQ(kvfs_stream_open(session, file, KVFS_DATA_FORK, &stream), KVFS_OK);
  LogCapture log;
  const std::vector<std::uint64_t> results = {
      kvfs_session_open(nullptr, 0, &opened),
      kvfs_session_open("x", 0, nullptr),
      kvfs_session_open("x", 8, &opened),
      kvfs_session_open_descriptor(-1, 0, &opened),
      kvfs_session_open_descriptor(0, 0, nullptr),
      kvfs_session_open_descriptor(0, 0x80000000, &opened),
      kvfs_session_label(nullptr, 0, text, sizeof(text), nullptr),
      kvfs_session_label(session, 2, text, sizeof(text), nullptr),
      kvfs_session_label(session, 0, nullptr, 1, nullptr),
      kvfs_session_set_label(nullptr, "x"),
      kvfs_session_set_label(session, nullptr),
      kvfs_session_facts(nullptr, &old_facts),
      kvfs_session_facts(session, nullptr),
      kvfs_session_facts(session, &old_facts),
      kvfs_session_block_in_use(nullptr, 0, &in_use),
      kvfs_session_block_in_use(session, 0, nullptr),
      kvfs_session_count_free_blocks(nullptr, &number),
      kvfs_session_count_free_blocks(session, nullptr),
      kvfs_session_find(nullptr, KVFS_ROOT_ID, "f", &item),
      kvfs_session_find(session, KVFS_ROOT_ID, nullptr, &item),
      kvfs_session_find(session, KVFS_ROOT_ID, "f", nullptr),
      kvfs_session_find(session, KVFS_ROOT_ID, "f", &old_item),
      kvfs_session_find_id(nullptr, file, &item),
      kvfs_session_find_id(session, file, nullptr),
      kvfs_session_find_id(session, file, &old_item),
      kvfs_listing_open(nullptr, KVFS_ROOT_ID, &listing),
      kvfs_listing_open(session, KVFS_ROOT_ID, nullptr),
      kvfs_listing_next(nullptr, &item),
      kvfs_listing_next(listing, nullptr),
      kvfs_listing_next(listing, &old_item),
      kvfs_stream_open(nullptr, file, KVFS_DATA_FORK, &stream),
      kvfs_stream_open(session, file, 2, &stream),
      kvfs_stream_open(session, file, KVFS_DATA_FORK, nullptr),
      kvfs_stream_size(nullptr, &size),
      kvfs_stream_size(stream, nullptr),
      kvfs_stream_read(nullptr, 0, text, 1, &count),
      kvfs_stream_read(stream, 0, nullptr, 1, &count),
      kvfs_stream_read(stream, 0, text, 1, nullptr),
      kvfs_session_read_link(nullptr, file, text, 1, &count),
      kvfs_session_read_link(session, file, nullptr, 1, &count),
      kvfs_session_rename(nullptr, file, KVFS_ROOT_ID, "x"),
      kvfs_session_rename(session, file, KVFS_ROOT_ID, nullptr),
      kvfs_session_delete(nullptr, file),
      kvfs_session_make_link(nullptr, KVFS_ROOT_ID, "x", "y", nullptr),
      kvfs_session_make_link(session, KVFS_ROOT_ID, nullptr, "y", nullptr),
      kvfs_session_make_link(session, KVFS_ROOT_ID, "x", nullptr, nullptr),
      kvfs_session_flush(nullptr, 0),
      kvfs_session_flush(session, 2),
      kvfs_session_discard(nullptr),
  };
  for (std::size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i], KVFS_INVALID) << "call " << i;
  }
  EXPECT_LOG(log);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
  EXPECT_EQ(kvfs_stream_close(&stream), KVFS_OK);
}

// Structures may grow with the interface, but what is no structure's size is none: no memory is written by it.
TEST(SessionArguments, StructuresOfAnotherSize_AreFilledOrInvalid) {
  VolumeDescription description;
  const std::uint32_t file = description.add_file(kRootFolderId, u"f", 10);
  const TestSession test(build_volume(description));
  kvfs_listing* listing = nullptr;
  ASSERT_EQ(kvfs_listing_open(test.get(), KVFS_ROOT_ID, &listing), KVFS_OK);
  std::vector<std::uint64_t> memory(65536 / sizeof(std::uint64_t));
  kvfs_item* const item = reinterpret_cast<kvfs_item*>(memory.data());
  kvfs_volume_facts* const facts = reinterpret_cast<kvfs_volume_facts*>(memory.data());
  const auto with_item = [&](std::uint32_t size) {
    std::set<std::uint64_t> results;
    item->struct_size = size;
    results.insert(kvfs_session_find_id(test.get(), file, item));
    item->struct_size = size;
    results.insert(kvfs_session_find(test.get(), KVFS_ROOT_ID, "f", item));
    item->struct_size = size;
    results.insert(kvfs_listing_next(listing, item));
    return results;
  };
  const auto with_facts = [&](std::uint32_t size) {
    facts->struct_size = size;
    return kvfs_session_facts(test.get(), facts);
  };
  constexpr std::uint32_t kItem = sizeof(kvfs_item);
  constexpr std::uint32_t kFacts = sizeof(kvfs_volume_facts);
  for (const std::uint32_t size : {0U, 4U, kItem - 1, 65537U, 0x80000000U, UINT32_MAX}) {
    EXPECT_THAT(with_item(size), ElementsAre(KVFS_INVALID)) << size;
  }
  for (const std::uint32_t size : {0U, 4U, kFacts - 1, 65537U, 0x80000000U, UINT32_MAX}) {
    EXPECT_EQ(with_facts(size), KVFS_INVALID) << size;
  }
  EXPECT_THAT(with_item(65536), ElementsAre(KVFS_OK));
  EXPECT_EQ(item->id, file);
  EXPECT_EQ(item->struct_size, 65536U);
  EXPECT_EQ(memory.back(), 0U);
  EXPECT_EQ(with_facts(65536), KVFS_OK);
  EXPECT_EQ(kvfs_listing_close(&listing), KVFS_OK);
}

// ---- Results -------------------------------------------------------------------------------------------------------

TEST(SessionResults, EachHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (std::uint64_t result = 0; result <= KVFS_LIMIT; ++result) {
    texts.insert(kvfs_result_text(result));
  }
  for (std::uint64_t result = KVFS_NOT_FOUND; result <= KVFS_END; ++result) {
    texts.insert(kvfs_result_text(result));
  }
  EXPECT_EQ(texts.size(), KVFS_LIMIT + 1 + KVFS_END - KVFS_NOT_FOUND + 1);
  for (const std::uint64_t unknown : {KVFS_LIMIT + 1, KVFS_NOT_FOUND - 1, KVFS_END + 1, UINT64_MAX}) {
    EXPECT_STREQ(kvfs_result_text(unknown), "an unknown result");
  }
  EXPECT_STREQ(kvfs_result_text(KVFS_NOT_FOUND), "there is no such item");
}

TEST(SessionResults, NumbersAreThoseOfTheLibrary) {
  EXPECT_EQ(KVFS_OK, std::uint64_t{kvfs_ok});
  EXPECT_EQ(KVFS_FAILED, std::uint64_t{kvfs_failed});
  EXPECT_EQ(KVFS_NO_MEMORY, std::uint64_t{kvfs_no_memory});
  EXPECT_EQ(KVFS_INVALID, std::uint64_t{kvfs_invalid});
  EXPECT_EQ(KVFS_IO_ERROR, std::uint64_t{kvfs_io_error});
  EXPECT_EQ(KVFS_UNSUPPORTED_EXTENTS, std::uint64_t{kvfs_unsupported_extents});
  EXPECT_EQ(KVFS_INCONSISTENT, std::uint64_t{kvfs_inconsistent});
  EXPECT_EQ(KVFS_INTERNAL, std::uint64_t{kvfs_internal});
  EXPECT_EQ(KVFS_OVERFLOW, std::uint64_t{kvfs_overflow});
  EXPECT_EQ(KVFS_EXISTS, std::uint64_t{kvfs_exists});
  EXPECT_EQ(KVFS_LIMIT, std::uint64_t{kvfs_limit});
  EXPECT_EQ(kvfs_interface_version(), std::uint32_t{KVFS_INTERFACE_VERSION});
}

// ---- Log -----------------------------------------------------------------------------------------------------------

// Keeps the messages that a handler receives.
class Handler {
 public:
  Handler() { kvfs_set_log_handler(receive, this); }
  ~Handler() { kvfs_set_log_handler(nullptr, nullptr); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

  std::vector<std::string> messages;

 private:
  static void receive(void* context, const char* level, const char* routine, int line, const char* text) {
    EXPECT_GT(line, 0);
    static_cast<Handler*>(context)->messages.push_back(std::string(level) + " " + routine + " " + text);
  }
};

TEST(SessionLog, Handler_ReceivesEachMessageInsteadOfStandardError) {
  LogCapture log;
  {
    const Handler handler;
    kvfs_log_error("first", 1, "%d messages\n", 3);
    kvfs_log_warning("second", 1, "left open");
    kvfs_log_critical("third", 1, "behind it\n");
    kvfs_log("unit.cc", 7, "fourth", "ERROR", "%s", "a feed of its own\n");
    EXPECT_THAT(handler.messages, ElementsAre("ERROR first 3 messages", "WARNING second left open",
                                              "CRITICAL third behind it", "ERROR fourth a feed of its own"));
  }
  kvfs_log_error("fifth", 1, "on standard error\n");
  EXPECT_LOG(log, "ERROR fifth on standard error\n");
}

TEST(SessionLog, LineLeftOpenOnStandardError_StaysOpenWhileAHandlerIsSet) {
  LogCapture log;
  kvfs_log_error("first", 1, "open, ");
  {
    const Handler handler;
    kvfs_log_error("second", 1, "handled\n");
  }
  kvfs_log_error("third", 1, "and closed\n");
  EXPECT_LOG(log, "ERROR first open, and closed\n");
}

TEST(SessionLog, MessageOfAnyLength_IsHandedOverWhole) {
  for (const std::size_t length : {0U, 1U, 509U, 510U, 511U, 512U, 513U, 100000U}) {
    const std::string text(length, 'x');
    const Handler handler;
    kvfs_log_error("long", 1, "%s\n", text.c_str());
    kvfs_log_error("open", 1, "%s", text.c_str());
    EXPECT_THAT(handler.messages, ElementsAre("ERROR long " + text, "ERROR open " + text)) << length;
  }
}

TEST(SessionLog, MessageWithoutText_IsEmpty) {
  const Handler handler;
  kvfs_log_error("empty", 1, "%s", "");
  kvfs_log_error("feed", 1, "\n");
  const wchar_t no_text[] = {0xD800, 0};
  kvfs_log_error("unprintable", 1, "behind %ls", no_text);
  EXPECT_THAT(handler.messages, ElementsAre("ERROR empty ", "ERROR feed ", "ERROR unprintable "));
}

TEST(SessionLog, MessageLongerThanMemoryAllows_IsCut) {
  const Handler handler;
  const std::string text(2000, 'x');
  {
    FaultInjector faults;
    faults.fail_allocation(1);
    kvfs_log_error("long", 1, "%s\n", text.c_str());
  }
  EXPECT_THAT(handler.messages, ElementsAre("ERROR long " + std::string(511, 'x')));
}

TEST(SessionLog, FailureOfASession_ComesWithItsRoutine) {
  const Handler handler;
  kvfs_session* session = nullptr;
  EXPECT_EQ(kvfs_session_open("/nowhere", 0, &session), KVFS_IO_ERROR);
  EXPECT_THAT(handler.messages, ElementsAre(HasSubstr("ERROR kvfs_system_open Error while opening '/nowhere'")));
}

}  // namespace
}  // namespace kvfs_test
