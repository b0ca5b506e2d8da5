#pragma once

#include <chrono>
#include <ctime>
#include <string>

class TimeHelper {
 public:
    // localtime_r; false if an argument is null.
    static bool localtimeSafe(const time_t* time, tm* result);
};

namespace kelm {

// All in local time.
// strftime of the point into at most 23 characters.
std::string putTime(std::chrono::system_clock::time_point point, const char* format);
// Now as HH:MM:SS, a point and four digits of the second.
std::string getCurrentTime();
// HH:MM:SS, a point and three digits of milliseconds.
std::string formatTimeMilli(std::chrono::system_clock::time_point point);

// What is left until the deadline, none once it has passed. Rounded up: a wait by a rest below a
// millisecond would otherwise become a busy loop.
std::chrono::milliseconds timeUntil(std::chrono::steady_clock::time_point deadline);

// Hours, minutes and seconds in two digits each, the hours in more if need be. A time below zero,
// as of a clock that was set back, counts as none.
std::string formatDurationString(std::chrono::seconds duration);

}  // namespace kelm
