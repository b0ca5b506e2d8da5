#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "tools/kelmctl/BenchCommand.h"
#include "tools/kelmctl/InferCommand.h"
#include "tools/kelmctl/WaitReadyCommand.h"

namespace {

void addInfer(CLI::App& app, kelm::ctl::InferOptions& options) {
    CLI::App* command = app.add_subcommand("infer", "run one graph on one input file");
    command->add_option("--graph", options.graph, "compiled graph")->required();
    command->add_option("--input", options.input, "file with the input tensor")->required();
    command->add_option("--output", options.output, "file for the output tensor")->required();
    command->add_option("--tag", options.tag, "devices reserved under this tag");
    command->add_option("--stream", options.streamId, "a device of its own for this stream");
    command->add_option("--subclass", options.subclass, "device subclass")->capture_default_str();
    command->add_option("--timeout", options.timeout, "seconds for each step")
        ->capture_default_str();
}

void addBench(CLI::App& app, kelm::ctl::BenchOptions& options) {
    CLI::App* command = app.add_subcommand("bench", "measure the service with several clients");
    command->add_option("--graph", options.graphs, "compiled graph; may be given several times")
        ->required();
    command->add_option("--weights", options.weights,
                        "shares of the graphs as in 3,1; the first for client 0, and so on, the "
                        "last for all others");
    command->add_option("--clients", options.clients, "client processes")->capture_default_str();
    command->add_option("--depth", options.depth, "inferences in flight per client")
        ->capture_default_str();
    command->add_option("--seconds", options.seconds, "how long to run")->capture_default_str();
    command->add_option("--count", options.count, "inferences per client, instead of a time");
    command->add_option("--json", options.jsonFile, "also write the report to this file");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("kelmctl: run and measure inferences through the kelmdaemon service");
    app.require_subcommand(1);
    kelm::ctl::InferOptions infer;
    kelm::ctl::BenchOptions bench;
    double waitSeconds = 10.0;
    addInfer(app, infer);
    addBench(app, bench);
    app.add_subcommand("wait-ready", "wait until the service takes clients")
        ->add_option("--timeout", waitSeconds, "seconds to wait at most")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        if (app.got_subcommand("infer")) return kelm::ctl::runInfer(infer);
        if (app.got_subcommand("bench")) return kelm::ctl::runBench(bench);
        return kelm::ctl::runWaitReady(waitSeconds);
    } catch (const std::exception& error) {
        std::cerr << "kelmctl: " << error.what() << "\n";
        return 1;
    }
}
