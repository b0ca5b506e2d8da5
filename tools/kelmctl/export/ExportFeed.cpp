#include "tools/kelmctl/export/ExportFeed.h"

#include <utility>

namespace kelm::ctl {

void ExportFeed::publish(Shared snapshot) {
    {
        MutexLock lock(m_mutex);
        m_newest = std::move(snapshot);
        m_publishedAt = std::chrono::steady_clock::now();
    }
    m_changed.notifyAll();
}

void ExportFeed::close() {
    {
        MutexLock lock(m_mutex);
        m_isClosed = true;
    }
    m_changed.notifyAll();
}

ExportFeed::Shared ExportFeed::newest() {
    MutexLock lock(m_mutex);
    return m_newest;
}

std::chrono::steady_clock::duration ExportFeed::age() {
    MutexLock lock(m_mutex);
    return std::chrono::steady_clock::now() - m_publishedAt;
}

ExportFeed::Shared ExportFeed::waitNewer(uint64_t number, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    const auto isNewer = [&]() REQUIRES(m_mutex) { return m_newest->number > number; };
    MutexLock lock(m_mutex);
    while (!m_isClosed && !isNewer() && m_changed.waitUntil(m_mutex, end)) {
    }
    return !m_isClosed && isNewer() ? m_newest : nullptr;
}

}  // namespace kelm::ctl
