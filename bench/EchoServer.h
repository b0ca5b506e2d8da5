#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace kelm::bench {

// Serves gRPC's echo at the address until the process is killed, with one thread for each CPU that
// it may use. Tells when it takes clients.
// Answers to unary calls have so many bytes.
[[noreturn]] void serveEcho(const std::string& address, size_t answerBytes,
                            const std::function<void()>& ready);

}  // namespace kelm::bench
