#pragma once

#include <cstdint>
#include <string>

#include "scheduling/mapping/GraphMapper.h"

namespace kelm {

inline KelmGraph* graphKey(size_t index) {
    return reinterpret_cast<KelmGraph*>(uintptr_t{0x10000} + index * 16);
}
inline WorkThread* workerKey(size_t index) {
    return reinterpret_cast<WorkThread*>(uintptr_t{0x90000} + index * 16);
}

// Opens a mapper to the tests, which use it on one thread only.
class GraphMapperProbe {
 public:
    explicit GraphMapperProbe(GraphMapper& mapper) : m_mapper(mapper) {}

    GraphItem& graph(size_t key) NO_THREAD_SAFETY_ANALYSIS {
        return *m_mapper.findGraph(graphKey(key));
    }
    DeviceItem& device(size_t key) NO_THREAD_SAFETY_ANALYSIS {
        return *m_mapper.findDevice(workerKey(key));
    }
    const GraphItemSet& graphs() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_graphSet; }
    const GraphItemSet& pending() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_pendingGraphSet; }
    const DeviceItemSet& devices() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_deviceSet; }
    const DeviceItemSet& shadows() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_newDeviceSet; }
    const GraphItem* master() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_masterGraph; }
    int mode() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_mapperMode; }
    uint32_t stableDevices() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_stableDeviceCount; }
    bool& changed() NO_THREAD_SAFETY_ANALYSIS { return m_mapper.m_graphChanged; }
    void clearChanged() NO_THREAD_SAFETY_ANALYSIS {
        m_mapper.m_graphChanged = m_mapper.m_deviceChanged = false;
    }
    int32_t buildPlan(uint32_t deviceNum) NO_THREAD_SAFETY_ANALYSIS {
        m_mapper.resetPlan();
        return m_mapper.mapGraphCore(deviceNum);
    }
    static void updateDeviceState(const DeviceItemSet& devices) {
        GraphMapper::updateDeviceState(devices);
    }
    static int compare(const DeviceItem* real, DeviceItem* shadow) {
        return GraphMapper::deviceMapperCompare(real, shadow);
    }
    static void copy(DeviceItem* real, DeviceItem* shadow) {
        GraphMapper::deviceMapperCopy(real, shadow);
    }
    void post() NO_THREAD_SAFETY_ANALYSIS { m_mapper.mapGraphPost(); }
    void groupGraphs() NO_THREAD_SAFETY_ANALYSIS { m_mapper.groupGraphs(); }
    bool filterGraphs(int number) NO_THREAD_SAFETY_ANALYSIS {
        return m_mapper.filterGraphs(number);
    }

 private:
    GraphMapper& m_mapper;
};

}  // namespace kelm
