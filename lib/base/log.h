// Where messages of the log go: for the log and who takes it over.

#ifndef KVFS_BASE_LOG_H
#define KVFS_BASE_LOG_H

#include <cstdarg>

extern "C" {

// Writes a message to standard error, with a prefix where it begins a line (see kvfs_log).
void kvfs_log_to_standard_error(const char* level, const char* function, int line, const char* format,
                                va_list arguments) __attribute__((format(printf, 4, 0)));

// Every message comes here. This is the routine above by another name, weakly: the unit of kvfs_set_log_handler has one
// that asks for the handler first, and the linker takes that where a program sets a handler. All other programs, the
// tool first of all, do not pay for it.
void kvfs_log_message(const char* level, const char* function, int line, const char* format, va_list arguments)
    __attribute__((format(printf, 4, 0)));

}  // extern "C"

#endif  // KVFS_BASE_LOG_H
