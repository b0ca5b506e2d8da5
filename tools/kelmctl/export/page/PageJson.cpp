#include "tools/kelmctl/export/page/PageJson.h"

#include <nlohmann/json.hpp>

#include "tools/kelmctl/JsonText.h"

namespace kelm::ctl {

namespace {

using Json = nlohmann::json;

// Raised when a member changes its meaning or is taken away; new ones may come without.
constexpr int kPageSchema = 1;

template <class Value>
Json known(const std::optional<Value>& value) {
    return value ? Json(*value) : Json();
}

Json known(const std::optional<double>& value) {
    return value ? Json(toJsonNumber(*value)) : Json();
}

Json toSeconds(std::chrono::system_clock::time_point time) {
    return toJsonNumber(std::chrono::duration<double>(time.time_since_epoch()).count());
}

Json toJson(const ExportedDevice& device) {
    return {{"name", device.name},
            {"present", device.isPresent},
            {"id", device.id},
            {"subclass", device.subclass},
            {"fps", toJsonNumber(device.fps)},
            {"temperature", known(device.temperature)},
            {"throttling", known(device.throttling)},
            {"replugs", device.replugs},
            {"graphs", device.graphs}};
}

// One that is counted with others has no total of its own.
Json total(const ExportedGraph& graph, uint64_t count) {
    return graph.isListed ? Json(count) : Json();
}

Json toJson(const ExportedGraph& graph) {
    return {{"name", graph.name},
            {"id", known(graph.id)},
            {"fps_in", toJsonNumber(graph.fpsIn)},
            {"fps_out", toJsonNumber(graph.fpsOut)},
            {"waiting", known(graph.waiting)},
            {"devices", known(graph.devices)},
            {"clients", known(graph.clients)},
            {"moves_in", total(graph, graph.totals.movesIn)},
            {"moves_out", total(graph, graph.totals.movesOut)},
            {"inferences", total(graph, graph.totals.inferences)}};
}

Json toJson(const ExportedClient& client) {
    return {{"name", client.name},
            {"id", known(client.id)},
            {"fps", known(client.fps)},
            {"waiting", known(client.waiting)}};
}

Json toJson(const ExportedMove& move) {
    return {{"time", toSeconds(move.time)},
            {"graph", move.graph},
            {"device", move.device},
            {"from", move.from},
            {"in", move.isIn},
            {"reason", move.reason}};
}

Json toJson(const ExportedService& service) {
    return {{"pid", known(service.pid)},
            {"resident_bytes", known(service.residentBytes)},
            {"virtual_bytes", known(service.virtualBytes)},
            {"threads", known(service.threads)},
            {"descriptors", known(service.descriptors)},
            {"descriptor_limit", known(service.descriptorLimit)},
            {"fps", toJsonNumber(service.fps)},
            {"device_scheduler", service.deviceScheduler},
            {"task_scheduler", service.taskScheduler},
            {"device_count", service.deviceCount},
            {"graph_count", service.graphCount},
            {"client_count", service.clientCount}};
}

template <class Row>
Json toJson(const std::vector<Row>& rows) {
    Json json = Json::array();
    for (const Row& row : rows) json.push_back(toJson(row));
    return json;
}

}  // namespace

std::string snapshotJson(const ExportSnapshot& snapshot) {
    Json json = {{"schema", kPageSchema},
                 {"number", snapshot.number},
                 {"time", toSeconds(snapshot.time)},
                 {"up", snapshot.isUp},
                 {"why", snapshot.why},
                 {"missing", snapshot.missing},
                 {"sampling_errors", snapshot.samplingErrors},
                 {"service", snapshot.isUp ? toJson(snapshot.service) : Json()},
                 {"devices", toJson(snapshot.devices)},
                 {"graphs", toJson(snapshot.graphs)},
                 {"clients", toJson(snapshot.clients)}};
    if (snapshot.moves) json["moves"] = toJson(*snapshot.moves);
    return toJsonText(json) + "\n";
}

}  // namespace kelm::ctl
