// Where messages of the log go: for the log and who takes it over.

#ifndef KVFS_UNIX_LOG_H
#define KVFS_UNIX_LOG_H

#include <cstdarg>

// Writes one message; see kvfs_log for what the parameters are.
using kvfs_log_writer = void (*)(const char* level, const char* function, int line, const char* format,
                                 va_list arguments);

// Writes a message to standard error, with a prefix where it begins a line (see kvfs_log).
void kvfs_log_to_standard_error(const char* level, const char* function, int line, const char* format,
                                va_list arguments) __attribute__((format(printf, 4, 0)));

// Has another writer write every message, or, where it is null, the one above again. Programs that never do so, the
// tool first of all, do not pay for it: the linker sees that there is one writer.
void kvfs_log_divert(kvfs_log_writer writer);

#endif  // KVFS_UNIX_LOG_H
