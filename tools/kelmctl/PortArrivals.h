#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kelm::ctl {

// How often the kernel has announced a USB device of this vendor and product, by ports as the
// service names them ("1.2" for the kernel's "1-2"), in its log from that moment on, in
// microseconds as the log counts them. A line that does not look like one of that log is passed
// over.
std::map<std::string, int> countArrivals(const std::string& log, unsigned long vendor,
                                         unsigned long product, uint64_t since);

// What is left of the kernel's log; nothing if this user may not read it.
std::optional<std::string> readKernelLog();

}  // namespace kelm::ctl
