#include "tools/gateway/rest/HttpConnection.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace kelm::gateway {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::beast::iequals;

size_t countOf(const HttpParser::value_type& request, http::field field) {
    const auto range = request.equal_range(field);
    return static_cast<size_t>(std::distance(range.first, range.second));
}

HttpReply replyTo(const boost::system::error_code& error) {
    if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        return HttpReply::ofError(431, "the head of the request is too large");
    }
    if (error == http::error::body_limit) {
        return HttpReply::ofError(413, "the body of the request is too large");
    }
    return HttpReply::ofError(400, "this is no HTTP/1.1: " + error.message());
}

}  // namespace

HttpConnection::HttpConnection(HttpSocket socket, HttpService& service)
    : m_service(service),
      m_counted(service),
      m_stream(std::move(socket), service.tls),
      m_timer(m_stream.get_executor()),
      m_buffer(service.limits.buffer) {}

void HttpConnection::start() {
    if (!m_stream.isTls()) return awaitHead();
    limitTime(m_service.limits.headTime);
    m_stream.handshake([self = shared_from_this()](const Error& error) {
        if (error) return self->close();
        self->awaitHead();
    });
}

void HttpConnection::refuse() {
    post([this] {
        if (m_stream.isTls()) return close();  // a handshake is what costs
        m_isServing = true;
        write(refusal(), false);
    });
}

HttpReply HttpConnection::refusal() {
    return HttpReply::ofError(503, "there are too many connections; try again later");
}

void HttpConnection::stop() {
    post([this] {
        if (!m_isServing) close();
    });
}

void HttpConnection::abort() {
    post([this] { close(); });
}

void HttpConnection::post(std::function<void()> work) {
    asio::post(m_stream.get_executor(),
               [self = shared_from_this(), work = std::move(work)] { work(); });
}

void HttpConnection::limitTime(std::chrono::milliseconds time, bool isReading) {
    m_isReading = isReading;
    m_timer.expires_after(time);
    m_timer.async_wait([self = shared_from_this()](const Error& error) {
        // A time that was set anew meanwhile counts.
        if (!error && self->m_timer.expiry() <= asio::steady_timer::clock_type::now()) {
            self->onTimeUp();
        }
    });
}

void HttpConnection::onTimeUp() {
    if (!m_isReading) return close();
    m_isLate = true;
    limitTime(m_service.limits.linger);
    Error ignored;
    m_stream.socket().cancel(ignored);  // so that the read ends with an error, which is answered
}

void HttpConnection::close() {
    Error ignored;
    m_stream.socket().close(ignored);
    m_timer.cancel();
    if (const auto hungUp = std::exchange(m_hungUp, nullptr)) hungUp();
}

void HttpConnection::awaitHead() {
    if (m_service.isStopping) return close();
    limitTime(m_service.limits.idle);
    if (m_isWatching) {
        // That read goes on for this request; what came before must not wait for its end.
        Error ignored;
        if (m_buffer.size() > 0) m_stream.socket().cancel(ignored);
        return;
    }
    if (m_buffer.size() > 0) return readHead();
    m_isWatching = true;
    watchPeer();
}

// Reads what comes beside a request that runs: the next one, or the peer's end.
void HttpConnection::watchPeer() {
    const size_t room = m_buffer.max_size() - m_buffer.size();
    if (room == 0) {
        m_isWatching = false;
        return;
    }
    m_stream.async_read_some(
        m_buffer.prepare(room), [self = shared_from_this()](const Error& error, size_t count) {
            self->m_buffer.commit(count);
            if (!error && self->m_isServing) return self->watchPeer();
            self->m_isWatching = false;
            const bool isCanceled =
                error == asio::error::operation_aborted && self->m_stream.socket().is_open();
            if (error && !isCanceled) return self->close();
            if (!self->m_isServing) self->readHead();
        });
}

void HttpConnection::readHead() {
    limitTime(m_service.limits.headTime, true);
    m_body.reset();
    m_record = {};
    m_parser.emplace();
    m_parser->header_limit(m_service.limits.head);
    m_parser->body_limit(m_service.limits.body);
    http::async_read_header(
        m_stream, m_buffer, *m_parser,
        [self = shared_from_this()](const Error& error, size_t) { self->onHead(error); });
}

void HttpConnection::onHead(const Error& error) {
    m_isServing = true;
    // What the parser does not complain of is the connection's end.
    if (error && m_isLate) {
        return write(HttpReply::ofError(408, "the head of the request took too long"), false);
    }
    const bool isParsers =
        error && error.category() == make_error_code(http::error::end_of_stream).category() &&
        error != http::error::end_of_stream;
    if (error && !isParsers) return close();
    m_hasPeerEnded = error == http::error::partial_message;
    if (error) return write(replyTo(error), false);
    const auto id = request()["X-Request-Id"];
    m_record.id = pickRequestId({id.data(), id.size()});
    if (auto fault = findFault()) return write(std::move(*fault), false);
    m_body.emplace(m_stream, m_buffer, *m_parser);
    m_wantsContinue = countOf(request(), http::field::expect) > 0;
    limitTime(m_service.limits.headTime);
    m_service.handler.serve(shared_from_this());
}

std::optional<HttpReply> HttpConnection::findFault() const {
    const auto& head = request();
    const auto is = [&](http::field field, const char* value) {
        return iequals(head[field], value);
    };
    if (head.version() >= 11 && countOf(head, http::field::host) != 1) {
        return HttpReply::ofError(400, "a request must name its host once");
    }
    if (countOf(head, http::field::transfer_encoding) > 0) {
        if (head.version() < 11) {
            return HttpReply::ofError(400, "HTTP/1.0 has no transfer codings");
        }
        // As what has no end that can be found; 501 would tell a proxy to try elsewhere.
        if (!is(http::field::transfer_encoding, "chunked")) {
            return HttpReply::ofError(400, "the only transfer coding that is known is 'chunked'");
        }
    }
    if (countOf(head, http::field::content_encoding) > 0 &&
        !is(http::field::content_encoding, "identity")) {
        return HttpReply::ofError(415, "send the body without a content encoding");
    }
    if (countOf(head, http::field::expect) > 0 && !is(http::field::expect, "100-continue")) {
        return HttpReply::ofError(417, "the only expectation that is met is '100-continue'");
    }
    return std::nullopt;
}

void HttpConnection::expectBody(uint64_t bytes) {
    constexpr uint64_t kMillisPerMb = 1000;
    limitTime(m_service.limits.transfer + std::chrono::milliseconds((bytes >> 20) * kMillisPerMb),
              true);
    if (!std::exchange(m_wantsContinue, false)) return;
    // All answers before were written, so there is room for it.
    static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    m_stream.writeNow(kContinue);
}

void HttpConnection::awaitHangUp(std::function<void()> hungUp) {
    m_hungUp = std::move(hungUp);
    m_work.emplace(m_stream.get_executor());
    m_isReading = false;
    m_timer.expires_at(asio::steady_timer::time_point::max());  // the task has a deadline
    if (m_isWatching) return;
    m_isWatching = true;
    watchPeer();
}

void HttpConnection::reply(HttpReply answer) {
    m_hungUp = nullptr;
    m_work.reset();
    // What is left of a refused body, if little, is cheaper than a new connection.
    const bool isLittle = m_body->remaining() <= m_service.limits.drop && !m_wantsContinue;
    const bool mayStay =
        request().keep_alive() && !m_service.isStopping && !m_isLate && !m_body->hasFailed();
    write(std::move(answer), mayStay && (m_body->isAtEnd() || isLittle));
}

void HttpConnection::write(HttpReply answer, bool keepAlive) {
    m_answer = std::move(answer);
    if (m_record.id.empty()) m_record.id = pickRequestId({});
    m_answer.headers.emplace_back("X-Request-Id", m_record.id);
    m_record.code = static_cast<int>(m_answer.status);
    m_record.error = m_answer.error;
    if (m_body) m_record.bytesIn = m_body->received();
    m_head = m_answer.makeHead(keepAlive);
    const bool isHead = m_parser && request().method() == http::verb::head;
    std::vector<asio::const_buffer> buffers{asio::buffer(m_head)};
    if (!isHead) {
        buffers.push_back(asio::buffer(m_answer.text));
        for (const auto& each : m_answer.pieces) {
            buffers.emplace_back(each.data(), each.size());
        }
    }
    limitTime(m_service.limits.transfer +
              std::chrono::milliseconds((m_answer.bodyBytes() >> 20) * 1000));
    asio::async_write(m_stream, buffers,
                      [self = shared_from_this(), keepAlive](const Error& error, size_t count) {
                          self->onWritten(error, count, keepAlive);
                      });
}

void HttpConnection::onWritten(const Error& error, size_t count, bool keepAlive) {
    m_record.bytesOut = count - std::min(count, m_head.size());
    if (m_service.handler.ended) m_service.handler.ended(std::move(m_record));
    m_record = {};
    m_answer = {};
    if (error || !m_stream.socket().is_open()) return close();
    if (!keepAlive) return linger();
    m_body->drop(m_service.limits.drop, [self = shared_from_this()](const Error& unread) {
        if (unread) return self->linger();
        self->m_isServing = false;
        self->awaitHead();
    });
}

// A close while the peer still sends would take the answer from it.
void HttpConnection::linger() {
    // That was told once; who reads again is not told.
    if (m_hasPeerEnded || (m_body && m_body->hasPeerEnded())) return close();
    Error ignored;
    m_stream.socket().shutdown(HttpSocket::shutdown_send, ignored);
    limitTime(m_service.limits.linger);
    if (m_isWatching) return;  // that read goes on to the peer's end
    m_isWatching = true;
    dropPeer();
}

void HttpConnection::dropPeer() {
    m_buffer.clear();
    m_stream.async_read_some(m_buffer.prepare(m_buffer.max_size()),
                             [self = shared_from_this()](const Error& error, size_t) {
                                 if (error) return self->close();
                                 self->dropPeer();
                             });
}

}  // namespace kelm::gateway
