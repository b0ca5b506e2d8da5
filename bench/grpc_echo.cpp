// gRPC's echo over a Unix socket, with the bytes of an infer request and of its answers: one server
// process, client processes that keep some requests in flight, and nothing behind it. For
// service_bench, which it gives its figures in a JSON file.

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/EchoClient.h"
#include "bench/EchoServer.h"
#include "bench/EchoStep.h"
#include "bench/Lanes.h"
#include "bench/ProcessCounts.h"
#include "tests/fakes/TempDir.h"

namespace {

using namespace kelm::bench;

struct Options {
    int clients = 4;
    EchoLoad load;
    double seconds = 2.0;
    std::string json;
    std::string serve;
    size_t answerBytes = kEchoAnswerBytes;
};

// gRPC must not be touched before a fork: its threads would be missing after it.
pid_t startProcess(const std::function<void()>& body) {
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("cannot fork");
    if (pid != 0) return pid;
    body();
    ::_exit(1);
}

pid_t startServer(const std::string& address) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
    const pid_t server = startProcess([&] {
        serveEcho(address, kEchoAnswerBytes, [&] {
            if (::write(ready[1], "", 1) != 1) ::_exit(1);
        });
    });
    ::close(ready[1]);
    char byte = 0;
    const bool alive = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    if (!alive) throw std::runtime_error("the server did not start");
    return server;
}

void waitForAll(const std::vector<pid_t>& clients) {
    bool good = true;
    for (const pid_t client : clients) {
        int status = 0;
        ::waitpid(client, &status, 0);
        good = good && status == 0;
    }
    if (!good) throw std::runtime_error("a client failed");
}

nlohmann::json measure(const Options& options) {
    const kelm::TempDir dir;
    const std::string address = "unix:" + dir.path() + "/echo.sock";
    Lanes lanes(options.clients);
    const pid_t server = startServer(address);
    const ProcessCounts before = ProcessCounts::ofRunning(server);
    std::vector<pid_t> clients;
    for (int i = 0; i < options.clients; ++i) {
        clients.push_back(startProcess([&] { driveEcho(address, options.load, lanes[i]); }));
    }
    waitForAll(clients);
    const ProcessCounts service = ProcessCounts::ofRunning(server) - before;
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    const ProcessCounts client = lanes.counts();
    const ExchangeResult speed = lanes.over(options.load.time);
    const auto tasks = static_cast<double>(lanes.requests());
    return {{"requests_per_second", speed.requestsPerSecond},
            {"p50_us", speed.medianMicros},
            {"service_switches", service.switches / tasks},
            {"service_cpu_us", service.cpuMicros / tasks},
            {"client_switches", client.switches / tasks},
            {"client_cpu_us", client.cpuMicros / tasks}};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("grpc_echo: the exchange of an inference's bytes by gRPC");
    Options options;
    app.add_option("--clients", options.clients, "client processes")->capture_default_str();
    app.add_option("--depth", options.load.depth, "requests of each in flight")
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "how long to run")->capture_default_str();
    app.add_flag("--stream", options.load.stream, "one bidirectional stream in place of calls");
    app.add_option("--json", options.json, "file for the figures");
    app.add_option("--serve", options.serve, "serve at this address only, until killed");
    app.add_option("--answer-bytes", options.answerBytes, "of what is served so");
    CLI11_PARSE(app, argc, argv);
    options.load.time = std::chrono::milliseconds(static_cast<int>(options.seconds * 1000));
    if (!options.serve.empty()) serveEcho(options.serve, options.answerBytes, [] {});
    try {
        std::ofstream file(options.json, std::ios::trunc);
        file << measure(options).dump(2) << std::endl;
        return file ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "grpc_echo: %s\n", error.what());
        return 1;
    }
}
