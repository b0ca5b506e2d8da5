#include "tools/kelmctl/EventHistory.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "tools/kelmctl/SafeText.h"
#include "utils/TimeHelper.h"

namespace kelm::ctl {

namespace {

using Json = nlohmann::json;

constexpr int kJournalSchema = 1;
constexpr double kLatestTime = 4e9;  // seconds; later ones are nonsense

// A member of another type than expected counts as absent.
template <class Value>
void take(const Json& json, const char* name, Value& value) {
    const auto member = json.find(name);
    if (member == json.end()) return;
    if constexpr (std::is_same_v<Value, std::string>) {
        if (member->is_string()) value = member->get<std::string>();
    } else if (std::is_floating_point_v<Value> ? member->is_number()
                                               : member->is_number_integer()) {
        value = member->get<Value>();
    }
}

std::string describe(const EventRow& row) {
    const auto id = [](uint64_t number) { return number != 0 ? fmt::format(" ({})", number) : ""; };
    std::string text;
    if (row.graphId != 0) text += row.graph + id(row.graphId);
    if (!row.from.empty()) text += " from " + row.from;
    if (!row.device.empty()) {
        const char* before = row.action == "unloaded" ? " from " : " on ";
        if (!row.from.empty()) before = " to ";
        text += (row.graphId != 0 ? before : "") + row.device;
    }
    if (row.action == "reset" && row.device.empty()) text += "all devices";
    if (row.clientId != 0) {
        text += (text.empty() ? "" : " by client ") + row.client + id(row.clientId);
    }
    if (!row.reason.empty()) text += ": " + row.reason;
    if (row.asked) text += fmt::format(", asks for {:.1f}, has {}", *row.asked, row.places);
    if (!row.lacks.empty()) text += ", lacks " + row.lacks;
    if (row.code != 0) text += fmt::format(", error {}", row.code);
    return text;
}

}  // namespace

bool EventRow::isMove() const {
    return kind == "placement" && (action == "loaded" || action == "unloaded" || action == "moved");
}

EventRow parseEvent(const std::string& line) {
    EventRow row;
    row.json = Json::parse(line, nullptr, false);
    if (!row.json.is_object()) throw std::runtime_error("the service sent an event that is none");
    take(row.json, "kind", row.kind);
    take(row.json, "action", row.action);
    take(row.json, "reason", row.reason);
    take(row.json, "graph", row.graph);
    take(row.json, "device", row.device);
    take(row.json, "client", row.client);
    take(row.json, "lacks", row.lacks);
    take(row.json, "seq", row.sequence);
    take(row.json, "graph_id", row.graphId);
    take(row.json, "client_id", row.clientId);
    take(row.json, "places", row.places);
    take(row.json, "code", row.code);
    take(row.json, "from", row.from);
    take(row.json, "from", row.gapFrom);
    take(row.json, "to", row.gapTo);
    double asked = -1.0;
    take(row.json, "asked", asked);
    if (asked >= 0.0) row.asked = asked;
    double seconds = 0.0;
    take(row.json, "time", seconds);
    const std::chrono::duration<double> time(std::clamp(seconds, 0.0, kLatestTime));
    row.time =
        std::chrono::system_clock::time_point(std::chrono::round<std::chrono::milliseconds>(time));
    return row;
}

std::string eventText(const EventRow& row, bool utf8) {
    const std::string text = row.kind == "gap"
                                 ? fmt::format("events {} to {} were lost", row.gapFrom, row.gapTo)
                                 : fmt::format("{}  {:>6}  {:<14} {}", formatTimeMilli(row.time),
                                               row.sequence, row.action, describe(row));
    return toUtf8(safeText(text, utf8)) + "\n";
}

// New events may come between the greeting and the old ones.
client::Result<EventHistory> readHistory(client::EventReader& reader, size_t count,
                                         client::Deadline deadline) {
    EventHistory history;
    const auto greeting = reader.read(deadline);
    if (!greeting) return greeting.error();
    const EventRow row = parseEvent(greeting.value());
    int schema = 0;
    take(row.json, "schema", schema);
    if (row.kind != "greeting" || schema != kJournalSchema) {
        throw std::runtime_error("the service's events are of another version than kelmctl");
    }
    take(row.json, "next", history.next);
    const auto moves = row.json.find("moves");
    if (moves != row.json.end() && moves->is_object()) {
        for (const auto& [reason, number] : moves->items())
            take(*moves, reason.c_str(), history.moves[reason]);
    }
    if (count == 0) return history;
    if (client::Error error = reader.requestLast(count)) return error;
    while (true) {
        const auto line = reader.read(deadline);
        if (!line) return line.error();
        EventRow event = parseEvent(line.value());
        if (event.kind == "live") break;
        history.events.push_back(std::move(event));
    }
    std::ranges::stable_sort(history.events, {}, [](const EventRow& event) {
        return event.kind == "gap" ? event.gapFrom : event.sequence;
    });
    return history;
}

client::Result<EventHistory> fetchHistory(size_t count, client::Deadline deadline) {
    const auto reader = client::EventReader::connect({}, deadline);
    if (!reader) return reader.error();
    return readHistory(*reader.value(), count, deadline);
}

}  // namespace kelm::ctl
