#pragma once

#include <functional>
#include <utility>

#include "fakes/Recorded.h"
#include "scheduling/devices/GraphPlacementListener.h"

namespace kelm {

// Records what it is told, and may act on it as the owner of the graphs would. Any thread.
class FakeGraphPlacementListener final : public GraphPlacementListener {
 public:
    using Load = std::pair<KelmGraph*, KelmError>;

    // Runs inside each notice of a failed load, before it is recorded.
    void onFailedLoad(std::function<void(KelmGraph*)> hook) { m_onFailedLoad = std::move(hook); }

    void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) override {
        if (error != KELM_OK && m_onFailedLoad) m_onFailedLoad(graph);
        loads.add(graph, error);
    }
    void enqueueNotifyUnloadGraphDone(KelmGraph* graph) override { unloads.add(graph); }

    Recorded<Load> loads;
    Recorded<KelmGraph*> unloads;

 private:
    std::function<void(KelmGraph*)> m_onFailedLoad;  // set before the first notice
};

}  // namespace kelm
