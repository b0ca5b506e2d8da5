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

// What every user of a snapshot relies on.
void check(const client::Snapshot& snapshot) {
    require(snapshot.devices.size() <= kPackageDevices);
    require(snapshot.graphs.size() <= kPackageGraphs && snapshot.clients.size() <= kPackageClients);
    for (const auto& device : snapshot.devices) {
        require(std::isfinite(device.thermal));
        for (const auto& graph : device.current)
            require(graph.fps >= 0 && graph.name.size() <= 512);
    }
    for (const auto& graph : snapshot.graphs) {
        require(graph.fpsIn >= 0 && graph.fpsOut >= 0 && graph.clients.size() <= kPackageClients);
    }
}

void check(const client::ServiceStatus& status) {
    require(status.serviceFps >= 0 && status.devices.size() <= kStatusDevices);
    require(status.graphs.size() <= kStatusGraphs && status.clients.size() <= kStatusClients);
    for (const auto& device : status.devices) require(device.fps >= 0 && device.name.size() <= 32);
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
