#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "client/Client.h"
#include "client/SnapshotReader.h"

namespace kelm::ctl {

class Interruption;

// The service at one moment. Without a snapshot, why there is none.
struct StatusLook {
    client::ServiceStatus status;
    std::optional<client::Snapshot> snapshot;
    std::string snapshotWhy;
    pid_t servicePid = 0;  // 0: not seen from here
    // Graphs loaded, unloaded or moved since the service's start, by reason; none from a service
    // that does not tell.
    std::optional<std::map<std::string, uint64_t>> moves;
};

// Looks at the service, as its client "kelmctl"; after a failure the next look connects anew.
//
// Threads: one. Owns: a share of the connection, the other one is the interruption's.
class StatusSource {
 public:
    // The interruption is borrowed for the object's life.
    explicit StatusSource(Interruption& interruption) : m_interruption(interruption) {}

    client::Result<StatusLook> look(client::Deadline deadline = client::kDefaultDeadline);
    // Unregisters.
    client::Error leave();

 private:
    client::Error connect(client::Deadline deadline);
    void drop();

    Interruption& m_interruption;
    std::shared_ptr<client::Client> m_service;  // null: not connected
};

}  // namespace kelm::ctl
