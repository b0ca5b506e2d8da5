#include "bench/SyscallCounter.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace kelm::bench {

namespace {

constexpr const char* kTracepoint = "/sys/kernel/tracing/events/raw_syscalls/sys_enter/id";

}  // namespace

SyscallCounter::SyscallCounter(pid_t process) {
    uint64_t tracepoint = 0;
    if (!(std::ifstream(kTracepoint) >> tracepoint)) {
        m_whyNot = std::string("cannot read ") + kTracepoint;
        return;
    }
    const std::filesystem::path threads = "/proc/" + std::to_string(process) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        if (open(std::stoi(thread.path().filename()), tracepoint)) continue;
        if (errno == ESRCH) continue;  // a thread that has just ended calls nothing any more
        m_whyNot = std::string("perf_event_open: ") + std::strerror(errno);
        return;
    }
}

bool SyscallCounter::open(pid_t thread, uint64_t tracepoint) {
    perf_event_attr attributes{};
    attributes.size = sizeof(attributes);
    attributes.type = PERF_TYPE_TRACEPOINT;
    attributes.config = tracepoint;
    attributes.inherit = 1;
    UniqueFd counter(static_cast<int>(
        ::syscall(SYS_perf_event_open, &attributes, thread, -1, -1, PERF_FLAG_FD_CLOEXEC)));
    if (!counter) return false;
    m_counters.push_back(std::move(counter));
    return true;
}

std::optional<double> SyscallCounter::count() const {
    if (!m_whyNot.empty()) return std::nullopt;
    double sum = 0.0;
    for (const UniqueFd& counter : m_counters) {
        uint64_t count = 0;
        if (::read(counter.get(), &count, sizeof(count)) != sizeof(count)) return std::nullopt;
        sum += static_cast<double>(count);
    }
    return sum;
}

}  // namespace kelm::bench
