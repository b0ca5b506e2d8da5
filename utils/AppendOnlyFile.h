#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A file that grows at its end, in a directory that others may write to as well: a PlainFile of
// this user. Once opened, only the same file is written to, or an empty one if it has been taken
// away.
//
// Threads: one at a time.
class AppendOnlyFile : public NonCopyable {
 public:
    explicit AppendOnlyFile(std::string path);

    const std::string& getPath() const { return m_path; }

    // Opens the file, adds the text and closes it; makes the file if it is not there. Adds all or
    // nothing. A failure gives an ERROR line unless the last call failed for the same reason.
    bool append(std::string_view text);

 private:
    // Nothing, with the reason, if the file cannot or must not be written.
    UniqueFd open(std::string& reason);

    const std::string m_path;
    bool m_known = false;  // the next two name the file that was opened last
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::string m_lastReason;  // empty after a success
};

}  // namespace kelm
