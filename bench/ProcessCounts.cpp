#include "bench/ProcessCounts.h"

#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

namespace kelm::bench {

namespace {

double micros(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

}  // namespace

ProcessCounts::ProcessCounts(const rusage& usage)
    : switches(static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)),
      cpuMicros(micros(usage.ru_utime) + micros(usage.ru_stime)) {}

ProcessCounts ProcessCounts::ofRunning(pid_t child) {
    rusage usage{};
    int status = 0;
    ::kill(child, SIGSTOP);
    if (::wait4(child, &status, WUNTRACED, &usage) != child || !WIFSTOPPED(status)) {
        throw std::runtime_error("the service ended while it was measured");
    }
    ::kill(child, SIGCONT);
    return ProcessCounts(usage);
}

ProcessCounts ProcessCounts::ofSelf() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return ProcessCounts(usage);
}

ProcessCounts& ProcessCounts::operator+=(const ProcessCounts& other) {
    switches += other.switches;
    cpuMicros += other.cpuMicros;
    return *this;
}

ProcessCounts ProcessCounts::operator-(const ProcessCounts& before) const {
    ProcessCounts difference = *this;
    difference.switches -= before.switches;
    difference.cpuMicros -= before.cpuMicros;
    return difference;
}

}  // namespace kelm::bench
