#pragma once

#include <cstdint>
#include <vector>

namespace kelm {

// What the placement planner looks at, at one moment. Ids are keys that are never followed; the
// order of the lists is the order of creation, which breaks ties. Times in seconds, memory in MB.

struct PlacementDevice {
    uint64_t id = 0;
    uint32_t memory = 0;
    uint32_t slots = 1;  // graphs at once
    // Seconds of work, as the graphs' task times count it, that it does in a second; all its slots
    // together.
    double speed = 1.0;
    std::vector<uint64_t> cached;  // graphs that it holds without running them
};

// A graph on a device.
struct PresentPlace {
    uint64_t device = 0;  // one that is not in the picture is lost
    double since = 0.0;   // when it could serve its first task
};

struct PlacementGraph {
    uint64_t id = 0;
    uint32_t memory = 0;
    bool requested = false;   // its creator waits for the first load
    uint64_t arrivals = 0;    // tasks so far, also those that were refused
    uint32_t waiting = 0;     // tasks that no device has yet
    double oldestAge = 0.0;   // of these
    double taskTime = 0.0;    // of work for a task; 0 before the first was measured
    double loadTime = 0.0;    // as measured
    double cachedTime = 0.0;  // of a load where the device holds it already
    std::vector<PresentPlace> places;
    std::vector<uint64_t> refusedBy;  // devices that failed to load it
};

struct PlacementPicture {
    double now = 0.0;
    std::vector<PlacementDevice> devices;  // without lost ones
    std::vector<PlacementGraph> graphs;
};

}  // namespace kelm
