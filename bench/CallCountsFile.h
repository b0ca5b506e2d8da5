#pragma once

#include <string>
#include <vector>

#include "bench/CallCounts.h"
#include "tests/fakes/TempDir.h"

namespace kelm::bench {

struct CallSums {
    double mutexLocks = 0.0;
    double allocations = 0.0;
};

// The file into which one preloaded program counts its calls.
class CallCountsFile : public NonCopyable {
 public:
    CallCountsFile();
    ~CallCountsFile();

    // With which a program counts here, as NAME=value.
    std::vector<std::string> environment() const;
    CallSums sum() const;

 private:
    TempDir m_dir;
    const std::string m_path;
    CallCounts* m_counts;
};

}  // namespace kelm::bench
