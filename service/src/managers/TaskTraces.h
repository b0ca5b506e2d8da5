#pragma once

#include <cstdint>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/RecycledMap.h"

namespace kelm {

// The open tracer entries of the lives of tasks. Does nothing when the tracer is off.
//
// Threads: any. Locks: m_mutex is taken alone.
class TaskTraces : public NonCopyable {
 public:
    // Ends what is still open.
    ~TaskTraces();

    void begin(uint64_t taskId, uint64_t graphId, uint64_t clientId) EXCLUDES(m_mutex);
    // Once for each task; an unknown id does nothing.
    void finish(uint64_t taskId) EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    RecycledMap<uint64_t, uint64_t> m_taskTraces GUARDED_BY(m_mutex);  // tracer handles
};

}  // namespace kelm
