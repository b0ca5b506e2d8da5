#pragma once

#include <memory>

#include "protocol/src/KelmMessage.h"

namespace kelm {

// Frees a message with its inner buffers; null is accepted.
void kelmReleaseMessage(KelmMsgBase* message);

struct MessageDeleter {
    void operator()(KelmMsgBase* message) const { kelmReleaseMessage(message); }
};

// Owns a message that came from kelmReceiveMessage or kelmAllocMessage.
using MessagePtr = std::unique_ptr<KelmMsgBase, MessageDeleter>;

}  // namespace kelm
