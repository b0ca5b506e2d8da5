#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/kelmctl/TraceRow.h"

namespace kelm::ctl {

// How a span is drawn.
struct TracePlace {
    std::string_view category;
    bool nested;    // on its thread's own track, inside what surrounds it
    uint64_t lane;  // otherwise one of the thread's lanes of that category, free at that time
};

// Gives the spans of a trace their places. On a thread's own track go those that begin and end on
// it, and only while they nest. What ends elsewhere, as a task does, overlaps its likes and goes to
// a lane, on which spans follow one another: so there are as many lanes as things that were under
// way at once, and not as many as there were tasks.
//
// The spans come in the order of their ends, nearly: another order costs lanes and nothing else.
class TraceLayout {
 public:
    TracePlace place(const TraceRow& row);

 private:
    using Thread = std::pair<uint32_t, uint32_t>;  // process, thread
    using Span = std::pair<uint64_t, uint64_t>;

    // The lanes of one category on one thread, by the end of the last span on each.
    struct Lanes {
        std::set<std::pair<uint64_t, uint64_t>> ends;
        uint64_t take(uint64_t start, uint64_t end);
    };

    // Whether the span fits on its thread's track; then it is entered.
    bool nest(const TraceRow& row);

    std::map<Thread, std::vector<Span>> m_nested;  // those not inside another, in order
    std::map<std::tuple<Thread, std::string_view>, Lanes> m_lanes;
};

}  // namespace kelm::ctl
