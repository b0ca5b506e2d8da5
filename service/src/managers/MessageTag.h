#pragma once

#include <cstdint>
#include <string>

#include "protocol/src/KelmMessage.h"

namespace kelm {

// What the log and the tracer want to know of a message once it has been written or dropped.
struct MessageTag {
    explicit MessageTag(const KelmMsgBase& message);

    // How the logs name it, behind "send".
    std::string text() const;
    // It was the last word to its task, if it told the end of one.
    void finishTaskLifeTrace() const;

    uint32_t type;
    uint64_t sequence = 0;
    uint64_t endedTaskId = 0;  // 0: tells no task's end
};

}  // namespace kelm
