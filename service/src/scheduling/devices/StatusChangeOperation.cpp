#include "scheduling/devices/StatusChangeOperation.h"

#include "config/ServiceConfigParser.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// How long a job may take before the log tells of it.
constexpr std::chrono::milliseconds kPatience{10000};

}  // namespace

StatusChangeOperation::StatusChangeOperation()
    : m_trace(ServiceConfigParser::instance().isStatusChangeOperationDebugProcessEnabled()) {}

void StatusChangeOperation::execute() {
    preOperation();
    operation();
    postOperation();
}

bool StatusChangeOperation::isOperation(KelmGraph*, StatusChangeRequestType) { return false; }

// The whole scheduler stands still while it waits, so that a device that never answers must show in
// the log, with what an operator can do about it. There is no limit: a job that is given up would
// run on with a graph that may be destroyed.
void StatusChangeOperation::waitDone(const std::shared_future<int>& job, const char* step,
                                     const std::string& graphName, WorkThread& worker) {
    if (job.wait_for(kPatience) == std::future_status::ready) return;
    std::string states;
    for (const std::string& state : worker.getStates()) states += " " + state;
    LOG_WARN(
        "Warn: %s [%s] on worker(%s) has not ended for over %ld ms, its scheduler waits; states of "
        "the worker:%s. If it goes on, unplug the device and plug it in again",
        step, escapeControls(graphName), worker.getName(), kPatience.count(), states);
    job.wait();
}

// Other codes blame the graph or the moment, as too little memory, and leave the device in use.
bool StatusChangeOperation::isDeviceLost() const {
    return m_retCode == KELM_ERROR_DEVICE_FAILED || m_retCode == KELM_ERROR_DEVICE_NOT_OPEN;
}

}  // namespace kelm
