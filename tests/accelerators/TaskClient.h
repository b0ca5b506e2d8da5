#pragma once

#include <string>
#include <vector>

#include "accelerators/SharedTensor.h"
#include "tests/wire/WireClient.h"

namespace kelm {

// A client with one graph and one task at a time.
class TaskClient {
 public:
    TaskClient(const std::string& path, const std::string& graph) : m_raw(path, "one task") {
        m_graph = m_raw.createGraph({graph}).graphId;
    }

    bool hasGraph() const { return m_graph != 0; }

    // How the task ended; without `aux` it wants no such buffer. A positive number if an answer is
    // missing.
    int32_t infer(const SharedTensor& input, const SharedTensor& output,
                  const SharedTensor* aux = nullptr, uint32_t auxFlags = 0) {
        constexpr int32_t kNoAnswer = 1;
        auto request = m_raw.makeInfer(m_graph);
        std::vector<int> descriptors;
        input.attach(request, KELM_FD_INPUT, descriptors);
        output.attach(request, KELM_FD_OUTPUT, descriptors);
        if (aux != nullptr) {
            aux->attach(request, KELM_FD_AUX, descriptors);
            request.auxBuffer.auxFlags = auxFlags;
            request.auxBuffer.auxRequested = 1;
        }
        if (!m_raw.send(request, descriptors)) return kNoAnswer;
        const auto answer = m_raw.receiveType(KELM_MESSAGE_INFER_TASK_RSP);
        if (!answer) return kNoAnswer;
        if (const int32_t status = answer->as<KelmMsgRsp>().status) return status;
        const auto done = m_raw.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
        return done ? done->as<KelmMsgEvtTaskDone>().status : kNoAnswer;
    }

 private:
    WireClient m_raw;
    uint64_t m_graph = 0;
};

}  // namespace kelm
