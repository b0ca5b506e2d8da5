#pragma once

#include "tools/kelmctl/BenchOptions.h"

namespace kelm::ctl {

// Runs the client processes, shows a progress line on a terminal and prints the report.
// SIGINT, SIGTERM and SIGHUP end it early, with the report of what was measured. Exit status: 0
// when every client ran to its end, results came and no more calls failed than allowed (in a
// search: a rate was found); 1; or 128 and the number of the signal. Must be called before any
// thread is started.
int runBench(const BenchOptions& options);

}  // namespace kelm::ctl
