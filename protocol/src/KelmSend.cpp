#include <algorithm>
#include <exception>

#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessageSend.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr uint32_t kMaxWriteBytes = 1U << 30;  // of one call, whose size is an int

void sendBlock(IPC::ConnectionBase& connection, const void* block, uint32_t size) {
    const char* next = static_cast<const char*>(block);
    do {  // an empty block is left to the connection to refuse
        const uint32_t count = std::min(size, kMaxWriteBytes);
        connection.write(next, static_cast<int>(count));
        next += count;
        size -= count;
    } while (size > 0);
}

}  // namespace

// In the order in which the peer reads: the head's counts have told it what follows.
void sendFlatMessage(IPC::ConnectionBase& connection, const KelmMsgBase& message) {
    connection.write(&message, static_cast<int>(message.size));
    const uint32_t fdNum = std::min(message.fdNum, kMaxMessageFds);
    for (uint32_t i = 0; i < fdNum; ++i) connection.write(message.fd[i]);
    const uint32_t dataNum = std::min(message.dataNum, kMaxMessageBlocks);
    for (uint32_t i = 0; i < dataNum; ++i) {
        sendBlock(connection, reinterpret_cast<const void*>(message.data[i]),
                  static_cast<uint32_t>(message.dataSize[i]));
    }
}

// After a failure part of the message may be out: the connection is of no use then.
int kelmSendMessage(int connectionId, KelmMsgBase* message) {
    CR_ASSERT(message);
    try {
        const auto connection = IPC::ConnectionBase::getConnectionById(connectionId);
        if (flatMessage(message) != 0) return -1;
        MutexLock lock(connection->writeMutex());
        sendFlatMessage(*connection, *message);
        return 0;
    } catch (const std::exception& e) {
        LOG_ERROR("%s", e.what());
        return -1;
    }
}

}  // namespace kelm
