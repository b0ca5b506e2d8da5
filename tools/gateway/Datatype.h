#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace kelm::gateway {

// The protocol's types of elements.
enum class Datatype : uint8_t {
    kBool,
    kUint8,
    kUint16,
    kUint32,
    kUint64,
    kInt8,
    kInt16,
    kInt32,
    kInt64,
    kFp16,
    kBf16,
    kFp32,
    kFp64,
    kBytes
};

struct DatatypeInfo {
    std::string_view name;
    size_t bytes;  // of an element; 0: each has a length of its own
    bool hasJson;  // otherwise raw only
};

const DatatypeInfo& infoOf(Datatype type);
std::optional<Datatype> findDatatype(std::string_view name);

// How many bytes so many elements of BYTES take at the head of `bytes`: each is a length of 4
// bytes, the lowest first, and as many bytes. Nothing if they are not all there.
std::optional<size_t> measureBytes(std::span<const std::byte> bytes, uint64_t count);

}  // namespace kelm::gateway
