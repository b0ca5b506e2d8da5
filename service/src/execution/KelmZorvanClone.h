#pragma once

#include <memory>
#include <optional>

#include "execution/InputCopy.h"
#include "execution/KelmDeviceBase.h"
#include "execution/TevoDevice.h"
#include "execution/TevoGraphCache.h"
#include "execution/TevoStatistics.h"
#include "utils/StepTrace.h"

namespace kelm {

struct KelmBuffer;
class KelmZorvanDevice;

// What a slave worker has of an accelerator: it brings tensors and results to the library by
// itself, and asks the root for graphs, so that their cache exists once per device.
//
// Threads: as the base; the two threads of a slave worker use separate queues of the device.
// Owns: nothing on the device. Borrows the root, which outlives it.
// Locks: its m_deviceMutex, then those of the root.
class KelmZorvanClone final : public KelmDeviceBase {
 public:
    explicit KelmZorvanClone(KelmZorvanDevice& root);

    using KelmDeviceBase::openDevice;
    std::unique_ptr<KelmDeviceBase> clone() override;
    bool isHardwareError(int error) override;
    void abandonResult(KelmTask* task) override;

 protected:
    // There is nothing to open or close: the root has the handle.
    int openDevice(const char* name) override REQUIRES(m_deviceMutex);
    int closeDeviceImpl() override REQUIRES(m_deviceMutex);
    int allocateGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int deallocateGraphImpl(KelmGraph* graph, bool keepCached) override REQUIRES(m_deviceMutex);
    void forgetGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int loadTensorImpl(KelmTask* task) override;
    int getResultImpl(KelmTask* task) override;
    int hardwareResetDeviceCore() override;

 private:
    struct Result;

    // A device that was lost since the task came has no graphs any more.
    int getMissingGraphError() const;
    // Whether the buffer can go to the library by its descriptor.
    bool isIonPath(const KelmBuffer& buffer) const;

    // Inputs.
    // Brings the graph's queues to where they take one more input, and tells what they are then.
    int prepareQueues(KelmGraph* graph, TevoQueues& queues);
    int drainUnread(const TevoQueues& queues);
    int getInputDescriptor(const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int loadTensorRaw(KelmTask* task, const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int loadTensorIon(KelmTask* task, const TevoHandles& handles, qxTensorDescriptor_t& descriptor);
    int queueInference(TevoHandles handles);

    // Results.
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
    // What the device is to be asked for now and then, behind a result.
    int updateStatistics(qxGraphHandle_t* graphHandle);

    KelmZorvanDevice& m_root;
    TevoDevice& m_device;  // the root's
    const StepTrace m_trace;
    const bool m_useSystemTensor;
    TevoStatistics m_statistics;
    InputCopy m_inputCopy;  // of the thread that loads tensors
};

}  // namespace kelm
