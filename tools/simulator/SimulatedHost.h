#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "tools/simulator/UsbBus.h"

namespace kelm::simulator {

// A machine with simulated accelerators for one service: a mock bus, and the directory by which the
// simulated libraries are steered and heard. A device that is reset leaves the bus and comes back.
//
// Threads: one at a time; its process runs with libumockdev-preload.so.0 preloaded.
class SimulatedHost : public NonCopyable {
 public:
    static constexpr int kVendor = 0x7c52;
    static constexpr int kProduct = 0xe19a;

    // The directory is made if it is not there. Devices come back so long after a reset; below 0
    // they never do.
    explicit SimulatedHost(std::string directory,
                           std::chrono::milliseconds returnAfter = std::chrono::milliseconds(100));

    void plug(const std::string& name, int subclass = 0);
    // False if no such device is there.
    bool unplug(const std::string& name);
    // Replaces the control file.
    void order(const std::string& lines);
    // The events since the last call. Devices leave and come back only here, so call it often.
    std::vector<std::string> takeEvents();

    // What the service needs in its environment, as NAME=value; `libraries` is the directory of the
    // simulated libraries.
    std::vector<std::string> environment(const std::string& libraries) const;

 private:
    using Clock = std::chrono::steady_clock;

    void replaceFile(const std::string& name, const std::string& text) const;
    void writeBus() const;
    // The event without the address.
    std::string takeReset(const std::string& event);
    void bringBack();

    const std::string m_directory;
    const std::chrono::milliseconds m_returnAfter;
    UsbBus m_bus;
    int m_lastAddress = 0;
    std::map<std::string, int> m_addresses;  // of what is plugged in
    std::map<std::string, int> m_subclasses;
    std::map<std::string, Clock::time_point> m_away;  // after a reset, with the time of return
    size_t m_eventsRead = 0;                          // bytes
};

}  // namespace kelm::simulator
