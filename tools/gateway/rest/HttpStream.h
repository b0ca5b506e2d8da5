#pragma once

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "tools/gateway/TlsPair.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

using HttpSocket = boost::asio::generic::stream_protocol::socket;

// The bytes of a connection, plain or by TLS, as Boost reads and writes them.
//
// Threads: the connection's. Owns: the socket.
class HttpStream : public NonCopyable {
 public:
    using executor_type = HttpSocket::executor_type;
    using Error = boost::system::error_code;

    // Null: plain.
    HttpStream(HttpSocket socket, const std::shared_ptr<TlsContext>& tls);

    executor_type get_executor() { return m_socket.get_executor(); }
    HttpSocket& socket() { return m_socket; }
    bool isTls() const { return m_tls.has_value(); }

    // Before all else, if it is by TLS.
    void handshake(std::function<void(Error)> done);
    // A short text while nothing is read or written; not at all if it would have to wait.
    void writeNow(std::string_view text);

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) return m_tls->async_read_some(buffers, std::forward<Handler>(handler));
        m_socket.async_read_some(buffers, std::forward<Handler>(handler));
    }
    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) return m_tls->async_write_some(buffers, std::forward<Handler>(handler));
        m_socket.async_write_some(buffers, std::forward<Handler>(handler));
    }

 private:
    HttpSocket m_socket;
    std::optional<boost::asio::ssl::stream<HttpSocket&>> m_tls;
};

}  // namespace kelm::gateway
