#include "tools/kelmctl/TraceCommand.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "tools/kelmctl/TraceJson.h"
#include "tools/kelmctl/TracePairs.h"
#include "tools/kelmctl/TraceReader.h"
#include "tools/kelmctl/UsageError.h"
#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {

constexpr std::chrono::milliseconds kTimeToMeasure(50);
constexpr double kLeastMhz = 1.0;
constexpr double kMostMhz = 100000.0;

// Before the output is opened, which empties it.
void checkOptions(const TraceOptions& options) {
    if (options.tscMhz && !(*options.tscMhz >= kLeastMhz && *options.tscMhz <= kMostMhz)) {
        throw UsageError("a counter has 1 to 100000 MHz");
    }
    for (const std::string& input :
         {options.frames, options.tasks, options.threads, options.events}) {
        std::error_code none;  // a file that is not there is told when it is opened
        if (std::filesystem::equivalent(input, options.output, none)) {
            throw UsageError("the output would replace " + input);
        }
    }
}

// Ticks of this machine's counter in a microsecond.
double measureTsc() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    const uint64_t beginTicks = ThreadUtils::getRdtsc();
    std::this_thread::sleep_for(kTimeToMeasure);
    const Clock::time_point end = Clock::now();
    const uint64_t ticks = ThreadUtils::getRdtsc() - beginTicks;
    return static_cast<double>(ticks) /
           std::chrono::duration<double, std::micro>(end - begin).count();
}

// Lines as "[0] threadId=4711 threadName=TaskManagerT0"; others are passed over. The last name of
// an id counts, as the system uses ids again.
TraceJson::ThreadNames readThreadNames(const std::string& path) {
    constexpr std::string_view kId = "] threadId=";
    constexpr std::string_view kName = " threadName=";
    TraceJson::ThreadNames names;
    if (path.empty()) return names;
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    for (std::string line; std::getline(file, line);) {
        const size_t id = line.find(kId);
        const size_t name = line.find(kName);
        if (id == std::string::npos || name == std::string::npos || name < id) continue;
        uint32_t tid = 0;
        const char* const end = line.data() + name;
        const auto result = std::from_chars(line.data() + id + kId.size(), end, tid);
        if (result.ec != std::errc() || result.ptr != end) continue;
        names[tid] = line.substr(name + kName.size());
    }
    return names;
}

// Side by side, so that what the files have in common needs no memory.
void readFiles(TraceReader& frames, TraceReader& tasks, TracePairs& pairs, TraceJson& json) {
    TraceRow row;
    bool moreFrames = true;
    bool moreTasks = true;
    while (moreFrames || moreTasks) {
        if (moreTasks && (moreTasks = tasks.next(row))) {
            pairs.add(row, TraceFileKind::kTasks);
            json.add(row);
        }
        if (moreFrames && (moreFrames = frames.next(row))) pairs.add(row, TraceFileKind::kFrames);
    }
}

}  // namespace

int runTrace(const TraceOptions& options) {
    checkOptions(options);
    TraceReader frames(options.frames, TraceFileKind::kFrames);
    TraceReader tasks(options.tasks, TraceFileKind::kTasks);
    const double mhz = options.tscMhz ? *options.tscMhz : measureTsc();
    TraceNames names = TraceNames::read(options.events);
    TraceJson json(options.output, mhz, readThreadNames(options.threads), std::move(names));
    TracePairs pairs;
    readFiles(frames, tasks, pairs, json);
    const std::vector<TraceRow> onlyInFrames = pairs.onlyInFrames();
    for (const TraceRow& row : onlyInFrames) json.add(row, "only in the frames file");
    json.finish();
    const uint64_t spans = tasks.countRows() + onlyInFrames.size();
    std::cout << fmt::format(
        "{}: {} spans, {:.1f} ticks a microsecond\n"
        "rows only in the frames file: {}, only in the tasks file: {}, lines left out: {}\n",
        options.output, spans, mhz, onlyInFrames.size(), pairs.countOnlyInTasks(),
        frames.countMalformed() + tasks.countMalformed());
    if (spans == 0) std::cerr << "kelmctl: no usable row in " << options.tasks << "\n";
    return spans == 0 ? 1 : 0;
}

}  // namespace kelm::ctl
