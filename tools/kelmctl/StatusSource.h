#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "client/Client.h"
#include "client/SnapshotReader.h"
#include "tools/kelmctl/EventFollower.h"

namespace kelm::ctl {

class Interruption;

// The service at one moment. Without a snapshot, why there is none.
struct StatusLook {
    client::ServiceStatus status;
    std::optional<client::Snapshot> snapshot;
    std::string snapshotWhy;
    pid_t servicePid = 0;  // 0: not seen from here
    // None from a service that does not tell.
    std::optional<EventHistory> history;
};

// Looks at the service, as its client "kelmctl"; after a failure the next look connects anew.
//
// Threads: one. Owns: a share of the connection, the other one is the interruption's; that of the
// events.
class StatusSource {
 public:
    // The interruption is borrowed for the object's life. Each look has up to so many of the last
    // events.
    explicit StatusSource(Interruption& interruption, size_t events = 0)
        : m_interruption(interruption), m_events(events) {}

    client::Result<StatusLook> look(client::Deadline deadline = client::kDefaultDeadline);
    // Unregisters.
    client::Error leave();

 private:
    client::Error connect(client::Deadline deadline);
    void drop();

    Interruption& m_interruption;
    EventFollower m_events;
    std::shared_ptr<client::Client> m_service;  // null: not connected
};

}  // namespace kelm::ctl
