#include <algorithm>
#include <cstddef>
#include <iterator>

#include "client/Decode.h"
#include "utils/StringHelper.h"

namespace kelm::client {

namespace {

// The count of the device rows stays 0 on the wire; a row that no device filled is all zeros.
bool isInUse(const InfoDeviceRow& row) {
    const auto* bytes = reinterpret_cast<const std::byte*>(&row);
    return std::any_of(bytes, bytes + sizeof(row),
                       [](std::byte byte) { return byte != std::byte{0}; });
}

DeviceSnapshot decodeDevice(const InfoDeviceRow& row) {
    DeviceSnapshot device;
    device.id = row.deviceId;
    device.thermal = finiteOrZero(row.thermal);
    device.throttlingLevel = row.thermalThrottlingLevel;
    for (size_t i = 0; i < rowsOf(row.currentGraphCount, kPackageDeviceGraphs); ++i) {
        device.current.push_back({StringHelper::readBounded(row.currentGraphName[i]),
                                  StringHelper::readBounded(row.currentGraphLoadTime[i]),
                                  row.currentInferenceCount[i], rateOrZero(row.currentFps[i])});
    }
    for (size_t i = 0; i < rowsOf(row.previousGraphCount, kPackageDeviceGraphs); ++i) {
        device.previous.push_back({StringHelper::readBounded(row.previousGraphName[i]),
                                   StringHelper::readBounded(row.previousGraphLoadTime[i]),
                                   StringHelper::readBounded(row.previousGraphUnloadTime[i]),
                                   row.previousInferenceCount[i]});
    }
    return device;
}

GraphSnapshot decodeGraph(const InfoGraphRow& row) {
    GraphSnapshot graph;
    graph.id = row.graphId;
    graph.name = StringHelper::readBounded(row.graphName);
    graph.fpsIn = rateOrZero(row.fpsIn);
    graph.fpsOut = rateOrZero(row.fpsOut);
    graph.runningDevices = countOrZero(row.runningDeviceNum);
    graph.inferences = row.inferenceTimes;
    graph.waitingTasks = row.waitingTaskNum;
    graph.clientCount = countOrZero(row.clientNum);
    for (size_t i = 0; i < rowsOf(row.clientNum, kPackageClients); ++i) {
        graph.clients.push_back(StringHelper::readBounded(row.clientNames[i]));
    }
    return graph;
}

ClientSnapshot decodeClient(const InfoClientRow& row) {
    return {row.clientId,        StringHelper::readBounded(row.clientName),
            row.apiMajorVersion, row.apiMinorVersion,
            row.inferenceTimes,  row.waitingInferenceNum};
}

// A negative size is nonsense of the sender; it shows as 0.
uint64_t megabytes(int64_t value) { return static_cast<uint64_t>(std::max<int64_t>(value, 0)); }

}  // namespace

Snapshot decodeSnapshot(const InfoPackage& package) {
    Snapshot snapshot;
    // Up to the last one in use: an idle device whose id is 0 looks like a row of no device.
    const auto last =
        std::find_if(std::rbegin(package.devices), std::rend(package.devices), isInUse);
    std::transform(std::begin(package.devices), last.base(), std::back_inserter(snapshot.devices),
                   decodeDevice);
    snapshot.graphCount = countOrZero(package.graphCount);
    for (size_t i = 0; i < rowsOf(package.graphCount, kPackageGraphs); ++i) {
        snapshot.graphs.push_back(decodeGraph(package.graphs[i]));
    }
    snapshot.clientCount = countOrZero(package.clientCount);
    for (size_t i = 0; i < rowsOf(package.clientCount, kPackageClients); ++i) {
        snapshot.clients.push_back(decodeClient(package.clients[i]));
    }
    snapshot.memory = {megabytes(package.memVirtMB), megabytes(package.memResMB),
                       megabytes(package.memShrMB), megabytes(package.memTotalMB)};
    return snapshot;
}

}  // namespace kelm::client
