#pragma once

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "tools/gateway/rest/HttpStream.h"

namespace kelm::gateway {

using HttpParser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;

// The body of a request, read in pieces to where the reader wants them: a body of known length from
// the socket right into that memory.
//
// Threads: the connection's. Everything is borrowed from the connection, which a `Done` keeps
// alive.
class HttpBody {
 public:
    using Error = boost::system::error_code;
    // boost::beast::http::error::partial_message: the body has ended before; operation_aborted: it
    // took too long.
    using Done = std::function<void(Error)>;

    HttpBody(HttpStream& stream, boost::beast::flat_buffer& buffer, HttpParser& parser);

    bool isChunked() const { return m_parser.chunked(); }
    // Of a body whose length is known; at once after the head: all of it.
    uint64_t remaining() const { return m_remaining; }
    uint64_t received() const { return m_received; }  // bytes
    bool isAtEnd() const { return isChunked() ? m_parser.is_done() : m_remaining == 0; }

    // Whether the connection ended, or what came was no body: there is nothing to read behind it.
    bool hasFailed() const { return m_failure.failed(); }
    bool hasPeerEnded() const;

    // Asked before memory is spent on so many bytes more; no_buffer_space if it says false.
    using Charge = std::function<bool(size_t bytes)>;

    // Fills all of it.
    void read(std::span<std::byte> into, Done done);
    // Appends so many bytes; memory is spent as they come, not as they are announced.
    void readText(std::string& into, size_t count, Charge charge, Done done);
    // Appends all that is left; error::body_limit if that is more than so many bytes.
    void readAll(std::string& into, size_t most, Charge charge, Done done);
    // Reads up to the end, at most so many bytes; error::body_limit beyond.
    void drop(size_t most, Done done);

 private:
    using DoneSome = std::function<void(Error, size_t)>;
    // At least a byte, unless the body is at its end.
    void readSome(std::span<std::byte> into, const DoneSome& done);
    size_t takeBuffered(std::span<std::byte> into);
    void take(size_t count) {
        m_remaining -= count;
        m_received += count;
    }

    HttpStream& m_stream;
    boost::beast::flat_buffer& m_buffer;
    HttpParser& m_parser;
    uint64_t m_remaining = 0;
    uint64_t m_received = 0;
    Error m_failure;
};

}  // namespace kelm::gateway
