#include "tools/kelmctl/InferCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "client/Client.h"
#include "client/FileBytes.h"
#include "tools/kelmctl/GraphFile.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

constexpr double kLeastTimeout = 0.001;
constexpr double kMostTimeout = 86400.0;

void writeAll(const std::string& path, std::span<const std::byte> bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

// The shared memory lives no longer than this call, so that nothing which may block afterwards
// leaves it behind.
void runTask(client::Client& service, const client::Graph& graph, std::span<const std::byte> input,
             const InferOptions& options, client::Deadline deadline, Interruption& interruption) {
    client::TensorPool tensors(graph.inputSize, graph.outputSize);
    const auto slot = take(tensors.acquire());
    // A shorter file leaves the rest of the input zero.
    std::copy(input.begin(), input.end(), slot->input().begin());
    client::InferRequest request;
    request.graphId = graph.id;
    request.input = slot->inputTensor();
    request.output = slot->outputTensor();
    std::future<client::InferResult> future = service.inferAsync(request, deadline);
    if (!interruption.waitFor(future))
        throw std::runtime_error("the service does not end the task");
    const client::InferResult result = future.get();
    require(result.error);
    writeAll(options.output, slot->output());
    std::cout << "task " << result.taskId << ": "
              << std::chrono::duration<double, std::milli>(result.resultLatency).count() << " ms, "
              << slot->output().size() << " bytes written to " << options.output << "\n";
}

void infer(const InferOptions& options, Interruption& interruption) {
    const client::Deadline deadline(static_cast<int64_t>(options.timeout * 1000.0));
    const std::vector<std::byte> input = client::readFileBytes(options.input);
    const GraphFile file(options.graph, options.graphByPath);
    const std::shared_ptr<client::Client> service = take(client::Client::connect());
    service->onWarning([](const std::string& text) { std::cerr << "kelmctl: " << text << "\n"; });
    require(service->registerClient("kelmctl", deadline));
    interruption.setService(service);
    client::GraphOptions graphOptions;
    graphOptions.tag = options.tag;
    graphOptions.streamId = options.streamId;
    graphOptions.subclass = options.subclass;
    const client::Graph graph = take(file.create(*service, graphOptions, deadline));
    if (input.size() > graph.inputSize) {
        throw std::runtime_error(fmt::format("the graph takes {} bytes of input, the file has {}",
                                             graph.inputSize, input.size()));
    }
    runTask(*service, graph, input, options, deadline, interruption);
    require(service->destroyGraph(graph.id, deadline));
    require(service->unregister(deadline));
}

}  // namespace

int runInfer(const InferOptions& options) {
    if (!(options.timeout >= kLeastTimeout && options.timeout <= kMostTimeout)) {
        throw UsageError("a time-out is 0.001 to 86400 seconds");
    }
    Interruption interruption;
    return interruption.run([&] {
        infer(options, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
