#pragma once

#include <future>
#include <memory>
#include <string>

#include "scheduling/devices/StatusChangeOperation.h"

namespace kelm {

// Takes a graph off a worker. A shallow unload lets the device keep the graph in its cache, so that
// it comes back fast; a deep one is for a graph that will be destroyed.
class UnloadGraphOperation : public StatusChangeOperation {
 public:
    // Null, with an ERROR line, for a null argument.
    static std::unique_ptr<UnloadGraphOperation> create(KelmGraph* graph, WorkThread* worker,
                                                        bool shallow);

    void wait() override;
    bool isOperation(KelmGraph* graph, StatusChangeRequestType type) override;
    WorkThread* getLostWorker() const override;

 protected:
    void operation() override;

 private:
    UnloadGraphOperation(KelmGraph* graph, WorkThread* worker, bool shallow);

    const bool m_shallow;
    KelmGraph* const m_graph;
    WorkThread* const m_worker;
    const std::string m_graphName;     // kept: the lines after a long wait do not follow the graph
    std::shared_future<int> m_future;  // empty before operation() and after wait()
};

}  // namespace kelm
