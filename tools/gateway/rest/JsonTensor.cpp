#include "tools/gateway/rest/JsonTensor.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;

// False if the element is no value of the type.
template <class T>
bool readInto(std::string& bytes, const json& element) {
    T value{};
    if constexpr (std::is_same_v<T, bool>) {
        if (!element.is_boolean()) return false;
        value = element.get<bool>();
    } else if constexpr (std::is_floating_point_v<T>) {
        if (!element.is_number()) return false;
        const auto number = element.get<double>();
        if (std::abs(number) > std::numeric_limits<T>::max()) return false;
        value = static_cast<T>(number);
    } else if (element.is_number_unsigned()) {
        if (!std::in_range<T>(element.get<uint64_t>())) return false;
        value = static_cast<T>(element.get<uint64_t>());
    } else {
        if (!element.is_number_integer() || !std::in_range<T>(element.get<int64_t>())) return false;
        value = static_cast<T>(element.get<int64_t>());
    }
    bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return true;
}

bool readBytesInto(std::string& bytes, const json& element) {
    if (!element.is_string()) return false;
    const auto& text = element.get_ref<const std::string&>();
    (void)readInto<uint32_t>(bytes, json(text.size()));
    bytes += text;
    return true;
}

template <class T>
void append(std::string& text, const std::byte* from) {
    T value{};
    std::memcpy(&value, from, sizeof(value));
    if constexpr (std::is_same_v<T, bool>) {
        text += value ? "true" : "false";
    } else {
        if constexpr (std::is_floating_point_v<T>) {
            if (!std::isfinite(value)) {
                text += "null";
                return;
            }
        }
        std::array<char, 32> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        text.append(digits.data(), end);
    }
}

struct Codec {
    bool (*read)(std::string& bytes, const json& element);
    void (*append)(std::string& text, const std::byte* from);
};
template <class T>
constexpr Codec kCodecOf{readInto<T>, append<T>};
constexpr Codec kRawOnly{nullptr, nullptr};

// In the order of Datatype. A bool that is neither 0 nor 1 must not be read as one.
constexpr std::array<Codec, 14> kCodecs{{{readInto<bool>,
                                          [](std::string& text, const std::byte* from) {
                                              text += *from == std::byte{0} ? "false" : "true";
                                          }},
                                         kCodecOf<uint8_t>,
                                         kCodecOf<uint16_t>,
                                         kCodecOf<uint32_t>,
                                         kCodecOf<uint64_t>,
                                         kCodecOf<int8_t>,
                                         kCodecOf<int16_t>,
                                         kCodecOf<int32_t>,
                                         kCodecOf<int64_t>,
                                         kRawOnly,
                                         kRawOnly,
                                         kCodecOf<float>,
                                         kCodecOf<double>,
                                         {readBytesInto, nullptr}}};

void appendBytes(std::string& text, std::span<const std::byte> bytes) {
    uint32_t length = 0;
    std::memcpy(&length, bytes.data(), sizeof(length));
    const std::string value(reinterpret_cast<const char*>(bytes.data()) + sizeof(length), length);
    text += json(value).dump(-1, ' ', false, json::error_handler_t::replace);
}

// Reads an array and what lies in it, which must be nested as the shape or flat.
class Reader {
 public:
    Reader(const std::string& name, Datatype type, const Shape& shape)
        : m_name(name), m_type(type), m_shape(shape) {}

    std::string read(const json& data) {
        const bool isFlat = data.is_array() && (data.empty() || !data.front().is_array());
        const uint64_t count = countElements(m_shape).value_or(0);
        if (isFlat) {
            requireSize(data, count);
            for (const json& each : data) readElement(each);
        } else {
            readLevel(data, 0);
        }
        return std::move(m_bytes);
    }

 private:
    [[noreturn]] void refuse(const std::string& why) const {
        throw Failure(Cause::kInvalid, "the data of input '" + m_name + "' " + why);
    }
    void requireSize(const json& data, uint64_t count) const {
        if (!data.is_array() || data.size() != count) {
            refuse("does not fit its shape " + toText(m_shape));
        }
    }
    void readLevel(const json& data, size_t level) {
        if (level == m_shape.size()) return readElement(data);
        requireSize(data, static_cast<uint64_t>(m_shape[level]));
        for (const json& each : data) readLevel(each, level + 1);
    }
    void readElement(const json& element) {
        if (!kCodecs[static_cast<size_t>(m_type)].read(m_bytes, element)) {
            refuse("has an element that is no " + std::string(infoOf(m_type).name));
        }
    }

    const std::string& m_name;
    const Datatype m_type;
    const Shape& m_shape;
    std::string m_bytes;
};

}  // namespace

std::string readJsonTensor(const json& data, const std::string& name, Datatype type,
                           const Shape& shape) {
    if (!infoOf(type).hasJson) {
        throw Failure(Cause::kInvalid, "input '" + name + "' has datatype " +
                                           std::string(infoOf(type).name) +
                                           ", which has no JSON form; send it as binary data");
    }
    return Reader(name, type, shape).read(data);
}

void appendJsonTensor(std::string& text, Datatype type, std::span<const std::byte> bytes) {
    const size_t fixed = infoOf(type).bytes;
    text += '[';
    for (size_t at = 0; at < bytes.size();) {
        if (at > 0) text += ',';
        if (fixed > 0) {
            kCodecs[static_cast<size_t>(type)].append(text, bytes.data() + at);
            at += fixed;
        } else {
            const auto rest = bytes.subspan(at);
            appendBytes(text, rest);
            at += measureBytes(rest, 1).value_or(rest.size());
        }
    }
    text += ']';
}

}  // namespace kelm::gateway
