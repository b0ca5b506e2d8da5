#include "managers/TaskTraces.h"

#include "utils/Tracer.h"

namespace kelm {

TaskTraces::~TaskTraces() {
    MutexLock lock(m_mutex);
    for (const auto& [taskId, trace] : m_taskTraces) TraceEndCsv(trace);
}

void TaskTraces::begin(uint64_t taskId, uint64_t graphId, uint64_t clientId) {
    if (!isTracerOn()) return;
    traceName("task,", taskId, ",", graphId, ",", clientId);
    const uint64_t trace = traceBegin("task_", taskId);
    MutexLock lock(m_mutex);
    m_taskTraces.insert(taskId, trace);
}

void TaskTraces::finish(uint64_t taskId) {
    if (!isTracerOn()) return;
    uint64_t trace = 0;
    {  // the tracer has a mutex of its own, so it is called after this one
        MutexLock lock(m_mutex);
        const uint64_t* found = m_taskTraces.find(taskId);
        if (found == nullptr) return;
        trace = *found;
        m_taskTraces.erase(taskId);
    }
    TraceEndCsv(trace);
}

}  // namespace kelm
