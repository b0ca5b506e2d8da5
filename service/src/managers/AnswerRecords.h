#pragma once

#include <cstdint>

#include "protocol/src/KelmError.h"
#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessagePtr.h"

namespace kelm {

class KelmGraph;

// The steps by which the records of answers are filled. No state; any thread.

// A zeroed record; `record` is the name of its type, for the log. Out of memory ends the process:
// an answer that is left out would leave its client waiting without limit.
MessagePtr allocateAnswer(KelmMsgType type, const char* record);

// What every answer begins with. The peer finds its own list of receive buffers in it, without the
// types.
void fillHead(const KelmMsgReq& request, uint64_t clientId, KelmError error, KelmMsgRsp& response);

// What an answer tells of a graph, taken while the graph is there; all 0 without one. In bytes, but
// for the id.
struct GraphSizes {
    explicit GraphSizes(const KelmGraph* graph);

    uint64_t id = 0;
    uint64_t input = 0;
    uint64_t output = 0;
    uint64_t debug = 0;
    uint64_t timeTakens = 0;
    uint64_t thermal = 0;
};

void fillGraphSizes(const GraphSizes& sizes, KelmMsgRspCreateGraph& response);

}  // namespace kelm
