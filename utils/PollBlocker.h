#pragma once

#include "utils/ConnectionBase.h"

namespace IPC {

// Ends a connection's block with the scope; the block itself is the caller's.
class PollBlocker : public kelm::NonCopyable {
 public:
    explicit PollBlocker(ConnectionBase* connection) : m_connection(connection) {}
    ~PollBlocker() { m_connection->unblockPoller(); }

 private:
    ConnectionBase* const m_connection;  // borrowed for the scope
};

}  // namespace IPC
