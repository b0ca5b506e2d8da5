#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "records/KelmGraph.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/PlainFile.h"
#include "utils/TextHelper.h"

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
    UniqueFd file = PlainFile::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC, 0644,
                                    PlainFile::Owner::THIS_USER);
    const bool opened = static_cast<bool>(file);
    // Some file systems tell only at the close that there was no room.
    if (opened && writeAll(file.get(), m_data.get(), m_dataSize) && ::close(file.release()) == 0) {
        return true;
    }
    const int error = errno;
    if (opened) (void)::unlink(path.c_str());  // half a graph would pass for a whole one
    LOG_ERROR("Error: failed to create dump file '%s'", escapeControls(path));
    LOG_ERROR("Error: the dump ended with: %s", std::generic_category().message(error));
    return false;
}

}  // namespace kelm
