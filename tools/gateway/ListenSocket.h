#pragma once

#include <cstdint>
#include <string>

#include "utils/UniqueFd.h"

namespace kelm::gateway {

// A socket that listens on ADDRESS:PORT, with an IPv6 address in brackets, or unix:PATH, whose file
// is replaced if nobody listens there and removed at the end.
//
// Threads: one. Owns: the socket, and the file.
class ListenSocket {
 public:
    // Throws with the reason.
    explicit ListenSocket(const std::string& where);
    ~ListenSocket();
    ListenSocket(ListenSocket&&) = default;

    int fd() const { return m_fd.get(); }
    int family() const { return m_family; }
    // The one that the system has chosen where 0 was given; 0 of a path.
    uint16_t port() const;

 private:
    void openPath(const std::string& path);
    void openAddress(const std::string& where);

    UniqueFd m_fd;
    int m_family = 0;
    std::string m_path;
};

}  // namespace kelm::gateway
