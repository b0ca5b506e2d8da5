#include "managers/StatusAnswer.h"

#include <algorithm>
#include <string>
#include <vector>

#include "reporting/KelmStatus.h"
#include "utils/StringHelper.h"

namespace kelm {

namespace {

// The rows that there are and that fit.
template <size_t Rows, size_t Width>
void copyRows(char (&rows)[Rows][Width], const std::vector<std::string>& texts,
              size_t limit = Rows) {
    for (size_t i = 0; i < std::min({Rows, texts.size(), limit}); ++i) {
        StringHelper::copyStringSafe(rows[i], texts[i]);
    }
}

template <class Value, size_t Rows>
void copyRows(Value (&rows)[Rows], const std::vector<Value>& values, size_t limit = Rows) {
    std::copy_n(values.begin(), std::min({Rows, values.size(), limit}), rows);
}

// The counts are not cut to the number of rows, which tells a reader that some are missing.
int32_t countOf(const std::vector<std::string>& texts) {
    return static_cast<int32_t>(texts.size());
}

}  // namespace

void fillStatusAnswer(const KelmStatus& status, uint64_t queryType,
                      KelmMsgRspQueryStatus& response) {
    response.serviceFps = status.serviceFps;
    response.deviceNum = countOf(status.deviceNames);
    copyRows(response.deviceName, status.deviceNames);
    copyRows(response.deviceFps, status.deviceFps);
    if ((queryType & kQueryDevices) != 0) {
        copyRows(response.deviceGraphName, status.deviceGraphNames);
        copyRows(response.deviceThermal, status.deviceThermals);
        copyRows(response.deviceId, status.deviceIds);
        copyRows(response.deviceSubclass, status.deviceSubclasses);
    }
    response.graphNum = countOf(status.graphNames);
    copyRows(response.graphName, status.graphNames);
    copyRows(response.graphFpsIn, status.graphFpsIn);
    copyRows(response.graphFpsOut, status.graphFpsOut);
    response.clientNum = countOf(status.clientNames);
    // Deliberate: as many client rows as there are graphs, so none without graphs in the report;
    // clients of the protocol know it so.
    copyRows(response.clientName, status.clientNames, status.graphNames.size());
    copyRows(response.clientFps, status.clientFps, status.graphNames.size());
    StringHelper::copyStringSafe(response.deviceSchedulerName, status.deviceSchedulerName);
    StringHelper::copyStringSafe(response.taskSchedulerName, status.taskSchedulerName);
}

}  // namespace kelm
