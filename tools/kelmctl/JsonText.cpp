#include "tools/kelmctl/JsonText.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace kelm::ctl {

// Bytes that are no UTF-8 are replaced, where the library would throw by default.
std::string toJsonText(const nlohmann::json& value, int indentation) {
    using Json = nlohmann::json;
    return value.dump(indentation, ' ', true, Json::error_handler_t::replace);
}

double toJsonNumber(double value) {
    constexpr double kDecimals = 1000.0;
    const double scaled = value * kDecimals;
    return std::isfinite(scaled) ? std::round(scaled) / kDecimals : 0.0;
}

}  // namespace kelm::ctl
