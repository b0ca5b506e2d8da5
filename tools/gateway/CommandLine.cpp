#include "tools/gateway/CommandLine.h"

#include <CLI/CLI.hpp>

namespace kelm::gateway {

namespace {

constexpr const char* kAddress = "ADDRESS:PORT";
constexpr const char* kFile = "FILE";
constexpr const char* kBytes = "BYTES";

CLI::Option* add(CLI::App& app, const char* name, auto& value, const char* kind, const char* text) {
    return app.add_option(name, value, text)->type_name(kind);
}

CLI::Option* addNumber(CLI::App& app, const char* name, auto& value, const char* kind,
                       const char* text) {
    return add(app, name, value, kind, text)->capture_default_str();
}

// Without its words, which would stand in the kind's.
CLI::Validator range(unsigned least, unsigned most) {
    return CLI::Range(least, most).description("");
}

void addPlaces(CLI::App& app, Options& options) {
    add(app, "--models", options.models, "DIRECTORY", "the models' descriptions; must be given")
        ->required();
    add(app, "--rest", options.rest, kAddress,
        "where REST is served; also unix:PATH; may be given several times")
        ->default_str(options.rest.front());
    add(app, "--grpc", options.grpc, kAddress,
        "where gRPC is served; also unix:PATH; may be given several times");
    add(app, "--agent", options.agent, kAddress, "for HAProxy's agent check");
    add(app, "--metrics", options.metrics, kAddress, "for Prometheus, path /metrics");
    add(app, "--access-log", options.gateway.accessLog, kFile,
        "a line of JSON for each request; - is the standard output. SIGHUP opens it anew");
    auto* const certificate = add(
        app, "--tls-cert", options.tls.certificate, kFile,
        "PEM file of the certificate and those above it: all of REST and gRPC comes by TLS then, "
        "1.2 or later. SIGHUP reads it again");
    auto* const key = add(app, "--tls-key", options.tls.key, kFile,
                          "PEM file of its key, without a password; read with it");
    certificate->needs(key);
    key->needs(certificate);
    add(app, "--socket", options.socket, kFile, "the service's socket, if not the usual one");
}

}  // namespace

void addOptions(CLI::App& app, Options& options) {
    constexpr unsigned kMostThreads = 64, kHour = 3600, kMostConnections = 1U << 20;
    addPlaces(app, options);
    addNumber(app, "--threads", options.threads, "N",
              "threads of REST, and as many of gRPC; 1 to 64")
        ->check(range(1, kMostThreads));
    addNumber(app, "--drain", options.drain, "SECONDS",
              "time to serve on, not ready, after SIGTERM; up to an hour")
        ->check(range(0, kHour));
    addNumber(app, "--connections", options.limits.connections, "N",
              "connections at a time: on each address of REST, and on all of gRPC together")
        ->check(range(1, kMostConnections));
    addNumber(app, "--max-body", options.limits.body, kBytes, "of a request's body");
    addNumber(app, "--max-json", options.limits.json, kBytes, "of a request's JSON part");
    addNumber(app, "--json-memory", options.gateway.textMemory, kBytes,
              "of JSON, in requests and in answers, that all requests may hold together");
}

}  // namespace kelm::gateway
