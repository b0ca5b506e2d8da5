#pragma once

#include <sys/types.h>

#include <memory>
#include <vector>

namespace kelm {

// The user behind the other end of a local socket, as the kernel noted it when that end connected.
// What the process has become since does not count.
struct PeerCredentials {
    pid_t pid = 0;
    uid_t user = 0;
    std::vector<gid_t> groups;  // the primary one among them

    // Null, with errno set, if the socket has no peer.
    static std::shared_ptr<const PeerCredentials> ofSocket(int fd);
    static const std::shared_ptr<const PeerCredentials>& ofThisProcess();
};

}  // namespace kelm
