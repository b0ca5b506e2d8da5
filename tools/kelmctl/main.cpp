#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tools/kelmctl/BenchCommand.h"
#include "tools/kelmctl/ConfigCommand.h"
#include "tools/kelmctl/DoctorCommand.h"
#include "tools/kelmctl/InferCommand.h"
#include "tools/kelmctl/LoadCommand.h"
#include "tools/kelmctl/NearestName.h"
#include "tools/kelmctl/ResetCommand.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusCommand.h"
#include "tools/kelmctl/StopCommand.h"
#include "tools/kelmctl/TopCommand.h"
#include "tools/kelmctl/TraceCommand.h"
#include "tools/kelmctl/UsageError.h"
#include "tools/kelmctl/VersionCommand.h"
#include "tools/kelmctl/WaitReadyCommand.h"
#include "tools/kelmctl/export/ExportCommand.h"

namespace {

constexpr int kUsageStatus = 2;

// A command and what runs it once the command line has been read.
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

void addGraphByPath(CLI::App& command, bool& graphByPath) {
    command.add_flag("--graph-by-path", graphByPath,
                     "let the service open the graph's file, which must be readable for it, "
                     "instead of sending the bytes");
}

void addGraphChoice(CLI::App& command, kelm::ctl::GraphChoice& choice) {
    addGraphByPath(command, choice.graphByPath);
    command.add_option("--tag", choice.tag, "devices reserved under this tag");
    command.add_option("--stream", choice.streamId, "a device of its own for this stream");
    command.add_option("--subclass", choice.subclass, "device subclass")->capture_default_str();
    command.add_option("--timeout", choice.timeout, "seconds for each step")->capture_default_str();
}

Command addInfer(CLI::App& app) {
    CLI::App* command = app.add_subcommand("infer", "run one graph on one input file");
    // Shared with the command, here and below: the parser fills the options in when this function
    // has returned.
    const auto options = std::make_shared<kelm::ctl::InferOptions>();
    command->add_option("--graph", options->graph.graph, "compiled graph")->required();
    addGraphChoice(*command, options->graph);
    command->add_option("--input", options->input, "file with the input tensor")->required();
    command->add_option("--output", options->output, "file for the output tensor")->required();
    command->add_flag("--pad", options->pad, "add zeros to an input that is too short");
    return {command, [options] { return kelm::ctl::runInfer(*options); }};
}

Command addLoad(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "load", "load a graph, which stays for as long as this command or others use it");
    const auto options = std::make_shared<kelm::ctl::LoadOptions>();
    command->add_option("graph", options->graph.graph, "compiled graph")->required();
    addGraphChoice(*command, options->graph);
    command->add_flag("--wait", options->wait, "wait until a device holds it");
    command->add_option("--warm", options->warm, "then run so many inferences on zeros");
    command->add_flag("--hold", options->hold, "then keep it until a signal comes");
    return {command, [options] { return kelm::ctl::runLoad(*options); }};
}

Command addBench(CLI::App& app) {
    CLI::App* command = app.add_subcommand("bench", "measure the service with several clients");
    const auto options = std::make_shared<kelm::ctl::BenchOptions>();
    command->add_option("--graph", options->graphs, "compiled graph; may be given several times")
        ->required();
    addGraphByPath(*command, options->graphByPath);
    command->add_flag("--assign", options->assign, "each client takes one graph, in turn");
    command->add_option("--weights", options->weights,
                        "shares of the graphs as in 3,1; the first for client 0, and so on, the "
                        "last for all others");
    command->add_option("--clients", options->clients, "client processes")->capture_default_str();
    command
        ->add_option("--depth", options->depth,
                     "inferences in flight per client, or for each of its graphs as in 8,2")
        ->capture_default_str();
    command->add_option("--rate", options->rate,
                        "open loop: requests a second of all clients, evenly spaced; latency "
                        "counts from the time when they are due");
    command->add_flag("--poisson", options->poisson, "with --rate: at random distances");
    command->add_option("--warmup", options->warmup, "seconds that are not measured, first");
    command->add_option("--seconds", options->seconds,
                        "how long to measure (10), or each step of a search (3)");
    command->add_option("--count", options->count, "inferences per client, instead of a time");
    command->add_option("--until-stable", options->untilStable,
                        "until three windows are alike within 10%, for so many seconds at most");
    command->add_option("--window", options->window, "seconds of such a window (1)");
    command->add_flag("--find-rate", options->findRate,
                      "look for the highest rate whose 99th percentile keeps --p99");
    command->add_option("--p99", options->p99, "milliseconds");
    command
        ->add_option("--max-errors", options->maxErrors,
                     "calls that may fail before the exit status is 1")
        ->capture_default_str();
    command->add_option("--json", options->jsonFile, "also write the report to this file");
    return {command, [options] { return kelm::ctl::runBench(*options); }};
}

Command addStatus(CLI::App& app) {
    CLI::App* command = app.add_subcommand("status", "print devices, graphs and clients");
    const auto options = std::make_shared<kelm::ctl::StatusOptions>();
    command->add_flag("--json", options->json, "as one object a line");
    // An option may go without its number only with a text that stands in its place.
    command
        ->add_option("--watch", options->watch,
                     "again every so many seconds, 1 if no number is given")
        ->expected(0, 1)
        ->default_str("1");
    return {command, [options] { return kelm::ctl::runStatus(*options); }};
}

Command addTop(CLI::App& app) {
    CLI::App* command = app.add_subcommand("top", "watch the service live on the terminal");
    return {command, [] { return kelm::ctl::runTop(); }};
}

Command addTrace(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "trace",
        "turn the files of the service's tracer into a JSON file in the trace event format, for a "
        "trace viewer");
    const auto options = std::make_shared<kelm::ctl::TraceOptions>();
    command->add_option("frames", options->frames, "the file kelm-...-frames-....csv")->required();
    command->add_option("tasks", options->tasks, "the file kelm-...-tasks-....csv")->required();
    command->add_option("-o,--output", options->output, "the JSON file to write")->required();
    command->add_option("--threads", options->threads,
                        "the thread.info of the same run, which has the names of the threads");
    command->add_option("--tsc-mhz", options->tscMhz,
                        "rate of the time stamp counter on the machine that was traced; without "
                        "it, it is measured on this one in 50 milliseconds");
    return {command, [options] { return kelm::ctl::runTrace(*options); }};
}

Command addWaitReady(CLI::App& app) {
    CLI::App* command = app.add_subcommand("wait-ready", "wait until the service takes clients");
    const auto options = std::make_shared<kelm::ctl::WaitReadyOptions>();
    command->add_option("--timeout", options->timeout, "seconds to wait at most")
        ->capture_default_str();
    command->add_option("--devices", options->devices, "and until it has so many devices");
    command->add_option("--graph", options->graph,
                        "and until a device holds the graph of this name, or with this name at the "
                        "end of its path");
    return {command, [options] { return kelm::ctl::runWaitReady(*options); }};
}

Command addStop(CLI::App& app) {
    CLI::App* command = app.add_subcommand("stop", "end the service in order, and wait for it");
    const auto seconds = std::make_shared<double>(20.0);
    command->add_option("--timeout", *seconds, "seconds to wait at most")->capture_default_str();
    return {command, [seconds] { return kelm::ctl::runStop(*seconds); }};
}

Command addReset(CLI::App& app) {
    CLI::App* command = app.add_subcommand("reset", "reset a device, or all");
    const auto options = std::make_shared<kelm::ctl::ResetOptions>();
    command->add_option("device", options->device, "name or id, as kelmctl status lists it");
    command->add_flag("--all", options->all, "all devices");
    command->add_option("--timeout", options->timeout, "seconds to wait at most")
        ->capture_default_str();
    return {command, [options] { return kelm::ctl::runReset(*options); }};
}

// The command of two words; each of them has options of its own.
Command addConfig(CLI::App& app) {
    CLI::App* command = app.add_subcommand("config", "look at the configuration of the service");
    command->require_subcommand(1);
    const auto options = std::make_shared<kelm::ctl::ConfigOptions>();
    CLI::App* check = command->add_subcommand(
        "check", "tell what the service does not know, passes over or takes for something else");
    check->add_option("files", options->files,
                      "the files; without any, those that the service would read");
    CLI::App* show =
        command->add_subcommand("show", "print each key with the value that the service would use");
    show->add_flag("--origin", options->origin, "and the file that it comes from");
    show->add_flag("--json", options->json, "as one object");
    for (CLI::App* part : {check, show}) {
        part->add_option("-c,--config-file", options->configFiles,
                         "a file that the service is started with; may be given several times");
    }
    return {command, [check, options] {
                return check->parsed() ? kelm::ctl::runConfigCheck(*options)
                                       : kelm::ctl::runConfigShow(*options);
            }};
}

Command addDoctor(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("doctor", "look for what keeps the service or its clients from working");
    const auto options = std::make_shared<kelm::ctl::DoctorOptions>();
    command->add_option("--graph", options->graph.graph,
                        "compiled graph for an inference on accelerators; simulated devices need "
                        "none");
    addGraphChoice(*command, options->graph);
    command->add_option("-c,--config-file", options->configFiles,
                        "a file that the service is started with; may be given several times");
    command->add_flag("--json", options->json, "as one object");
    return {command, [options] { return kelm::ctl::runDoctor(*options); }};
}

Command addExport(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "export", "serve the status over HTTP, for Prometheus and for health checks");
    const auto options = std::make_shared<kelm::ctl::ExportOptions>();
    command->add_option("--listen", options->listen, "ADDRESS:PORT, with port 0 any free one")
        ->capture_default_str();
    command->add_option("--probe", options->probes,
                        "compiled graph to run at an interval; may be given several times");
    command->add_option("--probe-interval", options->probeInterval, "seconds")
        ->capture_default_str();
    return {command, [options] { return kelm::ctl::runExport(*options); }};
}

Command addVersion(CLI::App& app) {
    CLI::App* command = app.add_subcommand("version", "print the versions of tool and library");
    return {command, [] {
                std::cout << kelm::ctl::versionText() << "\n";
                return 0;
            }};
}

// The parser would take an unknown command for a mistake of the arguments behind it.
void checkCommand(const CLI::App& app, std::span<char*> words) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
        names.push_back(command->get_name());
    }
    if (names.empty()) return;
    const std::string parent = app.get_parent() == nullptr ? "" : app.get_name() + " ";
    if (words.empty()) {
        throw kelm::ctl::UsageError("no command; see kelmctl " + parent + "--help");
    }
    const std::string word = words[0];
    if (word.starts_with('-')) return;
    if (std::count(names.begin(), names.end(), word) == 0) {
        throw kelm::ctl::UsageError("unknown command '" + parent + word + "'; the nearest is '" +
                                    parent + kelm::ctl::findNearest(word, names) +
                                    "', see kelmctl " + parent + "--help");
    }
    checkCommand(*app.get_subcommand(word), words.subspan(1));
}

// The parser's words tell what is wrong, and not what would be right.
std::string helpFor(std::span<const Command> commands) {
    const auto parsed = std::ranges::find_if(
        commands, [](const Command& command) { return command.app->parsed(); });
    const bool isKnown = parsed != commands.end();
    return "; see kelmctl " + (isKnown ? parsed->app->get_name() + " " : "") + "--help";
}

// One line that a terminal does not obey, whatever names of other clients the text holds.
int fail(std::string text, int status) {
    std::ranges::replace(text, '\n', ' ');
    const bool utf8 = kelm::ctl::useTerminalLocale();
    std::cerr << "kelmctl: " << kelm::ctl::toUtf8(kelm::ctl::safeText(text, utf8)) << "\n";
    return status;
}

}  // namespace

// 2 for a mistake in the arguments, 1 for everything else that a command throws; one line tells
// either.
int main(int argc, char** argv) {
    CLI::App app("kelmctl: run, measure and watch inferences through the kelmdaemon service");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0; 1 when the command failed; 2 for a mistake in the arguments; 128 "
        "and the number of a signal that ended it early.");
    app.set_version_flag("--version", kelm::ctl::versionText);
    const Command commands[] = {addInfer(app),  addLoad(app),   addBench(app),     addStatus(app),
                                addTop(app),    addTrace(app),  addWaitReady(app), addStop(app),
                                addReset(app),  addConfig(app), addDoctor(app),    addExport(app),
                                addVersion(app)};
    try {
        checkCommand(app, std::span(argv, static_cast<size_t>(argc)).subspan(1));
        app.parse(argc, argv);
        for (const Command& command : commands) {
            if (command.app->parsed()) return command.run();
        }
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return fail(error.what() + helpFor(commands), kUsageStatus);
    } catch (const kelm::ctl::UsageError& error) {
        return fail(error.what(), kUsageStatus);
    } catch (const std::exception& error) {
        return fail(error.what(), 1);
    }
    return 1;
}
