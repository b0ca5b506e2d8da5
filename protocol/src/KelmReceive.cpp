#include <cstring>
#include <exception>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessageAssembler.h"
#include "protocol/src/MessagePool.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"

namespace kelm {

namespace {

// The share of the connection passes to the message: its number stays until the answer is out.
MessagePtr receive(int connectionId, MessageAssembler& assembler) {
    try {
        auto connection = IPC::ConnectionBase::getConnectionById(connectionId);
        if (assembler.receiveWhole(*connection) != MessageAssembler::State::kWhole) return nullptr;
        return assembler.take(std::move(connection));
    } catch (const std::exception& e) {
        LOG_ERROR("%s", e.what());
        return nullptr;
    }
}

}  // namespace

KelmMsgBase* kelmReceiveMessage(int connectionId, PreparedBuffers prepared) {
    MessageAssembler assembler(prepared);
    return receive(connectionId, assembler).release();
}

int kelmReceiveMessage(int connectionId, KelmMsgBase* message, size_t size,
                       PreparedBuffers prepared) {
    CR_ASSERT(message);
    CR_ASSERT(size >= sizeof(KelmMsgBase));
    MessageAssembler assembler(prepared, size);
    const MessagePtr received = receive(connectionId, assembler);
    if (!received) return -1;
    std::memcpy(static_cast<void*>(message), received.get(), received->size);
    // The copy has the descriptors and inner buffers now, so the original must release none.
    received->fdNum = 0;
    received->innerBufferNum = 0;
    return static_cast<int>(received->size);
}

}  // namespace kelm
