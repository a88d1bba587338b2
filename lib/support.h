// What the library needs of its platform besides the block device: the log and the reader-writer lock.

#ifndef KVFS_SUPPORT_H
#define KVFS_SUPPORT_H

#include <cstddef>
#include <cstdint>

#include "result.h"

#pragma GCC visibility push(default)

// ---- Log -----------------------------------------------------------------------------------------------------------

// Writes one message to standard error, where the routine that detects a failure reports it. A program that has called
// kvfs_set_log_handler (kvfs.h) receives it instead.
//
// A message that begins a line gets the prefix "[LEVEL: function, line N] ". Whether the next message begins a line
// depends on the format alone: one that does not end in a line feed leaves its line open, and the next message, whoever
// logs it, goes on there without a prefix. That is the log's only state; it is not locked, so that two threads that log
// at once may interleave their text.
//
//   file      the caller's source unit; accepted for the callers' convenience and not printed
//   line      the caller's line
//   function  the routine that the message speaks for
//   level     "ERROR" (an operation failed), "WARNING" (odd but tolerated) or "CRITICAL" (cannot happen)
//   format    printf format, never empty; its arguments follow
void kvfs_log(const char* file, int line, const char* function, const char* level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// kvfs_log at the level "ERROR". Wherever something can fail a message is logged, so that one argument fewer in each of
// these calls saves kilobytes.
void kvfs_log_error(const char* function, int line, const char* format, ...)
    __attribute__((cold, format(printf, 3, 4)));

// The same at the level "WARNING".
void kvfs_log_warning(const char* function, int line, const char* format, ...)
    __attribute__((cold, format(printf, 3, 4)));

// The same at the level "CRITICAL".
void kvfs_log_critical(const char* function, int line, const char* format, ...)
    __attribute__((cold, format(printf, 3, 4)));

// Can be made of any routine, and of nothing else. None ever is, so that this is nowhere defined.
struct kvfs_checked_routine {
  // From a routine with any parameters and result.
  template <typename Result, typename... Parameters>
  explicit kvfs_checked_routine(Result (&routine)(Parameters...));
};

// The name of a routine that exists, for messages: what a misspelt or a removed one is called does not compile.
#define KVFS_NAME_OF(routine) (static_cast<void>(sizeof(kvfs_checked_routine{routine})), #routine)

// Who speaks in a message? As a rule the routine that it stands in:
//   KVFS_ERROR(format, ...), KVFS_WARNING(...), KVFS_CRITICAL(...).
// In a helper the routine that it helps: KVFS_ERROR_AS(routine, format, ...) and so on, with the routine's own name.
// In one that helps several of them, whose name it was given: KVFS_ERROR_BY(speaker, format, ...) and so on; the name
// comes from __func__ or KVFS_NAME_OF.

// Reports an error in the name of a speaker.
#define KVFS_ERROR_BY(speaker, ...) kvfs_log_error((speaker), __LINE__, __VA_ARGS__)
// Warns in the name of a speaker.
#define KVFS_WARNING_BY(speaker, ...) kvfs_log_warning((speaker), __LINE__, __VA_ARGS__)
// Reports what cannot happen in the name of a speaker.
#define KVFS_CRITICAL_BY(speaker, ...) kvfs_log_critical((speaker), __LINE__, __VA_ARGS__)

// Reports an error in the name of a routine.
#define KVFS_ERROR_AS(routine, ...) KVFS_ERROR_BY(KVFS_NAME_OF(routine), __VA_ARGS__)
// Warns in the name of a routine.
#define KVFS_WARNING_AS(routine, ...) KVFS_WARNING_BY(KVFS_NAME_OF(routine), __VA_ARGS__)
// Reports what cannot happen in the name of a routine.
#define KVFS_CRITICAL_AS(routine, ...) KVFS_CRITICAL_BY(KVFS_NAME_OF(routine), __VA_ARGS__)

// Reports an error in the name of the enclosing routine.
#define KVFS_ERROR(...) KVFS_ERROR_BY(__func__, __VA_ARGS__)
// Warns in the name of the enclosing routine.
#define KVFS_WARNING(...) KVFS_WARNING_BY(__func__, __VA_ARGS__)
// Reports what cannot happen in the name of the enclosing routine.
#define KVFS_CRITICAL(...) KVFS_CRITICAL_BY(__func__, __VA_ARGS__)

namespace kvfs {

// A number as its message's "%llu" wants it: printf has no portable conversion for the fixed-width types.
constexpr unsigned long long to_ull(std::uint64_t value) {
  return value;
}

// A number as its message's "%lu" wants it.
constexpr unsigned long to_ul(std::uint32_t value) {
  return value;
}

}  // namespace kvfs

using kvfs::to_ul;
using kvfs::to_ull;

// ---- Reader-writer lock --------------------------------------------------------------------------------------------

// A process-private POSIX reader-writer lock. Readers share, writers exclude; it is not recursive.
struct kvfs_rwlock;

// Creates a lock that nobody holds.
//
//   out_lock  receives the lock, owned by the caller; unchanged on failure
//
// Returns kvfs_ok; kvfs_no_memory when memory, the attribute or the lock itself cannot be had; kvfs_failed when the
// attribute cannot be set.
kvfs_result kvfs_rwlock_create(kvfs_rwlock** out_lock);

// Destroys a lock that nobody holds.
//
//   lock  the handle; null after success, unchanged after a failure, which leaves the lock alive
//
// Returns kvfs_ok, or kvfs_failed when the thread library refuses (the lock is held).
kvfs_result kvfs_rwlock_destroy(kvfs_rwlock** lock);

// Takes the lock together with other readers, waiting until no writer has it. Returns kvfs_ok, or kvfs_failed with
// nothing held.
kvfs_result kvfs_rwlock_lock_read(kvfs_rwlock* lock);

// Takes the lock alone, waiting until nobody else has it. Returns kvfs_ok, or kvfs_failed with nothing held.
kvfs_result kvfs_rwlock_lock_write(kvfs_rwlock* lock);

// Gives back what either routine above granted. Returns kvfs_ok or kvfs_failed.
kvfs_result kvfs_rwlock_unlock(kvfs_rwlock* lock);

#pragma GCC visibility pop

#endif  // KVFS_SUPPORT_H
