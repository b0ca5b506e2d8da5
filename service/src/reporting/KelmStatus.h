#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelm {

// What the managers tell about themselves for one status query. Lists of one group are parallel,
// one row an entry, and not cut to what the answer has room for.
//
// Threads: shared by the pools of the managers without a lock; each writes only its own fields, and
// the answer is built after the last has finished.
struct KelmStatus {
    virtual ~KelmStatus() = default;

    float serviceFps = 0.0f;

    std::vector<std::string> deviceNames;
    std::vector<float> deviceFps;
    std::vector<std::string> deviceGraphNames;
    std::vector<float> deviceThermals;  // degrees Celsius
    std::vector<uint32_t> deviceIds;
    std::vector<int32_t> deviceSubclasses;

    std::vector<std::string> graphNames;
    std::vector<float> graphFpsIn;
    std::vector<float> graphFpsOut;

    std::vector<std::string> clientNames;
    std::vector<float> clientFps;

    std::string deviceSchedulerName;
    std::string taskSchedulerName;
};

}  // namespace kelm
