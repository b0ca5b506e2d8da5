#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "reporting/InfoCollector.h"
#include "utils/Mutex.h"

namespace kelm {

// Remembers who registered and who reported. Any thread.
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
        MutexLock lock(m_mutex);
        m_statusSources.push_back(source);
    }
    void enqueueUpdateInfoPackageDone(const std::string& source) override {
        MutexLock lock(m_mutex);
        m_packageSources.push_back(source);
    }

    std::set<PrintInfoListener*> listeners() {
        MutexLock lock(m_mutex);
        return m_listeners;
    }
    // Who has filled its part of a status record, in order.
    std::vector<std::string> statusSources() {
        MutexLock lock(m_mutex);
        return m_statusSources;
    }
    std::vector<std::string> packageSources() {
        MutexLock lock(m_mutex);
        return m_packageSources;
    }

 private:
    Mutex m_mutex;
    std::set<PrintInfoListener*> m_listeners GUARDED_BY(m_mutex);
    std::vector<std::string> m_statusSources GUARDED_BY(m_mutex);
    std::vector<std::string> m_packageSources GUARDED_BY(m_mutex);
};

}  // namespace kelm
