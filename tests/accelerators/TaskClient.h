#pragma once

#include <string>
#include <vector>

#include "accelerators/SharedTensor.h"
#include "tests/wire/WireClient.h"

namespace kelm {

// A client with one graph that checks no result.
class TaskClient {
 public:
    static constexpr int32_t kNoAnswer = 1;

    TaskClient(const std::string& path, const std::string& graph) : m_raw(path, "tasks") {
        m_graph = m_raw.createGraph({graph}).graphId;
    }

    bool submit(const SharedTensor& input, const SharedTensor& output,
                const SharedTensor* aux = nullptr, uint32_t auxFlags = 0) {
        auto request = m_raw.makeInfer(m_graph);
        std::vector<int> descriptors;
        input.attach(request, KELM_FD_INPUT, descriptors);
        output.attach(request, KELM_FD_OUTPUT, descriptors);
        if (aux != nullptr) {
            aux->attach(request, KELM_FD_AUX, descriptors);
            request.auxBuffer.auxFlags = auxFlags;
            request.auxBuffer.auxRequested = 1;
        }
        return m_raw.send(request, descriptors);
    }
    // How the next task ends, refused ones included.
    int32_t wait() {
        while (const auto message = m_raw.receive()) {
            if (message->type() == KELM_MESSAGE_TASK_DONE_EVT) {
                return message->as<KelmMsgEvtTaskDone>().status;
            }
            if (const int32_t status = message->as<KelmMsgRsp>().status) return status;
        }
        return kNoAnswer;
    }
    int32_t infer(const SharedTensor& input, const SharedTensor& output,
                  const SharedTensor* aux = nullptr, uint32_t auxFlags = 0) {
        return submit(input, output, aux, auxFlags) ? wait() : kNoAnswer;
    }

 private:
    WireClient m_raw;
    uint64_t m_graph = 0;
};

}  // namespace kelm
