#pragma once

#include "protocol/src/KelmMessage.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// Writes a flat message: the record, its descriptors, its blocks. Raises what the connection
// raises. The caller holds the connection's writeMutex().
void sendFlatMessage(IPC::ConnectionBase& connection, const KelmMsgBase& message);

}  // namespace kelm
