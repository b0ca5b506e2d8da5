#include "tools/kelmctl/TracePairs.h"

#include <algorithm>

#include "utils/FixedText.h"

namespace kelm::ctl {

// A counter and not a flag: rows of the same name and ticks may come more than once.
void TracePairs::add(const TraceRow& row, TraceFileKind kind) {
    std::string line = row.name;
    line += FixedText<48>(",", row.start, ",", row.end).view();
    const auto entry = m_unpaired.try_emplace(std::move(line), 0).first;
    entry->second += kind == TraceFileKind::kTasks ? 1 : -1;
    if (entry->second == 0) m_unpaired.erase(entry);
}

uint64_t TracePairs::countOnlyInTasks() const {
    uint64_t sum = 0;
    for (const auto& [line, surplus] : m_unpaired) {
        if (surplus > 0) sum += static_cast<uint64_t>(surplus);
    }
    return sum;
}

std::vector<TraceRow> TracePairs::onlyInFrames() const {
    std::vector<TraceRow> rows;
    for (const auto& [line, surplus] : m_unpaired) {
        if (surplus > 0) continue;
        TraceRow row;
        // A key is a line of the frames file, and is read as one.
        if (parseTraceRow(line, TraceFileKind::kFrames, row) != nullptr) continue;
        rows.insert(rows.end(), static_cast<size_t>(-surplus), row);
    }
    std::sort(rows.begin(), rows.end(),
              [](const TraceRow& a, const TraceRow& b) { return a.end < b.end; });
    return rows;
}

}  // namespace kelm::ctl
