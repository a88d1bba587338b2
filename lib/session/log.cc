// The log of a program that wants it for itself.

#include "unix/log.h"

#include <cstdio>

#include "ground/owned.h"
#include "kvfs.h"

// Of the program; the handler is asked for only where there is one.
static kvfs_log_handler g_handler = nullptr;
static void* g_context = nullptr;

// Room for the messages of the library, most of which are short. A longer one gets memory of its own.
static constexpr std::size_t kUsualSize = 512;

// Hands over a text of `length` bytes in a buffer of `size`, in which its end may be missing.
static void hand_over(const char* level, const char* function, int line, char* text, std::size_t size,
                      std::size_t length) {
  if (length < size && length > 0 && text[length - 1] == '\n') {
    text[length - 1] = '\0';
  }
  g_handler(g_context, level, function, line, text);
}

// A message without a line feed leaves no line open here: each one has its own level, routine and line.
static void deliver(const char* level, const char* function, int line, const char* format, va_list arguments) {
  char usual[kUsualSize];
  va_list again;
  va_copy(again, arguments);
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the analyzer does not know that a parameter is initialized
  const int printed = std::vsnprintf(usual, sizeof(usual), format, arguments);
  const std::size_t length = printed < 0 ? 0 : static_cast<std::size_t>(printed);
  const kvfs_owned<unsigned char> longer =
      length < sizeof(usual) ? kvfs_owned<unsigned char>() : kvfs_allocate_bytes(length + 1);
  if (longer) {
    char* const text = static_cast<char*>(static_cast<void*>(longer.get()));
    (void)std::vsnprintf(text, length + 1, format, again);  // it has just told its length
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    hand_over(level, function, line, text, length + 1, length);
  } else {
    if (printed < 0) {
      usual[0] = '\0';
    }
    hand_over(level, function, line, usual, sizeof(usual), length);
  }
  va_end(again);
}

void kvfs_set_log_handler(kvfs_log_handler handler, void* context) {
  g_context = context;
  g_handler = handler;
  kvfs_log_divert(handler == nullptr ? nullptr : deliver);
}
