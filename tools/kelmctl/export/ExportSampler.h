#pragma once

#include <thread>

#include "tools/kelmctl/StatusSource.h"
#include "tools/kelmctl/export/ExportCollector.h"
#include "tools/kelmctl/export/ExportFeed.h"
#include "tools/kelmctl/export/PageRoutes.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// Looks at the service once a second and hands out what it finds; a service that is not there is
// looked for again. A look ends after four seconds at most.
//
// Threads: one of its own. Owns: the connection. Locks: m_mutex, a leaf.
class ExportSampler {
 public:
    // All borrowed for the object's life; the page may be null.
    ExportSampler(Interruption& interruption, ExportFeed& feed, PageRoutes* page);
    ~ExportSampler();  // waits for the look under way and leaves the service
    ExportSampler(const ExportSampler&) = delete;
    ExportSampler& operator=(const ExportSampler&) = delete;

 private:
    void routine() EXCLUDES(m_mutex);
    ExportSnapshot look();
    // False when told to stop.
    bool waitUntil(std::chrono::steady_clock::time_point end) EXCLUDES(m_mutex);

    StatusSource m_source;  // the thread's, as the next
    ExportCollector m_collector;
    ExportFeed& m_feed;
    PageRoutes* const m_page;
    Mutex m_mutex;
    CondVar m_stopped;
    bool m_stop GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

}  // namespace kelm::ctl
