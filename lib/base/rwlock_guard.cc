// Guards that hold a kvfs_rwlock for the length of a scope, and work that is done under one.

#include "base/rwlock_guard.h"

void kvfs_report_refused_lock(const kvfs_lock_messages& messages) {
  void (*const report)(const char*, int, const char*, ...) = kvfs_log_error;  // the compiler checks no text here
  report(messages.speaker, messages.line, messages.locking, messages.object);
}

kvfs_result kvfs_release_lock(kvfs_rwlock_guard* guard, const kvfs_lock_messages& messages, kvfs_result result) {
  const kvfs_result unlocked = guard->release();
  if (unlocked != kvfs_ok) {
    messages.report_unlocking(messages.speaker, messages.line, messages.unlocking, messages.object);
  }
  return kvfs_result_keep(result, unlocked);
}
