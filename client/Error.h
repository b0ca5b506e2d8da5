#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

namespace kelm::client {

// Where a call failed.
enum class ErrorKind {
    kNone,
    kService,         // the service answered with a KELM_ code
    kTimeout,         // the deadline passed
    kConnectionLost,  // the service went away; every pending call ends with this
    kNotConnected,    // no connection, or not registered yet
    kCanceled,        // the task was taken back before it ran
    kSystem,          // the operating system refused something
};

// How a call ended. `code` is the service's KelmError (0 unless kService); `text` names the code
// and says what to do.
class Error {
 public:
    Error() = default;
    Error(ErrorKind kind, int32_t code, std::string text)
        : m_kind(kind), m_code(code), m_text(std::move(text)) {}

    // For the status of a response; 0 is no error.
    static Error fromStatus(int32_t status);
    static Error timeout(const std::string& what);
    static Error connectionLost();
    static Error notConnected();
    static Error canceled();
    // With the text of errno.
    static Error fromErrno(const std::string& what);

    // True when there is an error.
    explicit operator bool() const { return m_kind != ErrorKind::kNone; }
    ErrorKind kind() const { return m_kind; }
    int32_t code() const { return m_code; }
    const std::string& text() const { return m_text; }
    // A short name for tables: "KELM_ERROR_..." or the kind.
    std::string name() const;

 private:
    ErrorKind m_kind = ErrorKind::kNone;
    int32_t m_code = 0;
    std::string m_text;
};

// A value, or the error that stands in its place.
template <class T>
class Result {
 public:
    Result(T value) : m_value(std::move(value)) {}  // implicit: both ends of a call read plainly
    Result(Error error) : m_value(std::move(error)) {}

    explicit operator bool() const { return std::holds_alternative<T>(m_value); }
    T& value() { return std::get<T>(m_value); }
    const T& value() const { return std::get<T>(m_value); }
    const Error& error() const { return std::get<Error>(m_value); }

 private:
    std::variant<T, Error> m_value;
};

// For programs that end with the first error: throw its text as a std::runtime_error.
inline void require(const Error& error) {
    if (error) throw std::runtime_error(error.text());
}
template <class T>
T take(Result<T> result) {
    if (!result) throw std::runtime_error(result.error().text());
    return std::move(result.value());
}

}  // namespace kelm::client
