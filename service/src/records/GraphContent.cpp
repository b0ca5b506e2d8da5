#include "records/GraphContent.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "utils/Digest.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/PlainFile.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// From malloc(), as every blob: those of requests come from the message library, which uses that.
UniqueMalloc<char> copyBlob(const char* buffer, uint64_t size) {
    if (buffer == nullptr || size == 0) return nullptr;
    UniqueMalloc<char> data(static_cast<char*>(std::malloc(size)));
    if (!data) throw std::bad_alloc();
    std::memcpy(data.get(), buffer, size);
    return data;
}

// Repeated after a signal and after a short write.
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

void GraphContent::setBlob(UniqueMalloc<char> data, uint64_t size) {
    m_data = std::move(data);
    m_dataSize = m_data ? size : 0;
}

// The path is kept also when there is no such file: reports name it.
void GraphContent::readFile(const char* path) {
    m_path = path;
    unsigned long size = 0;
    UniqueMalloc<char> data(FileHelper::readFile(path, &size));
    setBlob(std::move(data), size);
    m_hash = sha256ForBuffer(m_data.get(), m_dataSize);
}

void GraphContent::copyBuffer(const char* buffer, uint64_t size) {
    setBlob(copyBlob(buffer, size), size);
    m_hash = sha256ForBuffer(m_data.get(), m_dataSize);
}

// The digest comes along, so that a large blob is not digested twice.
void GraphContent::takeBytes(const char* path, UniqueMalloc<char> data, uint64_t size,
                             std::string hash) {
    m_path = path;
    m_hash = std::move(hash);
    setBlob(std::move(data), size);
}

void GraphContent::setTag(const char* tag) {
    if (tag != nullptr) m_tag = tag;
}

void GraphContent::setStreamId(const char* streamId) {
    if (streamId != nullptr) m_streamId = streamId;
}

// The file must be this user's own and no link: the directory may be one that others write to.
bool GraphContent::dumpToFile(const std::string& path) const {
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
