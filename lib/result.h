// Result values shared by the whole library.

#ifndef KVFS_RESULT_H
#define KVFS_RESULT_H

#include <cstdint>

// The formatter takes the attribute for a name.
// clang-format off

// Outcome of every operation that can fail. Zero is success; a caller passes a callee's failure up unchanged. The
// numbers are the library's own: they are neither errno values nor the numbers of the thread library.
enum [[nodiscard]] kvfs_result : std::uint64_t {
  kvfs_ok = 0,                   // it worked; for a search, found or not
  kvfs_failed = 1,               // a lock could not be taken or released; the volume signature is wrong; no better
                                 // value was set
  kvfs_no_memory = 2,            // an allocation failed
  kvfs_invalid = 3,              // an argument or an input text is not acceptable
  kvfs_io_error = 4,             // the device failed, or moved fewer bytes than asked for
  kvfs_unsupported_extents = 5,  // a fork would need more than the eight extents of its fork data
  kvfs_inconsistent = 6,         // the volume contradicts itself, or a record that must exist is missing
  kvfs_internal = 7,             // a state that cannot occur while every routine keeps its contract
  kvfs_overflow = 8,             // a result does not fit the space given for it
  kvfs_exists = 9,               // the record to be inserted is there already
  kvfs_limit = 10,               // a limit of this implementation is reached
};
// clang-format on

// The result of two steps of which the second is always made, such as work under a lock and the release of that lock:
// the first failure counts, so a later one replaces a success only.
constexpr kvfs_result kvfs_result_keep(kvfs_result first, kvfs_result later) {
  return first != kvfs_ok ? first : later;
}

#endif  // KVFS_RESULT_H
