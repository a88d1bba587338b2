// Exits for failures.

#ifndef KVFS_BASE_FAILURE_H
#define KVFS_BASE_FAILURE_H

#include "result.h"
#include "support.h"

// The value of a failure exit, which must not be taken for a success: kvfs_failed in the place of kvfs_ok, with a
// warning in the name of `routine`.
#define KVFS_FAILURE_VALUE(result, routine, text) \
  ((result) != kvfs_ok ? (result) : (KVFS_WARNING_AS(routine, text), kvfs_failed))

#endif  // KVFS_BASE_FAILURE_H
