#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "client/EventReader.h"

namespace kelm::ctl {

// The most of the last events that the service gives.
constexpr size_t kAllEvents = 1000;
// For a stream on which nothing may happen for long.
constexpr client::Deadline kAnyTime{std::chrono::hours(24 * 365)};

// A line of the stream of events. What it does not have is 0 or empty; texts may hold any bytes.
struct EventRow {
    std::string kind;
    std::string action;
    std::string reason;
    std::string graph;
    std::string device;
    std::string from;
    std::string client;
    std::string lacks;
    uint64_t sequence = 0;
    uint64_t graphId = 0;
    uint64_t clientId = 0;
    uint64_t gapFrom = 0;  // of a gap: the first and the last number that were lost
    uint64_t gapTo = 0;
    int64_t places = 0;
    int64_t code = 0;
    std::optional<uint64_t> deviceId;
    std::optional<double> asked;
    std::chrono::system_clock::time_point time;
    nlohmann::json json;  // as it came
};

// Throws for a line that is no object of JSON.
EventRow parseEvent(const std::string& line);
// One line for a terminal, with its end.
std::string eventText(const EventRow& row, bool utf8);

// What the service has told at one moment.
struct EventHistory {
    uint64_t next = 0;                      // the number of the first event that the counts lack
    std::map<std::string, uint64_t> moves;  // by reason, since the service's start
    std::vector<EventRow> events;           // in their order
};

// The greeting, and with `count` the last so many events; behind it the reader gives new ones.
// Throws what the service did wrong; the error is that of the connection.
client::Result<EventHistory> readHistory(client::EventReader& reader, size_t count,
                                         client::Deadline deadline = client::kDefaultDeadline);
// The same on a connection of its own.
client::Result<EventHistory> fetchHistory(size_t count,
                                          client::Deadline deadline = client::kDefaultDeadline);

}  // namespace kelm::ctl
