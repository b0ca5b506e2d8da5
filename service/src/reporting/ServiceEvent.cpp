#include "reporting/ServiceEvent.h"

#include <iterator>

#include "utils/TextHelper.h"

namespace kelm {

namespace {

using std::chrono::duration;

struct ActionRow {
    const char* name;
    EventKind kind;
};
// In the order of the enumeration.
constexpr ActionRow kActions[] = {
    {"loaded", EventKind::Placement},
    {"unloaded", EventKind::Placement},
    {"moved", EventKind::Placement},
    {"kept", EventKind::Placement},
    {"refused", EventKind::Placement},
    {"plugged_in", EventKind::Plug},
    {"plugged_out", EventKind::Plug},
    {"lost", EventKind::Plug},
    {"reset", EventKind::Reset},
    {"throttling_on", EventKind::Throttle},
    {"throttling_off", EventKind::Throttle},
    {"registered", EventKind::Client},
    {"departed", EventKind::Client},
};
static_assert(std::size(kActions) == kEventActions);

constexpr const char* kKinds[] = {"placement", "plug", "reset", "throttle", "client"};
static_assert(std::size(kKinds) == kEventKinds);

constexpr const char* kReasons[] = {"demand", "starving",    "lost_device", "reset",
                                    "cache",  "client_gone", "tag",         "stream"};
static_assert(std::size(kReasons) == kPlacementReasons);

constexpr const char* kLacks[] = {"", "slots", "memory", "quota", "devices"};

constexpr int kTimeDecimals = 3;
constexpr int kMonotonicDecimals = 6;
constexpr int kAskedDecimals = 2;

void addNumber(std::string& line, const char* name, const std::string& number) {
    line += std::string(",\"") + name + "\":" + number;
}

// Names are any bytes: escaped for people first, then for JSON, which leaves two characters to do.
void addText(std::string& line, const char* name, std::string_view text) {
    if (text.empty()) return;
    line += std::string(",\"") + name + "\":\"";
    for (const char character : escapeControls(text)) {
        if (character == '"' || character == '\\') line += '\\';
        line += character;
    }
    line += '"';
}

}  // namespace

EventName makeEventName(std::string_view name) {
    constexpr size_t kMost = 63;
    constexpr size_t kPart = 30;
    if (name.size() <= kMost) return EventName(name);
    return EventName(name.substr(0, kPart), std::string_view("..."),
                     name.substr(name.size() - kPart));
}

EventKind kindOf(EventAction action) { return kActions[static_cast<size_t>(action)].kind; }

bool isMove(EventAction action) {
    return action == EventAction::Loaded || action == EventAction::Unloaded ||
           action == EventAction::Moved;
}

const char* nameOf(EventKind kind) { return kKinds[static_cast<size_t>(kind)]; }
const char* nameOf(EventAction action) { return kActions[static_cast<size_t>(action)].name; }
const char* nameOf(PlacementReason reason) { return kReasons[static_cast<size_t>(reason)]; }

std::string toJsonLine(const ServiceEvent& event) {
    const EventKind kind = kindOf(event.action);
    std::string line = std::string("{\"kind\":\"") + nameOf(kind) + '"';
    addNumber(line, "seq", std::to_string(event.sequence));
    const duration<double> wall = event.wall.time_since_epoch();
    const duration<double> monotonic = event.monotonic.time_since_epoch();
    addNumber(line, "time", formatFixed(wall.count(), kTimeDecimals));
    addNumber(line, "mono", formatFixed(monotonic.count(), kMonotonicDecimals));
    addText(line, "action", nameOf(event.action));
    if (kind == EventKind::Placement) addText(line, "reason", nameOf(event.reason));
    addText(line, "graph", event.graph.view());
    if (event.graphId != 0) addNumber(line, "graph_id", std::to_string(event.graphId));
    addText(line, "device", event.device.view());
    if (event.deviceId) addNumber(line, "device_id", std::to_string(*event.deviceId));
    addText(line, "from", event.from.view());
    addText(line, "client", event.client.view());
    if (event.clientId != 0) addNumber(line, "client_id", std::to_string(event.clientId));
    if (kind == EventKind::Placement) addNumber(line, "places", std::to_string(event.places));
    if (event.asked >= 0.0f) {
        addNumber(line, "asked", formatFixed(static_cast<double>(event.asked), kAskedDecimals));
    }
    addText(line, "lacks", kLacks[static_cast<size_t>(event.lack)]);
    if (event.code != 0) addNumber(line, "code", std::to_string(event.code));
    return line + "}\n";
}

std::string toText(const ServiceEvent& event) {
    std::string text = nameOf(event.action);
    const auto add = [&text](const char* before, const EventName& name) {
        if (!name.view().empty()) text += before + escapeControls(name.view());
    };
    add(" graph=", event.graph);
    if (event.graphId != 0) text += " graphId=" + std::to_string(event.graphId);
    add(" device=", event.device);
    add(" from=", event.from);
    add(" client=", event.client);
    if (event.clientId != 0) text += " clientId=" + std::to_string(event.clientId);
    if (kindOf(event.action) == EventKind::Placement) {
        text += std::string(" reason=") + nameOf(event.reason);
    }
    return text;
}

}  // namespace kelm
