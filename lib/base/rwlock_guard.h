// Guards that hold a kvfs_rwlock for the length of a scope, and work that is done under one.

#ifndef KVFS_BASE_RWLOCK_GUARD_H
#define KVFS_BASE_RWLOCK_GUARD_H

#include "result.h"
#include "support.h"

// Holds a lock from construction, if `result()` says that it was granted, to `release()`.
//
// An unlock can fail, and the callers have to report that: they call `release()` and look at its result. The
// destructor is only a net for a path that forgot; it drops the result.
class kvfs_rwlock_guard {
 public:
  kvfs_rwlock_guard(const kvfs_rwlock_guard&) = delete;
  kvfs_rwlock_guard& operator=(const kvfs_rwlock_guard&) = delete;
  ~kvfs_rwlock_guard() { (void)release(); }

  // Whether the lock was granted; when it was not, nothing is held.
  kvfs_result result() const { return result_; }

  // Unlocks once; kvfs_ok when nothing is held.
  kvfs_result release() {
    kvfs_rwlock* const held = held_;
    held_ = nullptr;
    return held == nullptr ? kvfs_ok : kvfs_rwlock_unlock(held);
  }

 protected:
  kvfs_rwlock_guard(kvfs_rwlock* lock, kvfs_result granted)
      : held_(granted == kvfs_ok ? lock : nullptr), result_(granted) {}

 private:
  kvfs_rwlock* held_;
  kvfs_result result_;
};

// Shares the lock with other readers.
class kvfs_read_guard : public kvfs_rwlock_guard {
 public:
  explicit kvfs_read_guard(kvfs_rwlock* lock) : kvfs_rwlock_guard(lock, kvfs_rwlock_lock_read(lock)) {}
};

// Holds the lock alone.
class kvfs_write_guard : public kvfs_rwlock_guard {
 public:
  explicit kvfs_write_guard(kvfs_rwlock* lock) : kvfs_rwlock_guard(lock, kvfs_rwlock_lock_write(lock)) {}
};

// What is said when a lock is refused, which is an error, and when it cannot be given back behind the work.
struct kvfs_lock_messages {
  const char* speaker;
  int line;
  const char* locking;
  void (*report_unlocking)(const char* function, int line, const char* format, ...);
  const char* unlocking;
  const void* object;  // what "%p" in a text stands for
};

// The messages of the enclosing routine or of a routine named, as KVFS_ERROR and KVFS_ERROR_AS have them. `level` is
// that of the unlocking: error, warning or critical.
#define KVFS_LOCK_MESSAGES_BY(speaker, locking, level, unlocking, object)   \
  kvfs_lock_messages {                                                      \
    (speaker), __LINE__, (locking), kvfs_log_##level, (unlocking), (object) \
  }
#define KVFS_LOCK_MESSAGES(locking, level, unlocking) \
  KVFS_LOCK_MESSAGES_BY(__func__, locking, level, unlocking, nullptr)
#define KVFS_LOCK_MESSAGES_AS(routine, locking, level, unlocking) \
  KVFS_LOCK_MESSAGES_BY(KVFS_NAME_OF(routine), locking, level, unlocking, nullptr)

// Says that a lock was refused.
void kvfs_report_refused_lock(const kvfs_lock_messages& messages);

// Gives a lock back behind some work, and says so if that fails. Returns the first failure.
kvfs_result kvfs_release_lock(kvfs_rwlock_guard* guard, const kvfs_lock_messages& messages, kvfs_result result);

// Takes a lock, does some work and gives the lock back: kvfs_with_read_lock, kvfs_with_write_lock. The work is called
// without an argument and returns a kvfs_result; where the lock is refused it is not called.
//
// Returns the first failure: that of locking, of the work, or of unlocking.
template <typename Guard, typename Work>
kvfs_result kvfs_with_lock(kvfs_rwlock* lock, const kvfs_lock_messages& messages, const Work& work) {
  Guard guard(lock);
  if (guard.result() != kvfs_ok) {
    kvfs_report_refused_lock(messages);
    return guard.result();
  }
  const kvfs_result result = work();
  return kvfs_release_lock(&guard, messages, result);
}

// The same for work whose caller has nothing to say about the lock: what fails is logged where it does.
template <typename Guard, typename Work>
kvfs_result kvfs_with_lock(kvfs_rwlock* lock, const Work& work) {
  Guard guard(lock);
  if (guard.result() != kvfs_ok) {
    return guard.result();
  }
  const kvfs_result result = work();
  return kvfs_result_keep(result, guard.release());
}

template <typename Work>
kvfs_result kvfs_with_read_lock(kvfs_rwlock* lock, const kvfs_lock_messages& messages, const Work& work) {
  return kvfs_with_lock<kvfs_read_guard>(lock, messages, work);
}
template <typename Work>
kvfs_result kvfs_with_write_lock(kvfs_rwlock* lock, const kvfs_lock_messages& messages, const Work& work) {
  return kvfs_with_lock<kvfs_write_guard>(lock, messages, work);
}
template <typename Work>
kvfs_result kvfs_with_write_lock(kvfs_rwlock* lock, const Work& work) {
  return kvfs_with_lock<kvfs_write_guard>(lock, work);
}

#endif  // KVFS_BASE_RWLOCK_GUARD_H
