// The log and the reader-writer lock on POSIX systems.

#include "support.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ground/owned.h"
#include "unix/log.h"

// ---- Log -----------------------------------------------------------------------------------------------------------

// 1 while the next message begins a line. It is set before any code runs, so that the very first message is prefixed.
// Threads that log at once may misplace a prefix, but each of them reads 0 or 1.
static std::uint32_t g_at_line_start = 1;

void kvfs_log_to_standard_error(const char* level, const char* function, int line, const char* format,
                                va_list arguments) {
  if (__atomic_load_n(&g_at_line_start, __ATOMIC_RELAXED) != 0) {
    std::fprintf(stderr, "[%s: %s, line %d] ", level, function, line);
  }
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not know that a parameter is initialized
  std::vfprintf(stderr, format, arguments);
  // The format decides, not the text that it gave (Q-log-1): callers leave a line open by leaving the feed out there.
  const std::size_t length = std::strlen(format);
  __atomic_store_n(&g_at_line_start, length > 0 && format[length - 1] == '\n' ? 1U : 0U, __ATOMIC_RELAXED);
}

// Who writes instead; null for the routine above.
static kvfs_log_writer g_writer = nullptr;

void kvfs_log_divert(kvfs_log_writer writer) {
  g_writer = writer;
}

// Every message comes here.
static void write_message(const char* level, const char* function, int line, const char* format, va_list arguments) {
  const kvfs_log_writer writer = g_writer;
  (writer == nullptr ? kvfs_log_to_standard_error : writer)(level, function, line, format, arguments);
}

void kvfs_log(const char* /*file*/, int line, const char* function, const char* level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_message(level, function, line, format, arguments);
  va_end(arguments);
}

void kvfs_log_error(const char* function, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_message("ERROR", function, line, format, arguments);
  va_end(arguments);
}

void kvfs_log_warning(const char* function, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_message("WARNING", function, line, format, arguments);
  va_end(arguments);
}

void kvfs_log_critical(const char* function, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_message("CRITICAL", function, line, format, arguments);
  va_end(arguments);
}

// ---- Reader-writer lock --------------------------------------------------------------------------------------------

struct kvfs_rwlock {
  pthread_rwlock_t lock;
};

// Initialises a lock for the threads of this process, with messages in the name of the lock's creation.
static kvfs_result initialize(pthread_rwlock_t* lock) {
  pthread_rwlockattr_t attributes;
  const int initialized = pthread_rwlockattr_init(&attributes);
  if (initialized != 0) {
    KVFS_ERROR_AS(kvfs_rwlock_create, "Error while initializing pthread_rwlockattr: %s (%d)\n",
                  std::strerror(initialized), initialized);
    return kvfs_no_memory;
  }
  kvfs_result result = kvfs_ok;
  const int shared = pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE);
  if (shared != 0) {
    KVFS_ERROR_AS(kvfs_rwlock_create, "Error while setting pshared property: %s (%d)\n", std::strerror(shared), shared);
    result = kvfs_failed;
  }
  const int created = result == kvfs_ok ? pthread_rwlock_init(lock, &attributes) : 0;
  if (created != 0) {
    KVFS_ERROR_AS(kvfs_rwlock_create, "Error while initializing pthread_rwlock: %s (%d)\n", std::strerror(created),
                  created);
    result = kvfs_no_memory;
  }
  (void)pthread_rwlockattr_destroy(&attributes);  // Q-lock-2: nothing depends on it any more
  return result;
}

kvfs_result kvfs_rwlock_create(kvfs_rwlock** out_lock) {
  kvfs_owned<kvfs_rwlock> lock(static_cast<kvfs_rwlock*>(std::calloc(1, sizeof(kvfs_rwlock))));
  if (!lock) {
    const int error = errno;
    KVFS_ERROR("Error while allocating memory for kvfs_rwlock: %s (%d)\n", std::strerror(error), error);
    return kvfs_no_memory;
  }
  // Initialised where it stays: POSIX does not let a lock be moved.
  const kvfs_result result = initialize(&lock->lock);
  if (result == kvfs_ok) {
    *out_lock = lock.release();
  }
  return result;
}

kvfs_result kvfs_rwlock_destroy(kvfs_rwlock** lock) {
  if (pthread_rwlock_destroy(&(*lock)->lock) != 0) {  // it stays: Q-lock-1
    KVFS_ERROR("Error while destroying pthread_rwlock_t associated with kvfs_rwlock %p.\n", static_cast<void*>(*lock));
    return kvfs_failed;
  }
  std::free(*lock);
  *lock = nullptr;
  return kvfs_ok;
}

kvfs_result kvfs_rwlock_lock_read(kvfs_rwlock* lock) {
  if (pthread_rwlock_rdlock(&lock->lock) != 0) {
    KVFS_ERROR("Unable to acquire read lock!\n");
    return kvfs_failed;
  }
  return kvfs_ok;
}

kvfs_result kvfs_rwlock_lock_write(kvfs_rwlock* lock) {
  if (pthread_rwlock_wrlock(&lock->lock) != 0) {
    KVFS_ERROR("Unable to acquire write lock!\n");
    return kvfs_failed;
  }
  return kvfs_ok;
}

kvfs_result kvfs_rwlock_unlock(kvfs_rwlock* lock) {
  if (pthread_rwlock_unlock(&lock->lock) != 0) {
    KVFS_ERROR("Unable to unlock rwlock!\n");
    return kvfs_failed;
  }
  return kvfs_ok;
}
