#include "tools/gateway/ModelDescription.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"
#include "tools/gateway/StrictJson.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;

constexpr uint64_t kMostElements = uint64_t{1} << 48;
constexpr size_t kLongestName = 128;
constexpr size_t kLongestReservation = 511;  // of a tag or a stream id, as the service has it

[[noreturn]] void refuseKey(const std::string& of, const std::string& key) {
    refuse(of + " has an unknown key '" + key + "'");
}

uint64_t readNumber(const json& value, const std::string& key, uint64_t least, uint64_t most) {
    if (!value.is_number_unsigned() || value.get<uint64_t>() < least ||
        value.get<uint64_t>() > most) {
        refuse("'" + key + "' must be a whole number from " + std::to_string(least) + " to " +
               std::to_string(most));
    }
    return value.get<uint64_t>();
}

// Neither control characters nor an end in the middle: names go into C strings, logs and headers.
std::string readText(const json& value, const std::string& key, size_t least, size_t most) {
    if (!value.is_string()) refuse("'" + key + "' must be a string");
    const auto& text = value.get_ref<const std::string&>();
    const bool isPrintable = std::ranges::all_of(
        text, [](char each) { return static_cast<unsigned char>(each) >= ' ' && each != '\x7f'; });
    if (text.size() < least || text.size() > most || !isPrintable) {
        refuse("'" + key + "' must have " + std::to_string(least) + " to " + std::to_string(most) +
               " bytes and no control characters");
    }
    return text;
}

// Runs the reader of each member; one that has none is refused.
using Readers = std::map<std::string, std::function<void(const json&)>, std::less<>>;
void readMembers(const json& object, const std::string& of, const Readers& readers,
                 std::initializer_list<const char*> required) {
    if (!object.is_object()) refuse(of + " must be an object");
    for (const char* key : required) {
        if (!object.contains(key)) refuse(of + " lacks '" + key + "'");
    }
    for (const auto& [key, value] : object.items()) {
        const auto reader = readers.find(key);
        if (reader == readers.end()) refuseKey(of, key);
        reader->second(value);
    }
}

Shape readModelShape(const json& value) {
    return readShape(
        value, [](int64_t dimension) { return dimension > 0 || dimension == -1; },
        "a dimension must be a whole number from 1 on, or -1 for a variable one");
}

uint64_t sizeOf(const TensorDescription& tensor, bool isInput, std::optional<uint64_t> given) {
    const std::string what = "tensor '" + tensor.name + "'";
    const auto variable = std::ranges::count(tensor.shape, -1);
    if (variable > 1 || (variable == 1 && !isInput)) {
        refuse(what + " has " + (isInput ? "more than one" : "a") +
               " variable dimension; the graph's buffers have fixed sizes");
    }
    const uint64_t element = infoOf(tensor.datatype).bytes;
    if (variable == 1 || element == 0) {
        if (!given) refuse(what + " varies in size; give its room as 'bytes'");
        return *given;
    }
    const auto count = countElements(tensor.shape);
    if (!count) refuse(what + " has too many elements");
    if (given && *given != *count * element) {
        refuse(what + " has " + std::to_string(*count * element) + " bytes by its shape, not " +
               std::to_string(*given));
    }
    return *count * element;
}

TensorDescription readTensor(const json& value, bool isInput, uint64_t next) {
    TensorDescription tensor;
    tensor.offset = next;
    std::optional<uint64_t> bytes;
    readMembers(
        value, "a tensor",
        {{"name", [&](const json& v) { tensor.name = readText(v, "name", 1, kLongestName); }},
         {"datatype",
          [&](const json& v) {
              const std::string text = readText(v, "datatype", 1, kLongestName);
              const auto type = findDatatype(text);
              if (!type) refuse("there is no datatype '" + text + "'");
              tensor.datatype = *type;
          }},
         {"shape", [&](const json& v) { tensor.shape = readModelShape(v); }},
         {"offset",
          [&](const json& v) { tensor.offset = readNumber(v, "offset", 0, kMostElements); }},
         {"bytes", [&](const json& v) { bytes = readNumber(v, "bytes", 1, kMostElements); }}},
        {"name", "datatype", "shape"});
    tensor.bytes = sizeOf(tensor, isInput, bytes);
    return tensor;
}

void requireApart(std::vector<TensorDescription> tensors) {
    std::ranges::sort(tensors, {}, &TensorDescription::offset);
    for (size_t i = 1; i < tensors.size(); ++i) {
        const TensorDescription& before = tensors[i - 1];
        if (tensors[i].offset < before.offset + before.bytes) {
            refuse("tensors '" + before.name + "' and '" + tensors[i].name + "' overlap");
        }
    }
    std::ranges::sort(tensors, {}, &TensorDescription::name);
    const auto twin = std::ranges::adjacent_find(tensors, {}, &TensorDescription::name);
    if (twin != tensors.end()) refuse("there are two tensors '" + twin->name + "'");
}

std::vector<TensorDescription> readTensors(const json& value, const std::string& key) {
    if (!value.is_array() || value.empty() || value.size() > kMostTensors) {
        refuse("'" + key + "' must be an array of 1 to " + std::to_string(kMostTensors) +
               " tensors");
    }
    std::vector<TensorDescription> tensors;
    uint64_t next = 0;
    for (const json& each : value) {
        const auto& tensor = tensors.emplace_back(readTensor(each, key == "inputs", next));
        next = tensor.offset + tensor.bytes;
    }
    requireApart(tensors);
    return tensors;
}

void requireWithin(const std::vector<TensorDescription>& tensors, uint64_t bytes,
                   const std::string& buffer) {
    for (const TensorDescription& each : tensors) {
        if (each.offset + each.bytes <= bytes) continue;
        refuse("tensor '" + each.name + "' ends at byte " +
               std::to_string(each.offset + each.bytes) + ", but the graph's " + buffer + " has " +
               std::to_string(bytes));
    }
}

}  // namespace

std::optional<uint64_t> countElements(const Shape& shape) {
    uint64_t count = 1;
    for (const int64_t each : shape) {
        if (each < 0 || static_cast<uint64_t>(each) > kMostElements) return std::nullopt;
        if (each != 0 && count > kMostElements / static_cast<uint64_t>(each)) return std::nullopt;
        count *= static_cast<uint64_t>(each);
    }
    return count;
}

std::string toText(const Shape& shape) { return json(shape).dump(); }

bool TensorDescription::isVariable() const { return std::ranges::count(shape, -1) > 0; }

ModelDescription ModelDescription::parse(const std::string& name, std::string_view text) {
    constexpr uint64_t kMostTasks = 65536;
    constexpr uint64_t kDay = 86'400'000;
    constexpr uint64_t kMostInt = std::numeric_limits<int32_t>::max();
    ModelDescription model;
    model.name = readText(name, "the model's name", 1, kLongestName);
    const auto number = [](const char* key, auto& field, uint64_t least, uint64_t most) {
        return Readers::value_type(key, [key, &field, least, most](const json& value) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(
                readNumber(value, key, least, most));
        });
    };
    const auto words = [](const char* key, std::string& field, size_t least, size_t most) {
        return Readers::value_type(key, [key, &field, least, most](const json& value) {
            field = readText(value, key, least, most);
        });
    };
    readMembers(
        parseStrictJson(text), "the description",
        {words("graph", model.graph, 1, 4095),
         words("version", model.version, 1, kLongestName),
         words("platform", model.platform, 0, kLongestName),
         words("tag", model.tag, 0, kLongestReservation),
         words("stream_id", model.streamId, 0, kLongestReservation),
         number("subclass", model.subclass, 0, kMostInt),
         number("expected_devices", model.expectedDevices, 1, kMostTasks),
         number("window", model.window, 0, kMostTasks),
         number("queue", model.queue, 0, kMostTasks),
         number("priority", model.priority, 0, 15),
         number("warmup", model.warmup, 0, 1000),
         number("deadline_ms", model.deadline, 1, kDay),
         {"inputs", [&](const json& value) { model.inputs = readTensors(value, "inputs"); }},
         {"outputs", [&](const json& value) { model.outputs = readTensors(value, "outputs"); }}},
        {"graph", "inputs", "outputs"});
    return model;
}

void ModelDescription::requireFit(uint64_t inputBytes, uint64_t outputBytes) const {
    requireWithin(inputs, inputBytes, "input");
    requireWithin(outputs, outputBytes, "output");
}

std::vector<const TensorDescription*> ModelDescription::chooseOutputs(
    const std::vector<std::string>& names) const {
    std::vector<const TensorDescription*> chosen;
    for (const std::string& each : names) {
        const auto tensor = std::ranges::find(outputs, each, &TensorDescription::name);
        if (tensor == outputs.end()) {
            throw Failure(Cause::kInvalid, "the model has no output '" + each + "'");
        }
        if (std::ranges::count(chosen, &*tensor) > 0) {
            throw Failure(Cause::kInvalid, "output '" + each + "' is wanted twice");
        }
        chosen.push_back(&*tensor);
    }
    if (names.empty()) {
        for (const TensorDescription& each : outputs) chosen.push_back(&each);
    }
    return chosen;
}

}  // namespace kelm::gateway
