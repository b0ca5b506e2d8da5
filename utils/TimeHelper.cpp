#include "utils/TimeHelper.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "utils/StringHelper.h"

bool TimeHelper::localtimeSafe(const time_t* time, tm* result) {
    return time != nullptr && result != nullptr && ::localtime_r(time, result) != nullptr;
}

namespace kelm {

namespace {

// The whole seconds of `point` as HH:MM:SS, and the microseconds of its second divided by `unit` in
// `digits` digits.
std::string formatWithFraction(std::chrono::system_clock::time_point point, long unit, int digits) {
    using std::chrono::microseconds;
    const auto micros =
        std::chrono::duration_cast<microseconds>(point.time_since_epoch()).count() % 1000000;
    std::array<char, 16> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%0*ld", digits,
                  static_cast<long>(micros) / unit);
    return putTime(point, "%T") + fraction.data();
}

}  // namespace

// Nothing for a format that gives more than 23 characters.
std::string putTime(std::chrono::system_clock::time_point point, const char* format) {
    const time_t seconds = std::chrono::system_clock::to_time_t(point);
    tm parts{};
    if (!TimeHelper::localtimeSafe(&seconds, &parts)) return {};
    std::array<char, 24> text{};
    const size_t length = std::strftime(text.data(), text.size(), format, &parts);
    return std::string(text.data(), length);
}

std::string getCurrentTime() {
    return formatWithFraction(std::chrono::system_clock::now(), 100, 4);
}

std::string formatTimeMilli(std::chrono::system_clock::time_point point) {
    return formatWithFraction(point, 1000, 3);
}

// Rounded up: a rest below a millisecond would become a poll with no time, again and again.
std::chrono::milliseconds timeUntil(std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    const auto left = deadline - std::chrono::steady_clock::now();
    return std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
}

// Clocks of displays may be set back; a time below zero shows as none. Hours may go beyond 24.
std::string formatDurationString(std::chrono::seconds duration) {
    const int64_t seconds = std::max<int64_t>(duration.count(), 0);
    return StringHelper::format("%02ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60,
                                seconds % 60);
}

}  // namespace kelm
