#include "tools/kelmctl/export/ExportServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "tools/kelmctl/export/ConnectionStream.h"
#include "utils/TextHelper.h"
#include "utils/ThreadPool.h"
#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {

constexpr int kMaxConnections = 16;
constexpr int kMaxStreams = 8;
constexpr int kBacklog = 64;
constexpr const char* kEventsPath = "/events";

HttpAnswer plain(int status, const std::string& text) {
    return {.status = status, .body = text + "\n"};
}

// Of one connection; given back however the conversation ends.
struct Place {
    std::atomic<int>& taken;
    ~Place() { --taken; }
};

UniqueFd listenAt(const ListenAddress& address) {
    UniqueFd listener(
        ::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
    const int on = 1;
    const bool listens =
        listener && ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
        ::bind(listener.get(), address.get(), address.size()) == 0 &&
        ::listen(listener.get(), kBacklog) == 0;
    if (listens) return listener;
    const std::string where = "cannot listen on " + address.text() + ": ";
    if (errno == EADDRINUSE) {
        throw std::runtime_error(where +
                                 "another program has this port, perhaps an exporter that runs "
                                 "already; end it, or give another port with --listen");
    }
    throw std::runtime_error(where + std::strerror(errno) + "; give another one with --listen");
}

// Whether a Host header names this machine by a name that no other machine can have.
bool isLoopbackName(std::string host) {
    const size_t bracket = host.rfind(']');
    const size_t colon = host.rfind(':');
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        host.resize(colon);
    }
    host = toLower(host);
    in_addr address{};
    return host == "localhost" || host == "[::1]" ||
           (host.starts_with("127.") && ::inet_pton(AF_INET, host.c_str(), &address) == 1);
}

}  // namespace

// The library reads requests and writes answers. Accepting is done here, where errors that pass do
// not end it.
class ExportServer::Impl : private httplib::Server {
 public:
    Impl(const ListenAddress& address, ExportFeed& feed, ExportRoutes routes)
        : m_isLoopback(address.isLoopback()),
          m_feed(feed),
          m_routes(std::move(routes)),
          m_end(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          m_listener(listenAt(address)) {
        if (!m_end) throw std::runtime_error("cannot make an event descriptor");
        svr_sock_ = m_listener.get();  // while it is one, the library goes on with a stream
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& to) {
            handle(request, to);
            return HandlerResponse::Handled;
        });
        m_acceptor = std::thread([this] { acceptRoutine(); });
    }

    ~Impl() override {
        svr_sock_ = INVALID_SOCKET;
        m_feed.close();
        (void)::eventfd_write(m_end.get(), 1);
        m_acceptor.join();
    }

    uint16_t port() const {
        sockaddr_storage address{};
        socklen_t size = sizeof(address);
        (void)::getsockname(m_listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.ss_family == AF_INET6
                         ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                         : reinterpret_cast<const sockaddr_in&>(address).sin_port);
    }

 private:
    void acceptRoutine() {
        ThreadUtils::setName("ExportAccept");
        pollfd fds[] = {{m_listener.get(), POLLIN, 0}, {m_end.get(), POLLIN, 0}};
        constexpr int kForRefused = 1000;  // milliseconds
        while (fds[1].revents == 0) {
            const int count = ::poll(fds, std::size(fds), m_refused.empty() ? -1 : kForRefused);
            if (count == 0) closeRefused(0);
            if (count <= 0 || (fds[0].revents & POLLIN) == 0) continue;
            UniqueFd socket(
                ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (socket) {
                admit(std::move(socket));
            } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                constexpr int kUntilSomeAreFree = 100;  // milliseconds
                (void)::poll(&fds[1], 1, kUntilSomeAreFree);
            }
        }
    }

    // Told at once: who is left waiting takes it for a server that hangs.
    void admit(UniqueFd socket) {
        static constexpr std::string_view kFull =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\n"
            "Content-Length: 21\r\nConnection: close\r\n\r\ntoo many connections\n";
        if (m_connections >= kMaxConnections) {
            (void)::send(socket.get(), kFull.data(), kFull.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            (void)::shutdown(socket.get(), SHUT_WR);
            m_refused.push_back(std::move(socket));
            return closeRefused(kMaxConnections);
        }
        ++m_connections;
        m_workers.post([this, socket = std::move(socket)]() mutable {
            const Place place{m_connections};
            converse(std::move(socket));
        });
    }

    // All but the last ones. A request that is not read, or comes after the end, would turn the end
    // into a reset, which takes the answer away from the peer.
    void closeRefused(size_t keep) {
        char request[4096];
        for (; m_refused.size() > keep; m_refused.pop_front()) {
            (void)::recv(m_refused.front().get(), request, sizeof(request), MSG_DONTWAIT);
        }
    }

    void converse(UniqueFd socket) {
        ConnectionStream stream(std::move(socket), m_end.get());
        bool isClosed = false;
        // Compressing would cost more than the few bytes that it saves.
        (void)process_request(stream, true, isClosed, [](httplib::Request& request) {
            request.headers.erase("Accept-Encoding");
        });
        (void)::shutdown(stream.socket(), SHUT_RDWR);
    }

    void handle(const httplib::Request& request, httplib::Response& to) {
        if (request.path == kEventsPath && isServed(request) && m_routes.event) return follow(to);
        const HttpAnswer answer = answerTo(request);
        to.status = answer.status;
        to.set_header("Cache-Control", "no-store");
        to.set_header("X-Content-Type-Options", "nosniff");
        for (const auto& [name, value] : answer.headers) to.set_header(name, value);
        to.set_content(answer.body, answer.type);
    }

    bool isServed(const httplib::Request& request) const {
        return (request.method == "GET" || request.method == "HEAD") &&
               (!m_isLoopback || isLoopbackName(request.get_header_value("Host")));
    }

    HttpAnswer answerTo(const httplib::Request& request) const {
        if (request.method != "GET" && request.method != "HEAD") {
            HttpAnswer refusal = plain(405, "only GET and HEAD");
            refusal.headers = {{"Allow", "GET, HEAD"}};
            return refusal;
        }
        if (!isServed(request)) return plain(403, "ask for localhost or its address");
        const auto route = m_routes.answers.find(request.path);
        if (route == m_routes.answers.end()) return plain(404, "no such page");
        try {
            return route->second();
        } catch (const std::exception& error) {
            return plain(500, escapeControls(error.what()));
        }
    }

    // The stream keeps a connection until its reader leaves, and others must have some left.
    void follow(httplib::Response& to) {
        to.set_header("Cache-Control", "no-store");
        if (++m_streams > kMaxStreams) {
            --m_streams;
            to.status = 503;
            to.set_content("too many streams of events\n", "text/plain");
            return;
        }
        to.set_chunked_content_provider(
            "text/event-stream",
            [this, last = uint64_t{0}](size_t, httplib::DataSink& sink) mutable {
                // A comment, by which a reader that has left is noticed.
                std::string text = ":\n\n";
                if (const auto snapshot = m_feed.waitNewer(last, kQuiet)) {
                    last = snapshot->number;
                    text = m_routes.event(*snapshot);
                }
                return sink.write(text.data(), text.size());
            },
            [this](bool) { --m_streams; });
    }

    static constexpr std::chrono::seconds kQuiet{5};

    const bool m_isLoopback;
    ExportFeed& m_feed;
    const ExportRoutes m_routes;
    const UniqueFd m_end;  // an eventfd, told at the end
    const UniqueFd m_listener;
    // Counts, each of which stands for itself.
    std::atomic<int> m_connections{0};
    std::atomic<int> m_streams{0};
    ThreadPool m_workers{"ExportHttp", kMaxConnections, kMaxConnections};
    std::deque<UniqueFd> m_refused;  // the acceptor's
    std::thread m_acceptor;
};

ExportServer::ExportServer(const ListenAddress& address, ExportFeed& feed, ExportRoutes routes)
    : m_impl(std::make_unique<Impl>(address, feed, std::move(routes))) {}
ExportServer::~ExportServer() = default;
uint16_t ExportServer::port() const { return m_impl->port(); }

}  // namespace kelm::ctl
