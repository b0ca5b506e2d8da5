#pragma once

#include <cstddef>
#include <set>
#include <vector>

namespace kelm {

class KelmGraph;
class WorkThread;

// What the mapper does not know: which device has which graph in its cache. Exchanges the targets
// of whole workers, so that graphs land where they need no load over the bus. The targets
// themselves stay as they are. Pure: graphs and workers are keys that are not followed.
class CacheAdjustment {
 public:
    struct WorkerState {
        WorkThread* worker;
        std::set<KelmGraph*> graphs;           // the target, which the adjustment may exchange
        std::vector<KelmGraph*> cachedGraphs;  // as the device lists them
        std::set<KelmGraph*> initialGraphs;    // the target before the adjustment
    };

    // True if a target has changed its worker.
    static bool exchangeGraphs(std::vector<WorkerState>& states);

 private:
    static KelmGraph* chooseScarcest(const std::vector<WorkerState>& states, size_t first);
    static bool takeGraphs(std::vector<WorkerState>& states, size_t taker, KelmGraph* graph);
};

}  // namespace kelm
