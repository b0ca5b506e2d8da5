#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "bench/ProcessCounts.h"
#include "utils/NonCopyable.h"

namespace kelm::bench {

// A program as a child process, its standard output dropped. The destructor kills it, if it runs.
class Child : public NonCopyable {
 public:
    // `environment`, as NAME=value, counts more than this process's own. The child stands before
    // its first instruction of the program until wait(), so that counters can be attached to it.
    Child(std::vector<std::string> arguments, std::vector<std::string> environment);
    ~Child();

    pid_t pid() const { return m_pid; }
    // Lets it run to its end. Throws if it did not end well.
    ProcessCounts wait();

 private:
    const std::string m_program;
    pid_t m_pid;
};

}  // namespace kelm::bench
