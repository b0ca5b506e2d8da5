#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "utils/PeerCredentials.h"

namespace kelm {

namespace {

// False, with errno set, if the kernel does not tell. Repeated until the room suffices: the kernel
// tells how much it needs.
bool readGroups(int fd, std::vector<gid_t>& groups) {
    constexpr size_t kUsual = 32;
    groups.resize(kUsual);
    for (;;) {
        auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const bool read = ::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0;
        const size_t count = length / sizeof(gid_t);
        if (!read && (errno != ERANGE || count <= groups.size())) return false;
        groups.resize(count);
        if (read) return true;
    }
}

// The effective ids: these decide what this process may open.
std::shared_ptr<const PeerCredentials> readThisProcess() {
    auto self = std::make_shared<PeerCredentials>();
    self->pid = ::getpid();
    self->user = ::geteuid();
    const int count = ::getgroups(0, nullptr);
    if (count > 0) self->groups.resize(static_cast<size_t>(count));
    if (::getgroups(static_cast<int>(self->groups.size()), self->groups.data()) < 0) {
        self->groups.clear();
    }
    self->groups.push_back(::getegid());
    return self;
}

}  // namespace

std::shared_ptr<const PeerCredentials> PeerCredentials::ofSocket(int fd) {
    ucred identity{};
    socklen_t length = sizeof(identity);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &identity, &length) != 0) return nullptr;
    auto peer = std::make_shared<PeerCredentials>();
    // An old kernel tells no groups: then only the primary one counts.
    if (!readGroups(fd, peer->groups)) peer->groups.clear();
    peer->pid = identity.pid;
    peer->user = identity.uid;
    peer->groups.push_back(identity.gid);
    return peer;
}

// Never destroyed: records may still be released while the process ends.
const std::shared_ptr<const PeerCredentials>& PeerCredentials::ofThisProcess() {
    static const auto& self = *new std::shared_ptr<const PeerCredentials>(readThisProcess());
    return self;
}

}  // namespace kelm
