#include "tools/kelmctl/export/page/PageNumbers.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

namespace kelm::ctl {

namespace {

std::tm toUtc(std::chrono::system_clock::time_point time) {
    return fmt::gmtime(std::chrono::system_clock::to_time_t(time));
}

}  // namespace

std::string showNumber(double value, int decimals) {
    constexpr size_t kGroup = 3;
    constexpr const char* kNarrowSpace = "\u202f";
    std::string text = fmt::format("{:.{}f}", value, decimals);
    const size_t first = text.starts_with('-') ? 1 : 0;
    for (size_t at = text.find('.') == std::string::npos ? text.size() : text.find('.');
         at > first + kGroup;) {
        at -= kGroup;
        text.insert(at, kNarrowSpace);
    }
    return text;
}

std::string showCount(uint64_t count) { return showNumber(static_cast<double>(count), 0); }

std::string showMegabytes(uint64_t bytes) {
    constexpr double kMegabyte = 1048576.0;
    return showNumber(static_cast<double>(bytes) / kMegabyte, 0) + " MB";
}

std::string showTime(std::chrono::system_clock::time_point time) {
    return fmt::format("{:%H:%M:%S} UTC", toUtc(time));
}

std::string showMachineTime(std::chrono::system_clock::time_point time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", toUtc(time));
}

}  // namespace kelm::ctl
