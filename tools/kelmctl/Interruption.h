#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "client/Client.h"
#include "tools/kelmctl/SignalQueue.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm::ctl {

// Ends a command in order at SIGINT, SIGTERM or SIGHUP: a registration is given back, which ends
// the calls that wait for the service. A command that has not ended some three seconds later is
// ended by force, since the service may hang.
//
// Threads: one of its own, which takes the signals; made before any other thread of the process.
// Owns: its thread, the queue of signals, a share of the service. Locks: m_mutex, a leaf.
class Interruption {
 public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    // Runs the command. Its status, or 128 and the number of the signal that made it fail.
    int run(const std::function<int()>& command);

    // The service that is to be left; null: none any more. Left at once if a signal has come.
    void setService(std::shared_ptr<client::Client> service) EXCLUDES(m_mutex);
    // The signal that has come, 0 while none has.
    int signal() const { return m_signal.load(); }
    // Whether what was under way at the signal has had its time to end.
    bool isOverdue() const { return m_isOverdue.load(); }
    // False when a signal came first.
    bool sleepUntil(std::chrono::steady_clock::time_point end) EXCLUDES(m_mutex);

    // False when a signal came, and what is waited for did not end in time after it.
    template <class T>
    bool waitFor(const std::future<T>& future) {
        while (future.wait_for(kLook) != std::future_status::ready) {
            if (isOverdue()) return false;
        }
        return true;
    }

 private:
    static constexpr std::chrono::milliseconds kLook{20};

    void routine() EXCLUDES(m_mutex);
    // Whether the command has ended within the time.
    bool waitEnd(std::chrono::milliseconds time) const;

    const SignalQueue m_signals{SIGINT, SIGTERM, SIGHUP};
    const UniqueFd m_end;  // an eventfd, told when the command has ended
    // Atomics: each stands for itself, and is read for every request of a benchmark.
    std::atomic<int> m_signal{0};
    std::atomic<bool> m_isOverdue{false};
    Mutex m_mutex;
    CondVar m_came;
    std::shared_ptr<client::Client> m_service GUARDED_BY(m_mutex);
    std::thread m_thread;
};

}  // namespace kelm::ctl
