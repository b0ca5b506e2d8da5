#include "utils/ErrorHelper.h"

#include <execinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kelm {

bool break_on_error = false;
std::atomic<bool> quiet_errors{false};

namespace {

std::terminate_handler g_oldTerminateHandler = nullptr;

// The names go straight to a descriptor, which needs no memory from the heap.
[[noreturn]] void terminateHandler() {
    constexpr int kMaxFrames = 20;
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    ::backtrace_symbols_fd(frames, count, STDERR_FILENO);
    if (g_oldTerminateHandler != nullptr) g_oldTerminateHandler();
    std::abort();
}

// At the first error only: a process without one keeps its own handler.
void installTerminateHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        g_oldTerminateHandler = std::set_terminate(terminateHandler);
        if (g_oldTerminateHandler != nullptr) {
            std::cerr << "WARNNING: errorWithException() replacing existing terminate_handler!!!";
        }
    });
}

// A plain write through null, which leaves a core at the place of the error.
[[noreturn]] void crash() {
    volatile int* volatile nowhere = nullptr;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)nowhere;
#else
    *nowhere = 0;
#endif
    std::abort();
}

}  // namespace

void errorWithException(const std::string& message, const char* file, int line, int errorNumber,
                        bool fatal) {
    const bool ends = break_on_error || fatal;
    if (!ends && quiet_errors) {
        throw std::system_error(errorNumber, std::generic_category(), message);
    }
    installTerminateHandler();
    std::ostringstream text;
    text << "error at " << file << ":" << line << "\n\t" << message << "\n";
    if (errorNumber != 0) {
        text << "\t(" << errorNumber << ") " << std::generic_category().message(errorNumber);
    }
    // Not through the log: this may be the end of the process, and the thread may hold its mutex.
    std::cerr << text.str();
    errno = errorNumber;  // for the log line where it is caught
    if (!ends) throw std::runtime_error(message);
    crash();
}

void assertionFailed(const char* condition, std::initializer_list<std::string_view> words,
                     const char* file, int line) {
    std::string text = std::string("CR_ASSERT(") + condition + ") failed. ";
    for (const std::string_view word : words) text += word;
    errorWithException(text, file, line, errno, true);
}

}  // namespace kelm
