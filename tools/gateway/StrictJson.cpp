#include "tools/gateway/StrictJson.h"

#include <set>
#include <string>
#include <vector>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;
constexpr int kMaxNesting = 16;

// The parser's words without its numbers and class.
std::string plainText(const std::string& text) {
    const size_t end = text.find("] ");
    return end == std::string::npos ? text : text.substr(end + 2);
}

}  // namespace

json parseStrictJson(std::string_view text) {
    std::vector<std::set<std::string>> names;
    const auto check = [&](int depth, json::parse_event_t event, const json& parsed) {
        if (depth > kMaxNesting) throw Failure(Cause::kInvalid, "the JSON is nested too deep");
        if (event == json::parse_event_t::object_start) names.emplace_back();
        if (event == json::parse_event_t::object_end) names.pop_back();
        if (event == json::parse_event_t::key &&
            !names.back().insert(parsed.get_ref<const std::string&>()).second) {
            throw Failure(Cause::kInvalid,
                          "the JSON has '" + parsed.get<std::string>() + "' twice");
        }
        return true;
    };
    try {
        return json::parse(text.begin(), text.end(), check);
    } catch (const json::exception& error) {
        throw Failure(Cause::kInvalid, "this is no JSON: " + plainText(error.what()));
    }
}

std::vector<int64_t> readShape(const json& value, bool (*isAllowed)(int64_t dimension),
                               const char* rule) {
    if (!value.is_array() || value.size() > kMostDimensions) {
        throw Failure(Cause::kInvalid, "'shape' must be an array of at most " +
                                           std::to_string(kMostDimensions) + " whole numbers");
    }
    std::vector<int64_t> shape;
    for (const json& each : value) {
        // First the size: a larger number could become any.
        const bool isInRange = each.is_number_integer() && each <= kMostBytes;
        if (!isInRange || !isAllowed(each.get<int64_t>())) throw Failure(Cause::kInvalid, rule);
        shape.push_back(each.get<int64_t>());
    }
    return shape;
}

}  // namespace kelm::gateway
