#include "managers/AnswerRecords.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "protocol/src/KelmProtocol.h"
#include "records/KelmGraph.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

void echoReceiveBuffers(const KelmMsgBase& request, KelmMsgBase& response) {
    response.peerRecvNum = std::min(request.peerRecvNum, kMaxMessageBlocks);
    std::copy_n(request.peerRecvData, response.peerRecvNum, response.peerRecvData);
    std::copy_n(request.peerRecvSize, response.peerRecvNum, response.peerRecvSize);
}

}  // namespace

MessagePtr allocateAnswer(KelmMsgType type, const char* record) {
    MessagePtr message(kelmAllocMessage(type));
    if (!message) {
        LOG_ERROR("Error: malloc %s (size = %lu) failed. errno = %d [%s]", record,
                  KelmMessageSize[type], errno, std::generic_category().message(errno));
    }
    CR_ASSERT(message != nullptr, record);
    return message;
}

void fillHead(const KelmMsgReq& request, uint64_t clientId, KelmError error, KelmMsgRsp& response) {
    echoReceiveBuffers(request.base, response.base);
    response.reqSeqNo = request.reqSeqNo;
    response.rspSeqNo = request.reqSeqNo;
    response.status = error;
    response.clientId = clientId;
}

GraphSizes::GraphSizes(const KelmGraph* graph) {
    if (graph == nullptr) return;
    id = graph->getId();
    input = graph->getInputBufferSize();
    output = graph->getOutputBufferSize();
    debug = graph->getDebugBufferSize();
    timeTakens = graph->getTimeTakensSize();
    thermal = graph->getThermalBufferSize();
}

void fillGraphSizes(const GraphSizes& sizes, KelmMsgRspCreateGraph& response) {
    response.graphId = sizes.id;
    response.inputBufferSize = sizes.input;
    response.outputBufferSize = sizes.output;
    response.debugBufferSize = sizes.debug;
    response.timeTakensSize = sizes.timeTakens;
    response.thermalBufferSize = sizes.thermal;
}

}  // namespace kelm
