#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <variant>

#include "tools/kelmctl/StatusSource.h"
#include "tools/kelmctl/export/ExportModel.h"
#include "tools/kelmctl/export/KnownDevices.h"
#include "tools/kelmctl/export/NameLedger.h"

namespace kelm::ctl {

struct MergedStatus;

// Makes snapshots of looks at the service, and counts what the service does not: moves of graphs,
// replugs of devices, inferences beyond the life of a graph. Counters start at 0 with the first
// look and never fall, also when the service starts anew.
//
// Threads: one.
class ExportCollector {
 public:
    using Time = std::chrono::steady_clock::time_point;

    // The time of the snapshot and the figures of the process are the caller's to fill in.
    ExportSnapshot addLook(const StatusLook& look, Time now);
    ExportSnapshot addFailure(const std::string& why);

 private:
    // A graph on a device: the device's id, the graph's name and the time of the load.
    using Placement = std::tuple<uint32_t, std::string, std::string>;

    void beginSession();
    ExportedTotals& totalsOf(const std::string& graph, Time now);
    void countMoves(const client::Snapshot& snapshot, Time now);
    void countInferences(const client::Snapshot& snapshot, size_t graphs, Time now);
    void addDevices(const MergedStatus& merged, ExportSnapshot& to, Time now);
    void addGraphs(const MergedStatus& merged, ExportSnapshot& to, Time now);
    void addClients(const MergedStatus& merged, ExportSnapshot& to, Time now);
    ExportSnapshot begin();

    uint64_t m_number = 0;
    uint64_t m_errors = 0;
    bool m_isUp = false;
    std::optional<pid_t> m_servicePid;  // none before the first look
    KnownDevices m_devices;
    NameLedger<ExportedTotals> m_graphs;
    NameLedger<std::monostate> m_clients;
    ExportedTotals m_others;  // of graphs without a place
    // As of the last look with a snapshot; empty at the begin of a session, none before the first.
    std::optional<std::set<Placement>> m_placements;
    std::optional<std::map<uint64_t, uint64_t>> m_inferences;  // by the graph's id
};

}  // namespace kelm::ctl
