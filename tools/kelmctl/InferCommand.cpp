#include "tools/kelmctl/InferCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "client/Client.h"

namespace kelm::ctl {

namespace {

std::vector<char> readAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeAll(const std::string& path, std::span<const std::byte> bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int runInfer(const InferOptions& options) {
    const client::Deadline deadline(static_cast<int64_t>(options.timeout * 1000.0));
    const std::vector<char> input = readAll(options.input);
    const auto service = take(client::Client::connect());
    service->onWarning([](const std::string& text) { std::cerr << "kelmctl: " << text << "\n"; });
    require(service->registerClient("kelmctl", deadline));
    client::GraphOptions graphOptions;
    graphOptions.name = options.graph;
    graphOptions.tag = options.tag;
    graphOptions.streamId = options.streamId;
    graphOptions.subclass = options.subclass;
    const client::Graph graph =
        take(service->createGraphFromFile(options.graph, graphOptions, deadline));
    if (input.size() > graph.inputSize) {
        throw std::runtime_error(fmt::format("the graph takes {} bytes of input, the file has {}",
                                             graph.inputSize, input.size()));
    }
    client::TensorPool tensors(graph.inputSize, graph.outputSize);
    const auto slot = take(tensors.acquire());
    // A shorter file leaves the rest of the input zero.
    std::transform(input.begin(), input.end(), slot->input().begin(),
                   [](char byte) { return static_cast<std::byte>(byte); });
    client::InferRequest request;
    request.graphId = graph.id;
    request.input = slot->inputTensor();
    request.output = slot->outputTensor();
    const client::InferResult result = service->infer(request, deadline);
    require(result.error);
    // Before the graph is destroyed: the result is safe even if one of the steps below fails.
    writeAll(options.output, slot->output());
    std::cout << "task " << result.taskId << ": "
              << std::chrono::duration<double, std::milli>(result.resultLatency).count() << " ms, "
              << slot->output().size() << " bytes written to " << options.output << "\n";
    require(service->destroyGraph(graph.id, deadline));
    require(service->unregister(deadline));
    return 0;
}

}  // namespace kelm::ctl
