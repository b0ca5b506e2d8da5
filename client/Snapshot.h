#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelm::client {

// One snapshot of the service as it streams them. As in a status, names may hold any bytes but NUL,
// rates are finite and not negative, and counts may exceed the rows. Times are HH:MM:SS.

struct CurrentGraph {
    std::string name;
    std::string loadTime;
    uint64_t inferences = 0;  // on this device, since the load
    float fps = 0.0f;
};

struct PreviousGraph {
    std::string name;
    std::string loadTime;
    std::string unloadTime;
    uint64_t inferences = 0;
};

struct DeviceSnapshot {
    uint32_t id = 0;
    float thermal = 0.0f;  // degrees Celsius
    int32_t throttlingLevel = 0;
    std::vector<CurrentGraph> current;  // 2 at most, as of the previous ones
    std::vector<PreviousGraph> previous;
};

struct GraphSnapshot {
    uint64_t id = 0;
    std::string name;
    float fpsIn = 0.0f;
    float fpsOut = 0.0f;
    uint32_t runningDevices = 0;
    uint64_t inferences = 0;
    uint64_t waitingTasks = 0;
    uint32_t clientCount = 0;
    std::vector<std::string> clients;
};

struct ClientSnapshot {
    uint64_t id = 0;
    std::string name;
    uint16_t apiMajor = 0;
    uint16_t apiMinor = 0;
    uint64_t inferences = 0;
    uint64_t waitingTasks = 0;
};

// Of the service's process, but for the total, which is the machine's.
struct MemorySnapshot {
    uint64_t virtualMB = 0;
    uint64_t residentMB = 0;
    uint64_t sharedMB = 0;
    uint64_t totalMB = 0;
};

struct Snapshot {
    // No count comes with them: the rows in use, which may miss devices where there are several
    // subclasses. ServiceStatus counts and names them.
    std::vector<DeviceSnapshot> devices;
    uint32_t graphCount = 0;
    uint32_t clientCount = 0;
    std::vector<GraphSnapshot> graphs;
    std::vector<ClientSnapshot> clients;
    MemorySnapshot memory;
};

}  // namespace kelm::client
