#include "tools/gateway/RequestRecord.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <random>

namespace kelm::gateway {

std::string pickRequestId(std::string_view given) {
    constexpr size_t kMost = 128;
    const auto isVisible = [](char each) { return each > ' ' && each < '\x7f'; };
    if (!given.empty() && given.size() <= kMost && std::ranges::all_of(given, isVisible)) {
        return std::string(given);
    }
    // Two parts: the process, and the request in it.
    static const uint64_t process = [] {
        std::random_device device;
        return uint64_t{device()} << 32 | device();
    }();
    static std::atomic<uint64_t> last{0};  // atomic: a count, which guards nothing else
    return fmt::format("{:016x}-{:x}", process, ++last);
}

}  // namespace kelm::gateway
