#pragma once

#include <cstdint>

#include "protocol/src/KelmMessage.h"

namespace kelm {

struct KelmStatus;

// Writes a complete status record into the rows of its answer, of which those past the end are left
// out. Details of devices only for a `queryType` that asks for them.
void fillStatusAnswer(const KelmStatus& status, uint64_t queryType,
                      KelmMsgRspQueryStatus& response);

}  // namespace kelm
