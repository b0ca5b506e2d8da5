#include "tools/kelmctl/InferCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "client/FileBytes.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/OutputFile.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

// Pipes and devices may be named twice.
void checkOutput(const InferOptions& options) {
    std::error_code none;  // a file that is not there is told when it is opened
    if (!std::filesystem::is_regular_file(options.output, none)) return;
    for (const std::string& input : {options.graph.graph, options.input}) {
        if (std::filesystem::equivalent(input, options.output, none)) {
            throw UsageError("the output would replace " + input);
        }
    }
}

void checkSize(const std::vector<std::byte>& input, uint64_t wanted, const InferOptions& options) {
    const bool isTooShort = input.size() < wanted;
    if (input.size() == wanted || (isTooShort && options.pad)) return;
    throw std::runtime_error(
        fmt::format("the graph takes {} bytes of input, {} has {}; {}", wanted, options.input,
                    input.size(), isTooShort ? "--pad adds zeros" : "give it a file of that size"));
}

// The shared memory lives no longer than this call, so that nothing which may block afterwards
// leaves it behind.
std::string runTask(GraphSession& session, const std::vector<std::byte>& input,
                    OutputFile& output) {
    client::TensorPool tensors(session.graph().inputSize, session.graph().outputSize);
    const auto slot = take(tensors.acquire());
    // A shorter file leaves the rest of the input zero.
    std::copy(input.begin(), input.end(), slot->input().begin());
    const client::InferResult result = session.run(*slot);
    output.write(slot->output());
    return fmt::format("task {}: {:.3f} ms, {} bytes", result.taskId,
                       std::chrono::duration<double, std::milli>(result.resultLatency).count(),
                       slot->output().size());
}

void infer(const InferOptions& options, Interruption& interruption) {
    GraphSession session(options.graph, interruption);
    const std::vector<std::byte> input = client::readFileBytes(options.input);
    checkOutput(options);
    OutputFile output(options.output);
    session.open();
    checkSize(input, session.graph().inputSize, options);
    const std::string done = runTask(session, input, output);
    session.close();
    // Into a pipe only the output goes.
    (output.isPlain() ? std::cout : std::cerr) << done << " written to " << options.output << "\n";
}

}  // namespace

int runInfer(const InferOptions& options) {
    Interruption interruption;
    return interruption.run([&] {
        infer(options, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
