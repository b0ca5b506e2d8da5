#include "managers/GraphBlob.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "records/KelmGraph.h"
#include "utils/FileRights.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/TextHelper.h"

namespace kelm {
namespace {

// As much as a graph that comes by buffer can have. A sparse file is larger at no cost to its
// owner, and would cost this process the memory.
constexpr uint64_t kMaxFileSize = UINT32_MAX;

// Reads until the buffer is full or the file ends; a read error looks like its end.
uint64_t readUpTo(int fd, char* buffer, uint64_t size) {
    uint64_t count = 0;
    while (count < size) {
        const ssize_t result = ::read(fd, buffer + count, size - count);
        if (result < 0 && errno == EINTR) continue;
        if (result <= 0) break;
        count += static_cast<uint64_t>(result);
    }
    return count;
}

int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

// Nanoseconds of the coarse clock by which the kernel marks a file as changed.
int64_t fileClock() {
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now);
}

}  // namespace

bool GraphBlob::isGraphFile(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

GraphBlob GraphBlob::fromFile(const char* path, const PeerCredentials& peer) {
    GraphBlob blob;
    if (!blob.open(path, peer)) blob.m_file.reset();
    return blob;
}

GraphBlob GraphBlob::fromBuffer(UniqueMalloc<char> bytes, uint64_t size) {
    GraphBlob blob;
    blob.m_bytes = std::move(bytes);
    blob.m_size = size;
    return blob;
}

bool GraphBlob::open(const char* path, const PeerCredentials& peer) {
    m_openTime = fileClock();
    // The path may name something else by now: without O_NONBLOCK a FIFO would hold this thread.
    m_file.reset(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!m_file) {
        LOG_ERROR("failed to open file %s. errno = %d (%s)", escapeControls(path), errno,
                  std::strerror(errno));
        return false;
    }
    // The file was opened with the rights of this service, which the peer may not have.
    if (!mayAccess(peer, m_file.get(), FileRights::READ)) {
        LOG_ERROR(
            "Error: user %u does not own graph file '%s', and its mode does not let him read it",
            peer.user, escapeControls(path));
        return false;
    }
    struct stat status {};
    if (::fstat(m_file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size > kMaxFileSize) return false;
    m_identity.emplace(status);
    m_size = size;
    m_path = path;
    return true;
}

bool GraphBlob::advance() {
    if (m_file && !m_bytes) {
        m_bytes.reset(static_cast<char*>(std::malloc(std::max<uint64_t>(m_size, 1))));
    }
    if (!m_bytes) return true;
    if (takeSlice()) return false;
    finish();
    return true;
}

// False when that was the last one.
bool GraphBlob::takeSlice() {
    char* const slice = m_bytes.get() + m_done;
    uint64_t count = std::min(kSliceBytes, m_size - m_done);
    if (m_file) {
        const uint64_t wanted = std::exchange(count, readUpTo(m_file.get(), slice, count));
        if (count < wanted) m_size = m_done + count;
    }
    m_digest.update(slice, count);
    m_done += count;
    return m_done < m_size;
}

void GraphBlob::finish() {
    m_hash = m_digest.finish();
    if (!m_file) return;
    struct stat status {};
    // A file that was changed within the clock's last tick may change again without a new mark.
    m_identityProven = ::fstat(m_file.get(), &status) == 0 && FileIdentity(status) == m_identity &&
                       m_identity->changed < m_openTime;
    m_file.reset();
}

std::unique_ptr<KelmGraph> GraphBlob::makeGraph(uint64_t id, uint64_t clientId, const char* name,
                                                int32_t expectDevices) {
    // Deliberate: the record of an empty file has no digest, so that it loads and never passes for
    // the twin of another.
    return std::make_unique<KelmGraph>(id, clientId, m_path.c_str(), std::move(m_bytes), m_size,
                                       m_size == 0 ? std::string() : m_hash, name, expectDevices);
}

GraphBlob::FileIdentity::FileIdentity(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      size(status.st_size),
      modified(nanoseconds(status.st_mtim)),
      changed(nanoseconds(status.st_ctim)) {}

const std::string* GraphBlob::FileDigests::find(const FileIdentity& file) const {
    const auto entry = m_digests.find(file);
    return entry != m_digests.end() ? &entry->second : nullptr;
}

void GraphBlob::FileDigests::remember(const FileIdentity& file, const std::string& digest) {
    if (!m_digests.try_emplace(file, digest).second) return;
    m_order.push_back(file);
    if (m_order.size() <= kMost) return;
    m_digests.erase(m_order.front());
    m_order.pop_front();
}

}  // namespace kelm
