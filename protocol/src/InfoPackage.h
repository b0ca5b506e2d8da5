#pragma once

#include <cstdint>

// The record that the service streams over its snapshot socket: a memory image, little-endian, of
// one fixed size. Sizes and offsets are pinned in InfoPackage.cpp. Unused bytes are zero, texts end
// in NUL.

namespace kelm {

constexpr int kPackageDevices = 32;
constexpr int kPackageGraphs = 64;
constexpr int kPackageClients = 64;
constexpr int kPackageDeviceGraphs = 2;  // current and previous graphs of one device, each

struct InfoDeviceRow {
    uint32_t deviceId;
    uint8_t reserved[32];
    float thermal;
    int32_t thermalThrottlingLevel;
    int32_t currentGraphCount;
    char currentGraphName[kPackageDeviceGraphs][512];
    char currentGraphLoadTime[kPackageDeviceGraphs][9];  // "HH:MM:SS", as all times here
    uint8_t padding[6];
    uint64_t currentInferenceCount[kPackageDeviceGraphs];
    float currentFps[kPackageDeviceGraphs];
    float utilization[kPackageDeviceGraphs];  // a constant; says nothing of the device
    int32_t previousGraphCount;
    char previousGraphName[kPackageDeviceGraphs][512];
    char previousGraphLoadTime[kPackageDeviceGraphs][9];
    char previousGraphUnloadTime[kPackageDeviceGraphs][9];
    uint64_t previousInferenceCount[kPackageDeviceGraphs];
};

struct InfoGraphRow {
    uint64_t graphId;
    char graphName[512];
    float fpsIn;  // tasks per second, as the next
    float fpsOut;
    int32_t runningDeviceNum;
    uint32_t padding;
    uint64_t inferenceTimes;
    uint64_t waitingTaskNum;
    int32_t clientNum;
    char clientNames[kPackageClients][32];
    uint32_t padding2;
};

struct InfoClientRow {
    uint64_t clientId;
    char clientName[32];
    uint16_t apiMajorVersion;
    uint16_t apiMinorVersion;
    uint32_t padding;
    uint64_t inferenceTimes;
    uint64_t waitingInferenceNum;
};

struct InfoPackage {
    int32_t deviceCount;  // stays 0: the rows of the last device manager start at the first
    uint32_t padding;
    InfoDeviceRow devices[kPackageDevices];
    int32_t graphCount;
    uint32_t padding2;
    InfoGraphRow graphs[kPackageGraphs];
    int32_t clientCount;
    uint32_t padding3;
    InfoClientRow clients[kPackageClients];
    uint8_t reserved[8];
    int64_t memVirtMB;
    int64_t memResMB;
    int64_t memShrMB;
    int64_t memTotalMB;  // of the machine
};

}  // namespace kelm
