#include "tools/gateway/Datatype.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kelm::gateway {

namespace {

constexpr std::array<DatatypeInfo, 14> kInfos{{{"BOOL", 1, true},
                                               {"UINT8", 1, true},
                                               {"UINT16", 2, true},
                                               {"UINT32", 4, true},
                                               {"UINT64", 8, true},
                                               {"INT8", 1, true},
                                               {"INT16", 2, true},
                                               {"INT32", 4, true},
                                               {"INT64", 8, true},
                                               {"FP16", 2, false},
                                               {"BF16", 2, false},
                                               {"FP32", 4, true},
                                               {"FP64", 8, true},
                                               {"BYTES", 0, true}}};
static_assert(kInfos.size() == static_cast<size_t>(Datatype::kBytes) + 1);

}  // namespace

const DatatypeInfo& infoOf(Datatype type) { return kInfos[static_cast<size_t>(type)]; }

std::optional<Datatype> findDatatype(std::string_view name) {
    const auto* const found = std::ranges::find(kInfos, name, &DatatypeInfo::name);
    if (found == kInfos.end()) return std::nullopt;
    return static_cast<Datatype>(found - kInfos.begin());
}

std::optional<size_t> measureBytes(std::span<const std::byte> bytes, uint64_t count) {
    size_t used = 0;
    for (uint64_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (bytes.size() - used < sizeof(length)) return std::nullopt;
        std::memcpy(&length, bytes.data() + used, sizeof(length));
        used += sizeof(length);
        if (bytes.size() - used < length) return std::nullopt;
        used += length;
    }
    return used;
}

}  // namespace kelm::gateway
