#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <initializer_list>

namespace kelm::gateway {

// Signals that are waited for. Made before any thread, so that none is interrupted by them.
//
// Threads: one waits.
class SignalWait {
 public:
    explicit SignalWait(std::initializer_list<int> signals) {
        ::sigemptyset(&m_set);
        for (const int signal : signals) ::sigaddset(&m_set, signal);
        ::pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    }

    // The signal. A stop of the process that ends interrupts the call, and is none.
    int wait() const {
        int signal = 0;
        while ((signal = ::sigwaitinfo(&m_set, nullptr)) < 0) {
        }
        return signal;
    }
    // 0 when the time is up.
    int waitUntil(std::chrono::steady_clock::time_point end) const {
        using std::chrono::nanoseconds;
        int signal = 0;
        do {
            const auto left = std::max(end - std::chrono::steady_clock::now(), nanoseconds(0));
            const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
            const timespec limit{seconds.count(), nanoseconds(left - seconds).count()};
            signal = ::sigtimedwait(&m_set, nullptr, &limit);
        } while (signal < 0 && errno == EINTR);
        return std::max(0, signal);
    }

 private:
    sigset_t m_set{};
};

}  // namespace kelm::gateway
