#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "utils/FpsCounter.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/UtilizationCounter.h"

namespace kelm {

class KelmGraph;
class KelmTask;

// One of the five sizes that a graph needs for its buffers.
enum KelmGraphInfo : int {
    GRAPH_INFO_INPUT = 0,
    GRAPH_INFO_OUTPUT = 1,
    GRAPH_INFO_TIME_TAKEN = 2,
    GRAPH_INFO_DEBUG = 3,
    GRAPH_INFO_THERMAL = 4,
};

// A named accelerator that is opened, holds a current graph, takes tensors and gives results. The
// operations here fix the order of locks, checks and statistics; the ...Impl steps are the
// device's.
//
// A root is made by name; a clone of it serves one slave worker, shares the device id and moves the
// root's count of tasks in flight.
//
// Threads: a slave worker's two threads run tensors and results at once, graph operations on one of
// them; any thread reads the statistics. Int results are KelmError or library statuses, 0 is good.
// Owns: nothing but its counters. Borrows the parent, and a graph until it is taken off or
// forgotten. Locks: m_deviceMutex, then m_graphInfoMutex, then a counter's.
class KelmDeviceBase : public NonCopyable {
 public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Factory = std::function<std::unique_ptr<KelmDeviceBase>(const std::string& name)>;

    explicit KelmDeviceBase(const std::string& name);  // a root
    explicit KelmDeviceBase(KelmDeviceBase* parent);   // a clone; the parent outlives it
    virtual ~KelmDeviceBase();

    virtual std::unique_ptr<KelmDeviceBase> clone() = 0;
    // Whether the status means that the device is lost.
    virtual bool isHardwareError(int error);
    virtual void setFifoCapacity(unsigned int capacity);
    virtual void setMaxCacheGraphNumber(int number);
    // In place of getResult(): the task is given back, and its result stays unread. Any thread.
    virtual void abandonResult(KelmTask* task);
    // Reads the temperature anew.
    virtual int updateThermal();
    virtual std::vector<KelmGraph*> getCachedGraphList();
    virtual std::vector<std::string> getCachedGraphNames();
    // The device is being taken away and records of graphs may follow: keeps no pointer to one that
    // it holds without a slave worker. Waits for no device call.
    virtual void forgetGraphs();

    [[nodiscard]] int openDevice() EXCLUDES(m_deviceMutex);
    void closeDevice() EXCLUDES(m_deviceMutex);
    [[nodiscard]] int resetDevice() EXCLUDES(m_deviceMutex);
    // A graph of the current graph's content is already there: 0, with nothing done.
    [[nodiscard]] int allocateGraph(KelmGraph* graph) EXCLUDES(m_deviceMutex);
    // `keepCached` lets the device keep the graph's image for a fast return.
    [[nodiscard]] int deallocateGraph(KelmGraph* graph, bool keepCached) EXCLUDES(m_deviceMutex);
    // Keeps no pointer to the graph, whose record may be deleted although the device could not
    // release it.
    void forgetGraph(KelmGraph* graph) EXCLUDES(m_deviceMutex);
    [[nodiscard]] int loadTensor(KelmTask* task);
    [[nodiscard]] int getResult(KelmTask* task);

    float getThermal() const { return m_thermal.load(); }
    int32_t getThermalThrottlingLevel() const { return m_thermalThrottlingLevel.load(); }
    uint32_t getDeviceId() const { return m_deviceId.load(); }
    // MB.
    uint32_t getMemorySize() const { return m_memorySize.load(); }
    const std::string& getName() const { return m_name; }
    // The device has failed, be it in the hands of the root or of this clone.
    bool isFailed() const {
        return m_deviceFailed.load() || (m_parent != nullptr && m_parent->isFailed());
    }
    KelmGraph* getCurrentGraph() const { return m_currentGraph.load(); }
    // Empty without a current graph, as the next three are 0 or false without their graph.
    std::string getCurrentGraphName() EXCLUDES(m_graphInfoMutex);
    std::string getPreviousGraphName() EXCLUDES(m_graphInfoMutex);
    uint32_t getCurrentInferenceCount() EXCLUDES(m_graphInfoMutex);
    uint32_t getPreviousInferenceCount() EXCLUDES(m_graphInfoMutex);
    bool getCurrentGraphLoadTime(TimePoint& time) EXCLUDES(m_graphInfoMutex);
    bool getPreviousGraphLoadTime(TimePoint& time) EXCLUDES(m_graphInfoMutex);
    bool getPreviousGraphUnloadTime(TimePoint& time) EXCLUDES(m_graphInfoMutex);
    // Results per second; 0 on a failed device.
    float getFps() EXCLUDES(m_graphInfoMutex);
    // Busy share of the last seconds, 0 to 1; 0 on a failed device.
    float getDeviceUtilization();

    static bool verifyGraph(const KelmGraph* graph);
    // Whether both are there and have the same content.
    static bool compareGraph(const KelmGraph* a, const KelmGraph* b);
    void increaseCacheTaskNum() EXCLUDES(m_graphInfoMutex);
    void decreaseCacheTaskNum() EXCLUDES(m_graphInfoMutex);

    // The one switch between simulation and hardware, asked anew at each call.
    static void initPlatform();
    [[nodiscard]] static int resetAllDevices();
    // Null when an installed factory makes none.
    static std::unique_ptr<KelmDeviceBase> create(const std::string& name);
    [[nodiscard]] static int getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                          size_t& result);
    // Stores the number of simulated devices when simulation is on and `count` is not null.
    static bool isFakeDeviceModeEnabled(int* count);
    // Makes create() use `factory`; null restores the configured kind. For tests, before any use.
    static void setFactory(Factory factory);

 protected:
    virtual int openDevice(const char* name) REQUIRES(m_deviceMutex) = 0;  // sets m_opened
    virtual int closeDeviceImpl() REQUIRES(m_deviceMutex) = 0;
    virtual int allocateGraphImpl(KelmGraph* graph) REQUIRES(m_deviceMutex) = 0;
    virtual int deallocateGraphImpl(KelmGraph* graph, bool keepCached) REQUIRES(m_deviceMutex) = 0;
    virtual int loadTensorImpl(KelmTask* task) = 0;
    virtual int getResultImpl(KelmTask* task) = 0;
    // Tells the journal when the device begins or ends to be slowed down.
    void setThermalThrottlingLevel(int32_t level);
    virtual int hardwareResetDeviceCore();  // any thread: a failing call may get here too
    // Drops what the device knows of the graph by its address; handles stay for the destructor.
    virtual void forgetGraphImpl(KelmGraph* graph) REQUIRES(m_deviceMutex);
    // Moves the current graph's statistics to the previous slots.
    void resetGraphInfo() EXCLUDES(m_graphInfoMutex);

    Mutex m_deviceMutex;
    bool m_opened GUARDED_BY(m_deviceMutex) = false;
    // Atomics: written at open or by the device's own threads, read by anyone for display.
    std::atomic<uint32_t> m_deviceId;
    std::atomic<uint32_t> m_memorySize{512};
    std::atomic<bool> m_deviceFailed{false};
    std::atomic<float> m_thermal{0.0f};
    std::atomic<int32_t> m_thermalThrottlingLevel{0};  // by setThermalThrottlingLevel()
    KelmDeviceBase* const m_parent;  // the device this one was cloned from, null for a root

 private:
    KelmDeviceBase(KelmDeviceBase* parent, const std::string& name, uint32_t deviceId);
    void setCurrentGraph(KelmGraph* graph) EXCLUDES(m_graphInfoMutex);
    void countResult() EXCLUDES(m_graphInfoMutex);

    // Atomic: devices are made on several threads. Shared by all, so that ids never repeat.
    static std::atomic<uint32_t> m_deviceIdCounter;
    const std::string m_name;

    Mutex m_graphInfoMutex ACQUIRED_AFTER(m_deviceMutex);
    std::atomic<KelmGraph*> m_currentGraph{nullptr};  // changed under the mutex, with what follows
    std::string m_currentGraphName GUARDED_BY(m_graphInfoMutex);
    std::string m_previousGraphName GUARDED_BY(m_graphInfoMutex);
    int32_t m_cacheTaskNum GUARDED_BY(m_graphInfoMutex) = 0;
    uint32_t m_currentInferenceCount GUARDED_BY(m_graphInfoMutex) = 0;
    uint32_t m_previousInferenceCount GUARDED_BY(m_graphInfoMutex) = 0;
    TimePoint m_currentGraphLoadTime GUARDED_BY(m_graphInfoMutex);
    TimePoint m_previousGraphLoadTime GUARDED_BY(m_graphInfoMutex);
    TimePoint m_previousGraphUnloadTime GUARDED_BY(m_graphInfoMutex);
    FpsCounter m_fpsCounter;
    UtilizationCounter m_utilizationCounter;
};

}  // namespace kelm
