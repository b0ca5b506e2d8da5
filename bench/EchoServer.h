#pragma once

#include <functional>
#include <string>

namespace kelm::bench {

// Serves gRPC's echo at the address until the process is killed, with one thread for each CPU that
// it may use. Tells when it takes clients.
[[noreturn]] void serveEcho(const std::string& address, const std::function<void()>& ready);

}  // namespace kelm::bench
