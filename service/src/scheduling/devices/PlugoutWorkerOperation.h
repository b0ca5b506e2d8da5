#pragma once

#include <future>
#include <map>
#include <memory>
#include <string>

#include "scheduling/devices/StatusChangeOperation.h"

namespace kelm {

// Strips a worker that goes away of its graphs, then tells whoever deletes it. From the end of
// wait() on the worker may be gone.
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
