#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "tools/gateway/RequestRecord.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// A line of JSON for each request, written by a thread of its own. What waits is bounded: a disk
// or a reader that does not keep up costs lines, which are counted, and no request.
//
// Threads: any. Owns: the thread and the file. Locks: m_mutex, a leaf.
class AccessLog : public NonCopyable {
 public:
    // A file to append to, or "-" for the standard output. Throws if it cannot be opened.
    explicit AccessLog(std::string file);
    // Writes what waits, unless nobody takes it.
    ~AccessLog();

    void add(const RequestRecord& record) EXCLUDES(m_mutex);
    // Closes the file and opens it anew, as after it was renamed.
    void reopen() EXCLUDES(m_mutex);
    uint64_t lost() const EXCLUDES(m_mutex);  // lines

 private:
    UniqueFd open() const;
    void run() EXCLUDES(m_mutex);
    // How many bytes could be written; all of them unless there was an error or the end came.
    size_t write(const std::string& text) const;

    const std::string m_path;
    const UniqueFd m_end;
    UniqueFd m_file;  // the thread's
    mutable Mutex m_mutex;
    CondVar m_changed;
    std::string m_waiting GUARDED_BY(m_mutex);
    uint64_t m_lost GUARDED_BY(m_mutex) = 0;
    bool m_isReopening GUARDED_BY(m_mutex) = false;
    bool m_isEnding GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

}  // namespace kelm::gateway
