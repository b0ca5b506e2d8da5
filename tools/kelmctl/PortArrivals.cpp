#include "tools/kelmctl/PortArrivals.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

std::map<std::string, int> countArrivals(const std::string& log, unsigned long vendor,
                                         unsigned long product, uint64_t since) {
    const std::string announced =
        fmt::format(": New USB device found, idVendor={:04x}, idProduct={:04x}", vendor, product);
    std::map<std::string, int> counts;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        // Priority, number, time and flags, then the text: "6,1342,98765432,-;usb 1-1.2: New ..."
        unsigned long long time = 0;
        std::array<char, 32> port{};
        const int fields =
            std::sscanf(line.c_str(), "%*u,%*u,%llu,%*[^;];usb %31[0-9.-]:", &time, port.data());
        if (fields != 2 || time < since || line.find(announced) == line.npos) continue;
        std::string name = port.data();
        std::ranges::replace(name, '-', '.');
        ++counts[name];
    }
    return counts;
}

// Each read gives one line with what belongs to it.
std::optional<std::string> readKernelLog() {
    const UniqueFd file(::open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file) return std::nullopt;
    std::string log;
    std::array<char, 8192> buffer;
    while (true) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count > 0) {
            log.append(buffer.data(), static_cast<size_t>(count));
        } else if (count == 0 || (errno != EPIPE && errno != EINTR)) {
            // EPIPE: lines that were next have been written over, and later ones follow.
            return count < 0 && errno == EPERM ? std::nullopt : std::optional(log);
        }
    }
}

}  // namespace kelm::ctl
