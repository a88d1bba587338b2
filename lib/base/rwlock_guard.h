// Guards that hold a kvfs_rwlock for the length of a scope.

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

#endif  // KVFS_BASE_RWLOCK_GUARD_H
