#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kelm::ctl {

// Numbers as the page shows them, with narrow spaces between thousands: "12 345.6".
std::string showNumber(double value, int decimals);
std::string showCount(uint64_t count);
// In MB of 1,048,576 bytes.
std::string showMegabytes(uint64_t bytes);
// "20:45:07 UTC"; and as machines read it, "2026-11-22T20:45:07Z".
std::string showTime(std::chrono::system_clock::time_point time);
std::string showMachineTime(std::chrono::system_clock::time_point time);

}  // namespace kelm::ctl
