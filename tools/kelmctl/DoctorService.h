#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "client/Status.h"
#include "tools/kelmctl/DoctorReport.h"
#include "tools/kelmctl/GraphSession.h"

namespace kelm::ctl {

class Interruption;

struct ServiceLook {
    pid_t pid = 0;  // that listens on the socket; 0: nobody does, or it cannot be seen from here
    std::optional<client::ServiceStatus> status;  // nothing: the service does not answer

    // Outside of this container: what it has of the machine is not what is seen from here.
    bool isElsewhere() const { return status && pid <= 0; }
};

// The checks of the service itself. Each adds one row or more.

// Both sockets, and whether the service answers on them.
ServiceLook checkSockets(client::Deadline deadline, Interruption& interruption,
                         DoctorReport& report);
void checkLocks(const ServiceLook& service, DoctorReport& report);
// Whether the user belongs to the group of the socket, or to the one that it would have.
void checkGroup(const std::string& configured, DoctorReport& report);
// The way of a task there and back, through shared memory.
void checkInference(const GraphChoice& choice, bool isSimulated, Interruption& interruption,
                    DoctorReport& report);

}  // namespace kelm::ctl
