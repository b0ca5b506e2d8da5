#include "scheduling/devices/StatusChangeOperation.h"

#include "config/ServiceConfigParser.h"

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

}  // namespace kelm
