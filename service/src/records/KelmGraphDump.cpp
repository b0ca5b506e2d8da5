#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "records/KelmGraph.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/UniqueFd.h"

namespace kelm {

namespace {

bool writeAll(int fd, const char* data, uint64_t size) {
    uint64_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(fd, data + done, size - done);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) done += static_cast<uint64_t>(count);
    }
    return true;
}

}  // namespace

bool KelmGraph::dumpToFile(const std::string& path) {
    MutexLock lock(m_mutex);
    if (!m_data) {
        LOG_ERROR("Error: no valid graph data");
        return false;
    }
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        FileHelper::createDirectories(path.substr(0, slash));
    // A link that somebody planted in a shared directory is not followed, a pipe not waited for.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd file(::open(path.c_str(), kFlags, 0644));
    const bool opened = static_cast<bool>(file);
    // Some file systems tell only at the close that there was no room.
    if (opened && writeAll(file.get(), m_data.get(), m_dataSize) && ::close(file.release()) == 0) {
        return true;
    }
    const int error = errno;
    if (opened) (void)::unlink(path.c_str());  // half a graph would pass for a whole one
    LOG_ERROR("Error: failed to create dump file '%s'", path);
    LOG_ERROR("Error: the dump ended with: %s", std::generic_category().message(error));
    return false;
}

}  // namespace kelm
