#pragma once

#include "execution/KelmDeviceBase.h"
#include "fakes/Recorded.h"
#include "records/KelmGraph.h"
#include "utils/Mutex.h"

namespace kelm {

enum class DeviceCall { Open, Reset, Allocate, Deallocate, LoadTensor, GetResult, Forget, Thermal };

// What the scripted device of a name and its clones do, and what they were told. Any thread.
class DeviceScript {
 public:
    // The nth call of the kind from now on, counted from 1, fails with the error.
    void fail(DeviceCall call, int nth, int error) {
        MutexLock lock(m_mutex);
        m_failures[{call, m_counts[call] + nth}] = error;
    }
    // Every call of the kind fails so; 0 ends it.
    void failAll(DeviceCall call, int error) {
        MutexLock lock(m_mutex);
        m_standing[call] = error;
    }
    // The error means that the device is lost.
    void setHardwareError(int error) { m_hardwareError = error; }
    // A reset ends the device, as it does an accelerator.
    void loseOnReset() { m_lostOnReset = true; }
    // Calls of the kind wait inside, until release(). A test must not end before it has released.
    void block(DeviceCall call) {
        MutexLock lock(m_mutex);
        m_blocked.insert(call);
    }
    void release(DeviceCall call) {
        MutexLock lock(m_mutex);
        m_blocked.erase(call);
        m_released.notifyAll();
    }
    // Calls of the kind that were begun.
    int count(DeviceCall call) {
        MutexLock lock(m_mutex);
        return m_counts[call];
    }

    Recorded<KelmTask*> loadedTasks;  // failed calls included
    // With `keepCached`; those of the root and of the clones.
    Recorded<std::pair<KelmGraph*, bool>> deallocated;
    unsigned int fifoCapacity() const { return m_fifoCapacity; }
    int maxCacheGraphNumber() const { return m_maxCacheGraphNumber; }

 private:
    friend class ScriptedDevice;

    int run(DeviceCall call) {
        MutexLock lock(m_mutex);
        const int number = ++m_counts[call];
        while (m_blocked.contains(call)) m_released.wait(m_mutex);
        const auto failure = m_failures.find({call, number});
        return failure != m_failures.end() ? failure->second : m_standing[call];
    }

    Mutex m_mutex;
    CondVar m_released;
    std::map<std::pair<DeviceCall, int>, int> m_failures GUARDED_BY(m_mutex);
    std::map<DeviceCall, int> m_standing GUARDED_BY(m_mutex);
    std::map<DeviceCall, int> m_counts GUARDED_BY(m_mutex);
    std::set<DeviceCall> m_blocked GUARDED_BY(m_mutex);
    std::atomic<int> m_hardwareError{0};
    std::atomic<unsigned int> m_fifoCapacity{0};
    std::atomic<int> m_maxCacheGraphNumber{0};
    std::atomic<bool> m_lostOnReset{false};
    std::vector<KelmGraph*> m_cached GUARDED_BY(m_mutex);
};

// A device that does what its script says. Like an accelerator it keeps graphs that were unloaded
// with `keepCached`, one cache for the root and its clones, and enters its name in the graphs.
class ScriptedDevice : public KelmDeviceBase {
 public:
    ScriptedDevice(const std::string& name, std::shared_ptr<DeviceScript> script)
        : KelmDeviceBase(name), m_script(std::move(script)) {}
    explicit ScriptedDevice(ScriptedDevice* parent)
        : KelmDeviceBase(parent), m_script(parent->m_script) {}

    using KelmDeviceBase::openDevice;
    std::unique_ptr<KelmDeviceBase> clone() override {
        return std::make_unique<ScriptedDevice>(this);
    }
    bool isHardwareError(int error) override {
        return error != 0 && error == m_script->m_hardwareError;
    }
    void setFifoCapacity(unsigned int capacity) override { m_script->m_fifoCapacity = capacity; }
    void setMaxCacheGraphNumber(int number) override { m_script->m_maxCacheGraphNumber = number; }
    int updateThermal() override {
        const int rc = m_script->run(DeviceCall::Thermal);
        if (isHardwareError(rc)) m_deviceFailed = true;
        return rc;
    }
    std::vector<KelmGraph*> getCachedGraphList() override {
        MutexLock lock(m_script->m_mutex);
        return m_script->m_cached;
    }
    void forgetGraphs() override {
        for (KelmGraph* graph : getCachedGraphList()) drop(graph, false);
    }

 protected:
    int openDevice(const char*) override REQUIRES(m_deviceMutex) {
        const int rc = m_script->run(DeviceCall::Open);
        m_opened = rc == 0;
        return rc;
    }
    int closeDeviceImpl() override REQUIRES(m_deviceMutex) {
        m_opened = false;
        return 0;
    }
    int allocateGraphImpl(KelmGraph* graph) override {
        const int rc = m_script->run(DeviceCall::Allocate);
        if (rc != 0) return rc;
        graph->appendCachedDevice(getName());
        graph->appendRunningDevice(getName());
        MutexLock lock(m_script->m_mutex);
        std::erase(m_script->m_cached, graph);
        m_script->m_cached.push_back(graph);
        return 0;
    }
    int deallocateGraphImpl(KelmGraph* graph, bool keepCached) override {
        m_script->deallocated.add(graph, keepCached);
        const int rc = m_script->run(DeviceCall::Deallocate);
        drop(graph, keepCached);
        return rc;
    }
    void forgetGraphImpl(KelmGraph* graph) override {
        (void)m_script->run(DeviceCall::Forget);
        drop(graph, false);
    }
    int loadTensorImpl(KelmTask* task) override {
        m_script->loadedTasks.add(task);
        return m_script->run(DeviceCall::LoadTensor);
    }
    int getResultImpl(KelmTask*) override { return m_script->run(DeviceCall::GetResult); }
    int hardwareResetDeviceCore() override {
        const int rc = m_script->run(DeviceCall::Reset);
        if (m_script->m_lostOnReset) m_deviceFailed = true;
        return rc;
    }

 private:
    void drop(KelmGraph* graph, bool keepCached) {
        graph->removeRunningDevice(getName());
        if (keepCached) return;
        graph->removeCachedDevice(getName());
        MutexLock lock(m_script->m_mutex);
        std::erase(m_script->m_cached, graph);
    }

    const std::shared_ptr<DeviceScript> m_script;
};

// While it lives, KelmDeviceBase::create() makes scripted devices; one script for each name.
class ScriptedDevices {
 public:
    ScriptedDevices() {
        KelmDeviceBase::setFactory([this](const std::string& name) {
            return std::make_unique<ScriptedDevice>(name, find(name));
        });
    }
    ~ScriptedDevices() { KelmDeviceBase::setFactory(nullptr); }
    ScriptedDevices(const ScriptedDevices&) = delete;
    ScriptedDevices& operator=(const ScriptedDevices&) = delete;

    DeviceScript& operator[](const std::string& name) { return *find(name); }

 private:
    std::shared_ptr<DeviceScript> find(const std::string& name) {
        MutexLock lock(m_mutex);
        std::shared_ptr<DeviceScript>& script = m_scripts[name];
        if (!script) script = std::make_shared<DeviceScript>();
        return script;
    }

    Mutex m_mutex;
    std::map<std::string, std::shared_ptr<DeviceScript>> m_scripts GUARDED_BY(m_mutex);
};

}  // namespace kelm
