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
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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
    std::string tlsCert;
    std::string tlsKey;
    std::string socket;
    size_t threads = 2;
    unsigned drain = 5;
    HttpLimits limits;
};

void addOptions(CLI::App& app, Options& options) {
    app.add_option("--models", options.models, "folder of the models' descriptions")->required();
    app.add_option("--rest", options.rest, "ADDRESS:PORT or unix:PATH for REST, several times")
        ->capture_default_str();
    app.add_option("--grpc", options.grpc, "ADDRESS:PORT or unix:PATH for gRPC, several times");
    auto* const cert =
        app.add_option("--tls-cert", options.tlsCert, "PEM file of the certificate, for TLS")
            ->check(CLI::ExistingFile);
    auto* const key = app.add_option("--tls-key", options.tlsKey, "PEM file of its key")
                          ->check(CLI::ExistingFile)
                          ->needs(cert);
    cert->needs(key);
    app.add_option("--socket", options.socket, "the service's socket, if not the usual one");
    app.add_option("--threads", options.threads, "threads of all connections")
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
    auto server =
        std::make_unique<GrpcServer>(gateway, std::move(sockets), options.threads, limits,
                                     GrpcTls{readFile(options.tlsCert), readFile(options.tlsKey)});
    for (size_t i = 0; i < options.grpc.size(); ++i) {
        say("serves gRPC on " + options.grpc[i] + ", port " + std::to_string(server->port(i)));
    }
    return server;
}

void serve(const Options& options) {
    constexpr std::chrono::seconds kLastAnswers(30);
    SignalWait signals({SIGTERM, SIGINT});
    ::signal(SIGPIPE, SIG_IGN);
    LibkelmEngine engine(options.socket);
    Gateway gateway(engine, options.models, say);
    std::list<HttpServer> servers;
    for (const std::string& each : options.rest) {
        servers.emplace_back(ListenSocket(each), options.threads, options.limits,
                             makeRestHandler(gateway));
        say("serves on " + each + ", port " + std::to_string(servers.back().port()));
    }
    const auto grpc = serveGrpc(options, gateway);
    signals.wait();
    gateway.drain();
    say("drains for " + std::to_string(options.drain) + " s; a second signal ends it");
    const bool isHurried = signals.waitFor(std::chrono::seconds(options.drain));
    const auto limit = isHurried ? std::chrono::seconds(0) : kLastAnswers;
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
