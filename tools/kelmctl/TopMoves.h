#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace kelm::ctl {

struct EventHistory;
struct EventRow;

// The placements of graphs, as the events socket tells them.
struct TopMoves {
    struct Row {
        uint64_t sequence = 0;
        std::string what;   // time, action and graph
        std::string where;  // devices and reason
    };

    static constexpr size_t kMostRows = 200;

    void begin(const EventHistory& history);
    void add(const EventRow& event);  // one of another kind is passed over

    uint64_t total = 0;    // graphs loaded, unloaded or moved since the service's start
    std::deque<Row> rows;  // the newest at the end
};

}  // namespace kelm::ctl
