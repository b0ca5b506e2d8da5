#include "tools/gateway/ListenSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace kelm::gateway {

namespace {

constexpr const char* kUnix = "unix:";

UniqueFd openSocket(int family) {
    return UniqueFd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void listenOn(int fd, const sockaddr* address, size_t size, const std::string& where) {
    if (::bind(fd, address, static_cast<socklen_t>(size)) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot listen on '" + where + "'");
    }
}

}  // namespace

ListenSocket::ListenSocket(const std::string& where) {
    if (where.starts_with(kUnix)) {
        openPath(where.substr(std::strlen(kUnix)));
    } else {
        openAddress(where);
    }
}

ListenSocket::~ListenSocket() {
    if (m_fd && !m_path.empty()) ::unlink(m_path.c_str());
}

void ListenSocket::openPath(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("'" + path + "' is no path for a socket; give 1 to 107 bytes");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    // A file that nobody listens on is left from a process that was killed.
    const UniqueFd probe = openSocket(AF_UNIX);
    if (::connect(probe.get(), generic, sizeof(address)) != 0 && errno == ECONNREFUSED) {
        ::unlink(path.c_str());
    }
    m_family = AF_UNIX;
    m_fd = openSocket(AF_UNIX);
    listenOn(m_fd.get(), generic, sizeof(address), kUnix + path);
    m_path = path;
}

void ListenSocket::openAddress(const std::string& where) {
    const size_t colon = where.rfind(':');
    std::string host = where.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    if (host == "localhost") host = "127.0.0.1";
    boost::system::error_code wrong;
    const auto address = boost::asio::ip::make_address(host, wrong);
    uint16_t port = 0;
    const char* const end = where.data() + where.size();
    const auto parsed = colon == std::string::npos
                            ? std::from_chars_result{end, std::errc::invalid_argument}
                            : std::from_chars(where.data() + colon + 1, end, port);
    if (wrong || parsed.ec != std::errc() || parsed.ptr != end) {
        throw std::runtime_error("'" + where +
                                 "' is no address to listen on; give ADDRESS:PORT, as "
                                 "127.0.0.1:8000 or [::1]:8000, or unix:PATH");
    }
    const boost::asio::ip::tcp::endpoint endpoint(address, port);
    m_family = endpoint.protocol().family();
    m_fd = openSocket(m_family);
    const int on = 1;
    (void)::setsockopt(m_fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    listenOn(m_fd.get(), endpoint.data(), endpoint.size(), where);
}

uint16_t ListenSocket::port() const {
    sockaddr_storage storage{};
    socklen_t size = sizeof(storage);
    (void)::getsockname(m_fd.get(), reinterpret_cast<sockaddr*>(&storage), &size);
    if (storage.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port);
    }
    return storage.ss_family == AF_INET6
               ? ntohs(reinterpret_cast<const sockaddr_in6&>(storage).sin6_port)
               : uint16_t{0};
}

}  // namespace kelm::gateway
