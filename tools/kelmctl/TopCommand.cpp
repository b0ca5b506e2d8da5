#include "tools/kelmctl/TopCommand.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <optional>

#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/SignalQueue.h"
#include "tools/kelmctl/TopFeed.h"
#include "tools/kelmctl/TopScreen.h"
#include "tools/kelmctl/TopView.h"

namespace kelm::ctl {

namespace {

constexpr int kTickMillis = 1000;  // for the clock on the screen

// The loop between the feed, the terminal and the signals.
class Top {
 public:
    int run() {
        while (true) {
            applyNews();
            draw();
            pollfd fds[] = {
                {STDIN_FILENO, POLLIN, 0}, {m_feed.fd(), POLLIN, 0}, {m_signals.fd(), POLLIN, 0}};
            (void)::poll(fds, std::size(fds), kTickMillis);  // a failure is a tick
            if (const auto status = handleSignals()) return *status;
            if (!handleKeys()) return 0;
            // A closed terminal would be readable for ever.
            if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return 128 + SIGHUP;
        }
    }

 private:
    // While paused nothing new is shown, but that the service is lost; what it tells when it is
    // back is taken over at once.
    void applyNews() {
        const TopNews news = m_feed.take();
        const auto now = std::chrono::system_clock::now();
        if (!news.statusWhy.empty()) m_model.setGone(news.statusWhy, now);
        if (!news.snapshotWhy.empty()) m_model.setSnapshotGone(news.snapshotWhy);
        if (m_controls.isPaused() && m_model.service().up) return;
        if (news.snapshot) m_model.setSnapshot(*news.snapshot, now);
        if (news.moves) m_model.setMoves(*news.moves);
        if (news.status) m_model.setStatus(*news.status, now);
    }

    void draw() {
        const TopFrame frame =
            m_view.draw(m_screen.width(), m_screen.height(), std::chrono::system_clock::now());
        m_controls.limitOffsets(frame.mostOffsets);
        m_screen.draw(frame.grid);
    }

    // The status is what a shell gives for a program that was ended by the signal; the interrupt
    // key is the usual way out.
    std::optional<int> handleSignals() {
        while (const int signal = m_signals.next()) {
            if (signal == SIGINT) return 0;
            if (signal != SIGWINCH) return 128 + signal;
            m_screen.resize();
        }
        return {};
    }

    bool handleKeys() {
        for (int key = m_screen.readKey(); key >= 0; key = m_screen.readKey()) {
            if (!m_controls.handleKey(key)) return false;
        }
        return true;
    }

    const SignalQueue m_signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH};
    const bool m_utf8 = useTerminalLocale();
    TopFeed m_feed;      // after the signals are blocked
    TopScreen m_screen;  // given back before the feed stops, which may take three seconds
    TopModel m_model;
    TopControls m_controls;
    const TopView m_view{m_model, m_controls, m_utf8};
};

}  // namespace

int runTop() { return Top().run(); }

}  // namespace kelm::ctl
