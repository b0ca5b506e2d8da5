#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelm::client {

// What a status query asks for.
enum class StatusPart : uint64_t {
    kOverview = 1,     // the service's rate, and devices, graphs and clients by name and rate
    kDevices = 2,      // devices with graph, temperature, id and subclass
    kGraphs = 4,       // graphs
    kClients = 8,      // clients; brings the graphs along, without which no client has a row
    kSchedulers = 16,  // names of the schedulers
};

// A set of parts: StatusPart::kOverview | StatusPart::kSchedulers.
class StatusParts {
 public:
    constexpr StatusParts(StatusPart part)  // implicit: one part is a set too
        : m_bits(static_cast<uint64_t>(part)) {}
    // Unknown bits are left out.
    constexpr explicit StatusParts(uint64_t bits) : m_bits(bits & kKnownBits) {}
    static constexpr StatusParts all() { return StatusParts(kKnownBits); }

    constexpr bool has(StatusPart part) const {
        return (m_bits & static_cast<uint64_t>(part)) != 0;
    }
    constexpr uint64_t bits() const { return m_bits; }

 private:
    static constexpr uint64_t kKnownBits = 31;
    uint64_t m_bits;
};

constexpr StatusParts operator|(StatusParts a, StatusParts b) {
    return StatusParts(a.bits() | b.bits());
}

// Names are those that clients and devices gave: any bytes but NUL, to be made safe before they
// reach a terminal. Rates are per second, finite and not negative.
struct DeviceStatus {
    std::string name;
    float fps = 0.0f;
    // With StatusPart::kDevices only:
    std::string graph;
    float thermal = 0.0f;  // degrees Celsius
    uint32_t id = 0;
    int32_t subclass = 0;
};

struct GraphStatus {
    std::string name;
    float fpsIn = 0.0f;
    float fpsOut = 0.0f;
};

struct ClientStatus {
    std::string name;
    float fps = 0.0f;
};

// The service at one moment; what was not asked for is empty. The counts are the true ones, the
// rows what an answer has room for: 32 devices, 64 graphs, and of the clients as many as there are
// graphs, 64 at most.
struct ServiceStatus {
    StatusParts parts{uint64_t{0}};  // what is filled
    float serviceFps = 0.0f;
    uint32_t deviceCount = 0;
    uint32_t graphCount = 0;
    uint32_t clientCount = 0;
    std::vector<DeviceStatus> devices;
    std::vector<GraphStatus> graphs;
    std::vector<ClientStatus> clients;
    std::string deviceScheduler;
    std::string taskScheduler;
};

}  // namespace kelm::client
