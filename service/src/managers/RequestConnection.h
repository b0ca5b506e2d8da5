#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "protocol/src/MessageAssembler.h"
#include "utils/ConnectionUDS.h"

namespace kelm {

// A client's connection as the listen thread reads it: what has come of its next request waits
// here, and costs the other clients nothing.
//
// Threads: the members of this class belong to the listen thread, those of the base as told there.
// Owns: the half request.
class RequestConnection final : public IPC::ConnectionUDS {
 public:
    using Clock = std::chrono::steady_clock;

    // Null if so few numbers are free that they are kept for tools, which share them.
    static std::shared_ptr<RequestConnection> tryMake(IPC::Poller* poller);

    // Takes what has arrived of the next request, and all of it from a peer that has hung up.
    MessageAssembler::State receive(bool hungUp);
    // The request, after kWhole.
    MessagePtr takeRequest();

    // Since when nothing has come from a peer that never sent anything, or is inside a request, and
    // has been so for `patience`; nothing for any other peer. Such a one can make room.
    std::optional<Clock::time_point> idleSince(Clock::duration patience);

 private:
    RequestConnection(IPC::Poller* poller, int number) : ConnectionUDS(poller, number) {}

    MessageAssembler m_assembler;
    bool m_waitsForBytes = true;  // for its first ones, or for the rest of a request
    Clock::time_point m_waitsSince = Clock::now();
    Clock::time_point m_lastBytes = m_waitsSince;  // as long as it waits
};

}  // namespace kelm
