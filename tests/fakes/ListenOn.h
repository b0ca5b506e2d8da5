#pragma once

#include <sys/un.h>

#include "utils/UniqueFd.h"

namespace kelm {

// A socket that listens; `backlog` peers may wait on it.
inline UniqueFd listenOn(const std::string& path, int backlog = 5) {
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(::bind(listener.get(), name, sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.get(), backlog), 0);
    return listener;
}

}  // namespace kelm
