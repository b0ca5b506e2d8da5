#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "execution/KelmDeviceBase.h"
#include "execution/TevoGraphCache.h"
#include "execution/TevoLibrary.h"
#include "utils/FileRights.h"
#include "utils/Log.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

struct KelmBuffer;
class KelmTaskParam;

// A Zorvan accelerator, driven through its access library.
//
// The root has the library's handle of the device and the graphs on it. A clone brings tensors and
// results to the library by itself and goes to the root for graphs, so that the cache exists once
// per device.
//
// Once the hardware has been reset the device object never recovers: every operation answers
// KELM_ERROR_DEVICE_FAILED until the bus has taken the device away and brought it back.
//
// Threads: as the base; the two threads of a slave worker use separate queues of the device.
// Owns: the root owns the handles of device and graphs, until its destruction at the latest.
// Locks: the clone's m_deviceMutex, then the root's m_graphMutex, then the cache's. m_graphMutex is
// held across the library's graph calls, which must not overlap on a device, and m_thermalMutex
// across one reading.
class KelmZorvanDevice final : public KelmDeviceBase {
 public:
    explicit KelmZorvanDevice(const std::string& name);
    explicit KelmZorvanDevice(KelmZorvanDevice* parent);
    ~KelmZorvanDevice() override;

    // Once, before a device is opened. Without the library it only logs.
    static void initPlatform();
    [[nodiscard]] static int resetAllDevices();
    // Reads a size out of a graph's blob; needs no device.
    [[nodiscard]] static int getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                          size_t& result);

    using KelmDeviceBase::allocateGraph;
    using KelmDeviceBase::deallocateGraph;
    using KelmDeviceBase::openDevice;
    std::unique_ptr<KelmDeviceBase> clone() override;
    bool isHardwareError(int error) override;
    // Elements of each queue of a graph that is allocated from now on; before the first clone.
    void setFifoCapacity(unsigned int capacity) override { m_fifoCapacity = capacity; }
    // Ignores what is not above 0; before the first clone.
    void setMaxCacheGraphNumber(int number) override;
    void abandonResult(KelmTask* task) override;
    int updateThermal() override;
    std::vector<KelmGraph*> getCachedGraphList() override { return m_cache.getGraphs(); }
    std::vector<std::string> getCachedGraphNames() override { return m_cache.getNames(); }
    void forgetGraphs() override { m_cache.forgetAll(); }

 protected:
    int openDevice(const char* name) override REQUIRES(m_deviceMutex);
    int closeDeviceImpl() override REQUIRES(m_deviceMutex);
    int allocateGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int deallocateGraphImpl(KelmGraph* graph, bool keepCached) override REQUIRES(m_deviceMutex);
    void forgetGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int loadTensorImpl(KelmTask* task) override;
    int getResultImpl(KelmTask* task) override;
    int hardwareResetDeviceCore() override;

 private:
    using SteadyTime = std::chrono::steady_clock::time_point;
    struct TensorDescriptors;
    struct Result;

    // Brackets a library call with two lines for those who follow the process.
    template <class Call>
    int traced(const char* function, Call call);
    // Passes the status on; a failure is logged, with the device and the status behind the format's
    // text, and may reset the hardware. The second form has the task between them.
    int checked(int rc, const char* failure);
    int checked(int rc, const char* failure, KelmTask* task);
    // Resets the hardware if the error is one of the hardware.
    void hardwareResetDevice(int error);
    int getDeviceWord(int option, unsigned int* value);

    // On the root: graphs.
    int allocateOnRoot(KelmGraph* graph) EXCLUDES(m_graphMutex);
    int deallocateOnRoot(KelmGraph* graph, bool keepCached) EXCLUDES(m_graphMutex);
    // Unloads and loads a graph on which no task runs.
    int renewOnRoot(KelmGraph* graph) EXCLUDES(m_graphMutex);
    bool activateCachedGraph(KelmGraph* graph) REQUIRES(m_graphMutex);
    // The strict order of calls that brings a graph onto the device. What exists after a failure is
    // released.
    int allocateGraph(KelmGraph* graph, TevoQueues& queues) REQUIRES(m_graphMutex);
    int runAllocation(KelmGraph* graph, TevoHandles& handles) REQUIRES(m_graphMutex);
    int sendGraph(KelmGraph* graph, TevoHandles& handles) REQUIRES(m_graphMutex);
    int readDescriptors(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors);
    int readTensorCount(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors);
    int makeFifo(const TensorDescriptors& tensors, qxFifoHandle_t** fifo);
    void deallocateGraph(TevoHandles& handles);
    void destroyGraph(qxGraphHandle_t*& graphHandle);
    void destroyFifo(qxFifoHandle_t*& fifo);
    // Evicts at most one graph. `required` in MB.
    void deallocOldestInactiveGraphIfFull(unsigned int required) REQUIRES(m_graphMutex);
    int getCurrentMemeoryUsed(unsigned int* used);

    // Tensors, on the clone.
    std::optional<TevoQueues> getTevoGraphInfo(KelmGraph* graph);
    int getMissingGraphError() const;
    static bool verifyBuffer(const KelmBuffer& buffer);
    static int verifyResultBuffers(KelmTaskParam& param);
    // The error of the first buffer whose memory the client has taken back while it was mapped.
    static int verifyMappings(KelmTaskParam& param);
    // With what the sender of the task may do to memory that the buffer names.
    static bool mapBuffer(const KelmTaskParam& param, KelmBuffer& buffer,
                          FileRights::Access wanted);
    // Whether the buffer can go to the library by its descriptor.
    bool isIonPath(const KelmBuffer& buffer) const;
    int getInputDescriptor(const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int loadTensorRaw(KelmTask* task, const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int loadTensorIon(KelmTask* task, const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int queueInference(TevoHandles handles);
    // Brings the graph's queues to where they take one more input, and tells what they are then.
    int prepareQueues(KelmGraph* graph, TevoQueues& queues);
    int drainUnread(const TevoQueues& queues);

    // Results, on the clone.
    int getResultRaw(KelmTask* task, const TevoHandles& handles, QueueLedger::Turn& turn);
    int getResultIon(KelmTask* task, const TevoHandles& handles, QueueLedger::Turn& turn);
    int drainResult(KelmTask* task, const TevoHandles& handles, QueueLedger::Turn& turn);
    // Reads into memory of the service's own.
    int readScratch(const TevoHandles& handles, Result& result);
    void warnDropped(const Result& result);
    // Reads until the task's result has come: with `read` when no other can come first.
    template <class Read>
    int readResult(KelmTask* task, const TevoHandles& handles, QueueLedger::Turn& turn,
                   Result& result, Read read);
    int copyResult(KelmTask* task, const Result& result);
    int finishResult(KelmTask* task, const TevoHandles& handles, const Result& result);

    // Statistics.
    int getAuxBufferData(qxGraphHandle_t* graphHandle, KelmTaskParam& param);
    int getTimeTakenSize(qxGraphHandle_t* graphHandle, unsigned int& size);
    int getTimeTaken(qxGraphHandle_t* graphHandle, char* data, unsigned int& length);
    // Reads the array whole; `noMemory` is the error when there is none for it.
    int readTimeTaken(qxGraphHandle_t* graphHandle, UniqueMalloc<char>& data, unsigned int& length,
                      int noMemory);
    int copyTimeTaken(qxGraphHandle_t* graphHandle, KelmBuffer& buffer, uint64_t& used);
    int copyThermalStats(KelmBuffer& buffer, uint64_t& used);
    int fillDebugInfo(qxGraphHandle_t* graphHandle, KelmBuffer& buffer, uint64_t used);
    int updateThermalInfo();
    int updateThermalIfDue() EXCLUDES(m_thermalMutex);
    int updateInferenceTimeInfo(qxGraphHandle_t* graphHandle);
    // The last step of the array, in milliseconds. `length` in bytes, at least two floats.
    static float getInferenceTime(const char* data, unsigned int length);

    const TevoFunctions& m_tevo;
    KelmZorvanDevice* const m_root;  // this for a root; borrowed by a clone, which it outlives
    // Set before the first clone, then fixed.
    unsigned int m_fifoCapacity = 4;
    int m_maxCachedGraphNum = 4;
    const std::string m_logName;
    const bool m_debugProcess;
    const bool m_useSystemTensor;
    const int m_updateThermalInterval;    // milliseconds
    const int m_updateInferTimeInterval;  // milliseconds
    // Set at open and cleared at the destruction, when no other thread uses the device.
    qxDeviceHandle_t* m_deviceHandle = nullptr;
    // Atomic: whoever fails first on any thread resets the hardware.
    std::atomic<bool> m_resetDone{false};

    Mutex m_graphMutex ACQUIRED_AFTER(m_deviceMutex);
    TevoGraphCache m_cache;  // the root's; empty on a clone

    Mutex m_thermalMutex;
    SteadyTime m_lastThermalUpdate GUARDED_BY(m_thermalMutex);

    // Atomic: counts down on the result thread and is set anew on the input thread; a step that is
    // lost between the two costs one reading.
    std::atomic<int32_t> m_inferTimeWarmup;
    SteadyTime m_lastInferTimeUpdate;  // the result thread's
};

template <class Call>
int KelmZorvanDevice::traced(const char* function, Call call) {
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess, "to call %s()", function);
    const int rc = call();
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess, "called %s()", function);
    return rc;
}

}  // namespace kelm
