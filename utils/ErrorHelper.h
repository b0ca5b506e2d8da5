#pragma once

#include <atomic>
#include <cerrno>
#include <initializer_list>
#include <string>
#include <string_view>

namespace kelm {

// Set, every error below ends the process; for debugging only.
extern bool break_on_error;

// Set, errors that do not end the process are only thrown: for a library within another program,
// whose error stream and terminate handler are not ours. Atomic: connections are made by any
// thread.
extern std::atomic<bool> quiet_errors;

// Writes the message with its place to the standard error stream, then throws std::runtime_error
// with the message, or, if `fatal`, crashes the process. `errorNumber` 0 means no errno text.
[[noreturn]] void errorWithException(const std::string& message, const char* file, int line,
                                     int errorNumber, bool fatal);

// The text "CR_ASSERT(condition) failed. " and the words, as a fatal error.
[[noreturn]] void assertionFailed(const char* condition,
                                  std::initializer_list<std::string_view> words, const char* file,
                                  int line);

}  // namespace kelm

// For this program's own faults, never for what a client sent: ends the process.
#define CR_ASSERT(condition, ...)                                                   \
    do {                                                                            \
        if (!(condition)) {                                                         \
            ::kelm::assertionFailed(#condition, {__VA_ARGS__}, __FILE__, __LINE__); \
        }                                                                           \
    } while (false)

// An error of a layer that reports by exceptions, with the current errno.
#define KELM_THROW(message) ::kelm::errorWithException(message, __FILE__, __LINE__, errno, false)
