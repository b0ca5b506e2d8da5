#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "scheduling/mapping/MapperMatcher.h"
#include "scheduling/mapping/MapperModel.h"
#include "scheduling/mapping/MapperPlanner.h"
#include "scheduling/mapping/MappingCycle.h"
#include "utils/Log.h"

namespace kelm {

inline KelmGraph* graphKey(size_t index) {
    return reinterpret_cast<KelmGraph*>(uintptr_t{0x10000} + index * 16);
}
inline WorkThread* workerKey(size_t index) {
    return reinterpret_cast<WorkThread*>(uintptr_t{0x90000} + index * 16);
}

// Graphs by their keys' index, device by device in the order of their places.
using Places = std::vector<std::vector<size_t>>;

inline Places placesOf(const DeviceItemSet& devices) {
    Places places;
    for (const DeviceItem* device : devices) {
        std::vector<size_t>& here = places.emplace_back();
        for (const GraphItem* item : device->graphs) {
            here.push_back((reinterpret_cast<uintptr_t>(item->graph) - 0x10000) / 16);
        }
    }
    return places;
}

// A model with devices of 512 MB and graphs of such demands, none of them new, and what works on
// it. Items are set directly where a case needs a picture that takes long to come about.
class MapperPool {
 public:
    MapperPool(size_t devices, int maxGraphs, const std::vector<float>& demands = {})
        : limits{.maxGraphNumPerDevice = maxGraphs, .maxPendingTaskNum = 20, .maxPendingCycle = 3} {
        Log::instance().setLogLevel(0);
        for (size_t i = 0; i < devices; ++i) model.addDevice(workerKey(i), 512, "worker");
        for (const float demand : demands) addGraph(demand);
    }
    void addGraph(float demand) {
        const size_t index = model.graphs().size();
        model.addGraph(graphKey(index), 1, 0, "graph", limits.maxGraphNumPerDevice);
        graph(index).devReq = demand;
        graph(index).isNewGraph = false;
    }
    GraphItem& graph(size_t index) { return *model.findGraph(graphKey(index)); }
    DeviceItem& device(size_t index) { return *model.findDevice(workerKey(index)); }
    int32_t plan(uint32_t deviceNum) {
        return MapperPlanner(model, limits.maxGraphNumPerDevice, false)
            .mapRunGraphBalance(deviceNum);
    }
    bool remap() { return MappingCycle(model, matcher, limits, false).run(); }
    std::vector<size_t> pending() {
        std::vector<size_t> pending;
        for (size_t i = 0; i < model.graphs().size(); ++i) {
            if (model.graphs()[i]->status == MAPPER_GRAPH_PENDING) pending.push_back(i);
        }
        return pending;
    }

    MapperModel model{false};
    MapperMatcher matcher{false};
    MapperLimits limits;
};

}  // namespace kelm
