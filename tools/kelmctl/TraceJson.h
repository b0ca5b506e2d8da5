#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/kelmctl/TraceLayout.h"
#include "tools/kelmctl/TraceNames.h"
#include "tools/kelmctl/TraceRow.h"

namespace kelm::ctl {

// Writes spans to a JSON file in the trace event format, which trace viewers open.
class TraceJson {
 public:
    using ThreadNames = std::map<uint32_t, std::string>;

    // Throws if the file cannot be made. `ticksPerMicro` is the rate of the counter behind the
    // ticks. Threads that `names` does not have are shown by their ids.
    TraceJson(const std::string& path, double ticksPerMicro, ThreadNames names, TraceNames idNames);

    // A `note` is put into the details of the span, if it is not empty. Spans that stay on their
    // thread, which are few, are kept until the end; all others are written at once.
    void add(const TraceRow& row, std::string_view note = "");
    // Writes what is left; to be called once, at the end. Throws if something was not written.
    void finish();

 private:
    using Thread = std::pair<uint32_t, uint32_t>;  // process, thread

    void write(const TraceRow& row, std::string_view note);
    uint64_t toNanos(uint64_t ticks) const;
    // Both begin an event and leave it open.
    void beginEvent(char phase, const Thread& thread, std::string_view name);
    void beginSpan(char phase, const TraceRow& row, const TracePlace& place, uint64_t nanos);
    void addName(std::string_view what, const Thread& thread, std::string_view name);

    const std::string m_path;
    const double m_ticksPerMicro;
    const ThreadNames m_names;
    const TraceNames m_idNames;
    std::ofstream m_file;
    std::string_view m_separator;
    TraceLayout m_layout;
    std::vector<TraceRow> m_kept;
    std::set<Thread> m_threads;  // that have spans
};

}  // namespace kelm::ctl
