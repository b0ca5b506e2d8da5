#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace kelm::gateway {

// Why a request comes to nothing, in the words of neither protocol.
enum class Cause {
    kInvalid,
    kNotFound,
    kTooLarge,
    kFull,
    kUnavailable,  // and no device had it
    kLost,         // a device may have had it
    kExpired,
    kCanceled,
    kInternal
};

// A request that failed; what() is one line for the client, of a long text its two ends.
class Failure : public std::runtime_error {
 public:
    Failure(Cause why, const std::string& text);
    // Of an error of libkelm or the service, whose name and code end the text.
    static Failure ofKelm(int error, const std::string& text);

    Cause cause() const { return m_cause; }
    unsigned httpStatus() const;
    int grpcCode() const;

 private:
    Cause m_cause;
};

// Throws one for a request that is not as it must be.
[[noreturn]] void refuse(const std::string& text);
// Throws one if a text of a request is longer than kLongestText.
void requireShort(std::string_view text, const char* key);

}  // namespace kelm::gateway
