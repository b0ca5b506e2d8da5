#pragma once

#include "protocol/src/KelmProtocol.h"
#include "records/Request.h"

namespace kelm {

// A request that came over no connection but is to be answered on that of number `socket`.
template <class Record>
Request makeRequest(KelmMsgType type, const Record& record, int socket) {
    MessagePtr message(kelmAllocMessage(type));
    const KelmMsgBase head = *message;
    *reinterpret_cast<Record*>(message.get()) = record;
    *message = head;
    reinterpret_cast<KelmMsgReq*>(message.get())->needResponse = 1;
    return Request(std::move(message), socket);
}

inline Request makeDestroyRequest(uint64_t clientId, int socket) {
    KelmMsgReqDestroyGraph record{};
    record.clientId = clientId;
    return makeRequest(KELM_MESSAGE_DESTROY_GRAPH_REQ, record, socket);
}

inline Request makeResetRequest(uint32_t deviceId = 0, int socket = 5, uint64_t clientId = 0,
                                bool all = false) {
    KelmMsgReqResetDevice record{};
    record.clientId = clientId;
    record.deviceId = deviceId;
    record.resetAllDevices = all ? 1 : 0;
    return makeRequest(KELM_MESSAGE_RESET_DEVICE_REQ, record, socket);
}

}  // namespace kelm
