#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/TlsPair.h"
#include "tools/gateway/rest/HttpLimits.h"

namespace CLI {
class App;
}

namespace kelm::gateway {

// What the program is told by its arguments.
struct Options {
    std::string models;
    std::vector<std::string> rest{"127.0.0.1:8000"};
    std::vector<std::string> grpc;
    std::string agent;
    std::string metrics;
    std::string socket;
    size_t threads = 1;
    unsigned drain = 5;
    TlsFiles tls;
    HttpLimits limits;
    GatewayOptions gateway;
};

// Gives the parser all options. Help, manual page, completion and the table in docs/ are made from
// it; the type FILE or DIRECTORY tells what the shell can complete.
void addOptions(CLI::App& app, Options& options);

}  // namespace kelm::gateway
