#pragma once

#include <optional>

namespace kelm::ctl {

struct StatusOptions {
    bool json = false;            // one object a line
    std::optional<double> watch;  // seconds between two; none: once
};

// Prints what the service is doing. A watch lives through absences of the service, and ends by a
// signal or because its reader has left: the exit status is then 128 and the number of the signal,
// SIGPIPE for the reader.
int runStatus(const StatusOptions& options);

}  // namespace kelm::ctl
