#include "shell/ExitSignal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "utils/ErrorHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Atomic, and free of locks: the only kind of variable that a handler may share with threads.
std::atomic<bool> exitService{false};
std::atomic<int> g_wakeUpFd{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void wakeUp() {
    const uint64_t one = 1;
    // A full counter wakes the reader as well.
    [[maybe_unused]] const ssize_t written = ::write(g_wakeUpFd.load(), &one, sizeof(one));
}

// Only what a handler may do: it runs on any thread, which may hold any lock. The error number is
// that of the call that it has interrupted.
void exitServiceRoutine(int) {
    const int error = errno;
    exitService.store(true);
    wakeUp();
    errno = error;
}

// Never closed: a handler may still run on some thread while the object is destroyed.
void openWakeUpFd() {
    if (g_wakeUpFd.load() >= 0) return;
    g_wakeUpFd.store(::eventfd(0, EFD_CLOEXEC));
    CR_ASSERT(g_wakeUpFd.load() >= 0, "no descriptor for the exit signal");
}

}  // namespace

// The handler comes last: it needs the descriptor, and the thread that reads it.
ExitSignal::ExitSignal(std::function<void()> onSignal) : m_onSignal(std::move(onSignal)) {
    openWakeUpFd();
    exitService.store(false);
    m_thread = std::thread([this] { watchRoutine(); });
    std::signal(SIGUSR1, exitServiceRoutine);
}

// A signal that comes now would find no thread to notice it: it is ignored, not fatal.
ExitSignal::~ExitSignal() {
    std::signal(SIGUSR1, SIG_IGN);
    {
        MutexLock lock(m_mutex);
        m_stop = true;
    }
    wakeUp();
    m_thread.join();
}

bool ExitSignal::isSet() const { return exitService.load(); }

void ExitSignal::sleepFor(std::chrono::seconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    MutexLock lock(m_mutex);
    while (!m_noticed && m_changed.waitUntil(m_mutex, deadline)) {
    }
}

void ExitSignal::watchRoutine() {
    ThreadUtils::setName("KelmSignal");
    uint64_t count = 0;
    while (::read(g_wakeUpFd.load(), &count, sizeof(count)) > 0 || errno == EINTR) {
        MutexLock lock(m_mutex);
        if (m_stop) return;
        if (!isSet()) continue;
        m_noticed = true;
        m_changed.notifyAll();
        lock.unlock();
        // Without the mutex, as every callback.
        m_onSignal();
    }
}

}  // namespace kelm
