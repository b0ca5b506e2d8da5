#include "tools/simulator/Model.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <string>
#include <string_view>

namespace kelm::simulator {

namespace {

constexpr std::string_view kMark = "KELMSIM";
constexpr size_t kLongestHeader = 512;
constexpr uint32_t kAnyCount = 0xffffffff;  // also such as no graph has

struct Field {
    std::string_view name;
    uint32_t Model::*place;
    uint32_t least;
    uint32_t most;
};

constexpr Field kFields[] = {
    {"input", &Model::inputSize, 1, 1 << 28}, {"output", &Model::outputSize, 1, 1 << 28},
    {"memory", &Model::memoryMb, 0, 4095},    {"micros", &Model::micros, 0, 100'000'000},
    {"times", &Model::times, 0, 1024},        {"debug", &Model::debugSize, 0, 1 << 20},
    {"inputs", &Model::inputs, 0, kAnyCount}, {"outputs", &Model::outputs, 0, kAnyCount},
};

bool setField(Model& model, std::string_view word) {
    const size_t at = std::min(word.find('='), word.size());
    const auto* field = std::ranges::find(kFields, word.substr(0, at), &Field::name);
    if (field == std::end(kFields) || at == word.size()) return false;
    const std::string_view digits = word.substr(at + 1);
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), value);
    if (error != std::errc() || end != digits.end()) return false;
    if (value < field->least || value > field->most) return false;
    model.*(field->place) = value;
    return true;
}

uint64_t digest(std::span<const uint8_t> blob) {
    uint64_t hash = 0xcbf29ce484222325;
    for (const uint8_t byte : blob) hash = (hash ^ byte) * 0x100000001b3;
    return hash;
}

}  // namespace

// A blob without the mark is a graph of the default sizes: any file will do for a test.
std::optional<Model> Model::parse(std::span<const uint8_t> blob) {
    if (blob.empty()) return std::nullopt;
    Model model;
    model.memoryMb = static_cast<uint32_t>((blob.size() + kMegabyte - 1) / kMegabyte);
    model.key = digest(blob);
    const auto head = blob.first(std::min(blob.size(), kLongestHeader));
    std::string text(head.begin(), head.end());
    if (!text.starts_with(kMark)) return model;
    if (text.find('\n') == std::string::npos) return std::nullopt;
    std::istringstream words(text.substr(kMark.size(), text.find('\n') - kMark.size()));
    for (std::string word; words >> word;) {
        if (!setField(model, word)) return std::nullopt;
    }
    return model;
}

// A running index in place of a division for each byte: clients check every result with this.
void Model::infer(std::span<const uint8_t> input, std::span<uint8_t> output) const {
    size_t from = 0;
    for (size_t i = 0; i < output.size(); ++i) {
        output[i] = static_cast<uint8_t>(input[from] ^ keyByte(i));
        if (++from == input.size()) from = 0;
    }
}

void Model::timeTaken(std::span<float> result) const {
    float now = 0.0f;
    for (size_t i = 0; i < result.size(); ++i) {
        // The last step is what the service takes for the duration of the inference.
        now += i + 1 < result.size() ? 0.25f : static_cast<float>(micros) / 1000.0f;
        result[i] = now;
    }
}

void Model::debugInfo(std::span<uint8_t> result) const {
    for (size_t i = 0; i < result.size(); ++i) result[i] = static_cast<uint8_t>(keyByte(i) + i);
}

void thermalStats(float temperature, std::span<float, kThermalFloats> result) {
    for (size_t i = 0; i < result.size(); ++i) {
        result[i] = temperature - static_cast<float>(i) / 4.0f;
    }
}

}  // namespace kelm::simulator
