#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "tools/kelmctl/TraceRow.h"

namespace kelm::ctl {

// The rows of one trace file, one after the other; in memory there is never more than one line and
// some of the file ahead. Lines that are no rows are told on the standard error stream, the first
// ones each by its number.
class TraceReader {
 public:
    // This and next() throw if the file cannot be read.
    TraceReader(std::string path, TraceFileKind kind);

    // False at the end of the file.
    bool next(TraceRow& row);

    // How many were found and left out, so far.
    uint64_t countMalformed() const { return m_malformed; }
    uint64_t countRows() const { return m_rows; }

 private:
    // The next line without its end; what is too long for a row is cut. False at the file's end.
    bool readLine();
    void report(const char* why);

    const std::string m_path;
    const TraceFileKind m_kind;
    std::ifstream m_file;
    std::string m_line;
    uint64_t m_lineNumber = 0;
    uint64_t m_rows = 0;
    uint64_t m_malformed = 0;
};

}  // namespace kelm::ctl
