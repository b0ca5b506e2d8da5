#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/kelmctl/EventHistory.h"
#include "tools/kelmctl/StatusSource.h"

namespace kelm::ctl {

// Why a graph is where it is. Names may hold any bytes, in sentences too.
struct Explanation {
    struct Place {
        std::string device;
        std::string since;  // HH:MM:SS
    };

    uint64_t id = 0;
    std::string name;
    std::vector<Place> places;
    uint32_t got = 0;             // devices, also those that the service has no row for
    std::optional<double> asked;  // devices, when that was last told
    uint64_t waiting = 0;         // tasks that no device has yet
    std::vector<EventRow> moves;  // its placements, the last one at the end

    std::string where;     // sentences, as all below
    std::string demand;    // what it asked for and got; empty: nothing is known
    std::string why;       // who moved it last, and why
    std::string waitsFor;  // empty: for nothing
    std::vector<std::string> wouldChange;
};

// `graph` is an id, a name, or the end of a path. Throws where none or several fit, and without a
// snapshot, which alone has ids.
Explanation explain(const StatusLook& look, const EventHistory& history, const std::string& graph);

std::string explanationText(const Explanation& explanation, bool utf8);
std::string explanationJson(const Explanation& explanation);

}  // namespace kelm::ctl
