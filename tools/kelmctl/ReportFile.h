#pragma once

#include <string>
#include <string_view>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// A file for what a command will only know at its end. Opened at its begin, so that a path which
// cannot be written costs no run; what it holds is kept until there is something new.
//
// Threads: one.
class ReportFile {
 public:
    // Throws std::runtime_error with the system's reason, as write() does. No file for no path.
    explicit ReportFile(std::string path);
    // In place of what the file holds.
    void write(std::string_view text) const;

 private:
    const std::string m_path;
    UniqueFd m_fd;
};

}  // namespace kelm::ctl
