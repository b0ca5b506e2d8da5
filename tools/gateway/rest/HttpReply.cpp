#include "tools/gateway/rest/HttpReply.h"

#include <boost/beast/http/status.hpp>
#include <nlohmann/json.hpp>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

HttpReply HttpReply::ofError(unsigned status, const std::string& text) {
    HttpReply reply;
    reply.status = status;
    reply.error = text;
    // Texts quote what clients have sent, which may be no UTF-8.
    reply.text = nlohmann::json({{"error", text}})
                     .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    return reply;
}

HttpReply HttpReply::of(const Failure& failure) {
    HttpReply reply = ofError(failure.httpStatus(), failure.what());
    const Cause cause = failure.cause();
    if (cause == Cause::kFull || cause == Cause::kUnavailable || cause == Cause::kLost) {
        reply.headers.emplace_back("Retry-After", "1");
    }
    return reply;
}

size_t HttpReply::bodyBytes() const {
    size_t bytes = text.size();
    for (const auto& each : pieces) bytes += each.size();
    return bytes;
}

std::string HttpReply::makeHead(bool keepAlive) const {
    const auto reason =
        boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
    std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
    head.append(reason.data(), reason.size());
    head += "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(bodyBytes());
    for (const auto& [name, value] : headers) {
        head.append("\r\n").append(name).append(": ").append(value);
    }
    head += keepAlive ? "\r\nConnection: keep-alive\r\n\r\n" : "\r\nConnection: close\r\n\r\n";
    return head;
}

}  // namespace kelm::gateway
