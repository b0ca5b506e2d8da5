#pragma once

#include <string>

#include "utils/Mutex.h"

namespace kelm {

// A mutex across processes, on a lock file that stays. The kernel drops the lock when the process
// ends. Attempts from one object always succeed while it holds the lock.
//
// Threads: any; the in-process mutex excludes them, since the file lock does not.
class GlobalMutex {
 public:
    // Opens or makes the file; on failure every later call logs an ERROR and returns false. A
    // link or a pipe that another user planted under the name is a failure.
    GlobalMutex(const std::string& path, bool closeOnExec);
    virtual ~GlobalMutex();
    GlobalMutex(const GlobalMutex&) = delete;
    GlobalMutex& operator=(const GlobalMutex&) = delete;

    bool lock() EXCLUDES(m_mutex);
    // False at or past the timeout; 0 makes one attempt.
    bool lock(long timeoutMillisec) EXCLUDES(m_mutex);
    bool trylock() EXCLUDES(m_mutex);
    bool unlock() EXCLUDES(m_mutex);
    // False, logged as an ERROR, if the file could not be opened.
    bool isOpen() const;
    // The open lock file, for its rights; the mutex keeps it. 0 when not open.
    int nativeHandle() const { return m_fd; }

 private:
    Mutex m_mutex;
    const std::string m_path;
    int m_fd = 0;  // 0 when not open; fixed after construction
};

}  // namespace kelm
