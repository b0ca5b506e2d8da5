#pragma once

#include <pty.h>
#include <termios.h>
#include <utmp.h>

#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// `kelmctl top` on a terminal of 80 columns and 24 lines.
class TopProcess : public NonCopyable {
 public:
    TopProcess() {
        winsize size{24, 80, 0, 0};
        int ends[2] = {-1, -1};
        ::openpty(&ends[0], &ends[1], nullptr, nullptr, &size);
        m_master.reset(ends[0]);
        m_terminal.reset(ends[1]);
        m_before = modes();
        ::setenv("TERM", "xterm", 1);
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::close(ends[0]);
        if (::login_tty(ends[1]) == 0) ::execl(KELM_CTL, KELM_CTL, "top", nullptr);
        ::_exit(127);
    }
    ~TopProcess() {
        if (m_pid > 0 && ::kill(m_pid, SIGKILL) == 0) ::waitpid(m_pid, nullptr, 0);
    }

    void type(const std::string& keys) const {
        EXPECT_EQ(::write(m_master.get(), keys.data(), keys.size()), std::ssize(keys));
    }
    void terminate() const { ::kill(m_pid, SIGTERM); }

    // Whether these words come to the terminal; what came before them is forgotten.
    bool shows(const std::string& words) {
        return eventually([&] {
            pollfd fd{m_master.get(), POLLIN, 0};
            char bytes[4096];
            const bool has = ::poll(&fd, 1, 100) == 1;
            const ssize_t count = has ? ::read(m_master.get(), bytes, sizeof(bytes)) : 0;
            if (count > 0) m_screen.append(bytes, static_cast<size_t>(count));
            const size_t at = m_screen.find(words);
            if (at == std::string::npos) return false;
            m_screen.erase(0, at + words.size());
            return true;
        });
    }

    // The exit status, -1 if there is none; the child is left to the destructor.
    int wait() const {
        siginfo_t end{};
        const auto id = static_cast<id_t>(m_pid);
        const auto hasEnded = [&] {
            return ::waitid(P_PID, id, &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid != 0;
        };
        return eventually(hasEnded) && end.si_code == CLD_EXITED ? end.si_status : -1;
    }
    bool hasModesOfBefore() const { return modes() == m_before; }

 private:
    std::vector<tcflag_t> modes() const {
        termios now{};
        ::tcgetattr(m_terminal.get(), &now);
        return {now.c_iflag, now.c_oflag, now.c_cflag, now.c_lflag};
    }

    UniqueFd m_master;
    UniqueFd m_terminal;
    std::vector<tcflag_t> m_before;
    pid_t m_pid = -1;
    std::string m_screen;
};

}  // namespace kelm
