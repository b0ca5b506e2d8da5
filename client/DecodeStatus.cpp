#include <algorithm>
#include <cmath>

#include "client/Decode.h"
#include "utils/StringHelper.h"

namespace kelm::client {

// The service passes on what devices tell: its readers get numbers that can be printed and
// compared.
float finiteOrZero(float value) { return std::isfinite(value) ? value : 0.0f; }

float rateOrZero(float value) { return std::max(finiteOrZero(value), 0.0f); }

uint32_t countOrZero(int32_t count) { return static_cast<uint32_t>(std::max(count, 0)); }

// Counts come from outside and are larger than the rows where the record has no room for all.
size_t rowsOf(int32_t count, size_t rows) { return std::min<size_t>(countOrZero(count), rows); }

namespace {

// The public header has its own numbers, since it cannot include the protocol's.
static_assert(StatusPart::kOverview == StatusPart{kQueryAll} &&
              StatusPart::kDevices == StatusPart{kQueryDevices} &&
              StatusPart::kGraphs == StatusPart{kQueryGraphs} &&
              StatusPart::kClients == StatusPart{kQueryClients} &&
              StatusPart::kSchedulers == StatusPart{kQuerySchedulers});

// The overview fills names and rates only; the other columns would be zeros that mean nothing.
void decodeDevices(const KelmMsgRspQueryStatus& answer, ServiceStatus& status) {
    status.deviceCount = countOrZero(answer.deviceNum);
    const bool details = status.parts.has(StatusPart::kDevices);
    for (size_t i = 0; i < rowsOf(answer.deviceNum, kStatusDevices); ++i) {
        DeviceStatus& device = status.devices.emplace_back();
        device.name = StringHelper::readBounded(answer.deviceName[i]);
        device.fps = rateOrZero(answer.deviceFps[i]);
        if (!details) continue;
        device.graph = StringHelper::readBounded(answer.deviceGraphName[i]);
        device.thermal = finiteOrZero(answer.deviceThermal[i]);
        device.id = answer.deviceId[i];
        device.subclass = answer.deviceSubclass[i];
    }
}

void decodeGraphs(const KelmMsgRspQueryStatus& answer, ServiceStatus& status) {
    status.graphCount = countOrZero(answer.graphNum);
    for (size_t i = 0; i < rowsOf(answer.graphNum, kStatusGraphs); ++i) {
        status.graphs.push_back({StringHelper::readBounded(answer.graphName[i]),
                                 rateOrZero(answer.graphFpsIn[i]),
                                 rateOrZero(answer.graphFpsOut[i])});
    }
}

void decodeClients(const KelmMsgRspQueryStatus& answer, ServiceStatus& status) {
    status.clientCount = countOrZero(answer.clientNum);
    // The service fills as many client rows as it reports graphs.
    const size_t rows = rowsOf(std::min(answer.clientNum, answer.graphNum), kStatusClients);
    for (size_t i = 0; i < rows; ++i) {
        status.clients.push_back(
            {StringHelper::readBounded(answer.clientName[i]), rateOrZero(answer.clientFps[i])});
    }
}

}  // namespace

// By the answer's own word for its parts: only what it tells is read.
ServiceStatus decodeStatus(const KelmMsgRspQueryStatus& answer) {
    ServiceStatus status;
    status.parts = StatusParts(answer.queryType);
    const bool overview = status.parts.has(StatusPart::kOverview);
    if (overview) status.serviceFps = rateOrZero(answer.serviceFps);
    if (overview || status.parts.has(StatusPart::kDevices)) decodeDevices(answer, status);
    if (overview || status.parts.has(StatusPart::kGraphs)) decodeGraphs(answer, status);
    if (overview || status.parts.has(StatusPart::kClients)) decodeClients(answer, status);
    if (status.parts.has(StatusPart::kSchedulers)) {
        status.deviceScheduler = StringHelper::readBounded(answer.deviceSchedulerName);
        status.taskScheduler = StringHelper::readBounded(answer.taskSchedulerName);
    }
    return status;
}

}  // namespace kelm::client
