#pragma once

#include <memory>

#include "reporting/EventJournal.h"
#include "reporting/EventListener.h"
#include "reporting/EventServer.h"
#include "utils/Singleton.h"

namespace kelm {

// The journal of the service's events, and the socket on which tools follow it.
//
// Threads: record() on any; the rest on the thread that starts and stops the service.
class EventReporter final : public Singleton<EventReporter>, public EventListener {
 public:
    EventReporter();
    ~EventReporter();

    // Opens the events socket; raises if it cannot be made.
    void setupListenThread();
    // From here on readers are served.
    void start();
    // False if the server's thread has not ended in bounded time.
    bool stop();

    void record(const ServiceEvent& event) override { m_journal.record(event); }

 private:
    EventJournal m_journal;
    std::unique_ptr<EventServer> m_server;
};

}  // namespace kelm
