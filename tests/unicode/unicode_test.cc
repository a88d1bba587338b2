// The converters and the order of names, text by text. The tables have a test program of their own.

#include "unicode.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "stored_names.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "unicode_names.h"

namespace {

using kvfs_test::Call;
using kvfs_test::FaultInjector;
using kvfs_test::LogCapture;
using kvfs_test::Name;
using kvfs_test::stored_units;

constexpr std::size_t kUntouched = 0x5A5A;

std::vector<std::uint16_t> host_units(std::u16string_view text) {
  return {text.begin(), text.end()};
}

// The units as a machine of the other byte order writes them, and the selectors of both orders.
Name foreign(Name text) {
  for (char16_t& unit : text) {
    unit = static_cast<char16_t>(unit << 8 | unit >> 8);
  }
  return text;
}
constexpr bool kLittle = std::endian::native == std::endian::little;
constexpr std::int32_t kForeignOrder = kLittle ? kUnicodeBigEndian : kUnicodeLittleEndian;
constexpr std::int32_t kNativeOrder = kLittle ? kUnicodeLittleEndian : kUnicodeBigEndian;

// A text of bytes that need not be UTF-8.
std::string bytes(std::initializer_list<unsigned> values) {
  return {values.begin(), values.end()};
}

// ---- UTF-16 to UTF-8 -----------------------------------------------------------------------------------------------

struct Utf8 {
  std::uint64_t result;
  std::string text;  // what was written, the terminator included

  bool operator==(const Utf8&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Utf8& utf8) {
  return out << utf8.result << " " << ::testing::PrintToString(utf8.text);
}

Utf8 success(std::string_view text) {
  return {kvfs_ok, std::string(text) + '\0'};
}

Utf8 failure(kvfs_result result) {
  return {result, ""};
}

// Converts into an allocated buffer. After a failure nothing may have been stored.
Utf8 to_utf8(const Name& text, std::int32_t byte_order = kUnicodeHostOrder) {
  const std::vector<std::uint16_t> units = host_units(text);
  char* outs = nullptr;
  std::size_t length = kUntouched;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units.data(), units.size(), byte_order, &outs, &length);
  if (result != kvfs_ok) {
    EXPECT_EQ(outs, nullptr);
    EXPECT_EQ(length, kUntouched);
    return {result, ""};
  }
  const std::unique_ptr<char, decltype(&std::free)> owned(outs, &std::free);
  return {result, std::string(outs, length + 1)};
}

// Converts into a buffer of exactly the size that the capacity calls for.
Utf8 to_utf8_buffer(const Name& text, std::size_t capacity, std::int32_t byte_order = kUnicodeHostOrder) {
  const std::vector<std::uint16_t> units = host_units(text);
  const auto buffer = std::make_unique<char[]>(capacity + 1);
  char* outs = buffer.get();
  std::size_t length = capacity;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units.data(), units.size(), byte_order, &outs, &length);
  EXPECT_EQ(outs, buffer.get());
  if (result != kvfs_ok) {
    EXPECT_EQ(length, capacity);
    return {result, ""};
  }
  return {result, std::string(outs, length + 1)};
}

TEST(UnistrToUtf8, OneCharacter_GivesItsOneToFourBytes) {
  LogCapture log;
  EXPECT_EQ(to_utf8(u"A"), success("A"));
  EXPECT_EQ(to_utf8(u"\u007F"), success("\x7F"));
  EXPECT_EQ(to_utf8(u"\u0080"), success("\xC2\x80"));
  EXPECT_EQ(to_utf8(u"\u00E9"), success("\xC3\xA9"));
  EXPECT_EQ(to_utf8(u"\u07FF"), success("\xDF\xBF"));
  EXPECT_EQ(to_utf8(u"\u0800"), success("\xE0\xA0\x80"));
  EXPECT_EQ(to_utf8(u"\u20AC"), success("\xE2\x82\xAC"));
  EXPECT_EQ(to_utf8(u"\uFFFF"), success("\xEF\xBF\xBF"));
  EXPECT_EQ(to_utf8(u"\U00010000"), success("\xF0\x90\x80\x80"));
  EXPECT_EQ(to_utf8({0xD83D, 0xDE00}), success("\xF0\x9F\x98\x80"));
  EXPECT_EQ(to_utf8(u"\U0010FFFF"), success("\xF4\x8F\xBF\xBF"));
  EXPECT_LOG(log);
}

TEST(UnistrToUtf8, EmptyText_GivesOnlyTheTerminator) {
  EXPECT_EQ(to_utf8(u""), success(""));
  EXPECT_EQ(to_utf8_buffer(u"", 0), success(""));
}

TEST(UnistrToUtf8, ZeroUnit_EndsTheText) {
  EXPECT_EQ(to_utf8(Name(u"ab\0cd", 5)), success("ab"));
  EXPECT_EQ(to_utf8({u'a', 0, 0xDC00}), success("a")) << "what follows is not looked at";
  EXPECT_EQ(to_utf8({0, u'a'}), success(""));
}

TEST(UnistrToUtf8, UnpairedSurrogate_IsRefusedWithoutALog) {
  LogCapture log;
  EXPECT_EQ(to_utf8({u'a', 0xD83D}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8({0xDE00}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8({0xD83D, u'a'}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8({0xD83D, 0xD83D}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8({0xD83D, 0xDE00, 0xDE00}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8({0xD83D, 0, 0xDE00}), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8_buffer({u'a', 0xD83D}, 8), failure(kvfs_invalid));
  EXPECT_LOG(log);
}

TEST(UnistrToUtf8, EverySingleUnit_ConvertsUnlessItIsASurrogate) {
  for (unsigned unit = 1; unit < 0x10000; ++unit) {
    const Name text(1, static_cast<char16_t>(unit));
    const bool surrogate = unit >= 0xD800 && unit <= 0xDFFF;
    ASSERT_EQ(to_utf8(text), surrogate ? failure(kvfs_invalid) : success(kvfs_test::to_utf8(text))) << std::hex << unit;
  }
}

// Q-unicode-9
TEST(UnistrToUtf8, BufferThatTheTextFills_ReceivesTheTerminatorBehindIt) {
  EXPECT_EQ(to_utf8_buffer(u"\u20AC\u00E9", 5), success("\xE2\x82\xAC\xC3\xA9"));
  EXPECT_EQ(to_utf8_buffer(u"\U0001F600a", 5), success(bytes({0xF0, 0x9F, 0x98, 0x80}) + "a"));
  EXPECT_EQ(to_utf8_buffer(u"abc", 7), success("abc"));
}

TEST(UnistrToUtf8, BufferOneByteTooSmall_OverflowsWithoutALog) {
  LogCapture log;
  EXPECT_EQ(to_utf8_buffer(u"abc", 2), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer(u"a", 0), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer(u"\u00E9", 1), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer(u"\u20AC\u00E9", 4), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer(u"\U0001F600", 3), failure(kvfs_overflow));
  EXPECT_LOG(log);
}

// The size is judged unit by unit: what overflows first wins over a surrogate further on, and the other way round.
TEST(UnistrToUtf8, OverflowAndUnpairedSurrogate_TheFirstInTheTextDecides) {
  EXPECT_EQ(to_utf8_buffer({u'a', u'b', 0xDC00}, 1), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer({u'a', 0xDC00, u'b'}, 1), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8_buffer({0xD83D, u'a', u'b'}, 3), failure(kvfs_invalid));
  EXPECT_EQ(to_utf8_buffer({0xD83D}, 0), failure(kvfs_invalid)) << "a high surrogate adds no bytes of its own";
}

TEST(UnistrToUtf8, NoMemory_IsReportedWithoutALog) {
  LogCapture log;
  const std::uint16_t units[] = {u'a', 0x20AC};
  char* outs = nullptr;
  std::size_t length = kUntouched;
  FaultInjector faults;
  faults.fail(Call::kMalloc, 1);
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units, 2, kUnicodeHostOrder, &outs, &length);
  const std::vector<std::size_t> sizes = faults.allocation_sizes();
  EXPECT_EQ(result, kvfs_no_memory);
  EXPECT_EQ(outs, nullptr);
  EXPECT_EQ(length, kUntouched);
  EXPECT_EQ(sizes, std::vector<std::size_t>{5}) << "the text and its terminator";
  EXPECT_LOG(log);
}

TEST(UnistrToUtf8, CallersBuffer_NeedsNoAllocation) {
  const std::uint16_t units[] = {u'a'};
  char buffer[2] = {};
  char* outs = buffer;
  std::size_t length = 1;
  FaultInjector faults;
  const kvfs_result result = kvfs_unicode_unistr_to_utf8(units, 1, kUnicodeHostOrder, &outs, &length);
  EXPECT_EQ(faults.count_allocations(), 0u);
  EXPECT_EQ(result, kvfs_ok);
}

// ---- Byte orders ---------------------------------------------------------------------------------------------------

TEST(UnistrToUtf8, NativeOrder_TakesUnitsAsTheyLie) {
  EXPECT_EQ(to_utf8(u"a\u20AC\U0001F600", kNativeOrder), success("a\xE2\x82\xAC\xF0\x9F\x98\x80"));
}

TEST(UnistrToUtf8, ForeignOrder_SwapsUnits) {
  EXPECT_EQ(to_utf8(foreign(u"A"), kForeignOrder), success("A"));
  EXPECT_EQ(to_utf8(foreign(u"\u20AC"), kForeignOrder), success("\xE2\x82\xAC"));
  EXPECT_EQ(to_utf8(foreign(u"\U0001F600"), kForeignOrder), success("\xF0\x9F\x98\x80"));
  EXPECT_EQ(to_utf8(foreign(Name(u"a\0b", 3)), kForeignOrder), success("a"));
}

// Sized as it lies: three bytes for U+6100, of which one is used.
// Q-unicode-7
TEST(UnistrToUtf8, ForeignOrderInACallersBuffer_NeedsTheCapacityOfTheUnitsAsTheyLie) {
  EXPECT_EQ(to_utf8_buffer(foreign(u"a"), 2, kForeignOrder), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8_buffer(foreign(u"a"), 3, kForeignOrder), success("a"));
}

// X-unicode-1
TEST(UnistrToUtf8, ForeignOrderThatNeedsMoreThanWasSized_FailsInsteadOfOverrunning) {
  LogCapture log;
  EXPECT_EQ(to_utf8(foreign(u"\u4100"), kForeignOrder), failure(kvfs_inconsistent));
  EXPECT_EQ(to_utf8_buffer(foreign(u"\u4100"), 2, kForeignOrder), failure(kvfs_inconsistent));
  EXPECT_EQ(to_utf8_buffer(foreign(u"\u4100"), 3, kForeignOrder), success("\xE4\x84\x80"));
  const std::string text = "ERROR kvfs_unicode_unistr_to_utf8 Text needs more than the ";
  EXPECT_LOG(log, text + "1 bytes sized for it.\n", text + "2 bytes sized for it.\n");
}

// X-unicode-2
TEST(UnistrToUtf8, ForeignSurrogateWithoutPartner_IsRefusedWithoutALogOrALeak) {
  LogCapture log;
  const Name texts[] = {{0xD83D}, {0xDE00}, {0xD83D, u'a'}, {0xD83D, 0xD83D}, {u'a', 0xD83D, 0, 0xDE00}};
  for (const Name& text : texts) {
    const std::vector<std::uint16_t> units = host_units(foreign(text));
    char* outs = nullptr;
    std::size_t length = kUntouched;
    FaultInjector faults;
    const kvfs_result result = kvfs_unicode_unistr_to_utf8(units.data(), units.size(), kForeignOrder, &outs, &length);
    EXPECT_EQ(faults.count_allocations(), 1u);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_EQ(result, kvfs_invalid) << ::testing::PrintToString(text);
    EXPECT_EQ(outs, nullptr);
    EXPECT_EQ(length, kUntouched);
  }
  EXPECT_LOG(log);
}

// Q-unicode-7
TEST(UnistrToUtf8, ForeignUnitThatLiesLikeASurrogate_IsRefusedBySizing) {
  EXPECT_EQ(to_utf8(foreign(u"\u00D8"), kForeignOrder), failure(kvfs_invalid));
}

TEST(UnistrToUtf8, UnknownOrder_IsRefusedAtTheFirstUnit) {
  for (const std::int32_t order : {3, -1, INT32_MIN, INT32_MAX}) {
    LogCapture log;
    EXPECT_EQ(to_utf8(u"a", order), failure(kvfs_invalid));
    EXPECT_EQ(to_utf8_buffer(u"a", 1, order), failure(kvfs_invalid));
    const std::string text =
        "ERROR kvfs_unicode_unistr_to_utf8 Unrecognized endianness: " + std::to_string(order) + "\n";
    EXPECT_LOG(log, text, text);
  }
}

// Q-unicode-8
TEST(UnistrToUtf8, UnknownOrderAndNothingToConvert_Succeeds) {
  LogCapture log;
  EXPECT_EQ(to_utf8(u"", 3), success(""));
  EXPECT_EQ(to_utf8({0, u'a'}, 3), success(""));
  EXPECT_LOG(log);
}

TEST(UnistrToUtf8, UnknownOrderAndBadSize_SizingDecidesFirst) {
  LogCapture log;
  EXPECT_EQ(to_utf8_buffer(u"ab", 1, 3), failure(kvfs_overflow));
  EXPECT_EQ(to_utf8({0xDC00}, 3), failure(kvfs_invalid));
  EXPECT_LOG(log);
}

// ---- UTF-8 to UTF-16 -----------------------------------------------------------------------------------------------

struct Utf16 {
  std::uint64_t result;
  Name text;  // what was written, the terminator included

  bool operator==(const Utf16&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Utf16& utf16) {
  return out << utf16.result << " " << ::testing::PrintToString(utf16.text);
}

Utf16 success(const Name& text) {
  return {kvfs_ok, text + u'\0'};
}

Utf16 refused() {
  return {kvfs_invalid, u""};
}

Utf16 wrong_length() {
  return {kvfs_internal, u""};
}

const char* const kSizingText = "ERROR kvfs_unicode_utf8_to_unistr Error while getting UTF-16 size for UTF-8 string.\n";

std::string length_text(std::size_t expected, std::size_t actual) {
  return "ERROR kvfs_unicode_utf8_to_unistr Internal error - Filled length is not as expected. Expected: " +
         std::to_string(expected) + " Actual: " + std::to_string(actual) + "\n";
}

// Converts into an allocated buffer. The text lies in a buffer of its own size, so that reading beyond it is noticed.
Utf16 to_utf16(std::string_view text) {
  const std::vector<char> bytes(text.begin(), text.end());
  std::uint16_t* outs = nullptr;
  std::size_t length = kUntouched;
  const kvfs_result result = kvfs_unicode_utf8_to_unistr(bytes.data(), bytes.size(), &outs, &length);
  if (result != kvfs_ok) {
    EXPECT_EQ(outs, nullptr);
    EXPECT_EQ(length, kUntouched);
    return {result, u""};
  }
  const std::unique_ptr<std::uint16_t, decltype(&std::free)> owned(outs, &std::free);
  return {result, Name(outs, outs + length + 1)};
}

// Converts into a buffer of the capacity; the text holds the whole buffer, which is filled with U+2592 before.
Utf16 to_utf16_buffer(std::string_view text, std::size_t capacity) {
  std::vector<std::uint16_t> buffer(capacity + 1, 0x2592);  // the last one is beyond the capacity and must stay
  std::uint16_t* const start = buffer.data();
  std::uint16_t* outs = start;
  std::size_t length = capacity;
  const kvfs_result result = kvfs_unicode_utf8_to_unistr(text.data(), text.size(), &outs, &length);
  EXPECT_EQ(outs, start);
  EXPECT_EQ(buffer.back(), 0x2592);
  if (result != kvfs_ok) {
    EXPECT_EQ(length, capacity);
    return {result, u""};
  }
  EXPECT_LE(length, capacity);
  return {result, Name(buffer.begin(), buffer.end() - 1)};
}

bool is_continuation(unsigned byte) {
  return byte >= 0x80 && byte <= 0xBF;
}

TEST(Utf8ToUnistr, OneCharacter_GivesItsOneOrTwoUnits) {
  LogCapture log;
  EXPECT_EQ(to_utf16("A"), success(u"A"));
  EXPECT_EQ(to_utf16("\x7F"), success(u"\u007F"));
  EXPECT_EQ(to_utf16("\xC2\x80"), success(u"\u0080"));
  EXPECT_EQ(to_utf16("\xC3\xA9"), success(u"\u00E9"));
  EXPECT_EQ(to_utf16("\xDF\xBF"), success(u"\u07FF"));
  EXPECT_EQ(to_utf16("\xE0\xA0\x80"), success(u"\u0800"));
  EXPECT_EQ(to_utf16("\xE2\x82\xAC"), success(u"\u20AC"));
  EXPECT_EQ(to_utf16("\xEF\xBF\xBF"), success(u"\uFFFF"));
  EXPECT_EQ(to_utf16("\xF0\x90\x80\x80"), success(u"\U00010000"));
  EXPECT_EQ(to_utf16("\xF0\x9F\x98\x80"), success(u"\U0001F600"));
  EXPECT_EQ(to_utf16("\xF4\x8F\xBF\xBF"), success(u"\U0010FFFF"));
  EXPECT_LOG(log);
}

TEST(Utf8ToUnistr, EmptyText_GivesOnlyTheTerminator) {
  EXPECT_EQ(to_utf16(""), success(u""));
  EXPECT_EQ(to_utf16_buffer("", 0), (Utf16{kvfs_ok, u""}));
  EXPECT_EQ(to_utf16_buffer("", 1), success(u""));
}

TEST(Utf8ToUnistr, EdgesOfMalformedText_AreRefused) {
  LogCapture log;
  EXPECT_EQ(to_utf16("\xC0\x80"), refused()) << "overlong NUL";
  EXPECT_EQ(to_utf16(bytes({0xE0, 0x80, 0x80})), refused()) << "overlong";
  EXPECT_EQ(to_utf16(bytes({0xED, 0xA0, 0x80})), refused()) << "an encoded surrogate";
  EXPECT_EQ(to_utf16("\xC3"), refused()) << "cut after its first byte";
  EXPECT_EQ(to_utf16("abc\xE2\x82"), refused()) << "cut after its second byte";
  EXPECT_EQ(to_utf16("\xF0\x9F\x98"), refused()) << "cut after its third byte";
  EXPECT_LOG(log);
}

TEST(Utf8ToUnistr, LeadAboveF4_IsRefusedBySizingWithALog) {
  LogCapture log;
  EXPECT_EQ(to_utf16("\xF5"), refused());
  EXPECT_EQ(to_utf16("\x80\xFF"), refused()) << "before the stray byte in front of it is decoded";
  EXPECT_LOG(log, kSizingText, kSizingText);
}

TEST(Utf8ToUnistr, ByteAboveF4WhereAContinuationBelongs_IsRefusedWithoutALog) {
  LogCapture log;
  EXPECT_EQ(to_utf16("\xC3\xFF"), refused());
  EXPECT_EQ(to_utf16("\xF0\x9F\xFF\xFF"), refused());
  EXPECT_LOG(log);
}

// Q-unicode-11
TEST(Utf8ToUnistr, ZeroByteInsideTheLength_EndsAsAWrongLength) {
  LogCapture log;
  EXPECT_EQ(to_utf16(std::string_view("\0", 1)), wrong_length());
  EXPECT_EQ(to_utf16(std::string_view("ab\0cd", 5)), wrong_length());
  EXPECT_EQ(to_utf16(std::string_view("\xC3\0", 2)), refused());
  EXPECT_EQ(to_utf16(std::string_view("ab\0\xFF", 4)), wrong_length()) << "what follows is not looked at";
  EXPECT_LOG(log, length_text(0, 1), length_text(2, 3), length_text(2, 3));
}

// The unit that gives the zero byte away has no room in a buffer that fits the text.
TEST(Utf8ToUnistr, ZeroByteAndABufferThatTheTextFills_IsNotOverrun) {
  LogCapture log;
  EXPECT_EQ(to_utf16_buffer(std::string_view("ab\0", 3), 2), wrong_length());
  EXPECT_EQ(to_utf16_buffer(std::string_view("\0", 1), 0), wrong_length());
  EXPECT_LOG(log, length_text(2, 3), length_text(0, 1));
}

// Q-unicode-11
TEST(Utf8ToUnistr, FourBytesBelowU10000_EndAsAWrongLength) {
  LogCapture log;
  EXPECT_EQ(to_utf16(bytes({0xF0, 0x80, 0x80, 0x80})), wrong_length());
  EXPECT_EQ(to_utf16(bytes({0xF0, 0x8F, 0xBF, 0xBF})), wrong_length());
  EXPECT_EQ(to_utf16("a" + bytes({0xF0, 0x8F, 0xBF, 0xBF}) + "bc"), wrong_length());
  EXPECT_LOG(log, length_text(2, 1), length_text(2, 1), length_text(5, 2));
}

// Q-unicode-11
TEST(Utf8ToUnistr, FourBytesAboveU10FFFF_PassAsTheLastCharacterOnly) {
  LogCapture log;
  EXPECT_EQ(to_utf16("\xF4\x90\x80\x80"), success({0xDC00, 0xDC00}));
  EXPECT_EQ(to_utf16("a\xF4\xBF\xBF\xBF"), success({u'a', 0xDCBF, 0xDFFF}));
  EXPECT_EQ(to_utf16(bytes({0xF4, 0x8F, 0xBF, 0xBF}) + "b"), success(u"\U0010FFFFb"));
  EXPECT_EQ(to_utf16(bytes({0xF4, 0x90, 0x80, 0x80}) + "b"), wrong_length());
  EXPECT_LOG(log, length_text(3, 2));
}

// How a text of one or two bytes ends: as what it says, or refused, with or without a message.
enum class Outcome { kConverted, kRefused, kRefusedBySizing, kWrongLength };

Outcome outcome_of_byte(unsigned byte) {
  if (byte == 0) {
    return Outcome::kWrongLength;
  }
  return byte < 0x80 ? Outcome::kConverted : byte > 0xF4 ? Outcome::kRefusedBySizing : Outcome::kRefused;
}

Outcome outcome_of_pair(unsigned first, unsigned second) {
  if (first == 0 || first > 0xF4) {
    return outcome_of_byte(first);
  }
  if (first < 0x80) {
    return outcome_of_byte(second);
  }
  if (first < 0xC0) {  // sizing takes the second byte for a lead
    return second > 0xF4 ? Outcome::kRefusedBySizing : Outcome::kRefused;
  }
  return first >= 0xC2 && first < 0xE0 && is_continuation(second) ? Outcome::kConverted : Outcome::kRefused;
}

class OutcomeTally {
 public:
  void check(const std::string& text, Outcome outcome) {
    const Utf16 expected = outcome == Outcome::kConverted     ? success(kvfs_test::to_utf16(text))
                           : outcome == Outcome::kWrongLength ? wrong_length()
                                                              : refused();
    EXPECT_EQ(to_utf16(text), expected) << ::testing::PrintToString(text);
    sized_ += outcome == Outcome::kRefusedBySizing;
    wrong_ += outcome == Outcome::kWrongLength;
  }

  // The log has a line for each text that asks for one, and no other.
  void check_log(LogCapture& log) const {
    std::size_t sized = 0;
    std::size_t wrong = 0;
    for (const kvfs_test::LogLine& line : log.lines()) {
      const std::string text = to_string(line);
      sized += text == kSizingText;
      wrong += text.starts_with("ERROR kvfs_unicode_utf8_to_unistr Internal error - Filled length");
    }
    EXPECT_EQ(sized, sized_);
    EXPECT_EQ(wrong, wrong_);
    EXPECT_EQ(log.lines().size(), sized_ + wrong_);
  }

 private:
  std::size_t sized_ = 0;
  std::size_t wrong_ = 0;
};

TEST(Utf8ToUnistr, EveryTextOfOneByte_EndsByItsClass) {
  OutcomeTally tally;
  LogCapture log;
  for (unsigned byte = 0; byte < 0x100; ++byte) {
    tally.check(bytes({byte}), outcome_of_byte(byte));
  }
  tally.check_log(log);
}

TEST(Utf8ToUnistr, EveryTextOfTwoBytes_EndsByItsClass) {
  OutcomeTally tally;
  LogCapture log;
  for (unsigned first = 0; first < 0x100; ++first) {
    for (unsigned second = 0; second < 0x100; ++second) {
      tally.check(bytes({first, second}), outcome_of_pair(first, second));
    }
  }
  tally.check_log(log);
}

// Bytes on both sides of every border that the classes of continuation bytes have.
constexpr unsigned kBorders[] = {0x01, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC3, 0xF4, 0xFF};

TEST(Utf8ToUnistr, TextsOfThreeBytes_EndByTheirClass) {
  OutcomeTally tally;
  LogCapture log;
  for (unsigned first = 0xE0; first <= 0xEF; ++first) {
    for (const unsigned second : kBorders) {
      for (const unsigned third : kBorders) {
        const unsigned lowest = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned highest = first == 0xED ? 0x9F : 0xBF;
        const bool formed = second >= lowest && second <= highest && is_continuation(third);
        tally.check(bytes({first, second, third}), formed ? Outcome::kConverted : Outcome::kRefused);
      }
      tally.check(bytes({first, second, 0}), Outcome::kRefused);
    }
    tally.check(bytes({first, 0, 0x80}), Outcome::kRefused);
  }
  tally.check_log(log);
}

TEST(Utf8ToUnistr, TextsOfFourBytes_EndByTheirClass) {
  OutcomeTally tally;
  LogCapture log;
  for (unsigned first = 0xF0; first <= 0xF4; ++first) {
    for (const unsigned second : kBorders) {
      for (const unsigned third : kBorders) {
        for (const unsigned fourth : kBorders) {
          const bool formed = is_continuation(second) && is_continuation(third) && is_continuation(fourth);
          if (formed && first == 0xF4 && second > 0x8F) {
            continue;  // the last character only: has a test of its own
          }
          const bool below = first == 0xF0 && second < 0x90;
          tally.check(bytes({first, second, third, fourth}), !formed ? Outcome::kRefused
                                                             : below ? Outcome::kWrongLength
                                                                     : Outcome::kConverted);
        }
        tally.check(bytes({first, second, third, 0}), Outcome::kRefused);
      }
      tally.check(bytes({first, second, 0, 0x80}), Outcome::kRefused);
    }
    tally.check(bytes({first, 0, 0x80, 0x80}), Outcome::kRefused);
  }
  tally.check_log(log);
}

TEST(Utf8ToUnistr, EveryCodePoint_ConvertsInBothDirections) {
  for (char32_t start = 0; start < 0x110000; start += 0x400) {
    if (start >= 0xD800 && start < 0xE000) {
      continue;
    }
    Name units;
    for (char32_t code = start == 0 ? 1 : start; code < start + 0x400; ++code) {
      if (code >= 0x10000) {
        units += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
        units += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
      } else {
        units += static_cast<char16_t>(code);
      }
    }
    const std::string text = kvfs_test::to_utf8(units);
    ASSERT_EQ(to_utf16(text), success(units)) << std::hex << static_cast<unsigned>(start);
    ASSERT_EQ(to_utf8(units), success(text)) << std::hex << static_cast<unsigned>(start);
    ASSERT_EQ(to_utf8_buffer(units, text.size()), success(text)) << std::hex << static_cast<unsigned>(start);
    ASSERT_EQ(to_utf16_buffer(text, units.size()), (Utf16{kvfs_ok, units})) << std::hex << static_cast<unsigned>(start);
  }
}

TEST(Utf8ToUnistr, BufferThatTheTextFills_ReceivesNoTerminator) {
  EXPECT_EQ(to_utf16_buffer("a\xC3\xA9", 2), (Utf16{kvfs_ok, u"a\u00E9"}));
  EXPECT_EQ(to_utf16_buffer("a\xC3\xA9", 4), (Utf16{kvfs_ok, Name(u"a\u00E9\0\u2592", 4)}));
}

TEST(Utf8ToUnistr, BufferOneUnitTooSmall_IsRefused) {
  LogCapture log;
  EXPECT_EQ(to_utf16_buffer("abc", 2), refused());
  EXPECT_EQ(to_utf16_buffer("a\xF0\x9F\x98\x80", 2), refused());
  const std::string text =
      "ERROR kvfs_unicode_utf8_to_unistr Preallocated buffer is too small to hold the UTF-16 result. "
      "*outs_len (2) < shorts (3)\n";
  EXPECT_LOG(log, text, text);
}

// The size that the message prints shows how sizing judges a sequence that is cut or broken off by a zero byte.
TEST(Utf8ToUnistr, BrokenSequenceInABufferTooSmall_IsSizedByItsLeadByte) {
  const std::map<std::string, int> counts = {
      {"ab\x80\xBF", 4},
      {"ab\xC3", 3},
      {"ab\xE2", 3},
      {"ab\xF0", 4},
      {"ab\xF0\x9F\x98\x80", 4},
      {std::string("ab\xF0\0", 4), 3},
      {std::string("ab\xF0\x9F\0", 5), 3},
      {std::string("ab\xF0\x9F\x98\0z", 7), 3},
      {std::string("ab\xC3\0z", 5), 3},
      {std::string("ab\0z", 4), 2},
  };
  for (const auto& [text, count] : counts) {
    LogCapture log;
    EXPECT_EQ(to_utf16_buffer(text, 1), refused());
    EXPECT_LOG(log,
               "ERROR kvfs_unicode_utf8_to_unistr Preallocated buffer is too small to hold the UTF-16 result. "
               "*outs_len (1) < shorts (" +
                   std::to_string(count) + ")\n")
        << ::testing::PrintToString(text);
  }
}

TEST(Utf8ToUnistr, BufferWithoutALength_IsRefused) {
  std::uint16_t buffer[4] = {};
  std::uint16_t* outs = buffer;
  LogCapture log;
  EXPECT_EQ(kvfs_unicode_utf8_to_unistr("a", 1, &outs, nullptr), kvfs_invalid);
  char text[200];
  std::snprintf(text, sizeof(text), "Preallocated 'outs', but no 'outs_len' specified. *outs=%p outs_len=%p\n",
                static_cast<void*>(buffer), static_cast<void*>(nullptr));
  EXPECT_LOG(log, "ERROR kvfs_unicode_utf8_to_unistr " + std::string(text));
  EXPECT_EQ(buffer[0], 0);
}

TEST(Utf8ToUnistr, AllocatedResult_NeedsNoLength) {
  std::uint16_t* outs = nullptr;
  ASSERT_EQ(kvfs_unicode_utf8_to_unistr("ab", 2, &outs, nullptr), kvfs_ok);
  ASSERT_NE(outs, nullptr);
  EXPECT_EQ(Name(outs, outs + 3), Name(u"ab\0", 3));
  std::free(outs);
}

// Q-unicode-10
TEST(Utf8ToUnistr, NoMemory_IsLoggedAndGivesAnEmptySuccess) {
  LogCapture log;
  std::uint16_t* outs = nullptr;
  std::size_t length = kUntouched;
  FaultInjector faults;
  faults.fail(Call::kMalloc, 1);
  const kvfs_result result = kvfs_unicode_utf8_to_unistr("a\xC3\xA9", 3, &outs, &length);
  EXPECT_EQ(result, kvfs_ok);
  EXPECT_EQ(outs, nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_LOG(log, "ERROR kvfs_unicode_utf8_to_unistr Error while allocating 6 bytes for UTF-16 result.\n");
}

TEST(Utf8ToUnistr, NoMemoryAndNoLength_GivesANullPointer) {
  LogCapture log;
  std::uint16_t* outs = nullptr;
  FaultInjector faults;
  faults.fail(Call::kMalloc, 1);
  const kvfs_result result = kvfs_unicode_utf8_to_unistr("", 0, &outs, nullptr);
  EXPECT_EQ(result, kvfs_ok);
  EXPECT_EQ(outs, nullptr);
  EXPECT_LOG(log, "ERROR kvfs_unicode_utf8_to_unistr Error while allocating 2 bytes for UTF-16 result.\n");
}

TEST(Utf8ToUnistr, FailureAfterTheAllocation_FreesIt) {
  LogCapture log;
  for (const std::string& text : {std::string("\xC3"), std::string("a\0b", 3), bytes({0xF0, 0x80, 0x80, 0x80})}) {
    std::uint16_t* outs = nullptr;
    std::size_t length = kUntouched;
    FaultInjector faults;
    const kvfs_result result = kvfs_unicode_utf8_to_unistr(text.data(), text.size(), &outs, &length);
    EXPECT_EQ(faults.count_allocations(), 1u);
    EXPECT_EQ(faults.outstanding_allocations(), 0u);
    EXPECT_NE(result, kvfs_ok);
    EXPECT_EQ(outs, nullptr);
    EXPECT_EQ(length, kUntouched);
  }
}

// ---- Decomposition and composition ---------------------------------------------------------------------------------

// What a string routine left: its flag, the count that it reported, and the whole destination, which held U+2592.
struct Filled {
  int overflow;
  std::size_t count;
  Name units;

  bool operator==(const Filled&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Filled& filled) {
  return out << filled.overflow << " " << filled.count << " " << ::testing::PrintToString(filled.units);
}

constexpr std::uint16_t kFiller = 0x2592;

template <typename Routine>
Filled fill_host_units(Routine routine, std::u16string_view src, std::size_t capacity) {
  const auto units = [&] {
    if constexpr (std::is_invocable_v<Routine, const kvfs_be16*, std::size_t, std::uint16_t*, std::size_t,
                                      std::size_t*>) {
      return stored_units(src);
    } else {
      return host_units(src);
    }
  }();
  std::vector<std::uint16_t> dst(capacity + 1, kFiller);  // the last one is beyond the capacity and must stay
  std::size_t count = kUntouched;
  const int overflow = routine(units.data(), units.size(), dst.data(), capacity, &count);
  EXPECT_EQ(dst.back(), kFiller);
  return {overflow, count, Name(dst.begin(), dst.end() - 1)};
}

Filled decompose(std::u16string_view src, std::size_t capacity) {
  return fill_host_units(&kvfs_unicode_decompose, src, capacity);
}

Filled compose(std::u16string_view src, std::size_t capacity) {
  return fill_host_units(&kvfs_unicode_compose, src, capacity);
}

TEST(Decompose, Name_GivesTheUnitsAndATerminatorWhereThereIsRoom) {
  EXPECT_EQ(decompose(u"\u00E9", 2), (Filled{0, 2, u"e\u0301"}));
  EXPECT_EQ(decompose(u"\u00E9", 4), (Filled{0, 2, Name(u"e\u0301\0\u2592", 4)}));
  EXPECT_EQ(decompose(u"x\u1EA6y", 6), (Filled{0, 5, Name(u"xA\u0302\u0300y\0", 6)}));
  EXPECT_EQ(decompose(u"\u1F82", 4), (Filled{0, 4, kvfs_test::decomposed(u"\u1F82")}));
  EXPECT_EQ(decompose(u"", 1), (Filled{0, 0, Name(1, u'\0')}));
}

TEST(Decompose, Hangul_GivesTwoOrThreeJamo) {
  EXPECT_EQ(decompose(u"\uAC00", 2), (Filled{0, 2, u"\u1100\u1161"}));
  EXPECT_EQ(decompose(u"\uAC01", 3), (Filled{0, 3, u"\u1100\u1161\u11A8"}));
  EXPECT_EQ(decompose(u"\uD7A3\uD7A4", 4), (Filled{0, 4, u"\u1112\u1175\u11C2\uD7A4"}));
}

// Q-unicode-5
TEST(Decompose, ZeroUnit_IsCopiedLikeAnyOther) {
  EXPECT_EQ(decompose(std::u16string_view(u"\0\u00E9\0", 3), 5), (Filled{0, 4, Name(u"\0e\u0301\0\0", 5)}));
}

TEST(Decompose, DestinationOneUnitTooSmall_OverflowsAndKeepsWhatFitted) {
  EXPECT_EQ(decompose(u"a\u1EA6", 3), (Filled{1, 3, u"aA\u0302"}));
  EXPECT_EQ(decompose(u"ab", 1), (Filled{1, 1, u"a"}));
  EXPECT_EQ(decompose(u"\uAC01", 2), (Filled{1, 2, u"\u1100\u1161"}));
}

TEST(Decompose, NoCapacity_OverflowsWhenThereIsText) {
  EXPECT_EQ(decompose(u"a", 0), (Filled{1, 0, u""}));
  EXPECT_EQ(decompose(std::u16string_view(u"\0", 1), 0), (Filled{1, 0, u""}));
  EXPECT_EQ(decompose(u"", 0), (Filled{0, 0, u""}));
}

TEST(Decompose, NoDestination_OnlyCountsWhateverTheCapacity) {
  const std::vector<std::uint16_t> src = host_units(u"a\u1EA6\uAC01");
  std::size_t count = kUntouched;
  EXPECT_EQ(kvfs_unicode_decompose(src.data(), src.size(), nullptr, 1, &count), 0);
  EXPECT_EQ(count, 7u);
  EXPECT_EQ(kvfs_unicode_decompose(src.data(), src.size(), nullptr, 100, &count), 0);
  EXPECT_EQ(count, 7u);
  EXPECT_EQ(kvfs_unicode_decompose(src.data(), src.size(), nullptr, 0, &count), 1) << "no capacity, nothing counted";
  EXPECT_EQ(count, 0u);
}

TEST(Decompose, NoCount_IsAccepted) {
  const std::uint16_t src[] = {0x00E9};
  std::uint16_t dst[2] = {};
  EXPECT_EQ(kvfs_unicode_decompose(src, 1, dst, 2, nullptr), 0);
  EXPECT_EQ(dst[1], 0x0301);
  EXPECT_EQ(kvfs_unicode_decompose(src, 1, dst, 0, nullptr), 1);
}

TEST(DecomposeChar, ShortDecomposition_LeavesTheRestOfTheBuffer) {
  std::uint16_t out[kUnicodeMaxDecomposedUnits] = {kFiller, kFiller, kFiller, kFiller};
  EXPECT_EQ(kvfs_unicode_decompose_char(u'a', out), 1u);
  EXPECT_EQ(Name(out, out + 4), u"a\u2592\u2592\u2592");
  EXPECT_EQ(kvfs_unicode_decompose_char(0x00E9, out), 2u);
  EXPECT_EQ(Name(out, out + 4), u"e\u0301\u2592\u2592");
}

TEST(Compose, Name_GivesTheUnitsAndATerminatorWhereThereIsRoom) {
  EXPECT_EQ(compose(u"e\u0301", 1), (Filled{0, 1, u"\u00E9"}));
  EXPECT_EQ(compose(u"e\u0301", 3), (Filled{0, 1, Name(u"\u00E9\0\u2592", 3)}));
  EXPECT_EQ(compose(u"A\u0302\u0300", 1), (Filled{0, 1, u"\u1EA6"}));
  EXPECT_EQ(compose(u"xe\u0301y", 3), (Filled{0, 3, u"x\u00E9y"}));
  EXPECT_EQ(compose(u"", 1), (Filled{0, 0, Name(1, u'\0')}));
}

TEST(Compose, UnitsBehindTheName_AreNotJoinedToIt) {
  const std::vector<kvfs_be16> src = stored_units(u"xe\u0301");
  std::uint16_t dst[3] = {};
  std::size_t count = 0;
  EXPECT_EQ(kvfs_unicode_compose(src.data(), 2, dst, 3, &count), 0);
  EXPECT_EQ(Name(dst, dst + count), u"xe");
}

TEST(Compose, Hangul_JoinsJamoAndSyllables) {
  EXPECT_EQ(compose(u"\u1100\u1161", 1), (Filled{0, 1, u"\uAC00"}));
  EXPECT_EQ(compose(u"\u1100\u1161\u11A8", 1), (Filled{0, 1, u"\uAC01"}));
  EXPECT_EQ(compose(u"\uAC00\u11A8", 1), (Filled{0, 1, u"\uAC01"}));
  EXPECT_EQ(compose(u"\uAC01\u11A8", 2), (Filled{0, 2, u"\uAC01\u11A8"})) << "it has a trailing consonant";
  EXPECT_EQ(compose(u"\u1100\u1100\u1161", 2), (Filled{0, 2, u"\u1100\uAC00"}));
  EXPECT_EQ(compose(u"\u1100\u11A8", 2), (Filled{0, 2, u"\u1100\u11A8"})) << "no vowel in between";
}

TEST(Compose, HangulNeighboursOfTheRanges_StandForThemselves) {
  EXPECT_EQ(compose(u"\u10FF\u1161", 2), (Filled{0, 2, u"\u10FF\u1161"}));
  EXPECT_EQ(compose(u"\u1113\u1161", 2), (Filled{0, 2, u"\u1113\u1161"}));
  EXPECT_EQ(compose(u"\u1100\u1160", 2), (Filled{0, 2, u"\u1100\u1160"}));
  EXPECT_EQ(compose(u"\u1100\u1176", 2), (Filled{0, 2, u"\u1100\u1176"}));
  EXPECT_EQ(compose(u"\uAC00\u11A6", 2), (Filled{0, 2, u"\uAC00\u11A6"}));
  EXPECT_EQ(compose(u"\uAC00\u11C3", 2), (Filled{0, 2, u"\uAC00\u11C3"}));
  EXPECT_EQ(compose(u"\uABE4\u11A8", 2), (Filled{0, 2, u"\uABE4\u11A8"})) << "28 below the first syllable";
  EXPECT_EQ(compose(u"\uD7A4\u11A8", 2), (Filled{0, 2, u"\uD7A4\u11A8"})) << "behind the last syllable";
}

// Kept although it stands for no trailing consonant.
// Q-unicode-4
TEST(Compose, HangulFollowedByU11A7_AbsorbsIt) {
  EXPECT_EQ(compose(u"\u1100\u1161\u11A7", 1), (Filled{0, 1, u"\uAC00"}));
  EXPECT_EQ(compose(u"\u1100\u1161\u11A7\u11A8", 1), (Filled{0, 1, u"\uAC01"}));
  EXPECT_EQ(compose(u"\uAC00\u11A7", 1), (Filled{0, 1, u"\uAC00"}));
  EXPECT_EQ(compose(u"\uAC00\u11A7\u11A7\u11A7\u11A7", 2), (Filled{0, 2, u"\uAC00\u11A7"})) << "four units at most";
  EXPECT_EQ(compose(u"\u11A7", 1), (Filled{0, 1, u"\u11A7"}));
}

// Q-unicode-5
TEST(Compose, ZeroUnit_EndsTheName) {
  EXPECT_EQ(compose(std::u16string_view(u"a\0b", 3), 3), (Filled{0, 1, Name(u"a\0\u2592", 3)}));
  EXPECT_EQ(compose(std::u16string_view(u"e\0\u0301", 3), 2), (Filled{0, 1, Name(u"e\0", 2)}));
}

TEST(Compose, DestinationTooSmall_OverflowsAndKeepsWhatFitted) {
  EXPECT_EQ(compose(u"ae\u0301", 1), (Filled{1, 1, u"a"}));
  EXPECT_EQ(compose(u"abc", 1), (Filled{1, 1, u"a"}));
  EXPECT_EQ(compose(std::u16string_view(u"a\0b", 3), 1), (Filled{0, 1, u"a"})) << "a zero unit needs no room";
}

TEST(Compose, NoCapacity_OverflowsWhenTheSourceCountIsNotZero) {
  EXPECT_EQ(compose(u"a", 0), (Filled{1, 0, u""}));
  EXPECT_EQ(compose(std::u16string_view(u"\0", 1), 0), (Filled{1, 0, u""}));
  EXPECT_EQ(compose(u"", 0), (Filled{0, 0, u""}));
}

TEST(Compose, NoDestination_OnlyCountsWhateverTheCapacity) {
  const std::vector<kvfs_be16> src = stored_units(u"ae\u0301\u1100\u1161\u11A8");
  for (const std::size_t capacity : {std::size_t{0}, std::size_t{1}, std::size_t{100}}) {
    std::size_t count = kUntouched;
    EXPECT_EQ(kvfs_unicode_compose(src.data(), src.size(), nullptr, capacity, &count), 0);
    EXPECT_EQ(count, 3u);
  }
}

TEST(Compose, NoCount_IsAccepted) {
  const std::vector<kvfs_be16> src = stored_units(u"e\u0301");
  std::uint16_t dst[1] = {};
  EXPECT_EQ(kvfs_unicode_compose(src.data(), src.size(), dst, 1, nullptr), 0);
  EXPECT_EQ(dst[0], 0x00E9);
  EXPECT_EQ(kvfs_unicode_compose(src.data(), src.size(), dst, 0, nullptr), 1);
}

TEST(ComposeChar, RemainingUnits_BoundWhatIsAbsorbed) {
  const std::vector<kvfs_be16> latin = stored_units(u"A\u0302\u0300");
  const std::vector<kvfs_be16> jamo = stored_units(u"\u1100\u1161\u11A7\u11A8");
  std::size_t extra = kUntouched;
  EXPECT_EQ(kvfs_unicode_compose_char(latin.data(), 1, &extra), u'A');
  EXPECT_EQ(extra, 0u);
  EXPECT_EQ(kvfs_unicode_compose_char(latin.data(), 2, &extra), 0x00C2);
  EXPECT_EQ(extra, 1u);
  EXPECT_EQ(kvfs_unicode_compose_char(latin.data(), 3, &extra), 0x1EA6);
  EXPECT_EQ(extra, 2u);
  EXPECT_EQ(kvfs_unicode_compose_char(jamo.data(), 1, &extra), 0x1100);
  EXPECT_EQ(extra, 0u);
  EXPECT_EQ(kvfs_unicode_compose_char(jamo.data(), 3, &extra), 0xAC00);
  EXPECT_EQ(extra, 2u);
  EXPECT_EQ(kvfs_unicode_compose_char(jamo.data(), 4, &extra), 0xAC01);
  EXPECT_EQ(extra, 3u);
}

// ---- The order of names --------------------------------------------------------------------------------------------

enum class Order { kFolded, kBinary };

int compare(std::u16string_view a, std::u16string_view b, Order order) {
  const std::vector<kvfs_be16> units_a = stored_units(a);
  const std::vector<kvfs_be16> units_b = stored_units(b);
  return kvfs_unicode_fast_compare(units_a.data(), units_a.size(), units_b.data(), units_b.size(),
                                   order == Order::kBinary);
}

// Compares both ways round, which must give opposite answers.
int compare_both_ways(std::u16string_view a, std::u16string_view b, Order order) {
  const int result = compare(a, b, order);
  EXPECT_EQ(compare(b, a, order), -result);
  return result;
}

TEST(FastCompare, NamesThatDifferInCase_AreEqualWithFoldingOnly) {
  EXPECT_EQ(compare_both_ways(u"Readme", u"README", Order::kFolded), 0);
  EXPECT_EQ(compare_both_ways(u"Readme", u"README", Order::kBinary), 1);
  EXPECT_EQ(compare_both_ways(u"\u03A3\u00C6\uFF21", u"\u03C3\u00E6\uFF41", Order::kFolded), 0);
}

TEST(FastCompare, PrecomposedLatinLetters_DoNotFold) {
  EXPECT_EQ(compare_both_ways(u"\u00C0", u"\u00E0", Order::kFolded), -1);
}

// Q-unicode-13
TEST(FastCompare, IgnorableUnits_AreSkippedWithFoldingOnly) {
  EXPECT_EQ(compare_both_ways(u"a", u"a\u200C", Order::kFolded), 0);
  EXPECT_EQ(compare_both_ways(u"ab", u"\u202Aa\u206F\uFEFFb", Order::kFolded), 0);
  EXPECT_EQ(compare_both_ways(u"", u"\u200C\u200D", Order::kFolded), 0);
  EXPECT_EQ(compare_both_ways(u"a", u"a\u200B", Order::kFolded), -1) << "U+200B is not ignorable";
  EXPECT_EQ(compare_both_ways(u"a", u"a\u200C", Order::kBinary), -1);
}

// Q-unicode-13
TEST(FastCompare, Prefix_SortsFirst) {
  for (const Order order : {Order::kFolded, Order::kBinary}) {
    EXPECT_EQ(compare_both_ways(u"", u"a", order), -1);
    EXPECT_EQ(compare_both_ways(u"ab", u"abc", order), -1);
    EXPECT_EQ(compare_both_ways(u"", u"", order), 0);
    EXPECT_EQ(compare_both_ways(u"abc", u"abc", order), 0);
  }
}

// Q-unicode-6
TEST(FastCompare, ZeroUnit_SortsLastWithFolding) {
  const std::u16string_view zero(u"\0", 1);
  EXPECT_EQ(compare_both_ways(zero, u"\uFFFE", Order::kFolded), 1);
  EXPECT_EQ(compare_both_ways(zero, u"\uFFFF", Order::kFolded), 0);
  EXPECT_EQ(compare_both_ways(zero, u"", Order::kFolded), 1);
  EXPECT_EQ(compare_both_ways(zero, u"\u200C", Order::kFolded), 1);
  EXPECT_EQ(compare_both_ways(std::u16string_view(u"\0a", 2), std::u16string_view(u"\0b", 2), Order::kFolded), -1);
}

// Q-unicode-6
TEST(FastCompare, PairOfZeroUnits_EndsTheBinaryComparison) {
  EXPECT_EQ(compare_both_ways(std::u16string_view(u"a\0b", 3), std::u16string_view(u"a\0c", 3), Order::kBinary), 0);
  EXPECT_EQ(compare_both_ways(std::u16string_view(u"a\0b", 3), u"a", Order::kBinary), 0) << "the end counts as zero";
  EXPECT_EQ(compare_both_ways(std::u16string_view(u"a\0", 2), u"ab", Order::kBinary), -1);
}

TEST(FastCompare, Units_AreComparedUnsigned) {
  for (const Order order : {Order::kFolded, Order::kBinary}) {
    EXPECT_EQ(compare_both_ways(u"\u7FFF", u"\u8000", order), -1);
    EXPECT_EQ(compare_both_ways(u"\u0100", u"\u00FE", order), 1);
  }
}

TEST(FastCompare, RandomNames_AgreeWithASecondImplementation) {
  std::mt19937 random(20);
  const std::u16string_view units(u"aAbB\0\u0301\u200C\u00C6\u00E6\uFFFF", 10);
  for (int i = 0; i < 50000; ++i) {
    Name names[2];
    for (Name& name : names) {
      for (auto left = random() % 6; left > 0; --left) {
        name += units[random() % units.size()];
      }
    }
    for (const Order order : {Order::kFolded, Order::kBinary}) {
      ASSERT_EQ(compare(names[0], names[1], order),
                kvfs_test::compare_names(names[0], names[1], order == Order::kBinary))
          << ::testing::PrintToString(names[0]) << " " << ::testing::PrintToString(names[1]);
    }
  }
}

// ---- Names of foreign systems --------------------------------------------------------------------------------------

Filled to_foreign(std::u16string_view src, std::size_t capacity) {
  return fill_host_units(&kvfs_unicode_hfsplus_to_windows, src, capacity);
}

template <typename Routine>
Filled fill_stored_units(Routine routine, std::u16string_view src, std::size_t capacity) {
  const std::vector<std::uint16_t> units = host_units(src);
  std::vector<kvfs_be16> dst(capacity + 1, kvfs_be16::of(kFiller));
  std::size_t count = kUntouched;
  const int overflow = routine(units.data(), units.size(), dst.data(), capacity, &count);
  EXPECT_EQ(dst.back().get(), kFiller);
  Name text;
  for (std::size_t i = 0; i < capacity; ++i) {
    text += static_cast<char16_t>(dst[i].get());
  }
  return {overflow, count, text};
}

Filled to_stored(std::u16string_view src, std::size_t capacity) {
  return fill_stored_units(&kvfs_unicode_windows_to_hfsplus, src, capacity);
}

TEST(HfsplusToWindows, Name_IsComposed) {
  EXPECT_EQ(to_foreign(u"e\u0301", 1), (Filled{0, 1, u"\u00E9"}));
  EXPECT_EQ(to_foreign(u"ae\u0301\u1100\u1161\u11A8", 5), (Filled{0, 3, Name(u"a\u00E9\uAC01\0\u2592", 5)}));
  EXPECT_EQ(to_foreign(u"A\u0302\u0300A\u0302", 2), (Filled{0, 2, u"\u1EA6\u00C2"}));
}

TEST(HfsplusToWindows, ZeroUnit_EndsTheName) {
  EXPECT_EQ(to_foreign(std::u16string_view(u"a\0b", 3), 3), (Filled{0, 1, Name(u"a\0\u2592", 3)}));
}

TEST(HfsplusToWindows, CapacityOfOneForTwoUnits_StoresOneAndNoTerminator) {
  EXPECT_EQ(to_foreign(u"ab", 1), (Filled{1, 1, u"a"}));
}

TEST(HfsplusToWindows, DestinationWithoutRoom_OverflowsWhenTheSourceCountIsNotZero) {
  EXPECT_EQ(to_foreign(u"a", 0), (Filled{1, 0, u""}));
  EXPECT_EQ(to_foreign(std::u16string_view(u"\0", 1), 0), (Filled{1, 0, u""}));
  EXPECT_EQ(to_foreign(u"", 0), (Filled{0, 0, u""}));
}

TEST(HfsplusToWindows, NoDestination_OnlyCounts) {
  const std::vector<kvfs_be16> src = stored_units(u"ae\u0301");
  std::size_t count = kUntouched;
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows(src.data(), src.size(), nullptr, 0, &count), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows(src.data(), src.size(), nullptr, 0, nullptr), 0);
}

TEST(HfsplusToWindowsCapped, NoCapacity_IsNoRoomEvenWithoutADestination) {
  const std::vector<kvfs_be16> src = stored_units(u"ae\u0301");
  std::size_t count = kUntouched;
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows_capped(src.data(), src.size(), nullptr, 0, &count), 1);
  EXPECT_EQ(count, 0u);
  count = kUntouched;
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows_capped(src.data(), 0, nullptr, 0, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows_capped(src.data(), src.size(), nullptr, 0, nullptr), 1);
}

TEST(HfsplusToWindowsCapped, Capacity_MapsAsTheOtherDoes) {
  EXPECT_EQ(fill_host_units(&kvfs_unicode_hfsplus_to_windows_capped, u"ae\u0301", 3),
            (Filled{0, 2, Name(u"a\u00E9\0", 3)}));
  EXPECT_EQ(fill_host_units(&kvfs_unicode_hfsplus_to_windows_capped, u"ab", 1), (Filled{1, 1, u"a"}));
  EXPECT_EQ(fill_host_units(&kvfs_unicode_hfsplus_to_windows_capped, u"ab", 0), (Filled{1, 0, u""}));
}

TEST(HfsplusToWindowsStringLength, Name_GivesTheUnitsOfTheMappingWithoutALog) {
  LogCapture log;
  const std::vector<kvfs_be16> src = stored_units(std::u16string_view(u"ae\u0301\u1100\u1161\0b", 7));
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows_string_length(src.data(), src.size()), 3u);
  EXPECT_EQ(kvfs_unicode_hfsplus_to_windows_string_length(src.data(), 0), 0u);
  EXPECT_LOG(log);
}

TEST(WindowsToHfsplus, Name_IsDecomposed) {
  EXPECT_EQ(to_stored(u"\u00E9", 2), (Filled{0, 2, u"e\u0301"}));
  EXPECT_EQ(to_stored(u"a\u00E9\uAC01", 8), (Filled{0, 6, Name(u"ae\u0301\u1100\u1161\u11A8\0\u2592", 8)}));
}

TEST(WindowsToHfsplus, ZeroUnit_EndsTheName) {
  EXPECT_EQ(to_stored(std::u16string_view(u"a\0\u00E9", 3), 3), (Filled{0, 1, Name(u"a\0\u2592", 3)}));
}

// Q-unicode-12
TEST(WindowsToHfsplus, DestinationTooSmall_CutsADecompositionInTheMiddle) {
  EXPECT_EQ(to_stored(u"a\u1EA6", 3), (Filled{1, 3, u"aA\u0302"}));
  EXPECT_EQ(to_stored(u"ab", 1), (Filled{1, 1, u"a"}));
}

TEST(WindowsToHfsplus, DestinationWithoutRoom_OverflowsWhenTheSourceCountIsNotZero) {
  EXPECT_EQ(to_stored(u"a", 0), (Filled{1, 0, u""}));
  EXPECT_EQ(to_stored(std::u16string_view(u"\0", 1), 0), (Filled{1, 0, u""}));
  EXPECT_EQ(to_stored(u"", 0), (Filled{0, 0, u""}));
}

TEST(WindowsToHfsplus, NoDestination_OnlyCounts) {
  const std::vector<std::uint16_t> src = host_units(u"a\u1EA6");
  std::size_t count = kUntouched;
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus(src.data(), src.size(), nullptr, 0, &count), 0);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus(src.data(), src.size(), nullptr, 0, nullptr), 0);
}

TEST(WindowsToHfsplusCapped, NoCapacity_IsNoRoomEvenWithoutADestination) {
  const std::vector<std::uint16_t> src = host_units(u"a\u00E9");
  std::size_t count = kUntouched;
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus_capped(src.data(), src.size(), nullptr, 0, &count), 1);
  EXPECT_EQ(count, 0u);
  count = kUntouched;
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus_capped(src.data(), 0, nullptr, 0, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus_capped(src.data(), src.size(), nullptr, 0, nullptr), 1);
}

TEST(WindowsToHfsplusCapped, Capacity_MapsAsTheOtherDoes) {
  EXPECT_EQ(fill_stored_units(&kvfs_unicode_windows_to_hfsplus_capped, u"a\u00E9", 4),
            (Filled{0, 3, Name(u"ae\u0301\0", 4)}));
  EXPECT_EQ(fill_stored_units(&kvfs_unicode_windows_to_hfsplus_capped, u"ab", 1), (Filled{1, 1, u"a"}));
  EXPECT_EQ(fill_stored_units(&kvfs_unicode_windows_to_hfsplus_capped, u"ab", 0), (Filled{1, 0, u""}));
}

TEST(WindowsToHfsplusStringLength, Name_GivesTheUnitsOfTheMappingWithoutALog) {
  LogCapture log;
  const std::vector<std::uint16_t> src = host_units(std::u16string_view(u"a\u1EA6\uAC01\0b", 5));
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus_string_length(src.data(), src.size()), 7u);
  EXPECT_EQ(kvfs_unicode_windows_to_hfsplus_string_length(src.data(), 0), 0u);
  EXPECT_LOG(log);
}

TEST(ForeignNames, EveryCharacterOfTheTable_IsStoredAsItsRow) {
  for (const auto& [unit, sequence] : kvfs_test::decomposition_rows()) {
    ASSERT_EQ(to_stored(Name(1, unit), sequence.size()), (Filled{0, sequence.size(), sequence}));
  }
}

}  // namespace
