#pragma once

#include <future>
#include <memory>
#include <string>

#include "scheduling/devices/StatusChangeOperation.h"

namespace kelm {

// Loads a graph on a worker.
class LoadGraphOperation : public StatusChangeOperation {
 public:
    // Null, with an ERROR line, for a null argument.
    static std::unique_ptr<LoadGraphOperation> create(KelmGraph* graph, WorkThread* worker);

    void wait() override;
    bool isOperation(KelmGraph* graph, StatusChangeRequestType type) override;
    void releaseFailed() override;
    WorkThread* getLostWorker() const override;

 protected:
    void operation() override;

 private:
    LoadGraphOperation(KelmGraph* graph, WorkThread* worker);

    KelmGraph* const m_graph;
    WorkThread* const m_worker;
    const std::string m_graphName;     // kept: the lines after a long wait do not follow the graph
    std::shared_future<int> m_future;  // empty before operation() and after wait()
};

}  // namespace kelm
