#include "tools/simulator/CallLog.h"

namespace kelm::simulator {

namespace {

// Atomic: set by one thread before and after the calls of the others.
std::atomic<CallLog*> current{nullptr};

}  // namespace

CallLog::CallLog() { current = this; }

CallLog::~CallLog() { current = nullptr; }

bool CallLog::isOn() { return current != nullptr; }

void CallLog::note(const std::string& name) {
    CallLog* const log = current;
    if (log == nullptr) return;
    MutexLock lock(log->m_mutex);
    log->m_calls.push_back(name);
    ++log->m_counts[name];
}

int CallLog::count(const std::string& name) {
    MutexLock lock(m_mutex);
    return m_counts[name];
}

std::vector<std::string> CallLog::take() {
    MutexLock lock(m_mutex);
    return std::exchange(m_calls, {});
}

}  // namespace kelm::simulator
