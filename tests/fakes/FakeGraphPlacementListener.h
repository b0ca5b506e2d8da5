#pragma once

#include "fakes/Recorded.h"
#include "scheduling/devices/GraphPlacementListener.h"

namespace kelm {

// Records what it is told. Any thread.
class FakeGraphPlacementListener final : public GraphPlacementListener {
 public:
    using Load = std::pair<KelmGraph*, KelmError>;

    void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) override {
        loads.add(graph, error);
    }
    void enqueueNotifyUnloadGraphDone(KelmGraph* graph) override { unloads.add(graph); }

    Recorded<Load> loads;
    Recorded<KelmGraph*> unloads;
};

}  // namespace kelm
