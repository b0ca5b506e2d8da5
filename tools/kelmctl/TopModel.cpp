#include "tools/kelmctl/TopModel.h"

#include <algorithm>
#include <utility>

#include "tools/kelmctl/MergedStatus.h"
#include "tools/kelmctl/RowKeys.h"
#include "utils/TextHelper.h"

namespace kelm::ctl {

namespace {

// Whether `a` stands before `b`: texts upwards, numbers downwards, unknown ones last.
bool isBefore(const TopRow& a, const TopRow& b, const TopColumn& column) {
    switch (column.kind) {
        case TopColumn::Kind::kName:
            return a.name < b.name;
        case TopColumn::Kind::kDetail:
            return a.detail < b.detail;
        default:
            return a.value(column.value) > b.value(column.value);
    }
}

// Exact up to 2^53, far beyond what is counted here.
double toDouble(uint64_t count) { return static_cast<double>(count); }

void fillFromSnapshot(TopRow& row, const client::ClientSnapshot& client) {
    row.detail = apiOf(client);
    row.value(TopValue::kWaiting) = toDouble(client.waitingTasks);
    // 0 is also what a service tells that does not count by client.
    if (client.inferences > 0) row.value(TopValue::kInferences) = toDouble(client.inferences);
}

void fillFromSnapshot(TopRow& row, const client::DeviceSnapshot& device) {
    row.value(TopValue::kThrottling) = device.throttlingLevel;
    row.value(TopValue::kInferences) = toDouble(inferencesOf(device));
    // The status names one graph of a device; the others are counted.
    if (device.current.size() > 1) {
        row.detail += " +" + std::to_string(device.current.size() - 1);
    }
}

void fillFromSnapshot(TopRow& row, const client::GraphSnapshot& graph) {
    row.value(TopValue::kDevices) = graph.runningDevices;
    row.value(TopValue::kWaiting) = toDouble(graph.waitingTasks);
    row.value(TopValue::kInferences) = toDouble(graph.inferences);
    row.value(TopValue::kNumber) = graph.clientCount;
}

}  // namespace

TopModel::TopModel() = default;

// The histories grow here and not with snapshots: status answers come at even intervals.
void TopModel::setStatus(const client::ServiceStatus& status, Time now) {
    if (!m_service.up) {
        m_service.up = true;
        m_service.goneSince.reset();
        if (m_service.known) m_service.goneSince = m_service.since;
        m_service.known = true;
        m_service.since = now;
    }
    m_service.measured = true;
    m_status = status;
    m_serviceHistory.add(static_cast<double>(status.serviceFps));
    merge(true);
}

void TopModel::setSnapshot(const client::Snapshot& snapshot, Time now) {
    measureClients(snapshot, now);
    m_snapshot = snapshot;
    m_snapshotWhy.clear();
    merge(false);
}

void TopModel::setMoves(const TopMoves& moves) {
    m_moveCount = moves.total;
    Rows& rows = m_rows[static_cast<size_t>(TopSection::kMoves)];
    rows.clear();
    for (const TopMoves::Row& move : moves.rows) {
        TopRow& row = rows.emplace_back();
        row.name = move.what;
        row.detail = move.where;
        row.value(TopValue::kNumber) = toDouble(move.sequence);
    }
}

// Told again with each try; the time is that of the first.
void TopModel::setGone(const std::string& why, Time now) {
    m_service.why = why;
    if (m_service.known && !m_service.up) return;
    m_service.known = true;
    m_service.up = false;
    m_service.since = now;
}

void TopModel::setSnapshotGone(const std::string& why) {
    m_snapshot.reset();
    m_snapshotWhy = why;
    // The next service counts from 0.
    m_measured.clear();
    m_clientRates.clear();
}

// A snapshot may come right behind another one: over less than half a second a rate says nothing.
void TopModel::measureClients(const client::Snapshot& snapshot, Time now) {
    constexpr double kLeastSeconds = 0.5;
    const double seconds = std::chrono::duration<double>(now - m_measuredAt).count();
    if (!m_measured.empty() && seconds >= 0.0 && seconds < kLeastSeconds) return;
    m_clientRates.clear();
    std::map<uint64_t, uint64_t> measured;
    for (const client::ClientSnapshot& client : snapshot.clients) {
        if (client.inferences == 0) continue;  // perhaps it is not counted
        measured[client.id] = client.inferences;
        const auto before = m_measured.find(client.id);
        if (before == m_measured.end() || before->second > client.inferences || seconds <= 0.0) {
            continue;
        }
        m_clientRates[client.id] = toDouble(client.inferences - before->second) / seconds;
    }
    m_measured = std::move(measured);
    m_measuredAt = now;
}

TopModel::Rows TopModel::mergeDevices(const MergedStatus& merged) {
    Rows rows;
    for (const auto& [device, more] : merged.devices) {
        TopRow& row = rows.emplace_back();
        row.name = device->name;
        row.detail = device->graph;
        row.value(TopValue::kRate) = device->fps;
        if (isMeasured(*device)) row.value(TopValue::kTemperature) = device->thermal;
        row.value(TopValue::kNumber) = device->id;
        if (more != nullptr) fillFromSnapshot(row, *more);
    }
    return rows;
}

TopModel::Rows TopModel::mergeGraphs(const MergedStatus& merged) {
    Rows rows;
    for (const auto& [graph, more] : merged.graphs) {
        TopRow& row = rows.emplace_back();
        row.name = graph->name;
        row.value(TopValue::kRate) = graph->fpsIn;
        row.value(TopValue::kRateOut) = graph->fpsOut;
        if (more != nullptr) fillFromSnapshot(row, *more);
    }
    return rows;
}

TopModel::Rows TopModel::mergeClients(const MergedStatus& merged) const {
    Rows rows;
    for (const auto& [client, more] : merged.clients) {
        TopRow& row = rows.emplace_back();
        if (more != nullptr) fillFromSnapshot(row, *more);
        row.name = client != nullptr ? client->name : more->name;
        if (client != nullptr) {
            row.value(TopValue::kRate) = client->fps;
            continue;
        }
        const auto rate = m_clientRates.find(more->id);
        if (rate != m_clientRates.end()) row.value(TopValue::kRate) = rate->second;
    }
    return rows;
}

// All rows from the latest of both sources: either may have been lost, or be older.
void TopModel::merge(bool sample) {
    const MergedStatus merged(m_status, m_snapshot ? &*m_snapshot : nullptr);
    replace(TopSection::kDevices, mergeDevices(merged), sample);
    replace(TopSection::kGraphs, mergeGraphs(merged), sample);
    replace(TopSection::kClients, mergeClients(merged), sample);
}

// A row finds its past by name and order, as the sources have no ids in common.
void TopModel::replace(TopSection section, Rows rows, bool sample) {
    Rows& present = m_rows[static_cast<size_t>(section)];
    const std::map<RowKey, const TopRow*> past = byName(present);
    RowKeys keys;
    for (TopRow& row : rows) {
        const auto found = past.find(keys.next(row.name));
        if (found != past.end()) row.histories = found->second->histories;
        for (size_t i = 0; sample && i < row.histories.size(); ++i) {
            row.histories[i].add(row.values[i]);
        }
    }
    present = std::move(rows);
}

std::vector<const TopRow*> TopModel::rows(TopSection section, const TopOrder& order) const {
    const std::string wanted = toLower(order.filter);
    std::vector<const TopRow*> result;
    for (const TopRow& row : rowsOf(section)) {
        const bool passes = toLower(row.name).find(wanted) != std::string::npos ||
                            toLower(row.detail).find(wanted) != std::string::npos;
        if (passes) result.push_back(&row);
    }
    const TopColumn& column = topColumns(section)[order.column];
    std::stable_sort(result.begin(), result.end(), [&](const TopRow* a, const TopRow* b) {
        if (isBefore(*a, *b, column)) return !order.reversed;
        if (isBefore(*b, *a, column)) return order.reversed;
        // Ties by name in either direction, so that equal rows do not change places at each answer.
        return a->name < b->name;
    });
    return result;
}

}  // namespace kelm::ctl
