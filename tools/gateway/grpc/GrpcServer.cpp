#include "tools/gateway/grpc/GrpcServer.h"

#include <grpcpp/resource_quota.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <list>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tools/gateway/grpc/GrpcAcceptor.h"
#include "tools/gateway/grpc/GrpcLoop.h"
#include "tools/gateway/grpc/GrpcMethods.h"
#include "tools/gateway/grpc/InferCall.h"
#include "tools/gateway/grpc/WatchCall.h"

namespace kelm::gateway {

namespace {

using Builder = grpc::ServerBuilder;

template <class Thing>
using Owned = std::unique_ptr<Thing, void (*)(Thing*)>;

// gRPC would refuse each connection and not tell why.
void requirePair(const GrpcTls& tls) {
    const auto open = [](const std::string& text) {
        return Owned<BIO>(::BIO_new_mem_buf(text.data(), static_cast<int>(text.size())),
                          ::BIO_free_all);
    };
    const Owned<X509> certificate(
        ::PEM_read_bio_X509(open(tls.certificates).get(), nullptr, nullptr, nullptr), ::X509_free);
    const Owned<EVP_PKEY> key(
        ::PEM_read_bio_PrivateKey(open(tls.key).get(), nullptr, nullptr, nullptr), ::EVP_PKEY_free);
    if (!certificate || !key || ::X509_check_private_key(certificate.get(), key.get()) != 1) {
        throw std::runtime_error("the certificate and the key are no pair of PEM files");
    }
}

std::shared_ptr<grpc::ServerCredentials> makeCredentials(const GrpcTls& tls) {
    if (tls.certificates.empty()) return grpc::InsecureServerCredentials();
    requirePair(tls);
    grpc::SslServerCredentialsOptions options;
    options.pem_key_cert_pairs.push_back({tls.key, tls.certificates});
    return grpc::SslServerCredentials(options);
}

void applyLimits(Builder& builder, const GrpcLimits& limits) {
    // In a row: what a tensor needs is on its way without a word from this side.
    constexpr int kWindow = 4 << 20;
    constexpr int kFrame = 1 << 20;
    const std::pair<const char*, int64_t> arguments[] = {
        {GRPC_ARG_MAX_CONCURRENT_STREAMS, limits.streams},
        {GRPC_ARG_MAX_CONNECTION_IDLE_MS, limits.idle.count()},
        {GRPC_ARG_MAX_CONNECTION_AGE_MS, limits.age.count()},
        {GRPC_ARG_MAX_CONNECTION_AGE_GRACE_MS, limits.grace.count()},
        {GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, limits.handshake.count()},
        {GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 10000},
        {GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1},
        {GRPC_ARG_KEEPALIVE_TIME_MS, 60000},
        {GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 20000},
        {GRPC_ARG_MAX_METADATA_SIZE, 8 << 10},
        {GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, kWindow},
        {GRPC_ARG_HTTP2_MAX_FRAME_SIZE, kFrame},
    };
    for (const auto& [name, value] : arguments) {
        builder.AddChannelArgument(name, static_cast<int>(value));
    }
    constexpr size_t kMost = std::numeric_limits<int>::max();
    builder.SetMaxReceiveMessageSize(static_cast<int>(std::min(limits.message, kMost)));
    builder.SetResourceQuota(grpc::ResourceQuota("gateway").Resize(limits.memory));
    for (const auto each : {GRPC_COMPRESS_DEFLATE, GRPC_COMPRESS_GZIP}) {
        builder.SetCompressionAlgorithmSupportStatus(each, false);
    }
}

}  // namespace

class GrpcServer::Impl {
 public:
    Impl(const Gateway& gateway, std::vector<ListenSocket> sockets, size_t threads,
         const GrpcLimits& limits, const GrpcTls& tls) {
        Builder builder;
        applyLimits(builder, limits);
        builder.RegisterService(&m_services.inference);
        builder.RegisterService(&m_services.health);
        m_door = builder.experimental().AddExternalConnectionAcceptor(
            Builder::experimental_type::ExternalConnectionType::FROM_FD, makeCredentials(tls));
        for (size_t i = 0; i < threads; ++i) {
            m_loops.emplace_back(builder.AddCompletionQueue(), limits);
        }
        m_server = builder.BuildAndStart();
        if (m_server == nullptr) {
            throw std::runtime_error("gRPC cannot serve; the lines before tell why");
        }
        for (GrpcLoop& each : m_loops) {
            each.start([this, &each, &gateway] { ask(each, gateway); });
        }
        m_acceptor.emplace(std::move(sockets), limits.connections,
                           gateway.metrics().connections(Protocol::kGrpc),
                           [this](int fd) { take(fd); });
    }
    ~Impl() { (void)stop(std::chrono::milliseconds(0)); }

    uint16_t port(size_t index) const { return m_acceptor->sockets().at(index).port(); }
    bool stop(std::chrono::milliseconds limit);

 private:
    void ask(GrpcLoop& loop, const Gateway& gateway);
    void take(int fd);

    GrpcServices m_services;
    std::atomic<bool> m_isEnding{false};  // atomic: a hint; watchers look at it
    std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> m_door;
    std::list<GrpcLoop> m_loops;
    std::unique_ptr<grpc::Server> m_server;
    std::optional<GrpcAcceptor> m_acceptor;
};

// As many calls to infer as may come at once before the next are asked for.
void GrpcServer::Impl::ask(GrpcLoop& loop, const Gateway& gateway) {
    constexpr int kAtOnce = 64;
    for (int i = 0; i < kAtOnce; ++i) {
        loop.add(std::make_unique<InferCall>(loop, m_services, gateway));
    }
    for (auto& each : makePlainCalls(loop, m_services, gateway)) loop.add(std::move(each));
    loop.add(std::make_unique<WatchCall>(loop, m_services, gateway, m_isEnding));
}

void GrpcServer::Impl::take(int fd) {
    grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
    connection.fd = fd;
    m_door->HandleNewConnection(&connection);
}

bool GrpcServer::Impl::stop(std::chrono::milliseconds limit) {
    if (m_isEnding.exchange(true)) return true;
    m_acceptor.reset();
    // Connections without a call need a moment, too.
    constexpr std::chrono::milliseconds kLeast(100);
    const auto end = std::chrono::system_clock::now() + std::max(limit, kLeast);
    m_server->Shutdown(end);
    const bool isInTime = std::chrono::system_clock::now() < end;
    for (GrpcLoop& each : m_loops) each.join();
    return isInTime;
}

GrpcServer::GrpcServer(const Gateway& gateway, std::vector<ListenSocket> sockets, size_t threads,
                       const GrpcLimits& limits, const GrpcTls& tls)
    : m_impl(std::make_unique<Impl>(gateway, std::move(sockets), threads, limits, tls)) {}

GrpcServer::~GrpcServer() = default;

uint16_t GrpcServer::port(size_t index) const { return m_impl->port(index); }
bool GrpcServer::stop(std::chrono::milliseconds limit) { return m_impl->stop(limit); }

}  // namespace kelm::gateway
