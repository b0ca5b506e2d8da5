#pragma once

#include <memory>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/rest/HttpExchange.h"

namespace kelm::gateway {

// The paths of the protocol's REST. The gateway must outlive the handler's last call.
HttpHandler makeRestHandler(const Gateway& gateway);
// One path: `/metrics`.
HttpHandler makeMetricsHandler(const Gateway& gateway);

}  // namespace kelm::gateway
