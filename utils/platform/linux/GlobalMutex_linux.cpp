#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "utils/GlobalMutex.h"
#include "utils/Log.h"
#include "utils/PlainFile.h"

namespace kelm {

// Opened for reading only, which is enough to lock: a client may have no more than that.
GlobalMutex::GlobalMutex(const std::string& path, bool closeOnExec) : m_path(path) {
    if (path.empty()) return;
    const int flags = O_RDONLY | (closeOnExec ? O_CLOEXEC : 0);
    UniqueFd file = PlainFile::open(path.c_str(), flags, 0660, PlainFile::Owner::ANYBODY);
    if (file) {
        m_fd = file.release();
        return;
    }
    const int error = errno;
    LOG_ERROR("Error: Open GlobalMutex %s failed. errno = %d [%s]", m_path, error,
              std::strerror(error));
    if (error == ELOOP || error == EMLINK || error == EINVAL) {
        LOG_ERROR("Error: %s is no plain file of one name: find out who put it there, remove it",
                  m_path);
    }
}

GlobalMutex::~GlobalMutex() {
    if (m_fd > 0) ::close(m_fd);
}

// Descriptor 0 does not occur: the standard descriptors are taken at the start of the program.
bool GlobalMutex::isOpen() const {
    if (m_fd > 0) return true;
    LOG_ERROR("Error: GlobalMutex %s is not initialized.", m_path);
    return false;
}

bool GlobalMutex::lock() {
    MutexLock guard(m_mutex);
    if (!isOpen()) return false;
    while (::flock(m_fd, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        LOG_ERROR("Error: Lock GlobalMutex(%s) failed. errno = %d [%s]", m_path, errno,
                  std::strerror(errno));
        return false;
    }
    return true;
}

// The limit is of the file lock alone: another thread of this process may be inside of lock(),
// which has none.
bool GlobalMutex::lock(long timeoutMillisec) {
    MutexLock guard(m_mutex);
    if (!isOpen()) return false;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillisec);
    // By trying again, as the kernel's call knows no limit of time.
    while (::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool GlobalMutex::trylock() {
    MutexLock guard(m_mutex);
    return isOpen() && ::flock(m_fd, LOCK_EX | LOCK_NB) == 0;
}

bool GlobalMutex::unlock() {
    MutexLock guard(m_mutex);
    return isOpen() && ::flock(m_fd, LOCK_UN) == 0;
}

}  // namespace kelm
