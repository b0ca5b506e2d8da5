#include "tools/kelmctl/export/ListenAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>

#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

[[noreturn]] void refuse(const std::string& text) {
    throw UsageError("'" + text +
                     "' is no address to listen on; give ADDRESS:PORT, as 127.0.0.1:10753, "
                     "[::1]:10753 or localhost:10753");
}

}  // namespace

ListenAddress::ListenAddress(const std::string& text) : m_text(text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) refuse(text);
    std::string host = text.substr(0, colon);
    uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + colon + 1, end, port);
    if (parsed.ec != std::errc() || parsed.ptr != end) refuse(text);

    if (host == "localhost") host = "127.0.0.1";
    auto& v4 = reinterpret_cast<sockaddr_in&>(m_storage);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(m_storage);
    if (::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        m_size = sizeof(v4);
        return;
    }
    if (!host.starts_with('[') || !host.ends_with(']')) refuse(text);
    host = host.substr(1, host.size() - 2);
    if (::inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) != 1) refuse(text);
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    m_size = sizeof(v6);
}

bool ListenAddress::isLoopback() const {
    constexpr uint8_t kLoopbackNet = 127;
    if (family() == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(m_storage);
        return ntohl(v4.sin_addr.s_addr) >> 24 == kLoopbackNet;
    }
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(m_storage);
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr);
}

}  // namespace kelm::ctl
