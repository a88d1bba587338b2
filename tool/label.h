// Printing and setting the label of an open volume. Messages of these routines go to standard error as they are,
// without the prefix of the library's log; only "Overflow while composing volume label string." has it.

#ifndef KVFSLABEL_LABEL_H
#define KVFSLABEL_LABEL_H

#include <cstdint>

#include "result.h"

struct kvfs_volume;

// How the label is printed: kOutputComposed recomposes it for display, kOutputRaw prints it as stored, decomposed.
inline constexpr std::uint32_t kOutputRaw = 0;
inline constexpr std::uint32_t kOutputComposed = 1;
inline std::uint32_t output_mode = kOutputComposed;

// Prints the label and a line feed on standard output, in UTF-8.
//
// Returns kvfs_ok; kvfs_no_memory; kvfs_overflow; kvfs_invalid when the stored label is no UTF-16; kvfs_io_error when
// standard output does not take it.
kvfs_result kvfslabel_print_label(const kvfs_volume* volume);

// Renames the root folder, reads the label back from the changed catalog as if to open the volume and to print it, and
// flushes the catalog file; the volume header is not written (Q-tool-5).
//
//   label  UTF-8, NUL-terminated; at most 255 UTF-16 units once it is decomposed
//
// Returns kvfs_ok; kvfs_invalid when the label is malformed or too long; kvfs_internal for a character of four bytes
// that is out of range; kvfs_inconsistent when the label could not be read back, for whatever reason; kvfs_no_memory;
// kvfs_overflow; or the failure of the rename or the flush. Nothing on the device has changed unless the flush had
// begun.
kvfs_result kvfslabel_set_label(kvfs_volume* volume, const char* label);

#endif  // KVFSLABEL_LABEL_H
