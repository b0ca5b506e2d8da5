#pragma once

#include "tools/gateway/grpc/Protos.h"

namespace kelm::gateway {

// What is registered with gRPC: each method as bytes, so that ours are the answers to malformed
// messages, too.
struct GrpcServices {
    using All = ::inference::GRPCInferenceService;
    using Health = grpc::health::v1::Health;

    using Inference = All::WithRawMethod_ServerLive<All::WithRawMethod_ServerReady<
        All::WithRawMethod_ModelReady<All::WithRawMethod_ServerMetadata<
            All::WithRawMethod_ModelMetadata<All::WithRawMethod_ModelInfer<All::Service>>>>>>;
    using Watched = Health::WithRawMethod_Check<Health::WithRawMethod_Watch<Health::Service>>;

    Inference inference;
    Watched health;
};

}  // namespace kelm::gateway
