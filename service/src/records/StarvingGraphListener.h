#pragma once

#include <cstdint>

namespace kelm {

// Port: hears that a task has begun to wait for a graph that no device runs, or that the tasks of
// one gather. Any thread; the call only wakes.
class StarvingGraphListener {
 public:
    // By subclass, since the graph may be gone before the listener looks.
    virtual void notifyGraphStarves(int32_t subclass) = 0;

 protected:
    ~StarvingGraphListener() = default;
};

}  // namespace kelm
