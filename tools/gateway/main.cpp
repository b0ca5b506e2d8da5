#include <malloc.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/gateway/AgentServer.h"
#include "tools/gateway/CommandLine.h"
#include "tools/gateway/Gateway.h"
#include "tools/gateway/LibkelmEngine.h"
#include "tools/gateway/SignalWait.h"
#include "tools/gateway/grpc/GrpcServer.h"
#include "tools/gateway/rest/HttpServer.h"
#include "tools/gateway/rest/RestRoutes.h"

namespace {

using namespace kelm::gateway;

// One line, whatever names it quotes.
void say(std::string line) {
    std::ranges::replace_if(
        line, [](char each) { return static_cast<unsigned char>(each) < ' ' || each == '\x7f'; },
        ' ');
    std::cerr << "kelm-gateway: " + line + "\n";
}

std::unique_ptr<GrpcServer> serveGrpc(const Options& options, const Gateway& gateway,
                                      const std::optional<TlsPair>& tls) {
    if (options.grpc.empty()) return nullptr;
    GrpcLimits limits;
    limits.connections = options.limits.connections;
    limits.message = options.limits.body;
    limits.text = options.limits.json;
    std::vector<ListenSocket> sockets(options.grpc.begin(), options.grpc.end());
    auto server =
        std::make_unique<GrpcServer>(gateway, std::move(sockets), options.threads, limits, tls);
    for (size_t i = 0; i < options.grpc.size(); ++i) {
        say("serves gRPC on " + options.grpc[i] + ", port " + std::to_string(server->port(i)));
    }
    return server;
}

// Files that are of no use leave the pair that is there.
void renewTls(const TlsFiles& files, std::list<HttpServer>& servers, GrpcServer* grpc) {
    try {
        const TlsPair pair = TlsPair::read(files);
        if (grpc != nullptr) grpc->renew(pair);
        for (HttpServer& each : servers) each.renew(pair);
        say("has read its certificate again");
    } catch (const std::exception& error) {
        say("keeps the certificate that it has: " + std::string(error.what()));
    }
}

// All at a time, so that the limit is one for all. Whether every request was answered.
bool stopAll(std::list<HttpServer>& servers, GrpcServer* grpc, std::chrono::seconds limit) {
    std::vector<std::future<bool>> ends;
    const auto add = [&](auto& server) {
        ends.push_back(std::async(std::launch::async, [&] { return server.stop(limit); }));
    };
    for (HttpServer& each : servers) add(each);
    if (grpc != nullptr) add(*grpc);
    return std::ranges::count_if(ends, [](auto& each) { return !each.get(); }) == 0;
}

// Requests that a service has that hangs end with their deadlines, which clients choose, and what
// frees graphs waits for it, too. The process goes without them.
void endBy(std::chrono::steady_clock::time_point end) {
    std::thread([end] {
        std::this_thread::sleep_until(end);
        say("what the service still has does not end; ends without it");
        std::_Exit(0);
    }).detach();
}

void serve(const Options& options) {
    constexpr std::chrono::seconds kLastAnswers(30);
    constexpr std::chrono::seconds kLastFrees(10);
    constexpr HttpLimits kFewAndSmall{.connections = 16, .json = 0, .body = 0};
    SignalWait signals({SIGTERM, SIGINT, SIGHUP});
    ::signal(SIGPIPE, SIG_IGN);
    LibkelmEngine engine(options.socket);
    Gateway gateway(engine, options.models, say, options.gateway);
    std::optional<TlsPair> tls;
    if (!options.tls.key.empty()) tls = TlsPair::read(options.tls);
    std::list<HttpServer> servers;
    for (const std::string& each : options.rest) {
        servers.emplace_back(ListenSocket(each), options.threads, options.limits,
                             makeRestHandler(gateway), tls);
        say("serves on " + each + ", port " + std::to_string(servers.back().port()));
    }
    const auto grpc = serveGrpc(options, gateway, tls);
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
    const auto renew = [&] {
        gateway.reopenLog();
        if (tls) renewTls(options.tls, servers, grpc.get());
    };
    while (signals.wait() == SIGHUP) renew();
    gateway.drain();
    say("drains for " + std::to_string(options.drain) + " s; a second signal ends it");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.drain);
    int signal = 0;
    while ((signal = signals.waitUntil(end)) == SIGHUP) renew();
    const auto limit = signal != 0 ? std::chrono::seconds(0) : kLastAnswers;
    endBy(std::chrono::steady_clock::now() + limit + kLastFrees);
    if (!stopAll(servers, grpc.get(), limit)) say("some requests were not answered");
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
