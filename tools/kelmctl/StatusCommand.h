#pragma once

#include <optional>

namespace kelm::ctl {

struct StatusOptions {
    bool json = false;            // one object a line
    std::optional<double> watch;  // seconds between two; none: once
};

// Prints what the service is doing; a watch ends with the service or by a signal.
int runStatus(const StatusOptions& options);

}  // namespace kelm::ctl
