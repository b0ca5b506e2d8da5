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

// Gives the spans of a trace their places. A thread's own track has those that begin and end on
// it, as far as they nest. What ends elsewhere, as a task does, overlaps its likes and is put on a
// lane, on which spans follow one another: so there are as many lanes as things that were under way
// at once, and not as many as there were tasks.
class TraceLayout {
 public:
    // Whether the span ends on the thread that began it.
    static bool staysOnThread(const TraceRow& row);

    // Spans that stay come in the order of their begins, and of two that begin at once the longer
    // one first. The others come nearly in the order of their ends: another order costs lanes.
    TracePlace place(const TraceRow& row);

 private:
    using Thread = std::pair<uint32_t, uint32_t>;  // process, thread

    // The lanes of one category on one thread, by the end of the last span on each.
    struct Lanes {
        std::set<std::pair<uint64_t, uint64_t>> ends;
        uint64_t take(uint64_t start, uint64_t end);
    };

    // Whether the span fits on its thread's track, which then has it.
    bool nest(const TraceRow& row);

    std::map<Thread, std::vector<uint64_t>> m_around;  // ends of the spans around the last one
    std::map<std::tuple<Thread, std::string_view>, Lanes> m_lanes;
};

}  // namespace kelm::ctl
