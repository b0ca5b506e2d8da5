#include "tools/kelmctl/TraceJson.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/kelmctl/JsonText.h"

namespace kelm::ctl {

namespace {

constexpr uint64_t kNanosPerMicro = 1000;

// Times are in microseconds, with three decimals.
std::string toMicros(uint64_t nanos) {
    return fmt::format("{}.{:03}", nanos / kNanosPerMicro, nanos % kNanosPerMicro);
}

}  // namespace

// Written event by event: a trace may be larger than the memory.
TraceJson::TraceJson(const std::string& path, double ticksPerMicro, ThreadNames names,
                     TraceNames idNames)
    : m_path(path),
      m_ticksPerMicro(ticksPerMicro),
      m_names(std::move(names)),
      m_idNames(std::move(idNames)),
      m_file(path, std::ios::binary | std::ios::trunc) {
    if (!m_file) throw std::runtime_error("cannot write " + m_path);
    m_file << "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[";
}

void TraceJson::add(const TraceRow& row, std::string_view note) {
    if (TraceLayout::staysOnThread(row)) {
        m_kept.push_back(row);
    } else {
        write(row, note);
    }
}

// 'X' is a whole span on the thread's own track; 'b' and 'e' are the two ends of one on a lane.
void TraceJson::write(const TraceRow& row, std::string_view note) {
    const TracePlace place = m_layout.place(row);
    m_threads.emplace(row.pid, row.tid);
    const uint64_t start = toNanos(row.start);
    const uint64_t end = toNanos(row.end);
    beginSpan(place.nested ? 'X' : 'b', row, place, start);
    if (place.nested) m_file << ",\"dur\":" << toMicros(end - start);
    nlohmann::json details = m_idNames.describe(row.name);
    if (!note.empty()) details["note"] = note;
    if (!details.empty()) m_file << ",\"args\":" << toJsonText(details);
    m_file << "}";
    if (place.nested) return;
    beginSpan('e', row, place, end);
    m_file << "}";
}

// Of two that begin at once the longer one first: it is around the other.
void TraceJson::finish() {
    std::stable_sort(m_kept.begin(), m_kept.end(), [](const TraceRow& a, const TraceRow& b) {
        return a.start != b.start ? a.start < b.start : a.end > b.end;
    });
    for (const TraceRow& row : m_kept) write(row, "");
    for (auto thread = m_threads.begin(); thread != m_threads.end(); ++thread) {
        const auto [pid, tid] = *thread;
        if (thread == m_threads.begin() || std::prev(thread)->first != pid) {
            addName("process_name", *thread, pid != 0 ? "kelmdaemon" : "process unknown");
        }
        const auto name = m_names.find(tid);
        addName("thread_name", *thread,
                name != m_names.end() ? name->second : fmt::format("thread {}", tid));
    }
    m_file << "\n]}\n" << std::flush;
    if (!m_file) throw std::runtime_error("cannot write " + m_path);
}

uint64_t TraceJson::toNanos(uint64_t ticks) const {
    // A long double has the counter's 64 bits. Rounding keeps the order, so what nests still nests.
    const long double nanos =
        std::round(static_cast<long double>(ticks) * kNanosPerMicro / m_ticksPerMicro);
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    return nanos < static_cast<long double>(kMax) ? static_cast<uint64_t>(nanos) : kMax;
}

void TraceJson::beginEvent(char phase, const Thread& thread, std::string_view name) {
    m_file << m_separator << "\n{\"ph\":\"" << phase << "\",\"pid\":" << thread.first
           << ",\"tid\":" << thread.second << ",\"name\":" << toJsonText(name);
    m_separator = ",";
}

void TraceJson::beginSpan(char phase, const TraceRow& row, const TracePlace& place,
                          uint64_t nanos) {
    beginEvent(phase, {row.pid, row.tid}, row.name);
    m_file << ",\"cat\":\"" << place.category << "\",\"ts\":" << toMicros(nanos);
    if (place.nested) return;
    // Unique together with the category. The spans of a lane follow one another under its id.
    m_file << ",\"id\":\"" << row.pid << "." << row.tid << "." << place.lane << "\"";
}

void TraceJson::addName(std::string_view what, const Thread& thread, std::string_view name) {
    beginEvent('M', thread, what);
    m_file << ",\"args\":{\"name\":" << toJsonText(name) << "}}";
}

}  // namespace kelm::ctl
