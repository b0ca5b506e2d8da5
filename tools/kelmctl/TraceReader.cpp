#include "tools/kelmctl/TraceReader.h"

#include <iostream>
#include <stdexcept>
#include <utility>

namespace kelm::ctl {

namespace {

constexpr size_t kMaxLine = 4096;
constexpr uint64_t kReportedLines = 20;

}  // namespace

TraceReader::TraceReader(std::string path, TraceFileKind kind)
    : m_path(std::move(path)), m_kind(kind), m_file(m_path, std::ios::binary) {
    if (!m_file) throw std::runtime_error("cannot read " + m_path);
}

bool TraceReader::next(TraceRow& row) {
    while (readLine()) {
        // Not only at the beginning, see isTraceHeader().
        if (isTraceHeader(m_line, m_kind)) continue;
        const char* const why =
            m_line.size() > kMaxLine ? "too long a line" : parseTraceRow(m_line, m_kind, row);
        if (why == nullptr) {
            ++m_rows;
            return true;
        }
        report(why);
    }
    return false;
}

// Byte by byte out of the stream's buffer: a file without line ends must not be read into memory.
// One byte more than the limit is kept, by which next() knows a line that was cut.
bool TraceReader::readLine() {
    m_line.clear();
    std::streambuf& bytes = *m_file.rdbuf();
    int byte = bytes.sbumpc();
    if (byte == EOF) return false;
    for (; byte != EOF && byte != '\n'; byte = bytes.sbumpc()) {
        if (m_line.size() <= kMaxLine) m_line += static_cast<char>(byte);
    }
    if (m_line.ends_with('\r')) m_line.pop_back();
    ++m_lineNumber;
    return true;
}

void TraceReader::report(const char* why) {
    ++m_malformed;
    if (m_malformed <= kReportedLines) {
        std::cerr << m_path << ":" << m_lineNumber << ": " << why << "\n";
    } else if (m_malformed == kReportedLines + 1) {
        std::cerr << m_path << ": further lines that are no rows are only counted\n";
    }
}

}  // namespace kelm::ctl
