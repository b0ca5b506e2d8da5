#include "tools/gateway/rest/HttpBody.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <cstring>
#include <utility>

namespace kelm::gateway {

namespace {

namespace http = boost::beast::http;
constexpr size_t kStep = 64 << 10;

}  // namespace

HttpBody::HttpBody(HttpStream& stream, boost::beast::flat_buffer& buffer, HttpParser& parser)
    : m_stream(stream), m_buffer(buffer), m_parser(parser) {
    const auto length = parser.content_length();
    m_remaining = length ? *length : 0;
}

bool HttpBody::hasPeerEnded() const {
    return m_failure == boost::asio::error::eof || m_failure == http::error::partial_message ||
           m_failure == boost::asio::ssl::error::stream_truncated;
}

size_t HttpBody::takeBuffered(std::span<std::byte> into) {
    const size_t count = std::min(into.size(), m_buffer.size());
    std::memcpy(into.data(), m_buffer.data().data(), count);
    m_buffer.consume(count);
    return count;
}

void HttpBody::readSome(std::span<std::byte> into, const DoneSome& done) {
    if (isAtEnd()) return done({}, 0);
    if (isChunked()) {
        auto& body = m_parser.get().body();
        body.data = into.data();
        body.size = into.size();
        return http::async_read(m_stream, m_buffer, m_parser,
                                [this, room = into.size(), done](Error error, size_t) {
                                    if (error == http::error::need_buffer) error = {};
                                    m_failure = error;
                                    const size_t count = room - m_parser.get().body().size;
                                    m_received += count;
                                    done(error, count);
                                });
    }
    into = into.first(static_cast<size_t>(std::min<uint64_t>(into.size(), m_remaining)));
    if (const size_t count = takeBuffered(into); count > 0) {
        take(count);
        return done({}, count);
    }
    m_stream.async_read_some(boost::asio::buffer(into.data(), into.size()),
                             [this, done](const Error& error, size_t count) {
                                 take(count);
                                 m_failure = error;
                                 done(error, count);
                             });
}

void HttpBody::read(std::span<std::byte> into, Done done) {
    if (into.empty()) return done({});
    readSome(into, [this, into, done = std::move(done)](Error error, size_t count) {
        if (!error && count == 0) error = http::error::partial_message;
        if (error) return done(error);
        read(into.subspan(count), done);
    });
}

void HttpBody::readText(std::string& into, size_t count, Charge charge, Done done) {
    const size_t before = into.size();
    const size_t step = std::min(count, kStep);
    if (!charge(step)) return done(boost::asio::error::no_buffer_space);
    into.resize(before + step);
    read(std::as_writable_bytes(std::span(into)).subspan(before),
         [this, &into, rest = count - step, charge = std::move(charge),
          done = std::move(done)](const Error& error) {
             if (error || rest == 0) return done(error);
             readText(into, rest, charge, done);
         });
}

void HttpBody::readAll(std::string& into, size_t most, Charge charge, Done done) {
    const size_t before = into.size();
    size_t step = std::min(kStep, most + 1 - before);
    if (!isChunked()) step = static_cast<size_t>(std::min<uint64_t>(step, m_remaining));
    if (!charge(step)) return done(boost::asio::error::no_buffer_space);
    into.resize(before + step);
    const auto room = std::as_writable_bytes(std::span(into)).subspan(before);
    readSome(room, [this, &into, most, before, charge = std::move(charge), done = std::move(done)](
                       Error error, size_t count) {
        into.resize(before + count);
        if (!error && into.size() > most) error = http::error::body_limit;
        if (error || isAtEnd()) return done(error);
        readAll(into, most, charge, done);
    });
}

void HttpBody::drop(size_t most, Done done) {
    if (isAtEnd()) return done({});
    const auto bytes = std::make_shared<std::string>();
    readAll(
        *bytes, most, [](size_t) { return true; },
        [bytes, done = std::move(done)](const Error& error) { done(error); });
}

}  // namespace kelm::gateway
