#include "managers/GraphBlob.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "records/KelmGraph.h"
#include "utils/Digest.h"
#include "utils/FileRights.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/TextHelper.h"
#include "utils/UniqueFd.h"

namespace kelm {
namespace {

// As much as a graph that comes by buffer can have. A sparse file is larger at no cost to its
// owner, and would cost this process the memory.
constexpr uint64_t kMaxFileSize = UINT32_MAX;
constexpr char kDigestOfNoBytes[] =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

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

}  // namespace

bool GraphBlob::isGraphFile(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

GraphBlob GraphBlob::fromFile(const char* path, const PeerCredentials& peer) {
    GraphBlob blob;
    if (!blob.read(path, peer)) return blob;
    // Deliberate: an empty file has the digest of no bytes while its record has none, so that it
    // loads and is never taken for another one's twin.
    blob.m_recordHash = sha256ForBuffer(blob.m_data, blob.m_size);
    blob.m_hash = blob.m_size == 0 ? kDigestOfNoBytes : blob.m_recordHash;
    return blob;
}

GraphBlob GraphBlob::fromBuffer(const char* data, uint64_t size) {
    GraphBlob blob;
    blob.m_data = data;
    blob.m_size = size;
    blob.m_hash = sha256ForBuffer(data, size);
    blob.m_recordHash = blob.m_hash;
    return blob;
}

bool GraphBlob::read(const char* path, const PeerCredentials& peer) {
    // The path may name something else by now: without O_NONBLOCK a FIFO would hold this thread.
    const UniqueFd file(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        LOG_ERROR("failed to open file %s. errno = %d (%s)", escapeControls(path), errno,
                  std::strerror(errno));
        return false;
    }
    // The file was opened with this service's rights, whoever named it.
    if (!mayAccess(peer, file.get(), FileRights::READ)) {
        LOG_ERROR(
            "Error: user %u does not own graph file '%s', and its mode does not let him read it",
            peer.user, escapeControls(path));
        return false;
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size > kMaxFileSize) return false;
    m_owned.reset(static_cast<char*>(std::malloc(std::max<uint64_t>(size, 1))));
    if (!m_owned) return false;
    m_size = readUpTo(file.get(), m_owned.get(), size);
    m_data = m_owned.get();
    m_path = path;
    return true;
}

std::unique_ptr<KelmGraph> GraphBlob::makeGraph(uint64_t id, uint64_t clientId, const char* name,
                                                int32_t expectDevices) {
    UniqueMalloc<char> bytes = std::move(m_owned);
    if (!bytes) {
        bytes.reset(static_cast<char*>(std::malloc(m_size)));
        if (!bytes) return nullptr;
        std::memcpy(bytes.get(), m_data, m_size);
    }
    return std::make_unique<KelmGraph>(id, clientId, m_path.c_str(), std::move(bytes), m_size,
                                       m_recordHash, name, expectDevices);
}

}  // namespace kelm
