#include "records/Request.h"

#include <cstddef>
#include <exception>
#include <utility>

#include "utils/ConnectionBase.h"
#include "utils/Log.h"

namespace kelm {

// Every request that names a client does so right behind its head.
static_assert(offsetof(KelmMsgReqUnregister, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqCreateGraph, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqDestroyGraph, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqInferTask, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqCancelTask, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqQueryStatus, clientId) == sizeof(KelmMsgReq) &&
              offsetof(KelmMsgReqResetDevice, clientId) == sizeof(KelmMsgReq));

namespace {

bool isBecauseOfException() {
    return std::uncaught_exceptions() > 0 || std::current_exception() != nullptr;
}

void endConnection(int socket) {
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    if (connection) connection->shutdown();
}

}  // namespace

// Not the generated one, which would release what this held without a word in the log.
Request& Request::operator=(Request&& other) noexcept {
    if (this == &other) return *this;
    abandon();
    m_message = std::move(other.m_message);
    m_socket = other.m_socket;
    m_kept = std::move(other.m_kept);
    return *this;
}

// Any record of a type that names a client may be read as this one, see above.
uint64_t Request::getClientId() const {
    const KelmMsgType type = getType();
    if (type == KELM_MESSAGE_REGISTER_REQ || type == KELM_MESSAGE_TEST_SEND_FD_REQ) return 0;
    return as<KelmMsgReqUnregister>().clientId;
}

// The test message is no request: it has no such field.
bool Request::wantsAnswer() const {
    return getType() != KELM_MESSAGE_TEST_SEND_FD_REQ && as<KelmMsgReq>().needResponse != 0;
}

// The log names the request while its message is still there, and its connection has its number.
void Request::abandon() noexcept {
    if (!m_message) return;
    if (wantsAnswer()) {
        LOG_WARN("Warn: %s of client(id:%lu) on socket(%d) gets no answer",
                 KelmMsgTypeStr[getType()], getClientId(), m_socket);
        if (isBecauseOfException()) endConnection(m_socket);
    }
    m_message.reset();
}

}  // namespace kelm
