#pragma once

#include <cstdint>

namespace kelm {

// The figures of a graph at one moment, from which its demand follows.
struct GraphLoad {
    float avgInferTime = 0.0f;  // milliseconds, above 0
    uint32_t waitTasks = 0;
    float fpsIn = 0.0f;  // may be infinite, as fpsOut
    float fpsOut = 0.0f;
};

// Tasks per second that one device is taken to deliver.
float computeDeviceFps(float avgInferTime);
// The rate at which the backlog shrinks: what leaves, or a device's rate while nothing has left.
float computeDrainRate(const GraphLoad& load);
// How many devices the load needs, before the factor. Pure; the same floats on every compiler.
float computeDeviceRequest(const GraphLoad& load);
// 1.5 for a graph that keeps up, has no backlog, and needs barely more than a whole number.
float computeDevReqFactor(float deviceRequest, const GraphLoad& load);

}  // namespace kelm
