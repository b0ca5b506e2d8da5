#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "reporting/PlacementReason.h"
#include "utils/FixedText.h"

namespace kelm {

// Kinds are kept apart, so that many of one do not push out those of another.
enum class EventKind : uint8_t { Placement, Plug, Reset, Throttle, Client };
constexpr size_t kEventKinds = 5;

enum class EventAction : uint8_t {
    Loaded,    // a graph, onto a device
    Unloaded,  // from one
    Moved,     // from one to another
    Kept,      // it asks for more, and nothing changes
    Refused,   // it asks for a place, and gets none
    PluggedIn,
    PluggedOut,
    Lost,  // a device has failed for good
    Reset,
    ThrottlingOn,
    ThrottlingOff,
    Registered,
    Departed,
};
constexpr size_t kEventActions = 13;

// A name of a device, graph or client, any bytes; the middle of a long one is left out.
using EventName = FixedText<63>;
EventName makeEventName(std::string_view name);

// Something that happened in the service, as plain data: one costs no allocation, and is put
// together under no lock. What an event does not have is 0 or empty.
struct ServiceEvent {
    uint64_t sequence = 0;  // from 1 on, without holes; this and the times are the journal's to set
    std::chrono::system_clock::time_point wall{};
    std::chrono::steady_clock::time_point monotonic{};
    EventAction action = EventAction::Loaded;
    PlacementReason reason = PlacementReason::Demand;  // of a placement only
    PlacementLack lack = PlacementLack::Nothing;       // of a refusal only
    int32_t code = 0;                                  // KelmError of a refusal
    float asked = -1.0f;                               // devices; below 0: not known
    int32_t places = 0;                                // devices that run the graph after it
    uint64_t graphId = 0;
    uint64_t clientId = 0;
    std::optional<uint32_t> deviceId{};
    EventName graph{};
    EventName device{};
    EventName from{};  // the device that a moved graph has left
    EventName client{};
};

EventKind kindOf(EventAction action);
// Whether a graph has come to a device or left one.
bool isMove(EventAction action);
const char* nameOf(EventKind kind);
const char* nameOf(EventAction action);
const char* nameOf(PlacementReason reason);

// A line of JSON with its end, valid UTF-8 without control characters.
std::string toJsonLine(const ServiceEvent& event);
// The same for a person, without its end.
std::string toText(const ServiceEvent& event);

}  // namespace kelm
