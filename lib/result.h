// Result values shared by the whole library.

#ifndef KVFS_RESULT_H
#define KVFS_RESULT_H

#include <cstdint>

// Outcome of every operation that can fail. Zero is success; a caller passes a callee's failure up unchanged. The
// numbers are the library's own: they are neither errno values nor the numbers of the thread library.
//
//   value                     raised when
//   kvfs_failed               a lock could not be taken or released; the volume signature is wrong; no better value
//                             was set
//   kvfs_no_memory            an allocation failed
//   kvfs_invalid              an argument or an input text is not acceptable
//   kvfs_io_error             the device failed, or moved fewer bytes than asked for
//   kvfs_unsupported_extents  a fork would need more than the eight extents of its fork data
//   kvfs_inconsistent         the volume contradicts itself, or a record that must exist is missing
//   kvfs_internal             a state that cannot occur while every routine keeps its contract
//   kvfs_overflow             a result does not fit the space given for it
//   kvfs_exists               the record to be inserted is there already
//   kvfs_limit                a limit of this implementation is reached
// The formatter takes the attribute for a name.
// clang-format off
enum [[nodiscard]] kvfs_result : std::uint64_t {
  kvfs_ok = 0,
  kvfs_failed = 1,
  kvfs_no_memory = 2,
  kvfs_invalid = 3,
  kvfs_io_error = 4,
  kvfs_unsupported_extents = 5,
  kvfs_inconsistent = 6,
  kvfs_internal = 7,
  kvfs_overflow = 8,
  kvfs_exists = 9,
  kvfs_limit = 10,
};
// clang-format on

// The result of two steps of which the second is always made, such as work under a lock and the release of that lock:
// the first failure counts, so a later one replaces a success only.
constexpr kvfs_result kvfs_result_keep(kvfs_result first, kvfs_result later) {
  return first != kvfs_ok ? first : later;
}

#endif  // KVFS_RESULT_H
