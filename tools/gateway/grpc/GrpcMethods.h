#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/grpc/GrpcServices.h"
#include "tools/gateway/grpc/UnaryCall.h"

namespace kelm::gateway {

// What the health service tells of the gateway, named "" or as the protocol's service, or of a
// model.
grpc::health::v1::HealthCheckResponse::ServingStatus healthOf(const Gateway& gateway,
                                                              const std::string& service);

// A call of each method of both services but the one that infers and the one that watches. All that
// is given must outlive them.
std::vector<std::unique_ptr<GrpcCall>> makePlainCalls(GrpcLoop& loop, GrpcServices& services,
                                                      const Gateway& gateway);

}  // namespace kelm::gateway
