#include "tools/kelmctl/MergedStatus.h"

#include <algorithm>

#include "tools/kelmctl/RowKeys.h"

namespace kelm::ctl {

namespace {

// By name and order, since the status has no ids of graphs and clients. What is left of `more` has
// no row in the status.
template <class Status, class More>
std::vector<MergedRow<Status, More>> mergeByName(const std::vector<Status>& rows,
                                                 std::map<RowKey, const More*>& more) {
    std::vector<MergedRow<Status, More>> merged;
    RowKeys keys;
    for (const Status& row : rows) {
        const auto found = more.extract(keys.next(row.name));
        merged.push_back({&row, found.empty() ? nullptr : found.mapped()});
    }
    return merged;
}

}  // namespace

uint64_t inferencesOf(const client::DeviceSnapshot& device) {
    uint64_t sum = 0;
    for (const client::CurrentGraph& graph : device.current) sum += graph.inferences;
    return sum;
}

std::string apiOf(const client::ClientSnapshot& client) {
    return std::to_string(client.apiMajor) + "." + std::to_string(client.apiMinor);
}

MergedStatus::MergedStatus(const client::ServiceStatus& status, const client::Snapshot* snapshot) {
    static const client::Snapshot kNone;
    const client::Snapshot& more = snapshot != nullptr ? *snapshot : kNone;
    for (const client::DeviceStatus& device : status.devices) {
        // By id, since the snapshot has no names of devices.
        const auto found = std::find_if(more.devices.begin(), more.devices.end(),
                                        [&](const auto& row) { return row.id == device.id; });
        devices.push_back({&device, found != more.devices.end() ? &*found : nullptr});
    }
    auto graphsByName = byName(more.graphs);
    graphs = mergeByName(status.graphs, graphsByName);
    auto clientsByName = byName(more.clients);
    clients = mergeByName(status.clients, clientsByName);
    // Where the status had room for all clients, those that only the older snapshot has have
    // departed.
    if (status.clientCount <= status.clients.size()) return;
    for (const auto& [key, client] : clientsByName) clients.push_back({nullptr, client});
}

}  // namespace kelm::ctl
