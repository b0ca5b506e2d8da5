#pragma once

#include "fakes/Recorded.h"
#include "reporting/InfoCollector.h"

namespace kelm {

// Remembers which listeners are registered, and which parts have reported. Any thread.
class FakeInfoCollector final : public InfoCollector {
 public:
    bool registerListener(PrintInfoListener* listener) override {
        MutexLock lock(m_mutex);
        return listener != nullptr && m_listeners.insert(listener).second;
    }
    void unregisterListener(PrintInfoListener* listener) override {
        MutexLock lock(m_mutex);
        m_listeners.erase(listener);
    }
    void enqueueQueryStatusDone(const std::shared_ptr<KelmStatus>& /*status*/,
                                const std::string& source) override {
        statusSources.add(source);
    }
    void enqueueUpdateInfoPackageDone(const std::string& source) override {
        packageSources.add(source);
    }

    std::set<PrintInfoListener*> listeners() {
        MutexLock lock(m_mutex);
        return m_listeners;
    }

    Recorded<std::string> statusSources;
    Recorded<std::string> packageSources;

 private:
    Mutex m_mutex;
    std::set<PrintInfoListener*> m_listeners GUARDED_BY(m_mutex);
};

}  // namespace kelm
