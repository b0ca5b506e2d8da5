#pragma once

#include "protocol/src/KelmError.h"

namespace kelm {

class KelmGraph;

// Port: hears where a graph's load or unload has ended. Any thread; every call only queues.
class GraphPlacementListener {
 public:
    // The graph's first load has ended, for better or worse.
    virtual void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) = 0;
    // No device holds the graph, and nothing on the device side refers to it any more.
    virtual void enqueueNotifyUnloadGraphDone(KelmGraph* graph) = 0;

 protected:
    ~GraphPlacementListener() = default;
};

}  // namespace kelm
