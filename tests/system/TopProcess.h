#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fakes/Eventually.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// `kelmctl top` on a terminal of 80 columns and 24 lines.
class TopProcess : public NonCopyable {
 public:
    TopProcess() {
        winsize size{24, 80, 0, 0};
        ::setenv("TERM", "xterm", 1);
        int master = -1;
        m_pid = ::forkpty(&master, nullptr, nullptr, &size);
        if (m_pid == 0) {
            // Begins when the modes of the terminal as it was are known.
            char start = 0;
            if (::read(STDIN_FILENO, &start, 1) == 1) ::execl(KELM_CTL, KELM_CTL, "top", nullptr);
            ::_exit(127);
        }
        m_master.reset(master);
        ::tcgetattr(master, &m_before);
        type("\n");
    }
    ~TopProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    void type(const char* keys) const {
        const auto size = std::strlen(keys);
        EXPECT_EQ(static_cast<size_t>(::write(m_master.get(), keys, size)), size);
    }
    void signal(int number) const { ::kill(m_pid, number); }

    // Whether these words come to the terminal; what came before them is forgotten.
    bool shows(const std::string& words) {
        return eventually([&] {
            readSome(100);
            const size_t at = m_screen.find(words);
            if (at == std::string::npos) return false;
            m_screen.erase(0, at + words.size());
            return true;
        });
    }

    // The exit status, with all that was written until then read; 128 and more for a signal.
    int wait() {
        int status = -1;
        const bool ended = eventually([&] {
            readSome(10);
            return ::waitpid(m_pid, &status, WNOHANG) == m_pid;
        });
        if (!ended) return -1;
        m_pid = -1;
        while (readSome(0)) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    bool hasModesOfBefore() const {
        termios now{};
        ::tcgetattr(m_master.get(), &now);
        return now.c_iflag == m_before.c_iflag && now.c_oflag == m_before.c_oflag &&
               now.c_cflag == m_before.c_cflag && now.c_lflag == m_before.c_lflag;
    }
    // What was written since the last words that were waited for.
    const std::string& rest() const { return m_screen; }

 private:
    bool readSome(int millis) {
        pollfd fd{m_master.get(), POLLIN, 0};
        char bytes[4096];
        if (::poll(&fd, 1, millis) != 1) return false;
        const ssize_t count = ::read(m_master.get(), bytes, sizeof(bytes));
        if (count > 0) m_screen.append(bytes, static_cast<size_t>(count));
        return count > 0;
    }

    pid_t m_pid = -1;
    UniqueFd m_master;
    termios m_before{};
    std::string m_screen;
};

}  // namespace kelm
