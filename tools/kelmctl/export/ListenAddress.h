#pragma once

#include <sys/socket.h>

#include <string>

namespace kelm::ctl {

// Where to listen: ADDRESS:PORT, with an IPv6 address in brackets, or "localhost" for 127.0.0.1.
class ListenAddress {
 public:
    // Throws a UsageError.
    explicit ListenAddress(const std::string& text);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_storage); }
    socklen_t size() const { return m_size; }
    int family() const { return m_storage.ss_family; }
    bool isLoopback() const;
    const std::string& text() const { return m_text; }

 private:
    const std::string m_text;
    sockaddr_storage m_storage{};
    socklen_t m_size = 0;
};

}  // namespace kelm::ctl
