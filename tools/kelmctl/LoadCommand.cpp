#include "tools/kelmctl/LoadCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>

#include "client/SnapshotReader.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/Timeout.h"

namespace kelm::ctl {

namespace {

using Clock = Timeout::Clock;

// Flushed: somebody may wait for it while the graph is held.
void tell(const std::string& text) { std::cout << text << std::endl; }

double millisSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Devices that hold the graph now.
uint32_t countDevices(uint64_t graphId, client::Deadline deadline) {
    const auto reader = take(client::SnapshotReader::connect({}, deadline));
    const client::Snapshot snapshot = take(reader->read(deadline));
    const auto found = std::ranges::find(snapshot.graphs, graphId,
                                         [](const client::GraphSnapshot& row) { return row.id; });
    return found != snapshot.graphs.end() ? found->runningDevices : 0;
}

void waitForDevice(const GraphSession& session, const LoadOptions& options,
                   Interruption& interruption) {
    constexpr std::chrono::milliseconds kPeriod{100};
    const Timeout timeout(options.graph.timeout);
    uint32_t devices = 0;
    while ((devices = countDevices(session.graph().id, timeout.left())) == 0) {
        const bool goesOn = interruption.sleepUntil(Clock::now() + kPeriod);
        if (!goesOn || timeout.isOver()) {
            throw std::runtime_error(
                fmt::format("no device holds the graph after {} s; kelmctl status shows what they "
                            "hold instead, and tasks of the graph bring it in",
                            options.graph.timeout));
        }
    }
    tell(fmt::format("devices that hold it: {}", devices));
}

void warm(GraphSession& session, uint32_t count) {
    client::TensorPool tensors(session.graph().inputSize, session.graph().outputSize);
    const auto slot = take(tensors.acquire());  // zeros, as all new memory
    const Clock::time_point begin = Clock::now();
    for (uint32_t i = 0; i < count; ++i) (void)session.run(*slot);
    tell(fmt::format("warmed with {} inferences, {:.3f} ms each", count,
                     millisSince(begin) / count));
}

// Ends by a signal; the registration has then been given back, and the graph with it.
void hold(const GraphSession& session, Interruption& interruption) {
    constexpr std::chrono::milliseconds kPeriod{200};
    tell("held until a signal comes");
    while (interruption.sleepUntil(Clock::now() + kPeriod)) {
        if (!session.service().isConnected() && interruption.signal() == 0) {
            throw std::runtime_error(
                "the service has ended, and the graph with it; start kelmdaemon and load it again");
        }
    }
}

void load(const LoadOptions& options, Interruption& interruption) {
    GraphSession session(options.graph, interruption);
    const Clock::time_point begin = Clock::now();
    session.open();
    const client::Graph& graph = session.graph();
    tell(fmt::format("graph {}: {} bytes of input, {} of output, loaded after {:.3f} ms", graph.id,
                     graph.inputSize, graph.outputSize, millisSince(begin)));
    if (options.wait) waitForDevice(session, options, interruption);
    if (options.warm > 0) warm(session, options.warm);
    if (options.hold) return hold(session, interruption);
    session.close();
}

}  // namespace

int runLoad(const LoadOptions& options) {
    Interruption interruption;
    return interruption.run([&] {
        load(options, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
