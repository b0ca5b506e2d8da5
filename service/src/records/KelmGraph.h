#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "utils/FpsCounter.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

// One graph known to the service: its blob and identity, the clients that use it, the devices that
// hold it, and the running figures from which the schedulers estimate its demand.
//
// Created and deleted by the graph manager only; others hold plain pointers until they have
// confirmed that they let go.
//
// Threads: any. Fields without a guard are fixed before the graph is shared.
// Locks: m_mutex, then a counter's; m_inferenceMutex is taken alone.
class KelmGraph : public NonCopyable {
 public:
    using TimePoint = std::chrono::system_clock::time_point;

    // A null name means "unnamed".
    KelmGraph(uint64_t id, uint64_t clientId, const char* name, int32_t expectDeviceNumber);
    // Reads the whole file; without one, data and hash stay empty.
    KelmGraph(uint64_t id, uint64_t clientId, const char* path, const char* name,
              int32_t expectDeviceNumber);
    // Copies the buffer.
    KelmGraph(uint64_t id, uint64_t clientId, const char* buffer, uint64_t size, const char* name,
              int32_t expectDeviceNumber);
    // Takes over bytes that were read from `path`, with their digest.
    KelmGraph(uint64_t id, uint64_t clientId, const char* path, UniqueMalloc<char> data,
              uint64_t size, std::string hash, const char* name, int32_t expectDeviceNumber);
    ~KelmGraph();

    uint64_t getId() const { return m_id; }
    const std::string& getPath() const { return m_path; }
    const std::string& getHash() const { return m_hash; }
    const std::string& getTag() const { return m_tag; }
    const std::string& getStreamId() const { return m_streamId; }
    const char* getData() const { return m_data.get(); }
    uint64_t getDataSize() const { return m_dataSize; }
    int32_t getInterfaceSubclass() const { return m_interfaceSubclass; }
    int32_t getExpectDeviceNumber() const { return m_expectDeviceNumber; }
    uint64_t getInputBufferSize() const { return m_inputBufferSize; }
    uint64_t getOutputBufferSize() const { return m_outputBufferSize; }
    uint64_t getTimeTakensSize() const { return m_timeTakensSize; }
    uint64_t getDebugBufferSize() const { return m_debugBufferSize; }
    uint64_t getThermalBufferSize() const { return m_thermalBufferSize; }
    std::string getName() EXCLUDES(m_mutex);
    int32_t getMaxGraphNumPerDevice() EXCLUDES(m_mutex);
    // MB of device memory.
    uint32_t getMemReq() EXCLUDES(m_mutex);
    uint32_t getNumWaitTasks() EXCLUDES(m_mutex);
    int32_t getRunningDeviceNum() EXCLUDES(m_mutex);
    int32_t getCachedDeviceNum() EXCLUDES(m_mutex);
    uint32_t getLoadFailCount() EXCLUDES(m_mutex);
    uint32_t getOutCycleNum() EXCLUDES(m_mutex);
    int64_t getTaskCount() const { return m_taskCount.load(); }
    uint64_t getInferenceTimes() const { return m_inferenceTimes.load(); }

    // A null pointer changes nothing.
    void setTag(const char* tag);
    void setStreamId(const char* streamId);
    void setInterfaceSubclass(int32_t subclass) { m_interfaceSubclass = subclass; }
    void setInputBufferSize(uint64_t size) { m_inputBufferSize = size; }
    void setOutputBufferSize(uint64_t size) { m_outputBufferSize = size; }
    void setTimeTakensSize(uint64_t size) { m_timeTakensSize = size; }
    void setDebugBufferSize(uint64_t size) { m_debugBufferSize = size; }
    void setThermalBufferSize(uint64_t size) { m_thermalBufferSize = size; }
    // The tracer's handle of the first load; set before the graph is shared.
    uint64_t getLoadTraceIndex() const { return m_loadTraceIndex; }
    void setLoadTraceIndex(uint64_t index) { m_loadTraceIndex = index; }
    // Values below 1 are ignored.
    void setMaxGraphNumPerDevice(int32_t number) EXCLUDES(m_mutex);
    void setMemReq(uint32_t megabytes) EXCLUDES(m_mutex);
    void increaseTaskCount() { m_taskCount.fetch_add(1); }
    void decreaseTaskCount() { m_taskCount.fetch_sub(1); }
    void increaseInferenceTimes() { m_inferenceTimes.fetch_add(1); }
    void increaseLoadFailCount() EXCLUDES(m_mutex);

    // Users: the clients that hold the graph, each with the name that it gave.
    void appendName(uint64_t clientId, const char* name) EXCLUDES(m_mutex);
    // True if the client was a user.
    bool removeUser(uint64_t clientId) EXCLUDES(m_mutex);
    // Whether the graph has users; says nothing about devices.
    bool isRunning() EXCLUDES(m_mutex);
    // The names that the client directory gives for the users, in id order.
    std::vector<std::string> getClientNames() EXCLUDES(m_mutex);
    // Sets the name to the users' names joined by ";".
    void spliceGraphName() EXCLUDES(m_mutex);

    // Names of the devices that run the graph, and of those that hold it.
    void appendRunningDevice(const std::string& device) EXCLUDES(m_mutex);
    void removeRunningDevice(const std::string& device) EXCLUDES(m_mutex);
    void appendCachedDevice(const std::string& device) EXCLUDES(m_mutex);
    void removeCachedDevice(const std::string& device) EXCLUDES(m_mutex);

    // A task arrived, and a task left the waiting state.
    void updateFpsIn() EXCLUDES(m_mutex);
    void updateFpsOut() EXCLUDES(m_mutex);
    float getFpsIn() { return m_fpsIn.getFps(); }
    float getFpsOut() { return m_fpsOut.getFps(); }
    // Milliseconds; values that are not finite and above 0 are ignored.
    void updateInferenceTime(float milliseconds) EXCLUDES(m_inferenceMutex);
    // Mean of the last 200, 0 without any.
    float getAvgInferTime() EXCLUDES(m_inferenceMutex);
    float getDevReqFactor(float deviceRequest);
    // How many devices the graph needs right now, by its rates, backlog and inference time.
    float getDevReqNum();

    void setPendingState(bool pending) EXCLUDES(m_mutex);
    bool isPending() EXCLUDES(m_mutex);
    // If pending, stores since when and returns true.
    bool getStartPendingTime(TimePoint& time) EXCLUDES(m_mutex);

    // Writes the blob; makes the directories of `path`. False on failure, with an ERROR line.
    bool dumpToFile(const std::string& path) EXCLUDES(m_mutex);

 private:
    void calculateGraphHash();
    void setBlob(UniqueMalloc<char> data, uint64_t size);

    const uint64_t m_id;
    std::string m_hash;  // 64 lower-case hexadecimal characters
    std::string m_path;
    std::string m_tag;
    std::string m_streamId;
    UniqueMalloc<char> m_data;
    uint64_t m_dataSize = 0;
    int32_t m_interfaceSubclass = 0;
    const int32_t m_expectDeviceNumber;
    uint64_t m_inputBufferSize = 0;
    uint64_t m_outputBufferSize = 0;
    uint64_t m_timeTakensSize = 0;
    uint64_t m_debugBufferSize = 0;
    uint64_t m_thermalBufferSize = 0;
    uint64_t m_loadTraceIndex = 0;

    Mutex m_mutex;
    std::string m_name GUARDED_BY(m_mutex);
    int32_t m_maxGraphNumPerDevice GUARDED_BY(m_mutex) = 1;
    uint32_t m_memReq GUARDED_BY(m_mutex) = 0;
    uint32_t m_loadFailCount GUARDED_BY(m_mutex) = 0;
    bool m_isPending GUARDED_BY(m_mutex) = false;
    uint32_t m_outCycleNum GUARDED_BY(m_mutex) = 0;
    uint32_t m_numWaitTasks GUARDED_BY(m_mutex) = 0;
    std::map<uint64_t, std::string> m_users GUARDED_BY(m_mutex);
    std::unordered_set<std::string> m_runningDevices GUARDED_BY(m_mutex);
    std::unordered_set<std::string> m_cachedDevices GUARDED_BY(m_mutex);
    TimePoint m_startPendingTime GUARDED_BY(m_mutex);

    FpsCounter m_fpsIn;
    FpsCounter m_fpsOut;
    // Atomic: task threads change them without the mutex, and nobody decides on both together.
    std::atomic<int64_t> m_taskCount{0};
    std::atomic<uint64_t> m_inferenceTimes{0};

    Mutex m_inferenceMutex;
    const std::string m_originalName;
    const uint64_t m_maxInferTimeNum = 200;
    Ring<float> m_inferTimes GUARDED_BY(m_inferenceMutex);  // milliseconds, oldest first
};

}  // namespace kelm
