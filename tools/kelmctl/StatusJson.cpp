#include "tools/kelmctl/StatusJson.h"

#include <nlohmann/json.hpp>

#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/MergedStatus.h"

namespace kelm::ctl {

namespace {

using Json = nlohmann::json;

// Raised when a member changes its meaning or is taken away; new ones may come without.
constexpr int kStatusSchema = 1;

Json toRate(float value) { return toJsonNumber(static_cast<double>(value)); }

// A value of one of the two sources, null where that has no row.
template <class Row, class Value>
Json known(const Row* row, const Value& value) {
    return row != nullptr ? Json(value(*row)) : Json();
}

Json makeHead(bool up, std::chrono::system_clock::time_point now) {
    const std::chrono::duration<double> time = now.time_since_epoch();
    return {{"schema", kStatusSchema}, {"up", up}, {"time", toJsonNumber(time.count())}};
}

Json toJson(const client::MemorySnapshot& memory) {
    return {{"virtual_mb", memory.virtualMB},
            {"resident_mb", memory.residentMB},
            {"shared_mb", memory.sharedMB},
            {"total_mb", memory.totalMB}};
}

Json heldGraphs(const client::DeviceSnapshot& device) {
    Json json = Json::array();
    for (const client::CurrentGraph& graph : device.current) {
        json.push_back({{"name", graph.name},
                        {"fps", toRate(graph.fps)},
                        {"inferences", graph.inferences},
                        {"loaded_at", graph.loadTime}});
    }
    return json;
}

Json devicesOf(const MergedStatus& merged) {
    using More = client::DeviceSnapshot;
    Json json = Json::array();
    for (const auto& [device, more] : merged.devices) {
        json.push_back(
            {{"name", device->name},
             {"graph", device->graph},
             {"id", device->id},
             {"subclass", device->subclass},
             {"fps", toRate(device->fps)},
             {"thermal", isMeasured(*device) ? toRate(device->thermal) : Json()},
             {"throttling", known(more, [](const More& row) { return row.throttlingLevel; })},
             {"inferences", known(more, inferencesOf)},
             {"graphs", known(more, heldGraphs)}});
    }
    return json;
}

Json graphsOf(const MergedStatus& merged) {
    using More = client::GraphSnapshot;
    Json json = Json::array();
    for (const auto& [graph, more] : merged.graphs) {
        json.push_back(
            {{"name", graph->name},
             {"fps_in", toRate(graph->fpsIn)},
             {"fps_out", toRate(graph->fpsOut)},
             {"id", known(more, [](const More& row) { return row.id; })},
             {"waiting", known(more, [](const More& row) { return row.waitingTasks; })},
             {"devices", known(more, [](const More& row) { return row.runningDevices; })},
             {"clients", known(more, [](const More& row) { return row.clientCount; })},
             {"inferences", known(more, [](const More& row) { return row.inferences; })}});
    }
    return json;
}

Json clientsOf(const MergedStatus& merged) {
    using More = client::ClientSnapshot;
    Json json = Json::array();
    for (const auto& [client, more] : merged.clients) {
        json.push_back(
            {{"name", client != nullptr ? client->name : more->name},
             {"fps", known(client, [](const auto& row) { return toRate(row.fps); })},
             {"id", known(more, [](const More& row) { return row.id; })},
             {"api", known(more, apiOf)},
             {"waiting", known(more, [](const More& row) { return row.waitingTasks; })},
             {"inferences", known(more, [](const More& row) { return row.inferences; })}});
    }
    return json;
}

}  // namespace

std::string statusJson(const StatusLook& look, std::chrono::system_clock::time_point now) {
    const client::ServiceStatus& status = look.status;
    const MergedStatus merged(status, look.snapshot ? &*look.snapshot : nullptr);
    Json json = makeHead(true, now);
    json.update({{"fps", toRate(status.serviceFps)},
                 {"device_scheduler", status.deviceScheduler},
                 {"task_scheduler", status.taskScheduler},
                 {"device_count", status.deviceCount},
                 {"graph_count", status.graphCount},
                 {"client_count", status.clientCount},
                 {"devices", devicesOf(merged)},
                 {"graphs", graphsOf(merged)},
                 {"clients", clientsOf(merged)},
                 {"moves", look.history ? Json(look.history->moves) : Json()},
                 {"memory", look.snapshot ? toJson(look.snapshot->memory) : Json()}});
    if (!look.snapshot) json["snapshot_missing"] = look.snapshotWhy;
    return toJsonText(json);
}

std::string downJson(const std::string& why, std::chrono::system_clock::time_point now) {
    Json json = makeHead(false, now);
    json["why"] = why;
    return toJsonText(json);
}

}  // namespace kelm::ctl
