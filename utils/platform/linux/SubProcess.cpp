#include "utils/platform/linux/SubProcess.h"

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <thread>

#include "utils/Log.h"
#include "utils/Mutex.h"

namespace kelm {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr const char* kRecover = "--recover";
constexpr const char* kStartFailed = "Failed to start subprocess";
constexpr Milliseconds kShortLife{1000};
constexpr Milliseconds kFirstPause{100};
constexpr Milliseconds kLongestPause{10000};

// A child that dies at once must not be started in a circle.
Milliseconds nextPause(Milliseconds pause, Clock::duration life) {
    if (life >= kShortLife) return Milliseconds::zero();
    return std::clamp(pause * 2, kFirstPause, kLongestPause);
}

// Only calls that are safe between fork and exec, where other threads may have left any lock held.
[[noreturn]] void runChild(char* const* argv, std::string_view message) {
    ::execv(argv[0], argv);
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, message.data(), message.size());
    ::_exit(1);
}

// Waits for the end of a child and leaves it to be reaped, so that its id cannot be reused yet.
bool waitForEnd(int pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0;
}

}  // namespace

struct SubProcess::State {
    bool execute() REQUIRES(m_mutex);
    bool poll() const REQUIRES(m_mutex);
    // Waits, without the mutex, for the end of the child and reaps it. False if there is none.
    bool waitForChild() REQUIRES(m_mutex);
    // Waits while the supervising is on.
    void pause(Milliseconds time) REQUIRES(m_mutex);

    Mutex m_mutex;
    CondVar m_changed;
    int m_pid GUARDED_BY(m_mutex) = -1;
    bool m_executeFlag GUARDED_BY(m_mutex) = true;  // as last given to execute()
    bool m_daemon GUARDED_BY(m_mutex) = false;      // the supervising is on
    bool m_watched GUARDED_BY(m_mutex) = false;     // its thread has not ended
    std::vector<std::string> m_arguments GUARDED_BY(m_mutex);
};

// All memory is made before the fork: the child may not allocate.
bool SubProcess::State::execute() {
    if (m_arguments.empty()) {
        LOG_ERROR("create Daemon failed with empty argument vector");
        return false;
    }
    std::vector<char*> argv;
    for (std::string& argument : m_arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::string message(kStartFailed);
    message += '\n';
    const pid_t pid = ::fork();
    if (pid == 0) runChild(argv.data(), message);
    m_pid = pid;
    if (pid < 0) LOG_ERROR(kStartFailed);
    return pid > 0;
}

// Any answer but "no such process" means that there is one, also one that may not be signalled.
bool SubProcess::State::poll() const {
    return m_pid > 0 && (::kill(m_pid, 0) == 0 || errno != ESRCH);
}

bool SubProcess::State::waitForChild() {
    const int child = m_pid;
    if (child < 0) return true;  // it could not be started
    m_mutex.unlock();
    const bool ended = waitForEnd(child);
    const int error = errno;
    m_mutex.lock();
    if (!ended) {
        LOG_ERROR("Failed to check subprocess status");
        return error != ECHILD;
    }
    // Under the mutex: until the child is reaped its id means this child, and terminate() signals
    // no other process.
    ::waitpid(child, nullptr, 0);
    if (m_pid == child) m_pid = -1;
    return true;
}

void SubProcess::State::pause(Milliseconds time) {
    const auto deadline = Clock::now() + time;
    while (m_daemon && m_changed.waitUntil(m_mutex, deadline)) {
    }
}

SubProcess::SubProcess(std::vector<std::string> args) : m_state(std::make_shared<State>()) {
    MutexLock lock(m_state->m_mutex);
    m_state->m_arguments = std::move(args);
}

// In this order, so that no new child is started for the one that is ended here.
SubProcess::~SubProcess() {
    enableDaemon(false);
    terminate();
}

bool SubProcess::execute(bool flag) {
    MutexLock lock(m_state->m_mutex);
    m_state->m_executeFlag = flag;
    return m_state->execute();
}

bool SubProcess::poll() {
    MutexLock lock(m_state->m_mutex);
    return m_state->poll();
}

bool SubProcess::enableDaemon(bool on) {
    MutexLock lock(m_state->m_mutex);
    if (m_state->m_daemon == on) return true;
    if (on && !m_state->poll()) return false;
    m_state->m_daemon = on;
    m_state->m_changed.notifyAll();
    // The thread of an earlier supervision may still wait for the child; it then serves this one.
    if (on && !m_state->m_watched) {
        m_state->m_watched = true;
        std::thread([state = m_state] { mointorRoutine(state); }).detach();
    }
    return true;
}

// Not waited for: the supervising thread reaps it, or the system when this process ends.
void SubProcess::terminate() {
    MutexLock lock(m_state->m_mutex);
    if (!m_state->poll()) {
        LOG_DEBUG("Poll Failed.\n");
        return;
    }
    ::kill(m_state->m_pid, SIGTERM);
    m_state->m_pid = -1;
}

// Forgets the id, so that the destructor ends no child.
void SubProcess::abandon() {
    enableDaemon(false);
    MutexLock lock(m_state->m_mutex);
    m_state->m_pid = -1;
}

void SubProcess::mointorRoutine(const std::shared_ptr<State>& state) {
    // What the service opens later stays out of this thread's table and so out of new children.
    ::unshare(CLONE_FILES);
    Milliseconds pause{0};
    auto started = Clock::now();
    MutexLock lock(state->m_mutex);
    while (state->m_daemon && state->waitForChild()) {
        if (state->m_pid > 0) continue;  // another child took its place, or the wait failed
        auto& arguments = state->m_arguments;
        if (std::ranges::find(arguments, kRecover) == arguments.end())
            arguments.push_back(kRecover);
        pause = nextPause(pause, Clock::now() - started);
        state->pause(pause);
        if (!state->m_daemon) break;
        started = Clock::now();
        state->execute();
    }
    state->m_watched = false;
    LOG_DEBUG("Exit the mointor thread");
}

}  // namespace kelm
