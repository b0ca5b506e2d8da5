#include "tools/gateway/rest/HttpServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <future>
#include <iterator>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/gateway/rest/HttpConnection.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

namespace {

namespace asio = boost::asio;
using Error = boost::system::error_code;

// A thread that runs what the sockets of its own tell.
class Loop : public NonCopyable {
 public:
    Loop() : m_guard(m_context.get_executor()), m_thread([this] { m_context.run(); }) {}
    ~Loop() { join(); }
    asio::io_context& context() { return m_context; }
    // Ends once none of its sockets is waited for.
    void join() {
        m_guard.reset();
        if (m_thread.joinable()) m_thread.join();
    }

 private:
    asio::io_context m_context{1};
    asio::executor_work_guard<asio::io_context::executor_type> m_guard;
    std::thread m_thread;
};

// Refuses a peer at no cost but this. One that has sent something may lose the answer.
void dismiss(int fd, bool isTls) {
    static const HttpReply refusal = HttpConnection::refusal();
    static const std::string answer = refusal.makeHead(false) + refusal.text;
    const UniqueFd peer(fd);
    if (!isTls) (void)::send(fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace

class HttpServer::Impl {
 public:
    Impl(ListenSocket socket, size_t threads, const HttpLimits& limits, HttpHandler handler,
         std::shared_ptr<TlsContext> tls)
        : m_socket(std::move(socket)),
          m_loops(threads),
          m_acceptor(m_loops.front().context()),
          m_retry(m_loops.front().context()) {
        m_service.limits = limits;
        m_service.handler = std::move(handler);
        m_service.tls = std::move(tls);
        m_acceptor.assign(::dup(m_socket.fd()));
        asio::post(m_loops.front().context(), [this] { accept(); });
    }
    ~Impl() {
        (void)stop(std::chrono::milliseconds(0));
        tellAll(&HttpConnection::abort);
        for (Loop& each : m_loops) each.join();
        // The thread that told a task's end may hold the last reference for a moment more.
        while (m_service.connections > 0) std::this_thread::yield();
    }

    uint16_t port() const { return m_socket.port(); }
    // Connections are made on the first loop.
    void renew(const TlsPair& pair) {
        asio::post(m_loops.front().context(),
                   [this, tls = makeTlsContext(pair)] { m_service.tls = tls; });
    }
    bool stop(std::chrono::milliseconds limit) EXCLUDES(m_mutex);

 private:
    void accept();
    void acceptAll();
    void take(int fd) EXCLUDES(m_mutex);
    void tellAll(void (HttpConnection::*word)()) EXCLUDES(m_mutex);

    HttpService m_service;
    const ListenSocket m_socket;
    std::list<Loop> m_loops;
    asio::posix::stream_descriptor m_acceptor;
    asio::steady_timer m_retry;
    size_t m_next = 0;  // of the first loop
    Mutex m_mutex;
    std::list<std::weak_ptr<HttpConnection>> m_connections GUARDED_BY(m_mutex);
};

void HttpServer::Impl::accept() {
    if (m_service.isStopping) return;
    m_acceptor.async_wait(asio::posix::stream_descriptor::wait_read, [this](const Error& error) {
        if (!error) acceptAll();
    });
}

void HttpServer::Impl::acceptAll() {
    constexpr std::chrono::milliseconds kOutOfDescriptors(100);
    constexpr int kInARow = 64;  // then the loop's connections have their turn
    for (int i = 0; i < kInARow && !m_service.isStopping; ++i) {
        const int fd = ::accept4(m_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            take(fd);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            m_retry.expires_after(kOutOfDescriptors);
            return m_retry.async_wait([this](const Error& error) {
                if (!error) accept();
            });
        } else if (errno != ECONNABORTED && errno != EINTR) {
            break;
        }
    }
    accept();
}

void HttpServer::Impl::take(int fd) {
    constexpr size_t kMostRefused = 64;  // that wait until their peers have read so
    const size_t limit = m_service.limits.connections;
    if (m_service.connections >= limit + kMostRefused) return dismiss(fd, m_service.tls != nullptr);
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // no effect on paths
    auto loop = m_loops.begin();
    std::advance(loop, m_next++ % m_loops.size());
    HttpSocket socket(loop->context(), asio::generic::stream_protocol(m_socket.family(), 0), fd);
    const bool isTooMany = m_service.connections >= limit;
    const auto connection = std::make_shared<HttpConnection>(std::move(socket), m_service);
    {
        MutexLock lock(m_mutex);
        m_connections.remove_if([](const auto& each) { return each.expired(); });
        m_connections.push_back(connection);
    }
    if (isTooMany) return connection->refuse();
    connection->post([raw = connection.get()] { raw->start(); });
}

void HttpServer::Impl::tellAll(void (HttpConnection::*word)()) {
    std::list<std::weak_ptr<HttpConnection>> connections;
    {
        MutexLock lock(m_mutex);
        connections = m_connections;
    }
    for (const auto& each : connections) {
        if (const auto connection = each.lock()) ((*connection).*word)();
    }
}

bool HttpServer::Impl::stop(std::chrono::milliseconds limit) {
    m_service.isStopping = true;
    std::promise<void> closed;
    asio::post(m_loops.front().context(), [&] {
        Error ignored;
        m_acceptor.close(ignored);
        m_retry.cancel();
        closed.set_value();
    });
    closed.get_future().wait();
    tellAll(&HttpConnection::stop);
    constexpr std::chrono::milliseconds kLook(5);
    for (const auto end = std::chrono::steady_clock::now() + limit; m_service.connections > 0;) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(kLook);
    }
    return true;
}

HttpServer::HttpServer(ListenSocket socket, size_t threads, const HttpLimits& limits,
                       HttpHandler handler, const std::optional<TlsPair>& tls)
    : m_impl(std::make_unique<Impl>(std::move(socket), threads, limits, std::move(handler),
                                    tls ? makeTlsContext(*tls) : nullptr)) {}

HttpServer::~HttpServer() = default;

void HttpServer::renew(const TlsPair& pair) { m_impl->renew(pair); }
uint16_t HttpServer::port() const { return m_impl->port(); }
bool HttpServer::stop(std::chrono::milliseconds limit) { return m_impl->stop(limit); }

}  // namespace kelm::gateway
