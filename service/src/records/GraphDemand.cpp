#include "records/GraphDemand.h"

#include <cmath>

namespace kelm {

float computeDeviceFps(float avgInferTime) {
    const double rate = 1000.0 / static_cast<double>(avgInferTime);
    // Deliberate: twice the rate that the inference time alone gives, since a device works on one
    // task while it takes in the next.
    return static_cast<float>(rate + rate);
}

float computeDrainRate(const GraphLoad& load) {
    return load.fpsOut > 0.0f ? load.fpsOut : computeDeviceFps(load.avgInferTime);
}

float computeDeviceRequest(const GraphLoad& load) {
    const float rate = computeDrainRate(load);
    if (load.fpsIn > 0.0f) {
        const float backlog = static_cast<float>(load.waitTasks) / rate;
        const float arrivals = load.fpsIn / computeDeviceFps(load.avgInferTime);
        return static_cast<float>((static_cast<double>(backlog) + 1.0) *
                                  static_cast<double>(arrivals));
    }
    return static_cast<float>(static_cast<double>(load.waitTasks) / static_cast<double>(rate));
}

float computeDevReqFactor(float deviceRequest, const GraphLoad& load) {
    // Without arrivals the quotient is infinite or not a number, and the comparison decides.
    const float kept = load.fpsOut / load.fpsIn;
    const float fraction = deviceRequest - std::floor(deviceRequest);
    const bool keepsUp = static_cast<double>(kept) > 0.95 && load.waitTasks == 0;
    return keepsUp && 0.1 > static_cast<double>(fraction) ? 1.5f : 1.0f;
}

}  // namespace kelm
