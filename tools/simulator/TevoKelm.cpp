// libtevo-kelm.so.0 without accelerators: the functions of the library over simulated boards.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "service/src/execution/TevoApi.h"
#include "tools/simulator/Board.h"
#include "tools/simulator/CallLog.h"
#include "tools/simulator/Machine.h"
#include "tools/simulator/Orders.h"

using namespace kelm;
using namespace kelm::simulator;

struct qxDeviceHandle_t : CountedHandle {
    explicit qxDeviceHandle_t(std::shared_ptr<Board> opened) : board(std::move(opened)) {}

    const std::shared_ptr<Board> board;
};

// Empty until it is allocated on a device.
struct qxGraphHandle_t : CountedHandle {
    std::shared_ptr<Board> board;
    std::shared_ptr<GraphRun> run;
};

struct qxFifoHandle_t : CountedHandle {
    explicit qxFifoHandle_t(int fifoType) : type(fifoType) {}

    const int type;
    std::shared_ptr<Board> board;
    std::shared_ptr<Fifo> fifo;
    qxTensorDescriptor_t descriptor{};
};

namespace {

void note(const char* function, int option) {
    if (!CallLog::isOn()) return;
    const bool hasOption = option != Orders::kNoOption;
    CallLog::note(hasOption ? function + ("(" + std::to_string(option) + ")") : function);
}

// Calls that concern no device.
int enter(const char* function, int option = Orders::kNoOption) {
    note(function, option);
    return Orders::instance().apply("-", function, option);
}

template <class Handle>
int enter(const Handle* handle, const char* function, int option = Orders::kNoOption) {
    if (handle == nullptr) return kInvalid;
    // Not allocated yet: the call belongs to no device.
    if (!handle->board) return enter(function, option);
    note(function, option);
    return handle->board->enter(function, option);
}

// Passes the status on, and makes the length another one if the orders say so.
template <class Handle>
int tell(const Handle* handle, const char* function, int option, unsigned int* length, int status) {
    if (status == kOk && length != nullptr) {
        *length += Orders::instance().lie(handle->board->name(), function, option);
    }
    return status;
}

// As much as there is room for; the length becomes what was used.
int copyOut(const void* from, size_t size, void* data, unsigned int* length) {
    if (data == nullptr || length == nullptr) return kInvalid;
    *length = static_cast<unsigned int>(std::min<size_t>(size, *length));
    if (*length > 0) std::memcpy(data, from, *length);
    return kOk;
}

int copyNumber(uint32_t number, void* data, unsigned int* length) {
    if (length == nullptr || *length < sizeof(number)) return kInvalid;
    return copyOut(&number, sizeof(number), data, length);
}

std::span<const uint8_t> bytes(const void* data, size_t size) {
    return {static_cast<const uint8_t*>(data), size};
}

// However many there are, no more are made than there is room for.
int copyDescriptors(uint32_t size, uint32_t count, void* data, unsigned int* length) {
    if (length == nullptr) return kInvalid;
    const qxTensorDescriptor_t descriptor{1, 1, size, 1, size, {}};
    const size_t room = *length / sizeof(descriptor) + 1;
    const std::vector<qxTensorDescriptor_t> all(std::min<size_t>(count, room), descriptor);
    return copyOut(all.data(), all.size() * sizeof(descriptor), data, length);
}

int copyTimes(const Model& model, void* data, unsigned int* length) {
    std::vector<float> times(model.times);
    model.timeTaken(times);
    return copyOut(times.data(), times.size() * sizeof(float), data, length);
}

int copyDebugInfo(const Model& model, void* data, unsigned int* length) {
    std::vector<uint8_t> info(model.debugSize);
    model.debugInfo(info);
    return copyOut(info.data(), info.size(), data, length);
}

int copyDeviceOption(Board& board, int option, void* data, unsigned int* length) {
    float stats[kThermalFloats];
    switch (option) {
        case QX_RO_DEVICE_THERMAL_STATS:
            thermalStats(board.temperature(), stats);
            return copyOut(stats, kThermalStatsSize, data, length);
        case QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL:
            return copyNumber(static_cast<uint32_t>(board.throttling()), data, length);
        case QX_RO_DEVICE_CURRENT_MEMORY_USED:
            return copyNumber(board.memoryUsed(), data, length);
        case QX_RO_DEVICE_MEMORY_SIZE:
            return copyNumber(board.memorySize(), data, length);
        default:
            return kInvalid;
    }
}

int copyGraphOption(const Model& model, int option, void* data, unsigned int* length) {
    switch (option) {
        case QX_RO_GRAPH_TIME_TAKEN:
            return copyTimes(model, data, length);
        case QX_RO_GRAPH_INPUT_COUNT:
            return copyNumber(model.inputs, data, length);
        case QX_RO_GRAPH_OUTPUT_COUNT:
            return copyNumber(model.outputs, data, length);
        case QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS:
            return copyDescriptors(model.inputSize, model.inputs, data, length);
        case QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS:
            return copyDescriptors(model.outputSize, model.outputs, data, length);
        case QX_RO_GRAPH_DEBUG_INFO:
            return copyDebugInfo(model, data, length);
        case QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE:
            return copyNumber(model.times * sizeof(float), data, length);
        default:
            return kInvalid;
    }
}

// Shared buffers are read and written by calls: their owner may shorten them meanwhile, which would
// make a mapping deadly.
bool holds(int fd, const unsigned int* length) {
    struct stat status {};
    return length != nullptr && ::fstat(fd, &status) == 0 && status.st_size > 0 &&
           *length <= static_cast<size_t>(status.st_size);
}

// Room for a tensor of the queue, however long the buffer is said to be.
std::vector<uint8_t> makeRoom(const qxFifoHandle_t* handle, const unsigned int* length) {
    const unsigned int size = handle->fifo ? handle->fifo->elementSize : 0;
    return std::vector<uint8_t>(std::min(size, *length));
}

int writeElement(qxFifoHandle_t* handle, const void* data, const unsigned int* length,
                 unsigned long userValue) {
    if (!handle->fifo || handle->type != QX_FIFO_HOST_WO || data == nullptr) return kInvalid;
    if (length == nullptr || *length != handle->fifo->elementSize) return kInvalid;
    return handle->board->write(*handle->fifo, bytes(data, *length), userValue);
}

// The result is taken out also if there is no room for it, so that the next one meets its reader.
int readElement(qxFifoHandle_t* handle, void* data, unsigned int* length, unsigned long* userValue,
                const char* function) {
    if (!handle->fifo || handle->type != QX_FIFO_HOST_RO) return kInvalid;
    if (length == nullptr || userValue == nullptr) return kInvalid;
    Element element;
    if (const int status = handle->board->read(*handle->fifo, element)) return status;
    if (const int status = Orders::instance().lose(handle->board->name(), function)) return status;
    *userValue = element.userValue;
    if (data == nullptr || *length < element.model.outputSize) return kInvalid;
    *length = element.model.outputSize;
    element.model.infer(element.bytes, {static_cast<uint8_t*>(data), *length});
    handle->board->recycle(std::move(element));
    return kOk;
}

}  // namespace

int qxGlobalSetOption(int option, const void* data, unsigned int length) {
    const bool known = option == QX_GLOBAL_LOG_LEVEL || option == QX_GLOBAL_COMMON_TIMEOUT ||
                       option == QX_GLOBAL_ALLOC_GRAPH_TIMEOUT;
    if (!known || data == nullptr || length != sizeof(int)) return kInvalid;
    // The values too, so that a test sees what was set.
    CallLog::note(std::to_string(option) + "=" + std::to_string(*static_cast<const int*>(data)));
    return enter(__func__);
}

int qxPlatformInit(int flags) { return flags == 0 ? enter(__func__) : kInvalid; }

int qxDeviceResetAll() {
    if (const int status = enter(__func__)) return status;
    Machine::instance().resetAll();
    return kOk;
}

// There is no board yet: the orders are looked up by the name.
int qxDeviceOpenBooted(qxDeviceHandle_t** handle, const char* name) {
    if (handle == nullptr || name == nullptr) return kInvalid;
    note(__func__, Orders::kNoOption);
    if (const int status = Orders::instance().apply(name, __func__)) return status;
    std::shared_ptr<Board> board;
    if (const int status = Machine::instance().open(name, board)) return status;
    *handle = std::make_unique<qxDeviceHandle_t>(std::move(board)).release();
    return kOk;
}

int qxDeviceGetId(qxDeviceHandle_t* device, unsigned int* id) {
    if (const int status = enter(device, __func__)) return status;
    if (id == nullptr) return kInvalid;
    *id = device->board->id();
    return kOk;
}

int qxDeviceGetOption(qxDeviceHandle_t* device, int option, void* data, unsigned int* length) {
    if (const int status = enter(device, __func__, option)) return status;
    return tell(device, __func__, option, length,
                copyDeviceOption(*device->board, option, data, length));
}

// The place is free also if the call fails by order: no service tries to close twice.
int qxDeviceClose(qxDeviceHandle_t* device) {
    const int status = enter(device, __func__);
    if (device != nullptr) Machine::instance().close(*device->board);
    return status;
}

// This and the other two free their handle also when they fail.
int qxDeviceDestroy(qxDeviceHandle_t** device) {
    if (device == nullptr || *device == nullptr) return kInvalid;
    const std::unique_ptr<qxDeviceHandle_t> handle(std::exchange(*device, nullptr));
    Machine::instance().close(*handle->board);
    handle->board->close();
    return enter(handle.get(), __func__);
}

int qxDeviceHWReset(qxDeviceHandle_t* device) {
    if (const int status = enter(device, __func__)) return status;
    device->board->reset();
    return kOk;
}

int qxGraphCreate(const char* name, qxGraphHandle_t** graph) {
    if (name == nullptr || graph == nullptr) return kInvalid;
    if (const int status = enter(__func__)) return status;
    *graph = std::make_unique<qxGraphHandle_t>().release();
    return kOk;
}

int qxGraphSetOption(qxGraphHandle_t* graph, int option, const void* data, unsigned int length) {
    if (const int status = enter(graph, __func__, option)) return status;
    const bool valid = option == QX_GRAPH_EXECUTORS && data != nullptr && length == sizeof(int);
    return valid ? kOk : kInvalid;
}

int qxGraphGetOption(qxGraphHandle_t* graph, int option, void* data, unsigned int* length) {
    if (const int status = enter(graph, __func__, option)) return status;
    if (!graph->run) return kInvalid;
    return tell(graph, __func__, option, length,
                copyGraphOption(graph->run->model, option, data, length));
}

int qxGraphAllocate(qxDeviceHandle_t* device, qxGraphHandle_t* graph, const void* data,
                    unsigned int length) {
    if (const int status = enter(device, __func__)) return status;
    if (graph == nullptr || graph->run || data == nullptr) return kInvalid;
    const auto model = Model::parse(bytes(data, length));
    if (!model) return kNoGraph;
    graph->run = device->board->addGraph(*model);
    if (!graph->run) return kNoMemory;
    // Last: a graph whose allocation fails stays without a device.
    graph->board = device->board;
    return kOk;
}

int qxGraphGetInfoSize(const void* data, unsigned int size, int type, void* result,
                       unsigned int* length) {
    if (data == nullptr || result == nullptr || length == nullptr) return kInvalid;
    if (const int status = enter(__func__)) return status;
    const auto model = Model::parse(bytes(data, size));
    if (!model) return kNoGraph;
    switch (type) {
        case QX_DEBUG_INFO_SIZE:
            return copyNumber(model->debugSize, result, length);
        case QX_TIMETAKEN_SIZE:
            return copyNumber(model->times * sizeof(float), result, length);
        case QX_THERMAL_SIZE:
            return copyNumber(kThermalStatsSize, result, length);
        case QX_NINTPUT_SIZE:
            return copyNumber(model->inputSize, result, length);
        case QX_NOUTPUT_SIZE:
            return copyNumber(model->outputSize, result, length);
        default:
            return kInvalid;
    }
}

int qxGraphQueueInference(qxGraphHandle_t* graph, qxFifoHandle_t** fifoIn, unsigned int inCount,
                          qxFifoHandle_t** fifoOut, unsigned int outCount) {
    if (const int status = enter(graph, __func__)) return status;
    if (!graph->run || inCount != 1 || outCount != 1) return kInvalid;
    if (fifoIn == nullptr || *fifoIn == nullptr || (*fifoIn)->board != graph->board ||
        fifoOut == nullptr || *fifoOut == nullptr || (*fifoOut)->board != graph->board) {
        return kInvalid;
    }
    const Model& model = graph->run->model;
    const bool fits = (*fifoIn)->fifo->elementSize == model.inputSize &&
                      (*fifoOut)->fifo->elementSize == model.outputSize;
    if (!fits) return kInvalid;
    graph->board->queue(*graph->run, (*fifoIn)->fifo, (*fifoOut)->fifo);
    return kOk;
}

int qxGraphDestroy(qxGraphHandle_t** graph) {
    if (graph == nullptr || *graph == nullptr) return kInvalid;
    const std::unique_ptr<qxGraphHandle_t> handle(std::exchange(*graph, nullptr));
    if (handle->run) handle->board->removeGraph(handle->run);
    return enter(handle.get(), __func__);
}

int qxFifoCreate(const char* name, int type, qxFifoHandle_t** fifo) {
    const bool known = type == QX_FIFO_HOST_RO || type == QX_FIFO_HOST_WO;
    if (name == nullptr || fifo == nullptr || !known) return kInvalid;
    if (const int status = enter(__func__)) return status;
    *fifo = std::make_unique<qxFifoHandle_t>(type).release();
    return kOk;
}

int qxFifoAllocate(qxFifoHandle_t* fifo, qxDeviceHandle_t* device,
                   const qxTensorDescriptor_t* descriptor, unsigned int elementCount) {
    // The number stands in the place of an option, so that an order may mean queues of one length.
    const int count = static_cast<int>(elementCount);
    if (const int status = enter(device, __func__, count)) return status;
    if (fifo == nullptr || fifo->fifo || descriptor == nullptr || elementCount == 0) {
        return kInvalid;
    }
    fifo->board = device->board;
    fifo->descriptor = *descriptor;
    fifo->fifo = device->board->addFifo(descriptor->totalSize, elementCount);
    return kOk;
}

int qxFifoGetOption(qxFifoHandle_t* fifo, int option, void* data, unsigned int* length) {
    if (const int status = enter(fifo, __func__, option)) return status;
    if (!fifo->fifo || option != QX_RO_FIFO_TENSOR_DESCRIPTOR) return kInvalid;
    return tell(fifo, __func__, option, length,
                copyOut(&fifo->descriptor, sizeof(fifo->descriptor), data, length));
}

int qxFifoWriteElem(qxFifoHandle_t* fifo, const void* data, unsigned int* length,
                    unsigned long userValue) {
    if (const int status = enter(fifo, __func__)) return status;
    return writeElement(fifo, data, length, userValue);
}

int qxFifoWriteIonElem(qxFifoHandle_t* fifo, int sharedFd, unsigned int* length,
                       unsigned long userValue) {
    if (const int status = enter(fifo, __func__)) return status;
    if (!holds(sharedFd, length)) return kInvalid;
    std::vector<uint8_t> tensor = makeRoom(fifo, length);
    if (::pread(sharedFd, tensor.data(), tensor.size(), 0) != std::ssize(tensor)) return kInvalid;
    return writeElement(fifo, tensor.data(), length, userValue);
}

int qxFifoReadElem(qxFifoHandle_t* fifo, void* data, unsigned int* length,
                   unsigned long* userValue) {
    if (const int status = enter(fifo, __func__)) return status;
    return tell(fifo, __func__, Orders::kNoOption, length,
                readElement(fifo, data, length, userValue, __func__));
}

int qxFifoReadIonElem(qxFifoHandle_t* fifo, int sharedFd, unsigned int* length,
                      unsigned long* userValue) {
    if (const int status = enter(fifo, __func__)) return status;
    // The result is taken out all the same, see readElement().
    if (!holds(sharedFd, length)) return readElement(fifo, nullptr, length, userValue, __func__);
    std::vector<uint8_t> tensor = makeRoom(fifo, length);
    if (const int status = readElement(fifo, tensor.data(), length, userValue, __func__))
        return status;
    return ::pwrite(sharedFd, tensor.data(), *length, 0) == *length ? kOk : kInvalid;
}

int qxFifoDestroy(qxFifoHandle_t** fifo) {
    if (fifo == nullptr || *fifo == nullptr) return kInvalid;
    const std::unique_ptr<qxFifoHandle_t> handle(std::exchange(*fifo, nullptr));
    if (handle->fifo) handle->board->removeFifo();
    return enter(handle.get(), __func__);
}
