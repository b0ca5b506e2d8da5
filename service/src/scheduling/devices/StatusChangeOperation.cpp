#include "scheduling/devices/StatusChangeOperation.h"

#include "config/ServiceConfigParser.h"
#include "protocol/src/KelmError.h"

namespace kelm {

StatusChangeOperation::StatusChangeOperation()
    : m_debugProcess(ServiceConfigParser::instance().isStatusChangeOperationDebugProcessEnabled()) {
}

void StatusChangeOperation::execute() {
    preOperation();
    operation();
    postOperation();
}

bool StatusChangeOperation::isOperation(KelmGraph*, StatusChangeRequestType) { return false; }

bool StatusChangeOperation::isDeviceLost() const {
    return m_retCode == KELM_ERROR_DEVICE_FAILED || m_retCode == KELM_ERROR_DEVICE_NOT_OPEN;
}

}  // namespace kelm
