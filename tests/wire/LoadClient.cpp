#include "tests/wire/LoadClient.h"

namespace kelm {
namespace {

constexpr WireClient::Millis kPatience{60000};  // the service may be busy with graphs
constexpr uint64_t kUnregisterSequence = ~0ull;

void require(bool holds, std::string_view what, uint64_t sequence) {
    if (!holds)
        throw std::runtime_error(std::string(what) + ", reqSeqNo " + std::to_string(sequence));
}

}  // namespace

std::string LoadClient::run() {
    try {
        if (m_raw.registerClient(m_plan.name, m_plan.apiMajorVersion) == 0) throw NoAnswer(kLost);
        for (const std::string& graph : m_plan.graphs) {
            m_graphIds.push_back(createGraph(graph));
            if (m_graphIds.back() == 0) throw NoAnswer(kLost);
        }
        while (mayStart() || m_inFlight > 0) {
            while (mayStart() && m_inFlight < m_plan.depth) submit();
            if (m_inFlight > 0) take(receive());  // 0 if the stop came in between
        }
        leave();
    } catch (const NoAnswer&) {
        return kLost;
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}

bool LoadClient::mayStart() const {
    return m_plan.count == 0 ? !m_board.stop : m_exchanges.size() < m_plan.count;
}

void LoadClient::submit() {
    m_exchanges.emplace_back();
    ++m_inFlight;
    const uint64_t sequence = m_exchanges.size();
    const size_t graph = sequence % m_graphIds.size();
    auto request = m_raw.makeInfer(m_graphIds[graph]);
    request.head.reqSeqNo = request.taskCookie0 = sequence;
    if (!send(request, graph)) throw NoAnswer(kLost);
}

WireMessage LoadClient::receive() const {
    auto message = m_raw.receive(kPatience);
    if (!message) throw NoAnswer(kLost);
    return std::move(*message);
}

void LoadClient::take(const WireMessage& message) {
    const uint32_t type = message.type();
    const bool isOld = m_plan.apiMajorVersion < 2;
    if (type == KELM_MESSAGE_INFER_TASK_RSP) {
        takeAnswer(message.as<KelmMsgRspInferTask>());
    } else if (isOld && type == KELM_MESSAGE_TASK_DONE_MSG) {
        const auto& done = message.as<KelmMsgRspTaskDone>();
        require(done.head.rspSeqNo == done.head.reqSeqNo, "two numbers", done.head.reqSeqNo);
        takeDone(done, done.head.reqSeqNo, done.head.status);
    } else {
        require(!isOld && type == KELM_MESSAGE_TASK_DONE_EVT, "unexpected type", type);
        const auto& event = message.as<KelmMsgEvtTaskDone>();
        takeDone(event, event.reqSeqNo, event.status);
    }
}

void LoadClient::takeAnswer(const KelmMsgRspInferTask& answer) {
    const uint64_t sequence = answer.head.reqSeqNo;
    Exchange& exchange = m_exchanges.at(sequence - 1);
    require(!exchange.answered, "second create answer", sequence);
    require(answer.taskCookie0 == sequence, "answer with another cookie", sequence);
    exchange.answered = true;
    exchange.accepted = answer.head.status == KELM_OK;
    exchange.taskId = answer.taskId;
    if (exchange.accepted) return;
    require(answer.head.status == KELM_ERROR_TOO_MANY_TASK, "refused", sequence);
    --m_inFlight;
    ++m_board.refused;
}

template <class Done>
void LoadClient::takeDone(const Done& message, uint64_t sequence, int32_t status) {
    Exchange& exchange = m_exchanges.at(sequence - 1);
    require(exchange.answered, "done message before the create answer", sequence);
    require(exchange.accepted, "done message of a refused task", sequence);
    require(!exchange.done, "second done message", sequence);
    require(message.taskId == exchange.taskId, "done message of another task", sequence);
    require(message.taskCookie0 == sequence, "done message, other cookie", sequence);
    require(status == KELM_OK, "status " + std::to_string(status), sequence);
    const std::string failure = checkResult(sequence);
    require(failure.empty(), failure, sequence);
    exchange.done = true;
    --m_inFlight;
    ++m_board.done;
}

// Reads on to the last message, so that one too many is seen.
void LoadClient::leave() {
    auto request = m_raw.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    request.head.reqSeqNo = kUnregisterSequence;
    if (!m_raw.send(request)) throw NoAnswer(kLost);
    for (;;) {
        const WireMessage message = receive();
        if (message.type() == KELM_MESSAGE_UNREGISTER_RSP) break;
        take(message);
    }
    require(m_raw.canReceive(kPatience), "still connected behind the answer", kUnregisterSequence);
    require(!m_raw.receive(), "message behind the unregister answer", kUnregisterSequence);
}

}  // namespace kelm
