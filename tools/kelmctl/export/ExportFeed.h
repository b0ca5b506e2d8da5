#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "tools/kelmctl/export/ExportModel.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// Hands the newest snapshot to those who want it.
//
// Threads: any. Locks: m_mutex, a leaf.
class ExportFeed {
 public:
    using Shared = std::shared_ptr<const ExportSnapshot>;

    void publish(Shared snapshot) EXCLUDES(m_mutex);
    // Ends all waits, also later ones.
    void close() EXCLUDES(m_mutex);
    // One of number 0 before the first.
    Shared newest() EXCLUDES(m_mutex);
    // Since the newest was published, or the feed made.
    std::chrono::steady_clock::duration age() EXCLUDES(m_mutex);
    // The newest as soon as its number is above the given one; null after the time, or once closed.
    Shared waitNewer(uint64_t number, std::chrono::milliseconds time) EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    CondVar m_changed;
    bool m_isClosed GUARDED_BY(m_mutex) = false;
    Shared m_newest GUARDED_BY(m_mutex) = std::make_shared<ExportSnapshot>();
    std::chrono::steady_clock::time_point m_publishedAt GUARDED_BY(m_mutex) =
        std::chrono::steady_clock::now();
};

}  // namespace kelm::ctl
