#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "utils/UniqueFd.h"

namespace kelm::bench {

// System calls of a process from now on: of its threads, of those that they start, and of their
// child processes. Every call then costs somewhat more: not for timed runs.
class SyscallCounter {
 public:
    explicit SyscallCounter(pid_t process);

    // Nothing where the kernel does not count for this user.
    std::optional<double> count() const;
    // Why count() has nothing; empty if it has.
    const std::string& whyNot() const { return m_whyNot; }

 private:
    bool open(pid_t thread, uint64_t tracepoint);

    std::vector<UniqueFd> m_counters;  // one for each thread
    std::string m_whyNot;
};

}  // namespace kelm::bench
