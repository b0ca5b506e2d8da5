#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelm::ctl {

// One operation of a trace file: its name, its ticks, and the thread that began it.
struct TraceRow {
    std::string name;
    uint64_t start = 0;
    uint64_t end = 0;
    // 0 in a frames file, which does not have them.
    uint32_t pid = 0;
    uint32_t tid = 0;
};

enum class TraceFileKind { kFrames, kTasks };

// The first line of such a file, which comes again when a later process of the same id has added
// its rows to the file.
bool isTraceHeader(std::string_view line, TraceFileKind kind);
// Fills the row, whose former content is lost; null, or why the line is none.
const char* parseTraceRow(std::string_view line, TraceFileKind kind, TraceRow& row);

}  // namespace kelm::ctl
