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
    kService,          // the service answered with a KELM_ code
    kTimeout,          // the deadline passed
    kConnectionLost,   // the service went away; every pending call ends with this
    kNotConnected,     // no connection, or not registered yet
    kCanceled,         // the task was taken back before it ran
    kSystem,           // the operating system refused something
    kBusy,             // a slot, or all slots of a pool, belong to tasks that have not ended
    kExpired,          // the deadline passed before the task was sent
    kInvalidArgument,  // a mistake of the caller
    kOutOfMemory,
};

// The calls that some codes of the service mean different things for.
enum class CallKind { kOther, kCreateGraph, kInfer };

// How a call ended. `code` is the service's KelmError (0 unless kService); `text` names the code
// and says what to do.
class [[nodiscard]] Error {
 public:
    // No std::string: it is told where there is no memory left.
    static constexpr const char* kNoMemory =
        "there is no memory left for the call; end other programs, or raise what this one may have "
        "(ulimit -v)";

    Error() = default;
    Error(ErrorKind kind, int32_t code, std::string text)
        : m_kind(kind), m_code(code), m_text(std::move(text)) {}

    // For the status of a response; 0 is no error.
    static Error fromStatus(int32_t status, CallKind call = CallKind::kOther);
    static Error timeout(const std::string& what);
    static Error connectionLost();
    static Error notConnected();
    static Error canceled();
    // With the text of errno, or of the error of that number, and what to do about it.
    static Error fromErrno(const std::string& what);
    static Error fromErrno(const std::string& what, int number);

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

// An error as an exception, for programs that go no further than the first one. what() is its text.
class CallFailed : public std::runtime_error {
 public:
    explicit CallFailed(Error error)
        : std::runtime_error(error.text()), m_error(std::move(error)) {}

    const Error& error() const { return m_error; }

 private:
    Error m_error;
};

// Throws CallFailed if there is an error.
inline void require(const Error& error) {
    if (error) throw CallFailed(error);
}

// A value, or the error that stands in its place.
template <class T>
class [[nodiscard]] Result {
 public:
    Result(T value) : m_value(std::move(value)) {}  // implicit: both ends of a call read plainly
    Result(Error error) : m_value(std::move(error)) {}

    explicit operator bool() const { return std::holds_alternative<T>(m_value); }
    // Throws CallFailed if there is none.
    T& value() & { return require(error()), std::get<T>(m_value); }
    const T& value() const& { return require(error()), std::get<T>(m_value); }
    T value() && { return require(error()), std::get<T>(std::move(m_value)); }
    // No error if there is a value.
    const Error& error() const {
        static const Error none;
        return *this ? none : std::get<Error>(m_value);
    }

 private:
    std::variant<T, Error> m_value;
};

// The value; throws CallFailed if there is none.
template <class T>
T take(Result<T> result) {
    return std::move(result).value();
}

}  // namespace kelm::client
