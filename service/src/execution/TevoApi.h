#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "utils/CommonHelper.h"  // kMegabyteShift

// The C interface of the accelerator access library as this service uses it. The library is closed;
// nothing here is linked, TevoLibrary resolves the functions at run time.
//
// Every function gives 0 for success and a negative status otherwise. A length that goes in by
// pointer is the room offered and comes back as the bytes used.

namespace kelm {

// The numbers of the options, by what they are used with.
enum QxGlobalOption : int {
    QX_GLOBAL_LOG_LEVEL = 0,  // 32-bit int, as the other two
    QX_GLOBAL_COMMON_TIMEOUT = 2,
    QX_GLOBAL_ALLOC_GRAPH_TIMEOUT = 4,
};

enum QxFifoOption : int { QX_RO_FIFO_TENSOR_DESCRIPTOR = 7 };

enum QxGraphOption : int {
    QX_RO_GRAPH_TIME_TAKEN = 1001,                 // array of float, milliseconds
    QX_RO_GRAPH_INPUT_COUNT = 1002,                // 32-bit int
    QX_RO_GRAPH_OUTPUT_COUNT = 1003,               // 32-bit int
    QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS = 1004,   // one descriptor an input
    QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS = 1005,  // one descriptor an output
    QX_RO_GRAPH_DEBUG_INFO = 1006,                 // bytes
    QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE = 1011,      // 32-bit unsigned, bytes
    QX_GRAPH_EXECUTORS = 1110,                     // 32-bit int
};

enum QxDeviceOption : int {
    QX_RO_DEVICE_THERMAL_STATS = 2000,             // 100 bytes, starting with a float
    QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL = 2001,  // 32-bit int
    QX_RO_DEVICE_CURRENT_MEMORY_USED = 2003,       // 32-bit unsigned, bytes
    QX_RO_DEVICE_MEMORY_SIZE = 2004,               // 32-bit unsigned, bytes
};

enum QxFifoType : int { QX_FIFO_HOST_RO = 0, QX_FIFO_HOST_WO = 1 };

// What qxGraphGetInfoSize tells of a blob.
enum QxGraphInfo : int {
    QX_DEBUG_INFO_SIZE = 0,
    QX_TIMETAKEN_SIZE = 1,
    QX_THERMAL_SIZE = 2,
    QX_NINTPUT_SIZE = 3,
    QX_NOUTPUT_SIZE = 4,
};

constexpr unsigned int kThermalStatsSize = 100;
// The status for memory that cannot be had, the library's or the service's own.
constexpr int kTevoOutOfMemory = -3;

// A size as one of the library's lengths.
constexpr unsigned int clampLength(uint64_t size) {
    constexpr uint64_t kLongest = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(size, kLongest));
}

}  // namespace kelm

extern "C" {

struct qxDeviceHandle_t;
struct qxGraphHandle_t;
struct qxFifoHandle_t;

struct qxTensorDescriptor_t {
    uint32_t n;
    uint32_t c;
    uint32_t w;
    uint32_t h;
    uint32_t totalSize;  // bytes
    uint8_t reserved[16];
};
static_assert(sizeof(qxTensorDescriptor_t) == 36);

int qxGlobalSetOption(int option, const void* data, unsigned int length);
int qxPlatformInit(int flags);
int qxDeviceResetAll(void);
int qxDeviceOpenBooted(qxDeviceHandle_t** handle, const char* name);
int qxDeviceGetId(qxDeviceHandle_t* device, unsigned int* id);
int qxDeviceGetOption(qxDeviceHandle_t* device, int option, void* data, unsigned int* length);
int qxDeviceClose(qxDeviceHandle_t* device);
int qxDeviceDestroy(qxDeviceHandle_t** device);
int qxDeviceHWReset(qxDeviceHandle_t* device);
int qxGraphCreate(const char* name, qxGraphHandle_t** graph);
int qxGraphSetOption(qxGraphHandle_t* graph, int option, const void* data, unsigned int length);
int qxGraphGetOption(qxGraphHandle_t* graph, int option, void* data, unsigned int* length);
int qxGraphAllocate(qxDeviceHandle_t* device, qxGraphHandle_t* graph, const void* data,
                    unsigned int length);
int qxGraphGetInfoSize(const void* data, unsigned int size, int type, void* result,
                       unsigned int* length);
int qxGraphQueueInference(qxGraphHandle_t* graph, qxFifoHandle_t** fifoIn, unsigned int inCount,
                          qxFifoHandle_t** fifoOut, unsigned int outCount);
int qxGraphDestroy(qxGraphHandle_t** graph);
int qxFifoCreate(const char* name, int type, qxFifoHandle_t** fifo);
int qxFifoAllocate(qxFifoHandle_t* fifo, qxDeviceHandle_t* device,
                   const qxTensorDescriptor_t* descriptor, unsigned int elementCount);
int qxFifoGetOption(qxFifoHandle_t* fifo, int option, void* data, unsigned int* length);
int qxFifoWriteElem(qxFifoHandle_t* fifo, const void* data, unsigned int* length,
                    unsigned long userValue);
int qxFifoWriteIonElem(qxFifoHandle_t* fifo, int sharedFd, unsigned int* length,
                       unsigned long userValue);
int qxFifoReadElem(qxFifoHandle_t* fifo, void* data, unsigned int* length,
                   unsigned long* userValue);
int qxFifoReadIonElem(qxFifoHandle_t* fifo, int sharedFd, unsigned int* length,
                      unsigned long* userValue);
int qxFifoDestroy(qxFifoHandle_t** fifo);
}
