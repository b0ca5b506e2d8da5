#include "system/LoadClient.h"

namespace kelm {

namespace {

constexpr RawClient::Millis kPatience{60000};  // the service may be busy with graphs
constexpr uint64_t kUnregisterSequence = ~0ull;

std::string wrong(const char* what, uint64_t sequence) {
    return std::string(what) + ", reqSeqNo " + std::to_string(sequence);
}

}  // namespace

std::string LoadClient::run() {
    if (std::string failure = setUp(); !failure.empty()) return failure;
    while (mayStart() || m_inFlight > 0) {
        while (mayStart() && m_inFlight < m_plan.depth) {
            if (!submit()) return kLost;
        }
        const auto message = m_raw.receive(kPatience);
        if (!message) return kLost;
        if (std::string failure = take(*message); !failure.empty()) return failure;
    }
    return leave();
}

std::string LoadClient::setUp() {
    m_id = m_raw.registerClient(m_plan.name.c_str(), m_plan.apiMajorVersion);
    if (m_id == 0) return kLost;
    for (const std::string& graph : m_plan.graphs) {
        m_graphIds.push_back(createGraph(graph));
        if (m_graphIds.back() == 0) return kLost;
    }
    return {};
}

bool LoadClient::mayStart() const {
    return m_plan.count == 0 ? !m_board.stop : m_exchanges.size() < m_plan.count;
}

bool LoadClient::submit() {
    m_exchanges.emplace_back();
    ++m_inFlight;
    const uint64_t sequence = m_exchanges.size();
    const size_t graph = sequence % m_graphIds.size();
    return send(RawClient::inferRequest(m_id, m_graphIds[graph], sequence), graph);
}

LoadClient::Exchange* LoadClient::find(uint64_t sequence) {
    return sequence - 1 < m_exchanges.size() ? &m_exchanges[sequence - 1] : nullptr;
}

std::string LoadClient::take(const RawMessage& message) {
    if (message.type() == KELM_MESSAGE_INFER_TASK_RSP) {
        return takeAnswer(message.as<KelmMsgRspInferTask>());
    }
    const auto doneType =
        m_plan.apiMajorVersion < 2 ? KELM_MESSAGE_TASK_DONE_MSG : KELM_MESSAGE_TASK_DONE_EVT;
    if (message.type() != doneType) return wrong("unexpected message of type", message.type());
    if (doneType == KELM_MESSAGE_TASK_DONE_EVT) {
        const auto& event = message.as<KelmMsgEvtTaskDone>();
        return takeDone(event, event.reqSeqNo, event.status);
    }
    const auto& done = message.as<KelmMsgRspTaskDone>();
    return takeDone(done, done.head.reqSeqNo, done.head.status);
}

std::string LoadClient::takeAnswer(const KelmMsgRspInferTask& answer) {
    const uint64_t sequence = answer.head.reqSeqNo;
    Exchange* exchange = find(sequence);
    if (exchange == nullptr) return wrong("answer to no request", sequence);
    if (exchange->answered) return wrong("second create answer", sequence);
    if (answer.taskCookie0 != sequence) return wrong("answer with another cookie", sequence);
    exchange->answered = true;
    exchange->accepted = answer.head.status == KELM_OK;
    exchange->taskId = answer.taskId;
    if (exchange->accepted) return {};
    if (answer.head.status != KELM_ERROR_TOO_MANY_TASK) return wrong("refused", sequence);
    --m_inFlight;
    ++m_board.refused;
    return {};
}

template <class Done>
std::string LoadClient::takeDone(const Done& message, uint64_t sequence, int32_t status) {
    Exchange* exchange = find(sequence);
    if (exchange == nullptr) return wrong("done message to no request", sequence);
    if (!exchange->answered) return wrong("done message before the create answer", sequence);
    if (!exchange->accepted) return wrong("done message of a refused task", sequence);
    if (exchange->done) return wrong("second done message", sequence);
    if (message.taskId != exchange->taskId) return wrong("done message of another task", sequence);
    if (message.taskCookie0 != sequence) return wrong("done message, other cookie", sequence);
    if (status != KELM_OK) return wrong(("status " + std::to_string(status)).c_str(), sequence);
    if (std::string failure = checkResult(sequence); !failure.empty()) return failure;
    exchange->done = true;
    --m_inFlight;
    ++m_board.done;
    return {};
}

// Reads on to the last message, so that one too many is seen.
std::string LoadClient::leave() {
    auto request =
        RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ, kUnregisterSequence);
    request.clientId = m_id;
    if (!m_raw.send(request)) return kLost;
    for (;;) {
        const auto message = m_raw.receive(kPatience);
        if (!message) return kLost;
        if (message->type() == KELM_MESSAGE_UNREGISTER_RSP) break;
        if (std::string failure = take(*message); !failure.empty()) return failure;
    }
    return m_raw.receive(kPatience) ? "message behind the unregister answer" : "";
}

}  // namespace kelm
