#pragma once

#include <cstdint>
#include <string>

#include "protocol/src/KelmMessage.h"

namespace kelm {

// What the log and the tracer need of a message after it has been written or dropped.
struct MessageTag {
    explicit MessageTag(const KelmMsgBase& message);

    // How the logs name it, behind "send".
    std::string text() const;
    // Ends the tracer's entry of the task whose end the message tells, if it tells one.
    void finishTaskLifeTrace() const;

    uint32_t type;
    uint64_t sequence = 0;
    uint64_t endedTaskId = 0;  // 0: tells no task's end
};

}  // namespace kelm
