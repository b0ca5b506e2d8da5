#include "tools/gateway/GatewayMetrics.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "tools/gateway/ModelRegistry.h"
#include "tools/metrics/MetricWriter.h"

namespace kelm::gateway {

namespace {

constexpr size_t kPlaces = 128;

double toDouble(uint64_t count) { return static_cast<double>(count); }
double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

void GatewayMetrics::add(const RequestRecord& record) {
    MutexLock lock(m_mutex);
    std::string series = record.model.empty() ? "(none)" : "(unknown)";
    if (record.isKnown) {
        const bool hasPlace = m_models.contains(record.model) || m_models.size() < kPlaces;
        series = hasPlace ? record.model : "(others)";
        OfModel& model = m_models[series];
        if (record.operation == "infer" && record.isGood()) {
            model.requests.add(record.took.count());
            model.atService.add(seconds(record.atService));
        }
    }
    ++m_answers[{series, record.protocol, record.code}];
}

std::string GatewayMetrics::text(const ModelRegistry& models, const Facts& facts) const {
    MetricWriter to;
    const auto all = models.all();
    const auto writeModels = [&](const char* name, const char* help,
                                 const std::function<double(const Model&)>& value) {
        to.begin(name, "gauge", help);
        for (const auto& each : all) {
            to.add(label("model", labelText(each->description().name)), value(*each));
        }
    };
    writeModels("kelm_gateway_queue", "Requests that wait for a place in the model's window.",
                [](const Model& model) { return toDouble(model.waiting()); });
    writeModels("kelm_gateway_requests_in_progress",
                "Requests of the model that have begun and not ended.",
                [](const Model& model) { return toDouble(model.entered()); });
    writeModels("kelm_gateway_model_ready", "Whether the model could run a task now, 1 or 0.",
                [](const Model& model) { return model.whyNot().empty() ? 1.0 : 0.0; });
    to.begin("kelm_gateway_model_info", "gauge", "Always 1; the version of the model that serves.");
    for (const auto& each : all) {
        to.add(labels({{"model", labelText(each->description().name)},
                       {"version", labelText(each->description().version)}}),
               1.0);
    }
    to.begin("kelm_gateway_connections", "gauge", "Connections of clients.");
    for (const Protocol each : {Protocol::kRest, Protocol::kGrpc}) {
        to.add(label("protocol", nameOf(each)),
               static_cast<double>(m_connections[static_cast<size_t>(each)]));
    }
    to.begin("kelm_gateway_access_log_lost_total", "counter",
             "Lines of the access log that could not be written.");
    to.add("", toDouble(facts.lostLines));
    to.begin("kelm_gateway_json_bytes", "gauge", "JSON that requests and answers hold.");
    to.add("", toDouble(facts.textBytes));

    MutexLock lock(m_mutex);
    to.begin("kelm_gateway_requests_total", "counter",
             "Requests that have ended, by the status of HTTP or the code of gRPC.");
    for (const auto& [key, count] : m_answers) {
        const auto& [model, protocol, code] = key;
        to.add(labels({{"model", labelText(model)},
                       {"protocol", nameOf(protocol)},
                       {"code", std::to_string(code)}}),
               toDouble(count));
    }
    to.begin("kelm_gateway_request_seconds", "histogram",
             "Time from the head of a request to the end of its answer, where it went well.");
    for (const auto& [name, model] : m_models) {
        to.addHistogram(label("model", labelText(name)), model.requests);
    }
    to.begin("kelm_gateway_service_seconds", "histogram",
             "Time of its task from the sending to the service to the end.");
    for (const auto& [name, model] : m_models) {
        to.addHistogram(label("model", labelText(name)), model.atService);
    }
    return to.take();
}

}  // namespace kelm::gateway
