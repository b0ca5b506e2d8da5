#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kelm::gateway {

class Failure;

// An answer: a text, and behind it pieces of memory that are not copied.
struct HttpReply {
    // `{"error": text}`, with the headers that belong to the cause.
    static HttpReply of(const Failure& failure);
    static HttpReply ofError(unsigned status, const std::string& text);

    unsigned status = 200;
    std::string type = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::string text;
    std::string error;  // which is in the text, too
    std::vector<std::span<const std::byte>> pieces;
    std::shared_ptr<const void> owner;  // of the pieces, until they are written

    size_t bodyBytes() const;
    // The status line and the headers, with the empty line.
    std::string makeHead(bool keepAlive) const;
};

}  // namespace kelm::gateway
