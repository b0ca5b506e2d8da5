#include "tools/kelmctl/export/ExportCollector.h"

#include <utility>

#include "tools/kelmctl/MergedStatus.h"
#include "tools/kelmctl/RowKeys.h"

namespace kelm::ctl {

namespace {

// What the status tells of a device that holds none.
constexpr const char* kNoGraph = "NoGraph";
constexpr uint64_t kMegabyte = 1024 * 1024;

ExportedService serviceOf(const StatusLook& look) {
    ExportedService service;
    if (look.servicePid > 0) service.pid = look.servicePid;
    service.fps = static_cast<double>(look.status.serviceFps);
    service.deviceScheduler = look.status.deviceScheduler;
    service.taskScheduler = look.status.taskScheduler;
    service.deviceCount = look.status.deviceCount;
    service.graphCount = look.status.graphCount;
    service.clientCount = look.status.clientCount;
    if (look.snapshot) {
        service.residentBytes = look.snapshot->memory.residentMB * kMegabyte;
        service.virtualBytes = look.snapshot->memory.virtualMB * kMegabyte;
    }
    return service;
}

std::vector<std::string> residentGraphs(const client::DeviceStatus& device,
                                        const client::DeviceSnapshot* more) {
    std::vector<std::string> graphs;
    if (more != nullptr) {
        for (const client::CurrentGraph& graph : more->current) graphs.push_back(graph.name);
    } else if (!device.graph.empty() && device.graph != kNoGraph) {
        graphs.push_back(device.graph);
    }
    return graphs;
}

}  // namespace

ExportSnapshot ExportCollector::begin() {
    ExportSnapshot snapshot;
    snapshot.number = ++m_number;
    return snapshot;
}

ExportSnapshot ExportCollector::addFailure(const std::string& why) {
    ++m_errors;
    m_isUp = false;
    ExportSnapshot to = begin();
    to.why = why;
    to.samplingErrors = m_errors;
    to.totals = {{"", m_others}};
    m_graphs.copyTo(to.totals);
    return to;
}

ExportSnapshot ExportCollector::addLook(const StatusLook& look, Time now) {
    if (m_servicePid && m_servicePid != look.servicePid) {
        beginSession();
    } else if (look.servicePid <= 0 && !m_isUp) {
        // The process is not to be seen, and after a failure this may be another one. Its graphs
        // count less than those of before.
        m_devices.beginSession();
    }
    m_graphs.forget(now);
    m_clients.forget(now);

    ExportSnapshot to = begin();
    to.isUp = true;
    to.samplingErrors = m_errors;
    to.missing = look.snapshotWhy;
    to.service = serviceOf(look);
    if (look.snapshot) {
        countMoves(*look.snapshot, now);
        countInferences(*look.snapshot, look.status.graphCount, now);
    }
    const MergedStatus merged(look.status, look.snapshot ? &*look.snapshot : nullptr);
    addDevices(merged, to, now);
    addGraphs(merged, to, now);
    addClients(merged, to, now);
    to.totals = {{"", m_others}};
    m_graphs.copyTo(to.totals);
    m_servicePid = look.servicePid;
    m_isUp = true;
    return to;
}

// What a new service does is counted from its begin.
void ExportCollector::beginSession() {
    m_devices.beginSession();
    m_placements.emplace();
    m_inferences.emplace();
}

ExportedTotals& ExportCollector::totalsOf(const std::string& graph, Time now) {
    ExportedTotals* const totals = m_graphs.see(graph, now);
    return totals != nullptr ? *totals : m_others;
}

void ExportCollector::countMoves(const client::Snapshot& snapshot, Time now) {
    std::set<Placement> placements;
    for (const client::DeviceSnapshot& device : snapshot.devices) {
        for (const client::CurrentGraph& graph : device.current) {
            placements.emplace(device.id, graph.name, graph.loadTime);
        }
    }
    if (m_placements) {
        for (const Placement& placement : placements) {
            if (m_placements->contains(placement)) continue;
            ++totalsOf(std::get<1>(placement), now).movesIn;
        }
        for (const Placement& placement : *m_placements) {
            if (placements.contains(placement)) continue;
            ++totalsOf(std::get<1>(placement), now).movesOut;
        }
    }
    m_placements = std::move(placements);
}

// What was counted before the first look belongs to nobody's time. Less than before is another
// graph. Where the snapshot has no room for all, some leave it and come back.
void ExportCollector::countInferences(const client::Snapshot& snapshot, size_t graphs, Time now) {
    constexpr size_t kMostKept = 4096;
    std::map<uint64_t, uint64_t> inferences;
    for (const client::GraphSnapshot& graph : snapshot.graphs) {
        inferences[graph.id] = graph.inferences;
        if (!m_inferences) continue;
        const auto before = m_inferences->find(graph.id);
        uint64_t known = before != m_inferences->end() ? before->second : 0;
        if (graph.inferences < known) known = 0;
        if (graph.inferences > known) {
            totalsOf(graph.name, now).inferences += graph.inferences - known;
        }
    }
    const bool isWhole = snapshot.graphs.size() >= graphs;
    if (m_inferences && !isWhole && m_inferences->size() < kMostKept) {
        inferences.merge(*m_inferences);
    }
    m_inferences = std::move(inferences);
}

// Of two devices of one name the second is told apart by its place.
void ExportCollector::addDevices(const MergedStatus& merged, ExportSnapshot& to, Time now) {
    RowKeys keys;
    for (const auto& [device, more] : merged.devices) {
        ExportedDevice& row = to.devices.emplace_back();
        const auto [name, place] = keys.next(device->name);
        row.name = place == 0 ? name : name + "#" + std::to_string(place + 1);
        row.id = device->id;
        row.subclass = device->subclass;
        row.fps = static_cast<double>(device->fps);
        if (isMeasured(*device)) row.temperature = static_cast<double>(device->thermal);
        if (more != nullptr) row.throttling = more->throttlingLevel;
        row.graphs = residentGraphs(*device, more);
    }
    m_devices.update(to.devices, now);
}

void ExportCollector::addGraphs(const MergedStatus& merged, ExportSnapshot& to, Time now) {
    for (const auto& [graph, more] : merged.graphs) {
        ExportedGraph& row = to.graphs.emplace_back();
        row.name = graph->name;
        const ExportedTotals* const totals = m_graphs.see(graph->name, now);
        row.isListed = totals != nullptr;
        if (totals != nullptr) row.totals = *totals;
        row.fpsIn = static_cast<double>(graph->fpsIn);
        row.fpsOut = static_cast<double>(graph->fpsOut);
        if (more == nullptr) continue;
        row.id = more->id;
        row.waiting = more->waitingTasks;
        row.devices = more->runningDevices;
        row.clients = more->clientCount;
    }
}

void ExportCollector::addClients(const MergedStatus& merged, ExportSnapshot& to, Time now) {
    for (const auto& [client, more] : merged.clients) {
        ExportedClient& row = to.clients.emplace_back();
        row.name = client != nullptr ? client->name : more->name;
        row.isListed = m_clients.see(row.name, now) != nullptr;
        if (client != nullptr) row.fps = static_cast<double>(client->fps);
        if (more == nullptr) continue;
        row.id = more->id;
        row.waiting = more->waitingTasks;
    }
}

}  // namespace kelm::ctl
