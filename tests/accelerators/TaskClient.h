#pragma once

#include "accelerators/SharedTensor.h"
#include "tests/wire/WireClient.h"

namespace kelm {

// A client with one graph that checks no result.
class TaskClient : private WireClient {
 public:
    TaskClient(const std::string& path, const std::string& graph)
        : WireClient(path, "tasks"), m_graph(createGraph({graph}).graphId) {}

    void submit(const SharedTensor& input, const SharedTensor& output,
                const SharedTensor* aux = nullptr) {
        auto request = makeInfer(m_graph);
        std::vector<int> descriptors;
        input.attach(request, KELM_FD_INPUT, descriptors);
        output.attach(request, KELM_FD_OUTPUT, descriptors);
        if (aux != nullptr) aux->attach(request, KELM_FD_AUX, descriptors);
        request.auxBuffer.auxFlags = request.auxBuffer.auxRequested = aux != nullptr ? 1 : 0;
        EXPECT_TRUE(send(request, descriptors));
    }
    // How the task ends, refused or done.
    int32_t wait() {
        const int32_t status = receive<KelmMsgRspInferTask>().head.status;
        return status != KELM_OK ? status : receive<KelmMsgEvtTaskDone>().status;
    }
    int32_t infer(const SharedTensor& input, const SharedTensor& output,
                  const SharedTensor* aux = nullptr) {
        submit(input, output, aux);
        return wait();
    }

 private:
    const uint64_t m_graph;
};

}  // namespace kelm
