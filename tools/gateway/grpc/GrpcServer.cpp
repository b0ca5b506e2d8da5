#include "tools/gateway/grpc/GrpcServer.h"

#include <grpc/grpc.h>
#include <grpc/support/time.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <list>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tools/gateway/grpc/GrpcAcceptor.h"
#include "tools/gateway/grpc/GrpcCertificate.h"
#include "tools/gateway/grpc/GrpcLoop.h"
#include "tools/gateway/grpc/GrpcMethods.h"
#include "tools/gateway/grpc/InferCall.h"
#include "tools/gateway/grpc/WatchCall.h"

namespace kelm::gateway {

namespace {

using Builder = grpc::ServerBuilder;

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
        {GRPC_ARG_KEEPALIVE_TIME_MS, limits.ping.count()},
        {GRPC_ARG_KEEPALIVE_TIMEOUT_MS, limits.pong.count()},
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

// Tells all peers to go, and learns when they are gone. What is left of them must be ended before
// this is.
class Farewell : public NonCopyable {
 public:
    explicit Farewell(grpc_server* server)
        : m_queue(::grpc_completion_queue_create_for_next(nullptr)) {
        ::grpc_server_shutdown_and_notify(server, m_queue, nullptr);
    }
    ~Farewell() {
        (void)awaitClosed(std::chrono::hours(1));
        ::grpc_completion_queue_shutdown(m_queue);
        ::grpc_completion_queue_destroy(m_queue);
    }
    // Whether they were before the time was up.
    bool awaitClosed(std::chrono::milliseconds time) {
        const auto until = ::gpr_time_add(::gpr_now(GPR_CLOCK_MONOTONIC),
                                          ::gpr_time_from_millis(time.count(), GPR_TIMESPAN));
        m_isClosed = m_isClosed ||
                     ::grpc_completion_queue_next(m_queue, until, nullptr).type == GRPC_OP_COMPLETE;
        return m_isClosed;
    }

 private:
    grpc_completion_queue* const m_queue;
    bool m_isClosed = false;
};

}  // namespace

class GrpcServer::Impl {
 public:
    Impl(const Gateway& gateway, std::vector<ListenSocket> sockets, size_t threads,
         const GrpcLimits& limits, const std::optional<TlsPair>& tls) {
        Builder builder;
        applyLimits(builder, limits);
        builder.RegisterService(&m_services.inference);
        builder.RegisterService(&m_services.health);
        if (tls) m_certificate.emplace(*tls);
        m_door = builder.experimental().AddExternalConnectionAcceptor(
            Builder::experimental_type::ExternalConnectionType::FROM_FD,
            tls ? m_certificate->makeCredentials() : grpc::InsecureServerCredentials());
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
    void renew(const TlsPair& pair) { m_certificate->replace(pair); }
    bool stop(std::chrono::milliseconds limit);

 private:
    void ask(GrpcLoop& loop, const Gateway& gateway);
    void take(int fd);
    size_t callsUnderWay() const {
        size_t count = 0;
        for (const GrpcLoop& each : m_loops) count += each.callsUnderWay();
        return count;
    }

    GrpcServices m_services;
    std::optional<GrpcCertificate> m_certificate;
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

// gRPC itself waits for idle peers, too: twenty seconds for one that does not answer its ping.
bool GrpcServer::Impl::stop(std::chrono::milliseconds limit) {
    if (m_isEnding.exchange(true)) return true;
    m_acceptor.reset();
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kLeast(100), kIdle(1000);
    const auto begin = Clock::now();
    const auto end = begin + std::max(limit, kLeast);
    const auto endOfIdle = std::min(end, begin + kIdle);
    Farewell farewell(m_server->c_server());
    const auto goesOn = [&] { return Clock::now() < (callsUnderWay() > 0 ? end : endOfIdle); };
    bool isClosed = false;
    while (!isClosed && goesOn()) isClosed = farewell.awaitClosed(std::chrono::milliseconds(10));
    const bool isAllAnswered = isClosed || callsUnderWay() == 0;
    m_server->Shutdown(std::chrono::system_clock::now());  // by force
    for (GrpcLoop& each : m_loops) each.join();
    return isAllAnswered;
}

GrpcServer::GrpcServer(const Gateway& gateway, std::vector<ListenSocket> sockets, size_t threads,
                       const GrpcLimits& limits, const std::optional<TlsPair>& tls)
    : m_impl(std::make_unique<Impl>(gateway, std::move(sockets), threads, limits, tls)) {}

GrpcServer::~GrpcServer() = default;

void GrpcServer::renew(const TlsPair& pair) { m_impl->renew(pair); }
uint16_t GrpcServer::port(size_t index) const { return m_impl->port(index); }
bool GrpcServer::stop(std::chrono::milliseconds limit) { return m_impl->stop(limit); }

}  // namespace kelm::gateway
