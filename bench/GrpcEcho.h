#pragma once

#include "bench/Figures.h"
#include "bench/Load.h"

namespace kelm::bench {

enum class GrpcKind { kUnary, kStream };

// The exchange of the same bytes by gRPC, measured by the program grpc_echo, which is built where
// gRPC is installed.
class GrpcEcho {
 public:
    static bool isInstalled();
    // The server's figures stand in the place of the service's.
    static Figures measure(GrpcKind kind, const Load& load, double seconds);
};

}  // namespace kelm::bench
