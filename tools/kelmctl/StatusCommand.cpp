#include "tools/kelmctl/StatusCommand.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <stdexcept>

#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusJson.h"
#include "tools/kelmctl/StatusSource.h"
#include "tools/kelmctl/StatusTable.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

constexpr double kLeastWatch = 0.1;
constexpr double kMostWatch = 86400.0;
// A service that stands still is one that is down.
constexpr client::Deadline kWatchDeadline{2000};

// No limit for what is read by a program.
size_t terminalColumns() {
    winsize size{};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : SIZE_MAX;
}

std::string format(const client::Result<StatusLook>& look, bool json) {
    static const bool utf8 = useTerminalLocale();
    const auto now = std::chrono::system_clock::now();
    if (look) {
        return json ? statusJson(look.value(), now) + "\n"
                    : statusTable(look.value(), utf8, terminalColumns());
    }
    const std::string& why = look.error().text();
    return json ? downJson(why, now) + "\n" : "NO SERVICE: " + why + "\n";
}

// Flushed each time: a reader behind a pipe waits for whole answers. False when that reader has
// left.
bool print(const std::string& text) {
    std::cout << text << std::flush;
    if (std::cout) return true;
    if (errno == EPIPE) return false;
    throw std::runtime_error("cannot write the status; is the disk full?");
}

int printOnce(const StatusOptions& options, StatusSource& source) {
    const StatusLook look = take(source.look());
    require(source.leave());
    return print(format(look, options.json)) ? 0 : 128 + SIGPIPE;
}

int watch(const StatusOptions& options, StatusSource& source, Interruption& interruption) {
    using Clock = std::chrono::steady_clock;
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*options.watch));
    auto next = Clock::now();
    while (true) {
        const auto look = source.look(kWatchDeadline);
        if (interruption.signal() != 0) break;  // it is what has ended the look
        if (!print(format(look, options.json))) return 128 + SIGPIPE;
        // From one date to the next, so that the time of the look does not add up; dates that have
        // passed meanwhile are left out.
        next = std::max(next + period, Clock::now());
        if (!interruption.sleepUntil(next)) break;
        if (!options.json) std::cout << "\n";
    }
    return 128 + interruption.signal();
}

}  // namespace

int runStatus(const StatusOptions& options) {
    if (options.watch && !(*options.watch >= kLeastWatch && *options.watch <= kMostWatch)) {
        throw UsageError("watch at intervals of 0.1 to 86400 seconds");
    }
    // A reader that leaves, as `head` does, is to end the watch and not the process.
    (void)std::signal(SIGPIPE, SIG_IGN);
    Interruption interruption;
    return interruption.run([&] {
        StatusSource source(interruption);
        return options.watch ? watch(options, source, interruption) : printOnce(options, source);
    });
}

}  // namespace kelm::ctl
