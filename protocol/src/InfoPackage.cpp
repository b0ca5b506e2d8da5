#include "protocol/src/InfoPackage.h"

#include <cstddef>
#include <type_traits>

// The layout is a contract with tools of other builds: a change here is a compile error.

namespace kelm {

static_assert(std::is_trivially_copyable_v<InfoDeviceRow> && sizeof(InfoDeviceRow) == 2208);
static_assert(offsetof(InfoDeviceRow, deviceId) == 0);
static_assert(offsetof(InfoDeviceRow, thermal) == 36);
static_assert(offsetof(InfoDeviceRow, thermalThrottlingLevel) == 40);
static_assert(offsetof(InfoDeviceRow, currentGraphCount) == 44);
static_assert(offsetof(InfoDeviceRow, currentGraphName) == 48);
static_assert(offsetof(InfoDeviceRow, currentGraphLoadTime) == 1072);
static_assert(offsetof(InfoDeviceRow, currentInferenceCount) == 1096);
static_assert(offsetof(InfoDeviceRow, currentFps) == 1112);
static_assert(offsetof(InfoDeviceRow, utilization) == 1120);
static_assert(offsetof(InfoDeviceRow, previousGraphCount) == 1128);
static_assert(offsetof(InfoDeviceRow, previousGraphName) == 1132);
static_assert(offsetof(InfoDeviceRow, previousGraphLoadTime) == 2156);
static_assert(offsetof(InfoDeviceRow, previousGraphUnloadTime) == 2174);
static_assert(offsetof(InfoDeviceRow, previousInferenceCount) == 2192);

static_assert(std::is_trivially_copyable_v<InfoGraphRow> && sizeof(InfoGraphRow) == 2608);
static_assert(offsetof(InfoGraphRow, graphId) == 0);
static_assert(offsetof(InfoGraphRow, graphName) == 8);
static_assert(offsetof(InfoGraphRow, fpsIn) == 520);
static_assert(offsetof(InfoGraphRow, fpsOut) == 524);
static_assert(offsetof(InfoGraphRow, runningDeviceNum) == 528);
static_assert(offsetof(InfoGraphRow, inferenceTimes) == 536);
static_assert(offsetof(InfoGraphRow, waitingTaskNum) == 544);
static_assert(offsetof(InfoGraphRow, clientNum) == 552);
static_assert(offsetof(InfoGraphRow, clientNames) == 556);

static_assert(std::is_trivially_copyable_v<InfoClientRow> && sizeof(InfoClientRow) == 64);
static_assert(offsetof(InfoClientRow, clientId) == 0);
static_assert(offsetof(InfoClientRow, clientName) == 8);
static_assert(offsetof(InfoClientRow, apiMajorVersion) == 40);
static_assert(offsetof(InfoClientRow, apiMinorVersion) == 42);
static_assert(offsetof(InfoClientRow, inferenceTimes) == 48);
static_assert(offsetof(InfoClientRow, waitingInferenceNum) == 56);

static_assert(std::is_trivially_copyable_v<InfoPackage> && sizeof(InfoPackage) == 241728);
static_assert(offsetof(InfoPackage, deviceCount) == 0);
static_assert(offsetof(InfoPackage, devices) == 8);
static_assert(offsetof(InfoPackage, graphCount) == 70664);
static_assert(offsetof(InfoPackage, graphs) == 70672);
static_assert(offsetof(InfoPackage, clientCount) == 237584);
static_assert(offsetof(InfoPackage, clients) == 237592);
static_assert(offsetof(InfoPackage, memVirtMB) == 241696);
static_assert(offsetof(InfoPackage, memResMB) == 241704);
static_assert(offsetof(InfoPackage, memShrMB) == 241712);
static_assert(offsetof(InfoPackage, memTotalMB) == 241720);

}  // namespace kelm
