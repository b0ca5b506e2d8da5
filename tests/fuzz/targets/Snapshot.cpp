// The decoders of what tools are told: the snapshot and the answer to a status query. The input is
// patches of a record: where, how many bytes, and the bytes.

#include <cmath>
#include <memory>

#include "client/Decode.h"
#include "tests/fuzz/targets/FuzzInput.h"

namespace kelm {
namespace {

template <class Record>
std::unique_ptr<Record> makeRecord(FuzzInput input) {
    auto record = std::make_unique<Record>();
    auto* const bytes = reinterpret_cast<char*>(record.get());
    while (!input.isEmpty()) {
        const size_t at = input.take<uint32_t>() % sizeof(Record);
        const std::string patch = input.text(std::min(1 + input.below(256), sizeof(Record) - at));
        std::memcpy(bytes + at, patch.data(), patch.size());
    }
    return record;
}

void require(bool holds) {
    if (!holds) __builtin_trap();
}

void requireRate(float rate) { require(rate >= 0 && std::isfinite(rate)); }

// What every user of a snapshot relies on.
void check(const client::Snapshot& snapshot) {
    require(snapshot.devices.size() <= kPackageDevices);
    require(snapshot.graphs.size() <= kPackageGraphs && snapshot.clients.size() <= kPackageClients);
    require(snapshot.memory.residentMB <= INT64_MAX);
    for (const auto& device : snapshot.devices) {
        require(std::isfinite(device.thermal) && device.previous.size() <= kPackageDeviceGraphs);
        for (const auto& graph : device.current) {
            requireRate(graph.fps);
            require(graph.name.size() <= 512 && graph.loadTime.size() <= 9);
        }
    }
    for (const auto& graph : snapshot.graphs) {
        requireRate(graph.fpsIn);
        requireRate(graph.fpsOut);
        require(graph.clients.size() <= kPackageClients && graph.runningDevices <= INT32_MAX);
    }
}

void check(const client::ServiceStatus& status) {
    requireRate(status.serviceFps);
    require(status.devices.size() <= kStatusDevices && status.deviceCount <= INT32_MAX);
    require(status.graphs.size() <= kStatusGraphs && status.clients.size() <= kStatusClients);
    // The service fills as many rows of clients as of graphs.
    require(status.graphs.empty() || status.clients.size() <= status.graphs.size());
    for (const auto& device : status.devices) {
        requireRate(device.fps);
        require(device.name.size() <= 32 && std::isfinite(device.thermal));
        require(device.graph.empty() || status.parts.has(client::StatusPart::kDevices));
    }
}

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    const FuzzInput input(data, size);
    check(client::decodeSnapshot(*makeRecord<InfoPackage>(input)));
    check(client::decodeStatus(*makeRecord<KelmMsgRspQueryStatus>(input)));
    return 0;
}
