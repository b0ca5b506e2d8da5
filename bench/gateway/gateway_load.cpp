// Clients of gateway_bench.py: processes that keep some requests in flight at a server that is
// there already, by gRPC or REST. Prints a line of JSON.

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "bench/gateway/Exchange.h"

namespace {

using namespace kelm::bench;

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void run(const Exchange& exchange, bool isRest, int clients) {
    Lanes lanes(clients);
    std::vector<pid_t> children;
    for (int i = 0; i < clients; ++i) {
        // gRPC must not be touched before a fork: its threads would be missing after it.
        const pid_t child = ::fork();
        if (child < 0) throw std::runtime_error("cannot fork");
        if (child == 0) isRest ? driveRest(exchange, lanes[i]) : driveGrpc(exchange, lanes[i]);
        children.push_back(child);
    }
    bool isGood = true;
    for (const pid_t child : children) {
        int status = 0;
        ::waitpid(child, &status, 0);
        isGood = isGood && status == 0;
    }
    if (!isGood) throw std::runtime_error("a client failed");
    const ExchangeResult result = lanes.over(exchange.time);
    std::printf("{\"rate\": %.1f, \"p50_us\": %.1f}\n", result.requestsPerSecond,
                result.medianMicros);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("gateway_load: clients of gateway_bench.py");
    Exchange exchange{};
    std::string file;
    bool isRest = false;
    int clients = 1;
    double seconds = 1.0;
    app.add_option("--address", exchange.address)->required();
    app.add_option("--target", exchange.target, "the method of gRPC");
    app.add_flag("--rest", isRest, "the file is a whole request of HTTP");
    app.add_option("--request", file, "file of the message")->required()->check(CLI::ExistingFile);
    app.add_option("--answer-bytes", exchange.answerBytes, "of an answer, at least")->required();
    app.add_option("--clients", clients);
    app.add_option("--depth", exchange.depth);
    app.add_option("--seconds", seconds);
    CLI11_PARSE(app, argc, argv);
    exchange.time = std::chrono::milliseconds(static_cast<int>(seconds * 1000));
    try {
        exchange.request = readFile(file);
        run(exchange, isRest, clients);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gateway_load: %s\n", error.what());
        return 1;
    }
}
