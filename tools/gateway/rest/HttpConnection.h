#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/gateway/rest/HttpExchange.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// What the connections of a server share. Threads: any.
struct HttpService {
    HttpLimits limits;
    HttpHandler handler;
    std::shared_ptr<TlsContext> tls;      // null: plain; of the thread that makes connections
    std::atomic<size_t> connections{0};   // atomic: a count, which guards nothing
    std::atomic<bool> isStopping{false};  // atomic: a hint; a connection is told, too
};

// A connection of HTTP/1.1: requests one after the other, each from its head to its answer. It
// keeps itself alive by what it waits for, and is closed when a wait takes too long.
//
// Threads: that of its socket, but for post() and stop(). Owns: the socket. Borrows the service.
class HttpConnection final : public NonCopyable,
                             public HttpExchange,
                             public std::enable_shared_from_this<HttpConnection> {
 public:
    HttpConnection(HttpSocket socket, HttpService& service);

    void start();
    // Answers 503 in place of all else.
    void refuse();
    static HttpReply refusal();
    // Ends it now if no request is under way, else after the answer. Any thread.
    void stop();
    // Ends it at once. Any thread.
    void abort();

    const HttpParser::value_type& request() const override { return m_parser->get(); }
    HttpBody& body() override { return *m_body; }
    RequestRecord& record() override { return m_record; }
    const HttpLimits& limits() const override { return m_service.limits; }
    void expectBody(uint64_t bytes) override;
    void awaitHangUp(std::function<void()> hungUp) override;
    void post(std::function<void()> work) override;
    void reply(HttpReply answer) override;

 private:
    using Error = HttpBody::Error;
    // A connection among those of the service, until the last of it is gone.
    struct Counted : NonCopyable {
        explicit Counted(HttpService& of) : service(of) { add(1); }
        ~Counted() { add(-1); }
        void add(int change) {
            service.connections += static_cast<size_t>(change);
            if (service.handler.connections != nullptr) *service.handler.connections += change;
        }
        HttpService& service;
    };

    void awaitHead();
    void readHead();
    void onHead(const Error& error);
    // The answer to a head that HTTP itself does not allow.
    std::optional<HttpReply> findFault() const;
    void write(HttpReply answer, bool keepAlive);
    void onWritten(const Error& error, size_t count, bool keepAlive);
    void linger();
    void dropPeer();
    void watchPeer();
    // `isReading`: what is late is told so, if it can be; else the connection is closed.
    void limitTime(std::chrono::milliseconds time, bool isReading = false);
    void onTimeUp();
    void close();

    HttpService& m_service;
    const Counted m_counted;
    HttpStream m_stream;
    // While a request runs elsewhere: its end must find the loop.
    std::optional<boost::asio::executor_work_guard<HttpSocket::executor_type>> m_work;
    boost::asio::steady_timer m_timer;
    boost::beast::flat_buffer m_buffer;
    std::optional<HttpParser> m_parser;  // of the request under way
    std::optional<HttpBody> m_body;
    std::function<void()> m_hungUp;  // while a request runs
    std::string m_head;              // of the answer
    HttpReply m_answer;
    RequestRecord m_record;
    bool m_isServing = false;
    bool m_hasPeerEnded = false;   // in the middle of a head
    bool m_isReading = false;      // a request, which has its time
    bool m_isLate = false;         // it took longer
    bool m_isWatching = false;     // a read is pending that tells a hang-up
    bool m_wantsContinue = false;  // the peer waits for a word before it sends the body
};

}  // namespace kelm::gateway
