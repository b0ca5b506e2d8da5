#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// A file that is written as a whole or stays as it was: the bytes go to a new one beside it, which
// takes its place at the end. A pipe or device is written to as it is.
//
// Threads: one. Owns: the new file, which is removed unless it was written.
class OutputFile {
 public:
    // Throws std::runtime_error with a text for the user when it cannot be written to.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Once. Throws std::runtime_error.
    void write(std::span<const std::byte> bytes);
    bool isPlain() const { return m_isPlain; }  // no pipe, no device

 private:
    void openBeside();

    const std::string m_path;
    bool m_isPlain = true;
    std::string m_target;  // behind all links
    std::string m_new;     // empty: none, or in its place
    UniqueFd m_file;
};

}  // namespace kelm::ctl
