#include "tools/gateway/grpc/Contents.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

namespace {

using inference::InferTensorContents;

// The fields, whose names the generator gives.
struct Bools {
    static const auto& of(const InferTensorContents& all) { return all.bool_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_bool_contents(); }
};
struct Ints {
    static const auto& of(const InferTensorContents& all) { return all.int_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_int_contents(); }
};
struct Int64s {
    static const auto& of(const InferTensorContents& all) { return all.int64_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_int64_contents(); }
};
struct Uints {
    static const auto& of(const InferTensorContents& all) { return all.uint_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_uint_contents(); }
};
struct Uint64s {
    static const auto& of(const InferTensorContents& all) { return all.uint64_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_uint64_contents(); }
};
struct Floats {
    static const auto& of(const InferTensorContents& all) { return all.fp32_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_fp32_contents(); }
};
struct Doubles {
    static const auto& of(const InferTensorContents& all) { return all.fp64_contents(); }
    static auto& of(InferTensorContents& all) { return *all.mutable_fp64_contents(); }
};

template <class T>
void put(std::string& bytes, T value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

// The number of elements, or nothing if one is no value of the type.
template <class T, class Field>
std::optional<size_t> read(std::string& bytes, const InferTensorContents& contents) {
    const auto& field = Field::of(contents);
    bytes.reserve(sizeof(T) * static_cast<size_t>(field.size()));
    for (const auto each : field) {
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
            if (!std::in_range<T>(each)) return std::nullopt;
        }
        put(bytes, static_cast<T>(each));
    }
    return static_cast<size_t>(field.size());
}

template <class T, class Field>
void append(InferTensorContents& contents, std::span<const std::byte> bytes) {
    auto& field = Field::of(contents);
    field.Reserve(static_cast<int>(bytes.size() / sizeof(T)));
    for (; bytes.size() >= sizeof(T); bytes = bytes.subspan(sizeof(T))) {
        // A byte that is neither 0 nor 1 is no bool yet.
        std::conditional_t<std::is_same_v<T, bool>, uint8_t, T> value{};
        std::memcpy(&value, bytes.data(), sizeof(T));
        field.Add(static_cast<T>(value));
    }
}

std::optional<size_t> readTexts(std::string& bytes, const InferTensorContents& contents) {
    for (const std::string& each : contents.bytes_contents()) {
        put(bytes, static_cast<uint32_t>(each.size()));
        bytes += each;
    }
    return static_cast<size_t>(contents.bytes_contents_size());
}

void appendTexts(InferTensorContents& contents, std::span<const std::byte> bytes) {
    while (const auto size = measureBytes(bytes, 1)) {
        const auto text = bytes.subspan(sizeof(uint32_t), *size - sizeof(uint32_t));
        contents.add_bytes_contents(text.data(), text.size());
        bytes = bytes.subspan(*size);
    }
}

struct FieldCodec {
    std::optional<size_t> (*read)(std::string& bytes, const InferTensorContents& contents);
    void (*append)(InferTensorContents& contents, std::span<const std::byte> bytes);
};
template <class T, class Field>
constexpr FieldCodec fieldCodec() {
    return {read<T, Field>, append<T, Field>};
}
// In the order of the datatypes; those without are raw only.
constexpr std::array<FieldCodec, 14> kFieldCodecs{fieldCodec<bool, Bools>(),
                                                  fieldCodec<uint8_t, Uints>(),
                                                  fieldCodec<uint16_t, Uints>(),
                                                  fieldCodec<uint32_t, Uints>(),
                                                  fieldCodec<uint64_t, Uint64s>(),
                                                  fieldCodec<int8_t, Ints>(),
                                                  fieldCodec<int16_t, Ints>(),
                                                  fieldCodec<int32_t, Ints>(),
                                                  fieldCodec<int64_t, Int64s>(),
                                                  {},
                                                  {},
                                                  fieldCodec<float, Floats>(),
                                                  fieldCodec<double, Doubles>(),
                                                  {readTexts, appendTexts}};
static_assert(kFieldCodecs.size() == static_cast<size_t>(Datatype::kBytes) + 1);

}  // namespace

size_t countContents(const InferTensorContents& contents) {
    return static_cast<size_t>(contents.bool_contents_size()) + contents.int_contents_size() +
           contents.int64_contents_size() + contents.uint_contents_size() +
           contents.uint64_contents_size() + contents.fp32_contents_size() +
           contents.fp64_contents_size() + contents.bytes_contents_size();
}

std::string readContents(const InferTensorContents& contents, const std::string& name,
                         Datatype type) {
    const std::string typeName(infoOf(type).name);
    const FieldCodec& codec = kFieldCodecs[static_cast<size_t>(type)];
    if (codec.read == nullptr) {
        throw Failure(Cause::kInvalid, "input '" + name + "' has datatype " + typeName +
                                           ", which has no contents; send it raw");
    }
    std::string bytes;
    const auto count = codec.read(bytes, contents);
    if (count != countContents(contents)) {
        throw Failure(Cause::kInvalid, "the contents of input '" + name + "' are not all " +
                                           typeName + " in the field of that type");
    }
    return bytes;
}

void appendContents(InferTensorContents& contents, Datatype type,
                    std::span<const std::byte> bytes) {
    kFieldCodecs[static_cast<size_t>(type)].append(contents, bytes);
}

}  // namespace kelm::gateway
