#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelm::ctl {

// Names are those that clients and devices gave, any bytes but NUL: each output escapes them for
// itself. Rates are per second. What the service does not tell has no value.

struct ExportedDevice {
    std::string name;
    uint64_t replugs = 0;   // times that it came back while the service ran
    bool isPresent = true;  // false: it was there and is lost; only what stands above is known
    uint32_t id = 0;
    int32_t subclass = 0;
    double fps = 0.0;
    std::optional<double> temperature;  // degrees Celsius
    std::optional<int32_t> throttling;  // level, 0: none
    std::vector<std::string> graphs;    // resident
};

// Counted by the exporter, of all graphs of one name: loads onto and unloads from devices, and
// inferences.
struct ExportedTotals {
    uint64_t movesIn = 0;
    uint64_t movesOut = 0;
    uint64_t inferences = 0;
};

struct ExportedGraph {
    std::string name;
    bool isListed = true;        // false: so many names came that this one is counted with others
    std::optional<uint64_t> id;  // of the service, new with each load of the file
    double fpsIn = 0.0;          // submitted
    double fpsOut = 0.0;         // done
    std::optional<uint64_t> waiting;
    std::optional<uint32_t> devices;  // that run it
    std::optional<uint32_t> clients;
    ExportedTotals totals;  // of its name; zeros if it is not listed
};

struct ExportedClient {
    std::string name;
    bool isListed = true;  // as of a graph
    std::optional<uint64_t> id;
    std::optional<double> fps;
    std::optional<uint64_t> waiting;
};

// A graph loaded onto a device, from another one if there is a `from`, or unloaded from it.
struct ExportedMove {
    std::chrono::system_clock::time_point time;
    std::string graph;
    std::string device;
    std::string from;
    bool isIn = false;
    std::string reason;
};

// Of the service's process.
struct ExportedService {
    std::optional<pid_t> pid;  // not in another pid namespace
    std::optional<uint64_t> residentBytes;
    std::optional<uint64_t> virtualBytes;
    std::optional<uint64_t> threads;
    std::optional<uint64_t> descriptors;  // only its own user and root are told
    std::optional<uint64_t> descriptorLimit;
    double fps = 0.0;
    std::string deviceScheduler;
    std::string taskScheduler;
    // True ones, where an answer has room for 32 devices and 64 graphs and clients.
    uint32_t deviceCount = 0;
    uint32_t graphCount = 0;
    uint32_t clientCount = 0;
};

// The service at one moment. Immutable once it is handed out.
struct ExportSnapshot {
    uint64_t number = 0;  // 1 for the first, and so on; 0: nobody has looked yet
    std::chrono::system_clock::time_point time;
    bool isUp = false;
    std::string why;              // not up: the reason, in one line
    std::string missing;          // up: why there is no more than the short status, else empty
    uint64_t samplingErrors = 0;  // looks that found no service, since the exporter has started
    // All empty while it is down.
    ExportedService service;
    std::vector<ExportedDevice> devices;
    std::vector<ExportedGraph> graphs;
    std::vector<ExportedClient> clients;
    // The last ones, newest first; nothing from a service that does not tell them.
    std::optional<std::vector<ExportedMove>> moves;
    // By the names of graphs, also of those that have departed within the hour; "" is all others.
    std::map<std::string, ExportedTotals> totals;
};

}  // namespace kelm::ctl
