#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelm {

class WorkThread;

// A graph's time on a device, from its load to its unload.
struct GraphFigures {
    using TimePoint = std::chrono::system_clock::time_point;

    std::string name;  // empty: there is none
    std::optional<TimePoint> loadTime;
    std::optional<TimePoint> unloadTime;  // none while the graph is loaded
    uint32_t inferences = 0;
};

struct SlotFigures {
    std::string state;  // of the slave worker
    float fps = 0.0f;
    GraphFigures current;
    GraphFigures previous;
};

// What the reports tell of one device, as it was at one moment.
struct DeviceFigures {
    uint32_t deviceId = 0;
    std::string name;
    float utilization = 0.0f;  // 0 to 1
    float thermal = 0.0f;
    int32_t thermalThrottlingLevel = 0;
    std::string scheduler;  // empty: it belongs to none
    std::string comment;    // for what the scheduler keeps the device
    int resetTimes = 0;
    float totalFps = 0.0f;
    std::string graphName;  // of the first graph, or "NoGraph"
    std::vector<std::string> cachedGraphs;
    std::vector<SlotFigures> slots;

    // All that a worker with an open device knows of itself; its scheduler and its resets stay
    // empty. Waits for no device. The caller keeps the worker alive.
    static DeviceFigures read(WorkThread& worker);
};

}  // namespace kelm
