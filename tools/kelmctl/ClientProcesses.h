#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace kelm::ctl {

// Processes forked to do one thing each. Whatever happens, none is left behind.
//
// Threads: one, which must be the only one of the process while it starts some.
class ClientProcesses {
 public:
    ClientProcesses() = default;
    ~ClientProcesses();  // kills those that still run
    ClientProcesses(const ClientProcesses&) = delete;
    ClientProcesses& operator=(const ClientProcesses&) = delete;

    // `client` is what the process does; its result is the exit status.
    void start(const std::function<int()>& client);
    void signal(int number) const;
    // Those that have not ended.
    size_t count();

 private:
    static int runChild(pid_t parent, const std::function<int()>& client);
    void reap(int flags);

    std::vector<pid_t> m_running;
};

}  // namespace kelm::ctl
