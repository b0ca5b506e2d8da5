#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/kelmctl/TraceRow.h"

namespace kelm::ctl {

// Finds out which rows are in only one of the two files of a trace. Holds those whose partner has
// not come yet: few, if both files are read side by side.
class TracePairs {
 public:
    void add(const TraceRow& row, TraceFileKind kind);

    // Once all rows have been added: how many have no partner.
    uint64_t countOnlyInTasks() const;
    // Those of the frames file without a partner, in the order of their ends.
    std::vector<TraceRow> onlyInFrames() const;

 private:
    // A row without its thread, as a line of the frames file, and how many more of it are in the
    // tasks file than in the frames file. Never 0.
    std::unordered_map<std::string, int64_t> m_unpaired;
};

}  // namespace kelm::ctl
