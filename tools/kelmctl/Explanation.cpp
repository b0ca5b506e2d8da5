#include "tools/kelmctl/Explanation.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>

#include "client/Error.h"
#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/MergedStatus.h"
#include "tools/kelmctl/SafeText.h"
#include "utils/TimeHelper.h"

namespace kelm::ctl {

namespace {

using Json = nlohmann::json;

constexpr int kExplanationSchema = 1;
// A smaller part of a device is nobody's wish.
constexpr double kSlack = 0.1;

struct Words {
    std::string_view name;
    const char* text;
};

// Behind "because".
constexpr Words kReasons[] = {
    {"demand", "devices follow the load that is measured"},
    {"starving", "tasks, or its creator, waited for it without a device"},
    {"lost_device", "its device was lost or unplugged"},
    {"reset", "its device was reset"},
    {"cache", "there was demand, and that device still held it"},
    {"client_gone", "no client uses it any more"},
    {"tag", "devices are set aside for its tag"},
    {"stream", "a device is set aside for its stream"},
};

constexpr Words kLacks[] = {
    {"slots",
     "every place on a device is taken: it takes one more device, fewer graphs, or a higher "
     "scheduler_config.max_graph_per_device (2 at most)"},
    {"memory",
     "no device has as much memory as the graph needs: it takes larger devices, or a "
     "smaller graph"},
    {"quota",
     "what is set aside is taken: it takes a higher number in "
     "scheduler_config.graph_tag_map for its tag, or in "
     "scheduler_config.stream_device_number for streams"},
    {"devices", "no device of its kind works: plug one in; kelmctl doctor tells more"},
};

const char* wordsOf(std::span<const Words> rows, std::string_view name) {
    const auto row = std::ranges::find(rows, name, &Words::name);
    return row != rows.end() ? row->text : nullptr;
}

std::string counted(uint64_t number, const std::string& what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

bool fits(const client::GraphSnapshot& graph, const std::string& wanted) {
    return std::to_string(graph.id) == wanted || graph.name == wanted ||
           graph.name.ends_with("/" + wanted);
}

const client::GraphSnapshot& findGraph(const client::Snapshot& snapshot,
                                       const std::string& wanted) {
    const client::GraphSnapshot* found = nullptr;
    for (const client::GraphSnapshot& graph : snapshot.graphs) {
        if (!fits(graph, wanted)) continue;
        if (found != nullptr) {
            throw std::runtime_error(
                fmt::format("several graphs are named {}; give the id of one, as {} or {}, see "
                            "kelmctl status --json",
                            wanted, found->id, graph.id));
        }
        found = &graph;
    }
    if (found == nullptr) {
        throw std::runtime_error(
            "the service has no graph " + wanted +
            "; kelmctl status lists them, kelmctl events those that have left");
    }
    return *found;
}

std::vector<Explanation::Place> findPlaces(const StatusLook& look, const std::string& graph) {
    std::vector<Explanation::Place> places;
    for (const auto& [device, more] : MergedStatus(look.status, &*look.snapshot).devices) {
        if (more == nullptr) continue;
        for (const client::CurrentGraph& current : more->current) {
            if (current.name == graph) places.push_back({device->name, current.loadTime});
        }
    }
    return places;
}

// On "Fake0 (since 21:30:05) and Fake1 (...)".
std::string tellWhere(const Explanation& graph) {
    if (graph.got == 0) return "It is on no device.";
    if (graph.places.empty()) return "It is on " + counted(graph.got, "device") + ".";
    std::string text;
    for (size_t i = 0; i < graph.places.size(); ++i) {
        if (i > 0) text += i + 1 == graph.places.size() ? " and " : ", ";
        text += graph.places[i].device + " (since " + graph.places[i].since + ")";
    }
    return "It is on " + text + ".";
}

std::string tellDemand(const Explanation& graph) {
    if (!graph.asked) return "";
    return fmt::format("It asked for {:.1f} devices when that was last told, and has {}.",
                       *graph.asked, graph.got);
}

std::string whatCameOf(const EventRow& event) {
    if (event.action == "loaded") return "loaded it onto " + event.device;
    if (event.action == "unloaded") return "took it off " + event.device;
    if (event.action == "moved") return "moved it from " + event.from + " to " + event.device;
    if (event.action == "kept") return "left it where it is, though it asks for more";
    return event.device.empty() ? "gave it no device" : "could not load it onto " + event.device;
}

std::string tellWhy(const Explanation& graph, const std::string& scheduler) {
    if (graph.moves.empty()) return "Of its moves the service has kept none.";
    const EventRow& last = graph.moves.back();
    const bool isReserved = last.reason == "tag" || last.reason == "stream";
    const std::string who = isReserved          ? "The scheduler of devices that are set aside"
                            : scheduler.empty() ? "The scheduler"
                                                : "The scheduler " + scheduler;
    std::string text =
        fmt::format("{} {} at {}", who, whatCameOf(last), formatTimeMilli(last.time));
    if (last.code != 0) {
        const auto code = static_cast<int32_t>(last.code);
        return text + ": " +
               client::Error::fromStatus(code, client::CallKind::kCreateGraph).text() + ".";
    }
    // What it lacks is told below; the reason is then that of the others.
    const char* const reason = wordsOf(kReasons, last.reason);
    const bool isOfIt = last.action != "refused" && last.action != "kept" && reason != nullptr;
    return text + (isOfIt ? std::string(", because ") + reason : std::string()) + ".";
}

std::string tellWait(const Explanation& graph) {
    if (graph.got == 0) {
        return graph.waiting == 0
                   ? "It has no tasks, and gets a device when one is free."
                   : "It waits for a device, and with it " + counted(graph.waiting, "task") + ".";
    }
    if (graph.waiting == 0) return "";
    return counted(graph.waiting, "task") + " of it wait" + (graph.waiting == 1 ? "s" : "") +
           " for " + (graph.got == 1 ? "its device." : "one of its devices.");
}

std::vector<std::string> tellChange(const Explanation& graph) {
    std::vector<std::string> would;
    const bool isRefused = !graph.moves.empty() && graph.moves.back().action == "refused";
    const char* const lack = isRefused ? wordsOf(kLacks, graph.moves.back().lacks) : nullptr;
    if (graph.got == 0 && lack != nullptr) would.push_back(lack);
    const bool asksForMore = graph.asked && *graph.asked > graph.got + kSlack;
    if (graph.got > 0 && (asksForMore || graph.waiting > 0)) {
        would.push_back(
            "more devices, or less load of the other graphs, would give it more places");
    }
    return would;
}

}  // namespace

Explanation explain(const StatusLook& look, const EventHistory& history, const std::string& graph) {
    if (!look.snapshot) throw std::runtime_error(look.snapshotWhy);
    const client::GraphSnapshot& found = findGraph(*look.snapshot, graph);
    Explanation result;
    result.id = found.id;
    result.name = found.name;
    result.got = found.runningDevices;
    result.waiting = found.waitingTasks;
    result.places = findPlaces(look, found.name);
    for (const EventRow& event : history.events) {
        if (event.kind != "placement" || event.graphId != found.id) continue;
        if (event.asked) result.asked = event.asked;
        result.moves.push_back(event);
    }
    result.where = tellWhere(result);
    result.demand = tellDemand(result);
    result.why = tellWhy(result, look.status.deviceScheduler);
    result.waitsFor = tellWait(result);
    result.wouldChange = tellChange(result);
    return result;
}

std::string explanationText(const Explanation& graph, bool utf8) {
    std::string text;
    const auto add = [&](const std::string& line) {
        if (!line.empty()) text += toUtf8(safeText(line, utf8)) + "\n";
    };
    add(fmt::format("graph {} (id {})", graph.name, graph.id));
    for (const std::string& line : {graph.where, graph.demand, graph.why, graph.waitsFor})
        add(line);
    for (const std::string& line : graph.wouldChange) add("What would change it: " + line + ".");
    return text;
}

std::string explanationJson(const Explanation& graph) {
    Json places = Json::array();
    for (const auto& [device, since] : graph.places) {
        places.push_back({{"device", device}, {"since", since}});
    }
    const Json json = {{"schema", kExplanationSchema},
                       {"id", graph.id},
                       {"graph", graph.name},
                       {"places", places},
                       {"got", graph.got},
                       {"asked", graph.asked ? Json(*graph.asked) : Json()},
                       {"waiting", graph.waiting},
                       {"last", graph.moves.empty() ? Json() : graph.moves.back().json},
                       {"where", graph.where},
                       {"why", graph.why},
                       {"waits_for", graph.waitsFor.empty() ? Json() : Json(graph.waitsFor)},
                       {"would_change", graph.wouldChange}};
    return toJsonText(json) + "\n";
}

}  // namespace kelm::ctl
