// What does a task cost? The service on simulated devices, driven by `kelmctl bench`, against the
// bare exchange of its records and against gRPC's echo of the same bytes, in turn and in one run.
// bench/README.md tells what the columns and rows are.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Figures.h"
#include "bench/GrpcEcho.h"
#include "bench/SyscallCounter.h"
#include "bench/Table.h"
#include "bench/TaskCost.h"

namespace {

using namespace kelm::bench;

constexpr int kSchema = 1;
constexpr Load kLoads[] = {
    {.clients = 1, .depth = 1},
    {.clients = 4, .depth = 8},
    {.clients = 4, .depth = 8, .cpus = Cpus::kAll},
    {.clients = 16, .depth = 8, .cpus = Cpus::kAll},
    {.clients = 4, .depth = 8, .loadTensorMs = 1, .getResultMs = 2},
};

struct Options {
    double seconds = 2.0;
    int rounds = 3;
    std::string json;
    std::string daemon = KELM_DAEMON;
    std::string otherDaemon;
};

// What is measured under a load: a column of the load's table.
struct Subject {
    std::string name;
    std::function<Figures()> measure;
    Rounds rounds;
};

struct Contest {
    Load load;
    std::vector<Subject> subjects;
};

Build buildOf(const std::string& daemon) {
    const std::filesystem::path path = std::filesystem::canonical(daemon);
    const std::filesystem::path kelmctl = path.parent_path() / "kelmctl";
    if (!std::filesystem::exists(kelmctl)) {
        throw std::runtime_error("no kelmctl beside " + path.string());
    }
    return {path, kelmctl};
}

Subject serviceSubject(const std::string& name, const std::string& daemon, const Load& load,
                       double seconds) {
    const TaskCost cost(buildOf(daemon), load, seconds);
    return {name,
            [cost] {
                Figures figures = cost.timed();
                figures.merge(cost.counted());
                return figures;
            },
            {}};
}

Subject grpcSubject(const std::string& name, GrpcKind kind, const Load& load, double seconds) {
    return {name, [=] { return GrpcEcho::measure(kind, load, seconds); }, {}};
}

// gRPC has no devices to wait for, and more clients tell nothing more of it.
bool hasGrpc(const Load& load) {
    return GrpcEcho::isInstalled() && !load.devicesWait() && load.clients <= 4;
}

std::vector<Contest> contests(const Options& options) {
    std::vector<Contest> result;
    for (const Load& load : kLoads) {
        Contest contest{load, {}};
        auto& subjects = contest.subjects;
        subjects.push_back(serviceSubject("service", options.daemon, load, options.seconds));
        if (!options.otherDaemon.empty()) {
            subjects.push_back(serviceSubject("other", options.otherDaemon, load, options.seconds));
        }
        if (hasGrpc(load)) {
            subjects.push_back(grpcSubject("gRPC unary", GrpcKind::kUnary, load, options.seconds));
            subjects.push_back(
                grpcSubject("gRPC stream", GrpcKind::kStream, load, options.seconds));
        }
        result.push_back(std::move(contest));
    }
    return result;
}

// Every other round backwards, so that none always comes after the same one. Ratios are taken round
// by round, since a busy machine slows both of their terms.
void runRound(Contest& contest, int round, double seconds) {
    const Figures bare = measureBareExchange(contest.load, seconds);
    const size_t count = contest.subjects.size();
    for (size_t i = 0; i < count; ++i) {
        Subject& subject = contest.subjects[round % 2 == 1 ? i : count - 1 - i];
        Figures figures = subject.measure();
        if (!bare.empty()) {
            figures["requests_to_bare"] =
                figures.at("requests_per_second") / bare.at("bare_requests_per_second");
            figures["p50_to_bare"] = figures.at("p50_us") / bare.at("bare_p50_us");
        }
        figures.insert(bare.begin(), bare.end());
        subject.rounds.add(figures);
    }
}

std::optional<double> find(const Figures& figures, const std::string& key) {
    const auto found = figures.find(key);
    return found != figures.end() ? std::optional(found->second) : std::nullopt;
}

void printTable(const Contest& contest, bool compared) {
    std::vector<std::string> columns;
    std::vector<Figures> medians;
    for (const Subject& subject : contest.subjects) {
        columns.push_back(subject.name);
        medians.push_back(subject.rounds.medians());
    }
    if (compared) columns.insert(columns.begin() + 2, "other/serv.");
    Table table(contest.load.name(), columns);
    for (const Measure& measure : kMeasures) {
        std::vector<Table::Cell> cells;
        for (const Figures& figures : medians) {
            cells.push_back({find(figures, measure.key), measure.decimals});
        }
        if (compared) {
            Table::Cell ratio{std::nullopt, 3};
            if (cells[0].value && cells[1].value) ratio.value = *cells[1].value / *cells[0].value;
            cells.insert(cells.begin() + 2, ratio);
        }
        table.row(measure.label, cells);
    }
    table.print();
}

nlohmann::json toJson(const Contest& contest) {
    const Load& load = contest.load;
    nlohmann::json json{{"name", load.name()},
                        {"clients", load.clients},
                        {"depth", load.depth},
                        {"cpus", load.cpus == Cpus::kOne ? 1 : CpuPlacement::available()},
                        {"load_tensor_ms", load.loadTensorMs},
                        {"get_result_ms", load.getResultMs}};
    for (const Subject& subject : contest.subjects) {
        json["subjects"].push_back({{"name", subject.name},
                                    {"medians", subject.rounds.medians()},
                                    {"rounds", subject.rounds.all()}});
    }
    return json;
}

void writeJson(const Options& options, const std::vector<Contest>& all) {
    if (options.json.empty()) return;
    nlohmann::json json{{"schema", kSchema},
                        {"seconds", options.seconds},
                        {"rounds", options.rounds},
                        {"daemon", options.daemon},
                        {"other_daemon", options.otherDaemon}};
    for (const Contest& contest : all) json["loads"].push_back(toJson(contest));
    std::ofstream file(options.json, std::ios::trunc);
    file << json.dump(2) << std::endl;
    if (!file) throw std::runtime_error("cannot write " + options.json);
}

void printWhatIsMissing() {
    if (!GrpcEcho::isInstalled()) {
        std::puts(
            "\ngRPC is not installed (apt-get install libgrpc++-dev protobuf-compiler-grpc "
            "libprotobuf-dev)");
    }
    const SyscallCounter attempt(::getpid());
    if (attempt.whyNot().empty()) return;
    std::printf("\nsystem calls are not counted: %s\n", attempt.whyNot().c_str());
}

void run(const Options& options) {
    std::vector<Contest> all = contests(options);
    for (int round = 1; round <= options.rounds; ++round) {
        for (Contest& contest : all) {
            std::fprintf(stderr, "round %d of %d: %s\n", round, options.rounds,
                         contest.load.name().c_str());
            runRound(contest, round, options.seconds);
        }
    }
    std::printf("rounds: %d of %g s, medians; counts are for each task\n", options.rounds,
                options.seconds);
    for (const Contest& contest : all) printTable(contest, !options.otherDaemon.empty());
    printWhatIsMissing();
    writeJson(options, all);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("service_bench: what a task costs the service and its clients");
    Options options;
    app.add_option("--seconds", options.seconds, "for each measurement")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--rounds", options.rounds, "of all measurements, for the medians")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--json", options.json, "also write the figures to this file");
    app.add_option("--daemon", options.daemon, "the service, with its kelmctl beside it")
        ->capture_default_str()
        ->check(CLI::ExistingFile);
    app.add_option("--other-daemon", options.otherDaemon,
                   "another build of it, measured in turn with the first")
        ->check(CLI::ExistingFile);
    CLI11_PARSE(app, argc, argv);
    try {
        run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "service_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
