#pragma once

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Mutex.h"

namespace kelm {

// Records what it is told, and may act on it as the owner of the graphs would. Any thread.
class FakeGraphPlacementListener final : public GraphPlacementListener {
 public:
    using Load = std::pair<KelmGraph*, KelmError>;

    // Runs inside each notice of a failed load, before it is recorded.
    void onFailedLoad(std::function<void(KelmGraph*)> hook) { m_onFailedLoad = std::move(hook); }

    void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) override {
        if (error != KELM_OK && m_onFailedLoad) m_onFailedLoad(graph);
        MutexLock lock(m_mutex);
        m_loads.emplace_back(graph, error);
    }
    void enqueueNotifyUnloadGraphDone(KelmGraph* graph) override {
        MutexLock lock(m_mutex);
        m_unloads.push_back(graph);
    }

    // What was told so far, in order.
    std::vector<Load> loads() {
        MutexLock lock(m_mutex);
        return m_loads;
    }
    std::vector<KelmGraph*> unloads() {
        MutexLock lock(m_mutex);
        return m_unloads;
    }

 private:
    std::function<void(KelmGraph*)> m_onFailedLoad;  // set before the first notice
    Mutex m_mutex;
    std::vector<Load> m_loads GUARDED_BY(m_mutex);
    std::vector<KelmGraph*> m_unloads GUARDED_BY(m_mutex);
};

}  // namespace kelm
