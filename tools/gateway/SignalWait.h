#pragma once

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

    void wait() const { ::sigwaitinfo(&m_set, nullptr); }
    // False when the time is up.
    bool waitFor(std::chrono::seconds time) const {
        const timespec limit{time.count(), 0};
        return ::sigtimedwait(&m_set, nullptr, &limit) > 0;
    }

 private:
    sigset_t m_set{};
};

}  // namespace kelm::gateway
