#include "tools/kelmctl/TraceRow.h"

#include <algorithm>
#include <charconv>

namespace kelm::ctl {

namespace {

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

// Takes the text before the next comma off the line; all of it at the last.
std::string_view takeField(std::string_view& line) {
    const size_t comma = std::min(line.find(','), line.size());
    const std::string_view field = line.substr(0, comma);
    line.remove_prefix(std::min(comma + 1, line.size()));
    return field;
}

}  // namespace

bool isTraceHeader(std::string_view line, TraceFileKind kind) {
    return line == (kind == TraceFileKind::kFrames ? "name,start_tsc.RDTSC,end_tsc"
                                                   : "name,start_tsc.RDTSC,end_tsc,pid,tid");
}

// The commas are counted first, so that each field below is there.
const char* parseTraceRow(std::string_view line, TraceFileKind kind, TraceRow& row) {
    const std::ptrdiff_t commas = kind == TraceFileKind::kFrames ? 2 : 4;
    if (std::count(line.begin(), line.end(), ',') != commas) return "wrong number of fields";
    row.name = takeField(line);
    row.pid = 0;
    row.tid = 0;
    if (row.name.empty()) return "no name";
    if (!parseNumber(takeField(line), row.start) || !parseNumber(takeField(line), row.end)) {
        return "ticks that are no number";
    }
    if (row.end < row.start) return "an end before its start";
    if (kind == TraceFileKind::kTasks &&
        (!parseNumber(takeField(line), row.pid) || !parseNumber(takeField(line), row.tid))) {
        return "ids that are no number";
    }
    return nullptr;
}

}  // namespace kelm::ctl
