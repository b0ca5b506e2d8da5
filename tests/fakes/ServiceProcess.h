#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/Eventually.h"
#include "tests/fakes/ServiceConfig.h"
#include "tests/fakes/TempDir.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// The real service as a child process, on fake devices and with all its paths in a directory of its
// own, so that nothing else on the machine is met.
// Its output is a terminal of its own, so that every line can be seen at once. The destructor
// kills the child, if it still runs, by its id.
class ServiceProcess : public NonCopyable {
 public:
    // `overrides` is JSON that is read over the base configuration, key by key.
    explicit ServiceProcess(const std::string& overrides = "") {
        m_dir.write("run/.keep", "");
        m_dir.write("install/config/kelm_service.config", ServiceConfig::kBase);
        if (!overrides.empty()) m_dir.write("home/.kelm_service.config", overrides);
    }
    ~ServiceProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_reader.joinable()) m_reader.join();
    }

    // `environment`, as NAME=value, counts more than what is set here.
    void start(const std::vector<std::string>& args = {},
               const std::vector<std::string>& environment = {},
               const std::string& program = KELM_DAEMON) {
        std::vector<std::string> argvText{program};
        argvText.insert(argvText.end(), args.begin(), args.end());
        std::vector<std::string> envText = environment;  // the first of a name counts
        envText.insert(envText.end(),
                       {"KELM_RUN_DIR=" + runDir(), "KELM_INSTALL_DIR=" + dir() + "/install",
                        "HOME=" + dir() + "/home", "PATH=/usr/bin:/bin"});
        for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char* value = std::getenv(name)) {
                envText.push_back(std::string(name) + "=" + value);
            }
        }
        spawn(pointers(argvText), pointers(envText));
    }

    // True once the ready lock is held, false if the service ended or the time is up.
    bool waitReady() const {
        return eventually([this] { return isHeld("kelm_service_ready.mutex") || hasEnded(); }) &&
               !hasEnded();
    }

    // The exit status, or nothing if it still runs at the deadline or died by a signal.
    std::optional<int> waitExit(
        std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
        if (m_pid > 0 && hasEnded(limit)) {
            ::waitpid(m_pid, &m_status, 0);
            m_pid = -1;
            m_reader.join();
        }
        return m_pid < 0 && WIFEXITED(m_status) ? std::optional<int>(WEXITSTATUS(m_status))
                                                : std::nullopt;
    }

    void signal(int number) const { ::kill(m_pid, number); }
    bool isRunning() const { return m_pid > 0; }
    int pid() const { return m_pid; }
    // Whether it ends in time and well when it is told to.
    bool stop(std::chrono::milliseconds limit) {
        signal(SIGUSR1);
        return waitExit(limit) == 0;
    }

    // Whether another process holds a lock file of the run directory. Looking takes the lock for a
    // moment, which the alive lock bears only once the service is ready.
    bool isHeld(const std::string& file) const {
        const UniqueFd lock(::open((runDir() + "/" + file).c_str(), O_RDONLY | O_CLOEXEC));
        return lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0;
    }

    // What the service has written to its standard output and error streams so far.
    std::string log() const {
        MutexLock lock(m_mutex);
        return m_log;
    }
    bool waitLog(const std::string& words) const {
        return eventually([&] { return log().find(words) != std::string::npos; });
    }

    const std::string& dir() const { return m_dir.path(); }
    std::string runDir() const { return dir() + "/run"; }
    std::string socketPath() const { return runDir() + "/kelm_service.sock"; }
    // Makes this process look for the service here.
    void useRunDir() const { ::setenv("KELM_RUN_DIR", runDir().c_str(), 1); }
    const TempDir& files() const { return m_dir; }

 private:
    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (std::string& text : texts) result.push_back(text.data());
        result.push_back(nullptr);
        return result;
    }

    void spawn(const std::vector<char*>& argv, const std::vector<char*>& environment) {
        int ends[2] = {-1, -1};
        termios plain{};
        ::cfmakeraw(&plain);
        ::openpty(&ends[0], &ends[1], nullptr, &plain, nullptr);
        UniqueFd master(ends[0]);
        const UniqueFd terminal(ends[1]);
        for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
        m_pid = ::fork();
        if (m_pid < 0) throw std::runtime_error("fork failed");
        if (m_pid == 0) {
            ::dup2(terminal.get(), STDOUT_FILENO);
            ::dup2(terminal.get(), STDERR_FILENO);
            if (::chdir(dir().c_str()) == 0) ::execve(argv[0], argv.data(), environment.data());
            ::_exit(127);
        }
        m_pidFd.reset(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
        m_reader = std::thread([this, fd = std::move(master)] { readLog(fd.get()); });
    }

    // Until the child has closed its end.
    void readLog(int fd) {
        char bytes[4096];
        for (ssize_t count = 0; (count = ::read(fd, bytes, sizeof(bytes))) > 0;) {
            MutexLock lock(m_mutex);
            m_log.append(bytes, static_cast<size_t>(count));
        }
    }

    bool hasEnded(std::chrono::milliseconds limit = {}) const {
        pollfd ended{m_pidFd.get(), POLLIN, 0};
        return ::poll(&ended, 1, static_cast<int>(limit.count())) == 1;
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    UniqueFd m_pidFd;
    int m_status = 0;
    mutable Mutex m_mutex;
    std::string m_log GUARDED_BY(m_mutex);
    std::thread m_reader;
};

}  // namespace kelm
