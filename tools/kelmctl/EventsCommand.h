#pragma once

#include <chrono>
#include <string>

namespace kelm::ctl {

struct EventsOptions {
    bool follow = false;
    bool json = false;  // one object a line
    std::string since;  // a number, an age or a time; empty: all that the service has kept
};

// Where events are to begin.
struct EventStart {
    uint64_t sequence = 0;
    std::chrono::system_clock::time_point time;
};
// "17", "10m" (s, m, h, d), "21:30", "21:30:05", "2026-11-22T21:30". Throws a UsageError for
// others.
EventStart parseSince(const std::string& text, std::chrono::system_clock::time_point now);

// Prints what has happened to graphs, devices and clients; with `follow` also what happens from
// then on, until the stream ends, which is a failure, or a signal comes.
int runEvents(const EventsOptions& options);

}  // namespace kelm::ctl
