#include "tools/gateway/rest/HttpStream.h"

#include <sys/socket.h>

#include <boost/asio/buffer.hpp>

namespace kelm::gateway {

namespace ssl = boost::asio::ssl;

HttpStream::HttpStream(HttpSocket socket, const std::shared_ptr<TlsContext>& tls)
    : m_socket(std::move(socket)) {
    if (tls == nullptr) return;
    m_tls.emplace(m_socket, *tls);
    Error ignored;
    m_socket.non_blocking(true, ignored);  // for writeNow()
}

void HttpStream::handshake(std::function<void(Error)> done) {
    m_tls->async_handshake(ssl::stream_base::server, std::move(done));
}

void HttpStream::writeNow(std::string_view text) {
    Error ignored;
    if (m_tls) {
        m_tls->write_some(boost::asio::buffer(text), ignored);
    } else {
        (void)::send(m_socket.native_handle(), text.data(), text.size(),
                     MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}

}  // namespace kelm::gateway
