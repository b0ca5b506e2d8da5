#include "tools/kelmctl/CommandTree.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>

#include "tools/kelmctl/BenchCommand.h"
#include "tools/kelmctl/ConfigCommand.h"
#include "tools/kelmctl/DoctorCommand.h"
#include "tools/kelmctl/EventsCommand.h"
#include "tools/kelmctl/ExplainCommand.h"
#include "tools/kelmctl/InferCommand.h"
#include "tools/kelmctl/LoadCommand.h"
#include "tools/kelmctl/ResetCommand.h"
#include "tools/kelmctl/StatusCommand.h"
#include "tools/kelmctl/StopCommand.h"
#include "tools/kelmctl/TopCommand.h"
#include "tools/kelmctl/TraceCommand.h"
#include "tools/kelmctl/VersionCommand.h"
#include "tools/kelmctl/WaitReadyCommand.h"
#include "tools/kelmctl/export/ExportCommand.h"

namespace kelm::ctl {

namespace {

CLI::Option* addFile(CLI::App& command, const char* name, auto& value, const char* text) {
    return command.add_option(name, value, text)->type_name(kFileKind);
}

CLI::Option* addTimeout(CLI::App& command, double& seconds, const char* text) {
    return command.add_option("--timeout", seconds, text)
        ->type_name("SECONDS")
        ->capture_default_str();
}

void addGraphByPath(CLI::App& command, bool& graphByPath) {
    command.add_flag("--graph-by-path", graphByPath,
                     "let the service open the graph's file, which must be readable for its "
                     "account, instead of sending the bytes");
}

void addGraphChoice(CLI::App& command, GraphChoice& choice) {
    addGraphByPath(command, choice.graphByPath);
    command.add_option("--tag", choice.tag, "devices reserved under this tag")->type_name("TAG");
    command.add_option("--stream", choice.streamId, "a device of its own for this stream")
        ->type_name("ID");
    command.add_option("--subclass", choice.subclass, "device subclass")
        ->type_name("N")
        ->capture_default_str();
    addTimeout(command, choice.timeout, "for each step: connecting, loading, the task");
}

void addConfigFiles(CLI::App& command, std::vector<std::string>& files) {
    addFile(command, "-c,--config-file", files,
            "a file that the service is started with; may be given several times");
}

Command addInfer(CLI::App& app) {
    CLI::App* command = app.add_subcommand("infer", "run one graph on one input file");
    // Shared with the command, here and below: the parser fills the options in when this function
    // has returned.
    const auto options = std::make_shared<InferOptions>();
    addFile(*command, "--graph", options->graph.graph, "compiled graph")->required();
    addGraphChoice(*command, options->graph);
    addFile(*command, "--input", options->input,
            "the input tensor, exactly as many bytes as the graph takes; a pipe will do")
        ->required();
    addFile(*command, "--output", options->output,
            "for the output tensor; opened before the service is asked for anything")
        ->required();
    command->add_flag("--pad", options->pad,
                      "add zeros to an input that is too short; one that is too long is refused");
    return {command, [options] { return runInfer(*options); }};
}

Command addLoad(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "load", "load a graph, which stays for as long as this command or others use it");
    const auto options = std::make_shared<LoadOptions>();
    addFile(*command, "graph", options->graph.graph, "compiled graph")->required();
    addGraphChoice(*command, options->graph);
    command->add_flag("--wait", options->wait,
                      "wait until a device holds it, for the time-out at most");
    command->add_option("--warm", options->warm, "then run so many inferences on zeros, one by one")
        ->type_name("N");
    command->add_flag("--hold", options->hold,
                      "then keep it until a signal comes; 1 if the service goes first");
    return {command, [options] { return runLoad(*options); }};
}

void addBenchLoad(CLI::App& command, BenchOptions& options) {
    addFile(command, "--graph", options.graphs, "compiled graph; may be given up to 16 times")
        ->required();
    addGraphByPath(command, options.graphByPath);
    command.add_option("--clients", options.clients, "client processes, up to 512")
        ->type_name("N")
        ->capture_default_str();
    command.add_flag("--assign", options.assign,
                     "client 0 takes the first graph alone, client 1 the second, and so on in "
                     "turn; else each client uses all graphs");
    command
        .add_option("--weights", options.weights,
                    "shares of the graphs in a client's requests; 0: the client does not load the "
                    "graph. Given several times, the first is for client 0, and so on, the last "
                    "for all others")
        ->type_name("A,B")
        ->default_str("1,1");
    command
        .add_option("--depth", options.depth,
                    "the window of a client: so many requests are in flight at most; or as in 8,2 "
                    "a window for each graph, in their order: a slow graph then keeps no place "
                    "that another one could use")
        ->type_name("N")
        ->capture_default_str();
    command
        .add_option("--rate", options.rate,
                    "open loop: requests a second of all clients together, evenly spaced; latency "
                    "counts from the time when they are due")
        ->type_name("R");
    command.add_flag("--poisson", options.poisson,
                     "with --rate or --find-rate: at random distances instead of even ones");
}

Command addBench(CLI::App& app) {
    CLI::App* command = app.add_subcommand("bench", "measure the service with several clients");
    const auto options = std::make_shared<BenchOptions>();
    addBenchLoad(*command, *options);
    command->add_option("--warmup", options->warmup, "load first that is not measured")
        ->type_name("SECONDS")
        ->default_str("0, of each step of a search 1");
    command->add_option("--seconds", options->seconds, "how long to measure")
        ->type_name("SECONDS")
        ->default_str("10, each step of a search 3");
    command
        ->add_option("--count", options->count, "measure so many inferences of each client instead")
        ->type_name("N");
    command
        ->add_option("--until-stable", options->untilStable,
                     "until three windows are alike within 10%, for so many seconds at most")
        ->type_name("SECONDS");
    command->add_option("--window", options->window, "length of such a window")
        ->type_name("SECONDS")
        ->default_str("1");
    command->add_flag("--find-rate", options->findRate,
                      "look for the highest rate whose 99th percentile keeps --p99");
    command->add_option("--p99", options->p99, "bound of the 99th percentile, in milliseconds")
        ->type_name("MS");
    command
        ->add_option("--max-errors", options->maxErrors,
                     "calls that may fail before the exit status is 1")
        ->type_name("N")
        ->capture_default_str();
    addFile(*command, "--json", options->jsonFile,
            "also write the report to this file, which is opened before the run and keeps its old "
            "contents until then");
    return {command, [options] { return runBench(*options); }};
}

Command addStatus(CLI::App& app) {
    CLI::App* command = app.add_subcommand("status", "print devices, graphs and clients");
    const auto options = std::make_shared<StatusOptions>();
    command->add_flag("--json", options->json, "as one object a line");
    // An option may go without its number only with a text that stands in its place.
    command
        ->add_option("--watch", options->watch,
                     "again every so many seconds, 0.1 to 86400; 1 if no number is given")
        ->type_name("SECONDS")
        ->expected(0, 1)
        ->default_str("1");
    return {command, [options] { return runStatus(*options); }};
}

Command addTop(CLI::App& app) {
    CLI::App* command = app.add_subcommand("top", "watch the service live on the terminal");
    return {command, [] { return runTop(); }};
}

Command addEvents(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "events", "print what has happened to graphs, devices and clients, and why");
    const auto options = std::make_shared<EventsOptions>();
    command->add_flag("--follow", options->follow, "and what happens from now on");
    command->add_flag("--json", options->json, "as one object a line");
    command
        ->add_option("--since", options->since,
                     "only events from this number on, or from this time: an age as 90s, 10m, 2h "
                     "or 1d, a time as 21:30 or 2026-01-31T21:30:05")
        ->type_name("SEQ|TIME");
    return {command, [options] { return runEvents(*options); }};
}

Command addExplain(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("explain", "tell where a graph is, why, and what would change it");
    const auto options = std::make_shared<ExplainOptions>();
    command->add_option("graph", options->graph, "id or name, or the end of its path")
        ->type_name("GRAPH")
        ->required();
    command->add_flag("--json", options->json, "as one object");
    return {command, [options] { return runExplain(*options); }};
}

Command addTrace(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "trace",
        "turn the files of the service's tracer into a JSON file in the trace event format, for a "
        "trace viewer");
    const auto options = std::make_shared<TraceOptions>();
    addFile(*command, "frames", options->frames, "the file kelm-...-frames-....csv")->required();
    addFile(*command, "tasks", options->tasks, "the file kelm-...-tasks-....csv")->required();
    addFile(*command, "-o,--output", options->output, "the JSON file to write")->required();
    addFile(*command, "--threads", options->threads,
            "the thread.info of the same run, which has the names of the threads");
    addFile(*command, "--events", options->events,
            "the output of kelmctl events --json of the same run, which has the names of graphs "
            "and devices");
    command
        ->add_option("--tsc-mhz", options->tscMhz,
                     "rate of the time stamp counter on the machine that was traced; without it, "
                     "it is measured on this one in 50 milliseconds")
        ->type_name("MHZ");
    return {command, [options] { return runTrace(*options); }};
}

Command addWaitReady(CLI::App& app) {
    CLI::App* command = app.add_subcommand("wait-ready", "wait until the service takes clients");
    const auto options = std::make_shared<WaitReadyOptions>();
    addTimeout(*command, options->timeout, "how long to wait at most");
    command->add_option("--devices", options->devices, "and until it has so many devices")
        ->type_name("N");
    command
        ->add_option("--graph", options->graph,
                     "and until a device holds the graph of this name, or with this name at the "
                     "end of its path")
        ->type_name("NAME");
    return {command, [options] { return runWaitReady(*options); }};
}

Command addStop(CLI::App& app) {
    CLI::App* command = app.add_subcommand("stop", "end the service in order, and wait for it");
    const auto seconds = std::make_shared<double>(20.0);
    addTimeout(*command, *seconds, "how long to wait at most");
    return {command, [seconds] { return runStop(*seconds); }};
}

Command addReset(CLI::App& app) {
    CLI::App* command = app.add_subcommand("reset", "reset a device, or all");
    const auto options = std::make_shared<ResetOptions>();
    command->add_option("device", options->device, "name or id, as kelmctl status lists it")
        ->type_name("DEVICE");
    command->add_flag("--all", options->all, "all devices");
    addTimeout(*command, options->timeout, "how long to wait at most");
    return {command, [options] { return runReset(*options); }};
}

// The command of two words; each of them has options of its own.
Command addConfig(CLI::App& app) {
    CLI::App* command = app.add_subcommand("config", "look at the configuration of the service");
    command->require_subcommand(1);
    const auto options = std::make_shared<ConfigOptions>();
    CLI::App* check = command->add_subcommand(
        "check", "tell what the service does not know, passes over or takes for something else");
    addFile(*check, "file", options->files,
            "checked instead of the files that the service would read");
    CLI::App* show =
        command->add_subcommand("show", "print each key with the value that the service would use");
    show->add_flag("--origin", options->origin, "and the file that it comes from");
    show->add_flag("--json", options->json, "as one object");
    for (CLI::App* part : {check, show}) addConfigFiles(*part, options->configFiles);
    return {command, [check, options] {
                return check->parsed() ? runConfigCheck(*options) : runConfigShow(*options);
            }};
}

Command addDoctor(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("doctor", "look for what keeps the service or its clients from working");
    const auto options = std::make_shared<DoctorOptions>();
    addFile(*command, "--graph", options->graph.graph,
            "compiled graph for an inference on accelerators; simulated devices need none");
    addGraphChoice(*command, options->graph);
    addConfigFiles(*command, options->configFiles);
    command->add_flag("--json", options->json, "as one object");
    return {command, [options] { return runDoctor(*options); }};
}

Command addExport(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "export", "serve the status over HTTP, for Prometheus, health checks and people");
    const auto options = std::make_shared<ExportOptions>();
    command
        ->add_option("--listen", options->listen,
                     "an IPv4 address, an IPv6 address in brackets, or localhost, and a port; 0 is "
                     "any free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    addFile(*command, "--probe", options->probes,
            "compiled graph to run at an interval; may be given several times");
    command->add_option("--probe-interval", options->probeInterval, "0.1 to 86400")
        ->type_name("SECONDS")
        ->capture_default_str();
    return {command, [options] { return runExport(*options); }};
}

Command addVersion(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("version", "print the versions of tool, library and protocol");
    return {command, [] {
                std::cout << versionText() << "\n";
                return 0;
            }};
}

}  // namespace

std::vector<Command> addCommands(CLI::App& app) {
    app.description("run, measure and watch inferences through the kelmdaemon service");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0; 1 when the command failed; 2 for a mistake in the arguments; 128 "
        "and the number of a signal that ended it early.");
    app.set_version_flag("--version", versionText,
                         "print the versions of tool, library and protocol");
    return {addInfer(app),  addLoad(app),    addBench(app),  addStatus(app),    addTop(app),
            addEvents(app), addExplain(app), addTrace(app),  addWaitReady(app), addStop(app),
            addReset(app),  addConfig(app),  addDoctor(app), addExport(app),    addVersion(app)};
}

}  // namespace kelm::ctl
