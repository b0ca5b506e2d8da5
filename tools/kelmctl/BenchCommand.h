#pragma once

#include "tools/kelmctl/BenchOptions.h"

namespace kelm::ctl {

// Runs the client processes, shows a progress line on a terminal and prints the report.
// Exit status: 0 when every client ran to its end. Must be called before any thread is started.
int runBench(const BenchOptions& options);

}  // namespace kelm::ctl
