#include "tools/gateway/grpc/GrpcCertificate.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace kelm::gateway {

namespace {

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category(),
                            "cannot keep the certificate in memory");
}

}  // namespace

// Another file comes to the descriptor's number, at once and with another time: gRPC reads again
// when that has changed while it was reading.
void GrpcCertificate::replace(const TlsPair& pair) {
    const std::string text = pair.certificates + "\n" + pair.key;
    UniqueFd file(::memfd_create("certificate", MFD_CLOEXEC));
    const timespec changed{++m_changed, 0};
    const timespec times[] = {changed, changed};
    const bool isMade =
        file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!isMade || ::futimens(file.get(), times) != 0) fail();
    if (!m_file) {
        m_file = std::move(file);
    } else if (::dup3(file.get(), m_file.get(), O_CLOEXEC) < 0) {
        fail();
    }
}

std::shared_ptr<grpc::ServerCredentials> GrpcCertificate::makeCredentials() const {
    constexpr unsigned kLook = 1;  // seconds
    const std::string path = "/proc/self/fd/" + std::to_string(m_file.get());
    grpc::experimental::TlsServerCredentialsOptions options(
        std::make_shared<grpc::experimental::FileWatcherCertificateProvider>(path, path, kLook));
    options.watch_identity_key_cert_pairs();
    options.set_cert_request_type(GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE);
    return grpc::experimental::TlsServerCredentials(options);
}

}  // namespace kelm::gateway
