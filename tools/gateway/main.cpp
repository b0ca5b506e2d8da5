#include <malloc.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/gateway/AgentServer.h"
#include "tools/gateway/Gateway.h"
#include "tools/gateway/LibkelmEngine.h"
#include "tools/gateway/SignalWait.h"
#include "tools/gateway/grpc/GrpcServer.h"
#include "tools/gateway/rest/HttpServer.h"
#include "tools/gateway/rest/RestRoutes.h"

namespace {

using namespace kelm::gateway;

struct Options {
    std::string models;
    std::vector<std::string> rest{"127.0.0.1:8000"};
    std::vector<std::string> grpc;
    std::string agent;
    std::string metrics;
    std::string socket;
    size_t threads = 1;
    unsigned drain = 5;
    TlsFiles tls;
    HttpLimits limits;
    GatewayOptions gateway;
};

void addOptions(CLI::App& app, Options& options) {
    app.add_option("--models", options.models, "folder of the models' descriptions")->required();
    app.add_option("--rest", options.rest, "ADDRESS:PORT or unix:PATH for REST, several times")
        ->capture_default_str();
    app.add_option("--grpc", options.grpc, "ADDRESS:PORT or unix:PATH for gRPC, several times");
    app.add_option("--agent", options.agent, "ADDRESS:PORT for HAProxy's agent check");
    app.add_option("--metrics", options.metrics, "ADDRESS:PORT for Prometheus, path /metrics");
    app.add_option("--access-log", options.gateway.accessLog,
                   "file for a line of JSON for each request, or - for the standard output; SIGHUP "
                   "opens it anew");
    auto* const certificate =
        app.add_option("--tls-cert", options.tls.certificate,
                       "PEM file of the certificate and those above it: requests come by TLS");
    auto* const key = app.add_option("--tls-key", options.tls.key, "PEM file of its key");
    certificate->needs(key);
    key->needs(certificate);
    app.add_option("--socket", options.socket, "the service's socket, if not the usual one");
    app.add_option("--threads", options.threads, "threads of REST, and as many of gRPC")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--drain", options.drain, "seconds to serve on, not ready, after SIGTERM")
        ->check(CLI::Range(0, 3600))
        ->capture_default_str();
    app.add_option("--connections", options.limits.connections, "connections at a time, at most")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--max-body", options.limits.body, "bytes of a request's body, at most")
        ->capture_default_str();
    app.add_option("--max-json", options.limits.json, "bytes of its JSON part, at most")
        ->capture_default_str();
    app.add_option("--json-memory", options.gateway.textMemory,
                   "bytes of JSON that all requests may hold together")
        ->capture_default_str();
}

// One line, whatever names it quotes.
void say(std::string line) {
    std::ranges::replace_if(
        line, [](char each) { return static_cast<unsigned char>(each) < ' ' || each == '\x7f'; },
        ' ');
    std::cerr << "kelm-gateway: " + line + "\n";
}

std::string readFile(const std::string& path) {
    if (path.empty()) return {};
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.empty()) throw std::runtime_error("cannot read '" + path + "', or it is empty");
    return text;
}

std::unique_ptr<GrpcServer> serveGrpc(const Options& options, const Gateway& gateway) {
    if (options.grpc.empty()) return nullptr;
    GrpcLimits limits;
    limits.connections = options.limits.connections;
    limits.message = options.limits.body;
    limits.text = options.limits.json;
    std::vector<ListenSocket> sockets(options.grpc.begin(), options.grpc.end());
    auto server = std::make_unique<GrpcServer>(
        gateway, std::move(sockets), options.threads, limits,
        GrpcTls{readFile(options.tls.certificate), readFile(options.tls.key)});
    for (size_t i = 0; i < options.grpc.size(); ++i) {
        say("serves gRPC on " + options.grpc[i] + ", port " + std::to_string(server->port(i)));
    }
    return server;
}

void serve(const Options& options) {
    constexpr std::chrono::seconds kLastAnswers(30);
    constexpr HttpLimits kFewAndSmall{.connections = 16, .json = 0, .body = 0};
    SignalWait signals({SIGTERM, SIGINT, SIGHUP});
    ::signal(SIGPIPE, SIG_IGN);
    LibkelmEngine engine(options.socket);
    Gateway gateway(engine, options.models, say, options.gateway);
    const auto tls = options.tls.key.empty() ? std::nullopt : std::optional<TlsFiles>(options.tls);
    std::list<HttpServer> servers;
    for (const std::string& each : options.rest) {
        servers.emplace_back(ListenSocket(each), options.threads, options.limits,
                             makeRestHandler(gateway), tls);
        say("serves on " + each + ", port " + std::to_string(servers.back().port()));
    }
    const auto grpc = serveGrpc(options, gateway);
    std::optional<HttpServer> metrics;
    if (!options.metrics.empty()) {
        metrics.emplace(ListenSocket(options.metrics), 1, kFewAndSmall,
                        makeMetricsHandler(gateway));
        say("tells metrics on " + options.metrics + ", port " + std::to_string(metrics->port()));
    }
    std::optional<AgentServer> agent;
    if (!options.agent.empty()) {
        agent.emplace(ListenSocket(options.agent), [&] { return agentLine(gateway.agentState()); });
        say("answers agent checks on " + options.agent + ", port " + std::to_string(agent->port()));
    }
    while (signals.wait() == SIGHUP) gateway.reopenLog();
    gateway.drain();
    say("drains for " + std::to_string(options.drain) + " s; a second signal ends it");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.drain);
    int signal = 0;
    while ((signal = signals.waitUntil(end)) == SIGHUP) gateway.reopenLog();
    const auto limit = signal != 0 ? std::chrono::seconds(0) : kLastAnswers;
    bool isAllAnswered = grpc == nullptr || grpc->stop(limit);
    for (HttpServer& each : servers) isAllAnswered = each.stop(limit) && isAllAnswered;
    if (!isAllAnswered) say("some requests were not answered");
}

// Messages come and go: to give their memory back each time costs more in page faults than to copy
// them.
void keepFreedMemory() {
    constexpr int kMapped = 32 << 20;
    constexpr int kKept = 256 << 20;
    ::mallopt(M_MMAP_THRESHOLD, kMapped);
    ::mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace

// 0 after a signal, 2 for a mistake in the arguments, 1 for everything else; one line tells either.
int main(int argc, char** argv) {
    constexpr int kUsageStatus = 2;
    CLI::App app("Serves models over the Open Inference Protocol", "kelm-gateway");
    Options options;
    try {
        keepFreedMemory();
        addOptions(app, options);
        app.parse(argc, argv);
        serve(options);
        return 0;
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        say(std::string(error.what()) + "; see kelm-gateway --help");
        return kUsageStatus;
    } catch (const std::exception& error) {
        say(error.what());
        return 1;
    }
}
