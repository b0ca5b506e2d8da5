#include "tools/gateway/Failure.h"

#include <algorithm>
#include <array>

#include "kelm/kelm.h"
#include "tools/gateway/RequestRules.h"
#include "utils/Utf8.h"

namespace kelm::gateway {

namespace {

struct Codes {
    unsigned http;
    int grpc;
};
// In the order of the causes.
constexpr std::array<Codes, 9> kCodes{
    {{400, 3}, {404, 5}, {413, 11}, {429, 8}, {503, 14}, {502, 14}, {504, 4}, {499, 1}, {500, 13}}};

struct Row {
    int error;
    Cause cause;
};
// The service's are by number, since its names are no part of the interface. From -122 on: there is
// no device, or it failed, and the next request may find another.
constexpr Row kRows[] = {{KELM_TIMEOUT, Cause::kExpired},
                         {KELM_EXPIRED, Cause::kExpired},
                         {KELM_CONNECTION_LOST, Cause::kLost},
                         {KELM_NOT_CONNECTED, Cause::kUnavailable},
                         {KELM_CANCELED, Cause::kCanceled},
                         {KELM_BUSY, Cause::kFull},
                         {-122, Cause::kUnavailable},
                         {-124, Cause::kFull},
                         {-126, Cause::kLost},
                         {-128, Cause::kUnavailable},
                         {-129, Cause::kUnavailable}};

Cause causeOf(int error) {
    const auto* const row = std::ranges::find(kRows, error, &Row::error);
    return row != std::end(kRows) ? row->cause : Cause::kInternal;
}

// Texts quote what clients have sent, which may be megabytes; how they begin and end tells more
// than its middle.
std::string shorten(const std::string& text) {
    constexpr size_t kHead = 380;  // bytes
    constexpr size_t kTail = 128;
    if (text.size() <= kHead + kTail) return text;
    const auto isInside = [](char each) { return (static_cast<unsigned char>(each) >> 6) == 2; };
    size_t tail = text.size() - kTail;
    while (tail < text.size() && isInside(text[tail])) ++tail;  // the rest of a character
    return std::string(Utf8::head(text, kHead)) + "..." + text.substr(tail);
}

}  // namespace

Failure::Failure(Cause why, const std::string& text)
    : std::runtime_error(shorten(text)), m_cause(why) {}

Failure Failure::ofKelm(int error, const std::string& text) {
    return {causeOf(error),
            text + " (" + kelm_error_name(error) + ", " + std::to_string(error) + ")"};
}

unsigned Failure::httpStatus() const { return kCodes[static_cast<size_t>(m_cause)].http; }
int Failure::grpcCode() const { return kCodes[static_cast<size_t>(m_cause)].grpc; }

void refuse(const std::string& text) { throw Failure(Cause::kInvalid, text); }

void requireShort(std::string_view text, const char* key) {
    if (text.size() <= kLongestText) return;
    refuse(std::string("'") + key + "' must have at most " + std::to_string(kLongestText) +
           " bytes");
}

}  // namespace kelm::gateway
