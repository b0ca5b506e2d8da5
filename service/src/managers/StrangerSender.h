#pragma once

#include <chrono>
#include <memory>

#include "managers/Backlog.h"
#include "protocol/src/MessagePtr.h"
#include "utils/NonCopyable.h"
#include "utils/SerialPool.h"
#include "utils/StepTrace.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// Writes to peers that have no client record, on one thread for all of them. A peer that does not
// read is closed when its answer is a second old, or as soon as the backlog of all such peers is
// full, so that it delays the others by no more.
//
// Threads: post() any; it blocks while the backlog is full. Owns: its pool.
class StrangerSender : public NonCopyable {
 public:
    explicit StrangerSender(StepTrace trace);

    void post(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message);
    // The same, and closes the peer behind it.
    void postLast(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message);

 private:
    using Clock = std::chrono::steady_clock;

    void post(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message, bool isLast);
    void write(IPC::ConnectionBase& connection, const KelmMsgBase& message,
               Clock::time_point deadline);
    // False when the peer has used up its time; raises what the connection raises.
    bool writeInTime(IPC::ConnectionBase& connection, const KelmMsgBase& message,
                     Clock::time_point deadline);
    void logFailure(const IPC::ConnectionBase& connection, const KelmMsgBase& message,
                    const char* reason) const;

    const StepTrace m_trace;
    Backlog m_backlog;
    SerialPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm
