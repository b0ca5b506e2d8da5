#pragma once

#include <sys/resource.h>
#include <sys/types.h>

namespace kelm::bench {

// What the kernel counts for a process, its threads that have ended included.
struct ProcessCounts {
    ProcessCounts() = default;
    // Of a child that has ended: with the children that it has waited for itself.
    explicit ProcessCounts(const rusage& usage);
    // Of a child that runs. It is stopped for a moment, for only then does the kernel tell a parent
    // what threads have used that are no longer listed below /proc. Not while it is measured.
    static ProcessCounts ofRunning(pid_t child);

    static ProcessCounts ofSelf();

    ProcessCounts& operator+=(const ProcessCounts& other);
    ProcessCounts operator-(const ProcessCounts& before) const;

    double switches = 0.0;  // context switches, voluntary or not
    double cpuMicros = 0.0;
};

}  // namespace kelm::bench
