#pragma once

#include <sys/signalfd.h>

#include <csignal>
#include <initializer_list>
#include <stdexcept>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// Signals as a descriptor. Made before any thread, so that no thread is interrupted by them;
// children inherit that they are blocked, and get them through a queue of their own.
//
// Threads: one reads. Owns: the descriptor.
class SignalQueue {
 public:
    explicit SignalQueue(std::initializer_list<int> signals) {
        sigset_t set;
        ::sigemptyset(&set);
        for (const int signal : signals) ::sigaddset(&set, signal);
        ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
        m_fd.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!m_fd) throw std::runtime_error("cannot wait for signals");
    }

    int fd() const { return m_fd.get(); }
    // The next one, 0 when none waits.
    int next() const {
        signalfd_siginfo info{};
        const bool got = ::read(m_fd.get(), &info, sizeof(info)) == sizeof(info);
        return got ? static_cast<int>(info.ssi_signo) : 0;
    }

 private:
    UniqueFd m_fd;
};

}  // namespace kelm::ctl
