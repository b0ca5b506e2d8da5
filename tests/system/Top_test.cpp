#include <pty.h>

#include "system/SystemFixture.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;

// `kelmctl top` on a terminal of 80 columns and 24 lines.
class TopProcess {
 public:
    TopProcess() {
        winsize size{24, 80, 0, 0};
        const char* const program = std::getenv("KELM_TEST_CTL");
        ::setenv("TERM", "xterm", 1);
        int master = -1;
        m_pid = ::forkpty(&master, nullptr, nullptr, &size);
        if (m_pid == 0) {
            // Begins when the modes of the terminal as it was are known.
            char go = 0;
            if (::read(STDIN_FILENO, &go, 1) == 1) ::execl(program, program, "top", nullptr);
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
    TopProcess(const TopProcess&) = delete;
    TopProcess& operator=(const TopProcess&) = delete;

    void type(const char* keys) const {
        EXPECT_EQ(::write(m_master.get(), keys, std::strlen(keys)),
                  static_cast<ssize_t>(std::strlen(keys)));
    }
    void signal(int number) const { ::kill(m_pid, number); }

    // Until these words have gone to the terminal; what has gone before them is forgotten.
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

using TopTest = SystemFixture;

TEST_F(TopTest, TerminalIsLeftInAnotherState) {
    start(0);
    service().useRunDir();
    const struct {
        const char* what;
        void (*end)(const TopProcess& top);
        int status;
    } rows[] = {
        {"key", [](const TopProcess& top) { top.type("q"); }, 0},
        {"interrupt key", [](const TopProcess& top) { top.type("\x03"); }, 0},
        {"SIGTERM", [](const TopProcess& top) { top.signal(SIGTERM); }, 128 + SIGTERM},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TopProcess top;
        EXPECT_TRUE(top.shows("Fake2"));
        EXPECT_FALSE(top.hasModesOfBefore());
        row.end(top);
        EXPECT_EQ(top.wait(), row.status);
        EXPECT_TRUE(top.hasModesOfBefore());
        EXPECT_THAT(top.rest(), HasSubstr("\x1b[?1049l"));  // the screen of before
    }
}

TEST_F(TopTest, ServiceThatEndsTakesTopWithIt) {
    start(0);
    service().useRunDir();
    TopProcess top;
    EXPECT_TRUE(top.shows("Fake2"));
    endService();
    EXPECT_TRUE(top.shows("NO SERVICE"));
    service().start();
    EXPECT_TRUE(service().waitReady());
    EXPECT_TRUE(top.shows("back since"));
    top.type("q");
    EXPECT_EQ(top.wait(), 0);
}

}  // namespace
}  // namespace kelm
