#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <list>
#include <string>
#include <vector>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/LibkelmEngine.h"
#include "tools/gateway/SignalWait.h"
#include "tools/gateway/rest/HttpServer.h"
#include "tools/gateway/rest/RestRoutes.h"

namespace {

using namespace kelm::gateway;

struct Options {
    std::string models;
    std::vector<std::string> rest{"127.0.0.1:8000"};
    std::string socket;
    size_t threads = 2;
    unsigned drain = 5;
    HttpLimits limits;
};

void addOptions(CLI::App& app, Options& options) {
    app.add_option("--models", options.models, "folder of the models' descriptions")->required();
    app.add_option("--rest", options.rest, "ADDRESS:PORT or unix:PATH for REST, several times")
        ->capture_default_str();
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
    signals.wait();
    gateway.drain();
    say("drains for " + std::to_string(options.drain) + " s; a second signal ends it");
    const bool isHurried = signals.waitFor(std::chrono::seconds(options.drain));
    for (HttpServer& each : servers) {
        if (!each.stop(isHurried ? std::chrono::seconds(0) : kLastAnswers)) {
            say("some requests were not answered");
        }
    }
}

}  // namespace

// 0 after a signal, 2 for a mistake in the arguments, 1 for everything else; one line tells either.
int main(int argc, char** argv) {
    constexpr int kUsageStatus = 2;
    CLI::App app("Serves models over the Open Inference Protocol", "kelm-gateway");
    Options options;
    try {
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
