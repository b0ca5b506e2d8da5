#pragma once

#include <thread>

#include "tools/kelmctl/StatusSource.h"
#include "tools/kelmctl/export/ExportCollector.h"
#include "tools/kelmctl/export/ExportFeed.h"
#include "tools/kelmctl/export/PageRoutes.h"
#include "tools/kelmctl/export/StopSignal.h"

namespace kelm::ctl {

// Looks at the service once a second and hands out what it finds; a service that is not there is
// looked for again. Each step of a look ends after two seconds at most.
//
// Threads: one of its own. Owns: the connection. Locks: none but those of what it uses.
class ExportSampler {
 public:
    // All borrowed for the object's life; the page may be null.
    ExportSampler(Interruption& interruption, ExportFeed& feed, PageRoutes* page);
    // Waits for the look under way. The service is left by the interruption, with a limit that
    // suits the end of the process, and else by the end of the connection.
    ~ExportSampler();
    ExportSampler(const ExportSampler&) = delete;
    ExportSampler& operator=(const ExportSampler&) = delete;

 private:
    void routine();
    ExportSnapshot look();

    StatusSource m_source;  // the thread's, as the next
    ExportCollector m_collector;
    ExportFeed& m_feed;
    PageRoutes* const m_page;
    StopSignal m_stop;
    std::thread m_thread;
};

}  // namespace kelm::ctl
