#include "tools/gateway/TlsPair.h"

#include <boost/asio/buffer.hpp>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kelm::gateway {

namespace {

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.empty()) throw std::runtime_error("cannot read '" + path + "', or it is empty");
    return text;
}

}  // namespace

TlsPair TlsPair::read(const TlsFiles& files) {
    TlsPair pair{readFile(files.certificate), readFile(files.key)};
    try {
        (void)makeTlsContext(pair);
    } catch (const boost::system::system_error& error) {
        throw std::runtime_error(
            "'" + files.certificate + "' and '" + files.key +
            "' are no certificate and its key in PEM: " + error.code().message());
    }
    return pair;
}

std::shared_ptr<TlsContext> makeTlsContext(const TlsPair& pair) {
    auto context = std::make_shared<TlsContext>(TlsContext::tls_server);
    context->set_options(TlsContext::default_workarounds | TlsContext::no_tlsv1 |
                         TlsContext::no_tlsv1_1);
    // Else OpenSSL would ask for it on the terminal.
    context->set_password_callback([](size_t, TlsContext::password_purpose) { return ""; });
    context->use_certificate_chain(boost::asio::buffer(pair.certificates));
    context->use_private_key(boost::asio::buffer(pair.key), TlsContext::pem);
    return context;
}

}  // namespace kelm::gateway
