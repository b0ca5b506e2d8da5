#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/Eventually.h"
#include "fakes/TempDir.h"
#include "utils/UniqueFd.h"

namespace kelm {

// The real service as a child process, on fake devices and with all its paths in a directory of its
// own, so that nothing else on the machine is met.
//
//     ServiceProcess service;               // or ServiceProcess service(R"({"service_settings":
//     ...})"); service.start(); ASSERT_TRUE(service.waitReady()); service.useRunDir(); // from here
//     this process's client library finds it
//     ...
//     service.signal(SIGUSR1);
//     EXPECT_EQ(service.waitExit(), 0);
//
// The destructor kills the child, if it still runs, by its id.
class ServiceProcess {
 public:
    // `overrides` is JSON that is read over the base configuration, key by key.
    explicit ServiceProcess(const std::string& overrides = "") {
        m_dir.write("run/.keep", "");
        m_dir.write("install/config/kelm_service.config", kBaseConfig);
        if (!overrides.empty()) m_dir.write("home/.kelm_service.config", overrides);
    }
    ~ServiceProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    // Starts the program that KELM_TEST_DAEMON names; `environment` is added as NAME=value.
    void start(const std::vector<std::string>& args = {},
               const std::vector<std::string>& environment = {}) {
        const char* program = std::getenv("KELM_TEST_DAEMON");
        if (program == nullptr) throw std::runtime_error("KELM_TEST_DAEMON is not set");
        std::vector<std::string> argvText{program};
        argvText.insert(argvText.end(), args.begin(), args.end());
        std::vector<std::string> envText{"KELM_RUN_DIR=" + runDir(),
                                         "KELM_INSTALL_DIR=" + dir() + "/install",
                                         "HOME=" + dir() + "/home", "PATH=/usr/bin:/bin"};
        for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char* value = std::getenv(name))
                envText.push_back(name + ("=" + std::string(value)));
        }
        envText.insert(envText.end(), environment.begin(), environment.end());
        spawn(pointers(argvText), pointers(envText));
    }

    // True once the ready lock is held, false if the service ended or the time is up.
    bool waitReady(std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
        const bool held =
            eventually([this] { return isHeld("kelm_service_ready.mutex") || hasEnded(); }, limit);
        return held && !hasEnded();
    }

    // The exit status, or nothing if it still runs at the deadline or died by a signal.
    std::optional<int> waitExit(
        std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
        pollfd ended{m_pidFd.get(), POLLIN, 0};
        if (m_pid > 0 && ::poll(&ended, 1, static_cast<int>(limit.count())) == 1) {
            ::waitpid(m_pid, &m_status, 0);
            m_pid = -1;
        }
        return m_pid < 0 && WIFEXITED(m_status) ? std::optional<int>(WEXITSTATUS(m_status))
                                                : std::nullopt;
    }

    void signal(int number) const { ::kill(m_pid, number); }
    int pid() const { return m_pid; }

    // Whether another process holds a lock file of the run directory. Looking takes the lock for a
    // moment, which the alive lock bears only once the service is ready.
    bool isHeld(const std::string& file) const {
        const UniqueFd lock(::open((runDir() + "/" + file).c_str(), O_RDONLY | O_CLOEXEC));
        return lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0;
    }

    // What the service has written to its standard output and error streams so far.
    std::string log() const {
        std::ostringstream text;
        text << std::ifstream(dir() + "/log").rdbuf();
        return text.str();
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
    static constexpr const char* kBaseConfig = R"({
    "fake_device_settings": {
        "enable_fake_device": true,
        "fake_device_number": 2,
        "alloc_graph_latency": 1,
        "load_tensor_latency": 1,
        "get_result_latency": 1,
        "latency_distribution_stddev": 0.0
    },
    "security_settings": { "user_group": "" }
})";

    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (std::string& text : texts) result.push_back(text.data());
        result.push_back(nullptr);
        return result;
    }

    void spawn(const std::vector<char*>& argv, const std::vector<char*>& environment) {
        const UniqueFd output(
            ::open((dir() + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        m_pid = ::fork();
        if (m_pid < 0) throw std::runtime_error("fork failed");
        if (m_pid == 0) {
            ::dup2(output.get(), STDOUT_FILENO);
            ::dup2(output.get(), STDERR_FILENO);
            if (::chdir(dir().c_str()) == 0) ::execve(argv[0], argv.data(), environment.data());
            ::_exit(127);
        }
        m_pidFd.reset(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
    }

    bool hasEnded() const {
        pollfd ended{m_pidFd.get(), POLLIN, 0};
        return ::poll(&ended, 1, 0) == 1;
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    UniqueFd m_pidFd;
    int m_status = 0;
};

}  // namespace kelm
