#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelm::ctl {

// What the kernel tells everybody about a process. Of one that has ended nothing is known.
class ProcessFacts {
 public:
    explicit ProcessFacts(pid_t pid) : m_pid(pid) {}

    // For a text, as "process 12 (kelmdaemon)"; -1 is a process of another pid namespace.
    std::string describe() const;
    // The most descriptors that it may have now.
    std::optional<uint64_t> descriptorLimit() const;
    // Those that it has; only its own user and root are told.
    std::optional<uint64_t> descriptorCount() const;
    // A number of /proc/PID/status, as "Threads" or, in KiB, "VmRSS".
    std::optional<uint64_t> statusNumber(const std::string& key) const;
    std::optional<uid_t> user() const;
    std::vector<gid_t> groups() const;

 private:
    std::string directory() const { return "/proc/" + std::to_string(m_pid); }
    // What stands behind a word at the begin of a line; empty: there is no such line.
    std::string findLine(const std::string& file, const std::string& begin) const;

    const pid_t m_pid;
};

}  // namespace kelm::ctl
