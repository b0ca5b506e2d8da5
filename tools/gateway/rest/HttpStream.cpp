#include "tools/gateway/rest/HttpStream.h"

#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <stdexcept>

namespace kelm::gateway {

namespace ssl = boost::asio::ssl;

std::shared_ptr<TlsContext> makeTlsContext(const TlsFiles& files) {
    auto context = std::make_shared<TlsContext>(ssl::context::tls_server);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_tlsv1 |
                         ssl::context::no_tlsv1_1);
    try {
        context->use_certificate_chain_file(files.certificate);
    } catch (const boost::system::system_error& error) {
        throw std::runtime_error("no certificate can be read from " + files.certificate + ": " +
                                 error.code().message());
    }
    try {
        context->use_private_key_file(files.key, ssl::context::pem);
    } catch (const boost::system::system_error& error) {
        throw std::runtime_error("no key of the certificate can be read from " + files.key + ": " +
                                 error.code().message());
    }
    return context;
}

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
