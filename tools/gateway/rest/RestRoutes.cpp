#include "tools/gateway/rest/RestRoutes.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/gateway/Failure.h"
#include "tools/gateway/rest/InferExchange.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;
namespace http = boost::beast::http;
constexpr const char* kNoPath = "there is no such path";

// A path within `/v2`.
struct Route {
    enum class Kind { kServer, kLive, kReady, kModel, kModelReady, kInfer };
    static constexpr const char* kNames[] = {"server", "live",        "ready",
                                             "model",  "model_ready", "infer"};
    Kind kind = Kind::kServer;  // from kModel on: of a model
    std::string model = {};
    std::string version = {};  // empty: any
};

// Without `%41` and the like; nothing if that is no text.
std::optional<std::string> decode(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i];
            continue;
        }
        unsigned char value = 0;
        const char* const digits = text.data() + i + 1;
        if (text.size() - i < 3 ||
            std::from_chars(digits, digits + 2, value, 16).ptr != digits + 2) {
            return std::nullopt;
        }
        result += static_cast<char>(value);
        i += 2;
    }
    return result;
}

// The parts of a path, without the query; nothing if it is no path.
std::optional<std::vector<std::string>> split(std::string_view target) {
    target = target.substr(0, target.find('?'));
    std::vector<std::string> parts;
    while (!target.empty()) {
        if (target.front() != '/') return std::nullopt;
        target.remove_prefix(1);
        const size_t end = std::min(target.find('/'), target.size());
        auto part = decode(target.substr(0, end));
        if (!part) return std::nullopt;
        parts.push_back(std::move(*part));
        target.remove_prefix(end);
    }
    return parts;
}

std::optional<Route> findRoute(std::string_view target) {
    auto parts = split(target);
    if (!parts || parts->empty() || parts->front() != "v2") return std::nullopt;
    parts->erase(parts->begin());
    if (parts->empty()) return Route{};
    if (*parts == std::vector<std::string>{"health", "live"}) return Route{Route::Kind::kLive};
    if (*parts == std::vector<std::string>{"health", "ready"}) return Route{Route::Kind::kReady};
    if (parts->size() < 2 || parts->front() != "models") return std::nullopt;
    Route route{Route::Kind::kModel, std::move((*parts)[1])};
    parts->erase(parts->begin(), parts->begin() + 2);
    if (parts->size() >= 2 && parts->front() == "versions") {
        route.version = std::move((*parts)[1]);
        parts->erase(parts->begin(), parts->begin() + 2);
    }
    if (parts->empty()) return route;
    if (parts->size() > 1) return std::nullopt;
    if (parts->front() == "ready") route.kind = Route::Kind::kModelReady;
    if (parts->front() == "infer") route.kind = Route::Kind::kInfer;
    if (route.kind == Route::Kind::kModel) return std::nullopt;
    return route;
}

json toJson(const std::vector<TensorDescription>& tensors) {
    json list = json::array();
    for (const auto& each : tensors) {
        list.push_back(
            {{"name", each.name}, {"datatype", infoOf(each.datatype).name}, {"shape", each.shape}});
    }
    return list;
}

HttpReply replyWith(const json& value, unsigned status = 200) {
    HttpReply reply;
    reply.status = status;
    reply.text = value.dump(-1, ' ', true, json::error_handler_t::replace);
    return reply;
}

HttpReply replyReady(json value, bool isReady) {
    constexpr unsigned kUnavailable = 503;
    value["ready"] = isReady;
    return replyWith(value, isReady ? 200 : kUnavailable);
}

HttpReply describe(const Gateway& gateway, const Route& route, const Model* model) {
    switch (route.kind) {
        case Route::Kind::kLive:
            return replyWith({{"live", true}});
        case Route::Kind::kReady:
            return replyReady(json::object(), gateway.isReady());
        case Route::Kind::kServer:
            return replyWith({{"name", Gateway::kName},
                              {"version", KELM_VERSION},
                              {"extensions", {"binary_tensor_data"}}});
        default:
            break;
    }
    const ModelDescription& about = model->description();
    if (route.kind == Route::Kind::kModelReady) {
        return replyReady({{"name", about.name}}, model->whyNot().empty());
    }
    return replyWith({{"name", about.name},
                      {"versions", {about.version}},
                      {"platform", about.platform},
                      {"inputs", toJson(about.inputs)},
                      {"outputs", toJson(about.outputs)}});
}

HttpReply refuseMethod(const char* allowed) {
    HttpReply reply =
        HttpReply::ofError(405, std::string("the methods of this path are: ") + allowed);
    reply.headers.emplace_back("Allow", allowed);
    return reply;
}

void serve(const Gateway& gateway, const std::shared_ptr<HttpExchange>& exchange) {
    const auto target = exchange->request().target();
    const auto route = findRoute({target.data(), target.size()});
    if (!route) throw Failure(Cause::kNotFound, kNoPath);
    RequestRecord& record = exchange->record();
    record.operation = Route::kNames[static_cast<size_t>(route->kind)];
    record.model = route->model;
    std::shared_ptr<Model> model;
    if (route->kind >= Route::Kind::kModel) {
        model = gateway.models().find(route->model, route->version);
        record.version = model->description().version;
        record.isKnown = true;
    }
    const http::verb method = exchange->request().method();
    if (route->kind == Route::Kind::kInfer) {
        if (method != http::verb::post) return exchange->reply(refuseMethod("POST"));
        return std::make_shared<InferExchange>(exchange, model, gateway.textMemory())->begin();
    }
    if (method != http::verb::get && method != http::verb::head) {
        return exchange->reply(refuseMethod("GET, HEAD"));
    }
    exchange->reply(describe(gateway, *route, model.get()));
}

}  // namespace

HttpHandler makeRestHandler(const Gateway& gateway) {
    const auto handle = [&gateway](const std::shared_ptr<HttpExchange>& exchange) {
        try {
            serve(gateway, exchange);
        } catch (const Failure& failure) {
            exchange->reply(HttpReply::of(failure));
        } catch (const std::exception& error) {
            exchange->reply(HttpReply::ofError(500, error.what()));
        }
    };
    return {.serve = handle,
            .ended = [&gateway](RequestRecord record) { gateway.recordEnd(std::move(record)); },
            .connections = &gateway.metrics().connections(Protocol::kRest)};
}

HttpHandler makeMetricsHandler(const Gateway& gateway) {
    return {.serve = [&gateway](const std::shared_ptr<HttpExchange>& exchange) {
        if (exchange->request().target() != "/metrics") {
            return exchange->reply(HttpReply::ofError(404, kNoPath));
        }
        const http::verb method = exchange->request().method();
        if (method != http::verb::get && method != http::verb::head) {
            return exchange->reply(refuseMethod("GET, HEAD"));
        }
        HttpReply reply;
        reply.type = "text/plain; version=0.0.4; charset=utf-8";
        reply.text = gateway.metricsText();
        exchange->reply(std::move(reply));
    }};
}

}  // namespace kelm::gateway
