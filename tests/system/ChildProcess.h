#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "utils/UniqueFd.h"

namespace kelm {

// A value that this process and its forked children see. T is made of lock-free atomics.
template <class T>
class SharedMemory {
 public:
    SharedMemory() {
        void* memory =
            ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
        m_value = new (memory) T;
    }
    ~SharedMemory() { ::munmap(m_value, sizeof(T)); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    T* operator->() const { return m_value; }
    T& operator*() const { return *m_value; }

 private:
    T* m_value;
};

// A forked child that runs a function and hands its text back. It starts no threads and dies with
// the test.
class ChildProcess {
 public:
    explicit ChildProcess(const std::function<std::string()>& body) {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        m_text.reset(ends[0]);
        UniqueFd writeEnd(ends[1]);
        m_pid = ::fork();
        if (m_pid < 0) throw std::runtime_error("fork failed");
        if (m_pid == 0) runChild(body, writeEnd.get());
    }
    ChildProcess(ChildProcess&& other) noexcept
        : m_pid(std::exchange(other.m_pid, -1)), m_text(std::move(other.m_text)) {}
    ChildProcess& operator=(ChildProcess&&) = delete;
    ~ChildProcess() { kill(); }

    // Waits for the end of the child; returns what its function has returned.
    std::string wait() {
        std::string text;
        char bytes[512];
        for (ssize_t count = 0; (count = ::read(m_text.get(), bytes, sizeof(bytes))) > 0;) {
            text.append(bytes, static_cast<size_t>(count));
        }
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        const bool ended = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        return ended ? text : "the process died: " + text;
    }

    void kill() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(std::exchange(m_pid, -1), nullptr, 0);
    }

 private:
    [[noreturn]] static void runChild(const std::function<std::string()>& body, int textFd) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::string text;
        try {
            text = body();
        } catch (const std::exception& error) {
            text = error.what();
        }
        const bool written = ::write(textFd, text.data(), text.size()) >= 0;
        ::_exit(written ? 0 : 1);
    }

    pid_t m_pid = -1;
    UniqueFd m_text;
};

}  // namespace kelm
