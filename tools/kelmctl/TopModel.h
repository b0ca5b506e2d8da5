#pragma once

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/Snapshot.h"
#include "client/Status.h"
#include "tools/kelmctl/TopColumns.h"
#include "tools/kelmctl/TopHistory.h"
#include "tools/kelmctl/TopMoves.h"

namespace kelm::ctl {

struct MergedStatus;

// A device, a graph, a client or a move. What is not known has no value. Texts are as they came.
struct TopRow {
    std::string name;
    std::string detail;  // the device's graph, the client's protocol version, a move's devices
    std::array<std::optional<double>, kTopValues> values;
    std::array<TopHistory, 2> histories;  // of kRate and kRateOut

    std::optional<double>& value(TopValue which) { return values[static_cast<size_t>(which)]; }
    std::optional<double> value(TopValue which) const { return values[static_cast<size_t>(which)]; }
};

// How rows are picked and put in order.
struct TopOrder {
    size_t column = 0;  // of the section's columns
    bool reversed = false;
    std::string filter;  // a part of name or detail in any case; empty: all rows
};

// What the two sources have told so far, merged. The status names, counts and rates everything once
// a second; the snapshot adds what only it has, and the clients that have no row in the status.
//
// A row keeps its past as long as there are rows of its name in a row: of two with one name, the
// first stays the first.
//
// Threads: one.
class TopModel {
 public:
    using Time = std::chrono::system_clock::time_point;

    struct Service {
        bool known = false;  // whether there was an answer or a failure yet
        bool up = false;
        bool measured = false;  // whether there was an answer yet
        std::string why;        // not up
        Time since;             // of the present state
        std::optional<Time> goneSince;
    };

    TopModel();

    void setStatus(const client::ServiceStatus& status, Time now);
    void setSnapshot(const client::Snapshot& snapshot, Time now);
    void setMoves(const TopMoves& moves);
    // The service, or the stream of snapshots, was lost; the last rows stay.
    void setGone(const std::string& why, Time now);
    void setSnapshotGone(const std::string& why);

    const Service& service() const { return m_service; }
    const client::ServiceStatus& status() const { return m_status; }
    const TopHistory& serviceHistory() const { return m_serviceHistory; }
    // None as long as the stream is lost.
    const std::optional<client::Snapshot>& snapshot() const { return m_snapshot; }
    const std::string& snapshotWhy() const { return m_snapshotWhy; }

    // Since the service's start; none before it was told.
    std::optional<uint64_t> moveCount() const { return m_moveCount; }

    // The rows that pass the filter, in order; ties by name.
    std::vector<const TopRow*> rows(TopSection section, const TopOrder& order) const;
    size_t rowCount(TopSection section) const { return rowsOf(section).size(); }

 private:
    using Rows = std::vector<TopRow>;

    const Rows& rowsOf(TopSection section) const { return m_rows[static_cast<size_t>(section)]; }
    // Makes all rows anew; `sample` adds the rates to the histories.
    void merge(bool sample);
    static Rows mergeDevices(const MergedStatus& merged);
    static Rows mergeGraphs(const MergedStatus& merged);
    Rows mergeClients(const MergedStatus& merged) const;
    void replace(TopSection section, Rows rows, bool sample);
    void measureClients(const client::Snapshot& snapshot, Time now);

    Service m_service;
    client::ServiceStatus m_status;
    std::optional<client::Snapshot> m_snapshot;
    std::string m_snapshotWhy;
    TopHistory m_serviceHistory;
    std::optional<uint64_t> m_moveCount;
    std::array<Rows, kTopSections> m_rows;

    // The clients' inferences at an earlier snapshot and what they came to a second since, by id.
    Time m_measuredAt;
    std::map<uint64_t, uint64_t> m_measured;
    std::map<uint64_t, double> m_clientRates;
};

}  // namespace kelm::ctl
