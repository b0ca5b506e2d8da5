#pragma once

#include <future>
#include <map>
#include <memory>
#include <string>

#include "scheduling/devices/StatusChangeOperation.h"

namespace kelm {

// Strips a worker whose device leaves of its graphs, then hands it to the listener that destroys
// it. From the end of wait() on the worker may be destroyed.
class PlugoutWorkerOperation : public StatusChangeOperation {
 public:
    // Null, with an ERROR line, for a null argument.
    static std::unique_ptr<PlugoutWorkerOperation> create(WorkThread* worker);

    void wait() override;

 protected:
    void operation() override;

 private:
    struct Unload {
        std::string graphName;
        std::shared_future<int> future;
    };

    explicit PlugoutWorkerOperation(WorkThread* worker);

    WorkThread* const m_worker;
    std::map<KelmGraph*, Unload> m_futures;
};

}  // namespace kelm
