#include "tools/gateway/rest/InferBody.h"

#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"
#include "tools/gateway/StrictJson.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;

// The member, or null if there is none.
const json& memberOf(const json& object, const char* key) {
    static const json kNone;
    const auto found = object.find(key);
    return found != object.end() ? *found : kNone;
}

void requireObject(const json& value, const std::string& what) {
    if (!value.is_object()) refuse(what + " must be an object");
}

std::string readText(const json& object, const char* key) {
    const json& value = memberOf(object, key);
    if (!value.is_string()) refuse(std::string("'") + key + "' must be a string");
    requireShort(value.get_ref<const std::string&>(), key);
    return value.get<std::string>();
}

const json& parametersOf(const json& object) {
    const json& parameters = memberOf(object, "parameters");
    if (parameters.is_null()) {
        static const json kEmpty = json::object();
        return kEmpty;
    }
    requireObject(parameters, "'parameters'");
    for (const json& each : parameters) {
        if (!each.is_primitive() || each.is_null()) {
            refuse("a parameter must be a string, a number or a boolean");
        }
    }
    return parameters;
}

std::optional<uint64_t> readCount(const json& parameters, const char* key, uint64_t most) {
    const json& value = memberOf(parameters, key);
    if (value.is_null()) return std::nullopt;
    if (!value.is_number_unsigned() || value.get<uint64_t>() > most) {
        refuse(std::string("'") + key + "' must be a whole number from 0 to " +
               std::to_string(most));
    }
    return value.get<uint64_t>();
}

std::optional<bool> readFlag(const json& parameters, const char* key) {
    const json& value = memberOf(parameters, key);
    if (value.is_null()) return std::nullopt;
    if (!value.is_boolean()) refuse(std::string("'") + key + "' must be true or false");
    return value.get<bool>();
}

Shape readInputShape(const json& value) {
    return readShape(
        value, [](int64_t dimension) { return dimension >= 0; },
        "a dimension must be a whole number from 0 on");
}

// `object` gives up its data.
InferBody::Input readInput(json& object) {
    requireObject(object, "an input");
    InferBody::Input input{
        .name = readText(object, "name"),
        .datatype = readText(object, "datatype"),
        .shape = readInputShape(memberOf(object, "shape")),
        .data = nullptr,
        .rawBytes = readCount(parametersOf(object), "binary_data_size", kMostBytes)};
    const auto data = object.find("data");
    if ((data != object.end()) == input.rawBytes.has_value()) {
        refuse("input '" + input.name + "' must have either 'data' or 'binary_data_size'");
    }
    if (data == object.end()) return input;
    if (!data->is_array()) refuse("the data of input '" + input.name + "' must be an array");
    input.data = std::move(*data);
    return input;
}

void requireTensors(const json& value, const char* key) {
    if (!value.is_array() || value.size() > kMostTensors) {
        refuse(std::string("'") + key + "' must be an array of at most " +
               std::to_string(kMostTensors) + " tensors");
    }
}

}  // namespace

InferBody InferBody::parse(std::string_view text) {
    json root = parseStrictJson(text);
    requireObject(root, "the request");
    InferBody body;
    if (root.contains("id")) body.id = readText(root, "id");
    const json& parameters = parametersOf(root);
    if (const auto timeout = readCount(parameters, "timeout", kLongestTimeout);
        timeout.value_or(0) > 0) {
        body.timeout = std::chrono::microseconds(*timeout);
    }
    if (const auto priority = readCount(parameters, "priority", kHighestPriority)) {
        body.priority = static_cast<uint32_t>(*priority);
    }
    body.isAllRaw = readFlag(parameters, "binary_data_output").value_or(false);
    requireTensors(memberOf(root, "inputs"), "inputs");
    for (json& each : root["inputs"]) body.inputs.push_back(readInput(each));
    if (!root.contains("outputs")) return body;
    requireTensors(root["outputs"], "outputs");
    for (const json& each : root["outputs"]) {
        requireObject(each, "an output");
        body.outputs.push_back(
            {readText(each, "name"), readFlag(parametersOf(each), "binary_data")});
    }
    return body;
}

}  // namespace kelm::gateway
