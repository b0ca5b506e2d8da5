// Status and snapshots of the C interface.
#include "client/Status.h"

#include <algorithm>
#include <vector>

#include "client/SnapshotReader.h"
#include "kelm/kelm.h"
#include "libkelm/Handles.h"
#include "libkelm/Structs.h"

using namespace kelm::lib;

struct kelm_status {
    kelm::client::ServiceStatus status;
};

struct kelm_snapshots {
    std::unique_ptr<kelm::client::SnapshotReader> reader;
    kelm::client::Snapshot latest;
};

namespace {

template <class Row>
uint32_t countOf(const std::vector<Row>& rows) {
    return static_cast<uint32_t>(rows.size());
}

// Fills `given` from row `index`; `fill` knows both.
template <class Given, class Rows, class Fill>
int giveRow(const Rows* rows, uint32_t index, Given* given, const Fill& fill) {
    if (rows == nullptr || index >= rows->size()) return invalid("there is no row of that number");
    Given known{};
    fill((*rows)[index], known);
    return writeStruct(known, given) ? int{KELM_SUCCESS} : invalid(kBadStruct);
}

void fillResidency(const kelm::client::CurrentGraph& row, kelm_residency& known) {
    known.rate = row.fps;
    known.graph = row.name.c_str();
    known.loaded = row.loadTime.c_str();
    known.unloaded = "";
    known.inferences = row.inferences;
}

void fillResidency(const kelm::client::PreviousGraph& row, kelm_residency& known) {
    known.graph = row.name.c_str();
    known.loaded = row.loadTime.c_str();
    known.unloaded = row.unloadTime.c_str();
    known.inferences = row.inferences;
}

}  // namespace

int kelm_status_query(kelm_client* client, int32_t deadline_ms, kelm_status** status) {
    return guarded([&] {
        if (client == nullptr || status == nullptr) {
            return invalid("there is no client or no place for the status");
        }
        if (deadline_ms < 0) return invalid(kBadDeadline);
        if (Callbacks::isInside()) return invalid(kWaitInCallback);
        const auto connection = client->session->client();
        if (!connection) return fail(kelm::client::Error::notConnected());
        auto answer =
            connection->queryStatus(kelm::client::StatusParts::all(),
                                    deadlineOr(deadline_ms, kelm::client::kDefaultDeadline));
        if (!answer) return fail(answer.error());
        *status = new kelm_status{std::move(answer).value()};
        return int{KELM_SUCCESS};
    });
}

void kelm_status_free(kelm_status* status) { delete status; }

int kelm_status_get_info(const kelm_status* status, kelm_status_info* info) {
    if (status == nullptr) return invalid("there is no status");
    const kelm::client::ServiceStatus& answer = status->status;
    kelm_status_info known{};
    known.rate = answer.serviceFps;
    known.device_count = answer.deviceCount;
    known.graph_count = answer.graphCount;
    known.client_count = answer.clientCount;
    known.device_rows = countOf(answer.devices);
    known.graph_rows = countOf(answer.graphs);
    known.client_rows = countOf(answer.clients);
    known.device_scheduler = answer.deviceScheduler.c_str();
    known.task_scheduler = answer.taskScheduler.c_str();
    return writeStruct(known, info) ? int{KELM_SUCCESS} : invalid(kBadStruct);
}

int kelm_status_get_device(const kelm_status* status, uint32_t row, kelm_device_row* device) {
    return giveRow(status != nullptr ? &status->status.devices : nullptr, row, device,
                   [](const auto& from, kelm_device_row& to) {
                       to.id = from.id;
                       to.name = from.name.c_str();
                       to.graph = from.graph.c_str();
                       to.rate = from.fps;
                       to.celsius = from.thermal;
                       to.subclass = from.subclass;
                   });
}

int kelm_status_get_graph(const kelm_status* status, uint32_t row, kelm_graph_row* graph) {
    return giveRow(status != nullptr ? &status->status.graphs : nullptr, row, graph,
                   [](const auto& from, kelm_graph_row& to) {
                       to.rate_in = from.fpsIn;
                       to.rate_out = from.fpsOut;
                       to.name = from.name.c_str();
                   });
}

int kelm_status_get_client(const kelm_status* status, uint32_t row, kelm_client_row* client) {
    return giveRow(status != nullptr ? &status->status.clients : nullptr, row, client,
                   [](const auto& from, kelm_client_row& to) {
                       to.rate = from.fps;
                       to.name = from.name.c_str();
                   });
}

int kelm_snapshots_open(const char* socket_path, int32_t deadline_ms, kelm_snapshots** snapshots) {
    return guarded([&] {
        if (snapshots == nullptr) return invalid("there is no place for the handle");
        if (deadline_ms < 0) return invalid(kBadDeadline);
        auto reader = kelm::client::SnapshotReader::connect(
            textOr(socket_path, ""), deadlineOr(deadline_ms, kelm::client::kDefaultDeadline));
        if (!reader) return fail(reader.error());
        *snapshots = new kelm_snapshots{std::move(reader).value(), {}};
        return int{KELM_SUCCESS};
    });
}

int kelm_snapshots_next(kelm_snapshots* snapshots, int32_t deadline_ms, kelm_snapshot_info* info) {
    return guarded([&] {
        if (snapshots == nullptr) return invalid("there is no stream");
        if (deadline_ms < 0) return invalid(kBadDeadline);
        if (info != nullptr && !isStruct(info)) return invalid(kBadStruct);
        auto next =
            snapshots->reader->read(deadlineOr(deadline_ms, kelm::client::kSnapshotDeadline));
        if (!next) return fail(next.error());
        snapshots->latest = std::move(next).value();
        const kelm::client::Snapshot& latest = snapshots->latest;
        kelm_snapshot_info known{};
        known.device_rows = countOf(latest.devices);
        known.graph_rows = countOf(latest.graphs);
        known.client_rows = countOf(latest.clients);
        known.graph_count = latest.graphCount;
        known.client_count = latest.clientCount;
        known.virtual_mb = latest.memory.virtualMB;
        known.resident_mb = latest.memory.residentMB;
        known.shared_mb = latest.memory.sharedMB;
        known.total_mb = latest.memory.totalMB;
        if (info != nullptr) (void)writeStruct(known, info);
        return int{KELM_SUCCESS};
    });
}

int kelm_snapshots_fd(const kelm_snapshots* snapshots) {
    return snapshots != nullptr ? snapshots->reader->fd() : -1;
}

void kelm_snapshots_interrupt(kelm_snapshots* snapshots) {
    if (snapshots != nullptr) snapshots->reader->interrupt();
}

void kelm_snapshots_close(kelm_snapshots* snapshots) { delete snapshots; }

int kelm_snapshots_get_device(const kelm_snapshots* snapshots, uint32_t row,
                              kelm_device_snapshot* device) {
    return giveRow(snapshots != nullptr ? &snapshots->latest.devices : nullptr, row, device,
                   [](const auto& from, kelm_device_snapshot& to) {
                       to.id = from.id;
                       to.celsius = from.thermal;
                       to.throttling_level = from.throttlingLevel;
                       to.current_rows = countOf(from.current);
                       to.previous_rows = countOf(from.previous);
                   });
}

int kelm_snapshots_get_residency(const kelm_snapshots* snapshots, uint32_t device_row, uint32_t row,
                                 kelm_residency* residency) {
    if (snapshots == nullptr || device_row >= snapshots->latest.devices.size()) {
        return invalid("there is no row of that number");
    }
    const kelm::client::DeviceSnapshot& device = snapshots->latest.devices[device_row];
    const auto fill = [](const auto& from, kelm_residency& to) { fillResidency(from, to); };
    const uint32_t current = countOf(device.current);
    return row < current ? giveRow(&device.current, row, residency, fill)
                         : giveRow(&device.previous, row - current, residency, fill);
}

int kelm_snapshots_get_graph(const kelm_snapshots* snapshots, uint32_t row,
                             kelm_graph_snapshot* graph) {
    return giveRow(snapshots != nullptr ? &snapshots->latest.graphs : nullptr, row, graph,
                   [](const auto& from, kelm_graph_snapshot& to) {
                       to.devices = from.runningDevices;
                       to.id = from.id;
                       to.name = from.name.c_str();
                       to.rate_in = from.fpsIn;
                       to.rate_out = from.fpsOut;
                       to.inferences = from.inferences;
                       to.waiting_tasks = from.waitingTasks;
                       to.client_count = from.clientCount;
                   });
}

int kelm_snapshots_get_client(const kelm_snapshots* snapshots, uint32_t row,
                              kelm_client_snapshot* client) {
    return giveRow(snapshots != nullptr ? &snapshots->latest.clients : nullptr, row, client,
                   [](const auto& from, kelm_client_snapshot& to) {
                       to.api_major = from.apiMajor;
                       to.api_minor = from.apiMinor;
                       to.id = from.id;
                       to.name = from.name.c_str();
                       to.inferences = from.inferences;
                       to.waiting_tasks = from.waitingTasks;
                   });
}
