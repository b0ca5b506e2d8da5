#include <algorithm>

#include "protocol/src/KelmProtocol.h"

namespace kelm {

namespace {

bool checkCounts(const KelmMsgBase& message) {
    return message.fdNum <= kMaxMessageFds && message.dataNum <= kMaxMessageBlocks &&
           message.recvNum <= kMaxMessageBlocks && message.peerRecvNum <= kMaxMessageBlocks &&
           message.innerBufferNum <= kMaxMessageBlocks;
}

bool checkDescriptors(const KelmMsgBase& message) {
    return std::all_of(message.fd, message.fd + message.fdNum, [](int32_t fd) { return fd >= 0; });
}

bool checkBlocks(const KelmMsgBase& message) {
    for (uint32_t i = 0; i < message.dataNum; ++i) {
        if (static_cast<uint32_t>(message.dataSize[i]) == 0) return false;
        if (message.data[i] == 0 && kelmKeepsBlock(message, i)) return false;
    }
    return true;
}

// What holds for one type beyond that. Everything else in a record is a number or a text that its
// manager answers with an error, or a list that is cut where it is read.
struct TypeCheck {
    KelmMsgType type;
    bool (*check)(const KelmMsgBase&);
};
constexpr TypeCheck kTypeChecks[] = {
    {KELM_MESSAGE_TEST_SEND_FD_REQ, [](const KelmMsgBase& message) { return message.fdNum == 1; }},
};

}  // namespace

bool checkMessage(const KelmMsgBase& message, size_t size) {
    if (size < sizeof(KelmMsgBase) || message.type >= kMessageTypes) return false;
    const uint64_t expected = KelmMessageSize[message.type];
    if (expected == 0 || message.size != expected || size < expected) return false;
    if (!checkCounts(message) || !checkDescriptors(message) || !checkBlocks(message)) return false;
    return std::all_of(std::begin(kTypeChecks), std::end(kTypeChecks), [&](const TypeCheck& row) {
        return row.type != message.type || row.check(message);
    });
}

}  // namespace kelm
