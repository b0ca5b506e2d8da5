#include "scheduling/mapping/GraphItem.h"

#include "utils/StringHelper.h"
#include "utils/TextHelper.h"

namespace kelm {

std::string GraphItem::dump() const {
    return StringHelper::format(
        "GraphItem(%u) - graphName=%s graph=%p devReq=%.2f memReq=%u isNewGraph=%d taskNum=%d "
        "status=%d dedicatedDevNum=%u sharedDevNum=%u devReqScaled=%.2f outCycleNum=%d "
        "slaveGroup=%d isMasterGraph=%d savedStatus=%d pendSavedStatus=%d",
        id, escapeControls(graphName), graph, devReq, memReq, static_cast<int>(isNewGraph), taskNum,
        status, dedicatedDevNum, sharedDevNum, devReqScaled, outCycleNum,
        static_cast<int>(slaveGroup), static_cast<int>(isMasterGraph), savedStatus,
        pendSavedStatus);
}

}  // namespace kelm
